#include "Vorrel/Shell/SingleInstanceLock.h"

#include "Support/FileLock.h"

#include <sys/stat.h>

namespace korvane {

namespace {

/// Creates `folder`, for the user alone, with the folders above it. What fails shows when the lock is opened.
void createFolders(const std::string &folder)
{
    for (auto slash = folder.find('/', 1); slash != std::string::npos; slash = folder.find('/', slash + 1))
        ::mkdir(folder.substr(0, slash).c_str(), 0700);
    ::mkdir(folder.c_str(), 0700);
}

std::string lockPath(const std::string &folder) { return folder + "/korvane.lock"; }

} // namespace

bool SingleInstanceLock::acquire(const UserFolders &folders)
{
    const auto folder = folders.korvane();
    if (!folder)
        return true;
    createFolders(*folder);
    FileLock::Failure failure{};
    if (auto lock = FileLock::tryTake(lockPath(*folder), &failure)) {
        lock->keepForever();
        return true;
    }
    return failure == FileLock::Failure::unavailable;
}

bool SingleInstanceLock::isHeld(const UserFolders &folders)
{
    const auto folder = folders.korvane();
    return folder && FileLock::isTaken(lockPath(*folder));
}

} // namespace korvane
