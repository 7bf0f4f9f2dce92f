#pragma once

#include "Vorrel/AI/AIRuntime.h"
#include "Vorrel/AI/AgentStore.h"
#include "Vorrel/AI/NativeTools.h"
#include "Vorrel/FileIndex/FileIndexService.h"
#include "Vorrel/FileIndex/FileService.h"
#include "Vorrel/Launch/ApplicationService.h"
#include "Vorrel/Launch/ClipboardService.h"
#include "Vorrel/Launch/PermissionService.h"
#include "Vorrel/Launch/ShortcutsService.h"
#include "Vorrel/Launch/SystemService.h"
#include "Vorrel/MCP/MCPManager.h"
#include "Vorrel/Shell/DiagnosticsService.h"
#include "Vorrel/Shell/KeychainService.h"
#include "Vorrel/Shell/SettingsState.h"
#include "Vorrel/Store/Repositories.h"

#include <set>

namespace korvane {

/// The composition root: owns every service for the life of the process. Nothing replaces a member once
/// it is built; the palette, the settings and the tools borrow them. Main thread only.
class AppServices {
public:
    /// Makes what answers requests to a model of this name. The services outlive it.
    using MakeProvider = std::function<std::unique_ptr<ModelProvider>(std::string model)>;

    /// Creates the data folder (owner only), opens the store off the main thread with its migrations, then a
    /// read-only connection for searches, and wires everything. Throws the store's errors, and
    /// `database` "Could not open the local database." when there is no data folder.
    /// `patience` is how long a write waits for a lock of another process; the store's own time without it. The file
    /// index takes its lock when it starts, unless the caller `holdsIndex` already. Without `makeProvider` requests go to
    /// the real provider.
    static Task<std::shared_ptr<AppServices>> create(
        Platform platform, std::optional<Milliseconds> patience = {}, bool holdsIndex = false, MakeProvider makeProvider = {});

    /// The same services for a process that only reads, beside a running one: over a read-only connection to an
    /// up-to-date store, over an empty one in memory where there is no store yet. A store of an earlier
    /// version is brought up to date first.
    static Task<std::shared_ptr<AppServices>> createForReading(Platform platform);

    /// Creates the program's folder, for the user alone, with the folders above it. Blocks. Throws `database` "Could not
    /// open the local database."
    static void createPrivateFolder(const std::string &path);
    /// The store in the program's folder.
    static std::string storePath(const std::string &folder);
    /// The file by which one process at a time works on the file index; nothing without a data folder.
    static std::optional<std::string> indexLock(const UserFolders &folders);

    /// What a host may replace. Without a file index one over `database` alone is made, where the platform can walk
    /// folders. The other defaults are the real ones.
    struct Injected {
        std::shared_ptr<FileIndex> fileIndex = {};
        std::shared_ptr<ShortcutsService> shortcuts = {};
        std::shared_ptr<ClipboardService> clipboard = {};
        std::shared_ptr<AgentStore> agents = {};
        std::shared_ptr<Database> searchDatabase = {};
        MakeProvider makeProvider = {};
    };
    AppServices(Platform platform, std::shared_ptr<Database> database, Injected injected);
    ~AppServices();

    // Built at first read, because they reach other members
    ToolRegistry &tools();
    AIRuntime &ai();
    MCPManager &mcp();
    SettingsState &preferences();
    AgentStore &agents();

    const Platform platform;
    DiagnosticsService diagnostics;
    const std::shared_ptr<Database> database;
    const std::shared_ptr<Database> searchDatabase; ///< Read-only; the same as `database` for ":memory:".
    const std::shared_ptr<ApplicationService> applications;
    SystemService system;
    FileService files;
    PermissionService permissions;
    const std::shared_ptr<ClipboardService> clipboard;
    CommandUsageStore usage;
    SettingsRepository settings;
    QuicklinkRepository quicklinks;
    AppLaunchRepository appLaunches;
    const std::shared_ptr<FileIndex> fileIndex;
    const std::shared_ptr<ShortcutsService> shortcuts;
    KeychainService keychain;
    const MakeProvider makeProvider;

    /// Whether `create` has made the store: nobody has used the program before.
    bool storeIsNew = false;
    /// Names of tools for which the user has given consent beforehand, for every call of this process: of those nobody
    /// asks. Empty but for a command line that names them.
    std::set<std::string> allowedTools;

private:
    std::unique_ptr<ToolRegistry> lazyTools;
    std::unique_ptr<MCPManager> lazyMcp;
    std::unique_ptr<SettingsState> lazyPreferences;
    std::unique_ptr<AIRuntime> lazyRuntime;
    std::shared_ptr<AgentStore> lazyAgents;
};

} // namespace korvane
