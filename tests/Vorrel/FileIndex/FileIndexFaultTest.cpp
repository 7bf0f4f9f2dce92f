#include "TestIndex.h"

#include "tests/Vorrel/Store/TestStore.h"

#include <atomic>

using namespace korvane;
using namespace korvane::test;

namespace {

/// An index on disk that has been filled once.
struct FaultyStore {
    FaultyStore()
    {
        index.emplace(file);
        index->root("/home/ada");
        index->indexed({entry("/home/ada/old.txt")});
        await(index->loop, index->repository().markFTSBackfillDone());
        index->attributes->put(entry("/home/ada/"));
        index->attributes->put(entry("/home/ada/old.txt"));
        index->start();
        index->scanner->disk = {{"/home/ada", many()}};
    }

    static std::vector<IndexedFile> many()
    {
        std::vector<IndexedFile> files;
        for (int i = 0; i < 5000; ++i)
            files.push_back(entry("/home/ada/" + std::string(100, 'x') + std::to_string(i)));
        return files;
    }

    DiskFolder folder;
    const std::string file = folder / "korvane.sqlite";
    std::optional<TestIndex> index;
};

constexpr char someUnreadable[] = "Indexed · 1 files, some folders unreadable. Check File & Folder permissions.";

} // namespace

TEST(FileIndexFaults, LiveUpdatesResumeByThemselvesAfterAnotherProgramHeldTheStoreForTenSeconds)
{
    FaultyStore store;
    TestIndex &index = *store.index;
    OtherProgram other(store.file);
    other.run("BEGIN IMMEDIATE");
    index.attributes->put(entry("/home/ada/new.txt"));
    index.tell({"/home/ada/new.txt"}, 4);
    index.wait(10s);
    EXPECT_EQ(index.paths(), Strings{"/home/ada/old.txt"});
    EXPECT_TRUE(index.logged("File index update failed"));
    EXPECT_EQ(index.found("old"), Strings{"/home/ada/old.txt"}) << "searches go on meanwhile";
    other.run("COMMIT");
    index.wait(1s);
    EXPECT_EQ(index.paths(), (Strings{"/home/ada/new.txt", "/home/ada/old.txt"}));
    EXPECT_EQ(index.savedID(), 4u);
}

TEST(FileIndexThreads, AStopWhileARootIsBeingPublishedWaitsForNothingAndLeavesTheRootAsItWas)
{
    const DiskFolder folder;
    const std::string file = folder / "korvane.sqlite";
    ThreadPool pool(2);
    {
        TestIndex index(file, &pool);
        index.root("/home/ada");
        await(index.loop, index.repository().markFTSBackfillDone());
        index.attributes->put(entry("/home/ada/"));
        index.scanner->disk = {{"/home/ada", FaultyStore::many()}};
        OtherProgram other(file);
        std::atomic<bool> publishing = false, stopped = false;
        index.onLook = [&] {
            if (!other.isLockedOut())
                return;
            publishing = true;
            runLater(index.loop.executor(), [] {}); // which asks again
            stopped.wait(false);
        };
        const Begun<void> start(index.loop, index.service->start());
        index.loop.runUntil([&] { return publishing.load(); });
        const Begun<void> stopping(index.loop, index.service->stop());
        index.loop.runUntilIdle();
        stopped = true;
        stopped.notify_all();
        index.loop.runUntil([&] { return stopping.done(); });
        EXPECT_TRUE(index.paths().empty()) << "the transaction was undone";
        EXPECT_EQ(index.staged().size(), 5000U);
        index.onLook = nullptr;
        index.make();
        index.scanner->disk = {{"/home/ada", FaultyStore::many()}};
        await(index.loop, index.service->start());
        index.loop.runUntil([&] { return !index.service->busy(); });
        EXPECT_EQ(index.paths().size(), 5000U) << "the next start begins anew";
        await(index.loop, index.service->stop());
    }
    pool.join();
}

TEST(FileIndexFaults, ARootThatCouldNotBeStagedKeepsItsRowsAndTheNextScanPublishesIt)
{
    FaultyStore store;
    TestIndex &index = *store.index;
    OtherProgram other(store.file);
    other.run("BEGIN IMMEDIATE");
    index.rebuild();
    EXPECT_FALSE(index.service->isScanning());
    EXPECT_EQ(index.status(), "Could not save local data.");
    EXPECT_EQ(index.found("old"), Strings{"/home/ada/old.txt"});
    other.run("COMMIT");
    index.rebuild();
    EXPECT_EQ(index.status(), "Watching · 5,000 files");
    EXPECT_TRUE(index.found("old").empty());
}

TEST(FileIndexFaults, AStoreThatIsLockedAtThePublicationKeepsTheOldRoot)
{
    FaultyStore store;
    TestIndex &index = *store.index;
    index.scanner->disk.clear();
    index.rebuild();
    auto &walk = index.scanner->walk("/home/ada");
    walk.stream.yield({entry("/home/ada/new.txt")});
    index.settle();
    OtherProgram other(store.file);
    other.run("BEGIN IMMEDIATE");
    walk.stream.finish();
    index.settle();
    EXPECT_EQ(index.found(".txt"), Strings{"/home/ada/old.txt"});
    EXPECT_TRUE(index.logged("File index root scan failed"));
    other.run("COMMIT");
    index.scanner->disk = {{"/home/ada", {entry("/home/ada/new.txt")}}};
    index.rebuild();
    EXPECT_EQ(index.found(".txt"), Strings{"/home/ada/new.txt"});
}

TEST(FileIndexFaults, AFullDiskCostsTheScanAndNothingThatWasThere)
{
    FaultyStore store;
    TestIndex &index = *store.index;
    {
        FullDisk full(200'000);
        index.rebuild();
        EXPECT_FALSE(index.service->isScanning());
        EXPECT_TRUE(index.logged("File index root scan failed"));
        EXPECT_EQ(index.found("old"), Strings{"/home/ada/old.txt"});
        EXPECT_TRUE(index.status() == someUnreadable || index.status() == "Could not save local data.") << index.status();
    }
    index.rebuild();
    EXPECT_EQ(index.status(), "Watching · 5,000 files");
    OtherProgram other(store.file);
    EXPECT_EQ(other.line("PRAGMA integrity_check"), "ok");
}

TEST(FileIndexFaults, LiveUpdatesResumeByThemselvesWhenThereIsRoomOnTheDiskAgain)
{
    FaultyStore store;
    TestIndex &index = *store.index;
    Strings paths;
    for (const IndexedFile &file : FaultyStore::many()) {
        index.attributes->put(file);
        paths.push_back(file.path);
    }
    paths.resize(3000);
    {
        FullDisk full(200'000);
        index.tell(paths, 7);
        index.wait(3s);
        EXPECT_EQ(index.paths(), Strings{"/home/ada/old.txt"});
        EXPECT_TRUE(index.logged("File index update failed"));
    }
    index.wait(1s);
    EXPECT_EQ(index.paths().size(), 3001u);
    EXPECT_EQ(index.savedID(), 7u);
}

TEST(FileIndexFaults, AStoreThatCannotBeWrittenIsStillSearched)
{
    FaultyStore store;
    store.index->stop();
    store.index.reset();
    TestIndex index;
    index.database = await(index.loop, Database::open(index.loop.executor(), store.file, Database::Access::readOnly));
    index.make();
    index.start();
    EXPECT_EQ(index.found("old"), Strings{"/home/ada/old.txt"});
    index.scanner->disk = {{"/home/ada", FaultyStore::many()}};
    index.rebuild();
    EXPECT_FALSE(index.service->isScanning());
    EXPECT_EQ(index.status(), "Could not save local data.");
    index.tell({"/home/ada/old.txt"}, 9);
    index.wait(2s);
    EXPECT_EQ(index.found("old"), Strings{"/home/ada/old.txt"});
}

TEST(FileIndexFaults, AnEmptyStoreThatCannotBeWrittenSaysSo)
{
    FaultyStore store;
    OtherProgram(store.file).run("DELETE FROM index_roots; DELETE FROM file_index;");
    store.index.reset();
    TestIndex index;
    index.database = await(index.loop, Database::open(index.loop.executor(), store.file, Database::Access::readOnly));
    index.make();
    index.start();
    EXPECT_EQ(index.status(), "Could not save local data.");
    EXPECT_TRUE(index.logged("File index bootstrap failed"));
}
