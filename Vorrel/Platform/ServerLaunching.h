#pragma once

#include "Support/Task.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace korvane {

/// A running server with all that it has started, spoken to by its standard input and output. Any thread, one call of `read` at
/// a time. Destruction ends whatever of it still runs.
class ServerProcess {
public:
    virtual ~ServerProcess() = default;

    /// What the server has printed since the last call, at most 64 KiB; waits until there is something. Empty at the end
    /// of its output, and for good once `kill` has been called. Throws `Cancelled`.
    virtual Task<std::string> read() = 0;
    /// Hands bytes to the writer, which writes in the order of the calls and never blocks the caller. `failed` is called at most
    /// once, on any thread, when they could not be written; the end of the server is such a failure and never a signal. It calls
    /// nothing of the server.
    virtual void write(std::string bytes, std::function<void()> failed) = 0;
    /// How many bytes were handed over and are not written yet.
    virtual std::size_t unwritten() const = 0;
    /// Ends the server's input once the bytes before are written; those that it does not take within the next steps
    /// are lost.
    virtual void closeInput() = 0;
    /// Whether anything of it runs: the server or what it started.
    virtual bool isRunning() const = 0;
    virtual void terminate() = 0; ///< Asks all of it to end (signal 15).
    /// Ends all of it (signal 9), a `read` that waits and what is not written yet: then nobody is called any more.
    virtual void kill() = 0;
};

/// Starts servers. Their standard error is thrown away. What it does may hang in the system for good, on a file system that does
/// not answer: it holds up no thread of the caller's and goes on without this object. Any thread.
class ServerLaunching {
public:
    virtual ~ServerLaunching() = default;

    struct Program {
        std::string path; ///< Absolute.
        std::vector<std::string> arguments;
        std::vector<std::string> environment; ///< All of it, as "NAME=value".
    };

    /// Whether this is a file that may be executed. Throws `Cancelled`.
    virtual Task<bool> isExecutable(std::string path) = 0;
    /// Returns when the program has begun. Throws `std::system_error` when it could not, and `Cancelled`; a server that begins
    /// after that is ended.
    virtual Task<std::shared_ptr<ServerProcess>> launch(std::shared_ptr<const Program> program) = 0;
};

} // namespace korvane
