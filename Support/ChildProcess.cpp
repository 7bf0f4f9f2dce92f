#include "Support/ChildProcess.h"

#include "Support/Descriptor.h"

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace korvane {

namespace {

[[noreturn]] void fail(int error, const char *step) { throw std::system_error(error, std::generic_category(), step); }

/// What the child tells through the pipe that the start of its program closes.
struct Report {
    enum Kind : int { Started, Failed } kind;
    int value; ///< The process id, or the error.
};

/// Everything that the child needs, made ready before the fork: between it and the program's start only
/// calls that are safe in a signal handler are allowed, since other threads may have held any lock.
struct Prepared {
    const char *program;
    char *const *arguments;
    char *const *shellArguments; ///< For a script that names no interpreter.
    char *const *environment;
    const char *workingDirectory; ///< Null to stay.
    int reports;
    int input = -1, output = -1, errors = -1; ///< For the standard streams; -1 for "/dev/null".
    pid_t boundTo = 0; ///< The process with which the program ends; 0 for none.
};

void tell(int reports, Report report)
{
    while (::write(reports, &report, sizeof report) < 0 && errno == EINTR) { }
}

[[noreturn]] void giveUp(int reports)
{
    tell(reports, {Report::Failed, errno});
    ::_exit(127);
}

void resetSignals()
{
    // By the system call itself: the library keeps two signals to itself and lets nobody reset them, but a process whose
    // parent ignores those inherits that. The system's structure is smaller than this, and zeros mean the default.
    const std::array<char, 64> byDefault{};
    constexpr int signals = 64;
    for (int signal = 1; signal <= signals; ++signal)
        ::syscall(SYS_rt_sigaction, signal, byDefault.data(), nullptr, signals / 8);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

void closeFrom(int first)
{
    if (::close_range(static_cast<unsigned>(first), UINT_MAX, 0) == 0)
        return;
    // An old kernel, or a sandbox that does not know the call.
    struct rlimit limit { };
    const bool known = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < 65536;
    for (int number = first, end = known ? static_cast<int>(limit.rlim_cur) : 65536; number < end; ++number)
        ::close(number);
}

/// Leaves the three standard streams where they belong and the reports at 3; returns their new number.
int arrangeDescriptors(const Prepared &prepared)
{
    const int reports = prepared.reports;
    const int null = ::open("/dev/null", O_RDWR);
    if (null < 0)
        giveUp(reports);
    const int streams[] = {prepared.input < 0 ? null : prepared.input, prepared.output < 0 ? null : prepared.output,
        prepared.errors < 0 ? null : prepared.errors};
    for (int stream = 0; stream < 3; ++stream)
        if (::dup2(streams[stream], stream) < 0)
            giveUp(reports);
    if (::dup3(reports, 3, O_CLOEXEC) < 0)
        giveUp(reports);
    closeFrom(4);
    return 3;
}

/// Makes a group, and asks to be ended when the parent is; it may have been already.
void bindTo(pid_t parent, int reports)
{
    if (::setpgid(0, 0) != 0 || ::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0)
        giveUp(reports);
    if (::getppid() != parent)
        ::_exit(127);
}

[[noreturn]] void becomeProgram(const Prepared &prepared)
{
    if (prepared.boundTo != 0)
        bindTo(prepared.boundTo, prepared.reports);
    tell(prepared.reports, {Report::Started, ::getpid()});
    const int reports = arrangeDescriptors(prepared);
    resetSignals();
    if (prepared.workingDirectory && ::chdir(prepared.workingDirectory) != 0)
        giveUp(reports);
    ::execve(prepared.program, prepared.arguments, prepared.environment);
    if (errno == ENOEXEC)
        ::execve(prepared.shellArguments[0], prepared.shellArguments, prepared.environment);
    giveUp(reports);
}

/// The child in between: it makes the session and leaves, so that the program has no parent to lose.
[[noreturn]] void forkAgain(const Prepared &prepared)
{
    ::setsid();
    const pid_t program = ::fork();
    if (program < 0)
        giveUp(prepared.reports);
    if (program == 0)
        becomeProgram(prepared);
    ::_exit(0);
}

std::vector<char *> pointers(const std::vector<std::string> &texts)
{
    std::vector<char *> all;
    for (const auto &text : texts)
        all.push_back(const_cast<char *>(text.c_str()));
    all.push_back(nullptr);
    return all;
}

/// Keeps this process's handlers from running in the child.
class SignalsBlocked {
public:
    SignalsBlocked()
    {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    SignalsBlocked(const SignalsBlocked &) = delete;

private:
    sigset_t before;
};

/// The process id that the child reported, once its program has begun.
pid_t readReports(const Descriptor &pipe)
{
    pid_t program = 0;
    for (;;) {
        Report report{};
        const auto count = ::read(pipe.get(), &report, sizeof report);
        if (count < 0 && errno == EINTR)
            continue;
        if (count != sizeof report)
            break;
        if (report.kind == Report::Failed)
            fail(report.value, "start");
        program = report.value;
    }
    if (program == 0)
        fail(ECHILD, "start");
    return program;
}

bool holdsNul(const std::vector<std::string> &texts)
{
    for (const auto &text : texts)
        if (text.find('\0') != std::string::npos)
            return true;
    return false;
}

/// Above the standard streams and the place that the pipe takes in the child.
Descriptor copiedUp(int number)
{
    Descriptor high(::fcntl(number, F_DUPFD_CLOEXEC, 4));
    if (!high)
        fail(errno, "descriptor");
    return high;
}

Descriptor movedUp(int number)
{
    const Descriptor low(number);
    return copiedUp(low.get());
}

struct Pipe {
    Descriptor reading, writing;
};

Pipe makePipe()
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        fail(errno, "pipe");
    Pipe pipe;
    pipe.reading.reset(ends[0]);
    pipe.writing = movedUp(ends[1]);
    return pipe;
}

/// What a program is started with, in the form that the system takes.
class Start {
public:
    explicit Start(const ChildProcess::Options &options)
    {
        if (options.arguments.empty() || holdsNul(options.arguments) || holdsNul(options.environment))
            fail(EINVAL, "arguments");
        const auto found = findProgram(options.arguments.front(), environmentValue(options.environment, "PATH"));
        if (!found)
            fail(ENOENT, "program");
        program = *found;
        shellTexts = {"/bin/sh", program};
        shellTexts.insert(shellTexts.end(), options.arguments.begin() + 1, options.arguments.end());
        arguments = pointers(options.arguments);
        shellArguments = pointers(shellTexts);
        environment = pointers(options.environment);
        prepared = {program.c_str(), arguments.data(), shellArguments.data(), environment.data(),
            options.workingDirectory.empty() ? nullptr : options.workingDirectory.c_str(), reports.writing.get()};
        if (options.input >= 0) {
            input = copiedUp(options.input);
            prepared.input = input.get();
        }
    }
    Start(const Start &) = delete;

    /// Forks; the child becomes what `child` makes of it.
    pid_t fork(void (*child)(const Prepared &))
    {
        pid_t made = 0;
        {
            const SignalsBlocked blocked;
            made = ::fork();
            if (made == 0)
                child(prepared);
        }
        if (made < 0)
            fail(errno, "fork");
        reports.writing.reset();
        return made;
    }

    Pipe reports = makePipe();
    Prepared prepared{};

private:
    Descriptor input;
    std::string program;
    std::vector<std::string> shellTexts;
    std::vector<char *> arguments, shellArguments, environment;
};

void reap(pid_t child)
{
    while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) { }
}

void makeNonBlocking(const Descriptor &descriptor)
{
    if (::fcntl(descriptor.get(), F_SETFL, O_NONBLOCK) != 0)
        fail(errno, "descriptor");
}

} // namespace

pid_t spawnDetachedProcess(const ChildProcess::Options &options)
{
    Start start(options);
    reap(start.fork([](const Prepared &prepared) { forkAgain(prepared); }));
    return readReports(start.reports.reading);
}

PipedProcess spawnPipedProcess(const ChildProcess::Options &options)
{
    Start start(options);
    Pipe output = makePipe(), errors = makePipe();
    makeNonBlocking(output.reading);
    makeNonBlocking(errors.reading);
    start.prepared.output = output.writing.get();
    start.prepared.errors = errors.writing.get();
    start.prepared.boundTo = options.endsWithUs ? ::getpid() : 0;
    const pid_t child = start.fork([](const Prepared &prepared) { becomeProgram(prepared); });
    try {
        readReports(start.reports.reading);
    } catch (...) {
        reap(child); // it has given up
        throw;
    }
    return {child, std::move(output.reading), std::move(errors.reading)};
}

void keepEndedChildren() { ::signal(SIGCHLD, SIG_DFL); }

std::vector<std::string> environmentSnapshot()
{
    std::vector<std::string> environment;
    for (char **at = ::environ; at && *at; ++at)
        environment.emplace_back(*at);
    return environment;
}

std::string_view environmentValue(const std::vector<std::string> &environment, std::string_view name)
{
    for (const std::string_view one : environment)
        if (one.size() > name.size() && one.starts_with(name) && one[name.size()] == '=')
            return one.substr(name.size() + 1);
    return {};
}

namespace {

bool isExecutableFile(const std::string &path)
{
    struct stat status { };
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

} // namespace

std::optional<std::string> findProgram(const std::string &program, std::string_view searchPath)
{
    if (program.find('/') != std::string::npos)
        return isExecutableFile(program) ? std::optional(program) : std::nullopt;
    if (program.empty())
        return std::nullopt;
    if (searchPath.empty())
        searchPath = "/usr/local/bin:/usr/bin:/bin";
    while (!searchPath.empty()) {
        const auto colon = searchPath.find(':');
        const auto folder = searchPath.substr(0, colon);
        searchPath = colon == std::string_view::npos ? std::string_view{} : searchPath.substr(colon + 1);
        // Only absolute ones: what stands in the working folder is not a program of the user's.
        if (!folder.starts_with('/'))
            continue;
        if (std::string path = std::string(folder) + "/" + program; isExecutableFile(path))
            return path;
    }
    return std::nullopt;
}

} // namespace korvane
