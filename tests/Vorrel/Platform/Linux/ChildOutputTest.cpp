#include "Vorrel/Platform/Linux/ChildOutput.h"
#include "Support/MainLoop.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"
#include "tests/support/Soon.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using Text = std::optional<std::string>;

namespace {

/// Whether the process runs; one that has ended and waits for its parent does not.
bool runs(pid_t id)
{
    std::ifstream stat("/proc/" + std::to_string(id) + "/stat");
    std::string number, name, state;
    return bool(stat >> number >> name >> state) && state != "Z" && state != "X";
}

struct ChildOutput : testing::Test {
    ~ChildOutput() override { loop.shutDown(); }

    ChildProcess::Options shell(const std::string &script) const
    {
        return {.arguments = {"/bin/sh", "-c", script}, .environment = {"PATH=/usr/bin:/bin"}, .workingDirectory = disk.path};
    }
    Task<Text> output(const std::string &script, std::size_t limit = 1000)
    {
        return outputOf(loop.executor(), pool.executor(), clock, shell(script), limit, 2s);
    }
    pid_t idIn(const std::string &name)
    {
        soon(loop, [&] { return disk.contents(name).ends_with('\n'); });
        return std::atoi(disk.contents(name).c_str());
    }

    DiskFolder disk;
    MainLoop loop;
    ManualClock clock{loop};
    ThreadPool pool{2};
};

} // namespace

TEST_F(ChildOutput, WhatAProgramPrintsIsItsAnswer)
{
    EXPECT_EQ(await(loop, output("printf 'a\\n\\377'")), "a\n\xFF");
    EXPECT_EQ(await(loop, output("exit 0")), "");
    EXPECT_EQ(await(loop, output("echo text; exit 1")), std::nullopt) << "it has failed";
    EXPECT_EQ(
        await(loop, outputOf(loop.executor(), pool.executor(), clock, {.arguments = {"/no/such"}, .environment = {}}, 10, 1s)),
        std::nullopt);
}

TEST_F(ChildOutput, WhatIsLongerThanTheLimitIsNotReadAndItsProgramEnds)
{
    EXPECT_EQ(await(loop, output("printf 12345", 5)), "12345");
    EXPECT_EQ(await(loop, output("printf 123456", 5)), std::nullopt);
    EXPECT_EQ(await(loop, output("echo $$ >id; exec cat /dev/zero")), std::nullopt);
    EXPECT_TRUE(soon(loop, [id = idIn("id")] { return !runs(id); }));
}

TEST_F(ChildOutput, AProgramThatIsNotDoneInTimeEndsWithAllThatItHasStarted)
{
    Begun<Text> question(loop, output("sleep 1000 & echo $! >id; echo begun; wait"));
    const pid_t inner = idIn("id");
    ASSERT_GT(inner, 0);
    EXPECT_FALSE(question.done());
    clock.advance(2s);
    EXPECT_EQ(question.result(), std::nullopt);
    EXPECT_TRUE(soon(loop, [&] { return !runs(inner); }));
}

TEST_F(ChildOutput, ATaskThatIsCancelledTakesItsProgramAlong)
{
    {
        Begun<Text> question(loop, output("echo $$ >id; sleep 1000"));
        ASSERT_GT(idIn("id"), 0);
    }
    EXPECT_TRUE(soon(loop, [id = idIn("id")] { return !runs(id); }));
}

TEST_F(ChildOutput, AChildDoesNotOutliveAKilledParent)
{
    const pid_t parent = ::fork();
    if (parent == 0) {
        auto options = shell("echo $$ >id; exec sleep 1000");
        options.endsWithUs = true;
        const PipedProcess child = spawnPipedProcess(options);
        for (;;)
            ::pause();
    }
    const pid_t child = idIn("id");
    ASSERT_TRUE(runs(child));
    ::kill(parent, SIGKILL);
    ::waitpid(parent, nullptr, 0);
    EXPECT_TRUE(soon(loop, [&] { return !runs(child); }));
}
