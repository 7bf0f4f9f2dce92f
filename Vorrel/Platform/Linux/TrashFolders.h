#pragma once

#include <stop_token>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

/// The user's trash folders after the freedesktop trash specification. Blocking; any thread. Nothing here ever
/// follows a symbolic link or crosses into another file system below a trash folder.
namespace korvane {

/// Where to look for trash.
struct TrashPlaces {
    std::string dataHome; ///< Holds the home's trash. Empty: there is none.
    std::string mounts = "/proc/self/mountinfo"; ///< The table of mounted volumes, in the kernel's format.
    uid_t user = 0; ///< Whose trash.
};

/// The folders at which real, writable volumes of a mount table are mounted, in its order, each once.
std::vector<std::string> volumesOf(std::string_view mountTable);

/// Deletes for good what lies in the trash of the home and of every volume. False when anything stayed, or
/// when a trash folder is not what it should be; all that can go goes nevertheless. Ends early when `stop`
/// stops, as a failure.
bool emptyTrashFolders(const TrashPlaces &places, std::stop_token stop = {});

} // namespace korvane
