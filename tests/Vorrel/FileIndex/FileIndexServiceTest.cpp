#include "TestIndex.h"

#include "Support/FileLock.h"

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

using namespace korvane;
using namespace korvane::test;
using State = FileIndex::Health::State;

namespace {

constexpr char notIndexed[] = "This folder is not indexed. Add it in Settings → File Index.";
constexpr char unreadable[] = "Indexed · 1 files, some folders unreadable. Check File & Folder permissions.";

std::string failureOf(TestIndex &index, const std::string &text)
{
    try {
        index.found(text);
    } catch (...) {
        return AppError::friendly(std::current_exception());
    }
    return {};
}

} // namespace

// Start

TEST(FileIndexService, AnEmptyIndexAtStartAddsTheDefaultRootsAndScansThem)
{
    TestIndex index;
    index.places.defaultRoots = {"/home/ada", "/opt"};
    index.attributes->put(entry("/opt/"));
    index.make();
    index.scanner->disk = {{"/home/ada", {entry("/home/ada/a.txt")}}, {"/opt", {entry("/opt/b/"), entry("/opt/b/c")}}};
    index.start();
    EXPECT_EQ(index.paths(), (Strings{"/home/ada/a.txt", "/opt/b", "/opt/b/c"}));
    EXPECT_EQ(index.status(), "Watching · 3 files");
    EXPECT_EQ(index.service->fileCount(), 3);
    EXPECT_EQ(index.service->roots()->size(), 2u);
}

TEST(FileIndexService, ADefaultRootAfterTheFirstCountsOnlyWhereItIsAFolder)
{
    TestIndex index;
    index.places.defaultRoots = {"/home/ada", "/opt", "/srv", "/usr/local"};
    index.attributes->put(entry("/srv"));
    index.attributes->put(entry("/usr/local/"));
    index.make();
    index.start();
    EXPECT_EQ(index.watcher.starts.front().roots, (Strings{"/home/ada", "/usr/local"}));
}

TEST(FileIndexService, ANonEmptyIndexAtStartIsNotScanned)
{
    TestIndex index;
    index.root("/home/ada");
    index.indexed({entry("/home/ada/a")});
    index.start();
    EXPECT_TRUE(index.scanner->walks.empty());
    EXPECT_EQ(index.status(), "Watching · 1 files");
    EXPECT_EQ(index.service->indexHealth(), (FileIndex::Health{1, 1, State::watching}));
}

TEST(FileIndexService, AUserWhoRemovedAllRootsGetsTheDefaultOnesAtTheNextStart)
{
    TestIndex index;
    index.start();
    index.service->removeRoot(index.service->roots()->front().id);
    index.settle();
    EXPECT_TRUE(index.service->roots()->empty());
    index.stop();
    index.make();
    index.start();
    EXPECT_EQ(index.service->roots()->front().path, "/home/ada");
}

TEST(FileIndexService, TheWatchBeginsBeforeAnyScanAndWithTheSavedIdentifier)
{
    TestIndex index;
    await(index.loop, index.repository().saveEventID(77));
    index.root("/home/ada");
    index.start();
    EXPECT_EQ(index.watcher.starts, (std::vector<ScriptedWatcher::Start>{{{"/home/ada"}, 77}}));
    EXPECT_TRUE(index.scanner->walked("/home/ada"));
}

TEST(FileIndexService, TheFirstRunWatchesFromNow)
{
    TestIndex index;
    index.start();
    EXPECT_EQ(index.watcher.starts.front().sinceID, 0u);
}

TEST(FileIndexService, AWatchThatCannotBeginIsToldByTheHealthAlsoWhenTheStatusIsOverwritten)
{
    TestIndex index;
    index.root("/home/ada");
    index.indexed({entry("/home/ada/a")});
    index.watcher.fails = true;
    Strings seen;
    const auto subscription =
        const_cast<Observed<std::string> &>(index.service->statusText()).observe([&] { seen.push_back(index.status()); });
    index.start();
    EXPECT_EQ(seen.front(), "Indexed · live updates unavailable (File system monitoring could not start.)");
    EXPECT_EQ(index.status(), "Watching · 1 files");
    EXPECT_EQ(index.service->indexHealth().state, State::liveUpdatesUnavailable);
}

TEST(FileIndexService, AWatchThatNeverAnswersIsGivenUpAfterFifteenSecondsAndTheScanGoesOn)
{
    TestIndex index;
    index.watcher.hangs = true;
    index.scanner->disk = {{"/home/ada", {entry("/home/ada/a.txt")}}};
    const Begun<void> start(index.loop, index.service->start());
    index.settle();
    Strings seen;
    const auto subscription =
        const_cast<Observed<std::string> &>(index.service->statusText()).observe([&] { seen.push_back(index.status()); });
    index.wait(14'999ms);
    EXPECT_FALSE(start.done());
    EXPECT_TRUE(index.scanner->walks.empty());
    index.wait(1ms);
    EXPECT_TRUE(start.done());
    EXPECT_EQ(seen.front(), "Indexed · live updates unavailable (File system monitoring could not start.)");
    EXPECT_EQ(index.service->indexHealth().state, State::liveUpdatesUnavailable);
    EXPECT_EQ(index.watcher.stops, 1) << "what comes of it later is wanted no more";
    EXPECT_EQ(index.paths(), Strings{"/home/ada/a.txt"});
}

TEST(FileIndexService, ARootWithWhichTheWatchHangsCanBeRemovedAndTheOthersAreFollowedAgain)
{
    TestIndex index;
    index.root("/home/ada");
    index.indexed({entry("/home/ada/a")});
    index.start();
    index.watcher.hangs = true;
    index.service->addRoot("/mnt/dead");
    index.settle();
    index.wait(15s);
    EXPECT_FALSE(index.service->busy() && !index.service->isScanning());
    EXPECT_TRUE(index.scanner->walked("/home/ada")) << "the scan does not wait for the watch";
    EXPECT_EQ(index.service->indexHealth().state, State::indexing);
    index.watcher.hangs = false;
    index.service->removeRoot(index.service->roots()->back().id);
    index.settle();
    EXPECT_EQ(index.watcher.starts.back().roots, Strings{"/home/ada"});
    for (const auto &walk : index.scanner->walks)
        walk->stream.finish();
    index.settle();
    EXPECT_EQ(index.service->indexHealth().state, State::watching);
}

TEST(FileIndexService, AStopWhileTheWatchHangsEndsTheStartAtOnce)
{
    TestIndex index;
    index.watcher.hangs = true;
    const Begun<void> start(index.loop, index.service->start());
    index.settle();
    index.stop();
    EXPECT_TRUE(start.done());
    EXPECT_EQ(index.clock.sleepers(), 0u);
    EXPECT_TRUE(index.scanner->walks.empty());
}

TEST(FileIndexService, AfterAStopNoChangeOfTheRootsBeginsAWatch)
{
    TestIndex index;
    index.start();
    const auto before = index.watcher.starts.size();
    index.service->addRoot("/srv");
    const Begun<void> stopping(index.loop, index.service->stop());
    index.settle();
    EXPECT_TRUE(stopping.done());
    EXPECT_EQ(index.watcher.starts.size(), before);
    EXPECT_EQ(index.watcher.handler, nullptr);
}

TEST(FileIndexService, ADefaultRootOnADeadVolumeCostsFifteenSecondsAndThatRootAlone)
{
    TestIndex index;
    index.places.defaultRoots = {"/home/ada", "/opt", "/srv"};
    index.attributes->put(entry("/opt/"));
    index.attributes->put(entry("/srv/"));
    int begun = 0;
    index.detached = [&](std::function<void()> work) {
        if (++begun != 1) // the first is that of /opt
            runLater(index.loop.executor(), std::move(work));
    };
    index.make();
    const Begun<void> start(index.loop, index.service->start());
    index.settle();
    EXPECT_FALSE(start.done());
    index.wait(15s);
    EXPECT_TRUE(start.done());
    EXPECT_EQ(index.watcher.starts.front().roots, (Strings{"/home/ada", "/srv"}));
}

TEST(FileIndexService, AStoreThatCannotBeReadIsToldAndEndsTheStartAlone)
{
    TestIndex index;
    index.execute("DROP TABLE index_roots");
    index.start();
    EXPECT_EQ(index.status(), "The database query could not be prepared.");
    EXPECT_TRUE(index.logged("File index bootstrap failed"));
    EXPECT_EQ(index.diagnostics.errorEvents().size(), 1u);
    EXPECT_TRUE(index.watcher.starts.empty());
}

TEST(FileIndexService, AStopAfterAFailedStartDoesNotForgetTheSavedIdentifier)
{
    TestIndex index;
    await(index.loop, index.repository().saveEventID(42));
    index.execute("ALTER TABLE index_roots RENAME TO elsewhere");
    index.start();
    index.stop();
    EXPECT_EQ(index.savedID(), 42u);
}

// The names of an older index

TEST(FileIndexService, AnIndexFromBeforeTheTableOfNamesIsFilledInOnce)
{
    TestIndex index;
    index.root("/home/ada");
    index.execute("DROP TRIGGER file_index_ai");
    index.indexed({entry("/home/ada/report.txt")});
    EXPECT_TRUE(index.found("report").empty());
    index.start();
    EXPECT_EQ(index.found("report"), Strings{"/home/ada/report.txt"});
    EXPECT_EQ(index.status(), "Watching · 1 files");
    EXPECT_TRUE(index.logged("FTS trigram index ready"));
    EXPECT_TRUE(await(index.loop, index.repository().ftsBackfillDone()));
}

TEST(FileIndexService, AFilledTableOfNamesIsNotFilledAgain)
{
    TestIndex index;
    index.root("/home/ada");
    index.indexed({entry("/home/ada/report.txt")});
    await(index.loop, index.repository().markFTSBackfillDone());
    index.start();
    EXPECT_FALSE(index.logged("FTS"));
}

TEST(FileIndexService, AFailedFillingKeepsItsStatusAndIsTriedAtTheNextStart)
{
    TestIndex index;
    index.root("/home/ada");
    index.indexed({entry("/home/ada/report.txt")});
    index.execute("CREATE TRIGGER refuse BEFORE INSERT ON settings WHEN new.key='fileIndex.ftsBackfilled' "
                  "BEGIN SELECT RAISE(ABORT,'no'); END");
    index.start();
    EXPECT_EQ(index.status(), "Preparing search index…");
    EXPECT_TRUE(index.logged("FTS backfill failed"));
    index.stop();
    index.execute("DROP TRIGGER refuse");
    index.make();
    index.start();
    EXPECT_TRUE(index.logged("FTS trigram index ready"));
}

TEST(FileIndexService, ACompletedRebuildMarksTheNamesAsFilled)
{
    TestIndex index;
    index.scanner->disk = {{"/home/ada", {entry("/home/ada/a")}}};
    index.start();
    EXPECT_TRUE(await(index.loop, index.repository().ftsBackfillDone()));
}

// Scans

TEST(FileIndexService, SearchesSeeTheOldRowsOfARootUntilItsScanHasEnded)
{
    TestIndex index;
    index.root("/home/ada");
    index.indexed({entry("/home/ada/old.txt")});
    index.start();
    index.rebuild();
    auto &walk = index.scanner->walk("/home/ada");
    walk.stream.yield({entry("/home/ada/new.txt")});
    index.settle();
    EXPECT_EQ(index.status(), "Indexing · 1 files");
    EXPECT_EQ(index.service->indexHealth().state, State::indexing);
    EXPECT_EQ(index.found(".txt"), Strings{"/home/ada/old.txt"});
    walk.stream.finish();
    index.settle();
    EXPECT_EQ(index.found(".txt"), Strings{"/home/ada/new.txt"});
    EXPECT_EQ(index.status(), "Watching · 1 files");
    EXPECT_FALSE(index.service->isScanning());
}

TEST(FileIndexService, ManyFilesAreCountedWithTheSeparatorsOfTheLanguage)
{
    TestIndex index;
    index.start();
    std::vector<IndexedFile> many;
    for (int i = 0; i < 1234; ++i)
        many.push_back(entry("/home/ada/" + std::to_string(i)));
    index.scanner->walk("/home/ada").stream.yield(many);
    index.settle();
    EXPECT_EQ(index.status(), "Indexing · 1,234 files");
}

TEST(FileIndexService, ARebuildDuringARebuildStopsTheOlderScanAtItsNextBatchAndKeepsWhatItHasPublished)
{
    TestIndex index;
    index.root("/home/ada");
    index.root("/srv");
    index.scanner->disk = {{"/srv", {entry("/srv/published")}}};
    index.start();
    auto &older = index.scanner->walk("/home/ada");
    older.stream.yield({entry("/home/ada/first")});
    index.settle();
    index.rebuild();
    EXPECT_TRUE(older.ended);
    older.stream.yield({entry("/home/ada/second")});
    older.stream.finish();
    index.settle();
    EXPECT_EQ(index.paths(), Strings{"/srv/published"});
    EXPECT_TRUE(index.service->isScanning()) << "the newer rebuild still runs";
    index.scanner->walk("/home/ada").stream.yield({entry("/home/ada/third")});
    index.scanner->walk("/home/ada").stream.finish();
    index.settle();
    EXPECT_EQ(index.paths(), (Strings{"/home/ada/third", "/srv/published"}));
    EXPECT_FALSE(index.service->isScanning());
    EXPECT_EQ(index.service->scannedCount(), 2);
}

TEST(FileIndexService, ARootThatFailsKeepsItsRowsAndCostsNoOtherRoot)
{
    TestIndex index;
    index.root("/home/ada");
    index.root("/srv");
    index.indexed({entry("/home/ada/kept")});
    index.start();
    index.scanner->disk = {{"/home/ada", {entry("/home/ada/half")}}, {"/srv", {}}};
    index.scanner->failing = {"/home/ada"};
    index.rebuild();
    EXPECT_EQ(index.paths(), Strings{"/home/ada/kept"});
    EXPECT_EQ(index.status(), unreadable);
    EXPECT_TRUE(index.staged().empty()) << "what was staged of the failed root is thrown away";
    EXPECT_EQ(index.diagnostics.errorEvents().size(), 1u);
    EXPECT_TRUE(index.logged("File index root scan failed"));
}

TEST(FileIndexService, AWholeRebuildAfterAFailedOneSaysNothingOfTheFailure)
{
    TestIndex index;
    index.scanner->disk = {{"/home/ada", {entry("/home/ada/a")}}};
    index.scanner->failing = {"/home/ada"};
    index.start();
    index.scanner->failing.clear();
    index.rebuild();
    EXPECT_EQ(index.status(), "Watching · 1 files");
}

TEST(FileIndexService, AnEmptyWalkPublishesAnEmptyRoot)
{
    TestIndex index;
    index.root("/home/ada");
    index.indexed({entry("/home/ada/old")});
    index.start();
    index.scanner->disk = {{"/home/ada", {}}};
    index.rebuild();
    EXPECT_TRUE(index.paths().empty());
}

TEST(FileIndexService, WhatACrashLeftInTheStagingTableIsThrownAwayByTheNextRebuild)
{
    TestIndex index;
    index.root("/home/ada");
    index.indexed({entry("/home/ada/old")});
    await(index.loop, index.repository().stage({entry("/home/ada/half-scanned")}));
    index.start();
    EXPECT_EQ(index.paths(), Strings{"/home/ada/old"});
    index.scanner->disk = {{"/home/ada", {entry("/home/ada/new")}}};
    index.rebuild();
    EXPECT_EQ(index.paths(), Strings{"/home/ada/new"});
    EXPECT_TRUE(index.staged().empty());
}

TEST(FileIndexService, ARootIsNotWalkedWhereTheProgramKeepsItsDataNorWhereAnotherRootIsNestedInIt)
{
    TestIndex index;
    index.root("/home/ada");
    index.root("/home/ada/studio");
    index.root("/home/adamant");
    index.start();
    EXPECT_EQ(index.scanner->walk("/home/ada").skips, (Strings{"/home/ada/.local/share/Korvane", "/home/ada/studio"}));
    EXPECT_EQ(index.scanner->walk("/home/ada/studio").skips, Strings{"/home/ada/.local/share/Korvane"});
}

TEST(FileIndexService, ANestedRootKeepsItsRowsWhenTheOuterOneIsPublished)
{
    TestIndex index;
    index.root("/home/ada");
    index.root("/home/ada/studio");
    index.start();
    index.scanner->walk("/home/ada/studio").stream.yield({entry("/home/ada/studio/w")});
    index.scanner->walk("/home/ada/studio").stream.finish();
    index.settle();
    index.scanner->walk("/home/ada").stream.yield({entry("/home/ada/a")});
    index.scanner->walk("/home/ada").stream.finish();
    index.settle();
    EXPECT_EQ(index.paths(), (Strings{"/home/ada/a", "/home/ada/studio/w"}));
}

TEST(FileIndexService, ARootRemovedDuringItsScanLeavesNoRows)
{
    TestIndex index;
    index.root("/home/ada");
    index.root("/srv");
    index.start();
    auto &walk = index.scanner->walk("/srv");
    walk.stream.yield({entry("/srv/a")});
    index.settle();
    index.service->removeRoot(index.service->roots()->back().id);
    index.settle();
    walk.stream.finish();
    index.scanner->walk("/home/ada").stream.finish();
    index.settle();
    EXPECT_TRUE(index.paths().empty());
    EXPECT_FALSE(index.service->isScanning());
    EXPECT_EQ(index.status(), "Watching · 0 files") << "no failure is told";
}

TEST(FileIndexService, TheCountGrowsRootByRoot)
{
    TestIndex index;
    index.root("/home/ada");
    index.root("/srv");
    index.scanner->disk = {{"/srv", {entry("/srv/a"), entry("/srv/b")}}};
    index.start();
    EXPECT_EQ(index.service->fileCount(), 2);
    EXPECT_TRUE(index.service->isScanning());
    EXPECT_TRUE(index.logged("File index root scan finished: /srv"));
    EXPECT_FALSE(index.logged("File index scan completed"));
}

TEST(FileIndexService, AnIndexThatCannotBeCountedSaysSoAndEndsTheScan)
{
    TestIndex index;
    index.start();
    index.execute("DROP TABLE file_index_staging");
    index.scanner->walk("/home/ada").stream.finish();
    index.settle();
    EXPECT_FALSE(index.service->isScanning());
    EXPECT_EQ(index.status(), "The database query could not be prepared.");
    EXPECT_TRUE(index.logged("File index count failed"));
}

TEST(FileIndexService, ARebuildAsksForAnotherWhileItClearsTheStagingTable)
{
    TestIndex index;
    index.root("/home/ada");
    index.indexed({entry("/home/ada/a")});
    index.start();
    index.service->rebuild();
    index.service->rebuild();
    index.service->rebuild();
    index.settle();
    EXPECT_EQ(index.scanner->walks.size(), 1u) << "the older two never got to a walk";
    index.scanner->walk("/home/ada").stream.finish();
    index.settle();
    EXPECT_FALSE(index.service->isScanning());
}

TEST(FileIndexService, AServiceThatGoesAwayInTheMiddleOfAScanEndsTheWalk)
{
    TestIndex index;
    index.start();
    const auto walk = index.scanner->walks.back();
    walk->stream.yield({entry("/home/ada/a")});
    index.service.reset();
    index.settle();
    EXPECT_TRUE(walk->ended);
    index.make();
    EXPECT_TRUE(index.paths().empty());
}

// Roots

TEST(FileIndexService, AnAddedRootIsWatchedAndEveryRootScannedAgain)
{
    TestIndex index;
    index.root("/home/ada");
    index.indexed({entry("/home/ada/a")});
    index.start();
    index.service->addRoot("~/../srv");
    EXPECT_TRUE(index.service->busy());
    index.settle();
    EXPECT_EQ(index.watcher.stops, 1);
    EXPECT_EQ(index.watcher.starts.back().roots, (Strings{"/home/ada", "/home/ada/../srv"}));
    EXPECT_TRUE(index.scanner->walked("/home/ada"));
    EXPECT_TRUE(index.service->isScanning());
}

TEST(FileIndexService, ARootThatCannotBeAddedSaysWhy)
{
    TestIndex index;
    index.root("/home/ada");
    index.indexed({entry("/home/ada/a")});
    index.start();
    index.execute("CREATE TRIGGER refuse BEFORE INSERT ON index_roots BEGIN SELECT RAISE(ABORT,'no'); END");
    index.service->addRoot("/srv");
    index.settle();
    EXPECT_EQ(index.status(), "Could not save local data.");
    EXPECT_TRUE(index.scanner->walks.empty());
    EXPECT_FALSE(index.service->busy());
}

TEST(FileIndexService, ARemovedRootTakesItsRowsAlongAndThoseOfRootsNestedInIt)
{
    TestIndex index;
    index.root("/home/ada");
    index.root("/srv");
    index.root("/srv/nested");
    index.indexed({entry("/home/ada/a"), entry("/srv/b"), entry("/srv/nested/c")});
    index.start();
    index.service->removeRoot(index.service->roots()->at(1).id);
    index.settle();
    EXPECT_EQ(index.paths(), Strings{"/home/ada/a"});
    EXPECT_EQ(index.watcher.starts.back().roots, (Strings{"/home/ada", "/srv/nested"}));
    EXPECT_EQ(index.status(), "Watching · 1 files");
}

TEST(FileIndexService, ARootRemovedAtAnyStepOfItsScanLeavesNoRows)
{
    for (const bool again : {false, true}) {
        bool isOver = false;
        for (int steps = 0; !isOver; ++steps) {
            TestIndex index;
            index.root("/home/ada");
            index.root("/srv");
            index.indexed({entry("/home/ada/kept")});
            if (again)
                index.indexed({entry("/srv/a"), entry("/srv/old")});
            index.start();
            index.rebuild();
            index.scanner->walk("/srv").stream.yield({entry("/srv/a"), entry("/srv/b/"), entry("/srv/b/c")});
            index.scanner->walk("/srv").stream.finish();
            int taken = 0;
            while (taken < steps && index.loop.runOne())
                ++taken;
            isOver = taken < steps;
            index.service->removeRoot(index.service->roots()->back().id);
            index.settle();
            ASSERT_EQ(index.paths(), Strings{"/home/ada/kept"}) << "removed after " << taken << " steps";
            ASSERT_EQ(index.service->roots()->size(), 1u);
        }
    }
}

TEST(FileIndexService, ARemovalThatFailsInTheMiddleLeavesTheRootAndItsRows)
{
    DiskFolder folder;
    TestIndex index(folder / "korvane.sqlite");
    index.root("/srv");
    index.indexed({entry("/srv/a")});
    index.start();
    index.execute("CREATE TRIGGER refuse BEFORE DELETE ON index_roots BEGIN SELECT RAISE(ABORT,'no'); END");
    index.service->removeRoot(index.service->roots()->front().id);
    index.settle();
    EXPECT_EQ(index.paths(), Strings{"/srv/a"}) << "a root that is listed and empty would never be scanned";
    EXPECT_EQ(index.status(), "Could not save local data.");
    index.execute("DROP TRIGGER refuse");
    index.rebuild();
    index.scanner->walk("/srv").stream.yield({entry("/srv/new")});
    index.scanner->walk("/srv").stream.finish();
    index.settle();
    EXPECT_EQ(index.paths(), Strings{"/srv/new"}) << "the root is followed as before";
}

TEST(FileIndexService, EventsOfARemovedRootBringNoneOfItsRowsBack)
{
    TestIndex index;
    index.root("/home/ada");
    index.root("/srv");
    index.indexed({entry("/home/ada/a")});
    for (const char *path : {"/srv/", "/srv/a", "/home/ada/", "/home/ada/b"})
        index.attributes->put(entry(path));
    index.start();
    index.tell({"/srv/a", "/home/ada/b"}, 3);
    index.service->removeRoot(index.service->roots()->back().id);
    index.settle();
    index.wait(1s);
    EXPECT_EQ(index.paths(), (Strings{"/home/ada/a", "/home/ada/b"}));
    index.service->addRoot("/srv");
    index.settle();
    for (const auto &walk : index.scanner->walks)
        walk->stream.finish();
    index.settle();
    index.tell({"/srv/a"}, 4);
    index.wait(1s);
    EXPECT_EQ(index.paths(), Strings{"/srv/a"}) << "a root that was added again is one like any other";
}

TEST(FileIndexService, FoldersWithoutAWatchAreToldByTheStatusWhileThereAreSome)
{
    TestIndex index;
    index.root("/home/ada");
    index.indexed({entry("/home/ada/a")});
    index.start();
    index.watcher.unwatched(1234);
    index.settle();
    EXPECT_EQ(index.status(), "Watching · 1 files, 1,234 folders checked once a minute");
    index.rebuild();
    index.scanner->walk("/home/ada").stream.yield({entry("/home/ada/a"), entry("/home/ada/b")});
    index.settle();
    index.watcher.unwatched(1235);
    index.settle();
    EXPECT_EQ(index.status(), "Indexing · 2 files");
    index.scanner->walk("/home/ada").stream.finish();
    index.settle();
    EXPECT_EQ(index.status(), "Watching · 2 files, 1,235 folders checked once a minute");
    index.watcher.unwatched(0);
    index.settle();
    EXPECT_EQ(index.status(), "Watching · 2 files");
}

TEST(FileIndexService, RemovingAnUnknownRootChangesNothing)
{
    TestIndex index;
    index.root("/home/ada");
    index.indexed({entry("/home/ada/a")});
    index.start();
    index.service->removeRoot("none");
    index.settle();
    EXPECT_EQ(index.paths(), Strings{"/home/ada/a"});
    EXPECT_EQ(index.service->roots()->size(), 1u);
}

TEST(FileIndexService, TheWholeDiskCanBeARoot)
{
    DiskFolder folder;
    TestIndex index(folder / "korvane.sqlite");
    index.places.defaultRoots = {"/"};
    index.make();
    index.scanner->disk = {{"/", {entry("/srv/"), entry("/srv/a.txt"), entry("/b.txt")}}};
    index.start();
    EXPECT_EQ(index.paths(), (Strings{"/b.txt", "/srv", "/srv/a.txt"}));
    EXPECT_EQ(index.found(".txt", "/"), (Strings{"/b.txt", "/srv/a.txt"}));
    index.scanner->disk = {{"/", {entry("/srv/"), entry("/srv/c.txt")}}};
    index.rebuild();
    EXPECT_EQ(index.paths(), (Strings{"/srv", "/srv/c.txt"}));
    EXPECT_TRUE(index.staged().empty());
    index.service->removeRoot(index.service->roots()->front().id);
    index.settle();
    EXPECT_TRUE(index.paths().empty());
}

// Search

TEST(FileIndexService, ASearchOfBlanksReturnsAtOnceWithoutARecord)
{
    TestIndex index;
    index.start();
    EXPECT_TRUE(index.found(" \t\n ").empty());
    EXPECT_TRUE(index.diagnostics.searchTimings().empty());
}

TEST(FileIndexService, ASearchIsRecordedWithItsResultsAndItsTime)
{
    TestIndex index;
    index.indexed({entry("/home/ada/a.txt", 5, 1234.5), entry("/home/ada/b.txt")});
    const auto found = await(index.loop, index.service->search(".txt", std::nullopt));
    EXPECT_EQ(found.at(0), (FileRecord{"a.txt", "/home/ada/a.txt", false, 5, 1234.5}));
    EXPECT_EQ(found.at(1).modified, std::nullopt) << "0 means unknown";
    ASSERT_EQ(index.diagnostics.searchTimings().size(), 1u);
    EXPECT_EQ(index.diagnostics.searchTimings().front().results, 2);
    EXPECT_FALSE(index.diagnostics.searchTimings().front().timedOut);
}

TEST(FileIndexService, ASearchGivesAtMostAHundredFiles)
{
    TestIndex index;
    std::vector<IndexedFile> many;
    for (int i = 0; i < 101; ++i)
        many.push_back(entry("/home/ada/same" + std::to_string(i)));
    index.indexed(many);
    EXPECT_EQ(index.found("same").size(), 100u);
}

TEST(FileIndexService, ASearchLooksBelowADirectoryWhenOneIsGiven)
{
    TestIndex index;
    index.indexed({entry("/home/ada/a/x.txt"), entry("/home/ada/b/x.txt")});
    EXPECT_EQ(index.found("x.txt", "~/b"), Strings{"/home/ada/b/x.txt"});
}

TEST(FileIndexService, AFolderOutsideEveryRootIsRefused)
{
    TestIndex index;
    index.root("/home/ada");
    index.indexed({entry("/home/ada/a")});
    index.start();
    EXPECT_EQ(failureOf(index, "path:/srv/files"), notIndexed);
    EXPECT_EQ(failureOf(index, "path:/home/adamant"), notIndexed) << "the same beginning is no parent";
    EXPECT_EQ(index.diagnostics.errorEvents().back().category, DiagnosticsService::Category::fileSearch);
    EXPECT_EQ(index.diagnostics.searchTimings().back().results, 0);
}

TEST(FileIndexService, APathInsideARootARootItselfAndAParentOfARootPass)
{
    TestIndex index;
    index.root("/home/ada");
    index.indexed({entry("/home/ada/docs/a")});
    index.start();
    for (const char *path : {"path:/home/ada/docs", "path:/home/ada", "path:~", "path:/home", "path:/", "path:/home/"})
        EXPECT_EQ(index.found(path), Strings{"/home/ada/docs/a"}) << path;
}

TEST(FileIndexService, OnlyTheFirstAbsolutePathIsTested)
{
    TestIndex index;
    index.root("/home/ada");
    index.indexed({entry("/home/ada/docs/a")});
    index.start();
    EXPECT_EQ(failureOf(index, "path:docs path:/srv"), notIndexed);
    EXPECT_TRUE(index.found("path:/home/ada path:/srv").empty());
}

TEST(FileIndexService, WithoutAnyRootNoPathIsTested)
{
    TestIndex index;
    index.indexed({entry("/srv/a")});
    EXPECT_EQ(index.found("path:/srv"), Strings{"/srv/a"});
}

TEST(FileIndexService, AQueryThatDoesNotParseIsAFailedSearch)
{
    TestIndex index;
    EXPECT_EQ(failureOf(index, "kind:nothing"), "Use kind:file, folder, document, image, media or other.");
    EXPECT_EQ(index.diagnostics.searchTimings().size(), 1u);
}

TEST(FileIndexService, ACancelledSearchIsRecordedWithoutResultsAndNotAsTimedOut)
{
    TestIndex index;
    Begun<std::vector<FileRecord>> search(index.loop, index.service->search("a", std::nullopt));
    search.cancel();
    EXPECT_THROW(search.result(), Cancelled);
    ASSERT_EQ(index.diagnostics.searchTimings().size(), 1u);
    EXPECT_EQ(index.diagnostics.searchTimings().back().results, 0);
    EXPECT_FALSE(index.diagnostics.searchTimings().back().timedOut);
}

TEST(FileIndexService, WithoutDiagnosticsNothingIsRecordedAndNothingFails)
{
    TestIndex index;
    auto scanner = std::make_unique<ScriptedScanner>();
    const auto service = std::make_shared<FileIndexService>(FileIndexService::Ports{.mainThread = index.loop.executor(),
        .pool = index.loop.executor(),
        .clock = index.clock,
        .folders = index.folders,
        .places = index.places,
        .database = index.database,
        .searchDatabase = nullptr,
        .scanner = std::move(scanner),
        .attributes = index.attributes});
    EXPECT_THROW(await(index.loop, service->search("kind:nothing", std::nullopt)), AppError);
    EXPECT_TRUE(await(index.loop, service->search("a", std::nullopt)).empty());
}

// Stop

TEST(FileIndexService, StopEndsTheScanSavesTheIdentifierAndClosesTheSearchConnection)
{
    DiskFolder folder;
    TestIndex index(folder / "korvane.sqlite");
    index.start();
    const auto walk = index.scanner->walks.back();
    index.stop();
    EXPECT_TRUE(walk->ended);
    EXPECT_EQ(index.watcher.stops, 1);
    EXPECT_EQ(failureOf(index, "a"), "The database is closed.");
    EXPECT_TRUE(index.paths().empty());
}

// One process at a time

namespace {

/// Another process that has the lock on a file until it is told to end.
class LockHolder {
public:
    explicit LockHolder(const std::string &path)
    {
        int ends[2];
        if (::pipe(ends) != 0)
            throw std::runtime_error("no pipe");
        child = ::fork();
        if (child == 0) {
            const auto lock = FileLock::tryTake(path);
            (void)!::write(ends[1], lock ? "1" : "0", 1);
            ::pause();
            ::_exit(0);
        }
        char answer = '0';
        (void)!::read(ends[0], &answer, 1);
        holds = answer == '1';
        ::close(ends[0]), ::close(ends[1]);
    }
    ~LockHolder() { end(); }
    void end()
    {
        if (child > 0) {
            ::kill(child, SIGKILL);
            ::waitpid(child, nullptr, 0);
        }
        child = -1;
    }
    bool holds = false;

private:
    pid_t child = -1;
};

} // namespace

TEST(FileIndexService, WhileAnotherProcessWorksOnTheIndexTheStartWaitsWithoutHoldingUpTheRest)
{
    DiskFolder folder;
    LockHolder other(folder / "korvane.index.lock");
    ASSERT_TRUE(other.holds);
    TestIndex index;
    index.lockPath = folder / "korvane.index.lock";
    index.make();
    index.start();
    EXPECT_TRUE(index.service->roots()->empty());
    index.wait(10s);
    EXPECT_TRUE(index.watcher.starts.empty());
    other.end();
    index.wait(500ms);
    EXPECT_EQ(index.watcher.starts.size(), 1u);
    EXPECT_TRUE(index.scanner->walked("/home/ada"));
}

TEST(FileIndexService, ARebuildAskedForBeforeTheLockIsFreeComesAfterIt)
{
    DiskFolder folder;
    LockHolder other(folder / "korvane.index.lock");
    TestIndex index;
    index.root("/home/ada");
    index.indexed({entry("/home/ada/a")});
    index.lockPath = folder / "korvane.index.lock";
    index.make();
    index.start();
    index.rebuild();
    EXPECT_TRUE(index.scanner->walks.empty());
    other.end();
    index.wait(500ms);
    EXPECT_TRUE(index.scanner->walked("/home/ada"));
}

TEST(FileIndexService, AStopWhileItWaitsForTheLockChangesNothing)
{
    DiskFolder folder;
    LockHolder other(folder / "korvane.index.lock");
    TestIndex index;
    await(index.loop, index.repository().saveEventID(9));
    index.lockPath = folder / "korvane.index.lock";
    index.make();
    index.start();
    index.stop();
    other.end();
    index.wait(2s);
    EXPECT_TRUE(index.watcher.starts.empty());
    EXPECT_EQ(index.savedID(), 9u);
}

TEST(FileIndexService, TheLockIsHeldUntilTheStop)
{
    DiskFolder folder;
    const std::string path = folder / "korvane.index.lock";
    TestIndex index;
    index.lockPath = path;
    index.make();
    index.start();
    EXPECT_TRUE(FileLock::isTaken(path));
    EXPECT_FALSE(LockHolder(path).holds);
    index.stop();
    EXPECT_FALSE(FileLock::isTaken(path));
    EXPECT_TRUE(LockHolder(path).holds);
}

// The lists

TEST(IndexPlaces, TheListsNameTheFoldersOfEachSystemInTheirOrder)
{
    const UserFolders mac{.home = "/Users/ada", .data = "/Users/ada/Library/Application Support"};
    EXPECT_EQ(IndexPlaces::macOS(mac).defaultRoots, (Strings{"/Users/ada", "/Applications", "/System/Applications", "/Library"}));
    EXPECT_EQ(IndexPlaces::macOS(mac).skippedPrefixes,
        (Strings{"/Users/ada/Library/Application Support/Korvane", "/Users/ada/Library/CloudStorage",
            "/Users/ada/Library/Mobile Documents", "/Users/ada/Library/Developer/XCTestDevices",
            "/Users/ada/Library/Developer/CoreSimulator", "/Users/ada/.Trash"}));
    EXPECT_EQ(IndexPlaces::macOS(mac).aliasPrefix, "/System/Volumes/Data");
    EXPECT_EQ(IndexPlaces::macOS(mac).looselySkipped().size(), 6u);
    const UserFolders ada{.home = "/home/ada", .data = "/data"};
    EXPECT_EQ(IndexPlaces::linux(ada).defaultRoots, (Strings{"/home/ada", "/opt", "/usr/local", "/srv"}));
    EXPECT_EQ(IndexPlaces::linux(ada).skippedPrefixes,
        (Strings{"/data/Korvane", "/data/Trash", "/home/ada/.cache", "/proc", "/sys", "/dev", "/run"}));
    const IndexPlaces here = IndexPlaces::linux(ada);
    EXPECT_EQ(Strings(here.looselySkipped().begin(), here.looselySkipped().end()), (Strings{"/data/Korvane", "/data/Trash"}));
}

TEST(IndexPlaces, TheOwnFolderIsInTheHomeFolderWhereThereIsNoDataFolder)
{
    const UserFolders folders{.home = "/home/ada", .data = std::nullopt};
    EXPECT_EQ(IndexPlaces::linux(folders).skippedPrefixes.front(), "/home/ada/Korvane");
}

TEST(IndexPlaces, ASkippedPrefixMeansTheFolderAndWhatIsBelowItAndNoSibling)
{
    const Strings prefixes{"/home/ada/.cache"};
    EXPECT_TRUE(isSkipped("/home/ada/.cache", prefixes));
    EXPECT_TRUE(isSkipped("/home/ada/.cache/x/y", prefixes));
    EXPECT_FALSE(isSkipped("/home/ada/.cached", prefixes));
    EXPECT_FALSE(isSkipped("/home/ada", prefixes));
    EXPECT_FALSE(isSkipped("/home/ada/.Cache", prefixes));
}
