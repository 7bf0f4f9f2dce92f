#include "tests/support/TestPalette.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using Mode = PaletteState::Mode;

namespace {

/// Sixty-one commands that all match everything empty, "Command 00" to "Command 60".
void manyCommands(TestPalette &palette, int count)
{
    for (int i = 0; i < count; ++i) {
        const std::string number = (i < 10 ? "0" : "") + std::to_string(i);
        palette.state->registry.registerCommand(
            std::make_shared<StaticCommand>(CommandResultFields{.id = "c" + number, .title = "Command " + number}));
    }
    palette.state->enter(Mode::commands);
}

} // namespace

TEST(PaletteQuery, AnEmptyQueryShowsAllCommandsByUseAndAsksForNoFiles)
{
    TestPalette palette;
    palette.command("Alpha").command("Beta").command("Gamma");
    palette.used("test.Gamma", 3);
    palette.used("test.Beta", 1);
    palette.start();
    EXPECT_EQ(palette.state->query(), "");
    const auto titles = palette.titles();
    ASSERT_GE(titles.size(), 3u);
    EXPECT_EQ(titles[0], "Gamma");
    EXPECT_EQ(titles[1], "Beta");
    palette.wait(200ms);
    EXPECT_TRUE(palette.index->queries.empty());
    EXPECT_FALSE(palette.state->searchingFiles());
}

TEST(PaletteQuery, SixtyRowsAreShownAndTheSixtyFirstIsNot)
{
    TestPalette palette;
    manyCommands(palette, 60);
    EXPECT_EQ(palette.titles().size(), 60u);
    EXPECT_EQ(palette.titles().back(), "Command 59");
    TestPalette more;
    manyCommands(more, 61);
    EXPECT_EQ(more.titles().size(), 60u);
    EXPECT_EQ(more.titles().back(), "Command 59");
}

TEST(PaletteQuery, AQueryOfBlanksMatchesLikeAnEmptyOneAndRunsNoFileQuery)
{
    TestPalette palette;
    palette.command("Alpha").command("Beta");
    palette.type("  \t ");
    EXPECT_EQ(palette.titles(), (Strings{"Alpha", "Beta"}));
    palette.wait(200ms);
    EXPECT_TRUE(palette.index->queries.empty());
    EXPECT_FALSE(palette.state->searchingFiles());
}

TEST(PaletteQuery, TheCalculatorRowStandsBeforeRankedRowsAndFilesBehindThem)
{
    TestPalette palette;
    palette.command("2+2").file("/home/ada/notes 2+2.txt");
    palette.type("2+2");
    palette.wait(80ms);
    EXPECT_EQ(palette.ids(), (Strings{"calculator", "test.2+2", "file:/home/ada/notes 2+2.txt"}));
    EXPECT_EQ(palette.state->results()[0]->title, "4");
    EXPECT_EQ(palette.state->results()[0]->subtitle, "2+2");
}

TEST(PaletteQuery, TheCategoryApplicationsHasNoCalculatorRowAndNoFileQuery)
{
    TestPalette palette;
    palette.command("Editor", {.id = "app:/a/Editor.app"}).command("Edit 2+2");
    palette.state->setCategory(SearchCategory::applications);
    palette.type("2+2");
    palette.wait(200ms);
    EXPECT_TRUE(palette.titles().empty());
    EXPECT_TRUE(palette.index->queries.empty());
    palette.type("edit");
    EXPECT_EQ(palette.titles(), Strings{"Editor"});
}

TEST(PaletteQuery, AsksTheIndexOnlyAfterEightyQuietMilliseconds)
{
    TestPalette palette;
    palette.command("Open Settings").file("/home/ada/Settlement.pdf");
    palette.type("s");
    palette.wait(79ms);
    palette.type("se");
    palette.wait(79ms);
    palette.type("set");
    EXPECT_EQ(palette.titles(), Strings{"Open Settings"}) << "the registry's rows need no wait";
    EXPECT_TRUE(palette.state->searchingFiles());
    palette.wait(79ms);
    EXPECT_TRUE(palette.index->queries.empty());
    palette.wait(1ms);
    EXPECT_EQ(palette.index->queries, Strings{"set"});
    EXPECT_EQ(palette.titles(), (Strings{"Open Settings", "Settlement.pdf"}));
    EXPECT_FALSE(palette.state->searchingFiles());
}

TEST(PaletteQuery, AFileAnswerToAnOlderQueryIsDropped)
{
    TestPalette palette;
    palette.index->holds = true;
    palette.type("old");
    palette.wait(80ms);
    palette.type("new");
    palette.wait(80ms);
    EXPECT_EQ(palette.index->queries, (Strings{"old", "new"}));
    palette.index->answer({fileRecord("/old")});
    palette.settle();
    EXPECT_TRUE(palette.titles().empty());
    EXPECT_TRUE(palette.state->searchingFiles()) << "the new query still runs";
    palette.index->answer({fileRecord("/new")});
    palette.settle();
    EXPECT_EQ(palette.titles(), Strings{"new"});
}

TEST(PaletteQuery, AFileAnswerIsDroppedWhenTheSameTextWasTypedAnewAndIsShownOnce)
{
    TestPalette palette;
    palette.index->holds = true;
    palette.type("a");
    palette.wait(80ms);
    palette.type("ab");
    palette.type("a");
    palette.index->answer({fileRecord("/first")});
    palette.settle();
    EXPECT_TRUE(palette.titles().empty()) << "the cancelled task does not answer for the new one";
    palette.wait(80ms);
    palette.index->answer({fileRecord("/second")});
    palette.settle();
    EXPECT_EQ(palette.titles(), Strings{"second"});
}

TEST(PaletteQuery, AFailedFileQueryKeepsTheRowsAndShowsItsSentence)
{
    TestPalette palette;
    palette.command("Terms");
    palette.index->holds = true;
    palette.type("term");
    palette.wait(80ms);
    palette.index->fail(std::make_exception_ptr(AppError(AppError::Kind::recoverable, "Use at most 16 search terms.")));
    palette.settle();
    EXPECT_EQ(palette.titles(), Strings{"Terms"});
    EXPECT_EQ(palette.error(), "Use at most 16 search terms.");
    EXPECT_FALSE(palette.state->searchingFiles());
}

TEST(PaletteQuery, AFailureOfAnOlderFileQueryIsDropped)
{
    TestPalette palette;
    palette.index->holds = true;
    palette.type("a");
    palette.wait(80ms);
    palette.type("b");
    palette.index->fail(std::make_exception_ptr(AppError(AppError::Kind::database, "Could not read local data.")));
    palette.settle();
    EXPECT_EQ(palette.error(), "");
    EXPECT_TRUE(palette.state->searchingFiles());
}

TEST(PaletteQuery, AFileAnswerThatArrivesInAChildListIsDropped)
{
    TestPalette palette;
    palette.workspace.offered = {{"Editor", "/a/Editor.desktop"}};
    palette.command("Notes",
        {.actions = {
             {.id = "with", .title = "With", .dismissal = ActionDismissal::keepOpen, .flow = ActionFlow::openWith("/")}}});
    palette.index->holds = true;
    palette.type("notes");
    palette.wait(80ms);
    palette.run();
    EXPECT_EQ(palette.titles(), Strings{"Editor"});
    palette.index->answer({fileRecord("/notes.txt")});
    palette.settle();
    EXPECT_EQ(palette.titles(), Strings{"Editor"});
}

TEST(PaletteQuery, AFileAnswerThatArrivesInArgumentInputIsDropped)
{
    TestPalette palette;
    palette.command("Editor", {.id = "app:/a/Editor.app"});
    palette.index->holds = true;
    palette.type("edit");
    palette.wait(80ms);
    palette.state->beginArguments();
    palette.index->answer({fileRecord("/edit.txt")});
    palette.settle();
    EXPECT_TRUE(palette.titles().empty());
}

TEST(PaletteQuery, AnAnswerAfterTheSessionHasEndedChangesNothing)
{
    TestPalette palette;
    palette.index->holds = true;
    palette.type("a");
    palette.wait(80ms);
    palette.state->cancelWork();
    EXPECT_FALSE(palette.state->searchingFiles());
    palette.index->answer({fileRecord("/a")});
    palette.settle();
    EXPECT_TRUE(palette.titles().empty());
}

TEST(PaletteQuery, ThirtyFilesStandBelowCommandsAndAHundredAlone)
{
    TestPalette palette;
    for (int i = 0; i < 101; ++i)
        palette.file("/f/file" + std::to_string(i));
    palette.type("file");
    palette.wait(80ms);
    EXPECT_EQ(palette.titles().size(), 30u);
    palette.state->setCategory(SearchCategory::files);
    palette.wait(80ms);
    EXPECT_EQ(palette.titles().size(), 100u);
    palette.state->enter(Mode::files);
    palette.type("file");
    palette.wait(80ms);
    EXPECT_EQ(palette.titles().size(), 100u);
}

TEST(PaletteQuery, ASelectedRowThatStaysIsSelectedAtItsNewIndex)
{
    TestPalette palette;
    palette.command("Alpha").command("Beta").command("Gamma");
    palette.state->move(1);
    palette.state->move(1);
    EXPECT_EQ(palette.selected(), "Gamma");
    palette.type("gam");
    EXPECT_EQ(palette.selected(), "Gamma");
    EXPECT_EQ(palette.selectedIndex(), 0);
    palette.type("");
    EXPECT_EQ(palette.selected(), "Gamma");
    EXPECT_EQ(palette.selectedIndex(), 2);
}

TEST(PaletteQuery, ASelectedRowThatHasGoneMovesTheSelectionToTheFirst)
{
    TestPalette palette;
    palette.command("Alpha").command("Beta").command("Gamma");
    palette.state->move(1);
    palette.state->move(1);
    palette.type("a");
    ASSERT_EQ(palette.selected(), "Gamma");
    palette.type("alp");
    EXPECT_EQ(palette.selectedIndex(), 0);
    EXPECT_EQ(palette.selected(), "Alpha");
}

TEST(PaletteQuery, ASelectionMadeWhileFilesAreAwaitedSurvivesTheirArrival)
{
    TestPalette palette;
    palette.command("Set A").command("Set B").file("/set.txt");
    palette.type("set");
    palette.state->move(1);
    palette.wait(80ms);
    EXPECT_EQ(palette.titles(), (Strings{"Set A", "Set B", "set.txt"}));
    EXPECT_EQ(palette.selected(), "Set B");
}

TEST(PaletteQuery, ASelectedFileRowThatComesBackStaysSelected)
{
    TestPalette palette;
    palette.command("Set A").file("/a/set one.txt").file("/a/set two.txt");
    palette.type("set");
    palette.wait(80ms);
    palette.state->move(-1);
    ASSERT_EQ(palette.selected(), "set two.txt");
    palette.state->setCategory(SearchCategory::files);
    EXPECT_EQ(palette.selectedIndex(), 0) << "no file row is in the list until the index has answered";
    palette.wait(80ms);
    palette.state->move(1);
    ASSERT_EQ(palette.selected(), "set two.txt");
    palette.state->setCategory(SearchCategory::files);
    palette.wait(80ms);
    EXPECT_EQ(palette.titles(), (Strings{"set one.txt", "set two.txt"}));
}

TEST(PaletteQuery, MovingWrapsAtBothEnds)
{
    TestPalette palette;
    palette.command("Alpha").command("Beta").command("Gamma");
    palette.state->move(-1);
    EXPECT_EQ(palette.selected(), "Gamma");
    palette.state->move(1);
    EXPECT_EQ(palette.selected(), "Alpha");
}

TEST(PaletteQuery, MovingInAnEmptyListDoesNothing)
{
    TestPalette palette;
    palette.state->move(1);
    palette.state->move(-1);
    EXPECT_EQ(palette.selectedIndex(), 0);
}

TEST(PaletteQuery, ModeFilesWithAnEmptyQueryShowsAnEmptyList)
{
    TestPalette palette;
    palette.command("Alpha").file("/a");
    palette.state->enter(Mode::files);
    palette.wait(200ms);
    EXPECT_TRUE(palette.titles().empty());
    EXPECT_EQ(palette.state->category(), SearchCategory::files);
    EXPECT_TRUE(palette.index->queries.empty());
}

TEST(PaletteQuery, RowsOfOneKindStandTogetherWithTheBestKindFirst)
{
    TestPalette palette;
    palette.command("Sea", {.id = "shortcut:Sea"});
    palette.command("Search", {.id = "search"});
    palette.command("Seamonkey", {.id = "app:/a/Seamonkey.app"});
    palette.command("Sealine", {.id = "sealine"});
    palette.type("sea");
    EXPECT_EQ(palette.titles(), (Strings{"Sea", "Sealine", "Search", "Seamonkey"}));
}

TEST(PaletteQuery, EqualScoresStandInPlainTitleOrder)
{
    TestPalette palette;
    palette.command("beta").command("Zeta").command("alpha").command("Äta");
    EXPECT_EQ(palette.titles(), (Strings{"Zeta", "alpha", "beta", "Äta"}));
}

TEST(PaletteQuery, ACommandThatChangedShowsAtTheNextKeystroke)
{
    struct Changing : Command {
        const std::string &id() const override { return identifier; }
        Row result(const CommandContext &) const override { return row; }
        std::string identifier = "changing";
        Row row = makeRow({.id = "changing", .title = "Before"});
    };
    TestPalette palette;
    const auto changing = std::make_shared<Changing>();
    palette.state->registry.registerCommand(changing);
    palette.type("bef");
    EXPECT_EQ(palette.titles(), Strings{"Before"});
    changing->row = makeRow({.id = "changing", .title = "After"});
    palette.type("aft");
    EXPECT_EQ(palette.titles(), Strings{"After"});
}

TEST(PaletteQuery, TheClipboardIsAskedAfterAHundredAndFiftyQuietMilliseconds)
{
    TestPalette palette;
    palette.clipboard->rows = {makeRow({.id = "clipboard:1", .title = "copied"})};
    palette.state->enter(Mode::clipboard);
    palette.type("cop");
    EXPECT_TRUE(palette.state->searching());
    palette.wait(149ms);
    EXPECT_TRUE(palette.clipboard->queries.empty());
    palette.wait(1ms);
    EXPECT_EQ(palette.clipboard->queries, Strings{"cop"});
    EXPECT_EQ(palette.titles(), Strings{"copied"});
    EXPECT_FALSE(palette.state->searching());
}

TEST(PaletteQuery, AFailedClipboardQueryShowsItsSentenceAndNoRows)
{
    TestPalette palette;
    palette.clipboard->failure = std::make_exception_ptr(AppError(AppError::Kind::database, "Could not read local data."));
    palette.state->enter(Mode::clipboard);
    palette.wait(150ms);
    EXPECT_EQ(palette.error(), "Could not read local data.");
    EXPECT_FALSE(palette.state->searching());
    EXPECT_TRUE(palette.titles().empty());
}

TEST(PaletteQuery, ANewQueryResetsTheFailureStateAndThePreview)
{
    TestPalette palette;
    palette.command("Text", {.previewText = "long text"});
    palette.index->holds = true;
    palette.type("text");
    palette.state->togglePreview();
    EXPECT_TRUE(palette.state->showsPreview());
    palette.wait(80ms);
    palette.index->fail(std::make_exception_ptr(AppError(AppError::Kind::database, "Could not read local data.")));
    palette.settle();
    ASSERT_EQ(palette.error(), "Could not read local data.");
    palette.type("tex");
    EXPECT_EQ(palette.error(), "");
    EXPECT_FALSE(palette.state->showsPreview());
}

TEST(PaletteQuery, WhileBusyTypingAndCategoriesAreIgnoredButEscapeWalksItsTable)
{
    TestPalette palette;
    palette.command("Wait", {.actions = {{.id = "wait", .title = "Wait", .role = ActionRole::destructive}}});
    palette.type("wai");
    palette.run();
    ASSERT_TRUE(palette.state->busy());
    palette.type("other");
    EXPECT_EQ(palette.state->query(), "wai");
    palette.state->setCategory(SearchCategory::applications);
    EXPECT_EQ(palette.state->category(), SearchCategory::all);
    palette.state->move(1);
    palette.state->escape();
    EXPECT_EQ(palette.log, Strings{"hide"});
}

TEST(PaletteQuery, EscapeGoesBackOneLevelAtATime)
{
    TestPalette palette;
    palette.command("Editor", {.id = "app:/a/Editor.app"});
    palette.state->enter(Mode::files);
    palette.state->escape();
    EXPECT_EQ(palette.state->mode(), Mode::commands);
    palette.state->beginArguments();
    palette.state->toggleActions();
    palette.state->escape();
    EXPECT_FALSE(palette.state->argumentTarget());
    palette.state->toggleActions();
    ASSERT_TRUE(palette.state->showsActions());
    palette.state->escape();
    EXPECT_FALSE(palette.state->showsActions());
    palette.state->escape();
    EXPECT_EQ(palette.log, Strings{"hide"});
}

TEST(PaletteQuery, EscapeDuringAFileAccessCheckOnlyEndsTheCheck)
{
    TestPalette palette;
    palette.probe.holds = true;
    palette.command("Alpha", {.actions = {{.id = "p", .title = "P", .flow = ActionFlow::preview("/a")}}});
    palette.run();
    palette.state->toggleActions();
    ASSERT_TRUE(palette.coordinator->checkingAccess());
    palette.state->escape();
    EXPECT_FALSE(palette.coordinator->checkingAccess());
    EXPECT_TRUE(palette.state->showsActions());
}

TEST(PaletteQuery, LeavingAChildListRestoresRowsAndSelectionWithoutANewQuery)
{
    TestPalette palette;
    palette.workspace.offered = {{"Zed", "/a/zed.desktop"}, {"Atom", "/a/atom.desktop"}};
    palette.command("First").command("Notes",
        {.actions = {{.id = "w", .title = "W", .dismissal = ActionDismissal::keepOpen, .flow = ActionFlow::openWith("/")}}});
    palette.file("/t/notes.txt");
    palette.type("t");
    palette.wait(80ms);
    palette.state->select(1);
    ASSERT_EQ(palette.selected(), "Notes");
    const auto before = palette.titles();
    palette.run();
    EXPECT_EQ(palette.state->childTitle(), "Open With…");
    EXPECT_EQ(palette.titles(), (Strings{"Atom", "Zed"}));
    EXPECT_EQ(palette.state->query(), "");
    palette.type("ze");
    EXPECT_EQ(palette.titles(), Strings{"Zed"});
    palette.state->escape();
    palette.wait(500ms);
    EXPECT_EQ(palette.titles(), before);
    EXPECT_EQ(palette.selected(), "Notes");
    EXPECT_EQ(palette.state->query(), "t");
    EXPECT_EQ(palette.index->queries, Strings{"t"});
    EXPECT_FALSE(palette.state->searchingFiles());
}

TEST(PaletteQuery, CategoriesAreIgnoredInAChildListAndInArgumentInput)
{
    TestPalette palette;
    palette.command("Editor", {.id = "app:/a/Editor.app"});
    palette.state->beginArguments();
    palette.state->setCategory(SearchCategory::files);
    EXPECT_EQ(palette.state->category(), SearchCategory::all);
    EXPECT_TRUE(palette.state->argumentTarget());
}

TEST(PaletteQuery, ArgumentInputShowsTheApplicationsEarlierLinesNewestFirst)
{
    TestPalette palette;
    palette.command("Editor", {.id = "app:/a/Editor.app"});
    await(palette.loop, palette.services->appLaunches.record("/a/Editor.app", "--old"));
    palette.clock.setWall(palette.clock.now() + 60);
    await(palette.loop, palette.services->appLaunches.record("/a/Editor.app", "--new"));
    palette.state->beginArguments();
    palette.settle();
    EXPECT_EQ(palette.titles(), (Strings{"--new", "--old"}));
    EXPECT_EQ(palette.ids().front(), "args:/a/Editor.app\x1f--new");
    EXPECT_EQ(palette.state->results()[1]->subtitle, "Used 1× · 1 minute ago");
    palette.type("NEW");
    EXPECT_EQ(palette.titles(), Strings{"--new"});
}

TEST(PaletteQuery, AtMostEightEarlierLinesAreOffered)
{
    TestPalette palette;
    palette.command("Editor", {.id = "app:/a/Editor.app"});
    for (int i = 0; i < 9; ++i) {
        palette.clock.setWall(palette.clock.now() + 1);
        await(palette.loop, palette.services->appLaunches.record("/a/Editor.app", "line " + std::to_string(i)));
    }
    palette.state->beginArguments();
    palette.settle();
    EXPECT_EQ(palette.titles().size(), 8u);
    EXPECT_EQ(palette.titles().front(), "line 8");
}

TEST(PaletteQuery, LeavingArgumentInputLeavesTheApplicationFoundByItsTitle)
{
    TestPalette palette;
    palette.command("Editor", {.id = "app:/a/Editor.app"}).command("Other");
    palette.type("edi");
    palette.state->beginArguments();
    palette.type("--flag");
    palette.state->exitArguments();
    EXPECT_EQ(palette.state->query(), "Editor");
    EXPECT_EQ(palette.titles(), Strings{"Editor"});
    palette.state->beginArguments();
    palette.type("Editor");
    palette.state->exitArguments();
    EXPECT_EQ(palette.titles(), Strings{"Editor"}) << "also when the line typed was the title itself";
}

TEST(PaletteQuery, OnlyApplicationsTakeArguments)
{
    TestPalette palette;
    palette.command("Alpha");
    palette.state->beginArguments();
    EXPECT_FALSE(palette.state->argumentTarget());
}

TEST(PaletteQuery, FiltersRewriteTheTextOfTheQuery)
{
    TestPalette palette;
    palette.state->enter(Mode::files);
    palette.type("report");
    palette.state->setFileKind(FileKind::folder);
    EXPECT_EQ(palette.state->query(), "report kind:folder");
    palette.state->setFileSort("size");
    EXPECT_EQ(palette.state->query(), "report kind:folder sort:size");
    palette.state->setFileKind(FileKind::image);
    EXPECT_EQ(palette.state->query(), "report kind:image sort:size");
}

TEST(PaletteQuery, AFilterOverATextThatDoesNotParseChangesNothingAndSaysNothing)
{
    TestPalette palette;
    palette.state->enter(Mode::files);
    palette.type("kind:nonsense");
    palette.state->setFileKind(FileKind::image);
    palette.state->setFileSort("name");
    EXPECT_EQ(palette.state->query(), "kind:nonsense");
    EXPECT_EQ(palette.error(), "");
}

TEST(PaletteQuery, AChosenFolderStandsInTheTextAndGoesWithAReset)
{
    TestPalette palette;
    palette.state->enter(Mode::files);
    palette.type("report path:old");
    palette.dialogs.accept({"/home/ada/My Work"});
    palette.state->chooseFileDirectory();
    palette.settle();
    EXPECT_EQ(palette.state->fileDirectory(), "/home/ada/My Work");
    EXPECT_EQ(FileSearchQuery(palette.state->query()).pathTerms, Strings{"/home/ada/My Work"});
    palette.state->resetFileDirectory();
    EXPECT_EQ(palette.state->query(), "report");
    EXPECT_FALSE(palette.state->fileDirectory());
}

TEST(PaletteQuery, ResettingTheFolderOverATextThatDoesNotParseStillClearsItAndSearches)
{
    TestPalette palette;
    palette.state->enter(Mode::files);
    palette.dialogs.accept({"/home/ada"});
    palette.state->chooseFileDirectory();
    palette.settle();
    palette.type("kind:nonsense");
    palette.wait(80ms);
    const auto asked = palette.index->queries.size();
    palette.state->resetFileDirectory();
    palette.wait(80ms);
    EXPECT_FALSE(palette.state->fileDirectory());
    EXPECT_EQ(palette.state->query(), "kind:nonsense");
    EXPECT_EQ(palette.index->queries.size(), asked + 1);
}

TEST(PaletteQuery, EnteringAModeStartsAfresh)
{
    TestPalette palette;
    palette.command("Editor", {.id = "app:/a/Editor.app", .previewText = "text"});
    palette.type("edit");
    palette.state->togglePreview();
    palette.state->beginArguments();
    palette.type("--flag");
    palette.state->enter(Mode::commands);
    EXPECT_EQ(palette.state->query(), "");
    EXPECT_FALSE(palette.state->argumentTarget());
    EXPECT_FALSE(palette.state->showsPreview());
    EXPECT_EQ(palette.titles(), Strings{"Editor"});
}

TEST(PaletteQuery, AWriteOfTheSameTextSearchesNothing)
{
    TestPalette palette;
    palette.command("Alpha");
    palette.type("a");
    int changes = 0;
    const auto subscriptions = palette.state->observe([&] { ++changes; });
    palette.type("a");
    EXPECT_EQ(changes, 0);
}

TEST(PaletteQuery, ATenMegabyteQueryOfRandomBytesIsAnswered)
{
    TestPalette palette;
    palette.command("Alpha");
    std::string text(10'000'000, ' ');
    std::uint64_t seed = 42;
    for (char &c : text) {
        seed = seed * 6364136223846793005u + 1442695040888963407u;
        c = char(seed >> 33);
    }
    palette.type(text);
    EXPECT_TRUE(palette.titles().empty());
    palette.type("alp");
    EXPECT_EQ(palette.titles(), Strings{"Alpha"});
}
