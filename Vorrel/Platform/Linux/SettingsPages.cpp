#include "Vorrel/Platform/Linux/SettingsPages.h"

#include <algorithm>

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

std::optional<std::string> keyboardSettingsEntry(const DesktopEnvironment &environment)
{
    const auto isRunning = [&](const Page &page) {
        return std::ranges::find(environment.currentDesktop, page.desktop) != environment.currentDesktop.end();
    };
    std::vector<Page> pages(std::begin(keyboardPages), std::end(keyboardPages));
    std::ranges::stable_partition(pages, isRunning);
    for (const Page &page : pages)
        if (auto path = installed(page, environment))
            return path;
    return std::nullopt;
}

} // namespace korvane
