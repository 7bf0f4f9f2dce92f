#pragma once

#include "Support/Task.h"
#include "Vorrel/Shell/HotkeyService.h"

#include <exception>

namespace korvane {

/// The persisted settings.
struct AppPreferences {
    bool clipboardEnabled = true;
    int clipboardLimit = 500;
    HotkeyConfiguration hotkey;
    std::string model = "gpt-4.1-mini";
    bool aiEnabled = false;
    bool confirmToolWrites = true;
    bool operator==(const AppPreferences &) const = default;
};

/// What the settings window shows and changes. The preferences are the defaults. Main thread only.
class SettingsState {
public:
    enum class Tab { general, files, clipboard, ai, agents, mcp };

    Task<void> load() { co_return; }
    void refreshLoginStatus() { }
    void reportHotkeyFailure(
        std::exception_ptr error, const HotkeyConfiguration &attempted, std::optional<HotkeyConfiguration> active);

    AppPreferences preferences;
    Tab selectedTab = Tab::general;
    std::optional<HotkeyConfiguration> activeHotkey, hotkeyAttempt;
    std::optional<std::string> hotkeyIssue;
    std::function<void(HotkeyConfiguration)> updateHotkey;
    std::function<void(bool)> recordingHotkeyChanged;
};

} // namespace korvane
