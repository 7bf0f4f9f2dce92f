#pragma once

#include "CommandCore/IndexedFile.h"
#include "Vorrel/FileIndex/IndexWriters.h"
#include "Vorrel/Store/Database.h"

#include <optional>
#include <string>
#include <vector>

namespace korvane {

/// How much the long operations of the index do at a time. Every step lets what waits for the connection go ahead; these
/// keep it for some ten milliseconds at a million rows.
struct IndexSteps {
    std::size_t comparedRows = 5'000;
    std::size_t removedRows = 2'000; ///< From the staging table.
    /// Beyond so many, paths to remember cost more memory than a whole replacement costs time.
    std::size_t mostDifferences = 250'000;
};

/// One root's rows on their way from the staging table to the index.
///
/// Reading happens in steps that keep the connection for some milliseconds each, so that other work gets in between;
/// what changes the index is one transaction, which the caller hands over.
class RootPublication {
public:
    using Statements = std::vector<std::pair<std::string, std::vector<SQLValue>>>;

    /// The publication of `root` beside all `roots`; those that are nested in it keep their rows.
    RootPublication(std::shared_ptr<Database> database, IndexSteps steps, std::string root, const std::vector<IndexRoot> &roots);

    /// Whether the index has any row of the root.
    Task<bool> hasRows() const;
    /// Puts the staged rows in the place of the present ones, whatever these are.
    Statements replacement() const;
    /// What differs between the present rows and the staged ones; nothing if it is so much that `replacement` is cheaper.
    Task<std::optional<std::vector<SQLBatch>>> difference() const;
    /// Makes `difference` right for rows that changed after it began to look.
    std::vector<SQLBatch> corrected(std::vector<SQLBatch> difference, const IndexChanges &changes) const;
    /// Takes the root's rows out of the staging table, in several transactions.
    Task<void> removeStaged() const;

private:
    struct Range {
        std::string first; ///< Within the range.
        std::string end; ///< Behind it.
    };
    struct Difference;

    std::string condition(const std::string &column) const;
    std::vector<SQLValue> valuesOf(const Range &range) const;
    std::vector<Range> ranges() const;
    static std::vector<Range> treeOf(const std::string &path);
    Task<std::string> endOfStep(std::string table, Range rest, std::size_t rowCount) const;
    Task<void> addGone(Range range, Difference &difference) const;
    Task<void> addStaged(Range range, Difference &difference) const;

    std::shared_ptr<Database> database;
    IndexSteps steps;
    std::string root;
    std::vector<std::string> nested;
    std::vector<SQLValue> scopeValues;
};

} // namespace korvane
