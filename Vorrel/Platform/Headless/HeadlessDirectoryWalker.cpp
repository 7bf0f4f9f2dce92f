#include "Vorrel/Platform/Headless/HeadlessDirectoryWalker.h"

#include <map>
#include <set>

namespace korvane {

namespace {

std::string withoutSlashesAtEnd(std::string path)
{
    while (path.size() > 1 && path.ends_with('/'))
        path.pop_back();
    return path;
}

} // namespace

struct HeadlessDirectoryWalker::Disk {
    struct Node {
        IndexedFile entry;
        bool isLink = false;
    };
    using Folder = std::map<std::string, Node>; // by path

    void add(const std::string &path, Node node)
    {
        const std::string parent = deletingLastPathComponent(path);
        if (parent != path && !folders.contains(parent))
            add(parent, {.entry = {.path = parent, .name = lastPathComponent(parent), .isDirectory = true}});
        if (node.entry.isDirectory && !node.isLink)
            folders.try_emplace(path);
        if (parent != path)
            folders[parent].insert_or_assign(path, std::move(node));
    }

    void remove(const std::string &path)
    {
        const auto parent = folders.find(deletingLastPathComponent(path));
        if (parent != folders.end())
            parent->second.erase(path);
        std::erase_if(folders, [&](const auto &folder) { return folder.first == path || folder.first.starts_with(path + "/"); });
    }

    /// Nothing when there is no such folder or it cannot be listed.
    std::optional<Folder> list(const std::string &path) const
    {
        const auto found = folders.find(path);
        if (found == folders.end() || unreadable.contains(path))
            return std::nullopt;
        return found->second;
    }

    Task<void> wait()
    {
        std::function<void(Continuation<void>)> begin = [this](Continuation<void> go) { held.push_back(std::move(go)); };
        co_await suspend<void>(std::move(begin));
    }

    std::map<std::string, Folder> folders{{"/", {}}};
    std::set<std::string> unreadable;
    std::set<std::string> factless;
    std::set<std::string> holdsBefore;
    bool holdsAtStart = false;
    std::vector<Continuation<void>> held;
    std::vector<std::string> roots;
    int underWay = 0;
};

HeadlessDirectoryWalker::HeadlessDirectoryWalker(Executor executor) :
    executor(std::move(executor)), disk(std::make_shared<Disk>())
{
}

HeadlessDirectoryWalker::~HeadlessDirectoryWalker()
{
    // A waiting walk owns the disk, and the disk whoever waits.
    disk->holdsBefore.clear();
    disk->holdsAtStart = false;
    disk->held.clear();
}

void HeadlessDirectoryWalker::addFile(const std::string &path, long long size, double modified)
{
    disk->add(path, {.entry = {.path = path, .name = lastPathComponent(path), .size = size, .modified = modified}});
}

void HeadlessDirectoryWalker::addFolder(const std::string &path, double modified)
{
    disk->add(path, {.entry = {.path = path, .name = lastPathComponent(path), .isDirectory = true, .modified = modified}});
}

void HeadlessDirectoryWalker::addLink(const std::string &path, bool leadsToFolder, long long size, double modified)
{
    const IndexedFile entry{
        .path = path, .name = lastPathComponent(path), .isDirectory = leadsToFolder, .size = size, .modified = modified};
    disk->add(path, {.entry = entry, .isLink = true});
}

void HeadlessDirectoryWalker::remove(const std::string &path) { disk->remove(path); }

void HeadlessDirectoryWalker::makeUnreadable(const std::string &path) { disk->unreadable.insert(path); }

void HeadlessDirectoryWalker::makeFactless(const std::string &path) { disk->factless.insert(path); }

void HeadlessDirectoryWalker::holdBefore(const std::string &path) { disk->holdsBefore.insert(path); }

void HeadlessDirectoryWalker::holdAtStart() { disk->holdsAtStart = true; }

void HeadlessDirectoryWalker::release()
{
    disk->holdsBefore.clear();
    disk->holdsAtStart = false;
    for (const auto &go : std::exchange(disk->held, {}))
        go.resume();
}

const std::vector<std::string> &HeadlessDirectoryWalker::roots() const { return disk->roots; }

int HeadlessDirectoryWalker::underWay() const { return disk->underWay; }

void HeadlessDirectoryWalker::walk(std::string root, std::shared_ptr<const Visitor> visitor) const
{
    disk->roots.push_back(root);
    ++disk->underWay;
    spawnDetached(executor, run(disk, withoutSlashesAtEnd(std::move(root)), std::move(visitor)));
}

Task<void> HeadlessDirectoryWalker::run(std::shared_ptr<Disk> disk, std::string root, std::shared_ptr<const Visitor> visitor)
{
    const auto end = co_await visitAll(disk, std::move(root), visitor);
    --disk->underWay;
    visitor->done(end);
}

Task<DirectoryWalker::Visitor::End> HeadlessDirectoryWalker::visitAll(
    std::shared_ptr<Disk> disk, std::string root, std::shared_ptr<const Visitor> visitor)
{
    if (std::exchange(disk->holdsAtStart, false))
        co_await disk->wait();
    if (!disk->list(root))
        co_return Visitor::End::unreadable;
    for (std::vector<std::string> waiting{root}; !waiting.empty();) {
        const auto children = disk->list(waiting.back()).value_or(Disk::Folder());
        waiting.pop_back();
        std::vector<IndexedFile> found;
        for (const auto &[path, node] : children) {
            if (disk->holdsBefore.contains(path)) {
                if (!found.empty())
                    visitor->found(std::exchange(found, {}));
                co_await disk->wait();
            }
            if (!visitor->entered())
                co_return Visitor::End::ended;
            if (visitor->skips(path) || disk->factless.contains(path))
                continue;
            found.push_back(node.entry);
            if (node.entry.isDirectory && !node.isLink)
                waiting.push_back(path);
        }
        if (!found.empty())
            visitor->found(std::move(found));
        co_await yieldOnce();
    }
    co_return Visitor::End::complete;
}

} // namespace korvane
