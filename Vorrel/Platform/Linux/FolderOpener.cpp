#include "Vorrel/Platform/Linux/FolderOpener.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <linux/openat2.h>
#include <string>
#include <sys/syscall.h>

namespace korvane {

namespace {

constexpr int toRead = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr int toPass = O_PATH | O_DIRECTORY | O_CLOEXEC;

/// Opens `path`, which the system takes whole, as seen from `base`.
using OpenPart = Descriptor (*)(int base, const std::string &path, int flags);

Descriptor openFollowing(int base, const std::string &path, int flags) { return Descriptor(::openat(base, path.c_str(), flags)); }

Descriptor openWithoutLinks(int base, const std::string &path, int flags)
{
    open_how how{};
    how.flags = static_cast<unsigned>(flags);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    return Descriptor(static_cast<int>(::syscall(SYS_openat2, base, path.c_str(), &how, sizeof how)));
}

/// For one name only.
Descriptor openName(int base, const std::string &name, int flags) { return openFollowing(base, name, flags | O_NOFOLLOW); }

/// Goes to the end of `path` in parts of at most `longest` bytes, each of which ends before a slash.
Descriptor openInParts(int base, std::string_view path, std::size_t longest, OpenPart open)
{
    Descriptor reached;
    while (path.size() > longest) {
        const auto end = path.rfind('/', longest);
        if (end == std::string_view::npos || end == 0) {
            errno = ENAMETOOLONG;
            return {};
        }
        Descriptor next = open(base, std::string(path.substr(0, end)), toPass);
        if (!next)
            return {};
        reached = std::move(next);
        base = reached.get();
        path.remove_prefix(end + 1);
    }
    return open(base, std::string(path), toRead);
}

Descriptor openNameByName(int base, std::string_view path)
{
    Descriptor reached;
    for (auto slash = path.find('/'); slash != std::string_view::npos; slash = path.find('/')) {
        Descriptor next = openName(base, std::string(path.substr(0, slash)), toPass);
        if (!next)
            return {};
        reached = std::move(next);
        base = reached.get();
        path.remove_prefix(slash + 1);
    }
    return openName(base, std::string(path), toRead);
}

/// Older kernels, and some that confine programs, do not know the call that refuses links everywhere.
bool isUnknownCall(int error) { return error == ENOSYS || error == EPERM; }

} // namespace

Descriptor openFolder(std::string_view path) { return openInParts(AT_FDCWD, path, PATH_MAX - 1, openFollowing); }

Descriptor openFolderBelow(const Descriptor &base, std::string_view path)
{
    static std::atomic<bool> wholePaths = true;
    if (wholePaths.load(std::memory_order_relaxed)) {
        Descriptor opened = openInParts(base.get(), path, PATH_MAX - 1, openWithoutLinks);
        if (opened || !isUnknownCall(errno))
            return opened;
        if (openWithoutLinks(base.get(), ".", toPass))
            return opened; // known, and refused for this folder alone
        wholePaths = false;
    }
    return openNameByName(base.get(), path);
}

} // namespace korvane
