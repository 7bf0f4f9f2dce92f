#include "CommandCore/SearchTable.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>

using namespace korvane;
using Strings = std::vector<std::string>;

namespace {

constexpr double now = 1'700'000'000;

const auto anyKind = [](ResultKind) { return true; };

Strings ownKeywords(const CommandResult &row) { return row.keywords; }

Strings titles(const Rows &rows)
{
    Strings all;
    for (const Row &row : rows)
        all.push_back(row->title);
    return all;
}

/// A row that may become another, and counts how often it is asked for.
struct Asked final : Command {
    explicit Asked(std::string title, bool fixed = false) : row(makeRow({.id = title, .title = title})), fixed(fixed) { }
    const std::string &id() const override { return name; }
    Row result(const CommandContext &) const override
    {
        ++count;
        return row;
    }
    bool isFixed() const override { return fixed; }

    Row row;
    const std::string name = row->id;
    const bool fixed;
    mutable int count = 0;
};

class SearchTableTest : public testing::Test {
protected:
    void add(CommandResultFields fields)
    {
        if (fields.id.empty())
            fields.id = fields.title;
        registry.registerCommand(std::make_shared<StaticCommand>(std::move(fields)));
    }
    Strings find(std::string_view query, std::size_t limit = 60)
    {
        table.follow(registry);
        return titles(table.best(query, anyKind, now, limit));
    }

    CommandRegistry registry;
    SearchTable table{ownKeywords};
};

} // namespace

TEST_F(SearchTableTest, AnEmptyRegistryGivesNoRows)
{
    EXPECT_EQ(find(""), Strings{});
    EXPECT_EQ(find("a"), Strings{});
}

TEST_F(SearchTableTest, ATitleStandsBeforeAKeyword)
{
    add({.title = "Web Browser", .keywords = {"internet"}});
    add({.title = "Internet Radio"});
    add({.title = "Terminal"});
    EXPECT_EQ(find("INTERNET"), (Strings{"Internet Radio", "Web Browser"}));
}

TEST_F(SearchTableTest, NoMatchReachesFromOneRowIntoTheNext)
{
    add({.id = "1", .title = "One", .keywords = {"left"}});
    add({.id = "2", .title = "Two"});
    EXPECT_EQ(find("leftt"), Strings{});
    EXPECT_EQ(find("ftwo"), Strings{});
}

TEST_F(SearchTableTest, EqualScoresStandByTitleInByteOrderAlsoBeyondItsBeginning)
{
    for (const char *title : {"Screenshot b", "Screenshot B", "Screenshot", "Screenshot a", "Scree", "Äther", "zeta"})
        add({.title = title});
    EXPECT_EQ(find(""), (Strings{"Scree", "Screenshot", "Screenshot B", "Screenshot a", "Screenshot b", "zeta", "Äther"}));
}

TEST_F(SearchTableTest, OnlyTheBestUpToTheLimitAreGiven)
{
    for (int i = 0; i < 100; ++i)
        add({.id = std::to_string(i), .title = std::to_string(i)});
    EXPECT_EQ(find("", 60).size(), 60u);
    EXPECT_EQ(find("9", 3), (Strings{"9", "90", "91"}));
    EXPECT_EQ(find("9", 1), Strings{"9"});
    EXPECT_EQ(find("9", 0), Strings{});
}

TEST_F(SearchTableTest, RowsOfOtherKindsAreLeftOutBeforeTheLimitCounts)
{
    add({.id = "app:a", .title = "a"});
    add({.id = "b", .title = "b"});
    table.follow(registry);
    const auto commands = [](ResultKind kind) { return kind == ResultKind::command; };
    EXPECT_EQ(titles(table.best("", commands, now, 1)), Strings{"b"});
}

TEST_F(SearchTableTest, UseCountsWhetherItIsToldBeforeOrAfterTheRows)
{
    add({.title = "a"});
    add({.title = "b"});
    table.setUsage({{"b", {.count = 3, .lastUsed = now}}});
    EXPECT_EQ(find(""), (Strings{"b", "a"}));
    table.setUsage({{"a", {.count = 9, .lastUsed = now}}, {"b", {.count = 3, .lastUsed = now}}});
    EXPECT_EQ(find(""), (Strings{"a", "b"}));
    table.setUsage({});
    EXPECT_EQ(find(""), (Strings{"a", "b"}));
    table.setUsage({{"c", {.count = 1, .lastUsed = now}}});
    add({.title = "c"});
    EXPECT_EQ(find(""), (Strings{"c", "a", "b"}));
}

TEST_F(SearchTableTest, ARowThatBecameAnotherIsFoundByItsNewTextsAtOnce)
{
    const auto changing = std::make_shared<Asked>("before");
    registry.registerCommand(changing);
    add({.title = "a"});
    EXPECT_EQ(find("bef"), Strings{"before"});
    changing->row = makeRow({.id = "before", .title = "after"});
    EXPECT_EQ(find("bef"), Strings{});
    EXPECT_EQ(find("aft"), Strings{"after"});
    EXPECT_EQ(find(""), (Strings{"a", "after"}));
}

TEST_F(SearchTableTest, AFixedCommandIsAskedOnce)
{
    const auto fixed = std::make_shared<Asked>("fixed", true);
    const auto changing = std::make_shared<Asked>("changing");
    registry.registerCommand(fixed);
    registry.registerCommand(changing);
    find("f");
    const int before = changing->count;
    find("fi");
    find("fix");
    EXPECT_EQ(fixed->count, 1);
    EXPECT_EQ(changing->count, before + 2);
}

TEST_F(SearchTableTest, TheFoldedTextsOfAnUnchangedRowAreKept)
{
    int folded = 0;
    SearchTable counting([&](const CommandResult &row) {
        ++folded;
        return row.keywords;
    });
    add({.title = "a"});
    add({.title = "b"});
    counting.follow(registry);
    add({.title = "c"});
    counting.follow(registry);
    EXPECT_EQ(folded, 3);
    EXPECT_EQ(titles(counting.best("b", anyKind, now, 60)), Strings{"b"});
}

TEST_F(SearchTableTest, RowsThatWentAreNoLongerFound)
{
    add({.id = "app:a", .title = "a"});
    add({.id = "b", .title = "b"});
    EXPECT_EQ(find(""), (Strings{"a", "b"}));
    registry.replace("app:", {});
    EXPECT_EQ(find(""), Strings{"b"});
    EXPECT_EQ(find("a"), Strings{});
}

RC_GTEST_PROP(SearchTableLaws, TheBestRowsAreThoseOfAWholeRankingByTheRanker, ())
{
    const auto text = rc::gen::container<std::string>(rc::gen::elementOf(std::string("aabABé \xff")));
    CommandRegistry registry;
    UsageByIdentifier usages;
    SearchTable table(ownKeywords);
    const int rounds = *rc::gen::inRange(1, 4);
    for (int round = 0; round < rounds; ++round) {
        const std::string prefix = std::to_string(*rc::gen::inRange(0, 2)) + ':';
        CommandRegistry::Commands family;
        const int size = *rc::gen::inRange(0, 20);
        for (int i = 0; i < size; ++i) {
            const std::string id = prefix + std::to_string(i);
            family.push_back(std::make_shared<StaticCommand>(
                CommandResultFields{.id = id, .title = *text, .keywords = *rc::gen::container<Strings>(text)}));
            if (*rc::gen::arbitrary<bool>())
                usages[id] = {.count = *rc::gen::inRange(0, 4), .lastUsed = now - *rc::gen::inRange(0, 3) * 86400.0};
        }
        registry.replace(prefix, family);
        table.setUsage(usages);
        table.follow(registry);

        const std::string query = *text;
        struct Scored {
            double score;
            Row row;
        };
        std::vector<Scored> expected;
        for (const Row &row : registry.results()) {
            const auto used = usages.find(row->id);
            const auto usage = used == usages.end() ? std::nullopt : std::optional(used->second);
            if (const auto score = SearchRanker{}.score(query, row->title, row->keywords, usage, now))
                expected.push_back({*score, row});
        }
        std::ranges::stable_sort(expected, [](const Scored &left, const Scored &right) {
            return left.score != right.score ? left.score > right.score : left.row->title < right.row->title;
        });
        const auto limit = std::size_t(*rc::gen::inRange(0, 30));
        Rows rows;
        for (std::size_t i = 0; i < std::min(limit, expected.size()); ++i)
            rows.push_back(expected[i].row);
        RC_ASSERT(table.best(query, anyKind, now, limit) == rows);
    }
}
