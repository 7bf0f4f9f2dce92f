#include "Support/FileLock.h"

#include "tests/support/DiskFolder.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;

TEST(FileLock, IsHeldByOneAtATimeAndFreeAgainAfterItsEnd)
{
    DiskFolder folder;
    const std::string path = folder / "lock";
    EXPECT_FALSE(FileLock::isTaken(path)) << "there is no such file yet";
    auto first = FileLock::tryTake(path);
    ASSERT_TRUE(first);
    EXPECT_TRUE(FileLock::isTaken(path));
    FileLock::Failure failure{};
    EXPECT_FALSE(FileLock::tryTake(path, &failure));
    EXPECT_EQ(failure, FileLock::Failure::taken);
    first.reset();
    EXPECT_FALSE(FileLock::isTaken(path));
    EXPECT_TRUE(FileLock::tryTake(path));
}

TEST(FileLock, APlaceThatDoesNotExistIsTold)
{
    DiskFolder folder;
    FileLock::Failure failure{};
    EXPECT_FALSE(FileLock::tryTake(folder / "none/lock", &failure));
    EXPECT_EQ(failure, FileLock::Failure::unavailable);
}

TEST(FileLock, AnotherFileIsNotTaken)
{
    DiskFolder folder;
    const auto held = FileLock::tryTake(folder / "one");
    folder.file("two");
    EXPECT_FALSE(FileLock::isTaken(folder / "two"));
}
