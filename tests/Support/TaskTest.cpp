#include "Support/AsyncStream.h"
#include "Support/Clock.h"
#include "Support/Descriptor.h"
#include "Support/MainLoop.h"
#include "Support/Observed.h"
#include "Support/UUID.h"
#include "tests/support/Await.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <unistd.h>

using namespace korvane;
using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

namespace {

struct World {
    MainLoop loop;
    ManualClock clock{loop};
    Strings log;

    Task<void> sleeper(std::string name, Milliseconds delay)
    {
        try {
            co_await clock.sleep(delay);
            log.push_back(name + " woke");
        } catch (const Cancelled &) {
            log.push_back(name + " cancelled");
        }
    }
};

struct TaskTest : testing::Test, World { };
struct ClockTest : testing::Test, World { };
struct ActorTest : testing::Test, World { };
struct AsyncStreamTest : testing::Test, World { };

} // namespace

TEST_F(TaskTest, NothingRunsInsideTheCallThatSpawns)
{
    bool ran = false;
    auto body = [](bool &ran) -> Task<void> {
        ran = true;
        co_return;
    };
    const auto handle = spawn(loop.executor(), body(ran));
    EXPECT_FALSE(ran);
    loop.runUntilIdle();
    EXPECT_TRUE(ran);
    EXPECT_FALSE(handle.running());
}

TEST_F(TaskTest, CancellingEndsASleep)
{
    auto handle = spawn(loop.executor(), sleeper("a", 80ms));
    loop.runUntilIdle();
    EXPECT_EQ(clock.sleepers(), 1u);
    handle.cancel();
    loop.runUntilIdle();
    EXPECT_EQ(log, Strings{"a cancelled"});
    EXPECT_EQ(clock.sleepers(), 0u);
}

TEST_F(TaskTest, ACancelBeforeTheFirstStepIsRememberedUntilIt)
{
    auto handle = spawn(loop.executor(), sleeper("a", 80ms));
    handle.cancel();
    loop.runUntilIdle();
    EXPECT_EQ(log, Strings{"a cancelled"});
}

TEST_F(TaskTest, ACancelBetweenTheAnswerAndTheStepThatTakesItStillEndsTheWait)
{
    std::optional<Continuation<void>> answer;
    auto body = [](World &world, std::optional<Continuation<void>> &answer) -> Task<void> {
        std::function<void(Continuation<void>)> begin = [&answer](Continuation<void> given) { answer = std::move(given); };
        try {
            co_await suspend<void>(std::move(begin));
            world.log.push_back("went on");
        } catch (const Cancelled &) {
            world.log.push_back("cancelled");
        }
    };
    auto handle = spawn(loop.executor(), body(*this, answer));
    loop.runUntilIdle();
    answer->resume();
    handle.cancel();
    loop.runUntilIdle();
    EXPECT_EQ(log, Strings{"cancelled"});
}

TEST_F(TaskTest, AssigningAHandleEndsTheOldTaskAndKeepsTheNew)
{
    auto handle = spawn(loop.executor(), sleeper("old", 80ms));
    loop.runUntilIdle();
    handle = spawn(loop.executor(), sleeper("new", 80ms));
    clock.advance(80ms);
    EXPECT_EQ(log, (Strings{"old cancelled", "new woke"}));
}

TEST_F(TaskTest, DestroyingAHandleEndsItsTask)
{
    {
        const auto handle = spawn(loop.executor(), sleeper("a", 80ms));
        loop.runUntilIdle();
    }
    loop.runUntilIdle();
    EXPECT_EQ(log, Strings{"a cancelled"});
}

TEST_F(TaskTest, ATaskMayCancelItselfThroughItsHandle)
{
    TaskHandle handle;
    auto body = [](World &world, TaskHandle &handle) -> Task<void> {
        co_await world.clock.sleep(1ms);
        handle.cancel();
        world.log.push_back(co_await isCancelled() ? "knows" : "does not know");
        co_await world.sleeper("later", 1ms);
    };
    handle = spawn(loop.executor(), body(*this, handle));
    clock.advance(5ms);
    EXPECT_EQ(log, (Strings{"knows", "later cancelled"}));
}

TEST_F(TaskTest, CleanUpMayStillAwaitAfterACancellation)
{
    Actor actor(loop.executor());
    auto body = [](World &world, Actor &actor) -> Task<void> {
        co_await world.sleeper("first", 80ms);
        auto work = [&world](std::stop_token stop) { world.log.push_back(stop.stop_requested() ? "told" : "not told"); };
        co_await actor.run(work);
        world.log.push_back("done");
    };
    auto handle = spawn(loop.executor(), body(*this, actor));
    loop.runUntilIdle();
    handle.cancel();
    loop.runUntilIdle();
    EXPECT_EQ(log, (Strings{"first cancelled", "told", "done"}));
}

TEST_F(TaskTest, AContinuationEndsItsWaitOnceAndByTheFirstAnswer)
{
    std::optional<Continuation<int>> answer;
    auto body = [](World &world, std::optional<Continuation<int>> &answer) -> Task<void> {
        std::function<void(Continuation<int>)> begin = [&answer](Continuation<int> given) { answer = std::move(given); };
        const int value = co_await suspend<int>(std::move(begin));
        world.log.push_back(std::to_string(value));
    };
    const auto handle = spawn(loop.executor(), body(*this, answer));
    loop.runUntilIdle();
    answer->resume(1);
    answer->resume(2);
    answer->fail(std::make_exception_ptr(std::runtime_error("late")));
    loop.runUntilIdle();
    EXPECT_EQ(log, Strings{"1"});
}

TEST_F(TaskTest, AContinuationThatNobodyHoldsAnyMoreEndsItsWaitAsCancelled)
{
    std::optional<Continuation<int>> answer;
    auto body = [](World &world, std::optional<Continuation<int>> &answer) -> Task<void> {
        std::function<void(Continuation<int>)> begin = [&answer](Continuation<int> given) { answer = std::move(given); };
        try {
            co_await suspend<int>(std::move(begin));
        } catch (const Cancelled &) {
            world.log.push_back("cancelled");
        }
    };
    const auto handle = spawn(loop.executor(), body(*this, answer));
    loop.runUntilIdle();
    answer.reset();
    loop.runUntilIdle();
    EXPECT_EQ(log, Strings{"cancelled"});
}

TEST_F(TaskTest, WorkPostedAfterTheLoopHasGoneIsDropped)
{
    auto other = std::make_unique<MainLoop>();
    const auto executor = other->executor();
    other.reset();
    bool ran = false;
    runLater(executor, [&] { ran = true; });
    EXPECT_FALSE(ran);
}

TEST_F(TaskTest, ALoopEndsWithTasksStillWaiting)
{
    SystemClock real;
    auto inner = std::make_unique<MainLoop>();
    auto body = [](Clock &clock) -> Task<void> { co_await clock.sleep(1h); };
    auto handle = spawn(inner->executor(), body(real));
    inner->runUntilIdle();
    inner.reset();
    handle.cancel();
    SUCCEED();
}

TEST_F(TaskTest, AnEventWakesEveryoneWhoWaitsAndThoseWhoComeLater)
{
    AsyncEvent event;
    auto body = [](World &world, AsyncEvent &event, std::string name) -> Task<void> {
        co_await event.wait();
        world.log.push_back(name);
    };
    const auto a = spawn(loop.executor(), body(*this, event, "a"));
    const auto b = spawn(loop.executor(), body(*this, event, "b"));
    loop.runUntilIdle();
    EXPECT_TRUE(log.empty());
    event.fire();
    const auto c = spawn(loop.executor(), body(*this, event, "c"));
    loop.runUntilIdle();
    EXPECT_EQ(log, (Strings{"a", "b", "c"}));
}

TEST_F(ClockTest, SleepersWakeInTheOrderOfTheirDeadlines)
{
    const auto a = spawn(loop.executor(), sleeper("late", 30ms));
    const auto b = spawn(loop.executor(), sleeper("early", 10ms));
    const auto c = spawn(loop.executor(), sleeper("early too", 10ms));
    clock.advance(29ms);
    EXPECT_EQ(log, (Strings{"early woke", "early too woke"}));
    clock.advance(1ms);
    EXPECT_EQ(log.back(), "late woke");
}

TEST_F(ClockTest, AnEventIsWaitedForNoLongerThanThePatience)
{
    const auto never = std::make_shared<AsyncEvent>(), soon = std::make_shared<AsyncEvent>();
    test::Begun<bool> vain(loop, firesWithin(clock, never, 30ms));
    test::Begun<bool> lucky(loop, firesWithin(clock, soon, 30ms));
    clock.advance(29ms);
    EXPECT_FALSE(vain.done() || lucky.done());
    soon->fire();
    loop.runUntilIdle();
    EXPECT_TRUE(lucky.done());
    EXPECT_EQ(clock.sleepers(), 1u) << "whose event has come waits no more";
    clock.advance(1ms);
    EXPECT_FALSE(vain.result());
    EXPECT_TRUE(lucky.result());
    test::Begun<bool> ended(loop, firesWithin(clock, never, 30ms));
    loop.runUntilIdle();
    ended.cancel();
    loop.runUntilIdle();
    EXPECT_THROW(ended.result(), Cancelled);
    EXPECT_EQ(clock.sleepers(), 0u);
}

TEST_F(ClockTest, TheWallClockMayJumpWithoutWakingAnyone)
{
    const auto a = spawn(loop.executor(), sleeper("a", 30ms));
    loop.runUntilIdle();
    clock.setWall(clock.now() + 86400);
    loop.runUntilIdle();
    EXPECT_TRUE(log.empty());
    EXPECT_DOUBLE_EQ(clock.uptime(), 0);
}

TEST_F(ActorTest, RunsWorkInTheOrderOfTheCallsAndGivesResults)
{
    Actor actor(loop.executor());
    auto body = [](World &world, Actor &actor, std::string name) -> Task<void> {
        auto work = [name](std::stop_token) { return name + "!"; };
        world.log.push_back(co_await actor.run(work));
    };
    const auto a = spawn(loop.executor(), body(*this, actor, "a"));
    const auto b = spawn(loop.executor(), body(*this, actor, "b"));
    loop.runUntilIdle();
    EXPECT_EQ(log, (Strings{"a!", "b!"}));
}

TEST_F(ActorTest, AnErrorOfTheWorkReachesTheCaller)
{
    Actor actor(loop.executor());
    auto body = [](World &world, Actor &actor) -> Task<void> {
        auto work = [](std::stop_token) -> int { throw std::runtime_error("broken"); };
        try {
            co_await actor.run(work);
        } catch (const std::runtime_error &error) {
            world.log.push_back(error.what());
        }
    };
    const auto a = spawn(loop.executor(), body(*this, actor));
    loop.runUntilIdle();
    EXPECT_EQ(log, Strings{"broken"});
}

TEST_F(ActorTest, OtherWorkRunsBetweenTheSuspensionsOfAPerformedTask)
{
    Actor actor(loop.executor());
    auto inner = [](World &world) -> Task<int> {
        co_await world.clock.sleep(10ms);
        co_return 7;
    };
    auto waiting = [](World &world, Actor &actor, Task<int> inner) -> Task<void> {
        world.log.push_back(std::to_string(co_await actor.perform(std::move(inner))));
    };
    auto quick = [](World &world, Actor &actor) -> Task<void> {
        auto work = [](std::stop_token) {};
        co_await actor.run(work);
        world.log.push_back("quick");
    };
    const auto a = spawn(loop.executor(), waiting(*this, actor, inner(*this)));
    loop.runUntilIdle();
    const auto b = spawn(loop.executor(), quick(*this, actor));
    clock.advance(10ms);
    EXPECT_EQ(log, (Strings{"quick", "7"}));
}

TEST_F(ActorTest, CancellingTheCallerReachesAPerformedTask)
{
    Actor actor(loop.executor());
    auto inner = [](World &world) -> Task<void> { co_await world.sleeper("inner", 10ms); };
    auto outer = [](World &world, Actor &actor, Task<void> inner) -> Task<void> {
        co_await actor.perform(std::move(inner));
        world.log.push_back("outer went on");
    };
    auto handle = spawn(loop.executor(), outer(*this, actor, inner(*this)));
    loop.runUntilIdle();
    handle.cancel();
    loop.runUntilIdle();
    EXPECT_EQ(log, (Strings{"inner cancelled", "outer went on"}));
}

TEST(ActorThreads, CancellingTheCallerStopsTheTokenOfBlockingWork)
{
    MainLoop loop;
    ThreadPool pool(1);
    Actor actor(pool.executor());
    std::atomic<bool> begun = false;
    bool stopped = false, done = false;
    auto body = [](Actor &actor, std::atomic<bool> &begun, bool &stopped, bool &done) -> Task<void> {
        auto work = [&begun](std::stop_token stop) {
            begun = true;
            while (!stop.stop_requested())
                std::this_thread::yield();
            return true;
        };
        stopped = co_await actor.run(work);
        done = true;
    };
    auto handle = spawn(loop.executor(), body(actor, begun, stopped, done));
    loop.runUntilIdle();
    while (!begun)
        std::this_thread::yield();
    handle.cancel();
    loop.runUntil([&] { return done; });
    EXPECT_TRUE(stopped);
}

TEST(ActorThreads, ManyCallersFromManyLoopsGetTheirOwnResults)
{
    ThreadPool pool(2);
    Actor actor(pool.executor());
    int owned = 0; // touched by the actor's work only
    std::vector<std::thread> threads;
    std::atomic<int> sum = 0;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            MainLoop loop;
            int left = 200;
            auto body = [](Actor &actor, int &owned, std::atomic<int> &sum, int &left) -> Task<void> {
                for (int i = 0; i < 200; ++i) {
                    auto work = [&owned](std::stop_token) { return ++owned; };
                    const int value = co_await actor.run(work);
                    sum += value;
                    --left;
                }
            };
            const auto handle = spawn(loop.executor(), body(actor, owned, sum, left));
            loop.runUntil([&] { return left == 0; });
        });
    }
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(owned, 800);
    EXPECT_EQ(sum, 800 * 801 / 2);
}

TEST(ActorThreads, CancellationsAtRandomMomentsLoseNothing)
{
    ThreadPool pool(2);
    Actor actor(pool.executor());
    MainLoop loop;
    int ended = 0;
    auto inner = [](Actor &actor) -> Task<int> {
        auto work = [](std::stop_token) { return 1; };
        (void)actor;
        co_await yieldOnce();
        co_return work({});
    };
    auto body = [](Actor &actor, Task<int> inner, int &ended) -> Task<void> {
        try {
            co_await actor.perform(std::move(inner));
            auto work = [](std::stop_token) {};
            co_await actor.run(work);
        } catch (const Cancelled &) {
        }
        ++ended;
    };
    constexpr int count = 2000;
    std::vector<TaskHandle> handles;
    for (int i = 0; i < count; ++i) {
        handles.push_back(spawn(loop.executor(), body(actor, inner(actor), ended)));
        if (i % 3 == 0)
            loop.runUntilIdle();
        if (i >= 2)
            handles[std::size_t(i) / 2].cancel();
    }
    loop.runUntil([&] { return ended == count; });
    pool.join();
    EXPECT_EQ(ended, count);
}

TEST_F(AsyncStreamTest, DeliversInOrderAndEndsAfterTheLastValue)
{
    AsyncStream<int> stream;
    auto reader = [](World &world, AsyncStream<int> stream) -> Task<void> {
        for (;;) {
            const auto value = co_await stream.next();
            world.log.push_back(value ? std::to_string(*value) : "end");
            if (!value)
                co_return;
        }
    };
    const auto handle = spawn(loop.executor(), reader(*this, stream));
    stream.yield(1);
    loop.runUntilIdle();
    stream.yield(2);
    stream.yield(3);
    stream.finish();
    stream.yield(4);
    loop.runUntilIdle();
    EXPECT_EQ(log, (Strings{"1", "2", "3", "end"}));
}

TEST_F(AsyncStreamTest, ACancelledReaderTerminatesTheStream)
{
    AsyncStream<int> stream;
    stream.onTermination([this] { log.push_back("terminated"); });
    auto reader = [](AsyncStream<int> stream) -> Task<void> { co_await stream.next(); };
    auto handle = spawn(loop.executor(), reader(stream));
    loop.runUntilIdle();
    handle.cancel();
    loop.runUntilIdle();
    EXPECT_EQ(log, Strings{"terminated"});
}

TEST(Observed, AWriteOfAnEqualValueNotifiesNobody)
{
    Observed<std::string> value("a");
    int calls = 0;
    const auto subscription = value.observe([&] { ++calls; });
    value = "a";
    EXPECT_EQ(calls, 0);
    value = "b";
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(value.get(), "b");
}

TEST(Observed, AnEndedSubscriptionHearsNothing)
{
    Observed<int> value(0);
    int calls = 0;
    {
        const auto subscription = value.observe([&] { ++calls; });
        value = 1;
    }
    value = 2;
    EXPECT_EQ(calls, 1);
}

TEST(Observed, ASubscriptionMayOutliveItsValue)
{
    Subscription kept;
    {
        Observed<int> value(0);
        kept = value.observe([] {});
    }
    SUCCEED();
}

TEST(UUID, IsRandomAndInUpperCase)
{
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i) {
        const auto id = newUUID();
        EXPECT_EQ(id.size(), 36u);
        EXPECT_EQ(id.find_first_not_of("0123456789ABCDEF-"), std::string::npos);
        seen.insert(id);
    }
    EXPECT_EQ(seen.size(), 100u);
}

TEST(DescriptorThreads, WaitingForInputEndsWhenItComesAndWhenCancelled)
{
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    Descriptor read(ends[0]), write(ends[1]);
    MainLoop loop;
    Strings log;
    auto body = [](const Descriptor &read, Strings &log) -> Task<void> {
        try {
            co_await waitUntilReadable(read);
            log.push_back("readable");
        } catch (const Cancelled &) {
            log.push_back("cancelled");
        }
    };
    auto first = spawn(loop.executor(), body(read, log));
    loop.runUntilIdle();
    first.cancel();
    loop.runUntil([&] { return log.size() == 1; });
    const auto second = spawn(loop.executor(), body(read, log));
    loop.runUntilIdle();
    ASSERT_EQ(::write(write.get(), "x", 1), 1);
    loop.runUntil([&] { return log.size() == 2; });
    EXPECT_EQ(log, (Strings{"cancelled", "readable"}));
}
