#include "Support/Clock.h"

#include "Support/MainLoop.h"

#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

namespace korvane {

namespace asio = boost::asio;

namespace {

double seconds(auto duration) { return std::chrono::duration<double>(duration).count(); }

Task<void> fireAfter(Clock &clock, Milliseconds patience, std::shared_ptr<AsyncEvent> over)
{
    co_await clock.sleep(patience);
    over->fire();
}

Task<void> fireWith(std::shared_ptr<AsyncEvent> event, std::shared_ptr<AsyncEvent> over)
{
    co_await event->wait();
    over->fire();
}

} // namespace

Task<bool> firesWithin(Clock &clock, std::shared_ptr<AsyncEvent> event, Milliseconds patience)
{
    const Executor executor = co_await asio::this_coro::executor;
    const auto over = std::make_shared<AsyncEvent>();
    const TaskHandle limit = spawn(executor, fireAfter(clock, patience, over));
    const TaskHandle waiting = spawn(executor, fireWith(event, over));
    co_await over->wait();
    co_return event->fired();
}

Task<void> SystemClock::sleep(Milliseconds delay)
{
    co_await throwIfCancelled();
    asio::steady_timer timer(co_await asio::this_coro::executor, delay);
    const asio::use_awaitable_t<Executor> token{};
    bool ended = false;
    try {
        co_await timer.async_wait(token);
    } catch (const boost::system::system_error &) {
        ended = true; // the only way in which a timer fails is that its wait was cancelled
    }
    // The timer may have fired just before the cancellation: whoever waits may have gone all the same.
    if (ended || co_await isCancelled())
        throw Cancelled();
}

double SystemClock::now() const { return seconds(std::chrono::system_clock::now().time_since_epoch()); }

double SystemClock::uptime() const { return seconds(std::chrono::steady_clock::now().time_since_epoch()); }

Task<void> ManualClock::sleep(Milliseconds delay)
{
    const std::pair key(elapsed + std::max(delay, Milliseconds(0)), arrivals++);
    std::function<void(Continuation<void>)> begin = [this, key](
                                                        Continuation<void> done) { sleeping.emplace(key, std::move(done)); };
    bool ended = false;
    try {
        co_await suspend<void>(std::move(begin));
    } catch (const Cancelled &) {
        ended = true;
    }
    if (ended) {
        sleeping.erase(key);
        throw Cancelled();
    }
}

double ManualClock::uptime() const { return seconds(elapsed); }

void ManualClock::advance(Milliseconds delta)
{
    const auto target = elapsed + delta;
    loop.runUntilIdle();
    while (!sleeping.empty() && sleeping.begin()->first.first <= target) {
        const auto first = sleeping.begin();
        wall += seconds(first->first.first - elapsed);
        elapsed = first->first.first;
        const auto sleeper = std::move(first->second);
        sleeping.erase(first);
        sleeper.resume();
        loop.runUntilIdle();
    }
    wall += seconds(target - elapsed);
    elapsed = target;
}

} // namespace korvane
