#include "Vorrel/Platform/Linux/LinuxLoginItem.h"

#include "Support/ChildProcess.h"
#include "Support/WholeFile.h"
#include "Vorrel/Platform/Linux/ExecLine.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <gio/gio.h>
#include <memory>
#include <system_error>
#include <unistd.h>

namespace korvane {

namespace {

/// What stands in one entry.
class AutostartEntry {
public:
    explicit AutostartEntry(const std::string &path) : keys(g_key_file_new(), &g_key_file_free)
    {
        readable = g_key_file_load_from_file(keys.get(), path.c_str(), G_KEY_FILE_NONE, nullptr);
    }

    /// Whether its program is one that is there; a bare name is looked for in `searchPath`.
    bool startsSomething(const std::string &searchPath) const
    {
        if (!readable)
            return false;
        const std::unique_ptr<char, decltype(&g_free)> line(
            g_key_file_get_string(keys.get(), G_KEY_FILE_DESKTOP_GROUP, "Exec", nullptr), &g_free);
        const auto exec = line ? ExecLine::parse(line.get()) : std::nullopt;
        const auto words = exec ? exec->words({}) : std::vector<std::string>();
        return !words.empty() && findProgram(words.front(), searchPath);
    }
    /// By the standard's own key, which some desktops set, and by the one that others do.
    bool isSwitchedOff() const { return is("Hidden", true) || is("X-GNOME-Autostart-enabled", false); }

private:
    bool is(const char *key, bool value) const
    {
        GError *failure = nullptr;
        const bool found = g_key_file_get_boolean(keys.get(), G_KEY_FILE_DESKTOP_GROUP, key, &failure);
        const bool there = !failure;
        g_clear_error(&failure);
        return there && found == value;
    }

    std::unique_ptr<GKeyFile, decltype(&g_key_file_free)> keys;
    bool readable = false;
};

bool exists(const std::string &path) { return ::access(path.c_str(), F_OK) == 0; }

/// A path as one word of an Exec value: quoted by its rules, with the escapes of a value over that.
std::string quoted(const std::string &path)
{
    std::string word = "\"";
    for (const char byte : path) {
        if (byte == '\\')
            word += "\\\\\\\\";
        else if (byte == '"' || byte == '`' || byte == '$')
            word += std::string("\\\\") + byte;
        else if (byte == '%')
            word += "%%";
        else if (byte == '\n')
            word += "\\n";
        else
            word += byte;
    }
    return word + '"';
}

constexpr const char *head = "[Desktop Entry]\nVersion=1.4\nType=Application\nName=Korvane\n";

} // namespace

LinuxLoginItem::Places LinuxLoginItem::Places::from(const Environment &environment, const UserFolders &folders)
{
    Places places{.folder = folders.home + "/.config/autostart",
        .machineFolders = {},
        .searchPath = nonEmpty(environment, "PATH").value_or(std::string())};
    if (const auto own = nonEmpty(environment, "XDG_CONFIG_HOME"); own && own->starts_with('/'))
        places.folder = *own + "/autostart";
    std::string list = nonEmpty(environment, "XDG_CONFIG_DIRS").value_or("/etc/xdg") + ":";
    for (std::size_t end; (end = list.find(':')) != std::string::npos; list.erase(0, end + 1)) {
        if (list.starts_with('/'))
            places.machineFolders.push_back(list.substr(0, end) + "/autostart");
    }
    return places;
}

LinuxLoginItem::LinuxLoginItem(Places places, std::string program) : places(std::move(places)), program(std::move(program)) { }

bool LinuxLoginItem::machineStartsUs() const
{
    for (const std::string &folder : places.machineFolders) {
        if (const std::string entry = folder + "/" + fileName; exists(entry))
            return AutostartEntry(entry).startsSomething(places.searchPath) && !AutostartEntry(entry).isSwitchedOff();
    }
    return false;
}

LoginItem::Status LinuxLoginItem::status() const
{
    if (!exists(path()))
        return machineStartsUs() ? Status::enabled : Status::disabled;
    const AutostartEntry entry(path());
    if (!entry.startsSomething(places.searchPath))
        return Status::disabled;
    return entry.isSwitchedOff() ? Status::awaitingApproval : Status::enabled;
}

void LinuxLoginItem::registerProgram()
{
    if (status() == Status::awaitingApproval)
        return;
    write(head + std::string("Comment=Find applications and commands, run what you pick\nIcon=dev.korvane.vorrel\nExec=")
        + quoted(program) + "\nTerminal=false\nStartupNotify=false\nX-GNOME-Autostart-enabled=true\n");
}

void LinuxLoginItem::unregister()
{
    if (machineStartsUs())
        write(head + std::string("Hidden=true\n"));
    else if (::unlink(path().c_str()) != 0 && errno != ENOENT)
        throw std::system_error(errno, std::generic_category());
}

void LinuxLoginItem::write(const std::string &entry)
{
    std::error_code failure;
    std::filesystem::create_directories(places.folder, failure);
    if (failure)
        throw std::system_error(failure);
    writeWholeFile(path(), entry);
}

} // namespace korvane
