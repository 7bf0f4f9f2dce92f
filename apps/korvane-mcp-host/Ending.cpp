#include "Ending.h"

#include <algorithm>
#include <csignal>

void Ending::ask()
{
    std::vector<Process> asked;
    for (int round = 0; round < mostRounds; ++round) {
        const std::size_t before = asked.size();
        for (const Process &process : system.descendants()) {
            if (std::any_of(asked.begin(), asked.end(), [&](const Process &one) { return one.isSame(process); }))
                continue;
            system.send(process, SIGTERM);
            system.send(process, SIGCONT);
            asked.push_back(process);
        }
        if (asked.size() == before)
            return;
    }
}

long Ending::force()
{
    killAll();
    chaseOrphans();
    const long wait = pause;
    pause = std::min(2 * pause, longestPause);
    return wait;
}

/// Stops everything first: what is stopped cannot fork while others are looked for.
void Ending::killAll()
{
    const auto unchanged = [](const Process &one, const Process &other) {
        return one.isSame(other) && one.stopped() == other.stopped();
    };
    std::vector<Process> present = system.descendants(), before;
    // What cannot be stopped looks the same each time, and no further round would change that.
    for (int round = 0; round < mostRounds && !std::ranges::equal(present, before, unchanged); ++round) {
        for (const Process &process : present)
            if (!process.stopped())
                system.send(process, SIGSTOP);
        before = std::move(present);
        present = system.descendants();
    }
    for (const Process &process : present)
        system.send(process, SIGKILL);
}

/// Forces the children to end, and what that makes orphans of, which are children then: a chain in which each process starts the
/// next one and goes has no other link. The number of a child is its own until it was waited for.
void Ending::chaseOrphans()
{
    const long end = system.now() + chase;
    long changed = system.now();
    std::vector<pid_t> before;
    while (system.reap() && system.now() < std::min(end, changed + quiet)) {
        std::vector<pid_t> children = system.children();
        for (const pid_t child : children)
            system.killChild(child);
        if (children != before)
            changed = system.now();
        before = std::move(children);
    }
}
