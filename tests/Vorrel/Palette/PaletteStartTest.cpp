#include "tests/support/TestPalette.h"

#include "Vorrel/Shell/L10n.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;

namespace {

/// The real tables, for one test.
struct WithTexts {
    explicit WithTexts(std::string language)
    {
        L10n::use(
            L10n::load({.resources = KORVANE_SOURCE "/resources", .languages = {std::move(language)}, .platform = "linux"}));
    }
    ~WithTexts() { L10n::use(L10n()); }
};

} // namespace

TEST(PaletteStart, RegistersTheSystemCommandsInTheirShape)
{
    TestPalette palette;
    palette.start();
    EXPECT_TRUE(palette.state->started());
    const struct {
        const char *id, *title, *symbol;
        ActionRole role;
    } expected[] = {
        {"finder", "Open Finder", "folder", ActionRole::normal},
        {"downloads", "Open Downloads", "arrow.down.circle", ActionRole::normal},
        {"applications", "Open Applications", "square.grid.2x2", ActionRole::normal},
        {"lock", "Lock Screen", "lock", ActionRole::write},
        {"sleep", "Sleep", "moon", ActionRole::write},
        {"trash", "Empty Trash", "trash", ActionRole::destructive},
    };
    EXPECT_EQ(palette.state->registry.commands().size(), std::size(expected) + 4) << "with files, clipboard, ai and settings";
    for (const auto &[id, title, symbol, role] : expected) {
        SCOPED_TRACE(id);
        const Row row = palette.state->registry.result(id);
        ASSERT_TRUE(row);
        EXPECT_EQ(row->title, title);
        EXPECT_EQ(row->subtitle, "System Command");
        EXPECT_EQ(row->icon, CommandIcon::symbol(symbol));
        EXPECT_EQ(row->kind, ResultKind::command);
        EXPECT_FALSE(row->keepsOpen);
        EXPECT_EQ(row->keywords.size(), 2u);
        ASSERT_EQ(row->actions.size(), 1u);
        EXPECT_EQ(row->actions[0].id, id);
        EXPECT_EQ(row->actions[0].title, title);
        EXPECT_EQ(row->actions[0].role, role);
        EXPECT_EQ(row->actions[0].flow, ActionFlow::direct());
    }
}

TEST(PaletteStart, TheClipboardHistoryHasARowOfItsOwn)
{
    TestPalette palette;
    palette.start();
    const Row row = palette.state->registry.result("clipboard");
    ASSERT_TRUE(row);
    EXPECT_EQ(row->title, "Clipboard History");
    EXPECT_EQ(row->subtitle, "Open Clipboard History");
    EXPECT_EQ(row->icon, CommandIcon::symbol("clipboard"));
    EXPECT_EQ(
        row->keywords, (Strings{"clipboard", L10n::text("Clipboard History"), L10n::simplifiedChinese("Clipboard History")}));
    EXPECT_TRUE(row->keepsOpen);
    ASSERT_EQ(row->actions.size(), 1u);
    EXPECT_EQ(row->actions[0].id, "clipboard");
    EXPECT_EQ(row->actions[0].title, "Clipboard History");
    EXPECT_EQ(row->actions[0].role, ActionRole::normal);
    palette.type("clipb");
    palette.run();
    EXPECT_EQ(palette.state->mode(), PaletteState::Mode::clipboard);
    EXPECT_EQ(palette.state->query(), "");
}

TEST(PaletteStart, AskingAModelHasARowOfItsOwn)
{
    TestPalette palette;
    palette.start();
    const Row row = palette.state->registry.result("ai");
    ASSERT_TRUE(row);
    EXPECT_EQ(row->title, "Ask AI");
    EXPECT_EQ(row->subtitle, "Open Ask AI");
    EXPECT_EQ(row->icon, CommandIcon::symbol("sparkles"));
    EXPECT_EQ(row->keywords, (Strings{"ai", L10n::text("Ask AI"), L10n::simplifiedChinese("Ask AI")}));
    EXPECT_TRUE(row->keepsOpen);
    ASSERT_EQ(row->actions.size(), 1u);
    EXPECT_EQ(row->actions[0].id, "ai");
    EXPECT_EQ(row->actions[0].title, "Ask AI");
    EXPECT_EQ(row->actions[0].role, ActionRole::normal);
    palette.type("ask");
    palette.run();
    EXPECT_EQ(palette.state->mode(), PaletteState::Mode::ai);
    EXPECT_FALSE(palette.state->activeAgent());
    EXPECT_EQ(palette.state->query(), "");
}

TEST(PaletteStart, FilesAndSettingsHaveRowsOfTheirOwn)
{
    TestPalette palette;
    palette.start();
    const Row files = palette.state->registry.result("files"), settings = palette.state->registry.result("settings");
    ASSERT_TRUE(files && settings);
    EXPECT_EQ(files->title, "Search Files");
    EXPECT_EQ(files->subtitle, "Open Search Files");
    EXPECT_EQ(files->icon, CommandIcon::symbol("doc.text.magnifyingglass"));
    EXPECT_EQ(files->keywords.front(), "files");
    EXPECT_TRUE(files->keepsOpen);
    EXPECT_EQ(settings->title, "Open Settings");
    EXPECT_EQ(settings->subtitle, "Hotkey · Clipboard · AI · MCP");
    EXPECT_EQ(settings->icon, CommandIcon::symbol("gearshape"));
    EXPECT_EQ(settings->keywords, Strings{"preferences"});
    EXPECT_FALSE(settings->keepsOpen);

    palette.type("search files");
    palette.run();
    EXPECT_EQ(palette.state->mode(), PaletteState::Mode::files);
    EXPECT_EQ(palette.state->query(), "");
    palette.state->escape();
    palette.settle();
    EXPECT_EQ(palette.state->mode(), PaletteState::Mode::commands);
    palette.log.clear();
    palette.type("preferences");
    ASSERT_EQ(palette.selected(), "Open Settings");
    palette.run();
    EXPECT_THAT(palette.log, testing::Contains("settings"));
    EXPECT_THAT(palette.log, testing::Contains("hide"));
}

TEST(PaletteStart, FolderCommandsOpenTheirFolders)
{
    TestPalette palette;
    palette.start();
    for (const char *title : {"Open Finder", "Open Downloads", "Open Applications"}) {
        palette.type(title);
        palette.run();
    }
    EXPECT_EQ(palette.system.requests(), (Strings{"open /home/ada", "open /home/ada/Downloads", "open /Applications"}));
}

TEST(PaletteStart, TheChineseWordForSleepFindsTheCommandUnderAnEnglishSystem)
{
    const WithTexts texts("en_GB.UTF-8");
    TestPalette palette;
    palette.start();
    const std::string chinese = L10n::simplifiedChinese("Sleep");
    ASSERT_NE(chinese, "Sleep");
    palette.type(chinese);
    ASSERT_FALSE(palette.ids().empty());
    EXPECT_EQ(palette.ids()[0], "sleep");
}

TEST(PaletteStart, ACommandIsFoundByTheWordsOfThePlatformInWhichItIsShown)
{
    const WithTexts texts("en_US.UTF-8");
    TestPalette palette;
    palette.start();
    const std::string shown = L10n::shown("Open Finder");
    ASSERT_NE(shown, "Open Finder");
    palette.type(shown);
    ASSERT_FALSE(palette.ids().empty());
    EXPECT_EQ(palette.ids()[0], "finder");
}

TEST(PaletteStart, TheActionFilterMatchesEnglishAndChineseTitlesInEveryLanguage)
{
    for (const char *language : {"zh_CN.UTF-8", "en_US.UTF-8", "de_DE.UTF-8"}) {
        SCOPED_TRACE(language);
        const WithTexts texts(language);
        TestPalette palette;
        palette.command("Row", {.actions = {{.id = "trash", .title = "Empty Trash"}, {.id = "other", .title = "Zzz"}}});
        palette.state->toggleActions();
        palette.type("empty");
        EXPECT_EQ(palette.state->filteredActions().size(), 1u);
        palette.type(L10n::simplifiedChinese("Empty Trash"));
        ASSERT_EQ(palette.state->filteredActions().size(), 1u);
        EXPECT_EQ(palette.state->filteredActions()[0].id, "trash");
    }
}

TEST(PaletteStart, ASecondCallReturnsAtOnce)
{
    TestPalette palette;
    palette.start();
    palette.start();
    EXPECT_EQ(palette.error(), "");
}

TEST(PaletteStart, AFailedStepIsShownAndWhatWasRegisteredStays)
{
    TestPalette palette;
    await(palette.loop, palette.services->database->close());
    palette.start();
    EXPECT_EQ(palette.error(), "The database is closed.");
    EXPECT_TRUE(palette.state->registry.result("lock"));
    EXPECT_FALSE(palette.clipboard->started);
}

TEST(PaletteStart, ADuplicateCommandEndsTheStartWithItsSentence)
{
    TestPalette palette;
    palette.command("Mine", {.id = "downloads"});
    palette.start();
    EXPECT_EQ(palette.error(), "Duplicate command identifier.");
    EXPECT_TRUE(palette.state->registry.result("finder"));
}

TEST(PaletteStart, UseOfEarlierSessionsOrdersTheList)
{
    TestPalette palette;
    palette.used("trash", 5);
    palette.start();
    EXPECT_EQ(palette.ids().front(), "trash");
    EXPECT_TRUE(palette.clipboard->started);
}

TEST(PaletteStart, AgentsAppearAsRowsThatEnterTheirMode)
{
    TestPalette palette;
    palette.start();
    Agent agent;
    agent.id = "A1";
    agent.name = "Translator";
    agent.tools = {"clipboard.read"};
    palette.agents->_agents = {agent};
    palette.agents->onChange();
    palette.type("translator");
    ASSERT_EQ(palette.ids(), Strings{"agent:A1"});
    EXPECT_EQ(palette.state->results()[0]->subtitle, "Agent · gpt-4.1-mini");
    EXPECT_TRUE(palette.state->results()[0]->keepsOpen);
    palette.run();
    EXPECT_EQ(palette.state->mode(), PaletteState::Mode::ai);
    ASSERT_TRUE(palette.state->activeAgent());
    EXPECT_EQ(palette.state->activeAgent()->name, "Translator");
    EXPECT_EQ(palette.state->aiIntroduction(),
        "Enter a request for Translator, then press Return.\n\n"
        "This Agent can use 1 selected tools. Permission approvals still apply.");
    palette.state->escape();
    EXPECT_FALSE(palette.state->activeAgent());
}

TEST(PaletteStart, ShortcutsThatChangeShowAtOnceButNotUnderThePanel)
{
    TestPalette palette;
    palette.start();
    palette.type("morning");
    palette.shortcuts->family = {std::make_shared<StaticCommand>(
        CommandResultFields{.id = "shortcut:Morning", .title = "Morning", .actions = {{.id = "r", .title = "R"}}})};
    palette.shortcuts->onUpdate();
    EXPECT_EQ(palette.ids(), Strings{"shortcut:Morning"});
    palette.state->toggleActions();
    palette.shortcuts->family = {};
    palette.shortcuts->onUpdate();
    EXPECT_EQ(palette.ids(), Strings{"shortcut:Morning"});
    EXPECT_TRUE(palette.state->showsActions());
    palette.state->toggleActions();
    palette.type("mornin");
    EXPECT_TRUE(palette.ids().empty());
}

TEST(PaletteStart, AFamilyThatCannotBeTakenIsToldAndTheOldOneStays)
{
    TestPalette palette;
    palette.start();
    palette.shortcuts->family = {std::make_shared<StaticCommand>(CommandResultFields{.id = "wrong:Morning", .title = "Morning"})};
    palette.state->reloadShortcutCommands();
    EXPECT_EQ(palette.error(), "Invalid or duplicate command identifier.");
}

TEST(PaletteStart, TheSelectionStaysOnItsApplicationWhenTheListIsRebuilt)
{
    TestPalette palette;
    palette.start();
    palette.type("o");
    palette.state->move(1);
    const std::string before = palette.selected();
    await(palette.loop, palette.services->applications->refresh());
    palette.settle();
    EXPECT_EQ(palette.selected(), before);
}

TEST(PaletteStart, QuicklinksAreReadAgainAtEachShowingAndAFailureOfAnOldSessionIsSilent)
{
    TestPalette palette;
    palette.start();
    await(palette.loop, palette.services->database->close());
    palette.state->refreshQuicklinks();
    palette.state->cancelWork();
    palette.settle();
    EXPECT_EQ(palette.error(), "");
    palette.state->refreshQuicklinks();
    palette.settle();
    EXPECT_EQ(palette.error(), "The database is closed.");
}
