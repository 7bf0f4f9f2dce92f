#include "Vorrel/Shell/HotkeyService.h"
#include "Vorrel/Platform/Headless/HeadlessHotkeys.h"
#include "Vorrel/Platform/VirtualKeys.h"

#include <gtest/gtest.h>

#include <set>

using namespace korvane;
using Strings = std::vector<std::string>;
using Reason = HotkeyRegistrationError::Reason;

namespace {

constexpr auto command = HotkeyConfiguration::command, shift = HotkeyConfiguration::shift, option = HotkeyConfiguration::option,
               control = HotkeyConfiguration::control;

const HotkeyConfiguration optionSpace;
const HotkeyConfiguration commandK{.keyCode = 40, .modifiers = command};

/// What an operation refuses with; nothing when it goes well.
template <class Operation> std::optional<Reason> refusal(Operation operation)
{
    try {
        operation();
    } catch (const HotkeyRegistrationError &error) {
        return error.reason;
    }
    return std::nullopt;
}

/// A binding beside other programs.
struct Bound {
    HeadlessHotkeys keys;
    HotkeyBinding binding{keys};
};

/// A service that counts what it triggers.
struct Served {
    HeadlessHotkeys keys;
    int triggered = 0;
    std::vector<Reason> losses;
    HotkeyService service{keys, [this] { ++triggered; },
        [this](const HotkeyConfiguration &, const HotkeyRegistrationError &why) { losses.push_back(why.reason); }};
};

} // namespace

// The configuration

TEST(HotkeyConfiguration, TheDefaultIsOptionAndSpace)
{
    EXPECT_EQ(optionSpace.keyCode, 49u);
    EXPECT_EQ(optionSpace.modifiers, 2048u);
    EXPECT_FALSE(optionSpace.keyLabel);
    EXPECT_EQ(optionSpace.displayName(), "⌥Space");
}

TEST(HotkeyConfiguration, EventFlagsBecomeModifierBitsAndAllOthersAreDropped)
{
    const struct {
        const char *why;
        std::uint32_t flags, bits;
    } cases[] = {
        {"none", 0, 0},
        {"Control", 0x40000, 4096},
        {"Option", 0x80000, 2048},
        {"Shift", 0x20000, 512},
        {"Command", 0x100000, 256},
        {"all four", 0x1e0000, 4096 + 2048 + 512 + 256},
        {"Caps Lock, the number pad, the function key and the sides of the keyboard", 0xffe1ffff, 0},
        {"Command among others", 0xfff1ffff, 256},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(HotkeyConfiguration::carbonModifiers(c.flags), c.bits);
    }
}

TEST(HotkeyConfiguration, IsValidWithAKeyAndCommandOptionOrControl)
{
    const struct {
        const char *why;
        std::uint32_t keyCode, modifiers;
        bool valid;
    } cases[] = {
        {"the default", 49, option, true},
        {"Command alone", 0, command, true},
        {"Control alone", 0, control, true},
        {"Shift beside another", 0, shift | control, true},
        {"all four", 0, command | shift | option | control, true},
        {"Shift alone is not enough", 0, shift, false},
        {"no modifier", 49, 0, false},
        {"the last key code", 127, option, true},
        {"one more", 128, option, false},
        {"Escape cancels recording", 53, option, false},
        {"an unknown bit", 49, option | 1024, false},
        {"an unknown bit above", 49, option | 8192, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ((HotkeyConfiguration{.keyCode = c.keyCode, .modifiers = c.modifiers}.valid()), c.valid);
    }
}

TEST(HotkeyConfiguration, ShowsItsModifiersInOrderAndThenTheKey)
{
    const struct {
        const char *why;
        HotkeyConfiguration hotkey;
        const char *name;
    } cases[] = {
        {"the order of the symbols", {.keyCode = 36, .modifiers = command | shift | option | control}, "⌃⌥⇧⌘Return"},
        {"key code 49 is Space, whatever its label says", {.keyCode = 49, .modifiers = command, .keyLabel = "X"}, "⌘Space"},
        {"Tab", {.keyCode = 48, .modifiers = option}, "⌥Tab"},
        {"Delete", {.keyCode = 51, .modifiers = option}, "⌥Delete"},
        {"left", {.keyCode = 123, .modifiers = option}, "⌥←"},
        {"right", {.keyCode = 124, .modifiers = option}, "⌥→"},
        {"down", {.keyCode = 125, .modifiers = option}, "⌥↓"},
        {"up", {.keyCode = 126, .modifiers = option}, "⌥↑"},
        {"L without a label", {.keyCode = 37, .modifiers = option}, "⌥L"},
        {"K without a label", {.keyCode = 40, .modifiers = option}, "⌥K"},
        {"a label", {.keyCode = 12, .modifiers = option, .keyLabel = "Q"}, "⌥Q"},
        {"a label of another script", {.keyCode = 12, .modifiers = option, .keyLabel = "Й"}, "⌥Й"},
        {"no label", {.keyCode = 12, .modifiers = option}, "⌥Key 12"},
        {"an empty label", {.keyCode = 12, .modifiers = option, .keyLabel = ""}, "⌥Key 12"},
        {"a label with a blank", {.keyCode = 12, .modifiers = option, .keyLabel = "Q "}, "⌥Key 12"},
        {"a label with a wide blank", {.keyCode = 12, .modifiers = option, .keyLabel = "\u3000"}, "⌥Key 12"},
        {"a control sign", {.keyCode = 122, .modifiers = option, .keyLabel = "\x10"}, "⌥Key 122"},
        {"an invisible sign", {.keyCode = 12, .modifiers = option, .keyLabel = "\u200e"}, "⌥Key 12"},
        {"no text at all", {.keyCode = 12, .modifiers = option, .keyLabel = "\xff"}, "⌥Key 12"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(c.hotkey.displayName(), c.name);
    }
}

TEST(VirtualKeys, AKeyIsFoundByItsCodeItsNameAndItsPlace)
{
    std::set<std::uint32_t> codes, names, places;
    for (const VirtualKey &key : virtualKeys()) {
        codes.insert(key.code), names.insert(key.keysym), places.insert(key.position);
        EXPECT_EQ(virtualKeyOfCode(key.code), &key);
        EXPECT_EQ(virtualKeyNamed(key.keysym), &key);
        EXPECT_EQ(virtualKeyAt(key.position), &key);
        EXPECT_LT(key.code, 128u);
    }
    EXPECT_EQ(codes.size(), virtualKeys().size());
    EXPECT_EQ(names.size(), virtualKeys().size());
    EXPECT_EQ(places.size(), virtualKeys().size());
    EXPECT_EQ(virtualKeyNamed('Q'), virtualKeyNamed('q')) << "with Shift a key is still the same key";
    EXPECT_EQ(virtualKeyNamed('Q')->code, 12u);
    EXPECT_EQ(virtualKeyNamed(' ')->code, HotkeyConfiguration::spaceKey);
    EXPECT_EQ(virtualKeyNamed(0xff1b)->code, HotkeyConfiguration::escapeKey);
    EXPECT_EQ(virtualKeyNamed(0x6ca), nullptr) << "a Cyrillic letter has no code of its own";
    EXPECT_EQ(virtualKeyAt(16)->code, 12u);
}

// Errors and leases

TEST(HotkeyRegistrationError, SaysWhatTheUserCanDo)
{
    EXPECT_EQ(HotkeyRegistrationError(Reason::rejected, -9878).errorDescription(),
        "This shortcut could not be registered. It may be used by macOS or another app. Choose a different shortcut.");
    EXPECT_EQ(HotkeyRegistrationError(Reason::rejected, -9878).status, -9878);
    EXPECT_EQ(HotkeyRegistrationError(Reason::invalid).errorDescription(), "Choose a shortcut with Command, Option or Control.");
    EXPECT_EQ(HotkeyRegistrationError(Reason::unavailable).errorDescription(),
        "Global shortcuts are unavailable. Open Korvane from the menu bar and try again.");
}

TEST(HotkeyLease, IsReleasedOnceHoweverOftenAndByItsEnd)
{
    int released = 0;
    {
        HotkeyLease lease([&] { ++released; });
        HotkeyLease moved = std::move(lease);
        EXPECT_EQ(released, 0);
        moved.release();
        moved.release();
        EXPECT_EQ(released, 1);
    }
    EXPECT_EQ(released, 1);
    {
        const HotkeyLease forgotten([&] { ++released; });
    }
    EXPECT_EQ(released, 2);
}

// The binding

TEST(HotkeyBinding, TakesTheNewKeyBeforeItGivesUpTheOld)
{
    Bound bound;
    bound.binding.replace(optionSpace);
    bound.binding.replace(commandK);
    EXPECT_EQ(bound.keys.log, (Strings{"reserve ⌥Space", "reserve ⌘K", "release ⌥Space"}));
    EXPECT_EQ(bound.binding.configuration(), commandK);
}

TEST(HotkeyBinding, ARefusedKeyLeavesTheOldOneAtWork)
{
    Bound bound;
    bound.keys.taken = {commandK};
    bound.binding.replace(optionSpace);
    EXPECT_EQ(refusal([&] { bound.binding.replace(commandK); }), Reason::rejected);
    EXPECT_EQ(bound.binding.configuration(), optionSpace);
    EXPECT_TRUE(bound.binding.active());
    EXPECT_EQ(bound.keys.held, std::vector{optionSpace});
}

TEST(HotkeyBinding, AnInvalidKeyNeverReachesTheSystem)
{
    Bound bound;
    bound.binding.replace(optionSpace);
    EXPECT_EQ(refusal([&] { bound.binding.replace({.keyCode = 0, .modifiers = shift}); }), Reason::invalid);
    EXPECT_EQ(refusal([&] { bound.binding.replace({.keyCode = 53, .modifiers = option}); }), Reason::invalid);
    EXPECT_EQ(bound.keys.log, Strings{"reserve ⌥Space"});
    EXPECT_EQ(bound.binding.configuration(), optionSpace);
}

TEST(HotkeyBinding, TheSameKeyWithANewLabelAsksTheSystemNothing)
{
    Bound bound;
    bound.binding.replace({.keyCode = 12, .modifiers = option});
    bound.binding.replace({.keyCode = 12, .modifiers = option, .keyLabel = "Q"});
    EXPECT_EQ(bound.keys.log.size(), 1u);
    EXPECT_EQ(bound.binding.configuration()->keyLabel, "Q");
}

TEST(HotkeyBinding, StoppingForgetsTheKeyAndReleasingKeepsItsConfiguration)
{
    Bound bound;
    bound.binding.replace(optionSpace);
    bound.binding.release();
    EXPECT_FALSE(bound.binding.active());
    EXPECT_EQ(bound.binding.configuration(), optionSpace);
    EXPECT_TRUE(bound.keys.held.empty());
    bound.binding.replace(optionSpace);
    EXPECT_TRUE(bound.binding.active()) << "a released key is asked for again, although it is the same";
    bound.binding.stop();
    EXPECT_FALSE(bound.binding.active());
    EXPECT_FALSE(bound.binding.configuration());
    EXPECT_TRUE(bound.keys.held.empty());
}

// The binding, where the system decides later

namespace {

/// A binding on a desktop that asks its user.
struct Asking : Bound {
    Asking() { keys.asksUser = true; }
};

const HotkeyConfiguration controlL{.keyCode = 37, .modifiers = control};

} // namespace

TEST(HotkeyBinding, UntilTheSystemHasDecidedTheOldKeyWorksBesideTheNewOne)
{
    Asking bound;
    bound.binding.replace(optionSpace);
    bound.binding.granted(optionSpace);
    bound.binding.replace(commandK);
    EXPECT_EQ(bound.keys.held, (std::vector{optionSpace, commandK}));
    EXPECT_EQ(bound.binding.configuration(), commandK);
    bound.binding.granted(commandK);
    EXPECT_EQ(bound.keys.held, std::vector{commandK});
}

TEST(HotkeyBinding, AKeyThatIsRefusedLaterLeavesTheOldOneAtWork)
{
    Asking bound;
    bound.binding.replace(optionSpace);
    bound.binding.replace(commandK);
    EXPECT_TRUE(bound.binding.lost(commandK));
    EXPECT_EQ(bound.keys.held, std::vector{optionSpace});
    EXPECT_EQ(bound.binding.configuration(), optionSpace);
    EXPECT_TRUE(bound.binding.active());
    EXPECT_TRUE(bound.binding.lost(optionSpace));
    EXPECT_FALSE(bound.binding.active());
    EXPECT_EQ(bound.binding.configuration(), optionSpace);
    EXPECT_FALSE(bound.binding.lost(optionSpace)) << "it is lost once";
}

TEST(HotkeyBinding, AThirdKeyReplacesTheOneThatIsNotDecidedAndNotTheOldOne)
{
    Asking bound;
    bound.binding.replace(optionSpace);
    bound.binding.granted(optionSpace);
    bound.binding.replace(commandK);
    bound.binding.replace(controlL);
    EXPECT_EQ(bound.keys.held, (std::vector{optionSpace, controlL}));
    bound.binding.granted(commandK); // an answer that comes too late
    EXPECT_TRUE(bound.binding.lost(controlL));
    EXPECT_EQ(bound.keys.held, std::vector{optionSpace});
}

TEST(HotkeyBinding, GoingBackToTheOldKeyBeforeTheAnswerAsksTheSystemNothing)
{
    Asking bound;
    bound.binding.replace(optionSpace);
    bound.binding.replace(commandK);
    bound.binding.replace(optionSpace);
    EXPECT_EQ(bound.keys.log, (Strings{"reserve ⌥Space", "reserve ⌘K", "release ⌘K"}));
    EXPECT_EQ(bound.binding.configuration(), optionSpace);
    EXPECT_TRUE(bound.binding.active());
}

TEST(HotkeyBinding, AnOldKeyThatIsLostBeforeTheAnswerIsNotReturnedTo)
{
    Asking bound;
    bound.binding.replace(optionSpace);
    bound.binding.replace(commandK);
    EXPECT_FALSE(bound.binding.lost(optionSpace)) << "another is to come in its place";
    EXPECT_TRUE(bound.binding.lost(commandK));
    EXPECT_FALSE(bound.binding.active());
}

TEST(HotkeyBinding, ASuspensionBeforeTheAnswerGivesBothKeysBackAndTakesBothAgain)
{
    Asking bound;
    bound.binding.replace(optionSpace);
    bound.binding.replace(commandK);
    bound.binding.release();
    EXPECT_TRUE(bound.keys.held.empty());
    bound.binding.replace(commandK);
    EXPECT_EQ(bound.keys.held, (std::vector{optionSpace, commandK}));
    EXPECT_TRUE(bound.binding.lost(commandK));
    EXPECT_EQ(bound.keys.held, std::vector{optionSpace});
}

// The service

TEST(HotkeyService, TheRegisteredKeyTriggersAndNoOther)
{
    Served served;
    served.service.registerHotkey(optionSpace);
    EXPECT_TRUE(served.keys.press(optionSpace));
    EXPECT_FALSE(served.keys.press(commandK));
    EXPECT_EQ(served.triggered, 1);
}

TEST(HotkeyService, WithoutGlobalShortcutsEveryRegistrationIsUnavailable)
{
    HeadlessHotkeys keys;
    keys.unavailable = true;
    HotkeyService service(keys, [] {});
    EXPECT_EQ(refusal([&] { service.registerHotkey(optionSpace); }), Reason::unavailable);
    EXPECT_FALSE(service.configuration());
    EXPECT_TRUE(keys.log.empty());
}

TEST(HotkeyService, WhileSuspendedTheKeyIsFreeAndThenItIsTakenAgain)
{
    Served served;
    served.service.registerHotkey(optionSpace);
    served.service.suspend(true);
    EXPECT_FALSE(served.keys.press(optionSpace));
    EXPECT_EQ(served.service.configuration(), optionSpace);
    served.service.suspend(false);
    EXPECT_TRUE(served.keys.press(optionSpace));
}

TEST(HotkeyService, SuspendingWithoutAKeyIsHarmless)
{
    Served served;
    served.service.suspend(true);
    served.service.suspend(false);
    EXPECT_TRUE(served.keys.log.empty());
}

TEST(HotkeyService, AKeyThatAnotherProgramTookMeanwhileIsRefusedOnReturn)
{
    Served served;
    served.service.registerHotkey(optionSpace);
    served.service.suspend(true);
    served.keys.taken = {optionSpace};
    EXPECT_EQ(refusal([&] { served.service.suspend(false); }), Reason::rejected);
    EXPECT_FALSE(served.service.active());
    served.keys.taken.clear();
    served.service.suspend(false);
    EXPECT_TRUE(served.service.active()) << "it stays what is to be restored";
}

TEST(HotkeyService, AKeyInAWindowOfTheProgramTriggersOnceHoweverLongItIsHeld)
{
    Served served;
    served.service.registerHotkey(optionSpace);
    EXPECT_TRUE(served.service.handleKeyDown(49, option, false));
    EXPECT_TRUE(served.service.handleKeyDown(49, option, true));
    EXPECT_TRUE(served.service.handleKeyDown(49, option, true));
    EXPECT_EQ(served.triggered, 1);
    EXPECT_FALSE(served.service.handleKeyDown(49, option | shift, false));
    EXPECT_FALSE(served.service.handleKeyDown(40, option, false));
    served.service.suspend(true);
    EXPECT_FALSE(served.service.handleKeyDown(49, option, false)) << "it belongs to the recorder now";
    EXPECT_EQ(served.triggered, 1);
}

TEST(HotkeyService, AKeyThatTheSystemTakesBackIsGoneAndTold)
{
    Served served;
    served.service.registerHotkey(optionSpace);
    served.keys.handlers.lost(optionSpace, HotkeyRegistrationError(Reason::unavailable));
    EXPECT_EQ(served.losses, std::vector{Reason::unavailable});
    EXPECT_FALSE(served.service.active());
    EXPECT_EQ(served.service.configuration(), optionSpace);
}

TEST(HotkeyService, StoppingLetsTheKeyGoBeforeItStopsListening)
{
    Served served;
    served.service.registerHotkey(optionSpace);
    served.service.stop();
    served.service.stop();
    EXPECT_EQ(served.keys.log, (Strings{"reserve ⌥Space", "release ⌥Space", "remove"}));
    EXPECT_EQ(refusal([&] { served.service.registerHotkey(optionSpace); }), Reason::unavailable);
}
