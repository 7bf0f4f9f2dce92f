#include "Vorrel/Platform/Linux/FolderMonitor.h"

#include "Support/Descriptor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace korvane {

namespace fs = std::filesystem;

namespace {

constexpr int deepestFolder = 32;

/// For a folder whose content counts.
constexpr std::uint32_t contentEvents =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
/// For a folder in which another is awaited.
constexpr std::uint32_t arrivalEvents = IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF;
/// Those after which other folders may have to be watched.
constexpr std::uint32_t structuralEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;

} // namespace

class FolderMonitor::State {
public:
    State() : inotify(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) { }

    void add(int client, std::vector<std::string> folders, AsyncStream<bool> stream)
    {
        clients.emplace(client, Client{std::move(folders), std::move(stream)});
        arrange();
    }

    void remove(int client)
    {
        if (clients.erase(client))
            arrange();
    }

    bool usable() const { return static_cast<bool>(inotify); }
    const Descriptor &descriptor() const { return inotify; }

    /// Takes what has happened and tells those whom it concerns.
    void readEvents()
    {
        std::set<int> concerned;
        bool restructured = false;
        alignas(struct inotify_event) std::array<char, 32768> buffer;
        for (ssize_t size; (size = ::read(inotify.get(), buffer.data(), buffer.size())) > 0;) {
            for (ssize_t at = 0; at < size;) {
                struct inotify_event event { };
                std::memcpy(&event, buffer.data() + at, sizeof event);
                const char *name = event.len ? buffer.data() + at + sizeof event : "";
                restructured = take(event, name, concerned) || restructured;
                at += static_cast<ssize_t>(sizeof event + event.len);
            }
        }
        if (restructured)
            arrange();
        // Streams end on this thread, while we go through them: by number, not by iterator.
        for (const int client : concerned)
            if (const auto found = clients.find(client); found != clients.end())
                AsyncStream<bool>(found->second.stream).yield(true);
    }

    int nextClient = 0;

private:
    struct Client {
        std::vector<std::string> folders;
        AsyncStream<bool> stream;
    };
    /// Why one folder is watched, and for whom.
    struct Watched {
        std::set<int> content; ///< Clients to whom everything in the folder counts.
        std::map<std::string, std::set<int>> awaited; ///< Clients to whom the coming of a name counts.
    };

    /// Notes whom an event concerns; true when other folders may have to be watched after it.
    bool take(const struct inotify_event &event, const std::string &name, std::set<int> &concerned)
    {
        if (event.mask & IN_Q_OVERFLOW) {
            for (const auto &[client, one] : clients)
                concerned.insert(client);
            return true;
        }
        const auto found = watches.find(event.wd);
        if (found == watches.end())
            return false;
        const Watched &folder = found->second;
        if (event.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT)) {
            concerned.insert(folder.content.begin(), folder.content.end());
            // A folder that was renamed lives on under its watch, which would speak of a strange place.
            if (!(event.mask & IN_IGNORED))
                ::inotify_rm_watch(inotify.get(), event.wd);
            watches.erase(found);
            return true;
        }
        concerned.insert(folder.content.begin(), folder.content.end());
        const auto arrived = folder.awaited.find(name);
        const bool awaited = arrived != folder.awaited.end() && (event.mask & (IN_CREATE | IN_MOVED_TO));
        if (awaited)
            concerned.insert(arrived->second.begin(), arrived->second.end());
        // A link to a folder is no folder itself; it is looked at when something else in it may be one.
        return awaited || (!folder.content.empty() && (event.mask & structuralEvents));
    }

    /// Makes the watches what the clients' folders, as they are now, ask for.
    void arrange()
    {
        if (!inotify)
            return;
        std::map<int, Watched> next;
        for (const auto &[client, one] : clients)
            for (const auto &folder : one.folders)
                watchFolder(client, folder, next);
        for (const auto &[number, folder] : watches)
            if (!next.contains(number))
                ::inotify_rm_watch(inotify.get(), number);
        watches = std::move(next);
    }

    void watchFolder(int client, const std::string &folder, std::map<int, Watched> &into)
    {
        // Again when the folder, or one on the way to it, came just before its coming was watched for.
        for (int attempt = 0; attempt < 8; ++attempt) {
            std::set<std::pair<dev_t, ino_t>> entered;
            if (watchContent(client, folder, 0, entered, into) || !awaitArrival(client, folder, into))
                return;
        }
    }

    /// Watches a folder and those below it. False when there is no such folder.
    bool watchContent(int client, const std::string &folder, int depth, std::set<std::pair<dev_t, ino_t>> &entered,
        std::map<int, Watched> &into)
    {
        struct stat status { };
        if (depth > deepestFolder || ::stat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
            return false;
        if (!entered.emplace(status.st_dev, status.st_ino).second)
            return true;
        // The watch comes first, so that what is made while the names are read is not missed.
        if (auto *watched = addWatch(folder, contentEvents, into))
            watched->content.insert(client);
        std::error_code failed;
        for (fs::directory_iterator at(folder, failed), end; !failed && at != end; at.increment(failed)) {
            std::error_code unknown;
            if (!at->path().filename().native().starts_with('.') && at->is_directory(unknown))
                watchContent(client, at->path().native(), depth + 1, entered, into);
        }
        return true;
    }

    /// Watches the nearest folder above a missing one for the next folder on the way to it. True when
    /// that is there by now.
    bool awaitArrival(int client, const std::string &missing, std::map<int, Watched> &into)
    {
        std::error_code failed;
        fs::path awaited(missing);
        while (awaited.has_relative_path() && !fs::is_directory(awaited.parent_path(), failed))
            awaited = awaited.parent_path();
        if (!awaited.has_relative_path())
            return false;
        if (auto *watched = addWatch(awaited.parent_path().native(), arrivalEvents, into))
            watched->awaited[awaited.filename().native()].insert(client);
        return fs::is_directory(awaited, failed);
    }

    /// Null when the system refuses, as beyond its limit of watches: the folder then goes unwatched.
    Watched *addWatch(const std::string &folder, std::uint32_t events, std::map<int, Watched> &into)
    {
        // Added to what the folder may be watched for already, for another client.
        const int number = ::inotify_add_watch(inotify.get(), folder.c_str(), events | IN_ONLYDIR | IN_MASK_ADD);
        if (number < 0)
            return nullptr;
        return &into[number];
    }

    Descriptor inotify;
    std::map<int, Client> clients;
    std::map<int, Watched> watches; // by number
};

namespace {

template <class State> Task<void> readEvents(std::shared_ptr<State> state)
{
    for (;;) {
        co_await waitUntilReadable(state->descriptor());
        state->readEvents();
    }
}

} // namespace

FolderMonitor::FolderMonitor(Executor mainThread) : state(std::make_shared<State>())
{
    if (state->usable())
        reader = spawn(std::move(mainThread), readEvents(state));
}

FolderMonitor::~FolderMonitor() = default;

AsyncStream<bool> FolderMonitor::watch(std::vector<std::string> folders)
{
    confined.check();
    AsyncStream<bool> stream;
    const int client = state->nextClient++;
    stream.onTermination([weak = std::weak_ptr(state), client] {
        if (const auto alive = weak.lock())
            alive->remove(client);
    });
    state->add(client, std::move(folders), stream);
    return stream;
}

} // namespace korvane
