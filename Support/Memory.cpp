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

} // namespace korvane
