#include "TestStore.h"

#include <sqlite3.h>

#include <memory>

using namespace korvane;
using namespace korvane::test;

namespace {

struct Migration : testing::Test, TestStore {
    void make(const std::string &script) { OtherProgram(file).run(script); }
    /// A start and an end of the program.
    std::string openOnce()
    {
        return outcomeOf([&] {
            const auto database = open();
            await(database->close());
        });
    }
    std::string line(const std::string &sql) { return OtherProgram(file).line(sql); }
    Strings lines(const std::string &sql) { return OtherProgram(file).lines(sql); }
    Strings namesOf(const std::string &type)
    {
        return lines("SELECT name FROM sqlite_master WHERE type='" + type + "' ORDER BY name");
    }
    Strings found(const std::string &word)
    {
        return lines("SELECT f.name FROM file_index_fts JOIN file_index f ON f.rowid=file_index_fts.rowid "
                     "WHERE file_index_fts MATCH '\""
            + word + "\"' ORDER BY f.name");
    }
};

struct MigrationWithoutNames : Migration { };

const Strings nameTriggers{"file_index_ad", "file_index_ai", "file_index_au"};

constexpr char addFile[] = "INSERT INTO file_index(path,name,parent,is_directory,size,modified,batch_id) VALUES(?,?,?,0,0,0,0)";

/// For as long as it lives every new connection lacks FTS5, as with a SQLite that was built without it.
class SQLiteWithoutFTS5 {
public:
    SQLiteWithoutFTS5() { sqlite3_auto_extension(entry(removeModule)); }
    ~SQLiteWithoutFTS5() { sqlite3_cancel_auto_extension(entry(removeModule)); }

    static void (*entry(int (*function)(sqlite3 *, char **, const void *)))() { return reinterpret_cast<void (*)()>(function); }

private:
    static int removeModule(sqlite3 *handle, char **, const void *)
    {
        return sqlite3_create_module(handle, "fts5", nullptr, nullptr);
    }
};

/// The same for a FTS5 whose trigram tokenizer cannot be made.
class SQLiteWithoutTrigrams {
public:
    SQLiteWithoutTrigrams() { sqlite3_auto_extension(SQLiteWithoutFTS5::entry(breakTokenizer)); }
    ~SQLiteWithoutTrigrams() { sqlite3_cancel_auto_extension(SQLiteWithoutFTS5::entry(breakTokenizer)); }

private:
    static int refuse(void *, const char **, int, Fts5Tokenizer **) { return SQLITE_ERROR; }
    static int breakTokenizer(sqlite3 *handle, char **, const void *)
    {
        fts5_api *api = nullptr;
        sqlite3_stmt *statement = nullptr;
        sqlite3_prepare_v2(handle, "SELECT fts5(?1)", -1, &statement, nullptr);
        sqlite3_bind_pointer(statement, 1, &api, "fts5_api_ptr", nullptr);
        sqlite3_step(statement);
        sqlite3_finalize(statement);
        fts5_tokenizer broken{refuse, nullptr, nullptr};
        return api ? api->xCreateTokenizer(api, "trigram", nullptr, &broken, nullptr) : SQLITE_ERROR;
    }
};

} // namespace

TEST_F(Migration, MakesTheWholeSchema)
{
    EXPECT_EQ(openOnce(), "done");
    EXPECT_EQ(lines("SELECT name FROM sqlite_master WHERE type='table' AND name NOT LIKE 'file_index_fts_%' ORDER BY name"),
        (Strings{"agents", "app_launches", "clipboard_history", "command_usage", "conversations", "extensions", "file_index",
            "file_index_fts", "file_index_staging", "index_roots", "mcp_servers", "quicklinks", "schema_migrations", "settings",
            "skills"}));
    EXPECT_EQ(lines("SELECT name FROM sqlite_master WHERE type='index' AND name NOT LIKE 'sqlite_autoindex_%' ORDER BY name"),
        (Strings{"clipboard_date", "file_index_name", "file_index_parent"}));
    EXPECT_EQ(namesOf("trigger"), nameTriggers);
    EXPECT_EQ(lines("SELECT version FROM schema_migrations ORDER BY version"), (Strings{"1", "2", "3", "4", "5"}));
    EXPECT_EQ(line("PRAGMA user_version"), "5");
    EXPECT_EQ(line("PRAGMA journal_mode"), "wal");
}

TEST_F(Migration, BringsEveryEarlierFileToTheSameSchemaAndKeepsItsRows)
{
    TestStore fresh;
    await(await(Database::open(loop.executor(), fresh.file, Access::readWrite))->close());
    const auto expected = schemaOf(fresh.file);

    const struct {
        const char *name;
        bool files, launches, staging;
    } cases[] = {
        {"version1.sql", false, false, false},
        {"version2.sql", true, false, false},
        {"version3.sql", true, true, false},
        {"version4.sql", true, true, false},
        {"version5.sql", true, true, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const TemporaryFolder own;
        const std::string path = own / "korvane.sqlite";
        OtherProgram(path).run(fixture(c.name));
        for (const char *opening : {"first", "second"}) {
            SCOPED_TRACE(opening);
            await(openPath(path)->close());
            EXPECT_EQ(schemaOf(path), expected);
            OtherProgram other(path);
            EXPECT_EQ(other.line("PRAGMA user_version"), "5");
            EXPECT_EQ(other.line("PRAGMA integrity_check"), "ok");
            EXPECT_EQ(other.lines("SELECT version FROM schema_migrations ORDER BY version"), (Strings{"1", "2", "3", "4", "5"}));
            EXPECT_EQ(other.lines("SELECT * FROM command_usage ORDER BY id"),
                (Strings{"app:org.gnome.Calculator|3|1699999000.5", "file:/home/ada/Ledger.pdf|1|1699990000.0"}));
            EXPECT_EQ(other.lines("SELECT * FROM clipboard_history ORDER BY id"),
                (Strings{"c1|two\nlines|text|1699999999.25|org.gnome.Terminal", "c2|without a source|text|1699999998.0|NULL"}));
            EXPECT_EQ(other.line("SELECT value FROM settings WHERE key='preferences'"), R"({"language":"en"})");
            EXPECT_EQ(other.line("SELECT * FROM quicklinks"), "q1|Maps|https://maps.example/?q={query}");
            EXPECT_EQ(other.line("SELECT * FROM agents"), R"(a1|{"name":"Scribe"})");
            EXPECT_EQ(other.line("SELECT * FROM mcp_servers"), R"(m1|{"command":"notes-server"})");
            EXPECT_EQ(other.line("SELECT * FROM conversations"), "v1|[]|1699990001.0");
            EXPECT_EQ(other.lines("SELECT * FROM file_index ORDER BY path"),
                c.files ? (Strings{"/home/ada/Ledger.pdf|Ledger.pdf|/home/ada|0|48213|1699980000.75|0",
                    "/home/ada/Notes|Notes|/home/ada|1|0|1699970000.0|0",
                    "/home/ada/Notes/Überblick.md|Überblick.md|/home/ada/Notes|0|12|1699960000.0|0"})
                        : Strings{});
            EXPECT_EQ(other.lines("SELECT * FROM index_roots"), c.files ? Strings{"r1|/home/ada|1699990002.0"} : Strings{});
            EXPECT_EQ(other.lines("SELECT * FROM app_launches"),
                c.launches ? Strings{"/usr/share/applications/gimp.desktop|--new-instance|2|1699999500.0"} : Strings{});
            EXPECT_EQ(other.lines("SELECT path FROM file_index_staging"), c.staging ? Strings{"/home/ada/half.txt"} : Strings{});
        }
    }
}

TEST_F(Migration, AFileOfVersionThreeGainsTheBatchColumn)
{
    make(fixture("version3.sql"));
    EXPECT_EQ(lines("SELECT name FROM pragma_table_info('file_index') WHERE name='batch_id'"), Strings{});
    EXPECT_EQ(openOnce(), "done");
    EXPECT_EQ(lines("SELECT type,\"notnull\",dflt_value FROM pragma_table_info('file_index') WHERE name='batch_id'"),
        Strings{"INTEGER|1|0"});
    EXPECT_EQ(lines("SELECT DISTINCT batch_id FROM file_index"), Strings{"0"});
    EXPECT_EQ(line("PRAGMA user_version"), "5");
}

TEST_F(Migration, AFileOfVersionFiveIsNotChangedByItsOpening)
{
    make(fixture("version5.sql"));
    const std::string changes = line("PRAGMA schema_version");
    EXPECT_EQ(openOnce(), "done");
    EXPECT_EQ(line("PRAGMA schema_version"), changes) << "no statement changed the schema, not even to the same";
    EXPECT_EQ(line("PRAGMA user_version"), "5");
    EXPECT_EQ(line("SELECT value FROM settings WHERE key='fileIndex.ftsBackfilled'"), "1");
}

TEST_F(Migration, NeverGoesByTheVersionThatAFileClaims)
{
    for (const char *claimed : {"0", "5", "77", "-1"}) {
        SCOPED_TRACE(claimed);
        const TemporaryFolder own;
        OtherProgram(own / "a").run(fixture("version2.sql") + "PRAGMA user_version=" + claimed);
        await(openPath(own / "a")->close());
        EXPECT_EQ(OtherProgram(own / "a").line("PRAGMA user_version"), "5");
        EXPECT_EQ(OtherProgram(own / "a").line("SELECT count(*) FROM app_launches"), "0");
    }
}

TEST_F(Migration, KeepsWhatOthersAddedToTheFile)
{
    make("CREATE TABLE notes(x); INSERT INTO notes VALUES('kept');");
    EXPECT_EQ(openOnce(), "done");
    EXPECT_EQ(line("SELECT x FROM notes"), "kept");
    EXPECT_EQ(line("PRAGMA user_version"), "5");
}

TEST_F(Migration, AFailedStepLeavesTheFileAsTheLastGoodOneDidAndALaterStartGoesOn)
{
    const struct {
        const char *blocked; ///< An index of this name keeps the table from being made.
        const char *made; ///< What an earlier step made; nothing for the first.
        const char *undone; ///< What the failing step made before it failed.
        const char *version;
    } cases[] = {
        {"conversations", nullptr, "command_usage", "0"},
        {"index_roots", "command_usage", "file_index", "1"},
        {"app_launches", "file_index", "app_launches", "2"},
        {"file_index_staging", "app_launches", "file_index_staging", "4"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.blocked);
        const TemporaryFolder own;
        const std::string path = own / "korvane.sqlite";
        OtherProgram(path).run(std::string("CREATE TABLE blocker(x); CREATE INDEX ") + c.blocked + " ON blocker(x);");
        EXPECT_EQ(outcomeOf([&] { openPath(path); }), couldNotMigrate);
        {
            OtherProgram other(path);
            const auto tables = [&](const std::string &name) {
                return other.line("SELECT count(*) FROM sqlite_master WHERE type='table' AND name='" + name + "'");
            };
            EXPECT_EQ(other.line("PRAGMA user_version"), c.version);
            EXPECT_EQ(tables(c.undone), "0");
            if (c.made) {
                EXPECT_EQ(tables(c.made), "1");
            }
            other.run(std::string("DROP INDEX ") + c.blocked);
        }
        await(openPath(path)->close());
        EXPECT_EQ(OtherProgram(path).line("PRAGMA user_version"), "5");
    }
}

TEST_F(Migration, AFailedOpeningLeavesTheFileUnlocked)
{
    make("CREATE TABLE blocker(x); CREATE INDEX settings ON blocker(x);");
    EXPECT_EQ(openOnce(), couldNotMigrate);
    OtherProgram(file).run("PRAGMA busy_timeout=0; BEGIN EXCLUSIVE; ROLLBACK;");
    EXPECT_FALSE(exists(file + "-wal"));
}

TEST_F(Migration, TheNamesFollowEveryWriteToTheIndex)
{
    const auto database = open();
    execute(database, addFile, {std::string("/a/Ledger.pdf"), std::string("Ledger.pdf"), std::string("/a")});
    execute(database, addFile, {std::string("/a/Letter.txt"), std::string("Letter.txt"), std::string("/a")});
    EXPECT_EQ(found("Let"), Strings{"Letter.txt"});
    execute(database, "UPDATE file_index SET name='Receipt.txt' WHERE path='/a/Letter.txt'");
    EXPECT_EQ(found("Let"), Strings{});
    EXPECT_EQ(found("ceipt"), Strings{"Receipt.txt"});
    execute(database, "DELETE FROM file_index WHERE path='/a/Ledger.pdf'");
    EXPECT_EQ(found("Ledger"), Strings{});
}

// Without the name table

TEST_F(MigrationWithoutNames, AFileWhoseNameTableCannotBeMadeStillOpensAndTakesWrites)
{
    const struct {
        const char *why, *blocker;
    } cases[] = {
        {"an index has the name", "CREATE TABLE x(y); CREATE INDEX file_index_fts ON x(y);"},
        {"a plain table has the name", "CREATE TABLE file_index_fts(name);"},
        {"a view has the name", "CREATE VIEW file_index_fts AS SELECT 1 AS name;"},
        {"a table that it needs is there already", "CREATE TABLE file_index_fts_data(x);"},
        {"it is an FTS table of another shape", "CREATE VIRTUAL TABLE file_index_fts USING fts5(other);"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        const TemporaryFolder own;
        const std::string path = own / "korvane.sqlite";
        OtherProgram(path).run(c.blocker);
        const auto database = openPath(path);
        execute(database, addFile, {std::string("/a/b"), std::string("b"), std::string("/a")});
        execute(database, "UPDATE file_index SET name='c'");
        execute(database, "DELETE FROM file_index");
        OtherProgram other(path);
        EXPECT_EQ(other.lines("SELECT name FROM sqlite_master WHERE type='trigger'"), Strings{});
        EXPECT_EQ(other.line("SELECT name FROM sqlite_master WHERE name='file_index_parent'"), "file_index_parent");
        EXPECT_EQ(other.line("PRAGMA user_version"), "5");
    }
}

TEST_F(MigrationWithoutNames, ASQLiteWithoutFTS5OpensANewFileWithoutTheTable)
{
    const SQLiteWithoutFTS5 build;
    const auto database = open();
    EXPECT_EQ(value(database, "SELECT name AS value FROM sqlite_master WHERE name='file_index_fts'"), "no row");
    execute(database, addFile, {std::string("/a/b"), std::string("b"), std::string("/a")});
    EXPECT_EQ(value(database, "SELECT name AS value FROM file_index"), "b");
}

TEST_F(MigrationWithoutNames, ASQLiteWithoutTrigramsOpensANewFileWithoutTheTable)
{
    const SQLiteWithoutTrigrams build;
    const auto database = open();
    EXPECT_EQ(value(database, "SELECT name AS value FROM sqlite_master WHERE name='file_index_fts'"), "no row");
    execute(database, addFile, {std::string("/a/b"), std::string("b"), std::string("/a")});
    EXPECT_EQ(value(database, "SELECT name AS value FROM file_index"), "b");
}

TEST_F(MigrationWithoutNames, ASQLiteWithoutFTS5WritesTheIndexOfAFileThatHasTheTable)
{
    make(fixture("version5.sql"));
    {
        const SQLiteWithoutFTS5 build;
        const auto database = open();
        execute(database, addFile, {std::string("/a/Ledger2.pdf"), std::string("Ledger2.pdf"), std::string("/a")});
        execute(database, "DELETE FROM file_index WHERE path='/home/ada/Notes'");
        EXPECT_EQ(value(database, "SELECT count(*) AS value FROM file_index"), "3");
    }
    EXPECT_EQ(namesOf("trigger"), Strings{});
    EXPECT_EQ(line("SELECT count(*) FROM settings WHERE key='fileIndex.ftsBackfilled'"), "0") << "names are missing now";

    const auto database = open();
    EXPECT_EQ(namesOf("trigger"), nameTriggers) << "the next SQLite that can keeps the names again";
    execute(database, "INSERT INTO file_index_fts(file_index_fts) VALUES('rebuild')");
    EXPECT_EQ(found("Ledger"), (Strings{"Ledger.pdf", "Ledger2.pdf"}));
}

TEST_F(MigrationWithoutNames, TriggersOverAMissingTableAreDroppedWhenItCannotBeMade)
{
    make(fixture("version5.sql") + "DROP TABLE file_index_fts; CREATE TABLE x(y); CREATE INDEX file_index_fts ON x(y);");
    const auto database = open();
    EXPECT_EQ(namesOf("trigger"), Strings{});
    execute(database, addFile, {std::string("/a/b"), std::string("b"), std::string("/a")});
    EXPECT_EQ(value(database, "SELECT count(*) AS value FROM file_index"), "4");
}

TEST_F(MigrationWithoutNames, ATableThatComesNewToAFilledIndexAsksForItsNamesAgain)
{
    make(fixture("version5.sql") + "DROP TABLE file_index_fts;");
    EXPECT_EQ(openOnce(), "done");
    EXPECT_EQ(line("SELECT count(*) FROM sqlite_master WHERE name='file_index_fts'"), "1");
    EXPECT_EQ(namesOf("trigger"), nameTriggers);
    EXPECT_EQ(line("SELECT count(*) FROM settings WHERE key='fileIndex.ftsBackfilled'"), "0");
    EXPECT_EQ(line("SELECT count(*) FROM settings"), "2") << "and leaves every other setting alone";
}
