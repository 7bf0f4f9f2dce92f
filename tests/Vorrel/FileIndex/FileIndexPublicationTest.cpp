#include "IndexStore.h"

#include <filesystem>
#include <random>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

/// Steps so small that a handful of rows takes many.
constexpr IndexSteps smallSteps{.comparedRows = 3, .removedRows = 2, .mostDifferences = 1000};

struct FileIndexPublication : testing::Test, IndexStore {
    FileIndexPublication() : IndexStore(smallSteps) { }

    /// "/r/0" to "/r/(count-1)".
    static Strings numbered(int count, const std::string &root = "/r")
    {
        Strings paths;
        for (int i = 0; i < count; ++i)
            paths.push_back(root + "/" + std::to_string(i));
        return paths;
    }
    long long changes() { return std::stoll(value(database, "SELECT total_changes() AS value")); }
    /// Rows of the table of names that were written or removed, whichever way.
    std::string nameWrites() { return value(database, "SELECT count(*) AS value FROM log"); }
    std::string pagesBetweenCheckpoints() { return rows(database, "PRAGMA wal_autocheckpoint").at(0).begin()->second; }
    void logNameWrites()
    {
        execute(database, "CREATE TABLE log(what)");
        execute(database, "CREATE TRIGGER log_i AFTER INSERT ON file_index BEGIN INSERT INTO log VALUES('+'); END");
        execute(database, "CREATE TRIGGER log_d AFTER DELETE ON file_index BEGIN INSERT INTO log VALUES('-'); END");
        execute(database, "CREATE TRIGGER log_u AFTER UPDATE OF name ON file_index BEGIN INSERT INTO log VALUES('*'); END");
    }
};

struct FileIndexPublicationFaults : FileIndexPublication {
    FileIndexPublicationFaults()
    {
        add({"/r/old", "/r/same"});
        stage({"/r/same", "/r/new"});
        doNotWaitForLocks();
    }
    void expectNothingHappened()
    {
        EXPECT_EQ(paths(), (Strings{"/r/old", "/r/same"}));
        EXPECT_EQ(staged(), (Strings{"/r/new", "/r/same"}));
        EXPECT_EQ(namesOutcome(), "done");
    }
};

} // namespace

TEST_F(FileIndexPublication, AFirstOneMakesTheStagedRowsTheRootsRowsAndEmptiesItsStaging)
{
    await(repository.stage({fileAt("/r/a", 3, 4.5), folderAt("/r"), fileAt("/s/b")}));
    commit("/r");
    EXPECT_EQ(allRows(), (Strings{"/r|r|/|1|0|1000.0|0", "/r/a|a|/r|0|3|4.5|0"}));
    EXPECT_EQ(staged(), Strings{"/s/b"}) << "another root's rows wait for its own publication";
    EXPECT_EQ(namesOutcome(), "done");
}

TEST_F(FileIndexPublication, ARepeatedOneRemovesAddsAndRenewsWhatDiffersAndNothingElse)
{
    await(repository.upsert(
        {fileAt("/r/gone"), fileAt("/r/same"), fileAt("/r/grown", 1), fileAt("/r/touched", 1, 1), fileAt("/r/turned")}));
    logNameWrites();
    await(repository.stage(
        {fileAt("/r/same"), fileAt("/r/grown", 2), fileAt("/r/touched", 1, 2), folderAt("/r/turned"), fileAt("/r/new")}));
    commit("/r");
    EXPECT_EQ(allRows(),
        (Strings{"/r/grown|grown|/r|0|2|1000.0|0", "/r/new|new|/r|0|1|1000.0|0", "/r/same|same|/r|0|1|1000.0|0",
            "/r/touched|touched|/r|0|1|2.0|0", "/r/turned|turned|/r|1|0|1000.0|0"}));
    EXPECT_EQ(nameWrites(), "2") << "one name came and one went";
    EXPECT_EQ(namesOutcome(), "done");
    EXPECT_THAT(staged(), IsEmpty());
}

TEST_F(FileIndexPublication, WithoutADifferenceTheIndexIsNotWritten)
{
    add(numbered(40));
    stage(numbered(40));
    doNotWaitForLocks();
    const auto before = value(database, "SELECT max(rowid) AS value FROM file_index");
    logNameWrites();
    commit("/r");
    EXPECT_EQ(nameWrites(), "0");
    EXPECT_EQ(value(database, "SELECT max(rowid) AS value FROM file_index"), before);
}

TEST_F(FileIndexPublication, ARowWithAnotherNameOrParentIsReplacedWithItsName)
{
    execute(database,
        "INSERT INTO file_index(path,name,parent,batch_id) "
        "VALUES('/r/a','odd','/r',0),('/r/b','b','/elsewhere',0),('/r/c','c','/r',7)");
    await(repository.stage({fileAt("/r/a"), fileAt("/r/b"), fileAt("/r/c")}));
    commit("/r");
    EXPECT_EQ(allRows(), (Strings{"/r/a|a|/r|0|1|1000.0|0", "/r/b|b|/r|0|1|1000.0|0", "/r/c|c|/r|0|1|1000.0|0"}));
    EXPECT_EQ(namesOutcome(), "done");
}

TEST_F(FileIndexPublication, ARootThatIsEmptyNowLosesItsRows)
{
    add({"/r/a", "/r/b/c", "/s/d"});
    commit("/r");
    EXPECT_EQ(paths(), Strings{"/s/d"});
}

TEST_F(FileIndexPublication, ANestedRootKeepsItsRowsAndASiblingWithTheSameBeginningIsNoChild)
{
    for (const char *root : {"/r", "/r/n", "/r/n/m", "/r2", "/r n"})
        await(repository.addRoot(root));
    for (const bool first : {false, true}) {
        SCOPED_TRACE(first);
        await(repository.deleteTree("/r"));
        add({"/r/n", "/r/n/kept", "/r/n/m/kept", "/r2/kept", "/r n/kept", "/r-/kept", "/R/kept"});
        if (!first)
            add({"/r", "/r/old", "/r/n2/old"});
        stage({"/r", "/r/new", "/r/n2/new", "/r/n/foreign", "/r2/foreign"});
        commit("/r");
        EXPECT_EQ(paths(),
            (Strings{"/R/kept", "/r", "/r n/kept", "/r-/kept", "/r/n", "/r/n/kept", "/r/n/m/kept", "/r/n2/new", "/r/new",
                "/r2/kept"}));
        EXPECT_EQ(staged(), (Strings{"/r/n/foreign", "/r2/foreign"}));
        await(repository.clearStaging());
    }
    stage({"/r/n/new", "/r/n/m/foreign"});
    commit("/r/n");
    EXPECT_THAT(paths(), testing::IsSupersetOf({"/r/n/m/kept", "/r/n/new", "/r/new"}));
    EXPECT_THAT(paths(), testing::Not(testing::Contains("/r/n/kept")));
}

TEST_F(FileIndexPublication, WildcardsInARootMeanThemselves)
{
    for (const bool first : {true, false}) {
        add({"/axb/kept", "/a_b2/kept"});
        if (!first)
            add({"/a_b/old"});
        stage({"/a_b/new", "/axb/foreign"});
        commit("/a_b");
        EXPECT_EQ(paths(), (Strings{"/a_b/new", "/a_b2/kept", "/axb/kept"}));
        EXPECT_EQ(staged(), Strings{"/axb/foreign"});
        await(repository.deleteTree("/a_b"));
        await(repository.clearStaging());
    }
}

TEST_F(FileIndexPublication, ATildeIsExpanded)
{
    stage({"/home/ada/x"});
    commit("~");
    EXPECT_EQ(paths(), Strings{"/home/ada/x"});
}

TEST_F(FileIndexPublication, PathsThatAreNotUTF8ArePublishedByteForByte)
{
    add({"/r/\xff/old", "/r/\xfe", "/r/\xc3(/x"});
    stage({"/r/\xff/new", "/r/\xfe", "/r/\xc3(/y", "/r/\xf0\x9f\x98\x80"});
    commit("/r");
    EXPECT_EQ(paths(), (Strings{"/r/\xc3(/y", "/r/\xf0\x9f\x98\x80", "/r/\xfe", "/r/\xff/new"}));
    EXPECT_EQ(namesOutcome(), "done");
}

TEST_F(FileIndexPublication, ManyStepsGiveTheSameAsOne)
{
    for (const int count : {2, 3, 4, 5, 6, 7, 29, 30, 31}) {
        SCOPED_TRACE(count);
        auto now = numbered(count);
        now.erase(now.begin());
        now.push_back("/r/extra");
        await(repository.deleteTree("/r"));
        add(numbered(count));
        stage(now);
        commit("/r");
        std::sort(now.begin(), now.end());
        EXPECT_EQ(paths(), now);
        EXPECT_THAT(staged(), IsEmpty());
    }
}

TEST_F(FileIndexPublication, ADifferenceBeyondItsBoundIsReplacedWhole)
{
    const FileIndexRepository bounded(database, adasFolders, clock, {.comparedRows = 3, .removedRows = 3, .mostDifferences = 6});
    for (const int changed : {6, 7}) {
        await(repository.deleteTree("/r"));
        add(numbered(20));
        execute(database, "DROP TABLE IF EXISTS log");
        execute(database, "DROP TRIGGER IF EXISTS log_i");
        execute(database, "DROP TRIGGER IF EXISTS log_d");
        execute(database, "DROP TRIGGER IF EXISTS log_u");
        logNameWrites();
        std::vector<IndexedFile> files;
        for (int i = 0; i < 20; ++i)
            files.push_back(fileAt("/r/" + std::to_string(i), i < changed ? 99 : 1));
        await(bounded.stage(files));
        await(bounded.commitStagedRoot("/r"));
        EXPECT_EQ(nameWrites(), changed == 6 ? "0" : "40");
        EXPECT_EQ(value(database, "SELECT count(*) AS value FROM file_index WHERE size=99"), std::to_string(changed));
    }
    EXPECT_EQ(namesOutcome(), "done");
}

// Wanted

TEST_F(FileIndexPublication, WhatIsNoLongerWantedIsCancelledAndChangesNothing)
{
    for (const bool first : {true, false}) {
        SCOPED_TRACE(first);
        if (!first)
            add({"/r/old"});
        await(repository.clearStaging());
        stage({"/r/new"});
        const auto before = allRows();
        int asked = 0;
        EXPECT_EQ(outcomeOf([&] {
            await(repository.commitStagedRoot("/r", [&] {
                ++asked;
                return false;
            }));
        }),
            "cancelled");
        EXPECT_EQ(asked, 1);
        EXPECT_EQ(allRows(), before);
        EXPECT_EQ(staged(), Strings{"/r/new"});
    }
    stage({"/r/newer"});
    EXPECT_EQ(staged(), (Strings{"/r/new", "/r/newer"})) << "the staging table is free again";
}

TEST_F(FileIndexPublication, WantedIsAskedOnceAfterTheReadingAndNothingGetsBetweenItAndTheTransaction)
{
    add(numbered(30));
    stage({"/r/new"});
    int asked = 0;
    std::optional<Begun<void>> late;
    await(repository.commitStagedRoot("/r", [&] {
        ++asked;
        late.emplace(loop, repository.upsert(filesAt({"/r/late"})));
        return true;
    }));
    late->result();
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(paths(), (Strings{"/r/late", "/r/new"})) << "what is handed over later comes later";
}

// Others meanwhile

TEST_F(FileIndexPublication, SmallWritesGetInBetweenItsSteps)
{
    Strings all = numbered(300);
    add(all);
    all.back() = "/r/new";
    stage(all);
    int before = 0;
    bool over = false;
    const auto writeOn = [](IndexStore &store, int &count, const bool &over) -> Task<void> {
        while (!over) {
            co_await store.database->execute(
                "INSERT INTO settings(key,value) VALUES('n','1') ON CONFLICT(key) DO UPDATE SET value=value+1");
            ++count;
        }
    };
    auto writer = begin(writeOn(*this, before, over));
    await(repository.commitStagedRoot("/r", [&] {
        EXPECT_GE(before, 300) << "one between any two of four questions a step of three rows";
        before = 0;
        return true;
    }));
    EXPECT_GE(before, 150) << "and between the steps that empty the staging table, two rows each";
    over = true;
    writer.result();
    std::sort(all.begin(), all.end());
    EXPECT_EQ(paths(), all);
}

TEST_F(FileIndexPublication, SmallWritesGetInBetweenTheStepsThatClearStaging)
{
    stage(numbered(100));
    int writes = 0;
    auto clearing = begin(repository.clearStaging());
    while (!clearing.done()) {
        add({"/x/" + std::to_string(writes)});
        ++writes;
    }
    clearing.result();
    EXPECT_GE(writes, 50);
    EXPECT_THAT(staged(), IsEmpty());
}

TEST_F(FileIndexPublication, WhatIsWrittenMeanwhileNeverMakesTheRootAnythingButWhatWasStaged)
{
    const auto present = [] {
        std::vector<IndexedFile> files = filesAt(numbered(30));
        files.push_back(folderAt("/r/d"));
        for (const auto &path : numbered(10, "/r/d"))
            files.push_back(fileAt(path));
        return files;
    }();
    std::vector<IndexedFile> scanned = present;
    scanned.erase(scanned.begin() + 4);
    scanned[7].size = 77;
    scanned.push_back(fileAt("/r/z new"));
    const std::function<Task<void>()> writes[] = {
        [this] {
            return repository.upsert({fileAt("/r/0", 5), fileAt("/r/unseen"), fileAt("/r/z new", 9), fileAt("/r/4", 9)});
        },
        [this] { return repository.deleteTree("/r/d"); },
        [this] { return repository.deleteTree("/r"); },
        [this] {
            return repository.deleteWithSubtrees({"/r/d", "/r/1", "/r/29"}, {"/r/d"});
        },
        [this] { return repository.addRoot("/elsewhere"); },
    };
    for (std::size_t kind = 0; kind < std::size(writes); ++kind)
        for (int wait = 0; wait < 90; wait += kind == 0 ? 4 : 12) {
            SCOPED_TRACE("write " + std::to_string(kind) + " after " + std::to_string(wait));
            await(repository.deleteTree("/r"));
            await(repository.upsert(present));
            await(repository.stage(scanned));
            bool wroteFirst = false;
            auto publishing = begin(repository.commitStagedRoot("/r", [&] { return wroteFirst = true; }));
            for (int i = 0; i < wait && !wroteFirst; ++i)
                loop.runOne();
            const bool meanwhile = !wroteFirst;
            auto write = begin(writes[kind]());
            loop.runOne();
            publishing.result();
            write.result();
            if (!meanwhile)
                break;
            ASSERT_EQ(value(database, "SELECT count(*) AS value FROM file_index WHERE size=77"), "1");
            Strings expected = korvane::test::pathsOf(scanned);
            std::sort(expected.begin(), expected.end());
            ASSERT_EQ(paths(), expected);
            ASSERT_EQ(namesOutcome(), "done");
        }
}

TEST_F(FileIndexPublication, ARootThatBecomesNestedMeanwhileKeepsItsRows)
{
    for (int wait = 1; wait < 60; wait += 4) {
        SCOPED_TRACE(wait);
        for (const auto &root : await(repository.roots()))
            await(repository.removeRoot(root.id));
        await(repository.deleteTree("/r"));
        add(numbered(20));
        add({"/r/n/kept"});
        stage(numbered(20));
        bool decided = false;
        auto publishing = begin(repository.commitStagedRoot("/r", [&] { return decided = true; }));
        for (int i = 0; i < wait; ++i)
            loop.runOne();
        auto adding = begin(repository.addRoot("/r/n"));
        while (!adding.done())
            loop.runOne();
        const bool inTime = !decided;
        publishing.result();
        if (!inTime)
            break;
        ASSERT_EQ(paths().back(), "/r/n/kept");
        ASSERT_THAT(paths(), SizeIs(21));
    }
}

TEST_F(FileIndexPublication, ARootThatNeverStandsStillIsReplacedWhole)
{
    add(numbered(30));
    stage(numbered(29));
    bool over = false;
    int rounds = 0;
    const auto keepChanging = [](IndexStore &store, const bool &over, int &rounds) -> Task<void> {
        while (!over) {
            co_await store.repository.removeRoot("none");
            ++rounds;
        }
    };
    auto changing = begin(keepChanging(*this, over, rounds));
    commit("/r");
    over = true;
    changing.result();
    EXPECT_GT(rounds, 3);
    EXPECT_THAT(paths(), SizeIs(29));
}

TEST_F(FileIndexPublication, ThousandsOfChangesMeanwhileAreLookedAtAgain)
{
    add(numbered(30));
    stage(numbered(29));
    Strings many;
    for (std::size_t i = 0; i <= IndexChanges::mostPaths; ++i)
        many.push_back("/r/many/" + std::to_string(i));
    auto publishing = begin(repository.commitStagedRoot("/r"));
    for (int i = 0; i < 12; ++i)
        loop.runOne();
    auto adding = begin(repository.upsert(filesAt(many)));
    publishing.result();
    adding.result();
    EXPECT_THAT(paths(), SizeIs(29));
}

TEST_F(FileIndexPublication, WhatIsStagedAfterwardsWaitsForItsEnd)
{
    add(numbered(20));
    stage(numbered(20));
    auto publishing = begin(repository.commitStagedRoot("/r"));
    auto staging = begin(repository.stage(filesAt({"/r/next", "/s/next"})));
    auto clearing = begin(repository.clearStaging());
    auto last = begin(repository.stage(filesAt({"/r/last"})));
    last.result();
    EXPECT_TRUE(publishing.done());
    EXPECT_TRUE(clearing.done());
    EXPECT_EQ(staged(), Strings{"/r/last"});
    EXPECT_THAT(paths(), SizeIs(20)) << "what was staged later is no part of it";
}

TEST_F(FileIndexPublication, OneThatIsCancelledWhileItWaitsHoldsUpNobody)
{
    stage(numbered(20));
    auto clearing = begin(repository.clearStaging());
    auto waiting = begin(repository.commitStagedRoot("/r"));
    auto next = begin(repository.stage(filesAt({"/r/next"})));
    loop.runOne();
    loop.runOne();
    loop.runOne();
    waiting.cancel();
    EXPECT_EQ(outcomeOf([&] { waiting.result(); }), "cancelled");
    next.result();
    EXPECT_TRUE(clearing.done());
    EXPECT_EQ(staged(), Strings{"/r/next"});
}

// Faults

TEST_F(FileIndexPublicationFaults, AHeldLockLeavesTheOldRowsAndTheStagedOnes)
{
    OtherProgram other(file);
    other.run("BEGIN IMMEDIATE");
    EXPECT_EQ(commitOutcome("/r"), couldNotSave);
    other.run("COMMIT");
    expectNothingHappened();
    EXPECT_EQ(commitOutcome("/r"), "done");
    EXPECT_EQ(paths(), (Strings{"/r/new", "/r/same"}));
}

TEST_F(FileIndexPublicationFaults, AHeldLockLeavesTheStagedRowsOfAFirstPublicationToo)
{
    await(repository.deleteTree("/r"));
    OtherProgram other(file);
    other.run("BEGIN IMMEDIATE");
    EXPECT_EQ(commitOutcome("/r"), couldNotSave);
    other.run("COMMIT");
    EXPECT_THAT(paths(), IsEmpty());
    EXPECT_EQ(staged(), (Strings{"/r/new", "/r/same"}));
}

TEST_F(FileIndexPublicationFaults, AFailureInTheMiddleUndoesAll)
{
    execute(
        database, "CREATE TRIGGER refuse BEFORE INSERT ON file_index WHEN new.name='new' BEGIN SELECT RAISE(ABORT,'no'); END");
    EXPECT_EQ(commitOutcome("/r"), couldNotSave);
    expectNothingHappened();
    EXPECT_EQ(pagesBetweenCheckpoints(), "1000");
}

TEST_F(FileIndexPublicationFaults, AConnectionThatOnlyReadsChangesNothing)
{
    const FileIndexRepository reading = reader();
    EXPECT_EQ(outcomeOf([&] { await(reading.commitStagedRoot("/r")); }), couldNotSave);
    EXPECT_EQ(outcomeOf([&] { await(reading.upsert(filesAt({"/r/x"}))); }), couldNotSave);
    EXPECT_EQ(outcomeOf([&] { await(reading.stage(filesAt({"/r/x"}))); }), couldNotSave);
    expectNothingHappened();
}

TEST_F(FileIndexPublicationFaults, AFullDiskLeavesTheOldRowsAndTheStagedOnes)
{
    Strings many;
    for (int i = 0; i < 4000; ++i)
        many.push_back("/r/many/" + std::string(60, 'x') + std::to_string(i));
    const FileIndexRepository large(database, adasFolders, clock);
    await(large.stage(filesAt(many)));
    await(repository.settle());
    {
        const FullDisk full(200'000);
        EXPECT_EQ(outcomeOf([&] { await(large.commitStagedRoot("/r")); }), couldNotSave);
    }
    EXPECT_EQ(paths(), (Strings{"/r/old", "/r/same"}));
    EXPECT_THAT(staged(), SizeIs(4002));
    EXPECT_EQ(integrity(), "ok");
    EXPECT_EQ(outcomeOf([&] { await(large.commitStagedRoot("/r")); }), "done");
    EXPECT_THAT(paths(), SizeIs(4002));
    EXPECT_EQ(namesOutcome(), "done");
}

TEST_F(FileIndexPublicationFaults, StagedRowsThatCannotBeRemovedAreNoFailureOfThePublication)
{
    execute(database, "CREATE TRIGGER refuse BEFORE DELETE ON file_index_staging BEGIN SELECT RAISE(ABORT,'no'); END");
    EXPECT_EQ(commitOutcome("/r"), "done");
    EXPECT_EQ(paths(), (Strings{"/r/new", "/r/same"}));
    EXPECT_EQ(outcomeOf([&] { await(repository.clearStaging()); }), couldNotSave);
}

TEST_F(FileIndexPublicationFaults, AClosedStoreSaysSo)
{
    await(database->close());
    EXPECT_EQ(commitOutcome("/r"), databaseClosed);
    EXPECT_EQ(outcomeOf([&] { await(repository.clearStaging()); }), databaseClosed);
}

TEST_F(FileIndexPublication, AfterwardsTheTableOfNamesMergesAsBeforeAndSettlingLeavesItInOnePart)
{
    Strings paths;
    for (int i = 0; i < 400; ++i)
        paths.push_back("/r/report number " + std::to_string(i) + ".txt");
    stage(paths);
    commit("/r");
    for (int round = 0; round < 6; ++round) {
        paths.push_back("/r/another report " + std::to_string(round) + ".txt");
        stage(paths);
        commit("/r");
    }
    EXPECT_EQ(value(database, "SELECT v AS value FROM file_index_fts_config WHERE k='automerge'"), "4");
    const char parts[] = "SELECT count(DISTINCT segid) AS value FROM file_index_fts_idx";
    EXPECT_NE(value(database, parts), "1") << "there would be nothing to merge";
    await(repository.settle());
    EXPECT_EQ(value(database, parts), "1");
    EXPECT_EQ(namesOutcome(), "done");
    EXPECT_EQ(search(repository, "another").size(), 6u);
}

TEST_F(FileIndexPublication, SettlingWithoutATableOfNamesIsNoFailure)
{
    removeNameTable();
    add({"/r/a"});
    await(repository.settle());
    EXPECT_EQ(paths(), Strings{"/r/a"});
}

TEST_F(FileIndexPublication, AfterwardsTheConnectionIsAsItWas)
{
    stage(numbered(20));
    commit("/r");
    EXPECT_EQ(value(database, "SELECT cache_size AS value FROM pragma_cache_size"), "-2000");
    EXPECT_EQ(pagesBetweenCheckpoints(), "1000");
}

// The law

namespace {

const Strings lawRoots{"/r", "/r/n", "/r/n/m", "/r/N", "/R", "/r2", "/r-", "/r/a_b", "/r/a%"};

std::string randomPath(std::mt19937 &random)
{
    static const Strings folders{
        "", "/r", "/r", "/r/n", "/r/n/m", "/r/N", "/R", "/r2", "/r-", "/r/a_b", "/r/axb", "/r/a%", "/r/\xff"};
    static const Strings names{"a", "b", "B", "n", "m", "report", "Report", "a_b", "\xfe", "\xc3\xa9", "r2", "0", "-"};
    const auto pick = [&random](const Strings &from) { return from[random() % from.size()]; };
    const std::string folder = pick(folders);
    if (folder.empty())
        return pick(lawRoots);
    std::string path = folder + "/" + pick(names);
    while (random() % 4 == 0)
        path += "/" + pick(names);
    return path;
}

std::vector<IndexedFile> randomFiles(std::mt19937 &random, int count)
{
    std::vector<IndexedFile> files;
    for (int i = 0; i < count; ++i)
        files.push_back(
            {randomPath(random), "", random() % 3 == 0, static_cast<long long>(random() % 3), double(random() % 3) / 2});
    for (auto &file : files)
        file.name = lastPathComponent(file.path);
    return files;
}

/// What a publication means, told without regard to what it costs.
void replaceWhole(IndexStore &store, const std::string &root, const Strings &roots)
{
    std::string scope = "path=? OR path LIKE ? ESCAPE '\\'";
    Values values{root, escapedLike(root) + "/%"};
    for (const auto &other : roots)
        if (other.starts_with(root + "/")) {
            scope += " AND NOT (path=? OR path LIKE ? ESCAPE '\\')";
            values.emplace_back(other);
            values.emplace_back(escapedLike(other) + "/%");
        }
    const std::string columns = "path,name,parent,is_directory,size,modified";
    std::vector<std::pair<std::string, Values>> statements{{"DELETE FROM file_index WHERE " + scope, values},
        {"INSERT INTO file_index(" + columns + ",batch_id) SELECT " + columns + ",0 FROM file_index_staging WHERE " + scope,
            values},
        {"DELETE FROM file_index_staging WHERE " + scope, values}};
    store.await(store.database->executeTransaction(std::move(statements)));
}

/// Publishes random scans of random roots over random rows, by the repository in one store and whole in another.
void checkLaw(std::mt19937 &random, bool inMemory)
{
    const IndexSteps steps{.comparedRows = 1 + random() % 9, .removedRows = 1 + random() % 9};
    IndexStore store(steps, inMemory);
    IndexStore told({}, inMemory);
    Strings roots;
    for (const auto &root : lawRoots)
        if (random() % 2)
            roots.push_back(root);
    const auto old = randomFiles(random, int(random() % 60));
    for (auto *each : {&store, &told}) {
        for (const auto &root : roots)
            each->await(each->repository.addRoot(root));
        each->await(each->repository.upsert(old));
    }
    for (int round = 0; round < 3; ++round) {
        const auto scanned = randomFiles(random, int(random() % 80));
        for (auto *each : {&store, &told})
            each->await(each->repository.stage(scanned));
        const std::string root = lawRoots[random() % lawRoots.size()];
        store.commit(root);
        replaceWhole(told, root, roots);
        ASSERT_EQ(store.allRows(), told.allRows()) << root;
        ASSERT_EQ(store.staged(), told.staged()) << root;
        ASSERT_EQ(store.namesOutcome(), "done");
        for (const char *text : {"report", "Report kind:file", "path:r/n", "a_b"})
            ASSERT_EQ(store.search(store.repository, text), told.search(told.repository, text)) << text;
    }
    EXPECT_EQ(store.integrity(), "ok");
}

} // namespace

TEST(FileIndexPublicationLaw, ByDifferenceIsTheSameRowsAndNamesAsWhole)
{
    std::mt19937 random(20240229);
    for (int run = 0; run < 15 && !testing::Test::HasFatalFailure(); ++run) {
        SCOPED_TRACE(run);
        checkLaw(random, false);
    }
}

TEST(FileIndexPublicationLaw, ByDifferenceIsTheSameRowsAndNamesAsWholeInMemoryToo)
{
    std::mt19937 random(4);
    for (int run = 0; run < 15 && !testing::Test::HasFatalFailure(); ++run) {
        SCOPED_TRACE(run);
        checkLaw(random, true);
    }
}
