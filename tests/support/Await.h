#pragma once

#include "Support/MainLoop.h"
#include "Support/Task.h"

#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

/// Asynchronous operations for tests that read from top to bottom.
namespace korvane::test {

namespace detail {

template <class T> struct Outcome {
    std::optional<std::conditional_t<std::is_void_v<T>, std::monostate, T>> value;
    std::exception_ptr error;
};

template <class T> Task<void> keepOutcome(Task<T> task, std::shared_ptr<Outcome<T>> outcome)
{
    try {
        if constexpr (std::is_void_v<T>) {
            co_await std::move(task);
            outcome->value.emplace();
        } else {
            outcome->value.emplace(co_await std::move(task));
        }
    } catch (...) {
        outcome->error = std::current_exception();
    }
}

} // namespace detail

/// A task that a test has started and looks at later. Used on the loop's thread; destroying it ends the task.
template <class T> class Begun {
public:
    /// Starts `task` on the loop; its first step waits for the loop to turn.
    Begun(MainLoop &loop, Task<T> task) :
        loop(&loop), handle(spawn(loop.executor(), detail::keepOutcome(std::move(task), outcome)))
    {
    }

    /// Asks the task to end; what came of it is still kept.
    void cancel() { handle.cancel(); }
    bool done() const { return outcome->value || outcome->error; }

    /// Turns the loop until the task has ended, whoever answers it, and gives its result or throws its error. Once.
    T result()
    {
        loop->runUntil([this] { return done(); });
        if (outcome->error)
            std::rethrow_exception(outcome->error);
        if constexpr (!std::is_void_v<T>)
            return std::move(*outcome->value);
    }

private:
    MainLoop *loop;
    std::shared_ptr<detail::Outcome<T>> outcome = std::make_shared<detail::Outcome<T>>();
    TaskHandle handle;
};

/// Runs `task` on the loop to its end and gives its result or throws its error. Works both when everything runs
/// on the loop and when a pool answers. A task that nothing will ever answer blocks here.
template <class T> T await(MainLoop &loop, Task<T> task) { return Begun<T>(loop, std::move(task)).result(); }

} // namespace korvane::test
