#pragma once

#include "Support/ChildProcess.h"
#include "Support/Clock.h"

#include <memory>
#include <optional>

namespace korvane {

/// A child with an output to read. It ends with this object, and so does what it has started. Main thread.
class BoundChild {
public:
    /// Nothing when the program could not be started.
    static Task<std::shared_ptr<BoundChild>> start(Executor pool, ChildProcess::Options options);

    explicit BoundChild(PipedProcess process);
    ~BoundChild() { end(); }
    BoundChild(const BoundChild &) = delete;
    BoundChild &operator=(const BoundChild &) = delete;

    const Descriptor &output() const { return process.output; }
    /// Kills it; its output comes to its end. Does not wait.
    void end();
    /// Waits for it, and tells whether it ended by itself and well.
    Task<bool> endedWell(Executor pool);

private:
    PipedProcess process; // its id is 0 once it has been waited for
};

/// Runs a program to its end and gives what it printed: nothing when it could not be started, failed, printed more than
/// `limit` bytes, which are not read, or was not done after `time`; then it is ended. `clock` outlives the run.
Task<std::optional<std::string>> outputOf(
    Executor mainThread, Executor pool, Clock &clock, ChildProcess::Options options, std::size_t limit, Milliseconds time);

} // namespace korvane
