#include "Vorrel/Shell/KorvaneApp.h"

#include "Support/Descriptor.h"
#include "Vorrel/Shell/AppLog.h"
#include "Vorrel/Shell/Formats.h"
#include "Vorrel/Shell/L10n.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace korvane {

namespace {

/// Adds a line to a file, or makes the file with it. The folder may be everybody's: no link is followed, and what is no file
/// is replaced where that is allowed. A failure is ignored.
void appendLine(const std::string &path, const std::string &line)
{
    Descriptor file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (file.get() >= 0) {
        (void)!::write(file.get(), line.data(), line.size());
        return;
    }
    std::string fresh = path + ".XXXXXX";
    file = Descriptor(::mkstemp(fresh.data()));
    const bool written = file.get() >= 0 && ::write(file.get(), line.data(), line.size()) == ssize_t(line.size());
    if (!written || ::rename(fresh.c_str(), path.c_str()) != 0)
        ::unlink(fresh.c_str());
}

} // namespace

bool AppDelegate::comesFirst(const UserFolders &folders, ActivationSender &sender)
{
    if (SingleInstanceLock::acquire(folders))
        return true;
    AppLog::app.error("Another Korvane instance already holds the lock; asking it to come forward, then exiting");
    sender.post();
    return false;
}

AppDelegate::AppDelegate(Host host) : host(std::move(host)) { }

void AppDelegate::didFinishLaunching()
{
    confined.check();
    host.activation.observe([this] { activateFromSecondLaunch(); });
    servicesTask = spawn(host.platform.mainThread, startServices());
    host.status.show("square.grid.3x3.fill", "Korvane",
        {{L10n::shown("Open Korvane"), "", [this] { toggleFromStatusItem(); }},
            {L10n::shown("Settings…"), ",", [this] { showSettings(); }}, {"", "", nullptr},
            {L10n::shown("Quit Korvane"), "q", host.terminate}});
    hotkey = std::make_unique<HotkeyService>(
        host.hotkeys, [this] { toggle(); },
        [this](const HotkeyConfiguration &which, const HotkeyRegistrationError &why) { hotkeyLost(which, why); });
}

Task<void> AppDelegate::startServices()
{
    std::exception_ptr failure;
    try {
        co_await startOrThrow();
    } catch (const Cancelled &) {
        co_return;
    } catch (...) {
        failure = std::current_exception();
    }
    if (!failure || _phase == Phase::terminating)
        co_return; // who is quitting needs no word about a start that came to nothing
    // The process stays: the status item lets the user quit.
    _phase = Phase::failed;
    const std::string sentence = AppError::friendly(failure);
    AppLog::app.error("Korvane could not start: " + sentence);
    co_await host.platform.dialogs.failure(L10n::shown("Korvane could not start"), L10n::shown(sentence));
}

Task<void> AppDelegate::startOrThrow()
{
    services = co_await host.createServices(host.platform);
    co_await throwIfCancelled(); // nothing starts any more once the user is quitting
    NativeTools::registerTools(services->tools(), *services);
    // Behind the rest: counting a million files on a cold disk takes seconds.
    indexTask = spawn(host.platform.mainThread, startIndex(services->fileIndex));
    services->shortcuts->start();
    SettingsState &preferences = services->preferences();
    co_await preferences.load();
    co_await throwIfCancelled();
    preferences.updateHotkey = [this](HotkeyConfiguration configuration) { bindHotkey(configuration); };
    settingsWindow = host.makeSettingsWindow(preferences);
    paletteController = std::make_unique<PaletteController>(*services, host.makeWindow);
    preferences.recordingHotkeyChanged = [this](bool recording) { suspendHotkey(recording); };
    registerHotkey();
    paletteController->state().openSettings = [this] { showSettings(); };
    preferences.quicklinksChanged = [this] { paletteController->state().refreshQuicklinks(); };
    AppLog::app.info("Korvane is ready");
    _phase = Phase::ready;
    runFlags();
    welcome();
}

Task<void> AppDelegate::startIndex(std::shared_ptr<FileIndex> index) { co_await index->start(); }

void AppDelegate::bindHotkey(const HotkeyConfiguration &wanted)
{
    hotkey->registerHotkey(wanted);
    SettingsState &preferences = services->preferences();
    preferences.activeHotkey = wanted;
    preferences.hotkeyIssue = std::nullopt;
    preferences.hotkeyAttempt = std::nullopt;
}

void AppDelegate::registerHotkey()
{
    SettingsState &preferences = services->preferences();
    const HotkeyConfiguration wanted = preferences.preferences->hotkey;
    try {
        bindHotkey(wanted);
    } catch (const std::exception &) {
        preferences.reportHotkeyFailure(std::current_exception(), wanted, hotkey->configuration());
        showSettings();
    }
}

void AppDelegate::suspendHotkey(bool recording)
{
    SettingsState &preferences = services->preferences();
    const auto bound = hotkey->configuration();
    try {
        hotkey->suspend(recording);
        preferences.activeHotkey = bound;
    } catch (const std::exception &) {
        // Another program was faster while the key was free: now there is none.
        preferences.reportHotkeyFailure(std::current_exception(), bound.value_or(HotkeyConfiguration()), std::nullopt);
    }
}

void AppDelegate::hotkeyLost(const HotkeyConfiguration &which, const HotkeyRegistrationError &why)
{
    if (!services || _phase != Phase::ready)
        return;
    SettingsState &preferences = services->preferences();
    const bool anotherStays = hotkey->active();
    preferences.reportHotkeyFailure(std::make_exception_ptr(why), which, anotherStays ? hotkey->configuration() : std::nullopt);
    if (anotherStays)
        preferences.keepHotkey(*hotkey->configuration());
    showSettings();
}

bool AppDelegate::handleKeyDown(std::uint32_t keyCode, std::uint32_t carbonModifiers, bool isRepeat)
{
    return hotkey && hotkey->handleKeyDown(keyCode, carbonModifiers, isRepeat);
}

bool AppDelegate::hasFlag(std::string_view flag) const
{
    return std::find(host.arguments.begin(), host.arguments.end(), flag) != host.arguments.end();
}

void AppDelegate::runFlags()
{
    if (hasFlag("--show"))
        toggle();
    if (hasFlag("--settings"))
        showSettings();
    if (hasFlag("--rebuild-index"))
        services->fileIndex->rebuild();
    const bool clean = hasFlag("--keychain-selftest-clean");
    if (clean || hasFlag("--keychain-selftest"))
        selfTestTask = spawn(host.platform.mainThread, keychainSelfTest(clean));
}

/// Who starts the program for the first time sees it, and learns the key. Where the key is not sure, the settings or the desktop
/// tell of it.
void AppDelegate::welcome()
{
    const auto &key = services->preferences().activeHotkey.get();
    if (!services->storeIsNew || !key || !host.hotkeys.decidesAtOnce())
        return;
    if (host.arguments.empty())
        toggle();
    if (paletteController->presented())
        paletteController->state().introduceKey(*key);
}

Task<std::string> AppDelegate::selfTestOutcome(bool clean)
{
    const std::string account = "keychain-continuity-test", marker = "korvane-selftest-continuity-marker";
    KeychainService &keychain = services->keychain;
    std::string denial = "keychain denied: ";
    try {
        if (clean) {
            co_await keychain.deleteAccount(account);
            co_return "cleaned";
        }
        const auto kept = co_await keychain.get(account);
        if (kept)
            co_return *kept == marker ? "read after replacement: value matches" : "read after replacement: VALUE MISMATCH";
        co_await keychain.set(marker, account);
        co_return "stored";
    } catch (const Cancelled &) {
        throw;
    } catch (...) {
        denial += AppError::friendly(std::current_exception());
    }
    co_return denial;
}

/// Shows an operator that access to the keychain survives an update of the program. The line in the log is the result, the exit
/// status is not.
Task<void> AppDelegate::keychainSelfTest(bool clean)
{
    const std::string outcome = co_await selfTestOutcome(clean);
    AppLog::app.error("Keychain selftest: " + outcome);
    std::string line =
        iso8601(host.platform.clock.now()) + " [" KORVANE_VERSION "] " + (clean ? "clean" : "verify") + " — " + outcome + "\n";
    Actor disk(host.platform.pool);
    auto write = [path = host.selfTestLog, line = std::move(line)](std::stop_token) { appendLine(path, line); };
    co_await disk.run(std::move(write));
    host.terminate();
}

void AppDelegate::toggle()
{
    confined.check();
    if (paletteController && _phase != Phase::terminating)
        paletteController->toggle();
}

void AppDelegate::toggleFromStatusItem()
{
    if (paletteController && _phase != Phase::terminating)
        paletteController->toggleByClick();
}

void AppDelegate::showSettings()
{
    if (!settingsWindow || _phase == Phase::terminating)
        return;
    services->preferences().refreshLoginStatus();
    settingsWindow->showCentred();
}

void AppDelegate::activateFromSecondLaunch()
{
    AppLog::app.info("Activation requested by a second launch");
    toggle();
}

void AppDelegate::shouldTerminate(std::function<void()> reply)
{
    confined.check();
    if (_phase == Phase::terminating)
        return; // the first reply will do
    _phase = Phase::terminating;
    servicesTask.cancel();
    indexTask.cancel();
    selfTestTask.cancel();
    if (hotkey) {
        hotkey->stop();
        host.stopped("hotkey stop");
    }
    if (services) {
        services->clipboard->stop();
        host.stopped("clipboard stop");
        services->applications->stop();
        host.stopped("applications stop");
        services->shortcuts->stop();
        host.stopped("shortcuts stop");
    }
    if (paletteController) {
        paletteController->stop();
        host.stopped("palette stop");
    }
    stopTask = spawn(host.platform.mainThread, stopServices(std::move(reply)));
}

Task<void> AppDelegate::stopServices(std::function<void()> reply)
{
    if (services) {
        try {
            co_await services->fileIndex->stop();
            host.stopped("index stop");
            co_await services->mcp().stop();
            host.stopped("mcp stop");
            co_await services->database->close();
            host.stopped("database close");
        } catch (const std::exception &) {
            AppLog::app.error("A service could not be stopped");
        }
    }
    reply();
}

} // namespace korvane
