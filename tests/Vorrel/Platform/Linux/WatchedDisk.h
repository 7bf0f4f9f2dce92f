#pragma once

#include "Vorrel/Platform/Linux/InotifyFileEvents.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

/// A real disk, watched in virtual time, and an index in memory that follows what is told.
namespace korvane::test {

using Strings = std::vector<std::string>;

/// Virtual time beside the wall clock of the machine, which the file system's stamps follow.
class WallClock final : public ManualClock {
public:
    using ManualClock::ManualClock;
    double now() const override { return SystemClock().now() + shift; }
    double shift = 0; ///< Seconds by which somebody has set it wrong.
};

/// An index in memory.
class MemoryIndex final : public IndexedFolders {
public:
    Task<std::vector<IndexedFile>> folders(std::string after, int limit) override { co_return next(after, limit, true); }
    Task<std::vector<IndexedFile>> files(std::string after, int limit) override { co_return next(after, limit, false); }
    Task<std::vector<IndexedFile>> children(std::string parent) override;

    /// Adds everything below `root` as a scan would.
    void scan(const std::string &root);
    /// Does what the service does with told paths: asks the disk, renews what is there, removes what is gone from a
    /// folder that can be seen.
    void apply(const Strings &paths, const Strings &roots);

    std::map<std::string, IndexedFile> rows;
    int failures = 0; ///< Questions that will fail.
    int questions = 0;

private:
    std::vector<IndexedFile> next(const std::string &after, int limit, bool directories);
    void checkFailure();
};

/// What `stat` says of a path, as a row; nothing when nothing is there.
std::optional<IndexedFile> rowOnDisk(const std::string &path);

struct WatchedDisk {
    struct Told {
        Strings paths;
        std::uint64_t identifier = 0;
    };

    MainLoop loop;
    WallClock clock{loop};
    DiskFolder disk;
    MemoryIndex index;
    InotifyFileEvents::Settings settings;
    std::unique_ptr<InotifyFileEvents> events;
    std::vector<Told> told;
    std::vector<std::size_t> unwatched; ///< Told numbers of folders without a watch.
    const std::string marks = disk.folder("marks");

    WatchedDisk();

    /// Starts a new watcher on these folders of the disk and on one for marks; goes on until it has nothing to do.
    void start(Strings roots, std::uint64_t sinceID = 0);
    /// The same as a task.
    Task<void> startLater(Strings roots, std::uint64_t sinceID = 0);
    std::string startOutcome(Strings roots);
    /// Waits until everything that has happened has been told.
    void settle();
    /// Lets time pass in small steps, with what the system tells meanwhile.
    void pass(Milliseconds time);
    /// Runs what the kernel has to tell by now, and what that makes ready.
    void hearTheSystem();
    /// An identifier that is later than every time stamp on the disk so far, and not later than any from now on.
    std::uint64_t afterAllStamps();
    /// What was told since the last question, relative to the disk, without repeats.
    std::set<std::string> news();
    std::uint64_t identifier() const { return told.empty() ? 0 : told.back().identifier; }
    static std::uint64_t identifierOf(double seconds) { return std::uint64_t(seconds * 1e6); }

    Strings roots; ///< Of the last start.
    std::uint64_t lastIdentifier = 0; ///< Of everything told so far.
    int marked = 0;
};

} // namespace korvane::test
