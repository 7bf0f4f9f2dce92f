#include "Support/FileLock.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace korvane {

namespace {

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

/// Whether the kernel's list means the file by "major:minor:inode", the first two in hexadecimal; see
/// proc_locks(5). File systems without a device of their own may be numbered otherwise there than `stat` says.
bool names(const std::string &entry, const struct stat &status)
{
    unsigned majorNumber = 0, minorNumber = 0;
    unsigned long long inode = 0;
    if (std::sscanf(entry.c_str(), "%x:%x:%llu", &majorNumber, &minorNumber, &inode) != 3 || inode != status.st_ino)
        return false;
    const bool same = majorNumber == major(status.st_dev) && minorNumber == minor(status.st_dev);
    return same || (majorNumber == 0 && major(status.st_dev) == 0);
}

} // namespace

std::optional<FileLock> FileLock::tryTake(const std::string &path, Failure *failure)
{
    const auto refuse = [failure](Failure reason) {
        if (failure)
            *failure = reason;
        return std::nullopt;
    };
    Descriptor file = openLock(path);
    if (!file)
        return refuse(Failure::unavailable);
    if (!takeLock(file))
        return refuse(Failure::taken);
    return FileLock(std::move(file));
}

bool FileLock::isTaken(const std::string &path)
{
    struct stat status;
    if (::stat(path.c_str(), &status) != 0)
        return false;
    std::ifstream list("/proc/locks");
    for (std::string line; std::getline(list, line);) {
        // "1: FLOCK  ADVISORY  WRITE 4242 08:01:1234 0 EOF"; who waits has "->" behind the number.
        std::istringstream words(line);
        std::string number, kind, manner, access, process, file;
        if (words >> number >> kind >> manner >> access >> process >> file && kind == "FLOCK" && access == "WRITE"
            && names(file, status))
            return true;
    }
    return false;
}

} // namespace korvane
