#pragma once

#include "Support/Descriptor.h"
#include "Vorrel/Platform/Linux/WatchTable.h"

#include <functional>
#include <mutex>
#include <optional>
#include <set>

struct inotify_event;

namespace korvane {

/// One inotify instance and what its watches stand for. A folder beyond the budget, or refused by the kernel, is noted
/// to be looked at by its time stamp.
///
/// Any thread but for `open`, `close` and `read`, which belong to one. Whoever watches a folder and whoever looks up
/// an event wait for each other, so that an event never finds a folder half noted. A dead disk blocks `enter`.
class FolderWatches {
public:
    /// As inotify_add_watch(2).
    using AddWatch = std::function<int(int instance, const char *path, std::uint32_t events)>;

    /// Links are followed at `roots` and nowhere else.
    FolderWatches(std::set<std::string> roots, std::size_t budget, AddWatch addWatch) :
        roots(std::move(roots)), budget(budget), addWatch(std::move(addWatch))
    {
    }

    /// False when the kernel gives no instance.
    bool open();
    /// Gives back all watches.
    void close();
    const Descriptor &descriptor() const { return instance; }

    enum class State { absent, watched, polled };
    struct Entered {
        State state = State::absent;
        bool isNew = false; ///< This folder had no watch, or none as a folder of this path.
    };
    /// Watches a folder. One that the table has is asked about `again` only on demand: another may have taken its
    /// place. One that is not there, is no folder or may not be read is `absent` and forgotten.
    Entered enter(const std::string &path, bool again);
    /// Ends the watches of a folder and of everything below it.
    void forget(const std::string &path);
    /// The kernel has ended this watch.
    void ended(int watch);

    std::optional<std::string> folder(int watch) const;
    bool knows(const std::string &path) const;

    /// Calls `take` for each waiting event with its name, empty for the folder itself, at most `limit`. True when
    /// none was left.
    bool read(int limit, const std::function<void(const inotify_event &event, const char *name)> &take);

    /// A folder that is looked at by its time stamp, with the one it had; 0 for one that was too young to trust.
    struct Polled {
        std::string path;
        std::int64_t stamp = 0;
    };
    /// The next `count` of them, from `cursor` on, which starts at 0 and goes round.
    std::vector<Polled> nextPolled(WatchTable::Node &cursor, std::size_t count) const;
    void setStamp(const std::string &path, std::int64_t stamp);
    /// At most `count` known folders from `cursor` on, which starts at 0; nothing when there are no more.
    std::vector<std::string> nextKnown(WatchTable::Node &cursor, std::size_t count) const;
    /// Whether one more folder may be watched.
    bool hasRoom() const;
    /// A refusal of the kernel is no reason any more to pass over folders.
    void forgetRefusal();
    std::size_t watched() const;
    std::size_t polled() const;

    /// What the disk says of a folder's last change, in nanoseconds since 1970; 0 when it is younger than the clock of
    /// the file system tells apart. Nothing when it is no folder.
    std::optional<std::int64_t> stampOf(const std::string &path) const;

private:
    Entered poll(const std::string &path);
    void removeSubtree(WatchTable::Node node, int except = WatchTable::noWatch);

    const std::set<std::string> roots;
    const std::size_t budget;
    const AddWatch addWatch;
    mutable std::mutex mutex;
    Descriptor instance;
    WatchTable table;
    bool refused = false; ///< The kernel gives no more watches for now.
};

} // namespace korvane
