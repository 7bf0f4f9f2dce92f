#pragma once

#include <string>
#include <string_view>

namespace korvane {

/// Writes a file so that nobody ever sees a part of it, not even after a crash; one that was there is replaced once the new one
/// is whole. Blocks; any thread. Throws `std::system_error` when that failed; then nothing has changed.
void writeWholeFile(const std::string &path, std::string_view bytes);

} // namespace korvane
