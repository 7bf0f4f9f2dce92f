#include "Vorrel/FileIndex/DiskFileScanner.h"

#include "CommandCore/Commands.h"

#include <atomic>
#include <chrono>
#include <mutex>

namespace korvane {

namespace {

constexpr std::size_t batchSize = 5000;
constexpr Milliseconds betweenLooks{2000};
constexpr double patience = 15.0; // seconds

using Stream = AsyncStream<std::vector<IndexedFile>>;

double steadyUptime() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

std::exception_ptr unreadableRoot()
{
    return std::make_exception_ptr(AppError(AppError::Kind::recoverable, "The index folder could not be read."));
}

std::exception_ptr unresponsiveFolder()
{
    return std::make_exception_ptr(AppError(AppError::Kind::recoverable, "Indexing stopped on an unresponsive folder."));
}

/// What a walk and its watchdog share. No lock: each value stands for itself, and the walk writes at every entry.
class Progress {
public:
    explicit Progress(DiskFileScanner::Uptime uptime) : uptime(std::move(uptime)), stamp(this->uptime()) { }

    /// The walk is alive.
    void touch() { stamp.store(uptime(), std::memory_order_relaxed); }
    /// Seconds since the last sign of life.
    double silence() const { return uptime() - stamp.load(std::memory_order_relaxed); }

    /// Nobody wants the rest of the walk.
    void cancel() { _cancelled.store(true, std::memory_order_relaxed); }
    bool cancelled() const { return _cancelled.load(std::memory_order_relaxed); }

private:
    const DiskFileScanner::Uptime uptime;
    std::atomic<double> stamp;
    std::atomic<bool> _cancelled = false;
};

/// Gathers what the walker's threads find and hands it on in full batches.
class Batches {
public:
    explicit Batches(Stream stream) : stream(std::move(stream)) { }

    void append(std::vector<IndexedFile> entries)
    {
        std::scoped_lock lock(mutex);
        for (auto &entry : entries) {
            batch.push_back(std::move(entry));
            if (batch.size() == batchSize)
                handOver();
        }
    }

    void flush()
    {
        std::scoped_lock lock(mutex);
        if (!batch.empty())
            handOver();
    }

private:
    void handOver()
    {
        stream.yield(std::exchange(batch, {}));
        batch.reserve(batchSize);
    }

    const Stream stream;
    std::mutex mutex;
    std::vector<IndexedFile> batch;
};

void finish(const Stream &stream, Batches &batches, DirectoryWalker::Visitor::End end)
{
    using enum DirectoryWalker::Visitor::End;
    switch (end) {
    case complete: batches.flush(); return stream.finish();
    case unreadable: return stream.finish(unreadableRoot());
    case ended: return stream.finish(std::make_exception_ptr(Cancelled()));
    }
}

/// Owns all that the walk needs: its threads may come back from the system when nothing else is left.
std::shared_ptr<const DirectoryWalker::Visitor> visitorOf(
    const Stream &stream, const std::shared_ptr<Progress> &progress, std::vector<std::string> skipPrefixes)
{
    auto batches = std::make_shared<Batches>(stream);
    auto visitor = std::make_shared<DirectoryWalker::Visitor>();
    visitor->entered = [progress] {
        if (progress->cancelled())
            return false;
        progress->touch();
        return true;
    };
    visitor->skips = [prefixes = std::move(skipPrefixes)](const std::string &path) { return isSkipped(path, prefixes); };
    visitor->found = [batches](std::vector<IndexedFile> entries) { batches->append(std::move(entries)); };
    visitor->done = [stream, batches](DirectoryWalker::Visitor::End end) { finish(stream, *batches, end); };
    return visitor;
}

Task<void> watch(Clock &clock, Stream stream, std::shared_ptr<const Progress> progress)
{
    while (!progress->cancelled()) {
        bool slept = true;
        try {
            co_await clock.sleep(betweenLooks);
        } catch (...) {
            slept = false; // looks all the same: the reader must be freed
        }
        if (progress->cancelled())
            co_return;
        if (progress->silence() > patience) {
            stream.finish(unresponsiveFolder());
            co_return;
        }
        if (!slept) {
            co_await throwIfCancelled();
            co_await yieldOnce();
        }
    }
}

} // namespace

DiskFileScanner::DiskFileScanner(
    Executor executor, Clock &clock, const DirectoryWalker &walker, UserFolders folders, Uptime uptime) :
    executor(std::move(executor)),
    clock(clock), walker(walker), folders(std::move(folders)), uptime(uptime ? std::move(uptime) : Uptime(steadyUptime))
{
}

AsyncStream<std::vector<IndexedFile>> DiskFileScanner::scan(std::string root, std::vector<std::string> skipPrefixes)
{
    Stream stream;
    auto progress = std::make_shared<Progress>(uptime);
    stream.onTermination([progress] { progress->cancel(); });
    walker.walk(folders.expandingTilde(root), visitorOf(stream, progress, std::move(skipPrefixes)));
    spawnDetached(executor, watch(clock, stream, progress));
    return stream;
}

} // namespace korvane
