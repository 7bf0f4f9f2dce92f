#include "Vorrel/Launch/ApplicationService.h"
#include "Vorrel/Platform/Headless/HeadlessApplications.h"
#include "Vorrel/Platform/Linux/DesktopEntries.h"
#include "Vorrel/Platform/Linux/FolderMonitor.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;

namespace {

/// The service on the real disk, in real time.
struct ApplicationMonitoringThreads : testing::Test {
    DiskFolder disk;
    MainLoop loop;
    SystemClock clock;
    ThreadPool pool{2};
    DesktopEntries source{
        {.dataHome = disk / "home", .dataDirs = {disk / "usr"}, .currentDesktop = {}, .languages = {}, .path = "/bin"}};
    FolderMonitor monitor{loop.executor()};
    HeadlessApplicationLauncher launcher;
    HeadlessWorkspace workspace;
    std::shared_ptr<ApplicationService> service = std::make_shared<ApplicationService>(
        ApplicationService::Ports{loop.executor(), clock, std::make_shared<ApplicationIndexer>(pool.executor(), source), source,
            launcher, workspace, {disk.path, std::nullopt}, &monitor});

    void TearDown() override
    {
        service->stop();
        loop.runUntilIdle();
        pool.join();
    }

    std::string put(const std::string &name) const
    {
        return disk.file(name, "[Desktop Entry]\nType=Application\nName=Tool\nExec=tool\n");
    }
    bool lists(const std::string &path) const
    {
        for (const auto &record : service->applications())
            if (record.path == path)
                return true;
        return false;
    }
    static Task<void> passASecond(Clock &clock) { co_await clock.sleep(1s); }
    /// Whether the list comes to hold, or no longer to hold, an entry within a second.
    bool followsWithinASecond(const std::string &path, bool listed)
    {
        Begun<void> second(loop, passASecond(clock));
        loop.runUntil([&] { return lists(path) == listed || second.done(); });
        return lists(path) == listed;
    }
};

} // namespace

TEST_F(ApplicationMonitoringThreads, TheListFollowsAnInstalledAndARemovedEntryWithinASecond)
{
    const auto known = put("usr/applications/known.desktop");
    await(loop, service->refresh());
    service->startMonitoring();
    loop.runUntilIdle();
    ASSERT_TRUE(lists(known));

    const auto installed = put("usr/applications/sub/installed.desktop");
    EXPECT_TRUE(followsWithinASecond(installed, true));
    std::filesystem::remove(installed);
    EXPECT_TRUE(followsWithinASecond(installed, false));
    const auto first = put("home/applications/first.desktop");
    EXPECT_TRUE(followsWithinASecond(first, true)) << "in a folder that was not there before";
    EXPECT_TRUE(lists(known));
}
