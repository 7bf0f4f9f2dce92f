// How soon the palette answers the global key and a typed key, seen on the screen, beside a bare window program with the
// same key in the same run; and whether a turn of its main thread ever takes long:
//   korvane_bench_window KORVANE BARE-WINDOW WATCHDOG-LIBRARY [SAMPLES]
// on a desktop of its own. Ends with 1 when a limit is exceeded.
#include "bench/Program.h"
#include "bench/Screen.h"
#include "bench/Table.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

using namespace korvane::bench;
using namespace std::chrono_literals;

namespace {

constexpr double ratioLimit = 1.3;

// Codes of keys
constexpr std::uint8_t leftAlt = 56, space = 57, letter = 44, backspace = 14; // the letter z

constexpr auto rest = 120ms; // what follows an answer, such as a search for files, is over before the next key

struct Figures {
    std::vector<double> shown, typed;
};

/// Applications that a letter tells apart, so that every typed key changes the first row.
void installApplications()
{
    const char *home = std::getenv("XDG_DATA_HOME");
    if (!home)
        throw std::runtime_error("this is no desktop of its own");
    const auto folder = std::filesystem::path(home) / "applications";
    std::filesystem::create_directories(folder);
    const char *const names[] = {"Archive", "Browser", "Calendar", "Drawing", "Editor", "Files", "Games", "Zebra"};
    for (int i = 0; i < 200; i++) {
        const std::string name = std::string(names[i % 8]) + " " + std::to_string(i);
        std::ofstream(folder / ("bench" + std::to_string(i) + ".desktop"))
            << "[Desktop Entry]\nType=Application\nName=" << name << "\nExec=true\n";
    }
}

class Bench {
public:
    Bench() { screen.moveMouse(20, screen.height() - 20); }

    /// Starts the program, shows it `count` times, then types as often.
    void measure(const std::vector<std::string> &words, const std::string &readyLine, int count, Figures &into)
    {
        Program program(words);
        program.untilItSays(readyLine);
        std::this_thread::sleep_for(1s); // the first list of applications belongs to the start
        warmUp();
        for (int i = 0; i < count; i++) {
            into.shown.push_back(show());
            hide();
        }
        show();
        type(letter);
        type(backspace);
        for (int i = 0; i < count; i++)
            into.typed.push_back(type(i % 2 == 0 ? letter : backspace));
        hide();
        program.stop();
    }

    /// Shows, types and hides under the watchdog and gives what it said.
    std::string watch(const std::string &library, const std::string &path, int count)
    {
        Program program({"/usr/bin/env", "LD_PRELOAD=" + library, path});
        program.untilItSays("Korvane is ready");
        std::this_thread::sleep_for(1s);
        warmUp(); // the first show makes the views and loads fonts
        program.signal(SIGUSR1);
        for (int i = 0; i < count; i++) {
            show();
            type(letter);
            type(backspace);
            hide();
        }
        program.stop();
        return program.everythingSaid();
    }

private:
    void warmUp()
    {
        for (int i = 0; i < 2; i++) {
            show();
            std::this_thread::sleep_for(500ms);
            hide();
        }
    }

    /// In the right half of the field: it is empty there, and window managers put nothing of their own there.
    std::uint32_t ground() const { return screen.pixels({screen.width() / 2 + 250, 230, 1, 1}).front(); }
    /// Through the title of the first row.
    std::vector<std::uint32_t> firstRow() const { return screen.pixels({screen.width() / 2 - 300, 350, 300, 8}); }

    double show()
    {
        const auto begin = std::chrono::steady_clock::now();
        screen.press(space, {leftAlt});
        screen.await([this] { return ground() != background; }, "the key did not bring a window");
        const Milliseconds took = std::chrono::steady_clock::now() - begin;
        std::this_thread::sleep_for(2 * rest);
        return took.count();
    }

    void hide()
    {
        screen.press(space, {leftAlt});
        screen.await([this] { return ground() == background; }, "the key did not take the window away");
        std::this_thread::sleep_for(rest);
    }

    double type(std::uint8_t key)
    {
        const auto before = firstRow();
        const auto begin = std::chrono::steady_clock::now();
        screen.press(key);
        screen.await([&] { return firstRow() != before; }, "the list did not follow the typed key");
        const Milliseconds took = std::chrono::steady_clock::now() - begin;
        std::this_thread::sleep_for(rest);
        return took.count();
    }

    Screen screen;
    const std::uint32_t background = ground();
};

bool addRow(Table &table, const std::string &what, double ours, double theirs)
{
    const bool kept = ours <= ratioLimit * theirs;
    table.add(
        {what, number(ours, 2), number(theirs, 2), number(ours / theirs, 2), number(ratioLimit, 1), kept ? "kept" : "EXCEEDED"});
    return kept;
}

/// Prints what the watchdog found and says whether no turn was too long.
bool reportTurns(const std::string &said)
{
    std::printf("\n");
    bool complete = false;
    int slow = 0;
    std::size_t begin = 0;
    while (begin < said.size()) {
        const std::size_t end = std::min(said.find('\n', begin), said.size());
        const std::string line = said.substr(begin, end - begin);
        begin = end + 1;
        int turns = 0;
        double longest = 0;
        if (std::sscanf(line.c_str(), "watchdog: %d turns, the longest %lf ms, %d over", &turns, &longest, &slow) == 3) {
            complete = true;
            Table table({"Turns of the main thread", "Number", "Longest ms", "Over 8 ms", "Limit", ""});
            table.add({"shown, typed into and hidden", std::to_string(turns), number(longest, 2), std::to_string(slow), "0",
                slow == 0 ? "kept" : "EXCEEDED"});
            table.print();
        } else if (line.starts_with("watchdog:") || line.find("(+0x") != line.npos || line.find("+0x") != line.npos) {
            std::printf("    %s\n", line.c_str());
        }
    }
    if (!complete)
        throw std::runtime_error("the watchdog said nothing: " + said);
    return slow == 0;
}

} // namespace

int main(int count, char **words)
try {
    if (count < 4)
        throw std::runtime_error("usage: korvane_bench_window KORVANE BARE-WINDOW WATCHDOG-LIBRARY [SAMPLES]");
    const int samples = count > 4 ? std::atoi(words[4]) : 200;
    constexpr int rounds = 4; // in turn, so that both meet the same machine
    installApplications();
    startOnce(words[1]);
    Bench bench;
    Figures ours, theirs;
    for (int i = 0; i < rounds; i++) {
        bench.measure({words[1]}, "Korvane is ready", samples / rounds, ours);
        bench.measure({words[2], "--key"}, "ready", samples / rounds, theirs);
    }
    Table table({"Of " + std::to_string(samples) + ", ms", "Korvane", "Bare window", "Ratio", "Limit", ""});
    bool kept = addRow(table, "Global key to painted window, median", median(ours.shown), median(theirs.shown));
    kept &= addRow(table, "Global key to painted window, p95", percentile95(ours.shown), percentile95(theirs.shown));
    kept &= addRow(table, "Key press to repainted list, median", median(ours.typed), median(theirs.typed));
    kept &= addRow(table, "Key press to repainted list, p95", percentile95(ours.typed), percentile95(theirs.typed));
    table.print();
    kept &= reportTurns(bench.watch(words[3], words[1], samples / rounds));
    return kept ? 0 : 1;
} catch (const std::exception &error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
}
