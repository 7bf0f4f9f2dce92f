#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

/// Names as they stand on real desktops, made from word lists by a fixed seed.
namespace korvane::bench {

struct NamedCommand {
    std::string title;
    std::array<std::string, 6> keywords;
};

/// The same commands for the same `count` on every machine. Exactly one contains "zephyr", none contains "qxv".
std::vector<NamedCommand> catalogue(std::size_t count);

} // namespace korvane::bench
