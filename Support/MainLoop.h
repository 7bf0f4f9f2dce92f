#pragma once

#include "Support/Task.h"

#include <thread>

/// The queue of the main thread, whoever turns its crank: Qt's event loop in the window program, the
/// program itself in `korvanectl`, the test in tests.
namespace korvane {

/// A first-in, first-out queue of work for one thread.
///
/// `executor()` may be used from any thread and outlives the loop: what is posted after the loop has
/// gone is dropped. Everything else belongs to the thread that runs the loop.
class MainLoop {
public:
    /// `wake` is called, from any thread, when work arrives while no wake-up is outstanding; the answer
    /// to it is one call of `runOne`. Without `wake`, `runUntil` and `runUntilIdle` turn the loop.
    explicit MainLoop(std::function<void()> wake = {});
    ~MainLoop();
    MainLoop(const MainLoop &) = delete;
    MainLoop &operator=(const MainLoop &) = delete;

    Executor executor() const;

    /// Runs the oldest piece of work, and asks for another wake-up if more is waiting. One at a time,
    /// so that a nested event loop still gets the rest. False when there was none.
    bool runOne();
    /// Runs everything that is ready, and what that makes ready.
    void runUntilIdle();
    /// Runs, and waits for more, until `done` is true; it is asked after each piece of work.
    void runUntil(const std::function<bool()> &done);
    /// Ends timers and waiting coroutines; work that arrives from now on is dropped. The destructor
    /// calls it; call it earlier when what the coroutines refer to goes away earlier.
    void shutDown();

private:
    class Context;
    class LoopExecutor;
    struct Queue;
    std::shared_ptr<Queue> queue;
    std::unique_ptr<Context> context;
};

/// A member that ties its owner to the thread that made it. Every public operation of a main-thread
/// class calls `check`; use from another thread is a defect and ends the program.
class MainThreadOnly {
public:
    MainThreadOnly() : owner(std::this_thread::get_id()) { }
    void check() const;

private:
    std::thread::id owner;
};

} // namespace korvane
