#include "tests/desktop/PictureStates.h"

#include "Vorrel/Views/FileFilters.h"
#include "Vorrel/Views/HotkeyRecorder.h"
#include "Vorrel/Views/HotkeySettingsSection.h"
#include "Vorrel/Views/PaletteInput.h"

#include <QApplication>
#include <QKeyEvent>
#include <QPainter>

namespace korvane::test {

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

Row clipboardRow(
    const std::string &id, const std::string &title, const std::string &subtitle, const std::string &symbol, std::string text)
{
    return makeRow({.id = "clipboard:" + id,
        .title = title,
        .subtitle = subtitle,
        .icon = CommandIcon::symbol(symbol),
        .previewText = std::move(text),
        .kind = ResultKind::other,
        .actions = {{.id = "copy", .title = "Copy"}}});
}

Rows clipboardRows()
{
    return {
        clipboardRow("1", "The tide tables for the northern shore", "Firefox · just now", "doc.on.clipboard", "The tide tables"),
        clipboardRow("2", "https://example.org/atlas/fjords?page=2", "Firefox · 4 minutes ago", "link", "https://example.org"),
        clipboardRow("3", "cmake --build --preset dev --target korvane", "Terminal · 2 hours ago", "doc.on.clipboard", "cmake"),
        clipboardRow("4", "内港在每次高潮前后两小时内开放。", "Text Editor · yesterday", "doc.on.clipboard", "内港")};
}

Rows shortcutRows()
{
    const auto row = [](const std::string &name, const std::string &folder) {
        return makeRow({.id = "shortcut:" + name,
            .title = name,
            .subtitle = folder,
            .icon = CommandIcon::symbol("wand.and.stars"),
            .actions = {{.id = "run", .title = "Run Shortcut"}}});
    };
    return {row("Back up the photographs", "Shortcut · Home"), row("Resize pictures for the web", "Shortcut · Studio"),
        row("Start the weekly report", "Shortcut")};
}

void showFiles(Stage &scene, std::string query)
{
    scene.palette()._mode = PaletteState::Mode::files;
    scene.palette()._category = SearchCategory::files;
    scene.palette()._query = std::move(query);
    const Rows rows = files(scene);
    scene.palette()._results = Rows{rows.at(0), rows.at(3)}; // the documents
}

void openMenu(Stage &scene, Picker &(FileFilters::*picker)())
{
    scene.turn();
    FlatMenu &menu = (scene.view().findChild<FileFilters *>()->*picker)().menu();
    menu.open();
    menu.setActiveAction(menu.actions().value(1));
}

/// Mode and answer of the assistant; without an answer its introduction.
void showAssistant(Stage &scene, std::string answer, std::string status)
{
    scene.palette()._mode = PaletteState::Mode::ai;
    scene.palette()._results = Rows();
    scene.palette()._aiOutput = std::move(answer);
    scene.palette()._aiStatus = std::move(status);
}

constexpr std::uint32_t spaceKey = HotkeyConfiguration::spaceKey;

void showIssue(Stage &scene, std::optional<HotkeyConfiguration> active)
{
    SettingsState &settings = scene.showSettings();
    const HotkeyConfiguration controlSpace{.keyCode = spaceKey, .modifiers = HotkeyConfiguration::control};
    settings.reportHotkeyFailure(std::make_exception_ptr(HotkeyRegistrationError(HotkeyRegistrationError::Reason::rejected)),
        controlSpace, std::move(active));
}

void record(Stage &scene)
{
    scene.showSettings();
    scene.settingsWindow().hotkeySection().recorder().click();
}

constexpr PictureState states[] = {
    {"commands",
        [](Stage &scene) {
            scene.palette()._results = joined({applications(scene), commands()});
            scene.palette()._selection = 1;
        }},
    {"query",
        [](Stage &scene) {
            scene.palette()._query = "fi";
            scene.palette()._results = joined({applications(scene), files(scene)});
        }},
    {"calculator",
        [](Stage &scene) {
            scene.palette()._query = "1920 * 1080 / 2";
            scene.palette()._results = Rows{makeRow({.id = "calculator",
                .title = "1,036,800",
                .subtitle = "1920 * 1080 / 2",
                .icon = CommandIcon::symbol("equal.circle"),
                .actions = {{.id = "copy", .title = "Copy Result"}}})};
        }},
    {"files",
        [](Stage &scene) {
            scene.palette()._mode = PaletteState::Mode::files;
            scene.palette()._category = SearchCategory::files;
            scene.palette()._query = "report";
            scene.palette()._results = files(scene);
            scene.palette()._selection = 1;
            scene.palette()._searchingFiles = true;
        }},
    {"empty",
        [](Stage &scene) {
            scene.palette()._query = "qwertz";
            scene.palette()._results = Rows();
        }},
    {"error",
        [](Stage &scene) {
            scene.palette()._results = joined({files(scene), commands()});
            scene.palette()._error =
                "Korvane cannot read this file. Review Files & Folders access in System Settings, then retry.";
            scene.palette()._errorRecovery = {.rerunAction = true, .openAccessSettings = true};
        }},
    {"actions", [](Stage &scene) { openActions(scene, 3); }},
    {"openwith",
        [](Stage &scene) {
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
        [](Stage &scene) {
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
        [](Stage &scene) {
            scene.palette()._argumentTarget = scene.application("Visual Studio Code", "code", "");
            scene.palette()._results = Rows();
        }},
    {"filefilters",
        [](Stage &scene) {
            scene.palette()._mode = PaletteState::Mode::files;
            scene.palette()._category = SearchCategory::files;
            scene.palette()._query = "field path:/home/ada kind:document sort:modified";
            Rows rows = files(scene);
            rows = {rows.at(0), rows.at(3)}; // the documents
            scene.palette()._results = rows;
        }},
    {"fileerror",
        [](Stage &scene) {
            scene.palette()._mode = PaletteState::Mode::files;
            scene.palette()._category = SearchCategory::files;
            scene.palette()._query = "report path:/mnt/archive";
            scene.palette()._results = Rows();
            scene.palette()._error = "This folder is not indexed. Add it in Settings → File Index.";
        }},
    {"searching",
        [](Stage &scene) {
            scene.palette()._mode = PaletteState::Mode::files;
            scene.palette()._category = SearchCategory::files;
            scene.palette()._query = "expedition";
            scene.palette()._results = Rows();
            scene.palette()._searchingFiles = true;
        }},
    {"busy",
        [](Stage &scene) {
            scene.palette()._results = joined({commands(), applications(scene)});
            scene.palette()._selection = 5;
            scene.palette()._busy = true;
        }},
    {"preview",
        [](Stage &scene) {
            const std::string text =
                "The tide tables for the northern shore\n\n04:12  high  3.4 m\n10:27  low   0.6 m\n16:49  high  3.1 m\n"
                "22:58  low   0.9 m\n\nBoats may enter the inner harbour for two hours around each high tide.\n"
                "内港在每次高潮前后两小时内开放。";
            scene.palette()._mode = PaletteState::Mode::clipboard;
            scene.palette()._results = Rows{makeRow({.id = "clipboard:1",
                .title = "The tide tables",
                .icon = CommandIcon::symbol("doc.on.clipboard"),
                .previewText = text,
                .actions = {{.id = "copy", .title = "Copy"}}})};
            scene.palette()._showsPreview = true;
        }},
    {"nothing", [](Stage &scene) { scene.palette()._results = Rows(); }},
    {"nofiles",
        [](Stage &scene) {
            scene.palette()._category = SearchCategory::files;
            scene.palette()._results = Rows();
        }},
    {"typemenu",
        [](Stage &scene) {
            showFiles(scene, "field kind:document sort:modified");
            openMenu(scene, &FileFilters::type);
        }},
    {"sortmenu",
        [](Stage &scene) {
            showFiles(scene, "field path:/home/ada/Photographs-and-scans kind:media");
            openMenu(scene, &FileFilters::sort);
        }},
    {"clipboard",
        [](Stage &scene) {
            scene.palette()._mode = PaletteState::Mode::clipboard;
            scene.palette()._results = clipboardRows();
            scene.palette()._selection = 1;
        }},
    {"noclipboard",
        [](Stage &scene) {
            scene.palette()._mode = PaletteState::Mode::clipboard;
            scene.palette()._results = Rows();
        }},
    {"previewlong",
        [](Stage &scene) {
            std::string text;
            for (int line = 1; line <= 2000; line++)
                text += std::to_string(line) + " The harbour master wrote every arrival down.\n";
            scene.palette()._mode = PaletteState::Mode::clipboard;
            scene.palette()._results = Rows{clipboardRow("1", "Arrivals", "Text Editor · just now", "doc.on.clipboard", text)};
            scene.palette()._showsPreview = true;
        }},
    {"ai", [](Stage &scene) { showAssistant(scene, {}, {}); }},
    {"agent",
        [](Stage &scene) {
            Agent archivist;
            archivist.name = "Archivist";
            archivist.tools = {"search_files", "open_file"};
            scene.palette()._activeAgent = archivist;
            showAssistant(scene, {}, {});
        }},
    {"answer",
        [](Stage &scene) {
            scene.palette()._query = "Which reports are new this week?";
            showAssistant(scene,
                "Two reports changed this week:\n\n1. Final report of the first expedition.pdf — Documents/Research/2026\n"
                "2. 第四季度财务报告（最终版）.xlsx — 项目\n\nShall I open the first one?",
                "gpt-4.1-mini");
        }},
    {"shortcuts",
        [](Stage &scene) {
            scene.palette()._category = SearchCategory::shortcuts;
            scene.palette()._results = shortcutRows();
            scene.shortcuts->statusText = "3 shortcuts · updated just now";
        }},
    {"run",
        [](Stage &scene) {
            scene.palette()._category = SearchCategory::shortcuts;
            scene.palette()._results = shortcutRows();
            scene.palette()._busy = true;
            scene.shortcuts->statusText = "Running “Back up the photographs”…";
            scene.shortcuts->startedAt = scene.clock.now() - 83;
        }},
    {"checking",
        [](Stage &scene) {
            scene.palette()._results = joined({files(scene), commands()});
            scene.controller->coordinator()._checkingAccess = true;
        }},
    {"missing",
        [](Stage &scene) {
            scene.palette()._results = files(scene);
            scene.palette()._error = "This file no longer exists. Refresh the search results.";
            scene.palette()._errorRecovery = {.refreshResults = true};
        }},
    {"noactions",
        [](Stage &scene) {
            openActions(scene, 0);
            scene.palette().setActionQuery("zzz");
        }},
    {"settings", [](Stage &scene) { scene.showSettings(); }},
    {"settingsdraft", [](Stage &scene) { scene.showSettings().draftSpotlightHotkey(); }},
    {"settingsissue", [](Stage &scene) { showIssue(scene, HotkeyConfiguration()); }},
    {"settingsnokey", [](Stage &scene) { showIssue(scene, std::nullopt); }},
    {"settingsrecording", record},
    {"settingsinvalid",
        [](Stage &scene) {
            record(scene);
            QKeyEvent shiftA(QEvent::KeyPress, Qt::Key_A, Qt::ShiftModifier, 38, 'A', 1, QStringLiteral("A"));
            QCoreApplication::sendEvent(&scene.settingsWindow().hotkeySection().recorder(), &shiftA);
        }},
    {"settingssaving",
        [](Stage &scene) {
            scene.showSettings().saving = true;
            scene.showSettings().message =
                "This shortcut could not be registered. It may be used by macOS or another app. Choose a different shortcut.";
        }},
};

} // namespace

SettingsState &Stage::showSettings()
{
    if (!settings) {
        wait(Milliseconds(600)); // a fresh palette would ask for the keyboard again
        settings = std::make_unique<QtSettingsWindow>(services->preferences(), platform(), appearance);
        settings->showCentred();
        waitFor([this] { return settings->surface()->isActiveWindow(); });
    }
    return services->preferences();
}

QImage Stage::picture()
{
    QWidget &main = settings ? *settings->surface() : *window->surface();
    const qreal ratio = main.devicePixelRatioF();
    QImage image(main.size() * ratio, QImage::Format_RGB32);
    image.setDevicePixelRatio(ratio);
    image.fill(appearance.theme().dark ? QColor(0x2b, 0x34, 0x48) : QColor(0xd8, 0xdf, 0xec));
    QPainter painter(&image);
    painter.drawPixmap(0, 0, main.grab());
    for (QWidget *menu : QApplication::topLevelWidgets())
        if (menu->isVisible() && menu->windowType() == Qt::Popup)
            painter.drawPixmap(menu->pos() - main.mapToGlobal(QPoint()), menu->grab());
    return image;
}

std::span<const PictureState> pictureStates() { return states; }

} // namespace korvane::test
