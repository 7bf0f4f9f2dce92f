#include "CommandCore/Calculator.h"

#include "Support/Text.h"

#include <fmt/format.h>

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

namespace korvane::Calculator {

namespace {

constexpr std::string_view operators = "+-*/%";
constexpr std::string_view numberCharacters = "0123456789.";
constexpr std::string_view whitespace = " \t\n\v\f\r";
constexpr std::string_view parentheses = "()";

bool isIn(std::string_view set, char c) { return set.find(c) != set.npos; }

/// The characters of ASCII that an expression may hold. A table, since every query passes through it.
constexpr auto asciiSymbols = [] {
    std::array<bool, 128> table{};
    for (const auto set : {operators, numberCharacters, whitespace, parentheses})
        for (const char c : set)
            table[static_cast<std::size_t>(c)] = true;
    return table;
}();

bool isSymbol(char c) { return U8_IS_SINGLE(c) && asciiSymbols[static_cast<unsigned char>(c)]; }

/// Whether a code point beyond ASCII can be part of an expression: one that stands for itself, or one
/// that may belong to the character before it.
bool mayOccur(UChar32 point)
{
    switch (u_getIntPropertyValue(point, UCHAR_GRAPHEME_CLUSTER_BREAK)) {
    case U_GCB_EXTEND:
    case U_GCB_SPACING_MARK:
    case U_GCB_ZWJ: return true;
    default: return point == U'×' || point == U'÷' || u_isUWhiteSpace(point);
    }
}

enum class Alphabet { foreign, ascii, wider };

/// Looks at every code point until one cannot be part of an expression. Builds nothing.
Alphabet alphabet(std::string_view text)
{
    auto result = Alphabet::ascii;
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(text.data());
    for (std::size_t at = 0; at < text.size();) {
        if (U8_IS_SINGLE(bytes[at])) {
            if (!isSymbol(text[at++]))
                return Alphabet::foreign;
            continue;
        }
        UChar32 point;
        U8_NEXT(bytes, at, text.size(), point);
        if (point < 0 || !mayOccur(point))
            return Alphabet::foreign;
        result = Alphabet::wider;
    }
    return result;
}

/// The symbol that a user-perceived character stands for.
std::optional<char> symbol(std::string_view character)
{
    if (character == "×")
        return '*';
    if (character == "÷")
        return '/';
    if (isWhitespace(character))
        return ' ';
    if (character.size() == 1 && isSymbol(character.front()))
        return character.front();
    return std::nullopt;
}

std::optional<std::string> symbols(std::string_view text)
{
    std::string result;
    for (const auto character : characters(text)) {
        const auto found = symbol(character);
        if (!found)
            return std::nullopt;
        result += *found;
    }
    return result;
}

/// Evaluates while it reads, in the order in which a recursive descent would, but with the open
/// parentheses in memory of its own: the depth of a pasted text must not decide over the call stack.
class Evaluation {
public:
    explicit Evaluation(std::string_view text) : text(text) { }

    std::optional<double> result()
    {
        while (at < text.size())
            if (!step())
                return std::nullopt;
        if (expectsOperand || levels.size() != 1)
            return std::nullopt;
        return closed(levels.back());
    }

private:
    /// What is known of one expression within its parentheses.
    struct Level {
        double sum = 0; ///< Of the terms before `additive`.
        double product = 0; ///< Of the factors of the present term.
        char additive = 0; ///< Waits for the present term; 0 in the first.
        char multiplicative = 0; ///< Waits for the next factor; 0 before the first.
        bool negative = false; ///< An odd number of minus signs stands before the next factor.
    };

    bool step()
    {
        const char c = text[at];
        if (isIn(numberCharacters, c))
            return takeNumber();
        ++at;
        if (isIn(whitespace, c))
            return true;
        return expectsOperand ? takePrefix(c) : takeInfix(c);
    }

    bool takeNumber()
    {
        const auto end = std::min(text.find_first_not_of(numberCharacters, at), text.size());
        const auto value = realFrom(text.substr(at, end - at));
        at = end;
        return expectsOperand && value && takeOperand(*value);
    }

    bool takePrefix(char c)
    {
        if (c == '(')
            levels.emplace_back();
        else if (c == '-')
            levels.back().negative = !levels.back().negative;
        return c == '(' || c == '-' || c == '+';
    }

    bool takeInfix(char c)
    {
        if (c == ')')
            return closeParenthesis();
        if (!isIn(operators, c))
            return false;
        auto &level = levels.back();
        if (c == '+' || c == '-') {
            level.sum = closed(level);
            level.additive = c;
        } else {
            level.multiplicative = c;
        }
        expectsOperand = true;
        return true;
    }

    bool closeParenthesis()
    {
        if (levels.size() == 1)
            return false;
        const double value = closed(levels.back());
        levels.pop_back();
        return takeOperand(value);
    }

    /// False for a division by zero.
    bool takeOperand(double value)
    {
        auto &level = levels.back();
        if (std::exchange(level.negative, false))
            value = -value;
        const char pending = std::exchange(level.multiplicative, 0);
        if ((pending == '/' || pending == '%') && value == 0)
            return false;
        switch (pending) {
        case '*': level.product *= value; break;
        case '/': level.product /= value; break;
        case '%': level.product = std::fmod(level.product, value); break;
        default: level.product = value;
        }
        expectsOperand = false;
        return true;
    }

    static double closed(const Level &level)
    {
        switch (level.additive) {
        case '+': return level.sum + level.product;
        case '-': return level.sum - level.product;
        default: return level.product;
        }
    }

    std::string_view text;
    std::size_t at = 0;
    std::vector<Level> levels{1};
    bool expectsOperand = true;
};

std::optional<double> valueOfSymbols(std::string_view text)
{
    if (text.find_first_of(operators) == text.npos)
        return std::nullopt;
    const auto value = Evaluation(text).result();
    return value && std::isfinite(*value) ? value : std::nullopt;
}

} // namespace

std::optional<double> value(std::string_view text)
{
    switch (alphabet(text)) {
    case Alphabet::foreign: return std::nullopt;
    case Alphabet::ascii: return valueOfSymbols(text);
    case Alphabet::wider: break;
    }
    const auto plain = symbols(text);
    return plain ? valueOfSymbols(*plain) : std::nullopt;
}

std::string format(double value)
{
    const bool whole = value == std::round(value) && std::abs(value) < 1e15;
    return whole ? fmt::format("{:.0f}", value) : fmt::format("{:.10g}", value);
}

} // namespace korvane::Calculator
