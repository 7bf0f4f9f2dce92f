#include "tests/support/TestPalette.h"

#include "Vorrel/Platform/Headless/HeadlessHotkeys.h"
#include "Vorrel/Platform/Headless/HeadlessPaletteWindow.h"
#include "Vorrel/Platform/Headless/HeadlessSecretStore.h"
#include "Vorrel/Shell/AppLog.h"
#include "Vorrel/Shell/KorvaneApp.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;

namespace {

/// A temporary data folder that goes with its test.
struct DataFolder {
    DataFolder()
    {
        std::string pattern = std::filesystem::temp_directory_path() / "korvane-test-XXXXXX";
        path = ::mkdtemp(pattern.data());
    }
    ~DataFolder() { std::filesystem::remove_all(path); }
    std::string path;
};

/// The whole program over a desktop in memory; its store is in memory too unless a data folder is given.
struct TestApp : HeadlessDesktop {
    explicit TestApp(Strings arguments = {}, std::optional<std::string> data = {})
    {
        folders.data = data;
        AppDelegate::Host host{
            .platform = platformWithSecrets(),
            .status = status,
            .activation = receiver,
            .hotkeys = hotkeys,
            .makeWindow =
                [this](PaletteController &) {
                    auto made = std::make_unique<HeadlessPaletteWindow>();
                    window = made.get();
                    return made;
                },
            .makeSettingsWindow =
                [this](SettingsState &) {
                    auto made = std::make_unique<HeadlessSettingsWindow>();
                    settingsWindow = made.get();
                    return made;
                },
            .arguments = std::move(arguments),
            .selfTestLog = logFolder.path + "/selftest.log",
            .terminate = [this] { terminate(); },
            .stopped = [this](std::string_view step) { log.emplace_back(step); },
        };
        if (!data)
            host.createServices = [this](Platform ports) { return servicesInMemory(std::move(ports)); };
        delegate = std::make_unique<AppDelegate>(std::move(host));
        AppLog::observe([this](std::string_view category, AppLog::Level, std::string_view message) {
            messages.push_back(std::string(category) + ": " + std::string(message));
        });
    }
    ~TestApp()
    {
        AppLog::observe({});
        loop.shutDown();
        delegate.reset();
    }

    Task<std::shared_ptr<AppServices>> servicesInMemory(Platform ports)
    {
        try {
            if (createDelay > 0ms)
                co_await clock.sleep(createDelay);
        } catch (const Cancelled &) {
            if (!createFailure)
                throw;
        }
        if (createFailure)
            std::rethrow_exception(createFailure);
        auto database = co_await Database::open(loop.executor(), ":memory:", Database::Access::readWrite);
        if (brokenPreferences)
            co_await SettingsRepository(database).save("preferences", JSONValue::Object());
        AppServices::Injected injected;
        injected.fileIndex = std::make_unique<ScriptedIndex>();
        injected.clipboard = std::make_unique<ScriptedClipboard>();
        injected.shortcuts = std::make_unique<ScriptedShortcuts>();
        index = static_cast<ScriptedIndex *>(injected.fileIndex.get());
        index->clock = &clock;
        index->startDelay = indexDelay;
        clipboard = static_cast<ScriptedClipboard *>(injected.clipboard.get());
        shortcuts = static_cast<ScriptedShortcuts *>(injected.shortcuts.get());
        services = std::make_shared<AppServices>(std::move(ports), std::move(database), std::move(injected));
        services->storeIsNew = firstStart;
        co_return services;
    }

    Platform platformWithSecrets()
    {
        Platform ports = platform();
        ports.secrets = &secrets;
        return ports;
    }

    Strings selfTestLines() const
    {
        std::ifstream file(logFolder.path + "/selftest.log");
        Strings lines;
        for (std::string line; std::getline(file, line);)
            lines.push_back(line);
        return lines;
    }

    void launch()
    {
        delegate->didFinishLaunching();
        loop.runUntilIdle();
    }
    void terminate()
    {
        delegate->shouldTerminate([this] { ++replies; });
        loop.runUntilIdle();
    }
    bool logged(const std::string &message) const
    {
        return std::find(messages.begin(), messages.end(), message) != messages.end();
    }

    DataFolder logFolder;
    HeadlessSecretStore secrets;
    HeadlessStatusItem status;
    HeadlessActivationReceiver receiver;
    HeadlessHotkeys hotkeys;
    HeadlessPaletteWindow *window = nullptr;
    HeadlessSettingsWindow *settingsWindow = nullptr;
    std::shared_ptr<AppServices> services;
    ScriptedIndex *index = nullptr;
    ScriptedClipboard *clipboard = nullptr;
    ScriptedShortcuts *shortcuts = nullptr;
    std::unique_ptr<AppDelegate> delegate;
    std::exception_ptr createFailure;
    Milliseconds createDelay{0}, indexDelay{0};
    bool brokenPreferences = false, firstStart = false;
    Strings log, messages;
    int replies = 0;
};

} // namespace

TEST(AppDelegate, ShowsTheStatusItemBeforeTheServicesStart)
{
    TestApp app;
    app.delegate->didFinishLaunching();
    EXPECT_TRUE(app.status.shown());
    EXPECT_EQ(app.status.symbol(), "square.grid.3x3.fill");
    EXPECT_EQ(app.status.description(), "Korvane");
    EXPECT_EQ(app.status.titles(), (Strings{"Open Korvane", "Settings…", "", "Quit Korvane"}));
    EXPECT_EQ(app.status.menu()[1].keyEquivalent, ",");
    EXPECT_EQ(app.status.menu()[3].keyEquivalent, "q");
    EXPECT_FALSE(app.delegate->controller());
    EXPECT_TRUE(app.status.choose("Open Korvane")) << "harmless while there is no palette";
    app.loop.runUntilIdle();
    EXPECT_TRUE(app.delegate->controller());
    EXPECT_TRUE(app.logged("app: Korvane is ready"));
    EXPECT_EQ(app.delegate->phase(), AppDelegate::Phase::ready);
    EXPECT_FALSE(app.delegate->controller()->presented());
}

TEST(AppDelegate, TheFlagShowOpensThePaletteOnceReady)
{
    TestApp app({"--show"});
    app.launch();
    ASSERT_TRUE(app.delegate->controller());
    EXPECT_TRUE(app.delegate->controller()->presented());
    EXPECT_TRUE(app.window->visible());
}

TEST(AppDelegate, AtTheFirstStartThePaletteComesByItselfAndNamesItsKeyUntilItHides)
{
    TestApp app;
    app.firstStart = true;
    app.launch();
    ASSERT_TRUE(app.delegate->controller());
    EXPECT_TRUE(app.window->visible());
    const PaletteState &state = app.delegate->controller()->state();
    EXPECT_EQ(state.newKey(), HotkeyConfiguration());
    app.delegate->controller()->state().setInputText("zebra");
    EXPECT_TRUE(state.newKey()) << "it stands while the user tries what there is";
    EXPECT_TRUE(app.hotkeys.press(HotkeyConfiguration()));
    EXPECT_FALSE(app.delegate->controller()->presented());
    EXPECT_TRUE(app.hotkeys.press(HotkeyConfiguration()));
    EXPECT_TRUE(app.delegate->controller()->presented());
    EXPECT_FALSE(state.newKey());
    EXPECT_EQ(app.settingsWindow->shown, 0);
}

TEST(AppDelegate, OnlyTheStartThatMakesTheStoreIsTheFirst)
{
    const DataFolder data;
    for (const bool first : {true, false}) {
        TestApp app({}, data.path);
        app.launch();
        ASSERT_TRUE(app.delegate->controller());
        EXPECT_EQ(app.delegate->controller()->presented(), first);
        EXPECT_EQ(app.delegate->controller()->state().newKey().has_value(), first);
        app.terminate();
    }
}

TEST(AppDelegate, AFirstStartThatIsToShowThePaletteShowsItOnceAndNamesItsKey)
{
    TestApp app({"--show"});
    app.firstStart = true;
    app.launch();
    EXPECT_TRUE(app.delegate->controller()->presented());
    EXPECT_EQ(app.delegate->controller()->state().newKey(), HotkeyConfiguration());
}

TEST(AppDelegate, AFirstStartThatIsToShowSomethingElseLeavesThePaletteHidden)
{
    for (const char *flag : {"--settings", "--rebuild-index"}) {
        TestApp app({flag});
        app.firstStart = true;
        app.launch();
        EXPECT_FALSE(app.delegate->controller()->presented()) << flag;
        app.delegate->toggle();
        EXPECT_FALSE(app.delegate->controller()->state().newKey()) << flag;
    }
}

TEST(AppDelegate, AFirstStartWithoutASureKeyNamesNone)
{
    TestApp taken;
    taken.firstStart = true;
    taken.hotkeys.taken = {HotkeyConfiguration()};
    taken.launch();
    EXPECT_EQ(taken.settingsWindow->shown, 1) << "which tell what to do";
    EXPECT_FALSE(taken.delegate->controller()->presented());
    TestApp asking({"--show"});
    asking.firstStart = true;
    asking.hotkeys.asksUser = true;
    asking.launch();
    EXPECT_TRUE(asking.delegate->controller()->presented());
    EXPECT_FALSE(asking.delegate->controller()->state().newKey());
}

TEST(AppDelegate, AnIndexThatTakesLongToStartHoldsUpNothing)
{
    TestApp app;
    app.indexDelay = 20s;
    app.launch();
    EXPECT_EQ(app.delegate->phase(), AppDelegate::Phase::ready);
    app.delegate->toggle();
    EXPECT_TRUE(app.delegate->controller()->presented());
    EXPECT_FALSE(app.index->started);
    app.clock.advance(20s);
    EXPECT_TRUE(app.index->started);
}

TEST(AppDelegate, QuittingWhileTheIndexStartsStopsIt)
{
    TestApp app;
    app.indexDelay = 20s;
    app.launch();
    app.terminate();
    EXPECT_EQ(app.replies, 1);
    EXPECT_TRUE(app.index->stopped);
    app.clock.advance(30s);
    EXPECT_FALSE(app.index->started);
}

TEST(AppDelegate, FlagsCountOnlyAsWholeWords)
{
    TestApp app({"--showing", "-show", "show"});
    app.launch();
    EXPECT_FALSE(app.delegate->controller()->presented());
}

TEST(AppDelegate, ASecondLaunchOpensAClosedPaletteAndClosesAnOpenOne)
{
    TestApp app;
    app.launch();
    app.receiver.receive();
    EXPECT_TRUE(app.delegate->controller()->presented());
    EXPECT_TRUE(app.logged("app: Activation requested by a second launch"));
    app.receiver.receive();
    EXPECT_FALSE(app.delegate->controller()->presented());
}

TEST(AppDelegate, ASecondLaunchBeforeThePaletteExistsDoesNothing)
{
    TestApp app;
    app.delegate->didFinishLaunching();
    app.receiver.receive();
    app.loop.runUntilIdle();
    EXPECT_FALSE(app.delegate->controller()->presented());
}

TEST(AppDelegate, AFailedStartTellsWhyAndKeepsTheStatusItemAlive)
{
    TestApp app({"--show"});
    app.createFailure = std::make_exception_ptr(AppError(AppError::Kind::database, "Could not open the local database."));
    app.launch();
    ASSERT_EQ(app.dialogs.asked().size(), 1u);
    EXPECT_EQ(app.dialogs.asked()[0].title, "Korvane could not start");
    EXPECT_EQ(app.dialogs.asked()[0].detail, "Could not open the local database.");
    EXPECT_EQ(app.delegate->phase(), AppDelegate::Phase::failed);
    app.dialogs.accept();
    app.loop.runUntilIdle();
    EXPECT_TRUE(app.status.shown());
    EXPECT_TRUE(app.status.choose("Open Korvane"));
    EXPECT_TRUE(app.status.choose("Settings…"));
    EXPECT_FALSE(app.delegate->controller());
    EXPECT_EQ(app.replies, 0);
    EXPECT_TRUE(app.status.choose("Quit Korvane"));
    EXPECT_EQ(app.replies, 1);
}

TEST(AppDelegate, StopsEverythingInItsOrder)
{
    TestApp app;
    app.launch();
    app.status.choose("Quit Korvane");
    EXPECT_EQ(app.log,
        (Strings{"hotkey stop", "clipboard stop", "applications stop", "shortcuts stop", "palette stop", "index stop", "mcp stop",
            "database close"}));
    EXPECT_EQ(app.replies, 1);
    EXPECT_FALSE(app.clipboard->started);
    EXPECT_FALSE(app.shortcuts->started);
    EXPECT_TRUE(app.index->stopped);
    EXPECT_EQ(app.clock.sleepers(), 0u) << "no periodic task is left";
    auto late = app.services->usage.load();
    EXPECT_THROW(await(app.loop, std::move(late)), AppError);
}

TEST(AppDelegate, QuittingTwiceStopsAndRepliesOnce)
{
    TestApp app;
    app.launch();
    app.terminate();
    app.terminate();
    EXPECT_EQ(app.replies, 1);
    EXPECT_EQ(app.log.size(), 8u);
}

TEST(AppDelegate, QuittingBeforeTheServicesExistRepliesAtOnce)
{
    TestApp app({"--show"});
    app.createDelay = 10s;
    app.launch();
    app.terminate();
    EXPECT_EQ(app.replies, 1);
    EXPECT_EQ(app.log, Strings{"hotkey stop"});
    app.clock.advance(20s);
    EXPECT_FALSE(app.delegate->controller()) << "a start that was overtaken does not go on";
}

TEST(AppDelegate, AStartThatFailsWhileItIsQuittingIsNotToldAnyMore)
{
    TestApp app;
    app.createDelay = 10s;
    app.createFailure = std::make_exception_ptr(AppError(AppError::Kind::database, "Could not open the local database."));
    app.launch();
    app.terminate();
    EXPECT_EQ(app.replies, 1);
    EXPECT_TRUE(app.dialogs.asked().empty());
    EXPECT_EQ(app.delegate->phase(), AppDelegate::Phase::terminating);
}

TEST(AppDelegate, TheSettingsKnowTheKeyThatIsBound)
{
    TestApp app;
    app.launch();
    SettingsState &settings = app.services->preferences();
    EXPECT_EQ(settings.activeHotkey.get(), HotkeyConfiguration());
    const HotkeyConfiguration other{.keyCode = 40, .modifiers = 256};
    settings.hotkeyIssue = "an earlier failure";
    settings.updateHotkey(other);
    EXPECT_EQ(settings.activeHotkey.get(), other);
    EXPECT_FALSE(settings.hotkeyIssue.get());
    settings.activeHotkey = std::nullopt;
    settings.recordingHotkeyChanged(true);
    EXPECT_EQ(settings.activeHotkey.get(), other);
}

TEST(AppDelegate, TheGlobalKeyOpensAndClosesThePalette)
{
    TestApp app;
    app.launch();
    EXPECT_EQ(app.hotkeys.held, std::vector{HotkeyConfiguration()});
    EXPECT_TRUE(app.hotkeys.press(HotkeyConfiguration()));
    EXPECT_TRUE(app.delegate->controller()->presented());
    EXPECT_TRUE(app.logged("app: Global shortcut triggered"));
    EXPECT_TRUE(app.delegate->handleKeyDown(49, HotkeyConfiguration::option, false)) << "as a key of the palette's own window";
    EXPECT_FALSE(app.delegate->controller()->presented());
    EXPECT_EQ(app.settingsWindow->shown, 0);
}

TEST(AppDelegate, TheKeyOfTheStoredPreferencesIsRegistered)
{
    const DataFolder data;
    const HotkeyConfiguration commandK{.keyCode = 40, .modifiers = HotkeyConfiguration::command};
    {
        TestApp app({}, data.path);
        app.launch();
        AppPreferences draft = app.delegate->preferences()->preferences;
        draft.hotkey = commandK;
        app.delegate->preferences()->preferences = draft;
        app.delegate->preferences()->save();
        app.loop.runUntilIdle();
        EXPECT_EQ(app.hotkeys.held, std::vector{commandK});
        app.terminate();
        EXPECT_TRUE(app.hotkeys.held.empty());
    }
    TestApp again({}, data.path);
    again.launch();
    EXPECT_EQ(again.hotkeys.held, std::vector{commandK});
    EXPECT_EQ(again.delegate->preferences()->activeHotkey.get(), commandK);
    again.terminate();
}

TEST(AppDelegate, AKeyThatIsTakenAtLaunchOpensTheSettingsAndTheLaunchGoesOn)
{
    TestApp app({"--show"});
    app.hotkeys.taken = {HotkeyConfiguration()};
    app.launch();
    EXPECT_EQ(app.settingsWindow->shown, 1);
    EXPECT_EQ(app.delegate->phase(), AppDelegate::Phase::ready);
    EXPECT_TRUE(app.delegate->controller()->presented());
    const SettingsState &settings = app.services->preferences();
    EXPECT_EQ(settings.hotkeyIssue.get(),
        "This shortcut could not be registered. It may be used by macOS or another app. Choose a different shortcut.");
    EXPECT_EQ(settings.hotkeyAttempt.get(), HotkeyConfiguration());
    EXPECT_FALSE(settings.activeHotkey.get());
    EXPECT_TRUE(app.dialogs.asked().empty());
}

TEST(AppDelegate, WithoutGlobalShortcutsTheWayRoundIsToldAndTheSecondLaunchWorks)
{
    TestApp app;
    app.hotkeys.unavailable = true;
    app.launch();
    EXPECT_EQ(app.settingsWindow->shown, 1);
    EXPECT_EQ(app.services->preferences().hotkeyIssue.get(),
        "Global shortcuts are unavailable. Open Korvane from the menu bar and try again.");
    app.receiver.receive();
    EXPECT_TRUE(app.delegate->controller()->presented());
}

TEST(AppDelegate, ADesktopThatTurnsOutToHaveNoGlobalShortcutsIsToldInTheSettings)
{
    TestApp app;
    app.launch();
    EXPECT_EQ(app.settingsWindow->shown, 0);
    app.hotkeys.handlers.lost({}, HotkeyRegistrationError(HotkeyRegistrationError::Reason::unavailable));
    EXPECT_EQ(app.settingsWindow->shown, 1);
    const SettingsState &settings = app.services->preferences();
    EXPECT_EQ(settings.hotkeyIssue.get(), "Global shortcuts are unavailable. Open Korvane from the menu bar and try again.");
    EXPECT_EQ(settings.selectedTab.get(), SettingsState::Tab::general);
    EXPECT_FALSE(settings.activeHotkey.get());
}

TEST(AppDelegate, AClickOnTheStatusItemClosesTheOpenPalette)
{
    TestApp app;
    app.launch();
    app.status.choose("Open Korvane");
    EXPECT_TRUE(app.delegate->controller()->presented());
    app.delegate->controller()->mousePressed(0, 0, false); // the press of the click on it
    app.status.choose("Open Korvane");
    EXPECT_FALSE(app.delegate->controller()->presented());
    app.clock.advance(1s);
    app.status.choose("Open Korvane");
    EXPECT_TRUE(app.delegate->controller()->presented());
}

TEST(AppDelegate, AKeyThatTheSystemTakesBackIsToldInTheSettings)
{
    TestApp app;
    app.launch();
    app.hotkeys.handlers.lost({}, HotkeyRegistrationError(HotkeyRegistrationError::Reason::rejected, 10));
    EXPECT_EQ(app.settingsWindow->shown, 1);
    EXPECT_EQ(app.services->preferences().hotkeyAttempt.get(), HotkeyConfiguration());
    EXPECT_FALSE(app.services->preferences().activeHotkey.get());
    EXPECT_EQ(app.delegate->phase(), AppDelegate::Phase::ready);
}

TEST(AppDelegate, AKeyThatTheDesktopRefusesAfterItWasSavedLeavesTheOldOneAtWorkAndStored)
{
    const HotkeyConfiguration commandK{.keyCode = 40, .modifiers = HotkeyConfiguration::command};
    TestApp app;
    app.hotkeys.asksUser = true;
    app.launch();
    app.hotkeys.handlers.granted({});
    SettingsState &settings = app.services->preferences();
    AppPreferences draft = settings.preferences;
    draft.hotkey = commandK;
    settings.preferences = draft;
    settings.save();
    app.loop.runUntilIdle();
    ASSERT_EQ(settings.message.get(), "Settings saved.");
    EXPECT_TRUE(app.hotkeys.press({})) << "the old key works until the desktop has decided";
    app.hotkeys.handlers.lost(commandK, HotkeyRegistrationError(HotkeyRegistrationError::Reason::rejected, 1));
    app.loop.runUntilIdle();
    EXPECT_TRUE(app.hotkeys.press({}));
    EXPECT_FALSE(app.hotkeys.press(commandK));
    EXPECT_EQ(app.settingsWindow->shown, 1);
    EXPECT_EQ(settings.hotkeyAttempt.get(), commandK);
    EXPECT_EQ(settings.activeHotkey.get(), HotkeyConfiguration());
    EXPECT_EQ(settings.appliedHotkey.get(), HotkeyConfiguration());
    EXPECT_EQ(settings.preferences->hotkey, commandK) << "as a draft that is not applied";
    const auto stored = await(app.loop, app.services->settings.load("preferences"));
    ASSERT_TRUE(stored);
    EXPECT_EQ(AppPreferences::decode(*stored).hotkey, HotkeyConfiguration()) << "the next start takes the key that works";
}

TEST(AppDelegate, WhileTheRecorderListensTheKeyIsFree)
{
    TestApp app;
    app.launch();
    SettingsState &settings = app.services->preferences();
    settings.recordingHotkeyChanged(true);
    EXPECT_TRUE(app.hotkeys.held.empty());
    EXPECT_FALSE(app.delegate->handleKeyDown(49, HotkeyConfiguration::option, false));
    settings.recordingHotkeyChanged(false);
    EXPECT_TRUE(app.hotkeys.press(HotkeyConfiguration()));
    EXPECT_EQ(settings.activeHotkey.get(), HotkeyConfiguration());
}

TEST(AppDelegate, AKeyThatIsTakenDuringRecordingLeavesNoneAndSaysSo)
{
    TestApp app;
    app.launch();
    SettingsState &settings = app.services->preferences();
    settings.recordingHotkeyChanged(true);
    app.hotkeys.taken = {HotkeyConfiguration()};
    settings.recordingHotkeyChanged(false);
    EXPECT_TRUE(settings.hotkeyIssue.get());
    EXPECT_EQ(settings.hotkeyAttempt.get(), HotkeyConfiguration());
    EXPECT_FALSE(settings.activeHotkey.get());
}

TEST(AppDelegate, SettingsOpenFromTheMenuThePaletteAndTheFlag)
{
    TestApp app({"--settings"});
    app.launch();
    EXPECT_EQ(app.settingsWindow->shown, 1);
    app.status.choose("Settings…");
    EXPECT_EQ(app.settingsWindow->shown, 2);
    app.delegate->controller()->state().openSettings();
    EXPECT_EQ(app.settingsWindow->shown, 3);
    app.terminate();
    app.status.choose("Settings…");
    EXPECT_EQ(app.settingsWindow->shown, 3) << "nothing opens once it is quitting";
}

TEST(AppDelegate, SettingsLookAtTheLoginEachTimeTheyAreShown)
{
    using Status = SettingsState::LoginItemStatus;
    TestApp app;
    app.launch();
    for (const auto &[present, shown] : {std::pair(LoginItem::Status::enabled, Status::enabled),
             std::pair(LoginItem::Status::awaitingApproval, Status::awaitingApproval),
             std::pair(LoginItem::Status::disabled, Status::disabled)}) {
        app.loginItem.present = present; // changed in the desktop's own settings
        app.status.choose("Settings…");
        app.loop.runUntilIdle();
        EXPECT_EQ(app.services->preferences().loginStatus.get(), shown);
    }
}

TEST(AppDelegate, AQuicklinkThatTheSettingsAddOrRemoveIsARowOfTheOpenPaletteAtOnce)
{
    TestApp app({"--show"});
    app.launch();
    const auto titles = [&] {
        Strings all;
        for (const Row &row : app.delegate->controller()->state().results())
            all.push_back(row->title);
        return all;
    };
    SettingsState &preferences = app.services->preferences();
    app.delegate->controller()->state().setInputText("tide");
    preferences.quicklinkTitle = "Tide tables";
    preferences.quicklinkURL = "https://example.org/tides";
    preferences.addQuicklink();
    app.loop.runUntilIdle();
    EXPECT_THAT(titles(), testing::Contains("Tide tables"));
    preferences.removeQuicklink(preferences.quicklinks->front());
    app.loop.runUntilIdle();
    EXPECT_THAT(titles(), testing::Not(testing::Contains("Tide tables")));
}

TEST(AppDelegate, PreferencesThatCannotBeReadAreAFailedStart)
{
    TestApp app;
    app.createDelay = 1s;
    app.launch();
    app.brokenPreferences = true;
    app.clock.advance(1s);
    ASSERT_EQ(app.dialogs.asked().size(), 1u);
    EXPECT_EQ(app.dialogs.asked()[0].title, "Korvane could not start");
    EXPECT_EQ(app.delegate->phase(), AppDelegate::Phase::failed);
    EXPECT_TRUE(app.status.choose("Settings…"));
    EXPECT_FALSE(app.settingsWindow);
    EXPECT_TRUE(app.hotkeys.held.empty());
    app.dialogs.accept();
    app.terminate();
    EXPECT_FALSE(app.index->started && !app.index->stopped);
}

TEST(AppDelegate, NothingOpensOnceItIsQuitting)
{
    TestApp app;
    app.launch();
    app.terminate();
    app.receiver.receive();
    app.status.choose("Open Korvane");
    EXPECT_FALSE(app.delegate->controller()->presented());
}

TEST(AppDelegate, TheDataFolderIsMadeForItsOwnerAloneWithTheStoreInIt)
{
    const DataFolder data;
    TestApp app({}, data.path + "/deeper");
    app.launch();
    ASSERT_EQ(app.delegate->phase(), AppDelegate::Phase::ready);
    struct stat status;
    ASSERT_EQ(::stat((data.path + "/deeper/Korvane").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0700u);
    EXPECT_TRUE(std::filesystem::exists(data.path + "/deeper/Korvane/korvane.sqlite"));
    app.terminate();
    EXPECT_EQ(app.replies, 1);
}

TEST(AppDelegate, AStoreThatIsNoDatabaseIsToldAndLeftAsItIs)
{
    const DataFolder data;
    std::filesystem::create_directory(data.path + "/Korvane");
    const std::string store = data.path + "/Korvane/korvane.sqlite";
    const std::string content(5000, 'x');
    std::ofstream(store) << content;
    TestApp app({}, data.path);
    app.launch();
    ASSERT_EQ(app.dialogs.asked().size(), 1u);
    EXPECT_EQ(app.dialogs.asked()[0].detail, "Could not migrate the local database.");
    std::ifstream file(store);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), content);
}

TEST(AppDelegate, WithoutAPlaceForDataTheStartFailsWithASentence)
{
    const DataFolder data;
    std::ofstream(data.path + "/file") << "not a folder";
    TestApp app({}, data.path + "/file");
    app.launch();
    ASSERT_EQ(app.dialogs.asked().size(), 1u);
    EXPECT_EQ(app.dialogs.asked()[0].detail, "Could not open the local database.");
}

TEST(AppDelegate, OnlyTheFirstOfTwoProcessesComesFirstAndTheOtherAsksItForward)
{
    const DataFolder data;
    const UserFolders folders{.home = data.path, .data = data.path};
    int ready[2], done[2];
    ASSERT_EQ(::pipe(ready), 0);
    ASSERT_EQ(::pipe(done), 0);
    const pid_t first = ::fork();
    if (first == 0) {
        HeadlessActivationSender sender;
        const char result = AppDelegate::comesFirst(folders, sender) && sender.posts == 0 ? 'y' : 'n';
        (void)!::write(ready[1], &result, 1);
        char wait;
        ::close(done[1]);
        (void)!::read(done[0], &wait, 1);
        ::_exit(0);
    }
    char result = '?';
    ASSERT_EQ(::read(ready[0], &result, 1), 1);
    EXPECT_EQ(result, 'y');
    const pid_t second = ::fork();
    if (second == 0) {
        ::close(done[1]);
        HeadlessActivationSender sender;
        ::_exit(!AppDelegate::comesFirst(folders, sender) && sender.posts == 1 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(second, &status, 0), second);
    EXPECT_EQ(status, 0);
    ::close(done[1]);
    ASSERT_EQ(::waitpid(first, &status, 0), first);
    ::close(done[0]), ::close(ready[0]), ::close(ready[1]);
}

namespace {

constexpr const char *continuityAccount = "keychain-continuity-test";

/// The one line that a self test with these arguments writes, from behind the time to its end.
std::string selfTest(TestApp &app)
{
    app.launch();
    const Strings lines = app.selfTestLines();
    EXPECT_EQ(lines.size(), 1u);
    EXPECT_EQ(app.replies, 1) << "the program ends by itself";
    return lines.empty() ? "" : lines[0];
}

} // namespace

TEST(KeychainSelfTest, StoresItsMarkerWhereThereIsNone)
{
    TestApp app({"--keychain-selftest"});
    EXPECT_EQ(selfTest(app), "2023-11-14T22:13:20Z [0.1.0] verify — stored");
    EXPECT_EQ(app.secrets.items().at(continuityAccount), "korvane-selftest-continuity-marker");
    EXPECT_TRUE(app.logged("app: Keychain selftest: stored"));
    EXPECT_TRUE(app.logged("app: Korvane is ready")) << "it runs after everything else is up";
}

TEST(KeychainSelfTest, ReadsItsMarkerAgainOrTellsThatItIsAnother)
{
    TestApp app({"--keychain-selftest"});
    app.secrets.keep(continuityAccount, "korvane-selftest-continuity-marker");
    EXPECT_EQ(selfTest(app), "2023-11-14T22:13:20Z [0.1.0] verify — read after replacement: value matches");
    TestApp other({"--keychain-selftest"});
    other.secrets.keep(continuityAccount, "something else");
    EXPECT_EQ(selfTest(other), "2023-11-14T22:13:20Z [0.1.0] verify — read after replacement: VALUE MISMATCH");
}

TEST(KeychainSelfTest, BothFlagsTogetherClean)
{
    TestApp app({"--keychain-selftest", "--keychain-selftest-clean"});
    app.secrets.keep(continuityAccount, "korvane-selftest-continuity-marker");
    EXPECT_EQ(selfTest(app), "2023-11-14T22:13:20Z [0.1.0] clean — cleaned");
    EXPECT_TRUE(app.secrets.items().empty());
}

TEST(KeychainSelfTest, ADenialIsAnOutcomeToo)
{
    TestApp read({"--keychain-selftest"});
    read.secrets.readOutcome = SecretStore::Outcome::locked;
    EXPECT_EQ(selfTest(read), "2023-11-14T22:13:20Z [0.1.0] verify — keychain denied: Keychain access was denied.");
    TestApp write({"--keychain-selftest"});
    write.secrets.addOutcome = SecretStore::Outcome::failed;
    EXPECT_EQ(
        selfTest(write), "2023-11-14T22:13:20Z [0.1.0] verify — keychain denied: The secret could not be saved to Keychain.");
    TestApp clean({"--keychain-selftest-clean"});
    clean.secrets.removeOutcome = SecretStore::Outcome::denied;
    EXPECT_EQ(selfTest(clean), "2023-11-14T22:13:20Z [0.1.0] clean — keychain denied: The Keychain item could not be removed.");
}

TEST(KeychainSelfTest, TheLogAccumulatesALineForEachRunAndAMissingPlaceIsIgnored)
{
    TestApp app({"--keychain-selftest-clean"});
    std::ofstream(app.logFolder.path + "/selftest.log") << "an earlier run\n";
    app.launch();
    EXPECT_EQ(app.selfTestLines(), (Strings{"an earlier run", "2023-11-14T22:13:20Z [0.1.0] clean — cleaned"}));
    TestApp nowhere({"--keychain-selftest-clean"});
    std::filesystem::remove_all(nowhere.logFolder.path);
    nowhere.launch();
    EXPECT_EQ(nowhere.replies, 1);
}
