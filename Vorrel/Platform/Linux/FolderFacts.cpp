#include "Vorrel/Platform/Linux/FolderFacts.h"

#include "Support/Descriptor.h"
#include "Vorrel/Platform/Linux/LinkedFacts.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <dirent.h>
#include <fcntl.h>

namespace korvane {

namespace {

constexpr double printed = 1e-4; ///< Seconds that a time may lose on its way through the store, which prints it.

bool isSameFile(const IndexedFile &indexed, const struct stat &status)
{
    return !S_ISDIR(status.st_mode) && !indexed.isDirectory && indexed.size == status.st_size
        && isSameTime(indexed.modified, seconds(status.st_mtim));
}

} // namespace

std::string pathIn(const std::string &folder, std::string_view name)
{
    std::string path = folder == "/" ? std::string() : folder;
    path += '/';
    return path += name;
}

bool isBelow(const std::string &path, const std::string &folder)
{
    if (folder == "/")
        return path.size() > 1;
    return path.size() > folder.size() && path[folder.size()] == '/' && path.starts_with(folder);
}

bool isAtOrBelow(const std::string &path, const std::string &folder) { return path == folder || isBelow(path, folder); }

std::string endOf(const std::string &folder) { return (folder == "/" ? std::string() : folder) + char('/' + 1); }

std::optional<struct stat> statusOf(const std::string &path)
{
    struct stat status { };
    return ::lstat(path.c_str(), &status) == 0 ? std::optional(status) : std::nullopt;
}

bool isGone(const std::string &path)
{
    struct stat status { };
    return ::lstat(path.c_str(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

std::string highestGone(std::string path)
{
    for (std::string parent = deletingLastPathComponent(path); isGone(parent); parent = deletingLastPathComponent(path))
        path = std::move(parent);
    return path;
}

double seconds(const timespec &time) { return double(time.tv_sec) + double(time.tv_nsec) / 1e9; }

bool isWholeSecond(double indexed) { return indexed - std::floor(indexed) < printed; }

bool isSameTime(double indexed, double onDisk)
{
    return isWholeSecond(indexed) ? std::floor(onDisk) == std::floor(indexed) : std::abs(onDisk - indexed) < printed;
}

bool isTrueTo(const IndexedFile &indexed, const struct stat &status, const MountPoints &mounts)
{
    struct stat facts = status;
    if (S_ISLNK(status.st_mode) && linkedFacts(indexed.path, mounts, facts) != 0)
        facts = status;
    return S_ISDIR(facts.st_mode) ? indexed.isDirectory : isSameFile(indexed, facts);
}

std::optional<std::vector<FolderEntry>> namesIn(const std::string &folder, bool follows)
{
    const Descriptor opened(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | (follows ? 0 : O_NOFOLLOW)));
    std::vector<FolderEntry> entries;
    if (!opened || !readFolder(opened.get(), entries))
        return std::nullopt;
    return entries;
}

bool isFolder(const std::string &folder, const FolderEntry &entry)
{
    if (entry.type != DT_UNKNOWN)
        return entry.type == DT_DIR;
    const auto status = statusOf(pathIn(folder, entry.name));
    return status && S_ISDIR(status->st_mode);
}

Territory::Territory(std::vector<std::string> roots, std::vector<std::string> skippedPrefixes, const MountPoints &mounts) :
    skippedPrefixes(std::move(skippedPrefixes)), allMounts(mounts)
{
    for (auto &root : roots) {
        auto below = mounts.below(root);
        places.push_back({std::move(root), std::move(below)});
    }
}

bool Territory::contains(const std::string &path) const
{
    const auto holds = [&path](const Place &place) { return isAtOrBelow(path, place.root) && !place.mounts.covers(path); };
    const auto skips = [&path](const std::string &prefix) { return isAtOrBelow(path, prefix); };
    return std::any_of(places.begin(), places.end(), holds)
        && std::none_of(skippedPrefixes.begin(), skippedPrefixes.end(), skips);
}

bool Territory::isRoot(const std::string &path) const
{
    return std::any_of(places.begin(), places.end(), [&path](const Place &place) { return place.root == path; });
}

std::vector<std::string> Territory::outermostRoots() const
{
    std::vector<std::string> outermost;
    for (const Place &place : places) {
        const auto encloses = [&place](const Place &other) { return isBelow(place.root, other.root); };
        if (std::none_of(places.begin(), places.end(), encloses))
            outermost.push_back(place.root);
    }
    return outermost;
}

} // namespace korvane
