#include "Vorrel/FileIndex/FileIndexService.h"

#include "CommandCore/Commands.h"
#include "CommandCore/FileSearchQuery.h"
#include "Support/Memory.h"
#include "Support/Text.h"
#include "Vorrel/Shell/AppLog.h"
#include "Vorrel/Shell/DiagnosticsService.h"
#include "Vorrel/Shell/Formats.h"
#include "Vorrel/Shell/L10n.h"

#include <fmt/format.h>

#include <algorithm>

namespace korvane {

namespace {

using namespace std::chrono_literals;
using Service = std::shared_ptr<FileIndexService>;

constexpr int searchLimit = 100;
constexpr Milliseconds lockPoll = 500ms;
constexpr Milliseconds folderPatience = 15s; ///< For whether a default root is there.

/// A text of the tables with a count in it.
std::string counted(std::string format, long long count)
{
    const std::string language = L10n::languageInUse();
    const auto at = format.find("%@");
    return at == format.npos ? format : format.replace(at, 2, formattedCount(count, language));
}

bool liesBelow(const std::string &path, const std::string &folder)
{
    if (folder == "/")
        return path.size() > 1 && path.starts_with('/');
    return path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/';
}

std::string withoutSlashesAtEnd(std::string path)
{
    while (path.size() > 1 && path.ends_with('/'))
        path.pop_back();
    return path;
}

/// Ends a scan's walk when whoever reads it goes away.
class ScanStream {
public:
    explicit ScanStream(AsyncStream<std::vector<IndexedFile>> stream) : stream(std::move(stream)) { }
    ~ScanStream() { stream.finish(); }
    ScanStream(const ScanStream &) = delete;
    ScanStream &operator=(const ScanStream &) = delete;
    Task<std::optional<std::vector<IndexedFile>>> next() const { return stream.next(); }

private:
    const AsyncStream<std::vector<IndexedFile>> stream;
};

std::shared_ptr<Database> searching(const FileIndexService::Ports &ports)
{
    return ports.searchDatabase ? ports.searchDatabase : ports.database;
}

} // namespace

FileIndexService::FileIndexService(Ports given) :
    repository(given.database, given.folders, given.clock), searchRepository(searching(given), given.folders, given.clock),
    ports(std::move(given)), disk(ports.pool)
{
}

// Life

std::shared_ptr<FileIndexService> FileIndexService::alive(const Weak &weak)
{
    auto service = weak.lock();
    if (!service)
        throw Cancelled();
    return service;
}

Task<void> FileIndexService::start()
{
    confined.check();
    const auto self = shared_from_this();
    if (co_await takeLock()) {
        co_await startNow();
        co_return;
    }
    AppLog::search.info("File index waits for another process");
    lockTask = spawn(ports.mainThread, startWhenFree(weak_from_this()));
}

/// True where there is nothing to lock, also where the lock file cannot be made: the store then says what is wrong.
Task<bool> FileIndexService::takeLock()
{
    if (!ports.lockPath || lock)
        co_return true;
    auto taken = std::make_shared<std::optional<FileLock>>();
    auto work = [path = *ports.lockPath, taken](std::stop_token) {
        FileLock::Failure failure{};
        *taken = FileLock::tryTake(path, &failure);
        return taken->has_value() || failure == FileLock::Failure::unavailable;
    };
    const bool may = co_await disk.run(std::move(work));
    if (taken->has_value())
        lock = std::move(*taken);
    co_return may;
}

Task<void> FileIndexService::startWhenFree(Weak weak)
{
    for (;;) {
        Clock &clock = alive(weak)->ports.clock;
        co_await clock.sleep(lockPoll);
        const Service self = alive(weak);
        const bool free = co_await self->takeLock();
        co_await throwIfCancelled();
        if (!free)
            continue;
        co_await self->startNow();
        co_return;
    }
}

Task<void> FileIndexService::startNow()
{
    std::exception_ptr failure;
    try {
        co_await bootstrap();
    } catch (const Cancelled &) {
        throw;
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        showFailure(failure);
        recordIndexError();
        AppLog::search.error("File index bootstrap failed");
    }
    ready.fire();
    if (std::exchange(rebuildWanted, false))
        rebuild();
}

Task<void> FileIndexService::bootstrap()
{
    auto stored = co_await repository.roots();
    if (stored.empty()) {
        for (const std::string &path : co_await existingDefaultRoots())
            co_await repository.addRoot(path);
        stored = co_await repository.roots();
    }
    _roots = std::move(stored);
    _fileCount = co_await repository.count();
    _processedEventID = co_await repository.loadEventID();
    eventIDLoaded = true;
    co_await startWatcher(_processedEventID);
    co_await throwIfCancelled();
    if (stopping.stop_requested())
        co_return;
    if (_fileCount == 0) {
        rebuild();
        co_return;
    }
    // Also over the message of a watch that could not begin: `indexHealth` still tells of it.
    showWatching();
    if (!co_await repository.hasNames() || co_await repository.ftsBackfillDone())
        co_return;
    backfillTask = spawn(ports.mainThread, backfillNames(weak_from_this()));
}

Task<void> FileIndexService::readRoots()
{
    const auto self = shared_from_this();
    auto stored = co_await repository.roots();
    _roots = std::move(stored);
}

Task<std::vector<std::string>> FileIndexService::existingDefaultRoots()
{
    const auto &candidates = ports.places.defaultRoots;
    std::vector<std::string> roots(candidates.begin(), candidates.begin() + std::min<std::ptrdiff_t>(1, std::ssize(candidates)));
    if (candidates.size() <= roots.size())
        co_return roots;
    const Paths others(candidates.begin() + 1, candidates.end());
    const auto looks = std::make_shared<FolderLooks>();
    looks->open = others.size();
    std::vector<TaskHandle> tasks;
    for (const std::string &path : others)
        tasks.push_back(spawn(ports.mainThread, lookForFolder(weak_from_this(), path, looks)));
    co_await firesWithin(ports.clock, looks->over, folderPatience);
    std::ranges::copy_if(
        others, std::back_inserter(roots), [&looks](const std::string &path) { return looks->folders.contains(path); });
    co_return roots;
}

/// Each by itself: one on a dead volume must not cost the others.
Task<void> FileIndexService::lookForFolder(Weak weak, std::string path, std::shared_ptr<FolderLooks> looks)
{
    Paths alone{path};
    const Classified found = co_await classify(std::move(weak), std::move(alone));
    if (!found.upserts.empty() && found.upserts.front().isDirectory)
        looks->folders.insert(std::move(path));
    if (--looks->open == 0)
        looks->over->fire();
}

/// For an index that was filled before the table of names was there. Until it ends, searches may find too little.
Task<void> FileIndexService::backfillNames(Weak weak)
{
    const FileIndexRepository repository = alive(weak)->repository;
    alive(weak)->_statusText = L10n::text("Preparing search index…");
    bool failed = false;
    try {
        co_await repository.rebuildFTS();
        co_await repository.markFTSBackfillDone();
    } catch (const Cancelled &) {
        throw;
    } catch (...) {
        failed = true;
    }
    if (failed) {
        AppLog::search.error("FTS backfill failed");
        co_return;
    }
    const Service self = alive(weak);
    if (!self->_isScanning)
        self->showWatching();
    AppLog::search.info("FTS trigram index ready");
}

Task<void> FileIndexService::stop()
{
    confined.check();
    const auto self = shared_from_this();
    stopping.request_stop(); // a root that is just being published stays as it was, so that quitting waits for nothing
    lockTask.cancel();
    backfillTask.cancel();
    _scanTask.cancel();
    _flushTask.cancel();
    if (ports.watcher)
        ports.watcher->stop();
    if (eventIDLoaded) {
        try {
            co_await repository.saveEventID(_processedEventID);
        } catch (...) {
            // The next start then looks a little further back.
        }
    }
    if (ports.searchDatabase)
        co_await ports.searchDatabase->close();
    lock.reset();
}

FileIndex::Health FileIndexService::indexHealth() const
{
    using enum Health::State;
    const auto state = _isScanning ? indexing : _liveUpdatesAvailable ? watching : liveUpdatesUnavailable;
    return {_fileCount, _roots->size(), state};
}

std::string FileIndexService::watchingText() const
{
    if (unwatchedFolders == 0)
        return counted(L10n::text("Watching · %@ files"), _fileCount);
    const std::string text = counted(L10n::text("Watching · %@ files, %@ folders checked once a minute"), _fileCount);
    return counted(text, static_cast<long long>(unwatchedFolders));
}

void FileIndexService::showWatching() { _statusText = watchingText(); }

void FileIndexService::showFailure(const std::exception_ptr &error)
{
    _problem = L10n::text(AppError::friendly(error));
    _statusText = *_problem;
}

void FileIndexService::recordIndexError()
{
    if (ports.diagnostics)
        ports.diagnostics->recordError(DiagnosticsService::Category::fileIndex);
}

// Scan

void FileIndexService::rebuild()
{
    confined.check();
    if (stopping.stop_requested())
        return;
    if (!ready.fired() && !eventIDLoaded) {
        rebuildWanted = true; // the roots are not known yet
        return;
    }
    _scanTask.cancel();
    _isScanning = true;
    _problem.reset();
    _scanHadFailure = false;
    _scannedCount = 0;
    ++_scanGeneration;
    AppLog::search.info(fmt::format("File index scan started ({} roots)", _roots->size()));
    _scanTask = spawn(ports.mainThread, rebuildNow(weak_from_this(), _scanGeneration));
}

void FileIndexService::throwIfSuperseded(int generation) const
{
    if (_scanGeneration != generation)
        throw Cancelled();
}

Task<void> FileIndexService::rebuildNow(Weak weak, int generation)
{
    const FileIndexRepository repository = alive(weak)->repository;
    try {
        co_await repository.clearStaging(); // what a crash or an ended scan has left
    } catch (const AppError &) {
    }
    co_await scanRootsConcurrently(weak, generation);
    alive(weak)->throwIfSuperseded(generation); // a newer rebuild owns what follows

    std::exception_ptr failure;
    long long count = 0;
    try {
        co_await repository.clearStaging();
        count = co_await repository.count();
    } catch (const AppError &) {
        failure = std::current_exception();
    }
    {
        const Service self = alive(weak);
        self->throwIfSuperseded(generation);
        if (failure) {
            self->showFailure(failure);
            AppLog::search.error("File index count failed");
            self->_isScanning = false;
            co_return;
        }
        self->_fileCount = count;
        if (self->_scanHadFailure) {
            self->_problem =
                counted(L10n::text("Indexed · %@ files, some folders unreadable. Check File & Folder permissions."), count);
            self->_statusText = *self->_problem;
        } else {
            self->showWatching();
        }
    }
    try {
        co_await repository.markFTSBackfillDone(); // the triggers have filled the table of names
    } catch (const AppError &) {
    }
    {
        const Service self = alive(weak);
        self->throwIfSuperseded(generation);
        AppLog::search.info(fmt::format("File index scan completed: {} files", count));
        self->_isScanning = false;
    }
    co_await repository.settle();
    // What waited for the store while the walk was ahead of it came from many threads; the allocator keeps it.
    Actor pool(alive(weak)->ports.pool);
    auto trim = [](std::stop_token) { returnFreeMemory(); };
    co_await pool.run(std::move(trim));
}

Task<void> FileIndexService::scanRootsConcurrently(Weak weak, int generation)
{
    struct Group {
        std::vector<TaskHandle> tasks;
        std::size_t running = 0;
        AsyncEvent done;
        static Task<void> carry(std::shared_ptr<Group> group, Task<void> task)
        {
            co_await std::move(task);
            if (--group->running == 0)
                group->done.fire();
        }
    };
    /// The tasks end with the rebuild that began them.
    struct Owner {
        std::shared_ptr<Group> group = std::make_shared<Group>();
        ~Owner() { group->tasks.clear(); }
    } const owner;
    const Executor mainThread = alive(weak)->ports.mainThread;
    const std::vector<IndexRoot> roots = alive(weak)->_roots;
    owner.group->running = roots.size();
    for (const IndexRoot &root : roots)
        owner.group->tasks.push_back(spawn(mainThread, Group::carry(owner.group, scanRootOrReport(weak, root, generation))));
    if (!roots.empty())
        co_await owner.group->done.wait();
}

/// A root that fails costs that root only: its rows stay as they were.
Task<void> FileIndexService::scanRootOrReport(Weak weak, IndexRoot root, int generation)
{
    bool failed = false;
    try {
        co_await scanRoot(weak, std::move(root), generation);
    } catch (const Cancelled &) {
    } catch (...) {
        failed = true;
    }
    const Service self = weak.lock();
    if (!failed || !self || self->_scanGeneration != generation)
        co_return;
    self->_scanHadFailure = true;
    self->recordIndexError();
    AppLog::search.error("File index root scan failed");
}

Task<void> FileIndexService::scanRoot(Weak weak, IndexRoot root, int generation)
{
    AppLog::search.info("File index root scan began: " + root.path);
    const FileIndexRepository repository = alive(weak)->repository;
    const ScanStream stream(alive(weak)->ports.scanner->scan(root.path, alive(weak)->skipListFor(root)));
    while (auto batch = co_await stream.next()) {
        co_await throwIfCancelled();
        alive(weak)->throwIfSuperseded(generation);
        const auto size = std::ssize(*batch);
        co_await repository.stage(std::move(*batch));
        const Service self = alive(weak);
        self->throwIfSuperseded(generation);
        self->_scannedCount = self->_scannedCount + size;
        self->_scannedRoot = root.path;
        self->_statusText = counted(L10n::text("Indexing · %@ files"), self->_scannedCount);
    }
    const auto wanted = [weak, generation, path = root.path] {
        const Service self = weak.lock();
        return self && self->_scanGeneration == generation && self->isRoot(path);
    };
    if (!wanted())
        throw Cancelled();
    co_await repository.commitStagedRoot(root.path, wanted, alive(weak)->stopping.get_token());
    const long long count = co_await repository.count();
    const Service self = alive(weak);
    if (self->_scanGeneration == generation)
        self->_fileCount = count;
    AppLog::search.info("File index root scan finished: " + root.path);
}

bool FileIndexService::isRoot(const std::string &path) const
{
    return !leavingRoots.contains(path) && std::ranges::find(_roots.get(), path, &IndexRoot::path) != _roots->end();
}

/// Whether a path was indexed only for a root that has been removed.
bool FileIndexService::hasLeft(const std::string &path) const
{
    const auto holds = [&path](const std::string &root) { return path == root || liesBelow(path, root); };
    return std::ranges::any_of(leavingRoots, holds)
        && std::ranges::none_of(_roots.get(), [&](const IndexRoot &root) { return isRoot(root.path) && holds(root.path); });
}

std::vector<std::string> FileIndexService::rootPaths() const
{
    Paths paths;
    for (const IndexRoot &root : _roots.get())
        paths.push_back(root.path);
    return paths;
}

/// Roots nested in this one are scanned and published by themselves.
std::vector<std::string> FileIndexService::skipListFor(const IndexRoot &root) const
{
    Paths list = ports.places.skippedPrefixes;
    std::ranges::copy_if(
        rootPaths(), std::back_inserter(list), [&root](const std::string &other) { return liesBelow(other, root.path); });
    return list;
}

// Roots

void FileIndexService::addRoot(std::string path) { change(addRootNow(weak_from_this(), std::move(path))); }

void FileIndexService::removeRoot(std::string id) { change(removeRootNow(weak_from_this(), std::move(id))); }

void FileIndexService::change(Task<void> task)
{
    confined.check();
    ++changes;
    spawnDetached(ports.mainThread, countChange(weak_from_this(), std::move(task)));
}

Task<void> FileIndexService::countChange(Weak weak, Task<void> task)
{
    std::exception_ptr failure;
    try {
        if (const Service self = weak.lock())
            co_await self->ready.wait();
        co_await std::move(task);
    } catch (const Cancelled &) {
    } catch (...) {
        failure = std::current_exception();
    }
    const Service self = weak.lock();
    if (!self)
        co_return;
    --self->changes;
    if (failure)
        self->showFailure(failure);
}

Task<void> FileIndexService::addRootNow(Weak weak, std::string path)
{
    const FileIndexRepository repository = alive(weak)->repository;
    const std::string added = alive(weak)->ports.folders.expandingTilde(path);
    co_await repository.addRoot(std::move(path));
    auto roots = co_await repository.roots();
    const Service self = alive(weak);
    self->leavingRoots.erase(added);
    self->_roots = std::move(roots);
    co_await self->restartWatcher();
    self->rebuild();
}

/// What is still under way for the root, a publication or a pass over events, must write nothing behind the removal.
Task<void> FileIndexService::removeKnownRoot(Weak weak, IndexRoot root)
{
    const FileIndexRepository repository = alive(weak)->repository;
    alive(weak)->leavingRoots.insert(root.path);
    std::exception_ptr failure;
    try {
        co_await repository.removeRootWithTree(std::move(root.id), root.path);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!failure)
        co_return;
    if (const Service self = weak.lock())
        self->leavingRoots.erase(root.path);
    std::rethrow_exception(failure);
}

Task<void> FileIndexService::removeRootNow(Weak weak, std::string id)
{
    const FileIndexRepository repository = alive(weak)->repository;
    const std::vector<IndexRoot> before = alive(weak)->_roots;
    const auto removed = std::ranges::find(before, id, &IndexRoot::id);
    if (removed == before.end())
        co_await repository.removeRoot(std::move(id));
    else
        co_await removeKnownRoot(weak, *removed);
    auto roots = co_await repository.roots();
    alive(weak)->_roots = std::move(roots);
    const long long count = co_await repository.count();
    const Service self = alive(weak);
    self->_fileCount = count;
    co_await self->restartWatcher();
    if (!self->_isScanning)
        self->showWatching();
}

// Search

Task<std::vector<FileRecord>> FileIndexService::search(std::string text, std::optional<std::string> directory)
{
    confined.check();
    if (trimmed(text).empty())
        co_return std::vector<FileRecord>();
    const double began = ports.clock.uptime();
    std::exception_ptr failure;
    std::vector<FileRecord> found;
    try {
        found = co_await searchOrThrow(std::move(text), std::move(directory));
    } catch (...) {
        failure = std::current_exception();
    }
    const double milliseconds = (ports.clock.uptime() - began) * 1000.0;
    if (!failure) {
        if (ports.diagnostics)
            ports.diagnostics->recordSearch(milliseconds, int(found.size()), false);
        co_return found;
    }
    if (ports.diagnostics) {
        const bool timedOut = AppError::friendly(failure).starts_with("File search took too long");
        ports.diagnostics->recordError(DiagnosticsService::Category::fileSearch);
        ports.diagnostics->recordSearch(milliseconds, 0, timedOut);
    }
    std::rethrow_exception(failure);
}

Task<std::vector<FileRecord>> FileIndexService::searchOrThrow(std::string text, std::optional<std::string> directory)
{
    requireIndexed(text);
    const auto files = co_await searchRepository.search(std::move(text), std::move(directory), searchLimit);
    std::vector<FileRecord> records;
    records.reserve(files.size());
    for (const IndexedFile &file : files) {
        const auto modified = file.modified > 0.0 ? std::optional(file.modified) : std::nullopt;
        records.push_back({file.name, file.path, file.isDirectory, file.size, modified});
    }
    co_return records;
}

/// Refuses a query whose first absolute path term has no root at, below or above it.
void FileIndexService::requireIndexed(const std::string &text) const
{
    const FileSearchQuery query(text);
    for (const std::string &term : query.pathTerms) {
        const std::string path = withoutSlashesAtEnd(ports.folders.expandingTilde(term));
        if (!path.starts_with('/'))
            continue;
        const bool indexed = _roots->empty() || std::ranges::any_of(_roots.get(), [&path](const IndexRoot &root) {
            return path == root.path || liesBelow(path, root.path) || liesBelow(root.path, path);
        });
        if (!indexed)
            throw AppError(AppError::Kind::recoverable, "This folder is not indexed. Add it in Settings → File Index.");
        return;
    }
}

} // namespace korvane
