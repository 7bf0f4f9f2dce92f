#include "Vorrel/Shell/Formats.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

using namespace korvane;

TEST(Formats, CountsHaveTheSeparatorsOfTheLanguage)
{
    EXPECT_EQ(formattedCount(0, "en"), "0");
    EXPECT_EQ(formattedCount(999, "en"), "999");
    EXPECT_EQ(formattedCount(1'234'567, "en"), "1,234,567");
    EXPECT_EQ(formattedCount(1'234'567, "zh-hans"), "1,234,567");
}

TEST(Formats, SizesAreInDecimalUnitsAndWholeUpToMegabytes)
{
    const struct {
        long long bytes;
        const char *text;
    } rows[] = {{0, "Zero KB"}, {1, "1 byte"}, {2, "2 bytes"}, {999, "999 bytes"}, {1000, "1 KB"}, {1499, "1 KB"}, {1500, "2 KB"},
        {999'499, "999 KB"}, {999'500, "1 MB"}, {1'000'000, "1 MB"}, {1'250'000, "1.3 MB"}, {10'000'000, "10 MB"},
        {999'949'999, "999.9 MB"}, {999'950'000, "1 GB"}, {3'254'000'000, "3.25 GB"}, {2'000'000'000'000, "2 TB"},
        {9'223'372'036'854'775'807, "9,223.37 PB"}};
    for (const auto &[bytes, text] : rows)
        EXPECT_EQ(formattedByteCount(bytes, "en"), text) << bytes;
}

TEST(Formats, DatesHaveAShortMonthAndNoSeconds)
{
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    EXPECT_EQ(formattedDate(1'700'000'000, "en"), "Nov 14, 2023, 10:13 PM");
    EXPECT_EQ(formattedDate(1'700'000'000, "zh-hans"), "2023年11月14日 22:13");
}
