#include "Vorrel/Platform/Linux/LinuxLoginItem.h"

#include "Vorrel/Platform/Linux/DesktopEntries.h"
#include "Vorrel/Platform/Linux/ExecLine.h"
#include "tests/support/DiskFolder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace korvane;
using namespace korvane::test;
using Status = LoginItem::Status;

namespace {

struct Session {
    LinuxLoginItem item(const std::string &program) const
    {
        return {{disk / "config/autostart", {disk / "xdg/autostart"}}, program};
    }
    std::string own() const { return disk.contents(std::string("config/autostart/") + LinuxLoginItem::fileName); }
    void write(const std::string &lines) const { disk.file(std::string("config/autostart/") + LinuxLoginItem::fileName, lines); }
    void writeMachine(const std::string &lines) const
    {
        disk.file(std::string("xdg/autostart/") + LinuxLoginItem::fileName, lines);
    }
    std::string entry(const std::string &more) const
    {
        return "[Desktop Entry]\nType=Application\nName=Korvane\nExec=" + program + "\n" + more;
    }

    DiskFolder disk;
    const std::string program = disk.script("bin/korvane", "exit 0");
};

} // namespace

TEST(LinuxLoginItem, RegisteringWritesAnEntryThatStartsTheProgramAndUnregisteringRemovesIt)
{
    Session session;
    LinuxLoginItem item = session.item(session.program);
    EXPECT_EQ(item.status(), Status::disabled);
    item.registerProgram();
    EXPECT_EQ(item.status(), Status::enabled);
    const auto entry = DesktopEntry::parse(session.own(), DesktopEnvironment());
    ASSERT_TRUE(entry);
    EXPECT_FALSE(entry->masks);
    EXPECT_EQ(ExecLine::parse(entry->exec)->words({}), std::vector<std::string>{session.program});
    item.registerProgram();
    EXPECT_EQ(item.status(), Status::enabled);
    item.unregister();
    EXPECT_EQ(item.status(), Status::disabled);
    EXPECT_EQ(session.own(), "");
    EXPECT_NO_THROW(item.unregister()) << "without an entry";
}

TEST(LinuxLoginItem, TheEntryIsOneByTheRulesOfDesktops)
{
    if (std::system("command -v desktop-file-validate >/dev/null") != 0)
        GTEST_SKIP() << "desktop-file-validate is not installed";
    Session session;
    session.item(session.program).registerProgram();
    const std::string file = session.disk / ("config/autostart/" + std::string(LinuxLoginItem::fileName));
    EXPECT_EQ(std::system(("desktop-file-validate --warn-kde '" + file + "'").c_str()), 0);
}

TEST(LinuxLoginItem, APathOfAnyCharactersIsStartedAsItIs)
{
    for (const char *folder : {"a b", "qu\"ote", "do$lar", "back\\slash", "per%cent", "tick`", "50% \\\"$x\\", "ünï"}) {
        SCOPED_TRACE(folder);
        Session session;
        const std::string program = session.disk.script(std::string(folder) + "/korvane", "exit 0");
        LinuxLoginItem item = session.item(program);
        item.registerProgram();
        EXPECT_EQ(item.status(), Status::enabled);
        const auto entry = DesktopEntry::parse(session.own(), DesktopEnvironment());
        ASSERT_TRUE(entry);
        EXPECT_EQ(ExecLine::parse(entry->exec)->words({}), std::vector<std::string>{program});
    }
}

TEST(LinuxLoginItem, WhatTheDesktopsSettingsSwitchedOffAwaitsTheUser)
{
    for (const char *off : {"Hidden=true\n", "X-GNOME-Autostart-enabled=false\n"}) {
        SCOPED_TRACE(off);
        Session session;
        session.write(session.entry(off));
        LinuxLoginItem item = session.item(session.program);
        EXPECT_EQ(item.status(), Status::awaitingApproval);
        item.registerProgram();
        EXPECT_EQ(item.status(), Status::awaitingApproval) << "asking again is no way round it";
        EXPECT_EQ(session.own(), session.entry(off));
        item.unregister();
        EXPECT_EQ(item.status(), Status::disabled);
        item.registerProgram();
        EXPECT_EQ(item.status(), Status::enabled) << "after the user took it back, it is a fresh request";
    }
    Session session;
    session.write(session.entry("Hidden=false\nX-GNOME-Autostart-enabled=true\n"));
    EXPECT_EQ(session.item(session.program).status(), Status::enabled);
}

TEST(LinuxLoginItem, WhatAnotherProgramChangedIsSeenAndMended)
{
    Session session;
    LinuxLoginItem item = session.item(session.program);
    for (const std::string &broken :
        {std::string("no entry at all"), std::string("[Desktop Entry]\nType=Application\nName=Korvane\n"),
            std::string("[Desktop Entry]\nName=Korvane\nExec=/nowhere/korvane\n"), std::string()}) {
        session.write(broken);
        EXPECT_EQ(item.status(), Status::disabled) << broken;
        item.registerProgram();
        EXPECT_EQ(item.status(), Status::enabled) << broken;
    }
    const std::string other = session.disk.script("opt/korvane", "exit 0");
    session.write("[Desktop Entry]\nName=Korvane\nExec=" + other + " --show\n");
    EXPECT_EQ(item.status(), Status::enabled) << "another Korvane";
}

TEST(LinuxLoginItem, AProgramIsFoundByItsNameWhereTheSessionFindsPrograms)
{
    Session session;
    session.write("[Desktop Entry]\nType=Application\nName=Korvane\nExec=korvane\n");
    LinuxLoginItem::Places places{session.disk / "config/autostart", {session.disk / "xdg/autostart"}, session.disk / "bin"};
    EXPECT_EQ(LinuxLoginItem(places, session.program).status(), Status::enabled);
    places.searchPath = session.disk / "config";
    EXPECT_EQ(LinuxLoginItem(places, session.program).status(), Status::disabled);
}

TEST(LinuxLoginItem, AnEntryOfTheMachineIsMaskedAndUncovered)
{
    Session session;
    session.writeMachine(session.entry(""));
    LinuxLoginItem item = session.item(session.program);
    EXPECT_EQ(item.status(), Status::enabled);
    item.unregister();
    EXPECT_EQ(item.status(), Status::disabled);
    EXPECT_NE(session.own().find("Hidden=true"), std::string::npos);
    item.registerProgram();
    EXPECT_EQ(item.status(), Status::enabled);
}

TEST(LinuxLoginItem, AFolderThatCannotBeWrittenIsAnError)
{
    Session session;
    session.disk.file("config", "a file in the place of the folder");
    LinuxLoginItem item = session.item(session.program);
    EXPECT_THROW(item.registerProgram(), std::system_error);
    EXPECT_EQ(item.status(), Status::disabled);
}

TEST(LinuxLoginItem, ItsFoldersComeFromTheEnvironment)
{
    using Variables = std::map<std::string, std::string>;
    const auto places = [](const Variables &variables) {
        const Environment environment = [variables](std::string_view name) -> std::optional<std::string> {
            const auto found = variables.find(std::string(name));
            return found == variables.end() ? std::nullopt : std::optional(found->second);
        };
        return LinuxLoginItem::Places::from(environment, {.home = "/home/ada", .data = std::nullopt});
    };
    using Folders = std::vector<std::string>;
    EXPECT_EQ(places({}).folder, "/home/ada/.config/autostart");
    EXPECT_EQ(places({}).machineFolders, Folders{"/etc/xdg/autostart"});
    EXPECT_EQ(places({{"PATH", "/opt/bin:/usr/bin"}}).searchPath, "/opt/bin:/usr/bin");
    EXPECT_EQ(places({{"XDG_CONFIG_HOME", "/cfg"}}).folder, "/cfg/autostart");
    EXPECT_EQ(places({{"XDG_CONFIG_HOME", "relative"}}).folder, "/home/ada/.config/autostart");
    EXPECT_EQ(places({{"XDG_CONFIG_DIRS", "/a:relative:/b"}}).machineFolders, (Folders{"/a/autostart", "/b/autostart"}));
}
