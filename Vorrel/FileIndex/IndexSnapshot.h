#pragma once

#include "Support/Clock.h"
#include "Vorrel/Platform/FileEvents.h"

#include <memory>
#include <string>

namespace korvane {

/// What the index holds, over a read-only connection of its own, which is opened at the first question and closed some
/// seconds after the last. It waits for no other connection and none waits for it.
///
/// Any thread. Errors are those of `Database`. A store in memory has no second connection: nothing is found there.
class IndexSnapshot final : public IndexedFolders {
public:
    /// The connection works on `pool`. `timers` is an executor of one thread on which the wait for the end of the
    /// questions takes place, so that a pool that is joined does not wait for it; `clock` is used there.
    IndexSnapshot(Executor timers, Executor pool, std::string path, Clock &clock);
    ~IndexSnapshot() override;

    Task<std::vector<IndexedFile>> folders(std::string after, int limit) override;
    Task<std::vector<IndexedFile>> files(std::string after, int limit) override;
    Task<std::vector<IndexedFile>> children(std::string parent) override;

    /// Whether a connection is open now.
    bool isOpen() const;

private:
    struct State;
    std::shared_ptr<State> state; // the wait for the end reaches it weakly
};

} // namespace korvane
