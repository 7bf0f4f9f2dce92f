#include "Vorrel/Platform/Linux/TrashFolders.h"

#include "Support/Descriptor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace korvane;
namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

namespace {

void write(const fs::path &path, const std::string &content = "x")
{
    fs::create_directories(path.parent_path());
    std::ofstream(path) << content;
}

/// A home and two volumes in a temporary folder, and a mount table that names them.
class TrashFoldersTest : public testing::Test {
protected:
    TrashFoldersTest()
    {
        std::string pattern = (fs::temp_directory_path() / "korvane-trash-XXXXXX").string();
        root = ::mkdtemp(pattern.data());
        fs::create_directories(root / "share");
        fs::create_directories(root / "disk");
        fs::create_directories(root / "a stick");
        write(root / "mounts",
            "21 1 8:1 / " + (root / "disk").string() + " rw,relatime shared:1 - ext4 /dev/sda1 rw\n" + "22 1 8:2 / "
                + root.string() + "/a\\040stick rw - vfat /dev/sdb1 rw\n");
        places = TrashPlaces{(root / "share").string(), (root / "mounts").string(), ::getuid()};
    }
    ~TrashFoldersTest() override { fs::remove_all(root); }

    /// Throws a file away by hand, into the trash at `trash`.
    static void throwAway(const fs::path &trash, const std::string &name)
    {
        write(trash / "files" / name);
        write(trash / "info" / (name + ".trashinfo"), "[Trash Info]\nPath=/" + name + "\n");
    }
    fs::path home() const { return root / "share/Trash"; }
    std::string user() const { return std::to_string(places.user); }
    static bool isEmpty(const fs::path &trash) { return fs::is_empty(trash / "files") && fs::is_empty(trash / "info"); }

    fs::path root;
    TrashPlaces places;
};

} // namespace

TEST_F(TrashFoldersTest, WithoutAnyTrashThereIsNothingToDo)
{
    EXPECT_TRUE(emptyTrashFolders(places));
    places.dataHome = (root / "no such folder").string();
    EXPECT_TRUE(emptyTrashFolders(places));
    places.dataHome.clear();
    EXPECT_TRUE(emptyTrashFolders(places));
}

TEST_F(TrashFoldersTest, FilesAndNotesGoAndTheFoldersStay)
{
    throwAway(home(), "letter.txt");
    write(home() / "files/album/one/two.jpg");
    write(home() / "files/.hidden");
    fs::create_directories(home() / "files/empty");
    write(home() / "directorysizes");
    EXPECT_TRUE(emptyTrashFolders(places));
    EXPECT_TRUE(isEmpty(home()));
    EXPECT_FALSE(fs::exists(home() / "directorysizes"));
}

TEST_F(TrashFoldersTest, EveryVolumeHasAFolderForEachUser)
{
    throwAway(root / "disk" / (".Trash-" + user()), "a");
    throwAway(root / "a stick" / (".Trash-" + user()), "b");
    throwAway(root / "disk/.Trash-4242", "of somebody else");
    EXPECT_TRUE(emptyTrashFolders(places));
    EXPECT_TRUE(isEmpty(root / "disk" / (".Trash-" + user())));
    EXPECT_TRUE(isEmpty(root / "a stick" / (".Trash-" + user())));
    EXPECT_TRUE(fs::exists(root / "disk/.Trash-4242/files/of somebody else"));
}

TEST_F(TrashFoldersTest, ASharedTrashCountsOnlyWithTheStickyBit)
{
    const fs::path shared = root / "disk/.Trash";
    throwAway(shared / user(), "a");
    EXPECT_TRUE(emptyTrashFolders(places));
    EXPECT_TRUE(fs::exists(shared / user() / "files/a"));
    fs::permissions(shared, fs::perms::all | fs::perms::sticky_bit);
    EXPECT_TRUE(emptyTrashFolders(places));
    EXPECT_TRUE(isEmpty(shared / user()));
}

TEST_F(TrashFoldersTest, ASharedTrashThatIsALinkDoesNotCount)
{
    throwAway(root / "elsewhere" / user(), "a");
    fs::permissions(root / "elsewhere", fs::perms::all | fs::perms::sticky_bit);
    fs::create_symlink(root / "elsewhere", root / "disk/.Trash");
    EXPECT_TRUE(emptyTrashFolders(places));
    EXPECT_TRUE(fs::exists(root / "elsewhere" / user() / "files/a"));
}

TEST_F(TrashFoldersTest, AVolumesTrashThatIsALinkDoesNotCount)
{
    throwAway(root / "elsewhere", "a");
    fs::create_symlink(root / "elsewhere", root / "disk" / (".Trash-" + user()));
    EXPECT_TRUE(emptyTrashFolders(places));
    EXPECT_TRUE(fs::exists(root / "elsewhere/files/a"));
}

TEST_F(TrashFoldersTest, AVolumesTrashOfAnotherOwnerDoesNotCount)
{
    if (::geteuid() != 0) // only root gives files away
        places.user = ::getuid() + 1;
    const fs::path trash = root / "disk" / (".Trash-" + user());
    throwAway(trash, "a");
    if (::geteuid() == 0)
        ASSERT_EQ(::chown(trash.c_str(), 65534, 65534), 0);
    EXPECT_TRUE(emptyTrashFolders(places));
    EXPECT_TRUE(fs::exists(trash / "files/a"));
}

TEST_F(TrashFoldersTest, ALinkInTheTrashGoesAndWhatItPointsToStays)
{
    write(root / "precious/file");
    fs::create_directories(home() / "files/album");
    fs::create_directory_symlink(root / "precious", home() / "files/link");
    fs::create_directory_symlink(root / "precious", home() / "files/album/link");
    fs::create_symlink(root / "precious/file", home() / "files/file");
    fs::create_symlink(root / "nowhere", home() / "files/dangling");
    EXPECT_TRUE(emptyTrashFolders(places));
    EXPECT_TRUE(fs::is_empty(home() / "files"));
    EXPECT_TRUE(fs::exists(root / "precious/file"));
}

TEST_F(TrashFoldersTest, ALinkInPlaceOfAFolderOfTheTrashIsAFailureAndIsNotFollowed)
{
    write(root / "precious/file");
    fs::create_directories(home());
    fs::create_directory_symlink(root / "precious", home() / "files");
    EXPECT_FALSE(emptyTrashFolders(places));
    EXPECT_TRUE(fs::exists(root / "precious/file"));

    fs::remove_all(home());
    write(root / "precious/files/file");
    fs::create_directory_symlink(root / "precious", home());
    EXPECT_FALSE(emptyTrashFolders(places));
    EXPECT_TRUE(fs::exists(root / "precious/files/file"));
}

TEST_F(TrashFoldersTest, AFailureInOnePlaceDoesNotStopTheOthers)
{
    write(home(), "a file in place of the trash");
    throwAway(root / "disk" / (".Trash-" + user()), "a");
    EXPECT_FALSE(emptyTrashFolders(places));
    EXPECT_TRUE(isEmpty(root / "disk" / (".Trash-" + user())));
}

TEST_F(TrashFoldersTest, FoldersWithoutPermissionsGoToo)
{
    write(home() / "files/shut/inner/file");
    fs::permissions(home() / "files/shut/inner", fs::perms::none);
    fs::permissions(home() / "files/shut", fs::perms::owner_read);
    EXPECT_TRUE(emptyTrashFolders(places));
    EXPECT_TRUE(fs::is_empty(home() / "files"));
}

TEST_F(TrashFoldersTest, NoDepthExhaustsTheDescriptors)
{
    // Deeper than a path may be long, so it is made step by step.
    fs::create_directories(home() / "files");
    Descriptor here(::open((home() / "files").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int depth = 0; depth < 1000; ++depth) {
        ASSERT_EQ(::mkdirat(here.get(), "deep", 0700), 0);
        here.reset(::openat(here.get(), "deep", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        ASSERT_TRUE(here);
    }
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit few = before;
    few.rlim_cur = 64;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    EXPECT_TRUE(emptyTrashFolders(places));
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_TRUE(fs::is_empty(home() / "files"));
}

TEST_F(TrashFoldersTest, ManyEntriesGoAtOnce)
{
    for (int i = 0; i < 500; ++i)
        throwAway(home(), "file " + std::to_string(i));
    for (int i = 0; i < 100; ++i)
        write(home() / "files" / ("folder " + std::to_string(i)) / "file");
    EXPECT_TRUE(emptyTrashFolders(places));
    EXPECT_TRUE(isEmpty(home()));
}

TEST_F(TrashFoldersTest, WhatCannotGoStaysWithItsNoteAndEverythingElseGoes)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "only root can make a folder that its user may not change";
    // Root may remove anything, so a process of another user does it; the folder it may not change is root's.
    constexpr uid_t stranger = 65534;
    places.user = stranger;
    throwAway(home(), "mine");
    write(home() / "info/stuck.trashinfo");
    write(home() / "info/orphan.trashinfo");
    const auto emptyAsStranger = [&]() -> int {
        const pid_t child = ::fork();
        if (child == 0) {
            if (::setgid(stranger) != 0 || ::setuid(stranger) != 0)
                ::_exit(2);
            ::_exit(emptyTrashFolders(places) ? 0 : 1);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    fs::permissions(root, fs::perms::all);
    for (const auto &entry : fs::recursive_directory_iterator(root / "share"))
        ASSERT_EQ(::lchown(entry.path().c_str(), stranger, stranger), 0);
    ASSERT_EQ(::chown((root / "share").c_str(), stranger, stranger), 0);
    write(home() / "files/stuck/inner");
    EXPECT_EQ(emptyAsStranger(), 1);
    EXPECT_TRUE(fs::exists(home() / "files/stuck/inner"));
    EXPECT_TRUE(fs::exists(home() / "info/stuck.trashinfo"));
    EXPECT_FALSE(fs::exists(home() / "files/mine"));
    EXPECT_FALSE(fs::exists(home() / "info/mine.trashinfo"));
    EXPECT_FALSE(fs::exists(home() / "info/orphan.trashinfo"));
}

TEST_F(TrashFoldersTest, AStoppedEmptyingIsAFailure)
{
    throwAway(home(), "a");
    std::stop_source stop;
    stop.request_stop();
    EXPECT_FALSE(emptyTrashFolders(places, stop.get_token()));
    EXPECT_TRUE(fs::exists(home() / "files/a"));
}

TEST(TrashVolumes, OnlyRealWritableVolumesAreRead)
{
    const struct {
        const char *why;
        const char *table;
        Strings volumes;
    } cases[] = {
        {"nothing", "", {}},
        {"a plain volume", "36 35 98:0 / /mnt rw,noatime master:1 - ext4 /dev/sda rw\n", {"/mnt"}},
        {"no tags, several tags", "1 0 8:1 / /a rw - xfs /dev/a rw\n2 0 8:1 / /b rw shared:1 master:2 - xfs /dev/b rw",
            {"/a", "/b"}},
        {"blanks, tabs, line ends and backslashes in a name", "1 0 8:1 / /my\\040disk\\011a\\012b\\134c rw - ext4 /dev/a rw\n",
            {"/my disk\ta\nb\\c"}},
        {"a backslash that is no escape", "1 0 8:1 / /a\\9\\04 rw - ext4 /dev/a rw\n", {"/a\\9\\04"}},
        {"pseudo file systems",
            "1 0 0:1 / /proc rw - proc proc rw\n2 0 0:2 / /sys rw - sysfs sysfs rw\n3 0 0:3 / /net rw - autofs x rw\n", {}},
        {"what cannot be written",
            "1 0 8:1 / /cd ro,nosuid - iso9660 /dev/sr0 ro\n2 0 8:1 / /b ro - ext4 /dev/b rw\n3 0 8:1 / /c rw - ext4 /dev/c ro\n",
            {"/c"}},
        {"the same folder twice", "1 0 8:1 / /a rw - ext4 /dev/a rw\n2 0 8:2 / /a rw - ext4 /dev/b rw\n", {"/a"}},
        {"lines that are too short", "1 0 8:1 / /a rw\n1 0 - ext4\n-\n - \n1 0 8:1 / /b rw -\n", {}},
        {"a network share and a memory disk", "1 0 0:5 / /share rw - nfs4 host:/x rw\n2 0 0:6 / /tmp rw - tmpfs tmpfs rw\n",
            {"/share", "/tmp"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(volumesOf(c.table), c.volumes);
    }
}
