#include "Vorrel/Platform/Linux/WindowClasses.h"
#include "Support/MainLoop.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using Strings = std::vector<std::string>;
using Id = std::optional<std::string>;

namespace {

struct WindowClassesTest : testing::Test {
    void install(const std::string &id, const std::string &more = "")
    {
        disk.file("home/applications/" + id + ".desktop", "[Desktop Entry]\nType=Application\nName=Tool\nExec=tool\n" + more);
    }
    Id identify(Strings names) { return await(loop, classes.identify(std::move(names))); }

    DiskFolder disk;
    MainLoop loop;
    ManualClock clock{loop};
    DesktopEntries entries{DesktopEnvironment{
        .dataHome = disk / "home", .dataDirs = {disk / "machine"}, .currentDesktop = {}, .languages = {}, .path = "/bin"}};
    WindowClasses classes{loop.executor(), clock, entries};
};

} // namespace

TEST_F(WindowClassesTest, AnEntryIsFoundByTheClassThatItTellsItsNameOrTheEndOfIt)
{
    install("vendor-terminal", "StartupWMClass=XTerm\n");
    install("org.example.Editor");
    install("browser");
    install("xterm", "NoDisplay=true\n");
    EXPECT_EQ(identify({"xterm", "XTerm"}), "vendor-terminal");
    EXPECT_EQ(identify({"org.example.Editor", "org.example.Editor"}), "org.example.Editor");
    EXPECT_EQ(identify({"editor", "Editor"}), "org.example.Editor");
    EXPECT_EQ(identify({"Navigator", "Browser"}), "browser") << "the kind's name counts more";
    EXPECT_EQ(identify({"browser", "Unknown"}), "browser");
    EXPECT_EQ(identify({"unknown", "Unknown"}), std::nullopt);
    EXPECT_EQ(identify({}), std::nullopt);
}

TEST_F(WindowClassesTest, WhatIsInstalledLaterIsFoundAfterAMinute)
{
    EXPECT_EQ(identify({"late", "Late"}), std::nullopt);
    install("late");
    clock.advance(60s);
    EXPECT_EQ(identify({"late", "Late"}), std::nullopt);
    clock.advance(1s);
    EXPECT_EQ(identify({"late", "Late"}), "late");
}
