#include "Vorrel/Platform/Linux/LinuxPasteboard.h"
#include "Vorrel/Platform/Linux/LinuxPlatform.h"
#include "Vorrel/Shell/AppLog.h"
#include "Vorrel/Shell/CommandLineTool.h"

#include "Support/ChildProcess.h"
#include "Support/Descriptor.h"
#include "Support/Text.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <optional>
#include <termios.h>
#include <unistd.h>

using namespace korvane;

namespace {

/// Questions on the terminal. Without one, and for everything that needs a window, the answer is no.
class TerminalDialogs final : public Dialogs {
public:
    Task<bool> confirm(std::string title, std::string detail) override
    {
        if (yes)
            co_return true;
        if (!::isatty(STDIN_FILENO) || !::isatty(STDERR_FILENO))
            co_return false;
        ::tcflush(STDIN_FILENO, TCIFLUSH); // what was typed before is no answer to what only now stands here
        std::cerr << withoutControls(title) << "\n" << withoutControls(detail) << "\nAllow? [y/N] " << std::flush;
        // Nothing blocks before a whole line is there: Ctrl-C is noticed at any moment of the wait.
        const Descriptor terminal(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
        co_await waitUntilReadable(terminal);
        std::string answer;
        std::getline(std::cin, answer);
        co_return answer == "y" || answer == "Y" || answer == "yes";
    }
    Task<void> failure(std::string, std::string) override { co_return; }
    Task<std::optional<std::vector<std::string>>> choose(Choice) override { co_return std::nullopt; }

    bool yes = false;
};

/// Ctrl-C as something to wait for. A second one ends the process, as does the first while nobody waits.
class Interrupts {
public:
    explicit Interrupts(Executor loop) : loop(std::move(loop)) { }
    ~Interrupts() { stopListening(); }

    /// Has `stop` called at the next one; with null nobody waits any more.
    void listen(std::function<void()> stop)
    {
        stopListening();
        int ends[2];
        if (!stop || ::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
            return;
        reading.reset(ends[0]);
        writing.reset(ends[1]);
        written = ends[1];
        waiting = spawn(loop, wait(reading, std::move(stop)));
        struct sigaction action = {};
        action.sa_handler = note;
        action.sa_flags = static_cast<int>(SA_RESETHAND);
        ::sigaction(SIGINT, &action, nullptr);
    }

private:
    void stopListening()
    {
        std::signal(SIGINT, SIG_DFL);
        waiting.cancel();
    }
    static void note(int)
    {
        const int before = errno;
        [[maybe_unused]] const auto count = ::write(written, "", 1);
        errno = before;
    }
    static Task<void> wait(const Descriptor &reading, std::function<void()> stop)
    {
        co_await waitUntilReadable(reading);
        stop();
    }

    // A handler of signals may use nothing else.
    static inline volatile std::sig_atomic_t written = -1;
    const Executor loop;
    Descriptor reading, writing;
    TaskHandle waiting;
};

void write(std::FILE *stream, std::string_view text)
{
    std::fwrite(text.data(), 1, text.size(), stream);
    std::fflush(stream);
}

/// One line that is written over and over, cut to what fits.
void showProgress(std::string_view line)
{
    constexpr std::size_t width = 79;
    const std::vector<std::string_view> shown = characters(line);
    std::string text = "\r\033[K";
    for (std::size_t i = 0; i < std::min(shown.size(), width); ++i)
        text += shown[i];
    write(stderr, text);
}

/// What is typed, a secret, is not shown; what comes after it is, also when a signal ends the process.
class HiddenTyping {
public:
    HiddenTyping()
    {
        if (::tcgetattr(STDIN_FILENO, &before) != 0)
            return;
        handle(restoreAndEnd);
        termios silent = before;
        silent.c_lflag &= ~tcflag_t(ECHO);
        changed = ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent) == 0;
    }
    ~HiddenTyping()
    {
        if (changed)
            ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
        handle(SIG_DFL);
    }
    HiddenTyping(const HiddenTyping &) = delete;
    HiddenTyping &operator=(const HiddenTyping &) = delete;

private:
    static void handle(void (*handler)(int))
    {
        struct sigaction action = {};
        action.sa_handler = handler;
        action.sa_flags = static_cast<int>(SA_RESETHAND | unsigned(SA_NODEFER));
        for (const int signal : {SIGINT, SIGQUIT, SIGTERM, SIGHUP})
            ::sigaction(signal, &action, nullptr);
    }
    static void restoreAndEnd(int signal)
    {
        ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
        ::raise(signal);
    }

    static inline termios before{}; // a handler of signals can be given nothing else
    bool changed = false;
};

/// Standard input to its end, on a terminal one line.
std::optional<std::string> input(std::size_t limit)
{
    const bool typed = ::isatty(STDIN_FILENO);
    const std::optional<HiddenTyping> hidden = typed ? std::make_optional<HiddenTyping>() : std::nullopt;
    std::string all;
    for (int byte = std::getchar(); byte != EOF && !(typed && byte == '\n'); byte = std::getchar()) {
        if (all.size() == limit)
            return std::nullopt;
        all.push_back(char(byte));
    }
    return all;
}

std::string workingDirectory()
{
    std::error_code failure;
    return std::filesystem::current_path(failure).string();
}

} // namespace

int main(int count, char **words)
{
    std::signal(SIGPIPE, SIG_IGN); // a reader that has seen enough is no failure
    keepEndedChildren();
    AppLog::silence();
    MainLoop loop;
    int status = 1;
    {
        LinuxPlatform system(loop.executor(), processVariables());
        TerminalDialogs dialogs;
        LinuxPasteboard pasteboard(system.pool.executor(), processVariables());
        Interrupts interrupts(loop.executor());
        CommandLineTool tool({.loop = loop,
            .platform = system.ports(dialogs, pasteboard, false),
            .out = [](std::string_view text) { write(stdout, text); },
            .err = [](std::string_view text) { write(stderr, text); },
            .consent = [&](bool yes) { dialogs.yes = yes; },
            .input = input,
            .workingDirectory = workingDirectory(),
            .progress = ::isatty(STDERR_FILENO) ? std::function<void(std::string_view)>(showProgress) : nullptr,
            .onInterrupt = [&](std::function<void()> stop) { interrupts.listen(std::move(stop)); },
            .makeProvider = {}});
        const std::vector<std::string> arguments(words + std::min(count, 1), words + count);
        status = tool.run(arguments);
        loop.shutDown();
        system.join();
    }
    return status;
}
