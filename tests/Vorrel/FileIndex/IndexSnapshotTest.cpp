#include "Vorrel/FileIndex/IndexSnapshot.h"
#include "CommandCore/Commands.h"
#include "Support/MainLoop.h"
#include "Vorrel/Store/Database.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Strings = std::vector<std::string>;

struct IndexSnapshots : testing::Test {
    MainLoop loop;
    ManualClock clock{loop};
    DiskFolder folder;
    const std::string file = folder / "korvane.sqlite";
    std::shared_ptr<Database> database = await(loop, Database::open(loop.executor(), file, Database::Access::readWrite));
    std::optional<IndexSnapshot> snapshot{std::in_place, loop.executor(), loop.executor(), file, clock};

    void add(const std::string &path, bool isDirectory, double size = 0, double modified = 0)
    {
        std::vector<SQLValue> values{
            path, lastPathComponent(path), deletingLastPathComponent(path), isDirectory ? 1.0 : 0.0, size, modified};
        await(loop,
            database->execute("INSERT INTO file_index(path,name,parent,is_directory,size,modified) VALUES(?,?,?,?,?,?)", values));
    }
    void addTree()
    {
        add("/h/b", true);
        add("/h/a", true);
        add("/h/a/x", false, 12, 1700000000.25);
        add("/h/a!", true);
        add("/h/a/\xff", false);
        add("/h/c", false);
    }
    static Strings paths(const std::vector<IndexedFile> &files)
    {
        Strings paths;
        for (const auto &one : files)
            paths.push_back(one.path);
        return paths;
    }
    Strings folders(const std::string &after, int limit) { return paths(await(loop, snapshot->folders(after, limit))); }
    Strings files(const std::string &after, int limit) { return paths(await(loop, snapshot->files(after, limit))); }
    Strings children(const std::string &parent) { return paths(await(loop, snapshot->children(parent))); }
};

} // namespace

TEST_F(IndexSnapshots, FoldersComeInTheByteOrderOfTheirPathsAfterTheGivenOne)
{
    addTree();
    EXPECT_THAT(folders("", 10), ElementsAre("/h/a", "/h/a!", "/h/b"));
    EXPECT_THAT(folders("/h/a", 10), ElementsAre("/h/a!", "/h/b"));
    EXPECT_THAT(folders("", 2), ElementsAre("/h/a", "/h/a!"));
    EXPECT_THAT(folders("/h/b", 10), IsEmpty());
}

TEST_F(IndexSnapshots, FilesAreWhatIsNoFolder)
{
    addTree();
    EXPECT_THAT(files("", 10), ElementsAre("/h/a/x", "/h/a/\xff", "/h/c"));
    EXPECT_THAT(files("/h/a/x", 1), ElementsAre("/h/a/\xff"));
}

TEST_F(IndexSnapshots, ChildrenAreWhatIsDirectlyInAFolder)
{
    addTree();
    EXPECT_THAT(children("/h"), ElementsAre("/h/a", "/h/a!", "/h/b", "/h/c"));
    EXPECT_THAT(children("/h/a"), ElementsAre("/h/a/x", "/h/a/\xff"));
    EXPECT_THAT(children("/h/b"), IsEmpty());
}

TEST_F(IndexSnapshots, ARowHasAllItsFields)
{
    addTree();
    const auto rows = await(loop, snapshot->files("", 1));
    EXPECT_THAT(rows, ElementsAre(IndexedFile{"/h/a/x", "x", false, 12, 1700000000.25}));
    EXPECT_TRUE(await(loop, snapshot->folders("", 1)).at(0).isDirectory);
}

TEST_F(IndexSnapshots, SeesWhatWasWrittenSinceTheLastQuestion)
{
    EXPECT_THAT(folders("", 10), IsEmpty());
    add("/h/new", true);
    EXPECT_THAT(folders("", 10), ElementsAre("/h/new"));
}

TEST_F(IndexSnapshots, TheConnectionIsOpenFromTheFirstQuestionToSomeSecondsAfterTheLast)
{
    EXPECT_FALSE(snapshot->isOpen());
    children("/h");
    EXPECT_TRUE(snapshot->isOpen());
    clock.advance(4s);
    children("/h");
    clock.advance(5s);
    EXPECT_TRUE(snapshot->isOpen());
    clock.advance(10s);
    EXPECT_FALSE(snapshot->isOpen());
    EXPECT_EQ(clock.sleepers(), 0u);
    addTree();
    EXPECT_THAT(folders("", 1), ElementsAre("/h/a"));
    EXPECT_TRUE(snapshot->isOpen());
}

TEST_F(IndexSnapshots, QuestionsAtOnceShareOneConnection)
{
    addTree();
    Begun<std::vector<IndexedFile>> one(loop, snapshot->folders("", 10)), other(loop, snapshot->children("/h/a"));
    EXPECT_EQ(one.result().size(), 3u);
    EXPECT_EQ(other.result().size(), 2u);
    EXPECT_EQ(clock.sleepers(), 1u);
}

TEST_F(IndexSnapshots, AStoreThatCannotBeOpenedIsAnErrorAndIsTriedAgain)
{
    const std::string missing = folder / "missing.sqlite";
    snapshot.emplace(loop.executor(), loop.executor(), missing, clock);
    try {
        children("/h");
        ADD_FAILURE() << "no error";
    } catch (const AppError &error) {
        EXPECT_STREQ(error.what(), "Could not open the local database.");
    }
    EXPECT_FALSE(snapshot->isOpen());
    await(loop, Database::open(loop.executor(), missing, Database::Access::readWrite));
    EXPECT_THAT(children("/h"), IsEmpty());
    EXPECT_TRUE(snapshot->isOpen());
}

TEST_F(IndexSnapshots, AStoreInMemoryHasNothingToShow)
{
    snapshot.emplace(loop.executor(), loop.executor(), ":memory:", clock);
    EXPECT_THAT(folders("", 10), IsEmpty());
    EXPECT_FALSE(snapshot->isOpen());
}

TEST_F(IndexSnapshots, MayEndWhileAQuestionIsAsked)
{
    addTree();
    Begun<std::vector<IndexedFile>> asked(loop, snapshot->folders("", 10));
    loop.runOne();
    snapshot.reset();
    EXPECT_EQ(asked.result().size(), 3u);
    clock.advance(20s);
    EXPECT_EQ(clock.sleepers(), 0u);
}
