#include "Support/Task.h"

#include <boost/asio/associated_cancellation_slot.hpp>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <cassert>
#include <cstdio>
#include <cstdlib>

namespace korvane {

namespace asio = boost::asio;

namespace detail {

class Suspension {
public:
    /// The coroutine now waits. It may have been finished already, by another thread or by `begin`.
    template <class Handler> void wait(Handler handler)
    {
        auto executor = asio::get_associated_executor(handler);
        auto shared = std::make_shared<Handler>(std::move(handler));
        std::function<void()> wake = [executor, shared, self = weak] {
            auto alive = self.lock();
            // Given away, so that the error ends with the waiter and not on the thread that failed.
            asio::post(executor, [alive, shared] { std::move (*shared)(std::exchange(alive->error, nullptr)); });
        };
        std::function<void()> now;
        {
            std::scoped_lock lock(mutex);
            if (finished)
                now = std::move(wake);
            else
                this->wake = std::move(wake);
        }
        if (now)
            now();
    }

    bool finish(std::exception_ptr with)
    {
        std::function<void()> now;
        {
            std::scoped_lock lock(mutex);
            if (finished)
                return false;
            finished = true;
            error = std::move(with);
            now = std::exchange(wake, nullptr);
        }
        if (now)
            now();
        return true;
    }

    std::weak_ptr<Suspension> weak;

private:
    std::mutex mutex;
    bool finished = false;
    std::exception_ptr error;
    std::function<void()> wake; // owns the coroutine while it waits
};

Promise::~Promise() { suspension->finish(std::make_exception_ptr(Cancelled())); }

bool Promise::finish(std::exception_ptr error) { return suspension->finish(std::move(error)); }

Task<void> suspend(std::function<void(std::shared_ptr<Promise>)> begin, OnCancel onCancel, std::function<void()> told)
{
    const auto cancellation = co_await asio::this_coro::cancellation_state;
    const bool already = cancellation.cancelled() != asio::cancellation_type::none;
    if (already && onCancel == OnCancel::Throw)
        throw Cancelled();

    auto suspension = std::make_shared<Suspension>();
    suspension->weak = suspension;
    begin(std::make_shared<Promise>(suspension));
    begin = nullptr;
    if (already && told)
        told();

    auto initiate = [suspension, onCancel, told](auto handler) {
        if (auto slot = asio::get_associated_cancellation_slot(handler); slot.is_connected()) {
            slot.assign([weak = std::weak_ptr(suspension), onCancel, told](asio::cancellation_type) {
                if (onCancel == OnCancel::Tell) {
                    if (told)
                        told();
                } else if (auto alive = weak.lock()) {
                    alive->finish(std::make_exception_ptr(Cancelled()));
                }
            });
        }
        suspension->wait(std::move(handler));
    };
    const asio::use_awaitable_t<Executor> token{};
    std::exception_ptr error;
    try {
        co_await asio::async_initiate<const asio::use_awaitable_t<Executor>, void(std::exception_ptr)>(initiate, token);
    } catch (...) {
        error = std::current_exception();
    }
    // A cancel that comes between two suspensions must not reach the work of the one that is over.
    if (auto slot = cancellation.slot(); slot.is_connected())
        slot.clear();
    // Cancelled between the answer and this moment: the owner that the caller refers to may have gone.
    const bool late = onCancel == OnCancel::Throw && co_await isCancelled();
    if (late)
        throw Cancelled();
    if (error)
        std::rethrow_exception(error);
}

/// A spawned coroutine as its handle sees it. Touched on the coroutine's executor only.
class TaskState {
public:
    enum class Phase { Waiting, Started, Finished };

    void cancel()
    {
        // A signal before the first step would leave the loop as an error of the library; the
        // coroutine gives it to itself once it runs.
        if (phase == Phase::Waiting)
            wanted = true;
        else if (phase == Phase::Started)
            signal.emit(asio::cancellation_type::terminal);
    }

    asio::cancellation_signal signal;
    Phase phase = Phase::Waiting;
    bool wanted = false;
};

namespace {

/// Completion of a root coroutine. It names a slot and no executor: with an executor the library
/// would keep a raw pointer to the signal of a coroutine that may end first.
struct RootHandler {
    using cancellation_slot_type = asio::cancellation_slot;
    cancellation_slot_type get_cancellation_slot() const noexcept { return state->signal.slot(); }
    void operator()(std::exception_ptr) const { }
    std::shared_ptr<TaskState> state;
};

Task<void> root(std::shared_ptr<TaskState> state, Task<void> task)
{
    // Also when the loop goes away and destroys the waiting frame: what its slots point to has gone then.
    struct Ending {
        ~Ending() { state.phase = TaskState::Phase::Finished; }
        TaskState &state;
    } ending{*state};

    co_await asio::this_coro::throw_if_cancelled(false);
    state->phase = TaskState::Phase::Started;
    if (state->wanted)
        state->signal.emit(asio::cancellation_type::terminal);
    try {
        co_await std::move(task);
    } catch (const Cancelled &) {
    } catch (const std::exception &error) {
        std::fprintf(stderr, "An error left a task: %s\n", error.what());
        std::abort();
    }
}

std::shared_ptr<TaskState> start(const Executor &executor, Task<void> task)
{
    auto state = std::make_shared<TaskState>();
    asio::post(executor, [executor, state, task = std::move(task)]() mutable {
        asio::co_spawn(executor, root(state, std::move(task)), RootHandler{state});
    });
    return state;
}

} // namespace

} // namespace detail

Task<void> throwIfCancelled()
{
    if (co_await isCancelled())
        throw Cancelled();
}

Task<bool> isCancelled()
{
    const auto cancellation = co_await asio::this_coro::cancellation_state;
    co_return cancellation.cancelled() != asio::cancellation_type::none;
}

Task<void> yieldOnce()
{
    const asio::use_awaitable_t<Executor> token{};
    co_await asio::post(co_await asio::this_coro::executor, token);
}

TaskHandle &TaskHandle::operator=(TaskHandle &&other) noexcept
{
    if (this != &other) {
        cancel();
        state = std::move(other.state);
    }
    return *this;
}

void TaskHandle::cancel()
{
    if (auto ended = std::exchange(state, nullptr))
        ended->cancel();
}

bool TaskHandle::running() const { return state && state->phase != detail::TaskState::Phase::Finished; }

TaskHandle spawn(Executor executor, Task<void> task) { return TaskHandle(detail::start(executor, std::move(task))); }

void spawnDetached(Executor executor, Task<void> task) { detail::start(executor, std::move(task)); }

void runLater(const Executor &executor, std::function<void()> work) { asio::post(executor, std::move(work)); }

Task<void> AsyncEvent::wait()
{
    if (_fired)
        co_return;
    std::function<void(Continuation<void>)> begin = [this](Continuation<void> done) { waiting.push_back(std::move(done)); };
    co_await suspend<void>(std::move(begin));
}

void AsyncEvent::fire()
{
    _fired = true;
    for (const auto &one : std::exchange(waiting, {}))
        one.resume();
}

Actor::Actor(Executor pool) : strand(asio::make_strand(std::move(pool))) { }

Task<void> Actor::runErased(std::function<void(std::stop_token)> work)
{
    auto source = std::make_shared<std::stop_source>();
    std::function<void(Continuation<void>)> begin = [this, source, &work](Continuation<void> done) {
        asio::post(strand, [source, work = std::move(work), done]() mutable {
            std::exception_ptr error;
            try {
                work(source->get_token());
            } catch (...) {
                error = std::current_exception();
            }
            work = nullptr; // what the work holds ends on this thread, before the caller goes on
            if (error)
                done.fail(std::move(error));
            else
                done.resume();
        });
    };
    std::function<void()> told = [source] { source->request_stop(); };
    co_await suspendToTheEnd<void>(std::move(begin), std::move(told));
}

std::shared_ptr<detail::TaskState> Actor::startOnStrand(Task<void> task) { return detail::start(strand, std::move(task)); }

void Actor::cancelOnStrand(std::shared_ptr<detail::TaskState> state)
{
    asio::post(strand, [state = std::move(state)] {
        if (state)
            state->cancel();
    });
}

struct ThreadPool::Threads {
    explicit Threads(std::size_t count) : pool(count) { }
    asio::thread_pool pool;
};

ThreadPool::ThreadPool(std::size_t count) : threads(std::make_unique<Threads>(count)) { }

ThreadPool::~ThreadPool() { join(); }

Executor ThreadPool::executor() const { return threads->pool.get_executor(); }

void ThreadPool::join() { threads->pool.join(); }

} // namespace korvane
