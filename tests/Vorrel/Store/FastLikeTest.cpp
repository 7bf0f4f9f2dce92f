#include "Vorrel/Store/FastLike.h"
#include "tests/Vorrel/Store/TestStore.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <memory>
#include <sqlite3.h>

using namespace korvane;

namespace {

/// A connection that compares by its `LIKE`.
class Comparer {
public:
    enum class Which { own, fast };
    explicit Comparer(Which which)
    {
        sqlite3 *opened = nullptr;
        sqlite3_open(":memory:", &opened);
        connection.reset(opened);
        if (which == Which::fast)
            EXPECT_EQ(installFastLike(opened), SQLITE_OK);
    }

    /// 1, 0 or -1 for NULL; -2 for an error.
    int ask(const std::string &sql, const std::vector<std::string> &values) const
    {
        sqlite3_stmt *prepared = nullptr;
        EXPECT_EQ(sqlite3_prepare_v2(connection.get(), sql.c_str(), -1, &prepared, nullptr), SQLITE_OK) << sql;
        const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)> statement(prepared, sqlite3_finalize);
        int index = 0;
        for (const auto &value : values)
            sqlite3_bind_text(prepared, ++index, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
        if (sqlite3_step(prepared) != SQLITE_ROW)
            return -2;
        return sqlite3_column_type(prepared, 0) == SQLITE_NULL ? -1 : sqlite3_column_int(prepared, 0);
    }
    sqlite3 *get() const { return connection.get(); }

private:
    std::unique_ptr<sqlite3, int (*)(sqlite3 *)> connection{nullptr, sqlite3_close};
};

const std::string plain = "SELECT ? LIKE ?", escaped = "SELECT ? LIKE ? ESCAPE '\\'";

/// Texts in which patterns find something: few letters, in both cases, with the signs of patterns and of paths.
rc::Gen<std::string> texts(std::vector<std::string> pieces)
{
    return rc::gen::map(rc::gen::container<std::vector<std::string>>(rc::gen::elementOf(std::move(pieces))),
        [](const std::vector<std::string> &chosen) {
            std::string text;
            for (const auto &piece : chosen)
                text += piece;
            return text;
        });
}

} // namespace

TEST(FastLike, MatchesAsTheUsualOneDoes)
{
    const struct {
        const char *why;
        const char *text, *pattern;
        bool matches;
    } cases[] = {
        {"a part", "/home/ada/node_modules/x", "%/node_modules/%", true},
        {"a part in capitals", "/home/ada/Node_Modules/x", "%/NODE_modules/%", true},
        {"a part that is not there", "/home/ada/node-module/x", "%/node_modules/%", false},
        {"a part that begins twice", "//caches", "%/caches%", true},
        {"at the very end", "report.pdf", "%.pdf", true},
        {"the whole text", ".PDF", "%.pdf", true},
        {"one byte short", "pdf", "%.pdf", false},
        {"the beginning", "Report", "rep%", true},
        {"not the beginning", "a Report", "rep%", false},
        {"equal", "Report", "rEPORT", true},
        {"a longer text", "Reports", "report", false},
        {"anything", "", "%", true},
        {"two of anything", "x", "%%", true},
        {"nothing against something", "", "a", false},
        {"the empty pattern matches only the empty text", "x", "", false},
        {"both empty", "", "", true},
        {"letters beyond ASCII keep their case", "Ärger", "%ärger%", false},
        {"and match themselves", "ÄRGER", "%Ärger%", true},
        {"one sign for any character", "Äx", "_x", true},
        {"the signs next to the letters stay apart", "[", "{", false},
        {"@ is no letter", "`", "@", false},
        {"letters alone", "xxBCxx", "%bc%", true},
        {"anything in the middle", "abcd", "a%d", true},
    };
    const Comparer fast(Comparer::Which::fast), own(Comparer::Which::own);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(fast.ask(plain, {c.text, c.pattern}), c.matches);
        EXPECT_EQ(own.ask(plain, {c.text, c.pattern}), c.matches);
    }
}

TEST(FastLike, AnEscapedSignMeansItself)
{
    const Comparer fast(Comparer::Which::fast);
    EXPECT_EQ(fast.ask(escaped, {"100%", R"(%\%)"}), 1);
    EXPECT_EQ(fast.ask(escaped, {"100", R"(%\%)"}), 0);
    EXPECT_EQ(fast.ask(escaped, {"a_b", R"(%\_%)"}), 1);
    EXPECT_EQ(fast.ask(escaped, {"ab", R"(%\_%)"}), 0);
    EXPECT_EQ(fast.ask(escaped, {R"(a\b)", R"(%\\%)"}), 1);
    EXPECT_EQ(fast.ask(escaped, {"a", R"(a\)"}), 0) << "an escape with nothing behind it";
    EXPECT_EQ(fast.ask("SELECT ? LIKE ? ESCAPE 'ab'", {"a", "a"}), -2) << "one sign, not two";
}

TEST(FastLike, NullIsNeitherLikeNorUnlike)
{
    const Comparer fast(Comparer::Which::fast);
    EXPECT_EQ(fast.ask("SELECT NULL LIKE ?", {"a"}), -1);
    EXPECT_EQ(fast.ask("SELECT ? LIKE NULL", {"a"}), -1);
    EXPECT_EQ(fast.ask("SELECT 12 LIKE '1%'", {}), 1) << "a number is compared as it is written";
}

TEST(FastLike, APatternThatDiffersByRowIsTakenAnewForEach)
{
    const Comparer fast(Comparer::Which::fast);
    EXPECT_EQ(fast.ask("SELECT sum('abc' LIKE p) FROM (SELECT 'a%' AS p UNION ALL SELECT 'b%' UNION ALL SELECT '%c')", {}), 2);
}

TEST(FastLike, RemovedItLeavesTheConnectionAsItCame)
{
    const Comparer comparer(Comparer::Which::fast);
    ASSERT_EQ(removeFastLike(comparer.get()), SQLITE_OK);
    EXPECT_EQ(comparer.ask(plain, {"Report", "rep%"}), 1);
    sqlite3_exec(comparer.get(), "CREATE TABLE t(name); CREATE INDEX i ON t(name COLLATE NOCASE);", nullptr, nullptr, nullptr);
    const auto usesIndex = [&] {
        sqlite3_stmt *prepared = nullptr;
        sqlite3_prepare_v2(comparer.get(), "EXPLAIN QUERY PLAN SELECT 1 FROM t WHERE name LIKE 'a%'", -1, &prepared, nullptr);
        const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)> statement(prepared, sqlite3_finalize);
        EXPECT_EQ(sqlite3_step(prepared), SQLITE_ROW);
        const std::string detail = reinterpret_cast<const char *>(sqlite3_column_text(prepared, 3));
        return detail.starts_with("SEARCH");
    };
    EXPECT_TRUE(usesIndex());
    ASSERT_EQ(installFastLike(comparer.get()), SQLITE_OK);
    EXPECT_FALSE(usesIndex()) << "which is why it is not always there";
}

RC_GTEST_PROP(FastLike, AgreesWithTheUsualOneOnAnyTextAndPattern, ())
{
    static const Comparer fast(Comparer::Which::fast), own(Comparer::Which::own);
    const std::vector<std::string> letters{"a", "A", "b", "B", "/", ".", "\\", "ä", "Ä", "漢"};
    auto signs = letters;
    for (const char *sign : {"%", "%", "_", "\\%", "\\_"})
        signs.emplace_back(sign);
    const std::string text = *texts(letters), pattern = *texts(signs);
    const std::string open = *rc::gen::elementOf(std::vector<std::string>{"", "%"}),
                      close = *rc::gen::elementOf(std::vector<std::string>{"", "%"});
    for (const std::string &sql : {plain, escaped})
        RC_ASSERT(fast.ask(sql, {text, open + pattern + close}) == own.ask(sql, {text, open + pattern + close}));
}

TEST(FastLike, AConnectionThatReadsChangesBetweenTheTwoAsItIsAsked)
{
    test::TestStore store;
    auto writer = store.open();
    store.execute(
        writer, "INSERT INTO file_index(path,name,parent,is_directory,size,modified,batch_id) VALUES('/A','A','/',0,1,1,0)");
    auto reader = store.open(Database::Access::readOnly);
    using Likes = Database::Likes;
    for (const Likes likes : {Likes::fast, Likes::builtIn, Likes::fast, Likes::fast, Likes::builtIn}) {
        Database::Question question{"SELECT name FROM file_index WHERE name LIKE ?", {"a%"}, likes};
        EXPECT_EQ(store.await(reader->rows(std::move(question), std::nullopt)).size(), 1u);
    }
    Database::Question byCase{"SELECT name FROM file_index WHERE name LIKE ?", {"a%"}, Likes::fast};
    EXPECT_TRUE(store.await(writer->rows(std::move(byCase), std::nullopt)).empty()) << "who writes tells \"a\" from \"A\"";
}
