#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace korvane::bench {

using Milliseconds = std::chrono::duration<double, std::milli>;

/// A program under measurement, seen from outside: what it says, needs and costs. The destructor ends it.
/// Everything that goes wrong here throws `std::runtime_error`.
class Program {
public:
    /// Starts it; its standard error comes here.
    explicit Program(const std::vector<std::string> &words);
    ~Program();
    Program(const Program &) = delete;

    /// Waits until a line that contains `text` has come, and gives the time since the start.
    Milliseconds untilItSays(const std::string &text);
    Milliseconds sinceStart() const { return std::chrono::steady_clock::now() - begin; }
    /// Asks it to end and waits for it.
    void stop();
    void signal(int number) const;
    /// All that it said, once it has ended.
    const std::string &everythingSaid();

    struct Memory {
        double resident, proportional; ///< MiB.
    };
    Memory memory() const;

    struct Work {
        double cpuMilliseconds; ///< Of all threads, in the program and in the system on its behalf.
        std::int64_t wakeUps; ///< Context switches of all threads: each is one return to the processor.
        std::size_t threads;
    };
    /// Since the start, of the threads that run now.
    Work work() const;

private:
    pid_t process = -1;
    int output = -1;
    std::string said;
    std::chrono::steady_clock::time_point begin;
};

/// Starts Korvane and ends it, so that no later start is its first one, at which the palette comes by itself.
void startOnce(const std::string &korvane);

} // namespace korvane::bench
