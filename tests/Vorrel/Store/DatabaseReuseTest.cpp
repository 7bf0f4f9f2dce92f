#include "TestStore.h"

#include <filesystem>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;

namespace {

/// A store whose questions have been asked before.
struct DatabaseReuse : testing::Test, TestStore {
    std::shared_ptr<Database> database = open();

    DatabaseReuse() { execute(database, "CREATE TABLE items(id INTEGER PRIMARY KEY, name TEXT)"); }
    std::string names()
    {
        return value(database, "SELECT group_concat(name, ' ') AS value FROM (SELECT name FROM items ORDER BY id)");
    }
};

struct DatabaseBatches : DatabaseReuse { };

constexpr char addItem[] = "INSERT INTO items(id,name) VALUES(?,?)";
constexpr char nameOf[] = "SELECT name AS value FROM items WHERE id=?";

} // namespace

TEST_F(DatabaseReuse, AQuestionThatIsAskedAgainSeesWhatWasWrittenMeanwhile)
{
    EXPECT_EQ(value(database, nameOf, {1.0}), "no row");
    execute(database, addItem, {1.0, std::string("one")});
    EXPECT_EQ(value(database, nameOf, {1.0}), "one");
    execute(database, "ALTER TABLE items ADD COLUMN size");
    EXPECT_EQ(value(database, nameOf, {1.0}), "one");
    EXPECT_EQ(value(database, nameOf), "no row") << "nothing is left of the values before";
}

TEST_F(DatabaseReuse, AProbeDecidesWhichOfTwoQuestionsIsAsked)
{
    const auto ask = [this](const Database::Question &ifAny, const Database::Question &ifNone) {
        std::string seen;
        const auto reader = [&seen](const SQLColumns &row) { seen += row.text(0).value_or("NULL"); };
        await(database->readIf(
            "SELECT 1 FROM items", ifAny, [&ifNone] { return ifNone; }, reader, 2s));
        return seen;
    };
    const auto chosen = [&ask] { return ask({"SELECT ?", {std::string("some")}}, {"SELECT 'none'", {}}); };
    EXPECT_EQ(chosen(), "none");
    execute(database, addItem, {1.0, std::string("one")});
    EXPECT_EQ(chosen(), "some");
    const Database::Question broken{"SELECT nothing FROM nowhere", {}};
    EXPECT_EQ(outcomeOf([&] { ask(broken, broken); }), couldNotPrepare);
    uptime = 0;
    onLook = [this] { uptime += 1; };
    const Database::Question question{endless, {}};
    EXPECT_EQ(outcomeOf([&] { ask(question, broken); }), tookTooLong);
}

TEST_F(DatabaseReuse, AReaderIsToldEachRowByTheTypesThatAreStored)
{
    const Database::Question question{"SELECT * FROM (VALUES(7,1.5,'9',NULL,x'41'),(-9223372036854775808,3.0,'',' 1 ',0))", {}};
    std::vector<std::string> seen;
    await(database->read(question, [&seen](const SQLColumns &row) {
        for (int column = 0; column < 5; ++column) {
            const auto whole = row.integer(column);
            const auto number = row.number(column);
            seen.push_back((whole ? std::to_string(*whole) : "-") + " " + (number ? std::to_string(*number) : "-") + " "
                + row.text(column).value_or("NULL"));
        }
    }));
    EXPECT_EQ(seen,
        (Strings{"7 7.000000 7", "- 1.500000 1.5", "- - 9", "- - NULL", "- - A",
            "-9223372036854775808 -9223372036854775808.000000 -9223372036854775808", "- 3.000000 3.0", "- - ", "- -  1 ",
            "0 0.000000 0"}));
}

// Queries that scan

namespace {

/// The names that match a pattern, in order, asked of a store that only reads.
struct DatabaseScans : DatabaseReuse {
    std::shared_ptr<Database> reading;

    DatabaseScans()
    {
        for (const char *name : {"Report.PDF", "photo.jpg", "Ärger.pdf", "pdf"})
            execute(database, "INSERT INTO items(name) VALUES(?)", {std::string(name)});
        reading = open(Access::readOnly);
    }
    std::string like(const std::string &pattern, bool scans)
    {
        std::string found;
        const Database::Question question{"SELECT name FROM items WHERE name LIKE ? ORDER BY id", {pattern}, scans};
        await(reading->read(question, [&found](const SQLColumns &row) { found += row.text(0).value_or("NULL") + " "; }));
        return found;
    }
};

} // namespace

TEST_F(DatabaseScans, AnswerAsAllOthersAndSeeWhatIsWrittenMeanwhile)
{
    for (const bool scans : {true, false, true}) {
        EXPECT_EQ(like("%.pdf", scans), "Report.PDF Ärger.pdf ");
        EXPECT_EQ(like("p%", scans), "photo.jpg pdf ");
        EXPECT_EQ(like("p_f", scans), "pdf ");
    }
    execute(database, "UPDATE items SET name='other.pdf' WHERE name='pdf'");
    EXPECT_EQ(like("%.pdf", true), "Report.PDF Ärger.pdf other.pdf ");
}

TEST_F(DatabaseScans, EndWithTheirBudgetAndWithTheStore)
{
    uptime = 0;
    onLook = [this] { uptime += 1; };
    const auto ask = [this] {
        await(reading->read(
            {endless, {}, true}, [](const SQLColumns &) {}, 2s));
    };
    EXPECT_EQ(outcomeOf(ask), tookTooLong);
    EXPECT_EQ(like("p_f", true), "pdf ") << "the connection stays usable";
    await(reading->close());
    EXPECT_EQ(outcomeOf(ask), databaseClosed);
    await(database->close());
    EXPECT_FALSE(exists(file + "-wal")) << "no connection is left open";
}

TEST_F(DatabaseScans, GoOnReadingTheFileThatWasOpened)
{
    EXPECT_EQ(like("p_f", false), "pdf ");
    const std::string other = folder / "other.sqlite";
    const auto second = openPath(other);
    execute(second, "CREATE TABLE items(id INTEGER PRIMARY KEY, name TEXT)");
    await(second->close());
    std::filesystem::rename(file, file + ".old");
    std::filesystem::rename(other, file);
    EXPECT_EQ(like("p_f", true), "pdf ");
}

TEST_F(DatabaseReuse, AQuestionWhoseTableHasGoneFailsInTheWordsOfANewOne)
{
    EXPECT_EQ(value(database, nameOf, {1.0}), "no row");
    execute(database, "DROP TABLE items");
    EXPECT_EQ(outcomeOf([&] { value(database, nameOf, {1.0}); }), couldNotPrepare);
    EXPECT_EQ(outcomeOf([&] { value(database, "SELECT ? AS value", {1.0}); }), "done");
    EXPECT_EQ(outcomeOf([&] { value(database, "SELECT ? AS value", {1.0, 2.0}); }), couldNotBind);
}

TEST_F(DatabaseReuse, AnAnsweredQuestionHoldsNoViewOfTheFile)
{
    const auto reader = open(Access::readOnly);
    EXPECT_EQ(value(reader, nameOf, {1.0}), "no row");
    EXPECT_EQ(value(database, nameOf, {1.0}), "no row");
    execute(database, addItem, {1.0, std::string("one")});
    await(database->settle());
    EXPECT_EQ(std::filesystem::file_size(file + "-wal"), 0u) << "nobody reads from the log";
    EXPECT_EQ(value(reader, nameOf, {1.0}), "one");
}

TEST_F(DatabaseReuse, AStoppedQuestionCanBeAskedAgain)
{
    uptime = 0;
    onLook = [&] { uptime += 1; };
    EXPECT_EQ(outcomeOf([&] {
        rows(database,
            "SELECT count(*) AS value FROM (WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x+1 FROM n WHERE x<20000) SELECT x "
            "FROM n)",
            {}, 2s);
    }),
        tookTooLong);
    onLook = nullptr;
    EXPECT_EQ(value(database,
                  "SELECT count(*) AS value FROM (WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x+1 FROM n WHERE x<20000) "
                  "SELECT x FROM n)"),
        "20000");
}

TEST_F(DatabaseReuse, MoreQuestionsThanAreKeptAreAllAnswered)
{
    for (int round = 0; round < 3; ++round)
        for (int i = 0; i < 40; ++i)
            EXPECT_EQ(value(database, "SELECT " + std::to_string(i) + " AS value"), std::to_string(i));
    EXPECT_EQ(outcomeOf([&] { await(database->close()); }), "done");
    EXPECT_FALSE(exists(file + "-wal")) << "closed for good, and the last";
}

TEST_F(DatabaseReuse, ATransactionRunsEqualStatementsEachWithItsOwnValues)
{
    await(database->executeTransaction({{addItem, {1.0, std::string("one")}}, {addItem, {2.0}},
        {"DELETE FROM items WHERE id=?", {1.0}}, {addItem, {3.0, std::string("three")}}}));
    EXPECT_EQ(
        rows(database, "SELECT id,name FROM items ORDER BY id"), (SQLRows{{{"id", "2"}}, {{"id", "3"}, {"name", "three"}}}));
}

TEST_F(DatabaseBatches, RunInOrderInOneTransaction)
{
    for (const auto effort : {Database::Effort::usual, Database::Effort::large}) {
        await(database->executeBatches({{addItem, {{1.0, std::string("one")}, {2.0, std::string("two")}}},
                                           {"DELETE FROM items WHERE id=?", {{1.0}}}, {addItem, {{1.0, std::string("again")}}}},
            effort));
        EXPECT_EQ(names(), "again two");
        EXPECT_EQ(outcomeOf([&] {
            await(database->executeBatches({{"DELETE FROM items WHERE id=?", {{1.0}}}, {addItem, {{3.0}, {2.0}}}}, effort));
        }),
            couldNotSave);
        EXPECT_EQ(names(), "again two") << "all or nothing";
        execute(database, "DELETE FROM items");
    }
}

TEST_F(DatabaseBatches, WithoutRowsOpenNoTransaction)
{
    OtherProgram other(file);
    rows(database, "PRAGMA busy_timeout=0");
    other.run("BEGIN IMMEDIATE");
    EXPECT_EQ(outcomeOf([&] { await(database->executeBatches({{"no SQL at all", {}}, {addItem, {}}})); }), "done");
    EXPECT_EQ(outcomeOf([&] { await(database->executeBatches({{"no SQL at all", {}}, {addItem, {{1.0}}}})); }), couldNotSave);
    other.run("COMMIT");
}

TEST_F(DatabaseBatches, ALargeOneLeavesNoLongLogAndTheConnectionAsItWas)
{
    std::vector<Values> many;
    for (int i = 0; i < 3000; ++i)
        many.push_back({double(i), std::string(3000, 'x')});
    await(database->executeBatches({{addItem, std::move(many)}}, Database::Effort::large));
    EXPECT_EQ(std::filesystem::file_size(file + "-wal"), 0u);
    EXPECT_EQ(rows(database, "PRAGMA cache_size").at(0).at("cache_size"), "-2000");
    EXPECT_EQ(rows(database, "PRAGMA wal_autocheckpoint").at(0).begin()->second, "1000");
    EXPECT_EQ(value(database, "SELECT integrity_check AS value FROM pragma_integrity_check"), "ok");
}
