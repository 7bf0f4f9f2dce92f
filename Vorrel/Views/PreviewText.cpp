#include "Vorrel/Views/PreviewText.h"

#include <algorithm>
#include <array>
#include <memory>
#include <unicode/ucnv.h>
#include <unicode/ucsdet.h>
#include <unicode/unistr.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>
#include <utility>

namespace korvane::previewText {

static constexpr std::size_t sampleBytes = 64 * 1024; // enough to know an encoding by
static constexpr std::size_t firstPart = 16 * 1024, laterPart = 64 * 1024; // characters

namespace {

struct Mark {
    std::string_view bytes;
    const char *encoding;
};

using namespace std::string_view_literals;

/// The longer ones first: one of them begins like another.
constexpr Mark marks[] = {{"\xEF\xBB\xBF"sv, "UTF-8"}, {"\xFF\xFE\0\0"sv, "UTF-32LE"}, {"\0\0\xFE\xFF"sv, "UTF-32BE"},
    {"\xFF\xFE"sv, "UTF-16LE"}, {"\xFE\xFF"sv, "UTF-16BE"}};

std::optional<std::u16string> converted(std::string_view bytes, const char *encoding)
{
    UErrorCode status = U_ZERO_ERROR;
    const std::unique_ptr<UConverter, void (*)(UConverter *)> converter(ucnv_open(encoding, &status), ucnv_close);
    if (U_FAILURE(status))
        return std::nullopt;
    std::u16string text(bytes.size() + 1, u'\0'); // no encoding here makes two units of one byte
    const char *from = bytes.data();
    char16_t *to = text.data();
    ucnv_toUnicode(converter.get(), &to, text.data() + text.size(), &from, bytes.data() + bytes.size(), nullptr, true, &status);
    text.resize(std::size_t(to - text.data()));
    return text;
}

/// How many bytes at the beginning are UTF-8; all of them, or less when something else follows.
std::size_t validUtf8(std::string_view bytes)
{
    std::int32_t at = 0;
    const auto size = std::int32_t(bytes.size());
    const auto *units = reinterpret_cast<const std::uint8_t *>(bytes.data());
    while (at < size) {
        const std::int32_t begin = at;
        UChar32 character = 0;
        U8_NEXT(units, at, size, character);
        if (character < 0)
            return std::size_t(begin);
    }
    return bytes.size();
}

bool isUtf8(std::string_view bytes, Extent extent)
{
    constexpr std::size_t longestCharacter = 4;
    const std::size_t valid = validUtf8(bytes);
    return valid == bytes.size() || (extent == Extent::Cut && bytes.size() - valid < longestCharacter);
}

/// UTF-16 by its zeros: texts of most scripts have many, all at even or all at odd places.
const char *utf16By(std::string_view bytes)
{
    const std::string_view sample = bytes.substr(0, sampleBytes);
    std::array<std::size_t, 2> zeros{};
    for (std::size_t i = 0; i < sample.size(); i++)
        zeros[i % 2] += sample[i] == '\0';
    const std::size_t units = sample.size() / 2;
    const auto many = [units](std::size_t count) { return count * 10 > units; };
    const auto few = [units](std::size_t count) { return count * 100 <= units; };
    if (units < 2)
        return nullptr;
    if (many(zeros[1]) && few(zeros[0]))
        return "UTF-16LE";
    return many(zeros[0]) && few(zeros[1]) ? "UTF-16BE" : nullptr;
}

/// Among letters of any encoding by bytes there are hardly any control characters.
bool hasManyControls(std::string_view bytes)
{
    const std::string_view sample = bytes.substr(0, sampleBytes);
    const auto isControl = [](char c) {
        const auto value = static_cast<unsigned char>(c);
        return value == 0x7f || (value < 0x20 && "\t\n\v\f\r\b\x1b"sv.find(c) == std::string_view::npos);
    };
    return std::size_t(std::ranges::count_if(sample, isControl)) * 50 > sample.size();
}

std::string likelyEncoding(std::string_view bytes)
{
    const std::string_view sample = bytes.substr(0, sampleBytes);
    UErrorCode status = U_ZERO_ERROR;
    const std::unique_ptr<UCharsetDetector, void (*)(UCharsetDetector *)> detector(ucsdet_open(&status), ucsdet_close);
    ucsdet_setText(detector.get(), sample.data(), std::int32_t(sample.size()), &status);
    const UCharsetMatch *match = ucsdet_detect(detector.get(), &status);
    const char *name = U_SUCCESS(status) && match ? ucsdet_getName(match, &status) : nullptr;
    // Its name says less than programs have always meant by it.
    const std::string_view given = name ? name : "";
    return given.empty() || given == "ISO-8859-1" || given.starts_with("UTF-") ? "windows-1252" : std::string(given);
}

} // namespace

static std::optional<std::u16string> encodedText(std::string_view bytes, Extent extent)
{
    for (const Mark &mark : marks)
        if (bytes.starts_with(mark.bytes))
            return converted(bytes.substr(mark.bytes.size()), mark.encoding);
    const bool hasZero = bytes.find('\0') != std::string_view::npos;
    if (hasZero) {
        const char *encoding = utf16By(bytes);
        return encoding ? converted(bytes, encoding) : std::nullopt;
    }
    if (hasManyControls(bytes))
        return std::nullopt;
    return converted(bytes, isUtf8(bytes, extent) ? "UTF-8" : likelyEncoding(bytes).c_str());
}

std::optional<std::u16string> decoded(std::string_view bytes, Extent extent)
{
    auto text = encodedText(bytes, extent);
    constexpr char16_t replacement = 0xFFFD; // what an incomplete last character becomes
    if (text && extent == Extent::Cut && text->ends_with(replacement))
        text->pop_back();
    return text;
}

/// A character that can be shown in place of one that does something.
static char16_t harmless(char16_t unit)
{
    constexpr char16_t controlPictures = 0x2400, deletePicture = 0x2421, replacement = 0xFFFD;
    if (unit < 0x20)
        return char16_t(controlPictures + unit);
    if (unit == 0x7f)
        return deletePicture;
    const bool separates = unit == 0x2028 || unit == 0x2029; // lines and paragraphs, which are told by line feeds here
    const bool isNoCharacter = unit >= 0xFDD0 && unit <= 0xFDEF;
    const bool isControl = unit >= 0x80 && unit < 0xa0;
    return separates || isNoCharacter || isControl || unit >= 0xFFFE ? replacement : unit;
}

namespace {

class Liner {
public:
    Lines take(std::u16string_view text)
    {
        for (std::size_t i = 0; i < text.size(); i++) {
            // Most of a text is letters, which are taken many at a time.
            const std::size_t end = endOfPlain(text, i, std::min(text.size(), i + longestLine - std::min(length, longestLine)));
            part += text.substr(i, end - i);
            length += end - i;
            i = end;
            if (i == text.size())
                break;
            const char16_t unit = text[i];
            if (unit == u'\r' && i + 1 < text.size() && text[i + 1] == u'\n')
                continue;
            if (unit == u'\n' || unit == u'\r')
                endLine();
            else
                add(unit);
        }
        lines.parts.push_back(std::move(part));
        return std::move(lines);
    }

private:
    static std::size_t endOfPlain(std::u16string_view text, std::size_t from, std::size_t end)
    {
        const auto isPlain = [](char16_t unit) { return unit >= 0x20 && unit < 0x7f; };
        while (from < end && isPlain(text[from]))
            from++;
        return from;
    }

    void add(char16_t unit)
    {
        if (length >= longestLine && !U16_IS_TRAIL(unit)) {
            lines.continued.push_back(number);
            endLine();
        }
        part += unit == u'\t' ? unit : harmless(unit);
        length++;
    }

    void endLine()
    {
        part += u'\n';
        number++;
        length = 0;
        if (part.size() >= (lines.parts.empty() ? firstPart : laterPart))
            lines.parts.push_back(std::exchange(part, {}));
    }

    Lines lines;
    std::u16string part;
    std::size_t length = 0; // of the line
    int number = 0; // of the line
};

} // namespace

Lines lined(std::u16string_view text) { return Liner().take(text); }

} // namespace korvane::previewText
