#include "Vorrel/Shell/CommandLineTool.h"

#include "CommandCore/Calculator.h"
#include "Support/Text.h"

#include <algorithm>
#include <filesystem>

namespace korvane {

namespace {

constexpr std::string_view usage = R"(Usage: korvanectl COMMAND [ARGUMENTS] [--json] [--yes]

  calc TEXT                 the value of an arithmetic expression
  search TEXT [--category all|applications|files|shortcuts]
                            the rows that the palette shows for TEXT
  run ID [ACTION]           runs a row's action, its first one without ACTION
  apps                      installed applications: name, identifier, path

  --json      lists as a JSON array of objects
  --yes       gives the consent that an action asks for
  --help      this text
  --version   the version
  --          ends the options

Exit status: 0 done, 1 no or failed (one sentence on standard error), 2 wrong usage.
)";

constexpr Milliseconds writeWait{30'000};

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

/// One cell of a plain list: what would break the row is shown as blanks.
std::string cell(std::string_view text)
{
    std::string shown = displayable(text);
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
        } else if (word == "--category" && i + 1 < arguments.size()) {
            line.category = arguments[++i];
        } else if (word.starts_with("--category=")) {
            line.category = word.substr(std::string_view("--category=").size());
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
        bool takesCategory;
        int (CommandLineTool::*run)(const Line &);
    } commands[] = {
        {"calc", 1, 1, false, &CommandLineTool::calculate},
        {"search", 1, 1, true, &CommandLineTool::searchRows},
        {"run", 1, 2, false, &CommandLineTool::runRow},
        {"apps", 0, 0, false, &CommandLineTool::listApplications},
    };
    if (line.words.empty())
        throw UsageError("A command is missing.");
    for (const auto &command : commands) {
        if (line.words[0] != command.name)
            continue;
        const std::size_t words = line.words.size() - 1;
        if (words < command.fewest || words > command.most || (line.category && !command.takesCategory))
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
    const std::string category = line.category.value_or("all");
    if (category != "all" && categoryNamed(category) == SearchCategory::all)
        throw UsageError("The category is one of all, applications, files, shortcuts.");
    const auto services = wait(openServices(Use::Read));
    ActionCoordinator coordinator(host.platform.dialogs);
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
    const IndexedFile file{.path = path, .name = std::filesystem::path(path).filename().string()};
    return state.services.files.results({file}).front();
}

int CommandLineTool::runRow(const Line &line)
{
    const auto services = wait(openServices(Use::Write));
    ActionCoordinator coordinator(host.platform.dialogs);
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
    if (action->flow.kind != ActionFlow::Kind::direct)
        throw Refusal{"Open Korvane for this action."};
    state->showOnly(row);
    state->execute(*action);
    host.loop.runUntil([&] { return !state->busy(); });
    if (state->error())
        throw Refusal{*state->error()};
    wait(services->database->close());
    return 0;
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

Task<std::shared_ptr<AppServices>> CommandLineTool::openServices(Use use)
{
    if (use == Use::Write)
        co_return co_await AppServices::create(host.platform, writeWait);
    co_return co_await AppServices::createForReading(host.platform);
}

template <class T> T CommandLineTool::wait(Task<T> task)
{
    using Value = std::conditional_t<std::is_void_v<T>, std::monostate, T>;
    struct Outcome {
        std::optional<Value> value;
        std::exception_ptr error;
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
    };
    const auto outcome = std::make_shared<Outcome>();
    const TaskHandle handle = spawn(host.loop.executor(), Outcome::keep(std::move(task), outcome));
    host.loop.runUntil([&] { return outcome->value || outcome->error; });
    if (outcome->error)
        std::rethrow_exception(outcome->error);
    if constexpr (!std::is_void_v<T>)
        return std::move(*outcome->value);
}

} // namespace korvane
