#include "Vorrel/Launch/ApplicationService.h"
#include "Vorrel/Platform/Headless/HeadlessApplications.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using Strings = std::vector<std::string>;
using Records = std::vector<ApplicationRecord>;
using Launch = HeadlessApplicationLauncher::Launch;

namespace {

/// A scanner whose answers come when the test says so.
struct ScriptedIndexer : ApplicationIndexing {
    Task<Records> scan() override
    {
        ++begun;
        std::function<void(Continuation<void>)> begin = [this](Continuation<void> done) { waiting.push_back(std::move(done)); };
        if (holds)
            co_await suspend<void>(std::move(begin));
        co_return records;
    }
    void release()
    {
        for (const auto &one : std::exchange(waiting, {}))
            one.resume();
    }

    Records records;
    bool holds = false;
    int begun = 0;
    std::vector<Continuation<void>> waiting;
};

struct ApplicationServiceTest : testing::Test {
    MainLoop loop;
    ManualClock clock{loop};
    DiskFolder disk;
    std::shared_ptr<ScriptedIndexer> indexer = std::make_shared<ScriptedIndexer>();
    HeadlessApplicationSource source{{disk / "Applications"}};
    HeadlessApplicationLauncher launcher;
    HeadlessWorkspace workspace;
    HeadlessFolderWatcher folderWatcher;
    int changes = 0;
    std::shared_ptr<ApplicationService> service = makeService(&folderWatcher);

    void TearDown() override
    {
        // A scan that waits for an answer and its scanner own each other.
        indexer->holds = false;
        indexer->release();
        loop.runUntilIdle();
    }

    std::shared_ptr<ApplicationService> makeService(FolderWatcher *watcher)
    {
        ApplicationService::Ports ports{
            loop.executor(), clock, indexer, source, launcher, workspace, {disk.path, std::nullopt}, watcher};
        auto made = std::make_shared<ApplicationService>(std::move(ports));
        made->onIndexChange = [this] { ++changes; };
        return made;
    }
    void refresh() { await(loop, service->refresh()); }
    Strings found(std::string_view query)
    {
        Strings names;
        for (const auto &record : service->search(query))
            names.push_back(record.name);
        return names;
    }
    std::string open(std::string path, Strings arguments = {})
    {
        try {
            await(loop, service->open(std::move(path), std::move(arguments)));
        } catch (const AppError &error) {
            EXPECT_EQ(error.kind(), AppError::Kind::toolExecution);
            return error.errorDescription();
        }
        return "";
    }
};

const ApplicationRecord safari{"Safari", "com.apple.Safari", "/Applications/Safari.app"};
const ApplicationRecord mail{"Mail", "com.apple.mail", "/Applications/Mail.app"};
constexpr auto notInstalled = "Choose an installed application bundle.";

} // namespace

TEST_F(ApplicationServiceTest, IsEmptyAndEndlesslyOldBeforeTheFirstScan)
{
    EXPECT_EQ(service->applications(), Records{});
    EXPECT_GT(clock.now() - service->lastRefresh(), 1e12);
}

TEST_F(ApplicationServiceTest, RefreshingPublishesTheListAndTheTime)
{
    indexer->records = {mail, safari};
    clock.setWall(5000);
    refresh();
    EXPECT_EQ(service->applications(), (Records{mail, safari}));
    EXPECT_EQ(service->lastRefresh(), 5000);
    EXPECT_EQ(changes, 1);
}

TEST_F(ApplicationServiceTest, TheListIsCompleteWhenItsChangeIsTold)
{
    indexer->records = {mail};
    Records seen;
    service->onIndexChange = [&] { seen = service->applications(); };
    refresh();
    EXPECT_EQ(seen, Records{mail});
}

TEST_F(ApplicationServiceTest, TwoRefreshesAtOnceShareOneScanAndBothReturnWhenItIsDone)
{
    indexer->holds = true;
    Begun<void> first(loop, service->refresh());
    Begun<void> second(loop, service->refresh());
    loop.runUntilIdle();
    EXPECT_EQ(indexer->begun, 1);
    EXPECT_FALSE(first.done() || second.done());
    indexer->release();
    loop.runUntilIdle();
    EXPECT_TRUE(first.done() && second.done());
    EXPECT_EQ(indexer->begun, 1);
    EXPECT_EQ(changes, 1);
}

TEST_F(ApplicationServiceTest, ARefreshAfterAFinishedOneScansAgain)
{
    refresh();
    refresh();
    EXPECT_EQ(indexer->begun, 2);
    EXPECT_EQ(changes, 2) << "told also when nothing has changed";
}

TEST_F(ApplicationServiceTest, ACancelledRefreshLeavesTheScanToTheOthers)
{
    indexer->holds = true;
    indexer->records = {mail};
    Begun<void> first(loop, service->refresh());
    Begun<void> second(loop, service->refresh());
    loop.runUntilIdle();
    first.cancel();
    loop.runUntilIdle();
    EXPECT_THROW(first.result(), Cancelled);
    indexer->release();
    second.result();
    EXPECT_EQ(service->applications(), Records{mail});
}

TEST_F(ApplicationServiceTest, WithAllRootsMissingTheListIsEmptyAndTheChangeIsStillTold)
{
    ApplicationService::Ports ports{loop.executor(), clock, std::make_shared<ApplicationIndexer>(loop.executor(), source), source,
        launcher, workspace, {disk.path, std::nullopt}};
    const auto real = std::make_shared<ApplicationService>(std::move(ports));
    real->onIndexChange = [this] { ++changes; };
    await(loop, real->refresh());
    EXPECT_EQ(real->applications(), Records{});
    EXPECT_EQ(changes, 1);
}

TEST_F(ApplicationServiceTest, MonitoringScansEverySixtySecondsAndNotBefore)
{
    service->startMonitoring();
    clock.advance(59'999ms);
    EXPECT_EQ(indexer->begun, 0);
    clock.advance(1ms);
    EXPECT_EQ(indexer->begun, 1);
    clock.advance(120s);
    EXPECT_EQ(indexer->begun, 3);
}

TEST_F(ApplicationServiceTest, MonitoringThatBeginsAfterAScanLooksOnceMore)
{
    indexer->holds = true;
    Begun<void> refreshing(loop, service->refresh());
    loop.runUntilIdle();
    service->startMonitoring();
    clock.advance(10s);
    EXPECT_EQ(indexer->begun, 1) << "a scan in flight goes on alone";
    indexer->holds = false;
    indexer->release();
    refreshing.result();
    clock.advance(10s);
    EXPECT_EQ(indexer->begun, 2) << "what came between its beginning and the watch is found";
    clock.advance(40s);
    EXPECT_EQ(indexer->begun, 3) << "and then every minute";
}

TEST_F(ApplicationServiceTest, MonitoringTwiceIsMonitoringOnce)
{
    service->startMonitoring();
    service->startMonitoring();
    clock.advance(60s);
    EXPECT_EQ(indexer->begun, 1);
    EXPECT_EQ(folderWatcher.watched(), Strings{disk / "Applications"});
}

TEST_F(ApplicationServiceTest, MonitoringSharesAScanInFlight)
{
    indexer->holds = true;
    service->startMonitoring();
    clock.advance(59s);
    Begun<void> refreshing(loop, service->refresh());
    clock.advance(1s);
    EXPECT_EQ(indexer->begun, 1);
    indexer->release();
    refreshing.result();
    clock.advance(60s);
    EXPECT_EQ(indexer->begun, 2);
}

TEST_F(ApplicationServiceTest, TheWallClockMayJumpWithoutMovingTheRescan)
{
    service->startMonitoring();
    clock.advance(30s);
    clock.setWall(0);
    clock.advance(30s);
    EXPECT_EQ(indexer->begun, 1);
    EXPECT_EQ(service->lastRefresh(), 30);
}

TEST_F(ApplicationServiceTest, StoppingEndsTheMonitoringAndTheWatchButNotAScanInFlight)
{
    indexer->holds = true;
    indexer->records = {mail};
    service->startMonitoring();
    clock.advance(60s);
    service->stop();
    loop.runUntilIdle();
    EXPECT_EQ(folderWatcher.watched(), Strings{});
    indexer->release();
    clock.advance(600s);
    EXPECT_EQ(service->applications(), Records{mail});
    EXPECT_EQ(indexer->begun, 1);
    EXPECT_EQ(clock.sleepers(), 0u);
}

TEST_F(ApplicationServiceTest, AServiceThatGoesAwayDuringAScanTakesItsTasksAlong)
{
    indexer->holds = true;
    service->startMonitoring();
    clock.advance(60s);
    service.reset();
    indexer->release();
    loop.runUntilIdle();
    EXPECT_EQ(changes, 0);
    EXPECT_EQ(clock.sleepers(), 0u);
    EXPECT_EQ(folderWatcher.watched(), Strings{});
}

TEST_F(ApplicationServiceTest, AChangeInAFolderIsFollowedWithinASecond)
{
    service->startMonitoring();
    loop.runUntilIdle();
    folderWatcher.change(disk / "Applications");
    clock.advance(199ms);
    EXPECT_EQ(indexer->begun, 0);
    clock.advance(1ms);
    EXPECT_EQ(indexer->begun, 1);
    EXPECT_EQ(changes, 1);
}

TEST_F(ApplicationServiceTest, ChangesInABurstMakeOneScan)
{
    service->startMonitoring();
    loop.runUntilIdle();
    for (int i = 0; i < 19; ++i) {
        folderWatcher.change(disk / "Applications/sub");
        clock.advance(10ms);
    }
    clock.advance(5s);
    EXPECT_EQ(indexer->begun, 1);
}

TEST_F(ApplicationServiceTest, AChangeDuringAScanIsFollowedByAnotherScanAndNeverByTwoAtOnce)
{
    indexer->holds = true;
    service->startMonitoring();
    loop.runUntilIdle();
    folderWatcher.change(disk / "Applications");
    clock.advance(200ms);
    ASSERT_EQ(indexer->begun, 1);
    folderWatcher.change(disk / "Applications");
    clock.advance(10s);
    EXPECT_EQ(indexer->begun, 1) << "one at a time";
    indexer->release();
    loop.runUntilIdle();
    EXPECT_EQ(indexer->begun, 2);
    indexer->release();
    clock.advance(10s);
    EXPECT_EQ(indexer->begun, 2);
}

TEST_F(ApplicationServiceTest, AChangeDuringTheRescanOfTheClockIsNotLost)
{
    indexer->holds = true;
    service->startMonitoring();
    clock.advance(60s);
    ASSERT_EQ(indexer->begun, 1);
    folderWatcher.change(disk / "Applications");
    clock.advance(1s);
    indexer->release();
    loop.runUntilIdle();
    EXPECT_EQ(indexer->begun, 2);
}

TEST_F(ApplicationServiceTest, WithoutAFolderWatcherOnlyTheClockRescans)
{
    service = makeService(nullptr);
    service->startMonitoring();
    folderWatcher.change(disk / "Applications");
    clock.advance(59s);
    EXPECT_EQ(indexer->begun, 0);
    clock.advance(1s);
    EXPECT_EQ(indexer->begun, 1);
}

// Commands

TEST_F(ApplicationServiceTest, ThereIsOneCommandAnApplicationInTheOrderOfTheList)
{
    indexer->records = {mail, safari};
    refresh();
    const auto commands = service->commands();
    ASSERT_EQ(commands.size(), 2u);
    EXPECT_EQ(commands[0]->id(), "app:/Applications/Mail.app");
    EXPECT_EQ(commands[1]->id(), "app:/Applications/Safari.app");
}

TEST_F(ApplicationServiceTest, AnUnchangedApplicationKeepsItsRowAndAChangedOneGetsANewOne)
{
    indexer->records = {mail, safari};
    refresh();
    const auto before = service->commands();
    indexer->records[1].name = "Safari Preview";
    refresh();
    const auto after = service->commands();
    EXPECT_EQ(after[0], before[0]);
    EXPECT_EQ(after[0]->result({}), before[0]->result({}));
    EXPECT_NE(after[1], before[1]);
    EXPECT_EQ(after[1]->result({})->title, "Safari Preview");
    EXPECT_EQ(before[1]->result({})->title, "Safari");
}

// Search

TEST_F(ApplicationServiceTest, SearchFindsVisualStudioCodeByKeywordWhateverItsName)
{
    indexer->records = {{"Editor", "com.microsoft.VSCode", "/Applications/X.app"}, mail};
    refresh();
    EXPECT_EQ(found("vscode"), Strings{"Editor"});
}

TEST_F(ApplicationServiceTest, SearchFindsTheSameEditorByItsDesktopIdentifiers)
{
    indexer->records = {
        {"A", "code", "/a/x.desktop"}, {"B", "com.visualstudio.code", "/a/y.desktop"}, {"C", "codium", "/a/z.desktop"}};
    refresh();
    EXPECT_EQ(found("vscode"), (Strings{"A", "B"}));
}

TEST_F(ApplicationServiceTest, SearchRanksByTitleThenKeywordAndKeepsTheListsOrderForEqualScores)
{
    indexer->records = {{"Amail", "x", "/1.app"}, {"Letters", "org.mail", "/2.app"}, {"Mail", "y", "/3.app"},
        {"Mailbox", "z", "/4.app"}, {"Post", "org.mail2", "/5.app"}, {"Web", "w", "/6.app"}};
    refresh();
    EXPECT_EQ(found("mail"), (Strings{"Mail", "Mailbox", "Amail", "Letters", "Post"}));
}

TEST_F(ApplicationServiceTest, SearchLooksAtTheFileNameWithoutItsExtension)
{
    indexer->records = {{"Files", "org.files", "/x/nautilus.app"}};
    refresh();
    EXPECT_EQ(found("nautilus"), Strings{"Files"});
    EXPECT_EQ(found(".app"), Strings{});
}

TEST_F(ApplicationServiceTest, AnEmptyQueryFindsEverything)
{
    indexer->records = {mail, safari};
    refresh();
    EXPECT_EQ(found(""), (Strings{"Mail", "Safari"}));
}

// Launching

TEST_F(ApplicationServiceTest, OpeningLaunchesWithTheGivenArguments)
{
    const auto path = disk.folder("Applications/Mail.app");
    EXPECT_EQ(open(path), "");
    EXPECT_EQ(open(path, {"--new", "a b"}), "");
    EXPECT_EQ(launcher.launches, (std::vector<Launch>{{path, {}}, {path, {"--new", "a b"}}}));
}

TEST_F(ApplicationServiceTest, OpeningStandardisesThePathAndExpandsTheTilde)
{
    const auto path = disk.folder("Applications/Mail.app");
    EXPECT_EQ(open("~/Applications/Mail.app"), "");
    EXPECT_EQ(open(disk / "Applications/./x/..//Mail.app/"), "");
    EXPECT_EQ(launcher.launches, (std::vector<Launch>{{path, {}}, {path, {}}}));
}

TEST_F(ApplicationServiceTest, OpeningAnotherExtensionIsRefused)
{
    EXPECT_EQ(open(disk.folder("Mail.APP")), notInstalled);
    EXPECT_EQ(open(disk.folder("Mail")), notInstalled);
    EXPECT_EQ(open(disk.file("run.sh")), notInstalled);
    EXPECT_EQ(open(disk.folder(".app")), notInstalled) << "a hidden name is no extension";
    EXPECT_EQ(open(""), notInstalled);
    EXPECT_EQ(open("/"), notInstalled);
    EXPECT_EQ(open("~"), notInstalled);
    EXPECT_TRUE(launcher.launches.empty());
}

TEST_F(ApplicationServiceTest, OpeningWhatDoesNotExistIsRefused)
{
    EXPECT_EQ(open(disk / "Missing.app"), notInstalled);
    EXPECT_EQ(open(disk.link("Dangling.app", disk / "nowhere")), notInstalled);
    EXPECT_EQ(open(disk.path + "/" + std::string(5000, 'x') + ".app"), notInstalled);
    EXPECT_EQ(open(disk.folder("Real.app") + std::string("\0.app", 5)), notInstalled);
    EXPECT_TRUE(launcher.launches.empty());
}

TEST_F(ApplicationServiceTest, ARefusedLaunchIsToldInOneSentence)
{
    launcher.refuses = true;
    EXPECT_EQ(open(disk.folder("Mail.app")), "The application could not be launched.");
}

TEST_F(ApplicationServiceTest, AnOwnActionPassesTheSameChecks)
{
    const auto path = disk.folder("Mail.app");
    await(loop, service->openAction(path, "compose"));
    EXPECT_EQ(launcher.launches, (std::vector<Launch>{{path, {}, "compose"}}));
    EXPECT_THROW(await(loop, service->openAction(disk / "None.app", "compose")), AppError);
    launcher.refuses = true;
    try {
        await(loop, service->openAction(path, "compose"));
        FAIL() << "a refused action must throw";
    } catch (const AppError &error) {
        EXPECT_EQ(error.errorDescription(), "The application could not be launched.");
    }
}

// The record

TEST(ApplicationRecordTest, IsWrittenUnderExactlyItsThreeKeys)
{
    const ApplicationRecord record{"Mail", "com.apple.mail", "/Applications/Mail.app", {{"new", "New"}}};
    EXPECT_EQ(record.json().encodedString(),
        R"({"bundleIdentifier":"com.apple.mail","name":"Mail","path":"\/Applications\/Mail.app"})");
}

TEST(ApplicationRecordTest, APathThatIsNoTextIsShownAndItsBytesStandBeside)
{
    const auto json = ApplicationRecord{"X", "x", "/a\xff.app"}.json();
    EXPECT_EQ(json["path"], JSONValue("/a\uFFFD.app"));
    EXPECT_EQ(json["pathBytes"], JSONValue("L2H/LmFwcA=="));
}
