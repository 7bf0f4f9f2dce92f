// How soon the preview of a file is seen, from the wish to the picture on the screen, beside the barest window that shows
// the same file in the same run:
//   korvane_bench_preview DECODER [SAMPLES]
// on a desktop of its own. Ends with 1 when a limit is exceeded.
#include "bench/Screen.h"
#include "bench/Table.h"

#include "Vorrel/Views/Appearance.h"
#include "Vorrel/Views/IconStore.h"
#include "Vorrel/Views/QtMainLoop.h"
#include "Vorrel/Views/QuickLookWindow.h"

#include <QApplication>
#include <QFile>
#include <QImageReader>
#include <QLabel>
#include <QPlainTextEdit>
#include <QScreen>
#include <QTemporaryDir>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>

using namespace korvane;
using namespace korvane::bench;

namespace {

constexpr double ratioLimit = 1.0; // to show less at first must not cost more
constexpr auto rest = std::chrono::milliseconds(150);

QString writeText(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        throw std::runtime_error("no place for a text");
    while (file.size() < 1'000'000) {
        file.write("##### The harbour master wrote every arrival down, and every departure. #####\n");
        file.flush();
    }
    return path;
}

/// Hills of colour with the grain of a photograph.
QString writePhotograph(const QString &path, const QSize &size)
{
    std::mt19937 random(7);
    QImage image(size, QImage::Format_RGB32);
    for (int y = 0; y < size.height(); y++) {
        auto *line = reinterpret_cast<QRgb *>(image.scanLine(y));
        for (int x = 0; x < size.width(); x++) {
            const int grain = int(random() % 24);
            line[x] = qRgb(200 + grain, 90 * x / size.width() + grain, 90 * y / size.height() + grain);
        }
    }
    if (!image.save(path, nullptr, 90))
        throw std::runtime_error("no place for a picture");
    return path;
}

class Bench {
public:
    explicit Bench(std::string decoder) : preview(loop.executor(), clock, appearance, *icons, std::move(decoder))
    {
        screen.moveMouse(4, 4);
    }

    double ours(const QString &path)
    {
        pass(rest);
        const double took = timed([&] { preview.show(path.toStdString(), {}); });
        preview.close();
        await([&] { return !isSeen(); });
        return took;
    }

    double bareText(const QString &path)
    {
        pass(rest);
        QPlainTextEdit window;
        return shown(window, [&] {
            QFile file(path);
            if (file.open(QIODevice::ReadOnly))
                window.setPlainText(QString::fromUtf8(file.readAll()));
        });
    }

    double barePicture(const QString &path)
    {
        pass(rest);
        QLabel window;
        return shown(window, [&] { window.setPixmap(QPixmap::fromImage(QImageReader(path).read())); });
    }

private:
    double shown(QWidget &window, const std::function<void()> &fill)
    {
        window.resize(780, 700);
        window.move(QGuiApplication::primaryScreen()->geometry().center() - window.rect().center());
        const double took = timed([&] {
            fill();
            window.show();
        });
        window.hide();
        await([&] { return !isSeen(); });
        return took;
    }

    double timed(const std::function<void()> &wish)
    {
        const auto begin = std::chrono::steady_clock::now();
        wish();
        await([&] { return isSeen(); });
        const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
        return took.count();
    }

    /// A strip in the middle of the screen is neither the desktop's colour nor one colour.
    bool isSeen() const
    {
        const auto strip = screen.pixels({screen.width() / 2 - 250, screen.height() / 2 - 10, 300, 20});
        return std::ranges::any_of(strip, [&](std::uint32_t pixel) { return pixel != strip.front(); });
    }

    void await(const std::function<bool()> &reached)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!reached()) {
            QCoreApplication::processEvents();
            if (std::chrono::steady_clock::now() > end)
                throw std::runtime_error("nothing was seen");
        }
    }

    void pass(std::chrono::milliseconds time)
    {
        const auto end = std::chrono::steady_clock::now() + time;
        while (std::chrono::steady_clock::now() < end)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
    }

    Screen screen;
    QtMainLoop loop;
    ThreadPool pool{2};
    SystemClock clock;
    Appearance appearance;
    std::shared_ptr<IconStore> icons = std::make_shared<IconStore>(loop.executor(), pool.executor());
    QtPreviewWindow preview; // shows one file after the other, as in the program
};

template <class Measure> double medianOf(int samples, const Measure &measure)
{
    measure(); // fonts and libraries have been met after the first
    std::vector<double> all;
    for (int i = 0; i < samples; i++)
        all.push_back(measure());
    return median(all);
}

} // namespace

int main(int count, char **words)
try {
    QApplication application(count, words);
    QApplication::setQuitOnLastWindowClosed(false);
    if (count < 2)
        throw std::runtime_error("usage: korvane_bench_preview DECODER [SAMPLES]");
    const int samples = count > 2 ? std::atoi(words[2]) : 20;
    const QTemporaryDir folder;
    const QString text = writeText(folder.filePath(QStringLiteral("arrivals.txt")));
    const QString large = writePhotograph(folder.filePath(QStringLiteral("large.jpg")), {4000, 3000});
    const QString small = writePhotograph(folder.filePath(QStringLiteral("small.png")), {640, 480});

    Bench bench(words[1]);
    Table table({"First sight of", "Korvane (ms)", "bare window (ms)", "ratio", "limit", ""});
    bool kept = true;
    const auto add = [&](const char *what, double ours, double theirs, bool limited) {
        const bool good = !limited || ours <= ratioLimit * theirs;
        kept = kept && good;
        table.add({what, number(ours, 1), number(theirs, 1), number(ours / theirs, 2), limited ? number(ratioLimit, 1) : "",
            limited ? (good ? "kept" : "EXCEEDED") : ""});
    };
    add("a text of 1 MB", medianOf(samples, [&] { return bench.ours(text); }),
        medianOf(samples, [&] { return bench.bareText(text); }), true);
    const double bareLarge = medianOf(samples, [&] { return bench.barePicture(large); });
    add("a photograph of 12 megapixels", medianOf(samples, [&] { return bench.ours(large); }), bareLarge, true);
    const double bareSmall = medianOf(samples, [&] { return bench.barePicture(small); });
    add("a picture of 640 × 480", medianOf(samples, [&] { return bench.ours(small); }), bareSmall, false);
    table.print();
    return kept ? 0 : 1;
} catch (const std::exception &error) {
    std::fprintf(stderr, "preview: %s\n", error.what());
    return 2;
}
