#include "tests/support/TestPalette.h"

#include "Support/Text.h"

#include <gtest/gtest.h>

namespace korvane::test {

FileRecord fileRecord(std::string path)
{
    const auto slash = path.rfind('/');
    return {.name = path.substr(slash + 1), .path = path};
}

Task<std::vector<FileRecord>> ScriptedIndex::search(std::string query, std::optional<std::string>)
{
    queries.push_back(query);
    if (holds) {
        std::function<void(Continuation<std::vector<FileRecord>>)> begin = [this](Continuation<std::vector<FileRecord>> answer) {
            waiting.push_back(std::move(answer));
        };
        co_return co_await suspend<std::vector<FileRecord>>(std::move(begin));
    }
    std::vector<FileRecord> found;
    for (const FileRecord &file : files)
        if (containsFolded(file.name, query))
            found.push_back(file);
    co_return found;
}

void ScriptedIndex::answer(std::vector<FileRecord> files)
{
    ASSERT_FALSE(waiting.empty()) << "no file search waits";
    const auto oldest = waiting.front();
    waiting.erase(waiting.begin());
    oldest.resume(std::move(files));
}

void ScriptedIndex::fail(std::exception_ptr error)
{
    ASSERT_FALSE(waiting.empty()) << "no file search waits";
    const auto oldest = waiting.front();
    waiting.erase(waiting.begin());
    oldest.fail(std::move(error));
}

Task<Rows> ScriptedClipboard::search(std::string query)
{
    queries.push_back(std::move(query));
    if (failure)
        std::rethrow_exception(failure);
    co_return rows;
}

ScriptedAgents::ScriptedAgents(Executor loop) :
    ScriptedAgents(std::move(loop),
        std::make_unique<ToolRegistry>([](const ToolDefinition &, const JSONValue &) -> Task<void> { co_return; }))
{
}

ScriptedAgents::ScriptedAgents(Executor loop, std::unique_ptr<ToolRegistry> tools) :
    AgentStore({.mainThread = loop,
        .folders = {.home = "/nowhere", .data = {}},
        .tools = *tools,
        .repository = AgentRepository(nullptr),
        .loader = std::make_unique<ScriptedSkills>([loop](std::function<void()> work) { runLater(loop, std::move(work)); })}),
    skillFiles(static_cast<ScriptedSkills &>(loader())), ownTools(std::move(tools))
{
}

Task<void> ScriptedAgents::load()
{
    _agents = list;
    onChange();
    co_return;
}

FilePreviewAccess::Asking ScriptedProbe::asking()
{
    FilePreviewAccess::Asking asking;
    asking.probe = [this](const std::string &path) {
        asked.push_back(path);
        return failure;
    };
    asking.apart = [this](std::function<void()> work) {
        if (holds)
            waiting.push_back(std::move(work));
        else
            work();
    };
    return asking;
}

void ScriptedProbe::answer()
{
    ASSERT_FALSE(waiting.empty()) << "no file is asked for";
    const auto oldest = std::move(waiting.front());
    waiting.pop_front();
    oldest();
}

TestPalette::TestPalette(Strings applicationRoots) : HeadlessDesktop(std::move(applicationRoots))
{
    auto database = await(loop, Database::open(loop.executor(), ":memory:", Database::Access::readWrite));
    AppServices::Injected injected;
    injected.fileIndex = std::make_unique<ScriptedIndex>();
    injected.clipboard = std::make_unique<ScriptedClipboard>();
    injected.shortcuts = std::make_unique<ScriptedShortcuts>();
    injected.agents = std::make_shared<ScriptedAgents>(loop.executor());
    injected.makeProvider = [this](std::string name) {
        model.models.push_back(std::move(name));
        return std::make_unique<ScriptedProvider>(model);
    };
    index = static_cast<ScriptedIndex *>(injected.fileIndex.get());
    clipboard = static_cast<ScriptedClipboard *>(injected.clipboard.get());
    shortcuts = static_cast<ScriptedShortcuts *>(injected.shortcuts.get());
    agents = static_cast<ScriptedAgents *>(injected.agents.get());
    services = std::make_shared<AppServices>(platform(), std::move(database), std::move(injected));
    coordinator = std::make_unique<ActionCoordinator>(platform(), probe.asking());
    state = std::make_shared<PaletteState>(*services, *coordinator);
    state->hide = [this] { log.push_back("hide"); };
    state->focusInput = [this] { log.push_back("focus"); };
    state->openSettings = [this] { log.push_back("settings"); };
    state->enter(PaletteState::Mode::commands);
}

TestPalette::~TestPalette()
{
    loop.shutDown(); // waiting coroutines refer to what goes away below
}

TestPalette &TestPalette::command(std::string title, CommandResultFields fields)
{
    if (fields.id.empty())
        fields.id = "test." + title;
    fields.title = title;
    if (fields.actions.empty()) {
        auto remember = [this, title]() -> Task<void> {
            ran.push_back(title);
            return []() -> Task<void> { co_return; }();
        };
        fields.actions = {{.id = "run", .title = "Run " + title, .execute = std::move(remember)}};
    }
    state->registry.registerCommand(std::make_shared<StaticCommand>(std::move(fields)));
    state->enter(PaletteState::Mode::commands);
    return *this;
}

TestPalette &TestPalette::file(std::string path)
{
    index->files.push_back(fileRecord(std::move(path)));
    return *this;
}

void TestPalette::used(const std::string &id, int times, double daysAgo)
{
    const double now = clock.now();
    clock.setWall(now - daysAgo * 86400);
    for (int i = 0; i < times; ++i)
        await(loop, services->usage.record(id));
    clock.setWall(now);
}

void TestPalette::start()
{
    await(loop, state->start());
    settle();
}

Strings TestPalette::titles() const
{
    Strings all;
    for (const Row &row : state->results())
        all.push_back(row->title);
    return all;
}

Strings TestPalette::ids() const
{
    Strings all;
    for (const Row &row : state->results())
        all.push_back(row->id);
    return all;
}

std::string TestPalette::selected() const
{
    const Row row = state->selectedResult();
    return row ? row->title : "";
}

const CommandAction &TestPalette::action(const std::string &rowTitle, const std::string &id) const
{
    for (const Row &row : state->results())
        if (row->title == rowTitle)
            for (const CommandAction &action : row->actions)
                if (action.id == id)
                    return action;
    throw std::logic_error("there is no action " + id + " of " + rowTitle);
}

std::int64_t TestPalette::usesOf(const std::string &id)
{
    const auto all = await(loop, services->usage.load());
    const auto found = all.find(id);
    return found == all.end() ? 0 : found->second.count;
}

} // namespace korvane::test
