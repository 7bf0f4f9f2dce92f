#include "Vorrel/Store/TextFunctions.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <sqlite3.h>
#include <string>
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

/// Of ASCII alone.
char lowerLetter(char letter)
{
    const bool capital = static_cast<unsigned char>(letter - 'A') < 26;
    return static_cast<char>(letter + (capital ? 'a' - 'A' : 0));
}

void lower(sqlite3_context *context, int, sqlite3_value **values)
{
    if (sqlite3_value_type(values[0]) == SQLITE_NULL)
        return;
    const std::string_view text = textOf(values[0]);
    auto *const result = static_cast<char *>(sqlite3_malloc64(text.size() + 1));
    if (!result)
        return sqlite3_result_error_nomem(context);
    // Without a branch, so that the compiler takes many letters at a time.
    std::transform(text.begin(), text.end(), result, lowerLetter);
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

// LIKE

/// What turns a capital letter into this byte, which stands for both then; nothing for what is no small letter.
char caseBit(char letter) { return static_cast<unsigned char>(letter - 'a') < 26 ? 0x20 : 0; }

/// A pattern as it was read: a word of ASCII that stands at the beginning, at the end, anywhere, or alone.
class LikePattern {
public:
    bool is(std::string_view text, char byEscape) const { return source == text && escape == byEscape; }
    void read(std::string_view text, char byEscape)
    {
        source = text;
        escape = byEscape;
        word.clear();
        beginsAnywhere = text.starts_with('%');
        endsAnywhere = false;
        isWord = readWord(text.substr(beginsAnywhere ? 1 : 0));
    }

    bool isWord = true; ///< Otherwise the rest of this means nothing.
    bool matches(std::string_view text) const
    {
        if (word.size() > text.size())
            return false;
        if (beginsAnywhere && endsAnywhere)
            return word.empty() || isIn(text);
        if (beginsAnywhere)
            return standsAt(text.data() + text.size() - word.size());
        return (endsAnywhere || text.size() == word.size()) && standsAt(text.data());
    }

private:
    bool readWord(std::string_view rest)
    {
        for (std::size_t i = 0; i < rest.size(); ++i) {
            char letter = rest[i];
            if (escape && letter == escape) {
                if (++i == rest.size())
                    return false;
                letter = rest[i];
            } else if (letter == '%' && i + 1 == rest.size()) {
                endsAnywhere = true;
                return true;
            } else if (letter == '%' || letter == '_') {
                return false;
            }
            if (static_cast<unsigned char>(letter) >= 0x80 || letter == 0)
                return false;
            word += lowerLetter(letter);
        }
        return true;
    }

    /// Begins with the last letter, in which most endings differ.
    bool standsAt(const char *place) const
    {
        for (std::size_t i = word.size(); i > 0; --i)
            if (lowerLetter(place[i - 1]) != word[i - 1])
                return false;
        return true;
    }

    bool standsIn(const char *places, std::size_t count) const
    {
        for (std::size_t i = 0; i < count; ++i)
            if ((places[i] | caseBit(word.front())) == word.front() && standsAt(places + i))
                return true;
        return false;
    }

    /// Compares the first and the last letter at many places at once.
    bool isIn(std::string_view text) const
    {
        constexpr std::size_t stretch = 16;
        const std::size_t behind = word.size() - 1, places = text.size() - behind;
        const char first = word.front(), last = word.back(), firstBit = caseBit(first), lastBit = caseBit(last);
        const auto mayStandIn = [&](const char *begins) {
            const char *const ends = begins + behind;
            unsigned char any = 0;
            for (std::size_t i = 0; i < stretch; ++i)
                any |= static_cast<unsigned char>(((begins[i] | firstBit) == first) & ((ends[i] | lastBit) == last));
            return any != 0;
        };
        if (places < stretch)
            return standsIn(text.data(), places);
        for (std::size_t from = 0; from < places; from += stretch) {
            const char *const begins = text.data() + std::min(from, places - stretch); // the last one looks at some again
            if (mayStandIn(begins) && standsIn(begins, stretch))
                return true;
        }
        return false;
    }

    std::string source, word;
    char escape = 0;
    bool beginsAnywhere = false, endsAnywhere = false;
};

/// The patterns of a query, by the place of their texts, so that they are not read again for each row.
struct LikePatterns {
    static constexpr std::size_t count = 128;
    LikePattern all[count];

    const LikePattern &of(std::string_view text, char escape)
    {
        LikePattern &pattern = all[(reinterpret_cast<std::uintptr_t>(text.data()) >> 3) % count];
        if (!pattern.is(text, escape))
            pattern.read(text, escape);
        return pattern;
    }
};

void like(sqlite3_context *context, int count, sqlite3_value **values)
{
    constexpr int longestPattern = 50'000; // SQLite's own limit
    char escape = 0;
    if (count == 3) {
        const std::string_view given = textOf(values[2]);
        if (sqlite3_value_type(values[2]) == SQLITE_NULL)
            return;
        if (given.size() != 1)
            return sqlite3_result_error(context, "ESCAPE expression must be a single character", -1);
        escape = given.front();
    }
    const int kinds[] = {sqlite3_value_type(values[0]), sqlite3_value_type(values[1])};
    const bool anyBytes = kinds[0] == SQLITE_BLOB || kinds[1] == SQLITE_BLOB;
    if (anyBytes && sqlite3_compileoption_used("LIKE_DOESNT_MATCH_BLOBS"))
        return sqlite3_result_int(context, 0);
    if (kinds[0] == SQLITE_NULL || kinds[1] == SQLITE_NULL)
        return;
    const std::string_view text = textOf(values[0]);
    if (text.size() > longestPattern)
        return sqlite3_result_error(context, "LIKE or GLOB pattern too complex", -1);
    const LikePattern &pattern = static_cast<LikePatterns *>(sqlite3_user_data(context))->of(text, escape);
    if (pattern.isWord)
        return sqlite3_result_int(context, pattern.matches(textOf(values[1])));
    const auto *const other = reinterpret_cast<const char *>(sqlite3_value_text(values[0]));
    const auto *const searched = reinterpret_cast<const char *>(sqlite3_value_text(values[1]));
    sqlite3_result_int(context, sqlite3_strlike(other, searched, static_cast<unsigned char>(escape)) == 0);
}

} // namespace

void useOwnLike(sqlite3 *connection)
{
    constexpr int kind = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
    const auto destroy = [](void *patterns) { delete static_cast<LikePatterns *>(patterns); };
    for (const int count : {2, 3})
        sqlite3_create_function_v2(connection, "like", count, kind, new LikePatterns, &like, nullptr, nullptr, destroy);
}

void useOwnTextFunctions(sqlite3 *connection)
{
    constexpr int kind = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
    sqlite3_create_function_v2(connection, "lower", 1, kind, nullptr, &lower, nullptr, nullptr, nullptr);
    sqlite3_create_function_v2(connection, "instr", 2, kind, nullptr, &instr, nullptr, nullptr, nullptr);
}

} // namespace korvane
