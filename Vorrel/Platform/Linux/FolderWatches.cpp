#include "Vorrel/Platform/Linux/FolderWatches.h"

#include "Vorrel/Platform/Linux/FolderFacts.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace korvane {

namespace {

/// Not IN_MODIFY: a log that is written every second would keep the index writing. What a program keeps open shows
/// when it closes it.
constexpr std::uint32_t folderEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ATTRIB
    | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK;

constexpr std::int64_t second = 1'000'000'000;

std::int64_t nanoseconds(const timespec &time) { return time.tv_sec * second + time.tv_nsec; }

} // namespace

bool FolderWatches::open()
{
    const std::scoped_lock lock(mutex);
    auto opened = std::make_shared<const Descriptor>(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (*opened)
        instance = std::move(opened);
    return instance != nullptr;
}

void FolderWatches::close()
{
    const std::scoped_lock lock(mutex);
    // Who still asks keeps the instance, but not its watches.
    if (!attempts.empty())
        removeSubtree(table.find("/"));
    instance.reset();
    table = WatchTable();
}

FolderWatches::Entered FolderWatches::enter(const std::string &path, bool again)
{
    for (Attempt attempt{.path = path};;) {
        if (const auto known = begin(attempt, again))
            return *known;
        const Answer answer = ask(attempt);
        if (const auto entered = finish(attempt, answer))
            return *entered;
    }
}

/// What needs no asking.
std::optional<FolderWatches::Entered> FolderWatches::begin(Attempt &attempt, bool again)
{
    const std::scoped_lock lock(mutex);
    if (!instance)
        return Entered();
    const auto node = table.find(attempt.path);
    const bool isWatched = node != WatchTable::none && table.watch(node) != WatchTable::noWatch;
    if (isWatched && !again)
        return Entered{State::watched, false};
    attempt.polls = attempt.polls || (!isWatched && (refused || taken() >= budget));
    attempt.takesWatch = !attempt.polls && !isWatched;
    attempt.isVoid = false;
    attempt.instance = instance;
    attempts.push_back(&attempt);
    return std::nullopt;
}

FolderWatches::Answer FolderWatches::ask(const Attempt &attempt) const
{
    if (attempt.polls)
        return {.stamp = stampOf(attempt.path)};
    const std::uint32_t follow = roots.contains(attempt.path) ? 0 : IN_DONT_FOLLOW;
    const int watch = addWatch(attempt.instance->get(), attempt.path.c_str(), folderEvents | follow);
    return {.watch = watch, .error = watch < 0 ? errno : 0};
}

/// Nothing when the question has to be put again.
std::optional<FolderWatches::Entered> FolderWatches::finish(Attempt &attempt, const Answer &answer)
{
    const std::scoped_lock lock(mutex);
    std::erase(attempts, &attempt);
    if (instance != attempt.instance)
        return Entered();
    if (attempt.isVoid)
        return std::nullopt;
    if (attempt.polls)
        return notePolled(attempt.path, answer.stamp);
    if (answer.error == ENOSPC || answer.error == ENOMEM) {
        refused = true;
        attempt.polls = true;
        return std::nullopt;
    }
    return noteWatch(attempt.path, answer);
}

FolderWatches::Entered FolderWatches::noteWatch(const std::string &path, const Answer &answer)
{
    const auto node = table.find(path);
    if (answer.error) {
        if (node != WatchTable::none)
            removeSubtree(node);
        return {};
    }
    const auto holder = table.watchedBy(answer.watch);
    if (holder != WatchTable::none && holder == node)
        return {State::watched, false};
    // The folder has come here from a place that it has not been seen to leave; what lay below it is entered anew.
    if (holder != WatchTable::none)
        removeSubtree(holder, answer.watch);
    // The folder that was here before has gone, and what lay below it.
    if (const auto former = table.find(path); former != WatchTable::none && table.watch(former) != WatchTable::noWatch)
        removeSubtree(former);
    const auto entered = table.insert(path);
    table.setPolled(entered, false);
    table.setWatch(entered, answer.watch);
    return {State::watched, true};
}

FolderWatches::Entered FolderWatches::notePolled(const std::string &path, std::optional<std::int64_t> stamp)
{
    const auto known = table.find(path);
    if (!stamp) {
        if (known != WatchTable::none)
            removeSubtree(known);
        return {};
    }
    const bool isNew = known == WatchTable::none || !table.isPolled(known);
    const auto node = table.insert(path);
    if (isNew) {
        table.setPolled(node, true);
        table.setStamp(node, *stamp);
    }
    return {State::polled, isNew};
}

/// Whatever is being asked about a folder or what lies below it is out of date.
void FolderWatches::makeVoid(const std::string &folder)
{
    for (Attempt *attempt : attempts)
        attempt->isVoid = attempt->isVoid || isAtOrBelow(attempt->path, folder);
}

void FolderWatches::heardOfUnknown()
{
    const std::scoped_lock lock(mutex);
    makeVoid("/");
}

/// Watches that there are and that are being asked for.
std::size_t FolderWatches::taken() const
{
    return table.watches() + std::size_t(std::count_if(attempts.begin(), attempts.end(), [](const Attempt *attempt) {
        return attempt->takesWatch;
    }));
}

void FolderWatches::forget(const std::string &path)
{
    const std::scoped_lock lock(mutex);
    makeVoid(path);
    if (const auto node = table.find(path); node != WatchTable::none)
        removeSubtree(node);
}

void FolderWatches::ended(int watch)
{
    const std::scoped_lock lock(mutex);
    if (const auto node = table.watchedBy(watch); node != WatchTable::none)
        removeSubtree(node);
}

void FolderWatches::removeSubtree(WatchTable::Node node, int except)
{
    if (!attempts.empty())
        makeVoid(table.path(node));
    for (const int watch : table.remove(node))
        if (watch != except)
            ::inotify_rm_watch(instance->get(), watch);
    refused = false;
}

std::optional<std::string> FolderWatches::folder(int watch) const
{
    const std::scoped_lock lock(mutex);
    const auto node = table.watchedBy(watch);
    if (node == WatchTable::none)
        return std::nullopt;
    return table.path(node);
}

bool FolderWatches::knows(const std::string &path) const
{
    const std::scoped_lock lock(mutex);
    const auto node = table.find(path);
    return node != WatchTable::none && table.isEntered(node);
}

bool FolderWatches::read(int limit, const std::function<void(const inotify_event &, const char *)> &take)
{
    alignas(inotify_event) std::array<char, 65536> buffer;
    while (limit > 0) {
        const ssize_t size = ::read(instance->get(), buffer.data(), buffer.size());
        if (size <= 0)
            return true;
        for (ssize_t at = 0; at < size; --limit) {
            inotify_event event{};
            std::memcpy(&event, buffer.data() + at, sizeof event);
            take(event, event.len ? buffer.data() + at + sizeof event : "");
            at += static_cast<ssize_t>(sizeof event + event.len);
        }
    }
    return false;
}

std::vector<FolderWatches::Polled> FolderWatches::nextPolled(WatchTable::Node &cursor, std::size_t count) const
{
    const std::scoped_lock lock(mutex);
    std::vector<Polled> polled;
    for (WatchTable::Node seen = 0; seen < table.end() && polled.size() < count; ++seen) {
        const auto node = cursor < table.end() ? cursor : 0;
        cursor = node + 1;
        if (table.isPolled(node))
            polled.push_back({table.path(node), table.stamp(node)});
    }
    return polled;
}

void FolderWatches::setStamp(const std::string &path, std::int64_t stamp)
{
    const std::scoped_lock lock(mutex);
    if (const auto node = table.find(path); node != WatchTable::none)
        table.setStamp(node, stamp);
}

std::vector<std::string> FolderWatches::nextKnown(WatchTable::Node &cursor, std::size_t count) const
{
    const std::scoped_lock lock(mutex);
    std::vector<std::string> known;
    for (; cursor < table.end() && known.size() < count; ++cursor)
        if (table.isEntered(cursor))
            known.push_back(table.path(cursor));
    return known;
}

bool FolderWatches::hasRoom() const
{
    const std::scoped_lock lock(mutex);
    return !refused && taken() < budget;
}

void FolderWatches::forgetRefusal()
{
    const std::scoped_lock lock(mutex);
    refused = false;
}

std::size_t FolderWatches::watched() const
{
    const std::scoped_lock lock(mutex);
    return table.watches();
}

std::size_t FolderWatches::polled() const
{
    const std::scoped_lock lock(mutex);
    return table.polled();
}

std::optional<std::int64_t> FolderWatches::stampOf(const std::string &path) const
{
    struct stat status { };
    const int failed = roots.contains(path) ? ::stat(path.c_str(), &status) : ::lstat(path.c_str(), &status);
    if (failed != 0 || !S_ISDIR(status.st_mode))
        return std::nullopt;
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    // A later change in the same tick of the file system's clock would leave the same stamp.
    const std::int64_t changed = nanoseconds(status.st_ctim);
    return nanoseconds(now) - changed < 2 * second && nanoseconds(now) >= changed ? 0 : changed;
}

} // namespace korvane
