#include "TestStore.h"

#include "Vorrel/Store/Repositories.h"

#include <limits>

using namespace korvane;
using namespace korvane::test;

namespace korvane {

static void PrintTo(const Quicklink &link, std::ostream *out) { *out << link.id << " " << link.title << " " << link.url; }

static void PrintTo(const AppLaunchRecord &record, std::ostream *out)
{
    *out << record.appPath << " [" << record.arguments << "] " << record.count << " at " << record.lastUsed;
}

static void PrintTo(const CommandUsage &usage, std::ostream *out) { *out << usage.count << " at " << usage.lastUsed; }

} // namespace korvane

namespace {

/// Most tests need no file.
struct Repositories : testing::Test, TestStore {
    std::shared_ptr<Database> database = openPath(":memory:");
    double now() const { return clock.now(); }
};

struct SettingsRepositoryTest : Repositories {
    SettingsRepository settings{database};
};
struct CommandUsageStoreTest : Repositories {
    CommandUsageStore usage{database, clock};
};
struct QuicklinkRepositoryTest : Repositories {
    QuicklinkRepository quicklinks{database};
};
struct AppLaunchRepositoryTest : Repositories {
    AppLaunchRepository launches{database, clock};

    void record(const char *arguments, double time)
    {
        clock.setWall(time);
        await(launches.record("/apps/gimp.desktop", arguments));
    }
    Strings recents(int limit, std::string appPath = "/apps/gimp.desktop")
    {
        Strings lines;
        for (const auto &one : await(launches.recents(std::move(appPath), limit)))
            lines.push_back(one.arguments);
        return lines;
    }
};

struct Preferences {
    std::string language;
    bool operator==(const Preferences &) const = default;
};

Preferences decodePreferences(const JSONValue &value)
{
    const auto *language = value["language"].string();
    if (!language)
        throw AppError(AppError::Kind::configuration, "No language.");
    return Preferences{*language};
}

} // namespace

// Settings

TEST_F(SettingsRepositoryTest, GiveBackWhatWasSaved)
{
    const JSONValue value(JSONValue::Object{{"language", "en"}, {"limit", 100}, {"paths", JSONValue::Array{"/a", "/ü"}}});
    await(settings.save("preferences", value));
    EXPECT_EQ(await(settings.load("preferences")), value);
}

TEST_F(SettingsRepositoryTest, AnAbsentKeyIsNothing)
{
    EXPECT_EQ(await(settings.load("preferences")), std::nullopt);
    EXPECT_EQ(await(settings.load<Preferences>("preferences", decodePreferences)), std::nullopt);
}

TEST_F(SettingsRepositoryTest, ASecondSaveReplacesTheFirstAndNoOtherKey)
{
    await(settings.save("other", JSONValue("kept")));
    await(settings.save("preferences", JSONValue("old")));
    await(settings.save("preferences", JSONValue("new")));
    EXPECT_EQ(await(settings.load("preferences")), JSONValue("new"));
    EXPECT_EQ(await(settings.load("other")), JSONValue("kept"));
    EXPECT_EQ(value(database, "SELECT count(*) AS value FROM settings"), "2");
}

TEST_F(SettingsRepositoryTest, AreStoredAsCompactJSON)
{
    await(settings.save("preferences", JSONValue(JSONValue::Object{{"a", 1}})));
    EXPECT_EQ(value(database, "SELECT value FROM settings WHERE key=?", {std::string("preferences")}), R"({"a":1})");
}

TEST_F(SettingsRepositoryTest, AreDecodedIntoTheAskedType)
{
    execute(database, "INSERT INTO settings VALUES('preferences',?)", {std::string(R"({"language":"zh-Hans"})")});
    EXPECT_EQ(await(settings.load<Preferences>("preferences", decodePreferences)), Preferences{"zh-Hans"});
}

TEST_F(SettingsRepositoryTest, ARowWhoseJSONNoLongerFitsTheTypeThrows)
{
    execute(database, "INSERT INTO settings VALUES('preferences',?)", {std::string(R"({"language":7})")});
    EXPECT_THROW(await(settings.load<Preferences>("preferences", decodePreferences)), AppError);
    EXPECT_NE(await(settings.load("preferences")), std::nullopt) << "the document itself is still there";
}

TEST_F(SettingsRepositoryTest, ARowThatIsNoJSONThrows)
{
    for (const char *text : {"", "{", "not JSON", "{} trailing"}) {
        SCOPED_TRACE(text);
        execute(database, "INSERT OR REPLACE INTO settings VALUES('preferences',?)", {std::string(text)});
        EXPECT_THROW(await(settings.load("preferences")), JSONError);
    }
}

TEST_F(SettingsRepositoryTest, AValueThatJSONCannotExpressIsThrownAndNothingIsWritten)
{
    await(settings.save("preferences", JSONValue("kept")));
    EXPECT_THROW(await(settings.save("preferences", JSONValue(std::numeric_limits<double>::infinity()))), JSONError);
    EXPECT_EQ(await(settings.load("preferences")), JSONValue("kept"));
}

TEST_F(SettingsRepositoryTest, ANullIsAValueAndNotAnAbsentKey)
{
    await(settings.save("preferences", JSONValue()));
    EXPECT_EQ(await(settings.load("preferences")), std::optional(JSONValue()));
}

TEST_F(SettingsRepositoryTest, FailAsTheDatabaseDoes)
{
    await(database->close());
    EXPECT_EQ(outcomeOf([&] { await(settings.load("preferences")); }), databaseClosed);
    EXPECT_EQ(outcomeOf([&] { await(settings.save("preferences", JSONValue(1))); }), databaseClosed);
}

// Usage of commands

TEST_F(CommandUsageStoreTest, ANewIdentifierCountsOneAndASecondRecordTwoAndMovesTheTime)
{
    await(usage.record("app:org.gnome.Calculator"));
    EXPECT_EQ(await(usage.load()), (UsageByIdentifier{{"app:org.gnome.Calculator", {1, now()}}}));
    clock.setWall(1'700'000'123.5);
    await(usage.record("app:org.gnome.Calculator"));
    EXPECT_EQ(await(usage.load()), (UsageByIdentifier{{"app:org.gnome.Calculator", {2, 1'700'000'123.5}}}));
}

TEST_F(CommandUsageStoreTest, IdentifiersAreKeptApartByteForByte)
{
    using namespace std::string_literals;
    for (const auto &id : {"file:/a"s, "file:/A"s, "file:/a\xff"s, "file:/ü"s, "file:/a\0b"s, ""s})
        await(usage.record(id));
    const auto all = await(usage.load());
    EXPECT_EQ(all.size(), 6u);
    EXPECT_TRUE(all.contains("file:/a\xff"));
    EXPECT_TRUE(all.contains("file:/a\0b"s));
}

TEST_F(CommandUsageStoreTest, TheClockMayGoBackAndTheLastRecordCounts)
{
    await(usage.record("a"));
    clock.setWall(-5);
    await(usage.record("a"));
    EXPECT_EQ(await(usage.load()).at("a"), (CommandUsage{2, -5}));
}

TEST_F(CommandUsageStoreTest, ARowThatDoesNotParseIsLostAloneAmongTheOthers)
{
    const struct {
        const char *why, *row;
    } cases[] = {
        {"a count that is no number", "'bad','abc',1.0"},
        {"an empty count", "'bad','',1.0"},
        {"a count with a fraction", "'bad',1.5,1.0"},
        {"a count beyond 64 bits", "'bad','9223372036854775808x',1.0"},
        {"a time that is no number", "'bad',1,'yesterday'"},
        {"an empty time", "'bad',1,''"},
        {"no identifier", "NULL,1,1.0"},
    };
    await(usage.record("good"));
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        execute(database, std::string("INSERT INTO command_usage VALUES(") + c.row + ")");
        EXPECT_EQ(await(usage.load()), (UsageByIdentifier{{"good", {1, now()}}}));
        execute(database, "DELETE FROM command_usage WHERE id IS NOT 'good'");
    }
}

TEST_F(CommandUsageStoreTest, NoRowsAreAnEmptyDictionary) { EXPECT_EQ(await(usage.load()), UsageByIdentifier{}); }

TEST_F(CommandUsageStoreTest, TheClockIsReadBeforeTheHop)
{
    struct WatchedClock : ManualClock {
        using ManualClock::ManualClock;
        double now() const override
        {
            asked = true;
            return ManualClock::now();
        }
        mutable bool asked = false;
    } watched(loop);
    const CommandUsageStore timed(database, watched);
    const double start = watched.ManualClock::now();
    auto record = begin(timed.record("a"));
    while (!watched.asked)
        ASSERT_TRUE(loop.runOne());
    EXPECT_FALSE(record.done());
    watched.setWall(start + 60);
    record.result();
    EXPECT_EQ(await(timed.load()).at("a").lastUsed, start);
}

TEST_F(CommandUsageStoreTest, FailsAsTheDatabaseDoes)
{
    await(database->close());
    EXPECT_EQ(outcomeOf([&] { await(usage.record("a")); }), databaseClosed);
    EXPECT_EQ(outcomeOf([&] { await(usage.load()); }), databaseClosed);
}

TEST_F(CommandUsageStoreTest, AWriteThatCannotBeMadeIsThrown)
{
    const auto onDisk = open();
    OtherProgram other(file);
    other.run("BEGIN IMMEDIATE");
    rows(onDisk, "PRAGMA busy_timeout=0");
    const CommandUsageStore locked(onDisk, clock);
    EXPECT_EQ(outcomeOf([&] { await(locked.record("a")); }), couldNotSave);
    EXPECT_EQ(await(locked.load()), UsageByIdentifier{});
    other.run("ROLLBACK");
}

// Quicklinks

TEST_F(QuicklinkRepositoryTest, ComeByTitleInByteOrder)
{
    await(quicklinks.save({"1", "wiki", "https://w"}));
    await(quicklinks.save({"2", "Maps", "https://m"}));
    await(quicklinks.save({"3", "Ärger", "https://a"}));
    await(quicklinks.save({"4", "Zoo", "https://z"}));
    EXPECT_EQ(await(quicklinks.load()),
        (std::vector<Quicklink>{
            {"2", "Maps", "https://m"}, {"4", "Zoo", "https://z"}, {"1", "wiki", "https://w"}, {"3", "Ärger", "https://a"}}));
}

TEST_F(QuicklinkRepositoryTest, SavingAnIdentifierAgainReplacesIt)
{
    await(quicklinks.save({"1", "Maps", "https://m"}));
    await(quicklinks.save({"1", "Charts", "https://c/{query}"}));
    EXPECT_EQ(await(quicklinks.load()), (std::vector<Quicklink>{{"1", "Charts", "https://c/{query}"}}));
}

TEST_F(QuicklinkRepositoryTest, AreRemovedByIdentifierAndAnAbsentOneIsNoFailure)
{
    await(quicklinks.save({"1", "Maps", "https://m"}));
    await(quicklinks.save({"2", "Wiki", "https://w"}));
    await(quicklinks.remove("1"));
    await(quicklinks.remove("1"));
    await(quicklinks.remove("never there"));
    EXPECT_EQ(await(quicklinks.load()), (std::vector<Quicklink>{{"2", "Wiki", "https://w"}}));
}

TEST_F(QuicklinkRepositoryTest, ARowWithoutAnIdentifierIsLostAloneAmongTheOthers)
{
    execute(database, "INSERT INTO quicklinks VALUES(NULL,'a','https://a')");
    await(quicklinks.save({"1", "Maps", ""}));
    EXPECT_EQ(await(quicklinks.load()), (std::vector<Quicklink>{{"1", "Maps", ""}}));
}

TEST_F(QuicklinkRepositoryTest, ARowThatLacksATitleOrAnAddressIsLostToo)
{
    // A file that another program made may allow what ours does not.
    execute(database, "DROP TABLE quicklinks");
    execute(database, "CREATE TABLE quicklinks(id TEXT PRIMARY KEY, title TEXT, url_template TEXT)");
    execute(database, "INSERT INTO quicklinks VALUES('1',NULL,'https://a'),('2','b',NULL),('3','c','https://c')");
    EXPECT_EQ(await(quicklinks.load()), (std::vector<Quicklink>{{"3", "c", "https://c"}}));
}

TEST_F(QuicklinkRepositoryTest, FailAsTheDatabaseDoes)
{
    await(database->close());
    EXPECT_EQ(outcomeOf([&] { await(quicklinks.load()); }), databaseClosed);
    EXPECT_EQ(outcomeOf([&] { await(quicklinks.save({"1", "a", "b"})); }), databaseClosed);
    EXPECT_EQ(outcomeOf([&] { await(quicklinks.remove("1")); }), databaseClosed);
}

// Launches of applications

TEST_F(AppLaunchRepositoryTest, TwoLinesOfOneApplicationAreTwoRecords)
{
    record("--new-instance", 100);
    record("", 200);
    EXPECT_EQ(await(launches.recents("/apps/gimp.desktop", 10)),
        (std::vector<AppLaunchRecord>{{"/apps/gimp.desktop", "", 1, 200}, {"/apps/gimp.desktop", "--new-instance", 1, 100}}));
}

TEST_F(AppLaunchRepositoryTest, TheSameLineIsCountedAndMovesToTheFront)
{
    record("a", 100);
    record("b", 200);
    record("a", 300.25);
    EXPECT_EQ(await(launches.recents("/apps/gimp.desktop", 10)),
        (std::vector<AppLaunchRecord>{{"/apps/gimp.desktop", "a", 2, 300.25}, {"/apps/gimp.desktop", "b", 1, 200}}));
}

TEST_F(AppLaunchRepositoryTest, AtMostTheLimitComesAndTheLatestFirst)
{
    record("a", 100);
    record("b", 300);
    record("c", 200);
    EXPECT_EQ(recents(3), (Strings{"b", "c", "a"}));
    EXPECT_EQ(recents(2), (Strings{"b", "c"}));
    EXPECT_EQ(recents(0), Strings{});
}

TEST_F(AppLaunchRepositoryTest, OtherApplicationsStayOut)
{
    record("a", 100);
    await(launches.record("/apps/GIMP.desktop", "other case"));
    EXPECT_EQ(recents(10), Strings{"a"});
    EXPECT_EQ(recents(10, "/apps/none.desktop"), Strings{});
}

TEST_F(AppLaunchRepositoryTest, ARowThatDoesNotParseIsLostAloneAmongTheOthers)
{
    record("good", 100);
    execute(database, "INSERT INTO app_launches VALUES('/apps/gimp.desktop','count','abc',300.0)");
    execute(database, "INSERT INTO app_launches VALUES('/apps/gimp.desktop','time',1,'late')");
    EXPECT_EQ(recents(10), Strings{"good"});
}

TEST_F(AppLaunchRepositoryTest, FailAsTheDatabaseDoes)
{
    await(database->close());
    EXPECT_EQ(outcomeOf([&] { await(launches.record("/a", "b")); }), databaseClosed);
    EXPECT_EQ(outcomeOf([&] { await(launches.recents("/a", 5)); }), databaseClosed);
}
