// What Korvane costs while it is hidden, beside a bare window program at the same time:
//   korvane_bench_idle KORVANE BARE-WINDOW [SECONDS]
// on a desktop of its own.
#include "bench/Program.h"
#include "bench/Table.h"

#include <cstdlib>
#include <stdexcept>
#include <thread>

using namespace korvane::bench;

namespace {

std::vector<std::string> cost(const char *what, const Program::Work &before, const Program::Work &after, int seconds)
{
    const auto wakeUps = after.wakeUps - before.wakeUps;
    return {what, number(after.cpuMilliseconds - before.cpuMilliseconds, 2), std::to_string(wakeUps),
        number(double(wakeUps) / seconds, 2), std::to_string(after.threads)};
}

} // namespace

int main(int count, char **words)
try {
    if (count < 3)
        throw std::runtime_error("usage: korvane_bench_idle KORVANE BARE-WINDOW [SECONDS]");
    const int seconds = count > 3 ? std::atoi(words[3]) : 60;
    startOnce(words[1]);
    Program korvane({words[1]}), bare({words[2]});
    korvane.untilItSays("Korvane is ready");
    bare.untilItSays("ready");
    std::this_thread::sleep_for(std::chrono::seconds(5)); // the first list of applications belongs to the start

    const auto ours = korvane.work(), theirs = bare.work();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    const auto oursAfter = korvane.work(), theirsAfter = bare.work();

    Table table({"In " + std::to_string(seconds) + " seconds", "CPU ms", "Wake-ups", "A second", "Threads"});
    table.add(cost("Korvane, hidden", ours, oursAfter, seconds));
    table.add(cost("Bare window", theirs, theirsAfter, seconds));
    table.print();
    return 0;
} catch (const std::exception &error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
}
