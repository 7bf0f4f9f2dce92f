#include "Support/WholeFile.h"

#include "tests/support/DiskFolder.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

using namespace korvane;
using namespace korvane::test;

static std::size_t filesIn(const std::string &folder)
{
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

TEST(WholeFile, IsWrittenAndReplacesTheOneBefore)
{
    DiskFolder folder;
    writeWholeFile(folder / "report.txt", "first");
    EXPECT_EQ(folder.contents("report.txt"), "first");
    const std::string large(3'000'000, 'x');
    writeWholeFile(folder / "report.txt", large);
    EXPECT_EQ(folder.contents("report.txt"), large);
    writeWholeFile(folder / "report.txt", "");
    EXPECT_EQ(folder.contents("report.txt"), "");
    EXPECT_EQ(filesIn(folder.path), 1u) << "nothing else stays behind";
}

TEST(WholeFile, AFolderThatIsNotThereIsAnErrorAndNothingAppears)
{
    DiskFolder folder;
    EXPECT_THROW(writeWholeFile(folder / "missing/report.txt", "text"), std::system_error);
    folder.folder("report.txt");
    EXPECT_THROW(writeWholeFile(folder / "report.txt", "text"), std::system_error) << "a folder in its place";
    EXPECT_EQ(filesIn(folder.path), 1u);
}

TEST(WholeFile, AFullDiskLeavesTheOldFileAsItWas)
{
    DiskFolder folder;
    folder.file("report.txt", "old");
    const pid_t child = ::fork();
    if (child == 0) {
        const rlimit bound{1000, 1000}; // bytes of a file
        ::setrlimit(RLIMIT_FSIZE, &bound);
        ::signal(SIGXFSZ, SIG_IGN);
        try {
            writeWholeFile(folder / "report.txt", std::string(1001, 'x'));
        } catch (const std::system_error &error) {
            ::_exit(error.code() == std::errc::file_too_large ? 0 : 2);
        }
        ::_exit(1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(folder.contents("report.txt"), "old");
    EXPECT_EQ(filesIn(folder.path), 1u);
}
