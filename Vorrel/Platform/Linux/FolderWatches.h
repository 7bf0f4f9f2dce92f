#pragma once

#include "Support/Descriptor.h"
#include "Vorrel/Platform/Linux/WatchTable.h"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>

struct inotify_event;

namespace korvane {

/// One inotify instance and what its watches stand for. A folder beyond the budget, or refused by the kernel, is noted
/// to be looked at by its time stamp.
///
/// Any thread but for `open`, `close` and `read`, which belong to one. A dead disk blocks the `enter` that asks it and
/// nobody else: the disk is asked while the table is free. What is learned about the folder meanwhile makes the question
/// void, and it is put again, so that a folder is never noted at a place that it has left. Events of a folder that come
/// before its `enter` has returned are not told: who enters a folder looks into it afterwards.
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
    const Descriptor &descriptor() const { return *instance; } ///< Only while open.

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
    /// An event of a watch that no folder has came: it may be of a folder that is being entered.
    void heardOfUnknown();

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
    /// One question to the disk.
    struct Attempt {
        const std::string &path;
        bool polls = false; ///< For the folder's time stamp, not for a watch.
        bool takesWatch = false; ///< One more than the table has.
        bool isVoid = false;
        std::shared_ptr<const Descriptor> instance;
    };
    /// What the disk has answered.
    struct Answer {
        int watch = WatchTable::noWatch;
        int error = 0;
        std::optional<std::int64_t> stamp;
    };

    std::optional<Entered> begin(Attempt &attempt, bool again);
    Answer ask(const Attempt &attempt) const;
    std::optional<Entered> finish(Attempt &attempt, const Answer &answer);
    Entered noteWatch(const std::string &path, const Answer &answer);
    Entered notePolled(const std::string &path, std::optional<std::int64_t> stamp);
    void makeVoid(const std::string &folder);
    std::size_t taken() const;
    void removeSubtree(WatchTable::Node node, int except = WatchTable::noWatch);

    const std::set<std::string> roots;
    const std::size_t budget;
    const AddWatch addWatch;
    mutable std::mutex mutex;
    std::shared_ptr<const Descriptor> instance; ///< Shared with those who ask, which may take for ever.
    std::vector<Attempt *> attempts; ///< Under way.
    WatchTable table;
    bool refused = false; ///< The kernel gives no more watches for now.
};

} // namespace korvane
