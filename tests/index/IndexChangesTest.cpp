#include "tests/index/DiskIndex.h"
#include "tests/index/RandomChanges.h"
#include "tests/support/DiskFolder.h"

#include <gtest/gtest.h>

#include <thread>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;

namespace {

/// Two roots, a folder that is not indexed, a store, and a process that keeps it true.
struct Followed {
    explicit Followed(unsigned seed) : changes(roots, folder.folder("outside"), seed) { }

    void run()
    {
        process = std::make_unique<Process>([this] { DiskIndex(store, roots, true).serve(); });
    }
    void kill() { process.reset(); }
    std::string differenceAtTheEnd() { return differenceAfterCatchingUp(store, roots, 90s); }

    DiskFolder folder;
    const std::vector<std::string> roots{folder.folder("one"), folder.folder("two")};
    const std::string store = folder / "korvane.sqlite";
    RandomChanges changes;
    std::unique_ptr<Process> process;
};

} // namespace

TEST(IndexChangesSlow, AfterTwentyThousandChangesWithAKillInBetweenTheIndexIsThatOfAFreshScan)
{
    Followed followed(20'000);
    followed.changes.make(1500); // something to begin with
    {
        DiskIndex(followed.store, followed.roots, false).settle();
    }

    followed.run();
    followed.changes.make(5000);
    EXPECT_EQ(followed.differenceAtTheEnd(), "") << "while it ran";

    followed.changes.make(5000);
    followed.kill(); // in the middle of the catching up
    followed.changes.make(5000); // while it is away
    followed.run();
    followed.changes.make(5000);
    EXPECT_EQ(followed.differenceAtTheEnd(), "") << "after the restart";
    EXPECT_EQ(damage(followed.store), "");
}

TEST(IndexChangesSlow, ChangesDuringAScanAreNotLost)
{
    Followed followed(7);
    followed.changes.make(4000);
    followed.run(); // an empty index is scanned at once
    for (int burst = 0; burst < 20; ++burst) {
        followed.changes.make(100);
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_EQ(followed.differenceAtTheEnd(), "");
}

TEST(IndexChangesSlow, WhatChangedWhileTheProgramWasAwayIsFoundWithoutAScan)
{
    Followed followed(8);
    followed.changes.make(2000);
    {
        DiskIndex(followed.store, followed.roots, true).settle();
    }
    followed.changes.make(2000);
    DiskIndex index(followed.store, followed.roots, true);
    const auto end = std::chrono::steady_clock::now() + 60s;
    SystemClock clock;
    std::string text = "nothing was compared";
    while (!text.empty() && std::chrono::steady_clock::now() < end) {
        const auto pause = std::chrono::steady_clock::now() + 100ms;
        const TaskHandle wake = spawn(index.loop.executor(), clock.sleep(110ms));
        index.loop.runUntil([&] { return std::chrono::steady_clock::now() > pause; });
        text = difference(onDisk(followed.roots), inStore(followed.store));
    }
    EXPECT_EQ(text, "");
    EXPECT_EQ(index.service->scannedCount(), 0) << "no scan was needed";
}
