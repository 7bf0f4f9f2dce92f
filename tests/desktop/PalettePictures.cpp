// Draws the palette in each of its states and writes one picture a state: korvane_pictures FOLDER [PART OF A NAME]
//
// KORVANE_APPEARANCE and QT_SCALE_FACTOR choose the appearance and the scale; KORVANE_PICTURES_LANGUAGE the language.
#include "tests/desktop/Scene.h"

#include "Vorrel/Shell/L10n.h"
#include "Vorrel/Views/PaletteInput.h"

#include <QApplication>
#include <QDir>
#include <QPainter>

#include <cstdio>

using namespace korvane;
using namespace korvane::test;

namespace {

CommandResultFields builtIn(std::string id, std::string title, std::string symbol)
{
    return {.id = std::move(id),
        .title = std::move(title),
        .subtitle = "System Command",
        .icon = CommandIcon::symbol(std::move(symbol))};
}

FileRecord record(const std::string &path, long long size, double modified, bool isDirectory = false)
{
    return {.name = lastPathComponent(path), .path = path, .isDirectory = isDirectory, .size = size, .modified = modified};
}

Rows applications(Scene &scene)
{
    return {
        scene.application("Firefox", "firefox", "org.mozilla.firefox"),
        scene.application("Files", "org.gnome.Nautilus", "org.gnome.Nautilus"),
        scene.application("Figures and Formulas for the Very Patient Reader of Long Application Titles", "org.gnome.Calculator",
            "org.example.figures.and.formulas.for.readers"),
        scene.application("字体查看器", "org.gnome.font-viewer", "org.gnome.font-viewer"),
    };
}

Rows commands()
{
    return {makeRow(builtIn("system:finder", "Open Finder", "folder")), makeRow(builtIn("system:lock", "Lock Screen", "lock")),
        makeRow(builtIn("system:trash", "Empty Trash", "trash")), makeRow(builtIn("system:sleep", "Sleep", "moon"))};
}

Rows files(Scene &scene)
{
    return scene.services->files.results({
        record(
            "/home/ada/Documents/Research/2026/Field notes/Final report of the first expedition.pdf", 2'483'112, 1'771'412'580),
        record("/home/ada/Pictures/Holidays/A much longer folder name that nobody would type twice/Another level/And one "
               "more/fjord at dawn.jpg",
            5'120'400, 1'752'050'040),
        record("/home/ada/Projects/Field reports", 0, 1'769'990'000, true),
        record("/home/ada/项目/第四季度财务报告（最终版）.xlsx", 48'230, 1'735'660'800),
        record("/home/ada/Music/Field recordings/First rain.flac", 31'457'280, 1'690'300'000),
    });
}

Rows joined(std::initializer_list<Rows> parts)
{
    Rows all;
    for (const Rows &part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

std::vector<CommandAction> fileActions()
{
    return {{.id = "open", .title = "Open", .shortcut = "↵"}, {.id = "openWith", .title = "Open With…"},
        {.id = "preview", .title = "Quick Look", .key = ActionKey::preview},
        {.id = "reveal", .title = "Show in Finder", .key = ActionKey::reveal},
        {.id = "copyPath", .title = "Copy Path", .key = ActionKey::copyPath, .role = ActionRole::write},
        {.id = "trash", .title = "Move to Trash", .role = ActionRole::destructive}};
}

/// Shows one row whose actions the panel lists.
void openActions(Scene &scene, int selection)
{
    CommandResultFields fields{.id = "file:/home/ada/report.pdf",
        .title = "report.pdf",
        .subtitle = "/home/ada",
        .icon = CommandIcon::file("/home/ada/report.pdf"),
        .actions = fileActions()};
    scene.palette()._results = Rows{makeRow(std::move(fields))};
    scene.palette()._selection = 0;
    scene.palette().toggleActions();
    scene.palette()._actionSelection = selection;
}

const struct {
    const char *name;
    void (*arrange)(Scene &);
} states[] = {
    {"commands",
        [](Scene &scene) {
            scene.palette()._results = joined({applications(scene), commands()});
            scene.palette()._selection = 1;
        }},
    {"query",
        [](Scene &scene) {
            scene.palette()._query = "fi";
            scene.palette()._results = joined({applications(scene), files(scene)});
        }},
    {"calculator",
        [](Scene &scene) {
            scene.palette()._query = "1920 * 1080 / 2";
            scene.palette()._results = Rows{makeRow({.id = "calculator",
                .title = "1,036,800",
                .subtitle = "1920 * 1080 / 2",
                .icon = CommandIcon::symbol("equal.circle"),
                .actions = {{.id = "copy", .title = "Copy Result"}}})};
        }},
    {"files",
        [](Scene &scene) {
            scene.palette()._mode = PaletteState::Mode::files;
            scene.palette()._category = SearchCategory::files;
            scene.palette()._query = "report";
            scene.palette()._results = files(scene);
            scene.palette()._selection = 1;
            scene.palette()._searchingFiles = true;
        }},
    {"empty",
        [](Scene &scene) {
            scene.palette()._query = "qwertz";
            scene.palette()._results = Rows();
        }},
    {"error",
        [](Scene &scene) {
            scene.palette()._results = joined({files(scene), commands()});
            scene.palette()._error =
                "Korvane cannot read this file. Review Files & Folders access in System Settings, then retry.";
            scene.palette()._errorRecovery = {.rerunAction = true, .openAccessSettings = true};
        }},
    {"actions", [](Scene &scene) { openActions(scene, 3); }},
    {"openwith",
        [](Scene &scene) {
            Rows rows;
            for (const auto &[name, icon] :
                {std::pair("GNU Image Manipulation Program", "gimp"), std::pair("Inkscape", "inkscape"),
                    std::pair("Image Viewer", "org.gnome.eog"), std::pair("Document Viewer", "org.gnome.Evince")})
                rows.push_back(scene.application(name, icon, std::string("/usr/share/applications/") + icon + ".desktop"));
            scene.palette()._childTitle = "Open With…";
            scene.palette()._results = rows;
            scene.palette()._selection = 2;
        }},
    {"arguments",
        [](Scene &scene) {
            const auto line = [](std::string text, std::string used) {
                return makeRow({.id = "args:" + text,
                    .title = text,
                    .subtitle = used,
                    .icon = CommandIcon::symbol("clock.arrow.circlepath"),
                    .actions = {{.id = "run", .title = "Launch With Arguments"}}});
            };
            scene.palette()._argumentTarget = scene.application("Visual Studio Code", "code", "");
            scene.palette()._results = Rows{line("--new-window ~/Projects/korvane", "Used 12× · 3 minutes ago"),
                line("--diff old.cpp new.cpp", "Used 4× · 2 days ago")};
        }},
    {"noarguments",
        [](Scene &scene) {
            scene.palette()._argumentTarget = scene.application("Visual Studio Code", "code", "");
            scene.palette()._results = Rows();
        }},
    {"filefilters",
        [](Scene &scene) {
            scene.palette()._mode = PaletteState::Mode::files;
            scene.palette()._category = SearchCategory::files;
            scene.palette()._query = "field path:/home/ada kind:document sort:modified";
            Rows rows = files(scene);
            rows = {rows.at(0), rows.at(3)}; // the documents
            scene.palette()._results = rows;
        }},
    {"fileerror",
        [](Scene &scene) {
            scene.palette()._mode = PaletteState::Mode::files;
            scene.palette()._category = SearchCategory::files;
            scene.palette()._query = "report path:/mnt/archive";
            scene.palette()._results = Rows();
            scene.palette()._error = "This folder is not indexed. Add it in Settings → File Index.";
        }},
    {"searching",
        [](Scene &scene) {
            scene.palette()._mode = PaletteState::Mode::files;
            scene.palette()._query = "expedition";
            scene.palette()._results = Rows();
            scene.palette()._searchingFiles = true;
        }},
    {"busy",
        [](Scene &scene) {
            scene.palette()._results = joined({commands(), applications(scene)});
            scene.palette()._selection = 5;
            scene.palette()._busy = true;
        }},
    {"preview",
        [](Scene &scene) {
            const std::string text =
                "The tide tables for the northern shore\n\n04:12  high  3.4 m\n10:27  low   0.6 m\n16:49  high  3.1 m\n"
                "22:58  low   0.9 m\n\nBoats may enter the inner harbour for two hours around each high tide.\n"
                "内港在每次高潮前后两小时内开放。";
            scene.palette()._mode = PaletteState::Mode::clipboard;
            scene.palette()._results = Rows{makeRow({.id = "clipboard:1",
                .title = "The tide tables",
                .icon = CommandIcon::symbol("clipboard"),
                .previewText = text,
                .actions = {{.id = "copy", .title = "Copy"}}})};
            scene.palette()._showsPreview = true;
        }},
};

/// The window over a plain desktop.
QImage framed(const QPixmap &picture, bool dark)
{
    QImage image(picture.size(), QImage::Format_RGB32);
    image.setDevicePixelRatio(picture.devicePixelRatio());
    QPainter painter(&image);
    const QRectF all(QPointF(), QSizeF(picture.size()) / picture.devicePixelRatio());
    QLinearGradient ground(all.topLeft(), all.bottomRight());
    ground.setColorAt(0, dark ? QColor(0x39, 0x46, 0x66) : QColor(0xc9, 0xd7, 0xf2));
    ground.setColorAt(1, dark ? QColor(0x1f, 0x2a, 0x3d) : QColor(0xe9, 0xdc, 0xee));
    painter.fillRect(all, ground);
    painter.drawPixmap(0, 0, picture);
    return image;
}

void useLanguage(const QString &language)
{
    const std::string source = KORVANE_SOURCE;
    L10n::use(L10n::load({.resources = source + "/resources",
        .beside = {},
        .fixedAtBuild = {},
        .languages = {language.toStdString()},
        .platform = "linux"}));
}

} // namespace

int main(int argc, char **argv)
{
    qputenv("TZ", "UTC");
    QApplication application(argc, argv);
    if (argc < 2) {
        std::fputs("korvane_pictures FOLDER [PART OF A NAME]\n", stderr);
        return 2;
    }
    const QDir folder(QString::fromLocal8Bit(argv[1]));
    if (!folder.mkpath(QStringLiteral("."))) {
        std::fputs("The folder could not be made.\n", stderr);
        return 1;
    }
    const QString language = qEnvironmentVariable("KORVANE_PICTURES_LANGUAGE", QStringLiteral("en"));
    useLanguage(language);
    for (const auto &state : states) {
        if (argc > 2 && !QString::fromLatin1(state.name).contains(QString::fromLocal8Bit(argv[2])))
            continue;
        Scene scene;
        scene.show();
        state.arrange(scene);
        scene.turn();
        scene.window->surface()->grab(); // asks for the icons
        scene.turn();
        const bool dark = scene.appearance.theme().dark;
        const QImage picture = framed(scene.window->surface()->grab(), dark);
        const QString name =
            QStringLiteral("%1-%2-%3-%4x.png")
                .arg(QLatin1String(state.name), language, dark ? QStringLiteral("dark") : QStringLiteral("light"))
                .arg(scene.window->surface()->devicePixelRatio());
        if (!picture.save(folder.filePath(name))) {
            std::fprintf(stderr, "%s could not be written.\n", qPrintable(name));
            return 1;
        }
        std::puts(qPrintable(folder.filePath(name)));
    }
    return 0;
}
