#include "Vorrel/Platform/Linux/LinkedFacts.h"

#include "DeadFileSystem.h"

#include "CommandCore/Commands.h"
#include "Vorrel/FileIndex/DiskFileAttributes.h"
#include "Vorrel/Platform/Linux/FolderFacts.h"
#include "Vorrel/Platform/Linux/LinuxDirectoryWalker.h"
#include "tests/support/DiskFolder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <future>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;

namespace {

/// A disk with a mount of another machine on it, which for these tests is a folder.
struct LinkedFacts : testing::Test {
    DiskFolder disk;
    const std::string net = disk.folder("net");
    const MountPoints mounts{"27 1 254:0 / / rw - ext4 /dev/vda rw\n90 27 0:45 / " + net + " rw - nfs server:/ rw\n",
        [](unsigned, unsigned) { return false; }};

    LinkedFacts()
    {
        disk.file("net/far", "far away");
        disk.file("home/near", "12345");
        disk.folder("home/folder");
    }

    struct Outcome {
        int error = 0;
        ino_t inode = 0;
        bool operator==(const Outcome &) const = default;
        friend void PrintTo(const Outcome &outcome, std::ostream *out) { *out << outcome.error << " " << outcome.inode; }
    };
    Outcome facts(const std::string &path) const
    {
        struct stat facts { };
        const int error = linkedFacts(path, mounts, facts);
        return {error, error ? 0 : facts.st_ino};
    }
    static Outcome ofTarget(const std::string &path)
    {
        struct stat facts { };
        return ::stat(path.c_str(), &facts) == 0 ? Outcome{0, facts.st_ino} : Outcome{errno, 0};
    }
    static Outcome itself(const std::string &path) { return {0, statusOf(path)->st_ino}; }
};

/// What an index holds of an entry after a scan.
IndexedFile scanned(const std::string &folder, const std::string &path)
{
    auto walked = std::make_shared<std::promise<void>>();
    auto found = std::make_shared<std::map<std::string, IndexedFile>>();
    auto mutex = std::make_shared<std::mutex>();
    auto visitor = std::make_shared<DirectoryWalker::Visitor>();
    visitor->entered = [] { return true; };
    visitor->skips = [](const std::string &) { return false; };
    visitor->found = [=](std::vector<IndexedFile> entries) {
        const std::scoped_lock lock(*mutex);
        for (auto &entry : entries)
            (*found)[entry.path] = entry;
    };
    visitor->done = [walked](DirectoryWalker::Visitor::End) { walked->set_value(); };
    LinuxDirectoryWalker().walk(folder, visitor);
    if (walked->get_future().wait_for(10s) != std::future_status::ready)
        throw std::runtime_error("the walk hangs");
    const std::scoped_lock lock(*mutex);
    return found->at(path);
}

/// Runs something that may hang; nothing when it does.
template <class Work> auto unlessItHangs(Work work) -> std::optional<decltype(work())>
{
    std::packaged_task<decltype(work())()> task(std::move(work));
    auto result = task.get_future();
    std::thread(std::move(task)).detach();
    return result.wait_for(10s) == std::future_status::ready ? std::optional(result.get()) : std::nullopt;
}

} // namespace

TEST_F(LinkedFacts, OfALinkAreThoseOfItsTarget)
{
    for (const auto &link : {disk.link("home/relative", "near"), disk.link("home/absolute", disk / "home/near"),
             disk.link("home/up", "../home/./folder//../near"), disk.link("home/chain", "relative"),
             disk.link("home/to-folder", "folder/"), disk.link("home/folder/up", "../../home/to-folder")})
        EXPECT_EQ(facts(link), ofTarget(link)) << link;
}

TEST_F(LinkedFacts, OfWhatIsNoLinkAreItsOwn)
{
    EXPECT_EQ(facts(disk / "home/near"), itself(disk / "home/near"));
    EXPECT_EQ(facts(disk / "home/missing"), (Outcome{ENOENT, 0}));
    EXPECT_EQ(facts(disk / "home/near/below"), (Outcome{ENOTDIR, 0}));
}

TEST_F(LinkedFacts, OfALinkOntoAnExcludedMountAreItsOwn)
{
    for (const auto &link : {disk.link("home/far", disk / "net/far"), disk.link("home/mount", "../net"),
             disk.link("home/folder/far", "../../net/far"), disk.link("home/missing", "../net/missing")})
        EXPECT_EQ(facts(link), itself(link)) << link;
}

TEST_F(LinkedFacts, OfALinkThatLeadsOntoAnExcludedMountByOtherLinksAreItsOwn)
{
    disk.link("home/first", "../net");
    disk.link("home/second", disk / "home/first");
    for (const auto &link : {disk.link("home/last", "second"), disk.link("home/below", "first/far"),
             disk.link("home/folder/below", "../second/far"), disk.link("home/round", "second/../home/near")})
        EXPECT_EQ(facts(link), itself(link)) << link;
}

TEST_F(LinkedFacts, OfALinkThatIsOnTheExcludedMountItselfAreThoseOfItsTargetThere)
{
    const auto link = disk.link("net/link", "far");
    EXPECT_EQ(facts(link), ofTarget(link));
    const auto out = disk.link("net/out", "../home/near");
    EXPECT_EQ(facts(out), ofTarget(out));
}

TEST_F(LinkedFacts, OfALinkThatLeadsNowhereOrInCirclesAreWhatTheSystemSays)
{
    EXPECT_EQ(facts(disk.link("home/dangling", "nowhere")), (Outcome{ENOENT, 0}));
    EXPECT_EQ(facts(disk.link("home/self", "self")), (Outcome{ELOOP, 0}));
    EXPECT_EQ(facts(disk.link("home/through-file", "near/below")), (Outcome{ENOTDIR, 0}));
}

TEST_F(LinkedFacts, OfAChainAreThoseOfItsEndUpToFortyLinks)
{
    std::string last = "near";
    for (int i = 1; i <= 41; ++i) {
        disk.link("home/link" + std::to_string(i), last);
        last = "link" + std::to_string(i);
    }
    EXPECT_EQ(facts(disk / "home/link40"), ofTarget(disk / "home/near"));
    EXPECT_EQ(facts(disk / "home/link41"), (Outcome{ELOOP, 0}));
    EXPECT_EQ(ofTarget(disk / "home/link41"), (Outcome{ELOOP, 0}));
}

TEST_F(LinkedFacts, AnIndexedLinkIsTrueOnlyToWhatAScanWouldTellOfIt)
{
    const auto far = disk.link("home/far", "../net/far");
    const auto near = disk.link("home/to-near", "near");
    const auto row = [](const std::string &path, const struct stat &facts) {
        return IndexedFile{.path = path,
            .name = lastPathComponent(path),
            .isDirectory = S_ISDIR(facts.st_mode),
            .size = facts.st_size,
            .modified = seconds(facts.st_mtim)};
    };
    struct stat farTarget {
    }, nearTarget{};
    ASSERT_EQ(::stat(far.c_str(), &farTarget), 0);
    ASSERT_EQ(::stat(near.c_str(), &nearTarget), 0);
    EXPECT_TRUE(isTrueTo(row(far, *statusOf(far)), *statusOf(far), mounts));
    EXPECT_FALSE(isTrueTo(row(far, farTarget), *statusOf(far), mounts));
    EXPECT_TRUE(isTrueTo(row(near, nearTarget), *statusOf(near), mounts));
    EXPECT_FALSE(isTrueTo(row(near, *statusOf(near)), *statusOf(near), mounts));
    const auto dangling = disk.link("home/dangling", "nowhere");
    EXPECT_TRUE(isTrueTo(row(dangling, *statusOf(dangling)), *statusOf(dangling), mounts));
}

TEST_F(LinkedFacts, OfALinkOntoADeadVolumeAreTheSameForTheScanAndForWhatFollowsTheDisk)
{
    const DeadFileSystem dead(disk.folder("dead"));
    if (!dead.mounted)
        GTEST_SKIP() << "nothing can be mounted here";
    disk.link("home/first", disk / "dead/file");
    for (const auto &link : {disk / "home/first", disk.link("home/second", "first"), disk.link("home/third", "second")}) {
        const auto outcome = unlessItHangs([link] { return DiskFileAttributes(presentLinkedFacts()).attributes(link); });
        ASSERT_TRUE(outcome) << link << " hangs";
        const auto row = scanned(disk / "home", link);
        EXPECT_EQ(outcome->state, AttributeOutcome::State::found);
        EXPECT_EQ(outcome->size, row.size);
        EXPECT_EQ(outcome->modified, std::floor(row.modified));
        EXPECT_FALSE(outcome->isDirectory);
        EXPECT_EQ(unlessItHangs([link, row] { return isTrueTo(row, *statusOf(link), MountPoints::read()); }), true) << link;
    }
}

TEST_F(LinkedFacts, KnowOfAVolumeThatWasMountedAMomentAgo)
{
    const auto folder = disk.folder("later");
    const auto link = disk.link("home/link", "../later");
    const DiskFileAttributes attributes(presentLinkedFacts());
    EXPECT_TRUE(attributes.attributes(link).isDirectory);
    {
        const DeadFileSystem dead(folder);
        if (!dead.mounted)
            GTEST_SKIP() << "nothing can be mounted here";
        const auto outcome = unlessItHangs([&] { return attributes.attributes(link); });
        ASSERT_TRUE(outcome);
        EXPECT_FALSE(outcome->isDirectory);
    }
    EXPECT_TRUE(attributes.attributes(link).isDirectory);
}
