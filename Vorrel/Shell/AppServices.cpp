#include "Vorrel/Shell/AppServices.h"

#include "Support/Text.h"
#include "Vorrel/AI/OpenAIProvider.h"
#include "Vorrel/FileIndex/DiskFileAttributes.h"
#include "Vorrel/FileIndex/DiskFileScanner.h"
#include "Vorrel/Shell/L10n.h"

#include <filesystem>
#include <sys/stat.h>

namespace korvane {

namespace {

constexpr const char *presentVersion = "5";
// Characters. What a server says of its tools has no bound of its own, and must not push the input out of sight.
constexpr std::size_t shownInput = 1600, shownDescription = 2000, shownName = 200;

Database::Uptime uptimeOf(const Platform &platform)
{
    Clock &clock = platform.clock;
    return [&clock] { return clock.uptime(); };
}

std::shared_ptr<ApplicationService> makeApplications(const Platform &platform)
{
    return std::make_shared<ApplicationService>(ApplicationService::Ports{
        .mainThread = platform.mainThread,
        .clock = platform.clock,
        .indexer = std::make_shared<ApplicationIndexer>(platform.pool, platform.applicationSource),
        .source = platform.applicationSource,
        .launcher = platform.launcher,
        .workspace = platform.workspace,
        .folders = platform.folders,
        .folderWatcher = platform.folderWatcher,
        .pool = platform.pool,
    });
}

/// A file index over the store, or one that knows no files where the platform cannot walk folders.
std::shared_ptr<FileIndexService> makeFileIndex(const Platform &platform, std::shared_ptr<Database> database,
    std::shared_ptr<Database> searchDatabase, DiagnosticsService *diagnostics, std::optional<std::string> lockPath)
{
    if (!platform.walker)
        return nullptr;
    auto scanner = std::make_unique<DiskFileScanner>(platform.mainThread, platform.clock, *platform.walker, platform.folders);
    return std::make_shared<FileIndexService>(FileIndexService::Ports{
        .mainThread = platform.mainThread,
        .pool = platform.pool,
        .clock = platform.clock,
        .folders = platform.folders,
        .places = platform.indexPlaces,
        .database = std::move(database),
        .searchDatabase = std::move(searchDatabase),
        .scanner = std::move(scanner),
        .watcher = platform.fileEvents,
        .attributes = platform.fileAttributes ? platform.fileAttributes : std::make_shared<DiskFileAttributes>(),
        .diagnostics = diagnostics,
        .lockPath = std::move(lockPath),
    });
}

std::shared_ptr<FileIndex> orNoFiles(std::shared_ptr<FileIndex> given)
{
    return given ? std::move(given) : std::make_shared<FileIndex>();
}

std::shared_ptr<ClipboardService> makeClipboard(const Platform &platform, const std::shared_ptr<Database> &database)
{
    return std::make_shared<ClipboardService>(platform.mainThread, platform.clock, ClipboardRepository(database, platform.clock),
        platform.pasteboardWatching, platform.pasteboard);
}

std::shared_ptr<ShortcutsService> makeShortcuts(const Platform &platform)
{
    if (!platform.shortcutsTool)
        return std::make_shared<ShortcutsService>();
    const auto process = std::make_shared<BoundedProcess>(platform.pool, platform.clock, platform.shortcutsTool->environment);
    auto runner = std::make_unique<ShortcutsCLI>(ShortcutsCLI::tool(platform.shortcutsTool->path, process));
    return std::make_shared<ShortcutsService>(platform.mainThread, platform.clock, std::move(runner));
}

AppServices::MakeProvider providersOf(const Platform &platform, KeychainService &keychain)
{
    return [pool = platform.pool, http = platform.http, endpoint = OpenAIProvider::endpoint(platform.environment), &keychain](
               std::string model) { return std::make_unique<OpenAIProvider>(std::move(model), keychain, http, pool, endpoint); };
}

/// Asks whether a tool may be called with this input, of which the user sees the beginning.
Task<void> askFor(const AppServices &services, const ToolDefinition &tool, const JSONValue &input)
{
    if (services.allowedTools.contains(tool.name))
        co_return;
    std::string shown;
    try {
        shown = input.encodedString();
    } catch (const JSONError &) {
    }
    std::string title = L10n::format("AI wants to run %@", std::string(boundedBeginning(tool.name, shownName)));
    std::string detail(boundedBeginning(tool.description, shownDescription));
    detail.append("\n\n").append(boundedBeginning(shown, shownInput));
    co_await services.permissions.confirm(std::move(title), std::move(detail));
}

/// How MCP servers are run; nothing where none can be.
std::optional<StdioTransport::Parts> transportParts(const Platform &platform)
{
    if (!platform.servers)
        return std::nullopt;
    return StdioTransport::Parts{platform.pool, platform.clock, *platform.servers, platform.folders.home};
}

} // namespace

Task<std::shared_ptr<AppServices>> AppServices::create(
    Platform platform, std::optional<Milliseconds> patience, bool holdsIndex, MakeProvider makeProvider)
{
    const auto folder = platform.folders.korvane();
    if (!folder)
        throw AppError(AppError::Kind::database, "Could not open the local database.");
    Actor disk(platform.pool);
    const std::string path = storePath(*folder);
    auto makeFolder = [folder = *folder, path](std::stop_token) {
        createPrivateFolder(folder);
        return !std::filesystem::exists(path);
    };
    const bool storeIsNew = co_await disk.run(std::move(makeFolder));

    auto database = co_await Database::open(platform.pool, path, Database::Access::readWrite, uptimeOf(platform), patience);
    Injected injected;
    injected.makeProvider = std::move(makeProvider);
    injected.searchDatabase = co_await Database::open(platform.pool, path, Database::Access::readOnly, uptimeOf(platform));
    // Without diagnostics: what is searched and what fails there never reaches a report.
    auto lock = holdsIndex ? std::nullopt : indexLock(platform.folders);
    injected.fileIndex = makeFileIndex(platform, database, injected.searchDatabase, nullptr, std::move(lock));
    auto services = std::make_shared<AppServices>(std::move(platform), std::move(database), std::move(injected));
    services->storeIsNew = storeIsNew;
    co_return services;
}

Task<std::shared_ptr<AppServices>> AppServices::createForReading(Platform platform)
{
    const auto folder = platform.folders.korvane();
    const std::string path = folder ? storePath(*folder) : std::string();
    Actor disk(platform.pool);
    auto look = [path](std::stop_token) { return !path.empty() && std::filesystem::exists(path); };
    const bool exists = co_await disk.run(std::move(look));
    if (!exists) {
        auto empty = co_await Database::open(platform.pool, ":memory:", Database::Access::readWrite, uptimeOf(platform));
        co_return std::make_shared<AppServices>(std::move(platform), std::move(empty), Injected());
    }
    auto store = co_await Database::open(platform.pool, path, Database::Access::readOnly, uptimeOf(platform));
    const auto version = co_await store->rows("PRAGMA user_version");
    if (version.size() != 1 || version[0].at("user_version") != presentVersion) {
        co_await store->close();
        co_return co_await create(std::move(platform));
    }
    Injected injected;
    if (const auto index = makeFileIndex(platform, store, nullptr, nullptr, {})) {
        co_await index->readRoots();
        injected.fileIndex = index;
    }
    co_return std::make_shared<AppServices>(std::move(platform), std::move(store), std::move(injected));
}

std::string AppServices::storePath(const std::string &folder) { return folder + "/korvane.sqlite"; }

std::optional<std::string> AppServices::indexLock(const UserFolders &folders)
{
    const auto folder = folders.korvane();
    return folder ? std::optional(*folder + "/korvane.index.lock") : std::nullopt;
}

void AppServices::createPrivateFolder(const std::string &path)
{
    std::error_code failure;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), failure);
    if (::mkdir(path.c_str(), 0700) == 0 || std::filesystem::is_directory(path, failure))
        return;
    throw AppError(AppError::Kind::database, "Could not open the local database.");
}

AppServices::AppServices(Platform given, std::shared_ptr<Database> store, Injected injected) :
    platform(std::move(given)), diagnostics({platform.clock, platform.dialogs, platform.pool, platform.facts}),
    database(std::move(store)), searchDatabase(injected.searchDatabase ? std::move(injected.searchDatabase) : database),
    applications(makeApplications(platform)), system(platform), files(platform), permissions(platform.dialogs),
    clipboard(injected.clipboard ? std::move(injected.clipboard) : makeClipboard(platform, database)),
    usage(database, platform.clock), settings(database), quicklinks(database), appLaunches(database, platform.clock),
    fileIndex(orNoFiles(
        injected.fileIndex ? std::move(injected.fileIndex) : makeFileIndex(platform, database, nullptr, &diagnostics, {}))),
    shortcuts(injected.shortcuts ? std::move(injected.shortcuts) : makeShortcuts(platform)),
    keychain(platform.pool, platform.secrets),
    makeProvider(injected.makeProvider ? std::move(injected.makeProvider) : providersOf(platform, keychain)),
    lazyAgents(std::move(injected.agents))
{
}

AppServices::~AppServices() = default;

ToolRegistry &AppServices::tools()
{
    if (!lazyTools) {
        lazyTools = std::make_unique<ToolRegistry>(
            [this](const ToolDefinition &tool, const JSONValue &input) { return askFor(*this, tool, input); });
    }
    return *lazyTools;
}

AIRuntime &AppServices::ai()
{
    if (!lazyRuntime)
        lazyRuntime = std::make_unique<AIRuntime>(tools());
    return *lazyRuntime;
}

MCPManager &AppServices::mcp()
{
    tools();
    if (!lazyMcp)
        lazyMcp = std::make_unique<MCPManager>(MCPManager::Parts{tools(), keychain, database, transportParts(platform)});
    return *lazyMcp;
}

SettingsState &AppServices::preferences()
{
    mcp();
    if (!lazyPreferences)
        lazyPreferences = std::make_unique<SettingsState>(*this);
    return *lazyPreferences;
}

AgentStore &AppServices::agents()
{
    tools();
    if (!lazyAgents)
        lazyAgents = std::make_shared<AgentStore>(AgentStore::Parts{.mainThread = platform.mainThread,
            .folders = platform.folders,
            .tools = tools(),
            .repository = AgentRepository(database),
            .loader = std::make_unique<SkillLoader>(platform.detached)});
    return *lazyAgents;
}

} // namespace korvane
