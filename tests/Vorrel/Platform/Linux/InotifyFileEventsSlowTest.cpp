#include "WatchedDisk.h"

#include <cstdlib>
#include <random>
#include <sys/stat.h>
#include <thread>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

/// Changes a tree below two roots at random. What it makes is decided by its seed and by nothing else.
class RandomChanges {
public:
    RandomChanges(const DiskFolder &disk, unsigned seed) : random(seed)
    {
        for (const char *place : {"one", "two", "outside"})
            folders.push_back(disk.folder(place));
        for (int i = 0; i < 5; ++i)
            targets.push_back(disk.file("targets/" + std::to_string(i), std::string(i, 't')));
        for (int i = 0; i < 300; ++i)
            makeFolder();
        while (files.size() < 3000)
            makeFile();
    }

    void change()
    {
        const int kind = below(100);
        if (kind < 25)
            makeFile();
        else if (kind < 50)
            writeFile();
        else if (kind < 65)
            moveFile();
        else if (kind < 75)
            removeFile();
        else if (kind < 82)
            makeFolder();
        else if (kind < 90)
            moveFolder();
        else if (kind < 93)
            changeCase();
        else if (kind < 95)
            replaceFolder();
        else if (kind < 97)
            makeLink();
        else if (folders.size() > 200)
            removeFolder();
    }

private:
    static constexpr std::size_t fixed = 3;

    int below(std::size_t limit) { return int(std::uniform_int_distribution<std::size_t>(0, limit - 1)(random)); }
    std::string name() { return "n" + std::to_string(below(60)); }
    std::string anyFolder() { return folders[below(folders.size())]; }
    std::string movableFolder() { return folders[fixed + below(folders.size() - fixed)]; }

    void makeFile()
    {
        const std::string path = anyFolder() + "/" + name() + ".txt";
        if (!fs::exists(fs::symlink_status(path)))
            files.push_back(path);
        std::ofstream(path) << std::string(below(2000), 'x');
    }
    void writeFile()
    {
        if (files.empty())
            return;
        const auto &path = files[below(files.size())];
        std::ofstream(path, below(2) ? std::ios::app : std::ios::trunc) << std::string(1 + below(2000), 'y');
    }
    void moveFile()
    {
        if (files.empty())
            return;
        const auto at = below(files.size());
        const std::string from = files[at], to = anyFolder() + "/" + name() + ".txt";
        forgetFile(at);
        std::erase(files, to);
        fs::rename(from, to);
        files.push_back(to);
    }
    void removeFile()
    {
        if (files.empty())
            return;
        const auto at = below(files.size());
        fs::remove(files[at]);
        forgetFile(at);
    }
    void makeFolder()
    {
        const std::string path = anyFolder() + "/" + name();
        if (std::count(path.begin(), path.end(), '/') < 14 && fs::create_directory(path))
            folders.push_back(path);
    }
    void moveFolder() { move(movableFolder(), anyFolder() + "/" + name()); }
    void changeCase()
    {
        const std::string from = movableFolder();
        std::string to = from;
        auto &letter = to[to.rfind('/') + 1];
        letter = letter == 'n' ? 'N' : 'n';
        move(from, to);
    }
    /// Another folder comes to where one has just been.
    void replaceFolder()
    {
        const std::string first = movableFolder(), second = movableFolder();
        const std::string aside = anyFolder() + "/" + name();
        if (isWithin(second, first) || isWithin(first, second) || !move(first, aside))
            return;
        if (fs::exists(second) && !isWithin(first, second) && fs::exists(fs::path(first).parent_path()))
            move(second, first);
    }
    void makeLink()
    {
        const std::string path = anyFolder() + "/" + name() + ".link";
        std::error_code exists;
        if (below(5) == 0)
            fs::create_symlink("nowhere", path, exists);
        else
            fs::create_symlink(targets[below(targets.size())], path, exists);
    }
    void removeFolder()
    {
        const std::string path = movableFolder();
        fs::remove_all(path);
        std::erase_if(files, [&](const std::string &file) { return isWithin(file, path); });
        std::erase_if(folders, [&](const std::string &folder) { return isWithin(folder, path); });
    }

    bool move(const std::string &from, const std::string &to)
    {
        if (isWithin(to, from) || fs::exists(to))
            return false;
        fs::rename(from, to);
        for (auto *paths : {&files, &folders})
            for (auto &path : *paths)
                if (isWithin(path, from))
                    path = to + path.substr(from.size());
        return true;
    }
    static bool isWithin(const std::string &path, const std::string &folder)
    {
        return path == folder || path.starts_with(folder + "/");
    }
    void forgetFile(int at)
    {
        files[at] = files.back();
        files.pop_back();
    }

    std::mt19937 random;
    std::vector<std::string> folders, files, targets;
};

using Rows = std::map<std::string, std::string>;

/// Paths with what must be true of them: kind, time to the second, size of files. What is written into a file of a
/// folder without a watch shows only at the next start, so that there only the kind counts.
std::string described(const IndexedFile &row, bool onlyKind)
{
    if (onlyKind)
        return row.isDirectory ? "folder" : "file";
    return (row.isDirectory ? "folder " : "file " + std::to_string(row.size) + " ") + std::to_string((long long)row.modified);
}

struct FileEventsSlow : testing::Test, WatchedDisk {
    /// Gives the index what was told, in the order of the telling; identifiers count once they have been applied.
    void flush()
    {
        for (const auto &batch : std::exchange(told, {})) {
            index.apply(batch.paths, roots);
            saved = std::max(saved, batch.identifier);
        }
    }
    Rows indexed() const
    {
        Rows rows;
        for (const auto &[path, row] : index.rows)
            if (!path.starts_with(marks))
                rows[path] = described(row, settings.budget < 1000);
        return rows;
    }
    Rows walked() const
    {
        MemoryIndex fresh;
        fresh.scan(disk / "one");
        fresh.scan(disk / "two");
        Rows rows;
        for (const auto &[path, row] : fresh.rows)
            rows[path] = described(row, settings.budget < 1000);
        return rows;
    }
    void expectTheIndexIsTrue(const std::string &when)
    {
        const auto expected = walked(), actual = indexed();
        int shown = 0;
        for (const auto &[path, facts] : expected)
            if (const auto found = actual.find(path); found == actual.end() || found->second != facts)
                if (++shown < 10)
                    ADD_FAILURE() << when << ": " << path << " is " << facts << ", the index has "
                                  << (found == actual.end() ? "nothing" : found->second);
        for (const auto &[path, facts] : actual)
            if (!expected.contains(path) && ++shown < 10)
                ADD_FAILURE() << when << ": " << path << " has gone, the index has " << facts;
        EXPECT_EQ(shown, 0) << when;
    }

    void withRandomChanges(unsigned seed, int changesPerBurst)
    {
        RandomChanges changes(disk, seed);
        std::mt19937 random(seed + 1);
        index.scan(disk / "one");
        index.scan(disk / "two");
        saved = identifierOf(clock.now() - 2);
        for (int burst = 0; burst < 4; ++burst) {
            const std::string name = "seed " + std::to_string(seed) + ", burst " + std::to_string(burst);
            start({"one", "two"}, saved);
            for (int i = 0; i < changesPerBurst; ++i) {
                changes.change();
                if (random() % 200 == 0)
                    pass(Milliseconds(1000 * (1 + random() % 3)));
                if (random() % 400 == 0)
                    flush();
                // In the middle of the burst the watcher dies; what it had told and the index had not taken in is lost.
                if (i == changesPerBurst / 2 && burst % 2 == 1) {
                    events.reset();
                    loop.runUntilIdle();
                    told.clear();
                }
                if (i == changesPerBurst * 7 / 10 && burst % 2 == 1)
                    start({"one", "two"}, saved);
            }
            settle();
            flush();
            for (int i = 0; i < 80; ++i)
                pass(1s), flush();
            settle();
            flush();
            expectTheIndexIsTrue(name);
            if (HasFailure())
                return;
            events.reset();
            loop.runUntilIdle();
            told.clear();
            for (int i = 0; i < 200; ++i)
                changes.change();
        }
    }

    std::uint64_t saved = 0;
};

} // namespace

TEST_F(FileEventsSlow, TheIndexEqualsTheDiskAfterTwentyThousandRandomChanges)
{
    const char *seed = std::getenv("KORVANE_SEED");
    withRandomChanges(seed ? unsigned(std::atoi(seed)) : 1, 5000);
}

TEST_F(FileEventsSlow, TheIndexEqualsTheDiskAlsoWhenMostFoldersHaveNoWatch)
{
    const char *seed = std::getenv("KORVANE_SEED");
    settings.budget = 100;
    withRandomChanges(seed ? unsigned(std::atoi(seed)) : 1, 2500);
}
