#pragma once

#include "Support/Clock.h"
#include "Support/Task.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace korvane {

/// Runs short-lived programs that may hang, print without end or leave others behind that hold their pipes, and always
/// comes back: a single-owner actor that looks at each child every 10 ms and never waits inside a read.
///
/// Callable from any coroutine. A second run goes on beside the first.
class BoundedProcess {
public:
    /// Of a child that somebody else has waited for.
    static constexpr std::int32_t unknownStatus = -1;
    struct Output {
        std::string stdout; ///< UTF-8; what was not is repaired.
        std::string stderr;
        std::int32_t status = 0; ///< The exit status, or the number of the signal that ended it; or `unknownStatus`.
    };

    /// Programs get `environment`, as "NAME=value", and this process's working folder. `clock` outlives the runs.
    BoundedProcess(Executor pool, Clock &clock, std::vector<std::string> environment) :
        actor(std::move(pool)), clock(clock), environment(std::move(environment))
    {
    }

    /// Runs the program at an absolute path to its end, for at most `timeout` seconds, and keeps the first `outputLimit`
    /// bytes of each stream. The rest is read and dropped, so that the child never waits for a reader. What is left behind
    /// holding a pipe delays the end by 0.15 seconds at most.
    ///
    /// A cancelled caller or a passed `timeout` ends the child: SIGTERM, after 0.25 seconds SIGKILL, and after one second
    /// the run ends whatever the child does. Throws `Cancelled`; `toolExecution` "The shortcut timed out. Try again."; and
    /// `std::system_error` for a program that cannot be started. Any exit status is a result.
    Task<Output> run(std::string executable, std::vector<std::string> arguments, double timeout, std::size_t outputLimit);

private:
    Task<Output> runOnActor(std::vector<std::string> words, double timeout, std::size_t outputLimit);
    Task<void> tick();

    Actor actor;
    Clock &clock;
    const std::vector<std::string> environment;
};

} // namespace korvane
