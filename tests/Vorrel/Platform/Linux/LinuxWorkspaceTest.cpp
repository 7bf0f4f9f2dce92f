#include "Vorrel/Platform/Linux/LinuxWorkspace.h"
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

namespace korvane {
void PrintTo(const ApplicationHandler &handler, std::ostream *out) { *out << handler.name << " at " << handler.path; }
} // namespace korvane

namespace {

/// The user's types and applications. GIO keeps the folders that it saw first for the life of the
/// process, so they are set before any test runs and shared by all.
class UserData : public testing::Environment {
public:
    void SetUp() override
    {
        disk = std::make_unique<DiskFolder>();
        disk->file("data/mime/globs2", "50:text/x-korvane:*.kvt\n50:text/x-korvane-lonely:*.kvl\n50:text/x-korvane-odd:*.kvo\n");
        disk->file("config/mimeapps.list",
            "[Default Applications]\ntext/x-korvane=preferred.desktop\ninode/directory=folders.desktop\n"
            "x-scheme-handler/korvane-test=surfer.desktop\n"
            "[Added Associations]\ntext/x-korvane=other.desktop;preferred.desktop;missing.desktop;\n"
            "text/x-korvane-odd=nameless.desktop;quiet.desktop;\n");
        disk->file("data/applications/nameless.desktop", "[Desktop Entry]\nType=Application\nExec=true\n");
        disk->file(
            "data/applications/quiet.desktop", "[Desktop Entry]\nType=Application\nName=Quiet\nExec=true\nNoDisplay=true\n");
        disk->script(
            "record", "for one in \"$@\"; do echo \"$one\"; done > '" + *disk / "out" + "'\n: > '" + *disk / "out.done" + "'");
        for (const auto &[id, name, words] : {std::tuple{"preferred", "Preferred", "preferred %f"},
                 {"other", "Other", "other %u"}, {"folders", "Folders", "folders %f"}, {"surfer", "Surfer", "surfer %u"}})
            disk->file("data/applications/" + std::string(id) + ".desktop",
                "[Desktop Entry]\nType=Application\nName=" + std::string(name) + "\nExec=" + *disk / "record" + " " + words
                    + "\n");
        ::setenv("XDG_DATA_HOME", (*disk / "data").c_str(), 1);
        ::setenv("XDG_DATA_DIRS", (*disk / "none").c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", (*disk / "config").c_str(), 1);
        ::setenv("XDG_CONFIG_DIRS", (*disk / "none").c_str(), 1);
    }
    void TearDown() override { disk.reset(); }
    std::unique_ptr<DiskFolder> disk;
};

UserData *const user = static_cast<UserData *>(testing::AddGlobalTestEnvironment(new UserData));

struct LinuxWorkspaceThreads : testing::Test {
    PrivateBus bus;
    DiskFolder &disk = *user->disk;
    MainLoop loop;
    ThreadPool pool{2};
    DesktopLauncher launcher{{.pool = pool.executor(),
        .environment = {"PATH=/usr/bin:/bin", "HOME=" + disk.path, "XDG_DATA_HOME=" + disk / "data",
            "DBUS_SESSION_BUS_ADDRESS=" + bus.address()}}};
    LinuxWorkspace workspace{pool.executor(), launcher};

    void SetUp() override { std::filesystem::remove(disk / "out.done"); }
    void TearDown() override { pool.join(); }

    /// What the application that was started got, one word a line.
    std::string written()
    {
        const auto deadline = std::chrono::steady_clock::now() + 8s;
        while (!std::filesystem::exists(disk / "out.done") && std::chrono::steady_clock::now() < deadline)
            ::poll(nullptr, 0, 5);
        EXPECT_TRUE(std::filesystem::exists(disk / "out.done")) << "the application did not run";
        return disk.contents("out");
    }
    std::string entry(const std::string &id) { return disk / "data/applications/" + id + ".desktop"; }
};

} // namespace

TEST_F(LinuxWorkspaceThreads, AFileOpensInTheDefaultApplicationOfItsType)
{
    const auto file = disk.file("a b.kvt");
    EXPECT_TRUE(await(loop, workspace.open(file)));
    EXPECT_EQ(written(), "preferred\n" + file + "\n");
}

TEST_F(LinuxWorkspaceThreads, AFolderOpensInTheFileManager)
{
    const auto folder = disk.folder("some folder");
    EXPECT_TRUE(await(loop, workspace.open(folder)));
    EXPECT_EQ(written(), "folders\n" + folder + "\n");
}

TEST_F(LinuxWorkspaceThreads, AnAddressOpensByItsScheme)
{
    EXPECT_TRUE(await(loop, workspace.open("korvane-test://x/?a=b%20c")));
    EXPECT_EQ(written(), "surfer\nkorvane-test://x/?a=b%20c\n");
}

TEST_F(LinuxWorkspaceThreads, AnAddressOfAFileOpensTheFile)
{
    const auto file = disk.file("a b.kvt");
    EXPECT_TRUE(await(loop, workspace.open("file://" + disk.path + "/a%20b.kvt")));
    EXPECT_EQ(written(), "preferred\n" + file + "\n");
}

TEST_F(LinuxWorkspaceThreads, WhatNothingCanOpenIsToldSo)
{
    EXPECT_FALSE(await(loop, workspace.open(disk.file("x.kvl"))));
    EXPECT_FALSE(await(loop, workspace.open("korvane-unknown://x")));
    EXPECT_FALSE(await(loop, workspace.open("no address")));
    EXPECT_FALSE(await(loop, workspace.open("")));
    EXPECT_FALSE(await(loop, workspace.open(std::string("/a\0b", 4))));
}

TEST_F(LinuxWorkspaceThreads, HandlersAreThoseOfTheTypeWithTheDefaultFirst)
{
    EXPECT_EQ(await(loop, workspace.handlers("/any/where.kvt")),
        (std::vector<ApplicationHandler>{{"Preferred", entry("preferred")}, {"Other", entry("other")}}));
    EXPECT_EQ(await(loop, workspace.handlers("/any/where.kvl")), std::vector<ApplicationHandler>{});
}

TEST_F(LinuxWorkspaceThreads, AnApplicationWithoutANameIsListedLikeItsFileAndOneThatIsKeptOutOfMenusByItsName)
{
    const auto handlers = await(loop, workspace.handlers("/any/where.kvo"));
    EXPECT_THAT(handlers,
        testing::UnorderedElementsAre(
            ApplicationHandler{"nameless", entry("nameless")}, ApplicationHandler{"Quiet", entry("quiet")}));
}

TEST_F(LinuxWorkspaceThreads, AFileOpensInTheChosenApplication)
{
    await(loop, workspace.openWith("/x/a b#1.kvt", entry("other")));
    EXPECT_EQ(written(), "other\nfile:///x/a%20b%231.kvt\n");
    EXPECT_ANY_THROW(await(loop, workspace.openWith("/x/a.kvt", entry("missing"))));
}

TEST_F(LinuxWorkspaceThreads, TheFileManagerShowsWhatIsRevealed)
{
    MockService manager(bus, "org.freedesktop.FileManager1", "/org/freedesktop/FileManager1", "org.freedesktop.FileManager1");
    manager.method("ShowItems", "ass", "");
    await(loop, workspace.reveal("/tmp/a b#ü%.txt"));
    EXPECT_EQ(manager.calls("ShowItems"), Strings{"[<['file:///tmp/a%20b%23%C3%BC%25.txt']>, <''>]"});
    EXPECT_FALSE(std::filesystem::exists(disk / "out.done"));
}

TEST_F(LinuxWorkspaceThreads, APathThatIsNoTextIsRevealedAndOpenedByItsBytes)
{
    MockService manager(bus, "org.freedesktop.FileManager1", "/org/freedesktop/FileManager1", "org.freedesktop.FileManager1");
    manager.method("ShowItems", "ass", "");
    const auto file = disk.file("a\xff.kvt");
    await(loop, workspace.reveal(file));
    EXPECT_EQ(manager.calls("ShowItems"), Strings{"[<['file://" + disk.path + "/a%FF.kvt']>, <''>]"});
    EXPECT_TRUE(await(loop, workspace.open(file)));
    EXPECT_EQ(written(), "preferred\n" + file + "\n");
}

TEST_F(LinuxWorkspaceThreads, AFileManagerThatRefusesIsLikeNone)
{
    MockService manager(bus, "org.freedesktop.FileManager1", "/org/freedesktop/FileManager1", "org.freedesktop.FileManager1");
    await(loop, workspace.reveal(disk.file("refused/a.kvt")));
    EXPECT_EQ(written(), "folders\n" + disk / "refused" + "\n");
}

TEST_F(LinuxWorkspaceThreads, WithoutAFileManagerOnTheBusTheFolderIsOpened)
{
    await(loop, workspace.reveal(disk.file("deep/a.kvt")));
    EXPECT_EQ(written(), "folders\n" + disk / "deep" + "\n");
}
