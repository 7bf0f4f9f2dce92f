#include "bench/Program.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace korvane::bench {

namespace {

using namespace std::chrono_literals;

constexpr auto patience = 20s;

void require(bool good, const std::string &what)
{
    if (!good)
        throw std::runtime_error(what + ": " + std::strerror(errno));
}

/// The number behind `label` in a file of lines "label: number unit".
std::int64_t field(const std::filesystem::path &file, const std::string &label)
{
    std::ifstream lines(file);
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with(label + ':'))
            return std::stoll(line.substr(label.size() + 1));
    throw std::runtime_error("there is no " + label + " in " + file.string());
}

} // namespace

Program::Program(const std::vector<std::string> &words)
{
    int ends[2];
    require(pipe2(ends, O_CLOEXEC) == 0, "pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
    std::vector<char *> arguments;
    for (const std::string &word : words)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    begin = std::chrono::steady_clock::now();
    const int failure = posix_spawn(&process, words.front().c_str(), &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    output = ends[0];
    if (failure != 0) {
        close(output);
        errno = failure;
    }
    require(failure == 0, words.front());
}

Program::~Program()
{
    stop();
    close(output);
}

Milliseconds Program::untilItSays(const std::string &text)
{
    while (said.find(text) == said.npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(patience - sinceStart());
        pollfd readable{output, POLLIN, 0};
        char piece[4096];
        const ssize_t size = left > 0ms && poll(&readable, 1, int(left.count())) > 0 ? read(output, piece, sizeof piece) : 0;
        if (size <= 0)
            throw std::runtime_error("\"" + text + "\" was not said, but: " + said);
        said.append(piece, std::size_t(size));
    }
    return sinceStart();
}

void Program::stop()
{
    if (process < 0)
        return;
    kill(process, SIGTERM);
    waitpid(std::exchange(process, -1), nullptr, 0);
}

void Program::signal(int number) const { kill(process, number); }

const std::string &Program::everythingSaid()
{
    char piece[4096];
    for (ssize_t size; (size = read(output, piece, sizeof piece)) > 0;)
        said.append(piece, std::size_t(size));
    return said;
}

Program::Memory Program::memory() const
{
    const std::filesystem::path folder = "/proc/" + std::to_string(process);
    return {double(field(folder / "status", "VmRSS")) / 1024, double(field(folder / "smaps_rollup", "Pss")) / 1024};
}

Program::Work Program::work() const
{
    Work sum{};
    for (const auto &thread : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
        double nanoseconds = 0;
        std::ifstream(thread.path() / "schedstat") >> nanoseconds;
        sum.cpuMilliseconds += nanoseconds / 1e6;
        sum.wakeUps += field(thread.path() / "status", "voluntary_ctxt_switches")
            + field(thread.path() / "status", "nonvoluntary_ctxt_switches");
        ++sum.threads;
    }
    return sum;
}

void startOnce(const std::string &korvane)
{
    Program program({korvane});
    program.untilItSays("Korvane is ready");
    program.stop();
}

} // namespace korvane::bench
