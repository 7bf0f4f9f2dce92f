#include "Vorrel/Store/FastLike.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <sqlite3.h>

namespace korvane {

namespace {

constexpr auto lowerTable = [] {
    std::array<char, 256> table{};
    for (int byte = 0; byte < 256; ++byte)
        table[static_cast<std::size_t>(byte)] = static_cast<char>(byte >= 'A' && byte <= 'Z' ? byte + ('a' - 'A') : byte);
    return table;
}();

char lower(char byte) { return lowerTable[static_cast<unsigned char>(byte)]; }

bool isLetter(char byte) { return byte >= 'a' && byte <= 'z'; }

bool equal(const char *text, const std::string &lowerCase)
{
    for (const char wanted : lowerCase)
        if (lower(*text++) != wanted)
            return false;
    return true;
}

} // namespace

LikePattern::LikePattern(std::string_view given, char escape) : pattern(given), escape(escape)
{
    bool opens = false, closes = false;
    for (std::size_t at = 0; at < given.size(); ++at) {
        const char sign = given[at];
        if (escape != 0 && sign == escape) {
            if (++at == given.size())
                return;
            literal += lower(given[at]);
        } else if (sign == '%' && at == 0) {
            opens = true;
        } else if (sign == '%' && at + 1 == given.size()) {
            closes = true;
        } else if (sign == '%' || sign == '_' || sign == '\0') {
            return; // rare enough for the usual way
        } else {
            literal += lower(sign);
        }
    }
    if (given == "%")
        closes = true;
    shape = opens ? (closes ? Shape::contains : Shape::suffix) : (closes ? Shape::prefix : Shape::equal);
    const auto sign = std::ranges::find_if_not(literal, isLetter);
    anchored = sign != literal.end();
    anchor = anchored ? static_cast<std::size_t>(sign - literal.begin()) : 0;
}

bool LikePattern::matches(const char *text, std::size_t size) const
{
    if (shape == Shape::other)
        return sqlite3_strlike(pattern.c_str(), text, static_cast<unsigned char>(escape)) == 0;
    if (size < literal.size())
        return false;
    const std::size_t spare = size - literal.size();
    switch (shape) {
    case Shape::equal: return spare == 0 && equal(text, literal);
    case Shape::prefix: return equal(text, literal);
    case Shape::suffix: return equal(text + spare, literal);
    default: break;
    }
    if (literal.empty())
        return true;
    const char *const end = text + spare + 1; // of the places where it may begin
    if (anchored) {
        for (const char *at = text; at < end; ++at) {
            const void *found = std::memchr(at + anchor, literal[anchor], static_cast<std::size_t>(end - at));
            if (!found)
                return false;
            at = static_cast<const char *>(found) - anchor;
            if (equal(at, literal))
                return true;
        }
        return false;
    }
    for (const char *at = text; at < end; ++at)
        if (lower(*at) == literal.front() && equal(at, literal))
            return true;
    return false;
}

namespace {

/// `like(pattern, text)` and `like(pattern, text, escape)`.
void like(sqlite3_context *context, int count, sqlite3_value **values)
{
    const auto *pattern = reinterpret_cast<const char *>(sqlite3_value_text(values[0]));
    const auto *text = reinterpret_cast<const char *>(sqlite3_value_text(values[1]));
    char escape = 0;
    if (count == 3) {
        const auto *sign = reinterpret_cast<const char *>(sqlite3_value_text(values[2]));
        if (!sign)
            return;
        if (sqlite3_value_bytes(values[2]) != 1)
            return sqlite3_result_error(context, "ESCAPE expression must be a single character", -1);
        escape = *sign;
    }
    if (!pattern || !text)
        return; // NULL
    const auto size = static_cast<std::size_t>(sqlite3_value_bytes(values[1]));
    if (const auto *known = static_cast<const LikePattern *>(sqlite3_get_auxdata(context, 0)))
        return sqlite3_result_int(context, known->matches(text, size));
    auto taken = std::make_unique<LikePattern>(
        std::string_view(pattern, static_cast<std::size_t>(sqlite3_value_bytes(values[0]))), escape);
    sqlite3_result_int(context, taken->matches(text, size));
    sqlite3_set_auxdata(context, 0, taken.release(), [](void *pattern) { delete static_cast<LikePattern *>(pattern); });
}

} // namespace

int installFastLike(sqlite3 *connection)
{
    constexpr int flags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
    for (const int count : {2, 3}) {
        const int code = sqlite3_create_function(connection, "like", count, flags, nullptr, like, nullptr, nullptr);
        if (code != SQLITE_OK)
            return code;
    }
    return SQLITE_OK;
}

int removeFastLike(sqlite3 *connection)
{
    return sqlite3_exec(connection, "PRAGMA case_sensitive_like=OFF", nullptr, nullptr, nullptr);
}

} // namespace korvane
