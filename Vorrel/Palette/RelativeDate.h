#pragma once

#include <string>

namespace korvane {

/// How long ago `date` was, in the user's language, with the names that the language has ("yesterday",
/// "last week") and whole words for the units. Both in seconds since 1970. Any thread.
std::string relativeDate(double date, double now);

} // namespace korvane
