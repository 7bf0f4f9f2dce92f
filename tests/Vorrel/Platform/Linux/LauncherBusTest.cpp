#include "Vorrel/Platform/Linux/Launcher.h"
#include "tests/Vorrel/Platform/Linux/PrivateBus.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <poll.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

namespace {

constexpr auto application = "org.freedesktop.Application";

bool eventually(const std::function<bool()> &holds)
{
    const auto deadline = std::chrono::steady_clock::now() + 8s;
    while (!holds()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        ::poll(nullptr, 0, 5);
    }
    return true;
}

/// A launcher on a bus of the test's own.
struct LauncherBusThreads : testing::Test {
    PrivateBus bus;
    DiskFolder disk;
    MainLoop loop;
    ThreadPool pool{2};
    std::string token;
    DesktopLauncher launcher{{.pool = pool.executor(),
        .environment = {"PATH=" + disk / "bin" + ":/usr/bin:/bin", "HOME=" + disk.path,
            "DBUS_SESSION_BUS_ADDRESS=" + bus.address()},
        .activationToken = [this] { return token; }}};
    const std::string recorder =
        disk.script("bin/record", "echo \"$*\" > '" + disk / "out" + "'\n: > '" + disk / "out.done" + "'");

    void TearDown() override { pool.join(); }

    std::string entry(const std::string &more = "Exec=record %U\n")
    {
        return disk.file("org.example.My-Tool.desktop",
            "[Desktop Entry]\nType=Application\nName=Tool\nDBusActivatable=true\nActions=new;\n" + more
                + "[Desktop Action new]\nName=New\nExec=record action\n");
    }
    MockService service() { return {bus, "org.example.My-Tool", "/org/example/My_Tool", application}; }
    bool ran() { return std::filesystem::exists(disk / "out.done"); }
    std::string written()
    {
        EXPECT_TRUE(eventually([this] { return ran(); })) << "the program did not run";
        return disk.contents("out");
    }
};

} // namespace

TEST_F(LauncherBusThreads, AnApplicationThatTheBusStartsIsActivated)
{
    auto tool = service();
    tool.method("Activate", "a{sv}", "");
    await(loop, launcher.launch(entry(), {}));
    EXPECT_EQ(tool.calls("Activate"), Strings{"[<@a{sv} {}>]"});
    EXPECT_FALSE(ran());
}

TEST_F(LauncherBusThreads, TheActivationTokenGoesWithTheCall)
{
    auto tool = service();
    tool.method("Activate", "a{sv}", "");
    token = "fresh";
    await(loop, launcher.launch(entry(), {}));
    const auto calls = tool.calls("Activate");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_THAT(calls[0], testing::HasSubstr("'activation-token': <'fresh'>"));
    EXPECT_THAT(calls[0], testing::HasSubstr("'desktop-startup-id': <'fresh'>"));
}

TEST_F(LauncherBusThreads, AnActionIsActivatedByItsName)
{
    auto tool = service();
    tool.method("ActivateAction", "sava{sv}", "");
    await(loop, launcher.launchAction(entry(), "new"));
    const auto calls = tool.calls("ActivateAction");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_THAT(calls[0], testing::HasSubstr("'new'"));
    EXPECT_FALSE(ran());
}

TEST_F(LauncherBusThreads, AFileIsOpenedByItsAddress)
{
    auto tool = service();
    tool.method("Open", "asa{sv}", "");
    await(loop, launcher.launchWithTarget(entry(), {"/a b", "file:///a%20b"}));
    const auto calls = tool.calls("Open");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_THAT(calls[0], testing::HasSubstr("['file:///a%20b']"));
    EXPECT_FALSE(ran());
}

TEST_F(LauncherBusThreads, ACallThatFailsFallsBackToTheCommand)
{
    await(loop, launcher.launch(entry(), {}));
    EXPECT_EQ(written(), "\n") << "nobody owns the name";
    std::filesystem::remove(disk / "out.done");
    auto tool = service();
    tool.refuse("Activate", "a{sv}");
    tool.refuse("ActivateAction", "sava{sv}");
    await(loop, launcher.launch(entry(), {}));
    EXPECT_EQ(written(), "\n") << "the application refuses";
    std::filesystem::remove(disk / "out.done");
    await(loop, launcher.launchAction(entry(), "new"));
    EXPECT_EQ(written(), "action\n");
    EXPECT_ANY_THROW(await(loop, launcher.launch(entry(""), {}))) << "without a command there is nothing to fall back to";
}

TEST_F(LauncherBusThreads, ArgumentsAreForTheCommand)
{
    auto tool = service();
    tool.method("Activate", "a{sv}", "");
    await(loop, launcher.launch(entry(), {"--new", "x"}));
    EXPECT_EQ(written(), "--new x\n");
    EXPECT_EQ(tool.calls("Activate"), Strings{});
    EXPECT_ANY_THROW(await(loop, launcher.launch(entry(""), {"--new"}))) << "the bus has no way to pass them";
}

TEST_F(LauncherBusThreads, AStartedProgramIsHandedToTheUsersSystemd)
{
    MockService systemd(bus, "org.freedesktop.systemd1", "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager");
    systemd.method("StartTransientUnit", "ssa(sv)a(sa(sv))", "o", "ret = dbus.ObjectPath('/job/1')");
    disk.script("bin/record", "echo $$ > '" + disk / "out" + "'\n: > '" + disk / "out.done" + "'");
    await(loop, launcher.launch(disk.file("some-tool.desktop", "[Desktop Entry]\nType=Application\nName=T\nExec=record\n"), {}));
    const auto program = written();
    Strings calls;
    EXPECT_TRUE(eventually([&] { return !(calls = systemd.calls("StartTransientUnit")).empty(); }));
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_THAT(calls[0], testing::HasSubstr("app-korvane-some\\\\x2dtool-"));
    EXPECT_THAT(calls[0], testing::HasSubstr(".scope"));
    EXPECT_THAT(calls[0], testing::HasSubstr(program.substr(0, program.size() - 1)));
    EXPECT_THAT(calls[0], testing::HasSubstr("app.slice"));
}

TEST_F(LauncherBusThreads, ASystemdThatRefusesDoesNoHarm)
{
    MockService systemd(bus, "org.freedesktop.systemd1", "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager");
    systemd.refuse("StartTransientUnit", "ssa(sv)a(sa(sv))");
    await(loop, launcher.launch(disk.file("tool.desktop", "[Desktop Entry]\nType=Application\nName=T\nExec=record a\n"), {}));
    EXPECT_EQ(written(), "a\n");
}
