#include "tests/Vorrel/FileIndex/HangingFolder.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/fuse.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/uio.h>
#include <unistd.h>

namespace korvane::test {

HangingFolder::HangingFolder()
{
    device.reset(::open("/dev/fuse", O_RDWR | O_CLOEXEC));
    if (!device)
        return;
    const std::string options = "fd=" + std::to_string(device.get()) + ",rootmode=40000,user_id=0,group_id=0";
    int ends[2];
    // Among this process's own mounts, so that nothing stays behind when it is killed.
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0
        || ::mount("korvane-test", disk.path.c_str(), "fuse", MS_NOSUID | MS_NODEV, options.c_str()) != 0
        || ::pipe2(ends, O_CLOEXEC) != 0) {
        device.reset();
        return;
    }
    wakened.reset(ends[0]);
    wake.reset(ends[1]);
    server = std::thread([this] { serve(); });
}

HangingFolder::~HangingFolder()
{
    if (!server.joinable())
        return;
    letGo();
    ::umount2(disk.path.c_str(), MNT_DETACH);
}

void HangingFolder::letGo()
{
    wake.reset();
    if (server.joinable())
        server.join();
    device.reset(); // the system gives up what was asked
}

void HangingFolder::serve()
{
    alignas(fuse_in_header) std::array<char, FUSE_MIN_READ_BUFFER + 4096> request;
    for (;;) {
        std::array<pollfd, 2> watched{{{device.get(), POLLIN, 0}, {wakened.get(), POLLIN, 0}}};
        if (::poll(watched.data(), watched.size(), -1) < 0 || watched[1].revents)
            return;
        const ssize_t length = ::read(device.get(), request.data(), request.size());
        if (length < static_cast<ssize_t>(sizeof(fuse_in_header)))
            continue;
        fuse_in_header header;
        std::memcpy(&header, request.data(), sizeof header);
        const std::string name(
            request.data() + sizeof header, ::strnlen(request.data() + sizeof header, size_t(length) - sizeof header));
        if (header.opcode == FUSE_INIT) {
            fuse_init_out accepted{};
            accepted.major = FUSE_KERNEL_VERSION;
            accepted.minor = FUSE_KERNEL_MINOR_VERSION;
            accepted.max_write = 4096;
            answer(header.unique, 0, &accepted, sizeof accepted);
        } else if (header.opcode == FUSE_LOOKUP && name == "hangs") {
            ++unanswered;
        } else if (header.opcode == FUSE_LOOKUP) {
            answer(header.unique, name == "stale" ? -ESTALE : name == "broken" ? -EIO : -ENOENT);
        } else if (header.opcode != FUSE_FORGET && header.opcode != FUSE_INTERRUPT) {
            answer(header.unique, -ENOSYS);
        }
    }
}

void HangingFolder::answer(std::uint64_t question, int error, const void *body, std::size_t size) const
{
    fuse_out_header header{.len = static_cast<std::uint32_t>(sizeof header + size), .error = error, .unique = question};
    const std::array<iovec, 2> parts{{{&header, sizeof header}, {const_cast<void *>(body), size}}};
    [[maybe_unused]] const ssize_t written = ::writev(device.get(), parts.data(), size ? 2 : 1);
}

} // namespace korvane::test
