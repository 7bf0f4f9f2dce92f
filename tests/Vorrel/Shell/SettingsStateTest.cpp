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

TEST(SettingsState, AKeyThatIsLostDuringASaveStaysReported)
{
    Settings settings;
    settings.edit([](AppPreferences &draft) { draft.hotkey = commandK; });
    settings.model().updateHotkey = [&](const HotkeyConfiguration &hotkey) {
        settings.binding.replace(hotkey);
        runLater(settings.loop.executor(), [&] { // while the store writes
            const auto lost = std::make_exception_ptr(HotkeyRegistrationError(HotkeyRegistrationError::Reason::rejected));
            settings.model().reportHotkeyFailure(lost, commandK, std::nullopt);
        });
    };
    settings.save();
    EXPECT_EQ(settings.message(), "Settings saved.");
    EXPECT_EQ(settings.model().appliedHotkey.get(), commandK);
    EXPECT_FALSE(settings.model().activeHotkey.get());
    EXPECT_EQ(settings.model().hotkeyAttempt.get(), commandK);
    EXPECT_TRUE(settings.model().hotkeyIssue.get());
}

TEST(SettingsState, AKeyThatIsKeptIsStoredAndNothingElseOfTheDraftIs)
{
    Settings settings;
    settings.store(AppPreferences{.hotkey = commandK, .model = "stored"}.json());
    settings.load();
    settings.edit([](AppPreferences &draft) { draft.model = "draft"; });
    settings.model().keepHotkey(controlL);
    EXPECT_TRUE(settings.model().saving.get());
    settings.settle();
    EXPECT_FALSE(settings.model().saving.get());
    const AppPreferences stored = AppPreferences::decode(*settings.stored());
    EXPECT_EQ(stored.hotkey, controlL);
    EXPECT_EQ(stored.model, "stored");
    EXPECT_EQ(settings.model().appliedHotkey.get(), controlL);
    EXPECT_EQ(settings.model().preferences->hotkey, commandK);
    EXPECT_EQ(settings.model().preferences->model, "draft");
}

TEST(SettingsState, AKeyThatIsKeptDuringASaveIsStoredAfterIt)
{
    Settings settings;
    settings.edit([](AppPreferences &draft) { draft.hotkey = commandK, draft.model = "edited"; });
    settings.model().updateHotkey = [&](const HotkeyConfiguration &) {
        runLater(settings.loop.executor(), [&] { settings.model().keepHotkey(controlL); }); // while the store writes
    };
    settings.save();
    const AppPreferences stored = AppPreferences::decode(*settings.stored());
    EXPECT_EQ(stored.hotkey, controlL);
    EXPECT_EQ(stored.model, "edited");
    EXPECT_EQ(settings.model().appliedHotkey.get(), controlL);
    EXPECT_FALSE(settings.model().saving.get());
}

TEST(SettingsState, AKeyThatCannotBeKeptInTheStoreIsToldAndSavingIsPossibleAgain)
{
    Settings settings;
    settings.breakTheStore();
    settings.model().keepHotkey(controlL);
    settings.settle();
    EXPECT_EQ(settings.message(), "The database is closed.");
    EXPECT_FALSE(settings.model().saving.get());
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

TEST(SettingsState, WhereTheSystemHasNoSuchPageTheWayIsTold)
{
    const struct {
        void (SettingsState::*open)();
        const char *page, *way;
    } cases[] = {
        {&SettingsState::openKeyboardSettings, "settings keyboard", "Open System Settings → Keyboard → Keyboard Shortcuts."},
        {&SettingsState::openLoginItemsSettings, "settings login items", "Open System Settings → General → Login Items."},
        {&SettingsState::openFilePrivacySettings, "settings file privacy",
            "Open System Settings → Privacy & Security → Files & Folders."},
    };
    for (const auto &c : cases) {
        Settings settings;
        (settings.model().*c.open)();
        settings.settle();
        EXPECT_EQ(settings.system.requests(), Strings{c.page});
        EXPECT_EQ(settings.message(), "");
        settings.system.opensSettings = false;
        (settings.model().*c.open)();
        settings.settle();
        EXPECT_EQ(settings.message(), c.way);
    }
}

// The key for the provider

TEST(SettingsState, AKeyIsKeptInTheKeychainAndLeavesItsField)
{
    Settings settings;
    settings.model().apiKey = "sk-1";
    settings.save();
    EXPECT_EQ(settings.message(), "Settings saved.");
    EXPECT_EQ(settings.secrets.items(), (std::map<std::string, std::string>{{"ai.openai", "sk-1"}}));
    EXPECT_EQ(settings.model().apiKey.get(), "");
    EXPECT_TRUE(settings.model().keySaved.get());
}

TEST(SettingsState, AnEmptyKeyFieldLeavesTheKeychainUntouched)
{
    Settings settings;
    settings.secrets.keep("ai.openai", "sk-old");
    settings.save();
    EXPECT_EQ(settings.message(), "Settings saved.");
    EXPECT_EQ(settings.secrets.requests(), Strings());
    EXPECT_FALSE(settings.model().keySaved.get());
}

TEST(SettingsState, AKeyTypedDuringASaveIsNotLost)
{
    Settings settings;
    settings.model().apiKey = "sk-1";
    settings.model().save();
    settings.model().apiKey = "sk-2";
    settings.settle();
    EXPECT_EQ(settings.secrets.items().at("ai.openai"), "sk-1");
    EXPECT_EQ(settings.model().apiKey.get(), "sk-2");
}

TEST(SettingsState, AKeyThatCannotBeKeptRollsTheShortcutBackAndIsCleared)
{
    Settings settings;
    settings.save();
    settings.secrets.updateOutcome = settings.secrets.addOutcome = SecretStore::Outcome::denied;
    settings.edit([](AppPreferences &draft) { draft.hotkey = commandK; });
    settings.model().apiKey = "sk-1";
    settings.save();
    EXPECT_FALSE(settings.message().empty());
    EXPECT_NE(settings.message(), "Settings saved.");
    EXPECT_EQ(settings.binding.configuration(), HotkeyConfiguration());
    EXPECT_EQ(AppPreferences::decode(*settings.stored()).hotkey, HotkeyConfiguration());
    EXPECT_EQ(settings.model().apiKey.get(), "") << "it does not stay on the screen";
    EXPECT_FALSE(settings.model().keySaved.get());
    EXPECT_FALSE(settings.model().saving.get());
}

TEST(SettingsState, AFailureAtAnyStepLeavesWhatWasSavedAndTheShortcutAsTheyWere)
{
    enum class Step { model, hotkey, key, store };
    for (const Step step : {Step::model, Step::hotkey, Step::key, Step::store}) {
        SCOPED_TRACE(static_cast<int>(step));
        Settings settings;
        settings.save();
        settings.edit([&](AppPreferences &draft) {
            draft.hotkey = commandK;
            draft.clipboardLimit = 7;
            draft.confirmToolWrites = false;
            draft.model = step == Step::model ? " " : "other";
        });
        settings.model().apiKey = "sk-1";
        if (step == Step::hotkey)
            settings.keys.taken = {commandK};
        if (step == Step::key)
            settings.secrets.updateOutcome = settings.secrets.addOutcome = SecretStore::Outcome::denied;
        if (step == Step::store)
            await(settings.loop, settings.services->database->execute("ALTER TABLE settings RENAME TO away"));
        settings.save();
        EXPECT_NE(settings.message(), "Settings saved.");
        EXPECT_EQ(settings.binding.configuration(), HotkeyConfiguration());
        EXPECT_EQ(settings.model().appliedHotkey.get(), HotkeyConfiguration());
        EXPECT_EQ(settings.clipboard->maximumItems, 500);
        EXPECT_TRUE(settings.services->tools().policy.confirmWrites);
        EXPECT_EQ(settings.model().preferences->clipboardLimit, 7) << "the draft is kept";
        EXPECT_EQ(settings.model().apiKey.get(), "");
        EXPECT_FALSE(settings.model().saving.get());
        if (step == Step::store)
            await(settings.loop, settings.services->database->execute("ALTER TABLE away RENAME TO settings"));
        EXPECT_EQ(AppPreferences::decode(*settings.stored()), AppPreferences());
        settings.keys.taken.clear();
        settings.secrets.updateOutcome = settings.secrets.addOutcome = std::nullopt;
        settings.edit([](AppPreferences &draft) { draft.model = "other"; });
        settings.save();
        EXPECT_EQ(settings.message(), "Settings saved.") << "the same draft goes through once nothing is in the way";
        EXPECT_EQ(settings.binding.configuration(), commandK);
    }
}

TEST(SettingsState, RemovingTheKeySaysSoAndAFailureSaysWhy)
{
    Settings settings;
    settings.model().apiKey = "sk-1";
    settings.save();
    settings.model().removeKey();
    settings.settle();
    EXPECT_TRUE(settings.secrets.items().empty());
    EXPECT_FALSE(settings.model().keySaved.get());
    EXPECT_EQ(settings.message(), "API key removed.");
    settings.secrets.removeOutcome = SecretStore::Outcome::denied;
    settings.model().removeKey();
    settings.settle();
    EXPECT_EQ(settings.message(), "The Keychain item could not be removed.");
}

// Starting with the session

TEST(SettingsState, TheLoginItemHasFourOutcomesEachWithItsSentence)
{
    using Status = SettingsState::LoginItemStatus;
    Settings settings;
    settings.model().setLogin(true);
    settings.settle();
    EXPECT_EQ(settings.model().loginStatus.get(), Status::enabled);
    EXPECT_EQ(settings.message(), "Korvane will open at login.");
    settings.model().setLogin(false);
    settings.settle();
    EXPECT_EQ(settings.model().loginStatus.get(), Status::disabled);
    EXPECT_EQ(settings.message(), "Korvane will not open at login.");
    settings.loginItem.switchedOff = true;
    settings.model().setLogin(true);
    settings.settle();
    EXPECT_EQ(settings.model().loginStatus.get(), Status::awaitingApproval);
    EXPECT_EQ(settings.message(), "Waiting for macOS approval. Allow Korvane in System Settings → General → Login Items.");
    settings.loginItem.refuses = true;
    settings.model().setLogin(false);
    settings.settle();
    EXPECT_EQ(settings.model().loginStatus.get(), Status::failed);
    EXPECT_EQ(settings.message(), "Login registration failed. Move Korvane.app to Applications and try again.");
    EXPECT_EQ(SettingsState::sentence(Status::failed), settings.message());
}

TEST(SettingsState, WhatTheUserChangedElsewhereIsSeenWhenTheStatusIsRefreshed)
{
    using Status = SettingsState::LoginItemStatus;
    Settings settings;
    settings.load();
    settings.settle();
    EXPECT_EQ(settings.model().loginStatus.get(), Status::disabled);
    settings.loginItem.present = LoginItem::Status::awaitingApproval;
    settings.model().refreshLoginStatus();
    settings.settle();
    EXPECT_EQ(settings.model().loginStatus.get(), Status::awaitingApproval);
    settings.loginItem.present = LoginItem::Status::enabled;
    settings.loginItem.refuses = true;
    settings.model().refreshLoginStatus();
    settings.settle();
    EXPECT_EQ(settings.model().loginStatus.get(), Status::enabled) << "a refresh never fails";
    EXPECT_EQ(settings.message(), "") << "nor does it say anything";
}

// Clipboard, quicklinks, folders

TEST(SettingsState, TheHistoryIsClearedOnceThatIsAllowed)
{
    Settings settings;
    const ClipboardRepository history(settings.services->database, settings.clock);
    await(settings.loop, history.insert("kept", {}, 500));
    settings.model().clearClipboard();
    settings.settle();
    ASSERT_EQ(settings.dialogs.asked().size(), 1u);
    EXPECT_EQ(settings.dialogs.asked()[0].title, "Clear Clipboard History?");
    EXPECT_EQ(settings.dialogs.asked()[0].detail, "All locally saved clipboard entries will be deleted.");
    EXPECT_EQ(await(settings.loop, history.search("")).size(), 1u) << "nothing before the answer";
    settings.dialogs.refuse();
    settings.settle();
    EXPECT_EQ(settings.message(), "The operation was cancelled.");
    EXPECT_EQ(await(settings.loop, history.search("")).size(), 1u);
    settings.dialogs.accept();
    settings.model().clearClipboard();
    settings.settle();
    EXPECT_EQ(settings.message(), "Clipboard history cleared.");
    EXPECT_TRUE(await(settings.loop, history.search("")).empty());
}

TEST(SettingsState, AQuicklinkIsCheckedStoredAndTold)
{
    Settings settings;
    int told = 0;
    settings.model().quicklinksChanged = [&] { ++told; };
    settings.model().quicklinkURL = "https://example.org";
    settings.model().quicklinkTitle = " \n";
    settings.model().addQuicklink();
    settings.settle();
    EXPECT_EQ(settings.message(), "Give the quicklink a name.");
    settings.model().quicklinkTitle = " Example ";
    settings.model().quicklinkURL = "mailto:a@example.org";
    settings.model().addQuicklink();
    settings.settle();
    EXPECT_EQ(settings.message(), "Quicklinks must use http, https or file addresses.");
    EXPECT_EQ(settings.model().quicklinkTitle.get(), " Example ") << "what was typed is kept";
    EXPECT_EQ(told, 0);
    settings.model().quicklinkURL = "  HTTPS://example.org/a ";
    settings.model().addQuicklink();
    settings.settle();
    EXPECT_EQ(settings.message(), "Quicklink saved. It appears in the palette immediately.");
    ASSERT_EQ(settings.model().quicklinks->size(), 1u);
    EXPECT_EQ(settings.model().quicklinks->front().title, "Example");
    EXPECT_EQ(settings.model().quicklinkTitle.get(), "");
    EXPECT_EQ(settings.model().quicklinkURL.get(), "");
    EXPECT_EQ(told, 1);
    settings.model().removeQuicklink(settings.model().quicklinks->front());
    settings.settle();
    EXPECT_TRUE(settings.model().quicklinks->empty());
    EXPECT_EQ(told, 2);
}

TEST(SettingsState, QuicklinksAreReadWithThePreferences)
{
    Settings settings;
    await(settings.loop, settings.services->quicklinks.save({.id = "a", .title = "A", .url = "https://a.example"}));
    settings.load();
    ASSERT_EQ(settings.model().quicklinks->size(), 1u);
    EXPECT_EQ(settings.model().quicklinks->front().id, "a");
}

TEST(SettingsState, AFolderThatWasChosenIsIndexedAndACancelledPanelChangesNothing)
{
    struct Roots : FileIndex {
        void addRoot(std::string path) override { added.push_back(std::move(path)); }
        Strings added;
    };
    HeadlessDesktop desktop;
    const auto roots = std::make_shared<Roots>();
    auto store =
        await(desktop.loop, Database::open(desktop.loop.executor(), ":memory:", Database::Access::readWrite, [] { return 0.0; }));
    AppServices::Injected injected;
    injected.fileIndex = roots;
    AppServices services(desktop.platform(), store, std::move(injected));
    services.preferences().addIndexRoot();
    desktop.loop.runUntilIdle();
    ASSERT_EQ(desktop.dialogs.asked().size(), 1u);
    const Dialogs::Choice panel = desktop.dialogs.asked()[0].choice;
    EXPECT_EQ(panel.title, "Choose a Folder to Search") << "the panel of the palette's own filter";
    EXPECT_EQ(panel.prompt, "Search Here");
    EXPECT_EQ(panel.message, "Choose a folder to narrow results to that scope. Search still covers every indexed root.");
    EXPECT_EQ(panel.directory, desktop.platform().folders.home);
    EXPECT_TRUE(panel.folders);
    EXPECT_FALSE(desktop.dialogs.asked()[0].choice.multiple);
    desktop.dialogs.refuse();
    desktop.loop.runUntilIdle();
    EXPECT_EQ(roots->added, Strings());
    desktop.dialogs.accept({"/srv/photos"});
    services.preferences().addIndexRoot();
    desktop.loop.runUntilIdle();
    EXPECT_EQ(roots->added, Strings{"/srv/photos"});
    desktop.loop.shutDown();
}

// Servers and credentials

TEST(SettingsState, ACredentialNeedsBothFieldsAndItsValueLeavesTheField)
{
    Settings settings;
    settings.model().credentialValue = "v";
    settings.model().saveCredential();
    settings.settle();
    EXPECT_EQ(settings.message(), "Enter an account name and secret.");
    settings.model().credentialAccount = "github";
    settings.model().credentialValue = std::string();
    settings.model().saveCredential();
    settings.settle();
    EXPECT_EQ(settings.message(), "Enter an account name and secret.");
    settings.model().credentialValue = "token";
    settings.model().saveCredential();
    settings.settle();
    EXPECT_EQ(settings.message(), "Credential saved in Keychain.");
    EXPECT_EQ(settings.secrets.items().at("github"), "token");
    EXPECT_EQ(settings.model().credentialAccount.get(), "github");
    EXPECT_EQ(settings.model().credentialValue.get(), "");
}

TEST(SettingsState, TheExampleOfAServerReadsAsOne)
{
    Settings settings;
    const auto example = MCPServerConfiguration::fromJSON(JSONValue::parse(settings.model().serverJSON.get()));
    EXPECT_EQ(example.name, "Local MCP");
    EXPECT_EQ(example.command, "/usr/bin/python3");
    EXPECT_EQ(example.args, Strings{"/absolute/path/to/server.py"});
    EXPECT_TRUE(settings.model().serverJSON.get().starts_with("{\n  \"name\": \"Local MCP\",\n"));
    EXPECT_TRUE(settings.model().serverJSON.get().ends_with("  \"env\": {}\n}"));
}

TEST(SettingsState, AServerThatCannotBeReadLeavesTheListUntouched)
{
    for (const char *text : {"", "{", "[]", "{}", R"({"name":7})", R"({"name":"a","transport":"pigeon"})"}) {
        SCOPED_TRACE(text);
        Settings settings;
        settings.model().serverJSON = text;
        settings.model().addServer();
        settings.settle();
        EXPECT_EQ(settings.message(), "The operation could not be completed. Please try again or check permissions.");
        EXPECT_TRUE(settings.model().mcp().configurations().empty());
    }
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
    settings.model().loginStatus = SettingsState::LoginItemStatus::failed;
    settings.model().keySaved = true;
    settings.model().quicklinks = std::vector<Quicklink>{{.id = "a", .title = "A", .url = "b"}};
    settings.model().apiKey = "c";
    settings.model().credentialAccount = "d";
    settings.model().credentialValue = "e";
    settings.model().serverJSON = "f";
    settings.model().quicklinkTitle = "g";
    settings.model().quicklinkURL = "h";
    settings.model().mcp()._configurations = std::vector<MCPServerConfiguration>{{.id = "i", .name = "j"}};
    settings.model().mcp()._status = std::map<std::string, std::string>{{"i", "k"}};
    EXPECT_EQ(changes, 20);
}
