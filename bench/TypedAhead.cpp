// What becomes of twenty letters typed right after the global key, without a pause:
//   korvane_bench_typed_ahead WINDOW-MANAGER KORVANE BARE-WINDOW [SHOWS]
// on a desktop of its own with that window manager. Prints one row of a table: shows, shows in which all twenty letters reached
// the palette's field, the fewest that did, and shows after whose end the window of before had the keyboard again. Ends with 1
// when one letter was lost.
#include "bench/Program.h"
#include "tests/desktop/FakeKeyboard.h"

#include <xcb/xcb.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>

using namespace korvane::bench;
using namespace std::chrono_literals;
using korvane::test::FakeKeyboard;

namespace {

constexpr int showsOfOneProgram = 25; // the first show of a program is the hardest: there is no field yet

bool soon(const std::function<bool()> &truth, std::chrono::milliseconds limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!truth()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

/// The window that has the keyboard.
class Focus {
public:
    Focus() : connection(xcb_connect(nullptr, nullptr)) { }
    ~Focus() { xcb_disconnect(connection); }
    xcb_window_t now() const
    {
        xcb_get_input_focus_reply_t *const reply =
            xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr);
        const xcb_window_t window = reply ? reply->focus : XCB_NONE;
        std::free(reply);
        return window;
    }
    bool is(xcb_window_t window) const
    {
        return soon([&] { return now() == window; }, 2s);
    }
    bool isNot(xcb_window_t window) const
    {
        return soon([&] { return now() != window && now() > XCB_INPUT_FOCUS_POINTER_ROOT; }, 2s);
    }

private:
    xcb_connection_t *connection;
};

std::string output(const std::string &command)
{
    std::string text;
    if (FILE *pipe = popen((command + " 2>/dev/null").c_str(), "r")) {
        char bytes[256];
        while (const std::size_t count = std::fread(bytes, 1, sizeof bytes, pipe))
            text.append(bytes, count);
        pclose(pipe);
    }
    return text;
}

struct Figures {
    int shows = 0, whole = 0, returned = 0;
    std::size_t fewest = 20;
};

class Bench {
public:
    explicit Bench(std::string korvane) : korvane(std::move(korvane)) { }

    void run(int shows)
    {
        while (figures.shows < shows) {
            Program program({korvane});
            program.untilItSays("Korvane is ready");
            const int last = std::min(shows, figures.shows + showsOfOneProgram);
            while (figures.shows < last)
                show();
        }
    }

    Figures figures;

private:
    /// Each show types another text, so that the one before is never taken for it.
    std::string text() const
    {
        std::string letters = "qwertyuiopasdfghjklz";
        std::rotate(letters.begin(), letters.begin() + figures.shows % 20, letters.end());
        return letters;
    }

    /// What is in the field: what is selected stands in the X server's primary selection.
    std::string field()
    {
        keyboard.combine(FakeKeyboard::control, FakeKeyboard::keyFor('a'));
        return output("timeout 1 xclip -selection primary -o");
    }

    void show()
    {
        const std::string typed = text();
        const xcb_window_t before = focus.now();
        keyboard.combine(FakeKeyboard::alt, FakeKeyboard::space);
        keyboard.type(typed);
        if (!focus.isNot(before))
            throw std::runtime_error("the palette does not get the keyboard");
        std::string arrived;
        const bool whole = soon([&] { return (arrived = field()) == typed; }, 1s);
        ++figures.shows;
        figures.whole += whole;
        figures.fewest = std::min(figures.fewest, arrived.size());
        keyboard.combine(FakeKeyboard::alt, FakeKeyboard::space);
        figures.returned += focus.is(before);
        std::this_thread::sleep_for(100ms); // a person's pause before the next
    }

    const std::string korvane;
    FakeKeyboard keyboard;
    Focus focus;
};

} // namespace

int main(int count, char **words)
try {
    if (count < 4)
        throw std::runtime_error("usage: korvane_bench_typed_ahead WINDOW-MANAGER KORVANE BARE-WINDOW [SHOWS]");
    startOnce(words[2]);
    Program former({words[3]});
    former.untilItSays("ready");
    if (!Focus().isNot(XCB_NONE))
        throw std::runtime_error("the window of before does not get the keyboard");
    Bench bench(words[2]);
    bench.run(count > 4 ? std::atoi(words[4]) : 100);
    const Figures &figures = bench.figures;
    std::printf(
        "| %-14s | %5d | %10d | %6zu | %14d |\n", words[1], figures.shows, figures.whole, figures.fewest, figures.returned);
    return figures.whole == figures.shows ? 0 : 1;
} catch (const std::exception &error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
}
