// How long Korvane takes to start and how much memory it then holds, beside a bare window program in the same run:
//   korvane_bench_start KORVANE BARE-WINDOW [RUNS]
// on a desktop of its own. Ends with 1 when Korvane takes more than twice the time, or 25 MiB more.
#include "bench/Program.h"
#include "bench/Table.h"

#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <unistd.h>

using namespace korvane::bench;
using namespace std::chrono_literals;

namespace {

constexpr double timeLimit = 2;
constexpr double memoryLimit = 25; // MiB above the bare program

/// The middle of the screen, as a person in front of it sees it.
class ScreenMiddle {
public:
    ScreenMiddle() : connection(xcb_connect(nullptr, nullptr))
    {
        if (xcb_connection_has_error(connection))
            throw std::runtime_error("there is no X server");
        screen = xcb_setup_roots_iterator(xcb_get_setup(connection)).data;
        background = pixel();
    }
    ~ScreenMiddle() { xcb_disconnect(connection); }

    /// Waits until something other than the background is there, or nothing is any more.
    void await(bool painted) const
    {
        const auto deadline = std::chrono::steady_clock::now() + 20s;
        while ((pixel() != background) != painted) {
            if (std::chrono::steady_clock::now() > deadline)
                throw std::runtime_error(painted ? "nothing was painted" : "a window stays");
            std::this_thread::sleep_for(500us);
        }
    }

private:
    std::uint32_t pixel() const
    {
        const auto x = std::int16_t(screen->width_in_pixels / 2), y = std::int16_t(screen->height_in_pixels / 2);
        const auto cookie = xcb_get_image(connection, XCB_IMAGE_FORMAT_Z_PIXMAP, screen->root, x, y, 1, 1, ~0u);
        xcb_get_image_reply_t *const reply = xcb_get_image_reply(connection, cookie, nullptr);
        if (!reply)
            throw std::runtime_error("the screen cannot be read");
        std::uint32_t value = 0;
        std::memcpy(&value, xcb_get_image_data(reply), std::min<std::size_t>(sizeof value, xcb_get_image_data_length(reply)));
        std::free(reply);
        return value & 0xffffff;
    }

    xcb_connection_t *connection;
    xcb_screen_t *screen = nullptr;
    std::uint32_t background = 0;
};

struct Figures {
    std::vector<double> ready, paint, resident, proportional;
};

class Bench {
public:
    Bench(std::string korvane, std::string bare) : korvane(std::move(korvane)), bare(std::move(bare)) { }

    void measure(Figures &of, const std::vector<std::string> &words, const char *line, bool paints, bool readies)
    {
        Program program(words);
        if (paints) {
            middle.await(true);
            of.paint.push_back(program.sinceStart().count());
        }
        const double ready = program.untilItSays(line).count();
        if (readies)
            of.ready.push_back(ready);
        program.stop();
        middle.await(false);
    }

    void round()
    {
        measure(ours, {korvane}, korvaneLine, false, true);
        measure(theirs, {bare}, bareLine, false, true);
        measure(ours, {korvane, "--show"}, korvaneLine, true, false);
        measure(theirs, {bare}, bareLine, true, false);
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
        middle.await(false);
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
    const auto add = [&](const char *what, const std::vector<double> &ours, const std::vector<double> &theirs, double limit, int decimals) {
        const bool good = median(ours) <= limit;
        kept = kept && good;
        table.add({what, number(median(ours), decimals), number(median(theirs), decimals), number(limit, decimals), good ? "kept" : "EXCEEDED"});
    };
    const auto &[ours, theirs] = std::pair<Figures &, Figures &>(bench.ours, bench.theirs);
    add("Start to ready, ms", ours.ready, theirs.ready, timeLimit * median(theirs.ready), 1);
    add("Start to first paint, ms", ours.paint, theirs.paint, timeLimit * median(theirs.paint), 1);
    add("Resident when idle, MiB", ours.resident, theirs.resident, median(theirs.resident) + memoryLimit, 1);
    add("Proportional share (PSS), MiB", ours.proportional, theirs.proportional, median(theirs.proportional) + memoryLimit, 1);
    table.print();
    return kept ? 0 : 1;
} catch (const std::exception &error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
}
