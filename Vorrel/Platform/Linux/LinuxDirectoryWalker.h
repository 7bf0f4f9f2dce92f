#pragma once

#include "Vorrel/Platform/DirectoryWalker.h"

#include <chrono>
#include <functional>
#include <string>

namespace korvane {

/// Walks folders on several threads, which share the folders still to visit.
///
/// Everything with a name is an entry: also links, FIFOs, sockets and devices. A link has the facts of its target, as
/// `stat` would tell them, unless the target cannot be asked or the way to it leads onto a mount that `MountPoints`
/// excludes; then it has its own. Such mounts are passed over below a root, but not the one that the root is on.
/// What vanishes under the walk is passed over. A folder that is replaced by a link under the walk is not followed.
///
/// Takes at most a quarter of the file descriptors that the process may open, though always three; when others have
/// taken all, it waits for some, and ends as unreadable when none come.
class LinuxDirectoryWalker final : public DirectoryWalker {
public:
    /// Called with each folder, the root included, just before it is read, from several threads at once.
    using Entering = std::function<void(const std::string &folder)>;

    /// More threads than processors, since on a cold disk they mostly wait.
    static constexpr int usualThreads = 4;
    /// How long a thread without work stays: one that hangs must not keep the others for good.
    static constexpr std::chrono::milliseconds usualPatience{1000};

    /// How often something is opened while the system is short of descriptors, before the walk ends as unreadable.
    static constexpr int attempts = 1000;
    /// What a thread does between two of these attempts; from several threads at once.
    using Pause = std::function<void()>;
    /// Sleeps for 20 ms.
    static void usualPause();

    explicit LinuxDirectoryWalker(Entering entering = {}, int threads = usualThreads,
        std::chrono::milliseconds idlePatience = usualPatience, Pause pause = usualPause) :
        entering(std::move(entering)),
        threads(threads), idlePatience(idlePatience), pause(std::move(pause))
    {
    }

    void walk(std::string root, std::shared_ptr<const Visitor> visitor) const override;

private:
    Entering entering;
    int threads;
    std::chrono::milliseconds idlePatience;
    Pause pause;
};

} // namespace korvane
