#include "tests/index/DiskIndex.h"
#include "tests/index/RandomChanges.h"
#include "tests/support/DiskFolder.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <random>
#include <set>
#include <thread>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;

namespace {

#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr int kills = 4; // in each test; a checked program is several times slower
#else
constexpr int kills = 50;
#endif

constexpr int foldersOfLargeRoot = 150, foldersOfSmallRoot = 50, filesInFolder = 99; // 20,000 entries

/// Two roots of which every path bears the number of a generation: what is indexed of a root tells which scan it is from.
struct Generations {
    Generations()
    {
        fill(large, foldersOfLargeRoot);
        fill(small, foldersOfSmallRoot);
    }

    static void fill(const std::string &root, int folders)
    {
        for (int folder = 0; folder < folders; ++folder) {
            const std::string path = root + "/generation 0/folder " + std::to_string(folder);
            std::filesystem::create_directories(path);
            for (int file = 0; file < filesInFolder; ++file) {
                const std::string name = path + "/notes of day " + std::to_string(file) + ".txt";
                ::close(::open(name.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
            }
        }
    }
    /// From now on every path below both roots is another one.
    void renew()
    {
        const auto name = [](const std::string &root, int number) { return root + "/generation " + std::to_string(number); };
        for (const std::string &root : roots())
            std::filesystem::rename(name(root, generation), name(root, generation + 1));
        ++generation;
    }
    std::vector<std::string> roots() const { return {large, small}; }

    /// What is wrong with a root's rows; empty if they are those of one whole scan, or none at all.
    std::string tornRoot() const
    {
        const Facts facts = inStore(store);
        const struct {
            const std::string &root;
            std::size_t entries;
        } wanted[] = {
            {large, 1 + foldersOfLargeRoot * (filesInFolder + 1)}, {small, 1 + foldersOfSmallRoot * (filesInFolder + 1)}};
        for (const auto &[root, entries] : wanted) {
            std::set<std::string> generations;
            std::size_t count = 0;
            for (const auto &[path, fact] : facts) {
                if (!path.starts_with(root + "/"))
                    continue;
                ++count;
                generations.insert(path.substr(root.size() + 1, path.find('/', root.size() + 1) - root.size() - 1));
            }
            if (generations.size() > 1 || (count != 0 && count != entries))
                return root + " has " + std::to_string(count) + " entries of " + std::to_string(generations.size()) + " scans";
        }
        return {};
    }

    DiskFolder folder;
    const std::string large = folder.folder("large"), small = folder.folder("small"), store = folder / "korvane.sqlite";
    int generation = 0;
};

/// How long a process takes for `work`, left alone.
std::chrono::microseconds durationOf(const std::function<void()> &work)
{
    const auto began = std::chrono::steady_clock::now();
    Process process(work);
    EXPECT_TRUE(process.finish());
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - began);
}

/// Kills processes in the middle of their work.
class Killer {
public:
    Killer(const std::function<void()> &work, unsigned seed) : work(work), usual(durationOf(work)), random(seed) { }

    /// Whether a process was killed before its work was done. How long the work takes depends on what else the machine
    /// does; after a kill that came too late the next ones come sooner.
    bool kills()
    {
        Process process(work);
        std::this_thread::sleep_for(usual * (random() % 1000) / 1000);
        const bool inTime = process.kill();
        if (!inTime)
            usual = usual * 9 / 10;
        return inTime;
    }

private:
    const std::function<void()> work;
    std::chrono::microseconds usual;
    std::mt19937 random;
};

} // namespace

TEST(IndexKillSlow, AKilledFirstScanLeavesEveryRootWhollyThereOrNotAtAll)
{
    Generations disk;
    Killer killer([&disk] { DiskIndex(disk.store, disk.roots(), false).settle(); }, 20261);
    int killed = 0, unfinished = 0;
    for (int round = 0; killed < kills; ++round) {
        ASSERT_LT(round, 5 * kills) << "the kills came too late to tell anything";
        for (const char *part : {"", "-wal", "-shm"})
            std::filesystem::remove(disk.store + part);
        killed += killer.kills();
        ASSERT_EQ(damage(disk.store), "") << round;
        ASSERT_EQ(disk.tornRoot(), "") << round;
        unfinished += inStore(disk.store).size() < 20'000;
    }
    EXPECT_GT(unfinished, 0) << "the kills came too late to tell anything";
}

TEST(IndexKillSlow, AKilledRescanLeavesEveryRootWhollyOldOrWhollyNew)
{
    Generations disk;
    const auto rescan = [&disk] {
        DiskIndex index(disk.store, disk.roots(), false);
        index.settle();
        index.rebuild();
    };
    durationOf(rescan);
    disk.renew();
    Killer killer(rescan, 20262);
    int killed = 0;
    for (int round = 0; killed < kills; ++round) {
        ASSERT_LT(round, 5 * kills) << "the kills came too late to tell anything";
        disk.renew();
        killed += killer.kills();
        ASSERT_EQ(damage(disk.store), "") << round;
        ASSERT_EQ(disk.tornRoot(), "") << round;
    }
    durationOf(rescan);
    EXPECT_EQ(difference(onDisk(disk.roots()), inStore(disk.store)), "");
}

TEST(IndexKillSlow, AKilledPublicationOfLittleLeavesEveryRootWhollyOldOrWhollyNew)
{
    Generations disk;
    const auto rescan = [&disk] {
        DiskIndex index(disk.store, disk.roots(), false);
        index.settle();
        index.rebuild();
    };
    durationOf(rescan);
    Killer killer(rescan, 20263);
    int killed = 0;
    for (int round = 1; killed < kills; ++round) {
        ASSERT_LT(round, 5 * kills) << "the kills came too late to tell anything";
        // In three folders at once: an index that has one of them must have all.
        std::vector<std::string> wanted;
        for (const char *folder : {"folder 1", "folder 70", "folder 149"}) {
            wanted.push_back(disk.large + "/generation 0/" + folder + "/marker " + std::to_string(round));
            ::close(::open(wanted.back().c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
        }
        killed += killer.kills();
        ASSERT_EQ(damage(disk.store), "") << round;
        const Facts facts = inStore(disk.store);
        std::size_t seen = 0;
        for (const std::string &path : wanted)
            seen += facts.contains(path);
        ASSERT_TRUE(seen == 0 || seen == wanted.size()) << round << ": " << seen;
    }
}

TEST(IndexKillSlow, AKilledLiveUpdateIsMadeGoodAtTheNextStart)
{
    Generations disk;
    durationOf([&disk] { DiskIndex(disk.store, disk.roots(), false).settle(); });
    std::mt19937 random(20264);
    RandomChanges changes(disk.roots(), disk.folder.folder("outside"), 99);
    const auto follow = [&disk] { DiskIndex(disk.store, disk.roots(), true).serve(); };
    int amidUpdates = 0;
    Facts before = inStore(disk.store);
    for (int round = 0; round < kills || amidUpdates < kills / 4; ++round) {
        ASSERT_LT(round, 5 * kills) << "the kills came before the first update or after the last one";
        {
            Process process(follow);
            const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(random() % 1500);
            while (std::chrono::steady_clock::now() < end)
                changes.make(5);
        }
        ASSERT_EQ(damage(disk.store), "") << round;
        Facts after = inStore(disk.store);
        amidUpdates += after != before && after != onDisk(disk.roots());
        before = std::move(after);
    }
    Process process(follow);
    EXPECT_EQ(differenceAfterCatchingUp(disk.store, disk.roots(), 60s), "");
}
