#include "Vorrel/Shell/SingleInstanceLock.h"

#include "Support/Descriptor.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace korvane {

namespace {

// The descriptor is never closed: the system drops the lock when the process ends, also in a crash.
int lockDescriptor = -1;

/// Creates `folder`, for the user alone, with the folders above it. What fails shows when the lock is opened.
void createFolders(const std::string &folder)
{
    for (auto slash = folder.find('/', 1); slash != std::string::npos; slash = folder.find('/', slash + 1))
        ::mkdir(folder.substr(0, slash).c_str(), 0700);
    ::mkdir(folder.c_str(), 0700);
}

/// Open for reading and writing, and closed in every program that this one starts: a child must not keep the lock.
Descriptor openLock(const std::string &path)
{
    int number;
    do
        number = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    while (number < 0 && errno == EINTR);
    return Descriptor(number);
}

bool takeLock(const Descriptor &file)
{
    int result;
    do
        result = ::flock(file.get(), LOCK_EX | LOCK_NB);
    while (result != 0 && errno == EINTR);
    return result == 0;
}

} // namespace

bool SingleInstanceLock::acquire(const UserFolders &folders)
{
    const auto folder = folders.korvane();
    if (!folder)
        return true;
    createFolders(*folder);
    Descriptor file = openLock(*folder + "/korvane.lock");
    if (!file)
        return true;
    if (!takeLock(file))
        return false;
    lockDescriptor = file.release();
    return true;
}

} // namespace korvane
