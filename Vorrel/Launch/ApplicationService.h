#pragma once

#include "CommandCore/CommandRegistry.h"
#include "CommandCore/JSONValue.h"
#include "Support/AsyncStream.h"
#include "Support/Clock.h"
#include "Support/MainLoop.h"
#include "Vorrel/Platform/ApplicationLauncher.h"
#include "Vorrel/Platform/ApplicationSource.h"
#include "Vorrel/Platform/FolderWatcher.h"
#include "Vorrel/Platform/UserFolders.h"
#include "Vorrel/Platform/Workspace.h"

#include <limits>

/// Installed applications: found on the disk, kept in memory, offered as rows, launched.
namespace korvane {

/// One installed application; a value.
struct ApplicationRecord {
    std::string name; ///< As it is shown.
    std::string bundleIdentifier; ///< The application's own identifier, or its path if it has none.
    std::string path; ///< Absolute path of the application's file or folder, as the file system's bytes.
    /// What its own file offers beside opening. Read with the scan, so that building a row reads no disk;
    /// empty where the catalogue knows the application.
    std::vector<ApplicationOwnAction> ownActions = {};

    bool operator==(const ApplicationRecord &) const = default;

    /// "name", "bundleIdentifier" and "path" as shown; beside them "pathBytes" in base64 only when the
    /// path is not UTF-8 and the shown one would open nothing.
    JSONValue json() const;
};

/// A scanner of installed applications.
class ApplicationIndexing {
public:
    virtual ~ApplicationIndexing() = default;
    /// Every installed application, sorted by name. Never throws: what cannot be read is left out.
    virtual Task<std::vector<ApplicationRecord>> scan() = 0;
};

/// Walks the roots of an `ApplicationSource`. A single-owner actor: a scan never occupies the caller's
/// thread, and two never run at once.
///
/// Hidden entries and what lies inside an application's own folder are not looked at. Of two
/// applications with one identifier the one found last wins; an entry that is not to be listed removes
/// the one found before. Links are followed; each folder of a root is entered once, so a loop ends.
class ApplicationIndexer final : public ApplicationIndexing {
public:
    /// `source` is used on the pool and outlives its work.
    ApplicationIndexer(Executor pool, const ApplicationSource &source);
    Task<std::vector<ApplicationRecord>> scan() override;

private:
    Actor actor;
    const ApplicationSource &source;
};

/// One fixed extra action of a known application.
struct AppLaunchAction {
    std::string id;
    std::string title;
    std::vector<std::string> arguments;
    bool operator==(const AppLaunchAction &) const = default;
};

/// The extra actions of applications whose command lines are known, by bundle identifier and by the
/// desktop identifiers of the same programs. Read-only; any thread.
class AppActionCatalog {
public:
    /// Empty for an unknown identifier.
    static const std::vector<AppLaunchAction> &actions(std::string_view identifier);
    /// Whether the identifier is that of the editor that people look for as "vscode".
    static bool isVSCode(std::string_view identifier);
};

/// Takes a typed line of arguments apart.
class LaunchArguments {
public:
    /// White space separates; single and double quotes keep it and are dropped; a quoted stretch joins
    /// the word it stands in. No escapes, no empty arguments; an open quote runs to the end.
    static std::vector<std::string> split(std::string_view line);
};

/// The list of installed applications: refreshed, searched, turned into commands, launched.
///
/// Main thread only. Owned by a `std::shared_ptr`: tasks and rows hold it weakly, so a row that
/// outlives the service fails with a sentence instead of reaching into it.
class ApplicationService : public std::enable_shared_from_this<ApplicationService> {
public:
    /// What the service works on. References outlive it.
    struct Ports {
        Executor mainThread;
        Clock &clock;
        std::shared_ptr<ApplicationIndexing> indexer;
        const ApplicationSource &source; ///< Its extension and roots are read here.
        ApplicationLauncher &launcher;
        Workspace &workspace;
        UserFolders folders;
        FolderWatcher *folderWatcher = nullptr; ///< Without one only the periodic rescan sees changes.
        std::optional<Executor> pool = {}; ///< Where the disk is looked at; the main thread without one.
    };
    explicit ApplicationService(Ports ports) : ports(std::move(ports)) { }

    /// Returns when a scan has finished; shares one in flight. Never throws but `Cancelled`.
    Task<void> refresh();
    /// Rescans every 60 seconds from now on, and shortly after something changed in the roots. A second
    /// call does nothing.
    void startMonitoring();
    /// Ends the monitoring. A scan in flight goes on to its end.
    void stop();

    /// One `ApplicationCommand` per application, in list order. The same object as before for an
    /// application that has not changed, so that rows are shared between rescans.
    CommandRegistry::Commands commands();
    /// The applications that match, the best first; equally good ones in the order of the list.
    std::vector<ApplicationRecord> search(std::string_view query) const;

    /// Launches the application at `path` (absolute, or from the tilde). Without arguments a running
    /// one may merely come forward; with them a new instance is asked for. Throws `toolExecution`.
    Task<void> open(std::string path, std::vector<std::string> arguments);
    /// Runs one of the application's own actions. Throws as `open` does.
    Task<void> openAction(std::string path, std::string actionId);
    /// Selects the application in the file manager.
    Task<void> reveal(std::string path);

    const std::vector<ApplicationRecord> &applications() const { return _applications; }
    /// Wall clock, seconds since 1970, when the last scan finished; endlessly long ago before the first.
    double lastRefresh() const { return _lastRefresh; }

    /// Called after each finished scan, whether or not anything changed.
    std::function<void()> onIndexChange;

private:
    using Weak = std::weak_ptr<ApplicationService>;
    static Task<void> scan(Weak weak, std::shared_ptr<ApplicationIndexing> indexer, std::shared_ptr<AsyncEvent> done);
    static Task<void> rescanPeriodically(Weak weak, Clock &clock);
    static Task<void> follow(Weak weak, AsyncStream<bool> changes);
    static Task<void> refreshSoon(Weak weak, Clock &clock);

    std::shared_ptr<AsyncEvent> beginRefresh();
    void publish(std::vector<ApplicationRecord> records);
    void noticeChange();
    Task<std::string> installed(std::string path) const;

    // Fixed after construction
    Ports ports;

    // Main thread only
    MainThreadOnly confined;
    std::vector<ApplicationRecord> _applications;
    double _lastRefresh = -std::numeric_limits<double>::infinity();
    std::unordered_map<std::string, std::shared_ptr<const Command>> built; // by path; as of the last `commands`
    std::shared_ptr<AsyncEvent> refreshTask; // fires when the scan in flight has been published
    TaskHandle watcher; // the periodic loop
    TaskHandle follower; // reads the folder watcher
    TaskHandle changeTask; // from a change to the start of its scan
    bool monitoring = false;
    bool changePending = false; // a change was noticed that no scan begun since can have missed
};

/// One application as a row of the palette. Its row never changes: a changed record is another command.
class ApplicationCommand final : public Command {
public:
    ApplicationCommand(ApplicationRecord record, std::weak_ptr<ApplicationService> service);

    const std::string &id() const override { return row->id; }
    Row result(const CommandContext &) const override { return row; }
    bool isFixed() const override { return true; }

    const ApplicationRecord record;
    const std::weak_ptr<ApplicationService> service;

private:
    Row row;
};

} // namespace korvane
