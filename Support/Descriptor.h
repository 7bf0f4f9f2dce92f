#pragma once

#include "Support/Task.h"

#include <utility>

namespace korvane {

/// Owns one file descriptor and closes it. Empty when it holds -1.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int number) : number(number) { }
    Descriptor(Descriptor &&other) noexcept : number(other.release()) { }
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    ~Descriptor() { reset(); }

    int get() const { return number; }
    explicit operator bool() const { return number >= 0; }
    /// Gives up ownership without closing.
    int release() { return std::exchange(number, -1); }
    /// Closes what is held and holds `next`.
    void reset(int next = -1);

private:
    int number = -1;
};

/// Returns when `descriptor` can be read, is at its end, or has failed; throws `Cancelled` when the
/// caller is cancelled first. The descriptor stays open and owned by the caller, who must not close it
/// before this returns. For pipes, sockets and inotify, not for plain files.
Task<void> waitUntilReadable(const Descriptor &descriptor);

} // namespace korvane
