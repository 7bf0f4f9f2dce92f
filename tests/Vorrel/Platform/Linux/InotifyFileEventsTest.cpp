#include "WatchedDisk.h"

#include "CommandCore/Commands.h"
#include "Vorrel/Shell/AppLog.h"

#include <cerrno>
#include <fcntl.h>
#include <future>
#include <gmock/gmock.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Not;
using testing::UnorderedElementsAre;
namespace fs = std::filesystem;

namespace {

struct FileEvents : testing::Test, WatchedDisk {
    void rename(const std::string &from, const std::string &to) { fs::rename(disk / from, disk / to); }
    void remove(const std::string &name) { fs::remove_all(disk / name); }
    double now() const { return SystemClock().now(); }
    /// Sets a file's time a good while back, so that it differs from all that follows.
    void age(const std::string &name, int secondsAgo = 1000)
    {
        const timespec time{std::time(nullptr) - secondsAgo, 0};
        const timespec times[] = {time, time};
        ASSERT_EQ(::utimensat(AT_FDCWD, (disk / name).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    }
};

struct FileEventsTelling : FileEvents { };
struct FileEventsMoving : FileEvents { };
struct FileEventsStarting : FileEvents { };
struct FileEventsAway : FileEvents { };
struct FileEventsRoots : FileEvents { };
struct FileEventsBudget : FileEvents { };
struct FileEventsLosing : FileEvents { };
struct FileEventsStopping : FileEvents { };

} // namespace

// Telling

TEST_F(FileEventsTelling, TellsANewFileAndTheFolderWhoseTimeItChanges)
{
    disk.folder("root/a");
    index.scan(disk / "root");
    start({"root"});
    disk.file("root/a/new", "text");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/a/new", "root/a"));
}

TEST_F(FileEventsTelling, NeverTellsARootFolderItself)
{
    disk.folder("root");
    start({"root"});
    disk.file("root/new");
    fs::permissions(disk / "root", fs::perms::owner_all);
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/new"));
}

TEST_F(FileEventsTelling, TellsARewrittenFileWithoutItsFolder)
{
    disk.file("root/a/file");
    index.scan(disk / "root");
    start({"root"});
    disk.file("root/a/file", "longer");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/a/file"));
}

TEST_F(FileEventsTelling, TellsAWritingOnlyWhenItIsClosed)
{
    disk.file("root/log");
    start({"root"});
    std::ofstream log(disk / "root/log");
    log << "one" << std::flush;
    settle();
    EXPECT_THAT(news(), IsEmpty());
    log.close();
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/log"));
}

TEST_F(FileEventsTelling, TellsChangedRightsAndTimes)
{
    disk.file("root/a/rights");
    disk.file("root/a/time");
    index.scan(disk / "root");
    start({"root"});
    fs::permissions(disk / "root/a/rights", fs::perms::owner_read);
    age("root/a/time");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/a/rights", "root/a/time"));
}

TEST_F(FileEventsTelling, TellsADeletedFileAndItsFolder)
{
    disk.file("root/a/file");
    index.scan(disk / "root");
    start({"root"});
    remove("root/a/file");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/a/file", "root/a"));
}

TEST_F(FileEventsTelling, TellsALinkAndDoesNotGoThroughIt)
{
    disk.file("elsewhere/file");
    disk.folder("root");
    start({"root"});
    disk.link("root/link", disk / "elsewhere");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/link"));
    disk.file("elsewhere/other");
    settle();
    EXPECT_THAT(news(), IsEmpty());
}

TEST_F(FileEventsTelling, OneBatchFollowsTheLatencyInOrderOfAppearanceWithoutRepeats)
{
    disk.folder("root");
    start({"root"});
    const auto asleep = clock.sleepers();
    disk.file("root/b");
    disk.file("root/a");
    disk.file("root/b", "again");
    loop.runUntil([&] { return clock.sleepers() > asleep; });
    clock.advance(999ms);
    EXPECT_EQ(told.size(), 0u);
    disk.file("root/c");
    clock.advance(1ms);
    ASSERT_EQ(told.size(), 1u);
    EXPECT_THAT(told[0].paths, ElementsAre(disk / "root/b", disk / "root/a", disk / "root/c"));
}

TEST_F(FileEventsTelling, ABatchHasItsLimitAndOnlyTheLastClaimsTheTime)
{
    settings.pathsPerBatch = 4;
    disk.folder("root");
    start({"root"}, identifierOf(now() - 100));
    for (int i = 0; i < 10; ++i)
        disk.link("root/" + std::to_string(i), "nowhere"); // one event each
    settle();
    ASSERT_EQ(told.size(), 3u);
    EXPECT_EQ(told[0].paths.size(), 4u);
    EXPECT_EQ(told[1].paths.size(), 4u);
    EXPECT_EQ(told[2].paths.size(), 3u) << "two and the mark";
    EXPECT_EQ(told[0].identifier, told[1].identifier);
    EXPECT_LT(told[1].identifier, told[2].identifier);
}

TEST_F(FileEventsTelling, AnIdentifierIsATimeShortlyBeforeTheReading)
{
    disk.folder("root");
    start({"root"});
    const double before = now();
    disk.file("root/new");
    settle();
    EXPECT_GE(identifier(), identifierOf(before - 2.001));
    EXPECT_LE(identifier(), identifierOf(now() - 2));
}

TEST_F(FileEventsTelling, IdentifiersNeverGoBackWithTheClock)
{
    disk.folder("root");
    const auto since = identifierOf(now() + 5000);
    start({"root"}, since);
    disk.file("root/new");
    settle();
    EXPECT_EQ(identifier(), since);
    clock.shift = 6000;
    disk.file("root/newer");
    settle();
    const auto later = identifier();
    EXPECT_GT(later, since);
    clock.shift = 0;
    disk.file("root/newest");
    settle();
    EXPECT_EQ(identifier(), later);
}

TEST_F(FileEventsTelling, SkippedFoldersTakeNoWatchAndTellNothing)
{
    disk.folder("root/skipped/deep");
    disk.folder("root/skipped-not");
    settings.skippedPrefixes = {disk / "root/skipped"};
    index.scan(disk / "root");
    start({"root"});
    EXPECT_EQ(events->counts().watched, 3u) << "both roots and the sibling";
    events->entered(disk / "root/skipped/deep");
    EXPECT_EQ(events->counts().watched, 3u);
    disk.file("root/skipped/file");
    disk.file("root/skipped/deep/file");
    disk.file("root/skipped-not/file");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/skipped-not/file", "root/skipped-not"));
    const auto before = told.size();
    for (int i = 0; i < 100; ++i)
        disk.file("root/skipped/more" + std::to_string(i));
    pass(5s);
    EXPECT_EQ(told.size(), before);
}

TEST_F(FileEventsTelling, ExcludedMountsBelowARootAreLeftAlone)
{
    disk.folder("root/net/share");
    settings.mountPoints = [this] {
        return MountPoints("1 2 0:55 / " + (disk / "root/net") + " rw - nfs server:/ rw\n", [](auto, auto) { return false; });
    };
    index.scan(disk / "root");
    start({"root"});
    EXPECT_EQ(events->counts().watched, 2u);
    disk.file("root/net/share/file");
    disk.file("root/file");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/file"));
}

// Folders that come, go and move

TEST_F(FileEventsMoving, TellsAFolderThatWasFilledBeforeAnyoneLooked)
{
    disk.folder("root");
    start({"root"});
    disk.file("root/a/b/c/file");
    disk.file("root/a/b/other");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/a", "root/a/b", "root/a/b/c", "root/a/b/c/file", "root/a/b/other"));
    disk.file("root/a/b/c/late");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/a/b/c", "root/a/b/c/late"));
}

TEST_F(FileEventsMoving, TellsBothSidesOfARenamedFile)
{
    disk.file("root/a/old");
    index.scan(disk / "root");
    start({"root"});
    rename("root/a/old", "root/new");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/a/old", "root/a", "root/new"));
}

TEST_F(FileEventsMoving, FollowsARenamedFolderWithEverythingInIt)
{
    disk.file("root/a/b/file");
    index.scan(disk / "root");
    start({"root"});
    rename("root/a", "root/z");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/a", "root/z", "root/z/b", "root/z/b/file"));
    disk.file("root/z/b/new");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/z/b/new", "root/z/b"));
    EXPECT_EQ(events->counts().watched, 4u);
}

TEST_F(FileEventsMoving, FollowsARenameThatChangesOnlyTheCase)
{
    disk.file("root/folder/file");
    index.scan(disk / "root");
    start({"root"});
    rename("root/folder", "root/Folder");
    rename("root/Folder/file", "root/Folder/FILE");
    settle();
    EXPECT_THAT(news(), IsSupersetOf({"root/folder", "root/Folder", "root/Folder/FILE"}));
    disk.file("root/Folder/new");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/Folder", "root/Folder/new"));
}

TEST_F(FileEventsMoving, AFolderThatLeavesTheRootsIsForgotten)
{
    disk.file("root/a/b/file");
    disk.folder("outside");
    index.scan(disk / "root");
    start({"root"});
    rename("root/a", "outside/a");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/a"));
    EXPECT_EQ(events->counts().watched, 2u);
    disk.file("outside/a/b/new");
    settle();
    EXPECT_THAT(news(), IsEmpty());
}

TEST_F(FileEventsMoving, AFolderThatComesFromOutsideIsToldWhole)
{
    disk.folder("root");
    disk.file("outside/a/b/file");
    start({"root"});
    rename("outside/a", "root/a");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/a", "root/a/b", "root/a/b/file"));
}

TEST_F(FileEventsMoving, FollowsAFolderFromOneRootToTheOther)
{
    disk.file("one/a/file");
    disk.folder("two");
    index.scan(disk / "one");
    start({"one", "two"});
    rename("one/a", "two/a");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("one/a", "two/a", "two/a/file"));
    disk.file("two/a/new");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("two/a", "two/a/new"));
}

TEST_F(FileEventsMoving, AFolderMovedOverAnEmptyOneTakesItsPlace)
{
    disk.file("root/a/file");
    disk.folder("root/b");
    index.scan(disk / "root");
    start({"root"});
    rename("root/a", "root/b");
    settle();
    EXPECT_THAT(news(), IsSupersetOf({"root/a", "root/b", "root/b/file"}));
    disk.file("root/b/new");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/b", "root/b/new"));
}

TEST_F(FileEventsMoving, TwoFoldersThatChangePlacesAreBothFollowed)
{
    disk.file("root/a/one");
    disk.file("root/b/two");
    index.scan(disk / "root");
    start({"root"});
    ASSERT_EQ(::renameat2(AT_FDCWD, (disk / "root/a").c_str(), AT_FDCWD, (disk / "root/b").c_str(), RENAME_EXCHANGE), 0);
    settle();
    EXPECT_THAT(news(), IsSupersetOf({"root/a", "root/a/two", "root/b", "root/b/one"}));
    disk.file("root/a/new");
    disk.file("root/b/new");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/a", "root/b", "root/a/new", "root/b/new"));
}

TEST_F(FileEventsMoving, WhatWasInAFolderThatAnotherReplacedIsToldToo)
{
    disk.file("root/a/x");
    disk.file("root/a/sub/x");
    disk.file("root/c/y");
    index.scan(disk / "root");
    start({"root"});
    rename("root/a", "root/b");
    rename("root/c", "root/a");
    settle();
    pass(10s);
    EXPECT_THAT(news(), IsSupersetOf({"root/a/x", "root/a/sub"}));
}

TEST_F(FileEventsMoving, WhatWasInAFolderThatAFileReplacedIsToldToo)
{
    disk.file("root/a/x");
    disk.folder("outside");
    index.scan(disk / "root");
    start({"root"});
    rename("root/a", "outside/a");
    disk.file("root/a");
    settle();
    pass(10s);
    EXPECT_THAT(news(), IsSupersetOf({"root/a", "root/a/x"}));
}

TEST_F(FileEventsMoving, AFolderFoundAtItsNewPlaceBeforeItsLeavingWasReadIsFollowedThere)
{
    disk.file("root/a/sub/file");
    disk.folder("root/b");
    index.scan(disk / "root");
    start({"root"});
    rename("root/a", "root/b/a");
    // Somebody who reads the disk is faster than the events.
    events->entered(disk / "root/b/a");
    events->entered(disk / "root/b/a/sub");
    EXPECT_EQ(events->counts().watched, 5u);
    settle();
    EXPECT_THAT(news(), IsSupersetOf({"root/a", "root/b", "root/b/a"}));
    disk.file("root/b/a/sub/new");
    disk.file("root/b/a/new");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/b/a", "root/b/a/new", "root/b/a/sub", "root/b/a/sub/new"));
    EXPECT_EQ(events->counts().watched, 5u);
}

TEST_F(FileEventsMoving, TellsEveryFileOfADeletedTreeAndGivesItsWatchesBack)
{
    disk.file("root/a/b/c/file");
    index.scan(disk / "root");
    start({"root"});
    EXPECT_EQ(events->counts().watched, 5u);
    remove("root/a");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/a", "root/a/b", "root/a/b/c", "root/a/b/c/file"));
    EXPECT_EQ(events->counts().watched, 2u);
}

TEST_F(FileEventsMoving, AFolderThatIsDeletedAndMadeAgainIsFollowed)
{
    disk.file("root/a/file");
    index.scan(disk / "root");
    start({"root"});
    remove("root/a");
    disk.file("root/a/other");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/a", "root/a/file", "root/a/other"));
    disk.file("root/a/late");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/a", "root/a/late"));
}

TEST_F(FileEventsMoving, AWalkerThatEntersAFolderGetsItsLaterChangesTold)
{
    disk.folder("root/a");
    disk.folder("outside");
    start({"root"});
    EXPECT_EQ(events->counts().watched, 2u) << "an empty index names no folder";
    events->entered(disk / "root/a");
    events->entered(disk / "root/a");
    events->entered(disk / "outside");
    events->entered(disk / "root/none");
    EXPECT_EQ(events->counts().watched, 3u);
    disk.file("root/a/file");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/a", "root/a/file"));
}

// Starting

TEST_F(FileEventsStarting, WithoutAnIdentifierAnEmptyIndexIsComparedWithNothing)
{
    disk.file("root/a/file");
    start({"root"});
    settle();
    EXPECT_THAT(news(), IsEmpty());
}

TEST_F(FileEventsStarting, ARootThatTheIndexHoldsNothingOfIsLeftToTheScan)
{
    disk.file("root/a/file");
    start({"root"}, identifierOf(now() - 1000));
    settle();
    EXPECT_THAT(news(), IsEmpty());
}

TEST_F(FileEventsStarting, ASecondStartWithoutAStopDoesNothing)
{
    disk.folder("root");
    disk.folder("other");
    start({"root"});
    await(loop, events->start({disk / "other"}, 0, [](Strings, std::uint64_t) { FAIL(); }));
    disk.file("other/file");
    disk.file("root/file");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/file"));
}

TEST_F(FileEventsStarting, WithoutAnInstanceTheToldSentenceIsThrownAndALaterStartWorks)
{
#if __has_feature(undefined_behavior_sanitizer) || __has_feature(address_sanitizer)
    GTEST_SKIP() << "the checks of the sanitizers need descriptors themselves";
#endif
    disk.folder("root");
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{0, before.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &none);
    events = std::make_unique<InotifyFileEvents>(loop.executor(), clock, index, settings);
    roots = {disk / "root", marks};
    Begun<void> refused(loop, events->start(roots, 0, [](Strings, std::uint64_t) { FAIL(); }));
    loop.runUntilIdle();
    ::setrlimit(RLIMIT_NOFILE, &before);
    try {
        refused.result();
        ADD_FAILURE() << "it has started";
    } catch (const AppError &error) {
        EXPECT_STREQ(error.what(), "File system monitoring could not start.");
    }
    await(loop, events->start(roots, 0, [this](Strings paths, std::uint64_t identifier) {
        told.push_back({std::move(paths), identifier});
    }));
    disk.file("root/file");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/file"));
}

TEST_F(FileEventsStarting, WithoutAWatchForAnyRootTheToldSentenceIsThrown)
{
    disk.folder("root");
    settings.addWatch = [](int, const char *, std::uint32_t) {
        errno = ENOSPC;
        return -1;
    };
    EXPECT_EQ(startOutcome({"root"}), "File system monitoring could not start.");
}

TEST_F(FileEventsStarting, OneWatchedRootIsEnough)
{
    disk.folder("root");
    disk.folder("refused");
    settings.addWatch = [this](int instance, const char *path, std::uint32_t events) {
        if (path == disk / "refused") {
            errno = EACCES;
            return -1;
        }
        return ::inotify_add_watch(instance, path, events);
    };
    EXPECT_EQ(startOutcome({"root", "refused", "missing"}), "started");
}

// What happened while nobody watched

TEST_F(FileEventsAway, FindsWhatCameWentMovedAndWasRewritten)
{
    disk.file("root/a/stays");
    disk.file("root/a/goes");
    disk.file("root/a/rewritten", "old");
    disk.file("root/b/moves/file");
    disk.file("root/c/gone/file");
    disk.file("root/kind/x");
    index.scan(disk / "root");
    for (auto &[path, row] : index.rows)
        age(path.substr(disk.path.size() + 1)), row.modified = rowOnDisk(path)->modified;
    const auto since = afterAllStamps();

    remove("root/a/goes");
    disk.file("root/a/rewritten", "new text");
    disk.file("root/new/deep/file");
    rename("root/b/moves", "root/moved");
    remove("root/c/gone");
    remove("root/kind");
    disk.file("root/kind");

    start({"root"}, since);
    for (int i = 0; i < 20; ++i)
        loop.runUntilIdle(), clock.advance(100ms);
    EXPECT_THAT(news(),
        UnorderedElementsAre("root/a", "root/a/goes", "root/a/rewritten", "root/b", "root/b/moves", "root/c", "root/c/gone",
            "root/kind", "root/kind/x", "root/moved", "root/moved/file", "root/new", "root/new/deep", "root/new/deep/file"));
    disk.file("root/new/deep/late");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/new/deep", "root/new/deep/late"));
}

TEST_F(FileEventsAway, TellsNothingWhenNothingHappened)
{
    disk.file("root/a/b/file");
    disk.link("root/a/link", disk / "root/a/b");
    disk.link("root/a/file-link", disk / "root/a/b/file");
    index.scan(disk / "root");
    start({"root"}, afterAllStamps());
    pass(30s);
    EXPECT_THAT(news(), IsEmpty());
}

TEST_F(FileEventsAway, AnotherTimeOfAFolderIsReasonEnoughToCompareIt)
{
    disk.file("root/a/file");
    index.scan(disk / "root");
    index.rows.at(disk / "root/a").modified -= 10;
    index.rows.erase(disk / "root/a/file");
    start({"root"}, afterAllStamps());
    loop.runUntilIdle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/a", "root/a/file"));
}

TEST_F(FileEventsAway, AnIdentifierFromTheFutureMakesEveryFolderWorthALook)
{
    disk.file("root/a/file");
    index.scan(disk / "root");
    index.rows.erase(disk / "root/a/file");
    start({"root"}, identifierOf(now() + 1000));
    loop.runUntilIdle();
    EXPECT_THAT(news(), Contains("root/a/file"));
}

TEST_F(FileEventsAway, WithoutAnIdentifierWhatAKilledRunLeftOutIsFoundAlsoInAFolderOfTheSameSecond)
{
    disk.file("root/a/file");
    disk.file("root/a/other");
    index.scan(disk / "root");
    double &modified = index.rows.at(disk / "root/a").modified;
    modified = std::floor(modified);
    index.rows.erase(disk / "root/a/file");
    start({"root"}, 0);
    loop.runUntilIdle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/a/file"));
}

TEST_F(FileEventsAway, UntilTheComparisonIsOverIdentifiersClaimNothing)
{
    disk.file("root/a/file");
    index.scan(disk / "root");
    index.rows.at(disk / "root/a").modified -= 10; // two changes within the store's precision would have one time
    disk.file("root/a/away");
    const auto since = identifierOf(now() - 1000);
    index.failures = 1;
    start({"root"}, since);
    disk.file("root/now");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/now"));
    EXPECT_EQ(lastIdentifier, since);
    pass(31s);
    EXPECT_THAT(news(), IsSupersetOf({"root/a", "root/a/away"}));
    EXPECT_GT(lastIdentifier, since);
}

TEST_F(FileEventsAway, AnIndexThatFailsIsAskedAgainAndEventsGoOn)
{
    disk.file("root/a/file");
    index.scan(disk / "root");
    index.rows.erase(disk / "root/a/file");
    Strings logged;
    AppLog::observe([&](auto, auto, std::string_view text) { logged.emplace_back(text); });
    index.failures = 3;
    start({"root"}, identifierOf(now() - 1000));
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(news(), Not(Contains("root/a/file")));
        disk.file("root/" + std::to_string(i));
        settle();
        EXPECT_THAT(news(), Contains("root/" + std::to_string(i)));
        pass(31s);
    }
    AppLog::observe({});
    EXPECT_THAT(news(), Contains("root/a/file"));
    EXPECT_THAT(logged, ElementsAre("The file index could not be compared with the disk; trying again"));
}

TEST_F(FileEventsAway, FilesThatWereRewrittenInPlaceAreFoundInPortionsWithPauses)
{
    for (int i = 0; i < 1200; ++i)
        disk.file("root/a/" + std::to_string(10000 + i), "x");
    index.scan(disk / "root");
    const auto since = afterAllStamps();
    for (const char *name : {"root/a/10000", "root/a/10600", "root/a/11199"})
        std::ofstream(disk / name, std::ios::app) << "more";
    start({"root"}, since);
    EXPECT_THAT(news(), UnorderedElementsAre("root/a/10000"));
    clock.advance(49ms);
    EXPECT_THAT(news(), IsEmpty());
    clock.advance(1ms);
    EXPECT_THAT(news(), UnorderedElementsAre("root/a/10600"));
    clock.advance(50ms);
    EXPECT_THAT(news(), UnorderedElementsAre("root/a/11199"));
}

TEST_F(FileEventsAway, FilesThatHaveGoneFromAFolderThatIsThereAreTold)
{
    disk.file("root/a/file");
    index.scan(disk / "root");
    index.rows[disk / "root/a/ghost"] = {.path = disk / "root/a/ghost", .name = "ghost"};
    start({"root"}, afterAllStamps());
    loop.runUntilIdle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/a/ghost"));
}

TEST_F(FileEventsAway, RowsBelowAFolderThatNobodyKnowsAreToldByTheHighestThatHasGone)
{
    disk.file("root/a/file");
    index.scan(disk / "root");
    const auto lose = [this](const std::string &path, bool isDirectory) {
        const std::string whole = disk / path;
        index.rows[whole] = {.path = whole, .name = whole.substr(whole.rfind('/') + 1), .isDirectory = isDirectory};
    };
    lose("root/none/ghost", false);
    lose("root/a/lost/deep/ghost", false);
    lose("root/gone/deep/folder", true);
    lose("root/gone/deep/folder/ghost", false);
    start({"root"}, afterAllStamps());
    pass(1s);
    EXPECT_THAT(news(), UnorderedElementsAre("root/none", "root/a/lost", "root/gone"));
}

// Roots that go and come

TEST_F(FileEventsRoots, AMissingRootIsPassedOverAndFoundWhenItComes)
{
    disk.folder("root");
    start({"root", "late"});
    index.rows[disk / "late/old"] = {.path = disk / "late/old", .name = "old"};
    disk.file("late/new");
    pass(6s);
    EXPECT_THAT(news(), UnorderedElementsAre("late/new", "late/old"));
    disk.file("late/newer");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("late/newer"));
}

TEST_F(FileEventsRoots, ARootThatGoesAndComesBackIsComparedWhole)
{
    disk.file("root/a/file");
    disk.file("root/a/lost");
    index.scan(disk / "root");
    start({"root"});
    rename("root", "elsewhere");
    settle();
    pass(6s);
    EXPECT_THAT(news(), IsEmpty()) << "a root that has gone keeps its rows";
    EXPECT_EQ(events->counts().watched, 1u);
    disk.file("elsewhere/a/new");
    remove("elsewhere/a/lost");
    rename("elsewhere", "root");
    pass(6s);
    EXPECT_THAT(news(), IsSupersetOf({"root/a/new", "root/a/lost"}));
    disk.file("root/a/later");
    settle();
    EXPECT_THAT(news(), IsSupersetOf({"root/a/later"}));
}

TEST_F(FileEventsRoots, ADeletedRootThatIsMadeAgainIsFollowed)
{
    disk.file("root/file");
    index.scan(disk / "root");
    start({"root"});
    remove("root");
    settle();
    disk.file("root/other");
    pass(6s);
    EXPECT_THAT(news(), IsSupersetOf({"root/file", "root/other"}));
    disk.file("root/later");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/later"));
}

TEST_F(FileEventsRoots, ARootThatIsALinkIsFollowedToItsFolder)
{
    disk.folder("real");
    disk.link("root", disk / "real");
    start({"root"});
    disk.file("real/a/file");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/a", "root/a/file"));
}

TEST_F(FileEventsRoots, ANestedRootIsToldOnceAndNeverItself)
{
    disk.folder("root/inner/a");
    index.scan(disk / "root");
    start({"root", "root/inner"});
    disk.file("root/inner/file");
    disk.file("root/inner/a/file");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/inner/file", "root/inner/a", "root/inner/a/file"));
}

TEST_F(FileEventsRoots, ARootOnAVolumeThatHangsIsFollowedWhenItAnswers)
{
    const auto net = disk.folder("net");
    disk.file("net/a/file");
    disk.folder("root");
    settings.mountPoints = [net] {
        return MountPoints("27 1 254:0 / / rw - ext4 /dev/vda rw\n90 27 0:45 / " + net + " rw - nfs server:/ rw\n",
            [](unsigned, unsigned) { return false; });
    };
    std::promise<void> answer;
    settings.touch = [answered = answer.get_future().share()](const std::string &) { answered.wait(); };
    index.scan(net);
    Begun<void> starting(loop, startLater({"root", "net"}));
    loop.runUntilIdle();
    EXPECT_FALSE(starting.done());
    clock.advance(5s);
    loop.runUntil([&] { return starting.done(); });
    settle();
    EXPECT_EQ(events->counts().watched, 2u) << "the root that answers, and the marks";
    pass(130s);
    EXPECT_EQ(events->counts().watched, 2u);
    answer.set_value();
    for (int minute = 0; minute < 10 && events->counts().watched < 4; ++minute)
        pass(60s);
    EXPECT_EQ(events->counts().watched, 4u);
    news();
    disk.file("net/a/new");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("net/a", "net/a/new"));
}

// More folders than watches

TEST_F(FileEventsBudget, FoldersBeyondItAreLookedAtByTheirTimes)
{
    disk.file("root/a/file");
    disk.file("root/b/goes");
    disk.folder("root/c");
    settings.budget = 3; // both roots and one folder
    index.scan(disk / "root");
    for (auto &[path, row] : index.rows)
        row.modified = rowOnDisk(path)->modified;
    start({"root"});
    EXPECT_EQ(events->counts().watched, 3u);
    EXPECT_EQ(events->counts().polled, 2u);
    pass(120s); // times are old enough to be trusted only after a while
    news();
    remove("root/b/goes");
    disk.file("root/c/new/deep");
    pass(65s);
    EXPECT_THAT(news(), IsSupersetOf({"root/b", "root/b/goes", "root/c", "root/c/new", "root/c/new/deep"}));
}

TEST_F(FileEventsBudget, AFolderGetsAWatchWhenAnotherGivesOneUp)
{
    disk.file("root/a/file");
    disk.folder("root/b");
    settings.budget = 3;
    index.scan(disk / "root");
    start({"root"});
    EXPECT_EQ(events->counts().polled, 1u);
    disk.file("root/b/unseen");
    remove("root/a");
    settle();
    pass(65s);
    EXPECT_EQ(events->counts().polled, 0u);
    EXPECT_THAT(news(), Contains("root/b/unseen"));
    disk.file("root/b/seen");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/b", "root/b/seen"));
}

TEST_F(FileEventsBudget, FoldersThatTheKernelRefusesAreLookedAtByTheirTimes)
{
    disk.folder("root/a");
    settings.addWatch = [this](int instance, const char *path, std::uint32_t events) {
        if (path == disk / "root/a") {
            errno = ENOSPC;
            return -1;
        }
        return ::inotify_add_watch(instance, path, events);
    };
    index.scan(disk / "root");
    start({"root"});
    EXPECT_EQ(events->counts().polled, 1u);
    disk.file("root/a/new");
    pass(65s);
    EXPECT_THAT(news(), UnorderedElementsAre("root/a", "root/a/new"));
}

TEST_F(FileEventsBudget, FoldersWithoutAWatchAreToldWhenTheyBeginAndWhenTheyEnd)
{
    disk.folder("root/a");
    disk.folder("root/b");
    settings.budget = 3;
    index.scan(disk / "root");
    Strings logged;
    AppLog::observe([&](auto, auto, std::string_view text) { logged.emplace_back(text); });
    start({"root"});
    EXPECT_THAT(unwatched, ElementsAre(1));
    EXPECT_THAT(logged, Contains("No watch for 1 folders beside the 3 watched; they are checked once a minute"));
    pass(65s);
    EXPECT_THAT(unwatched, ElementsAre(1)) << "told once";
    remove("root/a");
    settle();
    pass(65s);
    AppLog::observe({});
    EXPECT_THAT(unwatched, ElementsAre(1, 0));
}

// Lost events

TEST_F(FileEventsLosing, AfterAnOverflowOfTheQueueTheFoldersAreCompared)
{
    disk.file("root/a/goes");
    disk.folder("root/b");
    disk.file("root/moves/file");
    index.scan(disk / "root");
    start({"root"});
    settle();
    news();
    Strings logged;
    AppLog::observe([&](auto, auto, std::string_view text) { logged.emplace_back(text); });
    // Nobody reads while nobody turns the loop: beyond 16,384 the kernel drops events.
    const auto one = disk.file("root/b/one"), other = disk.file("root/b/other");
    for (int i = 0; i < 10'000; ++i)
        ::chmod(one.c_str(), 0600), ::chmod(other.c_str(), 0600);
    remove("root/a/goes");
    disk.file("root/a/new");
    rename("root/moves", "root/moved");
    disk.file("root/moved/late");
    loop.runUntil([&] { return clock.sleepers() > 1; });
    pass(20s);
    AppLog::observe({});
    EXPECT_THAT(logged, Contains("File events were lost; comparing folders with the index"));
    EXPECT_THAT(news(),
        IsSupersetOf({"root/a", "root/a/goes", "root/a/new", "root/moves", "root/moved", "root/moved/file", "root/moved/late"}));
    disk.file("root/moved/after");
    disk.file("root/a/after");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/moved", "root/moved/after", "root/a", "root/a/after"));
}

// Stopping

TEST_F(FileEventsStopping, NothingIsToldAfterwardsAndAllIsGivenBack)
{
    const auto descriptors = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
    disk.folder("root/a");
    index.scan(disk / "root");
    start({"root"});
    settle();
    news();
    const auto open = descriptors();
    disk.file("root/a/file");
    loop.runUntil([&] { return clock.sleepers() > 1; });
    events->stop();
    pass(10s);
    EXPECT_THAT(news(), IsEmpty());
    EXPECT_EQ(clock.sleepers(), 0u);
    EXPECT_EQ(descriptors(), open - 1);
    EXPECT_EQ(events->counts().watched, 0u);
    events->entered(disk / "root/a");
    events->stop();
}

TEST_F(FileEventsStopping, AHandlerMayStopTheWatch)
{
    settings.pathsPerBatch = 1;
    disk.folder("root");
    events = std::make_unique<InotifyFileEvents>(loop.executor(), clock, index, settings);
    int calls = 0;
    await(loop, events->start({disk / "root"}, 0, [&](Strings, std::uint64_t) { ++calls, events->stop(); }));
    disk.file("root/a");
    disk.file("root/b");
    for (int i = 0; i < 1000 && calls == 0; ++i)
        pass(1s);
    pass(5s);
    EXPECT_EQ(calls, 1);
}

TEST_F(FileEventsStopping, StopDuringAStartEndsIt)
{
    disk.folder("root");
    events = std::make_unique<InotifyFileEvents>(loop.executor(), clock, index, settings);
    Begun<void> starting(loop, events->start({disk / "root"}, 0, [](Strings, std::uint64_t) { FAIL(); }));
    loop.runOne(); // the start is on its way
    loop.runOne();
    events->stop();
    loop.runUntilIdle();
    EXPECT_TRUE(starting.done());
    EXPECT_THROW(starting.result(), Cancelled);
    EXPECT_EQ(clock.sleepers(), 0u);
}

TEST_F(FileEventsStopping, StopDuringTheComparisonEndsIt)
{
    disk.folder("root/a");
    index.scan(disk / "root");
    index.failures = 1'000'000;
    start({"root"}, identifierOf(now() - 1000));
    EXPECT_GT(index.questions, 0);
    events->stop();
    loop.runUntilIdle();
    const int before = index.questions;
    pass(120s);
    EXPECT_EQ(index.questions, before);
    EXPECT_EQ(clock.sleepers(), 0u);
}

TEST_F(FileEventsStopping, ANewStartComesAfterTheOldWatchesAreGivenBack)
{
    disk.folder("root");
    start({"root"});
    settle();
    news();
    events->stop();
    await(loop, events->start(roots, 0, [this](Strings paths, std::uint64_t identifier) {
        told.push_back({std::move(paths), identifier});
    }));
    EXPECT_EQ(events->counts().watched, 2u);
    disk.file("root/file");
    settle();
    EXPECT_THAT(news(), UnorderedElementsAre("root/file"));
}

TEST_F(FileEventsStopping, AnIdleWatchWakesOnceInFiveSeconds)
{
    disk.folder("root/a");
    index.scan(disk / "root");
    start({"root"});
    pass(10s);
    EXPECT_EQ(clock.sleepers(), 1u);
}
