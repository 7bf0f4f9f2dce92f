#include "Vorrel/AI/NativeTools.h"

#include "CommandCore/Commands.h"
#include "Support/Text.h"
#include "Vorrel/FileIndex/FileIndexRepository.h"
#include "Vorrel/Shell/AppServices.h"

#include <algorithm>

namespace korvane {

namespace {

using Array = JSONValue::Array;
using Object = JSONValue::Object;
using Form = PasteboardWatching::Form;

constexpr std::size_t mostApplications = 30;
constexpr double usualEntries = 20, mostEntries = 100; // of a listed folder
constexpr std::size_t largestClipboard = 8U << 20; // bytes; far more than a model is given

using Operation = Task<JSONValue> (*)(AppServices &services, JSONValue input);

class NativeTool final : public Tool {
public:
    NativeTool(ToolDefinition definition, Operation operation, AppServices &services) :
        _definition(std::move(definition)), operation(operation), services(services)
    {
    }

    const ToolDefinition &definition() const override { return _definition; }
    Task<ToolResult> execute(JSONValue input) const override
    {
        JSONValue answer = co_await operation(services, std::move(input));
        co_return ToolResult(std::move(answer));
    }

private:
    const ToolDefinition _definition;
    const Operation operation;
    AppServices &services;
};

// The input

/// The system takes a path to end at a zero, and would act on another file than the user was shown.
void refuseZero(const std::string &path, const char *key)
{
    if (path.find('\0') != path.npos)
        JSONValue::refuseInput(key);
}

std::string requiredPath(const JSONValue &input)
{
    const std::string &path = input.requiredString("path");
    refuseZero(path, "path");
    return path;
}

/// The folder that the model names; nothing where it names none with a text.
std::optional<std::string> directoryOf(const JSONValue &input)
{
    const auto *directory = input["directory"].string();
    if (!directory)
        return std::nullopt;
    refuseZero(*directory, "directory");
    return *directory;
}

/// A whole number from 1 on; the schema asks for a text, of which nothing is read.
long long limitOf(const JSONValue &input)
{
    const auto *number = input["limit"].number();
    const double wanted = number ? *number : usualEntries;
    return wanted >= 1 ? (long long)std::min(wanted, mostEntries) : 1;
}

JSONValue done(const char *what) { return Object{{what, true}}; }

// What the tools do

Task<JSONValue> searchApplications(AppServices &services, JSONValue input)
{
    auto found = services.applications->search(input.requiredString("query"));
    found.resize(std::min(found.size(), mostApplications));
    Array list;
    for (const ApplicationRecord &record : found)
        list.push_back(record.json());
    co_return list;
}

Task<JSONValue> openApplication(AppServices &services, JSONValue input)
{
    std::vector<std::string> noArguments;
    co_await services.applications->open(requiredPath(input), std::move(noArguments));
    co_return done("opened");
}

Task<JSONValue> searchFiles(AppServices &services, JSONValue input)
{
    auto found = co_await services.fileIndex->search(input.requiredString("query"), directoryOf(input));
    Array list;
    for (FileRecord &record : found) {
        record.modified.reset(); // told by a list only
        list.push_back(record.json());
    }
    co_return list;
}

Task<JSONValue> listFiles(AppServices &services, JSONValue input)
{
    const UserFolders &folders = services.platform.folders;
    const FileIndexRepository repository(services.searchDatabase, folders, services.platform.clock);
    const auto *sort = input["sort"].string();
    const auto found = co_await repository.list(directoryOf(input).value_or(folders.home), sort ? *sort : "size", limitOf(input));
    Array list;
    for (const IndexedFile &file : found)
        list.push_back(FileRecord{file.name, file.path, file.isDirectory, file.size, file.modified}.json());
    co_return list;
}

Task<JSONValue> openFile(AppServices &services, JSONValue input)
{
    co_await services.files.open(requiredPath(input));
    co_return done("opened");
}

Task<JSONValue> revealFile(AppServices &services, JSONValue input)
{
    co_await services.files.reveal(requiredPath(input));
    co_return done("revealed");
}

Task<JSONValue> readClipboard(AppServices &services, JSONValue)
{
    PasteboardWatching *const clipboard = services.platform.pasteboardWatching;
    std::optional<std::string> text;
    if (clipboard)
        text = co_await clipboard->string(Form::text, largestClipboard);
    // An empty text says that there is none: not where it is too large or concealed, or nobody told it in time.
    if (!text && (!clipboard || co_await clipboard->mayHoldText()))
        throw AppError(AppError::Kind::recoverable, "Could not read the clipboard.");
    co_return Object{{"text", text.value_or("")}};
}

Task<JSONValue> writeClipboard(AppServices &services, JSONValue input)
{
    co_await services.platform.pasteboard.copy(input.requiredString("text"));
    co_return done("copied");
}

Task<JSONValue> lockScreen(AppServices &services, JSONValue)
{
    co_await services.system.lockScreen();
    co_return done("requested");
}

Task<JSONValue> listShortcuts(AppServices &services, JSONValue)
{
    Array names;
    for (const ShortcutItem &item : services.shortcuts->shortcuts.get())
        names.emplace_back(displayable(item.name));
    co_return names;
}

Task<JSONValue> runShortcut(AppServices &services, JSONValue input)
{
    co_await services.shortcuts->run(input.requiredString("name"));
    co_return done("ran");
}

constexpr const char *readsClipboard = "clipboard.read";

} // namespace

void NativeTools::registerTools(ToolRegistry &registry, AppServices &services)
{
    using enum ToolPermission;
    const struct {
        const char *name, *description;
        ToolPermission permission;
        std::map<std::string, std::string> properties;
        std::vector<std::string> required;
        Operation operation;
    } tools[] = {
        {"application.search", "Search installed macOS applications", read, {{"query", "Application name"}}, {"query"},
            searchApplications},
        {"application.open", "Launch an installed application by its bundle path", write, {{"path", "Absolute .app bundle path"}},
            {"path"}, openApplication},
        {"filesystem.search", "Search indexed local filenames, optionally inside a directory", read,
            {{"query", "Filename search term"}, {"directory", "Optional directory, supports ~"}}, {"query"}, searchFiles},
        {"filesystem.list", "List a directory's entries from the local index, sorted by size, date or name", read,
            {{"directory", "Directory path, defaults to the home folder, supports ~"}, {"sort", "size, modified or name"},
                {"limit", "Maximum results, default 20, at most 100"}},
            {}, listFiles},
        {"filesystem.open", "Open a local file using its default application", write, {{"path", "Local file path"}}, {"path"},
            openFile},
        {"filesystem.reveal", "Show a local file in Finder", write, {{"path", "Local file path"}}, {"path"}, revealFile},
        {readsClipboard, "Read current text from the system clipboard; may contain sensitive user data", read, {}, {},
            readClipboard},
        {"clipboard.write", "Replace system clipboard text", write, {{"text", "Text to copy"}}, {"text"}, writeClipboard},
        {"system.lock", "Lock the macOS screen", write, {}, {}, lockScreen},
        {"shortcuts.list", "List the user's macOS Shortcuts by name", read, {}, {}, listShortcuts},
        {"shortcuts.run", "Run one of the user's macOS Shortcuts by exact name", write, {{"name", "Exact shortcut name"}},
            {"name"}, runShortcut},
    };
    for (const auto &tool : tools) {
        ToolDefinition definition{.name = tool.name,
            .description = tool.description,
            .inputSchema = JSONValue::schema(tool.properties, tool.required),
            .permission = tool.permission,
            // A clipboard never reaches a model unasked, whatever the policy.
            .requiresApproval = std::string_view(tool.name) == readsClipboard};
        registry.registerTool(std::make_shared<NativeTool>(std::move(definition), tool.operation, services));
    }
}

} // namespace korvane
