#include "Vorrel/Store/TextFunctions.h"

#include <gtest/gtest.h>

#include <random>
#include <sqlite3.h>
#include <string>

using namespace korvane;

namespace {

/// A connection of its own, with our functions or with SQLite's.
class Connection {
public:
    explicit Connection(bool ours)
    {
        sqlite3_open(":memory:", &handle);
        if (ours)
            useOwnTextFunctions(handle);
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
