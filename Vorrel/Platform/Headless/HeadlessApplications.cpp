#include "Vorrel/Platform/Headless/HeadlessApplications.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

namespace korvane {

// Bundles

void HeadlessApplicationSource::describe(std::string path, Information information)
{
    std::scoped_lock lock(mutex);
    described.insert_or_assign(std::move(path), std::move(information));
}

void HeadlessApplicationSource::setActions(std::string path, std::vector<ApplicationOwnAction> actions)
{
    std::scoped_lock lock(mutex);
    ownActions.insert_or_assign(std::move(path), std::move(actions));
}

void HeadlessApplicationSource::setListed(std::string path, bool isListed)
{
    std::scoped_lock lock(mutex);
    listed.insert_or_assign(std::move(path), isListed);
}

namespace {

/// The value of a key, if it is there and is text.
const std::string *textOf(const HeadlessApplicationSource::Information &information, const std::string &key)
{
    const auto found = information.find(key);
    return found == information.end() ? nullptr : std::get_if<std::string>(&found->second);
}

} // namespace

std::optional<ApplicationEntry> HeadlessApplicationSource::read(const std::string &, const std::string &path) const
{
    std::scoped_lock lock(mutex);
    ApplicationEntry entry{.name = std::filesystem::path(path).stem().native(), .identifier = {}};
    if (const auto found = listed.find(path); found != listed.end())
        entry.listed = found->second;
    const auto bundle = described.find(path);
    if (bundle == described.end())
        return entry;
    if (const auto *display = textOf(bundle->second, "CFBundleDisplayName"))
        entry.name = *display;
    else if (const auto *name = textOf(bundle->second, "CFBundleName"))
        entry.name = *name;
    if (const auto *identifier = textOf(bundle->second, "CFBundleIdentifier"))
        entry.identifier = *identifier;
    return entry;
}

std::vector<ApplicationOwnAction> HeadlessApplicationSource::actions(const std::string &path) const
{
    std::scoped_lock lock(mutex);
    const auto found = ownActions.find(path);
    return found == ownActions.end() ? std::vector<ApplicationOwnAction>{} : found->second;
}

// Launching

void HeadlessApplicationLauncher::start(Launch launch)
{
    if (refuses)
        throw std::runtime_error("refused");
    launches.push_back(std::move(launch));
}

Task<void> HeadlessApplicationLauncher::launch(std::string path, std::vector<std::string> arguments)
{
    co_await yieldOnce();
    start({std::move(path), std::move(arguments)});
}

Task<void> HeadlessApplicationLauncher::launchAction(std::string path, std::string actionId)
{
    co_await yieldOnce();
    start({std::move(path), {}, std::move(actionId)});
}

// Folders

AsyncStream<bool> HeadlessFolderWatcher::watch(std::vector<std::string> folders)
{
    const int number = next++;
    AsyncStream<bool> stream;
    watches->emplace(number, Watch{std::move(folders), stream});
    stream.onTermination([weak = std::weak_ptr(watches), number] {
        if (const auto all = weak.lock())
            all->erase(number);
    });
    return stream;
}

void HeadlessFolderWatcher::change(const std::string &folder)
{
    const auto concerned = [&](const std::string &watched) { return folder == watched || folder.starts_with(watched + "/"); };
    for (const auto &[number, watch] : *watches)
        if (std::any_of(watch.folders.begin(), watch.folders.end(), concerned))
            watch.stream.yield(true);
}

std::vector<std::string> HeadlessFolderWatcher::watched() const
{
    std::vector<std::string> folders;
    for (const auto &[number, watch] : *watches)
        folders.insert(folders.end(), watch.folders.begin(), watch.folders.end());
    return folders;
}

// Files

Task<bool> HeadlessWorkspace::open(std::string pathOrURL)
{
    co_await yieldOnce();
    if (!refuses)
        opened.push_back(std::move(pathOrURL));
    co_return !refuses;
}

Task<void> HeadlessWorkspace::openWith(std::string path, std::string application)
{
    co_await yieldOnce();
    if (refuses)
        throw std::runtime_error("refused");
    openedWith.emplace_back(std::move(path), std::move(application));
}

Task<void> HeadlessWorkspace::reveal(std::string path)
{
    co_await yieldOnce();
    revealed.push_back(std::move(path));
}

Task<std::vector<ApplicationHandler>> HeadlessWorkspace::handlers(std::string)
{
    ++asked;
    co_await yieldOnce();
    co_return offered;
}

} // namespace korvane
