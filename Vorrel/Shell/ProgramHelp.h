#pragma once

#include <optional>
#include <string>
#include <vector>

namespace korvane {

/// What `korvane` prints instead of starting: its usage for "--help", its version for "--version". Nothing for every other
/// command line. Needs neither a display nor a data folder.
std::optional<std::string> answerInsteadOfStarting(const std::vector<std::string> &arguments);

} // namespace korvane
