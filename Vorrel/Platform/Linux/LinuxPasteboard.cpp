#include "Vorrel/Platform/Linux/LinuxPasteboard.h"

#include "Support/ChildProcess.h"
#include "Vorrel/Platform/Linux/LinuxPasteboardWatching.h"

#include <cerrno>
#include <csignal>
#include <poll.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace korvane {

namespace {

constexpr int patience = 2000; // milliseconds

/// A file without a name that holds the text, to be read from its beginning. None when there is no room for it.
Descriptor fileWith(std::string_view text)
{
    Descriptor file(::memfd_create("text", MFD_CLOEXEC));
    while (file && !text.empty()) {
        const ssize_t count = ::write(file.get(), text.data(), text.size());
        if (count > 0)
            text.remove_prefix(std::size_t(count));
        else if (errno != EINTR)
            file.reset();
    }
    if (file)
        ::lseek(file.get(), 0, SEEK_SET);
    return file;
}

/// Whether the child ends well in time; it is ended when it does not.
bool endsWell(pid_t child)
{
    const Descriptor end(int(::syscall(SYS_pidfd_open, child, 0)));
    pollfd waiting{end.get(), POLLIN, 0};
    int count = 0;
    do // a signal to this program, such as Ctrl-C, is no end of the other
        count = end ? ::poll(&waiting, 1, patience) : 0;
    while (count < 0 && errno == EINTR);
    if (count <= 0)
        ::kill(-child, SIGKILL);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) { }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// The program takes the clipboard and leaves a process of its own behind that owns it.
bool copyByProgram(const std::vector<std::string> &variables, const std::string &text)
{
    const auto program = findProgram("wl-copy", environmentValue(variables, "PATH"));
    const Descriptor input = program ? fileWith(text) : Descriptor();
    if (!input)
        return false;
    try {
        const PipedProcess child =
            spawnPipedProcess({.arguments = {*program, "--type", "text/plain"}, .environment = variables, .input = input.get()});
        return endsWell(child.id);
    } catch (const std::system_error &) {
        return false;
    }
}

} // namespace

LinuxPasteboard::LinuxPasteboard(const Executor &pool, std::vector<std::string> given) :
    actor(pool), variables(std::move(given)), x11(pool, std::string(environmentValue(variables, "DISPLAY")))
{
}

Task<bool> LinuxPasteboard::setText(std::string text)
{
    const bool isWayland = !environmentValue(variables, "WAYLAND_DISPLAY").empty();
    if (isWayland && !sharesCopiesWithX11(variables) && text.size() <= XcbPasteboard::textLimit) {
        auto work = [variables = variables, text](const std::stop_token &) { return copyByProgram(variables, text); };
        if (co_await actor.run(std::move(work)))
            co_return true;
    }
    co_return co_await x11.setText(std::move(text));
}

} // namespace korvane
