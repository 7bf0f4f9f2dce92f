#include "Vorrel/Shell/AppLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <thread>
#include <vector>

using namespace korvane;
using Strings = std::vector<std::string>;

namespace {

class AppLogTest : public testing::Test {
protected:
    ~AppLogTest() override { AppLog::observe({}); }

    void observe()
    {
        AppLog::observe([this](std::string_view category, AppLog::Level level, std::string_view message) {
            lines.push_back(
                std::string(category) + (level == AppLog::Level::error ? " error: " : " info: ") + std::string(message));
        });
    }
    Strings lines;
};

} // namespace

TEST_F(AppLogTest, TheFiveLoggersDifferByCategory)
{
    observe();
    AppLog::app.info("a");
    AppLog::command.info("b");
    AppLog::search.error("c");
    AppLog::mcp.error("d");
    AppLog::database.info("e");
    EXPECT_EQ(lines, (Strings{"app info: a", "command info: b", "search error: c", "mcp error: d", "database info: e"}));
}

TEST_F(AppLogTest, StandardErrorHasOneLineForEachMessage)
{
    testing::internal::CaptureStderr();
    AppLog::app.info("Korvane is ready");
    AppLog::database.error("{} is no place for a value");
    const std::string written = testing::internal::GetCapturedStderr();
    EXPECT_THAT(written, testing::ContainsRegex("dev\\.korvane\\.vorrel:app info: Korvane is ready\n"));
    EXPECT_THAT(written, testing::ContainsRegex("dev\\.korvane\\.vorrel:database error: .. is no place for a value\n"));
    EXPECT_EQ(std::ranges::count(written, '\n'), 2);
}

TEST_F(AppLogTest, AnObserverTakesThePlaceOfTheOneBefore)
{
    observe();
    int others = 0;
    AppLog::observe([&others](std::string_view, AppLog::Level, std::string_view) { ++others; });
    AppLog::app.info("to the second");
    AppLog::observe({});
    AppLog::app.info("to nobody");
    EXPECT_EQ(lines, Strings());
    EXPECT_EQ(others, 1);
}

TEST_F(AppLogTest, AnObserverMayLogAndMayEndItself)
{
    AppLog::observe([this](std::string_view, AppLog::Level, std::string_view message) {
        lines.emplace_back(message);
        AppLog::observe({});
        AppLog::app.info("after the end");
    });
    AppLog::app.info("once");
    EXPECT_EQ(lines, Strings{"once"});
}

using AppLogDeathTest = AppLogTest;

TEST_F(AppLogDeathTest, AProgramWhoseStandardErrorIsAnInterfaceIsSilentButObserved)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto silentProgram = [] {
        int observed = 0;
        AppLog::observe([&observed](std::string_view, AppLog::Level, std::string_view) { ++observed; });
        AppLog::silence();
        AppLog::app.error("unseen");
        std::fputs("the end", stderr);
        std::exit(observed);
    };
    EXPECT_EXIT(silentProgram(), testing::ExitedWithCode(1),
        testing::AllOf(testing::HasSubstr("the end"), testing::Not(testing::HasSubstr("unseen"))));
}

TEST(AppLogThreads, ManyThreadsLogWhileObserversComeAndGo)
{
    testing::internal::CaptureStderr();
    std::atomic<int> seen{0};
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([] {
            for (int n = 0; n < 200; ++n)
                AppLog::search.info("a message");
        });
    }
    for (int n = 0; n < 100; ++n)
        AppLog::observe([&seen](std::string_view, AppLog::Level, std::string_view) { ++seen; });
    threads.clear();
    AppLog::search.info("the last");
    AppLog::observe({});
    const std::string written = testing::internal::GetCapturedStderr();
    static const std::regex line("dev\\.korvane\\.vorrel:search info: (a message|the last)\n");
    EXPECT_EQ(std::distance(std::sregex_iterator(written.begin(), written.end(), line), {}), 801);
    EXPECT_GE(seen, 1);
}
