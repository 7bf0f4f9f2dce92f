// What showing, typing and hiding leaves behind in memory, over a day's worth and more of it in one process:
//   korvane_bench_cycles [CYCLES]
// on a desktop of its own, with the real window over a system in memory. Ends with 1 when more than 10 MiB are left.
#include "bench/Table.h"
#include "tests/desktop/Scene.h"

#include "Vorrel/Shell/AppLog.h"
#include "Vorrel/Views/PaletteInput.h"

#include <QApplication>
#include <QKeyEvent>
#include <QWindow>

#include <cstdlib>
#include <fstream>
#include <malloc.h>
#include <stdexcept>
#include <unistd.h>

using namespace korvane;
using namespace korvane::bench;

namespace {

constexpr double limit = 10; // MiB
constexpr int warmUp = 200; // fonts, pages of the views and all icons have been met by then

double residentMebibytes()
{
    malloc_trim(0); // what is free is nobody's
    std::int64_t size = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> size >> resident;
    return double(resident * sysconf(_SC_PAGESIZE)) / (1024 * 1024);
}

class Cycles {
public:
    Cycles()
    {
        const char *const names[] = {"Archive", "Browser", "Calendar", "Drawing", "Editor", "Files", "Games", "Zebra"};
        for (int i = 0; i < 200; i++) {
            CommandResultFields fields{.id = "app:" + std::to_string(i), .title = std::string(names[i % 8]) + std::to_string(i)};
            fields.icon =
                CommandIcon::file(scene.desktopEntry(fields.title, i % 16 == 0 ? "no-such-icon" : "icon" + std::to_string(i)));
            scene.add(std::move(fields));
        }
    }

    void one(int number)
    {
        scene.controller->toggle();
        await([this] { return window() && window()->isExposed(); }, "the window was not shown");
        static constexpr const char *texts[] = {"arc", "zeb", "fil", "dra"};
        for (const char letter : std::string_view(texts[number % 4]))
            type(letter);
        if (number % 16 == 0) {
            scene.palette().toggleActions();
            scene.turn();
        }
        scene.controller->toggle();
        await([this] { return !scene.shownWindow().visible(); }, "the window was not hidden");
    }

private:
    QWindow *window() { return scene.shownWindow().surface()->windowHandle(); }

    void await(const std::function<bool()> &reached, const char *otherwise)
    {
        if (!scene.waitFor(reached))
            throw std::runtime_error(otherwise);
    }

    void type(char letter)
    {
        QKeyEvent press(QEvent::KeyPress, Qt::Key(std::toupper(letter)), Qt::NoModifier, QString(QLatin1Char(letter)));
        QCoreApplication::sendEvent(&scene.field(), &press);
        scene.turn();
        scene.wait(Milliseconds(20));
    }

    test::Scene scene;
};

} // namespace

int main(int count, char **words)
try {
    qputenv("KORVANE_REDUCED_MOTION", "1");
    QApplication application(count, words);
    QApplication::setQuitOnLastWindowClosed(false);
    AppLog::silence(); // it tells of each showing and hiding
    const int cycles = count > 1 ? std::atoi(words[1]) : 10'000;
    Cycles bench;
    for (int i = 0; i < warmUp; i++)
        bench.one(i);
    const double before = residentMebibytes();
    double half = 0;
    for (int i = 0; i < cycles; i++) {
        bench.one(i);
        if (i == cycles / 2)
            half = residentMebibytes();
    }
    const double growth = residentMebibytes() - before;
    const bool kept = growth <= limit;
    Table table({"Shown, typed into and hidden", "Before MiB", "Growth at half", "Growth", "Limit", ""});
    table.add({std::to_string(cycles) + " times", number(before, 1), number(half - before, 1), number(growth, 1),
        number(limit, 0), kept ? "kept" : "EXCEEDED"});
    table.print();
    return kept ? 0 : 1;
} catch (const std::exception &error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
}
