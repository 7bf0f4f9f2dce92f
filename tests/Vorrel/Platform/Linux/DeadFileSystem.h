#pragma once

#include "Support/Descriptor.h"

#include <fcntl.h>
#include <string>
#include <sys/mount.h>

namespace korvane::test {

/// A file system in user space whose program never answers, so that every question hangs until it is dropped.
class DeadFileSystem {
public:
    explicit DeadFileSystem(std::string path) : path(std::move(path)), device(::open("/dev/fuse", O_RDWR | O_CLOEXEC))
    {
        const std::string options = "fd=" + std::to_string(device.get()) + ",rootmode=40000,user_id=0,group_id=0";
        mounted = device && ::mount("dead", this->path.c_str(), "fuse", MS_NOSUID | MS_NODEV, options.c_str()) == 0;
    }
    ~DeadFileSystem()
    {
        device.reset(); // whoever hangs comes back with an error
        if (mounted)
            ::umount2(path.c_str(), MNT_DETACH);
    }

    const std::string path;
    Descriptor device;
    bool mounted = false;
};

} // namespace korvane::test
