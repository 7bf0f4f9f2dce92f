// The global key on a real X server. Keys are pressed by XTest; other programs are connections of the test's own. Waits look
// again until a deadline; the limit on how long keys are held back is on a clock that the test moves.
#include "Support/MainLoop.h"
#include "Vorrel/Platform/Linux/X11Hotkeys.h"
#include "Vorrel/Platform/Linux/X11Keymap.h"
#include "Vorrel/Platform/Linux/Xkb.h"
#include "Vorrel/Shell/HotkeyService.h"
#include "tests/desktop/FakeKeyboard.h"
#include "tests/support/Soon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <xcb/xcb.h>

namespace korvane::test {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using Reason = HotkeyRegistrationError::Reason;

namespace {

constexpr std::int32_t badAccess = 10;
constexpr HotkeyConfiguration optionSpace{};
constexpr HotkeyConfiguration commandSpace{.keyCode = HotkeyConfiguration::spaceKey, .modifiers = HotkeyConfiguration::command};
constexpr HotkeyConfiguration optionQ{.keyCode = 12, .modifiers = HotkeyConfiguration::option};
constexpr std::uint16_t altMask = XCB_MOD_MASK_1, numMask = XCB_MOD_MASK_2, superMask = XCB_MOD_MASK_4;

using Keys = std::vector<std::uint8_t>;

/// Another program on the same display.
class OtherProgram {
public:
    OtherProgram() : x(::xcb_connect(nullptr, nullptr)), root(::xcb_setup_roots_iterator(::xcb_get_setup(x)).data->root) { }
    ~OtherProgram() { ::xcb_disconnect(x); }
    OtherProgram(const OtherProgram &) = delete;
    OtherProgram &operator=(const OtherProgram &) = delete;

    /// False when somebody has it.
    bool grab(std::uint16_t modifiers, std::uint8_t key)
    {
        const auto cookie = ::xcb_grab_key_checked(x, 0, root, modifiers, key, XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC);
        return !XcbReply<xcb_generic_error_t>(::xcb_request_check(x, cookie));
    }
    void ungrab(std::uint16_t modifiers, std::uint8_t key)
    {
        XcbReply<xcb_generic_error_t>(::xcb_request_check(x, ::xcb_ungrab_key_checked(x, key, root, modifiers)));
    }

    /// Opens a window that has the keyboard.
    void takeKeyboard()
    {
        if (!window) {
            window = ::xcb_generate_id(x);
            const std::array<std::uint32_t, 2> values{1, XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_STRUCTURE_NOTIFY};
            ::xcb_create_window(x, XCB_COPY_FROM_PARENT, window, root, 10, 10, 100, 100, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                XCB_COPY_FROM_PARENT, XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values.data());
            ::xcb_map_window(x, window);
            ::xcb_flush(x);
            while (const XcbReply<xcb_generic_event_t> event{::xcb_wait_for_event(x)})
                if ((event->response_type & 0x7f) == XCB_MAP_NOTIFY)
                    break;
        }
        const auto cookie = ::xcb_set_input_focus_checked(x, XCB_INPUT_FOCUS_POINTER_ROOT, window, XCB_CURRENT_TIME);
        EXPECT_FALSE(XcbReply<xcb_generic_error_t>(::xcb_request_check(x, cookie)));
    }

    /// The keys that have come to its window so far.
    const Keys &typed()
    {
        // An answer comes after all events that were sent before it.
        std::free(::xcb_get_input_focus_reply(x, ::xcb_get_input_focus(x), nullptr));
        while (const XcbReply<xcb_generic_event_t> event{::xcb_poll_for_event(x)})
            if ((event->response_type & 0x7f) == XCB_KEY_PRESS)
                keys.push_back(reinterpret_cast<const xcb_key_press_event_t &>(*event).detail);
        return keys;
    }

    void lockGroup(std::uint8_t group)
    {
        XcbReply<xcb_xkb_use_extension_reply_t>(::xcb_xkb_use_extension_reply(x, ::xcb_xkb_use_extension(x, 1, 0), nullptr));
        const auto cookie = ::xcb_xkb_latch_lock_state_checked(x, XCB_XKB_ID_USE_CORE_KBD, 0, 0, 1, group, 0, 0, 0);
        EXPECT_FALSE(XcbReply<xcb_generic_error_t>(::xcb_request_check(x, cookie)));
    }
    std::uint16_t locked()
    {
        XcbReply<xcb_xkb_use_extension_reply_t>(::xcb_xkb_use_extension_reply(x, ::xcb_xkb_use_extension(x, 1, 0), nullptr));
        const XcbReply<xcb_xkb_get_state_reply_t> state(
            ::xcb_xkb_get_state_reply(x, ::xcb_xkb_get_state(x, XCB_XKB_ID_USE_CORE_KBD), nullptr));
        return state ? state->lockedMods : 0;
    }

private:
    xcb_connection_t *const x;
    const xcb_window_t root;
    xcb_window_t window = XCB_NONE;
    Keys keys;
};

void layout(const std::string &words) { ASSERT_EQ(std::system(("setxkbmap " + words + " 2>/dev/null").c_str()), 0); }

class Hotkey : public testing::Test {
protected:
    Hotkey()
    {
        layout("-layout us -option ''");
        EXPECT_TRUE(hotkeys.install(handlers()));
    }
    ~Hotkey() override
    {
        hotkeys.remove();
        settle();
        layout("-layout us -option ''");
        if (other.locked() & XCB_MOD_MASK_LOCK)
            keys.tap(FakeKeyboard::capsLock);
        if (other.locked() & numMask)
            keys.tap(FakeKeyboard::numLock);
        keys.sync();
    }

    HotkeyRegistering::Handlers handlers()
    {
        return {.pressed =
                    [this] {
                        ++pressed;
                        whenPressed();
                    },
            .lost = [this](const HotkeyConfiguration &, const HotkeyRegistrationError &why) { lost.push_back(why); }};
    }

    bool soon(const std::function<bool()> &truth) { return test::soon(loop, truth); }
    /// Lets everything arrive that is under way: what came after it would be seen too.
    void settle()
    {
        keys.sync();
        test::soon(
            loop, [] { return false; }, 60ms);
    }
    /// Whether the combination fires, once.
    bool fires(std::uint8_t modifier, std::uint8_t key)
    {
        const int before = pressed;
        keys.combine(modifier, key);
        settle();
        EXPECT_LE(pressed, before + 1);
        return pressed == before + 1;
    }
    bool optionSpaceFires() { return fires(FakeKeyboard::alt, FakeKeyboard::space); }

    std::optional<HotkeyRegistrationError> refusal(const HotkeyConfiguration &configuration)
    {
        try {
            hotkeys.reserve(configuration);
            return std::nullopt;
        } catch (const HotkeyRegistrationError &error) {
            return error;
        }
    }

    MainLoop loop;
    ManualClock clock{loop};
    X11Hotkeys hotkeys{loop.executor(), clock, ::getenv("DISPLAY")};
    FakeKeyboard keys;
    OtherProgram other;
    int pressed = 0;
    std::vector<HotkeyRegistrationError> lost;
    std::function<void()> whenPressed = [] {};
};

/// The fixture for what is typed after a press: the answer claims it.
class HeldBack : public Hotkey {
protected:
    HeldBack()
    {
        other.takeKeyboard();
        whenPressed = [this] { time = hotkeys.claimKeys(); };
    }
    void pressAndType(std::string_view letters)
    {
        keys.combine(FakeKeyboard::alt, FakeKeyboard::space);
        keys.type(letters);
        ASSERT_TRUE(soon([this] { return pressed > 0; }));
        settle();
    }
    static Keys keysOf(std::string_view letters)
    {
        Keys all;
        for (const char letter : letters)
            all.push_back(FakeKeyboard::keyFor(letter));
        return all;
    }
    bool arrives(std::string_view letters)
    {
        return soon([&] { return other.typed().size() >= letters.size(); }) && other.typed() == keysOf(letters);
    }

    HotkeyLease lease = hotkeys.reserve(optionSpace);
    std::uint32_t time = 0;
};

} // namespace

TEST_F(Hotkey, ARegisteredCombinationIsToldOncePerPressAndNoOther)
{
    const HotkeyLease lease = hotkeys.reserve(optionSpace);
    EXPECT_TRUE(optionSpaceFires());
    EXPECT_TRUE(optionSpaceFires());
    EXPECT_FALSE(fires(FakeKeyboard::super, FakeKeyboard::space));
    EXPECT_FALSE(fires(FakeKeyboard::alt, FakeKeyboard::keyFor('q')));
}

TEST_F(Hotkey, EveryModifierIsWhereTheKeyboardHasIt)
{
    constexpr std::pair<std::uint32_t, std::uint8_t> modifiers[] = {{HotkeyConfiguration::control, FakeKeyboard::control},
        {HotkeyConfiguration::option, FakeKeyboard::alt}, {HotkeyConfiguration::command, FakeKeyboard::super}};
    for (const auto &[bit, key] : modifiers) {
        const HotkeyLease lease = hotkeys.reserve({.keyCode = 12, .modifiers = bit | HotkeyConfiguration::shift});
        EXPECT_FALSE(fires(key, FakeKeyboard::keyFor('q'))) << "without Shift";
        keys.press(FakeKeyboard::shift);
        EXPECT_TRUE(fires(key, FakeKeyboard::keyFor('q'))) << bit;
        keys.release(FakeKeyboard::shift);
    }
    layout("-option altwin:swap_alt_win");
    const HotkeyLease lease = hotkeys.reserve(optionQ);
    EXPECT_TRUE(soon([this] { return fires(FakeKeyboard::super, FakeKeyboard::keyFor('q')); })) << "the two are swapped";
}

TEST_F(Hotkey, AKeyThatNoKeyboardHasIsRejected)
{
    const auto error = refusal({.keyCode = 127, .modifiers = HotkeyConfiguration::option});
    ASSERT_TRUE(error);
    EXPECT_EQ(error->reason, Reason::rejected);
}

TEST_F(Hotkey, ACombinationOfAnotherProgramIsRejectedAndTheOldKeyStillWorks)
{
    ASSERT_TRUE(other.grab(superMask, FakeKeyboard::space));
    HotkeyBinding binding(hotkeys);
    binding.replace(optionSpace);
    try {
        binding.replace(commandSpace);
        FAIL() << "it was granted";
    } catch (const HotkeyRegistrationError &error) {
        EXPECT_EQ(error.reason, Reason::rejected);
        EXPECT_EQ(error.status, badAccess);
    }
    EXPECT_EQ(binding.configuration(), optionSpace);
    EXPECT_TRUE(optionSpaceFires());
}

TEST_F(Hotkey, WhereOnlyTheVariantWithNumLockIsTakenNothingIsKept)
{
    ASSERT_TRUE(other.grab(altMask | numMask, FakeKeyboard::space));
    const auto error = refusal(optionSpace);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->status, badAccess);
    OtherProgram third;
    EXPECT_TRUE(third.grab(altMask, FakeKeyboard::space)) << "all that was granted is given back";
    EXPECT_TRUE(third.grab(altMask | XCB_MOD_MASK_LOCK, FakeKeyboard::space));
    EXPECT_FALSE(optionSpaceFires());
}

TEST_F(Hotkey, ACombinationThatIsFreeAgainIsGranted)
{
    ASSERT_TRUE(other.grab(altMask, FakeKeyboard::space));
    EXPECT_TRUE(refusal(optionSpace));
    other.ungrab(altMask, FakeKeyboard::space);
    const HotkeyLease lease = hotkeys.reserve(optionSpace);
    EXPECT_TRUE(optionSpaceFires());
}

TEST_F(Hotkey, LocksMakeNoDifference)
{
    const HotkeyLease lease = hotkeys.reserve(optionSpace);
    keys.tap(FakeKeyboard::numLock);
    ASSERT_TRUE(soon([this] { return other.locked() == numMask; }));
    EXPECT_TRUE(optionSpaceFires());
    keys.tap(FakeKeyboard::capsLock);
    ASSERT_TRUE(soon([this] { return other.locked() == (numMask | XCB_MOD_MASK_LOCK); }));
    EXPECT_TRUE(optionSpaceFires());
    keys.tap(FakeKeyboard::numLock);
    ASSERT_TRUE(soon([this] { return other.locked() == XCB_MOD_MASK_LOCK; }));
    EXPECT_TRUE(optionSpaceFires());
}

TEST_F(Hotkey, AnotherLayoutOfTheSameKeyboardMakesNoDifference)
{
    layout("-layout us,ru");
    const HotkeyLease lease = hotkeys.reserve(optionQ);
    EXPECT_TRUE(fires(FakeKeyboard::alt, FakeKeyboard::keyFor('q')));
    other.lockGroup(1);
    EXPECT_TRUE(fires(FakeKeyboard::alt, FakeKeyboard::keyFor('q')));
    other.lockGroup(0);
}

TEST_F(Hotkey, TheKeyFollowsAChangeOfTheLayout)
{
    const HotkeyLease lease = hotkeys.reserve(optionQ);
    const std::uint8_t french = FakeKeyboard::keyFor('a'); // where Q is on a French keyboard
    EXPECT_FALSE(fires(FakeKeyboard::alt, french));
    layout("-layout fr");
    EXPECT_TRUE(soon([&] { return fires(FakeKeyboard::alt, french); }));
    EXPECT_FALSE(fires(FakeKeyboard::alt, FakeKeyboard::keyFor('q')));
    layout("-layout us");
    EXPECT_TRUE(soon([&] { return fires(FakeKeyboard::alt, FakeKeyboard::keyFor('q')); }));
    EXPECT_THAT(lost, IsEmpty());
}

TEST_F(Hotkey, WhereNoKeyBearsTheNameItsPlaceDecides)
{
    layout("-layout ru");
    const HotkeyLease lease = hotkeys.reserve(optionQ);
    EXPECT_TRUE(fires(FakeKeyboard::alt, FakeKeyboard::keyFor('q')));
}

TEST_F(Hotkey, AKeyWithoutANameHereIsFoundByItsLabel)
{
    layout("-layout de");
    const HotkeyConfiguration sharpS{.keyCode = 27, .modifiers = HotkeyConfiguration::option, .keyLabel = "ß"};
    const std::uint8_t place = FakeKeyboard::keyFor('-'), minus = FakeKeyboard::keyFor('/'); // of a US keyboard
    {
        const HotkeyLease lease = hotkeys.reserve(sharpS);
        EXPECT_TRUE(fires(FakeKeyboard::alt, place));
        EXPECT_FALSE(fires(FakeKeyboard::alt, minus)) << "which is the minus sign's";
    }
    HotkeyConfiguration named = sharpS;
    named.keyLabel = "-";
    const HotkeyLease lease = hotkeys.reserve(named);
    EXPECT_FALSE(fires(FakeKeyboard::alt, place));
    EXPECT_TRUE(fires(FakeKeyboard::alt, minus));
}

TEST_F(Hotkey, AKeyThatTheNewLayoutPutsWhereAnotherProgramIsIsToldAsLost)
{
    const HotkeyLease lease = hotkeys.reserve(optionQ);
    ASSERT_TRUE(other.grab(altMask, FakeKeyboard::keyFor('a')));
    layout("-layout fr");
    ASSERT_TRUE(soon([this] { return !lost.empty(); }));
    settle();
    ASSERT_EQ(lost.size(), 1U);
    EXPECT_EQ(lost[0].reason, Reason::rejected);
    EXPECT_EQ(lost[0].status, badAccess);
}

TEST_F(Hotkey, AKeyHeldForASecondIsOnePress)
{
    const HotkeyLease lease = hotkeys.reserve(optionSpace);
    other.takeKeyboard();
    const auto hold = [this](std::uint8_t key) {
        keys.press(key);
        const auto end = std::chrono::steady_clock::now() + 1s;
        soon([&] { return std::chrono::steady_clock::now() > end; });
        keys.release(key);
        settle();
    };
    hold(FakeKeyboard::space);
    EXPECT_GT(other.typed().size(), 5U) << "keys repeat on this display";
    const std::size_t before = other.typed().size();
    keys.press(FakeKeyboard::alt);
    hold(FakeKeyboard::space);
    EXPECT_EQ(pressed, 1);
    keys.tap(FakeKeyboard::space);
    keys.release(FakeKeyboard::alt);
    settle();
    EXPECT_EQ(pressed, 2) << "pressed anew";
    EXPECT_EQ(other.typed().size(), before + 1) << "Alt alone";
}

TEST_F(Hotkey, AModifierTappedWhileTheKeyIsHeldIsNoSecondPress)
{
    const HotkeyLease lease = hotkeys.reserve(optionSpace);
    keys.press(FakeKeyboard::alt);
    keys.press(FakeKeyboard::space);
    ASSERT_TRUE(soon([this] { return pressed == 1; }));
    keys.tap(FakeKeyboard::shift);
    const auto end = std::chrono::steady_clock::now() + 1s; // long enough to repeat
    soon([&] { return std::chrono::steady_clock::now() > end; });
    keys.release(FakeKeyboard::space);
    keys.release(FakeKeyboard::alt);
    settle();
    EXPECT_EQ(pressed, 1);
}

TEST_F(Hotkey, WhileSuspendedTheKeyReachesAWindow)
{
    hotkeys.remove();
    HotkeyService service(hotkeys, [this] { ++pressed; });
    service.registerHotkey(optionSpace);
    other.takeKeyboard();
    service.suspend(true);
    settle(); // the server hears of it
    keys.combine(FakeKeyboard::alt, FakeKeyboard::space);
    settle();
    EXPECT_EQ(pressed, 0);
    EXPECT_THAT(other.typed(), ElementsAre(FakeKeyboard::alt, FakeKeyboard::space));
    service.suspend(false);
    EXPECT_TRUE(optionSpaceFires());
}

TEST_F(Hotkey, OfTwoLeasesOnOneKeyTheLastToGoGivesItBack)
{
    std::optional<HotkeyLease> first(hotkeys.reserve(optionSpace));
    std::optional<HotkeyLease> second(hotkeys.reserve(optionSpace));
    EXPECT_TRUE(optionSpaceFires());
    first.reset();
    settle();
    EXPECT_TRUE(optionSpaceFires());
    EXPECT_FALSE(other.grab(altMask, FakeKeyboard::space));
    second.reset();
    settle();
    EXPECT_FALSE(optionSpaceFires());
    EXPECT_TRUE(other.grab(altMask, FakeKeyboard::space));
}

TEST_F(Hotkey, WithoutADisplayThereAreNoShortcuts)
{
    for (const char *name : {"", ":4711"}) {
        X11Hotkeys nowhere(loop.executor(), clock, name);
        EXPECT_FALSE(nowhere.install(handlers())) << name;
        EXPECT_EQ(nowhere.claimKeys(), 0U);
        nowhere.letKeysThrough();
        nowhere.remove();
    }
}

TEST_F(Hotkey, ALeaseMayOutliveTheRegistrar)
{
    HotkeyLease lease = hotkeys.reserve(optionSpace);
    hotkeys.remove();
    settle();
    EXPECT_TRUE(other.grab(altMask, FakeKeyboard::space)) << "removal gives everything back";
    lease.release();
}

TEST_F(Hotkey, ADisplayThatGoesIsToldOnceAndEndsNothing)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    const pid_t server = ::fork();
    if (server == 0) {
        ::dup2(ends[1], 9);
        ::execlp("Xvfb", "Xvfb", "-displayfd", "9", "-nolisten", "tcp", "-noreset", nullptr);
        ::_exit(127);
    }
    ::close(ends[1]);
    std::string name = ":";
    for (char c = 0; ::read(ends[0], &c, 1) == 1 && c != '\n';)
        name += c;
    ::close(ends[0]);
    std::signal(SIGPIPE, SIG_IGN);
    X11Hotkeys doomed(loop.executor(), clock, name);
    ASSERT_TRUE(doomed.install(handlers())) << name;
    HotkeyLease lease = doomed.reserve(optionSpace);
    ::kill(server, SIGKILL);
    ::waitpid(server, nullptr, 0);
    ASSERT_TRUE(soon([this] { return !lost.empty(); }));
    EXPECT_THROW(doomed.reserve(commandSpace), HotkeyRegistrationError);
    lease.release();
    doomed.letKeysThrough();
    settle();
    ASSERT_EQ(lost.size(), 1U);
    EXPECT_EQ(lost[0].reason, Reason::unavailable);
}

TEST_F(HeldBack, WhatIsTypedAfterAPressWaitsForTheWindowThatAnswers)
{
    OtherProgram former;
    former.takeKeyboard();
    pressAndType("qwertyuiopasdfghjklz");
    EXPECT_GT(time, 0U);
    EXPECT_THAT(former.typed(), ElementsAre(FakeKeyboard::alt));
    EXPECT_THAT(other.typed(), IsEmpty());
    other.takeKeyboard();
    hotkeys.letKeysThrough();
    EXPECT_TRUE(arrives("qwertyuiopasdfghjklz"));
    EXPECT_EQ(former.typed().size(), 1U);
}

TEST_F(HeldBack, KeysWaitThreeTenthsOfASecondAtMost)
{
    pressAndType("q");
    const Keys before{FakeKeyboard::alt};
    clock.advance(X11Hotkeys::patience - 1ms);
    settle();
    EXPECT_EQ(other.typed(), before);
    clock.advance(1ms);
    EXPECT_TRUE(soon([&] { return other.typed().size() == 2; }));
    EXPECT_EQ(clock.sleepers(), 0U);
}

TEST_F(HeldBack, AnAnswerThatClaimsNothingHoldsNothingUp)
{
    whenPressed = [] {};
    pressAndType("qw");
    EXPECT_TRUE(soon([&] { return other.typed().size() == 3; })) << "Alt and two letters";
    EXPECT_EQ(clock.sleepers(), 0U);
}

TEST_F(HeldBack, GivingTheKeyBackLetsTheKeysThrough)
{
    pressAndType("q");
    lease.release();
    EXPECT_TRUE(soon([&] { return other.typed().size() == 2; }));
}

TEST_F(HeldBack, AnEndInTheMiddleLetsTheKeysThrough)
{
    pressAndType("q");
    hotkeys.remove();
    EXPECT_TRUE(soon([&] { return other.typed().size() == 2; }));
}

TEST_F(HeldBack, WithoutAPressThereIsNothingToClaim)
{
    EXPECT_EQ(hotkeys.claimKeys(), 0U);
    pressAndType("");
    EXPECT_EQ(hotkeys.claimKeys(), 0U) << "the press has been answered";
}

TEST_F(HeldBack, AKeyStruckBeforeTheShortcutsIsUpIsNotLost)
{
    keys.press(FakeKeyboard::alt);
    keys.press(FakeKeyboard::space);
    keys.release(FakeKeyboard::alt);
    keys.tap(FakeKeyboard::keyFor('q'));
    keys.release(FakeKeyboard::space);
    keys.type("w");
    ASSERT_TRUE(soon([this] { return pressed == 1; }));
    hotkeys.letKeysThrough();
    EXPECT_TRUE(soon([&] { return other.typed().size() == 3; }));
    EXPECT_THAT(other.typed(), ElementsAre(FakeKeyboard::alt, FakeKeyboard::keyFor('q'), FakeKeyboard::keyFor('w')));
    EXPECT_TRUE(optionSpaceFires()) << "the next press is a press";
}

TEST_F(HeldBack, AHeldKeyThatIsHeldBackIsStillOnePress)
{
    keys.press(FakeKeyboard::alt);
    keys.press(FakeKeyboard::space);
    ASSERT_TRUE(soon([this] { return pressed == 1; }));
    hotkeys.letKeysThrough();
    const auto end = std::chrono::steady_clock::now() + 1s; // long enough to repeat
    soon([&] { return std::chrono::steady_clock::now() > end; });
    keys.release(FakeKeyboard::space);
    keys.release(FakeKeyboard::alt);
    settle();
    EXPECT_EQ(pressed, 1);
    EXPECT_TRUE(optionSpaceFires());
}

} // namespace korvane::test
