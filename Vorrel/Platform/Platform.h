#pragma once

#include "Support/Clock.h"
#include "Support/OwnThread.h"
#include "Vorrel/Platform/ApplicationLauncher.h"
#include "Vorrel/Platform/ApplicationSource.h"
#include "Vorrel/Platform/Dialogs.h"
#include "Vorrel/Platform/DirectoryWalker.h"
#include "Vorrel/Platform/FileEvents.h"
#include "Vorrel/Platform/FolderWatcher.h"
#include "Vorrel/Platform/HTTPClient.h"
#include "Vorrel/Platform/IndexPlaces.h"
#include "Vorrel/Platform/LoginItem.h"
#include "Vorrel/Platform/Pasteboard.h"
#include "Vorrel/Platform/PasteboardWatching.h"
#include "Vorrel/Platform/PreviewWindow.h"
#include "Vorrel/Platform/SecretStore.h"
#include "Vorrel/Platform/ServerLaunching.h"
#include "Vorrel/Platform/SystemControl.h"
#include "Vorrel/Platform/SystemFacts.h"
#include "Vorrel/Platform/UserFolders.h"
#include "Vorrel/Platform/Workspace.h"

#include <functional>

namespace korvane {

/// The command-line tool that lists and runs the user's shortcuts.
struct ShortcutsTool {
    std::string path; ///< Absolute.
    std::vector<std::string> environment; ///< What it is started with, as "NAME=value".
};

/// Everything that the services ask of a system, as one front end chose it. The ports outlive the services.
struct Platform {
    Executor mainThread;
    Executor pool; ///< Threads for blocking work.
    Clock &clock;
    UserFolders folders;
    const ApplicationSource &applicationSource; ///< Used on the pool.
    ApplicationLauncher &launcher;
    FolderWatcher *folderWatcher; ///< Null where nothing can be watched, or nothing shall be.
    Workspace &workspace;
    SystemControl &system;
    Dialogs &dialogs;
    Pasteboard &pasteboard;
    const DirectoryWalker *walker = nullptr; ///< Null where files are not indexed.
    IndexPlaces indexPlaces = {};
    FileEventWatching *fileEvents = nullptr; ///< Null where the disk is not followed.
    std::shared_ptr<const FileAttributeReading> fileAttributes = {}; ///< Null where `DiskFileAttributes` as it is will do.
    PasteboardWatching *pasteboardWatching = nullptr; ///< Null where the clipboard is not followed.
    PreviewWindow *preview = nullptr; ///< Null where no file can be shown.
    SecretStore *secrets = nullptr; ///< Null where none can be kept.
    HTTPClient *http = nullptr; ///< Null where no server can be reached.
    LoginItem *loginItem = nullptr; ///< Null where the program cannot start with the session.
    ServerLaunching *servers = nullptr; ///< Null where no MCP server can be run.
    std::function<SystemFacts()> facts = [] { return SystemFacts(); }; ///< Looks at the machine; blocks; any thread.
    std::vector<std::string> environment = {}; ///< The program's own, as "NAME=value".
    WorkStarter detached = runOnOwnThread; ///< For work that may hang in the system for good.
    std::optional<ShortcutsTool> shortcutsTool = {}; ///< Nothing where there are no shortcuts.
};

} // namespace korvane
