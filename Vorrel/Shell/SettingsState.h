#pragma once

#include "CommandCore/JSONValue.h"
#include "Support/Observed.h"
#include "Support/Task.h"
#include "Vorrel/MCP/MCPManager.h"
#include "Vorrel/Platform/HotkeyRegistering.h"
#include "Vorrel/Platform/SystemControl.h"
#include "Vorrel/Store/Repositories.h"

#include <exception>
#include <list>
#include <vector>

namespace korvane {

class AgentStore;
class AppServices;
class FileIndex;

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
    static constexpr Tab tabs[] = {Tab::general, Tab::files, Tab::clipboard, Tab::ai, Tab::agents, Tab::mcp};

    /// Whether the program starts with the session, as far as it is known.
    enum class LoginItemStatus { enabled, disabled, awaitingApproval, failed };

    /// `services` outlives the state.
    explicit SettingsState(AppServices &services);

    /// Reads the stored preferences, or takes the defaults, and applies them; then reads the MCP servers and the quicklinks.
    /// Throws what the store throws, and for a document that is not one of preferences.
    Task<void> load();
    /// Registers the shortcut, then stores the key for the provider, unless its field is empty, and the preferences, and applies
    /// them; when storing fails the former shortcut is registered again. Does nothing while another save runs. How it
    /// ended stands in `message`, and the field of the key is emptied.
    void save();
    /// Hands the preferences to the services that follow them.
    void apply() { apply(preferences); }
    /// Looks again whether the program starts with the session, which the user may change elsewhere.
    void refreshLoginStatus();
    /// Starts the program with the session from now on, or no more.
    void setLogin(bool enabled);
    /// What a status means to the user: English, a key of `L10n`.
    static const char *sentence(LoginItemStatus status);

    /// Where requests to a model go, and how to change it; localised.
    std::string providerNote() const;

    // How the following ended stands in `message`; all return at once.
    void removeKey(); ///< Forgets the key for the provider.
    void clearClipboard(); ///< Deletes the clipboard history, once the user has confirmed it.
    void addServer(); ///< Stores the MCP server that `serverJSON` describes.
    void connect(const MCPServerConfiguration &server); ///< Starts an MCP server, once the user has confirmed it.
    void disconnect(const MCPServerConfiguration &server);
    void removeServer(const MCPServerConfiguration &server);
    void saveCredential(); ///< Puts `credentialValue` into the keychain under `credentialAccount`.
    void addQuicklink(); ///< Stores a quicklink of the two fields.
    void removeQuicklink(const Quicklink &link);
    void addIndexRoot(); ///< Lets the user choose a folder, which is indexed from then on.
    void exportDiagnostics(); ///< Lets the user choose a file, and writes the report there.

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
    /// Stores `working` as the shortcut, after the one that was saved has been refused. All other settings stay as stored.
    void keepHotkey(const HotkeyConfiguration &working);
    // Each opens a page of the system's own settings, or says where it is.
    void openKeyboardSettings();
    void openLoginItemsSettings();
    void openFilePrivacySettings();

    MCPManager &mcp(); ///< The servers that are shown, with their status.
    FileIndex &fileIndex(); ///< The folders that are shown.
    AgentStore &agents(); ///< The Agents that are shown.

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
    Observed<LoginItemStatus> loginStatus{LoginItemStatus::disabled};
    Observed<bool> keySaved{false}; ///< A key for the provider was saved since the start.
    Observed<std::vector<Quicklink>> quicklinks; ///< As last read.
    // What stands in the fields
    Observed<std::string> apiKey; ///< Never filled from the keychain.
    Observed<std::string> credentialAccount, credentialValue;
    Observed<std::string> serverJSON; ///< At first an example.
    Observed<std::string> quicklinkTitle, quicklinkURL;

    /// Registers a shortcut in place of the present one; throws `HotkeyRegistrationError`. Set by the application.
    std::function<void(HotkeyConfiguration)> updateHotkey = [](const HotkeyConfiguration &) {};
    /// Told when the recorder begins and ends to listen. Set by the application.
    std::function<void(bool)> recordingHotkeyChanged = [](bool) {};
    /// Told after a quicklink was added or removed. Set by the application.
    std::function<void()> quicklinksChanged = [] {};

private:
    void apply(const AppPreferences &wanted);
    Task<void> saveTask(AppPreferences copy, std::string key, int editedLimit);
    Task<void> saveOrThrow(AppPreferences &copy, const std::string &key);
    Task<void> store(const AppPreferences &copy, const std::string &key);
    void show(const AppPreferences &saved, int editedLimit);
    /// Brings the history of copied texts down to its new size, and says how saving ended.
    Task<void> prune(int limit);
    void rollBackHotkey(const HotkeyConfiguration &registered);
    Task<void> keepHotkeyTask(HotkeyConfiguration working);

    /// Starts what a button asks for; what it throws goes to `message`.
    void start(Task<void> work);
    Task<void> reporting(Task<void> work);
    Task<void> loginStatusTask();
    Task<void> setLoginTask(bool enabled);
    Task<void> removeKeyTask();
    Task<void> clearClipboardTask();
    Task<void> addServerTask(std::string text);
    Task<void> connectTask(MCPServerConfiguration server);
    Task<void> saveCredentialTask(std::string account, std::string value);
    Task<void> addQuicklinkTask(std::string title, std::string url);
    Task<void> removeQuicklinkTask(std::string id);
    Task<void> reloadQuicklinks();
    Task<void> addIndexRootTask();
    Task<void> exportDiagnosticsTask();
    Task<void> openSettingsTask(SettingsPage page, std::string otherwise);

    AppServices &services;
    Actor loginItem; ///< One look or change after the other.
    TaskHandle saveHandle;
    std::optional<HotkeyConfiguration> toKeep; ///< Once the present saving has ended.
    std::list<TaskHandle> started;
};

} // namespace korvane
