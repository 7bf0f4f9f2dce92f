#pragma once

#include "Support/Descriptor.h"
#include "tests/support/DiskFolder.h"

#include <atomic>
#include <thread>

namespace korvane::test {

/// A mounted file system that misbehaves by the name of what is asked for: "hangs" gets no answer, "stale" and "broken" the
/// errors of a volume that has gone; there is nothing else in it. Needs the right to mount.
class HangingFolder {
public:
    HangingFolder();
    ~HangingFolder();

    bool mounted() const { return device.get() >= 0; }
    std::string operator/(const std::string &name) const { return disk / name; }
    /// Questions that have no answer.
    int hanging() const { return unanswered; }
    /// Every question that has none fails, and those to come.
    void letGo();

private:
    void serve();
    void answer(std::uint64_t question, int error, const void *body = nullptr, std::size_t size = 0) const;

    DiskFolder disk;
    Descriptor device, wake, wakened;
    std::atomic<int> unanswered = 0;
    std::thread server;
};

} // namespace korvane::test
