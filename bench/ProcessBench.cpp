// What the bounds of a bounded process cost, beside a bare start of the same program and the wait for its end:
//   korvane_bench_process [RUNS]
// Ends with 1 when a limit is exceeded.
#include "Vorrel/Launch/BoundedProcess.h"
#include "bench/Table.h"
#include "tests/support/Await.h"

#include <chrono>
#include <cstdlib>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>

using namespace korvane;
using namespace korvane::bench;

namespace {

constexpr const char *program = "/bin/true";
constexpr double ratioLimit = 1.5;
constexpr double tick = 10; // milliseconds between two looks at a child
constexpr double timeout = 30; // seconds
constexpr std::size_t outputLimit = 1U << 20;

double millisecondsOf(const std::function<void()> &work)
{
    const auto began = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - began).count();
}

void runBare()
{
    char name[] = "true";
    char *const words[] = {name, nullptr};
    char *const environment[] = {nullptr};
    pid_t child = 0;
    int status = -1;
    if (::posix_spawn(&child, program, nullptr, nullptr, words, environment) != 0 || ::waitpid(child, &status, 0) != child
        || status != 0)
        throw std::runtime_error("the bare program did not run");
}

void runBounded(MainLoop &loop, BoundedProcess &process)
{
    if (test::await(loop, process.run(program, {}, timeout, outputLimit)).status != 0)
        throw std::runtime_error("the bounded program did not run");
}

/// One line of the table. True when the limit is kept.
bool compare(Table &table, const char *what, double bounded, double bare)
{
    const double limit = ratioLimit * bare + tick;
    const bool kept = bounded <= limit;
    table.add({what, number(bounded, 2), number(bare, 2), number(limit, 2), kept ? "kept" : "EXCEEDED"});
    return kept;
}

} // namespace

int main(int count, char **words)
try {
    const int runs = count > 1 ? std::atoi(words[1]) : 400;
    if (runs < 1)
        throw std::runtime_error("usage: korvane_bench_process [RUNS]");
    MainLoop loop;
    ThreadPool pool(2);
    SystemClock clock;
    BoundedProcess process(pool.executor(), clock, {});
    std::vector<double> bounded, bare;
    for (int i = 0; i < runs; ++i) { // in turn, so that both meet the same weather
        bare.push_back(millisecondsOf(runBare));
        bounded.push_back(millisecondsOf([&] { runBounded(loop, process); }));
    }
    pool.join();

    Table table({"Of " + std::to_string(runs) + ", ms", "Bounded", "Bare", "Limit", ""});
    const bool kept = compare(table, "Start to end, median", median(bounded), median(bare));
    const bool keptLate = compare(table, "Start to end, p95", percentile95(bounded), percentile95(bare));
    table.print();
    return kept && keptLate ? 0 : 1;
} catch (const std::exception &error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
}
