#include "bench/IndexBench.h"
#include "bench/IndexRivals.h"

#include "CommandCore/Commands.h"

#include <fstream>

namespace korvane::bench {

namespace {

constexpr double bareLimit = 1.15;
constexpr double locateLimit = 0.5;
constexpr int given = 100; ///< Results that a search gives.

/// A class of query. Those of names alone have a rival in plocate.
struct QueryClass {
    std::string what, text;
    std::vector<std::string> terms = {}; ///< Names with all of these match; empty: the class is counted by the store.
    bool locateLimited = false;
    std::optional<std::string> parent = {};
};

std::vector<QueryClass> classes(const Listing &listing)
{
    const std::string scope = listing.smallRoot;
    return {
        {"no match", "qzxjvk", {"qzxjvk"}, true},
        {"one match", "quixotry", {"quixotry"}, true},
        {"100 matches", "marigold", {"marigold"}, true},
        {"1,000 matches", "hyacinth", {"hyacinth"}},
        {"10,000 matches", "juniper", {"juniper"}, true},
        {"3.6 % match", "larkspur", {"larkspur"}},
        {"25 % match", "photo", {"photo"}},
        {"a lone term of two letters", "sk"},
        {"two terms of two letters", "sk er", {"sk", "er"}},
        {"25 %, by name", "photo sort:name"},
        {"25 %, by size", "photo sort:size"},
        {"25 %, by date", "photo sort:modified"},
        {"term and path", "photo path:" + scope},
        {"path alone", "path:" + scope},
        {"ext:pdf", "ext:pdf"},
        {"kind:image", "kind:image"},
        {"kind:document", "kind:document"},
        {"kind:file", "kind:file"},
        {"kind:other", "kind:other"},
    };
}

CompiledSearch compiled(const IndexHost &host, const QueryClass &query)
{
    return compile(FileSearchQuery(query.text), query.parent, given, NameLookup::nameTable, host.folders);
}

/// How many rows match, from the statement itself without its order and limit.
std::size_t countInStore(IndexHost &host, const QueryClass &query)
{
    auto search = compiled(host, query);
    const auto where = search.sql.find(" WHERE "), order = search.sql.find(" ORDER BY ");
    const std::string sql = "SELECT COUNT(*) AS c FROM file_index" + search.sql.substr(where, order - where);
    search.values.resize(std::size_t(std::count(sql.begin(), sql.end(), '?')));
    const auto rows = host.await(host.database->rows(sql, search.values));
    return std::stoul(rows.at(0).at("c"));
}

/// plocate's database of the same paths.
class Locate {
public:
    Locate(const Listing &listing, const std::string &folder) : database(folder + "/plocate.db")
    {
        const std::string list = folder + "/paths";
        {
            std::ofstream out(list, std::ios::binary);
            for (const auto &file : listing.files)
                out << file.path << "\n";
        }
        microsecondsOf({"plocate-build", "-p", "-l", "no", list, database});
        std::remove(list.c_str());
    }
    ~Locate() { std::remove(database.c_str()); }
    Locate(const Locate &) = delete;

    double time(const std::vector<std::string> &terms) const { return microsecondsOf(words("-N", terms)); }
    std::string count(const std::vector<std::string> &terms) const
    {
        std::string text = outputOf(words("-c", terms));
        return text.substr(0, text.find('\n'));
    }

private:
    std::vector<std::string> words(const char *option, const std::vector<std::string> &terms) const
    {
        std::vector<std::string> all{"plocate", "-d", database, "-i", "-b", option};
        all.insert(all.end(), terms.begin(), terms.end());
        return all;
    }
    const std::string database;
};

struct Times {
    std::vector<double> ours, bare, service, locate; ///< Microseconds.
    bool overBudget = false; ///< The service ended it.
};

double timeOf(const std::function<void()> &work)
{
    const double begin = microseconds();
    work();
    return microseconds() - begin;
}

void askService(Times &times, const std::function<void()> &service)
{
    try {
        times.service.push_back(timeOf(service));
    } catch (const AppError &) {
        times.overBudget = true;
    }
}

/// The way from the loop to the thread of a connection and back, with a search that asks the store nothing.
std::vector<double> waysBetweenThreads(IndexHost &host)
{
    std::vector<double> times;
    for (int i = 0; i < 500; ++i)
        times.push_back(timeOf([&host] { host.await(host.database->rows("SELECT 1")); }));
    return times;
}

/// In turn, in small portions, so that whatever else happens on the machine happens to all of them. The first of a
/// portion of fast ones warms and does not count.
Times measure(IndexHost &host, const QueryClass &query, const Locate *locate, const std::string &folder, bool quick)
{
    const auto ours = [&] { host.await(host.repositoryHere().search(query.text, query.parent, given)); };
    const auto service = [&] { host.await(host.service->search(query.text, query.parent)); };
    BareSearch bare(host.storePath(), compiled(host, query), folder + "/statement");
    ours(), bare.run(1);
    const double one = timeOf(ours);
    const bool slow = one > 50'000; // warm from the last portion
    const int portion = slow ? 1 : 5;
    const int portions = int(std::clamp((quick ? 1e6 : 4e6) / (one * portion), quick ? 3.0 : 12.0, 60.0));
    Times times;
    for (int i = 0; i < portions; ++i) {
        if (!slow)
            ours();
        for (int j = 0; j < portion; ++j)
            times.ours.push_back(timeOf(ours));
        auto some = bare.run(slow ? 1 : 1 + portion);
        times.bare.insert(times.bare.end(), some.end() - portion, some.end());
        if (i < 12 && !times.overBudget)
            askService(times, service);
        if (locate && !query.terms.empty() && i < 20)
            times.locate.push_back(locate->time(query.terms));
    }
    return times;
}

} // namespace

void measureSearches(IndexRun &run, IndexHost &host, const Listing &listing)
{
    std::optional<Locate> locate;
    if (isInstalled("plocate") && isInstalled("plocate-build"))
        locate.emplace(listing, run.folder);
    else
        run.report.notMeasured("plocate", "it is not installed (scripts/bootstrap)");

    std::printf("\n### Searches, %zu rows\n\n", run.rows);
    Table table({"Query", "Matches", "Median ms", "p95 ms", "Bare median", "Bare p95", "Ratio of medians", "Ratio of p95",
        "Service p95", "plocate ms", "It finds", "Ratio"});
    for (const QueryClass &query : classes(listing)) {
        const std::size_t matches = query.terms.empty() ? countInStore(host, query) : listing.count(query.terms);
        const Times times = measure(host, query, locate ? &*locate : nullptr, run.folder, run.quick);
        const double ours = percentile95(times.ours), bare = percentile95(times.bare);
        run.report.atMost("search, " + query.what + ": p95 to the bare statement's", ours / bare, bareLimit);
        run.report.note("search: " + query.what, run.rows, ours / 1000);
        std::vector<std::string> row{query.what, std::to_string(matches), milliseconds(median(times.ours) / 1000),
            milliseconds(ours / 1000), milliseconds(median(times.bare) / 1000), milliseconds(bare / 1000),
            number(median(times.ours) / median(times.bare), 2), number(ours / bare, 2),
            times.overBudget ? "over budget" : milliseconds(percentile95(times.service) / 1000), "", "", ""};
        run.report.atMost("search, " + query.what + ": runs over the time budget", times.overBudget, 0, 0);
        if (!times.locate.empty()) {
            const double theirs = percentile95(times.locate);
            row[9] = milliseconds(theirs / 1000);
            row[10] = locate->count(query.terms);
            row[11] = number(ours / theirs, 2);
            if (query.locateLimited)
                run.report.atMost("search, " + query.what + ": p95 to plocate's", ours / theirs, locateLimit);
        }
        table.add(std::move(row));
    }
    table.print();
    const auto ways = waysBetweenThreads(host);
    std::printf(
        "\nThe way between two threads and back: median %.3f ms, p95 %.3f ms\n", median(ways) / 1000, percentile95(ways) / 1000);
}

} // namespace korvane::bench
