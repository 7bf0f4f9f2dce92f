#include "Support/Text.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <limits>
#include <thread>

using namespace korvane;
using namespace std::string_view_literals;
using Views = std::vector<std::string_view>;

namespace {

/// The UTF-8 of one code point.
std::string encoded(char32_t point)
{
    if (point < 0x80)
        return {char(point)};
    if (point < 0x800)
        return {char(0xC0 | point >> 6), char(0x80 | (point & 0x3F))};
    if (point < 0x10000)
        return {char(0xE0 | point >> 12), char(0x80 | (point >> 6 & 0x3F)), char(0x80 | (point & 0x3F))};
    return {char(0xF0 | point >> 18), char(0x80 | (point >> 12 & 0x3F)), char(0x80 | (point >> 6 & 0x3F)),
        char(0x80 | (point & 0x3F))};
}

bool isSurrogate(char32_t point) { return point >= 0xD800 && point <= 0xDFFF; }

/// Code points from the blocks where folding has something to do, and from anywhere.
rc::Gen<std::string> anyText()
{
    const auto point = rc::gen::oneOf(rc::gen::inRange<char32_t>(1, 0x80), rc::gen::inRange<char32_t>(0x80, 0x250),
        rc::gen::inRange<char32_t>(0x300, 0x370), rc::gen::inRange<char32_t>(0x590, 0x700),
        rc::gen::inRange<char32_t>(0x900, 0xE80), rc::gen::inRange<char32_t>(0x1C80, 0x2000),
        rc::gen::inRange<char32_t>(0x3040, 0x3100), rc::gen::element<char32_t>(0x34F, 0x130, 0xFE0F, 0x200D, 0x1F468, 0xAC01),
        rc::gen::inRange<char32_t>(0xE000, 0x20000));
    return rc::gen::map(rc::gen::container<std::vector<char32_t>>(point), [](const std::vector<char32_t> &points) {
        std::string text;
        for (const char32_t each : points)
            text += encoded(each);
        return text;
    });
}

rc::Gen<std::string> asciiText() { return rc::gen::container<std::string>(rc::gen::inRange<char>(0, 127)); }

rc::Gen<std::string> anyBytes() { return rc::gen::arbitrary<std::string>(); }

rc::Gen<std::string> bytesOrText() { return rc::gen::oneOf(anyText(), anyBytes(), asciiText()); }

int sign(int value) { return (value > 0) - (value < 0); }

} // namespace

TEST(TextFolding, LettersThatDifferInCaseOrDiacriticsAloneFoldAlike)
{
    const struct {
        const char *why;
        std::string_view text, expected;
    } cases[] = {
        {"nothing", "", ""},
        {"capitals of ASCII", "Safari AZ[@`{09", "safari az[@`{09"},
        {"an accented letter", "É", "e"},
        {"the same letter in two code points", "E\u0301", "e"},
        {"two marks on one letter", "ệ", "e"},
        {"marks of their own", "\u0301\u0308", ""},
        {"German, where one letter becomes two", "Straße", "strasse"},
        {"the capital of it", "STRAẞE", "strasse"},
        {"an umlaut", "Müller", "muller"},
        {"Turkish with a dot", "İzmir", "izmir"},
        {"Turkish without a dot", "ışık", "isik"},
        {"the same in capitals", "IŞIK", "isik"},
        {"strokes: Danish, Polish, Croatian, Maltese, Sami", "Øster Łódź Đakovo Ħamrun Ŧ", "oster lodz dakovo hamrun t"},
        {"a stroke with an accent", "Ǿ", "o"},
        {"letters that are no plain letter with something on it", "Æsir Œuvre Þór Ðe", "æsir œuvre þor ðe"},
        {"Greek, with its final sigma", "ΟΔΥΣΣΕΎΣ Οδυσσεύς", "οδυσσευσ οδυσσευσ"},
        {"Cyrillic", "Ёлка Йод", "елка иод"},
        {"a ligature", "ﬁle", "file"},
        {"signs that are letters", "\u212A\u212B", "ka"},
        {"Vietnamese", "Đường Nguyễn", "duong nguyen"},
        {"Chinese has neither", "日历 设置", "日历 设置"},
        {"Hebrew points are optional", "שָׁלוֹם", "שלום"},
        {"Arabic vowel signs are optional", "مُحَمَّد", "محمد"},
        {"Hindi vowel signs and virama are part of the word", "हिन्दी", "हिन्दी"},
        {"Thai vowel and tone signs are part of the word", "ที่นี่", "ที่นี่"},
        {"a Japanese voicing mark makes another letter, however it is written", "が", "か\u3099"},
        {"a picture with and without its variation selector", "❤\uFE0F", "❤"},
        {"beyond the first plane", "𐐀", "𐐨"},
        {"a NUL is a character", "A\0É"sv, "a\0e"sv},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(folded(c.text), c.expected);
        EXPECT_EQ(detail::foldedByUnicode(c.text), c.expected);
    }
}

TEST(TextFolding, AKoreanSyllableBeginsWithTheOneThatIsStillBeingTyped)
{
    EXPECT_TRUE(folded("한글").starts_with(folded("하")));
    EXPECT_FALSE(folded("한글").starts_with(folded("그")));
}

TEST(TextFolding, WhatIsNotUTF8BecomesTheReplacementCharacter)
{
    EXPECT_EQ(folded("A\xFFZ"), "a\uFFFDz");
    EXPECT_EQ(folded("\xC3"), "\uFFFD");
    EXPECT_EQ(folded("É\xED\xA0\x80"), "e\uFFFD\uFFFD\uFFFD");
}

TEST(TextFolding, EveryCodePointFoldsToValidTextThatFoldsToItself)
{
    for (char32_t point = 0; point <= 0x10FFFF; ++point) {
        if (isSurrogate(point))
            continue;
        const auto once = folded(encoded(point));
        ASSERT_TRUE(isValidUTF8(once)) << std::hex << std::uint32_t(point);
        ASSERT_EQ(folded(once), once) << std::hex << std::uint32_t(point);
    }
}

TEST(TextFolding, MarksThatStayAreInCanonicalOrderWhenTheOneThatKeptThemApartGoes)
{
    const auto apart = folded("क\u094D\u034F\u093C");
    EXPECT_EQ(apart, "क\u093C\u094D");
    EXPECT_EQ(folded(apart), apart);
}

RC_GTEST_PROP(TextFolding, TheFastPathForASCIIGivesWhatTheGeneralPathGives, ())
{
    const auto text = *asciiText();
    RC_ASSERT(folded(text) == detail::foldedByUnicode(text));
}

RC_GTEST_PROP(TextFolding, FoldingTwiceIsFoldingOnce, ())
{
    const auto once = folded(*bytesOrText());
    RC_ASSERT(isValidUTF8(once));
    RC_ASSERT(folded(once) == once);
}

RC_GTEST_PROP(TextFolding, CaseMakesNoDifferenceToLatinText, ())
{
    const auto text = *rc::gen::map(rc::gen::container<std::vector<char32_t>>(rc::gen::inRange<char32_t>(0xC0, 0x17F)),
        [](const std::vector<char32_t> &points) {
            std::string result;
            for (const char32_t each : points)
                result += encoded(each);
            return result;
        });
    RC_ASSERT(folded(uppercased(text)) == folded(text));
    RC_ASSERT(folded(lowercased(text)) == folded(text));
}

TEST(TextContainment, IgnoresCaseAndDiacritics)
{
    EXPECT_TRUE(containsFolded("Crème Brûlée", "brulee"));
    EXPECT_TRUE(containsFolded("creme brulee", "BRÛLÉE"));
    EXPECT_TRUE(containsFolded("Systemeinstellungen", "EINSTELLUNG"));
    EXPECT_TRUE(containsFolded("系统设置", "设置"));
    EXPECT_FALSE(containsFolded("Crème", "cremes"));
}

TEST(TextContainment, AnEmptyPartIsInNoText)
{
    EXPECT_FALSE(containsFolded("Safari", ""));
    EXPECT_FALSE(containsFolded("", ""));
    EXPECT_FALSE(containsBytes({}, {}));
    EXPECT_FALSE(containsBytes({}, "a"));
}

TEST(TextContainment, DiacriticsAloneAreInNoText) { EXPECT_FALSE(containsFolded("é", "\u0301")); }

TEST(TextContainment, LooksAtAllBytesAlsoBehindANul)
{
    EXPECT_TRUE(containsBytes("a\0b"sv, "b"));
    EXPECT_TRUE(containsBytes("a\0b"sv, "\0b"sv));
    EXPECT_FALSE(containsBytes("a\0b"sv, "ab"));
    EXPECT_TRUE(containsBytes("abc", "abc"));
    EXPECT_FALSE(containsBytes("abc", "abcd"));
}

TEST(TextContainment, LongTextsAreSearchedLikeShortOnes)
{
    for (const std::size_t size : {100u, 511u, 512u, 513u, 100'000u}) {
        const std::string filler(size, 'a');
        EXPECT_TRUE(containsBytes(filler + "needle", "needle")) << size;
        EXPECT_TRUE(containsBytes("needle" + filler, "needle")) << size;
        EXPECT_TRUE(containsBytes(filler, filler)) << size;
        EXPECT_FALSE(containsBytes(filler + "needl", "needle")) << size;
        EXPECT_FALSE(containsBytes(filler, filler + "a")) << size;
    }
}

RC_GTEST_PROP(TextContainment, ATextContainsEachOfItsParts, ())
{
    const auto before = *anyText(), part = *anyText(), after = *anyText();
    // Marks at the seams change places with others when the text is put into canonical order.
    const auto whole = folded(before) + folded(part) + folded(after);
    RC_ASSERT(containsBytes(whole, folded(part)) == !folded(part).empty());
}

TEST(TextTrimming, TakesEveryKindOfWhiteSpaceFromBothEnds)
{
    EXPECT_EQ(trimmed(" \t\r\n\v\f a b \u00A0\u2003\u2028\u3000"), "a b");
    EXPECT_EQ(trimmed("\u3000设置\u0085"), "设置");
    EXPECT_EQ(trimmed("ab"), "ab");
    EXPECT_EQ(trimmed(" \n "), "");
    EXPECT_EQ(trimmed(""), "");
    EXPECT_EQ(trimmed({}), "");
}

TEST(TextTrimming, KeepsWhatOnlyLooksEmpty)
{
    EXPECT_EQ(trimmed("\u200B"), "\u200B"); // zero width, but no white space
    EXPECT_EQ(trimmed(" \0 "sv), "\0"sv);
}

TEST(TextTrimming, KeepsBytesThatAreNotUTF8)
{
    EXPECT_EQ(trimmed(" \xFF "), "\xFF");
    EXPECT_EQ(trimmed("\x80\x80 "), "\x80\x80");
    EXPECT_EQ(trimmed(" \xE3\x80"), "\xE3\x80");
}

TEST(TextComparison, NumbersCompareByTheirValue)
{
    EXPECT_LT(compareNames("file9", "file10"), 0);
    EXPECT_GT(compareNames("2024-10", "2024-9"), 0);
}

TEST(TextComparison, LettersCompareBeforeTheirCase)
{
    EXPECT_LT(compareNames("apple", "Banana"), 0);
    EXPECT_LT(compareNames("Apple", "banana"), 0);
    EXPECT_NE(compareNames("apple", "Apple"), 0);
    EXPECT_LT(compareNames("é", "f"), 0);
}

TEST(TextComparison, OnlyTextsThatCollateAlikeAreEqual)
{
    EXPECT_EQ(compareNames("é", "e\u0301"), 0);
    EXPECT_EQ(compareNames("", ""), 0);
    EXPECT_NE(compareNames("e", "é"), 0);
    EXPECT_NE(compareNames("", "a"), 0);
}

RC_GTEST_PROP(TextComparison, IsATotalOrder, ())
{
    const auto a = *bytesOrText(), b = *bytesOrText(), c = *bytesOrText();
    RC_ASSERT(compareNames(a, a) == 0);
    RC_ASSERT(sign(compareNames(a, b)) == -sign(compareNames(b, a)));
    if (compareNames(a, b) <= 0 && compareNames(b, c) <= 0)
        RC_ASSERT(compareNames(a, c) <= 0);
}

TEST(TextThreads, ManyThreadsCompareAndCutTextAtOnce)
{
    std::vector<std::thread> threads;
    std::vector<int> right(4);
    for (auto &count : right)
        threads.emplace_back([&count] {
            for (int i = 0; i < 200; ++i)
                count += compareNames("é9", "é10") < 0 && characterCount("e\u0301日") == 2 && folded("É") == "e";
        });
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(right, std::vector<int>(4, 200));
}

TEST(TextCharacters, AreWhatAReaderSeesAsOne)
{
    EXPECT_EQ(characters(""), Views{});
    EXPECT_EQ(characters("ab"), (Views{"a", "b"}));
    EXPECT_EQ(characters("a\r\nb\n\r"), (Views{"a", "\r\n", "b", "\n", "\r"}));
    EXPECT_EQ(characters("e\u0301x"), (Views{"e\u0301", "x"}));
    EXPECT_EQ(characters("é\r\n"), (Views{"é", "\r\n"}));
    EXPECT_EQ(characters("日历"), (Views{"日", "历"}));
    EXPECT_EQ(characters("👩‍👩‍👧🇩🇪🇫🇷"), (Views{"👩‍👩‍👧", "🇩🇪", "🇫🇷"}));
    EXPECT_EQ(characterCount("👍🏽!"), 2u);
}

TEST(TextCharacters, CountAThousandAlike)
{
    EXPECT_EQ(characterCount(std::string(1000, 'a')), 1000u);
    std::string accents;
    for (int i = 0; i < 1000; ++i)
        accents += "e\u0301";
    EXPECT_EQ(characterCount(accents), 1000u);
}

RC_GTEST_PROP(TextCharacters, TogetherAreTheWholeText, ())
{
    const auto text = *bytesOrText();
    const auto parts = characters(text);
    std::string whole;
    for (const auto part : parts) {
        RC_ASSERT(!part.empty());
        whole += part;
    }
    RC_ASSERT(whole == text);
    RC_ASSERT(characterCount(text) == parts.size());
}

TEST(TextCharacters, AreWhiteSpaceByTheirFirstCodePoint)
{
    for (const auto space : {" "sv, "\t"sv, "\r\n"sv, "\u00A0"sv, "\u3000"sv, "\u2029"sv, "\u0085"sv})
        EXPECT_TRUE(isWhitespace(space));
    for (const auto other : {""sv, "a"sv, "\0"sv, "\u200B"sv, "\xFF"sv, "日"sv})
        EXPECT_FALSE(isWhitespace(other));
}

TEST(TextValidity, RefusesEveryIllFormedSequence)
{
    for (const auto good : {""sv, "a\0b"sv, "é"sv, "日"sv, "\U0010FFFF"sv, "\uFFFF"sv})
        EXPECT_TRUE(isValidUTF8(good));
    const struct {
        const char *why;
        std::string_view text;
    } cases[] = {
        {"a byte that never occurs", "\xFF"},
        {"a continuation alone", "abcdefgh\x80"},
        {"cut short", "日\xE6\x97"},
        {"a surrogate", "\xED\xA0\x80"},
        {"longer than needed", "\xC0\xAF"},
        {"beyond the last code point", "\xF4\x90\x80\x80"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_FALSE(isValidUTF8(c.text));
        EXPECT_TRUE(isValidUTF8(displayable(c.text)));
    }
}

TEST(TextValidity, DisplayableTextKeepsWhatIsValid)
{
    EXPECT_EQ(displayable("日é\0"sv), "日é\0"sv);
    EXPECT_EQ(displayable("a\xFFé\xC3"), "a\uFFFDé\uFFFD");
}

RC_GTEST_PROP(TextValidity, DisplayableTextIsValidAndStays, ())
{
    const auto bytes = *bytesOrText();
    const auto shown = displayable(bytes);
    RC_ASSERT(isValidUTF8(shown));
    RC_ASSERT((shown == bytes) == isValidUTF8(bytes));
}

TEST(TextCase, MapsByTheRulesOfAllLanguages)
{
    EXPECT_EQ(lowercased("SAFARI ÄÖ"), "safari äö");
    EXPECT_EQ(uppercased("safari äö straße"), "SAFARI ÄÖ STRASSE");
    EXPECT_EQ(uppercased("az{`"), "AZ{`");
    EXPECT_EQ(lowercased("PNG"), "png");
    EXPECT_EQ(lowercased("I"), "i");
}

TEST(TextCase, KeepsBytesThatAreNotUTF8)
{
    EXPECT_EQ(lowercased("É\xFF"), "é\xFF");
    EXPECT_EQ(uppercased("\xC3é\x80"), "\xC3É\x80");
}

TEST(TextNumbers, AnIntegerIsTheWholeText)
{
    EXPECT_EQ(integerFrom("42"), 42);
    EXPECT_EQ(integerFrom("-7"), -7);
    EXPECT_EQ(integerFrom("9223372036854775807"), std::numeric_limits<long long>::max());
    EXPECT_EQ(integerFrom("-9223372036854775808"), std::numeric_limits<long long>::min());
    for (const auto text : {""sv, " 1"sv, "1 "sv, "+1"sv, "1.0"sv, "0x1"sv, "-"sv, "9223372036854775808"sv, "1\0"sv})
        EXPECT_FALSE(integerFrom(text)) << text;
}

TEST(TextNumbers, ARealIsTheWholeText)
{
    EXPECT_EQ(realFrom("1.5"), 1.5);
    EXPECT_EQ(realFrom("5."), 5.0);
    EXPECT_EQ(realFrom(".5"), 0.5);
    EXPECT_EQ(realFrom("-2e3"), -2000.0);
    for (const auto text : {""sv, "."sv, " 1"sv, "1 "sv, "+1"sv, "1,5"sv, "nan"sv, "1.2.3"sv, "1\0"sv})
        EXPECT_FALSE(realFrom(text)) << text;
}

TEST(TextNumbers, ARealBeyondTheRangeIsInfiniteOrZero)
{
    constexpr double infinity = std::numeric_limits<double>::infinity();
    EXPECT_EQ(realFrom("1e400"), infinity);
    EXPECT_EQ(realFrom("-1e400"), -infinity);
    EXPECT_EQ(realFrom("inf"), infinity);
    EXPECT_EQ(realFrom("1e-400"), 0.0);
    EXPECT_EQ(realFrom(std::string(400, '9')), infinity);
}

TEST(TextUTF8, EverySequenceIsTakenForWhatTheLibraryTakesItFor)
{
    const auto asLibrary = [](const std::string &bytes) {
        for (std::size_t length = 1; length <= std::min<std::size_t>(4, bytes.size()); ++length)
            if (const auto part = bytes.substr(0, length); displayable(part) == part)
                return length;
        return std::size_t(0);
    };
    const auto check = [&](std::string bytes) {
        ASSERT_EQ(codePointLength(bytes), asLibrary(bytes)) << testing::PrintToString(bytes);
    };
    for (int lead = 0x80; lead < 256; ++lead)
        for (int second = 0x7F; second <= 0xC0; ++second)
            for (const char third : {'\x7F', '\x80', '\xBF', '\xC0'}) {
                check({char(lead), char(second), third, '\x80'});
                check({char(lead), char(second), third, '\xC0'});
            }
    EXPECT_EQ(codePointLength(""), 0U);
    for (const char *cut : {"\xC3", "\xE6\x97", "\xF0\x9F\x98"})
        EXPECT_EQ(codePointLength(cut), 0U);
}

TEST(WithoutControls, KeepsTextItsLinesAndItsTabs)
{
    EXPECT_EQ(withoutControls("a\tb\nc"), "a\tb\nc");
    EXPECT_EQ(withoutControls("a\r\nb\rc\r"), "a\nb\nc\n");
    EXPECT_EQ(withoutControls("été 内港 שלום 👩‍🚀"), "été 内港 שלום 👩‍🚀");
    EXPECT_EQ(withoutControls(""), "");
}

TEST(WithoutControls, ShowsWhereSomethingWouldMoveACursorOrTurnTheDirection)
{
    EXPECT_EQ(withoutControls("\x1b[2J"), "\uFFFD[2J");
    EXPECT_EQ(withoutControls(std::string_view("a\0b\x7f", 4)), "a\uFFFDb\uFFFD");
    EXPECT_EQ(withoutControls("\xc2\x9b"
                              "31m"),
        "\uFFFD31m")
        << "the same as one byte of eight bits";
    for (const char *turn : {"\u202A", "\u202E", "\u2066", "\u2069"})
        EXPECT_EQ(withoutControls(turn), "\uFFFD");
    EXPECT_EQ(withoutControls("a\xff"), "a\uFFFD");
}

TEST(FirstCharacters, AreWholeCharactersHoweverLongTheyAre)
{
    EXPECT_EQ(firstCharacters("", 3), "");
    EXPECT_EQ(firstCharacters("ab", 3), "ab");
    EXPECT_EQ(firstCharacters("abc", 3), "abc");
    EXPECT_EQ(firstCharacters("abcd", 3), "abc");
    EXPECT_EQ(firstCharacters("abc", 0), "");
    EXPECT_EQ(firstCharacters("👩‍👩‍👧x👩‍👩‍👧y", 3), "👩‍👩‍👧x👩‍👩‍👧");
    std::string accents = "a";
    for (int i = 0; i < 500; ++i)
        accents += "\u0301";
    EXPECT_EQ(firstCharacters(accents + "bc", 2), accents + "b") << "one letter of a thousand bytes";
    EXPECT_EQ(firstCharacters(std::string(1'000'000, 'x'), 180), std::string(180, 'x'));
}
