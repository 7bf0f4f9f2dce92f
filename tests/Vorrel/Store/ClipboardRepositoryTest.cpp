#include "Vorrel/Store/ClipboardRepository.h"
#include "tests/Vorrel/Store/TestStore.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;

namespace {

struct Clipboard : testing::Test {
    void insert(const std::string &content, int limit = 500, std::optional<std::string> source = {})
    {
        store.clock.advance(Milliseconds(1000));
        store.await(repository.insert(content, std::move(source), limit));
    }
    std::vector<ClipboardEntry> search(const std::string &query = "") { return store.await(repository.search(query)); }
    Strings contents(const std::string &query = "")
    {
        Strings all;
        for (const auto &entry : search(query))
            all.push_back(entry.content);
        return all;
    }
    std::string kindOf(const std::string &content)
    {
        insert(content);
        return search(content).at(0).kind;
    }

    TestStore store;
    std::shared_ptr<Database> database = store.open();
    ClipboardRepository repository{database, store.clock};
};

} // namespace

TEST_F(Clipboard, TheNewestStandsFirst)
{
    insert("one");
    insert("two", 500, "org.example.editor");
    const auto entries = search();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].content, "two");
    EXPECT_EQ(entries[0].sourceApp, "org.example.editor");
    EXPECT_EQ(entries[0].createdAt, store.clock.now());
    EXPECT_EQ(entries[0].id.size(), 36u);
    EXPECT_FALSE(entries[1].sourceApp);
}

TEST_F(Clipboard, ATextCopiedAgainMovesToTheTopUnderItsIdentifier)
{
    insert("one", 500, "a");
    const std::string id = search().at(0).id;
    insert("two");
    insert("one", 500, "b");
    EXPECT_EQ(contents(), (Strings{"one", "two"}));
    EXPECT_EQ(search().at(0).id, id);
    EXPECT_EQ(search().at(0).sourceApp, "b");
}

TEST_F(Clipboard, AMillionBytesAreKeptAndOneMoreIsNot)
{
    insert(std::string(1'000'000, 'x'));
    insert(std::string(1'000'001, 'y'));
    insert("");
    ASSERT_EQ(search().size(), 1u);
    EXPECT_EQ(search().at(0).content.size(), 1'000'000u);
}

TEST_F(Clipboard, AnAddressIsKnownByItsScheme)
{
    EXPECT_EQ(kindOf("https://example.org/a"), "url");
    EXPECT_EQ(kindOf("HTTP://EXAMPLE.ORG"), "url");
    EXPECT_EQ(kindOf("mailto:ada@example.org"), "url");
    EXPECT_EQ(kindOf("a line of plain words"), "text");
    EXPECT_EQ(kindOf("ftp://example.org"), "text");
    EXPECT_EQ(kindOf("file:///home/ada"), "text");
    EXPECT_EQ(kindOf("see https://example.org"), "text");
    EXPECT_EQ(kindOf("https://example.org and more"), "text");
}

TEST_F(Clipboard, TheHistoryHoldsNoMoreThanItsLimit)
{
    for (const char *text : {"one", "two", "three"})
        insert(text, 2);
    EXPECT_EQ(contents(), (Strings{"three", "two"}));
    insert("four", 1);
    EXPECT_EQ(contents(), Strings{"four"});
    insert("five", 0);
    EXPECT_EQ(contents(), Strings{"five"}) << "at least one";
}

TEST_F(Clipboard, ALimitAboveTenThousandIsTenThousand)
{
    store.execute(database,
        "WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x+1 FROM n WHERE x<10001) "
        "INSERT INTO clipboard_history SELECT 'id' || x,'text ' || x,'text',x,NULL FROM n");
    store.await(repository.prune(20'000));
    EXPECT_EQ(store.value(database, "SELECT count(*) AS value FROM clipboard_history"), "10000");
    EXPECT_EQ(store.value(database, "SELECT min(created_at) AS value FROM clipboard_history"), "2.0") << "the oldest has gone";
    EXPECT_EQ(search().size(), 500u) << "and 500 are shown";
}

TEST_F(Clipboard, ASearchFindsPartsWithoutRegardToCaseOfPlainLetters)
{
    insert("Grüße aus Oslo");
    insert("100% sure_thing");
    EXPECT_EQ(contents("OSLO"), Strings{"Grüße aus Oslo"});
    EXPECT_EQ(contents("grü"), Strings{"Grüße aus Oslo"});
    EXPECT_TRUE(contents("GRÜ").empty()) << "letters beyond ASCII keep their case";
    EXPECT_EQ(contents("0% s"), Strings{"100% sure_thing"}) << "no sign has a meaning";
    EXPECT_TRUE(contents("e_s").empty());
}

TEST_F(Clipboard, RowsThatLackWhatTheyNeedAreLeftOut)
{
    OtherProgram other(store.file);
    other.run(
        "DROP TABLE clipboard_history;"
        "CREATE TABLE clipboard_history(id TEXT, content TEXT, kind TEXT, created_at REAL, source_app TEXT);"
        "INSERT INTO clipboard_history VALUES('1','whole',NULL,1,NULL),(NULL,'no id','text',2,NULL),('3',NULL,'text',3,NULL);");
    const auto entries = search();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].kind, "text");
}

TEST_F(Clipboard, ClearingForgetsAll)
{
    insert("one");
    store.await(repository.clear());
    EXPECT_TRUE(search().empty());
}

TEST_F(Clipboard, AnEntryIsFoundByItsIdentifier)
{
    insert("one");
    const std::string id = search().at(0).id;
    EXPECT_EQ(store.await(repository.entry(id))->content, "one");
    EXPECT_FALSE(store.await(repository.entry("other")));
}

TEST_F(Clipboard, AStoreThatCannotBeWrittenSaysSo)
{
    OtherProgram other(store.file);
    store.rows(database, "PRAGMA busy_timeout=0");
    other.run("BEGIN IMMEDIATE");
    for (int operation = 0; operation < 3; ++operation)
        EXPECT_EQ(outcomeOf([&] {
            store.await(operation == 0 ? repository.insert("one", {}, 5)
                    : operation == 1   ? repository.prune(5)
                                       : repository.clear());
        }),
            couldNotSave);
    other.run("ROLLBACK");
}

TEST_F(Clipboard, AnEntryAsJsonHasItsOwnKeys)
{
    const ClipboardEntry entry{.id = "A", .content = "x\n", .kind = "text", .createdAt = 1.5, .sourceApp = "app"};
    EXPECT_EQ(entry.json().encodedString(), R"({"content":"x\n","createdAt":1.5,"id":"A","kind":"text","sourceApp":"app"})");
    EXPECT_TRUE(ClipboardEntry{}.json()["sourceApp"].isNull());
}
