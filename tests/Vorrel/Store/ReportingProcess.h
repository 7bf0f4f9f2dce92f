#pragma once

#include <chrono>
#include <csignal>
#include <functional>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace korvane::test {

/// A process that works until it is killed and tells numbers of what it has done.
class ReportingProcess {
public:
    /// `work` gets the descriptor to which it writes each number as an `int`.
    explicit ReportingProcess(const std::function<void(int reports)> &work)
    {
        int ends[2];
        if (::pipe(ends) != 0)
            throw std::runtime_error("no pipe");
        child = ::fork();
        if (child == 0) {
            ::close(ends[0]);
            try {
                work(ends[1]);
            } catch (...) {
            }
            ::_exit(1);
        }
        ::close(ends[1]);
        reports = ends[0];
    }
    ~ReportingProcess() { ::close(reports); }
    ReportingProcess(const ReportingProcess &) = delete;
    ReportingProcess &operator=(const ReportingProcess &) = delete;

    /// The next number that it tells; nothing when `patience` has passed or the process has ended.
    std::optional<int> next(std::chrono::microseconds patience)
    {
        pollfd ready{reports, POLLIN, 0};
        const timespec wait{patience.count() / 1'000'000, patience.count() % 1'000'000 * 1000};
        int number = 0;
        if (::ppoll(&ready, 1, &wait, nullptr) == 1 && ::read(reports, &number, sizeof number) == sizeof number)
            return number;
        return std::nullopt;
    }
    /// False if the process had ended by itself.
    bool kill()
    {
        ::kill(child, SIGKILL);
        int status = 0;
        ::waitpid(child, &status, 0);
        return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    }

private:
    pid_t child = -1;
    int reports = -1;
};

} // namespace korvane::test
