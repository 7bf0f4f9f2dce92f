#include "Vorrel/Platform/Linux/InotifyFileEvents.h"

#include "CommandCore/Commands.h"
#include "Support/OwnThread.h"
#include "Vorrel/Platform/Linux/FolderFacts.h"
#include "Vorrel/Platform/Linux/FolderWatches.h"
#include "Vorrel/Platform/Linux/LinkedFacts.h"
#include "Vorrel/Shell/AppLog.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <fcntl.h>
#include <fmt/format.h>
#include <fstream>
#include <map>
#include <set>
#include <sys/inotify.h>
#include <unordered_map>
#include <unordered_set>

namespace korvane {

using namespace std::chrono_literals;

namespace {

constexpr std::size_t fallbackBudget = 4096;
constexpr double margin = 2.0; ///< Seconds by which a file system's clock may lag behind the wall clock, amply.
constexpr int parts = 10; ///< Times that the kernel's queue, which holds only 16,384 events, is emptied in a latency.
constexpr int eventsAtOnce = 20'000;
constexpr int foldersAtOnce = 200; ///< Listed or looked at before others get their turn.
constexpr int foldersPerPage = 1000;
constexpr int filesPerPortion = 500;
constexpr double restPerWork = 4; ///< How long a portion's pause is, in times that the portion took.
constexpr Milliseconds shortestRest = 50ms;
constexpr Milliseconds slowPace = 5s;
constexpr std::size_t stepsPerRound = 12; ///< Of the slow pace; in a round everything has had its turn.
constexpr std::size_t polledPerStep = 5000;
constexpr Milliseconds indexPatience = 30s;
constexpr Milliseconds rootPatience = 5s; ///< For the first answer of a volume of another machine.
/// Seconds after which a place that a folder has left is looked at again: the index learns what is told a while later.
constexpr std::array<double, 2> secondLooks{4, 60};
constexpr std::size_t mostDepartures = 10'000;

using Files = std::vector<IndexedFile>;
using Question = std::function<Task<Files>()>;

} // namespace

void InotifyFileEvents::openAndClose(const std::string &root)
{
    const Descriptor folder(::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

std::size_t InotifyFileEvents::defaultBudget()
{
    std::size_t limit = 0;
    std::ifstream("/proc/sys/fs/inotify/max_user_watches") >> limit;
    return limit ? limit / 2 : fallbackBudget;
}

/// What a session has going on. Apart from it, since the running tasks own the session: they may go away with their
/// loop, and the last of them must not cancel itself. Made anywhere, then used on the worker.
struct InotifyFileEvents::Tasks {
    TaskHandle opening, following, comparing, recovering, checking, pacing;
};

/// What goes on from one start to its stop. Everything happens on the worker unless it says otherwise.
class InotifyFileEvents::Session : public std::enable_shared_from_this<Session> {
public:
    Session(Executor worker, Clock &clock, IndexedFolders &index, const Settings &settings, std::vector<std::string> roots,
        std::uint64_t sinceID, Handler handler, std::function<void(std::size_t)> unwatched) :
        worker(std::move(worker)),
        clock(clock), index(index), settings(settings), roots(std::move(roots)), sinceID(sinceID),
        watches({this->roots.begin(), this->roots.end()}, settings.budget,
            settings.addWatch ? settings.addWatch : FolderWatches::AddWatch(::inotify_add_watch)),
        handler(std::move(handler)), unwatched(std::move(unwatched)), given(sinceID)
    {
    }

    /// Begins, once `before` has given back its watches; `answer` is told how it went. Any thread.
    void launch(std::weak_ptr<Tasks> into, std::shared_ptr<Session> before, Continuation<void> answer)
    {
        {
            const std::scoped_lock lock(telling);
            starting.emplace(std::move(answer));
        }
        tasks = std::move(into);
        runLater(worker, [self = shared_from_this(), before = std::move(before)] {
            if (const auto alive = self->tasks.lock())
                alive->opening = self->go(self->open(before));
        });
    }

    /// Nothing is told any more when this returns; what runs ends as soon as it can. Any thread; waits only for a
    /// handler that is being called.
    void end(std::shared_ptr<Tasks> last)
    {
        hasEnded = true;
        std::optional<Continuation<void>> waiting;
        {
            const std::scoped_lock lock(telling);
            handler = nullptr;
            unwatched = nullptr;
            waiting = std::exchange(starting, std::nullopt);
        }
        if (waiting)
            waiting->fail(std::make_exception_ptr(Cancelled()));
        runLater(worker, [self = shared_from_this(), last = std::move(last)] {
            *last = Tasks();
            self->closeWhenDone();
        });
    }

    /// See `InotifyFileEvents::entered`. Any thread.
    void entered(const std::string &folder)
    {
        const auto known = territory();
        if (!hasEnded && known && known->contains(folder))
            watches.enter(folder, false);
    }

    Counts counts() const { return {watches.watched(), watches.polled()}; }
    bool isEnded() const { return hasEnded; }

private:
    // Telling

    /// Paths without repeats, told in portions. All but the last portion claim nothing.
    class Batch {
    public:
        explicit Batch(Session &session) : session(session) { }
        void add(const std::string &path)
        {
            const auto known = session.territory();
            if (!known->contains(path) || known->isRoot(path) || !seen.insert(path).second)
                return;
            paths.push_back(path);
            if (paths.size() >= session.settings.pathsPerBatch)
                send();
        }
        void send() { finish(session.given); }
        /// Everything that changed up to `identifier` is told with these.
        void finish(std::uint64_t identifier)
        {
            seen.clear();
            if (!paths.empty())
                session.tell(std::exchange(paths, {}), identifier);
        }

    private:
        Session &session;
        std::vector<std::string> paths;
        std::unordered_set<std::string> seen;
    };

    /// While it lives, identifiers claim nothing new: older changes are still to be found.
    class Hold {
    public:
        explicit Hold(Session &session) : session(session) { ++session.holds; }
        ~Hold() { --session.holds; }
        Hold(const Hold &) = delete;
        Hold &operator=(const Hold &) = delete;

    private:
        Session &session;
    };

    void tell(std::vector<std::string> paths, std::uint64_t identifier)
    {
        const std::scoped_lock lock(telling);
        given = std::max(given, identifier);
        if (handler)
            handler(std::move(paths), given);
    }

    /// An identifier that claims what has happened up to now.
    std::uint64_t identifierOfNow() { return std::uint64_t(std::max(0.0, time().now() - margin) * 1e6); }

    // Living and ending

    /// The clock and the index may be gone when a disk lets go of this thread long after the end.
    Clock &time()
    {
        if (hasEnded)
            throw Cancelled();
        return clock;
    }

    std::shared_ptr<const Territory> territory() const
    {
        const std::scoped_lock lock(territoryMutex);
        return _territory;
    }

    void readMounts()
    {
        std::vector<std::string> present;
        std::ranges::remove_copy_if(
            roots, std::back_inserter(present), [this](const std::string &root) { return hanging.contains(root); });
        auto next = std::make_shared<const Territory>(std::move(present), settings.skippedPrefixes, settings.mountPoints());
        const std::scoped_lock lock(territoryMutex);
        _territory = std::move(next);
    }

    [[nodiscard]] TaskHandle go(Task<void> task)
    {
        ++running;
        return spawn(worker, carry(shared_from_this(), std::move(task)));
    }

    static Task<void> carry(std::shared_ptr<Session> self, Task<void> task)
    {
        try {
            co_await std::move(task);
        } catch (const Cancelled &) {
        }
        --self->running;
        self->closeWhenDone();
    }

    Tasks &handles()
    {
        const auto alive = tasks.lock();
        if (!alive)
            throw Cancelled();
        return *alive; // nobody but this thread ends them
    }

    void closeWhenDone()
    {
        if (!hasEnded || running > 0)
            return;
        watches.close();
        finished.fire();
    }

    Task<void> open(std::shared_ptr<Session> before)
    {
        if (before)
            co_await before->finished.wait();
        before.reset();
        const auto began = identifierOfNow();
        lastGoodRead = began;
        readMounts();
        const bool isOpen = watches.open();
        if (isOpen)
            co_await setAsideRootsThatHang();
        const bool opened = isOpen && watchRoots();
        std::optional<Continuation<void>> waiting;
        {
            const std::scoped_lock lock(telling);
            waiting = std::exchange(starting, std::nullopt);
        }
        if (!opened && waiting)
            waiting->fail(
                std::make_exception_ptr(AppError(AppError::Kind::recoverable, "File system monitoring could not start.")));
        if (!opened || !waiting)
            co_return;
        waiting->resume();
        handles().following = go(follow());
        handles().comparing = go(compareAtStart(began));
        handles().pacing = go(goSlowly());
    }

    /// False when there are roots and not one of them can be watched.
    bool watchRoots()
    {
        bool someExist = false, someWatched = false;
        for (const auto &root : roots) {
            if (missingRoots.contains(root))
                continue;
            const auto entered = watches.enter(root, true);
            struct stat status { };
            const bool exists = entered.state != FolderWatches::State::absent || ::stat(root.c_str(), &status) == 0;
            someWatched = someWatched || entered.state == FolderWatches::State::watched;
            someExist = someExist || exists;
            if (entered.state == FolderWatches::State::absent)
                missingRoots.insert(root);
        }
        return someWatched || !someExist;
    }

    // Roots on volumes that may hang

    /// Roots on a mount that would be left out below another root are first asked on a thread of their own, which may hang
    /// with them. Those that do not answer are out of the territory, and count as missing, until they do.
    Task<void> setAsideRootsThatHang()
    {
        const double deadline = time().uptime() + rootPatience.count() / 1000.0;
        std::vector<std::string> asked;
        std::set<std::string> silent;
        for (const auto &root : roots) {
            if (!leadsOnto(territory()->mounts(), root))
                continue;
            if (hanging.contains(root) && !questions.at(root)->fired())
                silent.insert(root);
            else
                asked.push_back(root);
        }
        for (const auto &root : asked)
            askRoot(root);
        for (const auto &root : asked) {
            const auto answered = questions.at(root);
            const Milliseconds left(std::llround(1000 * (deadline - time().uptime())));
            if (!co_await firesWithin(time(), answered, left))
                silent.insert(root);
        }
        if (std::exchange(hanging, silent) != silent)
            readMounts();
        for (const auto &root : silent)
            loseRoots(root);
    }

    void askRoot(const std::string &root)
    {
        auto &question = questions[root];
        question = std::make_shared<AsyncEvent>();
        runOnOwnThread([touch = settings.touch, root, worker = worker, answered = question] {
            touch(root);
            runLater(worker, [answered] { answered->fire(); });
        });
    }

    // Following events

    Task<void> follow()
    {
        for (;;) {
            co_await waitUntilReadable(watches.descriptor());
            co_await collect();
            if (overflowed && !handles().recovering.running())
                handles().recovering = go(recover());
        }
    }

    /// Takes what happens during the latency, and tells it.
    Task<void> collect()
    {
        Batch batch(*this);
        for (int part = 0; part < parts; ++part) {
            takeEvents(batch);
            list(arrivals, batch);
            co_await time().sleep(settings.latency / parts);
        }
        for (;;) {
            const auto upTo = identifierOfNow();
            const bool all = takeEvents(batch);
            list(arrivals, batch);
            if (all && arrivals.empty()) {
                const bool claims = holds == 0 && !overflowed;
                if (claims)
                    lastGoodRead = upTo;
                batch.finish(claims ? upTo : given);
                co_return;
            }
            co_await yieldOnce();
            co_await throwIfCancelled();
        }
    }

    /// True when no event waits any more.
    bool takeEvents(Batch &batch)
    {
        return watches.read(eventsAtOnce, [this, &batch](const inotify_event &event, const char *name) {
            if (event.mask & IN_Q_OVERFLOW)
                overflowed = true;
            else if (const auto folder = watches.folder(event.wd))
                take(event, *folder, name, batch);
            else
                watches.heardOfUnknown();
        });
    }

    void take(const inotify_event &event, const std::string &folder, const std::string &name, Batch &batch)
    {
        if (name.empty())
            return takeOfItself(event, folder, batch);
        const std::string path = pathIn(folder, name);
        batch.add(path);
        if (event.mask & (IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO))
            batch.add(folder);
        if (!(event.mask & IN_ISDIR))
            return;
        if (event.mask & (IN_MOVED_FROM | IN_DELETE))
            leave(path, event.mask & IN_MOVED_FROM);
        // A folder that has left may be there again already, by an exchange of two. One whose rights have changed
        // may be readable now.
        if (!(event.mask & IN_ATTRIB) || !watches.knows(path))
            arrivals.insert(path);
    }

    /// An event of a watched folder itself, which its parent folder tells too, unless that is not watched.
    void takeOfItself(const inotify_event &event, const std::string &folder, Batch &batch)
    {
        if (event.mask & (IN_IGNORED | IN_UNMOUNT | IN_DELETE_SELF)) {
            watches.ended(event.wd);
            loseRoots(folder);
            // What comes to light under a mount is followed; what was on it keeps its rows.
            arrivals.insert(folder);
        }
        if (event.mask & IN_MOVE_SELF)
            checkPlace(folder, batch);
        if (!(event.mask & IN_IGNORED) && !(event.mask & IN_UNMOUNT))
            batch.add(folder);
    }

    void checkPlace(const std::string &folder, Batch &batch)
    {
        const auto entered = watches.enter(folder, true);
        if (entered.state == FolderWatches::State::watched && !entered.isNew)
            return;
        batch.add(folder);
        leave(folder, true);
        arrivals.insert(folder);
    }

    /// A folder is at this path no more. One that took its content along left no word of what was in it; should
    /// another have come in its place, the index has to be asked for that.
    void leave(const std::string &path, bool tookContent)
    {
        tookContent = tookContent || !watches.knows(path);
        watches.forget(path);
        loseRoots(path);
        if (tookContent && territory()->contains(path))
            departures[path] = {0, time().uptime() + secondLooks[0]};
        if (departures.size() > mostDepartures) {
            departures.clear();
            overflowed = true;
        }
    }

    void loseRoots(const std::string &path)
    {
        for (const auto &root : roots)
            if (isAtOrBelow(root, path)) {
                watches.forget(root);
                missingRoots.insert(root);
            }
    }

    /// Watches and lists some of the folders in `waiting`; what lies below them joins it.
    void list(std::set<std::string> &waiting, Batch &batch)
    {
        for (int count = 0; count < foldersAtOnce && !waiting.empty(); ++count) {
            const std::string folder = std::move(waiting.extract(waiting.begin()).value());
            const auto known = territory();
            if (hasEnded || !known->contains(folder) || missingRoots.contains(folder))
                continue;
            const auto entered = watches.enter(folder, true);
            if (entered.state == FolderWatches::State::absent)
                continue;
            // It may have replaced another in a folder that tells of no leaving: what that held is still to be found.
            if (entered.isNew && entered.state == FolderWatches::State::polled)
                watches.setStamp(folder, 0);
            else if (entered.isNew && watches.polled() > 0)
                departures.try_emplace(folder, Departure{0, time().uptime() + secondLooks[0]});
            for (const auto &entry : namesIn(folder, false).value_or(std::vector<FolderEntry>())) {
                const std::string path = pathIn(folder, entry.name);
                batch.add(path);
                if (isFolder(folder, entry) && known->contains(path))
                    waiting.insert(path);
            }
        }
    }

    // Comparing with the index

    /// From when on a folder's change counts as news, in seconds since 1970.
    struct Since {
        double time = 0;
        bool everything = false; ///< Every folder is compared.
        bool concerns(const struct stat &status) const { return everything || seconds(status.st_ctim) >= time; }
    };

    /// What the index answers, however often it has to be asked.
    Task<Files> ask(Question question)
    {
        for (bool first = true;; first = false) {
            time();
            std::optional<Files> answer;
            try {
                answer = co_await question();
            } catch (const std::exception &) {
            }
            co_await throwIfCancelled();
            if (answer)
                co_return std::move(*answer);
            if (first)
                AppLog::search.error("The file index could not be compared with the disk; trying again");
            co_await time().sleep(indexPatience);
        }
    }
    Task<Files> indexedFolders(std::string after)
    {
        Question question = [this, after = std::move(after)] { return index.folders(after, foldersPerPage); };
        co_return co_await ask(std::move(question));
    }
    Task<Files> indexedFiles(std::string after, int limit)
    {
        Question question = [this, after = std::move(after), limit] { return index.files(after, limit); };
        co_return co_await ask(std::move(question));
    }
    Task<Files> indexedChildren(std::string parent)
    {
        Question question = [this, parent = std::move(parent)] { return index.children(parent); };
        co_return co_await ask(std::move(question));
    }

    Task<void> compareAtStart(std::uint64_t began)
    {
        Batch batch(*this);
        {
            const Hold hold(*this);
            for (const auto &root : territory()->outermostRoots())
                if (!missingRoots.contains(root))
                    co_await compareIndexed(root, sinceStart(), batch);
        }
        batch.finish(holds == 0 && !overflowed ? began : given);
        tellUnwatched();
        handles().checking = go(checkFiles());
    }

    Since sinceStart()
    {
        // Without an identifier the index may hold part of what a killed run has told: the seconds that it keeps of a
        // folder do not tell what came in the same second. A clock that was set back makes every time doubtful.
        const double since = double(sinceID) / 1e6;
        return {.time = since, .everything = sinceID == 0 || since > time().now()};
    }

    /// Compares what the index holds at and below a root with the disk, and watches its folders. The last of what it
    /// finds is left in `batch`.
    Task<void> compareIndexed(std::string root, Since since, Batch &batch)
    {
        std::set<std::string> found;
        struct stat status { };
        if (::stat(root.c_str(), &status) == 0 && since.concerns(status))
            co_await compareFolder(root, When::start, batch, found);
        Judgement judgement;
        std::string after = pathIn(root, "");
        for (bool more = true; more;) {
            const Files page = co_await indexedFolders(after);
            more = page.size() == std::size_t(foldersPerPage);
            std::vector<std::string> changed;
            for (const auto &folder : page) {
                after = folder.path;
                if (folder.path >= endOf(root))
                    more = false;
                else if (judge(folder, since, judgement, batch))
                    changed.push_back(folder.path);
            }
            for (const auto &folder : changed)
                co_await compareFolder(folder, When::start, batch, found);
            co_await listAll(found, batch);
            if (more)
                batch.send();
        }
    }

    /// What earlier folders of a comparison, in the order of their paths, tell of later ones.
    struct Judgement {
        std::string vanished; ///< Folders below it have gone with it.
        std::vector<std::string> doubtful; ///< May have come by a renaming; what lies below may be another's.
    };

    /// Watches an indexed folder; whether it is to be compared.
    bool judge(const IndexedFile &folder, const Since &since, Judgement &judgement, Batch &batch)
    {
        const std::string &path = folder.path;
        if (!territory()->contains(path) || (!judgement.vanished.empty() && isBelow(path, judgement.vanished)))
            return false;
        watches.enter(path, false);
        const auto status = statusOf(path);
        if (!status) {
            const bool gone = isGone(path);
            const std::string told = gone ? highestGone(path) : path;
            if (gone)
                judgement.vanished = told;
            batch.add(told);
            return false;
        }
        if (!S_ISDIR(status->st_mode)) {
            if (!isTrueTo(folder, *status, territory()->mounts()))
                batch.add(path);
            return false;
        }
        std::erase_if(judgement.doubtful, [&path](const std::string &doubtful) { return path >= endOf(doubtful); });
        const bool isDoubted = std::any_of(judgement.doubtful.begin(), judgement.doubtful.end(),
            [&path](const std::string &doubtful) { return isBelow(path, doubtful); });
        if (!isDoubted && since.concerns(*status) && mayHaveBeenRenamed(path, since))
            judgement.doubtful.push_back(path);
        const bool hasOtherTime = !isSameTime(folder.modified, seconds(status->st_mtim));
        if (hasOtherTime)
            batch.add(path);
        return hasOtherTime || since.concerns(*status) || (isDoubted && isWholeSecond(folder.modified));
    }

    static bool mayHaveBeenRenamed(const std::string &path, const Since &since)
    {
        struct stat parent { };
        return ::stat(deletingLastPathComponent(path).c_str(), &parent) != 0 || seconds(parent.st_mtim) >= since.time;
    }

    /// Tells how the content of a folder differs from what the index holds in it, later also the folder itself. Folders
    /// that the index has not got join `found`. At a start a root of which the index holds nothing is left to the scan, and every
    /// indexed folder gets its turn; later, folders of which nobody knows join `found` too.
    enum class When { start, later };
    Task<void> compareFolder(std::string folder, When when, Batch &batch, std::set<std::string> &found)
    {
        const auto known = territory();
        const bool isRoot = known->isRoot(folder);
        const auto names = namesIn(folder, isRoot);
        if (!names)
            co_return;
        const Files rows = co_await indexedChildren(folder);
        if (isRoot && when == When::start && rows.empty())
            co_return;
        std::unordered_map<std::string_view, const IndexedFile *> unseen;
        for (const auto &row : rows)
            unseen.emplace(std::string_view(row.path).substr(row.path.rfind('/') + 1), &row);
        std::vector<std::string> replaced;
        for (const auto &entry : *names) {
            const auto row = unseen.find(entry.name);
            compareEntry(folder, entry, row == unseen.end() ? nullptr : row->second, when, batch, found, replaced);
            if (row != unseen.end())
                unseen.erase(row);
        }
        for (const auto &[name, row] : unseen) {
            batch.add(row->path);
            watches.forget(row->path);
        }
        if (when == When::later)
            batch.add(folder);
        for (const auto &path : replaced)
            co_await tellVanishedBelow(path, batch);
    }

    void compareEntry(const std::string &folder, const FolderEntry &entry, const IndexedFile *row, When when, Batch &batch,
        std::set<std::string> &found, std::vector<std::string> &replaced)
    {
        const std::string path = pathIn(folder, entry.name);
        if (!territory()->contains(path))
            return;
        const bool isDirectory = isFolder(folder, entry);
        if (row && isDirectory && row->isDirectory) {
            // Another folder may have come in its place, together with one above that no event told of. What it holds
            // is told, and what the one before held.
            if (when == When::later && watches.enter(path, true).isNew) {
                found.insert(path);
                replaced.push_back(path);
            }
            return;
        }
        if (row && !isDirectory) {
            const auto status = statusOf(path);
            if (!status || isTrueTo(*row, *status, territory()->mounts()))
                return;
            if (row->isDirectory)
                replaced.push_back(path);
        }
        batch.add(path);
        if (isDirectory)
            found.insert(path);
    }

    /// Tells what the index holds below a path and the disk does not.
    Task<void> tellVanishedBelow(std::string path, Batch &batch)
    {
        for (const bool folders : {true, false}) {
            std::string after = pathIn(path, "");
            for (bool more = true; more;) {
                const Files page = folders ? co_await indexedFolders(after) : co_await indexedFiles(after, foldersPerPage);
                more = page.size() == std::size_t(foldersPerPage);
                for (const auto &row : page) {
                    after = row.path;
                    if (row.path >= endOf(path))
                        more = false;
                    else if (isGone(row.path))
                        batch.add(highestGone(row.path));
                }
            }
        }
    }

    Task<void> listAll(std::set<std::string> &found, Batch &batch)
    {
        while (!found.empty()) {
            list(found, batch);
            co_await yieldOnce();
            co_await throwIfCancelled();
        }
    }

    // After lost events

    /// Compares every known folder that has changed since events were last known to be complete. The index may still
    /// have to take in what was told before, so that it is asked a second time.
    Task<void> recover()
    {
        AppLog::search.info("File events were lost; comparing folders with the index");
        Batch batch(*this);
        {
            const Hold hold(*this);
            const Since since{.time = double(lastGoodRead) / 1e6};
            overflowed = false;
            co_await compareKnown(since, batch);
            co_await time().sleep(2 * slowPace);
            co_await compareKnown(since, batch);
        }
        batch.send();
        handles().checking = go(checkFiles()); // a file that was rewritten leaves its folder's time alone
    }

    Task<void> compareKnown(Since since, Batch &batch)
    {
        WatchTable::Node cursor = 0;
        std::set<std::string> found;
        for (auto folders = watches.nextKnown(cursor, foldersAtOnce); !folders.empty();
             folders = watches.nextKnown(cursor, foldersAtOnce)) {
            for (const auto &folder : folders) {
                const auto entered = watches.enter(folder, true);
                struct stat status { };
                if (entered.state == FolderWatches::State::absent) {
                    batch.add(folder);
                    loseRoots(folder);
                } else if (::stat(folder.c_str(), &status) == 0 && (entered.isNew || since.concerns(status))) {
                    co_await compareFolder(folder, When::later, batch, found);
                }
            }
            co_await listAll(found, batch);
            batch.send();
            co_await yieldOnce();
            co_await throwIfCancelled();
        }
    }

    // The slow pace

    /// That folders have no watch, when it begins and when it ends.
    void tellUnwatched()
    {
        const auto [watched, polled] = counts();
        if ((polled > 0) == hasUnwatched)
            return;
        hasUnwatched = polled > 0;
        if (hasUnwatched)
            AppLog::search.error(
                fmt::format("No watch for {} folders beside the {} watched; they are checked once a minute", polled, watched));
        const std::scoped_lock lock(telling);
        if (unwatched)
            unwatched(polled);
    }

    Task<void> goSlowly()
    {
        WatchTable::Node cursor = 0;
        for (std::size_t step = 1;; ++step) {
            co_await time().sleep(slowPace);
            if (step % stepsPerRound == 0)
                co_await lookAround();
            co_await lookForRoots();
            co_await lookAtDepartures();
            co_await lookAtPolled(cursor);
            tellUnwatched();
            if (overflowed && !handles().recovering.running())
                handles().recovering = go(recover());
        }
    }

    /// What no event tells: mounts, roots of which a folder above was renamed, other programs that gave back watches.
    Task<void> lookAround()
    {
        readMounts();
        watches.forgetRefusal();
        co_await setAsideRootsThatHang();
        for (const auto &root : roots) {
            if (missingRoots.contains(root))
                continue;
            const auto entered = watches.enter(root, true);
            if (entered.state == FolderWatches::State::absent || entered.isNew)
                loseRoots(root);
        }
    }

    Task<void> lookForRoots()
    {
        const auto missing = missingRoots;
        for (const auto &root : missing) {
            if (hanging.contains(root) || watches.enter(root, true).state == FolderWatches::State::absent)
                continue;
            missingRoots.erase(root);
            Batch batch(*this);
            const Hold hold(*this);
            const Since since{.everything = true};
            co_await compareIndexed(root, since, batch);
            batch.send();
            handles().checking = go(checkFiles());
        }
    }

    Task<void> lookAtDepartures()
    {
        std::vector<std::string> due;
        for (auto &[path, departure] : departures)
            if (departure.due <= time().uptime())
                due.push_back(path);
        Batch batch(*this);
        for (const auto &path : due) {
            if (!isGone(path))
                co_await tellVanishedBelow(path, batch);
            const auto found = departures.find(path);
            if (found == departures.end())
                continue;
            if (++found->second.looks < secondLooks.size())
                found->second.due = time().uptime() + secondLooks[found->second.looks];
            else
                departures.erase(found);
        }
        batch.send();
    }

    Task<void> lookAtPolled(WatchTable::Node &cursor)
    {
        const auto all = watches.polled();
        if (all == 0)
            co_return;
        Batch batch(*this);
        std::set<std::string> found;
        const auto polled = watches.nextPolled(cursor, std::min(all / stepsPerRound + 1, polledPerStep));
        int count = 0;
        for (const auto &folder : polled) {
            if (hasChanged(folder, batch))
                co_await compareFolder(folder.path, When::later, batch, found);
            if (++count % foldersAtOnce == 0) {
                co_await yieldOnce();
                co_await throwIfCancelled();
            }
        }
        co_await listAll(found, batch);
        batch.send();
    }

    bool hasChanged(const FolderWatches::Polled &folder, Batch &batch)
    {
        // One that can be watched from now on may have changed until now.
        if (watches.hasRoom() && watches.enter(folder.path, true).state == FolderWatches::State::watched)
            return true;
        const auto stamp = watches.stampOf(folder.path);
        if (!stamp) {
            watches.forget(folder.path);
            loseRoots(folder.path);
            batch.add(folder.path);
            return false;
        }
        watches.setStamp(folder.path, *stamp);
        return *stamp == 0 || *stamp != folder.stamp;
    }

    // The contents of files

    /// Compares size and time of every indexed file, in portions with pauses.
    Task<void> checkFiles()
    {
        for (const auto &root : territory()->outermostRoots()) {
            std::string after = pathIn(root, "");
            for (bool more = true; more;) {
                Files portion = co_await indexedFiles(after, filesPerPortion);
                more = portion.size() == std::size_t(filesPerPortion);
                if (more)
                    after = portion.back().path;
                if (!portion.empty() && portion.back().path >= endOf(root))
                    more = false;
                std::erase_if(portion, [&root](const IndexedFile &file) { return !isBelow(file.path, root); });
                const double began = time().uptime();
                checkPortion(root, portion);
                const double took = time().uptime() - began;
                co_await time().sleep(std::max(shortestRest, Milliseconds(std::llround(1000 * restPerWork * took))));
            }
        }
    }

    void checkPortion(const std::string &root, const Files &portion)
    {
        Batch batch(*this);
        std::string vanished;
        for (const auto &file : portion) {
            if (hasEnded || missingRoots.contains(root))
                return;
            if (!vanished.empty() && isBelow(file.path, vanished))
                continue;
            const auto status = statusOf(file.path);
            if (status ? isTrueTo(file, *status, territory()->mounts()) : !isGone(file.path))
                continue;
            // A folder that has gone takes its files along, also one that the index never had or has no more.
            const std::string told = status ? file.path : highestGone(file.path);
            if (told != file.path)
                vanished = told;
            batch.add(told);
        }
        batch.send();
    }

    const Executor worker;
    Clock &clock;
    IndexedFolders &index;
    const Settings settings;
    const std::vector<std::string> roots;
    const std::uint64_t sinceID;
    FolderWatches watches;
    std::atomic<bool> hasEnded{false};

    mutable std::mutex territoryMutex; // walkers ask too
    std::shared_ptr<const Territory> _territory;

    std::recursive_mutex telling; // guards the next three; a handler may stop the watch
    Handler handler;
    std::function<void(std::size_t)> unwatched;
    std::optional<Continuation<void>> starting;

    std::uint64_t given; ///< The greatest identifier so far.
    std::uint64_t lastGoodRead = 0; ///< Every event up to this time has been read.
    int holds = 0;
    bool overflowed = false;
    bool hasUnwatched = false; ///< And it has been told.
    std::set<std::string> arrivals; ///< Folders that have come and are still to be listed.
    std::set<std::string> missingRoots;
    std::set<std::string> hanging; ///< Roots of which the disk does not answer.
    std::map<std::string, std::shared_ptr<AsyncEvent>> questions; ///< The last to each root that may hang; fired when answered.
    struct Departure {
        std::size_t looks = 0;
        double due = 0; ///< By the uptime.
    };
    std::map<std::string, Departure> departures; ///< By the path that a folder has left.

    int running = 0;
    std::weak_ptr<Tasks> tasks;
    AsyncEvent finished;
};

InotifyFileEvents::InotifyFileEvents(Executor worker, Clock &clock, IndexedFolders &index, Settings settings) :
    worker(std::move(worker)), clock(clock), index(index), settings(std::move(settings))
{
}

InotifyFileEvents::~InotifyFileEvents() { stop(); }

Task<void> InotifyFileEvents::start(std::vector<std::string> roots, std::uint64_t sinceID, Handler handler)
{
    confined.check();
    if (current())
        co_return;
    const auto next =
        std::make_shared<Session>(worker, clock, index, settings, std::move(roots), sinceID, std::move(handler), unwatched);
    {
        const std::scoped_lock lock(mutex);
        session = next;
    }
    tasks = std::make_shared<Tasks>();
    std::function<void(Continuation<void>)> begin = [next, into = std::weak_ptr(tasks), before = former.lock()](
                                                        Continuation<void> answer) {
        next->launch(into, before, std::move(answer));
    };
    std::exception_ptr failure;
    try {
        co_await suspend<void>(std::move(begin));
    } catch (...) {
        failure = std::current_exception();
    }
    if (!failure)
        co_return;
    // Stopped meanwhile, and perhaps destroyed, unless the session says otherwise.
    if (!next->isEnded())
        stop();
    std::rethrow_exception(failure);
}

void InotifyFileEvents::onUnwatched(std::function<void(std::size_t)> told)
{
    confined.check();
    unwatched = std::move(told);
}

void InotifyFileEvents::stop()
{
    confined.check();
    std::shared_ptr<Session> last;
    {
        const std::scoped_lock lock(mutex);
        last = std::exchange(session, nullptr);
    }
    if (!last)
        return;
    former = last;
    last->end(std::move(tasks));
}

void InotifyFileEvents::entered(const std::string &folder)
{
    if (const auto running = current())
        running->entered(folder);
}

InotifyFileEvents::Counts InotifyFileEvents::counts() const
{
    const auto running = current();
    return running ? running->counts() : Counts();
}

std::shared_ptr<InotifyFileEvents::Session> InotifyFileEvents::current() const
{
    const std::scoped_lock lock(mutex);
    return session;
}

} // namespace korvane
