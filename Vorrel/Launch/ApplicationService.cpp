#include "Vorrel/Launch/ApplicationService.h"

#include "CommandCore/SearchRanker.h"
#include "Support/Base64.h"
#include "Support/Text.h"
#include "Vorrel/Shell/L10n.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <set>
#include <sys/stat.h>

namespace korvane {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr Milliseconds rescanInterval = 60s;
constexpr Milliseconds changeDebounce = 200ms; // long enough to take an installation's files together
constexpr int deepestFolder = 32;

bool hasExtension(const fs::path &path, const std::string &extension) { return path.extension().native() == "." + extension; }

std::string fileNameWithoutExtension(const std::string &path) { return fs::path(path).stem().native(); }

} // namespace

JSONValue ApplicationRecord::json() const
{
    JSONValue::Object object{
        {"name", displayable(name)}, {"bundleIdentifier", displayable(bundleIdentifier)}, {"path", displayable(path)}};
    if (!isValidUTF8(path))
        object.emplace("pathBytes", base64(path));
    return object;
}

// The scan

namespace {

/// One scan's walk and what it has found so far. Blocks.
class ApplicationWalk {
public:
    explicit ApplicationWalk(const ApplicationSource &source) : source(source), extension(source.extension()) { }

    void visitRoot(const std::string &root)
    {
        entered.clear();
        visitFolder(root, root, 0);
        // Last, so that a folder with two names is entered by its real one.
        while (!linkedFolders.empty()) {
            const auto [path, depth] = std::move(linkedFolders.back());
            linkedFolders.pop_back();
            visitFolder(root, path, depth);
        }
    }

    std::vector<ApplicationRecord> sortedRecords()
    {
        std::vector<ApplicationRecord> records;
        for (auto &[identifier, record] : byIdentifier) {
            if (AppActionCatalog::actions(identifier).empty())
                record.ownActions = source.actions(record.path);
            records.push_back(std::move(record));
        }
        std::stable_sort(records.begin(), records.end(),
            [](const auto &left, const auto &right) { return compareNames(left.name, right.name) < 0; });
        return records;
    }

private:
    void visitFolder(const std::string &root, const std::string &folder, int depth)
    {
        struct stat status { };
        if (depth > deepestFolder || ::stat(folder.c_str(), &status) != 0)
            return;
        if (!entered.emplace(status.st_dev, status.st_ino).second)
            return;
        std::error_code failed;
        // By name, so that what wins does not hang on the order in which a file system lists.
        std::map<std::string, fs::directory_entry> children;
        for (fs::directory_iterator at(folder, failed), end; !failed && at != end; at.increment(failed))
            children.emplace(at->path().filename().native(), *at);
        for (const auto &[name, child] : children)
            if (!name.starts_with('.'))
                visitChild(root, child, depth);
    }

    void visitChild(const std::string &root, const fs::directory_entry &child, int depth)
    {
        const std::string &path = child.path().native();
        std::error_code failed;
        if (hasExtension(child.path(), extension))
            take(root, path);
        else if (!child.is_directory(failed))
            return;
        else if (child.is_symlink(failed))
            linkedFolders.emplace_back(path, depth + 1);
        else
            visitFolder(root, path, depth + 1);
    }

    void take(const std::string &root, const std::string &path)
    {
        const auto entry = source.read(root, path);
        if (!entry)
            return;
        const std::string identifier = entry->identifier.empty() ? path : entry->identifier;
        // Where one root lies in another, one file is met under two identifiers; it is one application.
        if (const auto known = identifierByPath.find(path); known != identifierByPath.end())
            forget(known->second);
        forget(identifier);
        if (!entry->listed)
            return;
        identifierByPath[path] = identifier;
        byIdentifier[identifier] = ApplicationRecord{entry->name, identifier, path};
    }

    void forget(std::string identifier)
    {
        const auto found = byIdentifier.find(identifier);
        if (found == byIdentifier.end())
            return;
        identifierByPath.erase(found->second.path);
        byIdentifier.erase(found);
    }

    const ApplicationSource &source;
    const std::string extension;
    std::map<std::string, ApplicationRecord> byIdentifier;
    std::unordered_map<std::string, std::string> identifierByPath;
    std::set<std::pair<dev_t, ino_t>> entered; // folders of the present root
    std::vector<std::pair<std::string, int>> linkedFolders; // of the present root, still to enter; with their depth
};

} // namespace

ApplicationIndexer::ApplicationIndexer(Executor pool, const ApplicationSource &source) :
    actor(std::move(pool)), source(source) { }

Task<std::vector<ApplicationRecord>> ApplicationIndexer::scan()
{
    auto work = [&source = source](std::stop_token) {
        ApplicationWalk walk(source);
        for (const auto &root : source.roots())
            walk.visitRoot(root);
        return walk.sortedRecords();
    };
    co_return co_await actor.run(std::move(work));
}

// The list

Task<void> ApplicationService::refresh()
{
    const auto running = beginRefresh();
    co_await running->wait();
}

std::shared_ptr<AsyncEvent> ApplicationService::beginRefresh()
{
    confined.check();
    if (!refreshTask) {
        refreshTask = std::make_shared<AsyncEvent>();
        spawnDetached(ports.mainThread, scan(weak_from_this(), ports.indexer, refreshTask));
    }
    return refreshTask;
}

Task<void> ApplicationService::scan(Weak weak, std::shared_ptr<ApplicationIndexing> indexer, std::shared_ptr<AsyncEvent> done)
{
    auto records = co_await indexer->scan();
    if (const auto self = weak.lock())
        self->publish(std::move(records));
    done->fire();
}

void ApplicationService::publish(std::vector<ApplicationRecord> records)
{
    _applications = std::move(records);
    _lastRefresh = ports.clock.now();
    if (onIndexChange)
        onIndexChange();
    refreshTask = nullptr;
}

void ApplicationService::startMonitoring()
{
    confined.check();
    if (std::exchange(monitoring, true))
        return;
    watcher = spawn(ports.mainThread, rescanPeriodically(weak_from_this(), ports.clock));
    if (!ports.folderWatcher)
        return;
    follower = spawn(ports.mainThread, follow(weak_from_this(), ports.folderWatcher->watch(ports.source.roots())));
    // What came between a scan that has begun and the watch is known to neither.
    if (refreshTask || std::isfinite(_lastRefresh))
        noticeChange();
}

void ApplicationService::stop()
{
    confined.check();
    watcher.cancel();
    follower.cancel();
    changeTask.cancel();
    changePending = false;
    monitoring = false;
}

Task<void> ApplicationService::rescanPeriodically(Weak weak, Clock &clock)
{
    for (;;) {
        co_await clock.sleep(rescanInterval);
        std::shared_ptr<AsyncEvent> running;
        if (const auto self = weak.lock())
            running = self->beginRefresh();
        if (running)
            co_await running->wait();
    }
}

Task<void> ApplicationService::follow(Weak weak, AsyncStream<bool> changes)
{
    while (co_await changes.next())
        if (const auto self = weak.lock())
            self->noticeChange();
}

void ApplicationService::noticeChange()
{
    if (!std::exchange(changePending, true))
        changeTask = spawn(ports.mainThread, refreshSoon(weak_from_this(), ports.clock));
}

Task<void> ApplicationService::refreshSoon(Weak weak, Clock &clock)
{
    co_await clock.sleep(changeDebounce);
    for (;;) {
        // A scan in flight may have passed by what changed; only one that begins now is sure to see it.
        std::shared_ptr<AsyncEvent> running;
        if (const auto self = weak.lock()) {
            running = self->refreshTask;
            if (!running) {
                self->changePending = false;
                self->beginRefresh();
            }
        }
        if (!running)
            co_return;
        co_await running->wait();
    }
}

CommandRegistry::Commands ApplicationService::commands()
{
    confined.check();
    CommandRegistry::Commands commands;
    std::unordered_map<std::string, std::shared_ptr<const Command>> next;
    for (const auto &record : _applications) {
        const auto found = built.find(record.path);
        std::shared_ptr<const Command> command;
        if (found != built.end() && static_cast<const ApplicationCommand &>(*found->second).record == record)
            command = found->second;
        else
            command = std::make_shared<ApplicationCommand>(record, weak_from_this());
        next.emplace(record.path, command);
        commands.push_back(std::move(command));
    }
    built = std::move(next);
    return commands;
}

namespace {

/// What finds an application beside its name.
std::vector<std::string> identifyingKeywords(const ApplicationRecord &record)
{
    return {record.bundleIdentifier, fileNameWithoutExtension(record.path),
        AppActionCatalog::isVSCode(record.bundleIdentifier) ? "vscode" : ""};
}

} // namespace

std::vector<ApplicationRecord> ApplicationService::search(std::string_view query) const
{
    confined.check();
    std::vector<std::pair<double, const ApplicationRecord *>> matches;
    const double now = ports.clock.now();
    const PreparedQuery prepared(query);
    for (const auto &record : _applications) {
        const SearchKeys keys(record.name, identifyingKeywords(record));
        if (const auto score = SearchRanker{}.score(prepared, keys, nullptr, now))
            matches.emplace_back(*score, &record);
    }
    std::stable_sort(
        matches.begin(), matches.end(), [](const auto &left, const auto &right) { return left.first > right.first; });
    std::vector<ApplicationRecord> records;
    for (const auto &match : matches)
        records.push_back(*match.second);
    return records;
}

// Launching

namespace {

[[noreturn]] void throwLaunchFailure()
{
    throw AppError(AppError::Kind::toolExecution, "The application could not be launched.");
}

} // namespace

/// `path` in its standard form, if an application lies there; else throws.
Task<std::string> ApplicationService::installed(std::string path) const
{
    std::error_code failed;
    fs::path standard = fs::absolute(ports.folders.expandingTilde(path), failed).lexically_normal();
    if (!standard.has_filename())
        standard = standard.parent_path();
    const bool named = !failed && path.find('\0') == std::string::npos && hasExtension(standard, ports.source.extension());
    auto look = [file = standard.native()](std::stop_token) {
        std::error_code unreadable;
        return fs::exists(file, unreadable);
    };
    Actor disk(ports.pool.value_or(ports.mainThread));
    const bool there = named && co_await disk.run(std::move(look));
    if (!there)
        throw AppError(AppError::Kind::toolExecution, "Choose an installed application bundle.");
    co_return standard.native();
}

Task<void> ApplicationService::open(std::string path, std::vector<std::string> arguments)
{
    confined.check();
    std::string application = co_await installed(std::move(path));
    try {
        co_await ports.launcher.launch(std::move(application), std::move(arguments));
    } catch (const Cancelled &) {
        throw;
    } catch (...) {
        throwLaunchFailure();
    }
}

Task<void> ApplicationService::openAction(std::string path, std::string actionId)
{
    confined.check();
    std::string application = co_await installed(std::move(path));
    try {
        co_await ports.launcher.launchAction(std::move(application), std::move(actionId));
    } catch (const Cancelled &) {
        throw;
    } catch (...) {
        throwLaunchFailure();
    }
}

Task<void> ApplicationService::reveal(std::string path)
{
    confined.check();
    co_await ports.workspace.reveal(std::move(path));
}

// The row

namespace {

using Weak = std::weak_ptr<ApplicationService>;

std::shared_ptr<ApplicationService> alive(const Weak &weak)
{
    auto service = weak.lock();
    if (!service)
        throwLaunchFailure();
    return service;
}

Task<void> openThrough(Weak weak, std::string path, std::vector<std::string> arguments)
{
    const auto service = alive(weak);
    co_await service->open(std::move(path), std::move(arguments));
}

Task<void> openActionThrough(Weak weak, std::string path, std::string actionId)
{
    const auto service = alive(weak);
    co_await service->openAction(std::move(path), std::move(actionId));
}

Task<void> revealThrough(Weak weak, std::string path)
{
    const auto service = alive(weak);
    co_await service->reveal(std::move(path));
}

CommandAction catalogueAction(const AppLaunchAction &known, const std::string &path, const Weak &service)
{
    const bool folder = known.id == "folder";
    const bool asksForInput = folder || known.id == "diff";
    return {.id = known.id,
        .title = known.title,
        .flow = asksForInput ? ActionFlow::applicationInput(path, known.arguments, folder) : ActionFlow::direct(),
        .execute = [service, path, arguments = known.arguments] { return openThrough(service, path, arguments); }};
}

CommandAction ownAction(const ApplicationOwnAction &own, const std::string &path, const Weak &service)
{
    return {.id = "action:" + own.id, .title = own.title, .execute = [service, path, id = own.id] {
                return openActionThrough(service, path, id);
            }};
}

std::vector<CommandAction> actionsOf(const ApplicationRecord &record, const Weak &service)
{
    const std::string &path = record.path;
    std::vector<CommandAction> actions;
    actions.push_back({.id = "open", .title = L10n::key("Open Application"), .shortcut = "↵", .execute = [service, path] {
                           return openThrough(service, path, {});
                       }});
    const auto &known = AppActionCatalog::actions(record.bundleIdentifier);
    for (const auto &one : known)
        actions.push_back(catalogueAction(one, path, service));
    if (known.empty())
        for (const auto &one : record.ownActions)
            actions.push_back(ownAction(one, path, service));
    actions.push_back(
        {.id = "reveal", .title = L10n::key("Show in Finder"), .key = ActionKey::reveal, .execute = [service, path] {
             return revealThrough(service, path);
         }});
    actions.push_back({.id = "arguments",
        .title = L10n::key("Advanced Arguments…"),
        .shortcut = "⇥",
        .dismissal = ActionDismissal::keepOpen,
        .flow = ActionFlow::argumentInput()});
    return actions;
}

Row rowOf(const ApplicationRecord &record, const Weak &service)
{
    auto keywords = identifyingKeywords(record);
    keywords.insert(keywords.end(), {"application", "应用", "打开"});
    return makeRow({.id = "app:" + record.path,
        .title = record.name,
        .subtitle = record.bundleIdentifier + " · " + record.path,
        .keywords = std::move(keywords),
        .icon = CommandIcon::file(record.path),
        .kind = ResultKind::application,
        .actions = actionsOf(record, service)});
}

} // namespace

ApplicationCommand::ApplicationCommand(ApplicationRecord given, std::weak_ptr<ApplicationService> owner) :
    record(std::move(given)), service(std::move(owner)), row(rowOf(record, service))
{
}

// What is known beforehand

namespace {

using Catalogue = std::map<std::string, std::vector<AppLaunchAction>, std::less<>>;

const std::vector<AppLaunchAction> chromeActions{{"new-window", L10n::key("New Window"), {"--new-window"}},
    {"incognito", L10n::key("New Incognito Window"), {"--incognito", "--new-window"}}};
const std::vector<AppLaunchAction> edgeActions{{"new-window", L10n::key("New Window"), {"--new-window"}},
    {"inprivate", L10n::key("New InPrivate Window"), {"--inprivate", "--new-window"}}};
const std::vector<AppLaunchAction> braveActions{{"new-window", L10n::key("New Window"), {"--new-window"}},
    {"private", L10n::key("New Private Window"), {"--incognito", "--new-window"}}};
const std::vector<AppLaunchAction> vscodeActions{{"new-window", L10n::key("New Window"), {"--new-window"}},
    {"folder", L10n::key("Open Folder…"), {"--new-window"}}, {"diff", L10n::key("Diff Two Files"), {"--diff"}}};
const std::vector<AppLaunchAction> vscodiumActions{{"new-window", L10n::key("New Window"), {"--new-window"}}};

/// The editor's identifiers: its bundle, then its packages, Flatpak and Snap.
constexpr std::array<std::string_view, 5> vscodeIdentifiers{
    "com.microsoft.VSCode", "code", "visual-studio-code", "com.visualstudio.code", "code_code"};

Catalogue makeCatalogue()
{
    Catalogue catalogue;
    for (const auto id : {"com.google.Chrome", "google-chrome", "google-chrome-stable"})
        catalogue.emplace(id, chromeActions);
    for (const auto id : {"com.microsoft.edgemac", "microsoft-edge", "com.microsoft.Edge"})
        catalogue.emplace(id, edgeActions);
    for (const auto id : {"com.brave.Browser", "brave-browser", "brave_brave"})
        catalogue.emplace(id, braveActions);
    for (const auto id : vscodeIdentifiers)
        catalogue.emplace(id, vscodeActions);
    for (const auto id : {"com.vscodium.vscodium", "codium", "vscodium", "com.vscodium.codium", "codium_codium"})
        catalogue.emplace(id, vscodiumActions);
    return catalogue;
}

} // namespace

const std::vector<AppLaunchAction> &AppActionCatalog::actions(std::string_view identifier)
{
    static const Catalogue catalogue = makeCatalogue();
    static const std::vector<AppLaunchAction> none;
    const auto found = catalogue.find(identifier);
    return found == catalogue.end() ? none : found->second;
}

bool AppActionCatalog::isVSCode(std::string_view identifier)
{
    return std::find(vscodeIdentifiers.begin(), vscodeIdentifiers.end(), identifier) != vscodeIdentifiers.end();
}

std::vector<std::string> LaunchArguments::split(std::string_view line)
{
    std::vector<std::string> arguments;
    std::string token;
    std::string_view quote;
    const auto endToken = [&] {
        if (!token.empty())
            arguments.push_back(std::exchange(token, {}));
    };
    for (const auto character : characters(line)) {
        if (character == quote)
            quote = {};
        else if (!quote.empty())
            token += character;
        else if (character == "\"" || character == "'")
            quote = character;
        else if (isWhitespace(character))
            endToken();
        else
            token += character;
    }
    endToken();
    return arguments;
}

} // namespace korvane
