#pragma once

#include <string>

namespace korvane {

/// Instructions that somebody wrote for any assistant, read from the disk. Untrusted.
struct Skill {
    std::string name;
    std::string description;
    std::string instructions;
    std::string path; ///< What identifies it.
    const std::string &id() const { return path; }
    bool operator==(const Skill &) const = default;
};

} // namespace korvane
