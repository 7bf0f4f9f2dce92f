// The palette's rows between the field and the list, its footer, and the words of each state, on a real X server.
#include "tests/desktop/Gestures.h"
#include "tests/desktop/Scene.h"

#include "Vorrel/Views/FileFilters.h"
#include "Vorrel/Views/PaletteInput.h"
#include "Vorrel/Views/QtDialogs.h"
#include "Vorrel/Views/ViewText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QApplication>
#include <QDialogButtonBox>
#include <QFile>
#include <QFileDialog>
#include <QLineEdit>
#include <QPushButton>
#include <QWindow>

namespace korvane::test {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::UnorderedElementsAre;
using namespace std::chrono_literals;

namespace {

class Bars : public testing::Test {
protected:
    Bars() { scene.show(); }

    /// The texts of all labels that can be seen.
    Strings labels()
    {
        Strings all;
        for (const auto *label : scene.view().findChildren<QLabel *>())
            if (label->isVisible() && !label->text().isEmpty())
                all.push_back(label->text().toStdString());
        return all;
    }
    Strings buttons()
    {
        Strings all;
        for (const auto *button : scene.view().findChildren<FlatButton *>())
            if (button->isVisible())
                all.push_back(button->text().toStdString());
        return all;
    }
    FlatButton &button(const QString &text)
    {
        for (auto *one : scene.view().findChildren<FlatButton *>())
            if (one->isVisible() && one->text() == text)
                return *one;
        throw std::runtime_error("no button " + text.toStdString());
    }
    void show(Rows rows)
    {
        scene.palette()._results = std::move(rows);
        scene.turn();
    }

    Scene scene;
};

class Filters : public Bars {
protected:
    Filters()
    {
        scene.palette().setCategory(SearchCategory::files);
        scene.turn();
    }

    FileFilters &filters() { return *scene.view().findChild<FileFilters *>(); }
    /// The panel for files or folders, once it is up; null when it does not come.
    QFileDialog *shownPanel()
    {
        const bool up = scene.waitFor([this] { return scene.shownWindow().hasSheet(); });
        return up ? scene.shownWindow().surface()->findChild<QFileDialog *>() : nullptr;
    }
    /// Opens the menu and waits until it is up.
    FlatMenu &open(Picker &picker)
    {
        click(picker);
        EXPECT_TRUE(scene.waitFor([&] { return picker.menu().isVisible(); }));
        return picker.menu();
    }
    /// Lets pass in which a palette that has lost the keyboard would have hidden.
    void letTimePass()
    {
        for (int i = 0; i < 40; i++) {
            scene.turn();
            scene.wait(50ms);
        }
    }
    /// As the toolkit reports a press: to the open menu's own window first, wherever it was.
    void clickBeside(FlatMenu &menu, QPoint place)
    {
        QWindow *window = menu.windowHandle();
        QMouseEvent press(
            QEvent::MouseButtonPress, window->mapFromGlobal(place), place, Qt::LeftButton, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(window, &press);
        letTimePass();
    }
    std::string query() { return scene.palette().query(); }
};

} // namespace

// Filters for files

TEST_F(Filters, StandUnderTheTabOfFilesAlone)
{
    EXPECT_TRUE(filters().isVisible());
    EXPECT_THAT(buttons(), Contains("Choose Folder…"));
    for (const auto category : {SearchCategory::all, SearchCategory::applications, SearchCategory::shortcuts}) {
        scene.palette().setCategory(category);
        scene.turn();
        EXPECT_FALSE(filters().isVisible()) << rawValue(category);
    }
}

TEST_F(Filters, OfferEveryKindOrderAndTheWayBackToAllFolders)
{
    const auto entries = [](Picker &picker) {
        Strings all;
        for (const auto *entry : picker.menu().actions())
            all.push_back(entry->data().toString().toStdString());
        return all;
    };
    EXPECT_THAT(entries(filters().type()), ElementsAre("All Types", "Folders", "Documents", "Images", "Audio & Video", "Other"));
    EXPECT_THAT(entries(filters().sort()), ElementsAre("relevance", "name", "size", "modified"));
    EXPECT_THAT(entries(filters().folder()), ElementsAre("All Folders"));
    EXPECT_EQ(filters().type().accessibleName(), "Type: All Types");
    EXPECT_EQ(filters().sort().accessibleName(), "Sort: relevance");
}

TEST_F(Filters, AChosenTypeIsWrittenIntoTheField)
{
    type(scene.field(), "report");
    FlatMenu &menu = open(filters().type());
    press(menu, Qt::Key_Down);
    press(menu, Qt::Key_Down);
    press(menu, Qt::Key_Return);
    scene.turn();
    EXPECT_EQ(query(), "report kind:document");
    EXPECT_EQ(scene.field().text(), "report kind:document");
    EXPECT_EQ(filters().type().text(), "Documents");
    EXPECT_FALSE(menu.isVisible());
}

TEST_F(Filters, AChosenOrderIsWrittenIntoTheField)
{
    FlatMenu &menu = open(filters().sort());
    click(menu, menu.actionGeometry(menu.actions().at(3)).center());
    scene.turn();
    EXPECT_EQ(query(), "sort:modified");
    EXPECT_EQ(filters().sort().text(), "modified");
}

TEST_F(Filters, WhatIsTypedLooksLikeWhatIsChosen)
{
    scene.palette().setQuery("kind:media sort:size path:/srv/archive");
    scene.turn();
    EXPECT_EQ(filters().type().text(), "Audio & Video");
    EXPECT_EQ(filters().sort().text(), "size");
    EXPECT_EQ(filters().folder().text(), "archive");
    EXPECT_EQ(filters().folder().toolTip(), "/srv/archive");
    EXPECT_TRUE(filters().type().menu().actions().at(4)->isChecked());
}

TEST_F(Filters, AQueryThatCannotBeReadKeepsTheValuesBefore)
{
    scene.palette().setQuery("kind:image sort:name");
    scene.turn();
    scene.palette().setQuery("kind:image sort:name ext:");
    scene.turn();
    EXPECT_EQ(filters().type().text(), "Images");
    EXPECT_EQ(filters().sort().text(), "name");
    scene.palette().setQuery("");
    scene.turn();
    EXPECT_EQ(filters().type().text(), "All Types");
    EXPECT_EQ(filters().sort().text(), "relevance");
}

TEST_F(Filters, AChosenFolderIsShownAndAllFoldersTakesItAway)
{
    scene.dialogs.accept({"/home/ada/Letters"});
    click(button("Choose Folder…"));
    scene.turn();
    EXPECT_EQ(query(), "path:/home/ada/Letters");
    EXPECT_EQ(filters().folder().text(), "Letters");

    FlatMenu &menu = open(filters().folder());
    press(menu, Qt::Key_Return);
    scene.turn();
    EXPECT_EQ(query(), "");
    EXPECT_EQ(filters().folder().text(), "All Folders");
    EXPECT_EQ(scene.palette().fileDirectory(), std::nullopt);
}

TEST_F(Filters, ALongFolderNameLeavesTheRowItsPlace)
{
    scene.palette().setQuery(
        "kind:media sort:modified \"path:/srv/A name of a folder that would fill the row by itself, and then some\"");
    scene.turn();
    EXPECT_LE(filters().minimumSizeHint().width(), QtPaletteWindow::width);
    EXPECT_TRUE(filters().findChild<QWidget *>("hint")->isVisible()) << "with the longest kind there is room for the hint";
    EXPECT_THAT(filters().folder().text().toStdString(), testing::HasSubstr("…"));
}

TEST_F(Filters, AnOpenMenuLeavesThePaletteUp)
{
    scene.wait(600ms); // a fresh palette stays whatever happens
    FlatMenu &menu = open(filters().type());
    letTimePass();
    EXPECT_TRUE(menu.isVisible());
    EXPECT_TRUE(scene.controller->presented());

    clickBeside(menu, scene.view().mapToGlobal(QPoint(20, 20)));
    EXPECT_FALSE(menu.isVisible()) << "a press beside a menu closes it";
    EXPECT_TRUE(scene.controller->presented());
    EXPECT_TRUE(scene.waitFor([&] { return scene.shownWindow().hasKeyboard(); }));
}

TEST_F(Filters, APressBesideAMenuAndThePaletteClosesBoth)
{
    FlatMenu &menu = open(filters().type());
    clickBeside(menu, scene.view().mapToGlobal(QPoint(-200, -100)));
    EXPECT_FALSE(menu.isVisible());
    EXPECT_FALSE(scene.controller->presented());
}

TEST_F(Filters, EscapeClosesTheMenuAlone)
{
    scene.palette().setQuery("report");
    FlatMenu &menu = open(filters().sort());
    press(menu, Qt::Key_Escape);
    letTimePass();
    EXPECT_FALSE(menu.isVisible());
    EXPECT_TRUE(scene.controller->presented());
    EXPECT_EQ(query(), "report");
}

TEST_F(Filters, ALetterTypedOverAMenuClosesItAndGoesToTheField)
{
    FlatMenu &menu = open(filters().type());
    type(menu, "a");
    scene.turn();
    EXPECT_FALSE(menu.isVisible());
    EXPECT_EQ(query(), "a");
    EXPECT_TRUE(scene.field().hasFocus());
}

TEST_F(Filters, TheMarkedEntryIsTheOneThatReturnWouldChoose)
{
    scene.palette().setQuery("kind:image");
    scene.turn();
    FlatMenu &menu = open(filters().type());
    ASSERT_NE(menu.activeAction(), nullptr);
    EXPECT_EQ(menu.activeAction()->data().toString(), "Images");
    press(menu, Qt::Key_Escape);
}

TEST_F(Filters, TheKeyboardReachesEachOfThem)
{
    QList<QWidget *> reached;
    for (int i = 0; i < 20 && !(i > 0 && scene.field().hasFocus()); i++) {
        press(*QApplication::focusWidget(), Qt::Key_Backtab, Qt::ShiftModifier);
        reached += QApplication::focusWidget();
    }
    EXPECT_TRUE(scene.field().hasFocus()) << "and it comes back";
    for (QWidget *one :
        std::initializer_list<QWidget *>{&filters().type(), &filters().sort(), &filters().folder(), &button("Choose Folder…")})
        EXPECT_TRUE(reached.contains(one)) << one->accessibleName().toStdString();
}

TEST_F(Filters, TheArrowDownOpensAPickerAndElsewhereWalksThroughTheRows)
{
    show({makeRow({.id = "a", .title = "A"}), makeRow({.id = "b", .title = "B"})});
    filters().type().setFocus(Qt::TabFocusReason);
    press(filters().type(), Qt::Key_Down);
    EXPECT_TRUE(scene.waitFor([&] { return filters().type().menu().isVisible(); }));
    press(filters().type().menu(), Qt::Key_Escape);
    button("Choose Folder…").setFocus(Qt::TabFocusReason);
    press(button("Choose Folder…"), Qt::Key_Down);
    EXPECT_EQ(scene.palette().selection(), 1);
}

TEST_F(Filters, ThePanelForAFolderHasItsWordsAndStandsOverThePalette)
{
    QtDialogs dialogs(scene.appearance);
    dialogs.palette = [&] { return scene.shownWindow().surface(); };
    Dialogs::Choice choice;
    choice.folders = true;
    choice.title = "Choose a Folder to Search";
    choice.prompt = "Search Here";
    choice.message = "Choose a folder to narrow results to that scope. Search still covers every indexed root.";
    choice.directory = scene.folder.path().toStdString();
    Begun<std::optional<std::vector<std::string>>> asked(scene.loop, dialogs.choose(choice));
    auto *const panel = shownPanel();
    ASSERT_NE(panel, nullptr);
    EXPECT_EQ(panel->windowTitle(), "Choose a Folder to Search");
    EXPECT_EQ(panel->windowModality(), Qt::WindowModal);
    EXPECT_EQ(panel->fileMode(), QFileDialog::Directory);
    EXPECT_EQ(panel->directory().absolutePath(), scene.folder.path());
    Strings words;
    for (const auto *label : panel->findChildren<QLabel *>())
        words.push_back(label->text().toStdString());
    EXPECT_THAT(words, Contains(choice.message));
    auto *box = panel->findChild<QDialogButtonBox *>();
    ASSERT_NE(box, nullptr);
    auto *accept = box->buttons().value(0);
    ASSERT_NE(accept, nullptr);
    EXPECT_EQ(accept->text(), "Search Here");
    letTimePass();
    EXPECT_TRUE(scene.controller->presented());

    accept->click();
    ASSERT_TRUE(scene.waitFor([&] { return asked.done(); }));
    EXPECT_EQ(asked.result(), std::vector{scene.folder.path().toStdString()}) << "the folder in which it began";
}

TEST_F(Filters, ThePanelForFilesGivesEveryOneThatWasChosen)
{
    Strings paths;
    for (const char *name : {"high tide.txt", "低潮.txt", "left.txt"}) {
        QFile file(scene.folder.filePath(QString::fromUtf8(name)));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        paths.push_back(file.fileName().toStdString());
    }
    QtDialogs dialogs(scene.appearance);
    dialogs.palette = [&] { return scene.shownWindow().surface(); };
    Dialogs::Choice choice;
    choice.multiple = true;
    choice.title = "Choose two files";
    choice.directory = scene.folder.path().toStdString();
    Begun<std::optional<std::vector<std::string>>> asked(scene.loop, dialogs.choose(choice));
    auto *const panel = shownPanel();
    ASSERT_NE(panel, nullptr);
    auto *name = panel->findChild<QLineEdit *>();
    ASSERT_NE(name, nullptr);
    name->setText(QStringLiteral("\"high tide.txt\" \"低潮.txt\""));
    press(*name, Qt::Key_Return);
    ASSERT_TRUE(scene.waitFor([&] { return asked.done(); }));
    EXPECT_THAT(asked.result(), testing::Optional(UnorderedElementsAre(paths[0], paths[1])));
}

// Shortcuts

TEST_F(Bars, TheFourthTabIsThatOfShortcuts)
{
    press(scene.field(), Qt::Key_4, Qt::ControlModifier);
    scene.turn();
    EXPECT_EQ(scene.palette().category(), SearchCategory::shortcuts);
    FlatButton &tab = button("Shortcuts");
    EXPECT_TRUE(tab.isChecked());
    EXPECT_EQ(tab.accessibleDescription(), "Ctrl+4");
}

TEST_F(Bars, TheStateOfTheShortcutsStandsBesideTheButtonThatLooksForThemAnew)
{
    scene.shortcuts->statusText = "2 shortcuts";
    scene.turn();
    EXPECT_THAT(labels(), Not(Contains("2 shortcuts"))) << "not under another tab";
    scene.palette().setCategory(SearchCategory::shortcuts);
    scene.turn();
    EXPECT_THAT(labels(), Contains("2 shortcuts"));
    scene.shortcuts->statusText = "3 shortcuts";
    scene.turn();
    EXPECT_THAT(labels(), Contains("3 shortcuts"));

    scene.shortcuts->refreshes.clear();
    click(button("Refresh List"));
    EXPECT_THAT(scene.shortcuts->refreshes, ElementsAre(true));
}

TEST_F(Bars, ARunIsCountedOnceASecondAndStopped)
{
    auto *run = scene.view().findChild<RunMark *>();
    ASSERT_NE(run, nullptr);
    EXPECT_FALSE(run->isVisible());
    scene.shortcuts->startedAt = scene.clock.now() - 58.25;
    scene.turn();
    ASSERT_TRUE(run->isVisible());
    EXPECT_EQ(run->shownTime(), "0:58");
    scene.wait(748ms);
    EXPECT_EQ(run->shownTime(), "0:58");
    scene.wait(3ms);
    EXPECT_EQ(run->shownTime(), "0:59");
    scene.wait(61s);
    EXPECT_EQ(run->shownTime(), "2:00");

    click(button("Stop Execution"));
    EXPECT_EQ(scene.shortcuts->cancelled, 1);
    scene.shortcuts->startedAt = std::nullopt;
    scene.turn();
    EXPECT_FALSE(run->isVisible());
}

TEST_F(Bars, ARunThatNobodySeesIsNotCounted)
{
    scene.shortcuts->startedAt = scene.clock.now() - 20;
    scene.turn();
    scene.controller->hide();
    ASSERT_TRUE(scene.waitFor([&] { return !scene.shownWindow().visible(); }));
    auto *run = scene.view().findChild<RunMark *>();
    const QString before = run->shownTime();
    scene.wait(9s);
    EXPECT_EQ(run->shownTime(), before);
    scene.show();
    EXPECT_NE(run->shownTime(), before) << "it knows the time when it is seen again";
}

TEST_F(Bars, WorkWithoutARunHasAMarkWithoutTimeAndButton)
{
    scene.palette()._busy = true;
    scene.turn();
    EXPECT_FALSE(scene.view().findChild<RunMark *>()->isVisible());
    int marks = 0;
    for (const auto *mark : scene.view().findChildren<QWidget *>())
        marks += dynamic_cast<const Spinner *>(mark) && mark->isVisible();
    EXPECT_EQ(marks, 1);
}

// Words of the states

TEST_F(Bars, TheFieldSaysWhatItSearches)
{
    PaletteState &palette = scene.palette();
    const auto placeholder = [&] {
        scene.turn();
        return scene.field().placeholderText().toStdString();
    };
    EXPECT_EQ(placeholder(), "Search apps, files, commands or ask AI…");
    palette.enter(PaletteState::Mode::files);
    EXPECT_EQ(placeholder(), "Search indexed filenames…");
    palette.enter(PaletteState::Mode::clipboard);
    EXPECT_EQ(placeholder(), "Search clipboard history…");
    palette.enter(PaletteState::Mode::ai);
    EXPECT_EQ(placeholder(), "Ask AI to do something…");
    palette._argumentTarget = makeRow({.id = "app:code", .title = "Code"});
    EXPECT_EQ(placeholder(), "Arguments for Code…");
    palette._childTitle = "Open With…";
    EXPECT_EQ(placeholder(), "Search applications to open this file…");
    palette._showsActions = true;
    palette._actionQuery = "op";
    EXPECT_EQ(placeholder(), "Search Actions…");
    EXPECT_EQ(scene.field().text(), "op");
}

TEST_F(Bars, TheHeaderSaysWhereOneIs)
{
    PaletteState &palette = scene.palette();
    EXPECT_EQ(NestedHeader::titleFor(palette), "");
    palette.enter(PaletteState::Mode::files);
    EXPECT_EQ(NestedHeader::titleFor(palette), "Search Files");
    palette.enter(PaletteState::Mode::clipboard);
    EXPECT_EQ(NestedHeader::titleFor(palette), "Clipboard History");
    palette.enter(PaletteState::Mode::ai);
    EXPECT_EQ(NestedHeader::titleFor(palette), "Ask AI");
    Agent agent;
    agent.name = "Archivist";
    palette._activeAgent = agent;
    EXPECT_EQ(NestedHeader::titleFor(palette), "Archivist");
    palette._argumentTarget = makeRow({.id = "app:code", .title = "Code"});
    EXPECT_EQ(NestedHeader::titleFor(palette), "Arguments · Code");
    palette._childTitle = "Open With…";
    EXPECT_EQ(NestedHeader::titleFor(palette), "Open With…");
    scene.turn();
    EXPECT_THAT(labels(), Contains("Open With…"));
}

TEST_F(Bars, AnEmptyQueryToTheAssistantShowsItsIntroductionWithTheNameOfTheAgent)
{
    const auto shown = [&] {
        scene.turn();
        for (const auto *pane : scene.view().findChildren<TextPane *>())
            if (pane->isVisible())
                return pane->toPlainText().toStdString();
        return std::string();
    };
    scene.palette().enter(PaletteState::Mode::ai);
    EXPECT_EQ(shown(), scene.palette().aiIntroduction());
    Agent agent;
    agent.name = "Archivist";
    scene.palette()._activeAgent = agent;
    EXPECT_EQ(shown(), "Enter a request for Archivist, then press Return.\n\nThis Agent has no access to tools.");
    scene.palette()._aiOutput = "Done.";
    scene.palette()._aiStatus = "12 tokens";
    EXPECT_EQ(shown(), "Done.");
    EXPECT_THAT(labels(), testing::IsSupersetOf({"Ask AI", "12 tokens"}));
}

TEST_F(Bars, WhatAModelAnswersIsPlainTextToBeCopiedAndSetApartFromTheProgramsWords)
{
    scene.palette().enter(PaletteState::Mode::ai);
    scene.turn();
    auto *pane = scene.view().findChild<TextPane *>();
    ASSERT_TRUE(pane);
    const QColor ownWords = pane->palette().color(QPalette::Text);
    scene.palette()._aiOutput = "<b>a</b>\x1b[31m\u202Etxt\n" + scene.palette().aiIntroduction();
    scene.turn();
    EXPECT_EQ(pane->toPlainText().toStdString(), "<b>a</b>\uFFFD[31m\uFFFDtxt\n" + scene.palette().aiIntroduction());
    EXPECT_NE(pane->palette().color(QPalette::Text), ownWords);
    EXPECT_TRUE(pane->isReadOnly());
    EXPECT_TRUE(pane->textInteractionFlags() & Qt::TextSelectableByMouse);
    EXPECT_FALSE(pane->textInteractionFlags() & Qt::LinksAccessibleByMouse);
}

TEST_F(Bars, TheStatusOfARunNamesTheTool)
{
    EXPECT_EQ(runStatus("Thinking…"), "Thinking…");
    EXPECT_EQ(runStatus("Running file.\u202Esearch…"), "Running file.\uFFFDsearch…");
    EXPECT_EQ(runStatus(""), "");
    scene.palette().enter(PaletteState::Mode::ai);
    scene.palette()._aiStatus = "Running file.search…";
    scene.turn();
    EXPECT_THAT(labels(), Contains("Running file.search…"));
}

TEST_F(Bars, WithoutRowsTheListSaysWhyInTheWordsOfTheState)
{
    PaletteState &palette = scene.palette();
    const auto says = [&](const std::string &title, const std::string &line) {
        scene.wait(200ms); // whatever is being sought has been found
        show({});
        EXPECT_THAT(labels(), testing::IsSupersetOf({title, line}));
    };
    const std::string anywhere = "Type a name or keyword to find a result.";
    const std::string index =
        "Results come from Korvane's own file index. Add folders in Settings → File Index if something is missing.";
    says("Commands", anywhere);
    palette._query = "x";
    says("No Results", anywhere);
    palette._category = SearchCategory::files;
    says("No Results", index);
    palette.enter(PaletteState::Mode::files);
    says("Search Files", index);
    palette.enter(PaletteState::Mode::clipboard);
    says("Clipboard History", anywhere);
    palette.enter(PaletteState::Mode::commands);
    palette._argumentTarget = makeRow({.id = "app:code", .title = "Code"});
    says("Arguments for Code", "Type arguments and press Return, or pick a previous launch below.");
}

TEST_F(Bars, ACheckOfAccessAndSearchesSaySo)
{
    EXPECT_THAT(labels(), Not(Contains("Checking file access…")));
    scene.controller->coordinator()._checkingAccess = true;
    show({makeRow({.id = "a", .title = "A"})});
    EXPECT_THAT(labels(), Contains("Checking file access…"));

    scene.palette()._searchingFiles = true;
    scene.turn();
    EXPECT_TRUE(scene.view().resultList().isVisible()) << "rows stay";
    EXPECT_THAT(labels(), Contains("Files…"));
    EXPECT_THAT(labels(), Not(Contains("Searching…")));
    show({});
    EXPECT_THAT(labels(), Contains("Searching…"));
}

TEST_F(Bars, EachWayOutOfAFailureHasItsButton)
{
    const struct {
        PaletteState::FailureRecovery recovery;
        Strings buttons;
    } cases[] = {
        {{}, {}},
        {{.rerunAction = true}, {"Retry"}},
        {{.refreshResults = true}, {"Refresh Search"}},
        {{.rerunAction = true, .openAccessSettings = true}, {"File Access Settings", "Retry"}},
    };
    for (const auto &c : cases) {
        scene.palette()._error = "The operation was cancelled.";
        scene.palette()._errorRecovery = c.recovery;
        scene.turn();
        const auto *area = scene.view().findChild<ErrorArea *>();
        ASSERT_NE(area, nullptr);
        Strings shown;
        for (const auto *one : area->findChildren<FlatButton *>())
            if (one->isVisible())
                shown.push_back(one->text().toStdString());
        EXPECT_EQ(shown, c.buttons);
    }
}

TEST_F(Bars, TheButtonsOfAFailureDoWhatTheySay)
{
    int settings = 0, runs = 0;
    scene.palette().openSettings = [&] { settings++; };
    CommandAction failing{.id = "fail", .title = "Fail"};
    failing.execute = [&runs]() -> Task<void> {
        runs++;
        return []() -> Task<void> {
            throw FileAccessFailure(FileAccessFailure::Reason::permission);
            co_return;
        }();
    };
    show({makeRow({.id = "test.row", .title = "Row", .keepsOpen = true, .actions = {failing}})});
    press(scene.field(), Qt::Key_Return);
    scene.turn();
    ASSERT_EQ(runs, 1);
    click(button("File Access Settings"));
    EXPECT_EQ(settings, 1);
    EXPECT_EQ(scene.services->preferences().selectedTab.get(), SettingsState::Tab::files);
    click(button("Retry"));
    scene.turn();
    EXPECT_EQ(runs, 2);

    scene.palette()._error = "This file no longer exists. Refresh the search results.";
    scene.palette()._errorRecovery = {.refreshResults = true};
    scene.turn();
    click(button("Refresh Search"));
    scene.turn();
    EXPECT_EQ(runs, 2);
    EXPECT_FALSE(scene.palette().error()) << "a search begins without a failure";
    EXPECT_TRUE(scene.palette().results().empty() || scene.palette().results()[0]->id != "test.row") << "and finds its own rows";
}

TEST_F(Bars, TheFootersPreviewOpensTheTextAndItsCloseButtonClosesIt)
{
    show({makeRow({.id = "clipboard:1", .title = "x", .previewText = "A text"})});
    click(button("Preview"));
    scene.turn();
    ASSERT_TRUE(scene.palette().showsPreview());
    auto *preview = scene.view().findChild<ResultPreviewView *>();
    ASSERT_TRUE(preview && preview->isVisible());
    click(*preview->findChild<FlatButton *>());
    scene.turn();
    EXPECT_FALSE(scene.palette().showsPreview());
    EXPECT_FALSE(preview->isVisible());
}

TEST_F(Bars, AClickInTheActionsRunsTheActionUnderTheMouse)
{
    Strings ran;
    std::vector<CommandAction> actions;
    for (const char *id : {"first", "second", "third"}) {
        CommandAction action{.id = id, .title = id};
        action.execute = [&ran, id]() -> Task<void> {
            ran.push_back(id);
            return []() -> Task<void> { co_return; }();
        };
        actions.push_back(action);
    }
    show({makeRow({.id = "test.row", .title = "Row", .actions = actions})});
    scene.palette().toggleActions();
    scene.turn();
    auto &list = *scene.view().findChild<ActionsList *>();
    click(*list.viewport(), list.rowRect(1).center());
    scene.turn();
    EXPECT_THAT(ran, ElementsAre("second"));
}

TEST_F(Bars, AnActionIsMarkedByItsRole)
{
    show({makeRow({.id = "test.row",
        .title = "Row",
        .actions = {{.id = "look", .title = "Look"}, {.id = "write", .title = "Write", .role = ActionRole::write},
            {.id = "delete", .title = "Delete", .role = ActionRole::destructive}}})});
    scene.palette().toggleActions();
    scene.turn();
    const auto &list = *scene.view().findChild<ActionsList *>();
    ASSERT_EQ(list.count(), 3);
    const std::pair<const char *, const char *> marks[] = {
        {"arrow.right", ""}, {"pencil", "write"}, {"exclamationmark.triangle", "destructive"}};
    for (int row = 0; row < list.count(); row++) {
        const RowFace face = list.face(row);
        EXPECT_EQ(face.icon, CommandIcon::symbol(marks[row].first));
        EXPECT_EQ(face.badge, marks[row].second);
        EXPECT_EQ(face.grave, row == 2);
    }
}

TEST_F(Bars, TheSelectedActionIsAlwaysInView)
{
    std::vector<CommandAction> actions;
    for (int i = 0; i < 30; i++)
        actions.push_back({.id = "action" + std::to_string(i), .title = "Action"});
    show({makeRow({.id = "test.row", .title = "Row", .actions = actions})});
    scene.palette().toggleActions();
    scene.turn();
    const auto &list = *scene.view().findChild<ActionsList *>();
    for (const int step : {1, -1})
        for (int i = 0; i < 31; i++) {
            scene.palette().move(step);
            scene.turn();
            ASSERT_EQ(list.selection(), scene.palette().actionSelection());
            ASSERT_TRUE(list.viewport()->rect().contains(list.rowRect(list.selection()))) << list.selection();
        }
}

TEST_F(Bars, TheFooterOffersWhatTheSelectedRowCanDo)
{
    const auto offered = [&] {
        Strings all;
        auto *footer = scene.view().findChild<PaletteFooter *>();
        for (const auto *one : footer->findChildren<QWidget *>()) {
            if (!one->isVisible())
                continue;
            if (const auto *pressed = qobject_cast<const FlatButton *>(one))
                all.push_back(pressed->text().toStdString());
            else if (dynamic_cast<const HintLine *>(one))
                all.push_back(one->accessibleName().toStdString());
        }
        return all;
    };
    const Row application = makeRow({.id = "app:code", .title = "Code"});
    const std::string hint = "↵ Open · esc Back";
    show({});
    EXPECT_THAT(offered(), ElementsAre(hint));
    show({makeRow({.id = "clipboard:1", .title = "x", .previewText = "x"})});
    EXPECT_THAT(offered(), testing::UnorderedElementsAre("Preview", "Actions", hint));
    show({application});
    EXPECT_THAT(offered(), testing::UnorderedElementsAre("Arguments", "Actions", hint));
    scene.palette()._childTitle = "Open With…";
    scene.turn();
    EXPECT_THAT(offered(), testing::UnorderedElementsAre("Actions", hint));
}

TEST_F(Bars, AShortPreviewTellsHowLongItIsAndReturnTakesTheWholeItem)
{
    const std::string whole(60'000, 'x');
    std::size_t copied = 0;
    CommandAction copy{.id = "copy", .title = "Copy"};
    copy.execute = [&copied, whole]() -> Task<void> {
        copied = whole.size();
        return []() -> Task<void> { co_return; }();
    };
    show({makeRow({.id = "clipboard:1", .title = "x", .keepsOpen = true, .previewText = whole, .actions = {copy}})});
    scene.palette()._showsPreview = true;
    scene.turn();
    auto *preview = scene.view().findChild<ResultPreviewView *>();
    ASSERT_NE(preview, nullptr);
    EXPECT_EQ(preview->shownPart().size(), 50'000);
    press(scene.field(), Qt::Key_Return);
    scene.turn();
    EXPECT_EQ(copied, 60'000U);

    preview->show("five!");
    EXPECT_EQ(preview->statusLine(), "5 characters · Return copies · ↑ ↓ Browse");
}

} // namespace korvane::test
