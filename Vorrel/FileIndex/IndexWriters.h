#pragma once

#include "Support/Task.h"

#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korvane {

/// What was written to the index and to the list of its roots since somebody began to look at them.
struct IndexChanges {
    /// More than this many are one change of everything.
    static constexpr std::size_t mostPaths = 10'000;

    bool everything = false; ///< So much that one must look again; the others say nothing then.
    std::vector<std::string> paths = {}; ///< Rows added, renewed or removed.
    std::vector<std::string> trees = {}; ///< Removed with everything below them.
};

/// What those who write to one file index know of each other: who may use the staging table, and what has changed
/// under the eyes of a publication that finds its difference in many steps. Copies of a repository share one.
///
/// Threads: one, that of the repository's callers. A change is told as it is handed to the database, so that whoever
///          hands something over after it comes after it there too.
class IndexWriters : public std::enable_shared_from_this<IndexWriters> {
    struct Waiter {
        std::optional<Continuation<void>> wake = {};
    };

public:
    /// The sole right to use the staging table, until it is destroyed.
    class Turn {
    public:
        explicit Turn(std::shared_ptr<IndexWriters> writers);
        Turn(Turn &&) noexcept = default;
        Turn &operator=(Turn &&) = delete;
        ~Turn();

    private:
        friend class IndexWriters;
        std::shared_ptr<IndexWriters> writers;
        std::list<Waiter>::iterator place;
    };

    /// Waits for everybody who asked before. Cancelled, it waits no more and takes no turn.
    Task<Turn> stagingTurn();

    /// What changes from now on, as long as the result is held.
    std::shared_ptr<const IndexChanges> watch();
    void changed(const std::vector<std::string> &paths);
    void removedTree(const std::string &path);
    void changedEverything();

private:
    template <class Change> void tell(Change change);
    void leave(std::list<Waiter>::iterator place);

    std::list<Waiter> turns; // the first has the turn
    std::vector<std::weak_ptr<IndexChanges>> watched;
};

} // namespace korvane
