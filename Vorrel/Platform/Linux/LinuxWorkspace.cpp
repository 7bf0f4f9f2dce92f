#include "Vorrel/Platform/Linux/LinuxWorkspace.h"

#include "Support/Text.h"
#include "Vorrel/Platform/Linux/MessageBus.h"

#include <algorithm>
#include <filesystem>
#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>
#include <memory>

namespace korvane {

using namespace std::chrono_literals;

namespace {

constexpr Milliseconds fileManagerLimit = 5000ms;

struct Free {
    void operator()(char *text) const { g_free(text); }
    void operator()(GAppInfo *application) const { g_object_unref(application); }
};
using Text = std::unique_ptr<char, Free>;
using Application = std::unique_ptr<GAppInfo, Free>;

std::string addressOf(const std::string &path)
{
    const Text uri(g_filename_to_uri(path.c_str(), nullptr, nullptr));
    return uri ? uri.get() : std::string();
}

ExecLine::Target targetOf(const std::string &pathOrURL)
{
    if (pathOrURL.starts_with('/'))
        return {pathOrURL, addressOf(pathOrURL)};
    if (const Text path(g_filename_from_uri(pathOrURL.c_str(), nullptr, nullptr)); path)
        return {path.get(), pathOrURL};
    return {{}, pathOrURL};
}

std::string contentType(const std::string &path)
{
    std::error_code failed;
    if (std::filesystem::is_directory(path, failed))
        return "inode/directory";
    const Text type(g_content_type_guess(path.c_str(), nullptr, 0, nullptr));
    return type ? type.get() : "application/octet-stream";
}

std::string entryPath(GAppInfo *application)
{
    const char *path =
        G_IS_DESKTOP_APP_INFO(application) ? g_desktop_app_info_get_filename(G_DESKTOP_APP_INFO(application)) : nullptr;
    return path ? path : "";
}

/// The desktop entry of the default application; empty without one. Blocks.
std::string defaultApplication(const ExecLine::Target &target)
{
    Application application;
    if (!target.path.empty())
        application.reset(g_app_info_get_default_for_type(contentType(target.path).c_str(), FALSE));
    else if (const Text scheme(g_uri_parse_scheme(target.uri.c_str())); scheme)
        application.reset(g_app_info_get_default_for_uri_scheme(scheme.get()));
    return application ? entryPath(application.get()) : std::string();
}

/// The desktop entries that can open `path`, the default first, each once. Blocks.
std::vector<std::string> applicationsFor(const std::string &path)
{
    std::vector<std::string> entries;
    const auto append = [&](GAppInfo *application) {
        auto entry = entryPath(application);
        if (!entry.empty() && std::find(entries.begin(), entries.end(), entry) == entries.end())
            entries.push_back(std::move(entry));
    };
    const auto type = contentType(path);
    if (const Application preferred(g_app_info_get_default_for_type(type.c_str(), FALSE)); preferred)
        append(preferred.get());
    GList *const all = g_app_info_get_all_for_type(type.c_str());
    for (GList *at = all; at; at = at->next)
        append(G_APP_INFO(at->data));
    g_list_free_full(all, g_object_unref);
    return entries;
}

/// What the entry calls its application; an entry that does not tell is called like its file. Blocks.
std::string nameOf(const std::string &entry, const DesktopEnvironment &desktop)
{
    const auto read = DesktopEntry::read(entry, desktop);
    return read && !read->name.empty() ? read->name : std::filesystem::path(entry).stem().native();
}

bool showInFileManager(const std::string &bus, const std::string &path)
{
    const auto connection = MessageBus::open(bus, fileManagerLimit);
    if (!connection)
        return false;
    const std::string address = addressOf(path);
    const char *const addresses[] = {address.c_str(), nullptr};
    const BusObject manager{"org.freedesktop.FileManager1", "/org/freedesktop/FileManager1", "org.freedesktop.FileManager1"};
    return connection->call(manager, "ShowItems", g_variant_new("(^ass)", addresses, "")).outcome == BusReply::Outcome::done;
}

} // namespace

Task<bool> LinuxWorkspace::open(std::string pathOrURL)
{
    if (pathOrURL.empty() || pathOrURL.find('\0') != std::string::npos)
        co_return false;
    Actor actor(pool);
    ExecLine::Target target = targetOf(pathOrURL);
    auto find = [target](std::stop_token) { return defaultApplication(target); };
    std::string application = co_await actor.run(std::move(find));
    if (application.empty())
        co_return false;
    try {
        co_await launcher.launchWithTarget(std::move(application), std::move(target));
    } catch (const Cancelled &) {
        throw;
    } catch (...) {
        co_return false;
    }
    co_return true;
}

Task<void> LinuxWorkspace::openWith(std::string path, std::string application)
{
    ExecLine::Target target = targetOf(path);
    co_await launcher.launchWithTarget(std::move(application), std::move(target));
}

Task<void> LinuxWorkspace::reveal(std::string path)
{
    Actor actor(pool);
    auto show = [bus = launcher.sessionBus(), path](std::stop_token) { return showInFileManager(bus, path); };
    if (!co_await actor.run(std::move(show)))
        co_await open(std::filesystem::path(path).parent_path().native());
}

Task<std::vector<ApplicationHandler>> LinuxWorkspace::handlers(std::string path)
{
    Actor actor(pool);
    auto find = [path = std::move(path), desktop = launcher.desktop()](std::stop_token) {
        std::vector<ApplicationHandler> found;
        for (auto &entry : applicationsFor(path)) {
            auto name = nameOf(entry, desktop);
            found.push_back({std::move(name), std::move(entry)});
        }
        return found;
    };
    co_return co_await actor.run(std::move(find));
}

} // namespace korvane
