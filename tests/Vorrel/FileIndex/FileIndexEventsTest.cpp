#include "TestIndex.h"

using namespace korvane;
using namespace korvane::test;
using State = FileIndex::Health::State;

namespace {

/// An index that is idle and holds a little.
struct Following : TestIndex {
    explicit Following(std::vector<IndexedFile> files = {entry("/home/ada/a.txt")}, const std::string &path = ":memory:") :
        TestIndex(path)
    {
        root("/home/ada");
        attributes->put(entry("/home/ada/"));
        indexed(std::move(files));
        await(loop, repository().markFTSBackfillDone());
        start();
        log.clear();
    }

    void put(const IndexedFile &file)
    {
        attributes->put(file);
        for (auto parent = deletingLastPathComponent(file.path); parent.size() > 1; parent = deletingLastPathComponent(parent))
            attributes->there.try_emplace(parent, entry(parent + "/"));
    }
    void refuseWrites() { execute("CREATE TRIGGER refuse BEFORE INSERT ON file_index BEGIN SELECT RAISE(ABORT,'no'); END"); }
    void allowWrites() { execute("DROP TRIGGER refuse"); }
};

Strings numbered(const std::string &prefix, int count, int first = 0)
{
    Strings paths;
    for (int i = first; i < first + count; ++i)
        paths.push_back(prefix + std::to_string(i));
    return paths;
}

} // namespace

TEST(FileIndexEvents, AChangedPathIsInTheIndexASecondLater)
{
    Following index;
    index.put(entry("/home/ada/new.txt", 12, 99));
    index.tell({"/home/ada/new.txt"}, 5);
    index.wait(999ms);
    EXPECT_EQ(index.paths(), Strings{"/home/ada/a.txt"});
    index.wait(1ms);
    EXPECT_EQ(index.paths(), (Strings{"/home/ada/a.txt", "/home/ada/new.txt"}));
    EXPECT_EQ(index.savedID(), 5u);
}

TEST(FileIndexEvents, ARenameIsTwoPathsTheOldOneGoneAndTheNewOneFound)
{
    Following index;
    index.put(entry("/home/ada/b.txt"));
    index.tell({"/home/ada/a.txt", "/home/ada/b.txt"}, 1);
    index.wait(1s);
    EXPECT_EQ(index.paths(), Strings{"/home/ada/b.txt"});
}

TEST(FileIndexEvents, ADeletedFolderTakesItsSubtreeAlongAndTheEventsOfItsChildrenAreWithheld)
{
    std::vector<IndexedFile> files{entry("/home/ada/docs/"), entry("/home/ada/docs.txt")};
    for (const std::string &child : numbered("/home/ada/docs/", 10'000))
        files.push_back(entry(child));
    Following index(files);
    index.put(entry("/home/ada/docs.txt"));
    Strings events = numbered("/home/ada/docs/", 10'000);
    events.push_back("/home/ada/docs");
    index.tell(events, 3);
    index.wait(2s);
    EXPECT_EQ(index.paths().size(), 10'002u) << "the first two passes have only seen children";
    EXPECT_EQ(std::ranges::count(index.log, "Withheld 4000 event paths whose availability could not be confirmed"), 2);
    index.wait(1s);
    EXPECT_EQ(index.paths(), Strings{"/home/ada/docs.txt"});
    EXPECT_EQ(std::ranges::count(index.log, "Withheld 2000 event paths whose availability could not be confirmed"), 1);
    EXPECT_EQ(index.savedID(), 3u);
}

TEST(FileIndexEvents, ADeletedFolderTakesAlongWhatIsKnownBelowItThoughItIsNotKnownItself)
{
    Following index({entry("/home/ada/docs/a.txt"), entry("/home/ada/docs/old/deep/b.txt"), entry("/home/ada/docs.txt")});
    index.put(entry("/home/ada/docs.txt"));
    index.tell({"/home/ada/docs"}, 3);
    index.wait(1s);
    EXPECT_EQ(index.paths(), Strings{"/home/ada/docs.txt"});
}

TEST(FileIndexEvents, ARootThatVanishesKeepsItsRows)
{
    Following index;
    index.attributes->there.clear();
    index.attributes->put(entry("/home/"));
    index.tell({"/home/ada", "/home/ada/a.txt"}, 3);
    index.wait(1s);
    EXPECT_EQ(index.paths(), Strings{"/home/ada/a.txt"});
    EXPECT_TRUE(index.logged("Withheld 2 event paths"));
    EXPECT_EQ(index.savedID(), 3u) << "withheld paths are dropped, not tried again";
}

TEST(FileIndexEvents, APathOfWhichTheDiskDoesNotTellIsWithheld)
{
    Following index;
    index.attributes->unavailable = {"/home/ada/a.txt"};
    index.tell({"/home/ada/a.txt"}, 3);
    index.wait(1s);
    EXPECT_EQ(index.paths(), Strings{"/home/ada/a.txt"});
}

TEST(FileIndexEvents, APathWhoseParentCannotBeSeenIsNotDeleted)
{
    Following index({entry("/home/ada/far/"), entry("/home/ada/far/a.txt")});
    index.attributes->unavailable = {"/home/ada/far"};
    index.tell({"/home/ada/far/a.txt"}, 3);
    index.wait(1s);
    EXPECT_EQ(index.paths().size(), 2u);
}

TEST(FileIndexEvents, EventsForSkippedFoldersKeepNoTimerRunningAndMoveNoIdentifier)
{
    Following index;
    const auto sleepers = index.clock.sleepers();
    index.tell({"/home/ada/.local/share/Korvane/korvane.sqlite-wal", "/home/ada/.local/share/KorvaneElsewhere"}, 8);
    EXPECT_EQ(index.clock.sleepers(), sleepers);
    index.wait(5s);
    EXPECT_EQ(index.savedID(), 0u);
    EXPECT_TRUE(index.attributes->asked.empty());
}

TEST(FileIndexEvents, AFolderWhoseNameOnlyBeginsLikeThatOfASystemFolderIsFollowed)
{
    TestIndex index;
    index.places = IndexPlaces::linux(index.folders);
    index.make();
    for (const char *root : {"/devel", "/home/ada", "/runtime"})
        index.root(root);
    index.indexed({entry("/devel/old")});
    const Strings followed{"/devel/a", "/home/ada/.cached", "/runtime/a"};
    for (const std::string &path : followed)
        index.attributes->put(entry(path));
    index.start();
    Strings events{"/dev", "/dev/shm/a", "/run/a", "/proc/1/stat", "/sys/a", "/home/ada/.cache/a",
        "/home/ada/.local/share/Trash/files/a", "/home/ada/.local/share/Korvane/korvane.sqlite",
        "/home/ada/.local/share/KorvaneElsewhere"};
    events.insert(events.end(), followed.begin(), followed.end());
    index.tell(events, 1);
    index.wait(1s);
    EXPECT_EQ(index.attributes->asked, followed);
    EXPECT_EQ(index.paths(), (Strings{"/devel/a", "/devel/old", "/home/ada/.cached", "/runtime/a"}));
}

TEST(FileIndexEvents, TheSecondNameOfTheDataVolumeIsFoldedIntoThePathsThatTheScannerUses)
{
    TestIndex index;
    index.places.aliasPrefix = "/System/Volumes/Data";
    index.make();
    index.root("/Users/ada");
    index.indexed({entry("/Users/ada/old")});
    index.attributes->put(entry("/Users/ada/new"));
    index.start();
    index.tell({"/System/Volumes/Data/Users/ada/new"}, 1);
    index.wait(1s);
    EXPECT_EQ(index.paths(), (Strings{"/Users/ada/new", "/Users/ada/old"}));
}

TEST(FileIndexEvents, AnEventOfAnOlderIdentifierDoesNotTakeTheSavedOneBack)
{
    Following index;
    index.tell({"/home/ada/a.txt"}, 50);
    index.wait(1s);
    index.tell({"/home/ada/a.txt"}, 20);
    index.wait(1s);
    EXPECT_EQ(index.savedID(), 50u);
}

// Passes

TEST(FileIndexEvents, APassTakesAtMostFourThousandPathsAndTheRestFollowsASecondLater)
{
    Following index;
    index.tell(numbered("/home/ada/", 4001), 9);
    index.wait(1s);
    EXPECT_EQ(index.savedID(), 0u) << "a batch taken in part has no identifier yet";
    EXPECT_EQ(std::ranges::count_if(index.attributes->asked, [](const std::string &p) { return p == "/home/ada/4000"; }), 0);
    EXPECT_EQ(std::ranges::count_if(index.attributes->asked, [](const std::string &p) { return p == "/home/ada/3999"; }), 1);
    index.wait(1s);
    EXPECT_EQ(index.savedID(), 9u);
    EXPECT_EQ(index.clock.sleepers(), 0u) << "nothing is pending, so no timer runs";
}

TEST(FileIndexEvents, ABatchOfExactlyFourThousandIsTakenWhole)
{
    Following index;
    index.tell(numbered("/home/ada/", 4000), 9);
    index.wait(1s);
    EXPECT_EQ(index.savedID(), 9u);
}

TEST(FileIndexEvents, APassOverSeveralBatchesSavesTheIdentifierOfTheLastWholeOne)
{
    Following index;
    index.tell(numbered("/home/ada/x", 10), 5);
    index.tell(numbered("/home/ada/y", 3990), 6);
    index.tell({"/home/ada/z"}, 7);
    index.wait(1s);
    EXPECT_EQ(index.savedID(), 6u);
    index.wait(1s);
    EXPECT_EQ(index.savedID(), 7u);
}

TEST(FileIndexEvents, AThousandNoisyPathsFitAndTheNextOneEndsThePassWithoutLosingTheOrder)
{
    Following index;
    Strings events = numbered("/home/ada/node_modules/", 1001);
    events.push_back("/home/ada/real.txt");
    index.put(entry("/home/ada/real.txt"));
    index.tell(events, 4);
    index.wait(1s);
    EXPECT_EQ(index.paths(), Strings{"/home/ada/a.txt"}) << "no path overtakes another";
    index.wait(1s);
    EXPECT_EQ(index.paths(), (Strings{"/home/ada/a.txt", "/home/ada/real.txt"}));
}

TEST(FileIndexEvents, AThousandNoisyPathsAndThoseBehindThemAreOnePass)
{
    Following index;
    Strings events = numbered("/home/ada/.git/", 1000);
    events.push_back("/home/ada/real.txt");
    index.put(entry("/home/ada/real.txt"));
    index.tell(events, 4);
    index.wait(1s);
    EXPECT_EQ(index.savedID(), 4u);
    EXPECT_EQ(index.paths().size(), 2u);
}

TEST(FileIndexEvents, EventsWaitWhileAScanRunsAndAreAppliedAfterIt)
{
    Following index;
    index.rebuild();
    index.put(entry("/home/ada/late.txt"));
    index.tell({"/home/ada/late.txt"}, 4);
    index.wait(3s);
    EXPECT_EQ(index.paths(), Strings{"/home/ada/a.txt"});
    index.scanner->walk("/home/ada").stream.yield({entry("/home/ada/scanned.txt")});
    index.scanner->walk("/home/ada").stream.finish();
    index.settle();
    EXPECT_EQ(index.paths(), Strings{"/home/ada/scanned.txt"});
    index.wait(1s);
    EXPECT_EQ(index.paths(), (Strings{"/home/ada/late.txt", "/home/ada/scanned.txt"}));
}

TEST(FileIndexEvents, AFlushThatRunsWhenAScanBeginsIsCarriedToItsEnd)
{
    Following index;
    std::vector<std::function<void()>> looks;
    index.detached = [&looks](std::function<void()> look) { looks.push_back(std::move(look)); };
    index.put(entry("/home/ada/b.txt"));
    index.put(entry("/home/ada/c.txt"));
    index.tell({"/home/ada/b.txt"}, 4);
    index.wait(1s);
    ASSERT_EQ(looks.size(), 1u) << "the pass is looking at the disk";
    index.rebuild();
    ASSERT_TRUE(index.service->isScanning());
    index.tell({"/home/ada/c.txt"}, 5);
    index.wait(1s);
    EXPECT_EQ(looks.size(), 1u) << "no other begins during the scan";
    looks.front()();
    index.settle();
    EXPECT_EQ(index.paths(), (Strings{"/home/ada/a.txt", "/home/ada/b.txt"}));
    EXPECT_EQ(index.savedID(), 4u);
    index.scanner->walk("/home/ada").stream.yield({entry("/home/ada/b.txt")});
    index.scanner->walk("/home/ada").stream.finish();
    index.settle();
    index.wait(1s);
    ASSERT_EQ(looks.size(), 2u);
    looks.back()();
    index.settle();
    EXPECT_EQ(index.paths(), (Strings{"/home/ada/b.txt", "/home/ada/c.txt"}));
    EXPECT_EQ(index.savedID(), 5u);
}

// Too much

TEST(FileIndexEvents, FivePassesInARowThatLeaveTooMuchLeadToOneRebuildAndTheQueueIsDropped)
{
    Following index;
    index.tell(numbered("/home/ada/", 24'001), 1); // 20,001 are left after the first pass
    for (int pass = 1; pass <= 4; ++pass) {
        index.wait(1s);
        EXPECT_TRUE(index.scanner->walks.empty()) << pass;
        index.tell(numbered("/home/ada/", 4000), 1);
    }
    index.wait(1s);
    EXPECT_EQ(index.scanner->walks.size(), 1u);
    EXPECT_TRUE(index.logged("Event inflow sustained past the drain rate; rebuilding from staging"));
    index.scanner->walk("/home/ada").stream.finish();
    index.settle();
    index.attributes->asked.clear();
    index.wait(5s);
    EXPECT_TRUE(index.attributes->asked.empty()) << "the scan has seen what was queued";

    index.tell(numbered("/home/ada/", 24'001), 2);
    index.wait(1s);
    EXPECT_EQ(index.scanner->walks.size(), 1u) << "the counter begins again from 0";
}

TEST(FileIndexEvents, APassThatLeavesExactlyTwentyThousandDoesNotCount)
{
    Following index;
    index.tell(numbered("/home/ada/", 24'000), 1);
    for (int pass = 1; pass <= 8; ++pass) {
        index.wait(1s);
        index.tell(numbered("/home/ada/", 4000), 1);
    }
    EXPECT_TRUE(index.scanner->walks.empty());
}

TEST(FileIndexEvents, APassThatLeavesLittleBreaksTheRow)
{
    Following index;
    index.tell(numbered("/home/ada/", 24'001), 1);
    for (int pass = 1; pass <= 3; ++pass) {
        index.wait(1s);
        index.tell(numbered("/home/ada/", 4000), 1);
    }
    index.wait(1s); // the fourth in a row
    index.wait(1s); // leaves 16,001
    for (int pass = 1; pass <= 4; ++pass) {
        index.tell(numbered("/home/ada/", 8000), 1);
        index.wait(1s);
    }
    EXPECT_TRUE(index.scanner->walks.empty());
}

// Failures

TEST(FileIndexEvents, WhenTheStoreRefusesTheSamePathsComeBackInTheSameOrder)
{
    Following index;
    index.put(entry("/home/ada/b.txt"));
    index.put(entry("/home/ada/c.txt"));
    index.refuseWrites();
    index.tell({"/home/ada/c.txt"}, 3);
    index.tell({"/home/ada/b.txt", "/home/ada/a.txt"}, 4);
    index.wait(1s);
    EXPECT_TRUE(index.logged("File index update failed"));
    EXPECT_EQ(index.diagnostics.errorEvents().size(), 1u);
    EXPECT_EQ(index.savedID(), 0u);
    index.allowWrites();
    index.attributes->asked.clear();
    index.tell({"/home/ada/d.txt"}, 5);
    index.wait(1s);
    EXPECT_EQ((Strings{index.attributes->asked.begin(), index.attributes->asked.begin() + 3}),
        (Strings{"/home/ada/c.txt", "/home/ada/b.txt", "/home/ada/a.txt"}));
    EXPECT_EQ(index.paths(), (Strings{"/home/ada/b.txt", "/home/ada/c.txt"}));
    EXPECT_EQ(index.savedID(), 5u);
}

TEST(FileIndexEvents, TheTimerTriesAgainByItselfAfterAFailure)
{
    Following index;
    index.put(entry("/home/ada/b.txt"));
    index.refuseWrites();
    index.tell({"/home/ada/b.txt"}, 3);
    index.wait(3s);
    EXPECT_EQ(index.diagnostics.errorEvents().size(), 3u);
    index.allowWrites();
    index.wait(1s);
    EXPECT_EQ(index.savedID(), 3u);
    EXPECT_EQ(index.clock.sleepers(), 0u);
}

TEST(FileIndexEvents, PathsOfABatchTakenInPartAreNotPutBack)
{
    Following index;
    index.put(entry("/home/ada/0"));
    index.refuseWrites();
    index.tell(numbered("/home/ada/", 4001), 9);
    index.wait(1s);
    index.allowWrites();
    index.attributes->asked.clear();
    index.wait(1s);
    EXPECT_EQ(index.attributes->asked, Strings({"/home/ada/4000", "/home/ada"}));
    EXPECT_EQ(index.savedID(), 0u) << "the identifier would claim the lost paths too";
}

TEST(FileIndexEvents, PathsThatWereLostAreFoundByANewWatchFromTheLastIdentifierSavedWhenTheStoreWritesAgain)
{
    Following index;
    index.tell({"/home/ada/a.txt"}, 3);
    index.wait(1s);
    index.put(entry("/home/ada/0"));
    index.put(entry("/home/ada/4000"));
    index.refuseWrites();
    index.tell(numbered("/home/ada/", 12'000), 9);
    index.wait(2s); // two parts of the batch are lost
    const auto ofTheOldWatch = index.watcher.handler;
    index.allowWrites();
    EXPECT_EQ(index.watcher.starts.size(), 1u);
    index.wait(1s);
    ASSERT_EQ(index.watcher.starts.size(), 2u);
    EXPECT_EQ(index.watcher.starts.back(), (ScriptedWatcher::Start{{"/home/ada"}, 3}));
    ofTheOldWatch({"/home/ada/a.txt"}, 10);
    index.settle();
    index.wait(1s);
    EXPECT_EQ(index.savedID(), 3u) << "what the old watch has told late claims nothing";
    index.tell({"/home/ada/0"}, 11);
    index.wait(1s);
    EXPECT_EQ(index.savedID(), 11u);
    EXPECT_EQ(index.paths(), (Strings{"/home/ada/0"}));
    index.wait(60s);
    EXPECT_EQ(index.watcher.starts.size(), 2u) << "once is enough";
}

TEST(FileIndexEvents, AnIdentifierThatCannotBeSavedIsTriedAgain)
{
    Following index;
    index.execute("CREATE TRIGGER refuse BEFORE INSERT ON settings BEGIN SELECT RAISE(ABORT,'no'); END");
    index.tell({"/home/ada/a.txt"}, 3);
    index.wait(1s);
    EXPECT_TRUE(index.logged("File index update failed"));
    index.execute("DROP TRIGGER refuse");
    index.wait(1s);
    EXPECT_EQ(index.savedID(), 3u);
}

// Counting

TEST(FileIndexEvents, TheFilesAreCountedAgainAtMostOnceAMinute)
{
    Following index;
    index.put(entry("/home/ada/b.txt"));
    index.tell({"/home/ada/b.txt"}, 1);
    index.wait(1s);
    EXPECT_EQ(index.service->fileCount(), 2);
    EXPECT_EQ(index.status(), "Watching · 2 files");
    index.put(entry("/home/ada/c.txt"));
    index.tell({"/home/ada/c.txt"}, 2);
    index.wait(59s);
    EXPECT_EQ(index.service->fileCount(), 2);
    index.tell({"/home/ada/c.txt"}, 3);
    index.wait(1s);
    EXPECT_EQ(index.service->fileCount(), 3) << "60 seconds have passed";
}

// Restart

TEST(FileIndexEvents, AfterARestartTheWatchBeginsWhereTheLastAppliedEventWas)
{
    Following index;
    index.tell({"/home/ada/a.txt"}, 12);
    index.wait(1s);
    index.tell({"/home/ada/a.txt"}, 13); // never applied
    index.stop();
    index.make();
    index.start();
    EXPECT_EQ(index.watcher.starts.back().sinceID, 12u);
}

TEST(FileIndexEvents, AChangeOfTheRootsContinuesFromTheLastAppliedEvent)
{
    Following index;
    index.tell({"/home/ada/a.txt"}, 12);
    index.wait(1s);
    index.service->addRoot("/srv");
    index.settle();
    EXPECT_EQ(index.watcher.starts.back(), (ScriptedWatcher::Start{{"/home/ada", "/srv"}, 12}));
}

TEST(FileIndexEvents, NothingIsAppliedAfterTheStop)
{
    Following index;
    index.put(entry("/home/ada/b.txt"));
    index.tell({"/home/ada/b.txt"}, 2);
    index.stop();
    index.service->indexHealth();
    index.wait(5s);
    EXPECT_EQ(index.paths(), Strings{"/home/ada/a.txt"});
}

TEST(FileIndexEvents, AnEventThatArrivesAfterTheServiceHasGoneIsDropped)
{
    Following index;
    const auto handler = index.watcher.handler;
    index.service.reset();
    handler({"/home/ada/a.txt"}, 3);
    index.settle();
    index.wait(2s);
    EXPECT_TRUE(index.attributes->asked.empty());
}

TEST(FileIndexEvents, ACaseOnlyRenameOfAFolderIsFollowed)
{
    DiskFolder folder;
    Following index({entry("/home/ada/Docs/"), entry("/home/ada/Docs/a")}, folder / "korvane.sqlite");
    index.put(entry("/home/ada/docs/"));
    index.put(entry("/home/ada/docs/a"));
    index.tell({"/home/ada/Docs", "/home/ada/docs", "/home/ada/docs/a"}, 3);
    index.wait(1s);
    EXPECT_EQ(index.paths(), (Strings{"/home/ada/docs", "/home/ada/docs/a"}));
}
