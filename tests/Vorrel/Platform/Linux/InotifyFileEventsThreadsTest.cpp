#include "Support/OwnThread.h"
#include "WatchedDisk.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <semaphore>
#include <sys/inotify.h>
#include <thread>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

/// The watcher as the program has it: a worker of its own, walkers beside it, the main thread that starts and stops.
struct FileEventsThreads : testing::Test {
    MainLoop loop;
    SystemClock clock;
    DiskFolder disk;
    MemoryIndex index; // asked on the worker only
    std::mutex mutex; // guards `told`
    std::condition_variable heard;
    std::set<std::string> told;
    std::optional<WorkerThread> worker{std::in_place};
    std::optional<InotifyFileEvents> events;

    InotifyFileEvents::Settings settings;

    FileEventsThreads()
    {
        settings.latency = 20ms;
        disk.folder("root");
        events.emplace(worker->executor(), clock, index, settings);
    }

    void start() { start({disk / "root"}); }
    void start(Strings roots)
    {
        await(loop, events->start(std::move(roots), 0, [this](Strings paths, std::uint64_t) {
            const std::scoped_lock lock(mutex);
            told.insert(paths.begin(), paths.end());
            heard.notify_all();
        }));
    }
    bool comes(const std::string &name)
    {
        std::unique_lock lock(mutex);
        return heard.wait_for(lock, 10s, [&] { return told.contains(disk / name); });
    }
    bool anythingComes()
    {
        std::unique_lock lock(mutex);
        return heard.wait_for(lock, 10s, [&] { return !told.empty(); });
    }
    /// Returns when the worker has done what it had to do up to now.
    void waitForWorker()
    {
        Actor actor(worker->executor());
        for (int turn = 0; turn < 3; ++turn)
            await(loop, actor.run([](std::stop_token) {}));
    }
};

} // namespace

TEST_F(FileEventsThreads, WalkersAndTheReaderShareTheWatches)
{
    Strings folders;
    for (int i = 0; i < 200; ++i)
        folders.push_back("root/f" + std::to_string(i % 20) + "/g" + std::to_string(i));
    for (const auto &folder : folders)
        disk.folder(folder);
    start();
    std::atomic<bool> done = false;
    std::vector<std::jthread> walkers;
    for (int walker = 0; walker < 3; ++walker)
        walkers.emplace_back([&] {
            while (!done)
                for (const auto &folder : folders) {
                    events->entered(disk / fs::path(folder).parent_path());
                    events->entered(disk / folder);
                    events->counts();
                }
        });
    for (int i = 0; i < 200; ++i) {
        const std::string folder = "root/f" + std::to_string(i % 20);
        fs::rename(disk / folder, disk / (folder + "-moved"));
        disk.file(folder + "-moved/file" + std::to_string(i));
        fs::rename(disk / (folder + "-moved"), disk / folder);
    }
    disk.file("root/f7/last");
    const bool came = comes("root/f7/last");
    done = true;
    walkers.clear();
    EXPECT_TRUE(came);
    disk.file(folders.back() + "/later");
    EXPECT_TRUE(comes(folders.back() + "/later"));
}

TEST_F(FileEventsThreads, NothingIsToldAfterAStopAndANewStartGoesOn)
{
    std::atomic<bool> done = false;
    std::jthread writer([&] {
        for (int i = 0; !done; ++i) {
            disk.file("root/" + std::to_string(i % 50) + "/file");
            if (i % 50 == 49)
                fs::remove_all(disk / ("root/" + std::to_string(i % 7)));
            std::this_thread::yield();
        }
    });
    for (int round = 0; round < 30; ++round) {
        start();
        if (round % 2)
            EXPECT_TRUE(anythingComes());
        events->stop();
        {
            const std::scoped_lock lock(mutex);
            told.clear();
        }
        waitForWorker();
        const std::scoped_lock lock(mutex);
        EXPECT_TRUE(told.empty());
    }
    done = true;
    writer.join();
    start();
    disk.file("root/last");
    EXPECT_TRUE(comes("root/last"));
}

TEST_F(FileEventsThreads, AWorkerThatHangsHoldsUpNeitherStopNorACancelledStart)
{
    std::binary_semaphore released(0);
    runLater(worker->executor(), [&] { released.acquire(); });
    {
        Begun<void> starting(loop, events->start({disk / "root"}, 0, [](Strings, std::uint64_t) {}));
        loop.runUntilIdle();
        EXPECT_FALSE(starting.done());
        events->stop();
        loop.runUntilIdle();
        EXPECT_TRUE(starting.done());
    }
    {
        Begun<void> starting(loop, events->start({disk / "root"}, 0, [](Strings, std::uint64_t) {}));
        loop.runUntilIdle();
        starting.cancel();
        loop.runUntilIdle();
        EXPECT_TRUE(starting.done());
    }
    released.release();
    start();
    disk.file("root/file");
    EXPECT_TRUE(comes("root/file"));
}

TEST_F(FileEventsThreads, AWalkerThatHangsInAFolderHoldsUpNoOther)
{
    const auto dead = disk.folder("root/dead"), alive = disk.folder("root/alive/inner");
    // The test may end before a walker comes back, and the walker after the test.
    struct Gate {
        std::binary_semaphore entered{0}, released{0}, left{0};
    };
    const auto gate = std::make_shared<Gate>();
    settings.addWatch = [gate, dead](int instance, const char *path, std::uint32_t events) {
        if (path == dead) {
            gate->entered.release();
            gate->released.acquire();
        }
        return ::inotify_add_watch(instance, path, events);
    };
    events.emplace(worker->executor(), clock, index, settings);
    start();
    runOnOwnThread([this, gate, dead] {
        events->entered(dead);
        gate->left.release();
    });
    ASSERT_TRUE(gate->entered.try_acquire_for(10s));
    std::binary_semaphore done(0);
    std::jthread other([&] {
        events->entered(disk / "root/alive");
        events->entered(alive);
        done.release();
    });
    EXPECT_TRUE(done.try_acquire_for(10s)) << "another walker waits for it";
    disk.file("root/alive/inner/file");
    EXPECT_TRUE(comes("root/alive/inner/file")) << "the worker waits for it";
    EXPECT_EQ(events->counts().watched, 3u);
    events->stop();
    start();
    disk.file("root/again");
    EXPECT_TRUE(comes("root/again")) << "a new start waits for it";
    gate->released.release();
    ASSERT_TRUE(gate->left.try_acquire_for(10s));
    EXPECT_EQ(events->counts().watched, 1u) << "it belongs to the watch before";
}

TEST_F(FileEventsThreads, AFolderThatIsMovedWhileItIsEnteredIsFollowedAtItsNewPlace)
{
    const auto folder = disk.folder("root/folder");
    std::binary_semaphore entered(0), released(0);
    std::atomic<bool> first = true;
    settings.addWatch = [&](int instance, const char *path, std::uint32_t events) {
        const int watch = ::inotify_add_watch(instance, path, events);
        if (path == folder && first.exchange(false)) {
            entered.release();
            released.acquire();
        }
        return watch;
    };
    events.emplace(worker->executor(), clock, index, settings);
    start();
    std::jthread walker([&] { events->entered(folder); });
    ASSERT_TRUE(entered.try_acquire_for(10s));
    fs::rename(folder, disk / "root/moved");
    EXPECT_TRUE(comes("root/moved"));
    waitForWorker();
    released.release();
    walker.join();
    disk.file("root/moved/file");
    EXPECT_TRUE(comes("root/moved/file"));
    EXPECT_FALSE(told.contains(disk / "root/folder/file"));
    EXPECT_EQ(events->counts().watched, 2u);
}

TEST_F(FileEventsThreads, ARootOnAVolumeThatHangsCostsThatRootOnlyUntilItAnswers)
{
    const auto net = disk.folder("net");
    settings.mountPoints = [net] {
        return MountPoints("27 1 254:0 / / rw - ext4 /dev/vda rw\n90 27 0:45 / " + net + " rw - nfs server:/ rw\n",
            [](unsigned, unsigned) { return false; });
    };
    disk.link("by-link", net);
    const auto gate = std::make_shared<std::counting_semaphore<>>(0);
    const auto touched = std::make_shared<std::atomic<int>>(0);
    settings.touch = [gate, touched](const std::string &) {
        ++*touched;
        gate->acquire();
    };
    events.emplace(worker->executor(), clock, index, settings);
    start({disk / "root", net, disk / "by-link"});
    EXPECT_EQ(*touched, 2) << "the root on this disk needs no question";
    EXPECT_EQ(events->counts().watched, 1u);
    events->entered(net);
    EXPECT_EQ(events->counts().watched, 1u) << "a walker of that root does not ask for a watch either";
    disk.file("root/file");
    EXPECT_TRUE(comes("root/file"));
    gate->release(2);
}
