#include "Vorrel/Palette/RelativeDate.h"

#include <unicode/reldatefmt.h>

#include <array>
#include <cmath>

namespace korvane {

std::string relativeDate(double date, double now, const std::string &language)
{
    // Whole units, the largest that fits; months and years by their mean length.
    constexpr struct {
        double seconds;
        URelativeDateTimeUnit unit;
    } units[] = {{31'556'952, UDAT_REL_UNIT_YEAR}, {2'629'746, UDAT_REL_UNIT_MONTH}, {604'800, UDAT_REL_UNIT_WEEK},
        {86'400, UDAT_REL_UNIT_DAY}, {3'600, UDAT_REL_UNIT_HOUR}, {60, UDAT_REL_UNIT_MINUTE}, {1, UDAT_REL_UNIT_SECOND}};
    const double offset = date - now;
    double count = 0;
    URelativeDateTimeUnit chosen = UDAT_REL_UNIT_SECOND;
    for (const auto &[seconds, unit] : units) {
        if (std::abs(offset) >= seconds) {
            count = std::trunc(offset / seconds);
            chosen = unit;
            break;
        }
    }
    UErrorCode status = U_ZERO_ERROR;
    const icu::RelativeDateTimeFormatter formatter(
        icu::Locale::forLanguageTag(language, status), nullptr, UDAT_STYLE_LONG, UDISPCTX_CAPITALIZATION_NONE, status);
    icu::UnicodeString text;
    formatter.format(count, chosen, text, status);
    std::string utf8;
    if (U_SUCCESS(status))
        text.toUTF8String(utf8);
    return utf8;
}

} // namespace korvane
