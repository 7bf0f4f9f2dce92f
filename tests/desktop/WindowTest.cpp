// The palette's window and views on a real X server, over a system in memory.
#include "tests/desktop/Gestures.h"
#include "tests/desktop/Scene.h"

#include "Vorrel/Views/ActivationListener.h"
#include "Vorrel/Views/IconFinder.h"
#include "Vorrel/Views/IconStore.h"
#include "Vorrel/Views/PaletteInput.h"
#include "Vorrel/Views/QtDialogs.h"
#include "Vorrel/Views/QtMainLoop.h"
#include "Vorrel/Views/QtPasteboard.h"
#include "Vorrel/Views/ResultPreviewView.h"
#include "Vorrel/Views/TrayStatusItem.h"
#include "Vorrel/Views/X11Window.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QAccessible>
#include <QApplication>
#include <QClipboard>
#include <QDBusConnection>
#include <QDBusContext>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDialog>
#include <QFile>
#include <QInputMethodEvent>
#include <QKeyEvent>
#include <QLabel>
#include <QMouseEvent>
#include <QPushButton>
#include <QScreen>
#include <QScrollBar>
#include <QThread>
#include <QWindow>

#include <thread>

namespace korvane::test {

using testing::ElementsAre;
using namespace std::chrono_literals;

namespace {

void compose(QWidget &target, const QString &preedit, const QString &commit = {})
{
    QInputMethodEvent event(preedit, {});
    event.setCommitString(commit);
    QCoreApplication::sendEvent(&target, &event);
}

/// Counts how often a widget is painted.
struct PaintCounter : QObject {
    explicit PaintCounter(QWidget &watched) { watched.installEventFilter(this); }
    bool eventFilter(QObject *, QEvent *event) override
    {
        paints += event->type() == QEvent::Paint;
        return false;
    }
    int paints = 0;
};

/// The accessible widget of a role below `root`, depth first.
QAccessibleInterface *accessible(QAccessibleInterface *root, QAccessible::Role role, const QString &name)
{
    if (!root)
        return nullptr;
    if (root->role() == role && (name.isEmpty() || root->text(QAccessible::Name) == name))
        return root;
    for (int i = 0; i < root->childCount(); i++)
        if (auto *found = accessible(root->child(i), role, name))
            return found;
    return nullptr;
}

std::string nameOf(QAccessibleInterface *item) { return item->text(QAccessible::Name).toStdString(); }

/// Three commands in two sections, shown.
class Palette : public testing::Test {
protected:
    Palette()
    {
        scene.add({.id = "test.alpha", .title = "Alpha", .subtitle = "First letter", .icon = CommandIcon::symbol("folder")});
        scene.add({.id = "test.beta", .title = "Beta", .icon = CommandIcon::symbol("moon")});
        scene.add({.id = "test.gamma", .title = "Gamma", .icon = CommandIcon::symbol("lock"), .kind = ResultKind::other});
        scene.show();
        scene.palette()._results = rowsOf({"test.alpha", "test.beta", "test.gamma"});
        scene.palette()._selection = 0;
        scene.turn();
    }

    Rows rowsOf(const Strings &ids)
    {
        Rows rows;
        for (const std::string &id : ids)
            rows.push_back(scene.palette().registry.result(id));
        return rows;
    }

    ResultList &list() { return scene.view().resultList(); }

    Scene scene;
};

} // namespace

// The field

TEST_F(Palette, TheFieldHasTheKeyboardOnceThePaletteIsUp)
{
    EXPECT_TRUE(scene.shownWindow().hasKeyboard());
    EXPECT_TRUE(scene.field().hasFocus());
}

TEST_F(Palette, WhatIsTypedReachesTheState)
{
    type(scene.field(), "abc");
    EXPECT_EQ(scene.palette().query(), "abc");
}

TEST_F(Palette, TypedTextIsNotLostWhenTheStateChangesMeanwhile)
{
    type(scene.field(), "al");
    scene.palette()._searchingFiles = true;
    scene.turn();
    type(scene.field(), "pha");
    scene.palette()._searchingFiles = false;
    scene.turn();
    EXPECT_EQ(scene.field().text(), "alpha");
    EXPECT_EQ(scene.palette().query(), "alpha");
}

TEST_F(Palette, ATextIsWrittenIntoTheFieldOnlyWhenItDiffers)
{
    type(scene.field(), "alpha");
    scene.field().setCursorPosition(2);
    scene.turn();
    scene.view().refresh();
    EXPECT_EQ(scene.field().cursorPosition(), 2);
    EXPECT_TRUE(scene.field().isUndoAvailable());
}

TEST_F(Palette, UpAndDownMoveTheSelectionAndWrapAround)
{
    press(scene.field(), Qt::Key_Down);
    EXPECT_EQ(scene.palette().selection(), 1);
    press(scene.field(), Qt::Key_Up);
    press(scene.field(), Qt::Key_Up);
    EXPECT_EQ(scene.palette().selection(), 2);
}

TEST_F(Palette, ReturnRunsTheSelectedRow)
{
    press(scene.field(), Qt::Key_Down);
    press(scene.field(), Qt::Key_Return);
    scene.turn();
    EXPECT_THAT(scene.ran, ElementsAre("Beta"));
}

TEST_F(Palette, EscapeHidesThePalette)
{
    press(scene.field(), Qt::Key_Escape);
    scene.turn();
    EXPECT_FALSE(scene.controller->presented());
    EXPECT_TRUE(scene.waitFor([&] { return !scene.shownWindow().visible(); }));
}

TEST_F(Palette, TabTurnsTheFieldIntoTheArgumentLineOfAnApplication)
{
    scene.palette()._results = Rows{scene.application("Firefox", "firefox", "")};
    scene.turn();
    press(scene.field(), Qt::Key_Tab);
    scene.turn();
    ASSERT_NE(scene.palette().argumentTarget(), nullptr);
    EXPECT_EQ(scene.field().placeholderText(), "Arguments for Firefox…");
    EXPECT_TRUE(scene.field().hasFocus());
}

TEST_F(Palette, ReturnDuringCompositionTakesTheTextOverAndRunsNothing)
{
    compose(scene.field(), "ni hao");
    ASSERT_TRUE(scene.field().composing());
    press(scene.field(), Qt::Key_Return);
    scene.turn();
    EXPECT_THAT(scene.ran, ElementsAre());
    EXPECT_EQ(scene.field().text(), "ni hao");
    EXPECT_EQ(scene.palette().query(), "ni hao");
    EXPECT_FALSE(scene.field().composing());
}

TEST_F(Palette, ACommittedTextReachesTheStateAndTheNextReturnRuns)
{
    compose(scene.field(), "al");
    EXPECT_EQ(scene.palette().query(), "") << "what is being composed is not yet typed";
    compose(scene.field(), {}, "Alpha");
    scene.turn();
    EXPECT_EQ(scene.palette().query(), "Alpha");
    press(scene.field(), Qt::Key_Return);
    scene.turn();
    EXPECT_THAT(scene.ran, ElementsAre("Alpha"));
}

TEST_F(Palette, EscapeDuringCompositionDropsItAndKeepsThePalette)
{
    compose(scene.field(), "ni");
    press(scene.field(), Qt::Key_Escape);
    scene.turn();
    EXPECT_TRUE(scene.controller->presented());
    EXPECT_FALSE(scene.field().composing());
    EXPECT_EQ(scene.field().text(), "");
}

TEST_F(Palette, ArrowsDuringCompositionBelongToTheInputMethod)
{
    compose(scene.field(), "ni");
    press(scene.field(), Qt::Key_Down);
    EXPECT_EQ(scene.palette().selection(), 0);
}

TEST_F(Palette, ALetterTypedWhileAButtonHasTheKeyboardGoesToTheField)
{
    press(scene.field(), Qt::Key_Backtab, Qt::ShiftModifier);
    ASSERT_FALSE(scene.field().hasFocus());
    type(*QApplication::focusWidget(), "x");
    EXPECT_EQ(scene.field().text(), "x");
    EXPECT_TRUE(scene.field().hasFocus());
}

TEST_F(Palette, AVeryLongTextIsInTheFieldInFull)
{
    const QString text = QString(100'000, 'x');
    QApplication::clipboard()->setText(text);
    press(scene.field(), Qt::Key_V, Qt::ControlModifier);
    EXPECT_EQ(scene.field().text().size(), text.size());
    EXPECT_EQ(scene.palette().query().size(), std::size_t(text.size()));
}

// Pages

TEST_F(Palette, PagesOfAListAreTurnedFromTheFieldAndStopAtItsEnds)
{
    Rows rows;
    for (int i = 0; i < 50; i++)
        rows.push_back(makeRow({.id = "row" + std::to_string(i), .title = "Row"}));
    scene.palette()._results = rows;
    scene.turn();
    const auto after = [&](Qt::Key key, Qt::KeyboardModifiers modifiers = {}) {
        press(scene.field(), key, modifiers);
        scene.turn();
        EXPECT_TRUE(list().viewport()->rect().contains(list().rowRect(list().selection())));
        return scene.palette().selection();
    };
    EXPECT_EQ(after(Qt::Key_PageUp), 0);
    const int page = after(Qt::Key_PageDown);
    EXPECT_GT(page, 3);
    EXPECT_EQ(after(Qt::Key_PageDown), 2 * page);
    EXPECT_EQ(after(Qt::Key_PageUp), page);
    EXPECT_EQ(after(Qt::Key_End, Qt::ControlModifier), 49);
    EXPECT_EQ(after(Qt::Key_PageDown), 49);
    EXPECT_EQ(after(Qt::Key_Home, Qt::ControlModifier), 0);
    EXPECT_TRUE(scene.field().hasFocus());
}

TEST_F(Palette, PagesOfTheActionsAreTurnedAsWell)
{
    std::vector<CommandAction> actions;
    for (int i = 0; i < 30; i++)
        actions.push_back({.id = "action" + std::to_string(i), .title = "Action"});
    scene.palette()._results = Rows{makeRow({.id = "row", .title = "Row", .actions = actions})};
    scene.palette().toggleActions();
    scene.turn();
    press(scene.field(), Qt::Key_PageDown);
    EXPECT_GT(scene.palette().actionSelection(), 3);
    press(scene.field(), Qt::Key_End, Qt::ControlModifier);
    EXPECT_EQ(scene.palette().actionSelection(), 29);
    EXPECT_EQ(scene.palette().selection(), 0);
}

TEST_F(Palette, PagesOfALongTextAreTurnedFromTheField)
{
    const auto turnsPagesOf = [&](const TextPane &pane) {
        const QScrollBar &bar = *pane.verticalScrollBar();
        press(scene.field(), Qt::Key_PageDown);
        EXPECT_EQ(bar.value(), bar.pageStep());
        press(scene.field(), Qt::Key_End, Qt::ControlModifier);
        EXPECT_EQ(bar.value(), bar.maximum());
        press(scene.field(), Qt::Key_Home, Qt::ControlModifier);
        EXPECT_EQ(bar.value(), 0);
        EXPECT_TRUE(scene.field().hasFocus());
    };
    std::string text;
    for (int i = 0; i < 200; i++)
        text += "A line.\n";
    scene.palette()._results = Rows{makeRow({.id = "clipboard:1", .title = "x", .previewText = text})};
    scene.palette()._showsPreview = true;
    scene.turn();
    turnsPagesOf(*scene.view().findChild<TextPane *>());

    scene.palette()._showsPreview = false;
    scene.palette()._mode = PaletteState::Mode::ai;
    scene.palette()._aiOutput = text;
    scene.turn();
    const auto panes = scene.view().findChildren<TextPane *>();
    ASSERT_EQ(panes.size(), 2);
    turnsPagesOf(panes[0]->isVisible() ? *panes[0] : *panes[1]);
}

TEST_F(Palette, PagesAreNotTurnedDuringComposition)
{
    compose(scene.field(), "ni");
    press(scene.field(), Qt::Key_PageDown);
    press(scene.field(), Qt::Key_End, Qt::ControlModifier);
    EXPECT_EQ(scene.palette().selection(), 0);
}

TEST_F(Palette, AnAnswerWithSpacesThatDoNotBreakStaysWhereItWasScrolledTo)
{
    std::string answer;
    for (int i = 0; i < 200; i++)
        answer += "12\u00A0kg\u2028and more\u2029\n";
    scene.palette()._mode = PaletteState::Mode::ai;
    scene.palette()._aiOutput = answer;
    scene.turn();
    auto *bar = scene.view().findChild<TextPane *>()->verticalScrollBar();
    bar->setValue(bar->maximum() / 2);
    const int before = bar->value();
    ASSERT_GT(before, 0);
    type(scene.field(), "x");
    scene.turn();
    EXPECT_EQ(bar->value(), before);
}

// Keys of the window

TEST_F(Palette, ControlAndADigitChooseTheCategory)
{
    press(scene.field(), Qt::Key_2, Qt::ControlModifier);
    EXPECT_EQ(scene.palette().category(), SearchCategory::applications);
    press(scene.field(), Qt::Key_5, Qt::ControlModifier);
    EXPECT_EQ(scene.palette().category(), SearchCategory::applications) << "there is no fifth";
    press(scene.field(), Qt::Key_1, Qt::ControlModifier);
    EXPECT_EQ(scene.palette().category(), SearchCategory::all);
}

TEST_F(Palette, ControlAndKOpensTheActionsAndTheFieldFiltersThem)
{
    press(scene.field(), Qt::Key_K, Qt::ControlModifier, "\x0b");
    scene.turn();
    EXPECT_TRUE(scene.palette().showsActions());
    EXPECT_EQ(scene.field().placeholderText(), "Search Actions…");
    type(scene.field(), "op");
    EXPECT_EQ(scene.palette().actionQuery(), "op");
    EXPECT_EQ(scene.palette().query(), "");
}

TEST_F(Palette, KeysOfTheModelAreNamedAsTheyArePrintedHere)
{
    EXPECT_EQ(keyNames("⌘ Y"), (QStringList{"Ctrl", "Y"}));
    EXPECT_EQ(keyNames("⌘ ⇧ C"), (QStringList{"Ctrl", "Shift", "C"}));
    EXPECT_EQ(keyNames("⌘1"), (QStringList{"Ctrl", "1"}));
    EXPECT_EQ(keyNames("⌘ ↵"), (QStringList{"Ctrl", "↵"}));
    EXPECT_EQ(keyNames("⌥ esc"), (QStringList{"Alt", "esc"}));
    EXPECT_EQ(keyNames(""), QStringList());
    EXPECT_EQ(keyHints("↵ Open · esc Back"), (QList<KeyHint>{{{"↵"}, "Open"}, {{"esc"}, "Back"}}));
}

// The list

TEST_F(Palette, AClickRunsTheRowUnderTheMouse)
{
    click(*list().viewport(), list().rowRect(1).center());
    scene.turn();
    EXPECT_THAT(scene.ran, ElementsAre("Beta"));
}

TEST_F(Palette, AClickOnASectionsHeadRunsNothing)
{
    click(*list().viewport(), list().rowRect(0).center() - QPoint(0, list().rowRect(0).height()));
    click(*list().viewport(), list().rowRect(2).topLeft() + QPoint(20, -10));
    scene.turn();
    EXPECT_THAT(scene.ran, ElementsAre());
}

TEST_F(Palette, AClickOnARowThatIsNoLongerThereRunsNothing)
{
    const QPoint beta = list().rowRect(1).center();
    scene.palette()._results = rowsOf({"test.gamma", "test.alpha"}); // not yet drawn
    click(*list().viewport(), beta);
    scene.turn();
    EXPECT_THAT(scene.ran, ElementsAre());
}

TEST_F(Palette, EveryPlaceOfARowBelongsToThatRow)
{
    for (int row = 0; row < 3; row++) {
        const QRect place = list().rowRect(row);
        EXPECT_EQ(list().rowAt(place.topLeft()), row);
        EXPECT_EQ(list().rowAt(place.bottomRight()), row);
    }
    EXPECT_EQ(list().rowAt(list().rowRect(2).bottomLeft() + QPoint(0, 1)), -1);
    EXPECT_EQ(list().rowAt(QPoint(1, 0)), -1);
}

TEST_F(Palette, TheSelectionIsAlwaysInView)
{
    Rows rows;
    for (int i = 0; i < 60; i++)
        rows.push_back(makeRow({.id = "test." + std::to_string(i), .title = "Row " + std::to_string(i)}));
    scene.palette()._results = rows;
    scene.turn();
    const auto inView = [&](int row) { return list().viewport()->rect().contains(list().rowRect(row).center()); };
    for (const int row : {59, 30, 0}) {
        scene.palette()._selection = row;
        scene.turn();
        EXPECT_TRUE(inView(row)) << row;
    }
    EXPECT_EQ(list().verticalScrollBar()->value(), 0) << "the first row brings its head along";
}

TEST_F(Palette, HoweverManyPropertiesChangeTheViewFollowsOnceATurn)
{
    PaintCounter paints(*list().viewport());
    const int before = scene.view().refreshes();
    scene.palette()._results = rowsOf({"test.beta", "test.alpha"});
    scene.palette()._selection = 1;
    scene.palette()._searchingFiles = true;
    scene.palette()._results = rowsOf({"test.gamma", "test.alpha", "test.beta"});
    scene.palette()._error = "The operation could not be completed. Please try again or check permissions.";
    QCoreApplication::sendPostedEvents();
    EXPECT_EQ(scene.view().refreshes(), before + 1);
    scene.turn();
    EXPECT_EQ(scene.view().refreshes(), before + 1);
    EXPECT_EQ(paints.paints, 1);
    EXPECT_EQ(list().count(), 3);
}

TEST_F(Palette, AnIdlePaletteDrawsNothing)
{
    PaintCounter paints(*list().viewport());
    scene.turn();
    EXPECT_EQ(paints.paints, 0);
}

// What stands in the middle and around it

TEST_F(Palette, AFailureShowsItsSentenceAndTheButtonsOfItsWaysOut)
{
    scene.palette()._error = "This file no longer exists. Refresh the search results.";
    scene.palette()._errorRecovery = {.refreshResults = true};
    scene.turn();
    QStringList buttons;
    for (const auto *button : scene.view().findChildren<FlatButton *>())
        if (button->isVisible() && button->style() == FlatButton::Style::Filled)
            buttons += button->text();
    EXPECT_EQ(buttons, QStringList{"Refresh Search"});

    scene.palette()._error = std::nullopt;
    scene.turn();
    for (const auto *label : scene.view().findChildren<QLabel *>())
        EXPECT_FALSE(label->isVisible() && label->text().startsWith("This file")) << "the area goes with the failure";
}

TEST_F(Palette, FilesThatAreStillSoughtLeaveTheRowsOnScreen)
{
    scene.palette()._searchingFiles = true;
    scene.turn();
    EXPECT_TRUE(list().isVisible());
    scene.palette()._results = Rows();
    scene.turn();
    EXPECT_FALSE(list().isVisible());
}

TEST_F(Palette, ALongTextIsShownUpToItsLimitAndSaysSo)
{
    const std::string longText(60'000, 'x');
    scene.palette()._results = Rows{makeRow({.id = "clipboard:1", .title = "x", .previewText = longText})};
    scene.palette()._showsPreview = true;
    scene.turn();
    auto *preview = scene.view().findChild<ResultPreviewView *>();
    ASSERT_NE(preview, nullptr);
    EXPECT_EQ(preview->shownPart().size(), 50'000);
    EXPECT_EQ(preview->statusLine(), "Showing the first 50,000 characters. Return copies the complete item.");
}

TEST(TextPart, TheLimitItselfIsStillComplete)
{
    for (const int count : {49'999, 50'000}) {
        const TextPart part = firstCharacters(QString(count, 'x'), ResultPreviewView::displayLimit);
        EXPECT_TRUE(part.complete);
        EXPECT_EQ(part.characters, count);
    }
    const TextPart over = firstCharacters(QString(50'001, 'x'), ResultPreviewView::displayLimit);
    EXPECT_FALSE(over.complete);
    EXPECT_EQ(over.text.size(), 50'000);
}

TEST(TextPart, ACharacterIsWhatAPersonCountsAsOne)
{
    const QString flags = QString::fromUtf8("🇩🇪🇫🇷e\u0301x");
    const TextPart part = firstCharacters(flags, 3);
    EXPECT_EQ(part.text, QString::fromUtf8("🇩🇪🇫🇷e\u0301"));
    EXPECT_FALSE(part.complete);
    EXPECT_EQ(firstCharacters(flags, 4).characters, 4);
    EXPECT_TRUE(firstCharacters(QString(), 4).complete);
}

// For screen readers

class Accessibility : public Palette {
protected:
    QAccessibleInterface *root() { return QAccessible::queryAccessibleInterface(scene.shownWindow().surface()); }
    QAccessibleInterface *results() { return accessible(root(), QAccessible::List, "Results"); }
};

TEST_F(Accessibility, TheFieldHasItsNameAndTheFocus)
{
    auto *field = accessible(root(), QAccessible::EditableText, "Search commands, apps or ask AI");
    ASSERT_NE(field, nullptr);
    EXPECT_TRUE(field->state().focused);
    ASSERT_NE(field->editableTextInterface(), nullptr);
    field->setText(QAccessible::Value, "files");
    EXPECT_EQ(scene.palette().query(), "files");
}

TEST_F(Accessibility, TheRowsAreTheItemsOfAListAndSectionHeadsAreNot)
{
    auto *items = results();
    ASSERT_NE(items, nullptr);
    ASSERT_EQ(items->childCount(), 3);
    Strings names;
    for (int i = 0; i < 3; i++) {
        QAccessibleInterface *item = items->child(i);
        EXPECT_EQ(item->role(), QAccessible::ListItem);
        EXPECT_EQ(items->indexOfChild(item), i) << "its position in the list";
        EXPECT_EQ(item->parent(), items);
        names.push_back(nameOf(item));
    }
    EXPECT_THAT(names, ElementsAre("Alpha, First letter", "Beta", "Gamma"));
    EXPECT_EQ(items->child(3), nullptr);
}

TEST_F(Accessibility, TheSelectedRowIsTheOneThatSaysSo)
{
    scene.palette()._selection = 1;
    scene.turn();
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(results()->child(i)->state().selectable);
        EXPECT_EQ(bool(results()->child(i)->state().selected), i == 1);
    }
    EXPECT_EQ(results()->focusChild(), results()->child(1));
}

TEST_F(Accessibility, ItemsOfRowsThatHaveGoneAreInvalidAndThoseThatStayFollowTheList)
{
    QAccessibleInterface *first = results()->child(0), *last = results()->child(2);
    scene.palette()._results = rowsOf({"test.gamma", "test.beta"});
    scene.turn();
    EXPECT_EQ(nameOf(first), "Gamma");
    EXPECT_FALSE(last->isValid());
    EXPECT_EQ(results()->childCount(), 2);
}

TEST_F(Accessibility, AnItemIsFoundAtItsPlaceOnTheScreen)
{
    QAccessibleInterface *beta = results()->child(1);
    const QPoint middle = beta->rect().center();
    EXPECT_EQ(results()->childAt(middle.x(), middle.y()), beta);
}

static std::vector<std::pair<QAccessible::Event, int>> heardEvents;

TEST_F(Accessibility, AReaderFollowsTheArrowsAndStaysWithTheFieldWhileTyping)
{
    if (qEnvironmentVariableIsEmpty("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"))
        GTEST_SKIP() << "this desktop has no accessibility bus";
    ASSERT_TRUE(scene.waitFor([] { return QAccessible::isActive(); }));
    heardEvents.clear();
    auto *before = QAccessible::installUpdateHandler([](QAccessibleEvent *event) {
        if (qobject_cast<RowList *>(event->object()))
            heardEvents.emplace_back(event->type(), event->child());
    });
    press(scene.field(), Qt::Key_Down);
    scene.turn();
    EXPECT_THAT(heardEvents, ElementsAre(std::pair(QAccessible::Selection, 1), std::pair(QAccessible::Focus, 1)));

    heardEvents.clear();
    scene.palette()._results = rowsOf({"test.gamma"});
    scene.palette()._selection = 0;
    scene.turn();
    EXPECT_THAT(heardEvents, ElementsAre(std::pair(QAccessible::ObjectReorder, -1), std::pair(QAccessible::Selection, 0)));
    QAccessible::installUpdateHandler(before);
}

TEST_F(Accessibility, TabsAndButtonsHaveRolesNamesAndStates)
{
    auto *files = accessible(root(), QAccessible::PageTab, "Files");
    ASSERT_NE(files, nullptr);
    EXPECT_FALSE(files->state().selected);
    files->actionInterface()->doAction(QAccessibleActionInterface::pressAction());
    scene.turn();
    EXPECT_EQ(scene.palette().category(), SearchCategory::files);
    EXPECT_TRUE(files->state().selected);
    EXPECT_NE(accessible(root(), QAccessible::PageTab, "Shortcuts"), nullptr);
    EXPECT_NE(accessible(root(), QAccessible::Button, "Actions"), nullptr);
}

// The window

TEST_F(Palette, TheWindowStandsWhereItsControllerWantsItOnEveryShow)
{
    for (int round = 0; round < 4; round++) {
        const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
        const ScreenRect wanted{
            area.x() + (area.width() - 700) / 2, area.y() + (area.height() - 510) / 2 - area.height() * 8 / 100, 700, 510};
        scene.wait(60ms);
        EXPECT_TRUE(scene.waitFor([&] { return scene.shownWindow().frame() == wanted; }))
            << "round " << round << ": " << scene.shownWindow().frame().x << "," << scene.shownWindow().frame().y;
        scene.controller->toggle();
        ASSERT_TRUE(scene.waitFor([&] { return !scene.shownWindow().visible(); }));
        scene.show();
    }
}

TEST_F(Palette, TheFirstPictureIsMadeBeforeTheServerHasAWindowForIt)
{
    scene.controller->toggle();
    ASSERT_TRUE(scene.waitFor([&] { return !scene.shownWindow().visible(); }));
    PaintCounter paints(*list().viewport());
    scene.controller->toggle();
    EXPECT_EQ(paints.paints, 1);
    EXPECT_FALSE(scene.shownWindow().surface()->windowHandle()->isExposed()) << "it is still to be placed";
    EXPECT_TRUE(scene.waitFor([&] { return scene.shownWindow().surface()->windowHandle()->isExposed(); }));
}

TEST_F(Palette, TheWindowIsTheSizeOfThePaletteOrHasRoomForItsShadow)
{
    const QWidget &surface = *scene.shownWindow().surface();
    const QSize size = surface.size();
    EXPECT_EQ(scene.shownWindow().frame().width, 700);
    EXPECT_EQ(scene.shownWindow().frame().height, 510);
    if (x11::compositorRuns()) {
        EXPECT_GT(size.width(), 700);
        EXPECT_TRUE(surface.windowHandle()->mask().isEmpty());
    } else {
        EXPECT_EQ(size, QSize(700, 510));
        EXPECT_FALSE(surface.windowHandle()->mask().contains(QPoint(0, 0))) << "a corner that would be black";
        EXPECT_TRUE(surface.windowHandle()->mask().contains(QPoint(350, 0)));
    }
}

TEST_F(Palette, AnotherWindowThatTakesTheKeyboardHidesThePalette)
{
    scene.wait(600ms); // a palette that has only just come takes the keyboard back from a window manager that tidies up
    QWidget other;
    other.setWindowTitle("Another");
    other.resize(200, 100);
    other.show();
    other.activateWindow();
    x11::activate(other, x11::serverTime());
    EXPECT_TRUE(scene.waitFor([&] { return !scene.controller->presented(); }))
        << "the server's keyboard " << int(x11::keyboardOf(*scene.shownWindow().surface())) << ", palette active "
        << scene.shownWindow().hasKeyboard() << ", other active " << other.isActiveWindow();
}

TEST_F(Palette, AWindowOfTheProgramThatComesWhileAFreshPaletteGoesKeepsTheKeyboard)
{
    QWidget settings;
    settings.resize(300, 200);
    int losses = 0;
    const auto count = [&] { losses += QApplication::activeWindow() != &settings; };
    scene.controller->hide();
    x11::showInFront(settings);
    ASSERT_TRUE(scene.waitFor([&] { return settings.isActiveWindow(); }));
    const auto watch = QObject::connect(qApp, &QGuiApplication::focusWindowChanged, count);
    ASSERT_TRUE(scene.waitFor([&] { return !scene.shownWindow().visible(); }));
    for (int i = 0; i < 50; i++) {
        scene.turn();
        scene.wait(10ms);
    }
    QObject::disconnect(watch);
    EXPECT_TRUE(settings.isActiveWindow());
    EXPECT_EQ(losses, 0);
}

TEST_F(Palette, AnAlertStandsOverThePaletteWhichStays)
{
    QtDialogs dialogs(scene.appearance);
    dialogs.palette = [&] { return scene.shownWindow().surface(); };
    Begun<bool> asked(scene.loop, dialogs.confirm("Empty Trash", "This operation cannot be undone."));
    ASSERT_TRUE(scene.waitFor([&] { return scene.shownWindow().hasSheet() && QApplication::activeModalWidget(); }));
    ASSERT_TRUE(scene.waitFor([&] { return qobject_cast<QDialog *>(QApplication::activeWindow()) != nullptr; }));
    EXPECT_TRUE(scene.controller->presented());

    scene.controller->toggle();
    EXPECT_TRUE(scene.controller->presented()) << "the key that opens the palette only brings the alert forward";

    press(*QApplication::focusWidget(), Qt::Key_Return);
    ASSERT_TRUE(scene.waitFor([&] { return asked.done(); }));
    EXPECT_FALSE(asked.result()) << "Return takes the default, which is Cancel";
    EXPECT_TRUE(scene.waitFor([&] { return !scene.shownWindow().hasSheet(); }));
}

TEST_F(Palette, AnAlertIsAllowedByItsSecondButtonAndRefusedByEscape)
{
    QtDialogs dialogs(scene.appearance);
    dialogs.palette = [&] { return scene.shownWindow().surface(); };
    for (const bool allow : {true, false}) {
        Begun<bool> asked(scene.loop, dialogs.confirm("<b>Title</b>", "Detail"));
        ASSERT_TRUE(scene.waitFor([&] { return scene.shownWindow().hasSheet(); }));
        auto *dialog = scene.shownWindow().surface()->findChild<QDialog *>();
        const auto buttons = dialog->findChildren<QPushButton *>();
        ASSERT_EQ(buttons.size(), 2);
        EXPECT_EQ(buttons[0]->text(), "Cancel");
        EXPECT_TRUE(buttons[0]->isDefault());
        EXPECT_EQ(buttons[1]->text(), "Allow");
        for (const auto *label : dialog->findChildren<QLabel *>())
            EXPECT_TRUE(label->text().isEmpty() || label->textFormat() == Qt::PlainText) << "what a model sends is never markup";
        if (allow)
            buttons[1]->click();
        else
            press(*dialog, Qt::Key_Escape);
        ASSERT_TRUE(scene.waitFor([&] { return asked.done(); }));
        EXPECT_EQ(asked.result(), allow);
        scene.turn();
        delete dialog;
    }
}

TEST_F(Palette, AnAlertShowsAllThatAModelSendsAndStaysOnTheScreen)
{
    QtDialogs dialogs(scene.appearance);
    dialogs.palette = [&] { return scene.shownWindow().surface(); };
    std::string spaced, chinese;
    for (int i = 0; i < 200; i++)
        spaced += "1234567 ";
    for (int i = 0; i < 1600; i++)
        chinese += "港";
    for (const std::string &detail : {spaced, std::string(1600, 'x'), chinese, std::string(1600, '\n')}) {
        Begun<bool> asked(scene.loop, dialogs.confirm("AI wants to run " + std::string(200, 'm'), detail));
        ASSERT_TRUE(scene.waitFor([&] { return scene.shownWindow().hasSheet(); }));
        auto *dialog = scene.shownWindow().surface()->findChild<QDialog *>();
        const QRect screen = dialog->screen()->availableGeometry();
        EXPECT_LE(dialog->height(), screen.height());
        EXPECT_LE(dialog->width(), screen.width());
        auto *pane = dialog->findChild<TextPane *>();
        ASSERT_TRUE(pane);
        EXPECT_EQ(pane->toPlainText().toStdString(), detail);
        EXPECT_LE(pane->horizontalScrollBar()->maximum(), 3) << "less than a letter: no word is cut off";
        if (detail == spaced || detail.front() == 'x')
            EXPECT_EQ(pane->verticalScrollBar()->maximum(), 0) << "and nothing has to be scrolled for";
        const auto *bar = pane->verticalScrollBar();
        // The dialog has the keyboard a moment after it has come.
        ASSERT_TRUE(
            scene.waitFor([&] { return QApplication::focusWidget() && QApplication::focusWidget()->window() == dialog; }));
        press(*QApplication::focusWidget(), Qt::Key_PageDown);
        EXPECT_TRUE(bar->maximum() == 0 || bar->value() > 0) << bar->value() << " of " << bar->maximum();
        asked.cancel();
        ASSERT_TRUE(scene.waitFor([&] { return asked.done(); }));
        scene.turn();
        delete dialog;
    }
}

TEST_F(Palette, AnAlertCannotBeWrittenBackwardsByWhatAModelSends)
{
    QtDialogs dialogs(scene.appearance);
    dialogs.palette = [&] { return scene.shownWindow().surface(); };
    Begun<bool> asked(scene.loop, dialogs.confirm("run \u202Etxt", "<b>a</b>\u2066\x1b"));
    ASSERT_TRUE(scene.waitFor([&] { return scene.shownWindow().hasSheet(); }));
    auto *dialog = scene.shownWindow().surface()->findChild<QDialog *>();
    EXPECT_EQ(dialog->windowTitle(), "run \uFFFDtxt");
    EXPECT_EQ(dialog->findChild<TextPane *>()->toPlainText(), "<b>a</b>\uFFFD\uFFFD");
    asked.cancel();
    ASSERT_TRUE(scene.waitFor([&] { return asked.done(); }));
}

TEST_F(Palette, AnAlertGoesWithTheTaskThatAsked)
{
    QtDialogs dialogs(scene.appearance);
    dialogs.palette = [&] { return scene.shownWindow().surface(); };
    Begun<bool> asked(scene.loop, dialogs.confirm("Title", "Detail"));
    ASSERT_TRUE(scene.waitFor([&] { return scene.shownWindow().hasSheet(); }));
    asked.cancel();
    ASSERT_TRUE(scene.waitFor([&] { return asked.done(); }));
    EXPECT_THROW(asked.result(), Cancelled);
    EXPECT_FALSE(scene.shownWindow().hasSheet());
}

TEST_F(Palette, HidingFadesAndThenTakesTheWindowAway)
{
    scene.controller->hide();
    EXPECT_TRUE(scene.shownWindow().visible()) << "the fade's end is never inside the call";
    EXPECT_TRUE(scene.waitFor([&] { return !scene.shownWindow().visible(); }));
}

TEST_F(Palette, ShowingAgainDuringTheFadeKeepsTheWindow)
{
    scene.controller->hide();
    scene.controller->toggle();
    for (int i = 0; i < 20; i++)
        scene.turn();
    EXPECT_TRUE(scene.controller->presented());
    EXPECT_TRUE(scene.shownWindow().visible());
}

// Icons

TEST(PaletteWindow, WhatIsTypedBeforeTheFieldIsMadeGoesIntoIt)
{
    Scene scene;
    scene.controller->toggle(); // the ground is up; the views come at the next turn
    for (const char letter : {'a', 'b'}) {
        QKeyEvent press(QEvent::KeyPress, Qt::Key_A, Qt::NoModifier, QString(QLatin1Char(letter)));
        // As the toolkit does: to what has the focus in the window, to the window itself without that.
        QWidget *const surface = scene.shownWindow().surface();
        QApplication::sendEvent(surface->focusWidget() ? surface->focusWidget() : surface, &press);
    }
    EXPECT_EQ(scene.palette().query(), "ab");
    scene.turn();
    EXPECT_EQ(scene.field().text(), "ab");
}

TEST(IconFinder, TheIconOfAnEntryIsThatOfItsMainGroup)
{
    const struct {
        const char *why, *entry, *icon;
    } cases[] = {
        {"the plain case", "[Desktop Entry]\nName=A\nIcon=firefox\n", "firefox"},
        {"blanks around the sign", "[Desktop Entry]\nIcon = a b \n", "a b"},
        {"an action's icon is not the application's", "[Desktop Action x]\nIcon=wrong\n[Desktop Entry]\nIcon=right\n", "right"},
        {"a translated icon is another key", "[Desktop Entry]\nIcon[de]=falsch\nIconX=no\n", ""},
        {"an escaped blank", "[Desktop Entry]\nIcon=/opt/a\\sb.png\n", "/opt/a b.png"},
        {"lines of another system", "[Desktop Entry]\r\nIcon=dos\r\n", "dos"},
        {"nothing at all", "", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(IconFinder::iconNameIn(c.entry).toStdString(), c.icon);
    }
}

/// Asks until the icon is there.
static IconStore::Look loaded(MainLoop &loop, IconStore &store, const std::string &path, QPixmap &icon)
{
    for (;;) {
        const auto look = store.file(path, 24, 2, icon);
        if (look != IconStore::Look::Loading)
            return look;
        loop.runUntil([&] { return !store.loading(); });
    }
}

static void writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(bytes);
}

TEST(IconStore, AnIconIsDrawnAtTheResolutionOfTheScreenAndKept)
{
    MainLoop loop;
    ThreadPool pool(2);
    QTemporaryDir folder;
    const QString picture = folder.filePath("own.svg");
    writeFile(picture,
        "<svg xmlns='http://www.w3.org/2000/svg' viewBox='0 0 10 10'><rect width='10' height='10' fill='#ff0000'/></svg>");
    writeFile(folder.filePath("a.desktop"), "[Desktop Entry]\nIcon=" + picture.toUtf8() + "\n");

    const auto store = std::make_shared<IconStore>(loop.executor(), pool.executor());
    const std::string path = folder.filePath("a.desktop").toStdString();
    QPixmap icon;
    EXPECT_EQ(store->file(path, 24, 2, icon), IconStore::Look::Loading) << "the main thread reads no file";
    ASSERT_EQ(loaded(loop, *store, path, icon), IconStore::Look::Ready);
    EXPECT_EQ(icon.size(), QSize(48, 48));
    EXPECT_EQ(icon.devicePixelRatio(), 2);
    EXPECT_EQ(icon.toImage().pixelColor(24, 24), QColor(Qt::red));
    EXPECT_EQ(store->file(path, 24, 2, icon), IconStore::Look::Ready) << "at once from now on";
    loop.shutDown();
    pool.join();
}

TEST(IconStore, ABrokenPictureIsNoIconAndIsNotReadAgain)
{
    MainLoop loop;
    ThreadPool pool(1);
    QTemporaryDir folder;
    writeFile(folder.filePath("broken.png"), "this is no picture");
    writeFile(folder.filePath("b.desktop"), "[Desktop Entry]\nIcon=" + folder.filePath("broken.png").toUtf8() + "\n");
    const auto store = std::make_shared<IconStore>(loop.executor(), pool.executor());
    QPixmap icon;
    EXPECT_EQ(loaded(loop, *store, folder.filePath("b.desktop").toStdString(), icon), IconStore::Look::Nothing);
    EXPECT_FALSE(store->loading());
    loop.shutDown();
    pool.join();
}

TEST(IconStore, AnUnknownSymbolStillGivesAPicture)
{
    MainLoop loop;
    const auto store = std::make_shared<IconStore>(loop.executor(), loop.executor());
    EXPECT_FALSE(store->symbol("no.such.symbol", 16, 1, Qt::black).isNull());
    EXPECT_FALSE(store->symbol("", 16, 1, Qt::black).isNull());
}

TEST(IconStore, ASymbolHasTheColourThatWasAskedFor)
{
    MainLoop loop;
    const auto store = std::make_shared<IconStore>(loop.executor(), loop.executor());
    const QImage image = store->symbol("square.grid.3x3.fill", 24, 1, QColor(0, 128, 255)).toImage();
    const QColor inside = image.pixelColor(6, 6);
    EXPECT_NEAR(inside.red(), 0, 2);
    EXPECT_NEAR(inside.green(), 128, 2);
    EXPECT_NEAR(inside.blue(), 255, 2);
    EXPECT_EQ(image.pixelColor(0, 0).alpha(), 0);
}

// The other adapters

static void processEventsUntil(const std::function<bool()> &done)
{
    for (int i = 0; i < 2500 && !done(); i++) {
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(2ms);
    }
}

TEST(QtMainLoopThreads, WorkFromAnyThreadRunsOnTheMainThreadInOrder)
{
    QtMainLoop main;
    std::vector<int> order;
    const auto mainThread = std::this_thread::get_id();
    bool right = true;
    std::thread other([executor = main.executor(), &order, &right, mainThread] {
        for (int i = 0; i < 1000; i++)
            runLater(executor, [i, &order, &right, mainThread] {
                order.push_back(i);
                right = right && std::this_thread::get_id() == mainThread;
            });
    });
    processEventsUntil([&] { return order.size() == 1000; });
    other.join();
    ASSERT_EQ(order.size(), 1000u);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    EXPECT_TRUE(right);
}

TEST(QtMainLoop, ANestedEventLoopGetsTheRest)
{
    QtMainLoop main;
    Strings log;
    runLater(main.executor(), [&] {
        log.push_back("outer begins");
        processEventsUntil([&] { return log.size() > 1; });
        log.push_back("outer ends");
    });
    runLater(main.executor(), [&] { log.push_back("inner"); });
    processEventsUntil([&] { return log.size() == 3; });
    EXPECT_THAT(log, ElementsAre("outer begins", "inner", "outer ends"));
}

TEST(QtMainLoop, WorkThatComesAfterTheEndIsDropped)
{
    std::optional<Executor> executor;
    bool ran = false;
    {
        QtMainLoop main;
        executor = main.executor();
        runLater(*executor, [&] { ran = true; });
    }
    runLater(*executor, [&] { ran = true; });
    QCoreApplication::processEvents();
    EXPECT_FALSE(ran);
}

TEST(QtPasteboard, TheTextIsOnTheClipboardAndOurs)
{
    MainLoop loop;
    QtPasteboard pasteboard;
    EXPECT_TRUE(await(loop, pasteboard.setText("42 · 剪贴板")));
    EXPECT_EQ(QGuiApplication::clipboard()->text().toStdString(), "42 · 剪贴板");
}

TEST(ActivationListener, HearsTheSignalOfASecondLaunch)
{
    ActivationListener listener;
    int heard = 0;
    listener.observe([&] { heard++; });
    QDBusConnection other = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "other");
    ASSERT_TRUE(other.isConnected());
    const auto post = [&](const char *member) { other.send(QDBusMessage::createSignal("/dev/korvane", "dev.korvane", member)); };
    post("deactivate");
    post("activate");
    processEventsUntil([&] { return heard > 0; });
    EXPECT_EQ(heard, 1);
    QDBusConnection::disconnectFromBus("other");
}

/// The part of a desktop that collects tray icons. Lives in a thread of its own, as it does in another process.
class TrayWatcher : public QObject, protected QDBusContext {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
    Q_PROPERTY(bool IsStatusNotifierHostRegistered READ hasHost)
    Q_PROPERTY(int ProtocolVersion READ version)
    Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ registered)

public:
    bool hasHost() const { return true; }
    int version() const { return 0; }
    QStringList registered() const
    {
        const std::scoped_lock lock(mutex);
        return items;
    }

public Q_SLOTS:
    void RegisterStatusNotifierItem(const QString &item)
    {
        {
            const std::scoped_lock lock(mutex);
            items += item;
        }
        Q_EMIT StatusNotifierItemRegistered(item);
    }
    void RegisterStatusNotifierHost(const QString &) { }

Q_SIGNALS:
    void StatusNotifierItemRegistered(const QString &item);
    void StatusNotifierHostRegistered();

private:
    mutable std::mutex mutex;
    QStringList items;
};

/// A tray that starts, and ends with this object.
struct TrayThread {
    TrayThread()
    {
        EXPECT_TRUE(bus.registerObject("/StatusNotifierWatcher", watcher, QDBusConnection::ExportAllContents));
        watcher->moveToThread(&thread);
        // What the bus has attached to the watcher can only be taken apart where it lives.
        QObject::connect(&thread, &QThread::finished, watcher, &QObject::deleteLater);
        thread.start();
        EXPECT_TRUE(bus.registerService("org.kde.StatusNotifierWatcher"));
    }
    ~TrayThread()
    {
        bus.unregisterService("org.kde.StatusNotifierWatcher");
        thread.quit();
        thread.wait();
        QDBusConnection::disconnectFromBus("tray");
    }

    TrayWatcher *watcher = new TrayWatcher;
    QThread thread;
    QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "tray");
};

TEST(TrayStatusItem, AppearsInATrayThatStartsLaterAndAClickDoesTheFirstEntry)
{
    TrayStatusItem item;
    int opened = 0;
    item.show(
        "square.grid.3x3.fill", "Korvane", {{"Open Korvane", "", [&] { opened++; }}, {"", "", {}}, {"Quit Korvane", "q", [] {}}});
    QCoreApplication::processEvents();

    TrayThread tray;
    processEventsUntil([&] { return !tray.watcher->registered().isEmpty(); });
    ASSERT_EQ(tray.watcher->registered().size(), 1);

    QDBusMessage click = QDBusMessage::createMethodCall(
        tray.watcher->registered().front(), "/StatusNotifierItem", "org.kde.StatusNotifierItem", "Activate");
    click.setArguments({1, 1});
    tray.bus.asyncCall(click);
    processEventsUntil([&] { return opened > 0; });
    EXPECT_EQ(opened, 1);
}

} // namespace korvane::test

#include "WindowTest.moc"
