#include "Vorrel/FileIndex/FileIndexService.h"

#include "CommandCore/Commands.h"
#include "Vorrel/Shell/AppLog.h"
#include "Vorrel/Shell/DiagnosticsService.h"
#include "Vorrel/Shell/L10n.h"

#include <fmt/format.h>

#include <algorithm>
#include <unordered_set>

namespace korvane {

namespace {

using namespace std::chrono_literals;
using Service = std::shared_ptr<FileIndexService>;
using Paths = std::vector<std::string>;

constexpr Milliseconds flushDelay = 1s;
constexpr std::size_t pathsPerFlush = 4000;
constexpr std::size_t demotedPathsPerFlush = 1000;
/// More than this left behind, so many passes in a row: a scan is cheaper.
constexpr std::size_t burstThreshold = 20'000;
constexpr int burstPasses = 5;
constexpr double secondsBetweenCounts = 60.0;
constexpr Milliseconds watchPatience = 15s;
constexpr std::uint64_t claimsNothing = 0; ///< An identifier that is never saved.

/// The start of a watch, which a dead volume may keep from ending.
struct WatchStart {
    std::shared_ptr<AsyncEvent> over = std::make_shared<AsyncEvent>();
    std::exception_ptr failure;

    static Task<void> carry(std::shared_ptr<WatchStart> start, Task<void> task)
    {
        try {
            co_await std::move(task);
        } catch (...) {
            start->failure = std::current_exception();
        }
        start->over->fire();
    }
};

bool isCancellation(const std::exception_ptr &failure)
{
    try {
        if (failure)
            std::rethrow_exception(failure);
    } catch (const Cancelled &) {
        return true;
    } catch (...) {
    }
    return false;
}

std::exception_ptr noWatch()
{
    return std::make_exception_ptr(AppError(AppError::Kind::recoverable, "File system monitoring could not start."));
}

} // namespace

// The watch

/// A watch that cannot begin is no failure: the index stays usable, as it is.
Task<void> FileIndexService::startWatcher(std::uint64_t sinceID)
{
    if (stopping.stop_requested())
        co_return;
    if (!ports.watcher) {
        _liveUpdatesAvailable = false;
        co_return;
    }
    const std::uint64_t number = ++watchNumber;
    const auto handler = [weak = weak_from_this(), mainThread = ports.mainThread, number](
                             Paths paths, std::uint64_t lastEventID) {
        runLater(mainThread, [weak, paths = std::move(paths), lastEventID, number]() mutable {
            if (const Service self = weak.lock())
                self->enqueueEvent(std::move(paths), number > self->lossyWatch ? lastEventID : claimsNothing);
        });
    };
    ports.watcher->onUnwatched([weak = weak_from_this(), mainThread = ports.mainThread, number](std::size_t folders) {
        runLater(mainThread, [weak, folders, number] {
            if (const Service self = weak.lock(); self && number == self->watchNumber)
                self->showUnwatched(folders);
        });
    });
    const auto started = std::make_shared<WatchStart>();
    const TaskHandle task =
        spawn(ports.mainThread, WatchStart::carry(started, ports.watcher->start(rootPaths(), sinceID, handler)));
    const bool answered = co_await firesWithin(ports.clock, started->over, watchPatience);
    if (stopping.stop_requested())
        throw Cancelled();
    if (number != watchNumber)
        co_return; // a later start has taken the place of this one
    if (!answered)
        ports.watcher->stop();
    const std::exception_ptr failure = answered ? started->failure : noWatch();
    if (isCancellation(failure))
        std::rethrow_exception(failure);
    _liveUpdatesAvailable = !failure;
    if (failure) {
        AppLog::search.error("Live file events are not available");
        _statusText = L10n::format("Indexed · live updates unavailable (%@)", L10n::text(AppError::friendly(failure)));
    }
}

Task<void> FileIndexService::restartWatcher()
{
    if (ports.watcher)
        ports.watcher->stop();
    co_await startWatcher(_processedEventID);
}

/// Told where the status is; for the rest such folders are followed like the others, only later.
void FileIndexService::showUnwatched(std::size_t folders)
{
    const bool isShown = _statusText.get() == watchingText();
    unwatchedFolders = folders;
    if (isShown)
        showWatching();
}

// The queue

void FileIndexService::enqueueEvent(Paths paths, std::uint64_t lastEventID)
{
    confined.check();
    if (stopping.stop_requested())
        return;
    for (std::string &path : paths)
        if (!ports.places.aliasPrefix.empty() && path.starts_with(ports.places.aliasPrefix))
            path.erase(0, ports.places.aliasPrefix.size());
    // By the bare beginning, more loosely than the scan does: nothing near most of these folders is worth a pass.
    std::erase_if(paths, [this](const std::string &path) {
        return isSkipped(path, ports.places.skippedPrefixes)
            || std::ranges::any_of(
                ports.places.looselySkipped(), [&path](const auto &prefix) { return path.starts_with(prefix); });
    });
    if (paths.empty())
        return;
    _pendingEventTotal += paths.size();
    _pendingBatches.push_back({{std::make_move_iterator(paths.begin()), std::make_move_iterator(paths.end())}, lastEventID});
    scheduleFlush();
}

void FileIndexService::scheduleFlush()
{
    if (std::exchange(flushScheduled, true))
        return;
    _flushTask = spawn(ports.mainThread, flushSoon(weak_from_this()));
}

Task<void> FileIndexService::flushSoon(Weak weak)
{
    Clock &clock = alive(weak)->ports.clock;
    co_await clock.sleep(flushDelay);
    co_await flush(weak);
    const Service self = alive(weak);
    self->flushScheduled = false;
    if (self->_pendingEventTotal > 0)
        self->scheduleFlush();
}

bool FileIndexService::isDemotedEventPath(std::string_view path)
{
    return std::ranges::any_of(noiseFragments, [path](std::string_view fragment) { return path.find(fragment) != path.npos; });
}

/// The next paths, in order. Noisy ones have fewer places, so that a storm in a build folder does not keep the others
/// waiting; where those places are gone the pass ends, for no path may overtake another.
FileIndexService::Taken FileIndexService::takePending()
{
    Taken taken;
    std::size_t demoted = 0;
    const auto full = [&](const std::string &next) {
        return taken.work.size() == pathsPerFlush || (isDemotedEventPath(next) && ++demoted > demotedPathsPerFlush);
    };
    while (!_pendingBatches.empty()) {
        EventBatch &batch = _pendingBatches.front();
        std::size_t count = 0;
        while (count < batch.paths.size() && !full(batch.paths[count]))
            taken.work.push_back(batch.paths[count++]);
        _pendingEventTotal -= count;
        if (count < batch.paths.size()) {
            taken.hasPart = count > 0;
            batch.paths.erase(batch.paths.begin(), batch.paths.begin() + std::ptrdiff_t(count));
            break;
        }
        taken.whole.push_back(std::move(batch));
        _pendingBatches.pop_front();
    }
    return taken;
}

/// Whether more keeps coming than a pass can take; the queue is then empty, for a scan sees it all.
bool FileIndexService::hasOverflowed()
{
    _burstRounds = _pendingEventTotal > burstThreshold ? _burstRounds + 1 : 0;
    if (_burstRounds < burstPasses)
        return false;
    _burstRounds = 0;
    _pendingBatches.clear();
    _pendingEventTotal = 0;
    return true;
}

/// The paths of a part are not put back. Until the watch has begun again no identifier is saved that would claim them.
void FileIndexService::putBack(Taken taken)
{
    for (auto batch = taken.whole.rbegin(); batch != taken.whole.rend(); ++batch) {
        _pendingEventTotal += batch->paths.size();
        _pendingBatches.push_front(std::move(*batch));
    }
    if (taken.hasPart)
        loseClaims();
}

void FileIndexService::loseClaims()
{
    lossyWatch = watchNumber;
    for (EventBatch &batch : _pendingBatches)
        batch.lastEventID = claimsNothing;
}

// A pass

Task<void> FileIndexService::flush(Weak weak)
{
    const auto taken = std::make_shared<Taken>();
    {
        const Service self = alive(weak);
        if (self->_isFlushing || self->_isScanning)
            co_return;
        *taken = self->takePending();
        if (self->hasOverflowed()) {
            AppLog::search.info("Event inflow sustained past the drain rate; rebuilding from staging");
            self->rebuild();
            co_return;
        }
        if (taken->work.empty())
            co_return;
        self->_isFlushing = true;
    }
    std::exception_ptr failure;
    try {
        co_await apply(weak, taken);
    } catch (...) {
        failure = std::current_exception();
    }
    const Service self = weak.lock();
    if (!self)
        co_return;
    self->_isFlushing = false;
    if (!failure) {
        // The store takes what it is given again: what was lost is found by a watch from the last identifier saved.
        if (self->lossyWatch == self->watchNumber && !self->stopping.stop_requested())
            co_await self->restartWatcher();
        co_return;
    }
    self->recordIndexError();
    AppLog::search.error("File index update failed");
    self->putBack(std::move(*taken));
}

Task<void> FileIndexService::apply(Weak weak, std::shared_ptr<Taken> taken)
{
    Classified found = co_await classify(weak, std::move(taken->work));
    if (found.withheld > 0)
        AppLog::search.info(fmt::format("Withheld {} event paths whose availability could not be confirmed", found.withheld));

    const FileIndexRepository repository = alive(weak)->repository;
    std::erase_if(found.upserts, [&weak](const IndexedFile &file) { return alive(weak)->hasLeft(file.path); });
    co_await repository.upsert(std::move(found.upserts));
    // Asked before they are deleted: the disk can no longer tell.
    auto folders = co_await repository.directories(found.gone);
    // A file that was seen in a folder that came and went may be known where the folder is not.
    auto unknown = co_await repository.withRowsBelow(found.gone);
    folders.merge(unknown);
    co_await repository.deleteWithSubtrees(std::move(found.gone), std::move(folders));

    if (!taken->whole.empty()) {
        const std::uint64_t last = taken->whole.back().lastEventID;
        if (alive(weak)->_processedEventID < last) {
            co_await repository.saveEventID(last);
            alive(weak)->_processedEventID = last;
        }
    }
    {
        const Service self = alive(weak);
        const double now = self->ports.clock.uptime();
        if (self->_lastCountRefresh && now - *self->_lastCountRefresh < secondsBetweenCounts)
            co_return;
        self->_lastCountRefresh = now;
    }
    const long long count = co_await repository.count();
    const Service self = alive(weak);
    self->_fileCount = count;
    if (!self->_isScanning)
        self->showWatching();
}

namespace {

/// What the disk says of paths, one after the other. Blocks.
class Classification {
public:
    Classification(std::shared_ptr<const FileAttributeReading> attributes, Paths roots) :
        attributes(std::move(attributes)), roots(std::make_move_iterator(roots.begin()), std::make_move_iterator(roots.end()))
    {
    }

    template <class Classified> void look(const std::string &path, Classified &result)
    {
        using enum AttributeOutcome::State;
        const AttributeOutcome outcome = attributes->attributes(path);
        if (outcome.state == found)
            result.upserts.push_back({path, lastPathComponent(path), outcome.isDirectory, outcome.size, outcome.modified});
        else if (outcome.state == notFound && hasBeenDeleted(path))
            result.gone.push_back(path);
        else
            ++result.withheld;
    }

private:
    /// Only where the parent can be seen and lacks the child. A root that vanishes is taken for a volume that was
    /// unmounted; below a vanished folder, the deletion of the highest one takes everything along.
    bool hasBeenDeleted(const std::string &path)
    {
        return !roots.contains(path)
            && attributes->attributes(deletingLastPathComponent(path)).state == AttributeOutcome::State::found;
    }

    const std::shared_ptr<const FileAttributeReading> attributes;
    const std::unordered_set<std::string> roots;
};

} // namespace

/// On a thread of its own: `stat` on a dead volume may never come back.
Task<FileIndexService::Classified> FileIndexService::classify(Weak weak, Paths work)
{
    const Service self = alive(weak);
    std::function<void(Continuation<Classified>)> begin = [&self, &work](Continuation<Classified> done) {
        const auto classification = std::make_shared<Classification>(self->ports.attributes, self->rootPaths());
        self->ports.detached([classification, work = std::move(work), done] {
            Classified result;
            for (const std::string &path : work)
                classification->look(path, result);
            done.resume(std::move(result));
        });
    };
    co_return co_await suspend<Classified>(std::move(begin));
}

} // namespace korvane
