#pragma once

#include <string>

/// Numbers and dates as people write them. `language` is a BCP 47 tag, as `L10n::languageInUse` gives it. Any thread.
namespace korvane {

/// A whole number with the separators of the language: "12,345".
std::string formattedCount(long long count, const std::string &language);

/// A size in decimal units, as file managers show it: "Zero KB", "1 byte", "999 bytes", "4 KB", "1.2 MB",
/// "3.25 GB". Bytes and KB are whole, MB have at most one digit behind the point, larger units two.
std::string formattedByteCount(long long bytes, const std::string &language);

/// A point in time with a short month and without seconds, in the zone of this machine: "Nov 21, 2026, 10:45 AM".
/// `date` is in seconds since 1970.
std::string formattedDate(double date, const std::string &language);

/// A point in time as ISO 8601 has it, in UTC: "2026-11-21T18:05:37Z". `date` is in seconds since 1970.
std::string iso8601(double date);

} // namespace korvane
