#pragma once

#include "Vorrel/Platform/Linux/Launcher.h"
#include "Vorrel/Platform/Workspace.h"

namespace korvane {

/// Opens files and addresses with the applications that the user's settings of file types name (GIO),
/// started through the launcher so that they survive this program. The type of a file follows from its
/// name. Main thread; what blocks runs on the pool.
class LinuxWorkspace : public Workspace {
public:
    /// `launcher` outlives this object.
    LinuxWorkspace(Executor pool, DesktopLauncher &launcher) : pool(std::move(pool)), launcher(launcher) { }

    Task<bool> open(std::string pathOrURL) override;
    /// `application` is the path of a desktop entry.
    Task<void> openWith(std::string path, std::string application) override;
    /// Through the running file manager; where none answers, the folder is opened instead.
    Task<void> reveal(std::string path) override;
    Task<std::vector<ApplicationHandler>> handlers(std::string path) override;

private:
    const Executor pool;
    DesktopLauncher &launcher;
};

} // namespace korvane
