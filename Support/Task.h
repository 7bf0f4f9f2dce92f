#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>

#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

/// The program's one vocabulary for asynchronous work: a `Task` is a lazily started coroutine, a
/// `TaskHandle` owns one that runs, a `Continuation` ends a wait, an `Actor` serialises blocking work.
///
/// Cancellation is cooperative. It reaches a coroutine at its suspensions: a sleep throws
/// `Cancelled`, an actor's work sees its `std::stop_token` stop, `throwIfCancelled` asks on the spot.
namespace korvane {

/// An asynchronous operation. Nothing runs until it is awaited or spawned; it runs on the executor
/// of whoever awaits it.
template <class T = void> using Task = boost::asio::awaitable<T>;

/// Where coroutines run: the main loop, a pool, or an actor's strand of one of them.
using Executor = boost::asio::any_io_executor;

/// Thrown by a wait whose task was cancelled. Cancellation is silent: nobody shows it as a failure.
class Cancelled : public std::exception {
public:
    const char *what() const noexcept override { return "cancelled"; }
};

/// Throws `Cancelled` if the task that awaits this has been cancelled.
Task<void> throwIfCancelled();
/// Whether the task that awaits this has been cancelled.
Task<bool> isCancelled();
/// Lets everything else that is ready on this executor run first.
Task<void> yieldOnce();

namespace detail {

/// One suspended coroutine and the hand that wakes it; see `Continuation`.
class Suspension;

/// Ends a suspension at most once. Destroying the last owner without an answer ends it by `Cancelled`,
/// so that a source that goes away never leaves a coroutine waiting for good.
class Promise {
public:
    explicit Promise(std::shared_ptr<Suspension> suspension) : suspension(std::move(suspension)) { }
    ~Promise();
    Promise(const Promise &) = delete;
    Promise &operator=(const Promise &) = delete;
    bool finish(std::exception_ptr error);

private:
    std::shared_ptr<Suspension> suspension;
};

enum class OnCancel { Throw, Tell };

/// Suspends the caller until the promise given to `begin` is finished. With `Throw` a cancellation
/// ends the wait; with `Tell` it only calls `told`, and the wait goes on to its end.
Task<void> suspend(std::function<void(std::shared_ptr<Promise>)> begin, OnCancel onCancel, std::function<void()> told);

class TaskState;

} // namespace detail

/// The right to end one wait, exactly once, from any thread. Copies share the right; the first use
/// counts and later ones do nothing.
template <class T = void> class Continuation {
    using Value = std::conditional_t<std::is_void_v<T>, std::monostate, T>;

public:
    Continuation(std::shared_ptr<detail::Promise> promise, std::shared_ptr<std::optional<Value>> slot) :
        promise(std::move(promise)), slot(std::move(slot)), guard(std::make_shared<std::once_flag>())
    {
    }

    /// The wait ends with `value`.
    void resume(Value value = {}) const
    {
        std::call_once(*guard, [&] {
            *slot = std::move(value);
            promise->finish(nullptr);
        });
    }
    /// The wait ends by throwing `error`.
    void fail(std::exception_ptr error) const
    {
        std::call_once(*guard, [&] { promise->finish(std::move(error)); });
    }

private:
    std::shared_ptr<detail::Promise> promise;
    std::shared_ptr<std::optional<Value>> slot;
    std::shared_ptr<std::once_flag> guard;
};

/// Suspends the caller until somebody uses the continuation. `begin` runs at once, on the caller's
/// thread. Throws `Cancelled` as soon as the caller is cancelled; a later answer is then dropped.
template <class T = void> Task<T> suspend(std::function<void(Continuation<T>)> begin)
{
    using Value = std::conditional_t<std::is_void_v<T>, std::monostate, T>;
    auto slot = std::make_shared<std::optional<Value>>();
    std::function<void(std::shared_ptr<detail::Promise>)> start = [&begin, &slot](std::shared_ptr<detail::Promise> promise) {
        begin(Continuation<T>(std::move(promise), slot));
    };
    co_await detail::suspend(std::move(start), detail::OnCancel::Throw, nullptr);
    if constexpr (!std::is_void_v<T>)
        co_return std::move(**slot);
}

/// Like `suspend`, but a cancellation only calls `told` (on the caller's thread): the wait lasts until
/// the continuation is used. For work that must be waited for, such as a write in progress.
template <class T = void> Task<T> suspendToTheEnd(std::function<void(Continuation<T>)> begin, std::function<void()> told)
{
    using Value = std::conditional_t<std::is_void_v<T>, std::monostate, T>;
    auto slot = std::make_shared<std::optional<Value>>();
    std::function<void(std::shared_ptr<detail::Promise>)> start = [&begin, &slot](std::shared_ptr<detail::Promise> promise) {
        begin(Continuation<T>(std::move(promise), slot));
    };
    co_await detail::suspend(std::move(start), detail::OnCancel::Tell, std::move(told));
    if constexpr (!std::is_void_v<T>)
        co_return std::move(**slot);
}

/// A running coroutine with one owner. `cancel`, assignment and destruction all end it, so work never
/// outlives the object that started it. Used on the thread of the executor that it was spawned on.
class TaskHandle {
public:
    TaskHandle() = default;
    explicit TaskHandle(std::shared_ptr<detail::TaskState> state) : state(std::move(state)) { }
    TaskHandle(TaskHandle &&) noexcept = default;
    TaskHandle &operator=(TaskHandle &&other) noexcept;
    ~TaskHandle() { cancel(); }

    /// Asks the task to end. It is told at its present or next suspension. Harmless when it has ended.
    void cancel();
    /// Whether a task is held that has not come to its end.
    bool running() const;

private:
    std::shared_ptr<detail::TaskState> state;
};

/// Starts `task` on `executor`, soon and never inside this call. An error that leaves it, other than
/// `Cancelled`, is a defect of the task and ends the program.
[[nodiscard]] TaskHandle spawn(Executor executor, Task<void> task);

/// The same for a task that nobody owns. It must reach its objects weakly and end by itself.
void spawnDetached(Executor executor, Task<void> task);

/// Puts `work` at the end of the executor's queue. Any thread.
void runLater(const Executor &executor, std::function<void()> work);

/// Wakes everyone who waits for one event. Used on one executor, the main thread's or an actor's; once fired it stays so.
class AsyncEvent {
public:
    Task<void> wait();
    void fire();
    bool fired() const { return _fired; }

private:
    std::vector<Continuation<void>> waiting;
    bool _fired = false;
};

/// Serialises blocking work on a strand of its own, as the single owner of some state.
///
/// Callable from any coroutine; the caller resumes on its own executor. Work that has begun is always
/// waited for: cancelling the caller stops the token that the work was given and nothing else.
class Actor {
public:
    /// `pool` runs the work: threads in the program, the test's own loop where order is the point.
    explicit Actor(Executor pool);

    /// Runs `work(std::stop_token)` after everything asked for before it and gives its result.
    template <class Work, class Result = std::invoke_result_t<Work &, std::stop_token>> Task<Result> run(Work work)
    {
        using Value = std::conditional_t<std::is_void_v<Result>, std::monostate, Result>;
        auto value = std::make_shared<std::optional<Value>>();
        auto shared = std::make_shared<Work>(std::move(work));
        std::function<void(std::stop_token)> erased = [value, shared](std::stop_token stop) {
            if constexpr (std::is_void_v<Result>)
                (*shared)(stop);
            else
                *value = (*shared)(stop);
        };
        shared.reset();
        co_await runErased(std::move(erased));
        if constexpr (!std::is_void_v<Result>)
            co_return std::move(**value);
    }

    /// Runs a coroutine on the strand; other work may run between its suspensions. Cancelling the
    /// caller cancels it, and the caller still waits for its end.
    template <class T> Task<T> perform(Task<T> task)
    {
        auto inner = std::make_shared<std::shared_ptr<detail::TaskState>>();
        auto held = std::make_shared<Task<T>>(std::move(task));
        std::function<void(Continuation<T>)> begin = [this, inner, held](Continuation<T> done) {
            *inner = startOnStrand(carry(std::move(*held), done));
        };
        std::function<void()> told = [this, inner] { cancelOnStrand(*inner); };
        co_return co_await suspendToTheEnd<T>(std::move(begin), std::move(told));
    }

    const Executor &executor() const { return strand; }

private:
    template <class T> static Task<void> carry(Task<T> task, Continuation<T> done)
    {
        std::exception_ptr error;
        try {
            if constexpr (std::is_void_v<T>) {
                co_await std::move(task);
                done.resume();
            } else {
                done.resume(co_await std::move(task));
            }
        } catch (...) {
            error = std::current_exception();
        }
        if (error)
            done.fail(error);
    }

    Task<void> runErased(std::function<void(std::stop_token)> work);
    std::shared_ptr<detail::TaskState> startOnStrand(Task<void> task);
    void cancelOnStrand(std::shared_ptr<detail::TaskState> state);

    Executor strand;
};

/// Who runs a piece of work, later and on whichever thread.
using WorkStarter = std::function<void(std::function<void()>)>;

/// Has `start` run `work(std::stop_token)` and gives its result. Unlike an actor's work it is not waited for: a caller that is
/// cancelled, or destroyed, stops the token and goes on at once. The work owns what it uses. Throws what `start` throws.
template <class Work, class Result = std::invoke_result_t<Work &, std::stop_token>>
Task<Result> runAside(WorkStarter start, Work work)
{
    struct Stopping {
        ~Stopping() { source.request_stop(); }
        std::stop_source source = {};
    } stopping;
    auto shared = std::make_shared<Work>(std::move(work));
    std::function<void(Continuation<Result>)> begin = [&](Continuation<Result> done) {
        start([shared = std::move(shared), done, stop = stopping.source.get_token()]() mutable {
            std::exception_ptr error;
            try {
                if constexpr (std::is_void_v<Result>) {
                    (*shared)(stop);
                    shared.reset(); // what the work holds ends on this thread
                    done.resume();
                } else {
                    Result value = (*shared)(stop);
                    shared.reset();
                    done.resume(std::move(value));
                }
            } catch (...) {
                error = std::current_exception();
            }
            if (error)
                done.fail(std::move(error));
        });
    };
    co_return co_await suspend<Result>(std::move(begin));
}

/// The same on `executor`.
template <class Work, class Result = std::invoke_result_t<Work &, std::stop_token>>
Task<Result> runAside(Executor executor, Work work)
{
    WorkStarter start = [executor = std::move(executor)](std::function<void()> begun) { runLater(executor, std::move(begun)); };
    return runAside(std::move(start), std::move(work));
}

/// Threads that run actors' work. `join` waits for all of it and must come before what the work uses
/// goes away.
class ThreadPool {
public:
    explicit ThreadPool(std::size_t threads);
    ~ThreadPool();
    Executor executor() const;
    void join();

private:
    struct Threads;
    std::unique_ptr<Threads> threads;
};

} // namespace korvane
