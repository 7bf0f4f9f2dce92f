#include "Vorrel/FileIndex/FilePreviewAccess.h"

#include "tests/Vorrel/FileIndex/HangingFolder.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"
#include "tests/support/Soon.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <deque>
#include <future>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using Reason = FileAccessFailure::Reason;

namespace {

/// What came of a check, in a word.
enum class Outcome { Opens, Permission, Missing, Offline, Unavailable, Timeout, Busy, Cancelled };

Outcome outcomeOf(Reason reason)
{
    switch (reason) {
    case Reason::permission: return Outcome::Permission;
    case Reason::missing: return Outcome::Missing;
    case Reason::offline: return Outcome::Offline;
    case Reason::unavailable: return Outcome::Unavailable;
    case Reason::timeout: return Outcome::Timeout;
    case Reason::busy: return Outcome::Busy;
    }
    throw std::logic_error("no reason");
}

void PrintTo(Outcome outcome, std::ostream *out)
{
    constexpr const char *names[] = {"opens", "permission", "missing", "offline", "unavailable", "timeout", "busy", "cancelled"};
    *out << names[static_cast<int>(outcome)];
}

Task<Outcome> outcomeOf(FilePreviewAccess &access, std::string path)
{
    try {
        co_await access.check(std::move(path));
    } catch (const FileAccessFailure &failure) {
        co_return outcomeOf(failure.reason());
    } catch (const Cancelled &) {
        co_return Outcome::Cancelled;
    }
    co_return Outcome::Opens;
}

/// Checks in virtual time, on one thread: a question stays with the system until the test lets it go.
struct Checks {
    ~Checks() { loop.shutDown(); }

    Begun<Outcome> begin() { return Begun<Outcome>(loop, outcomeOf(access, "/a")); }
    void answer()
    {
        const auto oldest = std::move(atTheSystem.front());
        atTheSystem.pop_front();
        oldest();
    }

    MainLoop loop;
    ManualClock clock{loop};
    std::deque<std::function<void()>> atTheSystem;
    std::optional<Reason> failure;
    FilePreviewAccess access{loop.executor(), clock,
        {.probe = [this](const std::string &) { return failure; },
            .apart = [this](std::function<void()> work) { atTheSystem.push_back(std::move(work)); }}};
};

/// Checks on real threads and in real time.
struct RealChecks {
    ~RealChecks() { loop.shutDown(); }
    Outcome check(std::string path) { return await(loop, outcomeOf(access, std::move(path))); }

    MainLoop loop;
    SystemClock clock;
    FilePreviewAccess access{loop.executor(), clock};
};

/// What comes of the first check that is not refused because of an earlier question.
Outcome onceFree(MainLoop &loop, FilePreviewAccess &access, const std::string &path)
{
    Outcome last = Outcome::Busy;
    soon(loop, [&] {
        if (last == Outcome::Busy)
            last = await(loop, outcomeOf(access, path));
        return last != Outcome::Busy;
    });
    return last;
}

/// A probe that blocks until it is let go, as a system call would.
struct Blocking {
    FilePreviewAccess::Probe probe()
    {
        return [state = state](const std::string &) {
            ++state->entered;
            state->opened.wait();
            return std::optional<Reason>();
        };
    }
    void letGo() { state->gate.set_value(); }

    struct State {
        std::atomic<int> entered = 0;
        std::promise<void> gate;
        const std::shared_future<void> opened = gate.get_future().share();
    };
    std::shared_ptr<State> state = std::make_shared<State>();
};

} // namespace

TEST(FilePreviewAccess, AnAnswerAtOnceIsNoFailureAndEndsTheTimer)
{
    Checks checks;
    auto check = checks.begin();
    checks.loop.runUntilIdle();
    EXPECT_EQ(checks.clock.sleepers(), 1U);
    checks.answer();
    EXPECT_EQ(check.result(), Outcome::Opens);
    checks.loop.runUntilIdle();
    EXPECT_EQ(checks.clock.sleepers(), 0U);
}

TEST(FilePreviewAccess, TheFailureOfTheSystemIsTheFailureOfTheCheck)
{
    for (const Reason reason : {Reason::permission, Reason::missing, Reason::offline, Reason::unavailable}) {
        Checks checks;
        checks.failure = reason;
        auto check = checks.begin();
        checks.loop.runUntilIdle();
        checks.answer();
        EXPECT_EQ(check.result(), outcomeOf(reason));
    }
}

TEST(FilePreviewAccess, AQuestionThatHangsIsGivenUpAfterThreeSecondsAndHoldsUpTheNextUntilItComesBack)
{
    Checks checks;
    auto first = checks.begin();
    checks.clock.advance(2999ms);
    EXPECT_FALSE(first.done());
    checks.clock.advance(1ms);
    ASSERT_TRUE(first.done());
    EXPECT_EQ(first.result(), Outcome::Timeout);

    checks.clock.advance(2s);
    EXPECT_EQ(checks.begin().result(), Outcome::Busy);
    EXPECT_EQ(checks.atTheSystem.size(), 1U) << "the system is not asked again";
    EXPECT_EQ(checks.clock.sleepers(), 0U);

    checks.clock.advance(5s);
    checks.answer();
    checks.clock.advance(1s);
    auto third = checks.begin();
    checks.loop.runUntilIdle();
    checks.answer();
    EXPECT_EQ(third.result(), Outcome::Opens);
}

TEST(FilePreviewAccess, ACancelledCallerIsToldAtOnceAndTheQuestionStaysUntilItComesBack)
{
    Checks checks;
    auto first = checks.begin();
    checks.loop.runUntilIdle();
    first.cancel();
    EXPECT_EQ(first.result(), Outcome::Cancelled);
    checks.loop.runUntilIdle();
    EXPECT_EQ(checks.clock.sleepers(), 0U);
    EXPECT_EQ(checks.begin().result(), Outcome::Busy);
    checks.answer();
    auto third = checks.begin();
    checks.loop.runUntilIdle();
    checks.answer();
    EXPECT_EQ(third.result(), Outcome::Opens);
}

TEST(FilePreviewAccess, ACallerThatWasCancelledBeforeAsksNothing)
{
    Checks checks;
    auto check = checks.begin();
    check.cancel();
    EXPECT_EQ(check.result(), Outcome::Cancelled);
    EXPECT_TRUE(checks.atTheSystem.empty());
    EXPECT_EQ(checks.clock.sleepers(), 0U);
}

TEST(FilePreviewAccess, TheAnswerToAQuestionThatWasGivenUpReachesNoLaterOne)
{
    Checks checks;
    checks.failure = Reason::missing;
    auto first = checks.begin();
    checks.clock.advance(3s);
    EXPECT_EQ(first.result(), Outcome::Timeout);
    const auto late = checks.atTheSystem.front();
    checks.answer();
    auto second = checks.begin();
    checks.loop.runUntilIdle();
    late(); // once more, as if two answers came
    checks.loop.runUntilIdle();
    EXPECT_FALSE(second.done());
    checks.failure.reset();
    checks.answer();
    EXPECT_EQ(second.result(), Outcome::Opens);
}

TEST(FilePreviewAccess, WithoutAThreadTheFileIsUnavailableAndTheNextCheckIsNotHeldUp)
{
    MainLoop loop;
    ManualClock clock(loop);
    const auto refuse = [](const std::function<void()> &) {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    };
    FilePreviewAccess access(loop.executor(), clock, {.apart = refuse});
    EXPECT_EQ(await(loop, outcomeOf(access, "/")), Outcome::Unavailable);
    EXPECT_EQ(await(loop, outcomeOf(access, "/")), Outcome::Unavailable);
    loop.shutDown();
}

TEST(FilePreviewAccess, EveryErrorNumberHasItsReason)
{
    const struct {
        int error;
        Reason reason;
    } cases[] = {
        {EPERM, Reason::permission},
        {EACCES, Reason::permission},
        {ENOENT, Reason::missing},
        {ENOTDIR, Reason::missing},
        {EIO, Reason::offline},
        {ENODEV, Reason::offline},
        {ESTALE, Reason::offline},
        {ENXIO, Reason::unavailable},
        {EMFILE, Reason::unavailable},
        {ELOOP, Reason::unavailable},
        {0, Reason::unavailable},
    };
    for (const auto &c : cases)
        EXPECT_EQ(FilePreviewAccess::reasonOf(c.error), c.reason) << c.error;
}

TEST(FilePreviewAccess, FilesFoldersAndPipesWithoutAWriterOpen)
{
    const DiskFolder disk;
    const std::string pipe = disk / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(FilePreviewAccess::openDescriptor(disk.file("a.txt")), std::nullopt);
    EXPECT_EQ(FilePreviewAccess::openDescriptor(disk.path), std::nullopt);
    EXPECT_EQ(FilePreviewAccess::openDescriptor(pipe), std::nullopt);
    EXPECT_EQ(FilePreviewAccess::openDescriptor(disk.file("a\xff.txt")), std::nullopt);
}

TEST(FilePreviewAccess, WhatIsNotThereIsMissing)
{
    const DiskFolder disk;
    EXPECT_EQ(FilePreviewAccess::openDescriptor(disk / "none"), Reason::missing);
    EXPECT_EQ(FilePreviewAccess::openDescriptor(disk.file("file") + "/below"), Reason::missing);
    EXPECT_EQ(FilePreviewAccess::openDescriptor(disk.link("dangling", disk / "none")), Reason::missing);
    EXPECT_EQ(FilePreviewAccess::openDescriptor(disk.link("round", disk / "round")), Reason::unavailable);
    EXPECT_EQ(FilePreviewAccess::openDescriptor(disk.file("a") + std::string("\0b", 2)), Reason::unavailable);
}

TEST(FilePreviewAccess, AFileOfAnotherUserIsDenied)
{
    const DiskFolder disk;
    ASSERT_EQ(::chmod(disk.path.c_str(), 0755), 0);
    const std::string secret = disk.file("secret");
    ASSERT_EQ(::chmod(secret.c_str(), 0), 0);
    constexpr uid_t nobody = 65534;
    const pid_t child = ::fork();
    if (child == 0) { // the administrator may read everything
        const bool dropped = ::geteuid() != 0 || ::setuid(nobody) == 0;
        ::_exit(dropped && FilePreviewAccess::openDescriptor(secret) == Reason::permission ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(FilePreviewAccessThreads, FilesAreAskedForOnAThreadOfTheirOwn)
{
    const DiskFolder disk;
    RealChecks checks;
    EXPECT_EQ(checks.check(disk.file("a.txt")), Outcome::Opens);
    EXPECT_EQ(checks.check(disk / "none"), Outcome::Missing);
    EXPECT_EQ(checks.check(disk.path), Outcome::Opens);
}

TEST(FilePreviewAccessThreads, AProbeThatBlocksIsGivenUpInTimeWhileTheLoopTurns)
{
    Blocking blocking;
    MainLoop loop;
    SystemClock clock;
    FilePreviewAccess access(loop.executor(), clock, {.probe = blocking.probe(), .timeout = 30ms});
    EXPECT_EQ(await(loop, outcomeOf(access, "/a")), Outcome::Timeout);
    EXPECT_EQ(await(loop, outcomeOf(access, "/a")), Outcome::Busy);
    blocking.letGo();
    EXPECT_EQ(onceFree(loop, access, "/a"), Outcome::Opens);
    EXPECT_EQ(blocking.state->entered, 2);
    loop.shutDown();
}

TEST(FilePreviewAccessThreads, AnswersThatRaceWithTheTimerAndWithCancellationEndEachCheckOnce)
{
    MainLoop loop;
    SystemClock clock;
    const auto probes = std::make_shared<std::atomic<int>>(0); // the last of them may outlive the test
    const auto probe = [probes](const std::string &) -> std::optional<Reason> {
        if (++*probes % 2 == 0)
            std::this_thread::yield();
        return Reason::missing;
    };
    FilePreviewAccess access(loop.executor(), clock, {.probe = probe, .timeout = 0ms});
    int ended = 0, asked = 0;
    for (int i = 0; i < 400; ++i) {
        Begun<Outcome> check(loop, outcomeOf(access, "/a"));
        if (i % 3 == 0) {
            loop.runOne();
            check.cancel();
        }
        const Outcome outcome = check.result();
        ended += outcome == Outcome::Missing || outcome == Outcome::Timeout || outcome == Outcome::Cancelled
            || outcome == Outcome::Busy;
        asked += outcome != Outcome::Busy;
        EXPECT_NE(outcome, Outcome::Opens);
    }
    EXPECT_EQ(ended, 400);
    EXPECT_GT(asked, 0);
    EXPECT_NE(onceFree(loop, access, "/a"), Outcome::Busy) << "every question has come back";
    loop.shutDown();
}

TEST(FilePreviewAccessThreads, AnAnswerAfterEverythingElseHasGoneIsHarmless)
{
    Blocking blocking;
    std::weak_ptr<Blocking::State> inTheSystem = blocking.state;
    {
        MainLoop loop;
        SystemClock clock;
        auto access =
            std::make_unique<FilePreviewAccess>(loop.executor(), clock, FilePreviewAccess::Asking{.probe = blocking.probe()});
        Begun<Outcome> check(loop, outcomeOf(*access, "/a"));
        ASSERT_TRUE(soon(loop, [&] { return blocking.state->entered == 1; }));
        access.reset();
        EXPECT_EQ(check.result(), Outcome::Cancelled) << "who waits is told";
        loop.shutDown();
    }
    blocking.letGo();
    blocking.state.reset();
    const double end = SystemClock().uptime() + 10;
    while (!inTheSystem.expired() && SystemClock().uptime() < end)
        std::this_thread::yield();
    EXPECT_TRUE(inTheSystem.expired()) << "the thread has come to its end";
}

TEST(FilePreviewAccessThreads, TheProcessEndsWhileAQuestionHangs)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(
        {
            Blocking blocking;
            MainLoop loop;
            SystemClock clock;
            FilePreviewAccess access(loop.executor(), clock, {.probe = blocking.probe(), .timeout = 10ms});
            const bool gaveUp = await(loop, outcomeOf(access, "/a")) == Outcome::Timeout;
            loop.shutDown();
            std::exit(gaveUp && blocking.state->entered == 1 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// A file system that does not answer

TEST(FilePreviewAccessThreads, AFileSystemThatHangsCostsOneThreadAndAnswersLater)
{
    HangingFolder folder;
    if (!folder.mounted())
        GTEST_SKIP() << "no file systems of users here; the probe that blocks above stands for it";
    MainLoop loop;
    SystemClock clock;
    FilePreviewAccess access(loop.executor(), clock, {.timeout = 100ms});
    EXPECT_EQ(await(loop, outcomeOf(access, folder / "hangs")), Outcome::Timeout);
    EXPECT_EQ(await(loop, outcomeOf(access, folder / "hangs")), Outcome::Busy);
    EXPECT_EQ(await(loop, outcomeOf(access, "/")), Outcome::Busy) << "whatever is asked for";
    EXPECT_EQ(folder.hanging(), 1);
    folder.letGo();
    EXPECT_EQ(onceFree(loop, access, "/"), Outcome::Opens);
    loop.shutDown();
}

TEST(FilePreviewAccessThreads, AVolumeThatHasGoneIsOffline)
{
    HangingFolder folder;
    if (!folder.mounted())
        GTEST_SKIP() << "no file systems of users here; the table of error numbers above stands for it";
    RealChecks checks;
    EXPECT_EQ(checks.check(folder / "stale"), Outcome::Offline);
    EXPECT_EQ(checks.check(folder / "broken"), Outcome::Offline);
    EXPECT_EQ(checks.check(folder / "none"), Outcome::Missing);
}
