#include "Vorrel/Platform/Linux/LinuxPlatform.h"

#include "Vorrel/FileIndex/DiskFileAttributes.h"
#include "Vorrel/Platform/Linux/LinkedFacts.h"
#include "Vorrel/Platform/Linux/LinuxSystemFacts.h"
#include "Vorrel/Shell/AppServices.h"

#include <filesystem>
#include <mutex>
#include <unistd.h>

namespace korvane {

namespace {

// The store's two connections, a scan and a request to the system can all block at once.
constexpr std::size_t poolThreads = 4;

} // namespace

/// Lets walks tell the watch of the folders that they enter, for as long as there is one.
struct LinuxPlatform::Following {
    void entered(const std::string &folder)
    {
        std::shared_ptr<InotifyFileEvents> present;
        {
            std::scoped_lock lock(mutex);
            present = events;
        }
        if (present)
            present->entered(folder);
    }
    void set(std::shared_ptr<InotifyFileEvents> next)
    {
        std::scoped_lock lock(mutex);
        events.swap(next);
    }

    std::mutex mutex;
    std::shared_ptr<InotifyFileEvents> events;
};

LinuxPlatform::LinuxPlatform(Executor mainThread, std::vector<std::string> given, std::function<std::string()> token) :
    variables(std::move(given)), environment(variablesOf(variables)), folders(linuxUserFolders(environment)),
    buses(linuxBusAddresses(environment)), pool(poolThreads), mainThread(std::move(mainThread)),
    entries(DesktopEnvironment::from(environment)),
    launcher({.pool = pool.executor(), .environment = variables, .activationToken = std::move(token)}),
    workspace(pool.executor(), launcher),
    system(pool.executor(), workspace, launcher, LinuxSystemControl::surroundingsOf(environment, folders)),
    secrets(buses.session),
    loginItem(LinuxLoginItem::Places::from(environment, folders), companionPath(executablePath(), "korvane")),
    http(CurlHTTPClient::Settings::from(environment)), servers(companionPath(executablePath(), "korvane-mcp-host")),
    following(std::make_shared<Following>()),
    walker([following = following](const std::string &folder) { following->entered(folder); })
{
}

LinuxPlatform::~LinuxPlatform() { join(); }

void LinuxPlatform::join()
{
    following->set(nullptr);
    eventThread.reset(); // before the pool, on which its questions run
    pool.join();
}

void LinuxPlatform::follow()
{
    if (eventThread || !folders.korvane())
        return;
    eventThread = std::make_unique<WorkerThread>();
    const Executor worker = eventThread->executor();
    indexed = std::make_unique<IndexSnapshot>(worker, pool.executor(), AppServices::storePath(*folders.korvane()), clock);
    InotifyFileEvents::Settings settings;
    settings.skippedPrefixes = IndexPlaces::linux(folders).skippedPrefixes;
    following->set(std::make_shared<InotifyFileEvents>(worker, clock, *indexed, std::move(settings)));
}

Platform LinuxPlatform::ports(Dialogs &dialogs, Pasteboard &pasteboard, bool watches)
{
    if (watches && !watcher)
        watcher = std::make_unique<FolderMonitor>(mainThread);
    if (watches && !clipboard)
        clipboard = std::make_unique<LinuxPasteboardWatching>(mainThread, pool.executor(), clock, variables, entries);
    if (watches)
        follow();
    return {.mainThread = mainThread,
        .pool = pool.executor(),
        .clock = clock,
        .folders = folders,
        .applicationSource = entries,
        .launcher = launcher,
        .folderWatcher = watcher.get(),
        .workspace = workspace,
        .system = system,
        .dialogs = dialogs,
        .pasteboard = pasteboard,
        .walker = &walker,
        .indexPlaces = IndexPlaces::linux(folders),
        .fileEvents = following->events.get(),
        .fileAttributes = std::make_shared<DiskFileAttributes>(presentLinkedFacts()),
        .pasteboardWatching = clipboard.get(),
        .secrets = &secrets,
        .http = &http,
        .loginItem = &loginItem,
        .servers = &servers,
        .facts = [environment = environment] { return linuxSystemFacts(environment); },
        .environment = variables,
        .shortcutsTool = ShortcutsTool{companionPath(executablePath(), "korvane-shortcuts"), variables}};
}

L10n::Places LinuxPlatform::textPlaces(const std::string &executable) const
{
    const std::filesystem::path folder = std::filesystem::path(executable).parent_path();
    return {.resources = (folder.parent_path() / "share/korvane").string(),
        .beside = folder.string(),
        .fixedAtBuild = KORVANE_FIXED_RESOURCES,
        .languages = linuxLanguages(environment),
        .platform = "linux"};
}

std::vector<std::string> processVariables()
{
    std::vector<std::string> all;
    for (char **one = environ; one && *one; ++one)
        all.emplace_back(*one);
    return all;
}

std::string executablePath()
{
    std::error_code failure;
    return std::filesystem::read_symlink("/proc/self/exe", failure).string();
}

std::string companionPath(const std::string &executable, const std::string &name)
{
    const std::filesystem::path folder = std::filesystem::path(executable).parent_path();
    const std::filesystem::path installed = folder.parent_path() / "libexec/korvane" / name;
    std::error_code failure;
    return (std::filesystem::exists(installed, failure) ? installed : folder / name).string();
}

} // namespace korvane
