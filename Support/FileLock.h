#pragma once

#include "Support/Descriptor.h"

#include <optional>
#include <string>

namespace korvane {

/// An exclusive lock on a file, which the system drops when the process ends, also in a crash. The file stays.
class FileLock {
public:
    enum class Failure { taken, unavailable };

    /// Takes the lock on the file at `path`, which is created for the user alone. Nothing when another process has it or
    /// there is no such place; `failure` then tells which. Not inherited by programs that this one starts. Any thread.
    static std::optional<FileLock> tryTake(const std::string &path, Failure *failure = nullptr);

    /// Whether some process has the lock, by the system's own list: the lock itself is not touched, so that
    /// nobody who tries for it at this moment is refused. Blocks briefly. Any thread.
    static bool isTaken(const std::string &path);

    /// Keeps the lock for the rest of the process's life.
    void keepForever() { file.release(); }

private:
    explicit FileLock(Descriptor file) : file(std::move(file)) { }
    Descriptor file;
};

} // namespace korvane
