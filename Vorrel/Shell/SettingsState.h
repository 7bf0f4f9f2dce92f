#pragma once

#include "CommandCore/JSONValue.h"
#include "Support/Observed.h"
#include "Support/Task.h"
#include "Vorrel/Platform/HotkeyRegistering.h"

#include <exception>
#include <vector>

namespace korvane {

class AppServices;

/// The persisted settings.
struct AppPreferences {
    static constexpr int smallestClipboardLimit = 1, largestClipboardLimit = 10'000;

    bool clipboardEnabled = true;
    int clipboardLimit = 500; ///< Within the two limits above once saved.
    HotkeyConfiguration hotkey;
    std::string model = "gpt-4.1-mini";
    bool aiEnabled = false;
    bool confirmToolWrites = true;

    /// An object with the names of the fields as keys.
    JSONValue json() const;
    /// Reads such an object. Throws `JSONError` when a key is missing or has the wrong type.
    static AppPreferences decode(const JSONValue &json);

    bool operator==(const AppPreferences &) const = default;
};

/// What the settings window shows and changes. Edits of `preferences` are drafts until `save`. Main thread only.
class SettingsState {
public:
    enum class Tab { general, files, clipboard, ai, agents, mcp };

    /// `services` outlives the state.
    explicit SettingsState(AppServices &services) : services(services) { }

    /// Reads the stored preferences, or takes the defaults, and applies them. Throws what the store throws, and for a document
    /// that is not one of preferences.
    Task<void> load();
    /// Registers the shortcut, then stores the preferences and applies them; when storing fails the former shortcut is
    /// registered again. Does nothing while another save runs. How it ended stands in `message`.
    void save();
    /// Hands the preferences to the services that follow them.
    void apply() { apply(preferences); }
    void refreshLoginStatus() { }

    /// Shows the tab with the recorder and starts it.
    void recordCustomHotkey();
    /// Sets Option + Space and saves at once.
    void restoreDefaultHotkey();
    /// Sets Command + Space as a draft.
    void draftSpotlightHotkey();
    /// Notes a shortcut that could not be registered, and brings the tab that shows it to the front. `active` is what is
    /// registered now.
    void reportHotkeyFailure(
        std::exception_ptr error, const HotkeyConfiguration &attempted, std::optional<HotkeyConfiguration> active);
    /// Opens the system's own settings of keys, or says where they are.
    void openKeyboardSettings();

    /// Calls `changed` after a change of any observed property.
    [[nodiscard]] std::vector<Subscription> observe(const std::function<void()> &changed);

    // Observed. Sentences are English, keys of `L10n`.
    Observed<AppPreferences> preferences;
    Observed<Tab> selectedTab{Tab::general};
    Observed<std::optional<std::string>> hotkeyIssue; ///< Why the shortcut needs attention.
    Observed<std::optional<HotkeyConfiguration>> hotkeyAttempt; ///< The combination that failed.
    Observed<std::optional<HotkeyConfiguration>> activeHotkey; ///< What is registered.
    Observed<HotkeyConfiguration>
        appliedHotkey; ///< The combination that was applied last; another one in `preferences` is a draft.
    Observed<int> recorderRequest{0}; ///< Grows each time the recorder shall start.
    Observed<std::optional<std::string>> message; ///< The line at the window's foot.
    Observed<bool> saving{false};

    /// Registers a shortcut in place of the present one; throws `HotkeyRegistrationError`. Set by the application.
    std::function<void(HotkeyConfiguration)> updateHotkey = [](const HotkeyConfiguration &) {};
    /// Told when the recorder begins and ends to listen. Set by the application.
    std::function<void(bool)> recordingHotkeyChanged = [](bool) {};

private:
    void apply(const AppPreferences &wanted);
    Task<void> saveTask(AppPreferences copy, int editedLimit);
    Task<void> saveOrThrow(AppPreferences &copy);
    /// Brings the history of copied texts down to its new size, and says how saving ended.
    Task<void> prune(int limit);
    void rollBackHotkey(const HotkeyConfiguration &registered);
    Task<void> openKeyboardSettingsTask();

    AppServices &services;
    TaskHandle saveHandle, systemHandle;
};

} // namespace korvane
