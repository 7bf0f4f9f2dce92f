#include "tests/support/TestPalette.h"

#include "Vorrel/Platform/Headless/HeadlessHotkeys.h"
#include "Vorrel/Shell/HotkeyService.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using Tab = SettingsState::Tab;

namespace {

const HotkeyConfiguration commandK{.keyCode = 40, .modifiers = HotkeyConfiguration::command};
const HotkeyConfiguration controlL{.keyCode = 37, .modifiers = HotkeyConfiguration::control};

/// The settings over a store in memory, with a shortcut that is registered as in the program.
struct Settings : TestPalette {
    Settings()
    {
        model().updateHotkey = [this](const HotkeyConfiguration &hotkey) {
            asked.push_back(hotkey.displayName());
            binding.replace(hotkey);
        };
    }

    SettingsState &model() { return services->preferences(); }
    void edit(const std::function<void(AppPreferences &)> &change)
    {
        AppPreferences draft = model().preferences;
        change(draft);
        model().preferences = draft;
    }
    void save()
    {
        model().save();
        settle();
    }
    void load() { await(loop, model().load()); }
    std::optional<JSONValue> stored() { return await(loop, services->settings.load("preferences")); }
    void store(JSONValue json) { await(loop, services->settings.save("preferences", std::move(json))); }
    void breakTheStore() { await(loop, services->database->close()); }
    std::string message() { return model().message.get().value_or(""); }
    std::size_t hotkeyErrors()
    {
        const auto &events = services->diagnostics.errorEvents();
        return static_cast<std::size_t>(
            std::ranges::count(events, DiagnosticsService::Category::hotkey, [](const auto &event) { return event.category; }));
    }

    HeadlessHotkeys keys;
    HotkeyBinding binding{keys};
    Strings asked; ///< Every shortcut that was to be registered.
};

} // namespace

// Loading

TEST(SettingsState, WithoutADocumentTheDefaultsStand)
{
    Settings settings;
    settings.load();
    EXPECT_EQ(settings.model().preferences.get(), AppPreferences());
    EXPECT_EQ(settings.model().preferences->clipboardLimit, 500);
    EXPECT_EQ(settings.model().preferences->model, "gpt-4.1-mini");
    EXPECT_FALSE(settings.model().preferences->aiEnabled);
    EXPECT_FALSE(settings.stored()) << "looking at settings writes none";
}

TEST(SettingsState, WhatWasSavedIsLoadedAndApplied)
{
    Settings settings;
    settings.store(AppPreferences{.clipboardEnabled = false,
        .clipboardLimit = 7,
        .hotkey = {.keyCode = 12, .modifiers = 2304, .keyLabel = "Q"},
        .model = "m",
        .aiEnabled = true,
        .confirmToolWrites = false}
                       .json());
    settings.load();
    EXPECT_EQ(settings.model().preferences->hotkey.keyLabel, "Q");
    EXPECT_EQ(settings.model().appliedHotkey.get(), settings.model().preferences->hotkey);
    EXPECT_TRUE(settings.model().preferences->aiEnabled);
    EXPECT_FALSE(settings.clipboard->enabled);
    EXPECT_EQ(settings.clipboard->maximumItems, 7);
    EXPECT_FALSE(settings.services->tools().policy.confirmWrites);
    EXPECT_TRUE(settings.asked.empty()) << "registering is the launch's own step";
}

TEST(SettingsState, ADocumentHasTheNamesOfItsFieldsAndNoLabelWhereThereIsNone)
{
    EXPECT_EQ(AppPreferences().json().encodedString(),
        R"({"aiEnabled":false,"clipboardEnabled":true,"clipboardLimit":500,"confirmToolWrites":true,)"
        R"("hotkey":{"keyCode":49,"modifiers":2048},"model":"gpt-4.1-mini"})");
}

TEST(SettingsState, ADocumentThatLacksAKeyOrHasAWrongOneFailsToLoad)
{
    const JSONValue::Object whole = *AppPreferences().json().object();
    for (const auto &[key, value] : whole) {
        SCOPED_TRACE(key);
        for (const bool missing : {true, false}) {
            Settings settings;
            JSONValue::Object broken = whole;
            if (missing)
                broken.erase(key);
            else
                broken[key] = JSONValue::Array();
            settings.store(broken);
            EXPECT_THROW(settings.load(), JSONError);
            EXPECT_EQ(settings.model().preferences.get(), AppPreferences());
        }
    }
}

TEST(SettingsState, NumbersBeyondTheirTypeFailToLoad)
{
    const struct {
        const char *why;
        const char *json;
    } cases[] = {
        {"a negative key code", R"({"keyCode":-1,"modifiers":2048})"},
        {"a key code beyond 32 bits", R"({"keyCode":4294967296,"modifiers":2048})"},
        {"half a modifier", R"({"keyCode":49,"modifiers":2048.5})"},
        {"a label that is no text", R"({"keyCode":49,"modifiers":2048,"keyLabel":7})"},
        {"no modifiers", R"({"keyCode":49})"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        JSONValue::Object document = *AppPreferences().json().object();
        document["hotkey"] = JSONValue::parse(c.json);
        EXPECT_THROW(AppPreferences::decode(document), JSONError);
    }
    JSONValue::Object document = *AppPreferences().json().object();
    document["hotkey"] = JSONValue::parse(R"({"keyCode":4294967295,"modifiers":0,"keyLabel":null})");
    EXPECT_EQ(AppPreferences::decode(document).hotkey.keyCode, 4294967295u) << "the limit itself";
}

// Saving

TEST(SettingsState, SavingRegistersTheKeyStoresAndApplies)
{
    Settings settings;
    settings.edit([](AppPreferences &draft) {
        draft.hotkey = commandK;
        draft.clipboardEnabled = false;
        draft.confirmToolWrites = false;
        draft.model = "  other \n";
    });
    settings.model().hotkeyIssue = "an earlier failure";
    settings.model().hotkeyAttempt = controlL;
    settings.save();
    EXPECT_EQ(settings.message(), "Settings saved.");
    EXPECT_EQ(settings.binding.configuration(), commandK);
    EXPECT_EQ(settings.model().appliedHotkey.get(), commandK);
    EXPECT_EQ(settings.model().activeHotkey.get(), commandK);
    EXPECT_FALSE(settings.model().hotkeyIssue.get());
    EXPECT_FALSE(settings.model().hotkeyAttempt.get());
    EXPECT_FALSE(settings.clipboard->enabled);
    EXPECT_FALSE(settings.services->tools().policy.confirmWrites);
    EXPECT_EQ(AppPreferences::decode(*settings.stored()).model, "other");
    EXPECT_FALSE(settings.model().saving.get());
}

TEST(SettingsState, ADraftChangesNothingUntilItIsSaved)
{
    Settings settings;
    settings.load();
    settings.model().draftSpotlightHotkey();
    settings.settle();
    EXPECT_EQ(settings.model().preferences->hotkey, (HotkeyConfiguration{.keyCode = 49, .modifiers = 256}));
    EXPECT_EQ(settings.model().appliedHotkey.get(), HotkeyConfiguration());
    EXPECT_TRUE(settings.asked.empty());
    EXPECT_FALSE(settings.stored());
}

TEST(SettingsState, TheClipboardLimitIsSavedWithinItsBounds)
{
    const struct {
        int entered, saved;
    } cases[] = {{0, 1}, {1, 1}, {-5, 1}, {10'000, 10'000}, {10'001, 10'000}, {20'000, 10'000}, {500, 500}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.entered);
        Settings settings;
        settings.edit([&](AppPreferences &draft) { draft.clipboardLimit = c.entered; });
        settings.save();
        EXPECT_EQ(AppPreferences::decode(*settings.stored()).clipboardLimit, c.saved);
        EXPECT_EQ(settings.model().preferences->clipboardLimit, c.saved) << "the field shows what was saved";
        EXPECT_EQ(settings.clipboard->maximumItems, c.saved);
    }
}

TEST(SettingsState, ASmallerLimitTrimsTheHistoryAtOnce)
{
    Settings settings;
    const ClipboardRepository history(settings.services->database, settings.clock);
    for (const char *text : {"one", "two", "three"}) {
        settings.clock.advance(1s);
        await(settings.loop, history.insert(text, {}, 500));
    }
    settings.edit([](AppPreferences &draft) { draft.clipboardLimit = 0; });
    settings.save();
    const auto left = await(settings.loop, history.search(""));
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0].content, "three");
    EXPECT_EQ(settings.message(), "Settings saved.");
}

TEST(SettingsState, AHistoryThatCannotBeTrimmedIsToldAndTheSettingsStand)
{
    Settings settings;
    await(settings.loop, settings.services->database->execute("DROP TABLE clipboard_history"));
    settings.edit([](AppPreferences &draft) { draft.clipboardLimit = 7; });
    settings.save();
    EXPECT_EQ(settings.message(), "Settings saved, but old clipboard entries could not be trimmed. Try saving again.");
    EXPECT_EQ(AppPreferences::decode(*settings.stored()).clipboardLimit, 7);
    EXPECT_EQ(settings.clipboard->maximumItems, 7);
    EXPECT_FALSE(settings.model().saving.get());
}

TEST(SettingsState, EditsMadeDuringASaveAreKept)
{
    Settings settings;
    settings.edit([](AppPreferences &draft) { draft.clipboardLimit = 20'000; });
    settings.model().save();
    EXPECT_TRUE(settings.model().saving.get());
    settings.edit([](AppPreferences &draft) {
        draft.clipboardLimit = 30'000;
        draft.model = "newer";
    });
    settings.settle();
    EXPECT_EQ(settings.model().preferences->clipboardLimit, 30'000);
    EXPECT_EQ(settings.model().preferences->model, "newer");
    EXPECT_EQ(AppPreferences::decode(*settings.stored()).clipboardLimit, 10'000);
}

TEST(SettingsState, ASecondSaveDuringTheFirstDoesNothing)
{
    Settings settings;
    settings.model().save();
    settings.edit([](AppPreferences &draft) { draft.hotkey = commandK; });
    settings.model().save();
    settings.settle();
    EXPECT_EQ(settings.asked, Strings{"⌥Space"});
    EXPECT_EQ(AppPreferences::decode(*settings.stored()).hotkey, HotkeyConfiguration());
}

TEST(SettingsState, AModelOfBlanksFailsBeforeTheKeyIsTouched)
{
    Settings settings;
    settings.edit([](AppPreferences &draft) { draft.model = " \t "; });
    settings.save();
    EXPECT_EQ(settings.message(), "Enter a model identifier.");
    EXPECT_TRUE(settings.asked.empty());
    EXPECT_FALSE(settings.stored());
    EXPECT_FALSE(settings.model().saving.get());
}

TEST(SettingsState, ATakenKeyLeavesEverythingUnsavedAndComesToTheFront)
{
    Settings settings;
    settings.save();
    settings.keys.taken = {commandK};
    settings.edit([](AppPreferences &draft) {
        draft.hotkey = commandK;
        draft.model = "other";
    });
    settings.model().selectedTab = Tab::ai;
    settings.save();
    const std::string why = HotkeyRegistrationError(HotkeyRegistrationError::Reason::rejected).errorDescription();
    EXPECT_EQ(settings.message(), why);
    EXPECT_EQ(settings.model().hotkeyIssue.get(), why);
    EXPECT_EQ(settings.model().hotkeyAttempt.get(), commandK);
    EXPECT_EQ(settings.model().activeHotkey.get(), HotkeyConfiguration());
    EXPECT_EQ(settings.model().selectedTab.get(), Tab::general);
    EXPECT_EQ(settings.binding.configuration(), HotkeyConfiguration()) << "the old shortcut still works";
    EXPECT_EQ(AppPreferences::decode(*settings.stored()).model, "gpt-4.1-mini");
    EXPECT_EQ(settings.hotkeyErrors(), 1u);
}

TEST(SettingsState, WhenTheStoreFailsTheOldKeyIsActiveAgain)
{
    Settings settings;
    settings.save();
    settings.breakTheStore();
    settings.edit([](AppPreferences &draft) { draft.hotkey = commandK; });
    settings.save();
    EXPECT_EQ(settings.message(), "The database is closed.");
    EXPECT_EQ(settings.asked, (Strings{"⌥Space", "⌘K", "⌥Space"}));
    EXPECT_EQ(settings.binding.configuration(), HotkeyConfiguration());
    EXPECT_EQ(settings.model().activeHotkey.get(), HotkeyConfiguration());
    EXPECT_EQ(settings.model().appliedHotkey.get(), HotkeyConfiguration());
    EXPECT_FALSE(settings.model().hotkeyIssue.get());
}

TEST(SettingsState, WhenTheOldKeyCannotBeTakenBackTheNewOneIsToldAsActive)
{
    Settings settings;
    settings.save();
    settings.breakTheStore();
    settings.edit([](AppPreferences &draft) { draft.hotkey = commandK; });
    settings.model().updateHotkey = [&](const HotkeyConfiguration &hotkey) {
        settings.binding.replace(hotkey);
        settings.keys.taken = {HotkeyConfiguration()}; // another program takes it as soon as it is free
    };
    settings.save();
    EXPECT_EQ(settings.model().activeHotkey.get(), commandK);
    EXPECT_EQ(settings.model().hotkeyAttempt.get(), HotkeyConfiguration());
    EXPECT_TRUE(settings.model().hotkeyIssue.get());
    EXPECT_EQ(settings.message(), "The database is closed.") << "why nothing was saved";
}

// The shortcut's own operations

TEST(SettingsState, RestoringSetsTheDefaultAndSavesAtOnce)
{
    Settings settings;
    settings.edit([](AppPreferences &draft) { draft.hotkey = {.keyCode = 12, .modifiers = 256, .keyLabel = "Q"}; });
    settings.model().restoreDefaultHotkey();
    settings.settle();
    EXPECT_EQ(settings.model().preferences->hotkey, HotkeyConfiguration());
    EXPECT_EQ(AppPreferences::decode(*settings.stored()).hotkey, HotkeyConfiguration());
}

TEST(SettingsState, RecordingFromOutsideShowsTheTabAndStartsTheRecorder)
{
    Settings settings;
    settings.model().selectedTab = Tab::mcp;
    const int before = settings.model().recorderRequest;
    settings.model().recordCustomHotkey();
    EXPECT_EQ(settings.model().selectedTab.get(), Tab::general);
    EXPECT_EQ(settings.model().recorderRequest.get(), before + 1);
}

TEST(SettingsState, AForeignErrorIsToldInTheProgramsOwnWords)
{
    Settings settings;
    settings.model().reportHotkeyFailure(std::make_exception_ptr(std::runtime_error("secret wording")), commandK, std::nullopt);
    EXPECT_EQ(settings.model().hotkeyIssue.get(), "The operation could not be completed. Please try again or check permissions.");
    EXPECT_FALSE(settings.model().activeHotkey.get());
}

TEST(SettingsState, WhereTheSystemHasNoPageOfKeysTheWayIsTold)
{
    Settings settings;
    settings.model().openKeyboardSettings();
    settings.settle();
    EXPECT_EQ(settings.system.requests(), Strings{"settings keyboard"});
    EXPECT_EQ(settings.message(), "");
    settings.system.opensSettings = false;
    settings.model().openKeyboardSettings();
    settings.settle();
    EXPECT_EQ(settings.message(), "Open System Settings → Keyboard → Keyboard Shortcuts.");
}

TEST(SettingsState, EveryPropertyIsObserved)
{
    Settings settings;
    int changes = 0;
    const auto subscriptions = settings.model().observe([&] { ++changes; });
    settings.edit([](AppPreferences &draft) { draft.aiEnabled = true; });
    settings.model().selectedTab = Tab::mcp;
    settings.model().hotkeyIssue = "a";
    settings.model().hotkeyAttempt = commandK;
    settings.model().activeHotkey = commandK;
    settings.model().appliedHotkey = commandK;
    settings.model().recorderRequest = 5;
    settings.model().message = "b";
    settings.model().saving = true;
    EXPECT_EQ(changes, 9);
}
