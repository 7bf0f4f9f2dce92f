#pragma once

#include "Support/ChildProcess.h"
#include "Support/Descriptor.h"
#include "Support/UUID.h"

#include <fcntl.h>
#include <filesystem>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace korvane::test {

/// What the system says of a process; empty for one that has gone, also while it is asked.
inline std::string tableEntry(pid_t id, const std::string &name)
{
    const Descriptor file(::open(("/proc/" + std::to_string(id) + "/" + name).c_str(), O_RDONLY | O_CLOEXEC));
    std::string all;
    char piece[4096];
    for (ssize_t count; (count = ::read(file.get(), piece, sizeof piece)) > 0;)
        all.append(piece, std::size_t(count));
    return all;
}

/// Whether the process runs; one that has ended and waits for its parent does not.
inline bool isAlive(pid_t id)
{
    const std::string stat = tableEntry(id, "stat");
    const auto behindName = stat.rfind(") ");
    return behindName != stat.npos && stat[behindName + 2] != 'Z' && stat[behindName + 2] != 'X';
}

/// Finds the processes that a server has brought about, wherever they went, by a variable that they inherit.
class MarkedProcesses {
public:
    /// As "NAME=value", for the environment of what shall be found.
    std::string variable() const { return name() + "=" + mark; }
    static std::string name() { return "KORVANE_TEST_MARK"; }
    const std::string &value() const { return mark; }

    std::vector<pid_t> alive() const
    {
        std::vector<pid_t> found;
        std::error_code failure;
        for (std::filesystem::directory_iterator at("/proc", failure), end; !failure && at != end; at.increment(failure)) {
            const pid_t id = std::atoi(at->path().filename().c_str());
            if (id > 0 && isMarked(id) && isAlive(id))
                found.push_back(id);
        }
        return found;
    }

private:
    bool isMarked(pid_t id) const { return tableEntry(id, "environ").find(mark) != std::string::npos; }

    const std::string mark = newUUID();
};

/// How many descriptors this process has open.
inline std::ptrdiff_t openDescriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
}

} // namespace korvane::test
