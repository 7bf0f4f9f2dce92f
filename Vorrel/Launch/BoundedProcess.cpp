#include "Vorrel/Launch/BoundedProcess.h"

#include "CommandCore/Commands.h"
#include "Support/ChildProcess.h"
#include "Support/OwnThread.h"
#include "Support/Text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <optional>
#include <sys/wait.h>
#include <unistd.h>

namespace korvane {

namespace {

using namespace std::chrono_literals;

constexpr Milliseconds betweenRounds = 10ms;
constexpr double patienceWithPipes = 0.15; // seconds after the child's end
constexpr double untilKill = 0.25; // seconds after the stop
constexpr double untilGivingUp = 1.0; // seconds after the stop
constexpr int readsOfRound = 16;
constexpr std::size_t readSize = 8192;

/// One output stream of a child.
class Stream {
public:
    Stream(Descriptor reading, std::size_t limit) : reading(std::move(reading)), limit(limit) { }

    bool ended() const { return _ended; }
    const std::string &kept() const { return _kept; }

    /// Takes what is there, a bounded share of it.
    void drain()
    {
        std::array<char, readSize> buffer;
        for (int i = 0; i < readsOfRound && !_ended; ++i) {
            const auto count = ::read(reading.get(), buffer.data(), buffer.size());
            if (count < 0 && (errno == EAGAIN || errno == EINTR))
                return;
            if (count <= 0)
                _ended = true;
            else
                _kept.append(buffer.data(), std::min(static_cast<std::size_t>(count), limit - _kept.size()));
        }
    }

private:
    Descriptor reading;
    const std::size_t limit;
    std::string _kept;
    bool _ended = false;
};

/// A child that is waited for without waiting.
class Child {
public:
    explicit Child(pid_t id) : id(id) { }
    ~Child()
    {
        // One that cannot be ended in time is still waited for, so that it does not stay in the table of processes.
        if (isRunning())
            runOnOwnThread([id = id] {
                while (::waitpid(id, nullptr, 0) < 0 && errno == EINTR) { }
            });
    }
    Child(const Child &) = delete;

    bool isRunning()
    {
        int how = 0;
        const pid_t answer = _status ? 0 : ::waitpid(id, &how, WNOHANG);
        if (answer == id)
            _status = WIFEXITED(how) ? WEXITSTATUS(how) : WTERMSIG(how);
        else if (answer < 0 && errno == ECHILD)
            _status = BoundedProcess::unknownStatus;
        return !_status;
    }
    /// The number stays the child's until it has been waited for.
    void send(int signal)
    {
        if (isRunning())
            ::kill(id, signal);
    }
    std::int32_t status() const { return _status.value_or(0); }

private:
    const pid_t id;
    std::optional<std::int32_t> _status;
};

/// One run from its start to its end, a round at a time. Times are seconds of uptime.
class Run {
public:
    enum class Stop { cancelled, timedOut };

    Run(PipedProcess started, double startedAt, double timeout, std::size_t limit) :
        child(started.id), output(std::move(started.output), limit), errors(std::move(started.errors), limit),
        deadline(startedAt + std::max(timeout, 0.0))
    {
    }

    /// False once the run is over.
    bool round(double now, bool cancelled)
    {
        if (!stop && (cancelled || deadline <= now)) {
            stop = cancelled ? Stop::cancelled : Stop::timedOut;
            stoppedAt = now;
            child.send(SIGTERM);
        }
        if (stop && now - stoppedAt > untilKill)
            child.send(SIGKILL);
        output.drain();
        errors.drain();
        if (!child.isRunning()) {
            if (!childEndedAt)
                childEndedAt = now;
            if ((output.ended() && errors.ended()) || now - *childEndedAt > patienceWithPipes)
                return false;
        }
        return !stop || now - stoppedAt <= untilGivingUp;
    }

    BoundedProcess::Output result()
    {
        if (stop == Stop::cancelled)
            throw Cancelled();
        if (stop == Stop::timedOut)
            throw AppError(AppError::Kind::toolExecution, "The shortcut timed out. Try again.");
        if (child.isRunning())
            throw AppError(AppError::Kind::toolExecution, "The process could not be stopped.");
        return {displayable(output.kept()), displayable(errors.kept()), child.status()};
    }

private:
    Child child;
    Stream output, errors;
    const double deadline;
    std::optional<Stop> stop;
    double stoppedAt = 0;
    std::optional<double> childEndedAt;
};

} // namespace

Task<BoundedProcess::Output> BoundedProcess::run(
    std::string executable, std::vector<std::string> arguments, double timeout, std::size_t outputLimit)
{
    co_await throwIfCancelled();
    arguments.insert(arguments.begin(), std::move(executable));
    Task<Output> task = runOnActor(std::move(arguments), timeout, outputLimit);
    co_return co_await actor.perform(std::move(task));
}

Task<BoundedProcess::Output> BoundedProcess::runOnActor(std::vector<std::string> words, double timeout, std::size_t outputLimit)
{
    co_await throwIfCancelled();
    const ChildProcess::Options options{std::move(words), environment, {}};
    Run run(spawnPipedProcess(options), clock.uptime(), timeout, outputLimit);
    while (run.round(clock.uptime(), co_await isCancelled()))
        co_await tick();
    co_return run.result();
}

/// A sleep that a cancellation does not end: the child is then on its way out, and looking more often would not help it.
Task<void> BoundedProcess::tick()
{
    std::function<void(Continuation<void>)> begin = [this](Continuation<void> done) {
        auto sleeping = [](Clock &clock, Continuation<void> done) -> Task<void> {
            co_await clock.sleep(betweenRounds);
            done.resume();
        };
        spawnDetached(actor.executor(), sleeping(clock, std::move(done)));
    };
    co_await suspendToTheEnd<void>(std::move(begin), [] {});
}

} // namespace korvane
