#include "bench/IndexRivals.h"

#include "Vorrel/Platform/Linux/LinuxPlatform.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace korvane::bench {

namespace {

void require(bool good, const std::string &what)
{
    if (!good)
        throw std::runtime_error(what + ": " + std::strerror(errno));
}

class FileActions {
public:
    FileActions() { posix_spawn_file_actions_init(&actions); }
    ~FileActions() { posix_spawn_file_actions_destroy(&actions); }
    FileActions(const FileActions &) = delete;
    posix_spawn_file_actions_t actions;
};

pid_t start(const std::vector<std::string> &words, const FileActions &files)
{
    std::vector<char *> arguments;
    for (const std::string &word : words)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    pid_t child = -1;
    errno = posix_spawnp(&child, arguments[0], &files.actions, nullptr, arguments.data(), environ);
    require(errno == 0, words.front());
    return child;
}

} // namespace

double microseconds()
{
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

Conversation::Conversation(const std::vector<std::string> &words)
{
    int to[2], from[2];
    require(pipe2(to, O_CLOEXEC) == 0 && pipe2(from, O_CLOEXEC) == 0, "pipe");
    FileActions files;
    posix_spawn_file_actions_adddup2(&files.actions, to[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&files.actions, from[1], STDOUT_FILENO);
    child = start(words, files);
    close(to[0]), close(from[1]);
    input = to[1], output = from[0];
}

Conversation::~Conversation()
{
    close(input); // ends a program that waits for a line
    close(output);
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
}

void Conversation::say(const std::string &line) const
{
    const std::string whole = line + "\n";
    require(write(input, whole.data(), whole.size()) == ssize_t(whole.size()), "write");
}

std::string Conversation::hear(int seconds)
{
    std::size_t end;
    while ((end = heard.find('\n')) == heard.npos) {
        pollfd readable{output, POLLIN, 0};
        char piece[65536];
        const ssize_t size = poll(&readable, 1, seconds * 1000) > 0 ? read(output, piece, sizeof piece) : 0;
        if (size <= 0)
            throw std::runtime_error("a program under measurement does not answer");
        heard.append(piece, std::size_t(size));
    }
    std::string line = heard.substr(0, end);
    heard.erase(0, end + 1);
    return line;
}

std::string Conversation::ask(const std::string &line, int seconds)
{
    say(line);
    return hear(seconds);
}

double microsecondsOf(const std::vector<std::string> &words)
{
    FileActions files;
    posix_spawn_file_actions_addopen(&files.actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const double begin = microseconds();
    const pid_t child = start(words, files);
    int status = 0;
    waitpid(child, &status, 0);
    const double time = microseconds() - begin;
    if (!WIFEXITED(status) || WEXITSTATUS(status) > 1) // plocate ends with 1 when it finds nothing
        throw std::runtime_error(words.front() + " failed");
    return time;
}

std::string outputOf(const std::vector<std::string> &words)
{
    Conversation program(words);
    std::string text;
    try {
        for (;;)
            text += program.hear(60) + "\n";
    } catch (const std::runtime_error &) { // its end
    }
    return text;
}

bool isInstalled(const std::string &program)
{
    const char *path = std::getenv("PATH");
    std::istringstream folders(std::string(path ? path : "") + ":/usr/sbin:/sbin");
    for (std::string folder; std::getline(folders, folder, ':');)
        if (access((folder + "/" + program).c_str(), X_OK) == 0)
            return true;
    return false;
}

BareSearch::BareSearch(const std::string &store, const CompiledSearch &search, const std::string &scratch)
{
    {
        std::ofstream file(scratch, std::ios::binary);
        file << search.sql.size() << "\n" << search.sql << "\n";
        for (const auto &value : search.values) {
            if (const auto *text = std::get_if<std::string>(&value))
                file << "T " << text->size() << "\n" << *text << "\n";
            else
                file << "N " << std::get<double>(value) << "\n";
        }
    }
    const auto beside = std::filesystem::path(executablePath()).parent_path() / "korvane_bench_search";
    program.emplace(std::vector{beside.string(), store, scratch});
}

std::vector<double> BareSearch::run(int times)
{
    std::istringstream line(program->ask(std::to_string(times)));
    std::vector<double> all;
    for (double one; line >> one;)
        all.push_back(one);
    if (all.size() != std::size_t(times))
        throw std::runtime_error("the bare search failed");
    return all;
}

} // namespace korvane::bench
