#include "Vorrel/FileIndex/FileScanner.h"

#include <algorithm>

namespace korvane {

bool isSkipped(const std::string &path, const std::vector<std::string> &prefixes)
{
    return std::ranges::any_of(prefixes, [&path](const std::string &prefix) {
        return path.starts_with(prefix) && (path.size() == prefix.size() || path[prefix.size()] == '/');
    });
}

} // namespace korvane
