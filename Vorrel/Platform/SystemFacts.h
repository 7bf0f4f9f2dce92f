#pragma once

#include <string>

namespace korvane {

/// What a report says of the machine. Plain values.
struct SystemFacts {
    std::string version; ///< Name and version of the system.
    std::string architecture; ///< Of the processor, as the system names it.
    std::string language; ///< The user's first preferred language; "unknown" without one.
};

} // namespace korvane
