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
constexpr double smallLimit = 1.5; // there is nothing to save in a small picture, and it crosses between two processes
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

/// Hills of colour with the grain of a photograph; nothing else on the screen is of its red.
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

bool isOfPhotograph(std::uint32_t pixel)
{
    const QColor colour = QColor::fromRgb(pixel);
    return colour.red() > 180 && colour.green() < 140 && colour.blue() < 140;
}

class Bench {
public:
    explicit Bench(std::string decoder) : preview(loop.executor(), clock, appearance, *icons, std::move(decoder))
    {
        screen.moveMouse(4, 4);
    }

    enum class Sight { Text, Picture };

    /// The row of the file has been selected for a moment, as in the palette.
    double ours(const QString &path, Sight sight)
    {
        preview.prepare();
        pass(rest);
        const double took = timed(sight, [&] { preview.show(path.toStdString(), {}); });
        preview.close();
        await([&] { return isBare(strip()); });
        return took;
    }

    double bareText(const QString &path)
    {
        pass(rest);
        QPlainTextEdit window;
        return shown(window, Sight::Text, [&] {
            QFile file(path);
            if (file.open(QIODevice::ReadOnly))
                window.setPlainText(QString::fromUtf8(file.readAll()));
        });
    }

    double barePicture(const QString &path)
    {
        pass(rest);
        QLabel window;
        return shown(window, Sight::Picture, [&] { window.setPixmap(QPixmap::fromImage(QImageReader(path).read())); });
    }

private:
    double shown(QWidget &window, Sight sight, const std::function<void()> &fill)
    {
        window.resize(780, 700);
        window.move(QGuiApplication::primaryScreen()->geometry().center() - window.rect().center());
        const double took = timed(sight, [&] {
            fill();
            window.show();
        });
        window.hide();
        await([&] { return isBare(strip()); });
        return took;
    }

    double timed(Sight sight, const std::function<void()> &wish)
    {
        const auto begin = std::chrono::steady_clock::now();
        wish();
        await([&] { return sight == Sight::Text ? !isBare(strip()) : std::ranges::all_of(strip(), isOfPhotograph); });
        const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin;
        return took.count();
    }

    /// In the middle of the screen.
    std::vector<std::uint32_t> strip() const
    {
        return screen.pixels({screen.width() / 2 - 250, screen.height() / 2 - 10, 300, 20});
    }
    /// Of one colour, the desktop's or an empty window's.
    static bool isBare(const std::vector<std::uint32_t> &strip)
    {
        return std::ranges::all_of(strip, [&](std::uint32_t pixel) { return pixel == strip.front(); });
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
    const auto add = [&](const char *what, double ours, double theirs, double limit) {
        const bool good = ours <= limit * theirs;
        kept = kept && good;
        table.add(
            {what, number(ours, 1), number(theirs, 1), number(ours / theirs, 2), number(limit, 1), good ? "kept" : "EXCEEDED"});
    };
    using Sight = Bench::Sight;
    add("a text of 1 MB", medianOf(samples, [&] { return bench.ours(text, Sight::Text); }),
        medianOf(samples, [&] { return bench.bareText(text); }), ratioLimit);
    const double bareLarge = medianOf(samples, [&] { return bench.barePicture(large); });
    add("a photograph of 12 megapixels", medianOf(samples, [&] { return bench.ours(large, Sight::Picture); }), bareLarge,
        ratioLimit);
    const double bareSmall = medianOf(samples, [&] { return bench.barePicture(small); });
    add("a picture of 640 × 480", medianOf(samples, [&] { return bench.ours(small, Sight::Picture); }), bareSmall, smallLimit);
    table.print();
    return kept ? 0 : 1;
} catch (const std::exception &error) {
    std::fprintf(stderr, "preview: %s\n", error.what());
    return 2;
}
