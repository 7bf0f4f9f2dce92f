#include "Vorrel/Palette/RelativeDate.h"

#include <gtest/gtest.h>

using namespace korvane;

TEST(RelativeDate, NamesTheLargestUnitThatFits)
{
    constexpr double now = 1'700'000'000, hour = 3600, day = 86400;
    const struct {
        const char *why;
        double ago;
        const char *text;
    } cases[] = {
        {"this very moment has a name", 0, "now"},
        {"whole seconds", 59.9, "59 seconds ago"},
        {"a minute begins at sixty seconds", 60, "1 minute ago"},
        {"just under an hour", hour - 1, "59 minutes ago"},
        {"just under a day", day - 1, "23 hours ago"},
        {"one day has a name", day, "yesterday"},
        {"a week has a name", 7 * day, "last week"},
        {"two weeks", 15 * day, "2 weeks ago"},
        {"a year has a name", 366 * day, "last year"},
        {"a clock that was set back", -2 * hour, "in 2 hours"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(relativeDate(now - c.ago, now, "en"), c.text);
    }
}

TEST(RelativeDate, SpeaksTheLanguageOfTheTexts) { EXPECT_EQ(relativeDate(0, 86400, "zh-hans"), "昨天"); }
