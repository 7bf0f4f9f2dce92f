#include "Vorrel/Palette/PaletteController.h"
#include "Vorrel/Platform/Headless/HeadlessPaletteWindow.h"
#include "tests/support/DiskFolder.h"
#include "tests/support/Soon.h"
#include "tests/support/TestPalette.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;

namespace {

/// A palette over two files on the disk that the index knows.
struct FileScenario : testing::Test {
    FileScenario() : tides(disk.file("tides \xff.txt", "high")), map(disk.file("tide map.png"))
    {
        palette.file(tides).file(map);
        palette.type("tide");
        palette.wait(80ms);
    }

    /// Opens the panel, looks for an action by its name and runs it, as a user without a mouse does.
    void runFromPanel(const std::string &typed)
    {
        palette.state->toggleActions();
        palette.type(typed);
        palette.run();
    }
    void press(ActionKey key)
    {
        palette.state->performKey(key);
        palette.settle();
    }
    void pressPreview()
    {
        palette.state->togglePreview();
        palette.settle();
    }

    DiskFolder disk;
    const std::string tides, map;
    TestPalette palette;
};

using Launch = HeadlessApplicationLauncher::Launch;

} // namespace

TEST_F(FileScenario, AFileIsFoundAndOpened)
{
    ASSERT_EQ(palette.titles(), (Strings{"tides \uFFFD.txt", "tide map.png"}));
    palette.run();
    EXPECT_EQ(palette.workspace.opened, Strings{tides});
    EXPECT_EQ(palette.log, (Strings{"hide", "focus"}));
    EXPECT_EQ(palette.usesOf("file:" + tides), 1);
}

TEST_F(FileScenario, ItsActionsStandInThePanelInTheirOrder)
{
    palette.state->toggleActions();
    Strings titles;
    for (const CommandAction &action : palette.state->filteredActions())
        titles.push_back(action.title);
    EXPECT_EQ(titles, (Strings{"Open", "Open With…", "Quick Look", "Show in Finder", "Copy Path"}));
}

TEST_F(FileScenario, AnApplicationIsChosenInAListOfItsOwnThatIsLeftAsItWas)
{
    palette.workspace.offered = {{"Zed", "/a/zed.desktop"}, {"atom", "/a/atom.desktop"}};
    palette.state->move(1);
    runFromPanel("with");
    EXPECT_EQ(palette.state->childTitle(), "Open With…");
    EXPECT_FALSE(palette.state->showsActions());
    EXPECT_EQ(palette.state->query(), "");
    EXPECT_EQ(palette.titles(), (Strings{"atom", "Zed"}));
    palette.state->escape();
    palette.wait(1s);
    EXPECT_EQ(palette.titles(), (Strings{"tides \uFFFD.txt", "tide map.png"}));
    EXPECT_EQ(palette.selected(), "tide map.png");
    EXPECT_EQ(palette.index->queries, Strings{"tide"}) << "the list comes back without being asked for";

    runFromPanel("with");
    palette.type("ze");
    palette.run();
    EXPECT_EQ(palette.workspace.openedWith, (std::vector<std::pair<std::string, std::string>>{{map, "/a/zed.desktop"}}));
    EXPECT_EQ(palette.log.back(), "focus");
    EXPECT_EQ(std::ranges::count(palette.log, std::string("hide")), 1);
}

TEST_F(FileScenario, ApplicationsThatAreFoundWhenTheUserHasMovedOnOpenNoList)
{
    palette.workspace.offered = {{"Zed", "/a/zed.desktop"}};
    const CommandAction openWith = palette.action("tides \uFFFD.txt", "openWith");
    palette.state->execute(openWith);
    palette.state->cancelWork();
    palette.state->enter(PaletteState::Mode::commands);
    palette.settle();
    EXPECT_FALSE(palette.state->childTitle()) << "hidden and shown again";

    palette.type("tide");
    palette.wait(80ms);
    palette.state->execute(openWith);
    while (palette.state->query() == "tide" && palette.loop.runOne())
        if (palette.workspace.asked == 2)
            palette.state->enter(PaletteState::Mode::files);
    palette.settle();
    EXPECT_EQ(palette.workspace.asked, 2);
    EXPECT_FALSE(palette.state->childTitle()) << "another mode";
    EXPECT_EQ(palette.error(), "");
    EXPECT_FALSE(palette.state->busy());
}

TEST_F(FileScenario, AFileThatWentWhileItsApplicationIsChosenIsMissing)
{
    palette.workspace.offered = {{"Zed", "/a/zed.desktop"}};
    runFromPanel("with");
    std::filesystem::remove(tides);
    palette.run();
    EXPECT_EQ(palette.error(), "This file no longer exists. Refresh the search results.");
    EXPECT_TRUE(palette.workspace.openedWith.empty());
}

TEST_F(FileScenario, ThePreviewKeyPressedTwiceQuicklyShowsTheFileOnce)
{
    palette.probe.holds = true;
    palette.state->togglePreview();
    palette.state->togglePreview();
    palette.settle();
    palette.state->togglePreview();
    palette.settle();
    palette.probe.answer();
    palette.settle();
    EXPECT_EQ(palette.preview.log, Strings{"show " + tides});
    EXPECT_FALSE(palette.state->busy());
    EXPECT_EQ(palette.log, Strings{"focus"}) << "the palette stays";
    pressPreview();
    EXPECT_EQ(palette.preview.log, (Strings{"show " + tides, "close", "return"}));
    EXPECT_FALSE(palette.coordinator->isPresenting());
}

TEST_F(FileScenario, EscapeWhileTheFileIsAskedForEndsTheQuestionSilently)
{
    palette.probe.holds = true;
    pressPreview();
    ASSERT_TRUE(palette.coordinator->checkingAccess());
    palette.state->escape();
    palette.settle();
    palette.probe.answer();
    palette.settle();
    EXPECT_TRUE(palette.preview.log.empty());
    EXPECT_EQ(palette.error(), "");
    EXPECT_FALSE(palette.state->busy());
    EXPECT_EQ(palette.state->query(), "tide");
    EXPECT_EQ(palette.log, Strings{"focus"});
}

TEST_F(FileScenario, EscapeThatReachesThePaletteUnderThePreviewClosesThePreviewAlone)
{
    pressPreview();
    ASSERT_EQ(palette.preview.shown, tides);
    palette.state->escape();
    palette.settle();
    EXPECT_EQ(palette.preview.log, (Strings{"show " + tides, "close", "return"}));
    EXPECT_EQ(palette.log, Strings{"focus"}) << "the palette stays";
    EXPECT_EQ(palette.state->query(), "tide");
    palette.state->escape();
    palette.settle();
    EXPECT_EQ(palette.log, (Strings{"focus", "hide"}));
}

TEST_F(FileScenario, APreviewThatHangsOffersToTryAgainAndThenShowsTheFile)
{
    palette.probe.holds = true;
    pressPreview();
    palette.wait(3s);
    EXPECT_EQ(palette.error(),
        "File access timed out. Respond to any macOS permission prompt, check the file is available locally, then retry.");
    EXPECT_EQ(palette.state->errorRecovery(), PaletteState::FailureRecovery{.rerunAction = true});
    palette.state->retrySearch();
    palette.settle();
    EXPECT_EQ(palette.error(),
        "A previous file access check is still waiting for macOS. Respond to its permission prompt before retrying.");
    palette.probe.answer();
    palette.probe.holds = false;
    palette.state->retrySearch();
    palette.settle();
    EXPECT_EQ(palette.error(), "");
    EXPECT_EQ(palette.preview.shown, tides);
}

TEST_F(FileScenario, ADeniedPreviewOffersToTryAgainAndTheSettings)
{
    palette.probe.failure = FileAccessFailure::Reason::permission;
    pressPreview();
    EXPECT_EQ(palette.error(), "Korvane cannot read this file. Review Files & Folders access in System Settings, then retry.");
    EXPECT_EQ(palette.state->errorRecovery(), (PaletteState::FailureRecovery{.rerunAction = true, .openAccessSettings = true}));
}

TEST_F(FileScenario, HidingThePaletteClosesThePreviewAndAnEarlierQuestion)
{
    pressPreview();
    palette.state->cancelWork();
    EXPECT_FALSE(palette.preview.shown);
    palette.probe.holds = true;
    pressPreview();
    palette.state->cancelWork();
    palette.settle();
    palette.probe.answer();
    palette.settle();
    EXPECT_FALSE(palette.preview.shown);
    EXPECT_FALSE(palette.coordinator->isPresenting());
}

TEST_F(FileScenario, AFileIsShownInTheFileManagerAndThePaletteHides)
{
    press(ActionKey::reveal);
    EXPECT_EQ(palette.workspace.revealed, Strings{tides});
    EXPECT_EQ(palette.log, (Strings{"hide", "focus"}));
}

TEST_F(FileScenario, ThePathIsCopiedByteByByteAndThePaletteStays)
{
    press(ActionKey::copyPath);
    EXPECT_EQ(palette.pasteboard.text, tides);
    EXPECT_EQ(palette.log, Strings{"focus"});
    palette.pasteboard.refuses = true;
    press(ActionKey::copyPath);
    EXPECT_EQ(palette.error(), "Could not update the clipboard.");
    EXPECT_EQ(palette.state->errorRecovery(), PaletteState::FailureRecovery{.rerunAction = true});
}

TEST_F(FileScenario, EveryWayToADeletedFileSaysSoAndOffersARefreshThatSearchesAgain)
{
    std::filesystem::remove(tides);
    for (const char *id : {"open", "openWith", "reveal"}) {
        SCOPED_TRACE(id);
        palette.run(palette.action("tides \uFFFD.txt", id));
        EXPECT_EQ(palette.error(), "This file no longer exists. Refresh the search results.");
        EXPECT_EQ(palette.state->errorRecovery(), PaletteState::FailureRecovery{.refreshResults = true});
        EXPECT_EQ(palette.titles().size(), 2U) << "the list survives";
    }
    palette.index->files.erase(palette.index->files.begin());
    palette.state->retrySearch();
    palette.wait(80ms);
    EXPECT_EQ(palette.error(), "");
    EXPECT_EQ(palette.titles(), Strings{"tide map.png"});
    EXPECT_EQ(palette.index->queries, (Strings{"tide", "tide"}));
    EXPECT_TRUE(palette.workspace.opened.empty());
    EXPECT_EQ(palette.services->diagnostics.errorEvents().size(), 3U);
}

TEST(FileCollection, TwoFilesAreChosenOnceForAnApplicationAndItsArguments)
{
    const DiskFolder applications;
    const std::string editor = applications.folder("editor.app");
    TestPalette palette(Strings{applications.path});
    palette.source.describe(editor, {{"CFBundleName", "Editor"}, {"CFBundleIdentifier", "com.microsoft.VSCode"}});
    palette.start();
    palette.type("editor");
    ASSERT_EQ(palette.selected(), "Editor");
    const CommandAction diff = palette.action("Editor", "diff");

    palette.state->execute(diff);
    palette.settle();
    ASSERT_TRUE(palette.dialogs.standing());
    EXPECT_TRUE(palette.coordinator->isPresenting()) << "the palette may not hide under the panel";
    EXPECT_EQ(palette.dialogs.asked()[0].title, "Choose Two Files");
    EXPECT_EQ(palette.dialogs.asked()[0].detail,
        "Select exactly two files. Use Shift + arrow keys to extend the selection. Cancel returns to your search.");
    palette.dialogs.accept({"/a"});
    palette.settle();
    EXPECT_EQ(palette.error(), "Choose exactly two files to compare.");
    EXPECT_FALSE(palette.coordinator->isPresenting());

    palette.state->execute(diff);
    palette.settle();
    palette.dialogs.accept({"/a", "/b"});
    palette.settle();
    ASSERT_EQ(palette.dialogs.asked().size(), 2U) << "the wrong choice was not remembered";
    std::vector<Launch> expected{{editor, diff.flow.arguments}};
    expected[0].arguments.insert(expected[0].arguments.end(), {"/a", "/b"});
    EXPECT_EQ(palette.launcher.launches, expected);

    palette.state->enter(PaletteState::Mode::commands);
    palette.type("editor");
    palette.run(palette.action("Editor", "diff"));
    EXPECT_EQ(palette.dialogs.asked().size(), 2U) << "the second run shows no panel";
    expected.push_back(expected[0]);
    EXPECT_EQ(palette.launcher.launches, expected);

    palette.run(palette.action("Editor", "folder"));
    EXPECT_EQ(palette.dialogs.asked().size(), 3U) << "other arguments are asked for on their own";
    EXPECT_EQ(palette.dialogs.asked()[2].title, "Choose a Folder");
    palette.dialogs.refuse();
    palette.settle();
    EXPECT_EQ(palette.error(), "");
}

TEST(FilePreviewThreads, ThePaletteStaysUnderThePreviewAndHasTheKeyboardBehindIt)
{
    const DiskFolder disk;
    TestPalette test;
    test.file(disk.file("map.png"));
    HeadlessPaletteWindow *window = nullptr;
    PaletteController controller(*test.services, [&](PaletteController &) {
        auto made = std::make_unique<HeadlessPaletteWindow>();
        window = made.get();
        return made;
    });
    test.settle();
    test.preview.onReturn = [&] { window->keyboard = true; };
    controller.toggle();
    controller.state().setInputText("map");
    test.wait(80ms);
    controller.handleKey({.key = KeyPress::Key::Character, .character = "y", .command = true});
    ASSERT_TRUE(soon(test.loop, [&] { return test.preview.shown.has_value(); }));
    window->loseKeyboard();
    controller.mousePressed(5000, 5000, false);
    EXPECT_TRUE(controller.presented());
    EXPECT_TRUE(test.preview.press({.key = KeyPress::Key::Escape}));
    EXPECT_TRUE(controller.presented()) << "Escape closes the preview alone";
    EXPECT_TRUE(window->keyboard);
    EXPECT_FALSE(test.preview.shown);
    controller.mousePressed(5000, 5000, false);
    EXPECT_FALSE(controller.presented());
    test.loop.shutDown();
}
