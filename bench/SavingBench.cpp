// Saving the settings, from the button to the last word, on a quiet store and beside a file index that is published over and
// over.
//   korvane_bench_saving [rows]
// Ends with 1 when a save takes longer than a person notices.
#include "Vorrel/Shell/AppServices.h"
#include "bench/IndexHost.h"
#include "bench/IndexTrees.h"
#include "bench/Table.h"
#include "tests/support/DiskFolder.h"
#include "tests/support/HeadlessDesktop.h"

#include <chrono>
#include <span>

using namespace korvane;
using namespace korvane::bench;

namespace {

constexpr double limit = 100; // ms
constexpr std::size_t batchSize = 5000;
constexpr int quietSaves = 200, publications = 8;

double milliseconds()
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// The settings over the host's store, with the keyring in memory and a shortcut that is always free.
struct Settings {
    explicit Settings(IndexHost &host) : loop(host.loop)
    {
        const Platform memory = desktop.platform();
        Platform ports{.mainThread = host.loop.executor(),
            .pool = pool.executor(),
            .clock = host.clock,
            .folders = host.folders,
            .applicationSource = memory.applicationSource,
            .launcher = memory.launcher,
            .folderWatcher = nullptr,
            .workspace = memory.workspace,
            .system = memory.system,
            .dialogs = memory.dialogs,
            .pasteboard = memory.pasteboard,
            .secrets = &desktop.secrets};
        AppServices::Injected injected;
        injected.fileIndex = host.service;
        injected.searchDatabase = host.database;
        services.emplace(std::move(ports), host.database, std::move(injected));
        host.await(services->preferences().load());
    }

    /// Presses the button and waits for the end.
    double save()
    {
        SettingsState &state = services->preferences();
        AppPreferences draft = state.preferences;
        draft.clipboardLimit = 500 + number++ % 100;
        state.preferences = draft;
        state.apiKey = "sk-" + std::to_string(number);
        state.message = std::nullopt;
        const double begin = milliseconds();
        state.save();
        loop.runUntil([&state] { return !state.saving; });
        const double time = milliseconds() - begin;
        if (state.message.get() != "Settings saved.")
            throw std::runtime_error(state.message->value_or("no word about the end"));
        return time;
    }

    MainLoop &loop;
    ThreadPool pool{2};
    test::HeadlessDesktop desktop;
    std::optional<AppServices> services;
    int number = 0;
};

Task<void> publish(IndexHost &host, const Listing &listing)
{
    const auto rows = std::span(listing.files).first(listing.rowsOfLargeRoot);
    const FileIndexRepository &repository = host.repository();
    for (std::size_t at = 0; at < rows.size(); at += batchSize) {
        const auto some = rows.subspan(at, std::min(batchSize, rows.size() - at));
        std::vector<IndexedFile> batch(some.begin(), some.end());
        co_await repository.stage(std::move(batch));
    }
    co_await repository.commitStagedRoot(listing.largeRoot);
    co_await repository.clearStaging();
    co_await repository.settle();
}

bool add(Table &table, const std::string &when, const std::vector<double> &times, double quiet)
{
    const double longest = *std::ranges::max_element(times), middle = median(times);
    table.add({when, std::to_string(times.size()), number(middle, 2), number(percentile95(times), 2), number(middle / quiet, 2),
        number(longest, 2), number(limit, 0), longest <= limit ? "kept" : "EXCEEDED"});
    return longest <= limit;
}

} // namespace

int main(int count, char **words)
{
    const std::size_t rows = count > 1 ? std::stoul(words[1]) : 300'000;
    test::DiskFolder disk;
    IndexHost host({.data = disk / "data", .home = disk / "home", .roots = {disk / "home"}});
    Listing listing = makeListing(rows, 7, disk / "home", disk / "srv");
    host.await(publish(host, listing));
    Settings settings(host);

    std::vector<double> quiet;
    for (int i = 0; i < quietSaves; ++i) {
        quiet.push_back(settings.save());
        host.runFor(Milliseconds(5));
    }
    const auto saveWhilePublishing = [&](double oneIn) {
        std::vector<double> times;
        for (int i = 0; i < publications; ++i) {
            changeOneIn(listing, oneIn, std::uint64_t(i));
            test::Begun<void> publication(host.loop, publish(host, listing));
            while (!publication.done()) {
                times.push_back(settings.save());
                host.runFor(Milliseconds(20));
            }
            publication.result();
        }
        return times;
    };
    const std::vector<double> little = saveWhilePublishing(1000), much = saveWhilePublishing(100);
    Table table({"Saving the settings, " + std::to_string(rows) + " files", "Saves", "Median ms", "p95 ms", "To quiet",
        "Longest ms", "Limit ms", ""});
    bool kept = add(table, "on a quiet store", quiet, median(quiet));
    kept &= add(table, "while the index is published again, 0.1 % changed", little, median(quiet));
    kept &= add(table, "while the index is published again, 1 % changed", much, median(quiet));
    table.print();
    return kept ? 0 : 1;
}
