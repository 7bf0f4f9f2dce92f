#include "Vorrel/Launch/BoundedProcess.h"

#include "CommandCore/Commands.h"
#include "Support/ChildProcess.h"
#include "Support/MainLoop.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"
#include "tests/support/Soon.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;

namespace {

/// Real programs, run by a shell line, against the machine's clock.
struct BoundedProcessTest : testing::Test {
    using Output = BoundedProcess::Output;

    Task<Output> started(std::string line, double timeout = 20, std::size_t limit = 100'000)
    {
        return process.run("/bin/sh", {"-c", std::move(line)}, timeout, limit);
    }
    Output run(std::string line, double timeout = 20, std::size_t limit = 100'000)
    {
        const double before = clock.uptime();
        auto task = started(std::move(line), timeout, limit);
        Output output;
        try {
            output = await(loop, std::move(task));
        } catch (...) {
            took = clock.uptime() - before;
            throw;
        }
        took = clock.uptime() - before;
        return output;
    }
    std::string failure(std::string line, double timeout)
    {
        try {
            run(std::move(line), timeout);
        } catch (const AppError &error) {
            return error.kind() == AppError::Kind::toolExecution ? error.errorDescription() : "another kind";
        }
        return "none";
    }
    static std::string failureOf(Begun<Output> &begun)
    {
        try {
            begun.result();
        } catch (const AppError &error) {
            return error.errorDescription();
        }
        return "none";
    }
    /// Whether this process has no child left, also none that has ended and waits to be asked for.
    static bool childless() { return ::waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD; }
    static std::ptrdiff_t descriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

    MainLoop loop;
    SystemClock clock;
    BoundedProcess process{loop.executor(), clock, environmentSnapshot()};
    double took = 0; ///< Seconds of the last run.
};

constexpr const char *timedOut = "The shortcut timed out. Try again.";

} // namespace

TEST_F(BoundedProcessTest, GivesBothStreamsAndTheStatus)
{
    const Output output = run("printf out; printf err >&2; exit 3");
    EXPECT_EQ(output.stdout, "out");
    EXPECT_EQ(output.stderr, "err");
    EXPECT_EQ(output.status, 3);
    EXPECT_TRUE(childless());
}

TEST_F(BoundedProcessTest, AProgramThatASignalEndedHasItsNumber) { EXPECT_EQ(run("kill -9 $$").status, 9); }

TEST_F(BoundedProcessTest, ArgumentsArriveAsTheyAre)
{
    auto task = process.run("/bin/echo", {"-n", "a b", "$HOME", "*", "--", ""}, 20, 1000);
    EXPECT_EQ(await(loop, std::move(task)).stdout, "a b $HOME * -- ");
}

TEST_F(BoundedProcessTest, TheInputIsEmpty) { EXPECT_EQ(run("cat; echo end").stdout, "end\n"); }

TEST_F(BoundedProcessTest, AProgramThatIsNotThereFailsAsTheSystemSays)
{
    EXPECT_THROW(await(loop, process.run("/no/such/program", {}, 20, 1000)), std::system_error);
    EXPECT_THROW(await(loop, process.run("/proc/self/status", {}, 20, 1000)), std::system_error) << "not a program";
    EXPECT_TRUE(childless());
}

TEST_F(BoundedProcessTest, TenMegabytesAreReadAndAThousandBytesKept)
{
    const Output output = run("head -c 10000000 /dev/zero | tr '\\0' x; echo done >&2", 20, 1000);
    EXPECT_EQ(output.stdout, std::string(1000, 'x'));
    EXPECT_EQ(output.stderr, "done\n") << "the program was not held up";
    EXPECT_EQ(output.status, 0);
}

TEST_F(BoundedProcessTest, TheLimitItselfIsKeptAndOneMoreByteIsNot)
{
    EXPECT_EQ(run("printf 12345", 20, 5).stdout, "12345");
    EXPECT_EQ(run("printf 123456", 20, 5).stdout, "12345");
    EXPECT_EQ(run("printf 1", 20, 0).stdout, "");
    const Output both = run("printf 123456; printf abcdef >&2", 20, 5);
    EXPECT_EQ(both.stderr, "abcde") << "each stream has its own";
}

TEST_F(BoundedProcessTest, WhatIsNotUtf8IsRepaired)
{
    EXPECT_EQ(run("printf 'a\\377b'").stdout, "a\uFFFDb");
    EXPECT_EQ(run("printf 'ää'", 20, 3).stdout, "ä\uFFFD") << "a character that the limit cut in two";
}

TEST_F(BoundedProcessTest, WhatIgnoresTheSignalIsKilledAQuarterOfASecondLater)
{
    EXPECT_EQ(failure("trap '' TERM; while :; do sleep 0.01; done", 0.1), timedOut);
    EXPECT_GE(took, 0.35);
    EXPECT_LT(took, 0.8);
    EXPECT_TRUE(childless());
}

TEST_F(BoundedProcessTest, WhatObeysTheSignalEndsAtOnce)
{
    EXPECT_EQ(failure("exec sleep 30", 0.1), timedOut);
    EXPECT_LT(took, 0.3);
    EXPECT_TRUE(childless());
}

TEST_F(BoundedProcessTest, AnOutputThatCameAfterTheLimitOfTimeIsNoResult)
{
    EXPECT_EQ(failure("trap 'echo late; exit 0' TERM; while :; do sleep 0.01; done", 0.05), timedOut);
}

TEST_F(BoundedProcessTest, NoTimeOrLessStopsAtTheFirstRound)
{
    EXPECT_EQ(failure("exec sleep 30", 0), timedOut);
    EXPECT_LT(took, 0.3);
    EXPECT_EQ(failure("exec sleep 30", -5), timedOut);
    EXPECT_LT(took, 0.3);
}

TEST_F(BoundedProcessTest, AnOrphanThatHoldsThePipesDelaysTheEndALittleOnly)
{
    const Output output = run("echo before; sleep 5 & exit 0");
    EXPECT_EQ(output.stdout, "before\n");
    EXPECT_GE(took, 0.15);
    EXPECT_LT(took, 0.6);
}

TEST_F(BoundedProcessTest, AProgramThatClosesItsOutputAndLivesOnIsWaitedFor)
{
    const Output output = run("echo early; exec >&- 2>&-; sleep 0.2; exit 4");
    EXPECT_EQ(output.stdout, "early\n");
    EXPECT_EQ(output.status, 4);
    EXPECT_GE(took, 0.2);
}

TEST_F(BoundedProcessTest, OneThatPrintsWithoutEndIsStopped)
{
    EXPECT_EQ(failure("exec yes", 0.2), timedOut);
    EXPECT_LT(took, 1.5);
    EXPECT_TRUE(childless());
}

TEST_F(BoundedProcessTest, ACancelledCallerEndsTheProgramAndWaitsForIt)
{
    Begun<Output> begun(loop, started("echo $$; exec sleep 30"));
    loop.runUntilIdle();
    begun.cancel();
    EXPECT_THROW(begun.result(), Cancelled);
    EXPECT_TRUE(childless());
}

TEST_F(BoundedProcessTest, ACallerThatIsCancelledBeforehandStartsNothing)
{
    const std::string mark = std::filesystem::temp_directory_path() / ("korvane-started-" + std::to_string(::getpid()));
    Begun<Output> begun(loop, started("touch " + mark));
    begun.cancel();
    EXPECT_THROW(begun.result(), Cancelled);
    EXPECT_FALSE(std::filesystem::exists(mark));
}

TEST_F(BoundedProcessTest, TwoRunsGoOnBesideEachOther)
{
    const double before = clock.uptime();
    Begun<Output> first(loop, started("sleep 0.3; echo first")), second(loop, started("sleep 0.3; echo second"));
    EXPECT_EQ(first.result().stdout, "first\n");
    EXPECT_EQ(second.result().stdout, "second\n");
    EXPECT_LT(clock.uptime() - before, 0.55);
}

TEST_F(BoundedProcessTest, TheProgramHasNoDescriptorButItsThreeAndSignalsAsByDefault)
{
    EXPECT_EQ(run("ls /proc/self/fd | wc -l").stdout, "4\n") << "its three, and the folder being listed";
    const std::string ignored = run("grep SigIgn /proc/self/status").stdout;
    EXPECT_EQ(ignored, "SigIgn:\t0000000000000000\n");
}

TEST_F(BoundedProcessTest, AChildThatTheSystemTookAwayHasEnded)
{
    const auto before = ::signal(SIGCHLD, SIG_IGN);
    const Output output = run("echo whole");
    ::signal(SIGCHLD, before);
    EXPECT_EQ(output.stdout, "whole\n");
    EXPECT_EQ(output.status, BoundedProcess::unknownStatus);
    EXPECT_LT(took, 2);
}

TEST_F(BoundedProcessTest, WhatCannotBeEndedIsGivenUpAfterASecondAndStillWaitedFor)
{
    const DiskFolder folder;
    Begun<Output> begun(loop, started("echo $$ >" + folder / "id" + "; exec sleep 30", 0.3));
    const double before = clock.uptime();
    ASSERT_TRUE(soon(loop, [&] { return folder.contents("id").ends_with('\n'); }));
    // Whoever traces a process hears of its end first, and this one never listens.
    const pid_t child = std::stoi(folder.contents("id")), tracer = ::fork();
    if (tracer == 0) {
        ::ptrace(PTRACE_SEIZE, child, nullptr, nullptr);
        for (;;)
            ::pause();
    }
    EXPECT_EQ(failureOf(begun), timedOut);
    EXPECT_GT(clock.uptime() - before, 1.2);
    EXPECT_LT(clock.uptime() - before, 2.0);
    ::kill(tracer, SIGKILL);
    ::waitpid(tracer, nullptr, 0);
    EXPECT_TRUE(soon(loop, [] { return childless(); }));
}

TEST_F(BoundedProcessTest, ACancelledCallerEndsAProgramThatIgnoresTheSignal)
{
    const DiskFolder folder;
    Begun<Output> begun(loop, started("trap '' TERM; echo >" + folder / "ready" + "; while :; do sleep 0.01; done"));
    ASSERT_TRUE(soon(loop, [&] { return !folder.contents("ready").empty(); }));
    const double before = clock.uptime();
    begun.cancel();
    EXPECT_THROW(begun.result(), Cancelled);
    EXPECT_GE(clock.uptime() - before, 0.25);
    EXPECT_LT(clock.uptime() - before, 0.8);
    EXPECT_TRUE(childless());
}

TEST_F(BoundedProcessTest, TheEnvironmentIsTheOneGivenAndTheFolderThisProcesssOwn)
{
    BoundedProcess other(loop.executor(), clock, {"HARBOUR=east", "TIDE=high"});
    auto task = other.run("/usr/bin/env", {}, 20, 1000);
    EXPECT_EQ(await(loop, std::move(task)).stdout, "HARBOUR=east\nTIDE=high\n");
    EXPECT_EQ(run("pwd -P").stdout, std::filesystem::canonical(".").native() + "\n");
}

TEST(BoundedProcessByAManualClock, ACancellationThatIsSeenWithTheEndOfTheTimeIsACancellation)
{
    MainLoop loop;
    ManualClock clock(loop);
    BoundedProcess process(loop.executor(), clock, environmentSnapshot());
    Begun<BoundedProcess::Output> begun(loop, process.run("/bin/sleep", {"30"}, 1, 1000));
    loop.runUntilIdle();
    begun.cancel();
    clock.advance(1s); // the next look sees both
    const SystemClock real;
    for (const double end = real.uptime() + 10; !begun.done() && real.uptime() < end;)
        clock.advance(10ms);
    ASSERT_TRUE(begun.done());
    EXPECT_THROW(begun.result(), Cancelled);
}

TEST(BoundedProcessByAManualClock, ALookTakesAHundredAndTwentyEightKilobytes)
{
    constexpr int size = 1 << 20, ofALook = 16 * 8192;
    MainLoop loop;
    ManualClock clock(loop);
    SystemClock real;
    const DiskFolder folder;
    BoundedProcess process(loop.executor(), clock, environmentSnapshot());
    const std::string line = "echo $$ >id; while [ ! -e go ]; do sleep 0.01; done; head -c 1048576 /dev/zero; echo >written";
    Begun<BoundedProcess::Output> begun(
        loop, process.run("/bin/sh", {"-c", "cd " + folder.path + "; " + line}, 60, std::size_t(size)));
    ASSERT_TRUE(soon(loop, [&] { return folder.contents("id").ends_with('\n'); }));
    // All of it fits, so that nothing is written between two looks.
    const std::string pipe = "/proc/" + std::to_string(std::stoi(folder.contents("id"))) + "/fd/1";
    ASSERT_GE(::fcntl(Descriptor(::open(pipe.c_str(), O_WRONLY | O_CLOEXEC)).get(), F_SETPIPE_SZ, size), size);
    folder.file("go");
    ASSERT_TRUE(soon(loop, [&] { return !folder.contents("written").empty(); }));
    int looks = 0;
    for (; !begun.done() && looks < 100; ++looks)
        clock.advance(10ms);
    EXPECT_GE(looks, size / ofALook);
    EXPECT_LE(looks, size / ofALook + 1) << "and one that sees the end";
    EXPECT_EQ(begun.result().stdout.size(), std::size_t(size));
}

TEST_F(BoundedProcessTest, RunsThatEndInEveryOtherWayLeaveNothingEither)
{
    run("sleep 0.05"); // the loop's own descriptors come with its first wait
    const auto before = descriptors();
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(failure("exec sleep 30", 0), timedOut);
        Begun<Output> begun(loop, started("exec sleep 30"));
        loop.runUntilIdle();
        begun.cancel();
        EXPECT_THROW(begun.result(), Cancelled);
        EXPECT_THROW(await(loop, process.run("/no/such/program", {}, 20, 1000)), std::system_error);
        if (i % 5 == 0)
            run("sleep 0.3 & exit 0");
    }
    EXPECT_EQ(descriptors(), before);
    EXPECT_TRUE(childless());
}

TEST(BoundedProcessSlow, AThousandRunsLeaveNeitherChildrenNorDescriptors)
{
    MainLoop loop;
    SystemClock clock;
    BoundedProcess process(loop.executor(), clock, environmentSnapshot());
    const auto run = [&] { EXPECT_EQ(await(loop, process.run("/bin/true", {}, 20, 100)).status, 0); };
    await(loop, process.run("/bin/sleep", {"0.05"}, 20, 100)); // the loop's own descriptors come with its first wait
    const auto before = BoundedProcessTest::descriptors();
    for (int i = 0; i < 1000; ++i)
        run();
    EXPECT_EQ(BoundedProcessTest::descriptors(), before);
    EXPECT_TRUE(BoundedProcessTest::childless());
}
