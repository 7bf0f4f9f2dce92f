// Keys as a keyboard sends them, under several layouts, and what the keyboard alone can reach.
#include "tests/desktop/Person.h"
#include "tests/desktop/Scene.h"

#include "Vorrel/Platform/Linux/X11Hotkeys.h"
#include "Vorrel/Views/KeyEvents.h"
#include "Vorrel/Views/PaletteInput.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QApplication>
#include <QClipboard>
#include <QKeyEvent>
#include <QProcess>

namespace korvane::test {

using testing::Contains;
using testing::ElementsAre;

namespace {

// Codes of keys, named as on a US keyboard
constexpr std::uint8_t key1 = 2, key2 = 3, key3 = 4, key4 = 5, key5 = 6, keyC = 46, keyK = 37, keyY = 21, keyReturn = 28,
                       keyTab = 15, keyA = 30, keyRight = 106;

void setLayout(const QStringList &arguments) { EXPECT_EQ(QProcess::execute("setxkbmap", arguments), 0); }

/// A palette with one row that has actions for all keys.
class Keyboard : public testing::Test {
protected:
    Keyboard()
    {
        CommandResultFields row{.id = "test.row", .title = "Row", .previewText = "A text to look at"};
        const auto action = [this](const char *id, std::optional<ActionKey> key) {
            CommandAction made{.id = id, .title = id, .key = key};
            made.dismissal = ActionDismissal::keepOpen;
            made.execute = [this, id]() -> Task<void> {
                scene.ran.push_back(id);
                return []() -> Task<void> { co_return; }();
            };
            return made;
        };
        row.actions = {action("open", {}), action("reveal", ActionKey::reveal), action("path", ActionKey::copyPath)};
        scene.add(row);
        person.moveMouse({40, 900});
        scene.show();
        scene.palette().setInputText("row");
        scene.turn();
    }
    ~Keyboard() override { setLayout({"-layout", "us", "-option", ""}); }

    bool soon(const std::function<bool()> &truth) { return scene.waitFor(truth); }
    /// One step with Shift and Tab; what has the keyboard then.
    QWidget *stepBack()
    {
        QWidget *const before = QApplication::focusWidget();
        person.key(keyTab, {Person::shift});
        EXPECT_TRUE(soon([&] { return QApplication::focusWidget() != before; }));
        return QApplication::focusWidget();
    }
    bool reach(const QWidget &wanted)
    {
        for (int i = 0; i < 20; i++)
            if (stepBack() == &wanted)
                return true;
        return false;
    }
    /// The names of all that is reached from the field until it is reached again.
    Strings walkBackwards()
    {
        Strings names;
        for (QWidget *now = stepBack(); now != &scene.field() && names.size() < 20; now = stepBack()) {
            auto *button = qobject_cast<QAbstractButton *>(now);
            names.push_back((button && now->accessibleName().isEmpty() ? button->text() : now->accessibleName()).toStdString());
        }
        EXPECT_TRUE(scene.field().hasFocus());
        return names;
    }

    Person person;
    Scene scene;
};

struct Layout {
    const char *why;
    QStringList arguments;
    bool secondGroup = false; ///< Switched to the second layout by the key that says so.
};

const std::vector<Layout> layouts{
    {"a plain keyboard", {"-layout", "us", "-option", ""}},
    {"Russian beside a Latin layout, Russian active", {"-layout", "us,ru", "-option", "", "-option", "grp:menu_toggle"}, true},
    {"Russian as the first of two", {"-layout", "ru,us", "-option", ""}},
    {"Russian alone", {"-layout", "ru", "-option", ""}},
    {"Greek alone", {"-layout", "gr", "-option", ""}},
    {"Arabic alone", {"-layout", "ara", "-option", ""}},
    {"German, whose Y and Z have changed places", {"-layout", "de", "-option", ""}},
    {"French, whose digits need Shift", {"-layout", "fr", "-option", ""}},
    {"French as the active second layout", {"-layout", "us,fr", "-option", "", "-option", "grp:menu_toggle"}, true},
};

} // namespace

TEST_F(Keyboard, ShortcutsWorkUnderEveryLayout)
{
    for (const Layout &layout : layouts) {
        SCOPED_TRACE(layout.why);
        setLayout(layout.arguments);
        if (layout.secondGroup)
            person.key(Person::menu);
        const bool german = layout.arguments.contains("de");

        person.key(keyK, {Person::control});
        EXPECT_TRUE(soon([&] { return scene.palette().showsActions(); })) << "Ctrl+K";
        person.key(keyK, {Person::control});
        EXPECT_TRUE(soon([&] { return !scene.palette().showsActions(); })) << "Ctrl+K again";
        constexpr std::uint8_t keyOfGermanY = 44;
        person.key(german ? keyOfGermanY : keyY, {Person::control});
        EXPECT_TRUE(soon([&] { return scene.palette().showsPreview(); })) << "Ctrl+Y";
        person.key(german ? keyOfGermanY : keyY, {Person::control});
        EXPECT_TRUE(soon([&] { return !scene.palette().showsPreview(); })) << "Ctrl+Y again";

        scene.ran.clear();
        person.key(keyC, {Person::control, Person::shift});
        EXPECT_TRUE(soon([&] { return scene.ran == Strings{"path"}; })) << "Ctrl+Shift+C";
        person.key(keyReturn, {Person::control});
        EXPECT_TRUE(soon([&] { return scene.ran == Strings{"path", "reveal"}; })) << "Ctrl+Return";

        const std::pair<std::uint8_t, SearchCategory> tabs[] = {{key2, allSearchCategories[1]}, {key3, allSearchCategories[2]},
            {key4, allSearchCategories[3]}, {key1, allSearchCategories[0]}};
        for (const auto &[key, category] : tabs) {
            person.key(key, {Person::control});
            EXPECT_TRUE(soon([&, wanted = category] { return scene.palette().category() == wanted; }))
                << "Ctrl and the digit at " << int(key);
        }
        EXPECT_EQ(scene.field().text(), "row") << "a shortcut leaves the text alone";
    }
}

TEST_F(Keyboard, AFrenchDigitMayAlsoBeTypedWithItsShift)
{
    setLayout({"-layout", "fr", "-option", ""});
    person.key(key2, {Person::control, Person::shift});
    EXPECT_TRUE(soon([&] { return scene.palette().category() == SearchCategory::applications; }));
}

TEST_F(Keyboard, ACombinationWithShiftIsTheKeyThatWasPressedAndIsGrabbedAsThatKey)
{
    const struct {
        const char *why;
        Layout layout;
        std::uint8_t place;
        std::uint32_t keyCode;
        const char *label;
    } cases[] = {
        {"German Shift+7, a slash", {"", {"-layout", "de", "-option", ""}}, 8, 26, "7"},
        {"French Shift and comma, a question mark", {"", {"-layout", "fr", "-option", ""}}, 50, 43, ","},
        {"German minus in the active second layout",
            {"", {"-layout", "us,de", "-option", "", "-option", "grp:menu_toggle"}, true}, 53, 27, "-"},
        {"a letter", {"", {"-layout", "fr", "-option", ""}}, 16, 0, "A"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        setLayout(c.layout.arguments);
        if (c.layout.secondGroup)
            person.key(Person::menu);
        std::optional<HotkeyConfiguration> recorded;
        const KeyDownFilter filter([&](const HotkeyConfiguration &key, bool) {
            if (key.modifiers)
                recorded = key;
            return true;
        });
        person.key(c.place, {Person::control, Person::shift});
        ASSERT_TRUE(soon([&] { return recorded.has_value(); }));
        constexpr std::uint32_t modifiers = HotkeyConfiguration::control | HotkeyConfiguration::shift;
        EXPECT_EQ(*recorded, (HotkeyConfiguration{c.keyCode, modifiers, c.label}));

        X11Hotkeys hotkeys(scene.loop.executor(), scene.clock, qgetenv("DISPLAY").toStdString());
        int pressed = 0;
        ASSERT_TRUE(hotkeys.install(
            {.pressed = [&] { ++pressed; }, .lost = [](const HotkeyConfiguration &, const HotkeyRegistrationError &) {}}));
        const HotkeyLease lease = hotkeys.reserve(*recorded);
        person.key(c.place, {Person::control, Person::shift});
        EXPECT_TRUE(soon([&] { return pressed == 1; })) << "the registered key is another one";
        hotkeys.remove();
    }
}

TEST_F(Keyboard, WhatIsNoShortcutGoesToTheField)
{
    person.key(key5, {Person::control});
    person.key(key1, {Person::control, Person::shift}); // an exclamation mark, and no digit
    person.key(keyA, {Person::control}); // everything is selected, so that the next key replaces it
    person.key(keyK);
    EXPECT_TRUE(soon([&] { return scene.field().text() == "k"; })) << scene.field().text().toStdString();
    EXPECT_EQ(scene.palette().category(), SearchCategory::all);
    EXPECT_FALSE(scene.palette().showsActions());
}

TEST_F(Keyboard, AKeyPressedInAnotherWindowOfTheProgramIsLeftAlone)
{
    QWidget other;
    for (const auto &[key, modifiers] : {std::pair(Qt::Key_K, Qt::ControlModifier), std::pair(Qt::Key_Escape, Qt::NoModifier)}) {
        QKeyEvent press(QEvent::KeyPress, key, modifiers);
        QCoreApplication::sendEvent(&other, &press);
    }
    EXPECT_FALSE(scene.palette().showsActions());
    EXPECT_TRUE(scene.controller->presented());
}

TEST_F(Keyboard, TabAndShiftTabReachEveryTabAndButtonAndComeBackToTheField)
{
    const Strings backwards = walkBackwards();
    for (const char *name : {"All", "Applications", "Files", "Shortcuts", "Actions", "Preview"})
        EXPECT_THAT(backwards, Contains(name));
    EXPECT_LT(std::ranges::find(backwards, "Actions"), std::ranges::find(backwards, "Shortcuts")) << "from the bottom upwards";
    EXPECT_LT(std::ranges::find(backwards, "Shortcuts"), std::ranges::find(backwards, "All"));

    // From a button on, Tab goes the other way round.
    person.key(keyTab, {Person::shift});
    ASSERT_TRUE(soon([&] { return !scene.field().hasFocus(); }));
    person.key(keyTab);
    EXPECT_TRUE(soon([&] { return scene.field().hasFocus(); }));
}

TEST_F(Keyboard, TabAndShiftTabReachALongTextBetweenWhatIsAboveAndBelow)
{
    scene.palette().togglePreview();
    scene.turn();
    const Strings backwards = walkBackwards();
    const auto place = [&](const char *name) { return std::ranges::find(backwards, name); };
    EXPECT_THAT(backwards, Contains("Text Preview"));
    EXPECT_LT(place("Actions"), place("Text Preview"));
    EXPECT_LT(place("Text Preview"), place("Shortcuts"));
    EXPECT_THAT(backwards, Contains("Close"));
}

TEST_F(Keyboard, APartOfALongTextIsSelectedAndCopiedByKeysAlone)
{
    scene.palette().togglePreview();
    scene.turn();
    auto *pane = scene.view().findChild<TextPane *>();
    ASSERT_TRUE(reach(*pane));
    person.key(keyRight);
    for (int i = 0; i < 5; i++)
        person.key(keyRight, {Person::shift});
    EXPECT_TRUE(soon([&] { return pane->textCursor().selectedText() == " text"; }));
    person.key(keyC, {Person::control});
    EXPECT_TRUE(soon([&] { return QApplication::clipboard()->text() == " text"; }));
    person.key(keyK);
    EXPECT_TRUE(soon([&] { return scene.field().hasFocus(); })) << "a letter is meant for the field";
}

TEST_F(Keyboard, SpaceAndReturnPressTheButtonThatHasTheKeyboard)
{
    person.key(keyTab, {Person::shift});
    ASSERT_TRUE(soon([&] { return !scene.field().hasFocus(); }));
    auto *button = qobject_cast<QAbstractButton *>(QApplication::focusWidget());
    ASSERT_NE(button, nullptr);
    int clicks = 0;
    QObject::connect(button, &QAbstractButton::clicked, [&] { clicks++; });
    constexpr std::uint8_t keySpace = 57;
    person.key(keySpace);
    EXPECT_TRUE(soon([&] { return clicks == 1; }));
    button->setFocus();
    person.key(keyReturn);
    EXPECT_TRUE(soon([&] { return clicks == 2; }));
}

} // namespace korvane::test
