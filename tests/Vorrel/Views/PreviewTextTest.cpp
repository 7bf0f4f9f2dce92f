#include "Vorrel/Views/PreviewText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace korvane::previewText;
using namespace std::string_view_literals;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::u16string whole(const Lines &lines)
{
    std::u16string text;
    for (const auto &part : lines.parts)
        text += part;
    return text;
}

} // namespace

TEST(PreviewText, AnEncodingIsFoundByItsMarkItsShapeOrItsLetters)
{
    const struct {
        const char *why;
        std::string_view bytes;
        std::optional<std::u16string> text;
    } cases[] = {
        {"nothing at all", ""sv, u""},
        {"plain letters", "tide\n"sv, u"tide\n"},
        {"UTF-8", "Größe 内港 🌊"sv, u"Größe 内港 🌊"},
        {"UTF-8 with a mark", "\xEF\xBB\xBFtide"sv, u"tide"},
        {"UTF-16 little end first with a mark", "\xFF\xFEt\0i\0\x85\x51"sv, u"ti内"},
        {"UTF-16 big end first with a mark", "\xFE\xFF\0t\0i\x51\x85"sv, u"ti内"},
        {"UTF-32 is not taken for UTF-16", "\xFF\xFE\0\0t\0\0\0"sv, u"t"},
        {"UTF-16 without a mark, by its zeros", "h\0i\0g\0h\0 \0t\0i\0d\0e\0"sv, u"high tide"},
        {"the same with the big end first", "\0h\0i\0g\0h\0 \0t\0i\0d\0e"sv, u"high tide"},
        {"Western letters of one byte",
            "Caf\xE9 und \x93Stra\xDF"
            "e\x94 sind sch\xF6n"sv,
            u"Café und “Straße” sind schön"},
        {"Cyrillic by its letters",
            "\xCF\xF0\xE8\xE2\xE5\xF2, \xEA\xE0\xEA \xE4\xE5\xEB\xE0? \xDD\xF2\xEE \xEE\xE1\xFB\xF7\xED\xFB\xE9 "
            "\xF2\xE5\xEA\xF1\xF2 \xED\xE0 \xF0\xF3\xF1\xF1\xEA\xEE\xEC \xFF\xE7\xFB\xEA\xE5."sv,
            u"Привет, как дела? Это обычный текст на русском языке."},
        {"a program",
            "\x7F"
            "ELF\2\1\1\0\0\0\0\0\0\0\0\0\3\0\x3e\0"sv,
            std::nullopt},
        {"control characters without a zero", "\1\2\3\4\5\6\7\x0e\x0f\x10 abc"sv, std::nullopt},
        {"colours of a terminal are no binary", "\x1b[31mred\x1b[0m\n"sv, u"\x1b[31mred\x1b[0m\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_TRUE(decoded(c.bytes, Extent::Whole) == c.text);
    }
}

TEST(PreviewText, ACharacterThatTheCutHalvedIsLeftOut)
{
    const std::string_view whole = "tide 内"sv;
    for (std::size_t missing : {1U, 2U})
        EXPECT_TRUE(decoded(whole.substr(0, whole.size() - missing), Extent::Cut) == std::u16string(u"tide ")) << missing;
    EXPECT_TRUE(decoded(whole, Extent::Cut) == std::u16string(u"tide 内"));
}

TEST(PreviewText, LinesEndAlikeHoweverTheFileEndsThem)
{
    EXPECT_TRUE(whole(lined(u"a\r\nb\rc\nd")) == u"a\nb\nc\nd");
    EXPECT_TRUE(whole(lined(u"\r\r\n\n")) == u"\n\n\n");
}

TEST(PreviewText, ControlCharactersAreShownAndDoNothing)
{
    EXPECT_TRUE(whole(lined(u"a\x1b[2J\tb\x7f")) == u"a\u241b[2J\tb\u2421");
    EXPECT_TRUE(
        whole(lined(std::u16string_view(u"\0\u0085\u2028\u2029\uFDD0\uFFFF", 6))) == u"\u2400\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD");
}

TEST(PreviewText, LongLinesAreBrokenAndTheirPlacesAreKnown)
{
    const std::u16string endless(longestLine * 2 + 5, u'x');
    const Lines lines = lined(u"short\n" + endless + u"\nend");
    EXPECT_THAT(lines.continued, ElementsAre(1, 2));
    EXPECT_EQ(whole(lines).size(), 6 + endless.size() + 2 + 4);
    EXPECT_THAT(lined(std::u16string(longestLine, u'x') + u"\n").continued, IsEmpty());
}

TEST(PreviewText, ABreakNeverDividesACharacter)
{
    std::u16string text(longestLine - 1, u'x');
    text += u"🌊y";
    const std::u16string broken = whole(lined(text));
    EXPECT_TRUE(broken.ends_with(u"🌊\ny"));
}

TEST(PreviewText, PartsAreWholeLinesAndTheFirstIsSmall)
{
    std::u16string text;
    for (int i = 0; i < 40'000; i++)
        text += u"a line\n";
    const Lines lines = lined(text);
    ASSERT_GT(lines.parts.size(), 3U);
    EXPECT_LT(lines.parts.front().size(), 20'000U);
    for (std::size_t i = 0; i + 1 < lines.parts.size(); i++)
        EXPECT_EQ(lines.parts[i].back(), u'\n');
    EXPECT_TRUE(whole(lines) == text);
}
