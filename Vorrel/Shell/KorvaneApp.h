#pragma once

#include "Vorrel/Palette/PaletteController.h"
#include "Vorrel/Platform/Activation.h"
#include "Vorrel/Platform/HotkeyRegistering.h"
#include "Vorrel/Platform/SettingsWindow.h"
#include "Vorrel/Platform/StatusItem.h"
#include "Vorrel/Shell/HotkeyService.h"
#include "Vorrel/Shell/SingleInstanceLock.h"

namespace korvane {

/// The program from launch to quit: takes its place as the one instance, starts the services, shows what
/// cannot start, and stops everything in order. Main thread only.
class AppDelegate {
public:
    /// What a front end gives the program. Everything in it outlives the delegate.
    struct Host {
        Platform platform;
        StatusItem &status;
        ActivationReceiver &activation;
        HotkeyRegistering &hotkeys;
        PaletteController::MakeWindow makeWindow;
        /// Makes the settings window for a state that outlives it.
        std::function<std::unique_ptr<SettingsWindow>(SettingsState &)> makeSettingsWindow;
        std::vector<std::string> arguments; ///< The command line, without the program's name.
        /// Where the keychain's self test keeps its results, a line each.
        std::string selfTestLog = "/tmp/korvane-keychain-selftest.log";
        std::function<void()> terminate; ///< Asks the front end to quit, which comes back as `shouldTerminate`.
        /// Builds the services; `AppServices::create` in the program.
        std::function<Task<std::shared_ptr<AppServices>>(Platform)> createServices = [](Platform platform) {
            return AppServices::create(std::move(platform));
        };
        /// Told each step of the shutdown when it has been done.
        std::function<void(std::string_view step)> stopped = [](std::string_view) {};
    };

    /// True if this process may go on. Otherwise another instance has the lock and has been asked to come
    /// forward, and the caller exits with status 0. Needs nothing of the rest of the program.
    static bool comesFirst(const UserFolders &folders, ActivationSender &sender);

    explicit AppDelegate(Host host);

    /// The synchronous part of the launch; the services start in a task of their own.
    void didFinishLaunching();
    /// Stops everything in order and then calls `reply`, once; never inside this call.
    void shouldTerminate(std::function<void()> reply);

    // Menu
    void toggle();
    void showSettings();
    /// Another launch asked this instance to come forward: a toggle, so that it also closes an open palette.
    void activateFromSecondLaunch();
    /// A key that came to one of the program's windows. True when it was the global shortcut and goes no further.
    bool handleKeyDown(std::uint32_t keyCode, std::uint32_t carbonModifiers, bool isRepeat);

    enum class Phase { launching, failed, ready, terminating };
    Phase phase() const { return _phase; }
    PaletteController *controller() { return paletteController.get(); } ///< Null until the services are up.
    SettingsState *preferences() { return services ? &services->preferences() : nullptr; } ///< Null until the store is open.

private:
    Task<void> startServices();
    Task<void> startOrThrow();
    static Task<void> startIndex(std::shared_ptr<FileIndex> index);
    Task<void> stopServices(std::function<void()> reply);
    void registerHotkey();
    void bindHotkey(const HotkeyConfiguration &wanted);
    void suspendHotkey(bool recording);
    void toggleFromStatusItem();
    void hotkeyLost(const HotkeyConfiguration &which, const HotkeyRegistrationError &why);
    void runFlags();
    void welcome();
    Task<void> keychainSelfTest(bool clean);
    Task<std::string> selfTestOutcome(bool clean);
    bool hasFlag(std::string_view flag) const;

    Host host;
    std::shared_ptr<AppServices> services;
    std::unique_ptr<HotkeyService> hotkey;
    std::unique_ptr<SettingsWindow> settingsWindow;
    std::unique_ptr<PaletteController> paletteController;
    Phase _phase = Phase::launching;
    TaskHandle servicesTask, indexTask, selfTestTask, stopTask;
    MainThreadOnly confined;
};

} // namespace korvane
