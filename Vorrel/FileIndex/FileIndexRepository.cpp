#include "Vorrel/FileIndex/FileIndexRepository.h"

#include "CommandCore/Commands.h"
#include "Support/Text.h"
#include "Support/UUID.h"
#include "Vorrel/FileIndex/IndexRows.h"
#include "Vorrel/FileIndex/IndexWriters.h"
#include "Vorrel/FileIndex/RootPublication.h"
#include "Vorrel/Store/SQLCells.h"

#include <algorithm>
#include <charconv>

namespace korvane {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::duration<double> searchBudget = 2s;
constexpr std::size_t pathsOfQuestion = 400; ///< Below SQLite's limit on placeholders.
constexpr int mostLooks = 3; ///< At a root whose rows keep changing.

constexpr char nameTableListed[] = "SELECT name FROM sqlite_master WHERE name='file_index_fts'";
constexpr char nameTableUsable[] = "SELECT rowid FROM file_index_fts WHERE file_index_fts MATCH ? LIMIT 1";
// Parts of the table of names: 4 is the table's own number. See the table's documentation, "Special INSERT commands".
constexpr char noMerging[] = "INSERT INTO file_index_fts(file_index_fts,rank) VALUES('automerge',0)";
constexpr char usualMerging[] = "INSERT INTO file_index_fts(file_index_fts,rank) VALUES('automerge',4)";
constexpr char beginMerging[] = "INSERT INTO file_index_fts(file_index_fts,rank) VALUES('merge',-200)";
constexpr char mergeStep[] = "INSERT INTO file_index_fts(file_index_fts,rank) VALUES('merge',200)";
constexpr int mostMergeSteps = 2000;
constexpr char countChanges[] = "SELECT total_changes() AS c";
constexpr char rebuildNames[] = "INSERT INTO file_index_fts(file_index_fts) VALUES('rebuild')";

constexpr char upsertFile[] =
    "INSERT INTO file_index(path,name,parent,is_directory,size,modified,batch_id) VALUES(?,?,?,?,?,?,0) "
    "ON CONFLICT(path) DO UPDATE SET name=excluded.name,parent=excluded.parent,is_directory=excluded.is_directory,"
    "size=excluded.size,modified=excluded.modified";
constexpr char stageFile[] =
    "INSERT INTO file_index_staging(path,name,parent,is_directory,size,modified) VALUES(?,?,?,?,?,?) "
    "ON CONFLICT(path) DO UPDATE SET name=excluded.name,parent=excluded.parent,is_directory=excluded.is_directory,"
    "size=excluded.size,modified=excluded.modified";
constexpr char clearStaged[] = "DELETE FROM file_index_staging";
constexpr char endOfStagedStep[] = "SELECT rowid AS value FROM file_index_staging ORDER BY rowid LIMIT 1 OFFSET ?";
constexpr char clearStagedStep[] = "DELETE FROM file_index_staging WHERE rowid<?";

constexpr char deleteFile[] = "DELETE FROM file_index WHERE path=?";
constexpr char deleteTreeOf[] = "DELETE FROM file_index WHERE path=? OR path LIKE ? ESCAPE '\\'";
constexpr char countFiles[] = "SELECT COUNT(*) AS c FROM file_index";

constexpr char loadRoots[] = "SELECT id,path FROM index_roots ORDER BY path";
constexpr char insertRoot[] = "INSERT INTO index_roots(id,path,added_at) VALUES(?,?,?)";
constexpr char deleteRoot[] = "DELETE FROM index_roots WHERE id=?";

constexpr char loadEvent[] = "SELECT value FROM settings WHERE key='fileIndex.lastEventID'";
constexpr char saveEvent[] = "INSERT INTO settings(key,value) VALUES('fileIndex.lastEventID',?) "
                             "ON CONFLICT(key) DO UPDATE SET value=excluded.value";
constexpr char loadBackfill[] = "SELECT value FROM settings WHERE key='fileIndex.ftsBackfilled'";
constexpr char markBackfill[] = "INSERT INTO settings(key,value) VALUES('fileIndex.ftsBackfilled','1') "
                                "ON CONFLICT(key) DO UPDATE SET value='1'";

constexpr char cannotBePrepared[] = "The database query could not be prepared.";

const std::string *firstText(const std::vector<SQLRow> &rows, std::string_view column)
{
    return rows.empty() ? nullptr : text(rows.front(), column);
}

/// The rows' values in the order of their paths, in which neighbours on disk are written together; of equal paths the
/// last stays the last.
std::vector<std::vector<SQLValue>> valuesOf(std::vector<IndexedFile> files)
{
    std::stable_sort(files.begin(), files.end(), [](const auto &a, const auto &b) { return a.path < b.path; });
    std::vector<std::vector<SQLValue>> rows;
    rows.reserve(files.size());
    for (auto &file : files) {
        auto &values = rows.emplace_back();
        values.reserve(6);
        std::string parent = deletingLastPathComponent(file.path);
        values.emplace_back(std::move(file.path));
        values.emplace_back(std::move(file.name));
        values.emplace_back(std::move(parent));
        values.emplace_back(file.isDirectory ? 1.0 : 0.0);
        values.emplace_back(double(file.size));
        values.emplace_back(file.modified);
    }
    return rows;
}

std::vector<std::string> pathsOf(const std::vector<IndexedFile> &files)
{
    std::vector<std::string> paths;
    paths.reserve(files.size());
    for (const auto &file : files)
        paths.push_back(file.path);
    return paths;
}

std::vector<SQLValue> treeOf(const std::string &path) { return {path, escapedLike(beginningBelow(path)) + "%"}; }

std::string orderOf(std::string_view sort)
{
    if (sort == "modified")
        return "modified DESC";
    if (sort == "name")
        return "name COLLATE NOCASE ASC";
    return "size DESC";
}

/// The same without the table of names merging its parts in between, which would take most of the transaction. It is
/// done in `settle`.
std::vector<SQLBatch> withoutMerging(std::vector<SQLBatch> batches, bool hasNames)
{
    const bool changes = std::ranges::any_of(batches, [](const SQLBatch &batch) { return !batch.rows.empty(); });
    if (!hasNames || !changes)
        return batches;
    batches.insert(batches.begin(), {noMerging, {{}}});
    batches.push_back({usualMerging, {{}}});
    return batches;
}

std::uint64_t unsignedFrom(std::string_view text)
{
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? number : 0;
}

} // namespace

FileIndexRepository::FileIndexRepository(
    std::shared_ptr<Database> database, UserFolders folders, Clock &clock, IndexSteps steps) :
    database(std::move(database)),
    folders(std::move(folders)), clock(&clock), steps(steps), writers(std::make_shared<IndexWriters>())
{
}

// Searching

Task<std::vector<IndexedFile>> FileIndexRepository::search(std::string text, std::optional<std::string> parent, int limit) const
{
    const FileSearchQuery query(text);
    if (isEmpty(query))
        co_return std::vector<IndexedFile>();
    // Owns what it uses: the connection's thread may ask for it.
    const auto question = [query, parent = std::move(parent), limit, folders = folders](NameLookup names) {
        CompiledSearch search = compile(query, parent, limit, names, folders);
        return Database::Question{std::move(search.sql), std::move(search.values), !search.usesNameIndex};
    };
    const std::function<Database::Question()> byEachName = [question] { return question(NameLookup::eachName); };
    if (!hasLongTerms(query))
        co_return co_await filesOf(database, byEachName(), searchBudget);
    try {
        FileRows rows;
        co_await database->readIf(nameTableListed, question(NameLookup::nameTable), byEachName, rows.reader(), searchBudget);
        co_return rows.take();
    } catch (const AppError &error) {
        // A SQLite without the table's module lists it all the same.
        if (error.errorDescription() != cannotBePrepared)
            throw;
    }
    co_return co_await filesOf(database, byEachName(), searchBudget);
}

Task<std::vector<IndexedFile>> FileIndexRepository::list(std::string parent, std::string sort, long long limit) const
{
    std::string sql =
        "SELECT path,name,is_directory,size,modified FROM file_index WHERE parent=? ORDER BY " + orderOf(sort) + " LIMIT ?";
    std::vector<SQLValue> values{folders.expandingTilde(parent), double(limit)};
    co_return co_await filesOf(database, {std::move(sql), std::move(values)});
}

// Writing

Task<void> FileIndexRepository::upsert(std::vector<IndexedFile> files) const
{
    writers->changed(pathsOf(files));
    auto rows = valuesOf(std::move(files));
    co_await database->executeBatch(upsertFile, std::move(rows));
}

Task<void> FileIndexRepository::stage(std::vector<IndexedFile> files) const
{
    if (files.empty())
        co_return;
    const auto turn = co_await writers->stagingTurn();
    auto rows = valuesOf(std::move(files));
    co_await database->executeBatch(stageFile, std::move(rows));
}

Task<void> FileIndexRepository::clearStaging() const
{
    const auto turn = co_await writers->stagingTurn();
    for (;;) {
        std::vector<SQLValue> offset{double(steps.removedRows)};
        const auto rows = co_await database->rows(endOfStagedStep, std::move(offset));
        const auto *end = firstText(rows, "value");
        if (!end)
            break;
        std::vector<SQLValue> values{realFrom(*end).value_or(0)};
        co_await database->execute(clearStagedStep, std::move(values));
    }
    co_await database->execute(clearStaged);
}

Task<void> FileIndexRepository::commitStagedRoot(std::string root, std::function<bool()> wanted, std::stop_token abandon) const
{
    root = folders.expandingTilde(root);
    const auto turn = co_await writers->stagingTurn();
    const RootPublication published = co_await publish(root, std::move(wanted), std::move(abandon));
    try {
        co_await published.removeStaged();
    } catch (const AppError &) {
        // The root is published; the next scan of everything begins by emptying the staging table.
    } catch (const Cancelled &) {
    }
}

Task<RootPublication> FileIndexRepository::publish(std::string root, std::function<bool()> wanted, std::stop_token abandon) const
{
    const auto requireWanted = [&wanted] {
        if (wanted && !wanted())
            throw Cancelled();
    };
    for (int look = 0; look < mostLooks; ++look) {
        const auto changes = writers->watch();
        const auto all = co_await roots();
        RootPublication publication(database, steps, root, all);
        if (!co_await publication.hasRows())
            break;
        auto difference = co_await publication.difference();
        if (!difference)
            break;
        const bool names = co_await hasNames();
        if (changes->everything)
            continue;
        requireWanted();
        auto batches = withoutMerging(publication.corrected(std::move(*difference), *changes), names);
        co_await database->executeBatches(std::move(batches), Database::Effort::large, abandon);
        co_return publication;
    }
    const auto all = co_await roots();
    RootPublication publication(database, steps, root, all);
    auto statements = publication.replacement();
    requireWanted();
    co_await database->executeTransaction(std::move(statements), Database::Effort::large, abandon);
    co_return publication;
}

Task<void> FileIndexRepository::deleteWithSubtrees(std::vector<std::string> paths, std::set<std::string> directories) const
{
    if (paths.empty())
        co_return;
    std::vector<std::pair<std::string, std::vector<SQLValue>>> statements;
    statements.reserve(paths.size());
    for (const auto &path : paths) {
        if (directories.contains(path)) {
            tellRemovedTree(path);
            statements.emplace_back(deleteTreeOf, treeOf(path));
        } else {
            statements.emplace_back(deleteFile, std::vector<SQLValue>{path});
        }
    }
    writers->changed(paths);
    co_await database->executeTransaction(std::move(statements));
}

/// The paths that a question about some of them gives, asked in portions.
Task<std::set<std::string>> FileIndexRepository::answerTo(PathQuestion question, std::vector<std::string> among) const
{
    std::set<std::string> found;
    for (std::size_t begin = 0; begin < among.size(); begin += pathsOfQuestion) {
        const std::size_t end = std::min(begin + pathsOfQuestion, among.size());
        std::string sql = question.beginning + question.onePath;
        for (std::size_t i = begin + 1; i < end; ++i)
            sql.append(",").append(question.onePath);
        sql += question.end;
        std::vector<SQLValue> values(among.begin() + std::ptrdiff_t(begin), among.begin() + std::ptrdiff_t(end));
        const auto rows = co_await database->rows(std::move(sql), std::move(values));
        for (const auto &row : rows)
            if (const auto *path = text(row, "path"))
                found.insert(*path);
    }
    co_return found;
}

Task<std::set<std::string>> FileIndexRepository::directories(std::vector<std::string> among) const
{
    PathQuestion question{"SELECT path FROM file_index WHERE is_directory=1 AND path IN (", "?", ")"};
    co_return co_await answerTo(std::move(question), std::move(among));
}

Task<std::set<std::string>> FileIndexRepository::withRowsBelow(std::vector<std::string> among) const
{
    PathQuestion question{"WITH asked(path) AS (VALUES ", "(?)",
        ") SELECT path FROM asked WHERE EXISTS(SELECT 1 FROM file_index "
        "WHERE file_index.path>asked.path||'/' AND file_index.path<asked.path||'0')"};
    co_return co_await answerTo(std::move(question), std::move(among));
}

Task<void> FileIndexRepository::deleteTree(std::string path) const
{
    path = folders.expandingTilde(path);
    tellRemovedTree(path);
    auto values = treeOf(path);
    co_await database->execute(deleteTreeOf, std::move(values));
}

/// A store in memory folds case, and so removes more than what begins with the path.
void FileIndexRepository::tellRemovedTree(const std::string &path) const
{
    if (database->path() == ":memory:")
        writers->changedEverything();
    else
        writers->removedTree(path);
}

// Roots

Task<std::vector<IndexRoot>> FileIndexRepository::roots() const
{
    std::vector<IndexRoot> roots;
    const auto rows = co_await database->rows(loadRoots);
    for (const auto &row : rows) {
        const auto *id = text(row, "id");
        const auto *path = text(row, "path");
        if (id && path)
            roots.push_back({*id, *path});
    }
    co_return roots;
}

Task<void> FileIndexRepository::addRoot(std::string path) const
{
    path = folders.expandingTilde(path);
    const auto present = co_await roots();
    if (std::any_of(present.begin(), present.end(), [&path](const IndexRoot &root) { return root.path == path; }))
        co_return;
    std::vector<SQLValue> values{newUUID(), path, clock->now()};
    writers->changedEverything();
    co_await database->execute(insertRoot, std::move(values));
}

Task<void> FileIndexRepository::removeRoot(std::string id) const
{
    std::vector<SQLValue> values{std::move(id)};
    writers->changedEverything();
    co_await database->execute(deleteRoot, std::move(values));
}

Task<void> FileIndexRepository::removeRootWithTree(std::string id, std::string path) const
{
    std::vector<std::pair<std::string, std::vector<SQLValue>>> statements;
    statements.emplace_back(deleteTreeOf, treeOf(folders.expandingTilde(path)));
    statements.emplace_back(deleteRoot, std::vector<SQLValue>{std::move(id)});
    writers->changedEverything();
    co_await database->executeTransaction(std::move(statements), Database::Effort::large);
}

// Small facts

Task<long long> FileIndexRepository::count() const
{
    const auto rows = co_await database->rows(countFiles);
    const auto *count = firstText(rows, "c");
    co_return count ? integerFrom(*count).value_or(0) : 0;
}

Task<std::uint64_t> FileIndexRepository::loadEventID() const
{
    const auto rows = co_await database->rows(loadEvent);
    const auto *value = firstText(rows, "value");
    co_return value ? unsignedFrom(*value) : 0;
}

Task<void> FileIndexRepository::saveEventID(std::uint64_t id) const
{
    std::vector<SQLValue> values{std::to_string(id)};
    co_await database->execute(saveEvent, std::move(values));
}

// The table of names

Task<bool> FileIndexRepository::hasNames() const
{
    const auto listed = co_await database->rows(nameTableListed);
    if (listed.empty())
        co_return false;
    try {
        std::vector<SQLValue> anything{std::string("\"abc\"")};
        co_await database->rows(nameTableUsable, std::move(anything));
    } catch (const AppError &error) {
        if (error.errorDescription() == cannotBePrepared)
            co_return false;
        throw;
    }
    co_return true;
}

Task<bool> FileIndexRepository::ftsBackfillDone() const
{
    const auto rows = co_await database->rows(loadBackfill);
    const auto *value = firstText(rows, "value");
    co_return value &&*value == "1";
}

Task<void> FileIndexRepository::markFTSBackfillDone() const { co_await database->execute(markBackfill); }

Task<void> FileIndexRepository::rebuildFTS() const
{
    const auto listed = co_await database->rows(nameTableListed);
    if (!listed.empty())
        co_await database->execute(rebuildNames);
}

Task<void> FileIndexRepository::settle() const
{
    try {
        if (database->path() != ":memory:" && co_await hasNames())
            co_await mergeNames();
    } catch (const AppError &) {
        // What is not merged is slower, and merged by later writes.
    }
    co_await database->settle();
}

/// A publication leaves the table of names in many parts, which each search would have to look through and each write
/// to merge a little. In steps that let others through.
Task<void> FileIndexRepository::mergeNames() const
{
    co_await database->execute(beginMerging);
    for (int step = 0; step < mostMergeSteps; ++step) {
        const long long before = co_await changeCount();
        co_await database->execute(mergeStep);
        if (co_await changeCount() - before < 2) // which is how the table says that nothing is left to do
            break;
    }
}

Task<long long> FileIndexRepository::changeCount() const
{
    const auto rows = co_await database->rows(countChanges);
    const auto *count = firstText(rows, "c");
    co_return count ? integerFrom(*count).value_or(0) : 0;
}

} // namespace korvane
