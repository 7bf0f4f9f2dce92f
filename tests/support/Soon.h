#pragma once

#include "Support/Clock.h"
#include "Support/MainLoop.h"

#include <functional>

namespace korvane::test {

namespace detail {

inline Task<void> wakeUntil(double end, bool &over)
{
    SystemClock clock;
    while (clock.uptime() < end)
        co_await clock.sleep(Milliseconds(1));
    over = true;
}

} // namespace detail

/// Turns the loop until `truth`, for what other processes and threads do in their own time. False when it was not so within
/// `limit`.
inline bool soon(MainLoop &loop, const std::function<bool()> &truth, Milliseconds limit = Milliseconds(10'000))
{
    const double end = SystemClock().uptime() + static_cast<double>(limit.count()) / 1000;
    bool over = false, held = false;
    const TaskHandle waking = spawn(loop.executor(), detail::wakeUntil(end, over));
    loop.runUntil([&] { return (held = truth()) || over; });
    return held;
}

} // namespace korvane::test
