#include "WatchedDisk.h"

#include "Support/Descriptor.h"

#include "CommandCore/Commands.h"

#include <sys/eventfd.h>
#include <sys/stat.h>

namespace korvane::test {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

std::optional<IndexedFile> rowOnDisk(const std::string &path)
{
    struct stat status { };
    if (::stat(path.c_str(), &status) != 0)
        return std::nullopt;
    return IndexedFile{.path = path,
        .name = lastPathComponent(path),
        .isDirectory = S_ISDIR(status.st_mode),
        .size = status.st_size,
        .modified = double(status.st_mtim.tv_sec)};
}

void MemoryIndex::checkFailure()
{
    ++questions;
    if (failures > 0) {
        --failures;
        throw AppError(AppError::Kind::database, "Could not read local data.");
    }
}

std::vector<IndexedFile> MemoryIndex::next(const std::string &after, int limit, bool directories)
{
    checkFailure();
    std::vector<IndexedFile> page;
    for (auto at = rows.upper_bound(after); at != rows.end() && int(page.size()) < limit; ++at)
        if (at->second.isDirectory == directories)
            page.push_back(at->second);
    return page;
}

Task<std::vector<IndexedFile>> MemoryIndex::children(std::string parent)
{
    checkFailure();
    std::vector<IndexedFile> found;
    for (auto at = rows.upper_bound(parent + "/"); at != rows.end() && at->first.starts_with(parent + "/"); ++at)
        if (deletingLastPathComponent(at->first) == parent)
            found.push_back(at->second);
    co_return found;
}

void MemoryIndex::scan(const std::string &root)
{
    for (const auto &entry : fs::recursive_directory_iterator(root))
        if (const auto row = rowOnDisk(entry.path().native()))
            rows[row->path] = *row;
}

void MemoryIndex::apply(const Strings &paths, const Strings &roots)
{
    Strings gone;
    for (const auto &path : paths) {
        if (const auto row = rowOnDisk(path))
            rows[path] = *row;
        else if (std::find(roots.begin(), roots.end(), path) == roots.end() && rowOnDisk(deletingLastPathComponent(path)))
            gone.push_back(path);
    }
    for (const auto &path : gone) {
        const auto found = rows.find(path);
        if (found == rows.end())
            continue;
        if (found->second.isDirectory)
            rows.erase(rows.lower_bound(path + "/"), rows.lower_bound(path + "0"));
        rows.erase(path);
    }
}

WatchedDisk::WatchedDisk()
{
    settings.mountPoints = [] { return MountPoints("", [](unsigned, unsigned) { return false; }); };
}

void WatchedDisk::start(Strings folders, std::uint64_t sinceID)
{
    await(loop, startLater(std::move(folders), sinceID));
    loop.runUntilIdle();
}

Task<void> WatchedDisk::startLater(Strings folders, std::uint64_t sinceID)
{
    roots.clear();
    for (const auto &folder : folders)
        roots.push_back(disk / folder);
    roots.push_back(marks);
    lastIdentifier = sinceID;
    events = std::make_unique<InotifyFileEvents>(loop.executor(), clock, index, settings);
    events->onUnwatched([this](std::size_t folders) { unwatched.push_back(folders); });
    return events->start(roots, sinceID, [this](Strings paths, std::uint64_t identifier) {
        EXPECT_GE(identifier, lastIdentifier);
        lastIdentifier = identifier;
        told.push_back({std::move(paths), identifier});
    });
}

std::string WatchedDisk::startOutcome(Strings folders)
{
    try {
        start(std::move(folders));
    } catch (const AppError &error) {
        return error.what();
    }
    return "started";
}

void WatchedDisk::settle()
{
    const auto mark = disk.file("marks/" + std::to_string(++marked));
    const auto isTold = [&] {
        for (auto at = told.rbegin(); at != told.rend(); ++at)
            if (std::find(at->paths.begin(), at->paths.end(), mark) != at->paths.end())
                return true;
        return false;
    };
    const double until = SystemClock().uptime() + 8;
    while (!isTold()) {
        ASSERT_LT(SystemClock().uptime(), until) << "nothing was told";
        clock.advance(100ms);
        hearTheSystem();
    }
}

void WatchedDisk::hearTheSystem()
{
    const Descriptor ready(::eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK));
    await(loop, waitUntilReadable(ready));
    loop.runUntilIdle();
}

std::uint64_t WatchedDisk::afterAllStamps()
{
    const auto stamp = [](const std::string &path) {
        struct stat status { };
        ::stat(path.c_str(), &status);
        return std::pair(status.st_ctim.tv_sec, status.st_ctim.tv_nsec / 1'000'000);
    };
    const auto last = stamp(disk.file("stamps", "0"));
    for (int i = 1;; ++i)
        if (const auto next = stamp(disk.file("stamps", std::to_string(i))); next > last)
            return std::uint64_t(next.first) * 1'000'000 + std::uint64_t(next.second) * 1000;
}

void WatchedDisk::pass(Milliseconds time)
{
    for (Milliseconds passed{0}; passed < time; passed += 1000ms) {
        clock.advance(1000ms);
        hearTheSystem();
    }
}

std::set<std::string> WatchedDisk::news()
{
    std::set<std::string> news;
    for (const auto &batch : std::exchange(told, {}))
        for (const auto &path : batch.paths)
            if (!path.starts_with(marks))
                news.insert(path.starts_with(disk.path + "/") ? path.substr(disk.path.size() + 1) : path);
    return news;
}

} // namespace korvane::test
