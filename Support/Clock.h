#pragma once

#include "Support/Task.h"

#include <chrono>
#include <cstdint>
#include <map>

/// Time as the program asks for it: injected, so that a test moves it by hand.
namespace korvane {

class MainLoop;

using Milliseconds = std::chrono::milliseconds;

/// What the time is, and waiting for it to pass. Callable from any coroutine.
class Clock {
public:
    virtual ~Clock() = default;

    /// Returns after `delay` on a clock that never jumps; throws `Cancelled` when the caller is
    /// cancelled first. A delay of nothing or less still lets others run.
    virtual Task<void> sleep(Milliseconds delay) = 0;

    /// Seconds since 1970 by the wall clock, which the user may set to any time.
    virtual double now() const = 0;

    /// Seconds on a clock that never jumps, since some fixed point.
    virtual double uptime() const = 0;
};

/// Waits for `event` on the executor that it is used on, at most for `patience`; whether it has fired.
Task<bool> firesWithin(Clock &clock, std::shared_ptr<AsyncEvent> event, Milliseconds patience);

/// The machine's clocks.
class SystemClock : public Clock {
public:
    Task<void> sleep(Milliseconds delay) override;
    double now() const override;
    double uptime() const override;
};

/// A clock that stands still until a test moves it. Single thread only.
class ManualClock : public Clock {
public:
    /// `loop` is run until idle before, between and after the wake-ups of `advance`.
    explicit ManualClock(MainLoop &loop) : loop(loop) { }

    Task<void> sleep(Milliseconds delay) override;
    double now() const override { return wall; }
    double uptime() const override;

    /// Moves time. Sleepers wake in the order of their deadlines, equal ones in the order in which
    /// they fell asleep, and the loop goes idle after each.
    void advance(Milliseconds delta);
    /// Sets the wall clock alone, as a user or a time server would.
    void setWall(double secondsSince1970) { wall = secondsSince1970; }
    /// Tasks now asleep.
    std::size_t sleepers() const { return sleeping.size(); }

private:
    MainLoop &loop;
    Milliseconds elapsed{0};
    double wall = 1'700'000'000;
    std::map<std::pair<Milliseconds, std::uint64_t>, Continuation<void>> sleeping; // by deadline, then by arrival
    std::uint64_t arrivals = 0;
};

} // namespace korvane
