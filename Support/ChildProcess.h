#pragma once

#include "Support/Descriptor.h"

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

/// Starting other programs. POSIX; knows no desktop. Everything here may block; any thread.
namespace korvane {

struct ChildProcess {
    /// What a program is started with; nothing else of this process reaches it but its user and limits.
    struct Options {
        /// The program, by path or by its name in the PATH of `environment`, then its arguments.
        std::vector<std::string> arguments;
        /// The whole environment, as "NAME=value".
        std::vector<std::string> environment;
        /// Empty stands for the present working folder.
        std::string workingDirectory;
        /// A piped child leads a process group, by which it and what it starts can be ended, and it is ended when the thread
        /// that started it ends, however this process goes.
        bool endsWithUs = false;
        /// Becomes its standard input and stays the caller's too; -1 for "/dev/null".
        int input = -1;
    };
};

/// Starts a program that lives on whatever becomes of this one: a session of its own, no parent that
/// waits for it, "/dev/null" as its three standard streams (but for an input of its own), no other descriptor, every
/// signal as by default. Returns its process id when it has begun; throws `std::system_error` when it could not.
pid_t spawnDetachedProcess(const ChildProcess::Options &options);

/// A child of this process, which its owner must wait for, with its two output streams to read.
struct PipedProcess {
    pid_t id = 0;
    Descriptor output, errors; ///< Reading ends, non-blocking.
};

/// Starts a program as a child: the input of the options, a pipe for each output stream, no other descriptor, every signal
/// as by default. Returns when it has begun; throws `std::system_error` when it could not.
PipedProcess spawnPipedProcess(const ChildProcess::Options &options);

/// Has ended children wait for `waitpid`, also where whoever started this process had it ignore their ends: the system would
/// take them away by itself, and their numbers could be another's when they are used. At the start of a program.
void keepEndedChildren();

/// The environment of this process as it is now. Taken at the start of the program, before any library
/// adds to it, it is what other programs are started with.
std::vector<std::string> environmentSnapshot();

/// The value of a variable in an environment like the above; empty when it is absent.
std::string_view environmentValue(const std::vector<std::string> &environment, std::string_view name);

/// The path of an executable file: `program` itself when it has a slash, otherwise the first in the
/// colon-separated `searchPath` (the system's usual folders when that is empty). Nothing without one.
std::optional<std::string> findProgram(const std::string &program, std::string_view searchPath);

} // namespace korvane
