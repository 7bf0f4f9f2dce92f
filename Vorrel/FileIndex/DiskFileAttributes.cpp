#include "Vorrel/FileIndex/DiskFileAttributes.h"

#include <cerrno>
#include <sys/stat.h>

namespace korvane {

DiskFileAttributes::DiskFileAttributes(Stat stat) : stat(std::move(stat)) { }

int DiskFileAttributes::followingAllLinks(const std::string &path, struct stat &facts)
{
    return ::stat(path.c_str(), &facts) == 0 ? 0 : errno;
}

AttributeOutcome DiskFileAttributes::attributes(const std::string &path) const
{
    using enum AttributeOutcome::State;
    struct stat facts { };
    if (const int failure = stat(path, facts))
        return {.state = failure == ENOENT || failure == ENOTDIR ? notFound : unavailable};
    return {.state = found,
        .isDirectory = S_ISDIR(facts.st_mode),
        .size = static_cast<long long>(facts.st_size),
        .modified = static_cast<double>(facts.st_mtime)};
}

} // namespace korvane
