#include "Vorrel/AI/NativeTools.h"

#include "CommandCore/Commands.h"
#include "Vorrel/FileIndex/FileIndexRepository.h"
#include "Vorrel/Platform/Headless/HeadlessPasteboard.h"
#include "Vorrel/Shell/AppServices.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"
#include "tests/support/HeadlessDesktop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace korvane;
using namespace korvane::test;
using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using Array = JSONValue::Array;
using Object = JSONValue::Object;

namespace {

/// Finds what it was given, and remembers the questions.
class RecordingIndex final : public FileIndex {
public:
    Task<std::vector<FileRecord>> search(std::string text, std::optional<std::string> directory) override
    {
        questions.push_back(text + " in " + directory.value_or("everything"));
        co_return files;
    }
    Strings questions;
    std::vector<FileRecord> files;
};

/// Runs shortcuts by remembering them.
class RecordingRunner final : public ShortcutRunning {
public:
    explicit RecordingRunner(Strings &ran) : ran(ran) { }
    Task<std::vector<std::string>> listNames() override { co_return Strings{"Tidy", "Café \xFF"}; }
    Task<void> run(std::string name) override
    {
        ran.push_back(std::move(name));
        co_return;
    }
    Task<void> view(std::string) override { co_return; }

private:
    Strings &ran;
};

struct NativeToolsTest : testing::Test {
    NativeToolsTest() { NativeTools::registerTools(services->tools(), *services); }
    ~NativeToolsTest() override { desktop.loop.shutDown(); }

    std::shared_ptr<AppServices> makeServices()
    {
        Platform ports = desktop.platform();
        ports.pasteboardWatching = &clipboard;
        AppServices::Injected injected;
        injected.fileIndex = index;
        injected.shortcuts = std::make_shared<ShortcutsService>(
            desktop.loop.executor(), desktop.clock, std::make_unique<RecordingRunner>(shortcutsRun));
        return std::make_shared<AppServices>(std::move(ports), database, std::move(injected));
    }

    /// Calls a tool as a model's wish is carried out, and allows what is asked.
    JSONValue call(const std::string &name, JSONValue input = Object{})
    {
        const auto before = desktop.dialogs.asked().size();
        Begun<ToolResult> begun(desktop.loop, services->tools().call(name, std::move(input)));
        desktop.loop.runUntilIdle();
        if (desktop.dialogs.asked().size() > before)
            desktop.dialogs.accept();
        return begun.result().value;
    }
    std::string refusalOf(const std::string &name, JSONValue input)
    {
        try {
            call(name, std::move(input));
        } catch (const AppError &error) {
            return error.errorDescription();
        } catch (const FileAccessFailure &) {
            return "no access";
        }
        return "";
    }
    void addToIndex(std::vector<IndexedFile> files)
    {
        const FileIndexRepository repository(database, desktop.folders, desktop.clock);
        await(desktop.loop, repository.upsert(std::move(files)));
    }
    std::size_t listed(JSONValue limit)
    {
        return call("filesystem.list", Object{{"directory", "/srv"}, {"limit", std::move(limit)}}).array()->size();
    }
    std::string application(const std::string &name)
    {
        const auto path = folder.folder(name + ".app");
        desktop.source.describe(path, {{"CFBundleName", name}, {"CFBundleIdentifier", "org.example." + name}});
        return path;
    }

    DiskFolder folder;
    HeadlessDesktop desktop{Strings{folder.path}};
    HeadlessPasteboardWatching clipboard;
    Strings shortcutsRun;
    std::shared_ptr<RecordingIndex> index = std::make_shared<RecordingIndex>();
    std::shared_ptr<Database> database =
        await(desktop.loop, Database::open(desktop.loop.executor(), ":memory:", Database::Access::readWrite));
    std::shared_ptr<AppServices> services = makeServices();
};

} // namespace

// What the model is told

TEST_F(NativeToolsTest, ElevenToolsSayWhatTheyDoAndHowMuchTheyChange)
{
    using enum ToolPermission;
    using Texts = std::map<std::string, std::string>;
    const struct {
        std::string name, description;
        ToolPermission permission;
        Texts properties;
        Strings required;
    } tools[] = {
        {"application.open", "Launch an installed application by its bundle path", write, {{"path", "Absolute .app bundle path"}},
            {"path"}},
        {"application.search", "Search installed macOS applications", read, {{"query", "Application name"}}, {"query"}},
        {"clipboard.read", "Read current text from the system clipboard; may contain sensitive user data", read, {}, {}},
        {"clipboard.write", "Replace system clipboard text", write, {{"text", "Text to copy"}}, {"text"}},
        {"filesystem.list", "List a directory's entries from the local index, sorted by size, date or name", read,
            {{"directory", "Directory path, defaults to the home folder, supports ~"}, {"sort", "size, modified or name"},
                {"limit", "Maximum results, default 20, at most 100"}},
            {}},
        {"filesystem.open", "Open a local file using its default application", write, {{"path", "Local file path"}}, {"path"}},
        {"filesystem.reveal", "Show a local file in Finder", write, {{"path", "Local file path"}}, {"path"}},
        {"filesystem.search", "Search indexed local filenames, optionally inside a directory", read,
            {{"query", "Filename search term"}, {"directory", "Optional directory, supports ~"}}, {"query"}},
        {"shortcuts.list", "List the user's macOS Shortcuts by name", read, {}, {}},
        {"shortcuts.run", "Run one of the user's macOS Shortcuts by exact name", write, {{"name", "Exact shortcut name"}},
            {"name"}},
        {"system.lock", "Lock the macOS screen", write, {}, {}},
    };
    const auto definitions = services->tools().definitions();
    ASSERT_EQ(definitions.size(), std::size(tools));
    for (std::size_t i = 0; i < std::size(tools); ++i) {
        const ToolDefinition expected{.name = tools[i].name,
            .description = tools[i].description,
            .inputSchema = JSONValue::schema(tools[i].properties, tools[i].required),
            .permission = tools[i].permission,
            .requiresApproval = tools[i].name == "clipboard.read"};
        EXPECT_EQ(definitions[i].json().encodedString(), expected.json().encodedString());
    }
}

TEST_F(NativeToolsTest, ATakenNameEndsTheRegistration)
{
    EXPECT_THROW(NativeTools::registerTools(services->tools(), *services), AppError);
    EXPECT_EQ(services->tools().definitions().size(), 11U);
}

TEST_F(NativeToolsTest, ARequiredTextMayNotBeEmpty)
{
    for (const auto &[name, key] : std::map<std::string, std::string>{{"application.search", "query"},
             {"application.open", "path"}, {"filesystem.search", "query"}, {"filesystem.open", "path"},
             {"filesystem.reveal", "path"}, {"clipboard.write", "text"}, {"shortcuts.run", "name"}}) {
        EXPECT_EQ(refusalOf(name, Object{{key, ""}}), "Missing or invalid input: " + key + ".") << name;
        EXPECT_EQ(refusalOf(name, Object{{key, 5}}), "Missing or invalid input: " + key + ".") << name;
        EXPECT_EQ(refusalOf(name, Object{}), "Required tool input is missing.") << name;
    }
}

// Applications

TEST_F(NativeToolsTest, OfThirtyOneMatchingApplicationsTheFirstThirtyAreTold)
{
    for (int i = 0; i < 31; ++i)
        application("Editor " + std::to_string(100 + i));
    await(desktop.loop, services->applications->refresh());
    const auto records = services->applications->search("editor");
    ASSERT_EQ(records.size(), 31U);
    const auto found = call("application.search", Object{{"query", "editor"}});
    ASSERT_EQ(found.array()->size(), 30U);
    for (std::size_t i = 0; i < 30; ++i)
        EXPECT_EQ((*found.array())[i],
            JSONValue(
                Object{{"name", records[i].name}, {"bundleIdentifier", records[i].bundleIdentifier}, {"path", records[i].path}}));
    EXPECT_EQ(call("application.search", Object{{"query", "nothing like it"}}), JSONValue(Array{}));
}

TEST_F(NativeToolsTest, AnApplicationIsLaunchedByItsPathWithoutArguments)
{
    const auto path = application("Editor");
    EXPECT_EQ(call("application.open", Object{{"path", path}}), JSONValue(Object{{"opened", true}}));
    EXPECT_THAT(desktop.launcher.launches, ElementsAre(HeadlessApplicationLauncher::Launch{path, {}}));
    EXPECT_EQ(refusalOf("application.open", Object{{"path", folder / "missing.app"}}), "Choose an installed application bundle.");
}

// Files

TEST_F(NativeToolsTest, AFileSearchTellsFourThingsOfEachFile)
{
    index->files = {{.name = "tides.txt", .path = "/srv/tides.txt", .isDirectory = false, .size = 12, .modified = 5.5}};
    EXPECT_EQ(call("filesystem.search", Object{{"query", "tides"}, {"directory", "~/Docs"}}),
        JSONValue(Array{Object{{"name", "tides.txt"}, {"path", "/srv/tides.txt"}, {"isDirectory", false}, {"size", 12}}}));
    EXPECT_THAT(index->questions, ElementsAre("tides in ~/Docs"));
}

TEST_F(NativeToolsTest, ADirectoryThatIsNoTextIsTakenForAbsent)
{
    EXPECT_EQ(call("filesystem.search", Object{{"query", "a"}, {"directory", 7}}), JSONValue(Array{}));
    call("filesystem.search", Object{{"query", "b"}, {"directory", nullptr}});
    EXPECT_THAT(index->questions, ElementsAre("a in everything", "b in everything"));
}

TEST_F(NativeToolsTest, WithoutInputTheHomeFolderIsListedBySizeTwentyEntries)
{
    std::vector<IndexedFile> files;
    for (int i = 0; i < 25; ++i)
        files.push_back({.path = "/home/ada/" + std::to_string(i),
            .name = std::to_string(i),
            .isDirectory = i == 24,
            .size = i,
            .modified = 100.5 + i});
    files.push_back({.path = "/home/ada/24/below", .name = "below", .size = 1000});
    addToIndex(std::move(files));
    const auto list = call("filesystem.list");
    ASSERT_EQ(list.array()->size(), 20U);
    EXPECT_EQ(list.array()->front(),
        JSONValue(Object{{"name", "24"}, {"path", "/home/ada/24"}, {"isDirectory", true}, {"size", 24}, {"modified", 124.5}}));
    EXPECT_EQ(list.array()->back()["size"], JSONValue(5));
}

TEST_F(NativeToolsTest, AListIsSortedAsAskedAndTakesATilde)
{
    addToIndex({{.path = "/home/ada/Docs/b", .name = "b", .size = 1, .modified = 3},
        {.path = "/home/ada/Docs/a", .name = "a", .size = 2, .modified = 1},
        {.path = "/home/ada/Docs/c", .name = "c", .size = 3, .modified = 2}});
    const auto names = [this](JSONValue sort) {
        std::string names;
        const auto list = call("filesystem.list", Object{{"directory", "~/Docs"}, {"sort", std::move(sort)}});
        for (const JSONValue &file : *list.array())
            names += *file["name"].string();
        return names;
    };
    EXPECT_EQ(names("name"), "abc");
    EXPECT_EQ(names("modified"), "bca");
    EXPECT_EQ(names("size"), "cab");
    EXPECT_EQ(names("colour"), "cab");
    EXPECT_EQ(names(5), "cab");
}

TEST_F(NativeToolsTest, ALimitIsANumberBetweenOneAndAHundredWhateverIsAsked)
{
    std::vector<IndexedFile> files;
    for (int i = 0; i < 120; ++i)
        files.push_back({.path = "/srv/" + std::to_string(i), .name = std::to_string(i)});
    addToIndex(std::move(files));
    EXPECT_EQ(listed(0), 1U);
    EXPECT_EQ(listed(-5), 1U);
    EXPECT_EQ(listed(500), 100U);
    EXPECT_EQ(listed(100), 100U);
    EXPECT_EQ(listed(2.9), 2U);
    EXPECT_EQ(listed("7"), 20U);
    EXPECT_EQ(listed(nullptr), 20U);
    EXPECT_EQ(listed(true), 20U);
    EXPECT_EQ(listed(Array{5}), 20U);
}

TEST_F(NativeToolsTest, NumbersBeyondSixtyFourBitsAreLimitsLikeOthers)
{
    addToIndex({{.path = "/srv/a", .name = "a"}, {.path = "/srv/b", .name = "b"}});
    for (const char *number : {"1e300", "9223372036854775808", "18446744073709551616", "1.7976931348623157e308"})
        EXPECT_EQ(listed(JSONValue::parse(number)), 2U) << number;
    for (const char *number : {"-1e300", "-9223372036854775809", "5e-324", "-0"})
        EXPECT_EQ(listed(JSONValue::parse(number)), 1U) << number;
    EXPECT_EQ(listed(std::numeric_limits<double>::infinity()), 2U);
    EXPECT_EQ(listed(std::nan("")), 1U);
}

TEST_F(NativeToolsTest, AFileIsOpenedAndShownByItsPath)
{
    const auto path = folder.file("tides.txt");
    EXPECT_EQ(call("filesystem.open", Object{{"path", path}}), JSONValue(Object{{"opened", true}}));
    EXPECT_EQ(call("filesystem.reveal", Object{{"path", path}}), JSONValue(Object{{"revealed", true}}));
    EXPECT_THAT(desktop.workspace.opened, ElementsAre(path));
    EXPECT_THAT(desktop.workspace.revealed, ElementsAre(path));
    EXPECT_EQ(refusalOf("filesystem.open", Object{{"path", folder / "missing"}}), "no access");
}

TEST_F(NativeToolsTest, PathsThatAreNotUTF8AreShownWithTheirBytesBesideThem)
{
    index->files = {{.name = "a\xFF", .path = "/srv/a\xFF"}};
    addToIndex({{.path = "/srv/a\xFF", .name = "a\xFF"}});
    for (const auto &found :
        {call("filesystem.search", Object{{"query", "a"}}), call("filesystem.list", Object{{"directory", "/srv"}})}) {
        const JSONValue &file = found.array()->at(0);
        EXPECT_EQ(file["path"], JSONValue("/srv/a\uFFFD"));
        EXPECT_EQ(file["pathBytes"], JSONValue("L3Nydi9h/w=="));
    }
    index->files = {{.name = "a", .path = "/srv/a"}};
    EXPECT_TRUE(call("filesystem.search", Object{{"query", "a"}}).array()->at(0)["pathBytes"].isNull());
}

TEST_F(NativeToolsTest, APathWithAZeroActsOnNothing)
{
    const auto path = folder.file("tides.txt");
    const auto application = this->application("Editor");
    EXPECT_EQ(refusalOf("filesystem.open", Object{{"path", path + "\0.txt"s}}), "Missing or invalid input: path.");
    EXPECT_EQ(refusalOf("filesystem.reveal", Object{{"path", path + "\0"s}}), "Missing or invalid input: path.");
    EXPECT_EQ(refusalOf("application.open", Object{{"path", application + "\0.app"s}}), "Missing or invalid input: path.");
    EXPECT_EQ(refusalOf("filesystem.list", Object{{"directory", "/srv\0"s}}), "Missing or invalid input: directory.");
    EXPECT_EQ(
        refusalOf("filesystem.search", Object{{"query", "a"}, {"directory", "\0"s}}), "Missing or invalid input: directory.");
    EXPECT_THAT(desktop.workspace.opened, IsEmpty());
    EXPECT_THAT(desktop.workspace.revealed, IsEmpty());
    EXPECT_TRUE(desktop.launcher.launches.empty());
}

TEST_F(NativeToolsTest, AnyInputGivesAnAnswerOrASentence)
{
    const std::string megabyte(1'000'000, 'x');
    const std::string deep = std::string(500, '[') + std::string(500, ']');
    for (const ToolDefinition &tool : services->tools().definitions()) {
        for (const JSONValue &value : {JSONValue(megabyte), JSONValue("\0"s), JSONValue("~"), JSONValue("/"), JSONValue("../.."),
                 JSONValue("https://example.org"), JSONValue("\xFF"), JSONValue(" "), JSONValue(1e308), JSONValue(-0.0),
                 JSONValue::parse(deep), JSONValue(Object{{"path", "x"}}), JSONValue(false)}) {
            Object input{{"more", value}};
            for (const char *key : {"query", "path", "directory", "sort", "limit", "text", "name"})
                input.emplace(key, value);
            bool ended = false;
            try {
                ended = !call(tool.name, std::move(input)).encodedString().empty();
            } catch (const std::exception &) {
                ended = !AppError::friendly(std::current_exception()).empty();
            }
            EXPECT_TRUE(ended) << tool.name;
        }
    }
}

TEST_F(NativeToolsTest, AnEnormousQueryIsFoldedOnceForAllApplications)
{
    for (int i = 0; i < 300; ++i)
        application("Program " + std::to_string(i));
    await(desktop.loop, services->applications->refresh());
    std::string query;
    while (query.size() < 7'000'000) // once for each would take longer than a test may
        query += "É\u0327";
    EXPECT_EQ(call("application.search", Object{{"query", query}}), JSONValue(Array{}));
    EXPECT_EQ(call("application.search", Object{{"query", "program 7"}}).array()->size(), 11U);
}

// The clipboard

TEST_F(NativeToolsTest, ReadingTheClipboardIsAskedForEachTimeWhateverThePolicy)
{
    services->tools().policy.confirmWrites = false;
    clipboard.copy("from another program");
    for (std::size_t i = 1; i <= 2; ++i) {
        EXPECT_EQ(call("clipboard.read"), JSONValue(Object{{"text", "from another program"}}));
        EXPECT_EQ(desktop.dialogs.asked().size(), i);
    }
    EXPECT_EQ(desktop.dialogs.asked()[0].title, "AI wants to run clipboard.read");
}

TEST_F(NativeToolsTest, AClipboardWithoutATextIsAnEmptyOne)
{
    clipboard.copy(std::nullopt, {"image/png"});
    EXPECT_EQ(call("clipboard.read"), JSONValue(Object{{"text", ""}}));
}

TEST_F(NativeToolsTest, ATextThatIsNotToldIsNoEmptyOne)
{
    const std::string unread = "Could not read the clipboard.";
    clipboard.copy("pass word", {PasteboardWatching::concealedType});
    EXPECT_EQ(refusalOf("clipboard.read", Object{}), unread);
    clipboard.copy(std::string((8U << 20) + 1, 'x'));
    EXPECT_EQ(refusalOf("clipboard.read", Object{}), unread);
    clipboard.copy(std::string(8U << 20, 'x'));
    EXPECT_EQ(refusalOf("clipboard.read", Object{}), "") << "the limit itself";
}

TEST_F(NativeToolsTest, ARefusedReadingOfTheClipboardAsksItNothing)
{
    clipboard.copy("secret");
    Begun<ToolResult> begun(desktop.loop, services->tools().call("clipboard.read", Object{}));
    desktop.loop.runUntilIdle();
    desktop.dialogs.refuse();
    EXPECT_THROW(begun.result(), AppError);
    EXPECT_THAT(clipboard.questions, IsEmpty());
}

TEST_F(NativeToolsTest, ATextIsCopiedOrSaidNotToBe)
{
    EXPECT_EQ(call("clipboard.write", Object{{"text", "潮汐"}}), JSONValue(Object{{"copied", true}}));
    EXPECT_EQ(desktop.pasteboard.text, "潮汐");
    desktop.pasteboard.refuses = true;
    EXPECT_EQ(refusalOf("clipboard.write", Object{{"text", "x"}}), "Could not update the clipboard.");
}

TEST_F(NativeToolsTest, WithConfirmationOffOnlyTheClipboardAsks)
{
    services->tools().policy.confirmWrites = false;
    call("clipboard.write", Object{{"text", "x"}});
    call("system.lock");
    EXPECT_THAT(desktop.dialogs.asked(), IsEmpty());
}

// The system and the shortcuts

TEST_F(NativeToolsTest, TheScreenIsLockedAndARefusalComesAfterTheApproval)
{
    EXPECT_EQ(call("system.lock"), JSONValue(Object{{"requested", true}}));
    EXPECT_THAT(desktop.system.requests(), ElementsAre("lock"));
    desktop.system.lockOutcome = SystemOutcome::refused;
    EXPECT_THAT(refusalOf("system.lock", Object{}), testing::HasSubstr("Accessibility"));
    EXPECT_EQ(desktop.dialogs.asked().size(), 2U);
    EXPECT_EQ(desktop.system.requests().size(), 2U);
}

TEST_F(NativeToolsTest, ShortcutsAreListedAsTheyAreHeldAndRunByName)
{
    EXPECT_EQ(call("shortcuts.list"), JSONValue(Array{})) << "nothing is refreshed";
    await(desktop.loop, services->shortcuts->refreshNow());
    EXPECT_EQ(call("shortcuts.list"), JSONValue(Array{"Tidy", "Café \uFFFD"}));
    EXPECT_EQ(call("shortcuts.run", Object{{"name", "Tidy"}}), JSONValue(Object{{"ran", true}}));
    EXPECT_THAT(shortcutsRun, ElementsAre("Tidy"));
}
