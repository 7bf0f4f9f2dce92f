#pragma once

#include "Vorrel/Platform/ApplicationSource.h"
#include "Vorrel/Platform/Linux/LinuxEnvironment.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Installed applications as freedesktop.org's Desktop Entry files tell of them.
namespace korvane {

/// What of the environment decides which entries there are and how they read. Passed in, since the
/// libraries keep the values that they saw first.
struct DesktopEnvironment {
    std::string dataHome; ///< The user's data folder; absolute.
    std::vector<std::string> dataDirs; ///< The machine's data folders, the preferred ones first; absolute.
    std::vector<std::string> currentDesktop; ///< Names of the running desktop, the most specific first.
    std::vector<std::string> languages; ///< Locales as "de_AT.UTF-8", the preferred ones first.
    std::string path; ///< Where programs are found, folders separated by colons.

    /// Reads XDG_DATA_HOME, XDG_DATA_DIRS, XDG_CURRENT_DESKTOP, PATH and the variables of the language.
    /// What is unset, empty or not absolute where it must be takes its default.
    static DesktopEnvironment from(const Environment &environment);
};

/// One action of an entry, beside starting the application.
struct DesktopAction {
    std::string id;
    std::string name;
    std::string exec; ///< May be empty where D-Bus activates the application.
    std::string icon;
};

/// The content of one desktop entry, as far as finding and launching need it. A value.
struct DesktopEntry {
    std::string name; ///< In the user's language; empty in an entry that is `masks`.
    std::string exec; ///< General escapes undone; may be empty where D-Bus activates the application.
    std::string icon;
    std::string workingDirectory; ///< Empty for none.
    std::string windowClass; ///< The class of its windows, where the file tells it; otherwise empty.
    bool terminal = false;
    bool dbusActivatable = false;
    /// Hidden or not to be displayed: nothing else of the entry need make sense.
    bool masks = false;
    /// Shown on the desktop and with the programs that the environment names.
    bool shown = true;
    std::vector<DesktopAction> actions = {}; ///< In their order; broken ones are left out.

    /// Reads the bytes of a file. Nothing for what is no application that can be started. Looks for the
    /// program of TryExec on the disk and nowhere else.
    static std::optional<DesktopEntry> parse(std::string_view bytes, const DesktopEnvironment &environment);
    /// Reads a file. An empty one, or a link to "/dev/null", masks; what is no readable file gives nothing.
    static std::optional<DesktopEntry> read(const std::string &path, const DesktopEnvironment &environment);
};

/// The desktop entries of this machine and this user.
class DesktopEntries : public ApplicationSource {
public:
    explicit DesktopEntries(DesktopEnvironment environment) : environment(std::move(environment)) { }

    /// The "applications" folders of the machine's data folders from the last to the first, those that
    /// Flatpak and Snap export to even if the session does not name them, then the user's own.
    std::vector<std::string> roots() const override;
    std::string extension() const override { return "desktop"; }
    std::optional<ApplicationEntry> read(const std::string &root, const std::string &path) const override;
    std::vector<ApplicationOwnAction> actions(const std::string &path) const override;
    /// The identifiers of listed applications by the class of their windows, in lower case: what their files tell, and for
    /// the others the identifier itself and its last part. Looks at every file.
    std::map<std::string, std::string> identifiersByWindowClass() const;

private:
    const DesktopEnvironment environment;
};

/// The desktop file id, without its extension, of the entry at `path` below `root`: folders between the
/// two are joined to the name by "-".
std::string desktopIdentifier(const std::string &root, const std::string &path);

} // namespace korvane
