#include "Vorrel/Launch/ShortcutsService.h"

#include "CommandCore/Commands.h"
#include "Support/Text.h"
#include "Vorrel/Shell/Formats.h"
#include "Vorrel/Shell/L10n.h"

#include <algorithm>
#include <set>

namespace korvane {

using namespace std::chrono_literals;

namespace {

constexpr Milliseconds betweenChecks = 600s;
constexpr double stillFresh = 300; // seconds

/// The names in the tool's output, one a line.
std::vector<std::string> namesIn(std::string_view output)
{
    constexpr std::string_view blanks = " \t";
    std::vector<std::string> names;
    while (!output.empty()) {
        const auto end = std::min(output.find('\n'), output.size());
        std::string_view line = output.substr(0, end);
        output.remove_prefix(std::min(end + 1, output.size()));
        line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
        line = line.substr(0, line.find_last_not_of(blanks) + 1);
        if (!line.empty())
            names.emplace_back(line);
    }
    return names;
}

std::vector<ShortcutItem> withoutRepetition(std::vector<std::string> names)
{
    std::set<std::string> known;
    std::vector<ShortcutItem> items;
    for (auto &name : names)
        if (known.insert(name).second)
            items.push_back({std::move(name)});
    return items;
}

} // namespace

// The tool

ShortcutsCLI::ExecuteProcess ShortcutsCLI::tool(std::string path, std::shared_ptr<BoundedProcess> process)
{
    return [path = std::move(path), process = std::move(process)](std::vector<std::string> arguments, double timeout) {
        return process->run(path, std::move(arguments), timeout, outputLimit);
    };
}

Task<std::string> ShortcutsCLI::outputOf(std::vector<std::string> arguments, double timeout)
{
    BoundedProcess::Output output = co_await executeProcess(std::move(arguments), timeout);
    if (output.status != 0)
        throw AppError(AppError::Kind::toolExecution, "The shortcut did not complete. Check it in Shortcuts and try again.");
    co_return std::move(output.stdout);
}

Task<std::vector<std::string>> ShortcutsCLI::listNames()
{
    std::vector<std::string> arguments{"list"};
    const std::string output = co_await outputOf(std::move(arguments), listTimeout);
    co_return namesIn(output);
}

Task<void> ShortcutsCLI::run(std::string name)
{
    std::vector<std::string> arguments{"run", std::move(name)};
    co_await outputOf(std::move(arguments), runTimeout);
}

Task<void> ShortcutsCLI::view(std::string name)
{
    std::vector<std::string> arguments{"view", std::move(name)};
    co_await outputOf(std::move(arguments), viewTimeout);
}

// The service

ShortcutsService::ShortcutsService(Executor mainThread, Clock &clock, std::unique_ptr<ShortcutRunning> runner) :
    mainThread(std::move(mainThread)), clock(&clock), runner(std::move(runner))
{
}

void ShortcutsService::start()
{
    if (!runner || monitor.running())
        return;
    refresh(false);
    monitor = spawn(mainThread, monitorTask(weak_from_this(), *clock));
}

Task<void> ShortcutsService::monitorTask(std::weak_ptr<ShortcutsService> weak, Clock &clock)
{
    for (;;) {
        co_await clock.sleep(betweenChecks);
        if (const auto self = weak.lock())
            self->refresh(false);
    }
}

void ShortcutsService::stop()
{
    refreshHandle.cancel();
    monitor.cancel();
    runHandle.cancel();
}

bool ShortcutsService::isOld() const { return clock->uptime() - lastRefresh > stillFresh; }

void ShortcutsService::refresh(bool force)
{
    if (!runner || refreshing || (!force && !isOld()))
        return;
    refreshHandle = spawn(mainThread, refreshDropping(weak_from_this()));
}

Task<void> ShortcutsService::refreshDropping(std::weak_ptr<ShortcutsService> weak)
{
    const auto self = weak.lock();
    if (!self)
        co_return;
    try {
        co_await self->refreshNow();
    } catch (const std::exception &) {
        // The status line says why.
    }
}

Task<void> ShortcutsService::refreshNow()
{
    if (!runner || refreshing)
        co_return;
    const auto alive = shared_from_this();
    refreshing = true;
    statusText = L10n::text("Loading shortcuts…");
    std::exception_ptr failure;
    std::vector<std::string> names;
    try {
        names = co_await runner->listNames();
        co_await throwIfCancelled();
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        statusText = L10n::text(AppError::friendly(failure));
        refreshing = false;
        std::rethrow_exception(failure);
    }
    shortcuts = withoutRepetition(std::move(names));
    lastRefresh = clock->uptime();
    const auto count = static_cast<long long>(shortcuts->size());
    statusText =
        count > 0 ? L10n::format("%@ shortcuts", formattedCount(count, L10n::languageInUse())) : L10n::text("No shortcuts found");
    onUpdate();
    refreshing = false;
}

Task<void> ShortcutsService::run(std::string name)
{
    co_await throwIfCancelled();
    if (!runner)
        co_return;
    if (runningName.get())
        throw AppError(AppError::Kind::recoverable, "A shortcut is already running.");
    const auto alive = shared_from_this();
    runningName = name;
    startedAt = clock->now();
    std::function<void(Continuation<void>)> begin = [this, &name](Continuation<void> done) {
        runHandle = spawn(mainThread, runTask(runner, name, std::move(done)));
    };
    std::function<void()> told = [this] { runHandle.cancel(); };
    std::exception_ptr failure;
    try {
        co_await suspendToTheEnd<void>(std::move(begin), std::move(told));
    } catch (...) {
        failure = std::current_exception();
    }
    runningName = std::nullopt;
    startedAt = std::nullopt;
    if (failure)
        std::rethrow_exception(failure);
}

Task<void> ShortcutsService::runTask(std::shared_ptr<ShortcutRunning> runner, std::string name, Continuation<void> done)
{
    try {
        co_await runner->run(std::move(name));
        co_await throwIfCancelled(); // also when the tool ended well
        done.resume();
    } catch (...) {
        done.fail(std::current_exception());
    }
}

Task<void> ShortcutsService::view(std::string name)
{
    if (runner)
        co_await runner->view(std::move(name));
}

void ShortcutsService::cancelRun() { runHandle.cancel(); }

CommandRegistry::Commands ShortcutsService::commands() const
{
    CommandRegistry::Commands commands;
    // The rows, which a list on the screen may hold for long, must not keep the service alive.
    const auto self = std::const_pointer_cast<ShortcutsService>(weak_from_this().lock());
    for (const auto &item : shortcuts.get())
        commands.push_back(std::make_shared<ShortcutCommand>(item, self));
    return commands;
}

// The row

namespace {

std::vector<std::string> keywordsOf(const std::string &name)
{
    std::vector<std::string> keywords;
    const std::string lower = lowercased(name);
    std::string_view rest = lower;
    while (!rest.empty()) {
        const auto end = std::min(rest.find(' '), rest.size());
        if (end > 0)
            keywords.emplace_back(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    keywords.insert(keywords.end(), {"shortcut", "快捷指令"});
    return keywords;
}

using Operation = Task<void> (*)(std::shared_ptr<ShortcutsService>, std::string);

Task<void> runIt(std::shared_ptr<ShortcutsService> service, std::string name) { co_await service->run(std::move(name)); }
Task<void> viewIt(std::shared_ptr<ShortcutsService> service, std::string name) { co_await service->view(std::move(name)); }
Task<void> refreshIt(std::shared_ptr<ShortcutsService> service, std::string) { co_await service->refreshNow(); }

Task<void> onService(std::weak_ptr<ShortcutsService> weak, std::string name, Operation operation)
{
    if (auto service = weak.lock())
        co_await operation(std::move(service), std::move(name));
}

Row rowOf(const ShortcutItem &item, const std::weak_ptr<ShortcutsService> &service)
{
    const auto doing = [&](Operation operation) -> std::function<Task<void>()> {
        return [service, name = item.name, operation] { return onService(service, name, operation); };
    };
    return makeRow({.id = "shortcut:" + item.name,
        .title = item.name,
        .subtitle = L10n::key("Run Shortcut"),
        .keywords = keywordsOf(item.name),
        .icon = CommandIcon::symbol("wand.and.stars"),
        .kind = ResultKind::shortcut,
        .actions = {{.id = "run", .title = L10n::key("Run Shortcut"), .shortcut = "↵", .execute = doing(runIt)},
            {.id = "view", .title = L10n::key("View in Shortcuts"), .execute = doing(viewIt)},
            {.id = "refresh",
                .title = L10n::key("Refresh List"),
                .dismissal = ActionDismissal::keepOpen,
                .execute = doing(refreshIt)}}});
}

} // namespace

ShortcutCommand::ShortcutCommand(ShortcutItem given, std::weak_ptr<ShortcutsService> service) :
    item(std::move(given)), row(rowOf(item, service))
{
}

} // namespace korvane
