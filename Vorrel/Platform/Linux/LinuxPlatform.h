#pragma once

#include "Support/OwnThread.h"
#include "Vorrel/FileIndex/IndexSnapshot.h"
#include "Vorrel/Platform/Linux/CurlHTTPClient.h"
#include "Vorrel/Platform/Linux/DesktopEntries.h"
#include "Vorrel/Platform/Linux/FolderMonitor.h"
#include "Vorrel/Platform/Linux/InotifyFileEvents.h"
#include "Vorrel/Platform/Linux/Launcher.h"
#include "Vorrel/Platform/Linux/LinuxDirectoryWalker.h"
#include "Vorrel/Platform/Linux/LinuxEnvironment.h"
#include "Vorrel/Platform/Linux/LinuxLoginItem.h"
#include "Vorrel/Platform/Linux/LinuxPasteboardWatching.h"
#include "Vorrel/Platform/Linux/LinuxSecretStore.h"
#include "Vorrel/Platform/Linux/LinuxServerLaunching.h"
#include "Vorrel/Platform/Linux/LinuxSystemControl.h"
#include "Vorrel/Platform/Linux/LinuxWorkspace.h"
#include "Vorrel/Platform/Platform.h"
#include "Vorrel/Shell/L10n.h"

namespace korvane {

/// The adapters of a Linux desktop that need no toolkit, made of one environment. Made on the main thread
/// before anything else, and kept longer than the services.
class LinuxPlatform {
public:
    /// `environment` holds the process's variables as "NAME=value", as they were when it started; programs
    /// that it launches get these. `token` is asked for the activation token of each launch.
    LinuxPlatform(Executor mainThread, std::vector<std::string> environment, std::function<std::string()> token = {});
    ~LinuxPlatform();

    /// The ports, with the two that only a front end can serve. Folders are watched, and the disk and the clipboard are
    /// followed, if `watches`.
    Platform ports(Dialogs &dialogs, Pasteboard &pasteboard, bool watches);
    /// Where the tables of texts are, for a program at `executable`.
    L10n::Places textPlaces(const std::string &executable) const;
    /// Ends the pool; nothing runs on it any more when this returns.
    void join();

    const std::vector<std::string> variables;
    const Environment environment;
    const UserFolders folders;
    const BusAddresses buses;
    SystemClock clock;
    ThreadPool pool;

private:
    struct Following;

    void follow();

    const Executor mainThread;
    DesktopEntries entries;
    DesktopLauncher launcher;
    LinuxWorkspace workspace;
    LinuxSystemControl system;
    LinuxSecretStore secrets;
    LinuxLoginItem loginItem;
    CurlHTTPClient http;
    LinuxServerLaunching servers;
    std::unique_ptr<FolderMonitor> watcher;
    std::unique_ptr<LinuxPasteboardWatching> clipboard;
    std::shared_ptr<Following> following; ///< Shared with walks, which may hang in the system longer than this lives.
    LinuxDirectoryWalker walker;
    std::unique_ptr<WorkerThread> eventThread;
    std::unique_ptr<IndexSnapshot> indexed;
};

/// The variables of this process, as "NAME=value".
std::vector<std::string> processVariables();

/// The path of the running program; empty when the system does not tell.
std::string executablePath();

/// Where another of our programs is, for the one at `executable`. What a program starts for work of its own is in
/// "../libexec/korvane" once installed, so that nobody finds it among the commands; all else is beside `executable`, and
/// so is everything in a build.
std::string companionPath(const std::string &executable, const std::string &name);

} // namespace korvane
