#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Text as people see it: folding, containment, comparison, characters. All text is UTF-8; what is
/// not valid UTF-8 counts as U+FFFD and never throws. Pure functions; any thread. No text is longer than 2 GB.
namespace korvane {

/// `text` without regard to case and to diacritics: what two texts must share to be "the same word".
/// Valid UTF-8; folding it again changes nothing. ASCII takes a fast path with the same result. The
/// choices for single letters stand in `docs/decisions/0001-text-folding.md`.
std::string folded(std::string_view text);

/// `text` without white space and line ends (as Unicode defines white space) at both ends.
std::string_view trimmed(std::string_view text);

/// Whether `text` contains `part` without regard to case and to diacritics. An empty part is in no text,
/// nor is one of diacritics alone.
bool containsFolded(std::string_view text, std::string_view part);

/// Whether the folded text `haystack` contains the folded text `needle`, as bytes. An empty needle is in no text.
bool containsBytes(std::string_view haystack, std::string_view needle);

/// Order of names as a file manager shows them: by the user's language, numbers by their value.
/// Negative, zero or positive. A total order; equal only for texts that collate as equal.
int compareNames(std::string_view left, std::string_view right);

/// The user-perceived characters (extended grapheme clusters), in order, as views into `text`.
std::vector<std::string_view> characters(std::string_view text);

/// How many user-perceived characters `text` has.
std::size_t characterCount(std::string_view text);

/// The first `count` user-perceived characters; all of a shorter text. Does not look at what lies far behind them.
std::string_view firstCharacters(std::string_view text, std::size_t count);

/// The same for a text that somebody else has made: at most 32 bytes for each character, since marks can be piled on one
/// without end. May end in the middle of a character then, or of a code point.
std::string_view boundedBeginning(std::string_view text, std::size_t count);

/// Whether the character (one grapheme cluster) is white space or a line end: its first code point decides.
bool isWhitespace(std::string_view character);

/// `text` with everything that is not valid UTF-8 replaced by U+FFFD: the form to show.
std::string displayable(std::string_view text);
/// How many bytes the code point takes with which `text` begins; 0 when that is empty or no UTF-8 there.
inline std::size_t codePointLength(std::string_view text)
{
    const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const auto follows = [&](std::size_t at) { return (byte(at) & 0xC0) == 0x80; };
    if (text.empty())
        return 0;
    const unsigned char lead = byte(0);
    if (lead < 0x80)
        return 1;
    if (lead < 0xE0)
        return lead >= 0xC2 && text.size() >= 2 && follows(1) ? 2 : 0;
    if (text.size() < 3 || !follows(1) || !follows(2) || (lead == 0xE0 && byte(1) < 0xA0) || (lead == 0xED && byte(1) >= 0xA0))
        return 0;
    if (lead < 0xF0)
        return 3;
    const bool outside = lead > 0xF4 || (lead == 0xF0 && byte(1) < 0x90) || (lead == 0xF4 && byte(1) >= 0x90);
    return text.size() >= 4 && follows(3) && !outside ? 4 : 0;
}

/// `text` to be shown as somebody else's, on a terminal too: what is not valid UTF-8, control characters other than line
/// feeds and tabs, and characters that turn the direction of what follows are replaced by U+FFFD; lines end with a line feed.
std::string withoutControls(std::string_view text);
/// Whether `text` is UTF-8 throughout: no stray bytes, no surrogates, no overlong forms.
bool isValidUTF8(std::string_view text);

/// In lower or upper case by the rules that hold for all languages together, whatever the user's.
/// Bytes that are not UTF-8 stay as they are.
std::string lowercased(std::string_view text);
std::string uppercased(std::string_view text);

/// The number that the whole of `text` spells in base 10, without white space or a plus sign before it.
std::optional<long long> integerFrom(std::string_view text);
/// The finite or infinite number that the whole of `text` spells, with a decimal point whatever the locale;
/// without white space or a plus sign before it. Too large a number is infinite, too small a one zero.
std::optional<double> realFrom(std::string_view text);

namespace detail {

/// What `folded` gives, without its fast path.
std::string foldedByUnicode(std::string_view text);

} // namespace detail

} // namespace korvane
