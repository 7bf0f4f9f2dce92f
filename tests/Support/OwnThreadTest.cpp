#include "Support/OwnThread.h"

#include "Support/AsyncStream.h"
#include "Support/Clock.h"
#include "Support/MainLoop.h"
#include "tests/support/Await.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace korvane;
using namespace korvane::test;

TEST(OwnThreadThreads, WorkRunsOnAThreadOfItsOwn)
{
    MainLoop loop;
    std::function<void(Continuation<std::thread::id>)> begin = [](Continuation<std::thread::id> done) {
        runOnOwnThread([done] { done.resume(std::this_thread::get_id()); });
    };
    EXPECT_NE(await(loop, suspend<std::thread::id>(std::move(begin))), std::this_thread::get_id());
}

TEST(OwnThreadThreads, AWorkerRunsCoroutinesInTheirOrderAndEndsThoseThatWait)
{
    MainLoop loop;
    std::atomic<int> steps = 0;
    std::atomic<bool> ended = false;
    {
        WorkerThread worker;
        Actor actor(worker.executor());
        const auto count = [&steps](std::stop_token) { return ++steps; };
        EXPECT_EQ(await(loop, actor.run(count)), 1);
        EXPECT_EQ(await(loop, actor.run(count)), 2);
        struct Waiting {
            std::atomic<bool> &ended;
            ~Waiting() { ended = true; }
        };
        const auto waitForGood = [](std::shared_ptr<Waiting>) -> Task<void> {
            SystemClock clock;
            co_await clock.sleep(std::chrono::hours(1));
        };
        spawnDetached(worker.executor(), waitForGood(std::make_shared<Waiting>(ended)));
        EXPECT_EQ(await(loop, actor.run(count)), 3);
    }
    EXPECT_TRUE(ended);
}

TEST(AsyncStream, AnErrorReachesTheReaderAfterWhatWasYieldedBefore)
{
    MainLoop loop;
    AsyncStream<int> stream;
    stream.yield(1);
    stream.finish(std::make_exception_ptr(std::runtime_error("broken")));
    stream.yield(2);
    EXPECT_EQ(await(loop, stream.next()), 1);
    EXPECT_THROW(await(loop, stream.next()), std::runtime_error);
    EXPECT_THROW(await(loop, stream.next()), std::runtime_error);
}
