#include "Vorrel/Launch/ApplicationService.h"

#include <gtest/gtest.h>

using namespace korvane;
using Strings = std::vector<std::string>;

TEST(LaunchArgumentsTest, SplitsALineByItsRules)
{
    const struct {
        const char *why;
        std::string line;
        Strings arguments;
    } cases[] = {
        {"nothing typed", "", {}},
        {"blanks alone are no argument", " \t\n ", {}},
        {"one word", "a", {"a"}},
        {"white space separates, however much", "  a \t b\nc  ", {"a", "b", "c"}},
        {"a flag and two quoted pairs keep their blanks", R"(--flag "two words" 'other words')",
            {"--flag", "two words", "other words"}},
        {"an open quote runs to the end", "\"a b c", {"a b c"}},
        {"an open single quote too, with what was before it", "x'a b ", {"xa b "}},
        {"an open quote with nothing behind it is nothing", "a \"", {"a"}},
        {"a pair of quotes with nothing in it is no argument", "a \"\" '' b", {"a", "b"}},
        {"a quoted stretch joins its word", R"(--name="Ada L"ovelace)", {"--name=Ada Lovelace"}},
        {"two quoted stretches join too", R"('a'"b")", {"ab"}},
        {"the other quote inside a quote is ordinary", R"("it's" 'say "hi"')", {"it's", "say \"hi\""}},
        {"a backslash is ordinary", R"(a\ b "c\" d)", {"a\\", "b", "c\\", "d"}},
        {"typographic quotes are ordinary", "“a b”", {"“a", "b”"}},
        {"a no-break space is white space", "a\u00A0b", {"a", "b"}},
        {"an ideographic space is white space", "打开\u3000应用", {"打开", "应用"}},
        {"a carriage return with its line feed is one white space", "a\r\nb", {"a", "b"}},
        {"a quote with a combining mark is another character", "\"\u0301a b", {"\"\u0301a", "b"}},
        {"a character of several code points stays whole", "👩‍👩‍👧 é", {"👩‍👩‍👧", "é"}},
        {"bytes that are no text pass through", "a\xff b", {"a\xff", "b"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(LaunchArguments::split(c.line), c.arguments);
    }
}

TEST(LaunchArgumentsTest, AVeryLongLineIsSplitToo)
{
    std::string line;
    for (int i = 0; i < 100'000; ++i)
        line += "ab 'c d' ";
    EXPECT_EQ(LaunchArguments::split(line).size(), 200'000u);
}
