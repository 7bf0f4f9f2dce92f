// The settings window and its recorder of the global shortcut, on a real X server.
#include "tests/desktop/Gestures.h"
#include "tests/desktop/Scene.h"

#include "Vorrel/Views/HotkeyRecorder.h"
#include "Vorrel/Views/HotkeySettingsSection.h"
#include "Vorrel/Views/KeyEvents.h"
#include "Vorrel/Views/QtSettingsWindow.h"
#include "Vorrel/Views/X11Window.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QAccessible>
#include <QApplication>
#include <QScreen>
#include <QWindow>

namespace korvane::test {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr HotkeyConfiguration altSpace;
constexpr HotkeyConfiguration superSpace{.keyCode = HotkeyConfiguration::spaceKey, .modifiers = HotkeyConfiguration::command};

class Settings : public testing::Test {
protected:
    Settings()
    {
        settings().recordingHotkeyChanged = [this](bool recording) { told.push_back(recording); };
        settings().updateHotkey = [this](HotkeyConfiguration configuration) { registered.push_back(configuration); };
        show();
    }

    void show()
    {
        window.showCentred();
        EXPECT_TRUE(scene.waitFor([&] { return window.surface()->isActiveWindow(); }));
        scene.turn();
    }
    SettingsState &settings() { return scene.services->preferences(); }
    HotkeyRecorder &recorder() { return window.hotkeySection().recorder(); }
    std::string title() { return recorder().text().toStdString(); }
    Strings labels()
    {
        scene.turn();
        Strings all;
        for (const auto *label : window.surface()->findChildren<QLabel *>())
            if (label->isVisible() && !label->text().isEmpty())
                all.push_back(label->text().toStdString());
        return all;
    }
    FlatButton &button(const QString &text)
    {
        for (auto *one : window.surface()->findChildren<FlatButton *>())
            if (one->isVisible() && one->text() == text)
                return *one;
        throw std::runtime_error("no button " + text.toStdString());
    }
    void pressK(Qt::KeyboardModifiers modifiers) { pressNative(recorder(), Qt::Key_K, modifiers, 'k', 37 + 8, "k"); }

    Scene scene;
    QtSettingsWindow window{scene.services->preferences(), scene.platform(), scene.appearance, *scene.icons};
    std::vector<bool> told; ///< Of recordings that began and ended.
    std::vector<HotkeyConfiguration> registered;
};

} // namespace

// The window

TEST_F(Settings, StandInTheMiddleOfTheScreenAtEveryShowing)
{
    EXPECT_EQ(window.surface()->windowTitle(), "Korvane Settings");
    EXPECT_EQ(window.surface()->size(), QSize(650, 540));
    for (int round = 0; round < 3; round++) {
        const QPoint middle = QGuiApplication::primaryScreen()->availableGeometry().center();
        const auto centred = [&] {
            const QPoint away = window.surface()->frameGeometry().center() - middle;
            return away.manhattanLength() <= 40; // the frame of the first showing is not known beforehand
        };
        EXPECT_TRUE(scene.waitFor(centred)) << "round " << round;
        window.surface()->move(10, 10);
        ASSERT_TRUE(scene.waitFor([&] { return !centred(); }));
        show();
    }
}

TEST_F(Settings, ClosingOnlyHidesThem)
{
    window.surface()->close();
    EXPECT_FALSE(window.surface()->isVisible());
    show();
    EXPECT_TRUE(window.surface()->isVisible());
}

TEST_F(Settings, TheFootTellsHowASaveEndedAndHasNoSecondOneMeanwhile)
{
    EXPECT_THAT(labels(), Contains("Changes are saved locally."));
    settings().saving = true;
    scene.turn();
    EXPECT_FALSE(button("Save Settings").isEnabled());
    settings().saving = false;
    settings().message = "Enter a model identifier.";
    EXPECT_THAT(labels(), Contains("Enter a model identifier."));
    EXPECT_THAT(labels(), Not(Contains("Changes are saved locally.")));
    EXPECT_TRUE(button("Save Settings").isEnabled());
}

TEST_F(Settings, SaveRegistersTheDraft)
{
    button("Use Command + Space (Spotlight)").click();
    EXPECT_THAT(labels(), Contains("Draft: Super+Space — choose Save Settings to apply."));
    EXPECT_THAT(registered, IsEmpty());
    button("Save Settings").click();
    scene.turn();
    EXPECT_THAT(registered, ElementsAre(superSpace));
    EXPECT_THAT(labels(), Contains("Settings saved."));
    EXPECT_THAT(labels(), Not(Contains("Draft: Super+Space — choose Save Settings to apply.")));
}

TEST_F(Settings, TheDefaultIsRestoredAndSavedAtOnce)
{
    settings().draftSpotlightHotkey();
    scene.turn();
    button("Restore Option + Space").click();
    scene.turn();
    EXPECT_THAT(registered, ElementsAre(altSpace));
    EXPECT_EQ(title(), "Alt+Space · Record…");
}

namespace {

/// The names of one widget that screen readers are told as new ones.
class ToldNames {
public:
    explicit ToldNames(QObject &widget) : before(QAccessible::installUpdateHandler(&note))
    {
        watched = &widget;
        names.clear();
    }
    ~ToldNames() { QAccessible::installUpdateHandler(before); }

    static inline Strings names;

private:
    static void note(QAccessibleEvent *event)
    {
        if (event->type() == QAccessible::NameChanged && event->object() == watched)
            names.push_back(event->accessibleInterface()->text(QAccessible::Name).toStdString());
    }
    const QAccessible::UpdateHandler before;
    static inline QObject *watched = nullptr;
};

} // namespace

TEST_F(Settings, ASecondSaveIsToldToScreenReadersLikeTheFirst)
{
    if (!QAccessible::isActive())
        GTEST_SKIP() << "no screen reader is served here";
    QLabel *line = nullptr;
    for (auto *label : window.surface()->findChildren<QLabel *>())
        if (label->isVisible() && label->text() == "Changes are saved locally.")
            line = label;
    ASSERT_TRUE(line);
    const ToldNames told(*line);
    for (int time = 0; time < 2; time++) {
        button("Save Settings").click();
        scene.turn();
    }
    EXPECT_THAT(told.names, ElementsAre("Settings saved.", "Changes are saved locally.", "Settings saved."));
}

// What is wrong with the shortcut

TEST_F(Settings, AShortcutThatCouldNotBeHadIsShownWithTheOneThatStays)
{
    EXPECT_THAT(labels(), Not(Contains("Shortcut needs attention")));
    const auto taken = std::make_exception_ptr(HotkeyRegistrationError(HotkeyRegistrationError::Reason::rejected));
    settings().reportHotkeyFailure(taken, superSpace, altSpace);
    EXPECT_THAT(labels(),
        testing::IsSupersetOf({"Shortcut needs attention",
            "This shortcut could not be registered. It may be used by macOS or another app. Choose a different shortcut.",
            "Requested shortcut", "Current shortcut",
            "Your previous shortcut remains active. Record another combination and save to apply it."}));
    QStringList caps;
    for (const auto *one : window.surface()->findChildren<QWidget *>())
        if (dynamic_cast<const ShortcutCaps *>(one) && one->isVisible())
            caps += one->accessibleName();
    EXPECT_EQ(caps, (QStringList{"Super+Space", "Alt+Space"}));

    settings().reportHotkeyFailure(taken, superSpace, std::nullopt);
    const Strings none = labels();
    EXPECT_THAT(none, Contains("No global shortcut is active. Open Korvane or Settings from the menu bar."));
    EXPECT_THAT(none, Not(Contains("Your previous shortcut remains active. Record another combination and save to apply it.")));
    EXPECT_EQ(std::ranges::count(none, "Current shortcut"), 1) << "the recorder's row alone";

    settings().hotkeyIssue = std::nullopt;
    EXPECT_THAT(labels(), Not(Contains("Shortcut needs attention")));
}

TEST_F(Settings, AnotherShortcutIsRecordedFromTheWarning)
{
    settings().hotkeyIssue = "Choose a shortcut with Command, Option or Control.";
    scene.turn();
    button("Record a Different Shortcut").click();
    scene.turn();
    EXPECT_TRUE(recorder().recording());
}

// The recorder

TEST_F(Settings, TheRecorderShowsTheShortcutUntilItListens)
{
    EXPECT_EQ(title(), "Alt+Space · Record…");
    EXPECT_EQ(recorder().accessibleName(), "Record global shortcut");
    click(recorder());
    EXPECT_EQ(title(), "Press shortcut… (Esc cancels)");
    EXPECT_TRUE(recorder().hasFocus());
    EXPECT_THAT(told, ElementsAre(true));
}

TEST_F(Settings, AValidShortcutBecomesTheDraftAndNothingIsSaved)
{
    click(recorder());
    pressK(Qt::ControlModifier | Qt::ShiftModifier);
    EXPECT_FALSE(recorder().recording());
    const HotkeyConfiguration draft = settings().preferences->hotkey;
    EXPECT_EQ(draft.keyCode, 40U);
    EXPECT_EQ(draft.modifiers, HotkeyConfiguration::control | HotkeyConfiguration::shift);
    EXPECT_EQ(draft.keyLabel, "K");
    EXPECT_EQ(title(), "Ctrl+Shift+K · Record…");
    EXPECT_THAT(labels(), Contains("Draft: Ctrl+Shift+K — choose Save Settings to apply."));
    EXPECT_THAT(told, ElementsAre(true, false));
    EXPECT_THAT(registered, IsEmpty());
    EXPECT_EQ(settings().appliedHotkey.get(), altSpace);
}

TEST_F(Settings, ShiftAndALetterAskForAModifierAndRecordingContinues)
{
    click(recorder());
    pressNative(recorder(), Qt::Key_A, Qt::ShiftModifier, 'A', 30 + 8, "A");
    EXPECT_EQ(title(), "Include ⌘, ⌥ or ⌃ (Esc cancels)");
    EXPECT_TRUE(recorder().recording());
    EXPECT_THAT(told, ElementsAre(true));
    pressK(Qt::AltModifier);
    EXPECT_EQ(title(), "Alt+K · Record…");
}

TEST_F(Settings, EscapeEndsTheRecordingWithoutAChangeWithAModifierToo)
{
    for (const Qt::KeyboardModifiers modifiers : {Qt::KeyboardModifiers(), Qt::KeyboardModifiers(Qt::AltModifier)}) {
        click(recorder());
        ASSERT_TRUE(recorder().recording());
        pressNative(recorder(), Qt::Key_Escape, modifiers, 0xff1b, 1 + 8);
        EXPECT_FALSE(recorder().recording());
        EXPECT_EQ(title(), "Alt+Space · Record…");
        EXPECT_EQ(settings().preferences->hotkey, altSpace);
    }
    EXPECT_TRUE(window.surface()->isVisible());
}

TEST_F(Settings, AModifierAloneWaitsForItsKey)
{
    click(recorder());
    pressNative(recorder(), Qt::Key_Control, Qt::ControlModifier, 0xffe3, 29 + 8);
    pressNative(recorder(), Qt::Key_Super_L, Qt::MetaModifier, 0xffeb, 125 + 8);
    EXPECT_TRUE(recorder().recording());
    EXPECT_EQ(title(), "Press shortcut… (Esc cancels)");
}

TEST_F(Settings, KeysThatMoveTheKeyboardAreRecordedLikeOthers)
{
    click(recorder());
    pressNative(recorder(), Qt::Key_Tab, Qt::ControlModifier, 0xff09, 15 + 8);
    EXPECT_EQ(title(), "Ctrl+Tab · Record…");
}

TEST_F(Settings, ASecondClickEndsTheRecording)
{
    click(recorder());
    click(recorder());
    EXPECT_FALSE(recorder().recording());
    EXPECT_THAT(told, ElementsAre(true, false));
}

TEST_F(Settings, LosingTheFocusEndsTheRecording)
{
    click(recorder());
    button("Save Settings").setFocus();
    EXPECT_FALSE(recorder().recording());
    EXPECT_EQ(title(), "Alt+Space · Record…");
}

TEST_F(Settings, AWindowThatLosesTheKeyboardEndsTheRecording)
{
    click(recorder());
    QWidget other;
    other.resize(200, 100);
    other.show();
    other.activateWindow();
    x11::activate(other, x11::serverTime());
    EXPECT_TRUE(scene.waitFor([&] { return !recorder().recording(); }));
    EXPECT_THAT(told, ElementsAre(true, false));
}

TEST_F(Settings, ClosingTheWindowEndsTheRecording)
{
    click(recorder());
    window.surface()->close();
    scene.turn();
    EXPECT_FALSE(recorder().recording());
    EXPECT_THAT(told, ElementsAre(true, false));
}

TEST_F(Settings, ARequestBeginsToRecordInAWindowThatIsShownAndASecondOneEnds)
{
    settings().recordCustomHotkey();
    scene.turn();
    EXPECT_TRUE(recorder().recording());
    settings().recordCustomHotkey();
    scene.turn();
    EXPECT_FALSE(recorder().recording());

    window.surface()->close();
    settings().recordCustomHotkey();
    scene.turn();
    show();
    EXPECT_FALSE(recorder().recording()) << "what was asked of a hidden window is over";
}

TEST_F(Settings, SpaceIsCalledSpaceWhateverItsLabelSays)
{
    AppPreferences edited = settings().preferences;
    edited.hotkey = {.keyCode = 49, .modifiers = HotkeyConfiguration::option, .keyLabel = "Leer"};
    settings().preferences = edited;
    scene.turn();
    EXPECT_EQ(title(), "Alt+Space · Record…");
}

// Keys

TEST(KeyEvents, AKeyIsKnownByItsNameElseByItsPlace)
{
    const struct {
        const char *why;
        Qt::Key key;
        Qt::KeyboardModifiers modifiers;
        std::uint32_t keysym, position;
        std::optional<HotkeyConfiguration> hotkey;
    } cases[] = {
        {"a letter", Qt::Key_A, Qt::ControlModifier, 'a', 30, {{0, HotkeyConfiguration::control, "A"}}},
        {"a letter that another layout has elsewhere", Qt::Key_A, Qt::AltModifier, 'a', 16,
            {{0, HotkeyConfiguration::option, "A"}}},
        {"a letter that has no name here goes by its place", Qt::Key(0x424), Qt::AltModifier, 0x6c6, 30,
            {{0, HotkeyConfiguration::option, "Ф"}}},
        {"a digit with Shift is labelled by what is printed first", Qt::Key_Exclam, Qt::ControlModifier | Qt::ShiftModifier, '!',
            2, {{18, HotkeyConfiguration::control | HotkeyConfiguration::shift, "1"}}},
        {"Super", Qt::Key_Space, Qt::MetaModifier, ' ', 57, {{49, HotkeyConfiguration::command, "Space"}}},
        {"all four", Qt::Key_K, Qt::ControlModifier | Qt::AltModifier | Qt::ShiftModifier | Qt::MetaModifier, 'K', 37,
            {{40, 0x1B00, "K"}}},
        {"other modifiers do not count", Qt::Key_K, Qt::AltModifier | Qt::KeypadModifier | Qt::GroupSwitchModifier, 'k', 37,
            {{40, HotkeyConfiguration::option, "K"}}},
        {"a key without a character has a name", Qt::Key_F5, Qt::ControlModifier, 0xffc2, 63,
            {{96, HotkeyConfiguration::control, "F5"}}},
        {"a modifier alone", Qt::Key_Alt, Qt::AltModifier, 0xffe9, 56, std::nullopt},
        {"a key that no shortcut can have", Qt::Key_VolumeUp, {}, 0x1008ff13, 115, std::nullopt},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        const QKeyEvent event(QEvent::KeyPress, c.key, c.modifiers, c.position + 8, c.keysym, 0);
        EXPECT_EQ(hotkeyOf(event), c.hotkey);
    }
}

TEST(KeyEvents, ShortcutsAreNamedInTheWordsOfTheKeyboard)
{
    EXPECT_EQ(nameOf({.keyCode = 40, .modifiers = 0x1B00}), "Ctrl+Alt+Shift+Super+K");
    EXPECT_EQ(nameOf({.keyCode = 123, .modifiers = HotkeyConfiguration::control}), "Ctrl+←");
    EXPECT_EQ(nameOf({.keyCode = 51, .modifiers = HotkeyConfiguration::control}), "Ctrl+Backspace");
    EXPECT_EQ(nameOf({.keyCode = 9, .modifiers = HotkeyConfiguration::option, .keyLabel = "V"}), "Alt+V");
    EXPECT_EQ(nameOf({.keyCode = 9, .modifiers = HotkeyConfiguration::option}), "Alt+Key 9");
}

TEST_F(Settings, AHeldKeyIsKnownByTheMomentAtWhichItGoesUpAndDown)
{
    std::vector<bool> repeats;
    const KeyDownFilter filter([&](const HotkeyConfiguration &, bool isRepeat) {
        repeats.push_back(isRepeat);
        return true;
    });
    const auto send = [&](QEvent::Type kind, quint64 time) {
        QKeyEvent event(kind, Qt::Key_Space, Qt::AltModifier, 57 + 8, ' ', 0);
        event.setTimestamp(time);
        QCoreApplication::sendEvent(window.surface()->windowHandle(), &event);
    };
    send(QEvent::KeyPress, 1000);
    send(QEvent::KeyRelease, 1660);
    send(QEvent::KeyPress, 1660); // held
    send(QEvent::KeyRelease, 1700);
    send(QEvent::KeyPress, 1740); // pressed again
    EXPECT_THAT(repeats, ElementsAre(false, true, false));
}

TEST_F(Settings, AKeyThatTheProgramTakesReachesNoView)
{
    std::vector<std::pair<std::uint32_t, bool>> seen;
    const KeyDownFilter filter([&](const HotkeyConfiguration &key, bool isRepeat) {
        seen.emplace_back(key.keyCode, isRepeat);
        return key.sameKeys(altSpace);
    });
    click(recorder());
    QWindow &handle = *window.surface()->windowHandle();
    QKeyEvent space(QEvent::KeyPress, Qt::Key_Space, Qt::AltModifier, 57 + 8, ' ', 0, {}, true);
    QCoreApplication::sendEvent(&handle, &space);
    EXPECT_TRUE(recorder().recording()) << "it was swallowed";
    QKeyEvent other(QEvent::KeyPress, Qt::Key_K, Qt::AltModifier, 37 + 8, 'k', 0);
    QCoreApplication::sendEvent(&handle, &other);
    EXPECT_EQ(title(), "Alt+K · Record…");
    EXPECT_THAT(seen, ElementsAre(std::pair(49U, true), std::pair(40U, false)));
}

} // namespace korvane::test
