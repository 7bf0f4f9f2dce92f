#include "CommandCore/JSONValue.h"

#include "CommandCore/Commands.h"
#include "Support/Text.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>

using namespace korvane;
using namespace std::string_view_literals;

namespace {

using Array = JSONValue::Array;
using Object = JSONValue::Object;

bool isRefused(std::string_view text)
{
    try {
        JSONValue::parse(text);
    } catch (const JSONError &error) {
        return *error.what() != 0;
    }
    return false;
}

std::string nested(std::size_t levels, char open = '[', char close = ']')
{
    return std::string(levels, open) + std::string(levels, close);
}

constexpr int veryDeep = 100'000; // levels: more than a call stack has room for

/// Arrays and objects in turn inside each other, a number in the innermost.
JSONValue deepTree(int levels, int innermost)
{
    JSONValue tree(innermost);
    for (int level = 0; level < levels; ++level) {
        JSONValue::Object object;
        JSONValue::Array array;
        if (level % 2) {
            object.emplace("a", std::move(tree));
            tree = std::move(object);
        } else {
            array.push_back(std::move(tree));
            tree = std::move(array);
        }
    }
    return tree;
}

/// The sentence with which a tool refuses its input; empty when it does not.
std::string refusalOf(const JSONValue &input, std::string_view key)
{
    try {
        input.requiredString(key);
    } catch (const AppError &error) {
        return error.kind() == AppError::Kind::toolExecution ? error.errorDescription() : "another kind";
    }
    return "";
}

JSONValue anyValue(int depth)
{
    switch (*rc::gen::inRange(0, depth > 0 ? 6 : 4)) {
    case 0: return nullptr;
    case 1: return *rc::gen::arbitrary<bool>();
    case 2: {
        const auto number = std::bit_cast<double>(*rc::gen::arbitrary<std::uint64_t>()); // of every size
        return std::isfinite(number) ? number : 0.5;
    }
    case 3: return displayable(*rc::gen::arbitrary<std::string>());
    case 4: {
        Array array;
        for (int i = *rc::gen::inRange(0, 4); i > 0; --i)
            array.push_back(anyValue(depth - 1));
        return array;
    }
    default: {
        Object object;
        for (int i = *rc::gen::inRange(0, 4); i > 0; --i)
            object.insert_or_assign(displayable(*rc::gen::arbitrary<std::string>()), anyValue(depth - 1));
        return object;
    }
    }
}

} // namespace

TEST(JSONReading, GivesEachTypeItsCase)
{
    EXPECT_EQ(JSONValue::parse(R"([1, true, "a", null])"), JSONValue(Array{1, true, "a", nullptr}));
    EXPECT_EQ(JSONValue::parse(R"( {"a" : {"b": [false, -2.5e1]}, "": ""} )"),
        JSONValue(Object{{"a", Object{{"b", Array{false, -25}}}}, {"", ""}}));
    EXPECT_EQ(JSONValue::parse("\t\r\n null "), JSONValue());
    EXPECT_EQ(JSONValue::parse("{}"), JSONValue(Object{}));
    EXPECT_EQ(JSONValue::parse("[]"), JSONValue(Array{}));
    EXPECT_EQ(JSONValue::parse("\"\""), JSONValue(""));
}

TEST(JSONReading, WholeAndFractionalSpellingsAreTheSameNumber) { EXPECT_EQ(JSONValue::parse("1.0"), JSONValue::parse("1")); }

TEST(JSONReading, ABooleanIsNoNumber)
{
    EXPECT_NE(JSONValue::parse("true"), JSONValue::parse("1"));
    EXPECT_EQ(JSONValue::parse("true").number(), nullptr);
    EXPECT_EQ(JSONValue::parse("1").boolean(), nullptr);
}

TEST(JSONReading, TheNegativeZeroKeepsItsSign)
{
    for (const auto text : {"-0", "-0.0", "-0e5", "[-0]"}) {
        const auto value = JSONValue::parse(text);
        const auto *number = value.array() ? value.array()->front().number() : value.number();
        EXPECT_EQ(*number, 0) << text;
        EXPECT_TRUE(std::signbit(*number)) << text;
    }
    EXPECT_FALSE(std::signbit(*JSONValue::parse("0").number()));
}

TEST(JSONReading, IntegersOfAnySizeAreTheNearestDouble)
{
    EXPECT_EQ(*JSONValue::parse("9223372036854775807").number(), 0x1p63);
    EXPECT_EQ(*JSONValue::parse("-9223372036854775808").number(), -0x1p63);
    EXPECT_EQ(*JSONValue::parse("18446744073709551615").number(), 0x1p64);
    EXPECT_EQ(*JSONValue::parse("18446744073709551616").number(), 0x1p64);
    EXPECT_EQ(*JSONValue::parse("-9223372036854775809").number(), -0x1p63);
    EXPECT_EQ(*JSONValue::parse("100000000000000000000000000000").number(), 1e29);
}

TEST(JSONReading, OfDuplicateKeysTheLastCounts)
{
    EXPECT_EQ(JSONValue::parse(R"({"a":1,"b":2,"a":[3]})"), JSONValue(Object{{"a", Array{3}}, {"b", 2}}));
}

TEST(JSONReading, UnderstandsEveryEscape)
{
    EXPECT_EQ(
        JSONValue::parse(R"("\"\\\/\b\f\n\r\t\u00e9\uD83D\uDE00\u0000")"), JSONValue(std::string("\"\\/\b\f\n\r\té😀\0"sv)));
}

TEST(JSONReading, RefusesWhatIsNotOneJSONText)
{
    const struct {
        const char *why;
        std::string_view text;
    } cases[] = {
        {"empty", ""},
        {"white space", "  "},
        {"a byte order mark", "\xEF\xBB\xBF{}"},
        {"a part of one", "\xEF\xBB{}"},
        {"text behind the value", "{} x"},
        {"a second value", "1 2"},
        {"a raw NUL behind the value", "1\0"sv},
        {"text behind a raw NUL", "{}\0garbage"sv},
        {"a raw NUL in a text", "\"a\0b\""sv},
        {"a NUL alone", "\0"sv},
        {"an open array", "[1"},
        {"an open object", R"({"a":)"},
        {"an open text", "\"a"},
        {"a comma at the end", "[1,]"},
        {"a key that is no text", "{1:2}"},
        {"single quotes", "{'a':1}"},
        {"a comment", "1 // one"},
        {"another comment", "/* one */ 1"},
        {"a leading zero", "01"},
        {"a leading point", ".5"},
        {"a trailing point", "5."},
        {"a plus sign", "+5"},
        {"not-a-number", "NaN"},
        {"an infinity", "Infinity"},
        {"a number that overflows a double", "1e400"},
        {"the same without an exponent", "-1e309"},
        {"a lone high surrogate", R"("\uD83D")"},
        {"a lone low surrogate", R"("\uDE00")"},
        {"an unknown escape", R"("\x41")"},
        {"a raw control character", "\"a\nb\""},
        {"a byte that is not UTF-8", "\"\xFF\""},
        {"an encoded surrogate", "\"\xED\xA0\x80\""},
        {"an overlong form", "\"\xC0\xAF\""},
        {"bad UTF-8 in a key", "{\"\x80\":1}"},
        {"a capital literal", "True"},
        {"mismatched brackets", "[1}"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_TRUE(isRefused(c.text));
    }
}

TEST(JSONReading, ADigitRunThatOverflowsIsRefused)
{
    EXPECT_TRUE(isRefused(std::string(400, '9')));
    EXPECT_FALSE(isRefused(std::string(300, '9')));
}

TEST(JSONReading, FiveHundredAndTwelveLevelsPassAndOneMoreFails)
{
    EXPECT_FALSE(isRefused(nested(512)));
    EXPECT_TRUE(isRefused(nested(513)));
    std::string objects;
    for (int i = 0; i < 512; ++i)
        objects += "{\"a\":";
    EXPECT_FALSE(isRefused(objects + "1" + std::string(512, '}')));
    EXPECT_TRUE(isRefused("[" + objects + "1" + std::string(512, '}') + "]"));
}

TEST(JSONReading, EndlessNestingIsRefusedWithoutHarm) { EXPECT_TRUE(isRefused(std::string(10'000'000, '['))); }

TEST(JSONReading, ManyShallowContainersAreNotDeep)
{
    std::string text = "[";
    for (int i = 0; i < 2000; ++i)
        text += "[],{},";
    const auto value = JSONValue::parse(text + "1]");
    EXPECT_EQ(value.array()->size(), 4001u);
}

TEST(JSONAccess, FindsTheMemberOfAnObject)
{
    const JSONValue value(Object{{"x", 5}, {"none", nullptr}});
    EXPECT_EQ(value["x"], JSONValue(5));
    EXPECT_TRUE(value["none"].isNull());
    EXPECT_TRUE(value["y"].isNull());
    EXPECT_EQ(value["y"]["z"], JSONValue());
}

TEST(JSONAccess, WhatIsNoObjectHasNoMembers)
{
    for (const auto &value : {JSONValue("x"), JSONValue(Array{1}), JSONValue(1), JSONValue(true), JSONValue()})
        EXPECT_TRUE(value["x"].isNull());
}

TEST(JSONAccess, EachAccessorAnswersForItsOwnCase)
{
    const JSONValue text("a"), number(1.5), boolean(false), array(Array{}), object(Object{}), null;
    EXPECT_EQ(*text.string(), "a");
    EXPECT_EQ(*number.number(), 1.5);
    EXPECT_EQ(*boolean.boolean(), false);
    EXPECT_TRUE(array.array()->empty());
    EXPECT_TRUE(object.object()->empty());
    EXPECT_TRUE(null.isNull());
    for (const auto *other : {&number, &boolean, &array, &object, &null})
        EXPECT_EQ(other->string(), nullptr);
    for (const auto *other : {&text, &number, &boolean, &object, &null})
        EXPECT_EQ(other->array(), nullptr);
    EXPECT_FALSE(text.isNull());
}

TEST(JSONAccess, EqualityIsStructural)
{
    EXPECT_EQ(JSONValue(Object{{"a", 1}, {"b", 2}}), JSONValue(Object{{"b", 2}, {"a", 1}}));
    EXPECT_NE(JSONValue(Array{1, 2}), JSONValue(Array{2, 1}));
    EXPECT_NE(JSONValue(Object{}), JSONValue(Array{}));
    EXPECT_NE(JSONValue(""), JSONValue());
}

TEST(JSONWriting, IsCompactAndEscapesTheSolidus)
{
    const struct {
        JSONValue value;
        std::string_view text;
    } cases[] = {
        {nullptr, "null"},
        {true, "true"},
        {false, "false"},
        {"/usr/bin", R"("\/usr\/bin")"},
        {"a\"b\\c", R"("a\"b\\c")"},
        {"\b\f\n\r\t\x01\x1F\x7F", "\"\\b\\f\\n\\r\\t\\u0001\\u001f\x7F\""},
        {std::string("\0", 1), R"("\u0000")"},
        {"é日😀", "\"é日😀\""},
        {Array{}, "[]"},
        {Object{}, "{}"},
        {Array{1, Array{"a", nullptr}, Object{{"k", true}}}, R"([1,["a",null],{"k":true}])"},
        {Object{{"a/b", 1}}, R"({"a\/b":1})"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.value.encodedString(), c.text);
}

TEST(JSONWriting, WritesEveryMemberOfAnObject)
{
    const JSONValue value(Object{{"a", 1}, {"b", Array{2}}, {"c", "3"}});
    EXPECT_EQ(JSONValue::parse(value.encodedString()), value);
    EXPECT_EQ(value.encodedString().size(), std::string_view(R"({"a":1,"b":[2],"c":"3"})").size());
}

TEST(JSONWriting, WholeNumbersHaveNoFraction)
{
    const struct {
        double value;
        const char *text;
    } cases[] = {
        {1.0, "1"},
        {-0.0, "-0"},
        {0, "0"},
        {100000, "100000"},
        {-42, "-42"},
        {1e15, "1000000000000000"},
        {9007199254740993.0, "9007199254740992"},
        {0x1p63, "9223372036854775808"},
        {1e20, "100000000000000000000"},
        {1e21, "1e+21"},
        {0.1, "0.1"},
        {0.1 + 0.2, "0.30000000000000004"},
        {-1.5, "-1.5"},
        {1e-7, "1e-07"},
        {5e-324, "5e-324"},
        {1.7976931348623157e308, "1.7976931348623157e+308"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(JSONValue(c.value).encodedString(), c.text);
}

TEST(JSONWriting, RefusesNumbersThatJSONCannotExpress)
{
    constexpr auto infinity = std::numeric_limits<double>::infinity();
    for (const double number : {std::nan(""), infinity, -infinity}) {
        EXPECT_THROW(JSONValue(number).encodedString(), JSONError);
        EXPECT_THROW(JSONValue(Object{{"a", Array{number}}}).encodedString(), JSONError);
    }
}

TEST(JSONWriting, RepairsTextThatIsNotUTF8)
{
    EXPECT_EQ(JSONValue("a\xFF"
                        "b")
                  .encodedString(),
        "\"a\uFFFDb\"");
    EXPECT_EQ(JSONValue(Object{{"\xC3", 1}}).encodedString(), "{\"\uFFFD\":1}");
}

TEST(JSONReading, AnArrayOfScalarsKeepsTheirCasesInOrder)
{
    const auto value = JSONValue::parse(R"([1, true, "a", null])");
    const auto &array = *value.array();
    ASSERT_EQ(array.size(), 4U);
    EXPECT_TRUE(array[0].number() && array[1].boolean() && array[2].string() && array[3].isNull());
}

TEST(JSONRequiredText, EveryWayToLackItGivesTheSameSentence)
{
    for (const auto text : {R"({"x":""})", R"({"x":5})", R"({"x":null})", "{}", "[]", "\"x\"", "null"})
        EXPECT_EQ(refusalOf(JSONValue::parse(text), "x"), "Missing or invalid input: x.") << text;
    EXPECT_EQ(refusalOf(JSONValue(Object{}), "query"), "Missing or invalid input: query.");
}

TEST(JSONRequiredText, BlanksAreAText) { EXPECT_EQ(JSONValue::parse(R"({"x":"  "})").requiredString("x"), "  "); }

TEST(JSONSchema, WithNothingToDescribeItStillHasAllFourMembers)
{
    EXPECT_EQ(JSONValue::schema({}, {}),
        JSONValue(Object{{"type", "object"}, {"properties", Object{}}, {"required", Array{}}, {"additionalProperties", false}}));
}

TEST(JSONSchema, DescribesTextsAndNamesTheRequiredOnesInTheirOrder)
{
    const auto schema = JSONValue::schema({{"path", "Where"}, {"sort", "How"}}, {"sort", "elsewhere", "path"});
    EXPECT_EQ(schema["properties"],
        JSONValue(Object{{"path", Object{{"type", "string"}, {"description", "Where"}}},
            {"sort", Object{{"type", "string"}, {"description", "How"}}}}));
    EXPECT_EQ(schema["required"], JSONValue(Array{"sort", "elsewhere", "path"}));
}

TEST(JSONDeepTrees, AreWrittenCopiedComparedAndDestroyedWithoutHarm)
{
    const JSONValue tree = deepTree(veryDeep, 1);
    const JSONValue same(tree); // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_TRUE(tree == same);
    EXPECT_FALSE(tree == deepTree(veryDeep, 2));
    const std::string text = tree.encodedString();
    EXPECT_EQ(std::ranges::count(text, '['), veryDeep / 2);
    EXPECT_EQ(std::ranges::count(text, '}'), veryDeep / 2);
    EXPECT_TRUE(isRefused(text)) << "deeper than what is read";
    JSONValue assigned(Array{1});
    assigned = tree;
    EXPECT_TRUE(assigned == tree);
}

TEST(JSONCopies, AreIndependentAndEqual)
{
    const JSONValue value(Object{{"a", Array{1, "b", Object{{"c", nullptr}}}}, {"d", Object{}}, {"e", Array{}}});
    JSONValue copy(value);
    EXPECT_EQ(copy, value);
    copy = Array{value, value};
    EXPECT_EQ(copy.array()->back(), value);
    EXPECT_NE(copy, value);
}

TEST(JSONCopies, APartOfATreeMayTakeItsPlace)
{
    JSONValue value(Object{{"a", Array{1, Object{{"b", "c"}}}}});
    value = value["a"];
    EXPECT_EQ(value, JSONValue(Array{1, Object{{"b", "c"}}}));
    value = JSONValue(value.array()->back());
    EXPECT_EQ(value, JSONValue(Object{{"b", "c"}}));
}

RC_GTEST_PROP(JSONLaws, WhatIsWrittenReadsBackEqual, ())
{
    const auto value = anyValue(3);
    RC_ASSERT(JSONValue::parse(value.encodedString()) == value);
}

RC_GTEST_PROP(JSONLaws, ANumberOfAnySizeReadsBackToTheSameBits, (std::uint64_t bits))
{
    const auto number = std::bit_cast<double>(bits);
    RC_PRE(std::isfinite(number));
    const auto read = JSONValue::parse(JSONValue(number).encodedString());
    RC_ASSERT(read.number() && std::bit_cast<std::uint64_t>(*read.number()) == bits);
}

RC_GTEST_PROP(JSONLaws, AnyBytesAreReadOrRefused, ())
{
    const auto text = *rc::gen::container<std::string>(rc::gen::oneOf(
        rc::gen::element('{', '}', '[', ']', '"', ',', ':', '1', '-', '.', 'e', '\\', 'u', ' '), rc::gen::arbitrary<char>()));
    if (!isRefused(text))
        RC_ASSERT(JSONValue::parse(JSONValue::parse(text).encodedString()) == JSONValue::parse(text));
}
