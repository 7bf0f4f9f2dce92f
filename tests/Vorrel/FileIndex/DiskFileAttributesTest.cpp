#include "Vorrel/FileIndex/DiskFileAttributes.h"

#include "tests/support/DiskFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

namespace korvane::test {
namespace {

using State = AttributeOutcome::State;

void setModified(const std::string &path, time_t seconds, long nanoseconds)
{
    const timespec times[2]{{seconds, nanoseconds}, {seconds, nanoseconds}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

State stateOf(const std::string &path) { return DiskFileAttributes().attributes(path).state; }

TEST(DiskFileAttributes, TellSizeAndWholeSecondsOfAFile)
{
    const DiskFolder disk;
    const auto path = disk.file("file", "12345");
    setModified(path, 1'700'000'001, 999'999'999);
    const auto outcome = DiskFileAttributes().attributes(path);
    EXPECT_EQ(outcome.state, State::found);
    EXPECT_FALSE(outcome.isDirectory);
    EXPECT_EQ(outcome.size, 5);
    EXPECT_EQ(outcome.modified, 1'700'000'001.0);
}

TEST(DiskFileAttributes, TellWhatTheFileSystemSaysOfAFolder)
{
    const DiskFolder disk;
    const auto path = disk.folder("folder");
    setModified(path, 1'600'000'000, 5);
    struct stat status;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    const auto outcome = DiskFileAttributes().attributes(path);
    EXPECT_EQ(outcome.state, State::found);
    EXPECT_TRUE(outcome.isDirectory);
    EXPECT_EQ(outcome.size, status.st_size);
    EXPECT_EQ(outcome.modified, 1'600'000'000.0);
}

TEST(DiskFileAttributes, CountTimesBeforeTheEpochInWholeSecondsToo)
{
    const DiskFolder disk;
    const auto path = disk.file("old");
    setModified(path, -10, 500'000'000);
    EXPECT_EQ(DiskFileAttributes().attributes(path).modified, -10.0);
}

TEST(DiskFileAttributes, FollowLinks)
{
    const DiskFolder disk;
    disk.file("file", "12345");
    disk.folder("folder");
    EXPECT_EQ(DiskFileAttributes().attributes(disk.link("to-file", "file")).size, 5);
    EXPECT_TRUE(DiskFileAttributes().attributes(disk.link("to-folder", "folder")).isDirectory);
}

TEST(DiskFileAttributes, CallMissingOnlyWhatCertainlyIsMissing)
{
    const DiskFolder disk;
    const auto file = disk.file("file");
    EXPECT_EQ(stateOf(disk / "nothing"), State::notFound);
    EXPECT_EQ(stateOf(disk / "nothing/below"), State::notFound);
    EXPECT_EQ(stateOf(file + "/below"), State::notFound); // ENOTDIR
    EXPECT_EQ(stateOf(disk.link("dangling", "nothing")), State::notFound);
    EXPECT_EQ(stateOf(""), State::notFound);
}

TEST(DiskFileAttributes, CallEverythingElseUnavailable)
{
    const DiskFolder disk;
    EXPECT_EQ(stateOf(disk.link("loop", "loop")), State::unavailable); // ELOOP
    EXPECT_EQ(stateOf(disk / std::string(256, 'x')), State::unavailable); // ENAMETOOLONG
}

TEST(DiskFileAttributes, TakeNamesAsBytes)
{
    const DiskFolder disk;
    EXPECT_EQ(DiskFileAttributes().attributes(disk.file("caf\xe9\n", "abc")).size, 3);
}

} // namespace
} // namespace korvane::test
