#pragma once

#include "Support/OwnThread.h"
#include "Vorrel/FileIndex/DiskFileAttributes.h"
#include "Vorrel/FileIndex/DiskFileScanner.h"
#include "Vorrel/FileIndex/FileIndexService.h"
#include "Vorrel/FileIndex/IndexSnapshot.h"
#include "Vorrel/Platform/Linux/InotifyFileEvents.h"
#include "Vorrel/Platform/Linux/LinuxDirectoryWalker.h"
#include "tests/support/Await.h"

#include <csignal>
#include <functional>
#include <map>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

/// The whole index of a real disk, in this process or in one that can be killed.
namespace korvane::test {

/// The machine's clock, on which every pause takes a twentieth of its time: these tests wait for disks and processes,
/// not for the pauses between them. A limit, which is as long as this, stays what it is.
class HurriedClock final : public Clock {
public:
    static constexpr Milliseconds limit{15'000};
    Task<void> sleep(Milliseconds delay) override { return clock.sleep(delay == limit ? delay : delay / 20); }
    double now() const override { return clock.now(); }
    double uptime() const override { return clock.uptime(); }

private:
    SystemClock clock;
};

/// The index as the program has it, over real folders.
class DiskIndex {
public:
    DiskIndex(const std::string &store, std::vector<std::string> roots, bool follows);
    ~DiskIndex();

    /// Turns the loop until a rebuild, if one is under way, has ended.
    void settle();
    void rebuild();
    /// Turns the loop for good.
    [[noreturn]] void serve();

    MainLoop loop;
    std::shared_ptr<FileIndexService> service;

private:
    HurriedClock clock;
    ThreadPool pool{4};
    WorkerThread worker;
    std::unique_ptr<IndexSnapshot> snapshot;
    std::shared_ptr<InotifyFileEvents> events;
    std::unique_ptr<LinuxDirectoryWalker> walker;
};

/// A process that runs `work` until it ends by itself or is killed.
class Process {
public:
    explicit Process(const std::function<void()> &work);
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    bool kill(); ///< By SIGKILL; whether it had not ended by itself before.
    /// Waits for its own end; false if it ended badly.
    bool finish();

private:
    pid_t child;
};

/// What is at a path, as far as the index tells.
struct Fact {
    bool isDirectory = false;
    long long size = 0; ///< 0 for folders, whose size no two file systems count alike.
    long long modified = 0; ///< Whole seconds.
    bool operator==(const Fact &) const = default;
};
using Facts = std::map<std::string, Fact>;

/// What is below `roots` on the disk now, dangling links left out.
Facts onDisk(const std::vector<std::string> &roots);
/// What the store says, over a connection of its own.
Facts inStore(const std::string &store);
/// The first few differences, for people; empty when there are none.
std::string difference(const Facts &disk, const Facts &store);

/// What is wrong with the store: "" if its pages are sound and its table of names agrees with its rows.
std::string damage(const std::string &store);

} // namespace korvane::test
