#pragma once

#include "CommandCore/IndexedFile.h"
#include "Support/Task.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// What the file index asks of a system to stay true to the disk.
namespace korvane {

/// Tells which paths below some folders have changed, also since an earlier run of the program.
class FileEventWatching {
public:
    /// Changed paths in the order of the changes, and the identifier of the last of them. Identifiers grow, also from
    /// one run to the next. Called on a thread of the watcher's own.
    using Handler = std::function<void(std::vector<std::string> paths, std::uint64_t lastEventID)>;

    virtual ~FileEventWatching() = default;

    /// Watches `roots` and everything below them, and first tells what has changed since the event `sinceID`; with 0, where
    /// that can be known, what differs from the index.
    /// A second start without a stop does nothing. Throws `recoverable` "File system monitoring could not start."
    /// Main thread.
    virtual Task<void> start(std::vector<std::string> roots, std::uint64_t sinceID, Handler handler) = 0;
    /// Gives a function that is called when some folders begin to have no watch of their own, because the system gives no
    /// more, and are looked at now and then instead, with how many; and with 0 when that is over. On a thread of the
    /// watcher's own. For the next start; main thread.
    virtual void onUnwatched(std::function<void(std::size_t folders)> told) { (void)told; }
    /// Ends the watch; the handler is not called any more when this returns. Main thread.
    virtual void stop() = 0;
};

/// What the disk says of one path.
struct AttributeOutcome {
    enum class State { found, notFound, unavailable };
    State state = State::unavailable;
    bool isDirectory = false; ///< This and the next two only when found.
    long long size = 0; ///< Bytes.
    double modified = 0; ///< Whole seconds since 1970.
};

/// Asks the disk for one path at a time. Any thread; may hang on a dead volume.
class FileAttributeReading {
public:
    virtual ~FileAttributeReading() = default;
    virtual AttributeOutcome attributes(const std::string &path) const = 0;
};

/// What the index holds, for a watcher that compares folders with it. Callable from any coroutine; throws what the
/// store throws. Never holds up a search or a write for long.
class IndexedFolders {
public:
    virtual ~IndexedFolders() = default;
    /// At most `limit` indexed folders whose path comes after `after` in byte order, in that order.
    virtual Task<std::vector<IndexedFile>> folders(std::string after, int limit) = 0;
    /// At most `limit` indexed files that are no folders, likewise.
    virtual Task<std::vector<IndexedFile>> files(std::string after, int limit) = 0;
    /// What the index holds directly in the folder `parent`.
    virtual Task<std::vector<IndexedFile>> children(std::string parent) = 0;
};

} // namespace korvane
