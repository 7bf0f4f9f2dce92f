#pragma once

#include "CommandCore/IndexedFile.h"
#include "Vorrel/Platform/Linux/FolderReader.h"
#include "Vorrel/Platform/Linux/MountPoints.h"

#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

/// What the disk says of folders, beside what an index holds of them. Everything that asks the disk blocks.
namespace korvane {

/// The path of `name` in `folder`.
std::string pathIn(const std::string &folder, std::string_view name);
bool isBelow(const std::string &path, const std::string &folder);
bool isAtOrBelow(const std::string &path, const std::string &folder);
/// The first text in byte order that comes after every path below `folder`.
std::string endOf(const std::string &folder);

/// What is at the path itself, be it a link.
std::optional<struct stat> statusOf(const std::string &path);
/// Whether the disk says for certain that nothing is there.
bool isGone(const std::string &path);
/// The highest folder that is gone with a path that is, or the path itself: the one of which the disk can still say that it
/// is gone, since what it was in is there.
std::string highestGone(std::string path);
/// Seconds since 1970.
double seconds(const timespec &time);

/// Whether an indexed time is that of the disk; to the second when the index holds whole seconds.
bool isSameTime(double indexed, double onDisk);
/// Whether an indexed time has only whole seconds, so that others may hide behind it.
bool isWholeSecond(double indexed);
/// Whether the index holds what the disk has: the kind, and of files size and time. `status` is that of the path itself; a
/// link is compared as `linkedFacts` tells of it, or by itself when it leads nowhere.
bool isTrueTo(const IndexedFile &indexed, const struct stat &status, const MountPoints &mounts);

/// The names in a folder; nothing when it cannot be read to its end. A link is followed only on demand.
std::optional<std::vector<FolderEntry>> namesIn(const std::string &folder, bool follows);
/// Whether an entry of `folder` is a folder and no link to one.
bool isFolder(const std::string &folder, const FolderEntry &entry);

/// What is indexed: what lies at or below a root, is not skipped, and is on no mount that is left out below a root.
/// Immutable; asks no disk.
class Territory {
public:
    Territory(std::vector<std::string> roots, std::vector<std::string> skippedPrefixes, const MountPoints &mounts);

    bool contains(const std::string &path) const;
    bool isRoot(const std::string &path) const;
    /// The roots that lie below no other.
    std::vector<std::string> outermostRoots() const;
    const MountPoints &mounts() const { return allMounts; }

private:
    struct Place {
        std::string root;
        MountPoints mounts;
    };
    std::vector<Place> places;
    std::vector<std::string> skippedPrefixes;
    MountPoints allMounts;
};

} // namespace korvane
