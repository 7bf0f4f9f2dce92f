#include "bench/IndexBench.h"
#include "bench/IndexRivals.h"

#include <fstream>
#include <malloc.h>
#include <span>

namespace korvane::bench {

namespace {

using namespace std::chrono_literals;

constexpr std::size_t batchSize = 5000;
constexpr double waitLimit = 100; ///< Milliseconds, for what repeats.
constexpr double searchLimit = 2;
constexpr double logLimit = 67.2; ///< MB, 64 MiB and a page's header.
constexpr Milliseconds betweenSearches = 5ms;
constexpr char searched[] = "marigold";

using Rows = std::span<const IndexedFile>;

Rows large(const Listing &listing) { return Rows(listing.files).first(listing.rowsOfLargeRoot); }
Rows small(const Listing &listing) { return Rows(listing.files).subspan(listing.rowsOfLargeRoot); }

Task<void> stage(const FileIndexRepository &repository, Rows rows)
{
    for (std::size_t at = 0; at < rows.size(); at += batchSize) {
        const auto some = rows.subspan(at, std::min(batchSize, rows.size() - at));
        std::vector<IndexedFile> batch(some.begin(), some.end());
        co_await repository.stage(std::move(batch));
    }
}

double searchOnce(IndexHost &host)
{
    const double begin = microseconds();
    host.await(host.searchRepository().search(searched, std::nullopt, 100));
    return microseconds() - begin;
}

std::vector<double> searches(IndexHost &host, int times)
{
    std::vector<double> all;
    searchOnce(host);
    for (int i = 0; i < times; ++i) {
        all.push_back(searchOnce(host));
        host.runFor(betweenSearches);
    }
    return all;
}

double residentMegabytes()
{
    std::ifstream lines("/proc/self/status");
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with("VmRSS:"))
            return std::stod(line.substr(6)) / 1024;
    return 0;
}

/// One publication: staged, swapped in, settled, with everything else going on beside it.
struct Publication {
    double staging = 0, publishing = 0; ///< Seconds.
    StoreWaits waits;
    StoreProbe::Seen seen;
    double logAfterwards = 0; ///< MB.
    double quiet = 0, during = 0; ///< p95 of a search, milliseconds; during the publication itself.
    double memory = 0, memoryAfterwards = 0; ///< MiB more than before.
};

Publication publish(IndexHost &host, const std::string &root, Rows rows)
{
    Publication result;
    malloc_trim(0);
    const double before = residentMegabytes();
    host.beginWaits(); // they are there in quiet times too, and each makes a search read pages anew
    result.quiet = percentile95(searches(host, 200)) / 1000;
    host.endWaits();
    StoreProbe probe(host.storePath());
    host.beginWaits();

    double begin = microseconds();
    host.await(stage(host.repository(), rows));
    result.staging = (microseconds() - begin) / 1e6;

    begin = microseconds();
    test::Begun<void> commit(host.loop, host.repository().commitStagedRoot(root));
    std::vector<double> times;
    while (!commit.done()) {
        times.push_back(searchOnce(host));
        result.memory = std::max(result.memory, residentMegabytes() - before);
        host.runFor(betweenSearches);
    }
    commit.result();
    result.publishing = (microseconds() - begin) / 1e6;
    result.during = percentile95(times) / 1000;
    host.await(host.repository().clearStaging());
    host.await(host.repository().settle());
    result.waits = host.endWaits();
    result.logAfterwards = logAfter(host, 64, 10);
    result.seen = probe.end();
    result.memoryAfterwards = residentMegabytes() - before;
    return result;
}

void addTo(Table &table, IndexRun &run, const std::string &what, const Publication &one)
{
    table.add(
        {what, std::to_string(run.rows), number(one.staging, 1), number(one.publishing, 1), milliseconds(one.seen.longestLock),
            milliseconds(one.waits.launch), milliseconds(one.waits.clipboardList), milliseconds(one.waits.savedSetting),
            milliseconds(one.quiet), milliseconds(one.during), number(one.during / one.quiet, 2), number(one.seen.largestLog, 0),
            number(one.logAfterwards, 0), number(one.memory, 0), number(one.memoryAfterwards, 0)});
    const std::string where = what + ", " + std::to_string(run.rows) + " rows: ";
    run.report.atMost(where + "p95 of a search meanwhile to a quiet one", one.during / one.quiet, searchLimit);
    run.report.atMost(where + "log that stays, MB", one.logAfterwards, logLimit, 0);
    run.report.note("publication: " + what, run.rows, one.publishing);
}

} // namespace

Table publicationTable()
{
    return Table({"Publication", "Rows", "Staging s", "Publication s", "Longest lock ms", "Launch waits ms",
        "Clipboard list waits", "Setting waits", "Quiet search p95 ms", "Search p95 meanwhile", "Ratio", "Log MB", "Log after",
        "Memory MiB", "Memory after"});
}

void measurePublications(IndexRun &run, IndexHost &host, Listing &listing, Table &table)
{
    // With the small root a search has something to find while the large one comes for the first time.
    host.await(stage(host.repository(), small(listing)));
    host.await(host.repository().commitStagedRoot(listing.smallRoot));
    addTo(table, run, "first", publish(host, listing.largeRoot, large(listing)));

    const auto repeat = [&](const std::string &what) {
        const auto result = publish(host, listing.largeRoot, large(listing));
        addTo(table, run, what, result);
        run.report.atMost(what + ", " + std::to_string(run.rows) + " rows: longest wait of a small doing, ms",
            result.waits.longest(), waitLimit, 0);
    };
    repeat("again, no change");
    changeOneIn(listing, 1000, 5);
    repeat("again, 0.1 % changed");
    changeOneIn(listing, 100, 7);
    repeat("again, 1 % changed");
    host.await(stage(host.repository(), small(listing)));
    host.await(host.repository().commitStagedRoot(listing.smallRoot));
    host.await(host.repository().settle());
}

} // namespace korvane::bench
