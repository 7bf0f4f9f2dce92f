#pragma once

#include "CommandCore/Commands.h"
#include "Support/MainLoop.h"
#include "Vorrel/FileIndex/FileIndexService.h"
#include "Vorrel/Platform/Headless/HeadlessSystem.h"
#include "Vorrel/Shell/AppLog.h"
#include "Vorrel/Shell/DiagnosticsService.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

/// A file index whose disk, walks and events the test writes, on one thread and in virtual time.
namespace korvane::test {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

/// A record of the index; a path that ends in "/" is a folder.
inline IndexedFile entry(std::string path, long long size = 0, double modified = 0)
{
    const bool folder = path.ends_with('/');
    if (folder)
        path.pop_back();
    return {.path = path, .name = lastPathComponent(path), .isDirectory = folder, .size = size, .modified = modified};
}

/// Walks that do what the test says.
class ScriptedScanner final : public FileScanner {
public:
    struct Walk {
        std::string root;
        Strings skips;
        AsyncStream<std::vector<IndexedFile>> stream;
        bool ended = false; ///< By either side.
    };

    AsyncStream<std::vector<IndexedFile>> scan(std::string root, Strings skips) override
    {
        AsyncStream<std::vector<IndexedFile>> stream;
        const auto walk = std::make_shared<Walk>(Walk{root, std::move(skips), stream});
        walks.push_back(walk);
        stream.onTermination([walk] { walk->ended = true; });
        if (const auto known = disk.find(root); known != disk.end()) {
            if (!known->second.empty())
                stream.yield(known->second);
            if (failing.contains(root))
                stream.finish(std::make_exception_ptr(
                    AppError(AppError::Kind::recoverable, "Indexing stopped on an unresponsive folder.")));
            else
                stream.finish();
        }
        return stream;
    }

    /// The latest walk of a root.
    Walk &walk(const std::string &root)
    {
        for (auto one = walks.rbegin(); one != walks.rend(); ++one)
            if ((*one)->root == root)
                return **one;
        throw std::runtime_error("no walk of " + root);
    }
    bool walked(const std::string &root) const
    {
        return std::ranges::any_of(walks, [&root](const auto &walk) { return walk->root == root; });
    }

    std::map<std::string, std::vector<IndexedFile>> disk; ///< Walks of these roots give this and end at once; others wait.
    std::set<std::string> failing; ///< Walks of these end by an error.
    std::vector<std::shared_ptr<Walk>> walks;
};

class ScriptedWatcher final : public FileEventWatching {
public:
    Task<void> start(Strings roots, std::uint64_t sinceID, Handler given) override
    {
        starts.push_back({roots, sinceID});
        if (fails)
            throw AppError(AppError::Kind::recoverable, "File system monitoring could not start.");
        if (hangs) {
            std::function<void(Continuation<void>)> begin = [this](Continuation<void> answer) { waiting = std::move(answer); };
            co_await suspend<void>(std::move(begin));
        }
        handler = std::move(given);
    }
    void stop() override
    {
        ++stops;
        if (waiting)
            waiting->fail(std::make_exception_ptr(Cancelled()));
        waiting.reset();
        handler = nullptr;
    }
    void onUnwatched(std::function<void(std::size_t)> told) override { unwatched = std::move(told); }
    void tell(Strings paths, std::uint64_t id) const
    {
        if (handler)
            handler(std::move(paths), id);
    }

    struct Start {
        Strings roots;
        std::uint64_t sinceID;
        bool operator==(const Start &) const = default;
    };
    std::vector<Start> starts;
    int stops = 0;
    bool fails = false;
    bool hangs = false; ///< Starts do not end, until a stop.
    std::optional<Continuation<void>> waiting;
    Handler handler;
    std::function<void(std::size_t)> unwatched;
};

/// A disk of which the test says what is there.
class ScriptedAttributes final : public FileAttributeReading {
public:
    AttributeOutcome attributes(const std::string &path) const override
    {
        asked.push_back(path);
        if (unavailable.contains(path))
            return {};
        const auto found = there.find(path);
        if (found == there.end())
            return {.state = AttributeOutcome::State::notFound};
        return {AttributeOutcome::State::found, found->second.isDirectory, found->second.size, found->second.modified};
    }
    void put(const IndexedFile &file) { there.insert_or_assign(file.path, file); }

    std::map<std::string, IndexedFile> there;
    std::set<std::string> unavailable;
    mutable Strings asked;
};

struct TestIndex {
    /// On `threads`, or else on the one loop.
    explicit TestIndex(std::string path = ":memory:", const ThreadPool *threads = nullptr) :
        pool(threads ? threads->executor() : loop.executor()),
        database(await(loop,
            Database::open(
                pool, path, Database::Access::readWrite, [this] { return look(); }, 0ms)))
    {
        AppLog::silence();
        AppLog::observe([this](std::string_view, AppLog::Level, std::string_view message) { log.emplace_back(message); });
        if (path != ":memory:")
            searchDatabase = await(loop, Database::open(pool, path, Database::Access::readOnly));
        make();
    }
    ~TestIndex()
    {
        AppLog::observe(nullptr);
        service.reset();
        loop.shutDown();
    }

    /// A new service over the same store, as after a restart.
    void make()
    {
        auto ownScanner = std::make_unique<ScriptedScanner>();
        scanner = ownScanner.get();
        service = std::make_shared<FileIndexService>(FileIndexService::Ports{
            .mainThread = loop.executor(),
            .pool = pool,
            .clock = clock,
            .folders = folders,
            .places = places,
            .database = database,
            .searchDatabase = searchDatabase,
            .scanner = std::move(ownScanner),
            .watcher = &watcher,
            .attributes = attributes,
            .diagnostics = &diagnostics,
            .lockPath = lockPath,
            .detached = [this](std::function<void()> work) { detached(std::move(work)); },
        });
    }

    // Arranging
    void root(const std::string &path) { await(loop, repository().addRoot(path)); }
    void indexed(std::vector<IndexedFile> files) { await(loop, repository().upsert(std::move(files))); }
    void execute(std::string sql) { await(loop, database->execute(std::move(sql))); }

    // Acting
    void start()
    {
        await(loop, service->start());
        settle();
    }
    void stop()
    {
        await(loop, service->stop());
        settle();
    }
    void settle() { loop.runUntilIdle(); }
    void tell(Strings paths, std::uint64_t id) { watcher.tell(std::move(paths), id), settle(); }
    void wait(Milliseconds time) { clock.advance(time); }
    void rebuild() { service->rebuild(), settle(); }

    // Looking
    const FileIndexRepository &repository() const { return service->repository; }
    Strings paths()
    {
        Strings all;
        for (const SQLRow &row : await(loop, database->rows("SELECT path FROM file_index ORDER BY path")))
            all.push_back(row.at("path"));
        return all;
    }
    Strings staged()
    {
        Strings all;
        for (const SQLRow &row : await(loop, database->rows("SELECT path FROM file_index_staging ORDER BY path")))
            all.push_back(row.at("path"));
        return all;
    }
    double look() const
    {
        if (onLook)
            onLook();
        return 0;
    }
    std::uint64_t savedID() { return await(loop, repository().loadEventID()); }
    std::string status() const { return service->statusText(); }
    bool logged(std::string_view text) const
    {
        return std::ranges::any_of(log, [text](const std::string &line) { return line.find(text) != line.npos; });
    }
    Strings found(std::string text, std::optional<std::string> directory = {})
    {
        Strings all;
        for (const FileRecord &record : await(loop, service->search(std::move(text), std::move(directory))))
            all.push_back(record.path);
        return all;
    }

    MainLoop loop;
    ManualClock clock{loop};
    UserFolders folders{.home = "/home/ada", .data = "/home/ada/.local/share"};
    IndexPlaces places{
        .defaultRoots = {"/home/ada"}, .skippedPrefixes = {"/home/ada/.local/share/Korvane"}, .looseCount = 1, .aliasPrefix = {}};
    Executor pool;
    std::function<void()> onLook; ///< Called, on its thread, by whatever of the store can be ended early.
    std::shared_ptr<Database> database, searchDatabase;
    ScriptedWatcher watcher;
    std::shared_ptr<ScriptedAttributes> attributes = std::make_shared<ScriptedAttributes>();
    HeadlessDialogs dialogs;
    DiagnosticsService diagnostics{{.clock = clock, .dialogs = dialogs, .pool = loop.executor(), .facts = {}}};
    std::optional<std::string> lockPath;
    /// What may hang on a dead volume; a test may keep it back.
    std::function<void(std::function<void()>)> detached = [this](std::function<void()> work) {
        runLater(loop.executor(), std::move(work));
    };
    ScriptedScanner *scanner = nullptr; ///< Of the present service.
    std::shared_ptr<FileIndexService> service;
    Strings log;
};

} // namespace korvane::test
