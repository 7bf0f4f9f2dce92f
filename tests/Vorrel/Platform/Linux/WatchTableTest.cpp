#include "Vorrel/Platform/Linux/WatchTable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <rapidcheck/gtest.h>

using namespace korvane;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

TEST(WatchTables, FindsWhatWasInsertedAndTheWayToIt)
{
    WatchTable table;
    const auto node = table.insert("/a/b/c");
    EXPECT_EQ(table.find("/a/b/c"), node);
    EXPECT_EQ(table.path(node), "/a/b/c");
    EXPECT_NE(table.find("/a/b"), WatchTable::none);
    EXPECT_FALSE(table.isEntered(table.find("/a/b")));
    EXPECT_EQ(table.find("/a/c"), WatchTable::none);
    EXPECT_EQ(table.path(table.find("/")), "/");
}

TEST(WatchTables, AWatchLeadsToItsFolder)
{
    WatchTable table;
    const auto node = table.insert("/a");
    table.setWatch(node, 7);
    EXPECT_EQ(table.watchedBy(7), node);
    EXPECT_EQ(table.watches(), 1u);
    table.setWatch(node, 8);
    EXPECT_EQ(table.watchedBy(7), WatchTable::none);
    EXPECT_EQ(table.watchedBy(8), node);
    table.setWatch(node, WatchTable::noWatch);
    EXPECT_EQ(table.watches(), 0u);
}

TEST(WatchTables, RemovingAFolderGivesTheWatchesOfEverythingBelow)
{
    WatchTable table;
    table.setWatch(table.insert("/a"), 1);
    table.setWatch(table.insert("/a/b"), 2);
    table.setWatch(table.insert("/a/b/c"), 3);
    table.setWatch(table.insert("/ab"), 4);
    table.setPolled(table.insert("/a/d"), true);
    EXPECT_THAT(table.remove(table.find("/a")), UnorderedElementsAre(1, 2, 3));
    EXPECT_EQ(table.find("/a/b/c"), WatchTable::none);
    EXPECT_EQ(table.find("/a"), WatchTable::none);
    EXPECT_NE(table.find("/ab"), WatchTable::none);
    EXPECT_EQ(table.watches(), 1u);
    EXPECT_EQ(table.polled(), 0u);
}

TEST(WatchTables, AVeryDeepTreeIsRemovedWithoutATallStack)
{
    WatchTable table;
    std::string path;
    for (int i = 0; i < 200'000; ++i)
        path += "/d";
    table.setWatch(table.insert(path), 5);
    EXPECT_THAT(table.remove(table.find("/d")), UnorderedElementsAre(5));
    EXPECT_EQ(table.find("/d"), WatchTable::none);
}

TEST(WatchTables, TheRootOfTheFileSystemCanBeWatchedAndIsNeverLost)
{
    WatchTable table;
    table.setWatch(table.insert("/"), 1);
    table.setWatch(table.insert("/a"), 2);
    EXPECT_THAT(table.remove(table.find("/")), UnorderedElementsAre(1, 2));
    EXPECT_EQ(table.path(table.insert("/a")), "/a");
}

RC_GTEST_PROP(WatchTables, AgreesWithAPlainMap, (const std::vector<std::tuple<int, int, int>> &steps))
{
    WatchTable table;
    std::map<std::string, int> plain; // watch by path
    int next = 1;
    for (const auto &[kind, first, second] : steps) {
        std::string path = "/" + std::to_string(std::abs(first) % 5);
        if (kind % 2)
            path += "/" + std::to_string(std::abs(second) % 5);
        if (kind % 3) {
            table.setWatch(table.insert(path), next);
            plain[path] = next++;
        } else if (const auto node = table.find(path); node != WatchTable::none) {
            table.remove(node);
            std::erase_if(plain, [&](const auto &one) { return one.first == path || one.first.starts_with(path + "/"); });
        }
        RC_ASSERT(table.watches() == plain.size());
        for (const auto &[path, watch] : plain) {
            RC_ASSERT(table.watchedBy(watch) != WatchTable::none);
            RC_ASSERT(table.path(table.watchedBy(watch)) == path);
            RC_ASSERT(table.find(path) == table.watchedBy(watch));
        }
    }
}
