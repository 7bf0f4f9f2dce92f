#include "tests/support/TestPalette.h"

#include "Vorrel/Shell/AppLog.h"
#include "Vorrel/Shell/L10n.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using Mode = PaletteState::Mode;
using Recovery = PaletteState::FailureRecovery;

namespace {

std::function<Task<void>()> throwing(std::exception_ptr error)
{
    struct Thrower {
        static Task<void> run(std::exception_ptr error)
        {
            std::rethrow_exception(error);
            co_return;
        }
    };
    return [error] { return Thrower::run(error); };
}

template <class Error> std::function<Task<void>()> throwing(Error error)
{
    return throwing(std::make_exception_ptr(std::move(error)));
}

/// A command whose action waits for a second before it is done.
void slowCommand(TestPalette &palette, const std::string &title)
{
    struct Slow {
        static Task<void> run(TestPalette &palette, std::string title)
        {
            co_await palette.clock.sleep(1s);
            palette.ran.push_back(title);
        }
    };
    palette.command(title,
        {.actions = {{.id = "slow", .title = "Slow", .execute = [&palette, title] { return Slow::run(palette, title); }}}});
}

} // namespace

TEST(PaletteAction, ADoublePressOfReturnRunsOneAction)
{
    TestPalette palette;
    slowCommand(palette, "Slow");
    palette.state->execute();
    palette.state->execute();
    palette.wait(2s);
    EXPECT_EQ(palette.ran, Strings{"Slow"});
    EXPECT_EQ(palette.usesOf("test.Slow"), 1);
}

TEST(PaletteAction, HidingComesBeforeTheUseIsSavedAndTheFocusAtTheEnd)
{
    TestPalette palette;
    palette.command("Alpha");
    palette.run();
    EXPECT_EQ(palette.ran, Strings{"Alpha"});
    EXPECT_EQ(palette.log, (Strings{"hide", "focus"}));
    EXPECT_EQ(palette.usesOf("test.Alpha"), 1);
    EXPECT_FALSE(palette.state->busy());
}

TEST(PaletteAction, TheDismissalOfTheActionAndTheRowDecideWhetherItHides)
{
    const struct {
        const char *why;
        bool keepsOpen;
        ActionDismissal dismissal;
        bool hides;
    } cases[] = {
        {"an ordinary row hides", false, ActionDismissal::inherited, true},
        {"a row that keeps the palette open stays", true, ActionDismissal::inherited, false},
        {"onSuccess hides whatever the row says", true, ActionDismissal::onSuccess, true},
        {"keepOpen stays whatever the row says", false, ActionDismissal::keepOpen, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        TestPalette palette;
        palette.command("Alpha", {.keepsOpen = c.keepsOpen, .actions = {{.id = "a", .title = "A", .dismissal = c.dismissal}}});
        palette.run();
        EXPECT_EQ(palette.log, c.hides ? (Strings{"hide", "focus"}) : Strings{"focus"});
    }
}

TEST(PaletteAction, EveryFailureHasItsSentenceItsWaysOutAndItsCategory)
{
    using Reason = FileAccessFailure::Reason;
    using Category = DiagnosticsService::Category;
    const struct {
        std::exception_ptr error;
        const char *sentence;
        Recovery recovery;
        Category category;
    } cases[] = {
        {std::make_exception_ptr(FileAccessFailure(Reason::permission)),
            "Korvane cannot read this file. Review Files & Folders access in System Settings, then retry.",
            {.rerunAction = true, .openAccessSettings = true}, Category::fileAccess},
        {std::make_exception_ptr(FileAccessFailure(Reason::missing)), "This file no longer exists. Refresh the search results.",
            {.refreshResults = true}, Category::fileAccess},
        {std::make_exception_ptr(FileAccessFailure(Reason::offline)),
            "This file lives on a volume that is not available right now. Reconnect the disk or network share, then retry.",
            {.rerunAction = true}, Category::fileAccess},
        {std::make_exception_ptr(FileAccessFailure(Reason::unavailable)),
            "This file cannot be read right now. Check its disk or cloud availability, then retry.", {.rerunAction = true},
            Category::fileAccess},
        {std::make_exception_ptr(FileAccessFailure(Reason::timeout)),
            "File access timed out. Respond to any macOS permission prompt, check the file is available locally, then retry.",
            {.rerunAction = true}, Category::fileAccess},
        {std::make_exception_ptr(FileAccessFailure(Reason::busy)),
            "A previous file access check is still waiting for macOS. Respond to its permission prompt before retrying.",
            {.rerunAction = true}, Category::fileAccess},
        {std::make_exception_ptr(AppError(AppError::Kind::toolExecution, "The application could not be launched.")),
            "The application could not be launched.", {.rerunAction = true}, Category::command},
        {std::make_exception_ptr(std::runtime_error("ENOMEM at 0x7f")),
            "The operation could not be completed. Please try again or check permissions.", {.rerunAction = true},
            Category::command},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.sentence);
        TestPalette palette;
        palette.command("Alpha", {.actions = {{.id = "a", .title = "A", .execute = throwing(c.error)}}});
        palette.run();
        EXPECT_EQ(palette.error(), c.sentence);
        EXPECT_EQ(palette.state->errorRecovery(), c.recovery);
        EXPECT_EQ(palette.titles(), Strings{"Alpha"}) << "the list survives a failure";
        EXPECT_EQ(palette.log, Strings{"focus"});
        ASSERT_EQ(palette.services->diagnostics.errorEvents().size(), 1u);
        EXPECT_EQ(palette.services->diagnostics.errorEvents()[0].category, c.category);
        EXPECT_EQ(palette.usesOf("test.Alpha"), 0);
    }
}

TEST(PaletteAction, OpeningADeletedFileOffersARefreshThatClearsTheFailureAndAsksAgain)
{
    TestPalette palette;
    palette.file("/nonexistent/gone.txt");
    palette.type("gone");
    palette.wait(80ms);
    palette.run();
    EXPECT_EQ(palette.error(), "This file no longer exists. Refresh the search results.");
    EXPECT_EQ(palette.state->errorRecovery(), (Recovery{.refreshResults = true}));
    palette.state->retrySearch();
    EXPECT_EQ(palette.error(), "");
    palette.wait(80ms);
    EXPECT_EQ(palette.index->queries, (Strings{"gone", "gone"}));
    EXPECT_TRUE(palette.workspace.opened.empty());
}

TEST(PaletteAction, RetryRunsTheFailedActionAgainOnItsRow)
{
    TestPalette palette;
    palette.workspace.refuses = true;
    palette.command("Beta");
    palette.file("/");
    palette.index->files[0].name = "be root";
    palette.type("be");
    palette.wait(80ms);
    palette.state->move(1);
    palette.run();
    ASSERT_EQ(palette.error(), "No application could open this file.");
    palette.workspace.refuses = false;
    palette.state->select(0);
    palette.state->retrySearch();
    palette.settle();
    EXPECT_EQ(palette.workspace.opened, Strings{"/"});
    EXPECT_EQ(palette.error(), "");
    EXPECT_EQ(palette.selected(), "be root");
}

TEST(PaletteAction, RetryForARowThatHasGoneSearchesInstead)
{
    TestPalette palette;
    palette.command(
        "Alpha", {.actions = {{.id = "a", .title = "A", .execute = throwing(AppError(AppError::Kind::recoverable, "No."))}}});
    palette.run();
    ASSERT_EQ(palette.error(), "No.");
    palette.state->_results = Rows();
    palette.state->retrySearch();
    palette.settle();
    EXPECT_EQ(palette.error(), "");
    EXPECT_EQ(palette.titles(), Strings{"Alpha"});
    EXPECT_EQ(palette.services->diagnostics.errorEvents().size(), 1u) << "the action did not run again";
}

TEST(PaletteAction, AFailureAfterHidingAndShowingAgainLeavesNoTrace)
{
    TestPalette palette;
    struct Late {
        static Task<void> run(Clock &clock)
        {
            co_await clock.sleep(1s);
            throw AppError(AppError::Kind::recoverable, "Too late.");
        }
    };
    palette.command("Late", {.actions = {{.id = "l", .title = "L", .execute = [&] { return Late::run(palette.clock); }}}});
    palette.run();
    palette.state->cancelWork();
    palette.state->enter(Mode::commands);
    palette.wait(1s);
    EXPECT_EQ(palette.error(), "");
    EXPECT_EQ(palette.state->errorRecovery(), Recovery());
    EXPECT_FALSE(palette.state->busy());
    EXPECT_TRUE(palette.services->diagnostics.errorEvents().empty());
}

TEST(PaletteAction, ASuccessAfterTheSessionHasEndedIsStillCounted)
{
    TestPalette palette;
    slowCommand(palette, "Slow");
    palette.run();
    palette.state->cancelWork();
    palette.wait(1s);
    EXPECT_EQ(palette.usesOf("test.Slow"), 1);
    EXPECT_FALSE(palette.state->busy());
}

TEST(PaletteAction, ACancelledShortcutSaysWhatMayHaveHappenedAndACancelledRowNothing)
{
    TestPalette palette;
    palette.command("Short", {.id = "shortcut:Short", .actions = {{.id = "r", .title = "R", .execute = throwing(Cancelled())}}});
    palette.run();
    EXPECT_EQ(palette.error(), "Execution stopped. Earlier actions may already have completed.");
    EXPECT_EQ(palette.state->errorRecovery(), Recovery());

    TestPalette other;
    other.command("File", {.id = "file:/x", .actions = {{.id = "r", .title = "R", .execute = throwing(Cancelled())}}});
    other.run();
    EXPECT_EQ(other.error(), "");
    EXPECT_EQ(other.state->errorRecovery(), Recovery());
    EXPECT_TRUE(other.services->diagnostics.errorEvents().empty());
}

TEST(PaletteAction, ADestructiveActionAsksAndARefusalIsAFailureThatMayBeRetried)
{
    TestPalette palette;
    palette.start();
    palette.type("Empty Trash");
    palette.run();
    ASSERT_EQ(palette.dialogs.asked().size(), 1u);
    EXPECT_EQ(palette.dialogs.asked()[0].title, "Empty Trash");
    EXPECT_EQ(palette.dialogs.asked()[0].detail, "This operation cannot be undone.");
    EXPECT_TRUE(palette.state->busy());
    palette.dialogs.refuse();
    palette.settle();
    EXPECT_EQ(palette.error(), "The operation was cancelled.");
    EXPECT_EQ(palette.state->errorRecovery(), (Recovery{.rerunAction = true}));
    EXPECT_TRUE(palette.system.requests().empty());
    palette.dialogs.accept();
    palette.state->retrySearch();
    palette.settle();
    EXPECT_EQ(palette.system.requests(), Strings{"trash"});
}

TEST(PaletteAction, LockAndSleepActAtOnce)
{
    TestPalette palette;
    palette.start();
    palette.type("Lock Screen");
    palette.run();
    palette.type("Sleep");
    palette.run();
    EXPECT_TRUE(palette.dialogs.asked().empty());
    EXPECT_EQ(palette.system.requests(), (Strings{"lock", "sleep"}));
}

TEST(PaletteAction, TheResultOfACalculationIsCopiedAndThePaletteStays)
{
    TestPalette palette;
    palette.type("2+3*4");
    palette.run();
    EXPECT_EQ(palette.pasteboard.text, "14");
    EXPECT_EQ(palette.log, Strings{"focus"});
    palette.pasteboard.refuses = true;
    palette.run();
    EXPECT_EQ(palette.error(), "Could not update the clipboard.");
}

TEST(PaletteAction, AFailureToSaveTheUseIsLoggedAndNotShown)
{
    TestPalette palette;
    palette.command("Alpha");
    Strings messages;
    AppLog::observe([&](std::string_view category, AppLog::Level level, std::string_view message) {
        messages.push_back(
            std::string(category) + (level == AppLog::Level::error ? " error: " : " info: ") + std::string(message));
    });
    await(palette.loop, palette.services->database->close());
    palette.run();
    AppLog::observe({});
    EXPECT_EQ(palette.ran, Strings{"Alpha"});
    EXPECT_EQ(palette.error(), "");
    EXPECT_EQ(messages, (Strings{"command info: Command completed", "command error: Usage statistics could not be saved"}));
}

TEST(PaletteAction, TheActionPanelKeepsItsActionsWhileTheListChangesBehindIt)
{
    TestPalette palette;
    palette.command("Alpha", {.actions = {{.id = "one", .title = "First"}, {.id = "two", .title = "Second"}}});
    palette.state->toggleActions();
    palette.state->_results = Rows();
    ASSERT_EQ(palette.state->filteredActions().size(), 2u);
    EXPECT_EQ(palette.state->filteredActions()[1].title, "Second");
}

TEST(PaletteAction, TheFieldFiltersTheActionsWhileThePanelIsOpen)
{
    TestPalette palette;
    palette.command("Alpha",
        {.actions = {
             {.id = "one", .title = "Open"}, {.id = "two", .title = "Copy Path"}, {.id = "three", .title = "Copy Name"}}});
    palette.type("alp");
    palette.state->toggleActions();
    EXPECT_EQ(palette.state->inputText(), "");
    palette.type("COPY");
    EXPECT_EQ(palette.state->query(), "alp");
    EXPECT_EQ(palette.state->filteredActions().size(), 2u);
    palette.state->move(1);
    EXPECT_EQ(palette.state->actionSelection(), 1);
    palette.state->move(1);
    EXPECT_EQ(palette.state->actionSelection(), 0);
    palette.state->move(-1);
    EXPECT_EQ(palette.state->actionSelection(), 1);
    palette.type("copy n");
    EXPECT_EQ(palette.state->actionSelection(), 0);
    palette.type("nothing like it");
    EXPECT_TRUE(palette.state->filteredActions().empty());
    palette.run();
    EXPECT_FALSE(palette.state->busy());
}

TEST(PaletteAction, TheActionSelectedInThePanelRuns)
{
    TestPalette palette;
    const auto note = [&](std::string name) {
        return [&palette, name]() -> Task<void> {
            palette.ran.push_back(name);
            return []() -> Task<void> { co_return; }();
        };
    };
    palette.command("Alpha",
        {.actions = {
             {.id = "one", .title = "One", .execute = note("one")}, {.id = "two", .title = "Two", .execute = note("two")}}});
    palette.state->toggleActions();
    palette.state->move(1);
    palette.run();
    EXPECT_EQ(palette.ran, Strings{"two"});
}

TEST(PaletteAction, AnActionClickedInThePanelRunsWhateverIsSelectedThere)
{
    TestPalette palette;
    const auto note = [&](std::string name) {
        return [&palette, name]() -> Task<void> {
            palette.ran.push_back(name);
            return []() -> Task<void> { co_return; }();
        };
    };
    palette.command("Alpha",
        {.actions = {
             {.id = "one", .title = "One", .execute = note("one")}, {.id = "two", .title = "Two", .execute = note("two")}}});
    palette.state->toggleActions();
    palette.run(palette.action("Alpha", "two"));
    EXPECT_EQ(palette.ran, Strings{"two"});
}

TEST(PaletteAction, ThePanelOpensOnlyForARowThatHasActions)
{
    TestPalette palette;
    palette.state->toggleActions();
    EXPECT_FALSE(palette.state->showsActions());
    palette.state->registry.registerCommand(std::make_shared<StaticCommand>(CommandResultFields{.id = "bare", .title = "Bare"}));
    palette.state->enter(Mode::commands);
    ASSERT_EQ(palette.selected(), "Bare");
    palette.state->toggleActions();
    EXPECT_FALSE(palette.state->showsActions());
    palette.run();
    EXPECT_FALSE(palette.state->busy()) << "a row without actions cannot be run";
    EXPECT_TRUE(palette.log.empty());
}

TEST(PaletteAction, AKeyWithoutAnActionDoesNothing)
{
    TestPalette palette;
    palette.command("Alpha");
    palette.state->performKey(ActionKey::reveal);
    palette.settle();
    EXPECT_TRUE(palette.ran.empty());
    EXPECT_FALSE(palette.state->busy());
}

TEST(PaletteAction, AKeyRunsTheActionThatIsMarkedWithIt)
{
    TestPalette palette;
    palette.command("Alpha",
        {.actions = {{.id = "open", .title = "Open"},
             {.id = "reveal", .title = "Reveal", .key = ActionKey::reveal, .execute = [&]() -> Task<void> {
                  palette.ran.push_back("reveal");
                  return []() -> Task<void> { co_return; }();
              }}}});
    palette.state->performKey(ActionKey::reveal);
    palette.settle();
    EXPECT_EQ(palette.ran, Strings{"reveal"});
}

TEST(PaletteAction, APreviewOfTextFlipsAndClosesThePanel)
{
    TestPalette palette;
    palette.command("Text", {.previewText = "hello"}).command("Bare row");
    palette.type("text");
    palette.state->toggleActions();
    palette.state->togglePreview();
    EXPECT_TRUE(palette.state->showsPreview());
    EXPECT_FALSE(palette.state->showsActions());
    palette.state->togglePreview();
    EXPECT_FALSE(palette.state->showsPreview());
    palette.type("bare");
    palette.state->togglePreview();
    EXPECT_FALSE(palette.state->showsPreview());
}

TEST(PaletteAction, APreviewOfAFileRunsTheRowsPreviewAction)
{
    TestPalette palette;
    palette.command("Picture",
        {.previewText = "ignored",
            .preview = PreviewResource::file("/p.png"),
            .actions = {{.id = "open", .title = "Open"},
                {.id = "preview",
                    .title = "Quick Look",
                    .key = ActionKey::preview,
                    .dismissal = ActionDismissal::keepOpen,
                    .flow = ActionFlow::preview("/p.png")}}});
    palette.state->togglePreview();
    palette.settle();
    EXPECT_EQ(palette.probe.asked, Strings{"/p.png"});
    EXPECT_EQ(palette.preview.shown, "/p.png");
    EXPECT_FALSE(palette.state->showsPreview());
    EXPECT_EQ(palette.log, Strings{"focus"});
}

TEST(PaletteAction, OpenWithWithoutApplicationsSaysSo)
{
    TestPalette palette;
    palette.command("Notes",
        {.actions = {{.id = "w", .title = "W", .dismissal = ActionDismissal::keepOpen, .flow = ActionFlow::openWith("/")}}});
    palette.run();
    EXPECT_EQ(palette.error(), "No application can open this file.");
    EXPECT_FALSE(palette.state->childTitle());
}

TEST(PaletteAction, TheApplicationChosenInTheChildListOpensTheFileAndHides)
{
    TestPalette palette;
    palette.workspace.offered = {{"Zed", "/a/zed.desktop"}, {"atom", "/a/atom.desktop"}};
    palette.command("Notes",
        {.actions = {{.id = "w", .title = "W", .dismissal = ActionDismissal::keepOpen, .flow = ActionFlow::openWith("/tmp")}}});
    palette.run();
    ASSERT_EQ(palette.titles(), (Strings{"atom", "Zed"}));
    EXPECT_EQ(palette.ids(), (Strings{"handler:/a/atom.desktop", "handler:/a/zed.desktop"}));
    palette.run();
    ASSERT_EQ(palette.workspace.openedWith.size(), 1u);
    EXPECT_EQ(palette.workspace.openedWith[0], (std::pair<std::string, std::string>{"/tmp", "/a/atom.desktop"}));
    EXPECT_EQ(palette.log, (Strings{"focus", "hide", "focus"}));
}

TEST(PaletteAction, TheArgumentsActionTurnsTheFieldIntoTheArgumentLine)
{
    TestPalette palette;
    palette.command("Editor",
        {.id = "app:/a/Editor.app",
            .actions = {{.id = "open", .title = "Open"},
                {.id = "arguments",
                    .title = "Advanced Arguments…",
                    .dismissal = ActionDismissal::keepOpen,
                    .flow = ActionFlow::argumentInput()}}});
    palette.state->toggleActions();
    palette.state->move(1);
    palette.run();
    ASSERT_TRUE(palette.state->argumentTarget());
    EXPECT_EQ(palette.state->argumentTarget()->title, "Editor");
    EXPECT_FALSE(palette.state->showsActions());
    EXPECT_EQ(palette.usesOf("app:/a/Editor.app"), 1) << "the run goes on as a success";
}

TEST(PaletteAction, ABlankArgumentLineIsRefusedBeforeAnySplit)
{
    TestPalette palette;
    palette.command("Editor", {.id = "app:/a/Editor.app"});
    palette.state->beginArguments();
    palette.type("   ");
    palette.run();
    EXPECT_FALSE(palette.state->busy());
    EXPECT_TRUE(palette.launcher.launches.empty());
    EXPECT_EQ(palette.error(), "");
}

TEST(PaletteAction, SettingsForFileAccessOpenAtTheFilesTab)
{
    TestPalette palette;
    palette.state->openFilePrivacySettings();
    EXPECT_EQ(palette.services->preferences().selectedTab.get(), SettingsState::Tab::files);
    EXPECT_EQ(palette.log, Strings{"settings"});
}

TEST(PaletteAction, CollectingFilesForAnApplicationNeedsExactlyTwoAndAsksOnce)
{
    TestPalette palette;
    palette.command("Diff",
        {.id = "app:/nonexistent.app",
            .actions = {{.id = "diff",
                .title = "Diff Two Files",
                .flow = ActionFlow::applicationInput("/nonexistent.app", {"--diff"}, false)}}});
    palette.dialogs.accept({"/a"});
    palette.run();
    EXPECT_EQ(palette.error(), "Choose exactly two files to compare.");
    EXPECT_FALSE(palette.coordinator->isPresenting());
    palette.dialogs.refuse();
    palette.run();
    EXPECT_EQ(palette.error(), "") << "a cancelled panel ends silently";
    palette.dialogs.accept({"/a", "/b"});
    palette.run();
    EXPECT_EQ(palette.error(), "Choose an installed application bundle.");
    EXPECT_EQ(palette.dialogs.asked().size(), 3u);
    palette.run();
    EXPECT_EQ(palette.dialogs.asked().size(), 3u) << "the choice is remembered";
    EXPECT_EQ(palette.dialogs.asked()[0].choice.title, "Choose Two Files");
}

TEST(PaletteAction, AFolderForAnApplicationIsOneAndIsAskedForOnce)
{
    TestPalette palette;
    palette.command("Open Folder",
        {.id = "app:/nonexistent.app",
            .actions = {
                {.id = "folder", .title = "Open Folder", .flow = ActionFlow::applicationInput("/nonexistent.app", {}, true)}}});
    for (const Strings &wrong : {Strings{}, Strings{"/a", "/b"}}) {
        palette.dialogs.accept(wrong);
        palette.run();
        EXPECT_EQ(palette.error(), "Choose exactly two files to compare.") << wrong.size();
    }
    palette.dialogs.accept({"/a"});
    palette.run();
    EXPECT_EQ(palette.error(), "Choose an installed application bundle.");
    palette.run();
    EXPECT_EQ(palette.dialogs.asked().size(), 3u) << "the choice is remembered";
    EXPECT_TRUE(palette.dialogs.asked()[0].choice.folders);
}

TEST(PaletteAction, AiRequestsAreRefusedUntilTheyAreEnabled)
{
    TestPalette palette;
    palette.state->enter(Mode::ai);
    palette.type("   ");
    palette.run();
    EXPECT_EQ(palette.error(), "");
    palette.type("open the editor");
    palette.run();
    EXPECT_EQ(palette.error(), "Enable AI Requests and save an API key in Settings → AI.");
    EXPECT_FALSE(palette.state->busy());
    EXPECT_EQ(palette.state->query(), "open the editor");
}
