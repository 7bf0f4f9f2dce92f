#pragma once

#include "Support/Descriptor.h"

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace korvane {

/// The mount points that the index stays out of when they lie below a root: those of network file systems, of
/// file systems that are no store of files (proc and its like), and of removable devices. Other file systems below a
/// root are part of it. Immutable; any thread.
class MountPoints {
public:
    /// Whether a block device, by its two numbers, can be taken out.
    using IsRemovable = std::function<bool(unsigned major, unsigned minor)>;

    /// Those of this process, now. Blocks for as long as the kernel takes to print its table; asks no file system.
    static MountPoints read();
    /// Those of a table in the format of /proc/PID/mountinfo (proc(5)).
    MountPoints(std::string_view mountInfo, const IsRemovable &isRemovable);

    /// These without those that `root` is or lies below: who walks a root wants what it is on.
    MountPoints below(std::string_view root) const;

    /// Whether `path` is one of them. Links in the path are not followed.
    bool excludes(std::string_view path) const;
    /// Whether one of them lies below `folder`, by its text alone.
    bool someBelow(std::string_view folder) const;
    /// Whether `path` is one of them or lies below one, by its text alone.
    bool covers(std::string_view path) const;

private:
    MountPoints() = default;

    std::vector<std::string> excluded; // sorted
};

/// Those of this process at every moment, read anew only when something was mounted or unmounted. Any thread; blocks as
/// `read` does.
class PresentMountPoints {
public:
    std::shared_ptr<const MountPoints> get();

private:
    bool haveChanged();

    std::mutex mutex; // guards the rest
    Descriptor table; ///< Of which the kernel tells when it changes.
    std::shared_ptr<const MountPoints> last;
};

} // namespace korvane
