#pragma once

#include "Vorrel/Platform/Linux/LinuxEnvironment.h"
#include "Vorrel/Platform/LoginItem.h"

#include <string>

namespace korvane {

/// The program's entry among those that start with the session (freedesktop.org's Desktop Application Autostart
/// Specification): "autostart/dev.korvane.vorrel.desktop" in the user's folder of configurations, over one of the machine.
///
/// `awaitingApproval` is an entry that somebody switched off and did not remove, as the settings of the desktops do it: it is
/// left to the user to allow it there. Taking the request back removes the entry, and asking anew then writes a fresh one.
class LinuxLoginItem final : public LoginItem {
public:
    struct Places {
        std::string folder; ///< Where the user's entries are; need not exist.
        std::vector<std::string> machineFolders; ///< Those of the machine's own.
        std::string searchPath = {}; ///< Where the session finds programs by their names; empty for the usual folders.

        static Places from(const Environment &environment, const UserFolders &folders);
    };
    /// `program` is the absolute path of what is to be started.
    LinuxLoginItem(Places places, std::string program);

    Status status() const override;
    void registerProgram() override;
    void unregister() override;

    static constexpr const char *fileName = "dev.korvane.vorrel.desktop";

private:
    std::string path() const { return places.folder + "/" + fileName; }
    bool machineStartsUs() const;
    void write(const std::string &entry);

    const Places places;
    const std::string program;
};

} // namespace korvane
