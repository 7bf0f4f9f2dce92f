#include "CommandCore/JSONValue.h"

#include <cstdint>
#include <cstdlib>

using namespace korvane;

/// JSON of other programs: read or refused, and what was read is written so that it reads the same.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    try {
        const JSONValue value = JSONValue::parse(text);
        if (!(JSONValue::parse(value.encodedString()) == value))
            std::abort();
    } catch (const JSONError &) {
    }
    return 0;
}
