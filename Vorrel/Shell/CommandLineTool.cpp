#include "Vorrel/Shell/CommandLineTool.h"

#include "CommandCore/Calculator.h"
#include "CommandCore/FileSearchQuery.h"
#include "Support/Base64.h"
#include "Support/FileLock.h"
#include "Support/Memory.h"
#include "Support/Text.h"
#include "Support/UUID.h"
#include "Vorrel/Launch/Quicklinks.h"
#include "Vorrel/Shell/Formats.h"
#include "Vorrel/Shell/L10n.h"
#include "Vorrel/Shell/SingleInstanceLock.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace korvane {

namespace {

constexpr std::string_view usage = R"(Usage: korvanectl COMMAND [ARGUMENTS] [--json] [--yes]

  calc TEXT                 the value of an arithmetic expression
  search TEXT [--category all|applications|files|shortcuts]
                            the rows that the palette shows for TEXT
  run ID [ACTION]           runs a row's action, its first one without ACTION
  apps                      installed applications: name, identifier, path
  query TEXT                the canonical text of a file search
  files TEXT [--in DIR] [--limit N]
                            paths of files, best first; at most 100
  index status              number of files and of roots, and whether Korvane runs
  index roots               the indexed folders: identifier, path
  index add DIR             indexes a folder, too
  index remove ID           forgets one
  index rebuild             scans them all anew
  shortcuts list            the user's own shortcuts
  shortcuts run NAME        runs one to its end
  quicklink add TITLE URL   saves an address under a name
  quicklink list            saved addresses: identifier, title, address
  quicklink remove ID       forgets one
  clipboard list [TEXT]     copied texts that hold TEXT: identifier, kind, beginning
  clipboard copy ID         puts one on the clipboard again
  clipboard clear           forgets them all (asks)
  secret set ACCOUNT        keeps standard input, without its last line feed, in the keyring
  secret has ACCOUNT        whether there is one; ai.openai is the key of the AI provider
  secret delete ACCOUNT     forgets one
  agents list               the saved Agents: identifier, name, model
  agents save FILE          saves the Agent that FILE describes in JSON
  skills scan               skills that an Agent may be given: name, path, description
  ask TEXT [--agent NAME] [--connect ID]… [--allow NAME]…
                            a model's answer, once AI requests are turned on; it may call
                            tools, also those of the MCP servers that are connected for it;
                            each tool that changes something, and each server (as mcp.ID),
                            asks unless it is allowed
  mcp add FILE              saves the MCP server that FILE describes in JSON
  mcp list                  the saved servers: identifier, name, executable
  mcp remove ID             forgets one
  mcp tools ID              starts it (asks) and prints what it offers, as JSON
  mcp call ID TOOL JSON     starts it (asks), calls a tool and prints its reply, as JSON
  diagnostics               versions, the index, errors and search times, of this command alone
  settings get [KEY]        the settings as JSON values
  settings set KEY VALUE    changes one, while Korvane does not run

  --json      lists as a JSON array of objects
  --yes       gives the consent that is asked for, to whatever a model wants too
  --help      this text
  --version   the version
  --          ends the options

Exit status: 0 done, 1 no or failed (one sentence on standard error), 2 wrong usage.
)";

constexpr Milliseconds writeWait{30'000};
constexpr std::size_t longestSecret = 65'536; // bytes
constexpr long long filesLimit = 100; // what a search gives
constexpr std::size_t largestDescription = 4U << 20; // bytes of a file; far more than an Agent or a server has
constexpr double secondsBetweenProgress = 0.2;
constexpr std::string_view agentPrefix = "agent:";
constexpr const char *cancelled = "The operation was cancelled.";

std::string_view nameOf(ResultKind kind)
{
    switch (kind) {
    case ResultKind::application: return "application";
    case ResultKind::command: return "command";
    case ResultKind::file: return "file";
    case ResultKind::shortcut: return "shortcut";
    case ResultKind::other: return "other";
    }
    return {};
}

/// One cell of a plain list: what would break the row is shown as blanks, and nothing in it moves the terminal's cursor.
std::string cell(std::string_view text)
{
    std::string shown = withoutControls(text);
    std::replace_if(
        shown.begin(), shown.end(), [](char c) { return c == '\t' || c == '\n' || c == '\r'; }, ' ');
    return shown;
}

JSONValue jsonOf(const CommandResult &row)
{
    JSONValue::Array keywords, actions;
    for (const std::string &keyword : row.keywords)
        keywords.emplace_back(keyword);
    for (const CommandAction &action : row.actions) {
        actions.emplace_back(
            JSONValue::Object{{"id", action.id}, {"title", action.title}, {"role", std::string(rawValue(action.role))}});
    }
    return JSONValue::Object{{"id", displayable(row.id)}, {"title", displayable(row.title)},
        {"subtitle", row.subtitle ? JSONValue(displayable(*row.subtitle)) : JSONValue()}, {"kind", std::string(nameOf(row.kind))},
        {"keywords", std::move(keywords)}, {"actions", std::move(actions)}};
}

SearchCategory categoryNamed(const std::string &name)
{
    if (name == "applications")
        return SearchCategory::applications;
    if (name == "files")
        return SearchCategory::files;
    if (name == "shortcuts")
        return SearchCategory::shortcuts;
    return SearchCategory::all;
}

bool takesValue(const std::string &option)
{
    constexpr std::string_view all[] = {"--category", "--in", "--limit", "--agent", "--allow", "--connect"};
    return std::ranges::find(all, option) != std::end(all);
}

/// What a file holds, cut behind `limit` bytes; nothing for one that cannot be read.
std::optional<std::string> beginningOf(const std::string &path, std::size_t limit)
{
    std::ifstream file(path, std::ios::binary);
    std::string bytes(limit, '\0');
    if (!file.read(bytes.data(), std::streamsize(limit)) && !file.eof())
        return std::nullopt;
    bytes.resize(std::size_t(file.gcount()));
    return bytes;
}

/// A sentence for standard error and exit status 1; without a sentence nothing is printed.
struct Refusal {
    std::optional<std::string> sentence;
};

} // namespace

/// A command line that means nothing; its sentence goes before the usage hint.
class CommandLineTool::UsageError {
public:
    explicit UsageError(std::string sentence) : sentence(std::move(sentence)) { }
    const std::string sentence;
};

/// Of an option that is given more than once the last counts, but tools are allowed and servers connected one by one.
void CommandLineTool::Line::give(const std::string &option, std::string value)
{
    if (option == "--allow")
        allowed.insert(value);
    if (option == "--connect")
        connected.push_back(value);
    values.insert_or_assign(option, std::move(value));
}

CommandLineTool::Line CommandLineTool::parse(std::span<const std::string> arguments)
{
    Line line;
    bool options = true;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string &word = arguments[i];
        if (!options || !word.starts_with("--")) {
            line.words.push_back(word);
        } else if (word == "--") {
            options = false;
        } else if (word == "--json") {
            line.json = true;
        } else if (word == "--yes") {
            line.yes = true;
        } else if (word == "--help") {
            line.help = true;
        } else if (word == "--version") {
            line.version = true;
        } else if (const auto equals = word.find('='); equals != word.npos && takesValue(word.substr(0, equals))) {
            line.give(word.substr(0, equals), word.substr(equals + 1));
        } else if (takesValue(word) && i + 1 < arguments.size()) {
            line.give(word, arguments[++i]);
        } else {
            throw UsageError("There is no option " + word + " here.");
        }
    }
    return line;
}

int CommandLineTool::run(std::span<const std::string> arguments)
{
    try {
        const Line line = parse(arguments);
        if (line.help) {
            host.out(usage);
            return 0;
        }
        if (line.version) {
            host.out("korvanectl " KORVANE_VERSION "\n");
            return 0;
        }
        host.consent(line.yes);
        return dispatch(line);
    } catch (const UsageError &wrong) {
        host.err(cell(wrong.sentence) + "\nTry: korvanectl --help\n");
        return 2;
    } catch (const Refusal &refusal) {
        if (refusal.sentence)
            host.err(cell(*refusal.sentence) + "\n");
        return 1;
    } catch (...) {
        host.err(AppError::friendly(std::current_exception()) + "\n");
        return 1;
    }
}

int CommandLineTool::dispatch(const Line &line)
{
    const struct {
        std::string_view name;
        std::size_t fewest, most; // words behind the name
        std::vector<std::string_view> options; // with a value
        int (CommandLineTool::*run)(const Line &);
    } commands[] = {
        {"calc", 1, 1, {}, &CommandLineTool::calculate},
        {"search", 1, 1, {"--category"}, &CommandLineTool::searchRows},
        {"run", 1, 2, {}, &CommandLineTool::runRow},
        {"apps", 0, 0, {}, &CommandLineTool::listApplications},
        {"query", 1, 1, {}, &CommandLineTool::writeQuery},
        {"files", 1, 1, {"--in", "--limit"}, &CommandLineTool::findFiles},
        {"index", 1, 2, {}, &CommandLineTool::index},
        {"shortcuts", 1, 2, {}, &CommandLineTool::shortcuts},
        {"quicklink", 1, 3, {}, &CommandLineTool::quicklink},
        {"clipboard", 1, 2, {}, &CommandLineTool::clipboard},
        {"secret", 2, 2, {}, &CommandLineTool::secret},
        {"agents", 1, 2, {}, &CommandLineTool::agents},
        {"skills", 1, 1, {}, &CommandLineTool::skills},
        {"ask", 1, 1, {"--agent", "--allow", "--connect"}, &CommandLineTool::ask},
        {"mcp", 1, 4, {}, &CommandLineTool::mcp},
        {"diagnostics", 0, 0, {}, &CommandLineTool::diagnostics},
        {"settings", 1, 3, {}, &CommandLineTool::settings},
    };
    if (line.words.empty())
        throw UsageError("A command is missing.");
    for (const auto &command : commands) {
        if (line.words[0] != command.name)
            continue;
        const std::size_t words = line.words.size() - 1;
        const bool strange = std::ranges::any_of(line.values,
            [&command](const auto &option) { return std::ranges::find(command.options, option.first) == command.options.end(); });
        if (words < command.fewest || words > command.most || strange)
            throw UsageError("These are not the arguments of " + line.words[0] + ".");
        return (this->*command.run)(line);
    }
    throw UsageError("There is no command " + line.words[0] + ".");
}

int CommandLineTool::calculate(const Line &line)
{
    const auto value = Calculator::value(line.words[1]);
    if (!value)
        throw Refusal();
    const std::string text = Calculator::format(*value);
    host.out((line.json ? JSONValue(JSONValue::Array{JSONValue::Object{{"value", text}}}).encodedString() : text) + "\n");
    return 0;
}

int CommandLineTool::listApplications(const Line &line)
{
    ApplicationIndexer indexer(host.platform.pool, host.platform.applicationSource);
    Table table;
    for (const ApplicationRecord &record : wait(indexer.scan())) {
        table.plain.push_back({record.name, record.bundleIdentifier, record.path});
        table.json.push_back(record.json());
    }
    print(table, line.json);
    return 0;
}

int CommandLineTool::searchRows(const Line &line)
{
    const auto given = line.values.find("--category");
    const std::string category = given == line.values.end() ? "all" : given->second;
    if (category != "all" && categoryNamed(category) == SearchCategory::all)
        throw UsageError("The category is one of all, applications, files, shortcuts.");
    const auto services = wait(openServices(Use::Read));
    ActionCoordinator coordinator(host.platform);
    const auto state = std::make_shared<PaletteState>(*services, coordinator);
    wait(state->start());
    state->setCategory(categoryNamed(category));
    state->setInputText(line.words[1]);
    host.loop.runUntil([&] { return !state->searching() && !state->searchingFiles(); });
    if (state->error())
        throw Refusal{*state->error()};
    Table table;
    for (const Row &row : state->results()) {
        table.plain.push_back({std::string(nameOf(row->kind)), row->id, row->title, row->subtitle.value_or("")});
        table.json.push_back(jsonOf(*row));
    }
    print(table, line.json);
    return 0;
}

Row CommandLineTool::rowFor(PaletteState &state, const std::string &id) const
{
    if (Row known = state.registry.result(id))
        return known;
    constexpr std::string_view files = "file:";
    if (!id.starts_with(files))
        return nullptr;
    const std::string path = id.substr(files.size());
    return state.services.files.results({FileRecord{.name = lastPathComponent(path), .path = path}}).front();
}

int CommandLineTool::runRow(const Line &line)
{
    const auto services = wait(openServices(Use::Write));
    ActionCoordinator coordinator(host.platform);
    const auto state = std::make_shared<PaletteState>(*services, coordinator);
    wait(state->start());
    const Row row = rowFor(*state, line.words[1]);
    if (!row)
        throw Refusal{"There is nothing with the identifier " + line.words[1] + "."};
    if (row->actions.empty())
        throw Refusal{"This has no action."};
    auto action = row->actions.begin();
    if (line.words.size() > 2)
        action = std::find_if(
            row->actions.begin(), row->actions.end(), [&](const CommandAction &one) { return one.id == line.words[2]; });
    if (action == row->actions.end())
        throw Refusal{"There is no action " + line.words[2] + " here."};
    constexpr std::string_view shown[] = {"files", "clipboard", "ai", "settings"};
    const bool showsItself = std::ranges::find(shown, row->id) != std::end(shown) || row->id.starts_with(agentPrefix);
    if (showsItself || action->flow.kind != ActionFlow::Kind::direct)
        throw Refusal{"Open Korvane for this action."};
    state->showOnly(row);
    state->execute(*action);
    host.loop.runUntil([&] { return !state->busy(); });
    if (state->error())
        throw Refusal{*state->error()};
    wait(services->database->close());
    return 0;
}

// Files

int CommandLineTool::writeQuery(const Line &line)
{
    const std::string text = FileSearchQuery(line.words[1]).text();
    host.out((line.json ? JSONValue(JSONValue::Array{JSONValue::Object{{"query", text}}}).encodedString() : text) + "\n");
    return 0;
}

int CommandLineTool::findFiles(const Line &line)
{
    std::optional<std::string> directory;
    if (const auto in = line.values.find("--in"); in != line.values.end())
        directory = absolute(in->second);
    std::size_t limit = filesLimit;
    if (const auto given = line.values.find("--limit"); given != line.values.end()) {
        const auto number = integerFrom(given->second);
        if (!number || *number < 1)
            throw UsageError("The limit is a number from 1 to 100.");
        limit = std::size_t(std::min<long long>(*number, filesLimit));
    }
    const auto services = wait(openServices(Use::Read));
    auto found = wait(services->fileIndex->search(line.words[1], directory));
    found.resize(std::min(found.size(), limit));
    Table table;
    for (const FileRecord &record : found) {
        table.plain.push_back({record.path});
        table.json.push_back(record.json());
    }
    print(table, line.json);
    return 0;
}

// What else the store holds

int CommandLineTool::shortcuts(const Line &line)
{
    const bool lists = line.words[1] == "list" && line.words.size() == 2;
    const bool runs = line.words[1] == "run" && line.words.size() == 3;
    if (!lists && !runs)
        throw UsageError("These are not the arguments of shortcuts.");
    const auto services = wait(openServices(Use::Read));
    if (runs) {
        wait(services->shortcuts->run(line.words[2]));
        return 0;
    }
    wait(services->shortcuts->refreshNow());
    Table table;
    for (const ShortcutItem &item : services->shortcuts->shortcuts.get()) {
        table.plain.push_back({item.name});
        table.json.emplace_back(JSONValue::Object{{"name", displayable(item.name)}});
    }
    print(table, line.json);
    return 0;
}

int CommandLineTool::quicklink(const Line &line)
{
    const std::string &what = line.words[1];
    if (what == "list" && line.words.size() == 2)
        return listQuicklinks(line);
    if (what == "add" && line.words.size() == 4) {
        const std::string title(trimmed(line.words[2]));
        if (title.empty())
            throw AppError(AppError::Kind::configuration, "Give the quicklink a name.");
        const Quicklink link{newUUID(), title, Quicklinks::validatedURL(line.words[3])};
        const auto services = wait(openServices(Use::Write));
        wait(services->quicklinks.save(link));
        wait(services->database->close());
        host.out(link.id + "\n");
        return 0;
    }
    if (what != "remove" || line.words.size() != 3)
        throw UsageError("These are not the arguments of quicklink.");
    const auto services = wait(openServices(Use::Write));
    const auto links = wait(services->quicklinks.load());
    if (std::ranges::find(links, line.words[2], &Quicklink::id) == links.end())
        throw Refusal{"There is no quicklink with the identifier " + line.words[2] + "."};
    wait(services->quicklinks.remove(line.words[2]));
    wait(services->database->close());
    return 0;
}

int CommandLineTool::listQuicklinks(const Line &line)
{
    const auto services = wait(openServices(Use::Read));
    Table table;
    for (const Quicklink &link : wait(services->quicklinks.load())) {
        table.plain.push_back({link.id, link.title, link.url});
        table.json.emplace_back(JSONValue::Object{{"id", link.id}, {"title", link.title}, {"url", link.url}});
    }
    print(table, line.json);
    return 0;
}

int CommandLineTool::clipboard(const Line &line)
{
    const std::string &what = line.words[1];
    const bool hasArgument = line.words.size() == 3;
    if (what == "list")
        return listClipboard(line);
    if (what == "copy" && hasArgument)
        return copyFromClipboard(line.words[2]);
    if (what != "clear" || hasArgument)
        throw UsageError("These are not the arguments of clipboard.");
    const auto services = wait(openServices(Use::Write));
    wait(services->permissions.confirm(
        L10n::key("Clear Clipboard History?"), L10n::key("All locally saved clipboard entries will be deleted.")));
    wait(ClipboardRepository(services->database, host.platform.clock).clear());
    wait(services->database->close());
    return 0;
}

int CommandLineTool::listClipboard(const Line &line)
{
    const auto services = wait(openServices(Use::Read));
    const ClipboardRepository repository(services->database, host.platform.clock);
    constexpr std::size_t shownCharacters = 80;
    Table table;
    for (const ClipboardEntry &entry : wait(repository.search(line.words.size() == 3 ? line.words[2] : ""))) {
        table.plain.push_back({entry.id, entry.kind, std::string(firstCharacters(entry.content, shownCharacters))});
        table.json.push_back(entry.json());
    }
    print(table, line.json);
    return 0;
}

int CommandLineTool::copyFromClipboard(const std::string &id)
{
    const auto services = wait(openServices(Use::Read));
    const ClipboardRepository repository(services->database, host.platform.clock);
    auto entry = wait(repository.entry(id));
    if (!entry)
        throw Refusal{"There is no copied text with the identifier " + id + "."};
    if (!wait(host.platform.pasteboard.setText(std::move(entry->content))))
        throw AppError(AppError::Kind::recoverable, "Could not update the clipboard.");
    return 0;
}

// Agents

int CommandLineTool::agents(const Line &line)
{
    const std::string &what = line.words[1];
    if (what == "list" && line.words.size() == 2)
        return listAgents(line);
    if (what == "save" && line.words.size() == 3)
        return saveAgent(absolute(line.words[2]));
    throw UsageError("These are not the arguments of agents.");
}

int CommandLineTool::listAgents(const Line &line)
{
    const auto services = wait(openServices(Use::Read));
    wait(services->agents().load());
    Table table;
    for (const Agent &agent : services->agents().agents()) {
        table.plain.push_back({agent.id, agent.name, agent.model});
        table.json.push_back(agent.json());
    }
    print(table, line.json);
    return 0;
}

int CommandLineTool::saveAgent(const std::string &path)
{
    const auto text = beginningOf(path, largestDescription);
    if (!text)
        throw Refusal{"The file " + path + " could not be read."};
    Agent agent;
    try {
        agent = Agent::fromJSON(JSONValue::parse(*text));
    } catch (const JSONError &) {
        throw Refusal{"The file " + path + " describes no Agent."};
    }
    refuseWhileKorvaneRuns("the Agents");
    const auto services = wait(openServices(Use::Write));
    wait(AgentRepository(services->database).save(agent));
    wait(services->database->close());
    host.out(cell(agent.id) + "\n");
    return 0;
}

int CommandLineTool::skills(const Line &line)
{
    if (line.words[1] != "scan")
        throw UsageError("These are not the arguments of skills.");
    SkillLoader loader(host.platform.detached);
    const SkillLoader::Scan scan = wait(loader.scan(SkillLocations::roots(host.platform.folders)));
    Table table;
    for (const Skill &skill : scan.skills) {
        table.plain.push_back({skill.name, skill.path, skill.description});
        table.json.push_back(skill.json());
    }
    print(table, line.json);
    for (const std::string &warning : scan.warnings)
        host.err(cell(warning) + "\n");
    return 0;
}

// Requests to a model

int CommandLineTool::ask(const Line &line)
{
    if (trimmed(line.words[1]).empty())
        throw UsageError("The request is empty.");
    const auto services = wait(openServices(Use::Write));
    services->allowedTools = line.allowed;
    NativeTools::registerTools(services->tools(), *services);
    wait(services->preferences().load());
    ActionCoordinator coordinator(host.platform);
    const auto state = std::make_shared<PaletteState>(*services, coordinator);
    wait(state->start());
    if (state->error())
        throw Refusal{*state->error()};
    readShortcuts(*services);
    withServers(*services, serversFor(*services, line), [&] {
        openAssistant(*state, line);
        answer(*state, line.words[1]);
    });
    const std::string &text = state->aiOutput();
    const JSONValue::Array json{JSONValue::Object{{"answer", text}}};
    host.out((line.json ? JSONValue(json).encodedString() : withoutControls(text)) + "\n");
    wait(services->database->close());
    return 0;
}

/// A model is told the shortcuts that are known, and here nothing else asks for them. Without them it is told none.
void CommandLineTool::readShortcuts(AppServices &services)
{
    try {
        wait(services.shortcuts->refreshNow());
    } catch (const std::exception &) { // of the tool, or of the system that could not start it
    }
}

void CommandLineTool::openAssistant(PaletteState &state, const Line &line)
{
    const auto given = line.values.find("--agent");
    if (given == line.values.end())
        return state.enter(PaletteState::Mode::ai);
    const auto &agents = state.services.agents().agents();
    const auto named = std::ranges::find_if(
        agents, [&name = given->second](const Agent &agent) { return agent.id == name || agent.name == name; });
    const Row row = named == agents.end() ? nullptr : state.registry.result(std::string(agentPrefix) + named->id);
    if (!row)
        throw Refusal{"There is no Agent with the name " + given->second + "."};
    wait(row->actions.front().execute());
}

/// Asks, and waits for the end; status goes by on standard error.
void CommandLineTool::answer(PaletteState &state, const std::string &text)
{
    const Subscription status = state._aiStatus.observe([this, &state] {
        if (!state.aiStatus().empty())
            host.err(cell(state.aiStatus()) + "\n");
    });
    bool stopped = false;
    state.setInputText(text);
    state.execute();
    if (host.onInterrupt) {
        host.onInterrupt([&stopped, &state] {
            stopped = true;
            state.escape();
        });
    }
    host.loop.runUntil([&state] { return !state.busy(); });
    if (host.onInterrupt)
        host.onInterrupt(nullptr);
    if (state.error())
        throw Refusal{*state.error()};
    if (stopped)
        throw Refusal{cancelled};
}

// MCP servers

int CommandLineTool::mcp(const Line &line)
{
    const std::string &what = line.words[1];
    const std::size_t arguments = line.words.size() - 2;
    if (what == "add" && arguments == 1)
        return addServer(absolute(line.words[2]));
    if (what == "list" && arguments == 0)
        return listServers(line);
    if (what == "remove" && arguments == 1)
        return removeServer(line.words[2]);
    if (what == "tools" && arguments == 1)
        return listTools(line.words[2]);
    if (what == "call" && arguments == 3)
        return callTool(line.words[2], line.words[3], line.words[4]);
    throw UsageError("These are not the arguments of mcp.");
}

int CommandLineTool::addServer(const std::string &path)
{
    const auto text = beginningOf(path, largestDescription);
    if (!text)
        throw Refusal{"The file " + path + " could not be read."};
    MCPServerConfiguration server;
    try {
        server = MCPServerConfiguration::fromJSON(JSONValue::parse(*text));
    } catch (const JSONError &) {
        throw Refusal{"The file " + path + " describes no MCP server."};
    }
    refuseWhileKorvaneRuns("the servers");
    const auto services = wait(openServices(Use::Write));
    wait(services->mcp().load());
    wait(services->mcp().add(server));
    wait(services->database->close());
    host.out(cell(server.id) + "\n");
    return 0;
}

int CommandLineTool::listServers(const Line &line)
{
    const auto services = wait(openServices(Use::Read));
    wait(services->mcp().load());
    Table table;
    for (const MCPServerConfiguration &server : services->mcp().configurations()) {
        table.plain.push_back({server.id, server.name, server.command});
        table.json.push_back(server.json());
    }
    print(table, line.json);
    return 0;
}

int CommandLineTool::removeServer(const std::string &id)
{
    refuseWhileKorvaneRuns("the servers");
    const auto services = wait(openServices(Use::Write));
    wait(services->mcp().load());
    wait(services->mcp().remove(serverNamed(*services, id)));
    wait(services->database->close());
    return 0;
}

MCPServerConfiguration CommandLineTool::serverNamed(AppServices &services, const std::string &id)
{
    const auto &servers = services.mcp().configurations();
    const auto found = std::ranges::find(servers, id, &MCPServerConfiguration::id);
    if (found == servers.end())
        throw Refusal{"There is no MCP server with the identifier " + id + "."};
    return *found;
}

namespace {

/// What the names of all tools of a server begin with; without the dot it stands for the server itself.
std::string prefixOf(const MCPServerConfiguration &server) { return "mcp." + server.id + "."; }

} // namespace

/// Connects servers for the time of `work`, whatever comes of it. The user has consented.
void CommandLineTool::withServers(
    AppServices &services, const std::vector<MCPServerConfiguration> &servers, const std::function<void()> &work)
{
    std::exception_ptr failure;
    try {
        for (const MCPServerConfiguration &server : servers)
            waitInterruptibly(services.mcp().connect(server));
        work();
    } catch (...) {
        failure = std::current_exception();
    }
    for (const MCPServerConfiguration &server : servers)
        wait(services.mcp().disconnect(server));
    if (failure)
        std::rethrow_exception(failure);
}

int CommandLineTool::listTools(const std::string &id)
{
    const auto services = wait(openServices(Use::Read));
    wait(services->mcp().load());
    const MCPServerConfiguration server = serverNamed(*services, id);
    wait(MCPManager::confirm(services->permissions, server));
    JSONValue::Array tools;
    withServers(*services, {server}, [&] {
        for (const ToolDefinition &tool : services->tools().definitions()) {
            tools.emplace_back(JSONValue::Object{{"name", tool.name.substr(prefixOf(server).size())},
                {"description", tool.description}, {"inputSchema", tool.inputSchema}});
        }
    });
    host.out(JSONValue(std::move(tools)).encodedString() + "\n");
    return 0;
}

int CommandLineTool::callTool(const std::string &id, const std::string &tool, const std::string &input)
{
    JSONValue arguments;
    try {
        arguments = JSONValue::parse(input);
    } catch (const JSONError &) {
        throw UsageError("The input of a tool is JSON.");
    }
    const auto services = wait(openServices(Use::Read));
    wait(services->mcp().load());
    const MCPServerConfiguration server = serverNamed(*services, id);
    wait(MCPManager::confirm(services->permissions, server));
    const std::string name = prefixOf(server) + tool;
    services->allowedTools = {name}; // who names the tool and starts its server has consented to the call
    std::string reply;
    withServers(*services, {server},
        [&] { reply = waitInterruptibly(services->tools().call(name, std::move(arguments))).value.encodedString(); });
    host.out(reply + "\n");
    return 0;
}

/// The servers that a request may use, each with the user's consent. None while requests are turned off: then the request
/// says so.
std::vector<MCPServerConfiguration> CommandLineTool::serversFor(AppServices &services, const Line &line)
{
    std::vector<MCPServerConfiguration> servers;
    for (const std::string &id : line.connected)
        if (std::ranges::find(servers, id, &MCPServerConfiguration::id) == servers.end())
            servers.push_back(serverNamed(services, id));
    if (!services.preferences().preferences->aiEnabled)
        return {};
    for (const MCPServerConfiguration &server : servers)
        if (!line.allowed.contains("mcp." + server.id))
            wait(MCPManager::confirm(services.permissions, server));
    return servers;
}

// Diagnostics

int CommandLineTool::diagnostics(const Line &line)
{
    const auto services = wait(openServices(Use::Read));
    const FileIndexRepository repository(services->database, host.platform.folders, host.platform.clock);
    const FileIndex::Health health{.fileCount = wait(repository.count()),
        .rootCount = wait(repository.roots()).size(),
        .state = FileIndex::Health::State::liveUpdatesUnavailable}; // this process follows nothing
    const std::string report = wait(services->diagnostics.presentReport(health, false));
    host.err("This is the report of korvanectl's own process. That of a running Korvane is exported in its settings.\n");
    const JSONValue::Array json{JSONValue::Object{{"report", report}}};
    host.out((line.json ? JSONValue(json).encodedString() : report) + "\n");
    return 0;
}

// Settings

int CommandLineTool::settings(const Line &line)
{
    const std::string &what = line.words[1];
    if (what == "get" && line.words.size() <= 3)
        return showSettings(line);
    if (what == "set" && line.words.size() == 4)
        return changeSetting(line.words[2], line.words[3]);
    throw UsageError("These are not the arguments of settings.");
}

int CommandLineTool::showSettings(const Line &line)
{
    const auto services = wait(openServices(Use::Read));
    SettingsState &settings = services->preferences();
    wait(settings.load());
    const JSONValue json = settings.preferences->json();
    JSONValue::Object shown = *json.object();
    if (line.words.size() == 3) {
        std::erase_if(shown, [&line](const auto &member) { return member.first != line.words[2]; });
        if (shown.empty())
            throw UsageError("There is no setting " + line.words[2] + ".");
    }
    Table table;
    for (const auto &[key, value] : shown)
        table.plain.push_back({key, value.encodedString()});
    if (line.words.size() == 3)
        table.plain.front().erase(table.plain.front().begin());
    table.json.emplace_back(std::move(shown));
    print(table, line.json);
    return 0;
}

namespace {

/// The preferences with one of them changed. A text may stand without its quotation marks.
AppPreferences changed(const AppPreferences &preferences, const std::string &key, const std::string &value)
{
    const JSONValue json = preferences.json();
    JSONValue::Object members = *json.object();
    JSONValue &member = members.at(key);
    const bool isText = member.string();
    try {
        member = JSONValue::parse(value);
    } catch (const JSONError &) {
        member = isText ? JSONValue(value) : JSONValue();
    }
    if (isText && !member.string())
        member = value;
    try {
        return AppPreferences::decode(members);
    } catch (const JSONError &) {
        throw Refusal{"This is no value for " + key + "."};
    }
}

} // namespace

int CommandLineTool::changeSetting(const std::string &key, const std::string &value)
{
    const JSONValue defaults = AppPreferences().json();
    if (!defaults.object()->contains(key))
        throw UsageError("There is no setting " + key + ".");
    refuseWhileKorvaneRuns("the settings");
    const auto services = wait(openServices(Use::Write));
    SettingsState &settings = services->preferences();
    wait(settings.load());
    settings.updateHotkey = [](const HotkeyConfiguration &hotkey) { // registered when Korvane starts
        if (!hotkey.valid())
            throw HotkeyRegistrationError(HotkeyRegistrationError::Reason::invalid);
    };
    settings.preferences = changed(settings.preferences, key, value);
    settings.save();
    host.loop.runUntil([&settings] { return !settings.saving; });
    wait(services->database->close());
    if (settings.message.get() != "Settings saved.")
        throw Refusal{settings.message};
    return 0;
}

/// A running Korvane would go on with what it has read, and write it over what is changed here.
void CommandLineTool::refuseWhileKorvaneRuns(std::string_view what) const
{
    if (SingleInstanceLock::isHeld(host.platform.folders))
        throw Refusal{"Korvane runs and keeps " + std::string(what) + " itself. Quit it first."};
}

std::string CommandLineTool::absolute(const std::string &path) const
{
    const std::string expanded = host.platform.folders.expandingTilde(path);
    std::string whole = (std::filesystem::path(host.workingDirectory) / expanded).lexically_normal().string();
    if (whole.size() > 1 && whole.ends_with('/'))
        whole.pop_back();
    return whole;
}

int CommandLineTool::index(const Line &line)
{
    const std::string &what = line.words[1];
    const bool hasArgument = line.words.size() == 3;
    if (what == "status" && !hasArgument)
        return showIndexStatus(line);
    if (what == "roots" && !hasArgument)
        return showIndexRoots(line);
    if (what == "add" && hasArgument)
        return addIndexRoot(absolute(line.words[2]));
    if (what == "remove" && hasArgument)
        return removeIndexRoot(line.words[2]);
    if (what == "rebuild" && !hasArgument)
        return changeIndex([](FileIndex &index) {
            if (!index.isScanning()) // an empty index is scanned as soon as it starts
                index.rebuild();
        });
    throw UsageError("These are not the arguments of index.");
}

int CommandLineTool::showIndexStatus(const Line &line)
{
    const auto services = wait(openServices(Use::Read));
    const FileIndexRepository repository(services->database, host.platform.folders, host.platform.clock);
    const long long files = wait(repository.count());
    const auto roots = std::ssize(wait(repository.roots()));
    const bool running = SingleInstanceLock::isHeld(host.platform.folders);
    if (line.json) {
        const JSONValue::Object status{{"files", double(files)}, {"roots", double(roots)}, {"running", running}};
        host.out(JSONValue(JSONValue::Array{status}).encodedString() + "\n");
        return 0;
    }
    Table table;
    table.plain = {{"files", std::to_string(files)}, {"roots", std::to_string(roots)}, {"running", running ? "yes" : "no"}};
    print(table, false);
    return 0;
}

int CommandLineTool::showIndexRoots(const Line &line)
{
    const auto services = wait(openServices(Use::Read));
    const FileIndexRepository repository(services->database, host.platform.folders, host.platform.clock);
    Table table;
    for (const IndexRoot &root : wait(repository.roots())) {
        JSONValue::Object object{{"id", root.id}, {"path", displayable(root.path)}};
        if (!isValidUTF8(root.path))
            object.emplace("pathBytes", base64(root.path));
        table.plain.push_back({root.id, root.path});
        table.json.emplace_back(std::move(object));
    }
    print(table, line.json);
    return 0;
}

int CommandLineTool::addIndexRoot(const std::string &folder)
{
    std::error_code failure;
    if (!std::filesystem::is_directory(folder, failure))
        throw Refusal{"There is no folder " + folder + "."};
    changeIndex([&folder](FileIndex &index) { index.addRoot(folder); });
    const auto services = wait(openServices(Use::Read));
    const FileIndexRepository repository(services->database, host.platform.folders, host.platform.clock);
    const auto roots = wait(repository.roots());
    const auto added = std::ranges::find(roots, folder, &IndexRoot::path);
    if (added != roots.end())
        host.out(added->id + "\n");
    return 0;
}

int CommandLineTool::removeIndexRoot(const std::string &id)
{
    return changeIndex([&id](FileIndex &index) {
        if (std::ranges::find(index.roots().get(), id, &IndexRoot::id) == index.roots()->end())
            throw Refusal{"There is no root with the identifier " + id + "."};
        index.removeRoot(id);
    });
}

/// Starts the index, which brings the default roots where there are none, changes it, and waits until it is done. No
/// other process touches the index meanwhile: a Korvane that starts waits for the lock.
int CommandLineTool::changeIndex(const std::function<void(FileIndex &)> &change)
{
    if (!host.platform.walker)
        throw Refusal{"Files are not indexed here."};
    std::optional<FileLock> lock;
    if (const auto path = AppServices::indexLock(host.platform.folders)) {
        AppServices::createPrivateFolder(*host.platform.folders.korvane());
        FileLock::Failure failure{};
        lock = FileLock::tryTake(*path, &failure);
        refuseWhileKorvaneRuns("the index");
        if (!lock && failure == FileLock::Failure::taken)
            throw Refusal{"Another program works on the index. Try again when it has ended."};
    }
    const auto services = wait(AppServices::create(host.platform, writeWait, true));
    FileIndex &index = *services->fileIndex;
    wait(index.start());
    if (!index.problem())
        change(index);
    finishIndex(index);
    const auto problem = index.problem();
    wait(index.stop());
    wait(services->database->close());
    if (problem)
        throw Refusal{problem};
    return 0;
}

void CommandLineTool::finishIndex(const FileIndex &index)
{
    const double began = host.platform.clock.uptime();
    double shown = began;
    host.loop.runUntil([&] {
        if (const double now = host.platform.clock.uptime(); host.progress && now - shown > secondsBetweenProgress) {
            shown = now;
            showProgress(index, began);
        }
        return !index.busy();
    });
    if (host.progress)
        host.progress("");
}

void CommandLineTool::showProgress(const FileIndex &index, double began)
{
    const std::string language = L10n::languageInUse();
    const double seconds = host.platform.clock.uptime() - began;
    const auto rate = (long long)(double(index.scannedCount()) / std::max(seconds, 0.001));
    host.progress(formattedCount(index.scannedCount(), language) + " · " + formattedCount(rate, language) + "/s · "
        + displayable(index.scannedRoot()));
}

void CommandLineTool::print(const Table &table, bool json) const
{
    if (json)
        return host.out(JSONValue(table.json).encodedString() + "\n");
    std::string text;
    for (const auto &row : table.plain) {
        for (std::size_t i = 0; i < row.size(); ++i)
            text += (i ? "\t" : "") + cell(row[i]);
        text += '\n';
    }
    host.out(text);
}

// The keyring

int CommandLineTool::secret(const Line &line)
{
    const std::string &what = line.words[1], &account = line.words[2];
    if (account.empty())
        throw UsageError("The account of a secret has a name.");
    if (!isValidUTF8(account))
        throw UsageError("The account of a secret is text in UTF-8.");
    if (what == "set")
        return setSecret(account);
    if (what == "has")
        return showSecret(line);
    if (what != "delete")
        throw UsageError("These are not the arguments of secret.");
    KeychainService service = keychain();
    wait(service.deleteAccount(account));
    return 0;
}

int CommandLineTool::setSecret(const std::string &account)
{
    auto value = host.input(longestSecret);
    if (!value)
        throw Refusal{"The secret is too long."};
    if (value->ends_with('\n'))
        value->pop_back();
    if (!isValidUTF8(*value))
        throw Refusal{"The secret is no text in UTF-8."};
    KeychainService service = keychain();
    wait(service.set(*std::move(value), account));
    return 0;
}

int CommandLineTool::showSecret(const Line &line)
{
    const std::string &account = line.words[2];
    KeychainService service = keychain();
    auto value = wait(service.get(account));
    if (!value)
        throw Refusal{"There is no secret under the account " + account + "."};
    wipe(*value);
    print({{{account}}, {JSONValue::Object{{"account", displayable(account)}}}}, line.json);
    return 0;
}

KeychainService CommandLineTool::keychain() const { return {host.platform.pool, host.platform.secrets}; }

Task<std::shared_ptr<AppServices>> CommandLineTool::openServices(Use use)
{
    if (use == Use::Write)
        co_return co_await AppServices::create(host.platform, writeWait, false, host.makeProvider);
    co_return co_await AppServices::createForReading(host.platform);
}

/// A task that runs and what comes of it.
template <class T> class CommandLineTool::Waiting {
    using Value = std::conditional_t<std::is_void_v<T>, std::monostate, T>;

public:
    Waiting(MainLoop &loop, Task<T> task) : loop(loop), handle(spawn(loop.executor(), keep(std::move(task), outcome))) { }

    void cancel() { handle.cancel(); }
    T result()
    {
        loop.runUntil([this] { return outcome->value || outcome->error; });
        if (outcome->error)
            std::rethrow_exception(outcome->error);
        if constexpr (!std::is_void_v<T>)
            return std::move(*outcome->value);
    }

private:
    struct Outcome {
        std::optional<Value> value;
        std::exception_ptr error;
    };

    static Task<void> keep(Task<T> task, std::shared_ptr<Outcome> outcome)
    {
        try {
            if constexpr (std::is_void_v<T>) {
                co_await std::move(task);
                outcome->value.emplace();
            } else {
                outcome->value.emplace(co_await std::move(task));
            }
        } catch (...) {
            outcome->error = std::current_exception();
        }
    }

    MainLoop &loop;
    const std::shared_ptr<Outcome> outcome = std::make_shared<Outcome>();
    TaskHandle handle;
};

template <class T> T CommandLineTool::wait(Task<T> task) { return Waiting<T>(host.loop, std::move(task)).result(); }

/// Like `wait`, but the user can cancel the task.
template <class T> T CommandLineTool::waitInterruptibly(Task<T> task)
{
    struct Listening {
        ~Listening()
        {
            if (onInterrupt)
                onInterrupt(nullptr);
        }
        const std::function<void(std::function<void()>)> &onInterrupt;
    };
    Waiting<T> waiting(host.loop, std::move(task));
    const Listening listening{host.onInterrupt};
    if (host.onInterrupt)
        host.onInterrupt([&waiting] { waiting.cancel(); });
    try {
        return waiting.result();
    } catch (const Cancelled &) {
        throw Refusal{cancelled};
    }
}

} // namespace korvane
