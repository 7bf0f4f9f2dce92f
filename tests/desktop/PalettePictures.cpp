// Draws the program's windows in each of their states:
//
//   korvane_pictures draw FOLDER [PART OF A NAME]   every state in both languages, light and dark
//   korvane_pictures keep FOLDER                    the pictures that are kept, of this scale
//   korvane_pictures compare FOLDER DIFFERENCES     the same, compared with those in FOLDER
//
// QT_SCALE_FACTOR chooses the scale. `compare` ends with 1 when a picture differs or is not there, and writes how it looks
// now to DIFFERENCES.
#include "tests/desktop/PictureStates.h"

#include "Vorrel/Shell/L10n.h"

#include <QApplication>
#include <QDir>
#include <QLocale>

#include <algorithm>
#include <cstdio>
#include <functional>

using namespace korvane;
using namespace korvane::test;

namespace {

struct Look {
    std::string_view language;
    bool dark;
    bool operator==(const Look &) const = default;
};

constexpr Look looks[] = {{"en", false}, {"en", true}, {"zh", false}, {"zh", true}};

/// Kept beside every state in English at scale 1.
constexpr struct {
    std::string_view state;
    Look look;
    int scale;
} alsoKept[] = {
    {"filefilters", {"zh", false}, 1},
    {"ai", {"zh", false}, 1},
    {"airunning", {"zh", true}, 1},
    {"aierror", {"zh", false}, 1},
    {"approval", {"zh", true}, 1},
    {"settingsissue", {"zh", true}, 1},
    {"settingsskills", {"zh", false}, 1},
    {"settingslinks", {"zh", true}, 1},
    {"settingsfolders", {"zh", true}, 1},
    {"settingsclipboard", {"zh", false}, 1},
    {"settingsai", {"zh", true}, 1},
    {"settingsservers", {"zh", false}, 1},
    {"newkey", {"zh", false}, 1},
    {"settingsai", {"en", false}, 2},
    {"query", {"en", false}, 2},
    {"typemenu", {"en", true}, 2},
    {"actions", {"zh", true}, 2},
    {"previewfolder", {"zh", false}, 1},
    {"previewtext", {"en", false}, 2},
};

// Text is drawn alike wherever the fonts are the same; a picture differs when a few letters do.
constexpr int greatestDifference = 40; // of one channel of one pixel
constexpr double greatestShare = 0.0001; // of the pixels

int presentScale() { return qRound(qApp->devicePixelRatio()); }

bool isKept(const PictureState &state, const Look &look)
{
    if (presentScale() == 1 && look.language == "en")
        return true;
    return std::ranges::any_of(alsoKept,
        [&](const auto &kept) { return kept.state == state.name && kept.look == look && kept.scale == presentScale(); });
}

void use(const Look &look)
{
    qputenv("KORVANE_APPEARANCE", look.dark ? "dark" : "light");
    const std::string source = KORVANE_SOURCE;
    L10n::use(L10n::load({.resources = source + "/resources",
        .beside = {},
        .fixedAtBuild = {},
        .languages = {std::string(look.language)},
        .platform = "linux"}));
    QLocale::setDefault(QLocale(QString::fromStdString(L10n::languageInUse()))); // names of kinds of files
}

QImage pictureOf(const PictureState &state)
{
    Stage stage;
    stage.show();
    state.arrange(stage);
    stage.turn();
    stage.picture(); // asks for the icons
    stage.turn();
    return stage.picture();
}

QString nameOf(const PictureState &state, const Look &look)
{
    return QStringLiteral("%1-%2-%3-%4x.png")
        .arg(QLatin1String(state.name), QLatin1String(look.language.data()),
            look.dark ? QStringLiteral("dark") : QStringLiteral("light"))
        .arg(presentScale());
}

using Wanted = std::function<bool(const PictureState &, const Look &)>;
using Drawn = std::function<bool(const QString &name, const QImage &)>;

/// Draws those that are wanted. True when `drawn` was content with each.
bool drawAll(const Wanted &wanted, const Drawn &drawn)
{
    bool content = true;
    for (const Look &look : looks) {
        use(look);
        for (const PictureState &state : pictureStates())
            if (wanted(state, look))
                content = drawn(nameOf(state, look), pictureOf(state)) && content;
    }
    return content;
}

/// The same picture with a table of its colours, where it has few: such files are much smaller.
QImage tabulated(const QImage &picture)
{
    QList<QRgb> colours;
    for (int y = 0; y < picture.height(); y++)
        for (int x = 0; x < picture.width(); x++)
            if (const QRgb colour = picture.pixel(x, y); !colours.contains(colour)) {
                if (colours.size() == 256)
                    return picture;
                colours += colour;
            }
    return picture.convertToFormat(QImage::Format_Indexed8, colours, Qt::ThresholdDither);
}

bool write(const QDir &folder, const QString &name, const QImage &picture)
{
    constexpr int smallest = 0; // as small as lossless files get
    if (folder.mkpath(QStringLiteral(".")) && tabulated(picture).save(folder.filePath(name), "PNG", smallest))
        return true;
    std::fprintf(stderr, "%s could not be written.\n", qPrintable(folder.filePath(name)));
    return false;
}

int channelDifference(QRgb a, QRgb b)
{
    return std::max({std::abs(qRed(a) - qRed(b)), std::abs(qGreen(a) - qGreen(b)), std::abs(qBlue(a) - qBlue(b))});
}

/// The share of pixels that differ visibly.
double difference(const QImage &one, const QImage &other)
{
    if (one.size() != other.size())
        return 1;
    qint64 differing = 0;
    for (int y = 0; y < one.height(); y++)
        for (int x = 0; x < one.width(); x++)
            differing += channelDifference(one.pixel(x, y), other.pixel(x, y)) > greatestDifference;
    return double(differing) / (double(one.width()) * one.height());
}

bool matches(const QDir &kept, const QDir &differences, const QString &name, const QImage &picture)
{
    const QImage before(kept.filePath(name));
    const double share = before.isNull() ? 1 : difference(before, picture);
    if (share <= greatestShare)
        return true;
    write(differences, name, picture);
    const QByteArray now = differences.absoluteFilePath(name).toLocal8Bit();
    if (before.isNull())
        std::fprintf(stderr, "%s is not there. Now: %s\n", qPrintable(name), now.constData());
    else
        std::fprintf(stderr, "%s differs in %.3f %% of its pixels. Now: %s\n", qPrintable(name), share * 100, now.constData());
    return false;
}

/// Finds pictures of states that are no more.
bool nothingIsLeftOver(const QDir &kept, const QStringList &names)
{
    bool none = true;
    for (const QString &name : kept.entryList({QStringLiteral("*-%1x.png").arg(presentScale())})) {
        if (names.contains(name))
            continue;
        std::fprintf(stderr, "%s shows no state that there is.\n", qPrintable(name));
        none = false;
    }
    return none;
}

int usage()
{
    std::fputs("korvane_pictures draw FOLDER [PART OF A NAME] | keep FOLDER | compare FOLDER DIFFERENCES\n", stderr);
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    qputenv("TZ", "UTC");
    qputenv("KORVANE_REDUCED_MOTION", "1");
    QApplication application(argc, argv);
    QApplication::setCursorFlashTime(0);
    QApplication::setQuitOnLastWindowClosed(false);
    const QStringList arguments = QApplication::arguments().mid(1);
    if (arguments.size() < 2)
        return usage();
    const QString command = arguments[0];
    const QDir folder(arguments[1]);
    const Drawn save = [&](const QString &name, const QImage &picture) { return write(folder, name, picture); };

    if (command == QLatin1String("draw")) {
        const QString part = arguments.value(2);
        const auto wanted = [&](const PictureState &state, const Look &look) { return nameOf(state, look).contains(part); };
        return drawAll(wanted, save) ? 0 : 1;
    }
    if (command == QLatin1String("keep"))
        return drawAll(isKept, save) ? 0 : 1;
    if (command != QLatin1String("compare") || arguments.size() < 3)
        return usage();

    const QDir differences(arguments[2]);
    QStringList names;
    const bool same = drawAll(isKept, [&](const QString &name, const QImage &picture) {
        names += name;
        return matches(folder, differences, name, picture);
    });
    return nothingIsLeftOver(folder, names) && same ? 0 : 1;
}
