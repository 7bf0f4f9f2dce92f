#include "IndexStore.h"
#include "tests/Vorrel/Store/ReportingProcess.h"

#include <map>
#include <random>
#include <unistd.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;

namespace {

constexpr int filesOfRoot = 400;
constexpr IndexSteps shortSteps{.comparedRows = 50, .removedRows = 50};
const Strings killRoots{"/r", "/r/n", "/s"}; // the second is nested in the first

/// The whole content of a root in one generation: the number is the size of each file and a part of most names, so that
/// rows come, go, change and stay.
std::vector<IndexedFile> generation(const std::string &root, int number)
{
    std::vector<IndexedFile> files{{root, lastPathComponent(root), true, number, 1}};
    for (int i = 1; i < filesOfRoot; ++i) {
        const int part = i % 3 == 0 ? number : 0;
        files.push_back(fileAt(root + "/file " + std::to_string(part) + "-" + std::to_string(i), number));
    }
    return files;
}

/// Scans and publishes root after root, generation after generation, and never ends by itself. Tells of each publication
/// by the generation, three times that and the place of the root added.
[[noreturn]] void publishForEver(const std::string &file, int number, int reports)
{
    MainLoop loop;
    SystemClock clock;
    const auto database = await(loop, Database::open(loop.executor(), file, Access::readWrite));
    const FileIndexRepository repository(database, adasFolders, clock, shortSteps);
    for (const auto &root : killRoots)
        await(loop, repository.addRoot(root));
    for (;; ++number) {
        await(loop, repository.clearStaging());
        for (std::size_t place = 0; place < killRoots.size(); ++place) {
            const auto &root = killRoots[place];
            auto files = generation(root, number);
            const auto half = files.begin() + filesOfRoot / 2;
            await(loop, repository.stage({half, files.end()}));
            await(loop, repository.stage({files.begin(), half}));
            await(loop, repository.commitStagedRoot(root));
            const int report = number * int(killRoots.size()) + int(place);
            if (write(reports, &report, sizeof report) != sizeof report)
                _exit(1);
        }
    }
}

} // namespace

TEST(FileIndexKillSlow, SixtyKillsLeaveEachRootWhollyOldOrWhollyNew)
{
    std::mt19937 random(20240229);
    const auto below = [&random](int limit) { return std::uniform_int_distribution(0, limit - 1)(random); };
    auto folder = std::make_unique<TemporaryFolder>();
    int generations = 0, killed = 0, lost = 0, apart = 0, leftStaged = 0;
    std::map<std::string, int> reported; // the generation of each root that is known to be published

    for (int round = 0; round < 60; ++round) {
        SCOPED_TRACE(round);
        if (round % 12 == 0) { // so that first publications are interrupted too
            folder = std::make_unique<TemporaryFolder>();
            reported.clear();
        }
        const std::string file = *folder / "korvane.sqlite";
        {
            ++generations;
            const auto work = [&](int reports) { publishForEver(file, generations, reports); };
            ReportingProcess publisher(work);
            const auto take = [&](std::optional<int> report) {
                if (!report)
                    return;
                generations = *report / int(killRoots.size());
                reported[killRoots[std::size_t(*report) % killRoots.size()]] = generations;
            };
            for (int reports = below(6); reports > 0; --reports)
                take(publisher.next(5s));
            const auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(below(60'000));
            while (std::chrono::steady_clock::now() < end)
                take(publisher.next(200us));
            killed += publisher.kill();
            while (const auto report = publisher.next(0us))
                take(report);
            ++generations; // one more may be published and its report lost
        }
        TestStore store;
        const auto database = store.openPath(file);
        const FileIndexRepository repository(database, adasFolders, store.clock);
        std::map<std::string, std::vector<IndexedFile>> rows;
        for (const auto &root : killRoots)
            rows[root] = {};
        for (const auto &row : store.rows(database, "SELECT path,size,is_directory FROM file_index ORDER BY path")) {
            const auto &path = row.at("path");
            const std::string root = path.starts_with("/r/n/") || path == "/r/n" ? "/r/n" : path.substr(0, 2);
            auto found = fileAt(path, std::stoll(row.at("size")));
            found.isDirectory = row.at("is_directory") == "1";
            rows[root].push_back(found);
        }
        std::set<long long> numbers;
        for (auto &[root, present] : rows) {
            const auto number = present.empty() ? 0 : present.front().size;
            numbers.insert(number);
            lost += number < reported[root];
            auto whole = number ? generation(root, int(number)) : std::vector<IndexedFile>();
            std::sort(whole.begin(), whole.end(), [](const auto &a, const auto &b) { return a.path < b.path; });
            ASSERT_EQ(pathsOf(present), pathsOf(whole)) << root << " is partly of " << number;
            for (const auto &each : present)
                ASSERT_EQ(each.size, number) << each.path;
        }
        apart += numbers.size() > 1;
        leftStaged += store.value(database, "SELECT count(*) AS value FROM file_index_staging") != "0";
        EXPECT_EQ(store.value(database, "SELECT integrity_check AS value FROM pragma_integrity_check"), "ok");
        store.execute(database, "INSERT INTO file_index_fts(file_index_fts,rank) VALUES('integrity-check',1)");
    }
    EXPECT_EQ(killed, 60);
    EXPECT_EQ(lost, 0) << "what was reported stays";
    EXPECT_GT(apart, 10) << "the kills missed the time between publications";
    EXPECT_GT(leftStaged, 10) << "the kills missed the staging";
}
