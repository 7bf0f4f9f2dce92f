#include "Vorrel/Platform/IndexPlaces.h"
#include "bench/IndexBench.h"
#include "bench/IndexRivals.h"

#include "Vorrel/FileIndex/DiskFileScanner.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace korvane::bench {

namespace {

using namespace std::chrono_literals;

constexpr double warmWalkLimit = 0.5, coldWalkLimit = 0.6;
constexpr double deletionLimit = 2500, changeLimit = 2500; ///< Milliseconds.
constexpr double excludedLimit = 5, idleLimit = 0.1; ///< Percent of a core.
constexpr double memoryLimit = 120; ///< MiB.
constexpr double logLimit = 67.2; ///< MB.
constexpr double flushDelay = 1000; ///< Milliseconds that the service waits before a pass.

// Walks

Task<void> readToTheEnd(AsyncStream<std::vector<IndexedFile>> stream, std::shared_ptr<std::size_t> count)
{
    while (const auto batch = co_await stream.next())
        *count += batch->size();
}

/// Microseconds of one scan; throws when it does not see everything.
double walk(const std::string &root, std::size_t expected)
{
    MainLoop loop;
    SystemClock clock;
    LinuxDirectoryWalker walker;
    DiskFileScanner scanner(loop.executor(), clock, walker, {.home = "/nowhere", .data = {}});
    const auto count = std::make_shared<std::size_t>(0);
    const double begin = microseconds();
    test::await(loop, readToTheEnd(scanner.scan(root, {}), count));
    const double time = microseconds() - begin;
    if (*count != expected)
        throw std::runtime_error("the walk saw " + std::to_string(*count) + " of " + std::to_string(expected) + " entries");
    return time;
}

double find(const std::string &root) { return microsecondsOf({"find", root, "-printf", "%p %y %s %T@\\n"}); }

bool dropPageCache()
{
    sync();
    std::ofstream file("/proc/sys/vm/drop_caches");
    file << "3" << std::flush;
    return bool(file);
}

bool isOnDisk(const std::string &folder)
{
    constexpr long tmpfs = 0x01021994;
    struct statfs status;
    return statfs(folder.c_str(), &status) == 0 && status.f_type != tmpfs;
}

void measureWalks(IndexRun &run, const Listing &listing)
{
    const std::size_t rows = listing.rowsOfLargeRoot;
    std::printf("\n### Walks of %zu entries\n\n", rows);
    Table table({"Walk", "Median s", "find -printf s", "Ratio", "Limit", ""});
    const auto compare = [&](const char *what, int times, double limit, const std::function<void()> &before) {
        std::vector<double> ours, theirs;
        for (int i = 0; i < times; ++i) {
            before();
            theirs.push_back(find(listing.largeRoot));
            before();
            ours.push_back(walk(listing.largeRoot, rows));
        }
        const double ratio = median(ours) / median(theirs);
        table.add({what, number(median(ours) / 1e6, 2), number(median(theirs) / 1e6, 2), number(ratio, 2), number(limit, 1),
            run.report.atMost(std::string("walk, ") + what + ": ratio to find", ratio, limit)});
        run.report.note(std::string("walk: ") + what, run.rows, median(ours) / 1000);
    };
    walk(listing.largeRoot, rows);
    find(listing.largeRoot);
    compare("warm", run.quick ? 5 : 9, warmWalkLimit, [] {});
    std::string why;
    if (!isOnDisk(run.folder))
        why = "the temporary folder is in memory";
    else if (!dropPageCache())
        why = "/proc/sys/vm/drop_caches cannot be written";
    if (why.empty())
        compare("dropped page cache", 3, coldWalkLimit, [] { dropPageCache(); });
    table.print();
    if (!why.empty())
        run.report.notMeasured("a walk with a dropped page cache", why);
}

// The host from outside

double statusField(pid_t process, const char *file, const std::string &label)
{
    std::ifstream lines("/proc/" + std::to_string(process) + "/" + file);
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with(label + ":"))
            return std::stod(line.substr(label.size() + 1));
    throw std::runtime_error("there is no " + label);
}

double residentMegabytes(pid_t process) { return statusField(process, "status", "VmRSS") / 1024; }
double highestMegabytes(pid_t process) { return statusField(process, "status", "VmHWM") / 1024; }
void forgetHighest(pid_t process) { std::ofstream("/proc/" + std::to_string(process) + "/clear_refs") << "5"; }

/// Of all threads, seconds on a processor.
double processorSeconds(pid_t process)
{
    double sum = 0;
    for (const auto &thread : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
        double nanoseconds = 0;
        std::ifstream(thread.path() / "schedstat") >> nanoseconds;
        sum += nanoseconds / 1e9;
    }
    return sum;
}

/// Percent of a core over some seconds.
double load(pid_t process, double seconds)
{
    const double before = processorSeconds(process), begin = microseconds();
    usleep(useconds_t(seconds * 1e6));
    return (processorSeconds(process) - before) / ((microseconds() - begin) / 1e6) * 100;
}

/// Seconds until the process does nothing more.
double untilQuiet(pid_t process, double patience)
{
    const double begin = microseconds();
    int quiet = 0;
    while (quiet < 5 && microseconds() - begin < patience * 1e6)
        quiet = load(process, 1) < 0.5 ? quiet + 1 : 0;
    return (microseconds() - begin) / 1e6;
}

std::vector<double> numbers(const std::string &line)
{
    std::istringstream words(line);
    std::vector<double> all;
    for (double one; words >> one;)
        all.push_back(one);
    return all;
}

// Scans

void touch(const IndexedFile &file)
{
    const timespec times[2] = {{0, UTIME_OMIT}, {0, UTIME_NOW}};
    utimensat(AT_FDCWD, file.path.c_str(), times, 0);
    truncate(file.path.c_str(), off_t(file.size + 1));
}

class Disk {
public:
    Disk(IndexRun &run, Listing &listing) :
        run(run), listing(listing), host({"/proc/self/exe", "--host", run.folder + "/data", listing.largeRoot, listing.smallRoot})
    {
    }

    void measureScans()
    {
        std::printf("\n### Scans of %zu entries on the disk\n\n", run.rows);
        Table table({"Scan", "Seconds", "Longest lock ms", "Longest wait ms", "Log MB", "Log after", "Memory before MiB",
            "Highest", "After"});
        scan(table, "scan to searchable", "start");
        untilQuiet(host.process(), 180); // the watcher compares what it finds
        scan(table, "rescan, no change", "rebuild");
        for (std::size_t i = 0; i < listing.files.size(); i += 100)
            if (!listing.files[i].isDirectory)
                touch(listing.files[i]);
        scan(table, "rescan, 1 % changed", "rebuild");
        table.print();
    }

    void measureLive()
    {
        std::printf("\n### Live changes, %zu files indexed\n\n", run.rows);
        settleDown();
        Table table({"What", "Measured", "Limit", ""});
        const auto add = [&](const std::string &what, double value, double limit, const char *unit) {
            table.add({what, milliseconds(value) + unit, limit > 0 ? number(limit, 0) + unit : "",
                limit > 0 ? run.report.atMost(what, value, limit) : ""});
            run.report.note("live: " + what, run.rows, value);
        };
        add("4,000 changed paths in one pass", changedPaths(), 0, " ms");
        add("500 deleted folders with 3,500 files in one pass", deletedPaths(), deletionLimit, " ms");
        settleDown();
        add("a change on the disk to a search that shows it, median", change(), changeLimit, " ms");
        add("100,000 events a minute below an excluded folder, % of a core", excludedEvents(), excludedLimit, " %");
        table.print();
    }

    void measureIdle()
    {
        std::printf("\n### Idle, %zu files indexed\n\n", run.rows);
        settleDown();
        const double percent = load(host.process(), run.quick ? 10 : 60);
        const double resident = residentMegabytes(host.process());
        const double anonymous = statusField(host.process(), "smaps_rollup", "Anonymous") / 1024;
        const auto watches = numbers(host.ask("watches"));
        double allowed = 0;
        std::ifstream("/proc/sys/fs/inotify/max_user_watches") >> allowed;
        Table table({"What", "Measured", "Limit", ""});
        table.add({"Processor, % of a core", number(percent, 3), number(idleLimit, 1),
            run.report.atMost("idle: % of a core", percent, idleLimit, 3)});
        table.add({"Resident memory, MiB", number(resident, 0), number(memoryLimit, 0),
            run.report.atMost("idle: resident memory, MiB", resident, memoryLimit, 0)});
        table.add({"of which anonymous, MiB", number(anonymous, 0), "", ""});
        table.add({"Watched folders", number(watches.at(0), 0), "", "of " + number(allowed, 0) + " that one user may have"});
        table.add({"Folders looked at by their time", number(watches.at(1), 0), "", ""});
        table.print();
        run.report.note("idle: resident memory", run.rows, resident);
    }

private:
    void scan(Table &table, const std::string &what, const char *order)
    {
        forgetHighest(host.process());
        const double before = residentMegabytes(host.process());
        const auto facts = numbers(host.ask(order, 3000));
        if (facts.at(6) != 0 || facts.at(1) != double(listing.files.size()))
            throw std::runtime_error("a scan found " + number(facts.at(1), 0) + " entries");
        const double highest = highestMegabytes(host.process());
        usleep(5'000'000); // what is put in order after a scan
        const double after = residentMegabytes(host.process());
        table.add({what, number(facts.at(0), 1), milliseconds(facts.at(2)), milliseconds(facts.at(3)), number(facts.at(4), 0),
            number(facts.at(5), 0), number(before, 0), number(highest, 0), number(after, 0)});
        run.report.atMost(what + ": log that stays, MB", facts.at(5), logLimit, 0);
        run.report.atMost(what + ": resident memory afterwards, MiB", after, memoryLimit, 0);
        run.report.note("scan: " + what, run.rows, facts.at(0));
    }

    void settleDown() const { untilQuiet(host.process(), 180); }

    void writeTold(const std::vector<std::string> &paths) const
    {
        std::ofstream out(run.folder + "/told");
        for (const auto &path : paths)
            out << path << "\n";
    }

    /// Milliseconds of the pass alone.
    double told(const std::vector<std::string> &paths)
    {
        writeTold(paths);
        return std::stod(host.ask("told " + run.folder + "/told")) - flushDelay;
    }

    /// Where a pass takes as many paths as it can: noisy folders have fewer places.
    static bool isQuiet(const std::string &path)
    {
        return std::ranges::none_of(
            noiseFragments, [&path](std::string_view fragment) { return path.find(fragment) != path.npos; });
    }

    /// Files far apart.
    std::vector<const IndexedFile *> someFiles(std::size_t count, std::size_t from)
    {
        std::vector<const IndexedFile *> some;
        const std::size_t step = std::max<std::size_t>(1, listing.rowsOfLargeRoot / (count * 4));
        for (std::size_t i = from; i < listing.rowsOfLargeRoot && some.size() < count; i += step) {
            const auto &file = listing.files[i];
            if (!file.isDirectory && isQuiet(file.path))
                some.push_back(&file);
        }
        return some;
    }

    /// Rows that are there already get another size and time.
    double changedPaths()
    {
        std::vector<double> all;
        for (std::size_t i = 0; i < 3; ++i) {
            std::vector<std::string> paths;
            for (const auto *file : someFiles(4000, i))
                paths.push_back(file->path);
            all.push_back(told(paths));
        }
        return median(all);
    }

    /// Folders with all that is in them, and files of folders that stay. The service is told first and looks a second
    /// later, when they are gone; what the watcher tells of them comes too late for this pass.
    double deletedPaths()
    {
        std::vector<std::string> folders, paths;
        for (std::size_t i = listing.rowsOfLargeRoot; i-- > 0 && folders.size() < 500;)
            if (listing.files[i].isDirectory && isQuiet(listing.files[i].path + "/") && isLeaf(i))
                folders.push_back(listing.files[i].path);
        paths = folders;
        for (const auto *file : someFiles(3500, 17))
            paths.push_back(file->path);
        writeTold(paths);
        host.say("told " + run.folder + "/told");
        usleep(100'000);
        const double begin = microseconds();
        for (const auto &path : paths)
            std::filesystem::remove_all(path);
        if (microseconds() - begin > 800'000)
            run.report.notMeasured("deleted folders", "they went too slowly to be gone when the index looked");
        return std::stod(host.hear()) - flushDelay;
    }

    /// Whether the folder at this row is followed by no other in it.
    bool isLeaf(std::size_t at) const
    {
        const std::string below = listing.files[at].path + "/";
        for (std::size_t i = at + 1; i < listing.rowsOfLargeRoot && listing.files[i].path.starts_with(below); ++i)
            if (listing.files[i].isDirectory)
                return false;
        return true;
    }

    double change()
    {
        std::vector<double> all;
        for (int i = 0; i < (run.quick ? 5 : 15); ++i) {
            const auto &folder = listing.files[std::size_t(i) * 977 % listing.rowsOfLargeRoot];
            const std::string name = "wxyzzy" + std::to_string(i) + "change.txt";
            const std::string parent = folder.isDirectory ? folder.path : deletingLastPathComponent(folder.path);
            std::ofstream(parent + "/" + name) << "new";
            all.push_back(std::stod(host.ask("find " + name)));
        }
        return median(all);
    }

    double excludedEvents()
    {
        constexpr int eventsASecond = 1667;
        const int seconds = run.quick ? 10 : 30;
        const std::string folder = listing.largeRoot + "/.cache";
        std::filesystem::create_directory(folder);
        settleDown();
        const double before = processorSeconds(host.process()), begin = microseconds();
        int made = 0;
        while (microseconds() - begin < seconds * 1e6) {
            const int due = int((microseconds() - begin) / 1e6 * eventsASecond);
            for (; made < due; made += 3) { // made, written and closed
                const int file = open((folder + "/" + std::to_string(made % 999)).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
                if (file < 0 || write(file, "x", 1) != 1)
                    throw std::runtime_error("no file can be written");
                close(file);
            }
            usleep(2000);
        }
        return (processorSeconds(host.process()) - before) / ((microseconds() - begin) / 1e6) * 100;
    }

    IndexRun &run;
    Listing &listing;
    Conversation host;
};

} // namespace

void measureDisk(IndexRun &run)
{
    Listing listing = makeListing(run.rows, 1, run.folder + "/home/ada", run.folder + "/opt");
    std::printf("\nOn the disk: %zu entries, %zu of them folders, mean path %.0f bytes, below %s\n", listing.files.size(),
        listing.folders(), listing.meanPath(), run.folder.c_str());
    std::fflush(stdout);
    const double begin = microseconds();
    makeOnDisk(listing);
    std::printf("Made in %.0f s\n", (microseconds() - begin) / 1e6);
    std::fflush(stdout);
    measureWalks(run, listing);
    Disk disk(run, listing);
    disk.measureScans();
    disk.measureLive();
    disk.measureIdle();
}

} // namespace korvane::bench
