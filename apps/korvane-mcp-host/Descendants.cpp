#include "Descendants.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

/// False for a process that has gone.
bool look(pid_t id, Process &process)
{
    char path[64], text[1024];
    std::snprintf(path, sizeof path, "/proc/%d/stat", int(id));
    const int file = ::open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return false;
    const ssize_t count = ::read(file, text, sizeof text - 1);
    ::close(file);
    if (count <= 0)
        return false;
    text[count] = '\0';
    // The program's name stands in parentheses and may itself hold any character.
    const char *behindName = std::strrchr(text, ')');
    int parent = 0, threads = 0;
    unsigned long long began = 0;
    char state = 0;
    const char *fields = " %c %d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %d %*d %llu";
    if (!behindName || std::sscanf(behindName + 1, fields, &state, &parent, &threads, &began) != 4)
        return false;
    process = {id, parent, began, state, threads};
    return true;
}

std::vector<Process> everything()
{
    std::vector<Process> all;
    DIR *table = ::opendir("/proc");
    if (!table)
        return all;
    while (const dirent *entry = ::readdir(table)) {
        const long id = std::strtol(entry->d_name, nullptr, 10);
        Process process;
        if (id > 0 && look(pid_t(id), process))
            all.push_back(process);
    }
    ::closedir(table);
    return all;
}

bool holds(const std::vector<Process> &processes, pid_t id)
{
    return std::any_of(processes.begin(), processes.end(), [id](const Process &process) { return process.id == id; });
}

} // namespace

std::vector<Process> descendants()
{
    std::vector<Process> rest = everything(), found;
    const pid_t self = ::getpid();
    // A child usually has the higher number, but not where the numbers have come round.
    for (std::size_t before = rest.size() + 1; rest.size() < before;) {
        before = rest.size();
        std::erase_if(rest, [&](const Process &process) {
            const bool ours = process.parent == self || holds(found, process.parent);
            if (ours)
                found.push_back(process);
            return ours;
        });
    }
    // Only now: one that has ended may still be the parent of others for a moment.
    std::erase_if(found, [](const Process &process) { return process.ended(); });
    return found;
}

std::vector<pid_t> children()
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/task/%d/children", int(::getpid()));
    std::vector<pid_t> all;
    FILE *list = std::fopen(path, "re");
    if (!list)
        return all;
    for (int id = 0; std::fscanf(list, "%d", &id) == 1;)
        all.push_back(id);
    std::fclose(list);
    return all;
}

void send(const Process &process, int signal)
{
    const int handle = int(::syscall(SYS_pidfd_open, process.id, 0));
    if (handle < 0) {
        if (errno != ESRCH) // an old kernel, or a sandbox that does not know the call
            ::kill(process.id, signal);
        return;
    }
    // The handle holds on to whoever has the number now: looked at through it, that cannot change any more.
    Process now;
    if (look(process.id, now) && now.isSame(process))
        ::syscall(SYS_pidfd_send_signal, handle, signal, nullptr, 0);
    ::close(handle);
}
