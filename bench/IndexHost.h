#pragma once

#include "Support/OwnThread.h"
#include "Vorrel/FileIndex/FileIndexService.h"
#include "Vorrel/FileIndex/IndexSnapshot.h"
#include "Vorrel/Platform/Linux/InotifyFileEvents.h"
#include "Vorrel/Platform/Linux/LinuxDirectoryWalker.h"
#include "Vorrel/Store/Repositories.h"
#include "tests/support/Await.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace korvane::bench {

/// The longest waits of a running program's small doings.
struct StoreWaits {
    double launch = 0; ///< Milliseconds, as all of these: a launched row is counted, and an application with its line.
    double clipboardList = 0;
    double savedSetting = 0;
    double longest() const { return std::max({launch, clipboardList, savedSetting}); }
};

/// The file index as the program has it: a store with two connections, on a pool, asked from a main loop, over the
/// folders `roots`. With `follows` it scans and follows the disk. One at a time; main thread.
class IndexHost {
public:
    struct Settings {
        std::string data; ///< Holds the store; made when it is not there.
        std::string home;
        std::vector<std::string> roots;
        std::vector<std::string> skipped = {}; ///< Beside the folder of the store.
        bool follows = false;
    };
    explicit IndexHost(Settings settings);
    ~IndexHost();

    template <class T> T await(Task<T> task) { return test::await(loop, std::move(task)); }
    const FileIndexRepository &repository() const { return service->repository; }
    const FileIndexRepository &searchRepository() const { return service->searchRepository; }
    /// On a connection of its own that works on the loop's own thread and has no time budget: what a search costs without
    /// the way between two threads.
    const FileIndexRepository &repositoryHere() const { return *here; }
    std::string storePath() const { return folders.korvane().value() + "/korvane.sqlite"; }
    /// Runs what is ready, and waits for more, for this time.
    void runFor(Milliseconds time);

    /// Begins and ends the small doings, each again some milliseconds after its last answer.
    void beginWaits();
    StoreWaits endWaits();

    /// Hands the service changed paths as the watcher would.
    void tell(std::vector<std::string> paths, std::uint64_t id);
    InotifyFileEvents::Counts watches() const;

    MainLoop loop;
    SystemClock clock;
    const UserFolders folders;

private:
    class Watcher;
    Task<void> launchAgainAndAgain(std::shared_ptr<StoreWaits> waits);
    Task<void> listAgainAndAgain(std::shared_ptr<StoreWaits> waits);
    Task<void> saveAgainAndAgain(std::shared_ptr<StoreWaits> waits);

    ThreadPool pool{4};
    WorkerThread worker;
    std::unique_ptr<IndexSnapshot> snapshot;
    std::unique_ptr<InotifyFileEvents> events;
    std::unique_ptr<LinuxDirectoryWalker> walker;
    std::unique_ptr<Watcher> watcher;
    std::shared_ptr<Database> searchDatabase, databaseHere;
    std::optional<FileIndexRepository> here;
    std::vector<TaskHandle> waiting;
    std::shared_ptr<StoreWaits> waits;

public:
    std::shared_ptr<Database> database;
    std::shared_ptr<FileIndexService> service;
};

/// Looks at a store from outside, from a connection of its own, every five milliseconds: for how long nobody else
/// could write, and how large the write-ahead log is.
class StoreProbe {
public:
    explicit StoreProbe(const std::string &store);
    ~StoreProbe() { end(); }

    struct Seen {
        double longestLock = 0; ///< Milliseconds from the first refusal to the next success.
        double locked = 0; ///< All such times together.
        double largestLog = 0; ///< MB.
    };
    /// Ends the probe and tells.
    Seen end();

private:
    struct State;
    std::shared_ptr<State> state;
};

/// The size of a store's write-ahead log now, MB.
double logSize(const std::string &store);
/// Waits until the log is no larger than this, for at most so many seconds, and gives its size.
double logAfter(IndexHost &host, double megabytes, double seconds);

/// Runs a host that obeys lines of standard input, in a process of its own: its memory and work are those of the index
/// alone.
int obey(int count, char **words);

} // namespace korvane::bench
