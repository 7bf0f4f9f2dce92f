#include "Vorrel/Platform/Linux/LinuxPlatform.h"

#include <filesystem>
#include <unistd.h>

namespace korvane {

namespace {

// The store's two connections, a scan and a request to the system can all block at once.
constexpr std::size_t poolThreads = 4;

} // namespace

LinuxPlatform::LinuxPlatform(Executor mainThread, std::vector<std::string> variables, std::function<std::string()> token) :
    environment(variablesOf(variables)), folders(linuxUserFolders(environment)), buses(linuxBusAddresses(environment)),
    pool(poolThreads), mainThread(std::move(mainThread)), entries(DesktopEnvironment::from(environment)),
    launcher({.pool = pool.executor(), .environment = std::move(variables), .activationToken = std::move(token)}),
    workspace(pool.executor(), launcher),
    system(pool.executor(), workspace, LinuxSystemControl::surroundingsOf(environment, folders))
{
}

LinuxPlatform::~LinuxPlatform() { join(); }

void LinuxPlatform::join() { pool.join(); }

Platform LinuxPlatform::ports(Dialogs &dialogs, Pasteboard &pasteboard, bool watches)
{
    if (watches && !watcher)
        watcher = std::make_unique<FolderMonitor>(mainThread);
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
        .pasteboard = pasteboard};
}

L10n::Places LinuxPlatform::textPlaces(const std::string &executable) const
{
    const std::filesystem::path folder = std::filesystem::path(executable).parent_path();
    return {.resources = (folder.parent_path() / "share/korvane").string(),
        .beside = folder.string(),
        .fixedAtBuild = KORVANE_BUILD_RESOURCES,
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

} // namespace korvane
