#include "Support/Text.h"

#include <unicode/brkiter.h>
#include <unicode/bytestream.h>
#include <unicode/casemap.h>
#include <unicode/coll.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/uscript.h>
#include <unicode/utext.h>
#include <unicode/utf8.h>

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <locale.h>
#include <memory>

namespace korvane {

namespace {

bool isASCII(std::string_view text)
{
    constexpr std::uint64_t highBits = 0x8080808080808080;
    std::uint64_t seen = 0;
    std::size_t at = 0;
    for (; at + sizeof seen <= text.size(); at += sizeof seen) {
        std::uint64_t bytes;
        std::memcpy(&bytes, text.data() + at, sizeof bytes);
        seen |= bytes;
    }
    for (; at < text.size(); ++at)
        seen |= static_cast<unsigned char>(text[at]);
    return !(seen & highBits);
}

/// A walk over code points, forwards or backwards; every ill-formed sequence is one U+FFFD.
class CodePoints {
public:
    explicit CodePoints(std::string_view text) :
        bytes(reinterpret_cast<const std::uint8_t *>(text.data())), size(static_cast<std::int32_t>(text.size()))
    {
    }
    bool atEnd(std::int32_t at) const { return at >= size; }
    UChar32 next(std::int32_t &at) const
    {
        UChar32 point;
        U8_NEXT_OR_FFFD(bytes, at, size, point);
        return point;
    }
    UChar32 previous(std::int32_t &at) const
    {
        UChar32 point;
        U8_PREV_OR_FFFD(bytes, 0, at, point);
        return point;
    }

private:
    const std::uint8_t *bytes;
    std::int32_t size;
};

void append(std::string &text, UChar32 point)
{
    std::uint8_t bytes[U8_MAX_LENGTH];
    std::int32_t size = 0;
    U8_APPEND_UNSAFE(bytes, size, point);
    text.append(reinterpret_cast<const char *>(bytes), static_cast<std::size_t>(size));
}

icu::StringPiece piece(std::string_view text) { return {text.data(), static_cast<std::int32_t>(text.size())}; }

std::string decomposed(std::string_view text)
{
    UErrorCode status = U_ZERO_ERROR;
    std::string result;
    icu::StringByteSink<std::string> sink(&result, static_cast<std::int32_t>(text.size()));
    // The canonical forms are compiled into the library: this instance is always there.
    icu::Normalizer2::getNFDInstance(status)->normalizeUTF8(0, piece(text), sink, nullptr, status);
    return result;
}

std::string caseFolded(std::string_view text)
{
    UErrorCode status = U_ZERO_ERROR;
    std::string result;
    icu::StringByteSink<std::string> sink(&result, static_cast<std::int32_t>(text.size()));
    icu::CaseMap::utf8Fold(0, piece(text), sink, nullptr, status);
    return result;
}

/// Whether a mark only modifies its letter. The marks of scripts that write vowels with them (Thai, the
/// Indian scripts) are part of the word and stay, and so do the voicing marks of Japanese.
bool isDiacritic(UChar32 point)
{
    constexpr UChar32 firstMark = 0x300, voiced = 0x3099, halfVoiced = 0x309A;
    if (point < firstMark || u_charType(point) != U_NON_SPACING_MARK || point == voiced || point == halfVoiced)
        return false;
    UErrorCode status = U_ZERO_ERROR;
    switch (uscript_getScript(point, &status)) {
    case USCRIPT_INHERITED:
    case USCRIPT_LATIN:
    case USCRIPT_GREEK:
    case USCRIPT_CYRILLIC:
    case USCRIPT_HEBREW:
    case USCRIPT_ARABIC:
    case USCRIPT_SYRIAC: return true;
    default: return false;
    }
}

/// Removes diacritics from a decomposed text, which may leave the marks that stay out of their canonical
/// order: one of combining class 0 between them kept them apart. True if so.
bool dropDiacritics(std::string &text)
{
    const CodePoints points(text);
    bool reorders = false;
    std::size_t kept = 0;
    for (std::int32_t at = 0; !points.atEnd(at);) {
        const auto begin = at;
        const UChar32 point = points.next(at);
        if (isDiacritic(point)) {
            reorders |= u_getCombiningClass(point) == 0;
            continue;
        }
        std::memmove(&text[kept], &text[static_cast<std::size_t>(begin)], static_cast<std::size_t>(at - begin));
        kept += static_cast<std::size_t>(at - begin);
    }
    text.resize(kept);
    return reorders;
}

/// The plain letter of those that carry their stroke or lack their dot without a decomposition.
UChar32 plainLetter(UChar32 point)
{
    switch (point) {
    case U'ı': return 'i';
    case U'ø': return 'o';
    case U'ł': return 'l';
    case U'đ': return 'd';
    case U'ħ': return 'h';
    case U'ŧ': return 't';
    default: return point;
    }
}

std::string withPlainLetters(std::string_view text)
{
    std::string result;
    result.reserve(text.size());
    const CodePoints points(text);
    for (std::int32_t at = 0; !points.atEnd(at);)
        append(result, plainLetter(points.next(at)));
    return result;
}

/// The user's language as the environment tells it; the root's order for one that is no language.
icu::Locale userLocale()
{
    for (const char *name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char *value = std::getenv(name);
        if (!value || !*value)
            continue;
        const std::string first(value, std::strcspn(value, ":"));
        // The collation of the C locale would put all capitals before all small letters.
        if (first.empty() || first == "C" || first == "POSIX" || first.starts_with("C."))
            return icu::Locale::getRoot();
        return icu::Locale::createCanonical(first.c_str());
    }
    return icu::Locale::getRoot();
}

std::unique_ptr<icu::Collator> makeCollator()
{
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Collator> collator(icu::Collator::createInstance(userLocale(), status));
    if (collator)
        collator->setAttribute(UCOL_NUMERIC_COLLATION, UCOL_ON, status);
    return U_SUCCESS(status) ? std::move(collator) : nullptr;
}

/// The thread's own collator, a cheap copy of one that is loaded once. Null if there is none for the system.
const icu::Collator *collatorOfThread()
{
    static const std::unique_ptr<icu::Collator> loaded = makeCollator();
    thread_local const std::unique_ptr<icu::Collator> own(loaded ? loaded->clone() : nullptr);
    return own.get();
}

std::unique_ptr<icu::BreakIterator> makeCharacterBreaks()
{
    UErrorCode status = U_ZERO_ERROR;
    return std::unique_ptr<icu::BreakIterator>(icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
}

/// The thread's own walk over characters; it has a position, so no two threads may share one.
icu::BreakIterator &characterBreaksOfThread()
{
    static const std::unique_ptr<icu::BreakIterator> loaded = makeCharacterBreaks();
    thread_local const std::unique_ptr<icu::BreakIterator> own(loaded->clone());
    return *own;
}

template <class Visit> void visitCharactersOfASCII(std::string_view text, Visit visit)
{
    for (std::size_t begin = 0, end; begin < text.size(); begin = end) {
        end = begin + (text.substr(begin).starts_with("\r\n") ? 2 : 1);
        visit(begin, end);
    }
}

/// Calls `visit(begin, end)` for every character of `text`.
template <class Visit> void visitCharacters(std::string_view text, Visit visit)
{
    if (isASCII(text))
        return visitCharactersOfASCII(text, visit);
    auto &breaks = characterBreaksOfThread();
    UErrorCode status = U_ZERO_ERROR;
    const icu::LocalUTextPointer view(utext_openUTF8(nullptr, text.data(), static_cast<std::int64_t>(text.size()), &status));
    breaks.setText(view.getAlias(), status);
    for (auto begin = breaks.first(), end = breaks.next(); end != icu::BreakIterator::DONE; begin = end, end = breaks.next())
        visit(static_cast<std::size_t>(begin), static_cast<std::size_t>(end));
}

using CaseMapping = void(const char *, std::uint32_t, icu::StringPiece, icu::ByteSink &, icu::Edits *, UErrorCode &);

std::string mapped(std::string_view text, CaseMapping mapping)
{
    UErrorCode status = U_ZERO_ERROR;
    std::string result;
    icu::StringByteSink<std::string> sink(&result, static_cast<std::int32_t>(text.size()));
    mapping("", 0, piece(text), sink, nullptr, status);
    return result;
}

/// The nearest double to a number that no double holds: an infinity or zero.
double beyondRange(const std::string &text)
{
    static const locale_t pointLocale = newlocale(LC_ALL_MASK, "C", nullptr);
    return strtod_l(text.c_str(), nullptr, pointLocale);
}

} // namespace

std::string detail::foldedByUnicode(std::string_view text)
{
    std::string result = isValidUTF8(text) ? decomposed(text) : decomposed(displayable(text));
    if (dropDiacritics(result))
        result = decomposed(result);
    return withPlainLetters(caseFolded(result));
}

std::string folded(std::string_view text)
{
    if (!isASCII(text))
        return detail::foldedByUnicode(text);
    std::string result(text);
    for (char &c : result)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
    return result;
}

std::string_view trimmed(std::string_view text)
{
    const CodePoints points(text);
    std::int32_t begin = 0, end = static_cast<std::int32_t>(text.size());
    for (auto at = begin; !points.atEnd(at) && u_isUWhiteSpace(points.next(at));)
        begin = at;
    for (auto at = end; at > begin && u_isUWhiteSpace(points.previous(at));)
        end = at;
    return text.substr(static_cast<std::size_t>(begin), static_cast<std::size_t>(end - begin));
}

bool containsFolded(std::string_view text, std::string_view part) { return containsBytes(folded(text), folded(part)); }

bool containsBytes(std::string_view haystack, std::string_view needle)
{
    // In a short text the preparations of memmem cost more than they save. An empty view's null pointer is not for it either.
    constexpr std::size_t shortText = 512;
    if (needle.empty() || needle.size() > haystack.size())
        return false;
    if (haystack.size() < shortText)
        return haystack.find(needle) != haystack.npos;
    return memmem(haystack.data(), haystack.size(), needle.data(), needle.size()) != nullptr;
}

int compareNames(std::string_view left, std::string_view right)
{
    const auto *collator = collatorOfThread();
    if (!collator)
        return left.compare(right);
    UErrorCode status = U_ZERO_ERROR;
    return collator->compareUTF8(piece(left), piece(right), status);
}

std::vector<std::string_view> characters(std::string_view text)
{
    std::vector<std::string_view> result;
    visitCharacters(text, [&](std::size_t begin, std::size_t end) { result.push_back(text.substr(begin, end - begin)); });
    return result;
}

std::size_t characterCount(std::string_view text)
{
    std::size_t count = 0;
    visitCharacters(text, [&](std::size_t, std::size_t) { ++count; });
    return count;
}

std::string_view firstCharacters(std::string_view text, std::size_t count)
{
    constexpr std::size_t usualBytes = 8; // of a character
    for (std::size_t size = std::max<std::size_t>(count, 1) * usualBytes;; size *= 4) {
        const auto part = text.substr(0, size);
        const auto found = characters(part);
        const bool isAll = part.size() == text.size();
        // At its end a part may cut through a character, and through the bytes of one.
        if (found.size() > count + (isAll ? 0 : 1))
            return text.substr(0, static_cast<std::size_t>(found[count].data() - text.data()));
        if (isAll)
            return text;
    }
}

std::string_view boundedBeginning(std::string_view text, std::size_t count)
{
    constexpr std::size_t mostBytes = 32; // of a character; families and flags of regions need less
    return firstCharacters(text.substr(0, count * mostBytes), count);
}

bool isWhitespace(std::string_view character)
{
    std::int32_t at = 0;
    return !character.empty() && u_isUWhiteSpace(CodePoints(character).next(at));
}

std::string displayable(std::string_view text)
{
    if (isValidUTF8(text))
        return std::string(text);
    std::string result;
    result.reserve(text.size() + 2);
    const CodePoints points(text);
    for (std::int32_t at = 0; !points.atEnd(at);)
        append(result, points.next(at));
    return result;
}

/// Whether it is drawn as nothing and changes how others are drawn, or what a terminal does.
static bool controls(UChar32 point)
{
    const bool control = point < 0x20 || (point >= 0x7f && point < 0xa0);
    const bool turns = (point >= 0x202a && point <= 0x202e) || (point >= 0x2066 && point <= 0x2069);
    return (control && point != '\n' && point != '\t') || turns;
}

std::string withoutControls(std::string_view text)
{
    constexpr UChar32 replacement = 0xfffd;
    std::string result;
    result.reserve(text.size());
    const CodePoints points(text);
    for (std::int32_t at = 0; !points.atEnd(at);) {
        const UChar32 point = points.next(at);
        if (point != '\r')
            append(result, controls(point) ? replacement : point);
        else if (static_cast<std::size_t>(at) == text.size() || text[static_cast<std::size_t>(at)] != '\n')
            append(result, '\n');
    }
    return result;
}

bool isValidUTF8(std::string_view text)
{
    if (isASCII(text))
        return true;
    while (const auto length = codePointLength(text))
        text.remove_prefix(length);
    return text.empty();
}

std::string lowercased(std::string_view text) { return isASCII(text) ? folded(text) : mapped(text, icu::CaseMap::utf8ToLower); }

std::string uppercased(std::string_view text)
{
    if (!isASCII(text))
        return mapped(text, icu::CaseMap::utf8ToUpper);
    std::string result(text);
    for (char &c : result)
        c = c >= 'a' && c <= 'z' ? static_cast<char>(c & ~0x20) : c;
    return result;
}

std::optional<long long> integerFrom(std::string_view text)
{
    long long value = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    return stop == end && error == std::errc() ? std::optional(value) : std::nullopt;
}

std::optional<double> realFrom(std::string_view text)
{
    double value = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (stop != end || error == std::errc::invalid_argument)
        return std::nullopt;
    if (error == std::errc::result_out_of_range)
        value = beyondRange(std::string(text));
    return value == value ? std::optional(value) : std::nullopt;
}

} // namespace korvane
