#pragma once

#include <string>

namespace korvane {

/// How long ago `date` was, with the names that the language has ("yesterday", "last week") and whole words
/// for the units. Both in seconds since 1970; `language` is a BCP 47 tag. Any thread.
std::string relativeDate(double date, double now, const std::string &language);

} // namespace korvane
