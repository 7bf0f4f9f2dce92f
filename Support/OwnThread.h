#pragma once

#include "Support/Task.h"

/// Threads for work that may hang for good inside a system call, where a slot of a pool would be lost.
namespace korvane {

/// Runs `work` on a new thread that nobody waits for. It owns what it uses: it may still run when everything
/// else has gone. It must not throw.
void runOnOwnThread(std::function<void()> work);

/// Runs `work()` so and gives its result or throws its error. A caller that is cancelled goes on at once, and what comes later is
/// dropped on that thread.
template <class Work, class Result = std::invoke_result_t<Work &>> Task<Result> onOwnThread(Work work)
{
    auto aside = [work = std::move(work)](std::stop_token) mutable { return work(); };
    return runAside(WorkStarter(runOnOwnThread), std::move(aside));
}

/// One thread with a loop of its own for coroutines that also block now and then.
class WorkerThread {
public:
    WorkerThread();
    /// Ends what waits and then the thread. One that hangs in the system is left behind after `patience`.
    ~WorkerThread();
    WorkerThread(const WorkerThread &) = delete;
    WorkerThread &operator=(const WorkerThread &) = delete;

    /// Usable from any thread; what is posted after the end is dropped.
    Executor executor() const { return loopExecutor; }

private:
    struct State;
    std::shared_ptr<State> state;
    Executor loopExecutor;
};

} // namespace korvane
