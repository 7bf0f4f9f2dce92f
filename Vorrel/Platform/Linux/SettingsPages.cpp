#include "Vorrel/Platform/Linux/SettingsPages.h"

#include <algorithm>
#include <span>

namespace korvane {

namespace {

/// A page of a desktop's settings, by the desktop's registered name and the identifier of its entry.
struct Page {
    std::string_view desktop;
    std::string_view entry;
};

constexpr Page keyboardPages[] = {{"GNOME", "gnome-keyboard-panel"}, {"KDE", "kcm_keys"}, {"KDE", "kcm_keyboard"},
    {"XFCE", "xfce-keyboard-settings"}, {"MATE", "mate-keybinding"}, {"X-Cinnamon", "cinnamon-settings-keyboard"},
    {"LXQt", "lxqt-config-globalkeyshortcuts"}};

constexpr Page loginPages[] = {{"GNOME", "org.gnome.tweaks"}, {"GNOME", "gnome-session-properties"}, {"KDE", "kcm_autostart"},
    {"XFCE", "xfce-session-settings"}, {"XFCE", "xfce4-session-settings"}, {"MATE", "mate-session-properties"},
    {"X-Cinnamon", "cinnamon-settings-startup"}, {"LXQt", "lxqt-config-session"}};

constexpr Page privacyPages[] = {{"GNOME", "gnome-privacy-panel"}, {"GNOME", "gnome-applications-panel"},
    {"KDE", "kcm_app-permissions"}, {"X-Cinnamon", "cinnamon-settings-privacy"}};

std::span<const Page> pagesOf(SettingsPage page)
{
    switch (page) {
    case SettingsPage::keyboard: return keyboardPages;
    case SettingsPage::loginItems: return loginPages;
    case SettingsPage::filePrivacy: return privacyPages;
    }
    return {};
}

/// These entries are often not displayed, since the desktop's settings have a list of their own.
bool runs(const std::string &path, const DesktopEnvironment &environment)
{
    const auto entry = DesktopEntry::read(path, environment);
    return entry && entry->shown && (!entry->exec.empty() || entry->dbusActivatable);
}

std::optional<std::string> installed(const Page &page, const DesktopEnvironment &environment)
{
    std::vector<std::string> folders{environment.dataHome};
    folders.insert(folders.end(), environment.dataDirs.begin(), environment.dataDirs.end());
    for (const std::string &folder : folders)
        if (std::string path = folder + "/applications/" + std::string(page.entry) + ".desktop"; runs(path, environment))
            return path;
    return std::nullopt;
}

} // namespace

std::optional<std::string> settingsEntry(SettingsPage wanted, const DesktopEnvironment &environment)
{
    const auto isRunning = [&](const Page &page) {
        return std::ranges::find(environment.currentDesktop, page.desktop) != environment.currentDesktop.end();
    };
    for (const Page &page : pagesOf(wanted))
        if (isRunning(page))
            if (auto path = installed(page, environment))
                return path;
    return std::nullopt;
}

} // namespace korvane
