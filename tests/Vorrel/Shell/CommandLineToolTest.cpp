#include "TestTool.h"

using namespace korvane;
using namespace korvane::test;

using CommandLine = TestTool;

TEST_F(CommandLine, CalcPrintsTheFormattedValue)
{
    EXPECT_EQ(run({"calc", "2+3*4"}), 0);
    EXPECT_EQ(out, "14\n");
    EXPECT_EQ(run({"calc", "1/3"}), 0);
    EXPECT_EQ(out, "0.3333333333\n");
}

TEST_F(CommandLine, CalcWithoutAValueFailsWithoutAWord)
{
    for (const char *text : {"hello", "42", "1/0", ""}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(run({"calc", text}), 1);
        EXPECT_EQ(out, "");
        EXPECT_EQ(err, "");
    }
}

TEST_F(CommandLine, WrongUsageEndsWithTwoAndNothingOnStandardOutput)
{
    const Strings wrong[] = {{}, {"nonsense"}, {"calc"}, {"calc", "1", "+"}, {"apps", "x"}, {"search"},
        {"search", "a", "--category", "pets"}, {"search", "a", "--category"}, {"run"}, {"run", "a", "b", "c"}, {"--unknown"},
        {"calc", "--category", "all", "1+1"}};
    for (const auto &arguments : wrong) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        EXPECT_EQ(run(arguments), 2);
        EXPECT_EQ(out, "");
        EXPECT_NE(err, "");
    }
}

TEST_F(CommandLine, HelpAndVersionArePrintedWhereverTheyStand)
{
    EXPECT_EQ(run({"apps", "--help"}), 0);
    EXPECT_NE(out.find("Usage: korvanectl"), std::string::npos);
    EXPECT_EQ(run({"--version"}), 0);
    EXPECT_EQ(out.substr(0, 11), "korvanectl ");
}

TEST_F(CommandLine, TwoDashesEndTheOptions)
{
    EXPECT_EQ(run({"calc", "--", "--5+1"}), 0);
    EXPECT_EQ(out, "6\n");
    EXPECT_EQ(run({"--json", "calc", "--", "-2*3"}), 0);
    EXPECT_EQ(out, "[{\"value\":\"-6\"}]\n");
}

TEST_F(CommandLine, AppsListsNameIdentifierAndPathWithoutTabsInACell)
{
    EXPECT_EQ(run({"apps"}), 0);
    EXPECT_EQ(out,
        "Editor\torg.example.editor\t" + root + "/org.example.editor.app\nTab Name\torg.example.tab\t" + root
            + "/org.example.tab.app\n");
    EXPECT_FALSE(std::filesystem::exists(root + "/data")) << "reading makes no store";
    EXPECT_EQ(run({"apps", "--json"}), 0);
    const auto list = JSONValue::parse(out);
    ASSERT_TRUE(list.array());
    ASSERT_EQ(list.array()->size(), 2u);
    EXPECT_EQ((*list.array())[1]["name"], JSONValue("Tab\tName"));
    EXPECT_EQ((*list.array())[0]["bundleIdentifier"], JSONValue("org.example.editor"));
}

TEST_F(CommandLine, SearchPrintsTheRowsOfThePaletteAndMakesNoStore)
{
    EXPECT_EQ(run({"search", "edit"}), 0);
    EXPECT_EQ(out,
        "application\tapp:" + root + "/org.example.editor.app\tEditor\torg.example.editor · " + root
            + "/org.example.editor.app\n");
    EXPECT_FALSE(std::filesystem::exists(root + "/data"));
}

TEST_F(CommandLine, AnEmptyListIsDone)
{
    EXPECT_EQ(run({"search", "nothing like this"}), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(run({"search", "nothing like this", "--json"}), 0);
    EXPECT_EQ(out, "[]\n");
}

TEST_F(CommandLine, SearchAsJsonHoldsWhatARowIs)
{
    EXPECT_EQ(run({"--json", "search", "lock screen"}), 0);
    const auto rows = JSONValue::parse(out);
    ASSERT_TRUE(rows.array());
    ASSERT_EQ(rows.array()->size(), 1u);
    const JSONValue &row = rows.array()->front();
    EXPECT_EQ(row["id"], JSONValue("lock"));
    EXPECT_EQ(row["title"], JSONValue("Lock Screen"));
    EXPECT_EQ(row["subtitle"], JSONValue("System Command"));
    EXPECT_EQ(row["kind"], JSONValue("command"));
    EXPECT_TRUE(row["keywords"].array());
    ASSERT_TRUE(row["actions"].array());
    const JSONValue::Object action{{"id", "lock"}, {"title", "Lock Screen"}, {"role", "write"}};
    EXPECT_EQ(row["actions"].array()->front(), JSONValue(action));
}

TEST_F(CommandLine, SearchInACategoryKeepsToIt)
{
    EXPECT_EQ(run({"search", "o", "--category", "applications"}), 0);
    EXPECT_EQ(out.find("command\t"), std::string::npos);
    EXPECT_NE(out.find("application\t"), std::string::npos);
    EXPECT_EQ(run({"search", "o", "--category=shortcuts"}), 0);
    EXPECT_EQ(out, "");
}

TEST_F(CommandLine, RunRunsTheDefaultActionAndCountsTheUse)
{
    EXPECT_EQ(run({"run", "app:" + root + "/org.example.editor.app"}), 0);
    ASSERT_EQ(desktop->launcher.launches.size(), 1u);
    EXPECT_EQ(desktop->launcher.launches[0].path, root + "/org.example.editor.app");
    EXPECT_EQ(out, "");
    EXPECT_EQ(run({"search", ""}), 0);
    EXPECT_EQ(out.substr(0, 15), "application\tapp") << "what was used comes first";
}

TEST_F(CommandLine, RunTakesANamedActionAndRefusesAnUnknownOne)
{
    const std::string id = "app:" + root + "/org.example.editor.app";
    EXPECT_EQ(run({"run", id, "reveal"}), 0);
    EXPECT_EQ(desktop->workspace.revealed, Strings{root + "/org.example.editor.app"});
    EXPECT_EQ(run({"run", id, "dance"}), 1);
    EXPECT_EQ(out, "");
    EXPECT_NE(err, "");
    EXPECT_EQ(run({"run", "app:/nowhere.app"}), 1);
    EXPECT_NE(err, "");
}

TEST_F(CommandLine, AFileIsOpenedShownAndItsPathCopiedByItsIdentifier)
{
    const std::string file = "file:" + root;
    EXPECT_EQ(run({"run", file}), 0) << err;
    EXPECT_EQ(run({"run", file, "reveal"}), 0) << err;
    EXPECT_EQ(run({"run", file, "copyPath"}), 0) << err;
    EXPECT_EQ(desktop->workspace.opened, Strings{root});
    EXPECT_EQ(desktop->workspace.revealed, Strings{root});
    EXPECT_EQ(desktop->pasteboard.text, root);
    for (const char *action : {"openWith", "preview"}) {
        EXPECT_EQ(run({"run", file, action}), 1);
        EXPECT_EQ(err, "Open Korvane for this action.\n");
    }
    EXPECT_EQ(run({"run", "file:/nonexistent/gone.txt", "reveal"}), 1);
    EXPECT_EQ(err, "This file no longer exists. Refresh the search results.\n");
}

TEST_F(CommandLine, AnActionThatNeedsTheWindowIsRefused)
{
    EXPECT_EQ(run({"run", "app:" + root + "/org.example.editor.app", "arguments"}), 1);
    EXPECT_EQ(err, "Open Korvane for this action.\n");
    for (const char *row : {"files", "settings"}) {
        EXPECT_EQ(run({"run", row}), 1);
        EXPECT_EQ(err, "Open Korvane for this action.\n");
    }
}

TEST_F(CommandLine, WhatNeedsConsentIsRefusedUnlessItIsGiven)
{
    EXPECT_EQ(run({"run", "trash"}), 1);
    EXPECT_EQ(err, "The operation was cancelled.\n");
    EXPECT_TRUE(desktop->system.requests().empty());
    EXPECT_EQ(run({"run", "--yes", "trash"}), 0);
    EXPECT_EQ(desktop->system.requests(), Strings{"trash"});
}

TEST_F(CommandLine, AFailedActionEndsWithOneAndItsSentence)
{
    desktop->system.sleepOutcome = SystemOutcome::unavailable;
    EXPECT_EQ(run({"run", "sleep"}), 1);
    EXPECT_EQ(out, "");
    EXPECT_EQ(err, "Power management is unavailable.\n");
}

TEST_F(CommandLine, AFileIsOpenedByItsIdentifierAlone)
{
    std::ofstream(root + "/note.txt") << "text";
    EXPECT_EQ(run({"run", "file:" + root + "/note.txt"}), 0);
    EXPECT_EQ(desktop->workspace.opened, Strings{root + "/note.txt"});
    EXPECT_EQ(run({"run", "file:" + root + "/gone.txt"}), 1);
    EXPECT_EQ(err, "This file no longer exists. Refresh the search results.\n");
}

TEST_F(CommandLine, ReadingLeavesAnUpToDateStoreUntouched)
{
    ASSERT_EQ(run({"run", "lock"}), 0);
    const auto store = root + "/data/Korvane/korvane.sqlite";
    const auto before = std::filesystem::last_write_time(store);
    ASSERT_EQ(run({"search", "lock"}), 0);
    EXPECT_EQ(std::filesystem::last_write_time(store), before);
}

TEST_F(CommandLine, AStoreThatIsNoDatabaseIsToldAndKept)
{
    std::filesystem::create_directories(root + "/data/Korvane");
    const std::string content(8192, 'z');
    std::ofstream(root + "/data/Korvane/korvane.sqlite") << content;
    EXPECT_EQ(run({"search", "lock"}), 1);
    EXPECT_EQ(out, "");
    EXPECT_NE(err, "");
    EXPECT_EQ(run({"run", "lock"}), 1);
    EXPECT_EQ(err, "Could not migrate the local database.\n");
    std::ifstream file(root + "/data/Korvane/korvane.sqlite");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), content);
}
