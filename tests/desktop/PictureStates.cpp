#include "tests/desktop/PictureStates.h"

#include "Support/Text.h"
#include "Vorrel/Shell/L10n.h"
#include "Vorrel/Views/FileFilters.h"
#include "Vorrel/Views/HotkeyRecorder.h"
#include "Vorrel/Views/HotkeySettingsSection.h"
#include "Vorrel/Views/PaletteInput.h"
#include "Vorrel/Views/SettingsView.h"

#include <QApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QKeyEvent>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <QScrollArea>
#include <QScrollBar>
#include <QThread>

#include <cmath>
#include <fcntl.h>
#include <sys/stat.h>

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

using Tab = SettingsState::Tab;

SettingsState &openTab(Stage &scene, Tab tab)
{
    SettingsState &settings = scene.showSettings();
    settings.selectedTab = tab;
    scene.turn();
    return settings;
}

/// Scrolls what is shown so far down, from 0 to 1.
void scrollDown(Stage &scene, double share)
{
    scene.turn();
    for (auto *area : scene.settingsWindow().surface()->findChildren<QScrollArea *>())
        if (area->isVisible())
            area->verticalScrollBar()->setValue(int(area->verticalScrollBar()->maximum() * share));
}

void fillQuicklinks(SettingsState &settings)
{
    settings.quicklinks = {{"1", "Tide tables", "https://example.org/atlas/fjords/tides?page=2"},
        {"2", "Harbour office",
            "https://harbour.example.org/arrivals/of/the/season/with/an/address/that/is/much/too/long/for/one/line"},
        {"3", "字帖", "file:///home/ada/Documents/字帖.pdf"}};
}

std::vector<MCPServerConfiguration> servers()
{
    const auto server = [](const char *id, const char *name) { return MCPServerConfiguration{.id = id, .name = name}; };
    return {server("1", "Notes of the harbour"), server("2", "Search"), server("3", "Weather"),
        server("4", "A server whose name is much longer than a list of names has room for")};
}

/// The page with Agents, tools and skills.
void showAgents(Stage &scene)
{
    for (const char *tool : {"applications.open", "calculator", "clipboard.read", "clipboard.write", "filesystem.search"})
        scene.agents->offered().registerTool(std::make_shared<ScriptedTool>(tool));
    Agent archivist{.id = "1", .name = "Archivist"};
    archivist.systemPrompt = "You keep the papers of a small harbour.\nAnswer in one or two sentences and name the files.";
    archivist.tools = {"filesystem.search", "mcp.1.notes"};
    archivist.skills = {"/home/ada/.config/korvane/skills/gone/SKILL.md"};
    Agent writer{.id = "2", .name = "Writer of letters that nobody wants to write", .icon = "pencil"};
    scene.agents->list = {archivist, writer, {.id = "3", .name = "译者"}};
    openTab(scene, Tab::agents);
    scene.agents->draft = archivist;
}

void showSkills(Stage &scene)
{
    showAgents(scene);
    scene.agents->skills = {{.name = "tide-tables",
                                .description = "Reads the tables of the harbour and says when boats may enter, with the time "
                                               "zone of whoever asks.",
                                .instructions = "Look into tides.csv.\nAdd two hours before and after each high tide.\n",
                                .path = "/home/ada/.config/korvane/skills/tide-tables/SKILL.md"},
        {.name = "letters",
            .description = "Writes to the harbour office.",
            .instructions = "Be polite.",
            .path = "/home/ada/.claude/skills/letters/SKILL.md"}};
    scene.agents->warnings = {L10n::format("Cannot read skill folder: %@", "/home/ada/.config/agents/skills/private")};
    scene.agents->message =
        L10n::format("Found %lld skills. Select only skills you trust; their instructions are sent with Agent requests.", "2");
    Agent draft = scene.agents->draft;
    draft.skills.push_back(scene.agents->skills.get()[0].path);
    scene.agents->draft = draft;
    scene.turn();
}

// Samples of files

void writeBytes(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly))
        file.write(bytes);
}

void writeNotes(const QString &path)
{
    writeBytes(path,
        "#!/usr/bin/env python3\n\"\"\"Prints when boats may enter the inner harbour.\"\"\"\n\nimport csv\nimport datetime\n\n"
        "BEFORE = AFTER = datetime.timedelta(hours=2)\n\n\ndef windows(tides):\n    for name, time, height in tides:\n"
        "        if name == \"high\" and float(height) > 3.0:\n            yield time - BEFORE, time + AFTER\n\n\n"
        "# 内港在每次高潮前后两小时内开放。\ndef main():\n    with open(\"tides.csv\") as file:\n"
        "        for begin, end in windows(csv.reader(file)):\n            print(f\"{begin:%H:%M} – {end:%H:%M}\")\n\n\n"
        "if __name__ == \"__main__\":\n    main()\n");
}

/// Hills behind a lake in the evening.
void writePhotograph(const QString &path)
{
    constexpr int width = 960, height = 600;
    QImage image(width, height, QImage::Format_RGB32);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    QLinearGradient sky(0, 0, 0, 380);
    sky.setColorAt(0, QColor(0x31, 0x3e, 0x6b));
    sky.setColorAt(0.7, QColor(0xe3, 0x8f, 0x7c));
    sky.setColorAt(1, QColor(0xf7, 0xd0, 0x9a));
    painter.fillRect(0, 0, width, height, sky);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0xff, 0xf1, 0xd0));
    painter.drawEllipse(QPointF(640, 318), 38, 38);
    const QColor hills[] = {QColor(0x6d, 0x5b, 0x86), QColor(0x4a, 0x45, 0x70), QColor(0x2b, 0x2e, 0x52)};
    for (int hill = 0; hill < 3; hill++) {
        QPolygonF outline{{0, height}};
        for (int x = 0; x <= width; x += 10)
            outline << QPointF(
                x, 336 + 42 * hill + 36 * std::sin(x / (102.0 + 36 * hill) + 2 * hill) + 13 * std::sin(x / 37.0 + hill));
        painter.setBrush(hills[hill]);
        painter.drawPolygon(outline << QPointF(width, height));
    }
    QLinearGradient water(0, 480, 0, height);
    water.setColorAt(0, QColor(0xb0, 0x78, 0x80));
    water.setColorAt(1, QColor(0x24, 0x2a, 0x4c));
    painter.fillRect(0, 480, width, 120, water);
    painter.end();
    image.save(path, "JPG", 90);
}

void writeMark(const QString &path)
{
    writeBytes(path,
        "<svg xmlns='http://www.w3.org/2000/svg' viewBox='0 0 64 64' width='64' height='64'><circle cx='32' cy='32' r='28' "
        "fill='#4a4fcf'/><path d='M20 40 L32 16 L44 40 Z' fill='none' stroke='#fff' stroke-width='5' "
        "stroke-linejoin='round'/></svg>");
}

void writeReport(const QString &path)
{
    QPdfWriter writer(path);
    writer.setPageSize(QPageSize(QPageSize::A4));
    writer.setResolution(150);
    QPainter painter(&writer);
    for (int page = 0; page < 3; page++) {
        if (page > 0)
            writer.newPage();
        QFont font(QStringLiteral("Inter"));
        font.setPixelSize(52);
        font.setBold(true);
        painter.setFont(font);
        painter.drawText(80, 140, page == 0 ? QStringLiteral("The first expedition") : QStringLiteral("Chapter %1").arg(page));
        font.setPixelSize(25);
        font.setBold(false);
        painter.setFont(font);
        const QString line = QStringLiteral("We left the harbour two hours before high water and had the light behind us. ");
        painter.drawText(QRect(80, 220, writer.width() - 160, 900), Qt::TextWordWrap, line.repeated(9));
        painter.fillRect(QRect(80, 720, writer.width() - 160, 360), QColor(0xdf, 0xe4, 0xf2));
    }
}

void writeFolder(const QString &path)
{
    QDir().mkpath(path + QStringLiteral("/old"));
    writeBytes(path + QStringLiteral("/old/notes.txt"), QByteArray(48'230, 'x'));
    for (int i = 0; i < 14; i++)
        writeBytes(path + QStringLiteral("/%1.jpg").arg(i), QByteArray(312'000, 'x'));
}

// A request to a model

void showRequest(Stage &scene, std::string answer, std::string status, bool busy)
{
    scene.palette()._query = "Which reports are new this week?";
    showAssistant(scene, std::move(answer), std::move(status));
    scene.palette()._busy = busy;
}

std::string longAnswer()
{
    std::string text = "These are the arrivals of the season:\n";
    for (int line = 1; line <= 60; line++)
        text += "\n" + std::to_string(line) + ". The harbour master wrote every arrival down, the tide and the weather too.";
    return text;
}

/// The question whether a tool may be called with these texts.
void askForTool(Stage &scene, const std::string &tool, const std::string &text)
{
    showRequest(scene, {}, "Running " + tool + "…", true);
    const JSONValue input = JSONValue::Object{{"path", "/home/ada/Notes/harbour.md"}, {"text", text}};
    scene.showQuestion(L10n::format("AI wants to run %@", tool),
        "Writes a text to a file and replaces what it held.\n\n" + std::string(firstCharacters(input.encodedString(), 1600)));
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
    {"newkey",
        [](Stage &scene) {
            scene.palette()._results = joined({applications(scene), commands()});
            scene.palette().introduceKey(HotkeyConfiguration());
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
                {});
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
    {"previewtext", [](Stage &scene) { scene.showPreview(QStringLiteral("harbour_windows.py"), writeNotes); }},
    {"previewpicture", [](Stage &scene) { scene.showPreview(QStringLiteral("fjord at dawn.jpg"), writePhotograph); }},
    {"previewdrawing", [](Stage &scene) { scene.showPreview(QStringLiteral("mark.svg"), writeMark); }},
    {"previewpages",
        [](Stage &scene) { scene.showPreview(QStringLiteral("Final report of the first expedition.pdf"), writeReport); }},
    {"previewfolder", [](Stage &scene) { scene.showPreview(QStringLiteral("Field recordings"), writeFolder); }},
    {"previewother",
        [](Stage &scene) {
            scene.showPreview(
                QStringLiteral("项目 Backup of the photographs and the field notes 2026.tar.gz"), [](const QString &path) {
                    writeBytes(path, QByteArray("\x1f\x8b\x08\0\0\0\0\0", 8).leftJustified(2'483'112, 'x'));
                });
        }},
    {"previewfailure",
        [](Stage &scene) {
            scene.showPreview(QStringLiteral("scan 0042.png"),
                [](const QString &path) { writeBytes(path, QByteArray("\x89PNG\r\n\x1a\n").leftJustified(48'230, 'x')); });
        }},
    {"previewloading", [](Stage &scene) { scene.showLoadingPreview(QStringLiteral("panorama.png")); }},
    {"aithinking", [](Stage &scene) { showRequest(scene, {}, "Thinking…", true); }},
    {"airunning", [](Stage &scene) { showRequest(scene, {}, "Running file.search…", true); }},
    {"ailong", [](Stage &scene) { showRequest(scene, longAnswer(), {}, false); }},
    {"aiforeign",
        [](Stage &scene) {
            showRequest(scene,
                "<b>Not bold</b> and <a href='https://example.org'>no link</a> **either**.\n\x1b[31mNot red.\x07\n"
                "A name that seems to end in .txt: \u202Etxt.exe\nשלום, 内港, 👩‍🚀.",
                {}, false);
        }},
    {"aierror",
        [](Stage &scene) {
            showRequest(scene, {}, {}, false);
            scene.palette()._error = "The AI reached its eight-step limit. Please narrow the request.";
        }},
    {"aioff",
        [](Stage &scene) {
            showRequest(scene, {}, {}, false);
            scene.palette()._error = "Enable AI Requests and save an API key in Settings → AI.";
        }},
    {"approval", [](Stage &scene) { askForTool(scene, "file.write", "Boats may enter for two hours."); }},
    {"approvallong",
        [](Stage &scene) {
            std::string text;
            for (int line = 1; line < 40; line++)
                text += std::to_string(line) + " Boats may enter the inner harbour. ";
            askForTool(scene, "mcp.harbour-office.write_the_note_about_the_tides_and_the_boats_of_the_season", text);
        }},
    {"approvalword", [](Stage &scene) { askForTool(scene, "file.write", std::string(2000, 'x')); }},
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
    {"settingslogin",
        [](Stage &scene) { openTab(scene, Tab::general).loginStatus = SettingsState::LoginItemStatus::awaitingApproval; }},
    {"settingsloginfailed",
        [](Stage &scene) {
            SettingsState &settings = openTab(scene, Tab::general);
            settings.loginStatus = SettingsState::LoginItemStatus::failed;
            settings.message = SettingsState::sentence(SettingsState::LoginItemStatus::failed);
        }},
    {"settingsnolinks",
        [](Stage &scene) {
            openTab(scene, Tab::general);
            scrollDown(scene, 1);
        }},
    {"settingslinks",
        [](Stage &scene) {
            SettingsState &settings = openTab(scene, Tab::general);
            fillQuicklinks(settings);
            settings.quicklinkTitle = "Weather";
            settings.message = "Give the quicklink a name.";
            scrollDown(scene, 1);
        }},
    {"settingsnofolders", [](Stage &scene) { openTab(scene, Tab::files); }},
    {"settingsfolders",
        [](Stage &scene) {
            scene.index->show({{"1", "/home/ada/Desktop"}, {"2", "/home/ada/Documents"},
                                  {"3",
                                      "/mnt/archive/A much longer folder name that nobody would type twice/Another level/And "
                                      "one more/photographs"}},
                L10n::format("Indexing · %@ files", "48,230"), true);
            openTab(scene, Tab::files);
        }},
    {"settingsclipboard", [](Stage &scene) { openTab(scene, Tab::clipboard); }},
    {"settingsai",
        [](Stage &scene) {
            SettingsState &settings = openTab(scene, Tab::ai);
            AppPreferences draft = settings.preferences;
            draft.aiEnabled = true;
            settings.preferences = draft;
            settings.apiKey = "a key of the provider";
            settings.message = "Enter a model identifier.";
        }},
    {"settingsfocus",
        [](Stage &scene) {
            openTab(scene, Tab::ai);
            for (auto *toggle : scene.settingsWindow().surface()->findChildren<Toggle *>())
                if (toggle->isVisible())
                    return toggle->setFocus(Qt::TabFocusReason);
        }},
    {"settingsagents", showAgents},
    {"settingsnoagents", [](Stage &scene) { openTab(scene, Tab::agents); }},
    {"settingstools",
        [](Stage &scene) {
            showAgents(scene);
            scrollDown(scene, 0.5);
        }},
    {"settingsskills",
        [](Stage &scene) {
            showSkills(scene);
            for (auto *button : scene.settingsWindow().surface()->findChildren<FlatButton *>())
                if (button->isVisible() && button->text() == fromUtf8(L10n::shown("Review instructions"))) {
                    button->click();
                    break;
                }
            scrollDown(scene, 0.8);
        }},
    {"settingsnoservers", [](Stage &scene) { openTab(scene, Tab::mcp); }},
    {"settingsservers",
        [](Stage &scene) {
            SettingsState &settings = openTab(scene, Tab::mcp);
            settings.mcp()._configurations = servers();
            settings.mcp()._status = {{"1", "Connecting…"}, {"2", "The MCP server disconnected."}, {"4", "Disconnected"}};
        }},
    {"settingscredential",
        [](Stage &scene) {
            SettingsState &settings = openTab(scene, Tab::mcp);
            settings.credentialAccount = "search";
            settings.credentialValue = "hidden";
            settings.message = "Server saved. Connect when ready.";
            scrollDown(scene, 1);
        }},
};

} // namespace

SettingsState &Stage::showSettings()
{
    if (!settings) {
        wait(Milliseconds(600)); // a fresh palette would ask for the keyboard again
        settings = std::make_unique<QtSettingsWindow>(services->preferences(), platform(), appearance, *icons);
        settings->showCentred();
        waitFor([this] { return settings->surface()->isActiveWindow(); });
    }
    return services->preferences();
}

QtPreviewWindow &Stage::makePreview(const std::string &decoder)
{
    preview = std::make_unique<QtPreviewWindow>(loop.executor(), clock, appearance, *icons, decoder);
    controller->coordinator()._isPresenting = true; // the palette stays
    return *preview;
}

/// A place whose name stands in the picture.
static QDir sampleFolder()
{
    const QDir folder(QStringLiteral("/tmp/korvane-pictures-%1").arg(qRound(qApp->devicePixelRatio())));
    folder.mkpath(QStringLiteral("."));
    return folder;
}

/// Also of a folder, which the toolkit cannot do.
static void setModified(const QString &path)
{
    const timespec moment{1'771'412'580, 0}, times[] = {moment, moment};
    ::utimensat(AT_FDCWD, path.toUtf8().constData(), times, 0);
}

void Stage::showPreview(const QString &name, const std::function<void(const QString &)> &sample)
{
    const QString path = sampleFolder().filePath(name);
    sample(path);
    setModified(path);
    makePreview(KORVANE_BINARIES "/korvane-preview").show(path.toStdString(), {});
    // On the clock no time goes by: also on a busy machine it is not first shown that it loads.
    const QDeadlineTimer deadline(5000);
    while (!preview->settled() && !deadline.hasExpired()) {
        turn();
        QThread::msleep(1);
    }
    waitFor([this] { return preview->settled() && preview->surface()->isActiveWindow(); });
}

void Stage::showLoadingPreview(const QString &name)
{
    const QString decoder = folder.filePath(QStringLiteral("decoder"));
    writeBytes(decoder, "#!/bin/sh\nexec sleep 60\n");
    QFile::setPermissions(decoder, QFile::ReadOwner | QFile::ExeOwner);
    const QString path = sampleFolder().filePath(name);
    QImage image(8, 8, QImage::Format_RGB32);
    image.fill(Qt::red);
    image.save(path);
    setModified(path);
    makePreview(decoder.toStdString()).show(path.toStdString(), {});
    waitFor([this] { return preview->surface()->isActiveWindow(); });
}

Stage::~Stage() { question.cancel(); }

static Task<void> asking(Dialogs &dialogs, std::string title, std::string detail)
{
    try {
        co_await dialogs.confirm(std::move(title), std::move(detail));
    } catch (const Cancelled &) {
        // The picture has been taken.
    }
}

void Stage::showQuestion(std::string title, std::string detail)
{
    alerts = std::make_unique<QtDialogs>(appearance);
    alerts->palette = [this] { return window->surface(); };
    question = spawn(loop.executor(), asking(*alerts, std::move(title), std::move(detail)));
    waitFor([] { return QApplication::activeModalWidget() && QApplication::activeModalWidget()->isActiveWindow(); });
}

QWidget &Stage::shownWidget() const
{
    if (alerts)
        return *QApplication::activeModalWidget();
    if (preview)
        return *preview->surface();
    return settings ? *settings->surface() : *window->surface();
}

QImage Stage::picture()
{
    QWidget &main = shownWidget();
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
