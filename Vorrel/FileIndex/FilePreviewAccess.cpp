#include "Vorrel/FileIndex/FilePreviewAccess.h"

#include "Support/Descriptor.h"
#include "Support/UUID.h"

#include <cerrno>
#include <fcntl.h>
#include <system_error>

namespace korvane {

namespace {

std::exception_ptr failureFor(FileAccessFailure::Reason reason) { return std::make_exception_ptr(FileAccessFailure(reason)); }

} // namespace

/// The one question under way and who waits for its answer. Under a lock and not on a strand: the answer may come when there
/// is no executor left to bring it to.
class FilePreviewAccess::Question {
public:
    /// False while an earlier question has no answer.
    bool ask(const std::string &id)
    {
        std::scoped_lock lock(mutex);
        if (worker)
            return false;
        worker = id;
        return true;
    }

    void wait(const std::string &id, Continuation<void> continuation)
    {
        std::scoped_lock lock(mutex);
        if (worker == id)
            waiter = std::move(continuation);
    }

    /// Nobody waits any longer. The question stays: until it is answered no other may be asked.
    void resolve(const std::string &id, std::exception_ptr error)
    {
        std::scoped_lock lock(mutex);
        if (worker == id)
            end(std::move(error));
    }

    /// The system has answered.
    void finished(const std::string &id, std::optional<Reason> failure)
    {
        std::scoped_lock lock(mutex);
        if (worker != id)
            return;
        end(failure ? failureFor(*failure) : nullptr);
        worker.reset();
    }

    /// Whoever waits belongs to what goes away now.
    void abandon()
    {
        std::scoped_lock lock(mutex);
        end(std::make_exception_ptr(Cancelled()));
    }

private:
    // Under the lock: once it is free, no other thread may be about to wake the waiter.
    void end(std::exception_ptr error)
    {
        const auto waiting = std::exchange(waiter, std::nullopt);
        if (!waiting)
            return;
        if (error)
            waiting->fail(std::move(error));
        else
            waiting->resume();
    }

    std::mutex mutex;
    std::optional<std::string> worker;
    std::optional<Continuation<void>> waiter;
};

FilePreviewAccess::FilePreviewAccess(Executor executor, Clock &clock, Asking asking) :
    executor(std::move(executor)), clock(clock), asking(std::move(asking)), question(std::make_shared<Question>())
{
}

FilePreviewAccess::~FilePreviewAccess() { question->abandon(); }

Task<void> FilePreviewAccess::check(std::string path)
{
    co_await throwIfCancelled();
    const std::string id = newUUID();
    if (!question->ask(id))
        throw FileAccessFailure(Reason::busy);
    TaskHandle deadline = spawn(executor, giveUp(clock, asking.timeout, question, id)); // ends with this frame
    std::function<void(Continuation<void>)> begin = [&](Continuation<void> answered) {
        question->wait(id, std::move(answered));
        try {
            asking.apart(
                [question = question, id, path = std::move(path), probe = asking.probe] { question->finished(id, probe(path)); });
        } catch (const std::system_error &) {
            question->finished(id, Reason::unavailable); // there is no thread to ask on
        }
    };
    std::function<void()> told = [question = question, id] { question->resolve(id, std::make_exception_ptr(Cancelled())); };
    co_await suspendToTheEnd<void>(std::move(begin), std::move(told));
}

Task<void> FilePreviewAccess::giveUp(Clock &clock, Milliseconds timeout, std::shared_ptr<Question> question, std::string id)
{
    co_await clock.sleep(timeout);
    question->resolve(id, failureFor(Reason::timeout));
}

std::optional<FilePreviewAccess::Reason> FilePreviewAccess::openDescriptor(const std::string &path)
{
    if (path.find('\0') != path.npos)
        return Reason::unavailable; // the system would open what stands before the zero
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    return file ? std::nullopt : std::optional(reasonOf(errno));
}

FilePreviewAccess::Reason FilePreviewAccess::reasonOf(int errorNumber)
{
    switch (errorNumber) {
    case EPERM:
    case EACCES: return Reason::permission;
    case ENOENT:
    case ENOTDIR: return Reason::missing;
    case EIO:
    case ENODEV:
    case ESTALE: return Reason::offline;
    default: return Reason::unavailable;
    }
}

} // namespace korvane
