#include "Vorrel/Shell/SingleInstanceLock.h"

#include "Support/Descriptor.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using namespace korvane;
namespace fs = std::filesystem;

namespace {

struct Pipe {
    Pipe()
    {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0)
            throw std::runtime_error("no pipe");
        read.reset(ends[0]);
        write.reset(ends[1]);
    }
    Descriptor read, write;
};

/// One byte, or nothing at the end or after ten seconds.
std::optional<char> byteFrom(const Descriptor &pipe)
{
    pollfd ready{pipe.get(), POLLIN, 0};
    char byte = 0;
    if (::poll(&ready, 1, 10'000) != 1 || ::read(pipe.get(), &byte, 1) != 1)
        return std::nullopt;
    return byte;
}

/// A process that tries to take the lock as soon as it is let go, says how that ended, and stays until it is ended.
class Instance {
public:
    explicit Instance(const UserFolders &folders) : child(::fork())
    {
        if (child != 0) {
            go.read.reset();
            answer.write.reset();
            return;
        }
        go.write.reset();
        answer.read.reset();
        ::alarm(60); // should the test itself be killed
        char byte = 0;
        if (::read(go.read.get(), &byte, 1) == 1) {
            const char taken = SingleInstanceLock::acquire(folders) ? 'y' : 'n';
            if (::write(answer.write.get(), &taken, 1) == 1)
                while (::read(go.read.get(), &byte, 1) > 0) { }
        }
        ::_exit(0);
    }
    ~Instance() { end(SIGKILL); }
    Instance(const Instance &) = delete;

    void start() const { EXPECT_EQ(::write(go.write.get(), "x", 1), 1); }
    bool taken() const
    {
        const auto byte = byteFrom(answer.read);
        EXPECT_TRUE(byte) << "the other process gave no answer";
        return byte == 'y';
    }
    bool run() const
    {
        start();
        return taken();
    }
    void end(int signal)
    {
        if (child <= 0)
            return;
        ::kill(child, signal);
        ::waitpid(std::exchange(child, 0), nullptr, 0);
    }

private:
    Pipe go, answer;
    pid_t child;
};

class SingleInstanceLockTest : public testing::Test {
protected:
    SingleInstanceLockTest()
    {
        std::string pattern = (fs::temp_directory_path() / "korvane-lock-XXXXXX").string();
        root = ::mkdtemp(pattern.data());
        folders = UserFolders{root.string(), (root / "share").string()};
    }
    ~SingleInstanceLockTest() override { fs::remove_all(root); }

    fs::path lockFile() const { return root / "share/Korvane/korvane.lock"; }

    fs::path root;
    UserFolders folders;
};

} // namespace

TEST_F(SingleInstanceLockTest, TheSecondOfTwoProcessesIsTurnedAway)
{
    Instance first(folders), second(folders);
    EXPECT_TRUE(first.run());
    EXPECT_FALSE(second.run());
}

TEST_F(SingleInstanceLockTest, OfTwentySimultaneousProcessesExactlyOneWins)
{
    std::vector<std::unique_ptr<Instance>> all;
    for (int i = 0; i < 20; ++i)
        all.push_back(std::make_unique<Instance>(folders));
    for (const auto &one : all)
        one->start();
    int winners = 0;
    for (const auto &one : all)
        winners += one->taken();
    EXPECT_EQ(winners, 1);
}

TEST_F(SingleInstanceLockTest, AKilledProcessFreesTheLock)
{
    Instance first(folders), second(folders);
    EXPECT_TRUE(first.run());
    first.end(SIGKILL);
    EXPECT_TRUE(second.run());
}

TEST_F(SingleInstanceLockTest, EachDataFolderHasALockOfItsOwn)
{
    Instance first(folders), second(UserFolders{root.string(), (root / "other").string()});
    EXPECT_TRUE(first.run());
    EXPECT_TRUE(second.run());
}

TEST_F(SingleInstanceLockTest, WithoutADataFolderTheProgramRunsWithoutALock)
{
    const UserFolders none{root.string(), std::nullopt};
    Instance first(none), second(none);
    EXPECT_TRUE(first.run());
    EXPECT_TRUE(second.run());
    EXPECT_TRUE(fs::is_empty(root));
}

TEST_F(SingleInstanceLockTest, ALockFileThatCannotBeOpenedLetsEveryoneIn)
{
    fs::create_directories(lockFile()); // a folder in its place
    Instance first(folders), second(folders);
    EXPECT_TRUE(first.run());
    EXPECT_TRUE(second.run());
}

TEST_F(SingleInstanceLockTest, AFolderThatCannotBeCreatedLetsEveryoneIn)
{
    std::ofstream(root / "share") << "a file in its place";
    Instance first(folders), second(folders);
    EXPECT_TRUE(first.run());
    EXPECT_TRUE(second.run());
}

TEST_F(SingleInstanceLockTest, FolderAndFileBelongToTheUserAlone)
{
    Instance first(folders);
    ASSERT_TRUE(first.run());
    struct stat status { };
    ASSERT_EQ(::stat(lockFile().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    ASSERT_EQ(::stat(lockFile().parent_path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0700U);
}

TEST_F(SingleInstanceLockTest, AProgramStartedByTheInstanceDoesNotKeepTheLock)
{
    const Pipe ready;
    const pid_t instance = ::fork();
    if (instance == 0) {
        // The instance starts another program, which says that it runs, and ends itself.
        if (!SingleInstanceLock::acquire(folders))
            ::_exit(1);
        if (::fork() == 0) {
            ::dup2(ready.write.get(), STDOUT_FILENO);
            ::execl("/bin/sh", "sh", "-c", "echo; exec sleep 5", nullptr);
            ::_exit(1);
        }
        ::pause();
        ::_exit(0);
    }
    EXPECT_EQ(byteFrom(ready.read), '\n');
    ::kill(instance, SIGKILL);
    ::waitpid(instance, nullptr, 0);
    Instance next(folders);
    EXPECT_TRUE(next.run());
}
