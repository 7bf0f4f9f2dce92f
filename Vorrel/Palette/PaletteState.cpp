#include "Vorrel/Palette/PaletteState.h"

#include "CommandCore/Calculator.h"
#include "Support/Text.h"
#include "Vorrel/Launch/Quicklinks.h"
#include "Vorrel/Palette/RelativeDate.h"
#include "Vorrel/Shell/AppLog.h"
#include "Vorrel/Shell/L10n.h"

#include <algorithm>
#include <unordered_map>

namespace korvane {

using namespace std::chrono_literals;

namespace {

constexpr std::size_t rankedRowLimit = 60;
constexpr std::size_t fileRowLimit = 30;
constexpr std::size_t fileOnlyRowLimit = 100;
constexpr int recentLaunchLimit = 8;
constexpr double applicationListAge = 15; // seconds
constexpr Milliseconds fileQuiet = 80ms;
constexpr Milliseconds clipboardQuiet = 150ms;
constexpr std::string_view applicationPrefix = "app:";
constexpr std::string_view argumentPrefix = "args:";

bool blank(std::string_view text) { return trimmed(text).empty(); }

bool passes(SearchCategory category, ResultKind kind)
{
    switch (category) {
    case SearchCategory::all: return true;
    case SearchCategory::applications: return kind == ResultKind::application;
    case SearchCategory::shortcuts: return kind == ResultKind::shortcut;
    case SearchCategory::files: return false;
    }
    return false;
}

/// The kinds in the order in which they first occur, the rows of each kind together in their order.
Rows groupedByKind(const Rows &ranked)
{
    Rows grouped;
    grouped.reserve(ranked.size());
    std::vector<ResultKind> kinds;
    for (const Row &row : ranked)
        if (std::find(kinds.begin(), kinds.end(), row->kind) == kinds.end())
            kinds.push_back(row->kind);
    for (const ResultKind kind : kinds)
        std::copy_if(
            ranked.begin(), ranked.end(), std::back_inserter(grouped), [&](const Row &row) { return row->kind == kind; });
    return grouped;
}

int indexOf(const Rows &rows, const std::string &id)
{
    const auto found = std::find_if(rows.begin(), rows.end(), [&](const Row &row) { return row->id == id; });
    return found == rows.end() ? -1 : int(found - rows.begin());
}

std::vector<std::string> keywordsOf(const CommandResult &row)
{
    // A title is found by its translation and by the words of the platform in which it is shown.
    std::vector<std::string> keywords;
    keywords.reserve(row.keywords.size() + 2);
    for (std::string title : {L10n::text(row.title), L10n::shown(row.title)})
        if (title != row.title && std::ranges::find(keywords, title) == keywords.end())
            keywords.push_back(std::move(title));
    keywords.insert(keywords.end(), row.keywords.begin(), row.keywords.end());
    return keywords;
}

struct FailureText {
    std::string sentence;
    PaletteState::FailureRecovery recovery;
    DiagnosticsService::Category category;
};

FailureText describe(const std::exception_ptr &error)
{
    using Reason = FileAccessFailure::Reason;
    constexpr auto fileAccess = DiagnosticsService::Category::fileAccess;
    try {
        std::rethrow_exception(error);
    } catch (const FileAccessFailure &failure) {
        switch (failure.reason()) {
        case Reason::permission:
            return {L10n::key("Korvane cannot read this file. Review Files & Folders access in System Settings, then retry."),
                {.rerunAction = true, .openAccessSettings = true}, fileAccess};
        case Reason::missing:
            return {L10n::key("This file no longer exists. Refresh the search results."), {.refreshResults = true}, fileAccess};
        case Reason::offline:
            return {L10n::key("This file lives on a volume that is not available right now. Reconnect the disk or network share, "
                              "then retry."),
                {.rerunAction = true}, fileAccess};
        case Reason::unavailable:
            return {L10n::key("This file cannot be read right now. Check its disk or cloud availability, then retry."),
                {.rerunAction = true}, fileAccess};
        case Reason::timeout:
            return {L10n::key("File access timed out. Respond to any macOS permission prompt, check the file is available "
                              "locally, then retry."),
                {.rerunAction = true}, fileAccess};
        case Reason::busy:
            return {
                L10n::key(
                    "A previous file access check is still waiting for macOS. Respond to its permission prompt before retrying."),
                {.rerunAction = true}, fileAccess};
        }
    } catch (...) {
    }
    return {AppError::friendly(error), {.rerunAction = true}, DiagnosticsService::Category::command};
}

bool isCancellation(const std::exception_ptr &error)
{
    try {
        std::rethrow_exception(error);
    } catch (const Cancelled &) {
        return true;
    } catch (...) {
        return false;
    }
}

} // namespace

PaletteState::PaletteState(AppServices &services, ActionCoordinator &coordinator) :
    coordinator(coordinator), services(services), searchTable(keywordsOf)
{
}

// Observation

std::vector<Subscription> PaletteState::observe(const std::function<void()> &changed)
{
    std::vector<Subscription> all;
    const auto add = [&](auto &...values) { (all.push_back(values.observe(changed)), ...); };
    add(_started, _fileDirectory, _mode, _query, _category, _actionQuery, _childTitle, _results, _selection, _errorRecovery,
        _error, _showsPreview, _showsActions, _actionSelection, _searchingFiles, _searching, _busy, _activeAgent, _aiOutput,
        _aiStatus, _argumentTarget, _argumentRecents, _newKey, coordinator._isPresenting, coordinator._checkingAccess);
    return all;
}

Row PaletteState::selectedResult() const
{
    return _selection >= 0 && std::size_t(_selection) < results().size() ? results()[std::size_t(_selection)] : nullptr;
}

std::string PaletteState::selectedIdentifier() const
{
    const Row row = selectedResult();
    return row ? row->id : std::string();
}

bool PaletteState::listIsPlain() const { return _mode == Mode::commands && !_showsActions && !childTitle(); }

void PaletteState::showOnly(Row row)
{
    confined.check();
    queryTask.cancel();
    show({std::move(row)}, {});
}

// Input

void PaletteState::setInputText(std::string text)
{
    confined.check();
    if (_busy)
        return;
    if (_showsActions)
        setActionQuery(std::move(text));
    else
        setQuery(std::move(text));
}

void PaletteState::setQuery(std::string text)
{
    confined.check();
    if (text == query())
        return;
    _query = std::move(text);
    search();
}

void PaletteState::setActionQuery(std::string text)
{
    confined.check();
    if (text == actionQuery())
        return;
    _actionQuery = std::move(text);
    _actionSelection = 0;
}

void PaletteState::select(int index)
{
    confined.check();
    if (!_busy && index >= 0 && std::size_t(index) < results().size())
        _selection = index;
}

void PaletteState::selectAction(int index)
{
    confined.check();
    if (!_busy && _showsActions && index >= 0 && std::size_t(index) < filteredActions().size())
        _actionSelection = index;
}

void PaletteState::move(int delta)
{
    confined.check();
    if (_busy || !selectedResult())
        return;
    if (_showsActions) {
        if (const int count = int(filteredActions().size()); count > 0)
            _actionSelection = (_actionSelection + delta + count) % count;
        return;
    }
    const int count = int(results().size());
    _selection = (_selection + delta + count) % count;
}

// The query pipeline

void PaletteState::search()
{
    queryTask.cancel();
    clearFailure();
    _searching = false;
    _searchingFiles = false;
    _showsPreview = false;

    if (argumentTarget())
        return showArgumentRows();
    if (childTitle())
        return showChildRows();
    if (_mode == Mode::ai) {
        _results = Rows();
        return;
    }
    if (_mode == Mode::clipboard)
        return searchClipboard();

    Rows base = baseRows();
    show(base, selectedIdentifier());
    closeActions();
    if ((filesOnly() || _category == SearchCategory::all) && !blank(query())) {
        _searchingFiles = true;
        queryTask =
            spawn(services.platform.mainThread, fileTask(weak_from_this(), services, question(), std::move(base), filesOnly()));
    }
}

void PaletteState::show(Rows rows, const std::string &keep)
{
    const int kept = keep.empty() ? -1 : indexOf(rows, keep);
    _results = std::move(rows);
    _selection = std::max(kept, 0);
}

Rows PaletteState::baseRows()
{
    if (filesOnly())
        return {};
    Rows base = groupedByKind(rankedRows());
    if (_category == SearchCategory::all)
        if (Row row = calculatorRow())
            base.insert(base.begin(), std::move(row));
    return base;
}

Rows PaletteState::rankedRows()
{
    searchTable.follow(registry);
    const auto wanted = [category = _category.get()](ResultKind kind) { return passes(category, kind); };
    return searchTable.best(query(), wanted, services.platform.clock.now(), rankedRowLimit);
}

Row PaletteState::calculatorRow() const
{
    const auto value = Calculator::value(query());
    if (!value)
        return nullptr;
    const std::string formatted = Calculator::format(*value);
    Pasteboard &pasteboard = services.platform.pasteboard;
    return makeRow({
        .id = "calculator",
        .title = formatted,
        .subtitle = query(),
        .keywords = {"calculator"},
        .icon = CommandIcon::symbol("equal.circle"),
        .keepsOpen = true,
        .actions = {{.id = "copy",
            .title = L10n::key("Copy Result"),
            .role = ActionRole::write,
            .execute = [&pasteboard, formatted] { return pasteboard.copy(formatted); }}},
    });
}

void PaletteState::showArgumentRows()
{
    Rows rows;
    for (const AppLaunchRecord &record : argumentRecents())
        if (query().empty() || containsFolded(record.arguments, query()))
            rows.push_back(argumentRow(record));
    _results = std::move(rows);
    _selection = 0;
    closeActions();
}

Row PaletteState::argumentRow(const AppLaunchRecord &record)
{
    const std::string used = L10n::text("Used ") + std::to_string(record.count) + L10n::text("× · ")
        + relativeDate(record.lastUsed, services.platform.clock.now(), L10n::languageInUse());
    auto launch = [weak = weak_from_this(), line = record.arguments]() -> Task<void> { return launchLine(weak, line); };
    return makeRow({
        .id = std::string(argumentPrefix) + record.appPath + '\x1f' + record.arguments,
        .title = record.arguments,
        .subtitle = used,
        .icon = CommandIcon::symbol("clock.arrow.circlepath"),
        .actions = {{.id = "run", .title = L10n::key("Launch With Arguments"), .execute = std::move(launch)}},
    });
}

Task<void> PaletteState::launchLine(std::weak_ptr<PaletteState> weak, std::string line)
{
    if (const auto self = weak.lock())
        self->launchWithArguments(std::move(line));
    co_return;
}

void PaletteState::showChildRows()
{
    Rows rows;
    for (const Row &row : childResults)
        if (query().empty() || containsFolded(row->title, query()))
            rows.push_back(row);
    _results = std::move(rows);
    _selection = 0;
}

void PaletteState::searchClipboard()
{
    _results = Rows();
    _selection = 0;
    _searching = true;
    queryTask = spawn(services.platform.mainThread, clipboardTask(weak_from_this(), services, query()));
}

Task<void> PaletteState::fileTask(
    std::weak_ptr<PaletteState> weak, AppServices &services, Question asked, Rows base, bool filesOnly)
{
    std::vector<FileRecord> files;
    std::exception_ptr failure;
    try {
        co_await services.platform.clock.sleep(fileQuiet);
        files = co_await services.fileIndex->search(asked.query, std::nullopt);
        co_await throwIfCancelled();
    } catch (const Cancelled &) {
        co_return;
    } catch (...) {
        failure = std::current_exception();
    }
    const bool cancelled = co_await isCancelled();
    const auto self = weak.lock();
    if (!self || cancelled || asked != self->question())
        co_return; // the user has moved on
    if (failure) {
        self->_searchingFiles = false;
        self->_error = AppError::friendly(failure);
        co_return;
    }
    if (self->childTitle() || self->argumentTarget())
        co_return;
    files.resize(std::min(files.size(), filesOnly ? fileOnlyRowLimit : fileRowLimit));
    const Rows rows = services.files.results(files);
    base.insert(base.end(), rows.begin(), rows.end());
    self->show(std::move(base), self->selectedIdentifier());
    self->_searchingFiles = false;
}

Task<void> PaletteState::clipboardTask(std::weak_ptr<PaletteState> weak, AppServices &services, std::string query)
{
    Rows rows;
    std::exception_ptr failure;
    try {
        co_await services.platform.clock.sleep(clipboardQuiet);
        rows = co_await services.clipboard->search(std::move(query));
        co_await throwIfCancelled();
    } catch (const Cancelled &) {
        co_return;
    } catch (...) {
        failure = std::current_exception();
    }
    const bool cancelled = co_await isCancelled();
    const auto self = weak.lock();
    if (!self || cancelled)
        co_return;
    if (failure) {
        self->_error = AppError::friendly(failure);
    } else {
        self->_results = std::move(rows);
        self->_error = services.clipboard->obstacle();
    }
    self->_searching = false;
}

// Modes, filters and nested lists

void PaletteState::enter(Mode mode)
{
    confined.check();
    coordinator.reset();
    _childTitle = std::nullopt;
    parentSnapshot.reset();
    _category = mode == Mode::files ? SearchCategory::files : SearchCategory::all;
    closeActions();
    aiTask.cancel();
    _mode = mode;
    _activeAgent = std::nullopt;
    _argumentTarget = nullptr;
    _argumentRecents = std::vector<AppLaunchRecord>();
    _showsPreview = false;
    _aiOutput = std::string();
    _query = std::string();
    search();
}

void PaletteState::setCategory(SearchCategory category)
{
    confined.check();
    if (_busy || argumentTarget() || childTitle())
        return;
    _category = category;
    _mode = Mode::commands;
    closeActions();
    search();
}

void PaletteState::rewriteFileQuery(const std::function<void(FileSearchQuery &)> &change)
{
    std::string text;
    try {
        FileSearchQuery parsed(query());
        change(parsed);
        text = parsed.text();
    } catch (const AppError &) {
        return; // what does not parse is left for the user to finish
    }
    setQuery(std::move(text));
}

void PaletteState::setFileKind(FileKind kind)
{
    confined.check();
    rewriteFileQuery([kind](FileSearchQuery &parsed) {
        parsed.kind = kind;
        parsed.directoriesOnly = kind == FileKind::folder ? std::optional(true) : std::nullopt;
    });
}

void PaletteState::setFileSort(std::string sort)
{
    confined.check();
    rewriteFileQuery([&](FileSearchQuery &parsed) { parsed.sort = std::move(sort); });
}

void PaletteState::chooseFileDirectory()
{
    confined.check();
    spawnDetached(services.platform.mainThread, chooseDirectoryTask(weak_from_this(), services));
}

Task<void> PaletteState::chooseDirectoryTask(std::weak_ptr<PaletteState> weak, AppServices &services)
{
    const auto chosen = co_await services.files.chooseDirectory();
    const auto self = weak.lock();
    if (!self || !chosen)
        co_return;
    bool parses = false;
    self->rewriteFileQuery([&](FileSearchQuery &parsed) {
        parses = true;
        self->_fileDirectory = *chosen;
        parsed.pathTerms = {*chosen};
    });
    if (parses)
        self->search();
}

void PaletteState::resetFileDirectory()
{
    confined.check();
    _fileDirectory = std::nullopt;
    rewriteFileQuery([](FileSearchQuery &parsed) { parsed.pathTerms.clear(); });
    search();
}

void PaletteState::leaveChild()
{
    confined.check();
    if (!parentSnapshot)
        return;
    const Snapshot parent = *std::exchange(parentSnapshot, std::nullopt);
    _childTitle = std::nullopt;
    childResults.clear();
    setQuery(parent.query);
    // Setting the text has begun a search; the parent list comes back as it was.
    queryTask.cancel();
    _searchingFiles = false;
    _results = parent.results;
    _selection = parent.selection;
    focusInput();
}

void PaletteState::beginArguments()
{
    confined.check();
    const Row row = selectedResult();
    if (argumentTarget() || _mode != Mode::commands || _showsActions || !row || !row->id.starts_with(applicationPrefix))
        return;
    _argumentTarget = row;
    _argumentRecents = std::vector<AppLaunchRecord>();
    _query = std::string();
    search();
    spawnDetached(services.platform.mainThread, loadRecents(weak_from_this(), services, row->id));
}

Task<void> PaletteState::loadRecents(std::weak_ptr<PaletteState> weak, AppServices &services, std::string id)
{
    std::vector<AppLaunchRecord> recents;
    try {
        recents = co_await services.appLaunches.recents(id.substr(applicationPrefix.size()), recentLaunchLimit);
    } catch (const std::exception &) {
        recents.clear(); // earlier lines are a convenience
    }
    const auto self = weak.lock();
    if (!self || !self->argumentTarget() || self->argumentTarget()->id != id)
        co_return;
    self->_argumentRecents = std::move(recents);
    self->search();
}

void PaletteState::exitArguments()
{
    confined.check();
    const Row target = argumentTarget();
    if (!target)
        return;
    _argumentTarget = nullptr;
    _argumentRecents = std::vector<AppLaunchRecord>();
    _query = target->title;
    search();
}

void PaletteState::escape()
{
    confined.check();
    if (coordinator.previewing())
        coordinator.reset();
    else if (_busy && _mode == Mode::ai)
        aiTask.cancel();
    else if (_showsActions)
        closeActions();
    else if (_showsPreview)
        _showsPreview = false;
    else if (childTitle())
        leaveChild();
    else if (argumentTarget())
        exitArguments();
    else if (_mode != Mode::commands)
        enter(Mode::commands);
    else
        hide();
}

void PaletteState::introduceKey(HotkeyConfiguration key)
{
    confined.check();
    _newKey = std::move(key);
}

void PaletteState::cancelWork()
{
    confined.check();
    ++_sessionGeneration;
    services.shortcuts->cancelRun();
    coordinator.reset();
    queryTask.cancel();
    aiTask.cancel();
    _searching = false;
    _searchingFiles = false;
    _newKey = std::nullopt;
}

// The action panel

void PaletteState::setShowsActions(bool shows)
{
    _showsActions = shows;
    _actionSelection = 0;
}

void PaletteState::toggleActions()
{
    confined.check();
    const Row row = selectedResult();
    if (!row || row->actions.empty())
        return;
    if (!_showsActions) {
        actionSnapshot = row->actions;
        _actionQuery = std::string();
    }
    setShowsActions(!_showsActions);
    _showsPreview = false;
}

std::vector<CommandAction> PaletteState::filteredActions() const
{
    if (actionQuery().empty())
        return actionSnapshot;
    const auto passes = [&](const CommandAction &action) {
        return containsFolded(action.title, actionQuery()) || containsFolded(L10n::text(action.title), actionQuery())
            || containsFolded(L10n::simplifiedChinese(action.title), actionQuery())
            || containsFolded(L10n::shown(action.title), actionQuery());
    };
    std::vector<CommandAction> passing;
    std::copy_if(actionSnapshot.begin(), actionSnapshot.end(), std::back_inserter(passing), passes);
    return passing;
}

void PaletteState::performKey(ActionKey key)
{
    confined.check();
    const Row row = selectedResult();
    if (!row)
        return;
    const auto found =
        std::find_if(row->actions.begin(), row->actions.end(), [&](const CommandAction &action) { return action.key == key; });
    if (found != row->actions.end())
        execute(*found);
}

void PaletteState::togglePreview()
{
    confined.check();
    const Row row = selectedResult();
    if (!row)
        return;
    if (row->preview && row->preview->kind == PreviewResource::Kind::file)
        return performKey(ActionKey::preview);
    if (row->previewText) {
        _showsPreview = !_showsPreview;
        closeActions();
    }
}

// Running an action

void PaletteState::execute(std::optional<CommandAction> action)
{
    confined.check();
    if (_busy)
        return;
    const Row row = selectedResult();
    if (argumentTarget()) {
        if (!blank(query()))
            return launchWithArguments(query());
        if (row && (action || !row->actions.empty()))
            spawnDetached(services.platform.mainThread, runArgumentRow(action ? *action : row->actions.front()));
        return;
    }
    if (_mode == Mode::ai)
        return askAI();
    if (!row)
        return;
    if (!action && _showsActions) {
        const auto filtered = filteredActions();
        if (std::size_t(_actionSelection) >= filtered.size())
            return;
        action = filtered[std::size_t(_actionSelection)];
    }
    if (!action) {
        if (row->actions.empty())
            return;
        action = row->actions.front();
    }
    _busy = true;
    _error = std::nullopt;
    _errorRecovery = FailureRecovery();
    spawnDetached(services.platform.mainThread, run(shared_from_this(), Run{*action, row, _sessionGeneration}));
}

Task<void> PaletteState::runArgumentRow(CommandAction action)
{
    try {
        if (action.execute)
            co_await action.execute();
    } catch (const std::exception &) {
        // The launch that the row starts tells of its own failure.
    }
}

Task<void> PaletteState::run(std::shared_ptr<PaletteState> self, Run run)
{
    std::exception_ptr failure;
    try {
        co_await self->services.permissions.authorize(
            run.action.role, run.action.title, L10n::key("This operation cannot be undone."));
        co_await self->runFlow(run);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure)
        self->fail(run, failure);
    else
        co_await self->finishSuccess(run);
    self->endRun();
}

Task<void> PaletteState::runFlow(const Run &run)
{
    const ActionFlow &flow = run.action.flow;
    switch (flow.kind) {
    case ActionFlow::Kind::openWith: co_await openWith(flow.path, run.generation); break;
    case ActionFlow::Kind::preview: co_await coordinator.togglePreview(flow.path); break;
    case ActionFlow::Kind::applicationInput:
        co_await coordinator.collectAndOpen(flow.path, flow.arguments, flow.folders, *services.applications);
        break;
    case ActionFlow::Kind::direct:
        if (run.action.execute)
            co_await run.action.execute();
        break;
    case ActionFlow::Kind::arguments:
        closeActions();
        beginArguments();
        break;
    }
}

Task<void> PaletteState::finishSuccess(const Run &run)
{
    AppLog::command.info("Command completed");
    const bool hides = run.action.dismissal == ActionDismissal::onSuccess
        || (run.action.dismissal == ActionDismissal::inherited && !run.row->keepsOpen);
    if (hides)
        hide();
    co_await recordUse(run.row->id);
}

Task<void> PaletteState::recordUse(std::string id)
{
    try {
        co_await services.usage.record(std::move(id));
        searchTable.setUsage(co_await services.usage.load());
    } catch (const std::exception &) {
        AppLog::command.error("Usage statistics could not be saved");
    }
}

void PaletteState::fail(const Run &run, std::exception_ptr error)
{
    if (_sessionGeneration != run.generation)
        return; // a newer session knows nothing of this run
    if (isCancellation(error)) {
        if (run.row->kind == ResultKind::shortcut)
            _error = L10n::text("Execution stopped. Earlier actions may already have completed.");
        else
            _error = std::nullopt;
        _errorRecovery = FailureRecovery();
        return;
    }
    failedAction = run.action;
    failedResult = run.row;
    FailureText text = describe(error);
    _error = std::move(text.sentence);
    _errorRecovery = text.recovery;
    services.diagnostics.recordError(text.category);
}

void PaletteState::endRun()
{
    _busy = false;
    focusInput();
}

void PaletteState::clearFailure()
{
    failedAction.reset();
    failedResult = nullptr;
    _error = std::nullopt;
    _errorRecovery = FailureRecovery();
}

void PaletteState::retrySearch()
{
    confined.check();
    if (!errorRecovery().refreshResults && failedAction && failedResult) {
        const int index = indexOf(results(), failedResult->id);
        if (index < 0)
            return search();
        _selection = index;
        return execute(*failedAction);
    }
    clearFailure();
    search();
}

void PaletteState::openFilePrivacySettings()
{
    confined.check();
    services.preferences().selectedTab = SettingsState::Tab::files;
    openSettings();
}

Task<void> PaletteState::openWith(std::string path, int generation)
{
    const Question asked = question();
    auto handlers = co_await services.files.openWithHandlers(path);
    if (generation != _sessionGeneration || asked != question())
        throw Cancelled(); // the user has moved on
    if (handlers.empty())
        throw AppError(AppError::Kind::recoverable, "No application can open this file.");
    std::stable_sort(handlers.begin(), handlers.end(),
        [](const ApplicationHandler &a, const ApplicationHandler &b) { return compareNames(a.name, b.name) < 0; });
    queryTask.cancel();
    _searchingFiles = false;
    parentSnapshot = Snapshot{query(), results(), _selection};
    _childTitle = L10n::key("Open With…");
    childResults.clear();
    const FileService &files = services.files;
    for (const auto &[name, application] : handlers) {
        auto open = [&files, path, application = application] { return files.openWith(path, application); };
        childResults.push_back(makeRow({
            .id = "handler:" + application,
            .title = name,
            .subtitle = application,
            .icon = CommandIcon::file(application),
            .actions =
                {{.id = "open", .title = L10n::key("Open"), .dismissal = ActionDismissal::onSuccess, .execute = std::move(open)}},
        }));
    }
    closeActions();
    _query = std::string();
    search();
}

void PaletteState::launchWithArguments(std::string text)
{
    if (_busy || !argumentTarget() || blank(text))
        return;
    _busy = true;
    _error = std::nullopt;
    _errorRecovery = FailureRecovery();
    spawnDetached(services.platform.mainThread,
        argumentLaunch(shared_from_this(), argumentTarget()->id, std::move(text), _sessionGeneration));
}

Task<void> PaletteState::argumentLaunch(std::shared_ptr<PaletteState> self, std::string id, std::string text, int generation)
{
    AppServices &services = self->services;
    const std::string path = id.substr(applicationPrefix.size());
    std::exception_ptr failure;
    try {
        co_await services.applications->open(path, LaunchArguments::split(text));
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        if (self->_sessionGeneration == generation)
            self->_error = AppError::friendly(failure);
        self->endRun();
        co_return;
    }
    AppLog::command.info("Application launched with arguments");
    try {
        co_await services.appLaunches.record(path, text);
    } catch (const std::exception &) {
        // The launch stands; only its line is not offered again.
    }
    self->hide();
    co_await self->recordUse(std::move(id));
    self->endRun();
}

// Sources

Task<void> PaletteState::start()
{
    confined.check();
    if (_started)
        co_return;
    const auto self = shared_from_this();
    try {
        co_await startSources();
    } catch (...) {
        _error = AppError::friendly(std::current_exception());
    }
}

Task<void> PaletteState::startSources()
{
    const std::weak_ptr<PaletteState> weak = weak_from_this();
    _started = true;
    services.applications->onIndexChange = [weak] {
        if (const auto self = weak.lock())
            self->updateApplicationCommands();
    };
    registerStaticCommands();
    services.agents().onChange = [weak] {
        if (const auto self = weak.lock())
            self->reloadAgentCommands();
    };
    co_await services.agents().load();
    co_await reloadQuicklinks();
    registry.replace("shortcut:", services.shortcuts->commands());
    services.shortcuts->onUpdate = [weak] {
        const auto self = weak.lock();
        if (!self)
            return;
        self->reloadShortcutCommands();
        if (!self->_showsActions && !self->childTitle())
            self->search();
    };
    searchTable.setUsage(co_await services.usage.load());
    services.clipboard->start();
    search();
    // Watched first: what is installed while the first scan runs would otherwise be missed.
    services.applications->startMonitoring();
    co_await services.applications->refresh();
    search();
}

void PaletteState::registerStaticCommands()
{
    const SystemService &system = services.system;
    const auto folder = [&system](std::string path) {
        return [&system, path = std::move(path)] { return system.openDirectory(path); };
    };
    const struct {
        const char *id, *title, *symbol;
        ActionRole role;
        std::function<Task<void>()> execute;
    } commands[] = {
        {"finder", L10n::key("Open Finder"), "folder", ActionRole::normal, folder("~")},
        {"downloads", L10n::key("Open Downloads"), "arrow.down.circle", ActionRole::normal, folder("~/Downloads")},
        {"applications", L10n::key("Open Applications"), "square.grid.2x2", ActionRole::normal, folder("/Applications")},
        {"lock", L10n::key("Lock Screen"), "lock", ActionRole::write, [&system] { return system.lockScreen(); }},
        {"sleep", L10n::key("Sleep"), "moon", ActionRole::write, [&system] { return system.sleep(); }},
        {"trash", L10n::key("Empty Trash"), "trash", ActionRole::destructive, [&system] { return system.emptyTrash(); }},
    };
    for (const auto &[id, title, symbol, role, execute] : commands) {
        registry.registerCommand(std::make_shared<StaticCommand>(CommandResultFields{
            .id = id,
            .title = title,
            .subtitle = L10n::key("System Command"),
            .keywords = {L10n::text(title), L10n::simplifiedChinese(title)},
            .icon = CommandIcon::symbol(symbol),
            .actions = {{.id = id, .title = title, .role = role, .execute = execute}},
        }));
    }
    registerWindowCommands();
}

/// Those that show something else in a window of this program.
void PaletteState::registerWindowCommands()
{
    const auto weak = weak_from_this();
    const auto doing = [&weak](void (*show)(PaletteState &)) -> std::function<Task<void>()> {
        return [weak, show]() -> Task<void> { return showing(weak, show); };
    };
    const char *const files = L10n::key("Search Files");
    registry.registerCommand(std::make_shared<StaticCommand>(CommandResultFields{
        .id = "files",
        .title = files,
        .subtitle = L10n::key("Open Search Files"),
        .keywords = {"files", L10n::text(files), L10n::simplifiedChinese(files)},
        .icon = CommandIcon::symbol("doc.text.magnifyingglass"),
        .keepsOpen = true,
        .actions = {{.id = "files", .title = files, .execute = doing([](PaletteState &state) { state.enter(Mode::files); })}},
    }));
    const char *const clipboard = L10n::key("Clipboard History");
    registry.registerCommand(std::make_shared<StaticCommand>(CommandResultFields{
        .id = "clipboard",
        .title = clipboard,
        .subtitle = L10n::key("Open Clipboard History"),
        .keywords = {"clipboard", L10n::text(clipboard), L10n::simplifiedChinese(clipboard)},
        .icon = CommandIcon::symbol("clipboard"),
        .keepsOpen = true,
        .actions = {{.id = "clipboard", .title = clipboard, .execute = doing([](PaletteState &state) {
                         state.enter(Mode::clipboard);
                     })}},
    }));
    const char *const ai = L10n::key("Ask AI");
    registry.registerCommand(std::make_shared<StaticCommand>(CommandResultFields{
        .id = "ai",
        .title = ai,
        .subtitle = L10n::key("Open Ask AI"),
        .keywords = {"ai", L10n::text(ai), L10n::simplifiedChinese(ai)},
        .icon = CommandIcon::symbol("sparkles"),
        .keepsOpen = true,
        .actions = {{.id = "ai", .title = ai, .execute = doing([](PaletteState &state) { state.enter(Mode::ai); })}},
    }));
    const char *const settings = L10n::key("Open Settings");
    registry.registerCommand(std::make_shared<StaticCommand>(CommandResultFields{
        .id = "settings",
        .title = settings,
        .subtitle = L10n::key("Hotkey · Clipboard · AI · MCP"),
        .keywords = {"preferences"},
        .icon = CommandIcon::symbol("gearshape"),
        .actions = {{.id = "settings", .title = settings, .execute = doing([](PaletteState &state) { state.openSettings(); })}},
    }));
}

Task<void> PaletteState::showing(std::weak_ptr<PaletteState> weak, void (*show)(PaletteState &))
{
    if (const auto self = weak.lock())
        show(*self);
    co_return;
}

template <class Reload> void PaletteState::reporting(Reload reload)
{
    try {
        reload();
    } catch (...) {
        _error = AppError::friendly(std::current_exception());
    }
}

void PaletteState::updateApplicationCommands()
{
    const std::string selected = selectedIdentifier();
    reporting([this] { registry.replace(applicationPrefix, services.applications->commands()); });
    if (!listIsPlain())
        return;
    search();
    if (const int index = selected.empty() ? -1 : indexOf(results(), selected); index >= 0)
        _selection = index;
}

void PaletteState::reloadAgentCommands()
{
    CommandRegistry::Commands family;
    for (const Agent &agent : services.agents().agents()) {
        auto open = [weak = weak_from_this(), agent]() -> Task<void> { return enterAgent(weak, agent); };
        family.push_back(std::make_shared<StaticCommand>(CommandResultFields{
            .id = "agent:" + agent.id,
            .title = agent.name,
            .subtitle = "Agent · " + agent.model,
            .keywords = {"agent", "ai"},
            .icon = CommandIcon::symbol(agent.icon),
            .keepsOpen = true,
            .actions = {{.id = "agent:" + agent.id, .title = agent.name, .execute = std::move(open)}},
        }));
    }
    reporting([&] { registry.replace("agent:", family); });
    if (listIsPlain())
        search();
}

Task<void> PaletteState::enterAgent(std::weak_ptr<PaletteState> weak, Agent agent)
{
    if (const auto self = weak.lock()) {
        self->enter(Mode::ai);
        self->_activeAgent = std::move(agent);
    }
    co_return;
}

Task<void> PaletteState::reloadQuicklinks()
{
    auto links = co_await services.quicklinks.load();
    CommandRegistry::Commands commands;
    for (auto &link : links)
        commands.push_back(std::make_shared<QuicklinkCommand>(std::move(link), services.platform.workspace));
    registry.replace("quicklink:", std::move(commands));
}

void PaletteState::reloadShortcutCommands()
{
    confined.check();
    reporting([this] { registry.replace("shortcut:", services.shortcuts->commands()); });
}

Task<void> PaletteState::refreshApplications()
{
    confined.check();
    // Also after the wall clock was set back, which would make the list look new for a long time.
    const double age = services.platform.clock.now() - services.applications->lastRefresh();
    if (age > applicationListAge || age < 0)
        co_await services.applications->refresh();
}

void PaletteState::refreshQuicklinks()
{
    confined.check();
    spawnDetached(services.platform.mainThread, refreshQuicklinksTask(weak_from_this(), _sessionGeneration));
}

Task<void> PaletteState::refreshQuicklinksTask(std::weak_ptr<PaletteState> weak, int generation)
{
    const auto self = weak.lock();
    if (!self)
        co_return;
    std::exception_ptr failure;
    try {
        co_await self->reloadQuicklinks();
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        if (self->_sessionGeneration == generation)
            self->_error = AppError::friendly(failure);
    } else if (self->listIsPlain()) {
        self->search();
    }
}

} // namespace korvane
