#include "Vorrel/Platform/Linux/FolderMonitor.h"
#include "Support/Clock.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"

#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <sys/stat.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

/// The monitor on the real disk, told of by the system itself.
struct FolderMonitorThreads : testing::Test {
    MainLoop loop;
    SystemClock clock;
    DiskFolder disk;
    std::optional<FolderMonitor> monitor{loop.executor()};

    static Task<void> waitFor(AsyncStream<bool> stream, std::shared_ptr<bool> told)
    {
        *told = (co_await stream.next()).has_value();
    }
    static Task<void> limit(Clock &clock, Milliseconds time, std::shared_ptr<bool> over)
    {
        co_await clock.sleep(time);
        *over = true;
    }
    /// Whether the stream speaks within `time`.
    bool speaks(const AsyncStream<bool> &stream, Milliseconds time = 5s)
    {
        const auto told = std::make_shared<bool>(false), over = std::make_shared<bool>(false);
        Begun<void> waiting(loop, waitFor(stream, told));
        Begun<void> limited(loop, limit(clock, time, over));
        loop.runUntil([&] { return waiting.done() || *over; });
        return *told;
    }
    /// Takes everything that the stream has to say until it has been quiet for a moment. The reader is
    /// not cancelled, since that would end the stream: it is kept for the next question.
    struct Listener {
        AsyncStream<bool> stream;
        std::shared_ptr<int> count = std::make_shared<int>(0);
        TaskHandle task;
    };
    static Task<void> listen(AsyncStream<bool> stream, std::shared_ptr<int> count)
    {
        while (co_await stream.next())
            ++*count;
    }
    Listener listener(std::vector<std::string> folders)
    {
        Listener made{.stream = monitor->watch(std::move(folders)), .task = {}};
        made.task = spawn(loop.executor(), listen(made.stream, made.count));
        loop.runUntilIdle();
        return made;
    }
    void pass(Milliseconds time)
    {
        const auto over = std::make_shared<bool>(false);
        Begun<void> limited(loop, limit(clock, time, over));
        limited.result();
    }
    /// Whether the listener hears something new after `change`.
    bool hears(Listener &listener, const std::function<void()> &change)
    {
        pass(60ms); // what came before has been said
        const int before = *listener.count;
        change();
        const auto over = std::make_shared<bool>(false);
        Begun<void> limited(loop, limit(clock, 5s, over));
        loop.runUntil([&] { return *listener.count > before || *over; });
        return *listener.count > before;
    }
    bool staysQuiet(Listener &listener, const std::function<void()> &change)
    {
        pass(60ms);
        const int before = *listener.count;
        change();
        pass(150ms);
        return *listener.count == before;
    }
};

} // namespace

TEST_F(FolderMonitorThreads, TellsOfFilesThatComeChangeMoveAndGo)
{
    disk.folder("apps");
    auto heard = listener({disk / "apps"});
    EXPECT_TRUE(hears(heard, [&] { disk.file("apps/a.desktop", "x"); }));
    EXPECT_TRUE(hears(heard, [&] { disk.file("apps/a.desktop", "longer"); }));
    EXPECT_TRUE(hears(heard, [&] { fs::rename(disk / "apps/a.desktop", disk / "apps/b.desktop"); }));
    EXPECT_TRUE(hears(heard, [&] { fs::permissions(disk / "apps/b.desktop", fs::perms::owner_read); }));
    EXPECT_TRUE(hears(heard, [&] { fs::remove(disk / "apps/b.desktop"); }));
    EXPECT_TRUE(hears(heard, [&] { disk.link("apps/c.desktop", "/nowhere"); }));
}

TEST_F(FolderMonitorThreads, TellsOfFoldersBelowAlsoOfNewOnes)
{
    disk.folder("apps/old/deep");
    auto heard = listener({disk / "apps"});
    EXPECT_TRUE(hears(heard, [&] { disk.file("apps/old/deep/a"); }));
    EXPECT_TRUE(hears(heard, [&] { disk.folder("apps/new"); }));
    EXPECT_TRUE(hears(heard, [&] { disk.file("apps/new/a"); }));
    EXPECT_TRUE(hears(heard, [&] { fs::rename(disk / "apps/new", disk / "apps/renamed"); }));
    EXPECT_TRUE(hears(heard, [&] { disk.file("apps/renamed/b"); }));
}

TEST_F(FolderMonitorThreads, AFolderMovedAwayIsNoLongerWatched)
{
    disk.folder("apps/sub");
    auto heard = listener({disk / "apps"});
    EXPECT_TRUE(hears(heard, [&] { fs::rename(disk / "apps/sub", disk / "elsewhere"); }));
    EXPECT_TRUE(staysQuiet(heard, [&] { disk.file("elsewhere/a"); }));
}

TEST_F(FolderMonitorThreads, AMissingFolderIsNoticedWhenItComes)
{
    auto heard = listener({disk / "share/deep/apps"});
    EXPECT_TRUE(staysQuiet(heard, [&] { disk.file("other"); })) << "what else happens above it is nobody's business";
    EXPECT_TRUE(hears(heard, [&] { disk.folder("share"); }));
    EXPECT_TRUE(hears(heard, [&] { disk.folder("share/deep/apps"); }));
    EXPECT_TRUE(hears(heard, [&] { disk.file("share/deep/apps/a"); }));
}

TEST_F(FolderMonitorThreads, AFolderThatGoesIsNoticedWhenItComesBack)
{
    disk.folder("apps");
    auto heard = listener({disk / "apps"});
    EXPECT_TRUE(hears(heard, [&] { fs::remove(disk / "apps"); }));
    EXPECT_TRUE(hears(heard, [&] { disk.folder("apps"); }));
    EXPECT_TRUE(hears(heard, [&] { disk.file("apps/a"); }));
}

TEST_F(FolderMonitorThreads, ALoopOfLinksIsWatchedOnceAndADanglingOneDoesNoHarm)
{
    disk.folder("apps/sub");
    disk.link("apps/sub/up", disk / "apps");
    disk.link("apps/self", "self");
    disk.link("apps/dangling", disk / "nowhere");
    auto heard = listener({disk / "apps"});
    EXPECT_TRUE(hears(heard, [&] { disk.file("apps/sub/a"); }));
}

TEST_F(FolderMonitorThreads, TwoWhoWatchAreToldEachOfItsOwn)
{
    disk.folder("one");
    disk.folder("two");
    auto first = listener({disk / "one"});
    auto second = listener({disk / "two", disk / "one/inner"});
    const int before = *second.count;
    EXPECT_TRUE(hears(first, [&] { disk.file("one/a"); }));
    pass(60ms);
    EXPECT_EQ(*second.count, before);
    EXPECT_TRUE(hears(second, [&] { disk.folder("one/inner"); })) << "one folder, watched for two reasons";
    EXPECT_TRUE(hears(second, [&] { disk.file("two/a"); }));
}

TEST_F(FolderMonitorThreads, AFinishedStreamEndsItsWatch)
{
    disk.folder("apps");
    auto heard = listener({disk / "apps"});
    heard.task.cancel();
    pass(20ms);
    const int before = *heard.count;
    disk.file("apps/a");
    pass(100ms);
    EXPECT_EQ(*heard.count, before);
    const auto next = monitor->watch({disk / "apps"});
    disk.file("apps/b");
    EXPECT_TRUE(speaks(next)) << "and the next watch begins afresh";
}

TEST_F(FolderMonitorThreads, WhatTheSystemCouldNotTellIsLookedUp)
{
    int longest = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> longest;
    if (longest <= 0 || longest > 200'000)
        GTEST_SKIP() << "the system's queue is too long to fill";
    const auto first = disk.file("apps/a"), second = disk.file("apps/b");
    auto heard = listener({disk / "apps"});
    EXPECT_TRUE(hears(heard, [&] {
        // In turns, because the system joins equal events; nobody reads meanwhile.
        for (int i = 0; i <= longest; ++i)
            ::chmod((i % 2 ? first : second).c_str(), 0600 | static_cast<mode_t>(i & 1));
        disk.folder("apps/late"); // its event finds the queue full
    }));
    EXPECT_TRUE(hears(heard, [&] { disk.file("apps/late/c"); }));
}

TEST_F(FolderMonitorThreads, TheMonitorMayGoWhileSomebodyListens)
{
    disk.folder("apps");
    auto heard = listener({disk / "apps"});
    monitor.reset();
    disk.file("apps/a");
    pass(50ms);
    EXPECT_EQ(*heard.count, 0);
}

TEST_F(FolderMonitorThreads, TheLoopMayEndWhileTheMonitorWaits)
{
    auto inner = std::make_unique<MainLoop>();
    FolderMonitor other(inner->executor());
    const auto stream = other.watch({disk.path});
    inner->runUntilIdle();
    inner.reset();
    disk.file("a");
    const auto again = other.watch({disk.path});
    again.finish();
    SUCCEED();
}
