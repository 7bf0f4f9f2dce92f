#include "ReportingProcess.h"
#include "TestStore.h"

#include <filesystem>
#include <random>
#include <unistd.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;

namespace {

constexpr int filesInBatch = 60;

/// Rows of the file index, so that its triggers and the name table take part.
std::vector<Values> batchOf(int number)
{
    std::vector<Values> rows;
    for (int i = 0; i < filesInBatch; ++i) {
        const std::string name = "file " + std::to_string(number) + "-" + std::to_string(i);
        rows.push_back({"/batch" + std::to_string(number) + "/" + name, name, "/batch" + std::to_string(number)});
    }
    return rows;
}

constexpr char addFile[] = "INSERT INTO file_index(path,name,parent) VALUES(?,?,?)";

std::vector<std::pair<std::string, Values>> transactionOf(int number)
{
    std::vector<std::pair<std::string, Values>> statements;
    for (auto &values : batchOf(number))
        statements.emplace_back(addFile, std::move(values));
    return statements;
}

/// Writes batch after batch, tells the number of each that is committed, and never ends by itself.
[[noreturn]] void writeForEver(const std::string &file, int number, int reports)
{
    MainLoop loop;
    const auto database = await(loop, Database::open(loop.executor(), file, Access::readWrite));
    for (;; ++number) {
        if (number % 2)
            await(loop, database->executeBatch(addFile, batchOf(number)));
        else
            await(loop, database->executeTransaction(transactionOf(number)));
        if (write(reports, &number, sizeof number) != sizeof number)
            _exit(1);
    }
}

struct Damage {
    int killed = 0, partial = 0, lost = 0, committed = 0;
};

} // namespace

TEST(DatabaseKillSlow, AHundredKillsLoseNothingCommittedAndLeaveNothingHalfWritten)
{
    std::mt19937 random(20240229);
    const auto below = [&random](int limit) { return std::uniform_int_distribution(0, limit - 1)(random); };
    auto folder = std::make_unique<TemporaryFolder>();
    int last = 0; // the highest batch known to be committed in the present file
    Damage seen;

    for (int round = 0; round < 100; ++round) {
        SCOPED_TRACE(round);
        if (round % 10 == 0) { // so that the making of a file is interrupted too
            folder = std::make_unique<TemporaryFolder>();
            last = 0;
        }
        const std::string file = *folder / "korvane.sqlite";
        {
            const auto work = [&](int reports) { writeForEver(file, last + 1, reports); };
            ReportingProcess writer(work);
            const int first = round % 10 == 0 ? 0 : below(5);
            for (int i = 0; i < first; ++i)
                last = writer.next(900ms).value_or(last);
            const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(below(8000));
            while (std::chrono::steady_clock::now() < end)
                last = writer.next(200us).value_or(last);
            seen.killed += writer.kill();
            while (const auto number = writer.next(0us))
                last = *number;
        }
        TestStore store;
        const auto database = store.openPath(file);
        const auto batches = store.rows(database, "SELECT parent,count(*) AS files FROM file_index GROUP BY parent");
        for (const auto &batch : batches)
            seen.partial += batch.at("files") != std::to_string(filesInBatch);
        // A batch may be committed and its report lost, never the other way round.
        seen.lost += int(batches.size()) < last;
        last = int(batches.size());
        seen.committed += !batches.empty();
        EXPECT_EQ(store.value(database, "SELECT integrity_check AS value FROM pragma_integrity_check"), "ok");
        store.execute(database, "INSERT INTO file_index_fts(file_index_fts,rank) VALUES('integrity-check',1)");
    }
    EXPECT_EQ(seen.killed, 100);
    EXPECT_EQ(seen.partial, 0);
    EXPECT_EQ(seen.lost, 0);
    EXPECT_GT(seen.committed, 50) << "the kills came too early to tell anything";
}
