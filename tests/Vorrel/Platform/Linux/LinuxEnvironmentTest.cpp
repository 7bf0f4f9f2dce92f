#include "Vorrel/Platform/Linux/LinuxEnvironment.h"

#include <gtest/gtest.h>

#include <map>

using namespace korvane;
using Strings = std::vector<std::string>;

namespace {

Environment variables(std::map<std::string, std::string, std::less<>> values)
{
    return [values = std::move(values)](std::string_view name) -> std::optional<std::string> {
        const auto found = values.find(name);
        return found == values.end() ? std::nullopt : std::optional(found->second);
    };
}

} // namespace

TEST(LinuxEnvironment, TheDataFolderIsTheOneThatTheEnvironmentNamesOrTheHomesOwn)
{
    const struct {
        const char *why;
        std::map<std::string, std::string, std::less<>> variables;
        const char *home, *data;
    } cases[] = {
        {"by default", {{"HOME", "/home/ada"}}, "/home/ada", "/home/ada/.local/share"},
        {"a named one", {{"HOME", "/home/ada"}, {"XDG_DATA_HOME", "/data"}}, "/home/ada", "/data"},
        {"an empty name", {{"HOME", "/home/ada"}, {"XDG_DATA_HOME", ""}}, "/home/ada", "/home/ada/.local/share"},
        {"a relative one is ignored", {{"HOME", "/home/ada"}, {"XDG_DATA_HOME", "data"}}, "/home/ada", "/home/ada/.local/share"},
        {"slashes at the end", {{"HOME", "/home/ada//"}, {"XDG_DATA_HOME", "/data/"}}, "/home/ada", "/data"},
        {"a home at the root", {{"HOME", "/"}}, "/", "/.local/share"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        const UserFolders folders = linuxUserFolders(variables(c.variables));
        EXPECT_EQ(folders.home, c.home);
        EXPECT_EQ(folders.data, c.data);
    }
}

TEST(LinuxEnvironment, WithoutAHomeTheAccountsOwnCounts)
{
    for (const char *home : {"", "relative"}) {
        const UserFolders folders = linuxUserFolders(variables({{"HOME", home}}));
        EXPECT_TRUE(folders.home.starts_with('/')) << folders.home;
        EXPECT_EQ(folders.data, (folders.home == "/" ? "" : folders.home) + "/.local/share");
    }
}

TEST(LinuxEnvironment, TheLanguagesAreThoseOfTheFirstVariableThatNamesAny)
{
    const struct {
        const char *why;
        std::map<std::string, std::string, std::less<>> variables;
        Strings languages;
    } cases[] = {
        {"none", {}, {}},
        {"the last resort", {{"LANG", "zh_CN.UTF-8"}}, {"zh_CN.UTF-8"}},
        {"messages before the rest", {{"LANG", "de_DE.UTF-8"}, {"LC_MESSAGES", "zh_TW"}}, {"zh_TW"}},
        {"all before messages", {{"LANG", "de"}, {"LC_MESSAGES", "fr"}, {"LC_ALL", "en_GB"}}, {"en_GB"}},
        {"the list before all", {{"LANGUAGE", "zh_HK:en"}, {"LC_ALL", "C"}}, {"zh_HK", "en"}},
        {"an empty variable names none", {{"LANGUAGE", ""}, {"LC_ALL", ""}, {"LC_MESSAGES", "zh_CN"}}, {"zh_CN"}},
        {"an empty list names none", {{"LANGUAGE", "::"}, {"LANG", "zh_CN"}}, {"zh_CN"}},
        {"holes in a list", {{"LANGUAGE", ":zh::en:"}}, {"zh", "en"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(linuxLanguages(variables(c.variables)), c.languages);
    }
}

TEST(LinuxEnvironment, TheBusesAreThoseOfTheEnvironmentOrTheUsualOnes)
{
    const auto usual = linuxBusAddresses(variables({}));
    EXPECT_EQ(usual.session, "");
    EXPECT_EQ(usual.system, "unix:path=/run/dbus/system_bus_socket");
    const auto runtime = linuxBusAddresses(variables({{"XDG_RUNTIME_DIR", "/run/user/1000"}}));
    EXPECT_EQ(runtime.session, "unix:path=/run/user/1000/bus");
    const auto named = linuxBusAddresses(variables({{"XDG_RUNTIME_DIR", "/run/user/1000"},
        {"DBUS_SESSION_BUS_ADDRESS", "unix:path=/a"}, {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/b"}}));
    EXPECT_EQ(named.session, "unix:path=/a");
    EXPECT_EQ(named.system, "unix:path=/b");
}

TEST(LinuxEnvironment, AnEmptyVariableCountsAsNotSet)
{
    const Environment environment = variables({{"EMPTY", ""}, {"SET", "value"}});
    EXPECT_EQ(nonEmpty(environment, "EMPTY"), std::nullopt);
    EXPECT_EQ(nonEmpty(environment, "UNSET"), std::nullopt);
    EXPECT_EQ(nonEmpty(environment, "SET"), "value");
}
