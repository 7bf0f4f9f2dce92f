#pragma once

#include "CommandCore/IndexedFile.h"
#include "Support/Clock.h"
#include "Vorrel/FileIndex/FileSearchStatement.h"
#include "Vorrel/FileIndex/RootPublication.h"
#include "Vorrel/Platform/UserFolders.h"
#include "Vorrel/Store/Database.h"

#include <cstdint>
#include <functional>
#include <set>

namespace korvane {

class IndexWriters;

/// The SQL of the file index over one connection: a value. Its copies know of each other's writes.
///
/// A scan writes only to the staging table, which no search looks at. `commitStagedRoot` then swaps one root's rows in,
/// in one transaction: every search sees a root wholly old or wholly new. Errors are those of `Database`.
/// Callable from any coroutine; those that write, through whichever copy, on one thread.
class FileIndexRepository {
public:
    FileIndexRepository(std::shared_ptr<Database> database, UserFolders folders, Clock &clock, IndexSteps steps = {});

    /// Files that match the query language's `text`, best first, at most `limit` (1 to 1000); below `parent`, at any
    /// depth, when it is given. An empty query finds nothing. Throws the sentences of `FileSearchQuery`, and after two
    /// seconds "File search took too long. Add a filename or folder filter and try again."
    Task<std::vector<IndexedFile>> search(std::string text, std::optional<std::string> parent, int limit) const;
    /// What is directly in `parent`, by "size", "modified" (largest and latest first) or "name"; by size for anything else.
    Task<std::vector<IndexedFile>> list(std::string parent, std::string sort, long long limit) const;

    /// Adds or renews rows, in one transaction.
    Task<void> upsert(std::vector<IndexedFile> files) const;
    /// The same in the staging table.
    Task<void> stage(std::vector<IndexedFile> files) const;
    /// Empties the staging table, in several transactions. Who stages or publishes meanwhile waits for its end.
    Task<void> clearStaging() const;
    /// Makes the rows of `root` what was staged below it, in one transaction; roots nested in it keep theirs. A root that
    /// has rows already gets only the difference, which is found beforehand in steps that let other work through. `wanted` is
    /// asked on the caller's thread just before the transaction; when it says no, `Cancelled` is thrown and nothing changes.
    /// What was staged for the root is gone afterwards, as far as that can be done; others stage meanwhile only when it is.
    /// `abandon` undoes a transaction that still runs; then, too, `Cancelled` is thrown.
    Task<void> commitStagedRoot(std::string root, std::function<bool()> wanted = {}, std::stop_token abandon = {}) const;
    /// Removes paths in order, those in `directories` with everything below them, in one transaction.
    Task<void> deleteWithSubtrees(std::vector<std::string> paths, std::set<std::string> directories) const;
    /// Which of the paths the index knows as folders.
    Task<std::set<std::string>> directories(std::vector<std::string> among) const;
    /// Which of the paths have rows below them, whether the index knows them or not.
    Task<std::set<std::string>> withRowsBelow(std::vector<std::string> among) const;
    /// Removes a path and everything below it.
    Task<void> deleteTree(std::string path) const;

    Task<std::vector<IndexRoot>> roots() const; ///< By path.
    Task<void> addRoot(std::string path) const; ///< Does nothing for a path that is a root already.
    Task<void> removeRoot(std::string id) const; ///< Leaves the rows of the index alone.
    /// Does both to the root at `path`, in one transaction: whatever happens, a root that is listed has its rows.
    Task<void> removeRootWithTree(std::string id, std::string path) const;
    Task<long long> count() const;

    Task<std::uint64_t> loadEventID() const; ///< 0 when none was saved.
    Task<void> saveEventID(std::uint64_t id) const;
    /// Whether this store has the table of names by which long terms are found, and can use it.
    Task<bool> hasNames() const;
    /// Whether that table is known to hold every name.
    Task<bool> ftsBackfillDone() const;
    Task<void> markFTSBackfillDone() const;
    /// Fills it from the rows; quiet where there is none.
    Task<void> rebuildFTS() const;
    /// Puts in order what a large publication leaves: the parts of the table of names are merged, the write-ahead log is
    /// emptied, unused memory returned. In steps that let other work through; best effort.
    Task<void> settle() const;

private:
    /// A statement around a list of paths.
    struct PathQuestion {
        std::string beginning, onePath, end;
    };
    Task<std::set<std::string>> answerTo(PathQuestion question, std::vector<std::string> among) const;
    void tellRemovedTree(const std::string &path) const;
    Task<RootPublication> publish(std::string root, std::function<bool()> wanted, std::stop_token abandon) const;
    Task<void> mergeNames() const;
    Task<long long> changeCount() const;

    std::shared_ptr<Database> database;
    UserFolders folders;
    Clock *clock;
    IndexSteps steps;
    std::shared_ptr<IndexWriters> writers;
};

} // namespace korvane
