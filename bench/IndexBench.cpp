// What the file index costs:
//   korvane_bench_index [--rows N] [--quick] [--figures FILE] [--only publications|searches|disk]
// Everything is made in a temporary folder, below TMPDIR or /var/tmp, which is removed at the end.
//
// Ends with 1 when a limit is exceeded, with 2 when something could not be measured.
#include "bench/IndexBench.h"
#include "bench/IndexRivals.h"

#include "CommandCore/Commands.h"
#include "Vorrel/Shell/AppLog.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sqlite3.h>
#include <sys/utsname.h>
#include <unistd.h>

using namespace korvane;
using namespace korvane::bench;

namespace {

/// A new folder, removed with everything in it; scripts/bench also removes that of a bench that was interrupted.
class TemporaryFolder {
public:
    TemporaryFolder()
    {
        const char *chosen = std::getenv("TMPDIR");
        std::string pattern = std::string(chosen && *chosen ? chosen : "/var/tmp") + "/korvane-bench-XXXXXX";
        if (!mkdtemp(pattern.data()))
            throw std::runtime_error("there is no temporary folder");
        path = pattern;
    }
    ~TemporaryFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    TemporaryFolder(const TemporaryFolder &) = delete;

    std::string path;
};

struct Options {
    std::size_t rows = 0;
    bool quick = false;
    std::string figures, only;
};

Options optionsOf(int count, char **words)
{
    Options options;
    for (int i = 1; i < count; ++i) {
        const std::string word = words[i];
        const bool last = i + 1 == count;
        if (word == "--quick")
            options.quick = true;
        else if (word == "--rows" && !last)
            options.rows = std::stoul(words[++i]);
        else if (word == "--figures" && !last)
            options.figures = words[++i];
        else if (word == "--only" && !last)
            options.only = words[++i];
        else
            throw std::runtime_error(
                "usage: korvane_bench_index [--rows N] [--quick] [--figures FILE] [--only publications|searches|disk]");
    }
    if (options.rows == 0)
        options.rows = options.quick ? 100'000 : 1'000'000;
    if (options.rows < 10'000)
        throw std::runtime_error("--rows: at least 10000");
    return options;
}

std::string firstField(const char *file, const std::string &label)
{
    std::ifstream lines(file);
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with(label))
            return line.substr(line.find(':') + 2);
    return "?";
}

void printMachine()
{
    utsname system;
    uname(&system);
    double minute = 0;
    std::ifstream("/proc/loadavg") >> minute;
    std::printf("%ld processors (%s), %.0f GiB, Linux %s, SQLite %s; load when begun: %.1f\n", sysconf(_SC_NPROCESSORS_ONLN),
        firstField("/proc/cpuinfo", "model name").c_str(),
        std::stod(firstField("/proc/meminfo", "MemTotal").c_str()) / 1024 / 1024, system.release, sqlite3_libversion(), minute);
    std::fflush(stdout);
}

/// Publishes a listing of this many rows into a store of its own, and searches it on demand.
void measureStore(IndexRun run, bool searched, PublicationTables &tables)
{
    auto listing = makeListing(run.rows, 1, "/home/ada", "/opt");
    std::printf("\nA listing of %zu rows, %zu of them folders, mean path %.0f bytes, %zu below one root\n", listing.files.size(),
        listing.folders(), listing.meanPath(), listing.rowsOfLargeRoot);
    std::fflush(stdout);
    const std::string data = run.folder + "/store";
    {
        IndexHost host({.data = data, .home = listing.largeRoot, .roots = {listing.largeRoot, listing.smallRoot}});
        measurePublications(run, host, listing, tables);
        if (searched)
            measureSearches(run, host, listing);
    }
    std::filesystem::remove_all(data);
}

void measureSmallerStores(const Options &options, const std::string &folder, Report &report, PublicationTables &tables)
{
    for (const std::size_t rows : {100'000, 300'000})
        if (rows < options.rows)
            measureStore({folder, rows, options.quick, report}, false, tables);
}

void printPublications(const PublicationTables &tables)
{
    std::printf("\n### Publications\n\n");
    tables.waits.print();
    std::puts("");
    tables.searches.print();
}

int measure(const Options &options)
{
    // A host or a rival that has gone is told by the write that fails.
    std::signal(SIGPIPE, SIG_IGN);
    AppLog::silence();
    const TemporaryFolder folder;
    Report report(options.figures);
    printMachine();
    const auto part = [&](const char *what, const std::function<void()> &work) {
        if (!options.only.empty() && options.only != what)
            return;
        try {
            work();
        } catch (const AppError &error) {
            report.notMeasured(what, error.errorDescription());
        } catch (const std::exception &error) {
            report.notMeasured(what, error.what());
        }
    };
    part("searches", [&] {
        PublicationTables tables;
        if (options.only.empty()) // the smaller ones are for the waits, not for the searches
            measureSmallerStores(options, folder.path, report, tables);
        measureStore({folder.path, options.rows, options.quick, report}, true, tables);
        printPublications(tables);
    });
    if (options.only == "publications")
        part("publications", [&] {
            PublicationTables tables;
            measureSmallerStores(options, folder.path, report, tables);
            measureStore({folder.path, options.rows, options.quick, report}, false, tables);
            printPublications(tables);
        });
    part("disk", [&] {
        IndexRun run{folder.path, options.rows, options.quick, report};
        measureDisk(run);
    });
    report.printLimits();
    return report.status();
}

} // namespace

int main(int count, char **words)
try {
    if (count > 1 && std::strcmp(words[1], "--host") == 0)
        return obey(count - 1, words + 1);
    return measure(optionsOf(count, words));
} catch (const std::exception &error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
}
