#include "Vorrel/Shell/SettingsState.h"

#include "Support/Text.h"
#include "Vorrel/Shell/AppServices.h"
#include "Vorrel/Shell/L10n.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace korvane {

namespace {

constexpr const char *preferencesKey = "preferences";

template <class T> const T &required(const T *value, const char *key)
{
    if (!value)
        throw JSONError(std::string(key) + " is missing or has the wrong type");
    return *value;
}

bool flag(const JSONValue &json, const char *key) { return required(json[key].boolean(), key); }

template <class Integer> Integer integer(const JSONValue &json, const char *key)
{
    const double number = required(json[key].number(), key);
    const bool fits = number >= static_cast<double>(std::numeric_limits<Integer>::min())
        && number <= static_cast<double>(std::numeric_limits<Integer>::max());
    if (!fits || number != std::floor(number))
        throw JSONError(std::string(key) + " is out of range");
    return static_cast<Integer>(number);
}

HotkeyConfiguration hotkeyFrom(const JSONValue &json)
{
    HotkeyConfiguration hotkey{
        .keyCode = integer<std::uint32_t>(json, "keyCode"), .modifiers = integer<std::uint32_t>(json, "modifiers")};
    if (!json["keyLabel"].isNull())
        hotkey.keyLabel = required(json["keyLabel"].string(), "keyLabel");
    return hotkey;
}

JSONValue jsonOf(const HotkeyConfiguration &hotkey)
{
    JSONValue::Object object{{"keyCode", std::int64_t(hotkey.keyCode)}, {"modifiers", std::int64_t(hotkey.modifiers)}};
    if (hotkey.keyLabel)
        object["keyLabel"] = *hotkey.keyLabel;
    return object;
}

} // namespace

JSONValue AppPreferences::json() const
{
    return JSONValue::Object{{"clipboardEnabled", clipboardEnabled}, {"clipboardLimit", clipboardLimit},
        {"hotkey", jsonOf(hotkey)}, {"model", model}, {"aiEnabled", aiEnabled}, {"confirmToolWrites", confirmToolWrites}};
}

AppPreferences AppPreferences::decode(const JSONValue &json)
{
    return {.clipboardEnabled = flag(json, "clipboardEnabled"),
        .clipboardLimit = integer<int>(json, "clipboardLimit"),
        .hotkey = hotkeyFrom(json["hotkey"]),
        .model = required(json["model"].string(), "model"),
        .aiEnabled = flag(json, "aiEnabled"),
        .confirmToolWrites = flag(json, "confirmToolWrites")};
}

Task<void> SettingsState::load()
{
    const auto stored = co_await services.settings.load(preferencesKey, AppPreferences::decode);
    preferences = stored.value_or(AppPreferences());
    appliedHotkey = preferences->hotkey;
    refreshLoginStatus();
    apply();
}

void SettingsState::apply(const AppPreferences &wanted)
{
    services.clipboard->enabled = wanted.clipboardEnabled;
    services.clipboard->maximumItems = wanted.clipboardLimit;
    services.tools().policy.confirmWrites = wanted.confirmToolWrites;
}

void SettingsState::save()
{
    if (saving)
        return;
    saving = true;
    saveHandle = spawn(services.platform.mainThread, saveTask(preferences, preferences->clipboardLimit));
}

Task<void> SettingsState::saveTask(AppPreferences copy, int editedLimit)
{
    copy.clipboardLimit =
        std::clamp(copy.clipboardLimit, AppPreferences::smallestClipboardLimit, AppPreferences::largestClipboardLimit);
    copy.model = trimmed(copy.model);
    try {
        co_await saveOrThrow(copy);
        appliedHotkey = copy.hotkey;
        activeHotkey = copy.hotkey;
        hotkeyIssue = std::nullopt;
        hotkeyAttempt = std::nullopt;
        apply(copy);
        if (preferences->clipboardLimit == editedLimit) {
            AppPreferences clamped = preferences;
            clamped.clipboardLimit = copy.clipboardLimit;
            preferences = clamped;
        }
        co_await prune(copy.clipboardLimit);
    } catch (...) {
        message = AppError::friendly(std::current_exception());
    }
    saving = false;
}

Task<void> SettingsState::prune(int limit)
{
    try {
        const ClipboardRepository clipboard(services.database, services.platform.clock);
        co_await clipboard.prune(limit);
        message = L10n::key("Settings saved.");
    } catch (...) {
        message = L10n::key("Settings saved, but old clipboard entries could not be trimmed. Try saving again.");
    }
}

Task<void> SettingsState::saveOrThrow(AppPreferences &copy)
{
    if (copy.model.empty())
        throw AppError(AppError::Kind::configuration, "Enter a model identifier.");
    try {
        updateHotkey(copy.hotkey);
    } catch (const HotkeyRegistrationError &) {
        reportHotkeyFailure(std::current_exception(), copy.hotkey, activeHotkey);
        throw;
    }
    std::exception_ptr failure;
    try {
        co_await services.settings.save(preferencesKey, copy.json());
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        rollBackHotkey(copy.hotkey);
        std::rethrow_exception(failure);
    }
}

void SettingsState::rollBackHotkey(const HotkeyConfiguration &registered)
{
    try {
        updateHotkey(appliedHotkey);
        activeHotkey = appliedHotkey.get();
    } catch (...) {
        reportHotkeyFailure(std::current_exception(), appliedHotkey, registered);
    }
}

void SettingsState::recordCustomHotkey()
{
    selectedTab = Tab::general;
    recorderRequest = recorderRequest + 1;
}

void SettingsState::restoreDefaultHotkey()
{
    AppPreferences draft = preferences;
    draft.hotkey = HotkeyConfiguration();
    preferences = draft;
    save();
}

void SettingsState::draftSpotlightHotkey()
{
    AppPreferences draft = preferences;
    draft.hotkey = {.keyCode = HotkeyConfiguration::spaceKey, .modifiers = HotkeyConfiguration::command};
    preferences = draft;
}

void SettingsState::reportHotkeyFailure(
    std::exception_ptr error, const HotkeyConfiguration &attempted, std::optional<HotkeyConfiguration> active)
{
    hotkeyAttempt = attempted;
    activeHotkey = std::move(active);
    hotkeyIssue = AppError::friendly(error);
    services.diagnostics.recordError(DiagnosticsService::Category::hotkey);
    selectedTab = Tab::general;
}

void SettingsState::openKeyboardSettings() { systemHandle = spawn(services.platform.mainThread, openKeyboardSettingsTask()); }

Task<void> SettingsState::openKeyboardSettingsTask()
{
    const bool opened = co_await services.platform.system.openSettings(SettingsPage::keyboard);
    if (!opened)
        message = L10n::key("Open System Settings → Keyboard → Keyboard Shortcuts.");
}

std::vector<Subscription> SettingsState::observe(const std::function<void()> &changed)
{
    std::vector<Subscription> all;
    const auto add = [&](auto &property) { all.push_back(property.observe(changed)); };
    add(preferences), add(selectedTab), add(hotkeyIssue), add(hotkeyAttempt), add(activeHotkey), add(appliedHotkey),
        add(recorderRequest), add(message), add(saving);
    return all;
}

} // namespace korvane
