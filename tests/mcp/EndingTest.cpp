#include "apps/korvane-mcp-host/Ending.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <set>

namespace {

/// A table of processes in memory, in which each look and each signal takes a tenth of a millisecond.
struct EndingOfProcesses : testing::Test {
    Process *find(pid_t id)
    {
        const auto found = std::ranges::find(processes, id, &Process::id);
        return found == processes.end() ? nullptr : &*found;
    }
    void send(pid_t id, int signal)
    {
        ++sent;
        Process *process = find(id);
        if (!process || immune.contains(id))
            return;
        if (signal == SIGSTOP)
            process->state = 'T';
        else if (signal == SIGKILL)
            std::erase_if(processes, [id](const Process &one) { return one.id == id; });
    }
    std::vector<Process> look()
    {
        ++looks;
        ticks += 10;
        onLook();
        return processes;
    }
    std::vector<pid_t> children()
    {
        ++childrenLooks;
        ++ticks;
        onLook();
        std::vector<pid_t> all;
        for (const Process &process : processes)
            all.push_back(process.id);
        return all;
    }
    void add(pid_t id) { processes.push_back({.id = id, .parent = 1, .began = 7, .state = 'S'}); }

    std::vector<Process> processes;
    std::set<pid_t> immune;
    std::function<void()> onLook = [] {};
    int looks = 0, childrenLooks = 0, sent = 0;
    long ticks = 0; ///< Tenths of a millisecond.
    Ending ending{{.descendants = [this] { return look(); },
        .children = [this] { return children(); },
        .send = [this](const Process &process, int signal) { send(process.id, signal); },
        .killChild = [this](pid_t child) { send(child, SIGKILL); },
        .reap = [this] { return !processes.empty(); },
        .now = [this] { return ticks / 10; }}};
};

} // namespace

TEST_F(EndingOfProcesses, OneThatCannotBeSignalledCostsTwoLooksAndAMomentEachTime)
{
    add(10);
    immune = {10};
    ending.force();
    EXPECT_EQ(looks, 2);
    EXPECT_LE(ticks / 10, 2 + Ending::quiet);
}

TEST_F(EndingOfProcesses, OneThatCannotBeSignalledIsTriedLessAndLessOften)
{
    add(10);
    immune = {10};
    std::vector<long> pauses;
    for (int i = 0; i < 14; ++i)
        pauses.push_back(ending.force());
    EXPECT_THAT(pauses, testing::ElementsAre(10, 20, 40, 80, 160, 320, 640, 1280, 2560, 5120, 10'240, 20'480, 30'000, 30'000));
}

TEST_F(EndingOfProcesses, TheOthersEndBesideOneThatCannotBeSignalled)
{
    for (const pid_t id : {10, 11, 12})
        add(id);
    immune = {11};
    ending.force();
    ASSERT_EQ(processes.size(), 1U);
    EXPECT_EQ(processes[0].id, 11);
}

TEST_F(EndingOfProcesses, WhatForksIsStoppedUntilALookFindsNothingNew)
{
    add(10);
    immune = {10};
    onLook = [this] {
        if (looks < 20)
            add(10 + looks);
    };
    ending.force();
    EXPECT_GE(looks, 20);
    EXPECT_EQ(processes.size(), 1U) << "all but the one that forked them";
}

TEST_F(EndingOfProcesses, AChainIsChasedForAsLongAsItsLinksChange)
{
    pid_t next = 10;
    add(next);
    onLook = [&] {
        processes.clear(); // each link starts the next one and goes
        add(++next);
        immune.insert(next); // before it is hit
    };
    ending.force();
    EXPECT_GE(ticks / 10, Ending::chase);
    EXPECT_LE(ticks / 10, Ending::chase + Ending::mostRounds + 2);
}
