#include "Vorrel/Platform/Linux/MountPoints.h"

#include <gtest/gtest.h>

namespace korvane::test {
namespace {

bool nothingIsRemovable(unsigned, unsigned) { return false; }

/// The table of one mount below an ordinary root.
std::string tableWith(const std::string &path, const std::string &type, const std::string &numbers = "0:45")
{
    return "27 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw\n"
           "90 27 "
        + numbers + " / " + path + " rw,relatime - " + type + " source rw\n";
}

MountPoints mountsOf(const std::string &table) { return {table, nothingIsRemovable}; }

TEST(MountPoints, AreExcludedByTheTypeOfTheirFileSystem)
{
    struct Row {
        const char *type;
        bool excluded;
    };
    for (const auto &[type, excluded] : std::initializer_list<Row>{
             {"nfs", true}, {"nfs4", true}, {"cifs", true}, {"smb3", true}, {"9p", true}, {"ceph", true},
             {"afs", true}, // served by others
             {"fuse.sshfs", true}, {"fuse.rclone", true}, {"fuse.gvfsd-fuse", true}, {"fuse.portal", true}, {"fuse", true},
             {"fuse.a-new-cloud", true}, // nobody knows what it asks
             {"fuse.mergerfs", false}, {"fuse.gocryptfs", false}, {"fuse.ntfs-3g", false},
             {"fuseblk", false}, // files of this machine
             {"proc", true}, {"sysfs", true}, {"devtmpfs", true}, {"devpts", true}, {"cgroup2", true}, {"autofs", true},
             {"debugfs", true}, {"securityfs", true}, // no store of files
             {"ext4", false}, {"btrfs", false}, {"xfs", false}, {"zfs", false}, {"vfat", false}, {"tmpfs", false},
             {"overlay", false}, {"squashfs", false}, {"iso9660", false}, {"f2fs", false},
             {"nfsomething", false}, // whatever is not known to be worse
         })
        EXPECT_EQ(mountsOf(tableWith("/home/ada/there", type)).excludes("/home/ada/there"), excluded) << type;
}

TEST(MountPoints, OfRemovableDevicesAreExcludedByTheirNumbers)
{
    const auto isStick = [](unsigned major, unsigned minor) {
        return (major == 8 && minor == 17) || (major == 11 && minor == 0);
    };
    const auto excluded = [&](const std::string &type, const std::string &numbers) {
        return MountPoints(tableWith("/home/ada/stick", type, numbers), isStick).excludes("/home/ada/stick");
    };
    EXPECT_TRUE(excluded("vfat", "8:17"));
    EXPECT_TRUE(excluded("ext4", "8:17"));
    EXPECT_TRUE(excluded("fuseblk", "8:17"));
    EXPECT_TRUE(excluded("iso9660", "11:0"));
    EXPECT_FALSE(excluded("ext4", "8:1"));
    EXPECT_FALSE(excluded("ext4", "17:8"));
    EXPECT_FALSE(excluded("iso9660", "7:0")); // an image in a file
}

TEST(MountPoints, OfBoundFoldersCountByWhatIsBoundThere)
{
    const auto mounts = mountsOf("27 1 254:0 / / rw - ext4 /dev/vda rw\n"
                                 "30 27 254:0 /srv/music /home/ada/music rw - ext4 /dev/vda rw\n"
                                 "31 27 0:50 /export/films /home/ada/films rw - nfs4 server:/export rw\n");
    EXPECT_FALSE(mounts.excludes("/home/ada/music"));
    EXPECT_TRUE(mounts.excludes("/home/ada/films"));
}

TEST(MountPoints, HaveTheirNamesBackFromOctal)
{
    EXPECT_TRUE(mountsOf(tableWith("/a\\040b\\011c\\012d\\134e\\303\\251", "nfs")).excludes("/a b\tc\nd\\e\xc3\xa9"));
    EXPECT_TRUE(mountsOf(tableWith("/back\\134040", "nfs")).excludes("/back\\040")); // once only
    EXPECT_TRUE(mountsOf(tableWith("/short\\04", "nfs")).excludes("/short\\04"));
    EXPECT_TRUE(mountsOf(tableWith("/no\\089", "nfs")).excludes("/no\\089"));
    EXPECT_TRUE(mountsOf(tableWith("/caf\xe9", "nfs")).excludes("/caf\xe9"));
    EXPECT_TRUE(mountsOf(tableWith("/mount\\040-\\040ext4", "nfs")).excludes("/mount - ext4"));
}

TEST(MountPoints, AreReadWithAnyNumberOfOptionalFields)
{
    for (const char *fields : {"", "shared:1 ", "master:2 ", "shared:7 master:2 propagate_from:3 ", "unbindable "}) {
        const auto mounts = mountsOf("90 27 0:45 / /there rw,relatime " + std::string(fields) + "- nfs server:/ rw\n");
        EXPECT_TRUE(mounts.excludes("/there")) << fields;
    }
}

TEST(MountPoints, AreReadFromTheGoodLinesOfABadTable)
{
    const auto mounts = mountsOf("\n"
                                 "nonsense\n"
                                 "1 2 3 / /three rw - nfs a rw\n"
                                 "1 2 3:x / /minor rw - nfs a rw\n"
                                 "x 2 3:4 / /identifier rw - nfs a rw\n"
                                 "1 2 3:4 / relative rw - nfs a rw\n"
                                 "1 2 3:4 / /unseparated rw nfs a rw\n"
                                 "1 2 3:4 /\n"
                                 "90 27 0:45 / /good rw - nfs a rw"); // without a newline
    for (const char *path : {"/three", "/minor", "/identifier", "relative", "/unseparated", "/"})
        EXPECT_FALSE(mounts.excludes(path)) << path;
    EXPECT_TRUE(mounts.excludes("/good"));
    EXPECT_FALSE(mountsOf("").excludes("/"));
}

TEST(MountPoints, CountOnlyWhereAPathLeadsToThem)
{
    // A local disk over a network one at the same place, then the other way round.
    EXPECT_FALSE(mountsOf("90 27 0:45 / /there rw - nfs a rw\n91 90 8:1 / /there rw - ext4 b rw\n").excludes("/there"));
    EXPECT_TRUE(mountsOf("90 27 8:1 / /there rw - ext4 b rw\n91 90 0:45 / /there rw - nfs a rw\n").excludes("/there"));
    // A local disk over a folder above it, mounted later.
    EXPECT_FALSE(mountsOf("90 27 0:45 / /a/b rw - nfs a rw\n91 27 8:1 / /a rw - ext4 b rw\n").excludes("/a/b"));
    // Mounted on a disk that has been covered since.
    EXPECT_FALSE(mountsOf("80 27 8:1 / /a rw - ext4 b rw\n90 80 0:45 / /a/b/c rw - nfs a rw\n"
                          "91 80 8:2 / /a rw - ext4 c rw\n")
                     .excludes("/a/b/c"));
    // Mounted on the disk that covers.
    EXPECT_TRUE(mountsOf("80 27 8:1 / /a rw - ext4 b rw\n91 80 8:2 / /a rw - ext4 c rw\n"
                         "90 91 0:45 / /a/b/c rw - nfs a rw\n")
                    .excludes("/a/b/c"));
    // Its own parent, as the first mount of a machine may be; and two that claim each other.
    EXPECT_TRUE(mountsOf("1 1 0:45 / /there rw - nfs a rw\n").excludes("/there"));
    EXPECT_TRUE(mountsOf("1 2 0:45 / /there rw - nfs a rw\n2 1 0:46 / /here rw - nfs b rw\n").excludes("/there"));
}

TEST(MountPoints, CoverWhatLiesBelowThem)
{
    const auto mounts = mountsOf(tableWith("/home/ada/net", "nfs") + "91 27 0:46 / /proc rw - proc proc rw\n");
    for (const char *path : {"/home/ada/net", "/home/ada/net/a/b", "/proc/self"})
        EXPECT_TRUE(mounts.covers(path)) << path;
    for (const char *path : {"/", "/home/ada", "/home/ada/network", "/home/ada/ne", "/process", ""})
        EXPECT_FALSE(mounts.covers(path)) << path;
    EXPECT_FALSE(mounts.excludes("/home/ada/net/a"));
    for (const char *folder : {"/", "/home", "/home/ada"})
        EXPECT_TRUE(mounts.someBelow(folder)) << folder;
    for (const char *folder : {"/home/ad", "/home/ada/net", "/home/ada/net/a", "/proc", "/srv"})
        EXPECT_FALSE(mounts.someBelow(folder)) << folder;
}

TEST(MountPoints, BelowARootAreThoseThatItIsNotOn)
{
    const auto mounts = mountsOf(tableWith("/net", "nfs") + "91 90 0:46 / /net/a/b rw - cifs c rw\n");
    for (const char *root : {"/net", "/net/a"}) {
        const auto below = mounts.below(root);
        EXPECT_FALSE(below.covers("/net/x")) << root;
        EXPECT_TRUE(below.excludes("/net/a/b")) << root;
    }
    EXPECT_FALSE(mounts.below("/net/a/b").covers("/net/a/b/c"));
    EXPECT_TRUE(mounts.below("/").excludes("/net"));
    EXPECT_TRUE(mounts.below("/network").excludes("/net"));
}

TEST(MountPoints, OfThisMachineLeaveOutWhatTheKernelShows)
{
    const auto mounts = MountPoints::read();
    EXPECT_TRUE(mounts.excludes("/proc"));
    EXPECT_TRUE(mounts.covers("/proc/self/status"));
    EXPECT_FALSE(mounts.excludes("/"));
}

} // namespace
} // namespace korvane::test
