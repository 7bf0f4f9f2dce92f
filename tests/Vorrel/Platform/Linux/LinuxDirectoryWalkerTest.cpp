#include "Vorrel/Platform/Linux/LinuxDirectoryWalker.h"

#include "DeadFileSystem.h"

#include "CommandCore/Commands.h"
#include "Support/Descriptor.h"
#include "Vorrel/FileIndex/DiskFileAttributes.h"
#include "Vorrel/FileIndex/DiskFileScanner.h"
#include "Vorrel/Platform/Linux/FolderReader.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cmath>
#include <condition_variable>
#include <dirent.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <map>
#include <mutex>
#include <set>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace korvane::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Visitor = DirectoryWalker::Visitor;
using Strings = std::vector<std::string>;
using Entries = std::map<std::string, IndexedFile>; // by path

std::string wordOf(std::optional<Visitor::End> end)
{
    if (!end)
        return "never";
    return *end == Visitor::End::complete ? "complete" : *end == Visitor::End::unreadable ? "unreadable" : "ended";
}

/// Keeps what a walk tells. The walk's threads own it together with the test.
class Told {
public:
    std::function<bool()> entered = [] { return true; };
    std::function<bool(const std::string &)> skips = [](const std::string &) { return false; };

    static std::shared_ptr<const Visitor> visitor(const std::shared_ptr<Told> &told)
    {
        auto visitor = std::make_shared<Visitor>();
        visitor->entered = [told] { return told->entered(); };
        visitor->skips = [told](const std::string &path) { return told->skips(path); };
        visitor->found = [told](std::vector<IndexedFile> entries) { told->keep(std::move(entries)); };
        visitor->done = [told](Visitor::End end) { told->finish(end); };
        return visitor;
    }

    /// How the walk ended.
    std::string wait()
    {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, 60s, [this] { return end.has_value(); });
        return wordOf(end);
    }

    Entries entries;
    int repeated = 0; ///< Paths that came more than once.

private:
    void keep(std::vector<IndexedFile> found)
    {
        std::scoped_lock lock(mutex);
        repeated += end ? 1 : 0;
        for (auto &entry : found)
            repeated += entries.insert_or_assign(entry.path, entry).second ? 0 : 1;
    }
    void finish(Visitor::End how)
    {
        std::scoped_lock lock(mutex);
        repeated += end ? 1 : 0;
        end = how;
        changed.notify_all();
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::optional<Visitor::End> end;
};

/// The end of a walk and what it told.
struct Result {
    std::string end;
    Entries entries;

    Strings paths() const
    {
        Strings paths;
        for (const auto &[path, entry] : entries)
            paths.push_back(path);
        return paths;
    }
    bool operator==(const Result &) const = default;
};

Result walked(const LinuxDirectoryWalker &walker, const std::string &root, std::shared_ptr<Told> told = std::make_shared<Told>())
{
    walker.walk(root, Told::visitor(told));
    const std::string end = told->wait();
    EXPECT_EQ(told->repeated, 0);
    return {end, told->entries};
}

Result walked(const std::string &root, const Strings &skipped = {})
{
    auto told = std::make_shared<Told>();
    told->skips = [skipped](const std::string &path) { return isSkipped(path, skipped); };
    return walked(LinuxDirectoryWalker(), root, told);
}

/// Sorted paths below a folder, from names relative to it.
Strings below(const DiskFolder &disk, Strings names)
{
    for (auto &name : names)
        name = disk / name;
    std::ranges::sort(names);
    return names;
}

IndexedFile entryBy(const std::string &path, const struct stat &status)
{
    return {.path = path,
        .name = fs::path(path).filename().native(),
        .isDirectory = S_ISDIR(status.st_mode),
        .size = S_ISDIR(status.st_mode) ? 0 : static_cast<long long>(status.st_size),
        .modified = static_cast<double>(status.st_mtim.tv_sec) + static_cast<double>(status.st_mtim.tv_nsec) / 1e9};
}

IndexedFile factsOfTarget(const std::string &path)
{
    struct stat status;
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return entryBy(path, status);
}

IndexedFile ownFacts(const std::string &path)
{
    struct stat status;
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return entryBy(path, status);
}

/// What `work` gives in a process of its own.
std::string inChild(const std::function<std::string()> &work)
{
    int ends[2];
    if (pipe(ends) != 0)
        return "no pipe";
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        std::string answer;
        try {
            answer = work();
        } catch (const std::exception &error) {
            answer = std::string("threw: ") + error.what();
        }
        _exit(write(ends[1], answer.data(), answer.size()) == ssize_t(answer.size()) ? 0 : 1);
    }
    close(ends[1]);
    std::string answer;
    std::array<char, 4096> buffer;
    for (ssize_t size; (size = read(ends[0], buffer.data(), buffer.size())) > 0;)
        answer.append(buffer.data(), static_cast<std::size_t>(size));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? answer : "the process ended badly after: " + answer;
}

/// The same for a process of an ordinary user, whom permissions concern.
std::string asOrdinaryUser(const std::function<std::string()> &work)
{
    return inChild([&]() -> std::string {
        constexpr uid_t nobody = 65534;
        if (getuid() == 0 && (setgid(nobody) != 0 || setuid(nobody) != 0))
            return "still the superuser";
        return work();
    });
}

std::string summary(const Result &result)
{
    std::string text = result.end;
    for (const auto &path : result.paths())
        text += " " + path;
    return text;
}

TEST(LinuxDirectoryWalker, TellsEverythingBelowTheRootWithItsFacts)
{
    const DiskFolder disk;
    disk.file("file", "12345");
    disk.file(".hidden", "1");
    disk.file("folder/inner/deep", "123");
    disk.file(".git/config");
    disk.folder("Program.app/Contents");
    const timespec times[2]{{1'700'000'000, 250'000'000}, {1'700'000'000, 250'000'000}};
    ASSERT_EQ(utimensat(AT_FDCWD, (disk / "file").c_str(), times, 0), 0);

    const auto result = walked(disk.path);
    EXPECT_EQ(result.end, "complete");
    const auto names = {"file", ".hidden", "folder", "folder/inner", "folder/inner/deep", ".git", ".git/config", "Program.app",
        "Program.app/Contents"};
    EXPECT_EQ(result.paths(), below(disk, {names.begin(), names.end()}));
    for (const auto &[path, entry] : result.entries)
        EXPECT_EQ(entry, factsOfTarget(path)) << path;
    EXPECT_EQ(result.entries.at(disk / "file"),
        (IndexedFile{.path = disk / "file", .name = "file", .size = 5, .modified = 1'700'000'000.25}));
    EXPECT_EQ(result.entries.at(disk / "folder").size, 0);
}

TEST(LinuxDirectoryWalker, TellsNothingOfAnEmptyRoot)
{
    const DiskFolder disk;
    EXPECT_EQ(walked(disk.path), (Result{"complete", {}}));
}

TEST(LinuxDirectoryWalker, CannotReadARootThatIsNoFolder)
{
    const DiskFolder disk;
    for (const auto &root : {disk / "nowhere", disk.file("file"), disk.link("dangling", "nowhere"), disk.link("loop", "loop"),
             disk / std::string(300, 'x'), std::string()})
        EXPECT_EQ(walked(root), (Result{"unreadable", {}})) << root;
}

TEST(LinuxDirectoryWalker, CannotReadARootThatMayNotBeListed)
{
    const DiskFolder disk;
    fs::permissions(disk.path, fs::perms(0755));
    disk.file("closed/file");
    fs::permissions(disk / "closed", fs::perms(getuid() == 0 ? 0711 : 0311)); // the owner's own bits count for the owner
    EXPECT_EQ(asOrdinaryUser([&] { return summary(walked(disk / "closed")); }), "unreadable");
}

TEST(LinuxDirectoryWalker, PassesOverUnreadableFoldersButTellsThemselves)
{
    const DiskFolder disk;
    fs::permissions(disk.path, fs::perms(0755));
    disk.file("closed/file");
    disk.file("open/file");
    disk.file("listed/file"); // its names may be read, and nothing else of them
    fs::permissions(disk / "closed", fs::perms(getuid() == 0 ? 0700 : 0000));
    fs::permissions(disk / "listed", fs::perms(getuid() == 0 ? 0744 : 0444));
    Result expected{"complete", {}};
    for (const auto &path : below(disk, {"closed", "open", "open/file", "listed"}))
        expected.entries[path] = {};
    EXPECT_EQ(asOrdinaryUser([&] { return summary(walked(disk.path)); }), summary(expected));
    fs::permissions(disk / "closed", fs::perms(0700)); // so that it can be removed
    fs::permissions(disk / "listed", fs::perms(0700));
}

TEST(LinuxDirectoryWalker, WritesPathsAsTheRootIsWritten)
{
    const DiskFolder disk;
    disk.file("real/file");
    const auto link = disk.link("link", "real");
    EXPECT_EQ(walked(link).paths(), Strings{disk / "link/file"}); // a root may be a link
    EXPECT_EQ(walked(disk / "real///").paths(), Strings{disk / "real/file"});

    auto told = std::make_shared<Told>();
    told->skips = [](const std::string &path) { return fs::path(path).parent_path() == "/"; };
    EXPECT_EQ(walked(LinuxDirectoryWalker(), "/", told), (Result{"complete", {}}));
    told = std::make_shared<Told>();
    std::mutex mutex;
    std::set<std::string> asked;
    told->skips = [&](const std::string &path) {
        std::scoped_lock lock(mutex);
        asked.insert(path);
        return true;
    };
    walked(LinuxDirectoryWalker(), "/", told);
    EXPECT_TRUE(asked.contains("/tmp"));
}

TEST(LinuxDirectoryWalker, TellsOfALinkWhatItsTargetIsAndDoesNotGoThroughIt)
{
    const DiskFolder outside;
    outside.file("folder/file", "1234567");
    const DiskFolder disk; // where nothing else happens, also above the root
    disk.file("tree/file", "12345");
    disk.file("tree/folder/inner");
    disk.link("tree/to-file", "file");
    disk.link("tree/to-folder", "folder");
    disk.link("tree/to-parent", "..");
    disk.link("tree/folder/up", "../folder");
    disk.link("tree/outside", outside / "folder");
    disk.link("tree/twice", "to-file");
    const auto result = walked(disk / "tree");
    EXPECT_EQ(result.paths(),
        below(disk,
            {"tree/file", "tree/folder", "tree/folder/inner", "tree/folder/up", "tree/outside", "tree/to-file", "tree/to-folder",
                "tree/to-parent", "tree/twice"}));
    for (const auto &[path, entry] : result.entries)
        EXPECT_EQ(entry, factsOfTarget(path)) << path;
    EXPECT_EQ(result.entries.at(disk / "tree/twice").size, 5);
    EXPECT_TRUE(result.entries.at(disk / "tree/to-folder").isDirectory);
}

TEST(LinuxDirectoryWalker, TellsOfALinkWithoutATargetWhatItIsItself)
{
    const DiskFolder disk;
    disk.file("file");
    for (const auto &link : {disk.link("dangling", "nowhere"), disk.link("self", "self"), disk.link("there", "back"),
             disk.link("back", "there"), disk.link("through-file", "file/below")})
        EXPECT_EQ(walked(disk.path).entries.at(link), ownFacts(link)) << link;
}

TEST(LinuxDirectoryWalker, AsksNothingOfALinkThatLeadsToAnExcludedMount)
{
    const DiskFolder disk;
    const auto absolute = disk.link("absolute", "/proc/self/status");
    const auto relative = disk.link("folder/relative", std::string("../../../../../../../../..") + "/usr/../proc/");
    const auto result = walked(disk.path);
    EXPECT_EQ(result.entries.at(absolute), ownFacts(absolute));
    EXPECT_EQ(result.entries.at(relative), ownFacts(relative));
    EXPECT_FALSE(result.entries.at(relative).isDirectory);
}

TEST(LinuxDirectoryWalker, TellsFifosSocketsAndDevicesWithoutOpeningThem)
{
    const DiskFolder disk;
    const auto fifo = disk / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const auto name = disk / "socket";
    const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(socket.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    Strings names{"fifo", "socket"};
    if (mknod((disk / "device").c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0) // the superuser only
        names.push_back("device");
    const auto result = walked(disk.path);
    EXPECT_EQ(result.paths(), below(disk, names));
    EXPECT_FALSE(result.entries.at(fifo).isDirectory);
    EXPECT_EQ(walked(fifo).end, "unreadable"); // and as a root it does not block
}

TEST(LinuxDirectoryWalker, TakesNamesAsBytes)
{
    const DiskFolder disk;
    const Strings names{"caf\xe9", "line\nbreak", " ", "-", "\\", "\xff\xfe", "tab\t", std::string(255, 'n'), "...", "..a", "*?"};
    Strings expected;
    for (const auto &name : names) {
        disk.file(name + "/" + name);
        expected.push_back(name);
        expected.push_back(name + "/" + name);
    }
    EXPECT_EQ(walked(disk.path).paths(), below(disk, expected));
}

TEST(LinuxDirectoryWalker, PassesOverSkippedFoldersButNoSiblings)
{
    const DiskFolder disk;
    for (const char *name : {"a/file", "a/deep/file", "ab/file", "a.txt", "b/a/file", "c"})
        disk.file(name);
    std::mutex mutex;
    std::set<std::string> read;
    const LinuxDirectoryWalker walker([&](const std::string &folder) {
        std::scoped_lock lock(mutex);
        read.insert(folder);
    });
    auto told = std::make_shared<Told>();
    told->skips = [&](const std::string &path) { return isSkipped(path, {disk / "a", disk / "c"}); };
    EXPECT_EQ(walked(walker, disk.path, told).paths(), below(disk, {"ab", "ab/file", "a.txt", "b", "b/a", "b/a/file"}));
    EXPECT_EQ(read, (std::set<std::string>{disk.path, disk / "ab", disk / "b", disk / "b/a"}));
}

TEST(LinuxDirectoryWalker, AsksAtEveryEntryWhetherToGoOn)
{
    const DiskFolder disk;
    for (int index = 0; index < 20; ++index)
        disk.file("folder" + std::to_string(index) + "/file");
    std::atomic<int> entered = 0;
    auto told = std::make_shared<Told>();
    told->entered = [&] { return ++entered > 0; };
    told->skips = [](const std::string &path) { return path.ends_with("/file"); };
    EXPECT_EQ(walked(LinuxDirectoryWalker(), disk.path, told).entries.size(), 20u);
    EXPECT_EQ(entered, 40);
}

TEST(LinuxDirectoryWalker, EndsAtTheNextEntryWhenNobodyWantsTheRest)
{
    const DiskFolder disk;
    for (int index = 0; index < 200; ++index)
        disk.file("folder" + std::to_string(index % 20) + "/file" + std::to_string(index));
    std::atomic<int> entered = 0;
    auto told = std::make_shared<Told>();
    told->entered = [&] { return ++entered < 50; };
    const auto result = walked(LinuxDirectoryWalker(), disk.path, told);
    EXPECT_EQ(result.end, "ended");
    EXPECT_LT(result.entries.size(), 50u);
    EXPECT_LE(entered, 50 + LinuxDirectoryWalker::usualThreads);
}

TEST(LinuxDirectoryWalker, TellsOfEachFolderBeforeItIsRead)
{
    const DiskFolder disk;
    disk.folder("a/b/c");
    disk.folder("d");
    std::mutex mutex;
    Strings order;
    const LinuxDirectoryWalker walker([&](const std::string &folder) {
        std::scoped_lock lock(mutex);
        order.push_back(folder);
        if (folder == disk / "a/b")
            disk.file("a/b/arrived"); // so it is seen
    });
    const auto result = walked(walker, disk.path);
    EXPECT_EQ(order.front(), disk.path);
    std::ranges::sort(order);
    Strings folders = below(disk, {"a", "a/b", "a/b/c", "d"});
    folders.insert(folders.begin(), disk.path);
    EXPECT_EQ(order, folders);
    EXPECT_TRUE(result.entries.contains(disk / "a/b/arrived"));
}

TEST(LinuxDirectoryWalker, DoesNotFollowAFolderThatBecomesALinkUnderTheWalk)
{
    for (const char *replaced : {"a/b/c", "a/b", "a"}) {
        const DiskFolder outside;
        outside.file("b/c/secret");
        outside.file("c/secret");
        outside.file("secret");
        const DiskFolder disk;
        disk.file("a/b/c/file");
        std::once_flag once;
        const LinuxDirectoryWalker walker([&](const std::string &folder) {
            if (folder != disk / "a/b/c")
                return;
            std::call_once(once, [&] {
                fs::rename(disk / replaced, outside / "moved");
                fs::create_directory_symlink(outside.path, disk / replaced);
            });
        });
        const auto result = walked(walker, disk.path);
        EXPECT_EQ(result.end, "complete");
        EXPECT_EQ(result.paths(), below(disk, {"a", "a/b", "a/b/c"})) << replaced;
    }
}

TEST(LinuxDirectoryWalker, PassesOverWhatVanishesOrChangesItsKindUnderTheWalk)
{
    const DiskFolder disk;
    disk.file("removed/file");
    disk.file("replaced/file");
    disk.file("stays/file");
    const LinuxDirectoryWalker walker([&](const std::string &folder) {
        if (folder == disk / "removed" || folder == disk / "replaced")
            fs::remove_all(folder);
        if (folder == disk / "replaced")
            ASSERT_EQ(mkfifo(folder.c_str(), 0600), 0); // to open it would block
    });
    EXPECT_EQ(walked(walker, disk.path).paths(), below(disk, {"removed", "replaced", "stays", "stays/file"}));
}

TEST(LinuxDirectoryWalker, PassesOverAnEntryThatVanishesBetweenItsNameAndItsFacts)
{
    const DiskFolder disk;
    disk.file("file");
    disk.file("other");
    auto told = std::make_shared<Told>();
    told->skips = [&](const std::string &path) {
        if (path == disk / "file")
            fs::remove(path);
        return false;
    };
    EXPECT_EQ(
        walked(LinuxDirectoryWalker(), disk.path, told), (Result{"complete", {{disk / "other", ownFacts(disk / "other")}}}));
}

/// A folder with folders in folders, `levels` deep, beyond every limit of a path, and beside each a file. Gives their
/// number of entries.
int makeDeep(const std::string &path, int levels, const std::string &name)
{
    Descriptor folder(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (int level = 0; level < levels; ++level) {
        if (mkdirat(folder.get(), name.c_str(), 0755) != 0)
            throw std::runtime_error("no folder");
        folder.reset(openat(folder.get(), name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        Descriptor file(openat(folder.get(), "file", O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
        if (!file)
            throw std::runtime_error("no file");
    }
    return 2 * levels;
}

/// Removes what the standard library finds too deep.
struct DeepFolder : DiskFolder {
    ~DeepFolder() { EXPECT_EQ(std::system(("rm -rf " + path).c_str()), 0); }
};

TEST(LinuxDirectoryWalkerSlow, GoesThreeThousandLevelsDeep)
{
    const DeepFolder disk;
    const int count = makeDeep(disk.path, 3000, "d");
    const auto result = walked(disk.path);
    EXPECT_EQ(result.end, "complete");
    EXPECT_EQ(result.entries.size(), static_cast<std::size_t>(count));
    std::string deepest = disk.path;
    for (int level = 0; level < 3000; ++level)
        deepest += "/d";
    ASSERT_TRUE(result.entries.contains(deepest));
    EXPECT_TRUE(result.entries.at(deepest).isDirectory);
    EXPECT_EQ(result.entries.count(deepest + "/file"), 1u);
}

TEST(LinuxDirectoryWalkerSlow, GoesBeyondTheLongestPathThatTheSystemTakes)
{
    // Names of these lengths let a part of a path end at, before and after the limit.
    for (const int length : {255, 254, 127, 63, 7}) {
        const DeepFolder disk;
        const int levels = 2 * PATH_MAX / length + 20;
        const int count = makeDeep(disk.path, levels, std::string(static_cast<std::size_t>(length), 'd'));
        const auto result = walked(disk.path);
        EXPECT_EQ(result.entries.size(), static_cast<std::size_t>(count)) << length;
        const auto longest = std::ranges::max(result.paths(), {}, &std::string::size);
        EXPECT_GT(longest.size(), 2u * PATH_MAX);
        EXPECT_EQ(walked(longest.substr(0, longest.rfind('/'))).paths(), Strings{longest}); // also as a root
    }
}

/// Makes the system say of one call that it does not know it, for the rest of this process.
void forget(unsigned call)
{
    sock_filter filter[]{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{std::size(filter), filter};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0
        || syscall(call, -1, nullptr, nullptr, 0) != -1 || errno != ENOSYS)
        throw std::runtime_error("no filter");
}

TEST(LinuxDirectoryWalker, WorksOnKernelsThatCannotRefuseLinksInAWholePath)
{
    const DeepFolder disk;
    disk.file("folder/inner/file", "123");
    disk.link("folder/link", "..");
    const DiskFolder outside;
    outside.file("inner/secret");
    makeDeep(disk.folder("deep"), 300, std::string(40, 'd'));
    const auto expected = walked(disk.path);
    EXPECT_EQ(expected.end, "complete");
    EXPECT_EQ(expected.entries.size(), 605u);
    EXPECT_EQ(inChild([&] {
        forget(SYS_openat2);
        return walked(disk.path) == expected ? std::string("the same") : std::string("something else");
    }),
        "the same");
    EXPECT_EQ(inChild([&] {
        forget(SYS_openat2);
        const LinuxDirectoryWalker walker([&](const std::string &folder) {
            if (folder == disk / "folder/inner") {
                fs::rename(disk / "folder", disk / "moved");
                fs::create_directory_symlink(outside.path, disk / "folder");
            }
        });
        const auto result = walked(walker, disk.path);
        return std::string(result.entries.contains(disk / "folder/inner/secret") ? "followed" : result.end);
    }),
        "complete");
}

/// Descriptors that this process has open.
int openDescriptors(int limit)
{
    int count = 0;
    for (int number = 0; number < limit; ++number)
        count += fcntl(number, F_GETFD) >= 0 ? 1 : 0;
    return count;
}

TEST(LinuxDirectoryWalkerSlow, TakesAtMostAQuarterOfTheDescriptors)
{
    const DeepFolder disk;
    for (int folder = 0; folder < 300; ++folder)
        disk.file("folder" + std::to_string(folder) + "/inner/file");
    makeDeep(disk.folder("deep"), 500, std::string(20, 'd'));
    for (const int limit : {16, 24, 64, 256}) {
        const std::string answer = inChild([&] {
            const rlimit few{static_cast<rlim_t>(limit), static_cast<rlim_t>(limit)};
            setrlimit(RLIMIT_NOFILE, &few);
            const int before = openDescriptors(limit);
            std::atomic<int> most = 0;
            auto told = std::make_shared<Told>();
            told->entered = [&] {
                const int now = openDescriptors(limit) - before;
                for (int known = most; now > known && !most.compare_exchange_weak(known, now);) { }
                return true;
            };
            const auto result = walked(LinuxDirectoryWalker({}, 100), disk.path, told);
            return std::to_string(result.entries.size()) + (most <= limit / 4 ? " within" : " beyond by " + std::to_string(most));
        });
        EXPECT_EQ(answer, std::to_string(300 * 3 + 1 + 1000) + " within") << limit;
    }
}

namespace {

/// How a walk ends whose descriptors others take all below its root, and give back at a pause.
std::string endWithDescriptorsAtPause(int givenBack)
{
    const DiskFolder disk;
    disk.file("a/file");
    return inChild([&] {
        const rlimit few{64, 64};
        setrlimit(RLIMIT_NOFILE, &few);
        std::vector<Descriptor> taken;
        int pauses = 0;
        const LinuxDirectoryWalker walker(
            [&](const std::string &folder) {
                for (int number; folder != disk.path && (number = dup(0)) >= 0;)
                    taken.emplace_back(number);
            },
            1, LinuxDirectoryWalker::usualPatience,
            [&] {
                if (++pauses == givenBack)
                    taken.clear();
            });
        const auto result = walked(walker, disk.path);
        return result.end + " " + std::to_string(result.entries.size()) + " after " + std::to_string(pauses);
    });
}

} // namespace

TEST(LinuxDirectoryWalker, WaitsForDescriptorsThatOthersHaveTakenUntilItsLastAttempt)
{
#if __has_feature(undefined_behavior_sanitizer)
    GTEST_SKIP() << "the sanitizer opens descriptors of its own to look at objects";
#endif
    constexpr int last = LinuxDirectoryWalker::attempts - 1; // the pause before the last attempt
    EXPECT_EQ(endWithDescriptorsAtPause(3), "complete 2 after 3");
    EXPECT_EQ(endWithDescriptorsAtPause(last), "complete 2 after " + std::to_string(last));
    EXPECT_EQ(endWithDescriptorsAtPause(last + 1), "unreadable 1 after " + std::to_string(last));
}

TEST(LinuxDirectoryWalker, TellsFiveThousandEntriesInOneBatch)
{
    const DiskFolder disk;
    for (int index = 0; index < 4990; ++index)
        Descriptor file(open((disk / std::to_string(index)).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    for (int index = 0; index < 10; ++index)
        disk.folder("folder" + std::to_string(index));
    MainLoop loop;
    SystemClock clock;
    LinuxDirectoryWalker walker;
    DiskFileScanner scanner(loop.executor(), clock, walker, {.home = disk.path});
    const auto stream = scanner.scan("~", {});
    const auto batch = await(loop, stream.next());
    ASSERT_TRUE(batch);
    EXPECT_EQ(batch->size(), 5000u);
    EXPECT_FALSE(await(loop, stream.next()));
}

TEST(LinuxDirectoryWalker, ReadsAFolderOfManyBlocks)
{
    const DiskFolder disk;
    constexpr int count = 3000;
    for (int index = 0; index < count; ++index)
        Descriptor file(
            open((disk / (std::string(200, 'n') + std::to_string(index))).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    EXPECT_EQ(walked(disk.path).entries.size(), static_cast<std::size_t>(count));

    const Descriptor folder(open(disk.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::vector<FolderEntry> entries{{.name = "left over"}};
    for (int time = 0; time < 2; ++time) {
        EXPECT_TRUE(readFolder(folder.get(), entries));
        std::set<std::string> names;
        for (const auto &entry : entries) {
            names.insert(entry.name);
            EXPECT_EQ(entry.type, DT_REG);
        }
        EXPECT_EQ(entries.size(), static_cast<std::size_t>(count));
        EXPECT_EQ(names.size(), static_cast<std::size_t>(count));
    }
    EXPECT_FALSE(readFolder(-1, entries));
    EXPECT_TRUE(entries.empty());
}

TEST(LinuxDirectoryWalker, StaysOutOfAMountThatMayHangAndAsksNothingOfLinksToIt)
{
    const DiskFolder disk;
    disk.file("file");
    const DeadFileSystem dead(disk.folder("dead"));
    if (!dead.mounted)
        GTEST_SKIP() << "nothing can be mounted here";
    disk.link("link", "dead/file");
    const auto result = walked(disk.path);
    EXPECT_EQ(result.end, "complete");
    EXPECT_EQ(result.paths(), below(disk, {"file", "link"}));
    EXPECT_EQ(result.entries.at(disk / "link"), ownFacts(disk / "link"));

    const DiskFolder links;
    const auto same = links.link("root", disk.path);
    EXPECT_EQ(walked(same).paths(), (Strings{same + "/file", same + "/link"})); // the mount has another name here
}

TEST(LinuxDirectoryWalker, AsksNothingOfAChainOfLinksThatEndsOnAMountThatMayHang)
{
    const DiskFolder disk;
    const DeadFileSystem dead(disk.folder("dead"));
    if (!dead.mounted)
        GTEST_SKIP() << "nothing can be mounted here";
    disk.link("tree/b", disk / "dead/file");
    disk.link("tree/a", "b");
    disk.link("tree/folder/c", "../a");
    const auto result = walked(disk / "tree");
    EXPECT_EQ(result.end, "complete");
    for (const auto &link : {"tree/a", "tree/b", "tree/folder/c"})
        EXPECT_EQ(result.entries.at(disk / link), ownFacts(disk / link)) << link;
}

TEST(LinuxDirectoryWalker, HangsWithItsRootAndTheScanEndsAllTheSame)
{
    const DiskFolder disk;
    DeadFileSystem dead(disk.folder("dead"));
    if (!dead.mounted)
        GTEST_SKIP() << "nothing can be mounted here";
    MainLoop loop;
    ManualClock clock(loop); // asked on this thread alone: the walk has no entry to tell
    LinuxDirectoryWalker walker;
    DiskFileScanner scanner(loop.executor(), clock, walker, {.home = "/"}, [&clock] { return clock.uptime(); });
    const auto stream = scanner.scan(dead.path, {});
    Begun<std::optional<std::vector<IndexedFile>>> reading(loop, stream.next());
    clock.advance(15999ms);
    EXPECT_FALSE(reading.done());
    clock.advance(1ms);
    ASSERT_TRUE(reading.done());
    try {
        reading.result();
        ADD_FAILURE() << "no error";
    } catch (const AppError &error) {
        EXPECT_STREQ(error.what(), "Indexing stopped on an unresponsive folder.");
    }
}

TEST(LinuxDirectoryWalker, EndsWhenAHungRootFailsAtLast)
{
    const DiskFolder disk;
    DeadFileSystem dead(disk.folder("dead"));
    if (!dead.mounted)
        GTEST_SKIP() << "nothing can be mounted here";
    auto told = std::make_shared<Told>();
    LinuxDirectoryWalker().walk(dead.path, Told::visitor(told));
    dead.device.reset();
    EXPECT_EQ(told->wait(), "unreadable");
}

TEST(LinuxDirectoryWalker, GoesIntoOtherFileSystemsOfThisMachine)
{
    const DiskFolder disk;
    const auto mounted = disk.folder("mounted");
    if (::mount("tmpfs", mounted.c_str(), "tmpfs", 0, "size=64k") != 0)
        GTEST_SKIP() << "nothing can be mounted here";
    disk.file("mounted/folder/file");
    const auto result = walked(disk.path);
    ::umount2(mounted.c_str(), MNT_DETACH);
    EXPECT_EQ(result.paths(), below(disk, {"mounted", "mounted/folder", "mounted/folder/file"}));
}

TEST(LinuxDirectoryWalker, WalksARootThatIsOnAnExcludedMount)
{
    const auto result = walked("/proc/sys/kernel/random");
    EXPECT_EQ(result.end, "complete");
    EXPECT_TRUE(result.entries.contains("/proc/sys/kernel/random/uuid"));
}

/// Makes a random tree; names repeat, so that some steps change what earlier ones made.
void grow(const DiskFolder &disk, const std::vector<std::pair<int, int>> &steps)
{
    Strings folders{""};
    for (const auto &[kind, choice] : steps) {
        const auto number = static_cast<unsigned>(choice);
        const std::string name = folders[number % folders.size()] + "n" + std::to_string(number % 7);
        std::error_code ignored;
        switch (static_cast<unsigned>(kind) % 5) {
        case 0:
        case 1:
            if (fs::create_directory(disk / name, ignored))
                folders.push_back(name + "/");
            break;
        case 2:
            if (!fs::exists(fs::symlink_status(disk / name)))
                disk.file(name, std::string(number % 100, 'x'));
            break;
        case 3: fs::create_symlink(folders[(number / 7) % folders.size()] + "n1", disk / name, ignored); break;
        case 4: fs::create_symlink(disk / folders[(number / 7) % folders.size()], disk / name, ignored); break;
        }
    }
}

Entries entriesByTheLibrary(const std::string &root)
{
    Entries entries;
    for (const auto &entry : fs::recursive_directory_iterator(root)) {
        const std::string path = entry.path().native();
        std::error_code none; // a link that leads nowhere or in circles
        entries[path] = entry.exists(none) ? factsOfTarget(path) : ownFacts(path);
    }
    return entries;
}

RC_GTEST_PROP(LinuxDirectoryWalker, AgreesWithTheStandardLibraryOnAnyTree, (const std::vector<std::pair<int, int>> &steps))
{
    const DiskFolder disk;
    grow(disk, steps);
    const auto result = walked(disk.path);
    RC_ASSERT(result.end == "complete");
    RC_ASSERT(result.entries == entriesByTheLibrary(disk.path));
    const DiskFileAttributes attributes;
    for (const auto &[path, entry] : result.entries) {
        const auto outcome = attributes.attributes(path);
        if (outcome.state != AttributeOutcome::State::found)
            continue;
        RC_ASSERT(outcome.isDirectory == entry.isDirectory);
        RC_ASSERT(outcome.isDirectory || outcome.size == entry.size);
        RC_ASSERT(outcome.modified == std::floor(entry.modified));
    }
}

TEST(LinuxDirectoryWalkerThreads, WalkATreeThatChangesUnderThem)
{
    const DiskFolder outside;
    outside.file("secret/secret");
    const DiskFolder disk;
    for (int folder = 0; folder < 40; ++folder)
        disk.file("stays" + std::to_string(folder) + "/inner/file");
    std::atomic<bool> over = false;
    std::thread other([&] {
        for (int round = 0; !over; ++round) {
            std::error_code ignored;
            const auto path = disk / ("stays" + std::to_string(round % 40) + "/changes");
            fs::create_directories(path + "/deep/er", ignored);
            fs::rename(path, path + "-moved", ignored);
            fs::create_directory_symlink(outside.path, path, ignored);
            fs::remove_all(path + "-moved", ignored);
            fs::remove(path, ignored);
        }
    });
    for (int round = 0; round < 20; ++round) {
        auto told = std::make_shared<Told>();
        LinuxDirectoryWalker().walk(disk.path, Told::visitor(told));
        EXPECT_EQ(told->wait(), "complete");
        for (int folder = 0; folder < 40; ++folder)
            EXPECT_TRUE(told->entries.contains(disk / ("stays" + std::to_string(folder) + "/inner/file")));
        for (const auto &[path, entry] : told->entries)
            EXPECT_EQ(path.find("secret"), std::string::npos) << path;
    }
    over = true;
    other.join();
}

TEST(LinuxDirectoryWalkerThreads, WalkSeveralRootsAtOnceWithAnyNumberOfThreads)
{
    const DiskFolder disk;
    for (int folder = 0; folder < 60; ++folder)
        disk.file("a" + std::to_string(folder % 6) + "/b" + std::to_string(folder) + "/file");
    std::vector<std::shared_ptr<Told>> walks;
    for (int threads = 0; threads <= 12; ++threads) {
        walks.push_back(std::make_shared<Told>());
        LinuxDirectoryWalker({}, threads).walk(disk.path, Told::visitor(walks.back()));
    }
    for (const auto &told : walks) {
        EXPECT_EQ(told->wait(), "complete");
        EXPECT_EQ(told->entries.size(), 126u);
        EXPECT_EQ(told->repeated, 0);
    }
}

TEST(LinuxDirectoryWalkerThreads, LeaveOnceNobodyWantsTheRest)
{
    const DiskFolder disk;
    for (int folder = 0; folder < 100; ++folder)
        disk.file("folder" + std::to_string(folder) + "/inner/file");
    for (int round = 0; round < 20; ++round) {
        auto told = std::make_shared<Told>();
        auto entered = std::make_shared<std::atomic<int>>(0);
        told->entered = [entered, round] { return ++*entered < 15 * round; };
        LinuxDirectoryWalker({}, 8).walk(disk.path, Told::visitor(told));
        EXPECT_EQ(told->wait(), "ended");
    }
}

TEST(LinuxDirectoryWalkerThreads, GoOnAfterOneHasHungForALongTime)
{
    const DiskFolder disk;
    disk.file("slow/a/file");
    disk.file("slow/b/file");
    disk.file("slow/c/file");
    for (int folder = 0; folder < 10; ++folder)
        disk.file("quick" + std::to_string(folder) + "/file");
    const auto threads = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}); };
    std::atomic<std::ptrdiff_t> withOne = 0; // threads of the process while the walk has one
    std::atomic<int> readers = 0;
    auto told = std::make_shared<Told>();
    const LinuxDirectoryWalker walker(
        [&](const std::string &folder) {
            ++readers;
            if (folder == disk.path)
                withOne = threads();
            if (folder != disk / "slow")
                return;
            while (readers < 12 || threads() > withOne) // until the others have read the rest and left
                std::this_thread::yield();
        },
        LinuxDirectoryWalker::usualThreads, 0ms);
    EXPECT_EQ(walked(walker, disk.path, told).entries.size(), 27u);
    EXPECT_EQ(readers, 15);
}

} // namespace
} // namespace korvane::test
