#include "Vorrel/Platform/Headless/HeadlessDirectoryWalker.h"
#include "Vorrel/Platform/Headless/HeadlessPasteboard.h"
#include "Vorrel/Platform/Linux/LinuxSystemFacts.h"
#include "Vorrel/Shell/Formats.h"
#include "tests/support/DiskFolder.h"
#include "tests/support/TestPalette.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/utsname.h>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;

namespace {

using Object = JSONValue::Object;

const std::string marker = "zebra-marker";

struct OwnDisk {
    DiskFolder disk;
};

/// The services of one person over a store on the disk; whatever they are given has the marker in it.
struct DiagnosticsScenario : testing::Test, OwnDisk, HeadlessDesktop {
    DiagnosticsScenario() : HeadlessDesktop({disk.folder("Applications")})
    {
        folders.home = disk.folder(marker + "/home");
        folders.data = disk / (marker + "/data");
        const std::string application = disk.folder("Applications/" + marker + ".app");
        source.describe(application, {{"CFBundleName", marker}, {"CFBundleIdentifier", marker}});
        disk.file(marker + "/home/.config/korvane/skills/good/SKILL.md",
            "---\nname: " + marker + "\ndescription: " + marker + "\n---\n" + marker);
        disk.file(marker + "/home/.config/korvane/skills/" + marker + "/SKILL.md", marker);
        walker.addFile(folders.home + "/" + marker + ".txt");
        walker.addFile(disk.folder("archive " + marker) + "/" + marker + ".pdf");
        servers.hear = answer;

        Platform ports = platform();
        ports.walker = &walker;
        ports.indexPlaces.defaultRoots = {folders.home};
        ports.pasteboardWatching = &clipboard;
        ports.shortcutsTool = ShortcutsTool{disk.script("shortcuts", "echo " + marker), {}};
        ports.facts = [release = disk.file("os-release", "PRETTY_NAME=\"Tide 7\"\n")] {
            return linuxSystemFacts(
                [](std::string_view name) { return name == "LANG" ? std::optional<std::string>("zh_CN.UTF-8") : std::nullopt; },
                release);
        };
        services = await(loop,
            AppServices::create(ports, {}, false, [this](std::string) { return std::make_unique<ScriptedProvider>(model); }));
        coordinator = std::make_unique<ActionCoordinator>(ports);
        state = std::make_shared<PaletteState>(*services, *coordinator);
        state->enter(PaletteState::Mode::commands);
    }
    ~DiagnosticsScenario() override { loop.shutDown(); }

    /// A server with one tool.
    static void answer(HeadlessServer &server, const std::string &line)
    {
        const JSONValue message = JSONValue::parse(line);
        if (message["id"].isNull())
            return;
        const Object tool{{"name", marker}, {"description", marker}, {"inputSchema", JSONValue::schema({}, {})}};
        const JSONValue result = message["method"] == JSONValue("initialize")
            ? JSONValue(Object{{"protocolVersion", "2025-11-25"}})
            : JSONValue(Object{{"tools", JSONValue::Array{tool}}});
        server.say(JSONValue(Object{{"jsonrpc", "2.0"}, {"id", message["id"]}, {"result", result}}).encodedString());
    }

    void startEverything()
    {
        NativeTools::registerTools(services->tools(), *services);
        await(loop, services->fileIndex->start());
        services->fileIndex->addRoot(disk / ("archive " + marker));
        services->shortcuts->start();
        await(loop, services->preferences().load());
        await(loop, state->start());
        clipboard.copy(marker);
        clock.advance(5s);
    }

    void fillTheStore()
    {
        const Agent agent{.id = marker, .name = marker, .systemPrompt = marker};
        await(loop, AgentRepository(services->database).save(agent));
        await(loop, services->quicklinks.save({.id = marker, .title = marker, .url = "https://" + marker}));
        await(loop, services->appLaunches.record("/" + marker, marker));
        await(loop, services->keychain.set(marker, marker));
        const MCPServerConfiguration server{.id = marker, .name = marker, .command = "/opt/server", .args = {marker}};
        await(loop, services->mcp().add(server));
        await(loop, services->mcp().connect(server));
        services->agents().scanSkills();
        loop.runUntilIdle();
    }

    void fillTheFields()
    {
        services->agents().draft = Agent{.id = marker, .name = marker, .systemPrompt = marker};
        SettingsState &settings = services->preferences();
        const HotkeyConfiguration key{.keyCode = 40, .modifiers = HotkeyConfiguration::command, .keyLabel = marker};
        settings.preferences = AppPreferences{.hotkey = key, .model = marker, .aiEnabled = true};
        settings.activeHotkey = key;
        settings.apiKey = marker;
        settings.serverJSON = marker;
        settings.quicklinkTitle = marker;
        settings.quicklinkURL = marker;
        settings.credentialAccount = marker;
        settings.credentialValue = marker;
    }

    /// A row, a request and the shortcut fail, each in words with the marker.
    void failEverywhere()
    {
        const auto fails = []() -> Task<void> {
            throw AppError(AppError::Kind::recoverable, marker);
            co_return;
        };
        CommandResultFields row{.id = marker, .title = "Fail " + marker};
        row.actions = {{.id = "run", .title = marker, .execute = fails}};
        state->registry.registerCommand(std::make_shared<StaticCommand>(std::move(row)));
        state->setInputText("Fail " + marker);
        loop.runUntilIdle();
        state->execute();
        loop.runUntilIdle();
        EXPECT_EQ(state->error(), marker);
        model.fails(AppError(AppError::Kind::network, marker));
        state->enter(PaletteState::Mode::ai);
        state->setInputText(marker);
        state->execute();
        loop.runUntilIdle();
        EXPECT_EQ(state->error(), marker);
        SettingsState &settings = services->preferences();
        settings.reportHotkeyFailure(std::make_exception_ptr(AppError(AppError::Kind::permission, marker)),
            settings.preferences->hotkey, settings.activeHotkey);
        EXPECT_EQ(settings.hotkeyIssue.get(), marker);
    }

    std::string report()
    {
        dialogs.accept({disk / "report.txt"});
        services->preferences().exportDiagnostics();
        loop.runUntilIdle();
        EXPECT_EQ(services->preferences().message.get(), "Diagnostics exported.");
        return disk.contents("report.txt");
    }

    HeadlessDirectoryWalker walker{loop.executor()};
    HeadlessPasteboardWatching clipboard;
    ModelScript model;
    std::shared_ptr<AppServices> services;
    std::unique_ptr<ActionCoordinator> coordinator;
    std::shared_ptr<PaletteState> state;
};

} // namespace

TEST_F(DiagnosticsScenario, AReportHoldsItsLinesAndNothingOfWhatTheServicesHold)
{
    startEverything();
    fillTheStore();
    fillTheFields();

    // What the report is to keep to itself is there.
    EXPECT_EQ(services->applications->applications().size(), 1u);
    EXPECT_EQ(services->shortcuts->commands().size(), 1u);
    EXPECT_EQ(services->fileIndex->fileCount().get(), 2);
    EXPECT_EQ(await(loop, ClipboardRepository(services->database, clock).search(marker)).size(), 1u);
    EXPECT_EQ(services->agents().skills->size(), 1u);
    EXPECT_THAT(services->agents().warnings.get(), Contains(HasSubstr(marker)));
    Strings tools;
    for (const ToolDefinition &tool : services->tools().definitions())
        tools.push_back(tool.name);
    EXPECT_THAT(tools, Contains(HasSubstr(marker)));

    failEverywhere();
    utsname kernel{};
    ::uname(&kernel);
    const std::string now = iso8601(clock.now());
    const Strings lines{"Korvane Diagnostics", "===================", "Generated: " + now, "", "Application", "- Version: 0.1.0",
        "- System: Tide 7, Linux " + std::string(kernel.release), "- Architecture: " + std::string(kernel.machine),
        "- Preferred language: zh_CN.UTF-8", "", "File Index", "- Indexed files: 2", "- Status: liveUpdatesUnavailable",
        "- Indexed roots: 2", "", "Global Hotkey", "- Registered: yes", "", "Recent Errors (this session, capped at 50)",
        "- ai: 1 (last at " + now + ")", "- command: 1 (last at " + now + ")", "- hotkey: 1 (last at " + now + ")", "",
        "Search Performance (last 0 of max 100 searches)", "- no searches recorded yet", "",
        "This export contains no clipboard content, file paths, search text, conversations or credentials."};
    std::string expected;
    for (const std::string &line : lines)
        expected += (expected.empty() ? "" : "\n") + line;
    const std::string text = report();
    EXPECT_EQ(text, expected);
    EXPECT_THAT(text, Not(HasSubstr(marker)));
}
