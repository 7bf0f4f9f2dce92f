#pragma once

#include "Descendants.h"

#include <functional>

/// Ends everything that a server has started. What cannot be ended, such as a process of another user, costs next to nothing
/// while it lasts.
class Ending {
public:
    static constexpr long shortestPause = 10, longestPause = 30'000; ///< ms between two attempts to force.
    static constexpr long chase = 50; ///< ms of running after what forks faster than the table of processes can be read.
    static constexpr long quiet = 5; ///< ms in which nothing changes: then there is nothing to run after.
    static constexpr int mostRounds = 32; ///< Of looking for what has just been forked.

    /// What it asks of the system.
    struct System {
        std::function<std::vector<Process>()> descendants;
        std::function<std::vector<pid_t>()> children; ///< Those of this process.
        std::function<void(const Process &process, int signal)> send;
        std::function<void(pid_t child)> killChild;
        std::function<bool()> reap; ///< Waits for the children that have ended; false when none is left.
        std::function<long()> now; ///< ms
    };
    explicit Ending(System system) : system(std::move(system)) { }

    /// Asks everything to end, also what is started while others are asked; each once. What is stopped is woken for it.
    void ask();
    /// Forces everything to end. To be repeated as long as there is anything: a process may be stuck in the system for a while.
    /// Gives the ms until then, each time more.
    long force();

private:
    void killAll();
    void chaseOrphans();

    const System system;
    long pause = shortestPause;
};
