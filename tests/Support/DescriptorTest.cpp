#include "Support/Descriptor.h"
#include "Support/MainLoop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fcntl.h>
#include <memory>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace korvane;

namespace {

Task<void> waitFor(const Descriptor &descriptor, bool &ready)
{
    co_await waitUntilReadable(descriptor);
    ready = true;
}

bool isOpen(int descriptor) { return ::fcntl(descriptor, F_GETFD) >= 0; }

} // namespace

TEST(DescriptorThreads, AWaitEndsWhenThereIsSomethingToReadAndLeavesTheDescriptorOpen)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const Descriptor reading(ends[0]), writing(ends[1]);
    MainLoop loop;
    bool ready = false;
    const auto handle = spawn(loop.executor(), waitFor(reading, ready));
    loop.runUntilIdle();
    EXPECT_FALSE(ready);
    ASSERT_EQ(::write(writing.get(), "x", 1), 1);
    loop.runUntil([&] { return ready; });
    EXPECT_TRUE(isOpen(reading.get()));
}

TEST(DescriptorThreads, ALoopThatEndsDuringAWaitLeavesTheDescriptorToItsOwner)
{
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const Descriptor reading(ends[0]), writing(ends[1]);
    auto loop = std::make_unique<MainLoop>();
    bool ready = false;
    auto handle = spawn(loop->executor(), waitFor(reading, ready));
    loop->runUntilIdle();
    loop.reset();
    EXPECT_FALSE(ready);
    EXPECT_TRUE(isOpen(reading.get()));
}

TEST(DescriptorThreads, AWaitThatEndsAsTheLoopEndsIsDestroyedOnTheThreadThatEndsIt)
{
    struct NotesItsEnd {
        ~NotesItsEnd() { threads.push_back(std::this_thread::get_id()); }
        std::vector<std::thread::id> &threads;
    };
    const auto wait = [](const Descriptor &descriptor, std::vector<std::thread::id> &threads) -> Task<void> {
        const NotesItsEnd end{threads};
        co_await waitUntilReadable(descriptor);
    };
    for (int i = 0; i < 200; ++i) {
        std::vector<Descriptor> reading, writing;
        std::vector<std::thread::id> threads;
        std::atomic<bool> begun = false;
        auto loop = std::make_unique<MainLoop>();
        for (int j = 0; j < 8; ++j) {
            int ends[2];
            ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
            reading.emplace_back(ends[0]);
            writing.emplace_back(ends[1]);
        }
        for (const Descriptor &descriptor : reading)
            spawnDetached(loop->executor(), wait(descriptor, threads));
        loop->runUntilIdle();
        std::thread other([&] {
            for (const Descriptor &descriptor : writing) {
                ASSERT_EQ(::write(descriptor.get(), "x", 1), 1);
                begun = true;
            }
        });
        while (!begun)
            std::this_thread::yield();
        loop.reset();
        other.join();
        EXPECT_EQ(threads, std::vector(8, std::this_thread::get_id()));
    }
}
