#pragma once

#include "Vorrel/Platform/UserFolders.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// What the program takes from its environment. Nothing here reads the process's own variables: they come
/// through an `Environment`.
namespace korvane {

/// The value of a variable, if it is set.
using Environment = std::function<std::optional<std::string>(std::string_view name)>;

/// The value of a variable that is set to more than nothing.
std::optional<std::string> nonEmpty(const Environment &environment, std::string_view name);

/// The home folder ($HOME, without one the account's own) and the data folder ($XDG_DATA_HOME, by default
/// ~/.local/share). A value that is no absolute path counts as not set. Any thread.
UserFolders linuxUserFolders(const Environment &environment);

/// The user's languages, the preferred first, such as "zh_CN.UTF-8": those of the first variable among
/// LANGUAGE, LC_ALL, LC_MESSAGES and LANG that names any.
std::vector<std::string> linuxLanguages(const Environment &environment);

/// Addresses of the two message buses; empty where the session has none.
struct BusAddresses {
    std::string session;
    std::string system;
};
BusAddresses linuxBusAddresses(const Environment &environment);

} // namespace korvane
