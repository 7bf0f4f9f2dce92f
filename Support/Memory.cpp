#include "Support/Memory.h"

#include <cstdlib>

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace korvane {

void returnFreeMemory()
{
#ifdef __GLIBC__
    ::malloc_trim(0);
#endif
}

void wipe(std::string &secret)
{
    for (volatile char &byte : secret)
        byte = 0;
    secret.clear();
}

} // namespace korvane
