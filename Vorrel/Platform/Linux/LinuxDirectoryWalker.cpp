#include "Vorrel/Platform/Linux/LinuxDirectoryWalker.h"

#include "Support/OwnThread.h"
#include "Vorrel/Platform/Linux/FolderOpener.h"
#include "Vorrel/Platform/Linux/FolderReader.h"
#include "Vorrel/Platform/Linux/LinkedFacts.h"
#include "Vorrel/Platform/Linux/MountPoints.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <fcntl.h>
#include <mutex>
#include <optional>
#include <sys/resource.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace korvane {

namespace {

using namespace std::chrono_literals;

/// Each thread holds the folder that it reads and, on the way to the next, one more; the walk holds the root.
constexpr int descriptorsOfThread = 2;
constexpr int descriptorsOfWalk = 1;

/// For descriptors and memory that others may give back.
constexpr auto betweenAttempts = 20ms;

int threadsWithin(int wanted)
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return 1;
    const auto share = limit.rlim_cur / 4;
    if (share < descriptorsOfWalk + descriptorsOfThread)
        return 1;
    return static_cast<int>(std::min<rlim_t>(std::max(wanted, 1), (share - descriptorsOfWalk) / descriptorsOfThread));
}

bool isShortage(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM; }

/// Opens something, again and again while the system is short of what it takes. Empty, with `errno`.
template <class Open> Descriptor patiently(const LinuxDirectoryWalker::Pause &pause, Open open)
{
    for (int attempt = 1;; ++attempt) {
        Descriptor opened = open();
        if (opened || !isShortage(errno) || attempt == LinuxDirectoryWalker::attempts)
            return opened;
        pause();
    }
}

std::string withoutSlashesAtEnd(std::string path)
{
    while (path.size() > 1 && path.ends_with('/'))
        path.pop_back();
    return path;
}

std::string joined(const std::string &folder, std::string_view name)
{
    std::string path;
    path.reserve(folder.size() + 1 + name.size());
    path += folder;
    if (!folder.empty() && !folder.ends_with('/'))
        path += '/';
    path += name;
    return path;
}

/// The path without links of an open folder; `otherwise` where the system does not tell it.
std::string realPath(const Descriptor &folder, const std::string &otherwise)
{
    std::array<char, PATH_MAX> path;
    const auto size = ::readlink(("/proc/self/fd/" + std::to_string(folder.get())).c_str(), path.data(), path.size());
    const bool whole = size > 0 && static_cast<std::size_t>(size) < path.size() && path[0] == '/';
    return whole ? std::string(path.data(), static_cast<std::size_t>(size)) : otherwise;
}

/// One walk, owned by its threads.
class Walk : public std::enable_shared_from_this<Walk> {
public:
    using Visitor = DirectoryWalker::Visitor;

    Walk(std::string root, std::shared_ptr<const Visitor> visitor, LinuxDirectoryWalker::Entering entering, int threads,
        std::chrono::milliseconds idlePatience, LinuxDirectoryWalker::Pause pause) :
        rootPath(withoutSlashesAtEnd(std::move(root))),
        visitor(std::move(visitor)), entering(std::move(entering)), threads(threadsWithin(threads)), idlePatience(idlePatience),
        pause(std::move(pause))
    {
    }

    /// The first thread.
    void run()
    {
        root = patiently(pause, [this] { return openFolder(rootPath); });
        if (!root)
            return visitor->done(Visitor::End::unreadable);
        realRoot = realPath(root, rootPath);
        mounts = MountPoints::read().below(realRoot);
        work();
    }

private:
    /// What one thread uses again and again.
    struct Tools {
        FolderReader reader;
        std::vector<FolderReader::Name> names;
    };

    /// A folder that is being read.
    struct Folder {
        std::string relative; ///< To the root; empty for the root itself.
        std::string path;
        std::string real; ///< Its path without links.
        bool hasMounts = false;
        Descriptor opened; ///< Empty for the root.
        std::vector<std::string> folders; ///< Found in it, relative to the root.
    };

    void work()
    {
        Tools tools;
        while (auto relative = nextFolder())
            leave(visit(std::move(*relative), tools));
    }

    /// A folder to visit; nothing when this thread is not needed any more.
    std::optional<std::string> nextFolder()
    {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, idlePatience, [this] { return !waiting.empty() || busy == 0 || stopped(); });
        if (waiting.empty() || stopped()) {
            const bool last = --workers == 0;
            lock.unlock();
            if (last)
                visitor->done(end);
            return std::nullopt;
        }
        ++busy;
        std::string next = std::move(waiting.back());
        waiting.pop_back();
        return next;
    }

    /// After a visit: its folders are for everyone.
    void leave(std::vector<std::string> folders)
    {
        int wanted = 0;
        {
            std::scoped_lock lock(mutex);
            --busy;
            std::ranges::move(folders, std::back_inserter(waiting));
            if (!stopped() && waiting.size() > 1)
                wanted = static_cast<int>(std::min<std::size_t>(static_cast<std::size_t>(threads - workers), waiting.size() - 1));
            workers += wanted;
        }
        changed.notify_all();
        for (; wanted > 0; --wanted)
            startWorker();
    }

    void startWorker()
    {
        try {
            runOnOwnThread([self = shared_from_this()] { self->work(); });
        } catch (const std::system_error &) {
            std::scoped_lock lock(mutex); // no more threads to be had: those that run do the work
            --workers;
        }
    }

    bool stopped() const { return end != Visitor::End::complete; }

    void stop(Visitor::End why)
    {
        auto running = Visitor::End::complete;
        end.compare_exchange_strong(running, why);
    }

    /// Tells what is in a folder and gives the folders in it.
    std::vector<std::string> visit(std::string relative, Tools &tools)
    {
        Folder folder{.relative = std::move(relative)};
        folder.path = folder.relative.empty() ? rootPath : joined(rootPath, folder.relative);
        folder.real = folder.relative.empty() ? realRoot : joined(realRoot, folder.relative);
        folder.hasMounts = mounts.someBelow(folder.real);
        if (entering)
            entering(folder.path);
        if (open(folder))
            read(folder, tools);
        return std::move(folder.folders);
    }

    bool open(Folder &folder)
    {
        if (folder.relative.empty())
            return true;
        folder.opened = patiently(pause, [&] { return openFolderBelow(root, folder.relative); });
        if (!folder.opened && isShortage(errno))
            stop(Visitor::End::unreadable); // nobody knows what is in it
        return static_cast<bool>(folder.opened);
    }

    const Descriptor &descriptorOf(const Folder &folder) const { return folder.relative.empty() ? root : folder.opened; }

    void read(Folder &folder, Tools &tools)
    {
        const int descriptor = descriptorOf(folder).get();
        auto block = FolderReader::Block::names;
        while (!stopped() && (block = tools.reader.next(descriptor, tools.names)) == FolderReader::Block::names)
            tell(folder, tools.names);
        if (block == FolderReader::Block::failed && folder.relative.empty())
            stop(Visitor::End::unreadable);
    }

    void tell(Folder &folder, std::vector<FolderReader::Name> &names)
    {
        // Many file systems keep the facts in this order, which a cold disk rewards.
        std::ranges::sort(names, {}, &FolderReader::Name::inode);
        std::vector<IndexedFile> found;
        found.reserve(names.size());
        for (const auto &name : names) {
            if (!visitor->entered())
                stop(Visitor::End::ended);
            if (stopped())
                return;
            examine(folder, name, found);
        }
        if (!found.empty())
            visitor->found(std::move(found));
    }

    void examine(Folder &folder, const FolderReader::Name &name, std::vector<IndexedFile> &found)
    {
        std::string path = joined(folder.path, name.text);
        if (visitor->skips(path) || (folder.hasMounts && mounts.excludes(joined(folder.real, name.text))))
            return;
        struct stat facts;
        if (::fstatat(descriptorOf(folder).get(), name.text, &facts, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) != 0)
            return;
        if (S_ISDIR(facts.st_mode))
            folder.folders.push_back(joined(folder.relative, name.text));
        else if (S_ISLNK(facts.st_mode))
            followLink({descriptorOf(folder).get(), name.text, folder.real}, mounts, facts);
        const bool isDirectory = S_ISDIR(facts.st_mode);
        found.push_back({.path = std::move(path),
            .name = name.text,
            .isDirectory = isDirectory,
            .size = isDirectory ? 0 : static_cast<long long>(facts.st_size),
            .modified = static_cast<double>(facts.st_mtim.tv_sec) + static_cast<double>(facts.st_mtim.tv_nsec) / 1e9});
    }

    const std::string rootPath;
    const std::shared_ptr<const Visitor> visitor;
    const LinuxDirectoryWalker::Entering entering;
    const int threads;
    const std::chrono::milliseconds idlePatience;
    const LinuxDirectoryWalker::Pause pause;

    // Set before the second thread starts
    Descriptor root;
    std::string realRoot;
    MountPoints mounts{"", {}};

    std::atomic<Visitor::End> end = Visitor::End::complete; ///< Anything else stops every thread.
    std::mutex mutex; // of what follows
    std::condition_variable changed;
    std::vector<std::string> waiting{""}; ///< Folders to visit, relative to the root; the last comes next, which keeps them few.
    int workers = 1; ///< Threads that have started and not left.
    int busy = 0; ///< Of them, those that visit a folder.
};

} // namespace

void LinuxDirectoryWalker::usualPause() { std::this_thread::sleep_for(betweenAttempts); }

void LinuxDirectoryWalker::walk(std::string root, std::shared_ptr<const Visitor> visitor) const
{
    auto walk = std::make_shared<Walk>(std::move(root), visitor, entering, threads, idlePatience, pause);
    try {
        runOnOwnThread([walk] { walk->run(); });
    } catch (const std::system_error &) {
        visitor->done(Visitor::End::unreadable);
    }
}

} // namespace korvane
