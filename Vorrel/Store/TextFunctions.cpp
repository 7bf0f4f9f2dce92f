#include "Vorrel/Store/TextFunctions.h"

#include <algorithm>
#include <cstring>
#include <sqlite3.h>
#include <string_view>

namespace korvane {

namespace {

bool continues(char byte) { return (byte & 0xC0) == 0x80; }

std::string_view bytesOf(sqlite3_value *value)
{
    const auto *const bytes = static_cast<const char *>(sqlite3_value_blob(value));
    return bytes ? std::string_view(bytes, static_cast<std::size_t>(sqlite3_value_bytes(value))) : std::string_view();
}

std::string_view textOf(sqlite3_value *value)
{
    // The bytes of a text are as good as the text, and SQLite need not copy it to put a zero behind its end.
    if (sqlite3_value_type(value) == SQLITE_TEXT)
        return bytesOf(value);
    const auto *const text = reinterpret_cast<const char *>(sqlite3_value_text(value));
    return text ? std::string_view(text, static_cast<std::size_t>(sqlite3_value_bytes(value))) : std::string_view();
}

/// Letters of ASCII alone.
void lower(sqlite3_context *context, int, sqlite3_value **values)
{
    if (sqlite3_value_type(values[0]) == SQLITE_NULL)
        return;
    const std::string_view text = textOf(values[0]);
    auto *const result = static_cast<char *>(sqlite3_malloc64(text.size() + 1));
    if (!result)
        return sqlite3_result_error_nomem(context);
    // Without a branch, so that the compiler takes many letters at a time.
    std::transform(text.begin(), text.end(), result, [](char letter) {
        const bool capital = static_cast<unsigned char>(letter - 'A') < 26;
        return static_cast<char>(letter + (capital ? 'a' - 'A' : 0));
    });
    sqlite3_result_text64(context, result, text.size(), &sqlite3_free, SQLITE_UTF8);
}

/// The first place of `part`, which is not empty, in `text` at or behind `from`. Compares its first and its last byte at many
/// places at once: the compiler makes vectors of that, which beat the library's search for short words.
std::size_t findBytes(std::string_view text, std::string_view part, std::size_t from)
{
    constexpr std::size_t stretch = 64;
    const char first = part.front(), last = part.back();
    const std::size_t behind = part.size() - 1; // from the first byte to the last
    for (; from + stretch + behind <= text.size(); from += stretch) {
        const char *const begins = text.data() + from, *const ends = begins + behind;
        unsigned char any = 0;
        for (std::size_t i = 0; i < stretch; ++i)
            any |= static_cast<unsigned char>((begins[i] == first) & (ends[i] == last));
        if (any == 0)
            continue;
        for (std::size_t i = 0; i < stretch; ++i)
            if (begins[i] == first && std::memcmp(begins + i, part.data(), part.size()) == 0)
                return from + i;
    }
    return text.find(part, from);
}

/// The place of the first `part` that begins with a character, in bytes.
std::size_t placeOf(std::string_view part, std::string_view text, bool isText)
{
    for (std::size_t from = 0; from + part.size() <= text.size();) {
        const std::size_t place = findBytes(text, part, from);
        if (place == std::string_view::npos)
            break;
        if (place == 0 || !isText || !continues(text[place]))
            return place;
        from = place + 1;
    }
    return std::string_view::npos;
}

void instr(sqlite3_context *context, int, sqlite3_value **values)
{
    const int kinds[] = {sqlite3_value_type(values[0]), sqlite3_value_type(values[1])};
    if (kinds[0] == SQLITE_NULL || kinds[1] == SQLITE_NULL)
        return;
    const bool isText = kinds[0] != SQLITE_BLOB || kinds[1] != SQLITE_BLOB;
    const std::string_view text = isText ? textOf(values[0]) : bytesOf(values[0]);
    const std::string_view part = isText ? textOf(values[1]) : bytesOf(values[1]);
    const std::size_t place = part.empty() ? 0 : placeOf(part, text, isText);
    if (place == std::string_view::npos)
        return sqlite3_result_int64(context, 0);
    const std::string_view before = text.substr(std::min<std::size_t>(1, place), place);
    const auto skipped = isText ? std::count_if(before.begin(), before.end(), [](char byte) { return !continues(byte); })
                                : static_cast<std::ptrdiff_t>(place);
    sqlite3_result_int64(context, place == 0 ? 1 : 1 + skipped);
}

} // namespace

void useOwnTextFunctions(sqlite3 *connection)
{
    constexpr int kind = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
    sqlite3_create_function_v2(connection, "lower", 1, kind, nullptr, &lower, nullptr, nullptr, nullptr);
    sqlite3_create_function_v2(connection, "instr", 2, kind, nullptr, &instr, nullptr, nullptr, nullptr);
}

} // namespace korvane
