// How long Korvane takes to start and how much memory it then holds, beside a bare window program in the same run:
//   korvane_bench_start KORVANE BARE-WINDOW [RUNS]
// on a desktop of its own. Ends with 1 when Korvane takes more than twice the time, or 25 MiB more.
#include "bench/Program.h"
#include "bench/Screen.h"
#include "bench/Table.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <thread>

using namespace korvane::bench;
using namespace std::chrono_literals;

namespace {

constexpr double timeLimit = 2;
constexpr double memoryLimit = 25; // MiB above the bare program

/// The middle of the screen. Every window here stands in it.
class ScreenMiddle {
public:
    void awaitPaint() const
    {
        screen.await([this] { return pixels(1, 1).front() != background; }, "nothing was painted");
    }
    /// Waits until there is something on the window's ground.
    void awaitContent() const
    {
        const auto uneven = [this] {
            const auto strip = pixels(400, 60);
            return std::ranges::any_of(strip, [&](std::uint32_t pixel) { return pixel != strip.front(); });
        };
        screen.await(uneven, "the window stayed empty");
    }
    void awaitNothing() const
    {
        screen.await([this] { return pixels(1, 1).front() == background; }, "a window stays");
    }

private:
    std::vector<std::uint32_t> pixels(int width, int height) const
    {
        return screen.pixels({(screen.width() - width) / 2, (screen.height() - height) / 2, width, height});
    }

    Screen screen;
    const std::uint32_t background = pixels(1, 1).front();
};

struct Figures {
    std::vector<double> ready, paint, content, resident, proportional;
};

class Bench {
public:
    Bench(std::string korvane, std::string bare) : korvane(std::move(korvane)), bare(std::move(bare)) { }

    void measureReady(Figures &of, const std::string &path, const char *line)
    {
        Program program({path});
        of.ready.push_back(program.untilItSays(line).count());
        program.stop();
        middle.awaitNothing();
    }

    void measurePaint(Figures &of, const std::vector<std::string> &words, bool hasContent)
    {
        Program program(words);
        middle.awaitPaint();
        of.paint.push_back(program.sinceStart().count());
        if (hasContent) {
            middle.awaitContent();
            of.content.push_back(program.sinceStart().count());
        }
        program.stop();
        middle.awaitNothing();
    }

    void round()
    {
        measureReady(ours, korvane, korvaneLine);
        measureReady(theirs, bare, bareLine);
        measurePaint(ours, {korvane, "--show"}, true);
        measurePaint(theirs, {bare}, false);
    }

    void memoryRound()
    {
        const auto idle = [](Figures &of, const std::string &path, const char *line) {
            Program program({path});
            program.untilItSays(line);
            std::this_thread::sleep_for(3s);
            const auto memory = program.memory();
            of.resident.push_back(memory.resident);
            of.proportional.push_back(memory.proportional);
        };
        idle(ours, korvane, korvaneLine);
        idle(theirs, bare, bareLine);
        middle.awaitNothing();
    }

    Figures ours, theirs;

private:
    static constexpr auto korvaneLine = "Korvane is ready", bareLine = "ready";
    std::string korvane, bare;
    ScreenMiddle middle;
};

} // namespace

int main(int count, char **words)
try {
    if (count < 3)
        throw std::runtime_error("usage: korvane_bench_start KORVANE BARE-WINDOW [RUNS]");
    const int runs = count > 3 ? std::atoi(words[3]) : 20;
    Bench bench(words[1], words[2]);
    bench.round(); // the first start reads the files from the disk and makes the store
    bench.ours = bench.theirs = {};
    for (int i = 0; i < runs; ++i)
        bench.round();
    for (int i = 0; i < 3; ++i)
        bench.memoryRound();

    bool kept = true;
    Table table({"Median of " + std::to_string(runs) + " (memory: of 3)", "Korvane", "Bare window", "Limit", ""});
    const auto add = [&](const char *what, const std::vector<double> &ours, const std::vector<double> &theirs, double limit,
                         int decimals) {
        const bool good = median(ours) <= limit;
        kept = kept && good;
        table.add({what, number(median(ours), decimals), number(median(theirs), decimals), number(limit, decimals),
            good ? "kept" : "EXCEEDED"});
    };
    const auto &[ours, theirs] = std::pair<Figures &, Figures &>(bench.ours, bench.theirs);
    add("Start to ready, ms", ours.ready, theirs.ready, timeLimit * median(theirs.ready), 1);
    add("Start to first paint, ms", ours.paint, theirs.paint, timeLimit * median(theirs.paint), 1);
    table.add({"Start to the painted list, ms", number(median(ours.content), 1), "", "", ""});
    add("Resident when idle, MiB", ours.resident, theirs.resident, median(theirs.resident) + memoryLimit, 1);
    add("Proportional share (PSS), MiB", ours.proportional, theirs.proportional, median(theirs.proportional) + memoryLimit, 1);
    table.print();
    return kept ? 0 : 1;
} catch (const std::exception &error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
}
