#include "Vorrel/Platform/Linux/LinuxServerLaunching.h"

#include "Support/ChildProcess.h"
#include "Support/Memory.h"
#include "Support/OwnThread.h"
#include "Vorrel/Platform/Linux/ServerHostMessages.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace korvane {

namespace {

constexpr std::size_t mostRead = 65'536; // bytes at once

[[noreturn]] void fail(int error, const char *step) { throw std::system_error(error, std::generic_category(), step); }

/// While it lives, a write of this thread to a pipe without a reader is an error and no signal.
class NoBrokenPipeSignal {
public:
    NoBrokenPipeSignal()
    {
        ::sigemptyset(&broken);
        ::sigaddset(&broken, SIGPIPE);
        sigset_t pending;
        ::sigpending(&pending);
        wasPending = ::sigismember(&pending, SIGPIPE) == 1;
        ::pthread_sigmask(SIG_BLOCK, &broken, &before);
    }
    ~NoBrokenPipeSignal()
    {
        const int error = errno;
        const timespec atOnce{};
        if (arrived && !wasPending)
            while (::sigtimedwait(&broken, nullptr, &atOnce) < 0 && errno == EINTR) { }
        ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
        errno = error;
    }
    NoBrokenPipeSignal(const NoBrokenPipeSignal &) = delete;

    bool arrived = false; ///< Set by whoever got EPIPE.

private:
    sigset_t broken, before;
    bool wasPending = false;
};

/// Repeats what a signal has interrupted.
template <class Call> ssize_t uninterrupted(Call call)
{
    ssize_t count = 0;
    do
        count = call();
    while (count < 0 && errno == EINTR);
    return count;
}

struct Ends {
    Descriptor ours, theirs;
};

/// A pipe of which our end never blocks; theirs does, as programs expect it.
Ends makePipe(bool weWrite)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        fail(errno, "pipe");
    Ends pipe;
    pipe.ours.reset(ends[weWrite ? 1 : 0]);
    pipe.theirs.reset(ends[weWrite ? 0 : 1]);
    if (::fcntl(pipe.ours.get(), F_SETFL, O_NONBLOCK) != 0)
        fail(errno, "pipe");
    return pipe;
}

Ends makeControl()
{
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        fail(errno, "socket");
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

/// What one server is spoken to by. Shared with its thread, which ends soon after its owner.
class Conversation {
public:
    Conversation(Descriptor toServer, Descriptor fromServer, Descriptor control) :
        control(std::move(control)), input(std::move(toServer)), output(std::move(fromServer)),
        wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    {
        if (!wake)
            fail(errno, "event");
    }

    // The thread

    /// Until nothing can be read or written any more, or nobody wants it.
    void serve()
    {
        std::unique_lock lock(mutex);
        while (!ended && (input || output)) {
            std::array<pollfd, 3> waiting{{{wake.get(), POLLIN, 0},
                // A descriptor that is not asked for would still report its other end's close, over and over.
                {wantsOutput() ? output.get() : -1, POLLIN, 0}, {wantsInput() ? input.get() : -1, POLLOUT, 0}}};
            lock.unlock();
            ::poll(waiting.data(), waiting.size(), -1);
            lock.lock();
            if (waiting[0].revents)
                clearWake();
            if (waiting[1].revents && !ended)
                readSome();
            if (waiting[2].revents && !ended)
                writeSome();
        }
        input.reset();
        output.reset();
        dropWaiting();
    }

    // Any thread

    Task<std::string> read(std::shared_ptr<Conversation> self)
    {
        for (;;) {
            {
                const std::scoped_lock lock(mutex);
                if (killed || ended || (!output && chunk.empty()))
                    co_return "";
                if (!chunk.empty()) {
                    poke();
                    co_return std::exchange(chunk, {});
                }
            }
            std::function<void(Continuation<void>)> begin = [self](Continuation<void> done) {
                std::unique_lock lock(self->mutex);
                if (!self->killed && !self->ended && self->output && self->chunk.empty()) {
                    self->reader = std::move(done);
                    return;
                }
                lock.unlock();
                done.resume();
            };
            co_await suspend<void>(std::move(begin));
        }
    }

    void write(std::string bytes, std::function<void()> failed)
    {
        const std::scoped_lock lock(mutex);
        if (!input || closing || killed || ended)
            return failed();
        if (bytes.empty())
            return;
        const bool first = queue.empty();
        waitingBytes += bytes.size();
        queue.push_back({std::move(bytes), std::move(failed)});
        // Most messages fit into the pipe: then no other thread has to run for them.
        if (first)
            writeSome();
        if (!queue.empty())
            poke();
    }

    std::size_t unwritten() const
    {
        const std::scoped_lock lock(mutex);
        return waitingBytes;
    }

    void closeInput()
    {
        const std::scoped_lock lock(mutex);
        closing = true;
        if (queue.empty())
            input.reset();
        poke();
    }

    bool isRunning() const
    {
        // The host sends nothing after its answer: whatever happens on the socket is its end.
        pollfd end{control.get(), POLLIN | POLLRDHUP, 0};
        return uninterrupted([&end] { return ::poll(&end, 1, 0); }) == 0;
    }

    void command(hosting::Command command)
    {
        const char byte = char(command);
        uninterrupted([&] { return ::send(control.get(), &byte, 1, MSG_NOSIGNAL | MSG_DONTWAIT); });
    }

    void kill()
    {
        {
            const std::scoped_lock lock(mutex);
            killed = true;
            ended = true;
            dropWaiting(); // here: the thread may come to it when the executors of those who wait have gone
            poke();
        }
        command(hosting::Command::kill);
    }

private:
    struct Writing {
        std::string bytes;
        std::function<void()> failed;
    };

    bool wantsOutput() const { return output && chunk.empty(); }
    bool wantsInput() const { return input && !queue.empty(); }

    void poke() const
    {
        const std::uint64_t one = 1;
        uninterrupted([&] { return ::write(wake.get(), &one, sizeof one); });
    }

    void clearWake() const
    {
        std::uint64_t count = 0;
        uninterrupted([&] { return ::read(wake.get(), &count, sizeof count); });
    }

    /// Reads one piece ahead, no more: what nobody wants yet stays in the pipe, and the server waits.
    void readSome()
    {
        const ssize_t count = uninterrupted([this] { return ::read(output.get(), arriving.data(), arriving.size()); });
        if (count < 0 && errno == EAGAIN)
            return;
        if (count > 0)
            chunk.assign(arriving.data(), std::size_t(count));
        else
            output.reset();
        wakeReader();
    }

    /// Writes as much as the pipe takes now.
    void writeSome()
    {
        NoBrokenPipeSignal quiet;
        while (!queue.empty()) {
            const std::string_view rest = std::string_view(queue.front().bytes).substr(written);
            const ssize_t count = uninterrupted([&] { return ::write(input.get(), rest.data(), rest.size()); });
            if (count < 0 && errno == EAGAIN)
                return;
            if (count < 0) {
                quiet.arrived = errno == EPIPE;
                input.reset();
                return giveUpWriting();
            }
            waitingBytes -= std::size_t(count);
            written += std::size_t(count);
            if (written == queue.front().bytes.size()) {
                queue.pop_front();
                written = 0;
            }
        }
        if (closing)
            input.reset();
    }

    // Under the lock: once `kill` has had it, the thread is through with everybody who waited.

    void giveUpWriting()
    {
        for (const Writing &writing : queue)
            writing.failed();
        queue.clear();
        written = waitingBytes = 0;
    }

    void wakeReader()
    {
        if (const auto waiting = std::exchange(reader, std::nullopt))
            waiting->resume();
    }

    void dropWaiting()
    {
        wakeReader();
        giveUpWriting();
    }

    const Descriptor control;
    mutable std::mutex mutex; ///< Guards everything below but the event.
    Descriptor input, output;
    const Descriptor wake;
    std::array<char, mostRead> arriving; ///< The thread's alone.
    std::string chunk; ///< Read and not asked for yet.
    std::optional<Continuation<void>> reader;
    std::deque<Writing> queue;
    std::size_t written = 0; ///< Of the first in the queue.
    std::size_t waitingBytes = 0;
    bool closing = false; ///< The input ends behind the queue.
    bool killed = false;
    bool ended = false; ///< The thread has nothing to do any more.
};

class LinuxServerProcess final : public ServerProcess {
public:
    explicit LinuxServerProcess(std::shared_ptr<Conversation> given) : conversation(std::move(given))
    {
        runOnOwnThread([conversation = conversation] { conversation->serve(); });
    }
    ~LinuxServerProcess() override { conversation->kill(); }

    Task<std::string> read() override { return conversation->read(conversation); }
    void write(std::string bytes, std::function<void()> failed) override
    {
        conversation->write(std::move(bytes), std::move(failed));
    }
    std::size_t unwritten() const override { return conversation->unwritten(); }
    void closeInput() override { conversation->closeInput(); }
    bool isRunning() const override { return conversation->isRunning(); }
    void terminate() override { conversation->command(hosting::Command::terminate); }
    void kill() override { conversation->kill(); }

private:
    const std::shared_ptr<Conversation> conversation;
};

/// The texts of a request, each with a NUL behind it. Overwritten in the end: secrets are among them.
struct Texts {
    explicit Texts(const ServerLaunching::Program &program)
    {
        std::size_t size = program.path.size() + 1;
        for (const auto *list : {&program.arguments, &program.environment})
            for (const std::string &text : *list)
                size += text.size() + 1;
        all.reserve(size); // growing would leave copies behind
        add(program.path);
        for (const std::string &argument : program.arguments)
            add(argument);
        for (const std::string &variable : program.environment)
            add(variable);
    }
    ~Texts() { wipe(all); }
    Texts(const Texts &) = delete;

    std::string all;

private:
    void add(const std::string &text)
    {
        if (text.find('\0') != std::string::npos)
            fail(EINVAL, "texts");
        all.append(text.c_str(), text.size() + 1);
    }
};

void sendAll(const Descriptor &control, const char *bytes, std::size_t size)
{
    while (size > 0) {
        const ssize_t count = uninterrupted([&] { return ::send(control.get(), bytes, size, MSG_NOSIGNAL); });
        if (count < 0)
            fail(errno, "host");
        bytes += count;
        size -= std::size_t(count);
    }
}

/// The opening, with the server's ends of its pipes.
void sendOpening(const Descriptor &control, hosting::Opening opening, std::array<int, 2> ends)
{
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof ends)> space{};
    iovec bytes{&opening, sizeof opening};
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = space.data();
    message.msg_controllen = space.size();
    cmsghdr *carried = CMSG_FIRSTHDR(&message);
    carried->cmsg_level = SOL_SOCKET;
    carried->cmsg_type = SCM_RIGHTS;
    carried->cmsg_len = CMSG_LEN(sizeof ends);
    std::memcpy(CMSG_DATA(carried), ends.data(), sizeof ends);
    const ssize_t count = uninterrupted([&] { return ::sendmsg(control.get(), &message, MSG_NOSIGNAL); });
    if (count < 0)
        fail(errno, "host");
    sendAll(control, reinterpret_cast<const char *>(&opening) + count, sizeof opening - std::size_t(count));
}

/// Waits until the server has begun.
void awaitAnswer(const Descriptor &control)
{
    hosting::Answer error = 0;
    const ssize_t count = uninterrupted([&] { return ::recv(control.get(), &error, sizeof error, MSG_WAITALL); });
    if (count != sizeof error)
        fail(ECHILD, "host");
    if (error != 0)
        fail(error, "start");
}

/// Blocks until the program has begun.
std::shared_ptr<ServerProcess> launchNow(const std::string &host, const ServerLaunching::Program &program)
{
    const Texts texts(program);
    Ends input = makePipe(true), output = makePipe(false), control = makeControl();
    ChildProcess::Options options;
    options.arguments = {host};
    options.input = control.theirs.get();
    spawnDetachedProcess(options);
    control.theirs.reset();
    hosting::Opening opening{.arguments = std::uint32_t(program.arguments.size()),
        .variables = std::uint32_t(program.environment.size()),
        .bytes = texts.all.size()};
    sendOpening(control.ours, opening, {input.theirs.get(), output.theirs.get()});
    sendAll(control.ours, texts.all.data(), texts.all.size());
    awaitAnswer(control.ours);
    auto conversation = std::make_shared<Conversation>(std::move(input.ours), std::move(output.ours), std::move(control.ours));
    return std::make_shared<LinuxServerProcess>(std::move(conversation));
}

} // namespace

Task<bool> LinuxServerLaunching::isExecutable(std::string path)
{
    auto look = [path = std::move(path)] { return path.starts_with('/') && findProgram(path, "").has_value(); };
    co_return co_await onOwnThread(std::move(look));
}

Task<std::shared_ptr<ServerProcess>> LinuxServerLaunching::launch(std::shared_ptr<const Program> program)
{
    auto start = [host = host, program = std::move(program)] { return launchNow(host, *program); };
    co_return co_await onOwnThread(std::move(start));
}

} // namespace korvane
