#include "Vorrel/Views/DecoderProcess.h"

#include "Support/ChildProcess.h"
#include "Support/OwnThread.h"

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <sys/socket.h>
#include <sys/wait.h>

namespace korvane {

struct DecoderProcess::Job {
    decoding::Request request;
    std::shared_ptr<const Descriptor> file;
    Continuation<Answer> answered;
};

struct DecoderProcess::State {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Job> jobs;
    pid_t process = 0; ///< 0 before it begins and after it was waited for.
    bool wanted = true;
    bool ended = false;

    /// The next one, when there is one; nothing when none will come.
    std::optional<Job> next()
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return !jobs.empty() || !wanted; });
        if (!wanted)
            return std::nullopt;
        Job job = std::move(jobs.front());
        jobs.pop_front();
        return job;
    }

    /// False when it is not wanted any more.
    bool begun(pid_t id)
    {
        const std::scoped_lock lock(mutex);
        process = id;
        return wanted;
    }
};

DecoderProcess::DecoderProcess(const std::string &program) : state(std::make_shared<State>())
{
    runOnOwnThread([state = state, program] { serve(state, program); });
}

DecoderProcess::~DecoderProcess()
{
    std::deque<Job> dropped;
    const std::scoped_lock lock(state->mutex);
    state->wanted = false;
    dropped.swap(state->jobs);
    if (state->process)
        ::kill(state->process, SIGKILL);
    state->changed.notify_all();
}

bool DecoderProcess::ended() const
{
    const std::scoped_lock lock(state->mutex);
    return state->ended;
}

Task<DecoderProcess::Answer> DecoderProcess::ask(decoding::Request request, std::shared_ptr<const Descriptor> file)
{
    std::function<void(Continuation<Answer>)> begin = [state = state, request, file](Continuation<Answer> answered) {
        const std::scoped_lock lock(state->mutex);
        if (state->ended)
            return answered.resume({});
        state->jobs.push_back({request, file, std::move(answered)});
        state->changed.notify_all();
    };
    co_return co_await suspend<Answer>(std::move(begin));
}

namespace {

struct Conversation {
    PipedProcess process;
    Descriptor socket;
};

std::optional<Conversation> started(const std::string &program)
{
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        return std::nullopt;
    Descriptor ours(ends[0]);
    const Descriptor theirs(ends[1]);
    try {
        return Conversation{
            spawnPipedProcess(
                {.arguments = {program}, .environment = environmentSnapshot(), .workingDirectory = "/", .input = theirs.get()}),
            std::move(ours)};
    } catch (const std::system_error &) {
        return std::nullopt;
    }
}

std::optional<DecoderProcess::Answer> exchange(int socket, const decoding::Request &request, const Descriptor *file)
{
    DecoderProcess::Answer answer;
    if (!decoding::sendRequest(socket, request, file ? file->get() : -1)
        || !decoding::readAll(socket, &answer.reply, sizeof answer.reply) || !decoding::fits(answer.reply, request))
        return std::nullopt;
    answer.bytes.resize(answer.reply.bytes);
    if (!decoding::readAll(socket, answer.bytes.data(), answer.bytes.size()))
        return std::nullopt;
    return answer;
}

/// Waits until it has ended, and only then makes its number free: until then nobody else has it.
void awaitEnd(pid_t process)
{
    siginfo_t end{};
    while (::waitid(P_PID, id_t(process), &end, WEXITED | WNOWAIT) < 0 && errno == EINTR) { }
}

} // namespace

void DecoderProcess::serve(const std::shared_ptr<State> &state, const std::string &program)
{
    auto conversation = started(program);
    bool lives = conversation && state->begun(conversation->process.id);
    while (lives) {
        auto job = state->next();
        if (!job)
            break;
        auto answer = exchange(conversation->socket.get(), job->request, job->file.get());
        lives = answer.has_value();
        if (!lives) {
            const std::scoped_lock lock(state->mutex);
            state->ended = true;
        }
        job->answered.resume(lives ? std::move(*answer) : Answer());
    }
    std::deque<Job> unanswered;
    {
        const std::scoped_lock lock(state->mutex);
        state->ended = true;
        unanswered.swap(state->jobs);
    }
    for (const Job &job : unanswered)
        job.answered.resume({});
    if (!conversation)
        return;
    ::kill(conversation->process.id, SIGKILL);
    awaitEnd(conversation->process.id);
    const std::scoped_lock lock(state->mutex);
    state->process = 0;
    ::waitpid(conversation->process.id, nullptr, 0);
}

} // namespace korvane
