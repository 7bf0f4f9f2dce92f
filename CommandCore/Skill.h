#pragma once

#include "CommandCore/JSONValue.h"

#include <string>

namespace korvane {

/// Instructions that somebody wrote for any assistant, read from the disk. Untrusted.
struct Skill {
    std::string name;
    std::string description;
    std::string instructions;
    std::string path; ///< What identifies it.
    const std::string &id() const { return path; }

    /// An object whose keys are the field names. A path that is not UTF-8 is shown with U+FFFD, and its bytes are added in
    /// base64 as `pathBytes`.
    JSONValue json() const;
    bool operator==(const Skill &) const = default;
};

} // namespace korvane
