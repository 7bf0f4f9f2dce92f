#include "Vorrel/FileIndex/DiskFileScanner.h"

#include "CommandCore/Commands.h"
#include "Vorrel/Platform/Headless/HeadlessDirectoryWalker.h"
#include "tests/support/Await.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <thread>

namespace korvane::test {
namespace {

using namespace std::chrono_literals;
using Visitor = DirectoryWalker::Visitor;
using Strings = std::vector<std::string>;

constexpr char unreadable[] = "The index folder could not be read.";
constexpr char unresponsive[] = "Indexing stopped on an unresponsive folder.";

/// Does nothing by itself: a test tells the visitor what it likes.
class ScriptedWalker : public DirectoryWalker {
public:
    void walk(std::string root, std::shared_ptr<const Visitor> visitor) const override
    {
        roots.push_back(std::move(root));
        visitors.push_back(std::move(visitor));
    }

    mutable Strings roots;
    mutable std::vector<std::shared_ptr<const Visitor>> visitors;
};

/// What the reader of a stream has got so far.
struct Reading {
    std::vector<std::vector<IndexedFile>> batches;
    std::string end; ///< "complete", "cancelled" or the sentence of the error; empty while there is none.

    std::vector<std::size_t> sizes() const
    {
        std::vector<std::size_t> sizes;
        for (const auto &batch : batches)
            sizes.push_back(batch.size());
        return sizes;
    }
    Strings paths() const
    {
        Strings paths;
        for (const auto &batch : batches) {
            for (const auto &entry : batch)
                paths.push_back(entry.path);
        }
        std::ranges::sort(paths);
        return paths;
    }
};

Task<void> read(AsyncStream<std::vector<IndexedFile>> stream, std::shared_ptr<Reading> reading)
{
    try {
        while (auto batch = co_await stream.next())
            reading->batches.push_back(std::move(*batch));
        reading->end = "complete";
    } catch (const AppError &error) {
        reading->end = error.what();
    } catch (const Cancelled &) {
        reading->end = "cancelled";
    }
}

std::vector<IndexedFile> entries(int count)
{
    static int made = 0;
    std::vector<IndexedFile> entries;
    for (int index = 0; index < count; ++index) {
        const std::string name = "entry" + std::to_string(++made);
        entries.push_back({.path = "/root/" + name, .name = name});
    }
    return entries;
}

struct Scene {
    MainLoop loop;
    ManualClock clock{loop};
    UserFolders folders{.home = "/home/ada", .data = "/home/ada/.local/share"};
    ScriptedWalker scripted;
    HeadlessDirectoryWalker disk{loop.executor()};
    DiskFileScanner::Uptime uptime = [this] { return clock.uptime(); };
    DiskFileScanner scanner{loop.executor(), clock, scripted, folders, uptime};
    DiskFileScanner diskScanner{loop.executor(), clock, disk, folders, uptime};
    std::shared_ptr<Reading> reading = std::make_shared<Reading>();
    TaskHandle reader;

    void begin(std::string root = "/root")
    {
        reader = spawn(loop.executor(), read(scanner.scan(std::move(root), {}), reading));
        loop.runUntilIdle();
    }
    void beginOnDisk(std::string root, Strings skipPrefixes = {})
    {
        reader = spawn(loop.executor(), read(diskScanner.scan(std::move(root), std::move(skipPrefixes)), reading));
        loop.runUntilIdle();
    }
    Strings pathsOnDisk(std::string root, Strings skipPrefixes = {})
    {
        beginOnDisk(std::move(root), std::move(skipPrefixes));
        EXPECT_EQ(reading->end, "complete");
        return reading->paths();
    }

    const Visitor &walk() const { return *scripted.visitors.back(); }
    /// One entry comes by.
    bool enter() const { return walk().entered(); }
    void find(int count)
    {
        walk().found(entries(count));
        loop.runUntilIdle();
    }
    void end(Visitor::End how = Visitor::End::complete)
    {
        walk().done(how);
        loop.runUntilIdle();
    }
};

TEST(DiskFileScannerBatches, HoldFiveThousandEntriesAndTheLastWhatIsLeft)
{
    struct Row {
        int count;
        std::vector<std::size_t> sizes;
    };
    for (const auto &[count, sizes] : std::vector<Row>{
             {0, {}}, // an empty folder is a successful scan
             {1, {1}},
             {4999, {4999}},
             {5000, {5000}}, // and no empty second one
             {5001, {5000, 1}},
             {10000, {5000, 5000}},
             {12345, {5000, 5000, 2345}},
         }) {
        Scene scene;
        scene.begin();
        for (int left = count; left > 0; left -= 617)
            scene.find(std::min(left, 617));
        scene.end();
        EXPECT_EQ(scene.reading->sizes(), sizes) << count;
        EXPECT_EQ(scene.reading->end, "complete");
    }
}

TEST(DiskFileScannerBatches, AreReadWhileTheWalkGoesOn)
{
    Scene scene;
    scene.begin();
    scene.find(4999);
    EXPECT_EQ(scene.reading->sizes(), std::vector<std::size_t>{});
    scene.find(2);
    EXPECT_EQ(scene.reading->sizes(), std::vector<std::size_t>{5000});
    EXPECT_EQ(scene.reading->end, "");
}

TEST(DiskFileScannerBatches, LoseAndRepeatNothing)
{
    Scene scene;
    scene.begin();
    const auto all = entries(11000);
    scene.walk().found({all.begin(), all.begin() + 7000});
    scene.walk().found({all.begin() + 7000, all.end()});
    scene.end();
    Strings expected;
    for (const auto &entry : all)
        expected.push_back(entry.path);
    std::ranges::sort(expected);
    EXPECT_EQ(scene.reading->paths(), expected);
}

TEST(DiskFileScannerBatches, WaitForASlowReader)
{
    Scene scene;
    const auto stream = scene.scanner.scan("/root", {});
    scene.find(15001);
    scene.end();
    scene.clock.advance(10min);
    await(scene.loop, read(stream, scene.reading));
    EXPECT_EQ(scene.reading->sizes(), (std::vector<std::size_t>{5000, 5000, 5000, 1}));
    EXPECT_EQ(scene.reading->end, "complete");
}

TEST(DiskFileScannerRoot, LosesItsTilde)
{
    Scene scene;
    for (const char *root : {"~", "~/Documents", "/srv", "/srv/~", "~other"})
        scene.begin(root);
    EXPECT_EQ(scene.scripted.roots, (Strings{"/home/ada", "/home/ada/Documents", "/srv", "/srv/~", "~other"}));
}

TEST(DiskFileScannerRoot, ThatCannotBeReadEndsTheScanWithASentence)
{
    Scene scene;
    scene.begin();
    scene.end(Visitor::End::unreadable);
    EXPECT_EQ(scene.reading->end, unreadable);
    EXPECT_TRUE(scene.reading->batches.empty());
}

TEST(DiskFileScannerRoot, IsNoFolderOnTheDisk)
{
    Scene scene;
    scene.disk.addFile("/root/file");
    for (const char *root : {"/nowhere", "/root/file"}) {
        scene.reading->end.clear();
        scene.beginOnDisk(root);
        EXPECT_EQ(scene.reading->end, unreadable) << root;
    }
}

TEST(DiskFileScannerErrors, ComeAfterTheBatchesThatWereReadAndWithoutThePartOfOne)
{
    Scene scene;
    const auto stream = scene.scanner.scan("/root", {});
    scene.find(5003);
    scene.end(Visitor::End::unreadable);
    await(scene.loop, read(stream, scene.reading));
    EXPECT_EQ(scene.reading->sizes(), std::vector<std::size_t>{5000});
    EXPECT_EQ(scene.reading->end, unreadable);
    await(scene.loop, read(stream, scene.reading)); // who asks again gets the same answer
    EXPECT_EQ(scene.reading->end, unreadable);
}

TEST(DiskFileScannerErrors, AreRecoverable)
{
    Scene scene;
    const auto failed = scene.scanner.scan("/root", {});
    scene.end(Visitor::End::unreadable);
    const auto hung = scene.scanner.scan("/root", {});
    scene.clock.advance(20s);
    for (const auto &stream : {failed, hung}) {
        try {
            await(scene.loop, stream.next());
            ADD_FAILURE() << "no error";
        } catch (const AppError &error) {
            EXPECT_EQ(error.kind(), AppError::Kind::recoverable);
        }
    }
}

TEST(DiskFileScannerWatchdog, EndsAScanThatNeverTellsAnything)
{
    Scene scene;
    scene.begin();
    scene.clock.advance(15999ms);
    EXPECT_EQ(scene.reading->end, "");
    scene.clock.advance(1ms);
    EXPECT_EQ(scene.reading->end, unresponsive);
}

TEST(DiskFileScannerWatchdog, AllowsExactlyFifteenSecondsBetweenTwoEntries)
{
    Scene scene;
    scene.begin();
    scene.clock.advance(1000ms);
    EXPECT_TRUE(scene.enter());
    scene.clock.advance(15000ms); // a look at 16 s
    EXPECT_EQ(scene.reading->end, "");
    EXPECT_TRUE(scene.enter());
    scene.end();
    EXPECT_EQ(scene.reading->end, "complete");
}

TEST(DiskFileScannerWatchdog, AllowsNoMoreThanFifteenSeconds)
{
    Scene scene;
    scene.begin();
    scene.clock.advance(999ms);
    EXPECT_TRUE(scene.enter());
    scene.clock.advance(15000ms);
    EXPECT_EQ(scene.reading->end, "");
    scene.clock.advance(1ms); // a look at 16 s
    EXPECT_EQ(scene.reading->end, unresponsive);
}

TEST(DiskFileScannerWatchdog, EndsAHangAfterAtMostSeventeenSeconds)
{
    for (auto lastSign = 0ms; lastSign < 2000ms; lastSign += 50ms) {
        Scene scene;
        scene.begin();
        scene.clock.advance(lastSign);
        EXPECT_TRUE(scene.enter());
        scene.clock.advance(15000ms);
        EXPECT_EQ(scene.reading->end, "") << lastSign.count();
        scene.clock.advance(2000ms);
        EXPECT_EQ(scene.reading->end, unresponsive) << lastSign.count();
    }
}

TEST(DiskFileScannerWatchdog, CountsEntriesThatAreSkippedAsSignsOfLife)
{
    Scene scene;
    scene.begin();
    for (int second = 0; second < 120; ++second) {
        EXPECT_TRUE(scene.enter());
        scene.walk().skips("/root/skipped");
        scene.clock.advance(1s);
    }
    EXPECT_EQ(scene.reading->end, "");
    scene.end();
    EXPECT_EQ(scene.reading->end, "complete");
}

TEST(DiskFileScannerWatchdog, IsNotMisledByTheWallClock)
{
    Scene scene;
    scene.begin();
    scene.clock.setWall(scene.clock.now() + 86400);
    scene.clock.advance(4s);
    EXPECT_EQ(scene.reading->end, "");
    scene.clock.setWall(0);
    scene.clock.advance(12s);
    EXPECT_EQ(scene.reading->end, unresponsive);
}

TEST(DiskFileScannerWatchdog, FreesTheReaderAndEndsTheWalkAtItsNextEntry)
{
    Scene scene;
    scene.begin();
    scene.find(5001);
    scene.clock.advance(16s);
    EXPECT_EQ(scene.reading->end, unresponsive);
    EXPECT_EQ(scene.reading->sizes(), std::vector<std::size_t>{5000});
    EXPECT_FALSE(scene.enter());
    scene.find(7000);
    scene.end(Visitor::End::ended);
    EXPECT_EQ(scene.reading->sizes(), std::vector<std::size_t>{5000});
    EXPECT_EQ(scene.reading->end, unresponsive);
}

TEST(DiskFileScannerWatchdog, EndsAtItsFirstLookAfterTheScan)
{
    for (const auto how : {Visitor::End::complete, Visitor::End::unreadable, Visitor::End::ended}) {
        Scene scene;
        scene.begin();
        scene.end(how);
        EXPECT_EQ(scene.clock.sleepers(), 1u);
        scene.clock.advance(1999ms);
        EXPECT_EQ(scene.clock.sleepers(), 1u);
        scene.clock.advance(1ms);
        EXPECT_EQ(scene.clock.sleepers(), 0u);
    }
}

TEST(DiskFileScannerWatchdog, LooksAlsoWhenItsSleepFails)
{
    class FailingClock : public Clock {
    public:
        explicit FailingClock(Clock &clock) : clock(clock) { }
        Task<void> sleep(Milliseconds delay) override
        {
            auto slept = clock.sleep(delay);
            co_await std::move(slept);
            throw std::runtime_error("a sleep that fails");
        }
        double now() const override { return clock.now(); }
        double uptime() const override { return clock.uptime(); }

    private:
        Clock &clock;
    };
    Scene scene;
    FailingClock failing(scene.clock);
    DiskFileScanner scanner(scene.loop.executor(), failing, scene.scripted, scene.folders, scene.uptime);
    scene.reader = spawn(scene.loop.executor(), read(scanner.scan("/root", {}), scene.reading));
    scene.clock.advance(15999ms);
    EXPECT_EQ(scene.reading->end, "");
    scene.clock.advance(1ms);
    EXPECT_EQ(scene.reading->end, unresponsive);
    EXPECT_EQ(scene.clock.sleepers(), 0u);
}

TEST(DiskFileScannerWatchdog, WatchesEachScanForItself)
{
    Scene scene;
    auto other = std::make_shared<Reading>();
    const auto otherReader = spawn(scene.loop.executor(), read(scene.scanner.scan("/other", {}), other));
    scene.begin();
    for (int round = 0; round < 16; ++round) {
        scene.enter(); // of "/root" alone
        scene.clock.advance(1s);
    }
    EXPECT_EQ(other->end, unresponsive);
    EXPECT_EQ(scene.reading->end, "");
}

TEST(DiskFileScannerCancellation, EndsTheWalkAndThenTheWatchdog)
{
    Scene scene;
    scene.begin();
    EXPECT_TRUE(scene.enter());
    scene.reader.cancel();
    scene.loop.runUntilIdle();
    EXPECT_EQ(scene.reading->end, "cancelled");
    EXPECT_FALSE(scene.enter());
    EXPECT_EQ(scene.clock.sleepers(), 1u);
    scene.clock.advance(2s);
    EXPECT_EQ(scene.clock.sleepers(), 0u);
    scene.end(Visitor::End::ended);
    EXPECT_EQ(scene.reading->end, "cancelled");
}

TEST(DiskFileScannerCancellation, EndsTheWalkOfADisk)
{
    Scene scene;
    for (int index = 0; index < 10; ++index)
        scene.disk.addFile("/root/" + std::to_string(index));
    scene.disk.holdBefore("/root/5");
    scene.beginOnDisk("/root");
    EXPECT_EQ(scene.disk.underWay(), 1);
    scene.reader.cancel();
    scene.loop.runUntilIdle();
    scene.disk.release();
    scene.loop.runUntilIdle();
    EXPECT_EQ(scene.disk.underWay(), 0);
    EXPECT_EQ(scene.reading->end, "cancelled");
    EXPECT_TRUE(scene.reading->batches.empty());
}

TEST(DiskFileScannerCancellation, OfTheWalkItselfIsNoFailure)
{
    Scene scene;
    scene.begin();
    scene.end(Visitor::End::ended);
    EXPECT_EQ(scene.reading->end, "cancelled");
}

TEST(DiskFileScannerLifetime, AWalkMayOutliveEverything)
{
    std::shared_ptr<const Visitor> visitor;
    {
        Scene scene;
        scene.begin();
        visitor = scene.scripted.visitors.back();
        scene.reader.cancel();
        scene.loop.runUntilIdle();
    }
    EXPECT_FALSE(visitor->entered());
    EXPECT_FALSE(visitor->skips("/root/entry"));
    visitor->found(entries(6000));
    visitor->done(Visitor::End::complete);
}

TEST(DiskFileScannerLifetime, AScanMayOutliveItsScanner)
{
    Scene scene;
    auto scanner =
        std::make_unique<DiskFileScanner>(scene.loop.executor(), scene.clock, scene.scripted, scene.folders, scene.uptime);
    scene.reader = spawn(scene.loop.executor(), read(scanner->scan("/root", {}), scene.reading));
    scanner.reset();
    scene.find(2);
    scene.clock.advance(4s);
    scene.end();
    EXPECT_EQ(scene.reading->sizes(), std::vector<std::size_t>{2});
    EXPECT_EQ(scene.reading->end, "complete");
}

TEST(DiskFileScannerSkipping, LeavesOutAFolderAndAllBelowItButNoSibling)
{
    Scene scene;
    for (const char *path : {"/root/a/file", "/root/a/deep/file", "/root/ab/file", "/root/a.txt", "/root/b/a/file", "/root/file"})
        scene.disk.addFile(path);
    EXPECT_EQ(scene.pathsOnDisk("/root", {"/elsewhere", "/root/a"}),
        (Strings{"/root/a.txt", "/root/ab", "/root/ab/file", "/root/b", "/root/b/a", "/root/b/a/file", "/root/file"}));
}

TEST(DiskFileScannerSkipping, LeavesOutASingleFile)
{
    Scene scene;
    for (const char *path : {"/root/a", "/root/ab"})
        scene.disk.addFile(path);
    EXPECT_EQ(scene.pathsOnDisk("/root", {"/root/a"}), Strings{"/root/ab"});
}

TEST(DiskFileScannerWalk, TellsEverythingBelowTheRootAndNotTheRoot)
{
    Scene scene;
    scene.disk.addFile("/root/.hidden", 3, 4.5);
    scene.disk.addFolder("/root/folder", 7);
    scene.disk.addFile("/root/folder/file", 5, 6);
    scene.disk.addFile("/other/file");
    scene.beginOnDisk("/root");
    ASSERT_EQ(scene.reading->batches.size(), 1u);
    auto batch = scene.reading->batches.front();
    std::ranges::sort(batch, {}, &IndexedFile::path);
    EXPECT_EQ(batch,
        (std::vector<IndexedFile>{{.path = "/root/.hidden", .name = ".hidden", .size = 3, .modified = 4.5},
            {.path = "/root/folder", .name = "folder", .isDirectory = true, .modified = 7},
            {.path = "/root/folder/file", .name = "file", .size = 5, .modified = 6}}));
}

TEST(DiskFileScannerWalk, DoesNotGoThroughLinks)
{
    Scene scene;
    scene.disk.addFile("/other/file");
    scene.disk.addLink("/root/link", true);
    EXPECT_EQ(scene.pathsOnDisk("/root"), Strings{"/root/link"});
}

TEST(DiskFileScannerWalk, PassesOverWhatCannotBeReadWithoutAWord)
{
    Scene scene;
    scene.disk.addFile("/root/closed/file");
    scene.disk.makeUnreadable("/root/closed");
    scene.disk.addFile("/root/vanished/file");
    scene.disk.makeFactless("/root/vanished");
    scene.disk.addFile("/root/last");
    EXPECT_EQ(scene.pathsOnDisk("/root"), (Strings{"/root/closed", "/root/last"}));
}

TEST(DiskFileScannerWalk, OfADiskThatHangsEndsAndTheNextOneWorks)
{
    Scene scene;
    scene.disk.addFile("/root/a");
    scene.disk.addFile("/root/b");
    scene.disk.holdBefore("/root/b");
    scene.beginOnDisk("/root");
    scene.clock.advance(16s);
    EXPECT_EQ(scene.reading->end, unresponsive);
    scene.disk.release();
    scene.loop.runUntilIdle();
    EXPECT_EQ(scene.disk.underWay(), 0);

    scene.reading = std::make_shared<Reading>();
    EXPECT_EQ(scene.pathsOnDisk("/root"), (Strings{"/root/a", "/root/b"}));
}

TEST(DiskFileScannerWalk, ThatHangsBeforeItsRootEndsToo)
{
    Scene scene;
    scene.disk.addFile("/root/a");
    scene.disk.holdAtStart();
    scene.beginOnDisk("/root");
    scene.clock.advance(16s);
    EXPECT_EQ(scene.reading->end, unresponsive);
}

/// Tells its entries from several threads at once.
class CrowdedWalker : public DirectoryWalker {
public:
    static constexpr int threads = 4;
    static constexpr int perThread = 9001;

    ~CrowdedWalker() override
    {
        for (auto &thread : running)
            thread.join();
    }
    void walk(std::string, std::shared_ptr<const Visitor> visitor) const override
    {
        auto left = std::make_shared<std::atomic<int>>(threads);
        for (int index = 0; index < threads; ++index)
            running.emplace_back([visitor, left, index] { tell(*visitor, *left, index); });
    }

private:
    static void tell(const Visitor &visitor, std::atomic<int> &left, int thread)
    {
        for (int index = 0; index < perThread && visitor.entered(); ++index) {
            const std::string path = "/root/" + std::to_string(thread) + "-" + std::to_string(index);
            if (!visitor.skips(path))
                visitor.found({{.path = path}});
        }
        if (--left == 0)
            visitor.done(Visitor::End::complete);
    }

    mutable std::vector<std::thread> running;
};

TEST(DiskFileScannerThreads, GatherFullBatchesOfWhatManyThreadsTell)
{
    MainLoop loop;
    SystemClock clock;
    CrowdedWalker walker;
    DiskFileScanner scanner(loop.executor(), clock, walker, {.home = "/home/ada"});
    auto reading = std::make_shared<Reading>();
    await(loop, read(scanner.scan("/root", {"/root/0-0"}), reading));
    EXPECT_EQ(reading->sizes(), (std::vector<std::size_t>{5000, 5000, 5000, 5000, 5000, 5000, 5000, 1003}));
    auto paths = reading->paths();
    EXPECT_EQ(std::unique(paths.begin(), paths.end()), paths.end());
    EXPECT_EQ(reading->end, "complete");
}

TEST(DiskFileScannerThreads, StopWhenTheReaderIsCancelled)
{
    MainLoop loop;
    SystemClock clock;
    auto walker = std::make_unique<CrowdedWalker>();
    DiskFileScanner scanner(loop.executor(), clock, *walker, {.home = "/home/ada"});
    auto reading = std::make_shared<Reading>();
    auto reader = spawn(loop.executor(), read(scanner.scan("/root", {}), reading));
    loop.runUntil([&] { return !reading->batches.empty(); });
    reader.cancel();
    loop.runUntil([&] { return !reading->end.empty(); });
    walker.reset(); // waits for the threads
    EXPECT_LE(reading->sizes().size(), 8u);
}

} // namespace
} // namespace korvane::test
