#include "CommandCore/SearchRanker.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

using namespace korvane;
using Strings = std::vector<std::string>;

namespace {

constexpr double now = 1'700'000'000;
constexpr double day = 86400;

std::optional<double> score(
    std::string_view query, std::string_view title, const Strings &keywords = {}, const std::optional<CommandUsage> &usage = {})
{
    return SearchRanker{}.score(query, title, keywords, usage, now);
}

struct Candidate {
    std::string title;
    std::optional<double> score;
};

/// Higher scores first, then titles in byte order: how a list is ordered by what the ranker says.
bool standsBefore(const Candidate &left, const Candidate &right)
{
    return left.score != right.score ? left.score > right.score : left.title < right.title;
}

rc::Gen<CommandUsage> anyUsage()
{
    constexpr auto infinity = std::numeric_limits<double>::infinity();
    return rc::gen::map(rc::gen::pair(rc::gen::arbitrary<std::int64_t>(),
                            rc::gen::oneOf(rc::gen::arbitrary<double>(), rc::gen::just(now), rc::gen::just(now - 2 * day),
                                rc::gen::element(infinity, -infinity, std::nan("")))),
        [](const auto &pair) {
            return CommandUsage{pair.first, pair.second};
        });
}

} // namespace

TEST(SearchRankerTest, TheFirstRuleThatAppliesGivesTheScore)
{
    const struct {
        const char *why;
        const char *query, *title;
        Strings keywords;
        std::optional<CommandUsage> usage;
        std::optional<double> score;
    } cases[] = {
        {"an empty query matches everything", "", "Safari", {}, {}, 1},
        {"so does a blank one", " \t\n\u3000", "Safari", {}, {}, 1},
        {"so does one of marks alone", "\u0301", "Safari", {}, {}, 1},
        {"an equal title", "Safari", "Safari", {}, {}, 120},
        {"whatever the case, with blanks around the query", " SAFARI  ", "Safari", {}, {}, 120},
        {"the beginning of the title", "saf", "Safari", {}, {}, 90},
        {"a part of the title", "fari", "Safari", {}, {}, 65},
        {"an accented letter finds a plain one", "é", "Cafe", {}, {}, 65},
        {"and the other way round", "cafe", "Café Menu", {}, {}, 90},
        {"the title is not trimmed: a blank makes it unequal", "safari", "Safari ", {}, {}, 90},
        {"nor at its beginning", "safari", " Safari", {}, {}, 65},
        {"blanks within the query count", "saf ari", "Safari", {}, {}, {}},
        {"a part of a keyword", "rows", "Safari", {"web", "browser"}, {}, 40},
        {"a whole keyword, in another case", "BROWSER", "Safari", {"web", "browser"}, {}, 40},
        {"a keyword with diacritics", "cafe", "Safari", {"CAFÉ"}, {}, 40},
        {"a title goes before a keyword", "saf", "Safari", {"saf"}, {}, 90},
        {"no part of the title runs on into a keyword", "safariweb", "Safari", {"web"}, {}, {}},
        {"nor one keyword into the next", "webbrowser", "Safari", {"web", "browser"}, {}, {}},
        {"an empty keyword matches nothing", "x", "Safari", {""}, {}, {}},
        {"Chinese text", "设置", "系统设置", {}, {}, 65},
        {"German", "STRASSE", "Straßenkarte", {}, {}, 90},
        {"Turkish", "istanbul", "İstanbul", {}, {}, 120},
        {"an empty title is only found by nothing", "a", "", {}, {}, {}},
        {"no match, however much used", "zzz", "Safari", {"web"}, CommandUsage{1000, now}, {}},
        {"three uses, the last just now", "saf", "Safari", {}, CommandUsage{3, now}, 90 + 4 + 5},
        {"one use, the last just now", "saf", "Safari", {}, CommandUsage{1, now}, 90 + 2 + 5},
        {"many uses, long ago", "saf", "Safari", {}, CommandUsage{1000, now - 30 * day}, 90 + 10 + 0},
        {"the frequency meets its cap at thirty-one uses", "saf", "Safari", {}, CommandUsage{31, now - 30 * day}, 90 + 10},
        {"recency falls by one a day", "saf", "Safari", {}, CommandUsage{3, now - 2 * day}, 90 + 4 + 3},
        {"in parts of a day too", "saf", "Safari", {}, CommandUsage{3, now - day / 2}, 90 + 4 + 4.5},
        {"and ends after five", "saf", "Safari", {}, CommandUsage{3, now - 5 * day}, 90 + 4},
        {"use orders the list of an empty query", "", "Safari", {}, CommandUsage{3, now}, 1 + 4 + 5},
        {"a clock that was set back counts for more", "saf", "Safari", {}, CommandUsage{3, now + 2 * day}, 90 + 4 + 7},
        {"never used counts for nothing but its date", "saf", "Safari", {}, CommandUsage{0, now - 9 * day}, 90},
        {"a count that makes no sense is none", "saf", "Safari", {}, CommandUsage{-5, now - 9 * day}, 90},
        {"the largest count", "saf", "Safari", {}, CommandUsage{std::numeric_limits<std::int64_t>::max(), now}, 105},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(score(c.query, c.title, c.keywords, c.usage), c.score);
    }
}

TEST(SearchRankerTest, JustUnderThirtyOneUsesStayBelowTheCap)
{
    EXPECT_LT(score("saf", "Safari", {}, CommandUsage{30, now - 30 * day}), 100);
    EXPECT_GT(score("saf", "Safari", {}, CommandUsage{30, now - 30 * day}), 99.9);
}

TEST(SearchRankerTest, NoUseLiftsAKeywordOverAPartOfATitle)
{
    EXPECT_LT(score("web", "Safari", {"web"}, CommandUsage{100000, now}), score("web", "A web page"));
}

TEST(SearchRankerTest, TextsMadeReadyBeforehandScoreAlike)
{
    const Strings keywords{"Webbrowser", "Café"};
    const SearchKeys keys("Safári", keywords);
    const CommandUsage usage{3, now};
    for (const auto query : {"", "SAFARI", "saf", "far", "cafe", "brow", "x"}) {
        const PreparedQuery prepared(query);
        EXPECT_EQ(SearchRanker{}.score(prepared, keys, nullptr, now), score(query, "Safári", keywords)) << query;
        EXPECT_EQ(SearchRanker{}.score(prepared, keys, &usage, now), score(query, "Safári", keywords, usage)) << query;
    }
}

TEST(SearchRankerTest, AQueryMadeReadyIsFoldedAndTrimmed)
{
    EXPECT_EQ(PreparedQuery(" ÉTÉ 24\n").text(), "ete 24");
    EXPECT_EQ(PreparedQuery("\t ").text(), "");
}

TEST(SearchKeysTest, KeepTheFoldedTitle)
{
    const Strings keywords{"web"};
    EXPECT_EQ(SearchKeys(" Café ", keywords).title(), " cafe ");
    EXPECT_EQ(SearchKeys().title(), "");
    EXPECT_FALSE(SearchKeys().keywordContains("a"));
}

TEST(SearchKeysTest, NoBytesOfAQueryReachOverTwoKeywords)
{
    const Strings keywords{"ab", "cd"};
    const SearchKeys keys("Title", keywords);
    for (int byte = 0; byte < 256; ++byte) {
        const std::string between = std::string("b") + char(byte) + "c";
        EXPECT_FALSE(keys.keywordContains(between)) << byte;
        EXPECT_FALSE(score(between, "Title", keywords)) << byte;
        const std::string before = char(byte) + std::string("ab");
        EXPECT_FALSE(keys.keywordContains(before)) << byte;
    }
    EXPECT_TRUE(keys.keywordContains("ab"));
    EXPECT_TRUE(keys.keywordContains("cd"));
    EXPECT_FALSE(keys.keywordContains(""));
    EXPECT_FALSE(keys.keywordContains("title"));
}

TEST(SearchKeysTest, TellTheBestMatchOfAText)
{
    using Match = SearchKeys::Match;
    const Strings keywords{"titles", "web"};
    const SearchKeys keys("Title", keywords);
    EXPECT_EQ(keys.match("title"), Match::title);
    EXPECT_EQ(keys.match("tit"), Match::beginningOfTitle);
    EXPECT_EQ(keys.match("itl"), Match::partOfTitle);
    EXPECT_EQ(keys.match("titles"), Match::partOfKeyword);
    EXPECT_EQ(keys.match("titlet"), Match::none);
    EXPECT_EQ(SearchKeys("", keywords).match("web"), Match::partOfKeyword);
    EXPECT_EQ(SearchKeys("", {}).match("web"), Match::none);
}

TEST(SearchKeysTest, BytesThatAreNotUTF8MatchAsTheReplacementCharacter)
{
    const Strings keywords{"a\xFF"
                           "b"};
    EXPECT_EQ(score("a\xFE"
                    "b",
                  "Title", keywords),
        40);
    EXPECT_EQ(score("\xFF", "Title", {"ab", "cd"}), std::nullopt);
}

RC_GTEST_PROP(SearchRankerLaws, AScoreIsFoundExactlyWhenOneTextAloneHoldsTheQuery, ())
{
    const auto text = rc::gen::container<std::string>(rc::gen::element('a', 'B', ' ', '\xFF', '\0', '\xC3', '\xA9'));
    const std::string query = *text, title = *text;
    const Strings keywords = *rc::gen::container<Strings>(text);
    const auto holds = [&](const std::string &whole) { return score(query, whole).has_value(); };
    RC_ASSERT((score(query, title, keywords).has_value() == (holds(title) || std::ranges::any_of(keywords, holds))));
}

RC_GTEST_PROP(SearchRankerLaws, UseNeverTurnsTheOrderOfTwoClassesThatAreFarApart, ())
{
    const auto usage = *anyUsage();
    RC_PRE(!(usage.lastUsed > now));
    const auto bonus = *score("web", "Safari", {"web"}, usage) - 40;
    RC_ASSERT((bonus >= 0 && bonus <= 15));
}

RC_GTEST_PROP(SearchRankerLaws, TheOrderOfAListIsTotal, ())
{
    std::vector<Candidate> list;
    for (int i = 0; i < 6; ++i) {
        auto title = *rc::gen::container<std::string>(rc::gen::element('a', 'b', 'A'));
        const auto usage = *rc::gen::maybe(anyUsage());
        const auto given = score("a", title, {"a"}, usage ? std::optional(*usage) : std::nullopt);
        list.push_back({std::move(title), given});
    }
    for (const auto &a : list) {
        RC_ASSERT((a.score.has_value() && !std::isnan(*a.score)));
        RC_ASSERT(!standsBefore(a, a));
        for (const auto &b : list) {
            const bool same = a.score == b.score && a.title == b.title;
            RC_ASSERT((same ? !standsBefore(a, b) && !standsBefore(b, a) : standsBefore(a, b) != standsBefore(b, a)));
            for (const auto &c : list)
                RC_ASSERT((!(standsBefore(a, b) && standsBefore(b, c)) || standsBefore(a, c)));
        }
    }
}
