#include "Support/MainLoop.h"

#include <boost/asio/detail/scheduler.hpp>
#include <boost/asio/execution.hpp>
#include <boost/asio/execution_context.hpp>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>

namespace korvane {

namespace asio = boost::asio;

namespace {

/// A handler of any kind, owned. `std::function` would ask for copies.
struct Work {
    virtual ~Work() = default;
    virtual void run() = 0;
};

template <class Function> struct WorkOf final : Work {
    explicit WorkOf(Function function) : function(std::move(function)) { }
    void run() override
    {
        // The frame that the work resumes may destroy whatever holds this object.
        auto local = std::move(function);
        std::move(local)();
    }
    Function function;
};

} // namespace

struct MainLoop::Queue {
    void push(std::unique_ptr<Work> one)
    {
        bool call = false;
        {
            std::scoped_lock lock(mutex);
            if (closed)
                return; // `one` is destroyed after the lock has gone
            work.push_back(std::move(one));
            call = !std::exchange(wakeOutstanding, true);
        }
        arrived.notify_one();
        if (call && wake)
            wake();
    }

    std::mutex mutex;
    std::condition_variable arrived;
    std::deque<std::unique_ptr<Work>> work;
    bool wakeOutstanding = false;
    bool closed = false;
    std::function<void()> wake;
};

class MainLoop::Context : public asio::execution_context {
public:
    ~Context() { end(); }
    /// The library ends its services in the order that is the reverse of their making, and so the waits for descriptors before
    /// the thread that looks at them. That thread has to be the first to end.
    void end()
    {
        if (asio::has_service<asio::detail::scheduler>(*this))
            asio::use_service<asio::detail::scheduler>(*this).shutdown();
        shutdown();
    }
};

/// Satisfies the library's executor requirements; always queues, never runs in place.
class MainLoop::LoopExecutor {
public:
    LoopExecutor(std::shared_ptr<Queue> queue, Context *context) : queue(std::move(queue)), context(context) { }

    template <class Function> void execute(Function &&function) const
    {
        queue->push(std::make_unique<WorkOf<std::decay_t<Function>>>(std::forward<Function>(function)));
    }
    asio::execution_context &query(asio::execution::context_t) const noexcept { return *context; }
    static constexpr asio::execution::blocking_t query(asio::execution::blocking_t) noexcept
    {
        return asio::execution::blocking.never;
    }
    bool operator==(const LoopExecutor &other) const noexcept { return queue == other.queue; }
    bool operator!=(const LoopExecutor &other) const noexcept { return queue != other.queue; }

private:
    std::shared_ptr<Queue> queue;
    Context *context;
};

MainLoop::MainLoop(std::function<void()> wake) : queue(std::make_shared<Queue>()), context(std::make_unique<Context>())
{
    queue->wake = std::move(wake);
}

MainLoop::~MainLoop() { shutDown(); }

Executor MainLoop::executor() const { return LoopExecutor(queue, context.get()); }

bool MainLoop::runOne()
{
    std::unique_ptr<Work> one;
    bool more = false;
    {
        std::scoped_lock lock(queue->mutex);
        if (!queue->work.empty()) {
            one = std::move(queue->work.front());
            queue->work.pop_front();
        }
        more = !queue->work.empty();
        queue->wakeOutstanding = more;
    }
    // Asked for before the work runs: it may start a nested event loop.
    if (more && queue->wake)
        queue->wake();
    if (!one)
        return false;
    one->run();
    return true;
}

void MainLoop::runUntilIdle()
{
    while (runOne()) { }
}

void MainLoop::runUntil(const std::function<bool()> &done)
{
    while (!done()) {
        if (runOne())
            continue;
        std::unique_lock lock(queue->mutex);
        queue->arrived.wait(lock, [&] { return !queue->work.empty(); });
    }
}

void MainLoop::shutDown()
{
    if (!context)
        return;
    // What arrives while this goes on is destroyed here, too, and not on the thread that brings it: the context's own
    // thread may still be looking at what a frame holds. Destroying one coroutine may end another's wait.
    const auto drop = [this](bool last) {
        for (;;) {
            std::deque<std::unique_ptr<Work>> dropped;
            std::scoped_lock lock(queue->mutex);
            queue->wakeOutstanding = true; // nobody is to come for it
            queue->closed = queue->closed || last;
            dropped.swap(queue->work);
            if (dropped.empty())
                return;
        }
    };
    drop(false);
    context->end();
    drop(true);
}

void MainThreadOnly::check() const
{
    if (std::this_thread::get_id() == owner)
        return;
    std::fputs("An object of the main thread was used from another thread.\n", stderr);
    std::abort();
}

} // namespace korvane
