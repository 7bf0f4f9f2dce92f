#include "Support/Descriptor.h"
#include "Support/MainLoop.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

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
