#include "bench/IndexBench.h"
#include "bench/IndexRivals.h"

#include <fstream>
#include <malloc.h>
#include <map>
#include <span>

namespace korvane::bench {

namespace {

using namespace std::chrono_literals;

constexpr std::size_t batchSize = 5000;
constexpr double waitLimit = 100; ///< Milliseconds, for what repeats.
constexpr double searchLimit = 2;
constexpr double logLimit = 67.2; ///< MB, 64 MiB and a page's header.
constexpr Milliseconds betweenSearches = 5ms;
constexpr char searched[] = "marigold"; ///< 100 files, 6 of them below the small root.
constexpr std::size_t mostFewFound = 50;

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

/// Milliseconds, by whether the search saw the large root: the same search costs more when there is more to find.
using Times = std::map<bool, std::vector<double>>;

void searchOnce(IndexHost &host, Times &times)
{
    const double begin = microseconds();
    const auto found = host.await(host.searchRepository().search(searched, std::nullopt, 100));
    times[found.size() > mostFewFound].push_back((microseconds() - begin) / 1000);
}

/// Beside the small doings, which are there in quiet times too: each makes a search read pages anew.
void searchQuietly(IndexHost &host, Times &times)
{
    host.beginWaits();
    Times warming;
    searchOnce(host, warming);
    for (int i = 0; i < 200; ++i) {
        searchOnce(host, times);
        host.runFor(betweenSearches);
    }
    host.endWaits();
}

double residentMegabytes()
{
    std::ifstream lines("/proc/self/status");
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with("VmRSS:"))
            return std::stod(line.substr(6)) / 1024;
    return 0;
}

/// Publications of one kind: staged, swapped in, settled, with everything else going on beside it. Times are the longest.
struct Publication {
    double staging = 0, publishing = 0; ///< Seconds.
    StoreWaits waits;
    StoreProbe::Seen seen;
    double logAfterwards = 0; ///< MB.
    Times quiet, during; ///< Before and after, and during the publication itself.
    double memory = 0, memoryAfterwards = 0; ///< MiB more than before.
};

void raise(double &value, double to) { value = std::max(value, to); }

void publish(IndexHost &host, const std::string &root, Rows rows, Publication &result)
{
    malloc_trim(0);
    const double before = residentMegabytes();
    searchQuietly(host, result.quiet);
    StoreProbe probe(host.storePath());
    host.beginWaits();

    double begin = microseconds();
    host.await(stage(host.repository(), rows));
    raise(result.staging, (microseconds() - begin) / 1e6);

    begin = microseconds();
    test::Begun<void> commit(host.loop, host.repository().commitStagedRoot(root));
    while (!commit.done()) {
        searchOnce(host, result.during);
        raise(result.memory, residentMegabytes() - before);
        host.runFor(betweenSearches);
    }
    commit.result();
    raise(result.publishing, (microseconds() - begin) / 1e6);
    host.await(host.repository().clearStaging());
    host.await(host.repository().settle());
    const StoreWaits waits = host.endWaits();
    raise(result.waits.launch, waits.launch);
    raise(result.waits.clipboardList, waits.clipboardList);
    raise(result.waits.savedSetting, waits.savedSetting);
    raise(result.logAfterwards, logAfter(host, 64, 10));
    const StoreProbe::Seen seen = probe.end();
    raise(result.seen.longestLock, seen.longestLock);
    raise(result.seen.largestLog, seen.largestLog);
    raise(result.memoryAfterwards, residentMegabytes() - before);
    searchQuietly(host, result.quiet);
}

void addTo(PublicationTables &tables, IndexRun &run, const std::string &what, const Publication &one)
{
    const std::string count = std::to_string(run.rows), where = what + ", " + count + " rows: ";
    tables.waits.add({what, count, number(one.staging, 1), number(one.publishing, 1), milliseconds(one.seen.longestLock),
        milliseconds(one.waits.launch), milliseconds(one.waits.clipboardList), milliseconds(one.waits.savedSetting),
        number(one.seen.largestLog, 0), number(one.logAfterwards, 0), number(one.memory, 0), number(one.memoryAfterwards, 0)});
    for (const auto &[whole, times] : one.during) {
        const double quiet = percentile95(one.quiet.at(whole)), during = percentile95(times);
        tables.searches.add({what, count, whole ? "all" : "what was there before", std::to_string(times.size()),
            milliseconds(median(one.quiet.at(whole))), milliseconds(median(times)), milliseconds(quiet), milliseconds(during),
            number(during / quiet, 2)});
        run.report.atMost(where + "p95 of a search meanwhile to a quiet one" + (whole ? "" : ", of what was there before"),
            during / quiet, searchLimit);
    }
    run.report.atMost(where + "log that stays, MB", one.logAfterwards, logLimit, 0);
    run.report.note("publication: " + what, run.rows, one.publishing);
}

} // namespace

PublicationTables::PublicationTables() :
    waits({"Publication", "Rows", "Staging s", "Publication s", "Longest lock ms", "Launch waits ms", "Clipboard list waits",
        "Setting waits", "Log MB", "Log after", "Memory MiB", "Memory after"}),
    searches({"Publication", "Rows", "A search finds", "Searches", "Quiet median ms", "Meanwhile", "Quiet p95 ms", "Meanwhile",
        "Ratio of p95"})
{
}

void measurePublications(IndexRun &run, IndexHost &host, Listing &listing, PublicationTables &tables)
{
    // With the small root a search has something to find while the large one comes for the first time.
    host.await(stage(host.repository(), small(listing)));
    host.await(host.repository().commitStagedRoot(listing.smallRoot));
    Publication first;
    publish(host, listing.largeRoot, large(listing), first);
    addTo(tables, run, "first", first);

    // A short publication has few searches beside it: it is made several times.
    const int times = run.quick || run.rows > 500'000 ? 1 : 4;
    const auto repeat = [&](const std::string &what, double oneChangesIn) {
        Publication all;
        for (int i = 0; i < times; ++i) {
            if (oneChangesIn > 0)
                changeOneIn(listing, oneChangesIn, std::uint64_t(oneChangesIn) + std::uint64_t(i));
            publish(host, listing.largeRoot, large(listing), all);
        }
        addTo(tables, run, what, all);
        run.report.atMost(what + ", " + std::to_string(run.rows) + " rows: longest wait of a small doing, ms",
            all.waits.longest(), waitLimit, 0);
    };
    repeat("again, no change", 0);
    repeat("again, 0.1 % changed", 1000);
    repeat("again, 1 % changed", 100);
    host.await(stage(host.repository(), small(listing)));
    host.await(host.repository().commitStagedRoot(listing.smallRoot));
    host.await(host.repository().settle());
}

} // namespace korvane::bench
