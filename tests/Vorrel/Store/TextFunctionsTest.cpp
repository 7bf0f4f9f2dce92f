#include "Vorrel/Store/TextFunctions.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <sqlite3.h>
#include <string>
#include <vector>

using namespace korvane;

namespace {

/// A connection of its own, with our functions or with SQLite's.
class Connection {
public:
    explicit Connection(bool ours)
    {
        sqlite3_open(":memory:", &handle);
        if (ours)
            useOwnTextFunctions(handle), useOwnLike(handle);
    }
    ~Connection() { sqlite3_close(handle); }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;

    /// The value with its type, written as SQL.
    std::string value(const std::string &expression)
    {
        sqlite3_stmt *statement = nullptr;
        sqlite3_prepare_v2(handle, ("SELECT quote(" + expression + ")").c_str(), -1, &statement, nullptr);
        EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW) << expression;
        const std::string result = reinterpret_cast<const char *>(sqlite3_column_text(statement, 0));
        sqlite3_finalize(statement);
        return result;
    }

    /// Why there is none.
    std::string failure(const std::string &expression)
    {
        sqlite3_stmt *statement = nullptr;
        sqlite3_prepare_v2(handle, ("SELECT " + expression).c_str(), -1, &statement, nullptr);
        const std::string why = sqlite3_step(statement) == SQLITE_ROW ? "" : sqlite3_errmsg(handle);
        sqlite3_finalize(statement);
        return why;
    }
    /// "1" or "0" for each pattern, all of which are given to one statement at one place of the memory.
    std::string likes(const std::string &text, const std::vector<std::string> &patterns)
    {
        sqlite3_stmt *statement = nullptr;
        sqlite3_prepare_v2(handle, "SELECT ? LIKE ?", -1, &statement, nullptr);
        sqlite3_bind_text(statement, 1, text.c_str(), -1, SQLITE_STATIC);
        std::string answers;
        char place[16];
        for (const std::string &pattern : patterns) {
            std::strcpy(place, pattern.c_str());
            sqlite3_bind_text(statement, 2, place, -1, SQLITE_STATIC);
            sqlite3_step(statement);
            answers += std::to_string(sqlite3_column_int(statement, 0));
            sqlite3_reset(statement);
        }
        sqlite3_finalize(statement);
        return answers;
    }

private:
    sqlite3 *handle = nullptr;
};

} // namespace

TEST(TextFunctions, TheyAnswerAsThoseOfSQLite)
{
    Connection ours(true), theirs(false);
    for (const char *expression : {"lower('ABZ[@az ÄÖÜ 文')", "lower(NULL)", "lower(12.5)", "lower(x'4142')", "lower('')",
             "instr('abc','c')", "instr('abc','')", "instr('','a')", "instr('','')", "instr(NULL,'a')", "instr('a',NULL)",
             "instr('äöü','ü')", "instr('文字文','字')", "instr(x'0102ff','b')", "instr(x'e69687','a')", "instr(x'e69687',x'87')",
             "instr(x'e69687',x'9687')", "instr('文',x'87')", "instr(1234,34)", "instr('aab','ab')", "instr('ab','abc')"}) {
        SCOPED_TRACE(expression);
        EXPECT_EQ(ours.value(expression), theirs.value(expression));
    }
}

TEST(TextFunctions, TheyAnswerAsThoseOfSQLiteWhateverTheBytes)
{
    Connection ours(true), theirs(false);
    std::mt19937 random(11);
    const auto any = [&random](std::size_t longest) {
        constexpr const char *bytes[] = {"61", "41", "62", "c3", "a4", "84", "e6", "96", "87", "ff"};
        std::string hex;
        for (std::size_t length = random() % (longest + 1); length > 0; --length)
            hex += bytes[random() % std::size(bytes)];
        return hex;
    };
    for (int i = 0; i < 5000; ++i) {
        const std::string text = any(i % 2 ? 12 : 300), part = any(i % 2 ? 3 : 5);
        for (const std::string &expression : {"instr(CAST(x'" + text + "' AS TEXT),CAST(x'" + part + "' AS TEXT))",
                 "instr(x'" + text + "',x'" + part + "')", "hex(lower(CAST(x'" + text + "' AS TEXT)))"})
            ASSERT_EQ(ours.value(expression), theirs.value(expression)) << expression;
    }
}

TEST(TextFunctions, LikeAnswersAsThatOfSQLite)
{
    Connection ours(true), theirs(false);
    for (const char *expression : {"'Report.PDF' LIKE '%.pdf'", "'.pdf' LIKE '%.pdf'", "'pdf' LIKE '%.pdf'", "'' LIKE ''",
             "'a' LIKE ''", "'' LIKE '%'", "'x' LIKE '%%'", "'abc' LIKE 'AB%'", "'ab' LIKE 'abc%'", "'abc' LIKE 'abc'",
             "'abcd' LIKE 'abc'", "'a_b' LIKE 'a\\_b' ESCAPE '\\'", "'axb' LIKE 'a\\_b' ESCAPE '\\'", "'a_b' LIKE 'a_b'",
             "'50%' LIKE '%\\%' ESCAPE '\\'", "'a' LIKE 'a\\' ESCAPE '\\'", "NULL LIKE 'a'", "'a' LIKE NULL",
             "'a' LIKE 'a' ESCAPE NULL", "12.5 LIKE '%.5'", "x'41' LIKE 'a'", "'a' LIKE x'41'", "x'41' LIKE NULL", "'Ä' LIKE 'ä'",
             "'Ä' LIKE 'Ä'", "'[' LIKE '{'", "'@' LIKE '`'", "'/home/ada/node_modules/x' LIKE '%/node\\_modules/%' ESCAPE '\\'",
             "'/home/ada/node_modules' LIKE '%/node\\_modules/%' ESCAPE '\\'"}) {
        SCOPED_TRACE(expression);
        EXPECT_EQ(ours.value(expression), theirs.value(expression));
    }
    EXPECT_EQ(ours.failure("'a' LIKE 'a' ESCAPE 'ab'"), theirs.failure("'a' LIKE 'a' ESCAPE 'ab'"));
    const std::string longest = "'a' LIKE '" + std::string(50'000, 'a');
    EXPECT_EQ(ours.failure(longest + "'"), theirs.failure(longest + "'"));
    EXPECT_EQ(ours.failure(longest + "a'"), theirs.failure(longest + "a'"));
    EXPECT_EQ(ours.failure(longest + "a'"), "LIKE or GLOB pattern too complex");
}

TEST(TextFunctions, LikeAnswersAsThatOfSQLiteWhateverThePatternAndTheText)
{
    Connection ours(true), theirs(false);
    std::mt19937 random(12);
    const auto any = [&random](std::vector<std::string> bytes, std::size_t longest) {
        std::string hex;
        for (std::size_t length = random() % (longest + 1); length > 0; --length)
            hex += bytes[random() % bytes.size()];
        return hex;
    };
    const std::vector<std::string> letters{"61", "41", "62", "2f", "2f", "2e", "5b", "7b", "5f", "25", "5c", "c3", "a4", "ff"};
    int matched = 0;
    for (int i = 0; i < 20'000; ++i) {
        // Now and then a word that is there, as the search has it.
        const std::string text = any(letters, i % 2 ? 8 : 90), word = any({"61", "42", "2f"}, 2);
        const std::string pattern = i % 3 ? (i % 2 ? "25" : "") + word + (i % 5 ? "25" : "") : any(letters, 5);
        for (const char *escape : {"", " ESCAPE '\\'"}) {
            const std::string expression = "CAST(x'" + text + "' AS TEXT) LIKE CAST(x'" + pattern + "' AS TEXT)" + escape;
            const std::string answer = theirs.value(expression);
            ASSERT_EQ(ours.value(expression), answer) << expression;
            matched += answer == "1";
        }
    }
    EXPECT_GT(matched, 2000);
}

TEST(TextFunctions, APatternThatTakesThePlaceOfAnotherIsReadAnew)
{
    Connection ours(true);
    EXPECT_EQ(ours.likes("Report.pdf", {"%.pdf", "%.txt", "rep%", "%port%", "%PORT%", "%.pdf"}), "101111");
}
