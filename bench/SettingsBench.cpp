// How soon the settings are seen, from the wish to the picture on the screen, beside a window of the toolkit's own widgets, as
// many and with the same words, in the same run:
//   korvane_bench_settings [SAMPLES]
// on a desktop of its own. Ends with 1 when a limit is exceeded.
#include "bench/Screen.h"
#include "bench/Table.h"

#include "Vorrel/Views/Appearance.h"
#include "Vorrel/Views/IconStore.h"
#include "Vorrel/Views/QtSettingsWindow.h"
#include "Vorrel/Views/SettingsView.h"
#include "tests/support/TestPalette.h"

#include <QApplication>
#include <QPushButton>
#include <QScreen>
#include <QScrollArea>
#include <QVBoxLayout>

#include <chrono>
#include <cstdlib>

using namespace korvane;
using namespace korvane::bench;

namespace {

constexpr double ratioLimit = 2.0;
constexpr auto rest = std::chrono::milliseconds(150);

/// A widget of the settings as the toolkit has it.
struct Part {
    enum class Kind { Label, Button, Switch, Line, Other } kind;
    QString words;
};

QList<Part> partsOf(const QWidget &window)
{
    QList<Part> parts;
    for (const QWidget *widget : window.findChildren<QWidget *>()) {
        if (const auto *label = qobject_cast<const QLabel *>(widget))
            parts += {Part::Kind::Label, label->text()};
        else if (qobject_cast<const QCheckBox *>(widget))
            parts += {Part::Kind::Switch, widget->accessibleName()};
        else if (const auto *button = qobject_cast<const QAbstractButton *>(widget))
            parts += {Part::Kind::Button, button->text()};
        else
            parts += {qobject_cast<const QLineEdit *>(widget) ? Part::Kind::Line : Part::Kind::Other, QString()};
    }
    return parts;
}

QWidget *bareWidget(const Part &part)
{
    switch (part.kind) {
    case Part::Kind::Label: {
        auto *label = new QLabel(part.words);
        label->setWordWrap(true);
        return label;
    }
    case Part::Kind::Button: return new QPushButton(part.words);
    case Part::Kind::Switch: return new QCheckBox(part.words);
    case Part::Kind::Line: return new QLineEdit;
    case Part::Kind::Other: break;
    }
    return new QWidget;
}

std::unique_ptr<QWidget> bareWindow(const QList<Part> &parts)
{
    auto *page = new QWidget;
    auto *column = new QVBoxLayout(page);
    for (const Part &part : parts)
        column->addWidget(bareWidget(part));
    auto area = std::make_unique<QScrollArea>();
    area->setWidget(page);
    area->setWidgetResizable(true);
    area->setFixedSize(QtSettingsWindow::width, QtSettingsWindow::height);
    area->move(QGuiApplication::primaryScreen()->geometry().center() - area->rect().center());
    return area;
}

class Bench {
public:
    Bench()
    {
        screen.moveMouse(4, 4);
        parts = partsOf(*make()->surface());
    }

    double first()
    {
        std::unique_ptr<QtSettingsWindow> window;
        const double took = timed([&] {
            window = make();
            window->showCentred();
        });
        window->surface()->hide();
        await([this] { return !isSeen(); });
        return took;
    }

    double again()
    {
        if (!kept)
            kept = make();
        const double took = timed([this] { kept->showCentred(); });
        kept->surface()->hide();
        await([this] { return !isSeen(); });
        return took;
    }

    double bareFirst()
    {
        std::unique_ptr<QWidget> window;
        const double took = timed([&] {
            window = bareWindow(parts);
            window->show();
        });
        window->hide();
        await([this] { return !isSeen(); });
        return took;
    }

    double bareAgain()
    {
        if (!keptBare)
            keptBare = bareWindow(parts);
        const double took = timed([this] { keptBare->show(); });
        keptBare->hide();
        await([this] { return !isSeen(); });
        return took;
    }

    qsizetype widgets() const { return parts.size(); }

private:
    std::unique_ptr<QtSettingsWindow> make()
    {
        return std::make_unique<QtSettingsWindow>(desktop.services->preferences(), desktop.platform(), appearance, *icons);
    }

    double timed(const std::function<void()> &wish)
    {
        pass();
        const auto begin = std::chrono::steady_clock::now();
        wish();
        await([this] { return isSeen(); });
        const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
        return took.count();
    }

    /// A strip through the middle of the screen is not of one colour.
    bool isSeen() const
    {
        const auto strip = screen.pixels({screen.width() / 2 - 300, screen.height() / 2 - 100, 60, 200});
        return std::ranges::any_of(strip, [&](std::uint32_t pixel) { return pixel != strip.front(); });
    }

    static void await(const std::function<bool()> &reached)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!reached()) {
            QCoreApplication::processEvents();
            if (std::chrono::steady_clock::now() > end)
                throw std::runtime_error("nothing was seen");
        }
    }

    void pass()
    {
        const auto end = std::chrono::steady_clock::now() + rest;
        while (std::chrono::steady_clock::now() < end) {
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
            desktop.loop.runUntilIdle();
        }
    }

    Screen screen;
    test::TestPalette desktop;
    Appearance appearance;
    std::shared_ptr<IconStore> icons = std::make_shared<IconStore>(desktop.loop.executor(), desktop.loop.executor());
    QList<Part> parts;
    std::unique_ptr<QtSettingsWindow> kept;
    std::unique_ptr<QWidget> keptBare;
};

} // namespace

int main(int count, char **words)
try {
    QApplication application(count, words);
    QApplication::setQuitOnLastWindowClosed(false);
    const int samples = count > 1 ? std::atoi(words[1]) : 20;
    Bench bench;
    Table table({"Settings", "Korvane (ms)", "bare window (ms)", "ratio", "limit", ""});
    bool kept = true;
    const auto add = [&](const std::string &what, double (Bench::*ours)(), double (Bench::*theirs)()) {
        std::vector<double> mine, other;
        for (int i = 0; i <= samples; i++) { // in turn, so that both meet the same machine
            const double one = (bench.*ours)(), bare = (bench.*theirs)();
            if (i == 0)
                continue; // fonts and libraries have been met after the first
            mine.push_back(one);
            other.push_back(bare);
        }
        const double ratio = median(mine) / median(other);
        kept = kept && ratio <= ratioLimit;
        table.add({what, number(median(mine), 1), number(median(other), 1), number(ratio, 2), number(ratioLimit, 1),
            ratio <= ratioLimit ? "kept" : "EXCEEDED"});
    };
    add("made and seen, " + std::to_string(bench.widgets()) + " widgets", &Bench::first, &Bench::bareFirst);
    add("seen again", &Bench::again, &Bench::bareAgain);
    table.print();
    return kept ? 0 : 1;
} catch (const std::exception &error) {
    std::fprintf(stderr, "settings: %s\n", error.what());
    return 2;
}
