#include "Vorrel/Shell/Formats.h"

#include "Vorrel/Shell/L10n.h"

#include <unicode/datefmt.h>
#include <unicode/numberformatter.h>

#include <array>
#include <cmath>
#include <memory>

#include <ctime>

namespace korvane {

namespace {

// Newer data of ICU sets it before AM and PM; not every font has it.
constexpr char16_t narrowNoBreakSpace = u'\u202F';

icu::Locale localeOf(const std::string &language)
{
    UErrorCode status = U_ZERO_ERROR;
    return icu::Locale::forLanguageTag(language, status);
}

std::string utf8(const icu::UnicodeString &text)
{
    std::string bytes;
    text.toUTF8String(bytes);
    return bytes;
}

std::string formatted(double value, int digits, const std::string &language)
{
    UErrorCode status = U_ZERO_ERROR;
    const auto number = icu::number::NumberFormatter::withLocale(localeOf(language))
                            .precision(icu::number::Precision::maxFraction(digits))
                            .roundingMode(UNUM_ROUND_HALFUP)
                            .formatDouble(value, status);
    return U_SUCCESS(status) ? utf8(number.toString(status)) : std::to_string(value);
}

} // namespace

std::string formattedCount(long long count, const std::string &language)
{
    UErrorCode status = U_ZERO_ERROR;
    const auto number = icu::number::NumberFormatter::withLocale(localeOf(language)).formatInt(count, status);
    return U_SUCCESS(status) ? utf8(number.toString(status)) : std::to_string(count);
}

std::string formattedByteCount(long long bytes, const std::string &language)
{
    struct Unit {
        double bytes;
        int digits;
        const char *name;
    };
    static constexpr std::array<Unit, 5> units{
        {{1e3, 0, "KB"}, {1e6, 1, "MB"}, {1e9, 2, "GB"}, {1e12, 2, "TB"}, {1e15, 2, "PB"}}};
    if (bytes == 0)
        return L10n::text("Zero KB");
    if (bytes == 1)
        return L10n::text("1 byte");
    if (std::abs(double(bytes)) < 1000)
        return L10n::format("%@ bytes", formattedCount(bytes, language));
    // The unit in which the rounded value stays below a thousand: 999,950 bytes are 1 MB and not 1,000 KB.
    for (const Unit &unit : units) {
        const double scale = std::pow(10, unit.digits);
        const double value = std::round(double(bytes) / unit.bytes * scale) / scale;
        if (std::abs(value) < 1000 || &unit == &units.back())
            return formatted(value, unit.digits, language) + " " + unit.name;
    }
    return {};
}

std::string formattedDate(double date, const std::string &language)
{
    const std::unique_ptr<icu::DateFormat> format(
        icu::DateFormat::createDateTimeInstance(icu::DateFormat::kMedium, icu::DateFormat::kShort, localeOf(language)));
    icu::UnicodeString text;
    if (format)
        format->format(date * 1000, text);
    text.findAndReplace(icu::UnicodeString(narrowNoBreakSpace), icu::UnicodeString(u' '));
    return utf8(text);
}

std::string iso8601(double date)
{
    const auto seconds = static_cast<std::time_t>(date);
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    char text[32];
    return {text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

} // namespace korvane
