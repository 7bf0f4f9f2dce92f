#include "Vorrel/Launch/ApplicationService.h"
#include "Vorrel/Platform/Headless/HeadlessApplications.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

using namespace korvane;
using namespace korvane::test;
using Strings = std::vector<std::string>;

namespace {

struct ApplicationIndexerTest : testing::Test {
    MainLoop loop;
    DiskFolder disk;
    HeadlessApplicationSource source{{disk / "first", disk / "second"}};

    std::string bundle(const std::string &name, HeadlessApplicationSource::Information information = {})
    {
        const auto path = disk.folder(name);
        source.describe(path, std::move(information));
        return path;
    }
    std::vector<ApplicationRecord> scan()
    {
        ApplicationIndexer indexer(loop.executor(), source);
        return await(loop, indexer.scan());
    }
    Strings names()
    {
        Strings names;
        for (const auto &record : scan())
            names.push_back(record.name);
        return names;
    }
};

} // namespace

TEST_F(ApplicationIndexerTest, TheLaterRootWinsByIdentifier)
{
    bundle("first/Tool.app", {{"CFBundleName", "Old"}, {"CFBundleIdentifier", "org.tool"}});
    const auto system = bundle("second/Tool.app", {{"CFBundleName", "New"}, {"CFBundleIdentifier", "org.tool"}});
    const auto records = scan();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0], (ApplicationRecord{"New", "org.tool", system}));
}

TEST_F(ApplicationIndexerTest, TheDisplayNameComesFirst)
{
    bundle("first/File.app", {{"CFBundleDisplayName", "Shown"}, {"CFBundleName", "Short"}});
    EXPECT_EQ(names(), Strings{"Shown"});
}

TEST_F(ApplicationIndexerTest, ADisplayNameThatIsANumberFallsThroughToTheName)
{
    bundle("first/File.app", {{"CFBundleDisplayName", 7.0}, {"CFBundleName", "Short"}});
    EXPECT_EQ(names(), Strings{"Short"});
}

TEST_F(ApplicationIndexerTest, WithoutTextTheFileNameIsTheName)
{
    bundle("first/File.app", {{"CFBundleDisplayName", 7.0}, {"CFBundleName", 8.0}});
    EXPECT_EQ(names(), Strings{"File"});
}

TEST_F(ApplicationIndexerTest, AnEmptyDisplayNameCountsAsOne)
{
    bundle("first/File.app", {{"CFBundleDisplayName", ""}, {"CFBundleName", "Short"}});
    EXPECT_EQ(names(), Strings{""});
}

TEST_F(ApplicationIndexerTest, ABundleThatCannotBeOpenedIsListedUnderItsFileNameAndPath)
{
    const auto path = disk.folder("first/Broken.app");
    EXPECT_EQ(scan(), (std::vector<ApplicationRecord>{{"Broken", path, path}}));
}

TEST_F(ApplicationIndexerTest, ABundleWithoutAnIdentifierHasItsPathForOne)
{
    const auto path = bundle("first/Plain.app", {{"CFBundleName", "Plain"}, {"CFBundleIdentifier", 5.0}});
    EXPECT_EQ(scan(), (std::vector<ApplicationRecord>{{"Plain", path, path}}));
}

TEST_F(ApplicationIndexerTest, AnExtensionInCapitalsIsNotTaken)
{
    bundle("first/Loud.APP");
    bundle("first/Quiet.app");
    EXPECT_EQ(names(), Strings{"Quiet"});
}

TEST_F(ApplicationIndexerTest, AnApplicationInsideAnotherIsNotFound)
{
    bundle("first/Outer.app");
    bundle("first/Outer.app/Contents/Inner.app");
    EXPECT_EQ(names(), Strings{"Outer"});
}

TEST_F(ApplicationIndexerTest, ApplicationsInOrdinarySubfoldersAreFound)
{
    bundle("first/Utilities/Deep/Tool.app");
    EXPECT_EQ(names(), Strings{"Tool"});
}

TEST_F(ApplicationIndexerTest, HiddenEntriesAreSkipped)
{
    bundle("first/.Secret.app");
    bundle("first/.folder/Tool.app");
    EXPECT_EQ(names(), Strings{});
}

TEST_F(ApplicationIndexerTest, MissingRootsGiveAnEmptyList) { EXPECT_EQ(scan(), std::vector<ApplicationRecord>{}); }

TEST_F(ApplicationIndexerTest, ARootThatIsAFileIsPassedOver)
{
    disk.file("first", "no folder");
    bundle("second/Tool.app");
    EXPECT_EQ(names(), Strings{"Tool"});
}

TEST_F(ApplicationIndexerTest, AnUnreadableRootIsPassedOver)
{
    if (::geteuid() == 0)
        GTEST_SKIP() << "no folder is unreadable for root";
    bundle("first/Tool.app");
    bundle("second/Other.app");
    std::filesystem::permissions(disk / "first", std::filesystem::perms::none);
    EXPECT_EQ(names(), Strings{"Other"});
    std::filesystem::permissions(disk / "first", std::filesystem::perms::owner_all);
}

TEST_F(ApplicationIndexerTest, NamesAreSortedAsAFileManagerSortsThem)
{
    for (const auto name : {"first/b10.app", "first/B2.app", "first/ångström.app", "first/zebra.app", "second/apple.app"})
        bundle(name);
    EXPECT_EQ(names(), (Strings{"ångström", "apple", "B2", "b10", "zebra"}));
}

TEST_F(ApplicationIndexerTest, AnEntryThatIsNotListedRemovesTheEarlierOne)
{
    bundle("first/Tool.app", {{"CFBundleIdentifier", "org.tool"}});
    const auto mask = bundle("second/Mask.app", {{"CFBundleIdentifier", "org.tool"}});
    source.setListed(mask, false);
    EXPECT_EQ(names(), Strings{});
}

TEST_F(ApplicationIndexerTest, AnEntryThatIsNotListedDoesNotRemoveALaterOne)
{
    const auto mask = bundle("first/Mask.app", {{"CFBundleIdentifier", "org.tool"}});
    source.setListed(mask, false);
    bundle("second/Tool.app", {{"CFBundleIdentifier", "org.tool"}});
    EXPECT_EQ(names(), Strings{"Tool"});
}

TEST_F(ApplicationIndexerTest, ADanglingLinkIsPassedByWithoutHarm)
{
    disk.link("first/nowhere", disk / "missing");
    bundle("first/Tool.app");
    EXPECT_EQ(names(), Strings{"Tool"});
}

TEST_F(ApplicationIndexerTest, ALoopOfLinksEndsAndEachApplicationIsFoundOnce)
{
    bundle("first/folder/Tool.app");
    disk.link("first/folder/again", disk / "first");
    disk.link("first/self", "self");
    disk.link("first/ping", "pong");
    disk.link("first/pong", "ping");
    EXPECT_EQ(names(), Strings{"Tool"});
}

TEST_F(ApplicationIndexerTest, AFolderBehindALinkIsEnteredByItsRealNameWhenItHasOneInTheRoot)
{
    const auto real = bundle("first/zoo/Tool.app");
    disk.link("first/alias", "zoo");
    const auto records = scan();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].path, real);
}

TEST_F(ApplicationIndexerTest, AFolderElsewhereIsEnteredThroughItsLink)
{
    disk.folder("elsewhere/Tool.app");
    disk.link("first/linked", disk / "elsewhere");
    EXPECT_EQ(names(), Strings{"Tool"});
}

TEST_F(ApplicationIndexerTest, AFolderThatHangsInTwoRootsGivesEachApplicationOnce)
{
    HeadlessApplicationSource overlapping({disk / "first", disk / "first/inner"});
    disk.folder("first/inner/Tool.app");
    ApplicationIndexer indexer(loop.executor(), overlapping);
    EXPECT_EQ(await(loop, indexer.scan()).size(), 1u);
}

TEST_F(ApplicationIndexerTest, NestingBeyondTheBoundIsNotFollowed)
{
    std::string deep = "first";
    for (int depth = 0; depth < 32; ++depth)
        deep += "/d";
    bundle(deep + "/Last.app");
    bundle(deep + "/d/Beyond.app");
    EXPECT_EQ(names(), Strings{"Last"});
}

TEST_F(ApplicationIndexerTest, OwnActionsAreReadWithTheScanUnlessTheCatalogueKnowsTheApplication)
{
    const auto plain = bundle("first/Plain.app", {{"CFBundleIdentifier", "org.plain"}});
    const auto known = bundle("first/Known.app", {{"CFBundleIdentifier", "com.brave.Browser"}});
    source.setActions(plain, {{"compose", "Compose"}});
    source.setActions(known, {{"compose", "Compose"}});
    const auto records = scan();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].ownActions, std::vector<ApplicationOwnAction>{});
    EXPECT_EQ(records[1].ownActions, (std::vector<ApplicationOwnAction>{{"compose", "Compose"}}));
}

TEST_F(ApplicationIndexerTest, TheRootsOfBundlesStandInTheirOrder)
{
    EXPECT_EQ(Strings(bundleRoots.begin(), bundleRoots.end()),
        (Strings{"/Applications", "~/Applications", "/System/Applications", "/System/Library/CoreServices/Applications",
            "/System/Volumes/Preboot/Cryptexes/App/System/Applications"}));
}

TEST(ApplicationIndexerThreads, TwoScansNeverRunAtOnceAndNeverOnTheCallersThread)
{
    struct Watchful : HeadlessApplicationSource {
        using HeadlessApplicationSource::HeadlessApplicationSource;
        std::optional<ApplicationEntry> read(const std::string &root, const std::string &path) const override
        {
            most = std::max(most.load(), ++inside);
            foreign = foreign && std::this_thread::get_id() != main;
            auto entry = HeadlessApplicationSource::read(root, path);
            --inside;
            return entry;
        }
        const std::thread::id main = std::this_thread::get_id();
        mutable std::atomic<int> inside{0}, most{0};
        mutable std::atomic<bool> foreign{true};
    };
    const DiskFolder disk;
    for (int i = 0; i < 200; ++i)
        disk.folder("root/App" + std::to_string(i) + ".app");
    MainLoop loop;
    Watchful source({disk / "root"});
    ThreadPool pool(4);
    ApplicationIndexer indexer(pool.executor(), source);
    std::vector<Begun<std::vector<ApplicationRecord>>> scans;
    scans.reserve(4);
    for (int i = 0; i < 4; ++i)
        scans.emplace_back(loop, indexer.scan());
    for (auto &one : scans)
        EXPECT_EQ(one.result().size(), 200u);
    EXPECT_EQ(source.most, 1);
    EXPECT_TRUE(source.foreign);
}
