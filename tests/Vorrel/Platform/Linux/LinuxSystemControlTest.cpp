#include "Vorrel/Platform/Linux/LinuxSystemControl.h"

#include "Support/Descriptor.h"
#include "Support/MainLoop.h"
#include "Vorrel/Platform/Linux/ActivationSignal.h"
#include "Vorrel/Platform/Linux/MessageBus.h"
#include "tests/Vorrel/Platform/Linux/PrivateBus.h"
#include "tests/support/Await.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

namespace korvane {
void PrintTo(SystemOutcome outcome, std::ostream *out)
{
    *out << (outcome == SystemOutcome::done ? "done" : outcome == SystemOutcome::refused ? "refused" : "unavailable");
}
} // namespace korvane

namespace {

/// Remembers what it was asked to open.
struct RecordingWorkspace final : Workspace {
    Task<bool> open(std::string pathOrURL) override
    {
        opened.push_back(std::move(pathOrURL));
        co_return opens;
    }
    Task<void> openWith(std::string, std::string) override { co_return; }
    Task<void> reveal(std::string) override { co_return; }
    Task<std::vector<ApplicationHandler>> handlers(std::string) override { co_return std::vector<ApplicationHandler>(); }

    Strings opened;
    bool opens = true;
};

/// Remembers what it was asked to start.
struct RecordingLauncher final : ApplicationLauncher {
    Task<void> launch(std::string path, std::vector<std::string>) override
    {
        if (fails)
            throw std::runtime_error("does not start");
        launched.push_back(std::move(path));
        co_return;
    }
    Task<void> launchAction(std::string, std::string) override { co_return; }

    Strings launched;
    bool fails = false;
};

/// The adapter on two private buses, with nobody on them yet. It has real threads, but the suite's name does not say
/// so: ThreadSanitizer reports GLib's own, which are not instrumented.
class LinuxSystemControlTest : public testing::Test {
protected:
    LinuxSystemControlTest()
    {
        std::string pattern = (fs::temp_directory_path() / "korvane-system-XXXXXX").string();
        root = ::mkdtemp(pattern.data());
        around.buses = {session.address(), system.address()};
        around.session = "7";
        around.trash = TrashPlaces{(root / "share").string(), (root / "mounts").string(), ::getuid()};
        around.limit = 10s; // the mocks are slow to start under a sanitizer
    }
    ~LinuxSystemControlTest() override
    {
        pool.join();
        fs::remove_all(root);
    }

    std::unique_ptr<LinuxSystemControl> control()
    {
        return std::make_unique<LinuxSystemControl>(pool.executor(), workspace, launcher, around);
    }
    SystemOutcome lock()
    {
        const auto adapter = control();
        return await(loop, adapter->lockScreen());
    }
    SystemOutcome sleep()
    {
        const auto adapter = control();
        return await(loop, adapter->sleep());
    }
    bool openFolder(const std::string &path)
    {
        const auto adapter = control();
        return await(loop, adapter->openFolder(path));
    }

    bool openSettings(SettingsPage page)
    {
        const auto adapter = control();
        return await(loop, adapter->openSettings(page));
    }
    bool openKeyboardSettings() { return openSettings(SettingsPage::keyboard); }
    /// Installs a page of settings and gives the path of its entry.
    std::string settingsPage(const std::string &folder, const std::string &identifier, const std::string &more = "")
    {
        const fs::path path = root / folder / "applications" / (identifier + ".desktop");
        fs::create_directories(path.parent_path());
        std::ofstream(path) << "[Desktop Entry]\nType=Application\nName=Keyboard\nExec=settings keyboard\n" << more;
        return path.string();
    }

    MockService screenSaver() const
    {
        return {session, "org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver", "org.freedesktop.ScreenSaver"};
    }
    MockService loginManager() const
    {
        return {system, "org.freedesktop.login1", "/org/freedesktop/login1", "org.freedesktop.login1.Manager"};
    }
    MockService fileManager() const
    {
        return {session, "org.freedesktop.FileManager1", "/org/freedesktop/FileManager1", "org.freedesktop.FileManager1"};
    }

    PrivateBus session, system;
    fs::path root;
    MainLoop loop;
    ThreadPool pool{2};
    RecordingWorkspace workspace;
    RecordingLauncher launcher;
    LinuxSystemControl::Surroundings around;
};

} // namespace

TEST_F(LinuxSystemControlTest, TheScreenSaverLocks)
{
    auto saver = screenSaver();
    saver.method("Lock", "", "");
    EXPECT_EQ(lock(), SystemOutcome::done);
    EXPECT_EQ(saver.calls("Lock"), Strings{"[]"});
}

TEST_F(LinuxSystemControlTest, AScreenSaverThatRefusesIsTheLastWord)
{
    auto saver = screenSaver();
    saver.refuse("Lock", "");
    auto manager = loginManager();
    manager.method("LockSession", "s", "");
    EXPECT_EQ(lock(), SystemOutcome::refused);
    EXPECT_EQ(manager.calls("LockSession"), Strings());
}

TEST_F(LinuxSystemControlTest, WithoutAScreenSaverTheLoginManagerLocksTheSession)
{
    auto manager = loginManager();
    manager.method("LockSession", "s", "");
    EXPECT_EQ(lock(), SystemOutcome::done);
    EXPECT_EQ(manager.calls("LockSession"), Strings{"[<'7'>]"});
}

TEST_F(LinuxSystemControlTest, AScreenSaverThatCannotLockCountsAsNone)
{
    auto saver = screenSaver(); // without the method
    auto manager = loginManager();
    manager.method("LockSession", "s", "");
    EXPECT_EQ(lock(), SystemOutcome::done);
    EXPECT_EQ(manager.calls("LockSession").size(), 1U);
}

TEST_F(LinuxSystemControlTest, ARefusalOfTheLoginManagerIsARefusal)
{
    auto manager = loginManager();
    manager.refuse("LockSession", "s");
    EXPECT_EQ(lock(), SystemOutcome::refused);
}

TEST_F(LinuxSystemControlTest, WithoutASessionInTheEnvironmentTheProcessTellsIt)
{
    around.session.clear();
    auto manager = loginManager();
    manager.method("GetSessionByPID", "u", "o", "ret = '/org/freedesktop/login1/session/_39'");
    manager.object("/org/freedesktop/login1/session/_39", "org.freedesktop.login1.Session", "Lock");
    EXPECT_EQ(lock(), SystemOutcome::done);
    EXPECT_EQ(manager.calls("GetSessionByPID"), Strings{"[<uint32 " + std::to_string(::getpid()) + ">]"});
    EXPECT_EQ(manager.calls("/org/freedesktop/login1/session/_39", "Lock"), Strings{"[]"});
}

TEST_F(LinuxSystemControlTest, AProcessOutsideASessionLocksTheUsersOwn)
{
    around.session.clear();
    auto manager = loginManager();
    manager.refuse("GetSessionByPID", "u");
    manager.object("/org/freedesktop/login1/session/auto", "org.freedesktop.login1.Session", "Lock");
    EXPECT_EQ(lock(), SystemOutcome::done);
    EXPECT_EQ(manager.calls("/org/freedesktop/login1/session/auto", "Lock"), Strings{"[]"});
}

TEST_F(LinuxSystemControlTest, WithoutServicesOrBusesNothingIsAvailable)
{
    EXPECT_EQ(lock(), SystemOutcome::unavailable);
    EXPECT_EQ(sleep(), SystemOutcome::unavailable);
    around.buses = {"unix:path=/no/such/socket", "unix:path=/no/such/socket"};
    EXPECT_EQ(lock(), SystemOutcome::unavailable);
    EXPECT_EQ(sleep(), SystemOutcome::unavailable);
    around.buses = {"", "no address at all"};
    EXPECT_EQ(lock(), SystemOutcome::unavailable);
    EXPECT_EQ(sleep(), SystemOutcome::unavailable);
}

TEST_F(LinuxSystemControlTest, TheLoginManagerSuspendsAndIsNotToAsk)
{
    auto manager = loginManager();
    manager.method("Suspend", "b", "");
    EXPECT_EQ(sleep(), SystemOutcome::done);
    EXPECT_EQ(manager.calls("Suspend"), Strings{"[<false>]"});
}

TEST_F(LinuxSystemControlTest, ARefusedSuspendIsARefusal)
{
    auto manager = loginManager();
    manager.refuse("Suspend", "b");
    EXPECT_EQ(sleep(), SystemOutcome::refused);
}

TEST_F(LinuxSystemControlTest, AServiceThatDoesNotAnswerInTimeRefuses)
{
    auto manager = loginManager();
    manager.method("Suspend", "b", "", "import time; time.sleep(60)");
    around.limit = 300ms;
    EXPECT_EQ(sleep(), SystemOutcome::refused);
}

TEST_F(LinuxSystemControlTest, ABusThatDoesNotAnswerInTimeIsNone)
{
    const Descriptor listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    const std::string path = (root / "mute").string();
    std::strncpy(name.sun_path, path.c_str(), sizeof name.sun_path - 1);
    ASSERT_EQ(::bind(listener.get(), reinterpret_cast<const sockaddr *>(&name), sizeof name), 0);
    ASSERT_EQ(::listen(listener.get(), 8), 0);
    around.buses = {"unix:path=" + path, "unix:path=" + path};
    around.limit = 200ms;
    EXPECT_EQ(sleep(), SystemOutcome::unavailable);
}

TEST_F(LinuxSystemControlTest, ACancelledRequestEndsAtOnce)
{
    auto manager = loginManager();
    manager.method("Suspend", "b", "", "import time; time.sleep(60)");
    around.limit = 60s;
    const auto adapter = control();
    Begun<SystemOutcome> sleeping(loop, adapter->sleep());
    loop.runUntilIdle();
    const auto before = std::chrono::steady_clock::now();
    sleeping.cancel();
    EXPECT_THROW(sleeping.result(), Cancelled);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 30s);
}

TEST_F(LinuxSystemControlTest, TheTrashOfTheDisksIsEmptied)
{
    fs::create_directories(root / "share/Trash/files/album");
    std::ofstream(root / "share/Trash/files/album/picture") << "x";
    const auto adapter = control();
    EXPECT_EQ(await(loop, adapter->emptyTrash()), SystemOutcome::done);
    EXPECT_TRUE(fs::is_empty(root / "share/Trash/files"));
}

TEST_F(LinuxSystemControlTest, ATrashThatCannotBeEmptiedIsARefusal)
{
    fs::create_directories(root / "share");
    std::ofstream(root / "share/Trash") << "a file in its place";
    const auto adapter = control();
    EXPECT_EQ(await(loop, adapter->emptyTrash()), SystemOutcome::refused);
}

TEST_F(LinuxSystemControlTest, TheFileManagerShowsAFolder)
{
    auto manager = fileManager();
    manager.method("ShowFolders", "ass", "");
    const fs::path folder = root / "my folder#ü%";
    fs::create_directory(folder);
    EXPECT_TRUE(openFolder(folder.string()));
    EXPECT_EQ(manager.calls("ShowFolders"), Strings{"[<['file://" + root.string() + "/my%20folder%23%C3%BC%25']>, <''>]"});
    EXPECT_EQ(workspace.opened, Strings());
}

TEST_F(LinuxSystemControlTest, ApplicationsAreTheFolderOfTheMachinesEntries)
{
    around.applications = root.string();
    auto manager = fileManager();
    manager.method("ShowFolders", "ass", "");
    EXPECT_TRUE(openFolder("/Applications"));
    EXPECT_EQ(manager.calls("ShowFolders"), Strings{"[<['file://" + root.string() + "']>, <''>]"});
}

TEST_F(LinuxSystemControlTest, WithoutAFileManagerOnTheBusTheFolderIsOpenedAsAFile)
{
    EXPECT_TRUE(openFolder(root.string()));
    EXPECT_EQ(workspace.opened, Strings{root.string()});
    workspace.opens = false;
    EXPECT_FALSE(openFolder(root.string()));
}

TEST_F(LinuxSystemControlTest, AFileManagerThatRefusesIsReplaced)
{
    auto manager = fileManager();
    manager.refuse("ShowFolders", "ass");
    EXPECT_TRUE(openFolder(root.string()));
    EXPECT_EQ(workspace.opened, Strings{root.string()});
}

TEST_F(LinuxSystemControlTest, ASlowFileManagerHasTheRequestAndNoOtherIsAsked)
{
    auto manager = fileManager();
    manager.method("ShowFolders", "ass", "", "import time; time.sleep(60)");
    around.limit = 300ms;
    EXPECT_TRUE(openFolder(root.string()));
    EXPECT_EQ(workspace.opened, Strings());
}

TEST_F(LinuxSystemControlTest, WhatIsNoFolderIsNotOpened)
{
    std::ofstream(root / "file") << "x";
    EXPECT_FALSE(openFolder((root / "file").string()));
    EXPECT_FALSE(openFolder((root / "absent").string()));
    EXPECT_FALSE(openFolder("relative"));
    EXPECT_FALSE(openFolder(""));
    EXPECT_EQ(workspace.opened, Strings());
}

TEST_F(LinuxSystemControlTest, TheActivationSignalIsOnTheBusWhenPostReturns)
{
    static std::atomic<int> received;
    received = 0;
    const auto count = [](GDBusConnection *, GDBusMessage *message, gboolean incoming, gpointer) -> GDBusMessage * {
        if (incoming && g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_SIGNAL
            && g_strcmp0(g_dbus_message_get_path(message), "/dev/korvane") == 0
            && g_strcmp0(g_dbus_message_get_interface(message), "dev.korvane") == 0
            && g_strcmp0(g_dbus_message_get_member(message), "activate") == 0 && g_dbus_message_get_body(message) == nullptr)
            ++received;
        return message;
    };
    g_dbus_connection_add_filter(session.connection(), count, nullptr, nullptr);
    session.call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "AddMatch",
        g_variant_new("(s)", "type='signal',interface='dev.korvane'"));
    LinuxActivationSender(session.address()).post();
    // The bus answers after what it had before, so the signal has come by now.
    session.call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId", nullptr);
    EXPECT_EQ(received, 1);
}

TEST_F(LinuxSystemControlTest, ASignalWithNobodyToCarryItIsSilent)
{
    LinuxActivationSender("").post();
    LinuxActivationSender("unix:path=/no/such/socket").post();
    EXPECT_EQ(MessageBus::open("unix:path=/no/such/socket", 100ms), nullptr);
}

TEST_F(LinuxSystemControlTest, TheRunningDesktopsOwnKeyboardSettingsAreOpened)
{
    around.desktop = {.dataHome = root / "home", .dataDirs = {root / "machine"}, .currentDesktop = {"Some", "XFCE"}};
    settingsPage("home", "kcm_keys");
    const std::string page = settingsPage("machine", "xfce-keyboard-settings", "NoDisplay=true\n");
    EXPECT_TRUE(openKeyboardSettings());
    EXPECT_EQ(launcher.launched, Strings{page});
}

TEST_F(LinuxSystemControlTest, AnotherDesktopsKeyboardSettingsAreNoneOfThisOne)
{
    settingsPage("machine", "gnome-keyboard-panel");
    settingsPage("machine", "mate-keybinding");
    for (const Strings &running : {Strings{"XFCE"}, Strings{"Some"}, Strings()}) {
        around.desktop = {.dataHome = root / "home", .dataDirs = {root / "machine"}, .currentDesktop = running};
        EXPECT_FALSE(openKeyboardSettings());
    }
    EXPECT_EQ(launcher.launched, Strings());
}

TEST_F(LinuxSystemControlTest, WithoutKeyboardSettingsThereIsNoPageToOpen)
{
    around.desktop = {.dataHome = root / "home", .dataDirs = {root / "machine"}, .currentDesktop = {"KDE"}};
    EXPECT_FALSE(openKeyboardSettings());
    settingsPage("home", "some-keyboard-program");
    EXPECT_FALSE(openKeyboardSettings());
    EXPECT_EQ(launcher.launched, Strings());
}

TEST_F(LinuxSystemControlTest, EachDesktopsOtherPagesAreOpenedToo)
{
    const struct {
        const char *desktop, *entry;
        SettingsPage page;
    } cases[] = {{"GNOME", "org.gnome.tweaks", SettingsPage::loginItems}, {"KDE", "kcm_autostart", SettingsPage::loginItems},
        {"XFCE", "xfce-session-settings", SettingsPage::loginItems}, {"GNOME", "gnome-privacy-panel", SettingsPage::filePrivacy}};
    settingsPage("home", "kcm_keys"); // another page is none of these
    for (const auto &c : cases) {
        SCOPED_TRACE(c.entry);
        around.desktop = {.dataHome = root / "home", .dataDirs = {root / "machine"}, .currentDesktop = {c.desktop}};
        EXPECT_FALSE(openSettings(c.page));
        const std::string page = settingsPage("machine", c.entry);
        EXPECT_TRUE(openSettings(c.page));
        EXPECT_EQ(launcher.launched, Strings{page});
        fs::remove(page);
        launcher.launched.clear();
    }
}

TEST_F(LinuxSystemControlTest, KeyboardSettingsThatDoNotStartAreNotOpened)
{
    around.desktop = {.dataHome = root / "home", .dataDirs = {root / "machine"}, .currentDesktop = {"KDE"}};
    settingsPage("home", "kcm_keys");
    launcher.fails = true;
    EXPECT_FALSE(openKeyboardSettings());
}
