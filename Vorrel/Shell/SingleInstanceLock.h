#pragma once

#include "Vorrel/Platform/UserFolders.h"

namespace korvane {

/// Lets one process of the program run for each data folder.
class SingleInstanceLock {
public:
    /// True if this process may go on: it holds the lock for the rest of its life, or there is no place
    /// for one. False if another process holds it. The system drops the lock when the process ends,
    /// also in a crash. Call once, before threads exist.
    static bool acquire(const UserFolders &folders);
    /// Whether some process holds it: the program runs. Never takes the lock, not even for a moment.
    static bool isHeld(const UserFolders &folders);
};

} // namespace korvane
