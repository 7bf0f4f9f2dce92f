#include "TestStore.h"

#include <cmath>
#include <filesystem>
#include <sys/stat.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;

namespace {

struct DatabaseOpening : testing::Test, TestStore {
    std::string openOutcome(const std::string &path, Access access = Access::readWrite)
    {
        return outcomeOf([&] { openPath(path, access); });
    }
};

/// A store with a table of numbered names.
struct OpenStore : testing::Test, TestStore {
    std::shared_ptr<Database> database = open();

    OpenStore() { execute(database, "CREATE TABLE items(id INTEGER PRIMARY KEY, name TEXT NOT NULL)"); }

    std::string executeOutcome(std::string sql, Values values = {})
    {
        return outcomeOf([&] { execute(database, std::move(sql), std::move(values)); });
    }
    std::string batchOutcome(std::string sql, std::vector<Values> rows)
    {
        return outcomeOf([&] { await(database->executeBatch(std::move(sql), std::move(rows))); });
    }
    std::string transactionOutcome(std::vector<std::pair<std::string, Values>> statements)
    {
        return outcomeOf([&] { await(database->executeTransaction(std::move(statements))); });
    }
    std::string rowsOutcome(std::string sql, Values values = {}, std::optional<std::chrono::duration<double>> timeout = {})
    {
        return outcomeOf([&] { rows(database, std::move(sql), std::move(values), timeout); });
    }
    std::string names()
    {
        return value(database, "SELECT group_concat(name, ' ') AS value FROM (SELECT name FROM items ORDER BY id)");
    }
    /// Lets a test see the answer to a held lock without the wait before it.
    void doNotWaitForLocks() { rows(database, "PRAGMA busy_timeout=0"); }
};

struct DatabaseRows : OpenStore { };
struct DatabaseBudget : OpenStore { };
struct DatabaseWrites : OpenStore { };
struct DatabaseClosing : OpenStore { };
struct DatabaseConnections : OpenStore { };
struct DatabaseFaults : OpenStore { };

constexpr char addItem[] = "INSERT INTO items(id,name) VALUES(?,?)";

} // namespace

// Opening

TEST_F(DatabaseOpening, MakesTheFileAndConfiguresTheConnection)
{
    const auto database = open();
    EXPECT_TRUE(exists(file));
    EXPECT_EQ(database->path(), file);
    EXPECT_EQ(value(database, "SELECT journal_mode AS value FROM pragma_journal_mode"), "wal");
    EXPECT_EQ(value(database, "SELECT foreign_keys AS value FROM pragma_foreign_keys"), "1");
    EXPECT_EQ(value(database, "SELECT synchronous AS value FROM pragma_synchronous"), "1") << "NORMAL";
    EXPECT_EQ(value(database, "SELECT timeout AS value FROM pragma_busy_timeout"), "3000");
}

TEST_F(DatabaseOpening, ReadOnlyWaitsShortlyAndConfiguresNothing)
{
    const auto writer = open();
    const auto reader = open(Access::readOnly);
    EXPECT_EQ(value(reader, "SELECT timeout AS value FROM pragma_busy_timeout"), "500");
    EXPECT_EQ(value(reader, "SELECT synchronous AS value FROM pragma_synchronous"), "2") << "as SQLite comes";
    EXPECT_EQ(value(reader, "SELECT user_version AS value FROM pragma_user_version"), "5");
}

TEST_F(DatabaseOpening, ReadOnlyNeedsAFileAndMakesNone)
{
    EXPECT_EQ(openOutcome(file, Access::readOnly), couldNotOpen);
    EXPECT_FALSE(exists(file));
}

TEST_F(DatabaseOpening, ReadOnlyMigratesNothing)
{
    OtherProgram(file).run(fixture("version3.sql"));
    const auto before = schemaOf(file);
    const auto reader = open(Access::readOnly);
    EXPECT_EQ(value(reader, "SELECT user_version AS value FROM pragma_user_version"), "3");
    EXPECT_EQ(schemaOf(file), before);
}

TEST_F(DatabaseOpening, ReadOnlyReadsAStoreThatNobodyElseHasOpen)
{
    auto writer = open();
    execute(writer, "INSERT INTO settings VALUES('a','1')");
    await(writer->close());
    EXPECT_EQ(value(open(Access::readOnly), "SELECT value FROM settings"), "1");
}

TEST_F(DatabaseOpening, ASearchConnectionFoldsNamesWhereTheWritingOneComparesPathsAsTheFileSystemDoes)
{
    const std::string question = "SELECT '/home/ada/Notes' LIKE '/home/ada/notes' AS value";
    const auto writer = open();
    EXPECT_EQ(value(writer, question), "0");
    EXPECT_EQ(value(open(Access::readOnly), question), "1");
    EXPECT_EQ(value(openPath(":memory:"), question), "1") << "one connection for both keeps folding";
}

TEST_F(DatabaseOpening, AStoreInMemoryHasTheWholeSchemaAndLeavesNoFile)
{
    const auto database = openPath(":memory:");
    EXPECT_EQ(value(database, "SELECT user_version AS value FROM pragma_user_version"), "5");
    execute(database, "INSERT INTO settings VALUES('a','1')");
    EXPECT_EQ(value(database, "SELECT value FROM settings"), "1");
    EXPECT_FALSE(exists(":memory:"));
}

TEST_F(DatabaseOpening, APathThatCannotBeAFileIsOneClearSentence)
{
    writeFile(folder / "plain", "text");
    const struct {
        const char *why;
        std::string path;
    } cases[] = {
        {"the folder is missing", folder / "missing/korvane.sqlite"},
        {"the path is a folder", folder.path},
        {"the folder is a file", folder / "plain/korvane.sqlite"},
        {"nothing can be made there", "/proc/korvane.sqlite"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(openOutcome(c.path), couldNotOpen);
        EXPECT_EQ(openOutcome(c.path, Access::readOnly), couldNotOpen);
    }
}

TEST_F(DatabaseOpening, AFileThatIsNoDatabaseIsRefusedAndNotTouched)
{
    std::string noise(100'000, '\0');
    for (std::size_t i = 0; i < noise.size(); ++i)
        noise[i] = char(i * 2654435761u >> 13);
    const struct {
        const char *why;
        std::string contents;
    } cases[] = {
        {"a short text", "hello"},
        {"a long text", std::string(20'000, 'x')},
        {"arbitrary bytes", noise},
        {"the first bytes of a database and then noise", "SQLite format 3" + std::string(1, '\0') + noise},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        writeFile(file, c.contents);
        EXPECT_EQ(openOutcome(file), couldNotMigrate);
        EXPECT_EQ(contentsOf(file), c.contents);
        EXPECT_FALSE(exists(file + "-wal"));
    }
}

TEST_F(DatabaseOpening, ReadingAFileThatIsNoDatabaseFailsAtTheQuery)
{
    writeFile(file, std::string(20'000, 'x'));
    const auto reader = open(Access::readOnly);
    EXPECT_EQ(outcomeOf([&] { rows(reader, "SELECT 1 FROM settings"); }), couldNotPrepare);
}

TEST_F(DatabaseOpening, AnEmptyFileBecomesAStore)
{
    writeFile(file, "");
    EXPECT_EQ(value(open(), "SELECT user_version AS value FROM pragma_user_version"), "5");
}

TEST_F(DatabaseOpening, ATruncatedStoreIsRefusedAndNotTouched)
{
    OtherProgram(file).run(fixture("version5.sql"));
    const std::string whole = contentsOf(file);
    for (const std::size_t kept : {std::size_t(100), std::size_t(4096), whole.size() / 2}) {
        SCOPED_TRACE(kept);
        writeFile(file, whole.substr(0, kept));
        EXPECT_EQ(openOutcome(file), couldNotMigrate);
        EXPECT_EQ(contentsOf(file), whole.substr(0, kept));
    }
}

TEST_F(DatabaseOpening, AReadOnlyFolderIsOneClearSentenceAndNothingIsWritten)
{
    OtherProgram(file).run(fixture("version3.sql"));
    const std::string before = contentsOf(file);
    std::filesystem::permissions(file, std::filesystem::perms(0444));
    std::filesystem::permissions(folder.path, std::filesystem::perms(0555));
    const auto outcome = [](const std::string &path, Access access, const char *sql) {
        return asOrdinaryUser([&] {
            MainLoop loop;
            return outcomeOf([&] {
                const auto database = test::await(loop, Database::open(loop.executor(), path, access));
                test::await(loop, database->rows(sql));
            });
        });
    };
    EXPECT_EQ(outcome(file, Access::readWrite, "SELECT 1"), couldNotMigrate);
    EXPECT_EQ(outcome(folder / "new.sqlite", Access::readWrite, "SELECT 1"), couldNotOpen);
    EXPECT_EQ(outcome(file, Access::readOnly, "SELECT 1 FROM settings"), couldNotPrepare)
        << "a reader keeps its place in files beside it";
    std::filesystem::permissions(folder.path, std::filesystem::perms(0755));
    EXPECT_EQ(contentsOf(file), before);
    EXPECT_FALSE(exists(folder / "new.sqlite"));
}

TEST_F(DatabaseOpening, AFolderThatMayNotBeEnteredIsOneClearSentence)
{
    OtherProgram(file).run(fixture("version5.sql"));
    std::filesystem::permissions(folder.path, std::filesystem::perms(0000));
    const std::string outcome = asOrdinaryUser([&] {
        MainLoop inner;
        return outcomeOf([&] { test::await(inner, Database::open(inner.executor(), file, Access::readWrite)); });
    });
    EXPECT_EQ(outcome, couldNotOpen);
}

TEST_F(DatabaseOpening, AFullDiskIsOneClearSentenceAndTheNextStartSucceeds)
{
    {
        const FullDisk full(8192);
        EXPECT_EQ(openOutcome(file), couldNotMigrate);
    }
    EXPECT_EQ(value(open(), "SELECT user_version AS value FROM pragma_user_version"), "5");
}

// Rows

TEST_F(DatabaseRows, ComeAsTextByColumnNameInTheOrderOfTheAnswer)
{
    execute(database, "INSERT INTO items VALUES(2,'two'),(1,'one')");
    EXPECT_EQ(rows(database, "SELECT id,name FROM items ORDER BY id"),
        (SQLRows{{{"id", "1"}, {"name", "one"}}, {{"id", "2"}, {"name", "two"}}}));
    EXPECT_EQ(rows(database, "SELECT id FROM items WHERE id>5"), SQLRows{});
}

TEST_F(DatabaseRows, LeaveOutANullInsteadOfGivingAnEmptyText)
{
    EXPECT_EQ(rows(database, "SELECT NULL AS missing, '' AS empty"), (SQLRows{{{"empty", ""}}}));
}

TEST_F(DatabaseRows, GiveNumbersAsSQLitePrintsThem)
{
    const struct {
        const char *sql, *text;
    } cases[] = {
        {"SELECT 9007199254740993 AS value", "9007199254740993"},
        {"SELECT -1.5 AS value", "-1.5"},
        {"SELECT 2.0 AS value", "2.0"},
        {"SELECT 1e300 AS value", "1.0e+300"},
        {"SELECT 0.1 AS value", "0.1"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(value(database, c.sql), c.text) << c.sql;
}

TEST_F(DatabaseRows, AWholeNumberBoundToAnIntegerColumnComesBackAsAnInteger)
{
    execute(database, addItem, {4503599627370497.0, std::string("large")});
    EXPECT_EQ(value(database, "SELECT id AS value FROM items"), "4503599627370497");
}

TEST_F(DatabaseRows, BindTextsNumbersAndNullsInTheOrderOfThePlaceholders)
{
    const auto answer = rows(database, "SELECT typeof(?) AS a, typeof(?) AS b, typeof(?) AS c, ? AS d",
        {std::string("x"), 1.0, nullptr, std::string("last")});
    EXPECT_EQ(answer, (SQLRows{{{"a", "text"}, {"b", "real"}, {"c", "null"}, {"d", "last"}}}));
}

TEST_F(DatabaseRows, KeepEveryByteOfAText)
{
    using namespace std::string_literals;
    for (const auto &text :
        {""s, "a\0b"s, "\0"s, "\xff\xfe not UTF-8"s, "Überblick 概要"s, "it's ? \"quoted\""s, std::string(3'000'000, 'm')})
        EXPECT_EQ(value(database, "SELECT ? AS value", {text}), text);
}

TEST_F(DatabaseRows, ANumberThatIsNoneBecomesNull) { EXPECT_EQ(value(database, "SELECT ? AS value", {std::nan("")}), "NULL"); }

TEST_F(DatabaseRows, APlaceholderWithoutAValueIsNull) { EXPECT_EQ(value(database, "SELECT ? AS value"), "NULL"); }

TEST_F(DatabaseRows, OfTwoColumnsWithOneNameTheLastCounts)
{
    EXPECT_EQ(rows(database, "SELECT 1 AS a, 2 AS a"), (SQLRows{{{"a", "2"}}}));
}

TEST_F(DatabaseRows, AStatementWithoutColumnsGivesNoRows) { EXPECT_EQ(rows(database, "CREATE TABLE other(x)"), SQLRows{}); }

TEST_F(DatabaseRows, FailInTheWordsOfTheStepThatFailed)
{
    EXPECT_EQ(rowsOutcome("SELEKT 1"), couldNotPrepare);
    EXPECT_EQ(rowsOutcome("SELECT * FROM missing"), couldNotPrepare);
    EXPECT_EQ(rowsOutcome(""), couldNotPrepare) << "an empty text is no statement";
    EXPECT_EQ(rowsOutcome("-- only a comment"), couldNotPrepare);
    EXPECT_EQ(rowsOutcome("SELECT ?", {1.0, 2.0}), couldNotBind);
    EXPECT_EQ(rowsOutcome("SELECT abs(-9223372036854775808)"), couldNotRead);
    EXPECT_EQ(rowsOutcome("SELECT 1"), "done") << "the connection stays usable";
}

// Budget and cancellation

TEST_F(DatabaseBudget, ACancelledTaskThrowsAtOnceAndAsksNothing)
{
    auto query = begin(database->rows("SELECT 1"));
    query.cancel();
    looks = 0;
    EXPECT_EQ(outcomeOf([&] { query.result(); }), "cancelled");
    EXPECT_EQ(looks, 0);
}

TEST_F(DatabaseBudget, WithoutATimeoutACancelledQueryIsNeverReportedAsTooLong)
{
    auto query = begin(database->rows(endless));
    uptime = 1e300;
    onLook = [&] { query.cancel(); };
    EXPECT_EQ(outcomeOf([&] { query.result(); }), "cancelled");
    onLook = nullptr;
    EXPECT_EQ(value(database, "SELECT 7 AS value"), "7");
}

TEST_F(DatabaseBudget, CancellationCountsBeforeARunOutBudget)
{
    auto query = begin(database->rows(endless, {}, 2s));
    onLook = [&] {
        if (looks > 1) {
            uptime += 10;
            query.cancel();
        }
    };
    looks = 0;
    EXPECT_EQ(outcomeOf([&] { query.result(); }), "cancelled");
}

TEST_F(DatabaseBudget, WithoutATimeoutNoTimeIsTooLong)
{
    onLook = [&] { uptime = 1e307; };
    EXPECT_EQ(value(database, lengthy), "20000");
}

TEST_F(DatabaseBudget, RunsOutWhenItsLastMomentHasCome)
{
    const struct {
        const char *why;
        double elapsed;
        std::string outcome;
    } cases[] = {
        {"just before the deadline", 1.999, "done"},
        {"at the deadline", 2.0, tookTooLong},
        {"after it", 2.001, tookTooLong},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        uptime = 1000;
        looks = 0;
        onLook = [&] { uptime = looks == 1 ? 1000 : 1000 + c.elapsed; };
        EXPECT_EQ(rowsOutcome(lengthy, {}, 2.0s), c.outcome);
        EXPECT_GT(looks, 1);
    }
}

TEST_F(DatabaseBudget, ALookCostsTwoThousandInstructions)
{
    looks = 0;
    rows(database, "SELECT 1");
    EXPECT_EQ(looks, 1) << "a short query asks only for its deadline";
    looks = 0;
    rows(database, lengthy);
    EXPECT_GT(looks, 20000 * 5 / 2000);
    EXPECT_LT(looks, 20000 * 50 / 2000);
}

TEST_F(DatabaseBudget, AQueryOutOfBudgetLeavesTheConnectionUsable)
{
    onLook = [&] { uptime += 1; };
    EXPECT_EQ(rowsOutcome(endless, {}, 2.0s), tookTooLong);
    looks = 0;
    // A handler left behind would stop this write; a statement left behind would keep the close from ending.
    EXPECT_EQ(executeOutcome("WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x+1 FROM n WHERE x<20000) "
                             "INSERT INTO items SELECT x,'n' FROM n"),
        "done");
    EXPECT_EQ(looks, 0);
    EXPECT_EQ(value(database, "SELECT count(*) AS value FROM items"), "20000");
    await(database->close());
    EXPECT_FALSE(exists(file + "-wal"));
}

TEST_F(DatabaseBudget, ACancelledQueryLeavesTheConnectionUsable)
{
    auto query = begin(database->rows(endless));
    onLook = [&] { query.cancel(); };
    EXPECT_EQ(outcomeOf([&] { query.result(); }), "cancelled");
    onLook = nullptr;
    looks = 0;
    EXPECT_EQ(executeOutcome(addItem, {1.0, std::string("one")}), "done");
    EXPECT_EQ(looks, 0);
    EXPECT_EQ(names(), "one");
    await(database->close());
    EXPECT_FALSE(exists(file + "-wal"));
}

TEST_F(DatabaseBudget, AFailedQueryLeavesNoHandlerBehind)
{
    EXPECT_EQ(rowsOutcome("SELEKT", {}, 2s), couldNotPrepare);
    EXPECT_EQ(rowsOutcome("SELECT abs(-9223372036854775808)", {}, 2s), couldNotRead);
    onLook = [&] { uptime += 10; };
    looks = 0;
    EXPECT_EQ(executeOutcome("WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x+1 FROM n WHERE x<20000) "
                             "INSERT INTO items SELECT x,'n' FROM n"),
        "done");
    EXPECT_EQ(looks, 0);
}

TEST_F(DatabaseBudget, AQueryCancelledWhileItWaitsForItsTurnNeverRuns)
{
    auto first = begin(database->rows(lengthy));
    auto second = begin(database->rows("SELECT 1"));
    onLook = [&] { second.cancel(); };
    loop.runUntil([&] { return first.done(); });
    looks = 0;
    EXPECT_EQ(outcomeOf([&] { second.result(); }), "cancelled");
    EXPECT_EQ(looks, 0);
}

TEST_F(DatabaseBudget, AWriteIsCarriedToItsEndWhenItsTaskIsCancelled)
{
    auto one = begin(database->execute(addItem, {1.0, std::string("one")}));
    auto batch = begin(database->executeBatch(addItem, {{2.0, std::string("two")}, {3.0, std::string("three")}}));
    auto list = begin(database->executeTransaction({{addItem, {4.0, std::string("four")}}}));
    one.cancel();
    loop.runOne();
    batch.cancel();
    list.cancel();
    EXPECT_EQ(outcomeOf([&] { one.result(); }), "done");
    EXPECT_EQ(outcomeOf([&] { batch.result(); }), "done");
    EXPECT_EQ(outcomeOf([&] { list.result(); }), "done");
    EXPECT_EQ(names(), "one two three four");
}

TEST_F(DatabaseBudget, ATransactionThatIsAbandonedWhileItRunsIsUndone)
{
    const std::string many = "INSERT INTO items(id,name) WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n "
                             "WHERE i<100000) SELECT i,'x' FROM n";
    for (const auto effort : {Database::Effort::usual, Database::Effort::large}) {
        std::stop_source abandon;
        onLook = [&] { abandon.request_stop(); };
        EXPECT_EQ(outcomeOf([&] {
            await(database->executeTransaction({{addItem, {0.0, std::string("zero")}}, {many, {}}}, effort, abandon.get_token()));
        }),
            "cancelled");
        EXPECT_TRUE(abandon.stop_requested()) << "it was running";
        onLook = nullptr;
        EXPECT_EQ(names(), "NULL") << "no item";
        EXPECT_EQ(outcomeOf([&] { await(database->executeBatches({{many, {{}}}}, effort, abandon.get_token())); }), "cancelled");
        EXPECT_EQ(names(), "NULL") << "no item";
    }
    EXPECT_EQ(outcomeOf([&] { await(database->execute(addItem, {1.0, std::string("one")})); }), "done");
    EXPECT_EQ(names(), "one");
}

TEST_F(DatabaseBudget, ATransactionThatCanBeAbandonedIsCarriedToItsEndWhenOnlyItsTaskIsCancelled)
{
    const std::stop_source abandon;
    auto list =
        begin(database->executeTransaction({{addItem, {1.0, std::string("one")}}}, Database::Effort::large, abandon.get_token()));
    loop.runOne();
    list.cancel();
    EXPECT_EQ(outcomeOf([&] { list.result(); }), "done");
    EXPECT_EQ(names(), "one");
    EXPECT_EQ(outcomeOf([&] {
        await(database->executeTransaction({{addItem, {1.0}}}, Database::Effort::large, abandon.get_token()));
    }),
        couldNotSave);
}

// Writes

TEST_F(DatabaseWrites, FailInTheWordsOfTheStepThatFailed)
{
    EXPECT_EQ(executeOutcome("INSERT INTO"), couldNotPrepare);
    EXPECT_EQ(executeOutcome(""), couldNotPrepare);
    EXPECT_EQ(executeOutcome(addItem, {1.0, std::string("one"), std::string("more")}), couldNotBind);
    EXPECT_EQ(executeOutcome(addItem, {1.0, nullptr}), couldNotSave) << "a name is asked for";
    EXPECT_EQ(executeOutcome("SELECT 1"), couldNotSave) << "a row is not the end of a write";
    EXPECT_EQ(executeOutcome(addItem, {1.0, std::string("one")}), "done");
    EXPECT_EQ(names(), "one");
}

TEST_F(DatabaseWrites, ABatchStoresEveryRow)
{
    EXPECT_EQ(batchOutcome(addItem, {{1.0, std::string("one")}, {2.0, std::string("two")}, {3.0, std::string("three")}}), "done");
    EXPECT_EQ(names(), "one two three");
}

TEST_F(DatabaseWrites, ABatchStoresAllRowsOrNone)
{
    const struct {
        const char *why;
        const char *sql;
        std::vector<Values> rows;
        const char *outcome;
    } cases[] = {
        {"the statement is wrong", "INSERT INTO missing VALUES(?,?)", {{1.0, std::string("one")}}, couldNotPrepare},
        {"the second row has a value too many", addItem, {{1.0, std::string("one")}, {2.0, std::string("two"), 3.0}},
            couldNotBind},
        {"the third row breaks a rule", addItem,
            {{1.0, std::string("one")}, {2.0, std::string("two")}, {1.0, std::string("again")}}, couldNotSave},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(batchOutcome(c.sql, c.rows), c.outcome);
        EXPECT_EQ(names(), "NULL");
        EXPECT_EQ(batchOutcome(addItem, {{9.0, std::string("nine")}}), "done") << "no transaction is left open";
        execute(database, "DELETE FROM items");
    }
}

TEST_F(DatabaseWrites, AnEmptyBatchOpensNoTransaction)
{
    OtherProgram other(file);
    other.run("BEGIN IMMEDIATE");
    doNotWaitForLocks();
    EXPECT_EQ(batchOutcome(addItem, {}), "done");
    EXPECT_EQ(batchOutcome("no SQL at all", {}), "done");
    EXPECT_EQ(batchOutcome(addItem, {{1.0, std::string("one")}}), couldNotSave);
    other.run("ROLLBACK");
}

TEST_F(DatabaseWrites, ATransactionRunsItsStatementsInOrder)
{
    EXPECT_EQ(transactionOutcome({{addItem, {1.0, std::string("one")}}, {"UPDATE items SET name=name||'!'", {}},
                  {addItem, {2.0, std::string("two")}}}),
        "done");
    EXPECT_EQ(names(), "one! two");
}

TEST_F(DatabaseWrites, TheFirstFailureOfATransactionUndoesItAll)
{
    const struct {
        const char *why;
        std::pair<std::string, Values> bad;
        const char *outcome;
    } cases[] = {
        {"no statement", {"DELETE FRM items", {}}, couldNotPrepare},
        {"a value too many", {"DELETE FROM items WHERE id=?", {1.0, 2.0}}, couldNotBind},
        {"a broken rule", {addItem, {1.0, std::string("again")}}, couldNotSave},
        {"a row", {"SELECT 1", {}}, couldNotSave},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(
            transactionOutcome({{addItem, {1.0, std::string("one")}}, c.bad, {addItem, {2.0, std::string("two")}}}), c.outcome);
        EXPECT_EQ(names(), "NULL");
        EXPECT_EQ(executeOutcome("BEGIN IMMEDIATE"), "done") << "no transaction is left open";
        EXPECT_EQ(executeOutcome("ROLLBACK"), "done");
    }
}

TEST_F(DatabaseWrites, AnEmptyTransactionIsOne) { EXPECT_EQ(transactionOutcome({}), "done"); }

TEST_F(DatabaseWrites, ARefusedCommitIsUndone)
{
    execute(database, "CREATE TABLE owners(id INTEGER PRIMARY KEY)");
    execute(database, "CREATE TABLE owned(owner INTEGER REFERENCES owners(id) DEFERRABLE INITIALLY DEFERRED)");
    EXPECT_EQ(transactionOutcome({{"INSERT INTO owned VALUES(1)", {}}}), couldNotSave);
    EXPECT_EQ(batchOutcome("INSERT INTO owned VALUES(?)", {{1.0}}), couldNotSave);
    EXPECT_EQ(value(database, "SELECT count(*) AS value FROM owned"), "0");
    EXPECT_EQ(transactionOutcome({{"INSERT INTO owners VALUES(1)", {}}, {"INSERT INTO owned VALUES(1)", {}}}), "done");
}

TEST_F(DatabaseWrites, RunInTheOrderOfTheCalls)
{
    std::vector<Begun<void>> calls;
    for (int i = 1; i <= 20; ++i)
        calls.push_back(begin(database->execute(addItem, {double(i), std::to_string(i)})));
    auto count = begin(database->rows("SELECT count(*) AS value FROM items"));
    EXPECT_EQ(count.result().front().at("value"), "20");
}

// Closing

TEST_F(DatabaseClosing, EveryLaterOperationSaysSo)
{
    await(database->close());
    EXPECT_EQ(rowsOutcome("SELECT 1"), databaseClosed);
    EXPECT_EQ(executeOutcome(addItem, {1.0, std::string("one")}), databaseClosed);
    EXPECT_EQ(batchOutcome(addItem, {{1.0, std::string("one")}}), databaseClosed);
    EXPECT_EQ(transactionOutcome({{addItem, {1.0, std::string("one")}}}), databaseClosed);
    EXPECT_EQ(transactionOutcome({}), databaseClosed);
    EXPECT_EQ(batchOutcome(addItem, {}), "done") << "no rows are nothing to do";
    EXPECT_EQ(outcomeOf([&] { await(database->close()); }), "done");
}

TEST_F(DatabaseClosing, WhatWasAskedForBeforeIsDoneFirst)
{
    auto write = begin(database->execute(addItem, {1.0, std::string("one")}));
    auto close = begin(database->close());
    auto late = begin(database->execute(addItem, {2.0, std::string("two")}));
    EXPECT_EQ(outcomeOf([&] { late.result(); }), databaseClosed);
    EXPECT_EQ(outcomeOf([&] { write.result(); }), "done");
    EXPECT_EQ(OtherProgram(file).lines("SELECT name FROM items"), Strings{"one"});
}

TEST_F(DatabaseClosing, LeavesOneFile)
{
    execute(database, addItem, {1.0, std::string("one")});
    await(database->close());
    EXPECT_FALSE(exists(file + "-wal"));
    EXPECT_FALSE(exists(file + "-shm"));
}

TEST_F(DatabaseClosing, TheLastOwnerCloses)
{
    database.reset();
    EXPECT_FALSE(exists(file + "-wal"));
}

// Two connections

TEST_F(DatabaseConnections, TheReaderSeesWhatIsCommittedAndNothingElse)
{
    const auto reader = open(Access::readOnly);
    execute(database, addItem, {1.0, std::string("one")});
    execute(database, "BEGIN IMMEDIATE");
    execute(database, addItem, {2.0, std::string("two")});
    EXPECT_EQ(value(reader, "SELECT count(*) AS value FROM items"), "1");
    execute(database, "COMMIT");
    EXPECT_EQ(value(reader, "SELECT count(*) AS value FROM items"), "2");
}

TEST_F(DatabaseConnections, TheReaderCannotWrite)
{
    const auto reader = open(Access::readOnly);
    EXPECT_EQ(outcomeOf([&] { execute(reader, addItem, {1.0, std::string("one")}); }), couldNotSave);
    EXPECT_EQ(outcomeOf([&] { await(reader->executeBatch(addItem, {{1.0, std::string("one")}})); }), couldNotSave);
    EXPECT_EQ(names(), "NULL");
}

TEST_F(DatabaseConnections, ClosingTheReaderLeavesTheWriterAlone)
{
    const auto reader = open(Access::readOnly);
    await(reader->close());
    EXPECT_EQ(outcomeOf([&] { rows(reader, "SELECT 1"); }), databaseClosed);
    EXPECT_EQ(executeOutcome(addItem, {1.0, std::string("one")}), "done");
    EXPECT_EQ(names(), "one");
}

TEST_F(DatabaseConnections, AHeldLockRefusesEveryWriteAndLosesNothing)
{
    OtherProgram other(file);
    other.run("BEGIN IMMEDIATE; INSERT INTO items VALUES(1,'theirs')");
    doNotWaitForLocks();
    EXPECT_EQ(executeOutcome(addItem, {2.0, std::string("ours")}), couldNotSave);
    EXPECT_EQ(batchOutcome(addItem, {{2.0, std::string("ours")}}), couldNotSave);
    EXPECT_EQ(transactionOutcome({{addItem, {2.0, std::string("ours")}}}), couldNotSave);
    EXPECT_EQ(names(), "NULL") << "reading goes on";
    other.run("COMMIT");
    EXPECT_EQ(executeOutcome(addItem, {2.0, std::string("ours")}), "done");
    EXPECT_EQ(names(), "theirs ours");
}

TEST_F(DatabaseConnections, TheWaitForALockIsAsLongAsTheOpenerAskedFor)
{
    OtherProgram other(file);
    other.run("BEGIN IMMEDIATE");
    const auto openWith = [&](Milliseconds patience) {
        return outcomeOf([&] { await(Database::open(loop.executor(), file, Access::readWrite, {}, patience)); });
    };
    EXPECT_EQ(openWith(0ms), couldNotMigrate);
    other.run("ROLLBACK");
    EXPECT_EQ(openWith(0ms), "done");
    const auto patient = await(Database::open(loop.executor(), file, Access::readWrite, {}, 30s));
    EXPECT_EQ(value(patient, "SELECT timeout AS value FROM pragma_busy_timeout"), "30000");
}

TEST(DatabaseLockSlow, AWriteWaitsThreeSecondsForALockAndThenSaysSo)
{
    TestStore store;
    const auto database = store.open();
    OtherProgram other(store.file);
    other.run("BEGIN IMMEDIATE");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(outcomeOf([&] { store.execute(database, "DELETE FROM settings"); }), couldNotSave);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 2900ms);
    other.run("ROLLBACK");
}

TEST(DatabaseLockSlow, OpeningALockedStoreIsOneClearSentenceAndTheNextTrySucceeds)
{
    TestStore store;
    OtherProgram other(store.file);
    other.run(fixture("version3.sql") + "BEGIN IMMEDIATE");
    EXPECT_EQ(outcomeOf([&] { store.open(); }), couldNotMigrate);
    EXPECT_EQ(other.line("PRAGMA user_version"), "3");
    other.run("ROLLBACK");
    EXPECT_EQ(outcomeOf([&] { store.open(); }), "done");
}

TEST(DatabaseLockSlow, AReaderWaitsHalfASecondForAnExclusiveLock)
{
    TestStore store;
    store.open();
    OtherProgram other(store.file);
    other.run("PRAGMA locking_mode=EXCLUSIVE; INSERT INTO settings VALUES('a','1')");
    const auto reader = store.open(Access::readOnly);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(outcomeOf([&] { store.rows(reader, "SELECT value FROM settings"); }), couldNotPrepare);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, 400ms);
    EXPECT_LT(waited, 2900ms);
}

// Faults

TEST_F(DatabaseFaults, AFullDiskRefusesTheWriteAndKeepsEverythingBefore)
{
    execute(database, addItem, {1.0, std::string("one")});
    const std::vector<Values> large(40, {nullptr, std::string(100'000, 'x')});
    {
        const FullDisk full(300'000);
        EXPECT_EQ(batchOutcome(addItem, large), couldNotSave);
        EXPECT_EQ(executeOutcome(addItem, {nullptr, std::string(1'000'000, 'x')}), couldNotSave);
        EXPECT_EQ(names(), "one");
    }
    EXPECT_EQ(batchOutcome(addItem, large), "done");
    EXPECT_EQ(value(database, "SELECT count(*) AS value FROM items"), "41");
    await(database->close());
    EXPECT_EQ(OtherProgram(file).line("PRAGMA integrity_check"), "ok");
}

TEST_F(DatabaseFaults, AMovedStoreIsWrittenNoMoreAndKeepsWhatWasCommitted)
{
    execute(database, addItem, {1.0, std::string("one")});
    std::filesystem::rename(file, folder / "moved.sqlite");
    EXPECT_EQ(executeOutcome(addItem, {2.0, std::string("two")}), couldNotSave);
    EXPECT_EQ(batchOutcome(addItem, {{2.0, std::string("two")}}), couldNotSave);
    EXPECT_EQ(transactionOutcome({{addItem, {2.0, std::string("two")}}}), couldNotSave);
    EXPECT_EQ(names(), "one") << "reading goes on";
    EXPECT_FALSE(exists(file)) << "nothing new appears at the old path";
    await(database->close());
    EXPECT_EQ(OtherProgram(folder / "moved.sqlite").lines("SELECT name FROM items"), Strings{"one"})
        << "though its write-ahead log stayed behind";
}

TEST_F(DatabaseFaults, AMovedStoreThatIsPutBackIsWrittenAgain)
{
    std::filesystem::rename(file, folder / "moved.sqlite");
    EXPECT_EQ(executeOutcome(addItem, {1.0, std::string("one")}), couldNotSave);
    std::filesystem::rename(folder / "moved.sqlite", file);
    EXPECT_EQ(executeOutcome(addItem, {1.0, std::string("one")}), "done");
    await(database->close());
    EXPECT_EQ(OtherProgram(file).lines("SELECT name FROM items"), Strings{"one"});
}

TEST_F(DatabaseFaults, ARemovedStoreIsWrittenNoMoreAndTheNextStartMakesANewOne)
{
    execute(database, addItem, {1.0, std::string("one")});
    std::filesystem::remove(file);
    EXPECT_EQ(executeOutcome(addItem, {2.0, std::string("two")}), couldNotSave);
    await(database->close());
    EXPECT_FALSE(exists(file));
    database = open();
    EXPECT_EQ(value(database, "SELECT count(*) AS value FROM sqlite_master WHERE name='items'"), "0");
}

TEST_F(DatabaseFaults, AStoreWhoseFolderIsRemovedIsWrittenNoMore)
{
    std::filesystem::remove_all(folder.path);
    EXPECT_EQ(executeOutcome(addItem, {1.0, std::string("one")}), couldNotSave);
    EXPECT_EQ(outcomeOf([&] { await(database->close()); }), "done");
    EXPECT_FALSE(exists(folder.path));
}

TEST_F(DatabaseFaults, AStoreThatReplacesOursIsNeverWrittenOver)
{
    for (const bool writes : {true, false}) {
        SCOPED_TRACE(writes ? "we write on" : "we only close");
        execute(database, "DELETE FROM items");
        execute(database, addItem, {1.0, std::string("ours")});
        OtherProgram(folder / "other.sqlite").run("CREATE TABLE theirs(x); INSERT INTO theirs VALUES(42)");
        const std::string theirs = contentsOf(folder / "other.sqlite");
        std::filesystem::rename(folder / "other.sqlite", file);
        if (writes) {
            EXPECT_EQ(executeOutcome(addItem, {2.0, std::string("more")}), couldNotSave);
        }
        await(database->close());
        EXPECT_EQ(contentsOf(file), theirs);
        // A log of ours left beside it would be played into it now.
        EXPECT_EQ(OtherProgram(file).lines("SELECT x FROM theirs"), Strings{"42"});
        EXPECT_EQ(OtherProgram(file).line("PRAGMA integrity_check"), "ok");
        std::filesystem::remove(file);
        database = open();
        execute(database, "CREATE TABLE items(id INTEGER PRIMARY KEY, name TEXT NOT NULL)");
    }
}

TEST_F(DatabaseFaults, ARemovedWriteAheadLogLosesNothingThatWasCommitted)
{
    execute(database, addItem, {1.0, std::string("one")});
    std::filesystem::remove(file + "-wal");
    EXPECT_EQ(executeOutcome(addItem, {2.0, std::string("two")}), couldNotSave);
    await(database->close());
    EXPECT_EQ(OtherProgram(file).lines("SELECT name FROM items"), Strings{"one"});
    database = open();
    EXPECT_EQ(executeOutcome(addItem, {2.0, std::string("two")}), "done");
    EXPECT_EQ(names(), "one two");
}

TEST_F(DatabaseFaults, AStoreOverwrittenInPlaceNeverCrashes)
{
    const auto reader = open(Access::readOnly);
    for (int i = 0; i < 200; ++i)
        execute(database, addItem, {nullptr, std::string(2000, 'x')});
    const std::string noise(std::filesystem::file_size(file) + 50'000, '\x5a');
    writeFile(file, noise);
    const auto isToldOrDone = [](const std::string &outcome) {
        return outcome == "done" || outcome == couldNotRead || outcome == couldNotPrepare || outcome == couldNotSave;
    };
    for (int i = 0; i < 5; ++i) {
        EXPECT_PRED1(isToldOrDone, outcomeOf([&] { rows(reader, "SELECT name FROM items"); }));
        EXPECT_PRED1(isToldOrDone, rowsOutcome("SELECT name FROM items"));
        EXPECT_PRED1(isToldOrDone, executeOutcome(addItem, {nullptr, std::string(2000, 'y')}));
        EXPECT_PRED1(isToldOrDone, executeOutcome("UPDATE settings SET value='z'"));
    }
    EXPECT_EQ(outcomeOf([&] { await(database->close()); }), "done");
}
