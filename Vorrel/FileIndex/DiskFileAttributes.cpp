#include "Vorrel/FileIndex/DiskFileAttributes.h"

#include <cerrno>
#include <sys/stat.h>

namespace korvane {

AttributeOutcome DiskFileAttributes::attributes(const std::string &path) const
{
    using enum AttributeOutcome::State;
    struct stat status;
    if (::stat(path.c_str(), &status) != 0)
        return {.state = errno == ENOENT || errno == ENOTDIR ? notFound : unavailable};
    return {.state = found,
        .isDirectory = S_ISDIR(status.st_mode),
        .size = static_cast<long long>(status.st_size),
        .modified = static_cast<double>(status.st_mtime)};
}

} // namespace korvane
