#include "IndexStore.h"

#include <filesystem>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

namespace {

struct FileIndexSearch : testing::Test, IndexStore {
    FileIndexRepository reading = reader();

    Strings found(const std::string &text, std::optional<std::string> parent = {}, int limit = 1000)
    {
        return search(reading, text, std::move(parent), limit);
    }
    void opened(const std::string &path, int times)
    {
        execute(database, "INSERT INTO command_usage(id,count,last_used) VALUES(?,?,0)", {"file:" + path, double(times)});
    }
};
struct FileIndexList : testing::Test, IndexStore { };
struct FileIndexWrites : testing::Test, IndexStore { };
struct FileIndexRoots : testing::Test, IndexStore { };
struct FileIndexFacts : testing::Test, IndexStore { };

} // namespace

// Search

TEST_F(FileIndexSearch, AnEmptyQueryAsksNothing)
{
    add({"/a/report.txt"});
    execute(database, "DROP TABLE command_usage");
    for (const char *text : {"", "  ", "sort:name", "\"\""})
        EXPECT_EQ(outcomeOf([&] { EXPECT_THAT(found(text), IsEmpty()); }), "done") << text;
    await(database->close());
    EXPECT_THAT(search(repository, "sort:size"), IsEmpty()) << "not even of a closed store";
    EXPECT_EQ(searchOutcome(repository, "report"), databaseClosed);
}

TEST_F(FileIndexSearch, ABadQueryIsItsSentence)
{
    EXPECT_EQ(searchOutcome(reading, "sort:colour"), "recoverable: Use sort:relevance, name, size or modified.");
    EXPECT_EQ(searchOutcome(reading, std::string(1001, 'x')), "recoverable: Use a search under 1,000 characters.");
}

TEST_F(FileIndexSearch, GivesEveryFieldOfARow)
{
    await(
        repository.upsert({{"/a/Report.pdf", "Report.pdf", false, 9007199254740991, 1700000000.25}, folderAt("/a/reports", 0)}));
    const auto files = await(reading.search("report", {}, 10));
    EXPECT_THAT(files,
        ElementsAre(IndexedFile{"/a/reports", "reports", true, 0, 0},
            IndexedFile{"/a/Report.pdf", "Report.pdf", false, 9007199254740991, 1700000000.25}));
}

TEST_F(FileIndexSearch, ARowWhoseNumbersAreTextsGetsDefaults)
{
    execute(database,
        "INSERT INTO file_index(path,name,parent,is_directory,size,modified) "
        "VALUES('/a/odd.txt','odd.txt','/a','yes','big','late')");
    EXPECT_THAT(await(reading.search("odd", {}, 10)), ElementsAre(IndexedFile{"/a/odd.txt", "odd.txt", false, 0, 0}));
}

TEST_F(FileIndexSearch, ARowWithoutAPathIsDropped)
{
    execute(database, "INSERT INTO file_index(path,name,parent) VALUES(NULL,'odd.txt','/a'),('/a/odd.txt','odd.txt','/a')");
    EXPECT_EQ(found("odd", "/a"), Strings{"/a/odd.txt"});
    EXPECT_THAT(await(repository.list("/a", "name", 10)), SizeIs(1));
}

TEST_F(FileIndexSearch, TermsAreFoundAnywhereInANameWhateverTheirCase)
{
    add({"/a/Yearly Report.txt", "/a/reporting", "/a/rep", "/report/x"});
    EXPECT_THAT(found("REPORT"), UnorderedElementsAre("/a/Yearly Report.txt", "/a/reporting"));
    EXPECT_EQ(found("report year"), Strings{"/a/Yearly Report.txt"});
    EXPECT_EQ(found("\"ly rep\""), Strings{"/a/Yearly Report.txt"});
}

TEST_F(FileIndexSearch, ALoneShortTermFindsBeginningsOfNames)
{
    add({"/a/readme", "/a/bread", "/a/Red"});
    EXPECT_THAT(found("re"), UnorderedElementsAre("/a/readme", "/a/Red"));
    EXPECT_THAT(found("re ad"), UnorderedElementsAre("/a/readme", "/a/bread"));
}

TEST_F(FileIndexSearch, WildcardsMeanThemselves)
{
    add({"/a/50%.txt", "/a/505.txt", "/a/a_b.txt", "/a/axb.txt", "/a/c\\d.txt", "/a/cd.txt"});
    EXPECT_EQ(found("50%"), Strings{"/a/50%.txt"});
    EXPECT_EQ(found("0%"), Strings{}) << "a lone short term is a beginning";
    EXPECT_EQ(found("0% tx"), Strings{"/a/50%.txt"});
    EXPECT_EQ(found("a_"), Strings{"/a/a_b.txt"});
    EXPECT_EQ(found("c\\"), Strings{"/a/c\\d.txt"});
    EXPECT_EQ(found("path:a_b"), Strings{"/a/a_b.txt"});
    EXPECT_EQ(found("ext:t_t"), Strings{});
}

TEST_F(FileIndexSearch, WordsOfTheNameTablesLanguageMeanThemselves)
{
    add({"/a/this AND that", "/a/this", "/a/NEAR(x)", "/a/name:x", "/a/star*", "/a/^begin", "/a/this + that"});
    EXPECT_EQ(found("\"this AND that\""), Strings{"/a/this AND that"});
    EXPECT_EQ(found("NEAR(x)"), Strings{"/a/NEAR(x)"});
    EXPECT_EQ(found("name:x"), Strings{"/a/name:x"});
    EXPECT_EQ(found("star*"), Strings{"/a/star*"});
    EXPECT_EQ(found("^begin"), Strings{"/a/^begin"});
    EXPECT_EQ(found("AND"), Strings{"/a/this AND that"});
    EXPECT_EQ(found("---"), Strings{});
}

TEST_F(FileIndexSearch, NamesThatAreNotUTF8AreFoundAndKeepTheirBytes)
{
    add({"/a/report-\xff\xfe.txt", "/a/\xe9t\xe9.txt"});
    EXPECT_EQ(found("report"), Strings{"/a/report-\xff\xfe.txt"});
    EXPECT_EQ(found("txt report"), Strings{"/a/report-\xff\xfe.txt"});
    EXPECT_THAT(found(".tx"), UnorderedElementsAre("/a/report-\xff\xfe.txt", "/a/\xe9t\xe9.txt"));
    EXPECT_EQ(namesOutcome(), "done");
}

TEST_F(FileIndexSearch, ADirectoryScopeIsTheFolderAndEverythingBelowAndNoSibling)
{
    add({"/srv/a_b", "/srv/a_b/note", "/srv/a_b/c/note", "/srv/axb/note", "/srv/a_b2/note", "/srv/a_b note", "/srv/A_B/note"});
    EXPECT_EQ(found("path:/srv/a_b/"), (Strings{"/srv/a_b", "/srv/a_b/note", "/srv/a_b/c/note"}));
    EXPECT_EQ(found("note /srv/./x/../a_b"), (Strings{"/srv/a_b/note", "/srv/a_b/c/note"}));
    EXPECT_THAT(found("note path:/"), SizeIs(6));
}

TEST_F(FileIndexSearch, AParentIsItsChildrenAtAnyDepthAndNoSiblingThatDiffersAtAnUnderscore)
{
    add({"/srv/a_b/note", "/srv/a_b/c/note", "/srv/axb/c/note", "/srv/a_b"});
    EXPECT_EQ(found("note", "/srv/a_b"), (Strings{"/srv/a_b/note", "/srv/a_b/c/note"}));
    EXPECT_EQ(found("kind:file", "/srv/a_b"), (Strings{"/srv/a_b/note", "/srv/a_b/c/note"})) << "not itself";
    add({"/home/ada/x/note"});
    EXPECT_EQ(found("note", "~/x"), Strings{"/home/ada/x/note"});
}

TEST_F(FileIndexSearch, KindsAndExtensionsAreOfFiles)
{
    await(repository.upsert(
        {folderAt("/a/old.pdf"), fileAt("/a/b.PDF"), fileAt("/a/c.png"), fileAt("/a/d.xyz"), fileAt("/a/pdf")}));
    EXPECT_EQ(found("ext:pdf"), Strings{"/a/b.PDF"});
    EXPECT_EQ(found("kind:document"), Strings{"/a/b.PDF"});
    EXPECT_EQ(found("kind:image"), Strings{"/a/c.png"});
    EXPECT_EQ(found("kind:other"), (Strings{"/a/pdf", "/a/d.xyz"}));
    EXPECT_EQ(found("kind:folder"), Strings{"/a/old.pdf"});
    EXPECT_EQ(found("kind:file ext:pdf,png"), (Strings{"/a/b.PDF", "/a/c.png"}));
}

TEST_F(FileIndexSearch, RelevanceIsExactThenBeginningThenUseThenPlaceThenLength)
{
    add({"/x/report", "/x/reporting", "/x/my report", "/x/node_modules/my report", "/home/ada/Documents/deep/deeper/my report",
        "/x/.hidden/my report", "/x/y/my report", "/x/z/often my report"});
    opened("/x/z/often my report", 3);
    EXPECT_EQ(found("report"),
        (Strings{"/x/report", "/x/reporting", "/x/z/often my report", "/home/ada/Documents/deep/deeper/my report", "/x/my report",
            "/x/y/my report", "/x/.hidden/my report", "/x/node_modules/my report"}));
    EXPECT_EQ(found("REPORT").front(), "/x/report") << "exact whatever the case";
}

TEST_F(FileIndexSearch, UseCountsUpToTwenty)
{
    add({"/x/long/report 1", "/x/report 2", "/x/report 3"});
    opened("/x/long/report 1", 20);
    opened("/x/report 2", 5000);
    opened("/x/report 3", 19);
    EXPECT_EQ(found("report"), (Strings{"/x/report 2", "/x/long/report 1", "/x/report 3"}));
}

TEST_F(FileIndexSearch, SortsHaveThePathAsTheirTieBreak)
{
    await(repository.upsert(
        {fileAt("/b/same", 5, 10), fileAt("/a/SAME", 5, 10), fileAt("/c/same2", 9, 1), fileAt("/d/Asame", 1, 99)}));
    EXPECT_EQ(found("same sort:size"), (Strings{"/c/same2", "/a/SAME", "/b/same", "/d/Asame"}));
    EXPECT_EQ(found("same sort:modified"), (Strings{"/d/Asame", "/a/SAME", "/b/same", "/c/same2"}));
    EXPECT_EQ(found("same sort:name"), (Strings{"/d/Asame", "/a/SAME", "/b/same", "/c/same2"}));
}

TEST_F(FileIndexSearch, ALimitIsKeptWithinOneAndAThousand)
{
    Strings many;
    for (int i = 0; i < 1003; ++i)
        many.push_back("/a/note" + std::to_string(i));
    add(many);
    EXPECT_THAT(found("note", {}, 0), SizeIs(1));
    EXPECT_THAT(found("note", {}, -7), SizeIs(1));
    EXPECT_THAT(found("note", {}, 2), SizeIs(2));
    EXPECT_THAT(found("note", {}, 5000), SizeIs(1000));
    EXPECT_THAT(found("note", {}, 999), SizeIs(999));
}

TEST_F(FileIndexSearch, WithoutTheNameTableLongTermsFindNamesAllTheSame)
{
    add({"/a/Yearly Report.txt", "/a/50% report", "/a/rep"});
    const auto before = found("report");
    EXPECT_EQ(found("\"0% rep\""), Strings{"/a/50% report"});
    removeNameTable();
    EXPECT_EQ(found("report"), before) << "the table is looked for at every search";
    EXPECT_EQ(found("\"0% rep\""), Strings{"/a/50% report"});
    EXPECT_FALSE(await(repository.hasNames()));
}

TEST_F(FileIndexSearch, ANameTableThatThisSQLiteCannotUseIsDoneWithout)
{
    add({"/a/report", "/a/rep"});
    removeNameTable();
    execute(database, "PRAGMA writable_schema=ON");
    execute(database,
        "INSERT INTO sqlite_master(type,name,tbl_name,rootpage,sql) VALUES('table','file_index_fts','file_index_fts',0,"
        "'CREATE VIRTUAL TABLE file_index_fts USING nobody_has_this(name)')");
    const FileIndexRepository fresh = reader();
    EXPECT_EQ(search(fresh, "report"), Strings{"/a/report"});
    EXPECT_FALSE(await(fresh.hasNames()));
    EXPECT_TRUE(await(FileIndexRepository(openPath(":memory:"), adasFolders, clock).hasNames()));
}

TEST_F(FileIndexSearch, SeesWhatWasCommittedLastAndNothingBefore)
{
    EXPECT_THAT(found("report"), IsEmpty());
    add({"/a/report"});
    EXPECT_EQ(found("report"), Strings{"/a/report"});
    await(repository.deleteTree("/a"));
    EXPECT_THAT(found("report"), IsEmpty());
}

TEST_F(FileIndexSearch, HasTwoSeconds)
{
    Strings many;
    for (int i = 0; i < 3000; ++i)
        many.push_back("/a/file" + std::to_string(i) + ".txt");
    add(many);
    const double begun = uptime;
    onLook = [&] { uptime = begun + (looks > 1 ? 1.99 : 0); };
    looks = 0;
    EXPECT_EQ(searchOutcome(reading, "ext:pdf"), "done");
    EXPECT_GT(looks, 2);
    uptime = begun;
    onLook = [&] { uptime = begun + (looks > 1 ? 2.0 : 0); };
    looks = 0;
    EXPECT_EQ(searchOutcome(reading, "ext:pdf"), tookTooLong);
    onLook = nullptr;
    EXPECT_THAT(found("ext:txt", {}, 3), SizeIs(3)) << "the next one has its own two seconds";
}

TEST_F(FileIndexSearch, ACancelledSearchIsNoFailure)
{
    auto running = begin(reading.search("report", {}, 10));
    running.cancel();
    EXPECT_EQ(outcomeOf([&] { running.result(); }), "cancelled");
}

TEST_F(FileIndexSearch, AStoreInMemoryIsSearchedOnItsOneConnection)
{
    const FileIndexRepository both(openPath(":memory:"), adasFolders, clock);
    await(both.upsert(filesAt({"/a/Report.txt", "/a/other"})));
    EXPECT_EQ(search(both, "report"), Strings{"/a/Report.txt"});
    EXPECT_EQ(search(both, "re tx"), Strings{"/a/Report.txt"}) << "names are folded there too";
}

// List

TEST_F(FileIndexList, SortsBySizeModifiedOrNameAndBySizeForAnythingElse)
{
    await(repository.upsert({fileAt("/a/b", 5, 30), fileAt("/a/C", 9, 10), fileAt("/a/a", 1, 20), fileAt("/a/x/deep", 99, 99),
        fileAt("/home/ada/mine")}));
    const auto listed = [&](const std::string &parent, const std::string &sort, long long limit = 10) {
        return pathsOf(await(repository.list(parent, sort, limit)));
    };
    EXPECT_EQ(listed("/a", "size"), (Strings{"/a/C", "/a/b", "/a/a"}));
    EXPECT_EQ(listed("/a", "modified"), (Strings{"/a/b", "/a/a", "/a/C"}));
    EXPECT_EQ(listed("/a", "name"), (Strings{"/a/a", "/a/b", "/a/C"}));
    EXPECT_EQ(listed("/a", "colour"), (Strings{"/a/C", "/a/b", "/a/a"}));
    EXPECT_EQ(listed("~", "name"), Strings{"/home/ada/mine"});
    EXPECT_EQ(listed("/a", "size", 2), (Strings{"/a/C", "/a/b"}));
    EXPECT_THAT(listed("/a", "size", 0), IsEmpty()) << "the limit is taken as it is";
    EXPECT_THAT(listed("/a", "size", -1), SizeIs(3)) << "to SQLite that is no limit";
}

// Upsert, stage

TEST_F(FileIndexWrites, UpsertAddsAndRenewsInTheGivenOrder)
{
    await(repository.upsert({fileAt("/b/x", 1), fileAt("/a/x", 2), fileAt("/b/x", 3), folderAt("/b")}));
    EXPECT_EQ(allRows(), (Strings{"/a/x|x|/a|0|2|1000.0|0", "/b|b|/|1|0|1000.0|0", "/b/x|x|/b|0|3|1000.0|0"}));
    await(repository.upsert({folderAt("/a/x", 5)}));
    EXPECT_EQ(allRows().front(), "/a/x|x|/a|1|0|5.0|0");
    EXPECT_EQ(namesOutcome(), "done");
}

TEST_F(FileIndexWrites, NothingToWriteWritesNothing)
{
    await(database->close());
    EXPECT_EQ(outcomeOf([&] {
        await(repository.upsert({}));
        await(repository.stage({}));
        await(repository.deleteWithSubtrees({}, {}));
        EXPECT_THAT(await(repository.directories({})), IsEmpty());
    }),
        "done");
    EXPECT_EQ(outcomeOf([&] { add({"/a"}); }), databaseClosed);
}

TEST_F(FileIndexWrites, AFailedUpsertLeavesNoneOfItsRows)
{
    execute(database, "CREATE TRIGGER refuse BEFORE INSERT ON file_index WHEN new.name='x3' BEGIN SELECT RAISE(ABORT,'no'); END");
    EXPECT_EQ(outcomeOf([&] { add({"/a/x1", "/a/x2", "/a/x3", "/a/x4"}); }), couldNotSave);
    EXPECT_THAT(paths(), IsEmpty());
}

TEST_F(FileIndexWrites, StagedRowsAreSeenByNobodyAndOneOfEachPathIsKept)
{
    await(repository.stage({fileAt("/a/report", 1), fileAt("/a/report", 2)}));
    await(repository.stage({fileAt("/a/report", 3)}));
    EXPECT_EQ(staged(), Strings{"/a/report"});
    EXPECT_EQ(value(database, "SELECT size AS value FROM file_index_staging"), "3");
    EXPECT_THAT(search(repository, "report"), IsEmpty());
    EXPECT_EQ(await(repository.count()), 0);
}

TEST_F(FileIndexWrites, ClearStagingEmptiesItAndNothingElse)
{
    add({"/a/kept"});
    stage({"/a/1", "/a/2", "/b/3"});
    await(repository.clearStaging());
    EXPECT_THAT(staged(), IsEmpty());
    EXPECT_EQ(paths(), Strings{"/a/kept"});
    await(repository.clearStaging());
}

// Deleting

TEST_F(FileIndexWrites, DeletingAFolderTakesWhatIsBelowAndAFileOnlyItself)
{
    add({"/a/d", "/a/d/1", "/a/d/e/2", "/a/d2", "/a/f", "/a/f/odd", "/a/g"});
    await(repository.deleteWithSubtrees({"/a/f", "/a/d", "/a/nothing"}, {"/a/d", "/a/elsewhere"}));
    EXPECT_EQ(paths(), (Strings{"/a/d2", "/a/f/odd", "/a/g"}));
    EXPECT_EQ(namesOutcome(), "done");
}

TEST_F(FileIndexWrites, AFailedDeleteLeavesAll)
{
    add({"/a/1", "/a/2", "/a/3"});
    execute(database, "CREATE TRIGGER refuse BEFORE DELETE ON file_index WHEN old.name='3' BEGIN SELECT RAISE(ABORT,'no'); END");
    EXPECT_EQ(outcomeOf([&] { await(repository.deleteWithSubtrees({"/a/1", "/a/2", "/a/3"}, {"/a/2"})); }), couldNotSave);
    EXPECT_EQ(paths(), (Strings{"/a/1", "/a/2", "/a/3"}));
}

TEST_F(FileIndexWrites, DeletingATreeTellsCaseApartAndTakesWildcardsAsTheyAre)
{
    add({"/x/Docs/a", "/x/docs/a", "/x/a_b/1", "/x/axb/1", "/x/50%/1", "/x/50x/1", "/home/ada/t/1", "/x/c\\d/1"});
    await(repository.deleteTree("/x/Docs"));
    await(repository.deleteTree("/x/a_b"));
    await(repository.deleteTree("/x/50%"));
    await(repository.deleteTree("/x/c\\d"));
    await(repository.deleteTree("~/t"));
    EXPECT_EQ(paths(), (Strings{"/x/50x/1", "/x/axb/1", "/x/docs/a"}));
    await(repository.deleteWithSubtrees({"/x/DOCS"}, {"/x/DOCS"}));
    EXPECT_EQ(paths(), (Strings{"/x/50x/1", "/x/axb/1", "/x/docs/a"}));
}

TEST_F(FileIndexWrites, DeletingATreeUsesTheKeyOfPaths)
{
    const auto plan = rows(database, "EXPLAIN QUERY PLAN DELETE FROM file_index WHERE path=? OR path LIKE ? ESCAPE '\\'",
        {std::string("/a"), std::string("/a/%")});
    for (const auto &step : plan)
        EXPECT_FALSE(step.at("detail").starts_with("SCAN")) << step.at("detail");
}

// Which are folders

TEST_F(FileIndexWrites, DirectoriesAreThoseThatTheIndexKnowsAsSuch)
{
    std::vector<IndexedFile> files;
    Strings asked;
    for (int i = 0; i < 1201; ++i) {
        const std::string path = "/d/" + std::to_string(i);
        asked.push_back(path);
        if (i % 2)
            files.push_back(i % 4 == 1 ? folderAt(path) : fileAt(path));
    }
    await(repository.upsert(files));
    for (const std::size_t count : {0, 1, 2, 399, 400, 401, 800, 801, 1201}) {
        std::set<std::string> expected;
        for (std::size_t i = 1; i < count; i += 4)
            expected.insert(asked[i]);
        EXPECT_EQ(await(repository.directories(Strings(asked.begin(), asked.begin() + std::ptrdiff_t(count)))), expected)
            << count;
    }
}

// Roots

TEST_F(FileIndexRoots, AreKeptByPathWithAnIdentifierAndWithoutATilde)
{
    await(repository.addRoot("/srv"));
    await(repository.addRoot("~"));
    const auto roots = await(repository.roots());
    ASSERT_THAT(roots, SizeIs(2));
    EXPECT_EQ(roots[0].path, "/home/ada");
    EXPECT_EQ(roots[1].path, "/srv");
    for (const auto &root : roots)
        EXPECT_THAT(root.id, testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}"));
    EXPECT_EQ(value(database, "SELECT added_at AS value FROM index_roots WHERE path='/srv'"), "1700000000.0");
}

TEST_F(FileIndexRoots, ARootIsAddedOnceByItsExactPath)
{
    await(repository.addRoot("/srv"));
    const auto before = await(repository.roots());
    await(repository.addRoot("/srv"));
    EXPECT_EQ(await(repository.roots()), before);
    await(repository.addRoot("/srv/"));
    await(repository.addRoot("/SRV"));
    EXPECT_THAT(await(repository.roots()), SizeIs(3));
}

TEST_F(FileIndexRoots, RemovingARootLeavesItsRows)
{
    await(repository.addRoot("/srv"));
    add({"/srv/a"});
    await(repository.removeRoot(await(repository.roots()).front().id));
    EXPECT_THAT(await(repository.roots()), IsEmpty());
    EXPECT_EQ(paths(), Strings{"/srv/a"});
    await(repository.removeRoot("no such root"));
}

TEST_F(FileIndexRoots, ARootWithoutAnIdentifierIsDropped)
{
    execute(database, "INSERT INTO index_roots(id,path,added_at) VALUES(NULL,'/a',0),('X','/b',0)");
    EXPECT_EQ(await(repository.roots()), (std::vector<IndexRoot>{{"X", "/b"}}));
}

// Small facts

TEST_F(FileIndexFacts, CountsItsRows)
{
    EXPECT_EQ(await(repository.count()), 0);
    add({"/a", "/b", "/c"});
    EXPECT_EQ(await(repository.count()), 3);
}

TEST_F(FileIndexFacts, TheEventIdentifierIsAllOfSixtyFourBits)
{
    EXPECT_EQ(await(repository.loadEventID()), 0u);
    for (const std::uint64_t id : {std::uint64_t(1), std::uint64_t(9007199254740993), ~std::uint64_t(0), std::uint64_t(0)}) {
        await(repository.saveEventID(id));
        EXPECT_EQ(await(repository.loadEventID()), id);
    }
    EXPECT_EQ(value(database, "SELECT count(*) AS value FROM settings WHERE key='fileIndex.lastEventID'"), "1");
}

TEST_F(FileIndexFacts, AnEventIdentifierThatIsNoneIsZero)
{
    for (const char *text : {"", "x", "12x", "-1", "+1", " 1", "1.0", "18446744073709551616"}) {
        execute(database, "INSERT OR REPLACE INTO settings(key,value) VALUES('fileIndex.lastEventID',?)", {std::string(text)});
        EXPECT_EQ(await(repository.loadEventID()), 0u) << text;
    }
}

TEST_F(FileIndexFacts, TheBackfillIsDoneOnlyWithExactlyOne)
{
    EXPECT_FALSE(await(repository.ftsBackfillDone()));
    for (const char *text : {"", "0", "true", "1 ", "01"}) {
        execute(database, "INSERT OR REPLACE INTO settings(key,value) VALUES('fileIndex.ftsBackfilled',?)", {std::string(text)});
        EXPECT_FALSE(await(repository.ftsBackfillDone())) << text;
    }
    await(repository.markFTSBackfillDone());
    EXPECT_TRUE(await(repository.ftsBackfillDone()));
}

TEST_F(FileIndexFacts, RebuildingFillsTheNamesOfRowsThatCameBeforeTheTriggers)
{
    execute(database, "DROP TRIGGER file_index_ai");
    add({"/a/report"});
    EXPECT_THAT(search(repository, "report"), IsEmpty());
    EXPECT_TRUE(await(repository.hasNames()));
    await(repository.rebuildFTS());
    EXPECT_EQ(search(repository, "report"), Strings{"/a/report"});
    EXPECT_EQ(namesOutcome(), "done");
}

TEST_F(FileIndexFacts, RebuildingWithoutTheTableIsQuiet)
{
    removeNameTable();
    EXPECT_EQ(outcomeOf([&] { await(repository.rebuildFTS()); }), "done");
}

TEST_F(FileIndexFacts, SettlingEmptiesTheLog)
{
    Strings many;
    for (int i = 0; i < 300; ++i)
        many.push_back("/a/" + std::to_string(i));
    add(many);
    EXPECT_GT(std::filesystem::file_size(file + "-wal"), 0u);
    await(repository.settle());
    EXPECT_EQ(std::filesystem::file_size(file + "-wal"), 0u);
    EXPECT_EQ(await(repository.count()), 300);
    add({"/b"});
    EXPECT_EQ(await(repository.count()), 301);
}

TEST_F(FileIndexFacts, SettlingIsNeverAFailure)
{
    const FileIndexRepository reading = reader();
    const FileIndexRepository inMemory(openPath(":memory:"), adasFolders, clock);
    add({"/a"});
    EXPECT_EQ(outcomeOf([&] {
        await(reading.settle());
        await(inMemory.settle());
    }),
        "done");
    {
        OtherProgram other(file);
        other.run("BEGIN IMMEDIATE");
        EXPECT_EQ(outcomeOf([&] { await(repository.settle()); }), "done") << "beside a writer";
        other.run("ROLLBACK; BEGIN");
        other.line("SELECT count(*) FROM file_index");
        EXPECT_EQ(outcomeOf([&] { await(repository.settle()); }), "done") << "beside a reader";
        other.run("COMMIT");
    }
    await(database->close());
    EXPECT_EQ(outcomeOf([&] { await(repository.settle()); }), "done");
    EXPECT_EQ(await(reading.count()), 1);
}

TEST_F(FileIndexFacts, TheLogIsCutToSixtyFourMegabytes)
{
    EXPECT_EQ(value(database, "SELECT journal_size_limit AS value FROM pragma_journal_size_limit"), "67108864");
}
