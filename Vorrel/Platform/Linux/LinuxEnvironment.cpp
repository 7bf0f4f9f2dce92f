#include "Vorrel/Platform/Linux/LinuxEnvironment.h"

#include <pwd.h>
#include <unistd.h>

namespace korvane {

namespace {

/// The folder that a variable names, without slashes at its end.
std::optional<std::string> folderNamed(const Environment &environment, std::string_view name)
{
    auto path = nonEmpty(environment, name);
    if (!path || !path->starts_with('/'))
        return std::nullopt;
    while (path->size() > 1 && path->ends_with('/'))
        path->pop_back();
    return path;
}

std::optional<std::string> homeOfAccount()
{
    passwd entry{};
    passwd *found = nullptr;
    std::vector<char> buffer(16384);
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found)
        return std::nullopt;
    const Environment account = [found](std::string_view) { return std::optional<std::string>(found->pw_dir); };
    return folderNamed(account, "HOME");
}

std::vector<std::string> pieces(std::string_view list)
{
    std::vector<std::string> pieces;
    while (!list.empty()) {
        const auto end = std::min(list.find(':'), list.size());
        if (end > 0)
            pieces.emplace_back(list.substr(0, end));
        list.remove_prefix(std::min(end + 1, list.size()));
    }
    return pieces;
}

} // namespace

std::optional<std::string> nonEmpty(const Environment &environment, std::string_view name)
{
    auto value = environment(name);
    return value && !value->empty() ? value : std::nullopt;
}

UserFolders linuxUserFolders(const Environment &environment)
{
    auto home = folderNamed(environment, "HOME");
    if (!home)
        home = homeOfAccount();
    auto data = folderNamed(environment, "XDG_DATA_HOME");
    if (!data && home)
        data = (*home == "/" ? std::string() : *home) + "/.local/share";
    return UserFolders{home.value_or("/"), data};
}

std::vector<std::string> linuxLanguages(const Environment &environment)
{
    if (auto list = pieces(environment("LANGUAGE").value_or("")); !list.empty())
        return list;
    for (const char *name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        if (auto locale = nonEmpty(environment, name))
            return {*locale};
    }
    return {};
}

BusAddresses linuxBusAddresses(const Environment &environment)
{
    BusAddresses addresses;
    if (auto session = nonEmpty(environment, "DBUS_SESSION_BUS_ADDRESS"))
        addresses.session = *session;
    else if (const auto runtime = folderNamed(environment, "XDG_RUNTIME_DIR"))
        addresses.session = "unix:path=" + *runtime + "/bus";
    addresses.system = nonEmpty(environment, "DBUS_SYSTEM_BUS_ADDRESS").value_or("unix:path=/run/dbus/system_bus_socket");
    return addresses;
}

} // namespace korvane
