#pragma once

#include "Support/Task.h"
#include "Vorrel/Platform/DirectoryWalker.h"

#include <optional>
#include <string>
#include <vector>

namespace korvane {

/// Walks a disk in memory, on a loop, by the order of the paths. What is changed while a walk is on its way counts from
/// the next folder that it reads. A walk outlives the walker. Main thread only.
class HeadlessDirectoryWalker final : public DirectoryWalker {
public:
    explicit HeadlessDirectoryWalker(Executor executor);
    /// Walks that are held never end; others go on.
    ~HeadlessDirectoryWalker() override;
    HeadlessDirectoryWalker(const HeadlessDirectoryWalker &) = delete;
    HeadlessDirectoryWalker &operator=(const HeadlessDirectoryWalker &) = delete;

    /// Each folder of a walk is read in a turn of its own of the loop.
    void walk(std::string root, std::shared_ptr<const Visitor> visitor) const override;

    // What is on the disk. The folders above what is added come by themselves.
    void addFile(const std::string &path, long long size = 0, double modified = 0);
    void addFolder(const std::string &path, double modified = 0);
    /// A link, with the facts of its target; never walked through.
    void addLink(const std::string &path, bool leadsToFolder, long long size = 0, double modified = 0);
    /// With everything below it.
    void remove(const std::string &path);
    /// The folder is there and cannot be listed; as a root it is `unreadable`.
    void makeUnreadable(const std::string &path);
    /// The entry is listed and gives no facts: it is passed over, and not entered when it is a folder.
    void makeFactless(const std::string &path);

    /// Walks that come to the entry at `path` wait before it, until `release`; without one they hang for good.
    void holdBefore(const std::string &path);
    /// The next walk of a root hangs before it has read anything, until `release`.
    void holdAtStart();
    /// Walks that are held go on, and none is held any more.
    void release();

    const std::vector<std::string> &roots() const; ///< Of all walks, as they were asked for.
    int underWay() const; ///< Walks that have begun and not told their end.

private:
    struct Disk;
    static Task<void> run(std::shared_ptr<Disk> disk, std::string root, std::shared_ptr<const Visitor> visitor);
    static Task<Visitor::End> visitAll(std::shared_ptr<Disk> disk, std::string root, std::shared_ptr<const Visitor> visitor);

    Executor executor;
    std::shared_ptr<Disk> disk;
};

} // namespace korvane
