#include "tests/support/HeadlessDesktop.h"

#include "Vorrel/Shell/DiagnosticsService.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;

TEST(DiagnosticsService, KeepsFiftyErrorsAndDropsTheOldestOfFiftyOne)
{
    HeadlessDesktop desktop;
    DiagnosticsService diagnostics(diagnosticsPorts(desktop));
    diagnostics.recordError(DiagnosticsService::Category::hotkey);
    for (int i = 0; i < 49; ++i)
        diagnostics.recordError(DiagnosticsService::Category::command);
    EXPECT_EQ(diagnostics.errorEvents().size(), 50u);
    EXPECT_EQ(diagnostics.errorEvents().front().category, DiagnosticsService::Category::hotkey);
    diagnostics.recordError(DiagnosticsService::Category::ai);
    EXPECT_EQ(diagnostics.errorEvents().size(), 50u);
    EXPECT_EQ(diagnostics.errorEvents().front().category, DiagnosticsService::Category::command);
    EXPECT_EQ(diagnostics.errorEvents().back().category, DiagnosticsService::Category::ai);
    EXPECT_EQ(diagnostics.errorEvents().back().date, desktop.clock.now());
}

TEST(DiagnosticsService, KeepsAHundredSearchTimingsAndDropsTheOldest)
{
    HeadlessDesktop desktop;
    DiagnosticsService diagnostics(diagnosticsPorts(desktop));
    for (int i = 0; i < 101; ++i)
        diagnostics.recordSearch(i, 2 * i, i == 100);
    ASSERT_EQ(diagnostics.searchTimings().size(), 100u);
    EXPECT_EQ(diagnostics.searchTimings().front().milliseconds, 1);
    EXPECT_EQ(diagnostics.searchTimings().back().results, 200);
    EXPECT_TRUE(diagnostics.searchTimings().back().timedOut);
}

TEST(DiagnosticsService, CategoriesBearTheNamesOfTheirCases)
{
    EXPECT_EQ(rawValue(DiagnosticsService::Category::fileSearch), "fileSearch");
    EXPECT_EQ(rawValue(DiagnosticsService::Category::other), "other");
}
