#pragma once

#include "Support/Task.h"

#include <deque>

namespace korvane {

/// Values that arrive over time, for one reader. Copies share the stream.
///
/// `yield` and `finish` may be called from any thread; `next` belongs to the one reader. Values that
/// were yielded before the end are still read after it.
template <class T> class AsyncStream {
public:
    AsyncStream() : shared(std::make_shared<Shared>()) { }

    /// Appends a value; dropped after the end.
    void yield(T value) const
    {
        std::optional<Continuation<void>> reader;
        {
            std::scoped_lock lock(shared->mutex);
            if (shared->finished)
                return;
            shared->values.push_back(std::move(value));
            reader = std::exchange(shared->reader, std::nullopt);
        }
        if (reader)
            reader->resume();
    }

    /// Ends the stream, once; the termination handler runs on the calling thread. With an `error` the reader
    /// gets it, again and again, when it has read what was yielded before.
    void finish(std::exception_ptr error = {}) const
    {
        std::optional<Continuation<void>> reader;
        std::function<void()> terminated;
        {
            std::scoped_lock lock(shared->mutex);
            if (std::exchange(shared->finished, true))
                return;
            shared->error = error;
            reader = std::exchange(shared->reader, std::nullopt);
            terminated = std::exchange(shared->terminated, nullptr);
        }
        if (terminated)
            terminated();
        if (reader)
            reader->resume();
    }

    /// Called once when the stream ends, by `finish` or because its reader was cancelled.
    void onTermination(std::function<void()> handler) const
    {
        std::scoped_lock lock(shared->mutex);
        shared->terminated = std::move(handler);
    }

    /// The next value, or nothing after the end, or the error that ended the stream. A cancelled reader ends
    /// the stream and gets `Cancelled`.
    Task<std::optional<T>> next() const
    {
        auto kept = shared;
        for (;;) {
            {
                std::scoped_lock lock(kept->mutex);
                if (!kept->values.empty()) {
                    std::optional<T> value = std::move(kept->values.front());
                    kept->values.pop_front();
                    co_return value;
                }
                if (kept->error)
                    std::rethrow_exception(kept->error);
                if (kept->finished)
                    co_return std::nullopt;
            }
            std::function<void(Continuation<void>)> begin = [kept](Continuation<void> done) {
                std::unique_lock lock(kept->mutex);
                if (kept->values.empty() && !kept->finished) {
                    kept->reader = std::move(done);
                    return;
                }
                lock.unlock();
                done.resume();
            };
            bool cancelled = false;
            try {
                co_await suspend<void>(std::move(begin));
            } catch (const Cancelled &) {
                cancelled = true;
            }
            if (cancelled) {
                finish();
                throw Cancelled();
            }
        }
    }

private:
    struct Shared {
        std::mutex mutex;
        std::deque<T> values;
        std::optional<Continuation<void>> reader;
        std::function<void()> terminated;
        std::exception_ptr error;
        bool finished = false;
    };
    std::shared_ptr<Shared> shared;
};

} // namespace korvane
