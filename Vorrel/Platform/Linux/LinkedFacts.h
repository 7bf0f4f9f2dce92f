#pragma once

#include "Vorrel/Platform/Linux/MountPoints.h"

#include <functional>
#include <string>
#include <sys/stat.h>

/// What the disk says of a path that may be a link. Everything here blocks.
namespace korvane {

/// Where a link is.
struct LinkPlace {
    int folder; ///< An open folder, or AT_FDCWD.
    const char *name; ///< Relative to it.
    std::string realFolder; ///< Without links, the folder that the link itself is in.
};

/// Puts the facts of a link's target in the place of its own. Nothing on `mounts` is asked, since that may hang: a link
/// that leads onto one of them, be it by way of other links, keeps its own facts. A way too long for the system to be
/// asked about is judged by its text from there on. 0, or the `errno` with which the system refuses to tell of the
/// target; `facts` are then the link's own.
int followLink(const LinkPlace &link, const MountPoints &mounts, struct stat &facts);

/// Whether a path leads onto one of `mounts`, be it by way of links. Asks nothing of what is on them.
bool leadsOnto(const MountPoints &mounts, const std::string &path);

/// What is at a path that is indexed, with its last link followed like that. `mounts` are all those of the process; what
/// the link itself is on is no reason to leave its target alone. 0 or an `errno`.
int linkedFacts(const std::string &path, const MountPoints &mounts, struct stat &facts);
/// The same, with the mounts of the moment at every call; on any thread.
std::function<int(const std::string &path, struct stat &facts)> presentLinkedFacts();

} // namespace korvane
