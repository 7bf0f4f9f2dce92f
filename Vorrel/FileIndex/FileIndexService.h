#pragma once

#include "Support/Clock.h"
#include "Support/FileLock.h"
#include "Support/MainLoop.h"
#include "Support/OwnThread.h"
#include "Vorrel/FileIndex/FileIndex.h"
#include "Vorrel/FileIndex/FileIndexRepository.h"
#include "Vorrel/FileIndex/FileScanner.h"
#include "Vorrel/Platform/FileEvents.h"
#include "Vorrel/Platform/IndexPlaces.h"

#include <deque>
#include <set>
#include <stop_token>

namespace korvane {

class DiagnosticsService;

/// Keeps the file index true to the disk: scans roots, publishes each whole, follows events, answers searches.
///
/// The index is a cache: whatever goes wrong, a new scan or the events since the last one applied bring it back.
/// During a scan searches see the previous state of every root. Main thread only; held by a shared pointer, and its
/// tasks hold it weakly.
class FileIndexService final : public FileIndex, public std::enable_shared_from_this<FileIndexService> {
public:
    struct Ports {
        Executor mainThread;
        Executor pool; ///< Runs what touches the disk for a moment.
        Clock &clock;
        UserFolders folders;
        IndexPlaces places;
        std::shared_ptr<Database> database; ///< For everything that writes.
        std::shared_ptr<Database> searchDatabase; ///< Read-only, for searches; null where `database` serves both.
        std::unique_ptr<FileScanner> scanner;
        FileEventWatching *watcher = nullptr; ///< Null where the disk is not followed.
        std::shared_ptr<const FileAttributeReading> attributes;
        DiagnosticsService *diagnostics = nullptr; ///< Null: nothing is recorded.
        /// The file by which one process at a time works on the index; the lock is held from the start to the stop.
        /// Nothing for a store in memory.
        std::optional<std::string> lockPath = {};
        /// Runs work that may hang on a dead volume.
        std::function<void(std::function<void()>)> detached = runOnOwnThread;
    };

    explicit FileIndexService(Ports ports);

    // FileIndex
    /// Returns when the stored state has been read and the watch begun, or at once while another process works on the
    /// index: the rest then follows when that one has ended.
    Task<void> start() override;
    Task<void> stop() override;
    Task<std::vector<FileRecord>> search(std::string text, std::optional<std::string> directory) override;
    void rebuild() override;
    void addRoot(std::string path) override;
    void removeRoot(std::string id) override;
    bool busy() const override { return _isScanning.get() || changes > 0; }
    Health indexHealth() const override;

    /// For a process that only searches, in the place of `start`: the roots alone.
    Task<void> readRoots();

    const FileIndexRepository repository; ///< On the connection that writes.
    const FileIndexRepository searchRepository; ///< On the one that only reads.

private:
    using Weak = std::weak_ptr<FileIndexService>;
    using Paths = std::vector<std::string>;

    struct EventBatch {
        std::deque<std::string> paths;
        std::uint64_t lastEventID = 0;
    };
    /// What one flush has taken from the queue.
    struct Taken {
        Paths work; ///< In order.
        std::vector<EventBatch> whole; ///< Batches of which nothing is left in the queue.
        bool hasPart = false; ///< The last paths are of a batch of which something is left.
    };
    /// Which of some paths are folders.
    struct FolderLooks {
        std::set<std::string> folders;
        std::size_t open = 0; ///< Paths of which the disk has said nothing yet.
        std::shared_ptr<AsyncEvent> over = std::make_shared<AsyncEvent>();
    };
    /// What the disk says of a work list.
    struct Classified {
        std::vector<IndexedFile> upserts;
        Paths gone;
        long long withheld = 0;
    };

    /// The service behind a weak reference; a task whose service has gone ends like a cancelled one.
    static std::shared_ptr<FileIndexService> alive(const Weak &weak);

    // Life
    Task<void> startNow();
    Task<void> bootstrap();
    Task<std::vector<std::string>> existingDefaultRoots();
    static Task<void> lookForFolder(Weak weak, std::string path, std::shared_ptr<FolderLooks> looks);
    static Task<void> startWhenFree(Weak weak);
    Task<bool> takeLock();
    static Task<void> backfillNames(Weak weak);

    // Scan
    static Task<void> rebuildNow(Weak weak, int generation);
    static Task<void> scanRootsConcurrently(Weak weak, int generation);
    static Task<void> scanRootOrReport(Weak weak, IndexRoot root, int generation);
    static Task<void> scanRoot(Weak weak, IndexRoot root, int generation);
    void throwIfSuperseded(int generation) const;
    bool isRoot(const std::string &path) const;
    bool hasLeft(const std::string &path) const;
    std::vector<std::string> rootPaths() const;
    std::vector<std::string> skipListFor(const IndexRoot &root) const;

    // Roots
    static Task<void> addRootNow(Weak weak, std::string path);
    static Task<void> removeRootNow(Weak weak, std::string id);
    static Task<void> removeKnownRoot(Weak weak, IndexRoot root);
    void change(Task<void> task);
    static Task<void> countChange(Weak weak, Task<void> task);

    // Events
    Task<void> startWatcher(std::uint64_t sinceID);
    Task<void> restartWatcher();
    void enqueueEvent(std::vector<std::string> paths, std::uint64_t lastEventID);
    void scheduleFlush();
    static Task<void> flushSoon(Weak weak);
    static Task<void> flush(Weak weak);
    Taken takePending();
    bool hasOverflowed();
    static Task<void> apply(Weak weak, std::shared_ptr<Taken> taken);
    static Task<Classified> classify(Weak weak, Paths work);
    void putBack(Taken taken);
    void loseClaims();
    static bool isDemotedEventPath(std::string_view path);

    // Search
    Task<std::vector<FileRecord>> searchOrThrow(std::string text, std::optional<std::string> directory);
    void requireIndexed(const std::string &text) const;

    std::string watchingText() const;
    void showWatching();
    void showUnwatched(std::size_t folders);
    void showFailure(const std::exception_ptr &error);
    void recordIndexError();

    Ports ports;
    Actor disk;
    MainThreadOnly confined;

    TaskHandle _scanTask;
    int _scanGeneration = 0;
    bool _scanHadFailure = false;

    std::deque<EventBatch> _pendingBatches; ///< Oldest first.
    std::size_t _pendingEventTotal = 0; ///< Paths in all of them.
    std::uint64_t _processedEventID = 0; ///< The last event applied and saved.
    TaskHandle _flushTask;
    bool flushScheduled = false;
    bool _isFlushing = false;
    int _burstRounds = 0; ///< Passes in a row that left too much behind.
    std::optional<double> _lastCountRefresh; ///< On the clock that never jumps; nothing before the first.
    bool _liveUpdatesAvailable = true;
    std::uint64_t watchNumber = 0; ///< Of the present watch.
    std::uint64_t lossyWatch = 0; ///< The last that told paths which were lost: its identifiers claim nothing any more.
    std::size_t unwatchedFolders = 0; ///< For which the system gives no watch.

    std::optional<FileLock> lock;
    TaskHandle lockTask, backfillTask;
    AsyncEvent ready; ///< The stored state has been read.
    bool eventIDLoaded = false;
    std::stop_source stopping; ///< Asked by `stop`.
    bool rebuildWanted = false; ///< Asked for before the lock was free.
    int changes = 0; ///< Changes of the roots under way.
    std::set<std::string> leavingRoots; ///< Paths of roots that are being removed or were, and were not added again.
};

} // namespace korvane
