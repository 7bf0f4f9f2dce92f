#pragma once

#include "Vorrel/Platform/ApplicationLauncher.h"
#include "Vorrel/Platform/Linux/DesktopEntries.h"
#include "Vorrel/Platform/Linux/LinuxEnvironment.h"
#include "Vorrel/Platform/Linux/TrashFolders.h"
#include "Vorrel/Platform/SystemControl.h"
#include "Vorrel/Platform/Workspace.h"

#include "Support/Clock.h"

namespace korvane {

/// The session, the power and the file manager of a Linux desktop, over its message buses; the trash on its disks.
/// Requests are carried out on a pool, one after the other. Each request to a service has a time limit.
class LinuxSystemControl final : public SystemControl {
public:
    struct Surroundings {
        BusAddresses buses;
        std::string session = {}; ///< The login session's identifier; empty when the environment has none.
        TrashPlaces trash;
        std::string applications = "/usr/share/applications"; ///< What "/Applications" opens.
        DesktopEnvironment desktop = {}; ///< Where the settings' pages are found.
        Milliseconds limit{5000}; ///< For connecting to a bus, and for each call.
    };
    static Surroundings surroundingsOf(const Environment &environment, const UserFolders &folders);

    /// `workspace` opens folders where no file manager answers on the bus; `launcher` starts the desktop's settings.
    LinuxSystemControl(Executor pool, Workspace &workspace, ApplicationLauncher &launcher, Surroundings surroundings) :
        workspace(workspace), launcher(launcher), surroundings(std::move(surroundings)), actor(std::move(pool))
    {
    }

    Task<SystemOutcome> lockScreen() override;
    Task<SystemOutcome> sleep() override;
    Task<SystemOutcome> emptyTrash() override;
    Task<bool> openFolder(std::string path) override;
    Task<bool> openSettings(SettingsPage page) override;

private:
    Workspace &workspace;
    ApplicationLauncher &launcher;
    const Surroundings surroundings;
    Actor actor;
};

} // namespace korvane
