#pragma once

#include "Support/Clock.h"
#include "Support/MainLoop.h"
#include "Vorrel/Platform/FileEvents.h"
#include "Vorrel/Platform/Linux/MountPoints.h"

#include <memory>
#include <mutex>

namespace korvane {

/// Tells of changes through one inotify instance, whose watches only folders take. An identifier is a time, in
/// microseconds since 1970: everything that changed before it has been told.
///
/// Since the system remembers nothing for who is not there, a start first compares the folders that have changed since
/// `sinceID` (without one, all), or whose time is not the indexed one, with what the index holds, and then, slowly, the size and
/// time of every indexed file, which a folder's time cannot tell. Folders beyond the budget of watches, and those that the kernel
/// refuses one, are looked at by their time stamps once a minute. What a program keeps open shows when it closes it. Nothing
/// below a skipped folder or an excluded mount takes a watch.
///
/// Everything that may block happens on the worker. A disk that hangs there holds up neither `start`'s caller, when
/// cancelled, nor `stop`. A root on a mount of the kind that is left out below a root must first answer on a thread of its
/// own, once at the start and then once a minute; while it does not, it counts as missing and the other roots are followed.
class InotifyFileEvents final : public FileEventWatching {
public:
    struct Settings {
        std::vector<std::string> skippedPrefixes;
        std::size_t budget = defaultBudget(); ///< Watches at most.
        Milliseconds latency{1000}; ///< From the first change of a quiet time to its telling.
        std::size_t pathsPerBatch = 10'000; ///< Paths told at once, at most.
        std::function<MountPoints()> mountPoints = MountPoints::read;
        /// As inotify_add_watch(2), for tests of what the kernel seldom does.
        std::function<int(int instance, const char *path, std::uint32_t events)> addWatch = {};
        /// Asks the disk for a root that may hang; on a thread of its own.
        std::function<void(const std::string &root)> touch = openAndClose;
    };

    /// Half of what the kernel lets one user have, whose other programs share it.
    static std::size_t defaultBudget();
    /// Opens a folder, which a dead server does not let end.
    static void openAndClose(const std::string &root);

    /// `worker` is an executor of one thread. `clock` and `index` are used there, also for a while after the end.
    InotifyFileEvents(Executor worker, Clock &clock, IndexedFolders &index, Settings settings);
    ~InotifyFileEvents() override;

    Task<void> start(std::vector<std::string> roots, std::uint64_t sinceID, Handler handler) override;
    void onUnwatched(std::function<void(std::size_t folders)> told) override;
    void stop() override;

    /// A folder is about to be read by someone who tells the index of what is in it: its changes are told from now
    /// on. Without effect before a start has ended, outside the roots, and for a folder that is watched already. Any
    /// thread.
    void entered(const std::string &folder);

    /// How many folders are now watched, and looked at by their time stamps. Any thread.
    struct Counts {
        std::size_t watched = 0, polled = 0;
    };
    Counts counts() const;

private:
    class Session;
    struct Tasks;
    std::shared_ptr<Session> current() const;

    MainThreadOnly confined;
    const Executor worker;
    Clock &clock;
    IndexedFolders &index;
    const Settings settings;
    mutable std::mutex mutex; // guards the next
    std::shared_ptr<Session> session; ///< From `start` to `stop`.
    std::shared_ptr<Tasks> tasks; ///< Those of the session.
    std::function<void(std::size_t)> unwatched = [](std::size_t) {}; ///< Main thread.
    std::weak_ptr<Session> former; ///< The one before; its watches may not be given back yet. Main thread.
};

} // namespace korvane
