/// Looks after one MCP server: starts it, adopts whatever it starts, ends all of that when told to or when Korvane is gone,
/// and ends itself when nothing of it runs any more. Holds none of the server's pipes, so that their ends arrive.

#include "Ending.h"
#include "Vorrel/Platform/Linux/ServerHostMessages.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using korvane::hosting::Answer;
using korvane::hosting::Command;
using korvane::hosting::Opening;

namespace {

constexpr int control = STDIN_FILENO;
constexpr long grace = 300; // ms between asking and forcing
constexpr long pauseAfterChange = 1000; // ms until what something has left behind is forced
constexpr std::uint64_t largestRequest = 64U << 20; // more than the system starts a program with

long now()
{
    timespec time{};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000 + time.tv_nsec / 1'000'000;
}

/// What shall be started.
struct Request {
    std::string texts;
    std::vector<char *> arguments, environment; ///< Point into the texts; the path is the first argument.
    int input = -1, output = -1;
};

bool receiveAll(char *into, std::size_t size)
{
    while (size > 0) {
        const ssize_t count = ::recv(control, into, size, 0);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        into += count;
        size -= std::size_t(count);
    }
    return true;
}

/// The first bytes, with the descriptors that they carry.
bool receiveOpening(Opening &opening, Request &request)
{
    alignas(cmsghdr) char space[CMSG_SPACE(2 * sizeof(int))];
    iovec bytes{&opening, sizeof opening};
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = space;
    message.msg_controllen = sizeof space;
    ssize_t count = 0;
    do
        count = ::recvmsg(control, &message, MSG_CMSG_CLOEXEC);
    while (count < 0 && errno == EINTR);
    const cmsghdr *carried = CMSG_FIRSTHDR(&message);
    if (count <= 0 || !carried || carried->cmsg_type != SCM_RIGHTS || carried->cmsg_len != CMSG_LEN(2 * sizeof(int)))
        return false;
    int descriptors[2];
    std::memcpy(descriptors, CMSG_DATA(carried), sizeof descriptors);
    request.input = descriptors[0];
    request.output = descriptors[1];
    return receiveAll(reinterpret_cast<char *>(&opening) + count, sizeof opening - std::size_t(count));
}

/// Cuts the texts at their NULs. False when they are not as many as announced.
bool cutTexts(const Opening &opening, Request &request)
{
    std::vector<char *> all;
    if (request.texts.empty() || request.texts.back() != '\0')
        return false;
    for (std::size_t at = 0; at < request.texts.size(); at = request.texts.find('\0', at) + 1)
        all.push_back(request.texts.data() + at);
    const std::size_t arguments = std::size_t(opening.arguments) + 1;
    if (all.size() != arguments + opening.variables)
        return false;
    request.arguments.assign(all.begin(), all.begin() + std::ptrdiff_t(arguments));
    request.environment.assign(all.begin() + std::ptrdiff_t(arguments), all.end());
    request.arguments.push_back(nullptr);
    request.environment.push_back(nullptr);
    return true;
}

bool receive(Request &request)
{
    Opening opening;
    if (!receiveOpening(opening, request) || opening.bytes > largestRequest)
        return false;
    request.texts.resize(opening.bytes);
    return receiveAll(request.texts.data(), request.texts.size()) && cutTexts(opening, request);
}

/// Signals as descriptors: of children, and those by which a system that goes down asks everybody to end.
int watchedSignals()
{
    sigset_t watched;
    ::sigemptyset(&watched);
    for (const int signal : {SIGCHLD, SIGTERM, SIGINT, SIGHUP})
        ::sigaddset(&watched, signal);
    ::sigprocmask(SIG_BLOCK, &watched, nullptr);
    return ::signalfd(-1, &watched, SFD_CLOEXEC | SFD_NONBLOCK);
}

/// In the child. Returns only when the program could not be started.
void becomeServer(const Request &request, pid_t host, int &failures)
{
    // Should this host be killed, at least the server itself goes with it.
    if (::setsid() < 0 || ::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0)
        return;
    if (::getppid() != host)
        ::_exit(127);
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    // Copied up first: the pipes may have the very numbers that they shall have in the end.
    const int input = ::fcntl(request.input, F_DUPFD_CLOEXEC, 10), output = ::fcntl(request.output, F_DUPFD_CLOEXEC, 10);
    const int reports = ::fcntl(failures, F_DUPFD_CLOEXEC, 10);
    if (null < 0 || input < 0 || output < 0 || reports < 0)
        return;
    failures = reports;
    if (::dup2(input, STDIN_FILENO) < 0 || ::dup2(output, STDOUT_FILENO) < 0 || ::dup2(null, STDERR_FILENO) < 0)
        return;
    // Nothing but the three streams stays open; as a flag, so that a failure can still be told.
    if (::close_range(3, UINT_MAX, CLOSE_RANGE_CLOEXEC) != 0)
        for (int number = 3, end = int(::sysconf(_SC_OPEN_MAX)); number < end; ++number)
            ::fcntl(number, F_SETFD, FD_CLOEXEC);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execve(request.arguments[0], request.arguments.data(), request.environment.data());
}

/// Starts the server and returns 0 when it has begun, otherwise the error.
int start(const Request &request)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return errno;
    const pid_t host = ::getpid(), server = ::fork();
    if (server < 0)
        return errno;
    if (server == 0) {
        int failures = ends[1];
        becomeServer(request, host, failures);
        const int error = errno;
        [[maybe_unused]] const auto told = ::write(failures, &error, sizeof error);
        ::_exit(127);
    }
    ::close(ends[1]);
    int error = 0;
    ssize_t count = 0;
    do
        count = ::read(ends[0], &error, sizeof error);
    while (count < 0 && errno == EINTR);
    ::close(ends[0]);
    return count == 0 ? 0 : error;
}

void answer(Answer error)
{
    ssize_t count = 0;
    do
        count = ::send(control, &error, sizeof error, MSG_NOSIGNAL);
    while (count < 0 && errno == EINTR);
}

/// Waits for the children that have ended. False when none is left: then nothing of the server is, all of which is below this
/// process, the adopter of the orphans.
bool reap()
{
    for (;;) {
        const pid_t gone = ::waitpid(-1, nullptr, WNOHANG | __WALL);
        if (gone == 0)
            return true;
        if (gone < 0 && errno != EINTR)
            return false;
    }
}

Ending::System theSystem()
{
    return {.descendants = descendants,
        .children = children,
        .send = [](const Process &process, int signal) { send(process, signal); },
        .killChild = [](pid_t child) { ::kill(child, SIGKILL); },
        .reap = reap,
        .now = now};
}

/// The life of a server that has begun.
class Supervision {
public:
    explicit Supervision(int signals) : signals(signals) { }

    void run()
    {
        while (reap()) {
            pollfd waiting[] = {{ended ? -1 : control, POLLIN, 0}, {signals, POLLIN, 0}};
            const int timeout = due < 0 ? -1 : int(std::max(0L, due - now()));
            if (::poll(waiting, 2, timeout) < 0 && errno != EINTR)
                return;
            if (waiting[0].revents)
                readCommands();
            if (waiting[1].revents)
                readSignals();
            if (due >= 0 && now() >= due)
                due = now() + ending.force();
        }
    }

private:
    void readCommands()
    {
        char commands[64];
        const ssize_t count = ::recv(control, commands, sizeof commands, MSG_DONTWAIT);
        if (count < 0 && (errno == EINTR || errno == EAGAIN))
            return;
        for (ssize_t i = 0; i < count; ++i) {
            if (commands[i] == char(Command::terminate))
                ending.ask();
            else if (commands[i] == char(Command::kill))
                due = now();
        }
        if (count > 0)
            return;
        ended = true; // Korvane has gone, or wants nothing of this server any more
        endByItself();
    }

    void readSignals()
    {
        signalfd_siginfo arrived{};
        while (::read(signals, &arrived, sizeof arrived) == sizeof arrived) {
            if (arrived.ssi_signo != SIGCHLD)
                endByItself();
            else if (due >= 0)
                due = std::min(due, now() + pauseAfterChange);
        }
    }

    void endByItself()
    {
        if (due >= 0)
            return;
        ending.ask();
        due = now() + grace;
    }

    const int signals;
    Ending ending{theSystem()};
    bool ended = false; ///< The control socket.
    long due = -1; ///< When to force next; -1 for never.
};

} // namespace

int main()
{
    ::signal(SIGCHLD, SIG_DFL); // ignored, it would not arrive
    Request request;
    if (!receive(request))
        return 1;
    const int signals = watchedSignals();
    if (signals < 0 || ::prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
        answer(errno);
        return 1;
    }
    const int error = start(request);
    ::explicit_bzero(request.texts.data(), request.texts.size()); // secrets are among them
    ::close(request.input);
    ::close(request.output);
    answer(error);
    if (error != 0)
        return 1;
    Supervision(signals).run();
    return 0;
}
