#include "Vorrel/Shell/SettingsState.h"

#include "Support/Memory.h"
#include "Support/Text.h"
#include "Support/UUID.h"
#include "Vorrel/AI/OpenAIProvider.h"
#include "Vorrel/Launch/Quicklinks.h"
#include "Vorrel/Shell/AppServices.h"
#include "Vorrel/Shell/L10n.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace korvane {

namespace {

constexpr const char *preferencesKey = "preferences";

constexpr const char *exampleServer = R"({
  "name": "Local MCP",
  "transport": "stdio",
  "command": "/usr/bin/python3",
  "args": ["/absolute/path/to/server.py"],
  "env": {}
})";

/// Told where no autostart can be noted.
struct NoLoginItem : std::exception { };

SettingsState::LoginItemStatus shownStatus(LoginItem::Status status)
{
    switch (status) {
    case LoginItem::Status::enabled: return SettingsState::LoginItemStatus::enabled;
    case LoginItem::Status::awaitingApproval: return SettingsState::LoginItemStatus::awaitingApproval;
    case LoginItem::Status::disabled: break;
    }
    return SettingsState::LoginItemStatus::disabled;
}

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

SettingsState::SettingsState(AppServices &services) :
    serverJSON(exampleServer), services(services), loginItem(services.platform.pool)
{
}

MCPManager &SettingsState::mcp() { return services.mcp(); }

FileIndex &SettingsState::fileIndex() { return *services.fileIndex; }

AgentStore &SettingsState::agents() { return services.agents(); }

Task<void> SettingsState::load()
{
    const auto stored = co_await services.settings.load(preferencesKey, AppPreferences::decode);
    preferences = stored.value_or(AppPreferences());
    appliedHotkey = preferences->hotkey;
    refreshLoginStatus();
    apply();
    co_await mcp().load();
    co_await reloadQuicklinks();
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
    saveHandle = spawn(services.platform.mainThread, saveTask(preferences, apiKey, preferences->clipboardLimit));
}

Task<void> SettingsState::saveTask(AppPreferences copy, std::string key, int editedLimit)
{
    copy.clipboardLimit =
        std::clamp(copy.clipboardLimit, AppPreferences::smallestClipboardLimit, AppPreferences::largestClipboardLimit);
    copy.model = trimmed(copy.model);
    try {
        co_await saveOrThrow(copy, key);
        show(copy, editedLimit);
        co_await prune(copy.clipboardLimit);
    } catch (...) {
        message = AppError::friendly(std::current_exception());
    }
    saving = false;
    if (apiKey.get() == key)
        apiKey = std::string();
    wipe(key);
    if (const auto kept = std::exchange(toKeep, std::nullopt))
        keepHotkey(*kept);
}

void SettingsState::show(const AppPreferences &saved, int editedLimit)
{
    appliedHotkey = saved.hotkey;
    apply(saved);
    if (preferences->clipboardLimit == editedLimit) {
        AppPreferences clamped = preferences;
        clamped.clipboardLimit = saved.clipboardLimit;
        preferences = clamped;
    }
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

Task<void> SettingsState::saveOrThrow(AppPreferences &copy, const std::string &key)
{
    if (copy.model.empty())
        throw AppError(AppError::Kind::configuration, "Enter a model identifier.");
    try {
        updateHotkey(copy.hotkey); // first, since it is what the system can refuse
    } catch (const HotkeyRegistrationError &) {
        reportHotkeyFailure(std::current_exception(), copy.hotkey, activeHotkey);
        throw;
    }
    // Now and not once it is stored: the shortcut may be lost meanwhile, and that is reported.
    activeHotkey = copy.hotkey;
    hotkeyIssue = std::nullopt;
    hotkeyAttempt = std::nullopt;
    std::exception_ptr failure;
    try {
        co_await store(copy, key);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        rollBackHotkey(copy.hotkey);
        std::rethrow_exception(failure);
    }
}

Task<void> SettingsState::store(const AppPreferences &copy, const std::string &key)
{
    if (!key.empty()) {
        co_await services.keychain.set(key, KeychainService::providerAccount);
        keySaved = true;
    }
    co_await services.settings.save(preferencesKey, copy.json());
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

void SettingsState::keepHotkey(const HotkeyConfiguration &working)
{
    if (saving) {
        toKeep = working;
        return;
    }
    appliedHotkey = working;
    saving = true;
    start(keepHotkeyTask(working));
}

Task<void> SettingsState::keepHotkeyTask(HotkeyConfiguration working)
{
    std::exception_ptr failure;
    try {
        AppPreferences stored =
            (co_await services.settings.load(preferencesKey, AppPreferences::decode)).value_or(AppPreferences());
        stored.hotkey = working;
        co_await services.settings.save(preferencesKey, stored.json());
    } catch (...) {
        failure = std::current_exception();
    }
    saving = false;
    if (failure)
        std::rethrow_exception(failure);
}

// Starting with the session

const char *SettingsState::sentence(LoginItemStatus status)
{
    switch (status) {
    case LoginItemStatus::enabled: return L10n::key("Korvane will open at login.");
    case LoginItemStatus::disabled: return L10n::key("Korvane will not open at login.");
    case LoginItemStatus::awaitingApproval:
        return L10n::key("Waiting for macOS approval. Allow Korvane in System Settings → General → Login Items.");
    case LoginItemStatus::failed: break;
    }
    return L10n::key("Login registration failed. Move Korvane.app to Applications and try again.");
}

void SettingsState::refreshLoginStatus() { start(loginStatusTask()); }

void SettingsState::setLogin(bool enabled) { start(setLoginTask(enabled)); }

Task<void> SettingsState::loginStatusTask()
{
    LoginItem *item = services.platform.loginItem;
    if (!item)
        co_return;
    auto look = [item](std::stop_token) { return item->status(); };
    loginStatus = shownStatus(co_await loginItem.run(std::move(look)));
}

Task<void> SettingsState::setLoginTask(bool enabled)
{
    LoginItem *item = services.platform.loginItem;
    auto change = [item, enabled](std::stop_token) {
        if (!item)
            throw NoLoginItem();
        enabled ? item->registerProgram() : item->unregister();
        return item->status();
    };
    try {
        loginStatus = shownStatus(co_await loginItem.run(std::move(change)));
    } catch (const Cancelled &) {
        throw;
    } catch (const std::exception &) {
        loginStatus = LoginItemStatus::failed;
    }
    message = sentence(loginStatus);
}

// What buttons ask for

void SettingsState::start(Task<void> work)
{
    std::erase_if(started, [](const TaskHandle &task) { return !task.running(); });
    started.push_back(spawn(services.platform.mainThread, reporting(std::move(work))));
}

Task<void> SettingsState::reporting(Task<void> work)
{
    try {
        co_await std::move(work);
    } catch (...) {
        message = AppError::friendly(std::current_exception());
    }
}

void SettingsState::removeKey() { start(removeKeyTask()); }

Task<void> SettingsState::removeKeyTask()
{
    co_await services.keychain.deleteAccount(KeychainService::providerAccount);
    keySaved = false;
    message = L10n::key("API key removed.");
}

void SettingsState::clearClipboard() { start(clearClipboardTask()); }

Task<void> SettingsState::clearClipboardTask()
{
    co_await services.permissions.confirm(
        L10n::shown("Clear Clipboard History?"), L10n::shown("All locally saved clipboard entries will be deleted."));
    const ClipboardRepository clipboard(services.database, services.platform.clock);
    co_await clipboard.clear();
    message = L10n::key("Clipboard history cleared.");
}

void SettingsState::addServer() { start(addServerTask(serverJSON)); }

Task<void> SettingsState::addServerTask(std::string text)
{
    co_await mcp().add(MCPServerConfiguration::fromJSON(JSONValue::parse(text)));
    message = L10n::key("Server saved. Connect when ready.");
}

void SettingsState::connect(const MCPServerConfiguration &server) { start(connectTask(server)); }

Task<void> SettingsState::connectTask(MCPServerConfiguration server)
{
    co_await MCPManager::confirm(services.permissions, server);
    co_await mcp().connect(std::move(server));
}

void SettingsState::disconnect(const MCPServerConfiguration &server) { start(mcp().disconnect(server)); }

void SettingsState::removeServer(const MCPServerConfiguration &server) { start(mcp().remove(server)); }

void SettingsState::saveCredential() { start(saveCredentialTask(credentialAccount, credentialValue)); }

Task<void> SettingsState::saveCredentialTask(std::string account, std::string value)
{
    if (account.empty() || value.empty())
        throw AppError(AppError::Kind::configuration, "Enter an account name and secret.");
    co_await services.keychain.set(value, account);
    if (credentialValue.get() == value)
        credentialValue = std::string();
    wipe(value);
    message = L10n::key("Credential saved in Keychain.");
}

void SettingsState::addQuicklink() { start(addQuicklinkTask(quicklinkTitle, quicklinkURL)); }

Task<void> SettingsState::addQuicklinkTask(std::string title, std::string url)
{
    title = trimmed(title);
    if (title.empty())
        throw AppError(AppError::Kind::configuration, "Give the quicklink a name.");
    Quicklink link{.id = newUUID(), .title = std::move(title), .url = Quicklinks::validatedURL(url)};
    co_await services.quicklinks.save(std::move(link));
    co_await reloadQuicklinks();
    quicklinkTitle = std::string();
    quicklinkURL = std::string();
    message = L10n::key("Quicklink saved. It appears in the palette immediately.");
    quicklinksChanged();
}

void SettingsState::removeQuicklink(const Quicklink &link) { start(removeQuicklinkTask(link.id)); }

Task<void> SettingsState::removeQuicklinkTask(std::string id)
{
    co_await services.quicklinks.remove(std::move(id));
    co_await reloadQuicklinks();
    quicklinksChanged();
}

Task<void> SettingsState::reloadQuicklinks() { quicklinks = co_await services.quicklinks.load(); }

void SettingsState::addIndexRoot() { start(addIndexRootTask()); }

Task<void> SettingsState::addIndexRootTask()
{
    const auto chosen = co_await services.files.chooseDirectory();
    if (chosen)
        services.fileIndex->addRoot(*chosen);
}

void SettingsState::exportDiagnostics() { start(exportDiagnosticsTask()); }

Task<void> SettingsState::exportDiagnosticsTask()
{
    message = co_await services.diagnostics.writeWithSavePanel(services.fileIndex, activeHotkey->has_value());
}

// The system's own settings

void SettingsState::openKeyboardSettings()
{
    start(openSettingsTask(SettingsPage::keyboard, L10n::key("Open System Settings → Keyboard → Keyboard Shortcuts.")));
}

void SettingsState::openLoginItemsSettings()
{
    start(openSettingsTask(SettingsPage::loginItems, L10n::key("Open System Settings → General → Login Items.")));
}

void SettingsState::openFilePrivacySettings()
{
    start(openSettingsTask(SettingsPage::filePrivacy, L10n::key("Open System Settings → Privacy & Security → Files & Folders.")));
}

Task<void> SettingsState::openSettingsTask(SettingsPage page, std::string otherwise)
{
    const bool opened = co_await services.platform.system.openSettings(page);
    if (!opened)
        message = std::move(otherwise);
}

std::string SettingsState::providerNote() const { return OpenAIProvider::endpointNote(services.platform.environment); }

std::vector<Subscription> SettingsState::observe(const std::function<void()> &changed)
{
    std::vector<Subscription> all;
    const auto add = [&](auto &property) { all.push_back(property.observe(changed)); };
    add(preferences), add(selectedTab), add(hotkeyIssue), add(hotkeyAttempt), add(activeHotkey), add(appliedHotkey),
        add(recorderRequest), add(message), add(saving), add(loginStatus), add(keySaved), add(quicklinks), add(apiKey),
        add(credentialAccount), add(credentialValue), add(serverJSON), add(quicklinkTitle), add(quicklinkURL),
        add(mcp()._configurations), add(mcp()._status);
    return all;
}

} // namespace korvane
