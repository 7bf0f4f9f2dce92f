#include "TestStore.h"

#include "Vorrel/Store/Repositories.h"

#include <atomic>
#include <thread>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;

namespace {

constexpr char addItem[] = "INSERT INTO items(id,name) VALUES(?,?)";
constexpr int batchSize = 50;

/// A store on a pool, as the program has it, with the test's loop as its main thread.
struct StoreThreads : testing::Test {
    MainLoop loop;
    ThreadPool pool{3};
    TemporaryFolder folder;
    const std::string file = folder / "korvane.sqlite";

    template <class T> T await(Task<T> task) { return test::await(loop, std::move(task)); }
    std::shared_ptr<Database> open(Access access = Access::readWrite, Database::Uptime uptime = {})
    {
        return await(Database::open(pool.executor(), file, access, std::move(uptime)));
    }
    void makeItems(const std::shared_ptr<Database> &database)
    {
        await(database->execute("CREATE TABLE items(id INTEGER PRIMARY KEY, name TEXT NOT NULL)"));
    }
    static std::string cell(const SQLRows &rows) { return rows.at(0).at("value"); }
};

std::vector<Values> batch(int number)
{
    std::vector<Values> rows;
    for (int i = 0; i < batchSize; ++i)
        rows.push_back({double(number * batchSize + i), "item " + std::to_string(i)});
    return rows;
}

Task<void> readUntil(std::shared_ptr<Database> database, const bool &over, int &reads, int &torn)
{
    while (!over) {
        const auto rows = co_await database->rows("SELECT count(*) AS value FROM items");
        ++reads;
        if (std::stoi(rows.at(0).at("value")) % batchSize != 0)
            ++torn;
    }
}

Task<void> writeBatches(std::shared_ptr<Database> database, int count)
{
    for (int number = 0; number < count; ++number) {
        auto rows = batch(number);
        co_await database->executeBatch(addItem, std::move(rows));
    }
}

Task<void> recordMany(CommandUsageStore usage, int count, int &left)
{
    for (int i = 0; i < count; ++i)
        co_await usage.record("app:one");
    --left;
}

} // namespace

TEST_F(StoreThreads, CancellingFromTheMainThreadEndsAQueryThatRuns)
{
    std::atomic<bool> running = false;
    const auto database = open(Access::readWrite, [&running] {
        running = true;
        return 0.0;
    });
    for (int i = 0; i < 20; ++i) {
        running = false;
        Begun<SQLRows> query(loop, database->rows(endless));
        loop.runUntilIdle();
        while (!running)
            std::this_thread::yield();
        query.cancel();
        EXPECT_EQ(outcomeOf([&] { query.result(); }), "cancelled");
        EXPECT_EQ(cell(await(database->rows("SELECT 7 AS value"))), "7");
    }
    await(database->close());
    EXPECT_FALSE(exists(file + "-wal"));
}

TEST_F(StoreThreads, ATaskThatIsCancelledAlreadyDoesNotWaitForItsTurn)
{
    const auto database = open();
    Begun<SQLRows> running(loop, database->rows(endless));
    loop.runUntilIdle();
    Begun<SQLRows> late(loop, database->rows("SELECT 1"));
    late.cancel();
    EXPECT_EQ(outcomeOf([&] { late.result(); }), "cancelled");
    EXPECT_FALSE(running.done());
    running.cancel();
    EXPECT_EQ(outcomeOf([&] { running.result(); }), "cancelled");
}

TEST_F(StoreThreads, CancellingAtAnyMomentGivesTheRowsOrTheCancellation)
{
    const auto database = open();
    int cancelled = 0, answered = 0;
    for (int i = 0; i < 300; ++i) {
        Begun<SQLRows> query(loop, database->rows(lengthy));
        for (int turns = 0; turns < i % 4; ++turns)
            loop.runOne();
        for (int spins = 0; spins < (i * 37) % 400; ++spins)
            std::this_thread::yield();
        query.cancel();
        const auto outcome = outcomeOf([&] { query.result(); });
        cancelled += outcome == "cancelled";
        answered += outcome == "done";
    }
    EXPECT_EQ(cancelled + answered, 300);
    EXPECT_GT(cancelled, 0);
    EXPECT_EQ(cell(await(database->rows(lengthy))), "20000");
}

TEST_F(StoreThreads, TheMachinesOwnClockEndsAQueryOutOfBudget)
{
    const auto database = open();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(outcomeOf([&] { await(database->rows(endless, {}, 50ms)); }), tookTooLong);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 45ms);
    EXPECT_EQ(cell(await(database->rows("SELECT 7 AS value", {}, 50ms))), "7");
}

TEST_F(StoreThreads, ReadersSeeOnlyWholeBatchesWhileAnotherConnectionWrites)
{
    const auto writer = open();
    makeItems(writer);
    const auto first = open(Access::readOnly);
    const auto second = open(Access::readOnly);
    bool over = false;
    int reads = 0, torn = 0;
    Begun<void> one(loop, readUntil(first, over, reads, torn));
    Begun<void> two(loop, readUntil(second, over, reads, torn));
    await(writeBatches(writer, 60));
    over = true;
    one.result();
    two.result();
    EXPECT_EQ(torn, 0);
    EXPECT_GT(reads, 2);
    EXPECT_EQ(cell(await(first->rows("SELECT count(*) AS value FROM items"))), std::to_string(60 * batchSize));
}

TEST_F(StoreThreads, AnEndlessSearchOnTheReaderHoldsUpNoWrite)
{
    const auto writer = open();
    makeItems(writer);
    const auto reader = open(Access::readOnly);
    Begun<SQLRows> search(loop, reader->rows(endless));
    await(writeBatches(writer, 5));
    EXPECT_FALSE(search.done());
    search.cancel();
    EXPECT_EQ(outcomeOf([&] { search.result(); }), "cancelled");
}

TEST_F(StoreThreads, RecordsOfManyTasksLoseNoCount)
{
    SystemClock clock;
    const auto database = open();
    const CommandUsageStore usage(database, clock);
    int left = 8;
    std::vector<TaskHandle> tasks;
    for (int i = 0; i < 8; ++i)
        tasks.push_back(spawn(loop.executor(), recordMany(usage, 25, left)));
    loop.runUntil([&] { return left == 0; });
    EXPECT_EQ(await(usage.load()).at("app:one").count, 200);
}

TEST_F(StoreThreads, CallersOnSeveralThreadsShareOneConnection)
{
    SystemClock clock;
    const auto database = open();
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&database, &clock] {
            MainLoop own;
            int left = 1;
            const auto task = spawn(own.executor(), recordMany(CommandUsageStore(database, clock), 50, left));
            own.runUntil([&] { return left == 0; });
        });
    }
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(await(CommandUsageStore(database, clock).load()).at("app:one").count, 150);
}

TEST_F(StoreThreads, TheLastOwnerMayGoWhileItsWorkIsQueued)
{
    auto database = open();
    makeItems(database);
    std::vector<Begun<void>> writes;
    for (int i = 0; i < 50; ++i)
        writes.emplace_back(loop, database->execute(addItem, Values{double(i), std::string("x")}));
    loop.runUntilIdle();
    database.reset();
    for (auto &write : writes)
        EXPECT_EQ(outcomeOf([&] { write.result(); }), "done");
    pool.join();
    EXPECT_EQ(OtherProgram(file).line("SELECT count(*) FROM items"), "50");
    EXPECT_FALSE(exists(file + "-wal"));
}

TEST_F(StoreThreads, ClosingWaitsForAWriteAndRefusesLaterOnes)
{
    const auto database = open();
    makeItems(database);
    Begun<void> batches(loop, database->executeBatch(addItem, batch(1)));
    Begun<void> close(loop, database->close());
    Begun<void> late(loop, database->executeBatch(addItem, batch(2)));
    EXPECT_EQ(outcomeOf([&] { late.result(); }), databaseClosed);
    EXPECT_EQ(outcomeOf([&] { batches.result(); }), "done");
    EXPECT_EQ(outcomeOf([&] { close.result(); }), "done");
    EXPECT_EQ(OtherProgram(file).line("SELECT count(*) FROM items"), std::to_string(batchSize));
}
