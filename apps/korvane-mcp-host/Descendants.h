#pragma once

#include <cstdint>
#include <sys/types.h>
#include <vector>

/// A process as the system's table shows it. Its number alone does not name it: numbers are used again.
struct Process {
    pid_t id = 0;
    pid_t parent = 0;
    std::uint64_t began = 0; ///< In ticks since the machine started.
    char state = 0; ///< The letter of /proc/PID/stat.
    int threads = 1;

    /// One whose first thread has ended looks dead while the others go on.
    bool ended() const { return (state == 'Z' || state == 'X') && threads <= 1; }
    bool stopped() const { return state == 'T' || state == 't'; }
    bool isSame(const Process &other) const { return id == other.id && began == other.began; }
};

/// Everything that this process started, directly or not, and that has not ended. What has lost its parent counts as long as this
/// process adopts orphans. A snapshot: whoever forks meanwhile may be missing.
std::vector<Process> descendants();

/// The children of this process, also those that have ended and were not waited for. Quick, unlike the above; empty where the
/// system keeps no such list.
std::vector<pid_t> children();

/// Sends a signal to this very process, or to none when it has gone.
void send(const Process &process, int signal);
