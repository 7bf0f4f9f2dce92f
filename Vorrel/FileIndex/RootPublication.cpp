#include "Vorrel/FileIndex/RootPublication.h"

#include "Vorrel/FileIndex/FileSearchStatement.h"

#include <algorithm>

namespace korvane {

namespace {

constexpr char deleteRow[] = "DELETE FROM file_index WHERE path=?";
constexpr char insertStaged[] = "INSERT INTO file_index(path,name,parent,is_directory,size,modified,batch_id) "
                                "SELECT path,name,parent,is_directory,size,modified,0 FROM file_index_staging WHERE ";
// Leaves the name alone, so that the table of names has nothing to do.
constexpr char renewRow[] =
    "UPDATE file_index SET is_directory=staged.is_directory,size=staged.size,modified=staged.modified,batch_id=0 "
    "FROM file_index_staging AS staged WHERE file_index.path=? AND staged.path=file_index.path";

/// What follows `text`, with no path in between.
std::string next(const std::string &text) { return text + '\x01'; }

} // namespace

struct RootPublication::Difference {
    std::vector<std::vector<SQLValue>> gone = {}, changed = {}, fresh = {};

    std::size_t size() const { return gone.size() + changed.size() + fresh.size(); }
    static void add(std::vector<std::vector<SQLValue>> &list, std::string path)
    {
        list.emplace_back().emplace_back(std::move(path));
    }
};

RootPublication::RootPublication(
    std::shared_ptr<Database> database, IndexSteps steps, std::string root, const std::vector<IndexRoot> &roots) :
    database(std::move(database)),
    steps(steps), root(std::move(root))
{
    const auto add = [this](const std::string &path) {
        scopeValues.emplace_back(path);
        scopeValues.emplace_back(escapedLike(beginningBelow(path)) + "%");
    };
    add(this->root);
    for (const auto &other : roots)
        if (other.path != this->root && other.path.starts_with(beginningBelow(this->root))) {
            nested.push_back(other.path);
            add(other.path);
        }
}

/// The root's own rows; `column` is how the path is named. With "+path" no index on it serves the condition, which is
/// right where a range of paths is looked through anyway.
std::string RootPublication::condition(const std::string &column) const
{
    const std::string one = column + "=? OR " + column + " LIKE ? ESCAPE '\\'";
    std::string text = one;
    for (std::size_t i = 0; i < nested.size(); ++i)
        text += " AND NOT (" + one + ")";
    return text;
}

Task<bool> RootPublication::hasRows() const
{
    auto values = scopeValues;
    std::string sql = "SELECT 1 AS found FROM file_index WHERE " + condition("path") + " LIMIT 1";
    const auto rows = co_await database->rows(std::move(sql), std::move(values));
    co_return !rows.empty();
}

RootPublication::Statements RootPublication::replacement() const
{
    return {{"DELETE FROM file_index WHERE " + condition("path"), scopeValues}, {insertStaged + condition("path"), scopeValues}};
}

/// Where the root's rows can be. On disk this connection tells case apart, as the file system does. In memory it folds it,
/// and what is below a root can begin with any path.
std::vector<RootPublication::Range> RootPublication::ranges() const
{
    if (database->path() == ":memory:" || !root.starts_with('/'))
        return {{std::string(), std::string(4, '\xff')}};
    return treeOf(root);
}

/// A path and everything below it, in the order of bytes.
std::vector<RootPublication::Range> RootPublication::treeOf(const std::string &path)
{
    if (path == "/")
        return {{"/", "0"}};
    return {{path, next(path)}, {path + "/", path + "0"}};
}

std::vector<SQLValue> RootPublication::valuesOf(const Range &range) const
{
    std::vector<SQLValue> values{range.first, range.end};
    values.insert(values.end(), scopeValues.begin(), scopeValues.end());
    return values;
}

/// Where a step that begins at `rest.first` has to end, for the rows of one table.
Task<std::string> RootPublication::endOfStep(std::string table, Range rest, std::size_t rowCount) const
{
    std::string sql = "SELECT path FROM " + table + " WHERE path>=? AND path<? ORDER BY path LIMIT 1 OFFSET ?";
    std::vector<SQLValue> values{rest.first, rest.end, double(rowCount)};
    const auto rows = co_await database->rows(std::move(sql), std::move(values));
    co_return rows.empty() ? rest.end : rows.front().at("path");
}

Task<std::optional<std::vector<SQLBatch>>> RootPublication::difference() const
{
    Difference found;
    for (const auto &range : ranges()) {
        for (Range step = range; step.first != range.end; step.first = step.end) {
            step.end = range.end;
            auto present = endOfStep("file_index", step, steps.comparedRows);
            auto staged = endOfStep("file_index_staging", step, steps.comparedRows);
            const std::string endOfPresent = co_await std::move(present);
            const std::string endOfStaged = co_await std::move(staged);
            step.end = std::min(endOfPresent, endOfStaged);
            auto gone = addGone(step, found);
            auto seen = addStaged(step, found);
            co_await std::move(gone);
            co_await std::move(seen);
            if (found.size() > steps.mostDifferences)
                co_return std::nullopt;
        }
    }
    std::vector<SQLBatch> batches;
    batches.push_back({deleteRow, std::move(found.gone)});
    batches.push_back({renewRow, std::move(found.changed)});
    batches.push_back({std::string(insertStaged) + "path=?", std::move(found.fresh)});
    co_return batches;
}

/// Rows that the scan did not see.
Task<void> RootPublication::addGone(Range range, Difference &difference) const
{
    std::string sql = "SELECT path FROM file_index WHERE path>=? AND path<? AND (" + condition("+path")
        + ") AND NOT EXISTS (SELECT 1 FROM file_index_staging AS staged WHERE staged.path=file_index.path)";
    auto values = valuesOf(range);
    auto rows = co_await database->rows(std::move(sql), std::move(values));
    for (auto &row : rows)
        Difference::add(difference.gone, std::move(row.at("path")));
}

/// Rows that it saw and that are not the same in the index. One with another name or parent, which the same path cannot
/// have unless somebody else wrote it, is removed and added.
Task<void> RootPublication::addStaged(Range range, Difference &difference) const
{
    const std::string renamed = "present.name IS NOT staged.name OR present.parent IS NOT staged.parent";
    std::string sql = "SELECT staged.path AS path,present.path IS NULL AS fresh,(" + renamed
        + ") AS renamed FROM file_index_staging AS staged LEFT JOIN file_index AS present ON present.path=staged.path "
          "WHERE staged.path>=? AND staged.path<? AND ("
        + condition("+staged.path") + ") AND (present.path IS NULL OR " + renamed
        + " OR present.is_directory IS NOT staged.is_directory OR present.size IS NOT staged.size "
          "OR present.modified IS NOT staged.modified OR present.batch_id IS NOT 0)";
    auto values = valuesOf(range);
    auto rows = co_await database->rows(std::move(sql), std::move(values));
    for (auto &row : rows) {
        std::string path = std::move(row.at("path"));
        const bool fresh = row.at("fresh") == "1";
        const bool renamed = row.at("renamed") == "1";
        if (!fresh && !renamed) {
            Difference::add(difference.changed, std::move(path));
            continue;
        }
        if (!fresh)
            Difference::add(difference.gone, path);
        Difference::add(difference.fresh, std::move(path));
    }
}

std::vector<SQLBatch> RootPublication::corrected(std::vector<SQLBatch> difference, const IndexChanges &changes) const
{
    std::vector<std::vector<SQLValue>> touched;
    for (const auto &path : changes.paths)
        touched.push_back(valuesOf({path, next(path)}));
    for (const auto &path : changes.trees)
        for (const auto &range : treeOf(path))
            touched.push_back(valuesOf(range));
    if (touched.empty())
        return difference;
    const std::string within = "path>=? AND path<? AND (" + condition("+path") + ")";
    difference.insert(difference.begin(), {"DELETE FROM file_index WHERE " + within, touched});
    difference.push_back({insertStaged + within
            + " AND NOT EXISTS (SELECT 1 FROM file_index AS present WHERE present.path=file_index_staging.path)",
        std::move(touched)});
    return difference;
}

Task<void> RootPublication::removeStaged() const
{
    const std::string sql = "DELETE FROM file_index_staging WHERE path>=? AND path<? AND (" + condition("+path") + ")";
    for (const auto &range : ranges()) {
        for (Range step = range; step.first != range.end; step.first = step.end) {
            step.end = range.end;
            auto end = endOfStep("file_index_staging", step, steps.removedRows);
            step.end = co_await std::move(end);
            auto values = valuesOf(step);
            co_await database->execute(sql, std::move(values));
        }
    }
}

} // namespace korvane
