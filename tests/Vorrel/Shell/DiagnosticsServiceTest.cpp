#include "tests/support/DiskFolder.h"
#include "tests/support/TestPalette.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

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

// The report

namespace {

using Category = DiagnosticsService::Category;

struct Report {
    std::string text() { return diagnostics.report(health, registered, facts); }
    Strings lines()
    {
        Strings all;
        std::istringstream text(this->text());
        for (std::string line; std::getline(text, line);)
            all.push_back(line);
        return all;
    }
    std::string line(const std::string &beginning)
    {
        for (const std::string &line : lines())
            if (line.starts_with(beginning))
                return line;
        return {};
    }
    std::string written(const std::string &path)
    {
        desktop.dialogs.accept({path});
        return await(desktop.loop, diagnostics.writeWithSavePanel(index, true));
    }

    HeadlessDesktop desktop;
    DiagnosticsService diagnostics{diagnosticsPorts(desktop)};
    std::shared_ptr<FileIndex> index = std::make_shared<FileIndex>();
    FileIndex::Health health{.fileCount = 1'234'567, .rootCount = 3, .state = FileIndex::Health::State::watching};
    bool registered = true;
    SystemFacts facts{"Linux 6", "riscv64", "en_GB.UTF-8"};
};

} // namespace

TEST(DiagnosticsReport, HasExactlyTheseLines)
{
    Report report;
    report.desktop.clock.setWall(1'700'000'000);
    EXPECT_EQ(report.lines(),
        (Strings{"Korvane Diagnostics", "===================", "Generated: 2023-11-14T22:13:20Z", "", "Application",
            report.line("- Version: "), "- System: Linux 6", "- Architecture: riscv64", "- Preferred language: en_GB.UTF-8", "",
            "File Index", "- Indexed files: 1,234,567", "- Status: watching", "- Indexed roots: 3", "", "Global Hotkey",
            "- Registered: yes", "", "Recent Errors (this session, capped at 50)", "- none recorded", "",
            "Search Performance (last 0 of max 100 searches)", "- no searches recorded yet", "",
            "This export contains no clipboard content, file paths, search text, conversations or credentials."}));
    EXPECT_GT(report.line("- Version: ").size(), std::string("- Version: ").size());
    EXPECT_FALSE(report.text().ends_with('\n'));
}

TEST(DiagnosticsReport, NamesTheStateOfTheIndexTheMissingKeyAndTheUnknownLanguage)
{
    Report report;
    report.registered = false;
    report.facts.language.clear();
    report.health.state = FileIndex::Health::State::indexing;
    EXPECT_EQ(report.line("- Status"), "- Status: indexing");
    EXPECT_EQ(report.line("- Registered"), "- Registered: no");
    EXPECT_EQ(report.line("- Preferred"), "- Preferred language: unknown");
    report.health.state = FileIndex::Health::State::liveUpdatesUnavailable;
    EXPECT_EQ(report.line("- Status"), "- Status: liveUpdatesUnavailable");
}

TEST(DiagnosticsReport, CountsErrorsByCategoryInTheOrderOfTheirNamesWithTheNewestTime)
{
    Report report;
    report.desktop.clock.setWall(1'700'000'000);
    report.diagnostics.recordError(Category::mcp);
    report.diagnostics.recordError(Category::ai);
    report.desktop.clock.setWall(1'700'000'060);
    report.diagnostics.recordError(Category::mcp);
    const auto lines = report.lines();
    const auto heading = std::ranges::find(lines, "Recent Errors (this session, capped at 50)");
    ASSERT_NE(heading, lines.end());
    EXPECT_EQ(heading[1], "- ai: 1 (last at 2023-11-14T22:13:20Z)");
    EXPECT_EQ(heading[2], "- mcp: 2 (last at 2023-11-14T22:14:20Z)");
    EXPECT_EQ(heading[3], "");
}

TEST(DiagnosticsReport, FiftyOneErrorsOfOneCategoryShowACountOfFifty)
{
    Report report;
    for (int i = 0; i < 51; ++i)
        report.diagnostics.recordError(Category::database);
    EXPECT_TRUE(report.line("- database").starts_with("- database: 50 (last at "));
}

TEST(DiagnosticsReport, OfOneSearchMedianAndPercentileAreThatValue)
{
    Report report;
    report.diagnostics.recordSearch(12.345, 7, true);
    EXPECT_EQ(report.line("Search Performance"), "Search Performance (last 1 of max 100 searches)");
    EXPECT_EQ(report.line("- Median duration"), "- Median duration: 12.3 ms");
    EXPECT_EQ(report.line("- p95"), "- p95 duration: 12.3 ms");
    EXPECT_EQ(report.line("- Timed out"), "- Timed out: 1");
    EXPECT_EQ(report.line("- Median results"), "- Median results: 7");
}

TEST(DiagnosticsReport, OfTwentySearchesThePercentileIsTheNineteenthSmallest)
{
    Report report;
    for (int i = 20; i > 0; --i)
        report.diagnostics.recordSearch(i, 100 - i, false);
    EXPECT_EQ(report.line("- p95"), "- p95 duration: 19.0 ms");
    EXPECT_EQ(report.line("- Median duration"), "- Median duration: 11.0 ms");
    EXPECT_EQ(report.line("- Median results"), "- Median results: 90");
    EXPECT_EQ(report.line("- Timed out"), "- Timed out: 0");
}

TEST(DiagnosticsReport, TheMedianOfFourIsTheThird)
{
    Report report;
    for (const int value : {40, 10, 30, 20})
        report.diagnostics.recordSearch(value, value, false);
    EXPECT_EQ(report.line("- Median duration"), "- Median duration: 30.0 ms");
    EXPECT_EQ(report.line("- Median results"), "- Median results: 30");
    EXPECT_EQ(report.line("- p95"), "- p95 duration: 40.0 ms");
}

TEST(DiagnosticsReport, ThePanelNamesTheFileAndSaysWhatIsInIt)
{
    Report report;
    report.desktop.dialogs.refuse();
    EXPECT_EQ(await(report.desktop.loop, report.diagnostics.writeWithSavePanel(report.index, true)),
        "Diagnostics export was cancelled.");
    ASSERT_EQ(report.desktop.dialogs.asked().size(), 1u);
    EXPECT_EQ(report.desktop.dialogs.asked()[0].choice.saveAs, "korvane-diagnostics.txt");
    EXPECT_EQ(report.desktop.dialogs.asked()[0].choice.message,
        "Diagnostics include versions, index status, hotkey registration, recent error categories and search timings. No "
        "clipboard "
        "content, file paths, search text or credentials are included.");
}

TEST(DiagnosticsReport, IsWrittenWholeOrTheReasonIsTold)
{
    Report report;
    DiskFolder disk;
    EXPECT_EQ(report.written(disk / "out.txt"), "Diagnostics exported.");
    report.health = report.index->indexHealth();
    EXPECT_EQ(disk.contents("out.txt"), report.text());
    EXPECT_EQ(
        report.written(disk / "missing/out.txt"), "Could not export diagnostics. Choose a writable location and try again.");
}

TEST(DiagnosticsReport, HoldsNothingOfWhatTheServicesHold)
{
    const std::string marker = "zebra-marker";
    TestPalette palette;
    palette.secrets.keep("ai.openai", marker);
    palette.start();
    await(palette.loop, ClipboardRepository(palette.services->database, palette.clock).insert(marker, marker, 500));
    await(palette.loop, palette.services->quicklinks.save({.id = marker, .title = marker, .url = "https://" + marker}));
    await(palette.loop, palette.services->mcp().add({.id = marker, .name = marker, .command = "/" + marker}));
    await(palette.loop, AgentRepository(palette.services->database).save({.id = marker, .name = marker, .systemPrompt = marker}));
    await(palette.loop,
        palette.services->database->execute(
            "INSERT INTO conversations VALUES(?,?,1)", std::vector<SQLValue>{marker, "[{\"content\":\"" + marker + "\"}]"}));
    await(palette.loop, palette.services->appLaunches.record("/" + marker, marker));
    palette.used("app:/" + marker, 3);
    await(palette.loop, palette.services->preferences().load());
    palette.services->preferences().apiKey = marker;
    palette.services->preferences().credentialValue = marker;
    palette.file("/home/ada/" + marker);
    palette.type(marker);
    palette.wait(std::chrono::seconds(5));
    palette.services->fileIndex->addRoot("/srv/" + marker);
    for (const auto category : {Category::fileSearch, Category::clipboard, Category::mcp, Category::ai, Category::other})
        palette.services->diagnostics.recordError(category);
    palette.services->diagnostics.recordSearch(3, 1, true);
    DiskFolder disk;
    palette.dialogs.accept({disk / "report.txt"});
    palette.services->preferences().exportDiagnostics();
    palette.settle();
    const std::string text = disk.contents("report.txt");
    EXPECT_EQ(palette.services->preferences().message.get(), "Diagnostics exported.");
    EXPECT_NE(text.find("Korvane Diagnostics"), std::string::npos);
    EXPECT_EQ(text.find(marker), std::string::npos) << text;
}
