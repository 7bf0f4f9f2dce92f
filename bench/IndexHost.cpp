#include "bench/IndexHost.h"

#include "Vorrel/FileIndex/DiskFileAttributes.h"
#include "Vorrel/FileIndex/DiskFileScanner.h"
#include "Vorrel/Platform/Linux/LinkedFacts.h"
#include "Vorrel/Shell/AppLog.h"
#include "bench/IndexRivals.h"

#include <atomic>
#include <chrono>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sqlite3.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace korvane::bench {

namespace {

using namespace std::chrono_literals;

constexpr Milliseconds betweenDoings = 10ms;
constexpr useconds_t betweenLooks = 5'000; ///< Microseconds.

} // namespace

/// The real watcher, and a way to tell of changes in its place.
class IndexHost::Watcher final : public FileEventWatching {
public:
    explicit Watcher(FileEventWatching &real) : real(real) { }
    Task<void> start(std::vector<std::string> roots, std::uint64_t sinceID, Handler given) override
    {
        handler = given;
        co_await real.start(std::move(roots), sinceID, std::move(given));
    }
    void stop() override { real.stop(); }

    Handler handler;

private:
    FileEventWatching &real;
};

IndexHost::IndexHost(Settings settings) : folders{.home = settings.home, .data = settings.data}
{
    const std::string own = folders.korvane().value();
    std::filesystem::create_directories(own);
    database = await(Database::open(pool.executor(), storePath(), Database::Access::readWrite));
    searchDatabase = await(Database::open(pool.executor(), storePath(), Database::Access::readOnly));
    const auto endless = [] { return microseconds() / 1e12; };
    databaseHere = await(Database::open(loop.executor(), storePath(), Database::Access::readOnly, endless));
    here.emplace(databaseHere, folders, clock);
    std::vector<std::string> skipped{own};
    skipped.insert(skipped.end(), settings.skipped.begin(), settings.skipped.end());

    if (settings.follows) {
        snapshot = std::make_unique<IndexSnapshot>(worker.executor(), pool.executor(), storePath(), clock);
        events = std::make_unique<InotifyFileEvents>(
            worker.executor(), clock, *snapshot, InotifyFileEvents::Settings{.skippedPrefixes = skipped});
        watcher = std::make_unique<Watcher>(*events);
    }
    walker = std::make_unique<LinuxDirectoryWalker>([this](const std::string &folder) {
        if (events)
            events->entered(folder);
    });
    service = std::make_shared<FileIndexService>(FileIndexService::Ports{
        .mainThread = loop.executor(),
        .pool = pool.executor(),
        .clock = clock,
        .folders = folders,
        .places = {.defaultRoots = settings.roots, .skippedPrefixes = skipped, .aliasPrefix = {}},
        .database = database,
        .searchDatabase = searchDatabase,
        .scanner = std::make_unique<DiskFileScanner>(loop.executor(), clock, *walker, folders),
        .watcher = watcher.get(),
        .attributes = std::make_shared<DiskFileAttributes>(presentLinkedFacts()),
    });
    if (!settings.follows) {
        for (const auto &root : settings.roots)
            await(service->repository.addRoot(root));
        await(service->readRoots());
    }
}

IndexHost::~IndexHost()
{
    waiting.clear();
    try {
        await(service->stop());
        await(database->close());
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s\n", error.what());
    }
    service.reset();
    loop.shutDown();
    events.reset();
    snapshot.reset();
    pool.join();
}

void IndexHost::runFor(Milliseconds time) { await(clock.sleep(time)); }

void IndexHost::tell(std::vector<std::string> paths, std::uint64_t id) { watcher->handler(std::move(paths), id); }

InotifyFileEvents::Counts IndexHost::watches() const { return events ? events->counts() : InotifyFileEvents::Counts(); }

// What a program does beside

void IndexHost::beginWaits()
{
    waits = std::make_shared<StoreWaits>();
    waiting.clear();
    waiting.push_back(spawn(loop.executor(), launchAgainAndAgain(waits)));
    waiting.push_back(spawn(loop.executor(), listAgainAndAgain(waits)));
    waiting.push_back(spawn(loop.executor(), saveAgainAndAgain(waits)));
}

StoreWaits IndexHost::endWaits()
{
    runFor(100ms); // what still waits is part of it
    waiting.clear();
    return *waits;
}

Task<void> IndexHost::launchAgainAndAgain(std::shared_ptr<StoreWaits> waits)
{
    const CommandUsageStore usage(database, clock);
    const AppLaunchRepository launches(database, clock);
    for (;;) {
        const double begin = microseconds();
        co_await usage.record("app:/usr/share/applications/editor.desktop");
        co_await launches.record("/usr/share/applications/editor.desktop", "notes.txt");
        waits->launch = std::max(waits->launch, (microseconds() - begin) / 1000);
        co_await clock.sleep(betweenDoings);
    }
}

Task<void> IndexHost::listAgainAndAgain(std::shared_ptr<StoreWaits> waits)
{
    for (;;) {
        const double begin = microseconds();
        co_await database->rows(
            "SELECT id,content,kind,created_at,source_app FROM clipboard_history ORDER BY created_at DESC LIMIT 100");
        waits->clipboardList = std::max(waits->clipboardList, (microseconds() - begin) / 1000);
        co_await clock.sleep(betweenDoings);
    }
}

Task<void> IndexHost::saveAgainAndAgain(std::shared_ptr<StoreWaits> waits)
{
    const SettingsRepository settings(database);
    for (;;) {
        const double begin = microseconds();
        co_await settings.save("bench", JSONValue(true));
        waits->savedSetting = std::max(waits->savedSetting, (microseconds() - begin) / 1000);
        co_await clock.sleep(betweenDoings);
    }
}

// The store from outside

double logSize(const std::string &store)
{
    struct stat status;
    return stat((store + "-wal").c_str(), &status) == 0 ? double(status.st_size) / 1e6 : 0;
}

double logAfter(IndexHost &host, double megabytes, double seconds)
{
    const double end = microseconds() + seconds * 1e6;
    while (logSize(host.storePath()) > megabytes && microseconds() < end)
        host.runFor(20ms);
    return logSize(host.storePath());
}

struct StoreProbe::State {
    explicit State(std::string store) : store(std::move(store)) { }

    void look()
    {
        sqlite3 *handle = nullptr;
        sqlite3_open_v2(store.c_str(), &handle, SQLITE_OPEN_READWRITE, nullptr);
        sqlite3_busy_timeout(handle, 0);
        double refused = 0;
        while (!stop) {
            seen.largestLog = std::max(seen.largestLog, logSize(store));
            const bool free = sqlite3_exec(handle, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK;
            const double now = microseconds();
            if (free)
                sqlite3_exec(handle, "ROLLBACK", nullptr, nullptr, nullptr);
            if (!free && refused == 0)
                refused = now;
            if (free && refused > 0) {
                seen.longestLock = std::max(seen.longestLock, (now - refused) / 1000);
                seen.locked += (now - refused) / 1000;
                refused = 0;
            }
            usleep(betweenLooks);
        }
        sqlite3_close(handle);
        done = true;
    }

    const std::string store;
    std::atomic<bool> stop = false, done = false;
    Seen seen;
};

StoreProbe::StoreProbe(const std::string &store) : state(std::make_shared<State>(store))
{
    runOnOwnThread([state = state] { state->look(); });
}

StoreProbe::Seen StoreProbe::end()
{
    state->stop = true;
    while (!state->done)
        usleep(1000);
    return state->seen;
}

// The host as a process of its own

namespace {

class Obedience {
public:
    explicit Obedience(IndexHost &host) : host(host) { }

    std::string answer(const std::string &line)
    {
        std::istringstream words(line);
        std::string verb, rest;
        words >> verb;
        std::getline(words >> std::ws, rest);
        if (verb == "start")
            return start();
        if (verb == "rebuild")
            return rebuild();
        if (verb == "find")
            return find(rest);
        if (verb == "told")
            return told(rest);
        if (verb == "watches")
            return std::to_string(host.watches().watched) + " " + std::to_string(host.watches().polled);
        throw std::runtime_error("what is " + line);
    }

private:
    std::string start()
    {
        const double begin = microseconds();
        host.await(host.service->start());
        return scanned(begin);
    }
    std::string rebuild()
    {
        const double begin = microseconds();
        host.service->rebuild();
        return scanned(begin);
    }

    /// Seconds, files, longest lock and waits in milliseconds, largest log and log afterwards in MB.
    std::string scanned(double begin)
    {
        StoreProbe probe(host.storePath());
        host.beginWaits();
        while (host.service->busy())
            host.runFor(5ms);
        const double seconds = (microseconds() - begin) / 1e6;
        const auto waits = host.endWaits();
        const auto seen = probe.end();
        const double after = logAfter(host, 64, 10);
        std::ostringstream text;
        text << seconds << " " << host.service->fileCount().get() << " " << seen.longestLock << " " << waits.longest() << " "
             << seen.largestLog << " " << after << " " << (host.service->problem() ? 1 : 0);
        return text.str();
    }

    /// Milliseconds from now until a search shows a file of this name.
    std::string find(const std::string &name)
    {
        const double begin = microseconds();
        while (microseconds() - begin < 60e6) {
            const auto files = host.await(host.service->search(name, std::nullopt));
            if (!files.empty())
                return std::to_string((microseconds() - begin) / 1000);
            host.runFor(5ms);
        }
        throw std::runtime_error("a change never came to the search");
    }

    /// Milliseconds from the telling of the paths in a file to the end of the pass that handles them.
    std::string told(const std::string &file)
    {
        std::vector<std::string> paths;
        std::ifstream lines(file);
        for (std::string path; std::getline(lines, path);)
            paths.push_back(path);
        const auto id = host.await(host.repository().loadEventID()) + 1'000'000'000'000; // beyond the watcher's own
        const double begin = microseconds();
        host.tell(std::move(paths), id);
        while (host.await(host.searchRepository().loadEventID()) < id)
            host.runFor(2ms);
        return std::to_string((microseconds() - begin) / 1000);
    }

    IndexHost &host;
};

} // namespace

int obey(int count, char **words)
{
    if (count < 4)
        throw std::runtime_error("--host DATA LARGE SMALL");
    AppLog::silence();
    IndexHost host({.data = words[1],
        .home = words[2],
        .roots = {words[2], words[3]},
        .skipped = {std::string(words[2]) + "/.cache"},
        .follows = true});
    // Lines come from a thread of their own, so that the loop does nothing by itself while none comes.
    struct Orders {
        std::deque<std::string> lines;
        bool ended = false;
    };
    const auto orders = std::make_shared<Orders>();
    runOnOwnThread([orders, executor = host.loop.executor()] {
        for (std::string line; std::getline(std::cin, line);)
            runLater(executor, [orders, line] { orders->lines.push_back(line); });
        runLater(executor, [orders] { orders->ended = true; });
    });
    Obedience obedience(host);
    for (;;) {
        host.loop.runUntil([&orders] { return orders->ended || !orders->lines.empty(); });
        if (orders->lines.empty())
            return 0;
        const std::string line = orders->lines.front();
        orders->lines.pop_front();
        std::cout << obedience.answer(line) << std::endl;
    }
}

} // namespace korvane::bench
