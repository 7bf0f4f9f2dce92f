#pragma once

#include "CommandCore/Commands.h"
#include "Support/Clock.h"
#include "Support/OwnThread.h"

namespace korvane {

/// Asks the system, within a fixed time, whether a file can be opened: an open may wait for a person, a download or a dead
/// volume for as long as it likes. One question at a time, so that a file that hangs costs one thread however often it is
/// asked for.
///
/// Threads:  used on `executor` alone. The question itself is asked on a thread of its own.
/// Lifetime: a question that hangs refers to nothing of its caller. It may come back when everything else has gone.
class FilePreviewAccess {
public:
    using Reason = FileAccessFailure::Reason;
    /// Why the file at an absolute path cannot be opened; nothing when it can. Blocks, and does not throw.
    using Probe = std::function<std::optional<Reason>(const std::string &path)>;

    /// How the system is asked.
    struct Asking {
        Probe probe = openDescriptor;
        std::function<void(std::function<void()>)> apart = runOnOwnThread; ///< Runs what may never come back.
        Milliseconds timeout{3000};
    };

    /// `clock` outlives the checks.
    FilePreviewAccess(Executor executor, Clock &clock, Asking asking);
    FilePreviewAccess(Executor executor, Clock &clock) : FilePreviewAccess(std::move(executor), clock, Asking()) { }
    /// Whoever still waits is cancelled.
    ~FilePreviewAccess();

    /// Returns when the file at the absolute `path` can be opened. Throws `FileAccessFailure`: what the system says, `timeout`
    /// when it says nothing in time, and `busy` at once while an earlier question, given up or not, has no answer; and
    /// `Cancelled`.
    Task<void> check(std::string path);

    /// Opens the file for reading, without waiting for the other end of a pipe, and closes it again. Blocks.
    static std::optional<Reason> openDescriptor(const std::string &path);
    /// Any failure to reach a file, by the system's error number.
    static Reason reasonOf(int errorNumber);

private:
    class Question;
    static Task<void> giveUp(Clock &clock, Milliseconds timeout, std::shared_ptr<Question> question, std::string id);

    const Executor executor;
    Clock &clock;
    const Asking asking;
    const std::shared_ptr<Question> question;
};

} // namespace korvane
