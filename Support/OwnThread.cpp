#include "Support/OwnThread.h"

#include "Support/MainLoop.h"

#include <condition_variable>
#include <thread>

namespace korvane {

namespace {

constexpr std::chrono::seconds patience{2};

} // namespace

void runOnOwnThread(std::function<void()> work) { std::thread(std::move(work)).detach(); }

/// Shared with the thread, which may outlive the object that started it.
struct WorkerThread::State {
    std::mutex mutex;
    std::condition_variable changed;
    std::optional<Executor> executor; ///< Set once the loop stands.
    bool ended = false;
};

WorkerThread::WorkerThread() : state(std::make_shared<State>())
{
    runOnOwnThread([state = state] {
        {
            MainLoop loop;
            {
                std::scoped_lock lock(state->mutex);
                state->executor = loop.executor();
            }
            state->changed.notify_all();
            loop.runUntil([&state] {
                std::scoped_lock lock(state->mutex);
                return state->ended;
            });
            loop.shutDown();
        }
        std::scoped_lock lock(state->mutex);
        state->executor.reset();
        state->changed.notify_all();
    });
    std::unique_lock lock(state->mutex);
    state->changed.wait(lock, [this] { return state->executor.has_value(); });
    loopExecutor = *state->executor;
}

WorkerThread::~WorkerThread()
{
    runLater(loopExecutor, [state = state] {
        std::scoped_lock lock(state->mutex);
        state->ended = true;
    });
    std::unique_lock lock(state->mutex);
    state->changed.wait_for(lock, patience, [this] { return !state->executor; });
}

} // namespace korvane
