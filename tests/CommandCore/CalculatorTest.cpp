#include "CommandCore/Calculator.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <cmath>

using namespace korvane;

namespace {

/// An expression as text with the value that it must have.
struct Expression {
    std::string text;
    double value;
};

Expression factor(int depth);

Expression number()
{
    const int tenths = *rc::gen::inRange(0, 1000);
    return {std::to_string(tenths / 10) + "." + std::to_string(tenths % 10),
        std::stod(std::to_string(tenths / 10) + "." + std::to_string(tenths % 10))};
}

Expression term(int depth)
{
    auto result = factor(depth);
    for (int more = *rc::gen::inRange(0, 3); more > 0; --more) {
        const char op = *rc::gen::element('*', '/', '%');
        const auto next = factor(depth);
        result.text += op + next.text;
        if (op != '*' && next.value == 0)
            result.value = std::nan("");
        else
            result.value = op == '*' ? result.value * next.value
                : op == '/'          ? result.value / next.value
                                     : std::fmod(result.value, next.value);
    }
    return result;
}

Expression expression(int depth)
{
    auto result = term(depth);
    for (int more = *rc::gen::inRange(0, 3); more > 0; --more) {
        const bool plus = *rc::gen::arbitrary<bool>();
        const auto next = term(depth);
        result.text += (plus ? " + " : "-") + next.text;
        result.value = plus ? result.value + next.value : result.value - next.value;
    }
    return result;
}

Expression factor(int depth)
{
    switch (depth > 0 ? *rc::gen::inRange(0, 4) : 0) {
    case 1: {
        const auto inner = factor(depth - 1);
        return {"+" + inner.text, inner.value};
    }
    case 2: {
        const auto inner = factor(depth - 1);
        return {"-" + inner.text, -inner.value};
    }
    case 3: {
        const auto inner = expression(depth - 1);
        return {"(" + inner.text + ")", inner.value};
    }
    default: return number();
    }
}

} // namespace

TEST(CalculatorTest, EvaluatesExpressions)
{
    const struct {
        const char *text;
        double value;
    } cases[] = {
        {"2+3*4", 14},
        {"(2+3)*4", 20},
        {"7%3", 1},
        {"-7%3", -1},
        {"7%-3", 1},
        {"5.5%2", 1.5},
        {"2×3", 6},
        {"8÷2", 4},
        {"--2+0", 2},
        {"-5", -5},
        {"+5", 5},
        {"-(2+3)", -5},
        {"-(-5)", 5},
        {"2*-3", -6},
        {"2--3", 5},
        {"2-+-3", 5},
        {"10-4-3", 3},
        {"100/10/5", 2},
        {"100/10*5", 50},
        {"17%10%4", 3},
        {"2*3%4", 2},
        {"2-3*4/6+1", 1},
        {"1 + 2", 3},
        {" \t1\n+\r\n2 ", 3},
        {"1\u00A0+\u30002", 3},
        {"5.+.5", 5.5},
        {"1/4", 0.25},
        {"((((1))))+1", 2},
        {"0*5", 0},
        {"0/5", 0},
        {"(1+2)*(3+4)", 21},
        {"2*(3+4)*5", 70},
        {"-2*-2", 4},
        {"1-(2-(3-4))", -2},
        {"007+1", 8},
        {"- 5", -5},
    };
    for (const auto &c : cases)
        EXPECT_EQ(Calculator::value(c.text), c.value) << c.text;
}

TEST(CalculatorTest, EverythingElseHasNoValue)
{
    const struct {
        const char *why;
        std::string_view text;
    } cases[] = {
        {"empty", ""},
        {"white space", " \t\n"},
        {"a number alone", "42"},
        {"a number in parentheses", "(42)"},
        {"a division by zero", "1/0"},
        {"a remainder by zero", "1%0"},
        {"a division by something that comes to zero", "1/(2-2)"},
        {"by the negative zero", "1/-0"},
        {"a division by zero that would not matter", "0*(1/0)"},
        {"two points in a number", "2.3.4+1"},
        {"a lone point", ".+1"},
        {"points without digits", "..+1"},
        {"a letter", "2+x"},
        {"an exponent", "1e3+1"},
        {"a word", "Safari"},
        {"a word with a sign", "wi-fi"},
        {"a thousands separator", "1,000+1"},
        {"other digits", "١+١"},
        {"two numbers", "2 3"},
        {"two numbers and an operator", "2 3+1"},
        {"a parenthesis too many", "1+2)"},
        {"a parenthesis too few", "(1+2"},
        {"empty parentheses", "()+1"},
        {"parentheses without an operator between them", "(1+2)(3)"},
        {"a number before a parenthesis", "2(3+4)"},
        {"an operator at the end", "2+"},
        {"an operator before a parenthesis", "(2+)"},
        {"only an operator", "-"},
        {"an operator that is no sign at the beginning", "*2"},
        {"two operators", "2**3"},
        {"a power", "2^3"},
        {"an equals sign", "1+1="},
        {"an operator with a mark on it", "1+\u03012"},
        {"a digit with a mark on it", "1\u0301+2"},
        {"a multiplication sign with a mark on it", "2×\u03013"},
        {"a mark alone", "\u03011+2"},
        {"another minus sign", "5−3"},
        {"not UTF-8", "1+\xFF"},
        {"a NUL", std::string_view("1+1\0", 4)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(Calculator::value(c.text), std::nullopt);
    }
}

TEST(CalculatorTest, ABlankWithAMarkIsStillABlank) { EXPECT_EQ(Calculator::value("1 \u0301+2"), 3); }

TEST(CalculatorTest, AValueThatIsNotFiniteIsNone)
{
    const std::string huge(400, '9');
    EXPECT_EQ(Calculator::value(huge + "+1"), std::nullopt);
    EXPECT_EQ(Calculator::value(huge + "-" + huge), std::nullopt);
    EXPECT_EQ(Calculator::value(std::string(300, '9') + "*" + std::string(300, '9')), std::nullopt);
    EXPECT_NE(Calculator::value(std::string(300, '9') + "+1"), std::nullopt);
    EXPECT_EQ(Calculator::value("1/" + huge), 0);
}

TEST(CalculatorTest, AnyDepthOfParenthesesIsFine)
{
    constexpr std::size_t depth = 100'000;
    const std::string open(depth, '('), close(depth, ')');
    EXPECT_EQ(Calculator::value(open + "1+1" + close), 2);
    EXPECT_EQ(Calculator::value(open + "1+1" + close + ")"), std::nullopt);
    EXPECT_EQ(Calculator::value(open + "(1+1" + close), std::nullopt);
    EXPECT_EQ(Calculator::value(std::string(depth, '-') + "1"), 1);
    EXPECT_EQ(Calculator::value(std::string(depth + 1, '-') + "1"), -1);
}

TEST(CalculatorTest, TenMegabytesOfParenthesesGiveNoValue)
{
    const std::string open(10'000'000, '(');
    EXPECT_EQ(Calculator::value(open), std::nullopt);
    EXPECT_EQ(Calculator::value("1+" + open), std::nullopt);
}

RC_GTEST_PROP(CalculatorLaws, AnExpressionHasTheValueOfItsTree, ())
{
    const auto built = expression(3);
    const auto text = built.text + "+0";
    const double value = built.value + 0;
    const auto found = Calculator::value(text);
    if (std::isfinite(value))
        RC_ASSERT(found == value);
    else
        RC_ASSERT(!found);
}

RC_GTEST_PROP(CalculatorLaws, AnyTextHasAFiniteValueOrNone, ())
{
    const auto text = *rc::gen::container<std::string>(rc::gen::element('1', '0', '.', '+', '-', '*', '/', '%', '(', ')', ' '));
    const auto found = Calculator::value(text);
    RC_ASSERT((!found || std::isfinite(*found)));
}

TEST(CalculatorFormat, WritesWholeNumbersInFullBelowTenToTheFifteenth)
{
    const struct {
        double value;
        const char *text;
    } cases[] = {
        {4.0, "4"},
        {0, "0"},
        {-6, "-6"},
        {0.1 + 0.2, "0.3"},
        {1.0 / 3, "0.3333333333"},
        {1.5, "1.5"},
        {-0.25, "-0.25"},
        {999999999999999, "999999999999999"},
        {-999999999999999, "-999999999999999"},
        {1e15, "1e+15"},
        {-1e15, "-1e+15"},
        {123456789.123456789, "123456789.1"},
        {1e-7, "1e-07"},
        {2.5e20, "2.5e+20"},
        {1234567, "1234567"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(Calculator::format(c.value), c.text);
}
