#include "Vorrel/Platform/Linux/LinuxSystemControl.h"

#include "Vorrel/Platform/Linux/MessageBus.h"
#include "Vorrel/Platform/Linux/SettingsPages.h"

#include <gio/gio.h>

#include <sys/stat.h>
#include <unistd.h>

namespace korvane {

namespace {

using Surroundings = LinuxSystemControl::Surroundings;
using Outcome = BusReply::Outcome;

const BusObject screenSaver{"org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver", "org.freedesktop.ScreenSaver"};
const BusObject loginManager{"org.freedesktop.login1", "/org/freedesktop/login1", "org.freedesktop.login1.Manager"};
const BusObject fileManager{"org.freedesktop.FileManager1", "/org/freedesktop/FileManager1", "org.freedesktop.FileManager1"};

SystemOutcome outcomeOf(Outcome outcome)
{
    switch (outcome) {
    case Outcome::done: return SystemOutcome::done;
    case Outcome::absent: return SystemOutcome::unavailable;
    case Outcome::refused:
    case Outcome::late: return SystemOutcome::refused;
    }
    return SystemOutcome::refused;
}

Outcome askScreenSaver(const Surroundings &surroundings, std::stop_token stop)
{
    const auto bus = MessageBus::open(surroundings.buses.session, surroundings.limit, std::move(stop));
    return bus ? bus->call(screenSaver, "Lock", nullptr).outcome : Outcome::absent;
}

/// The object of the session that this process belongs to, by its path.
std::string sessionPath(MessageBus &bus)
{
    const auto reply = bus.call(loginManager, "GetSessionByPID", g_variant_new("(u)", static_cast<guint32>(::getpid())));
    if (reply.outcome != Outcome::done || !g_variant_is_of_type(reply.values.get(), G_VARIANT_TYPE("(o)")))
        return "/org/freedesktop/login1/session/auto"; // a service of the user's: login1 takes the user's own session
    const char *path = nullptr;
    g_variant_get(reply.values.get(), "(&o)", &path);
    return path;
}

/// login1 tells the session's own desktop to lock itself.
Outcome askLoginManager(const Surroundings &surroundings, std::stop_token stop)
{
    const auto bus = MessageBus::open(surroundings.buses.system, surroundings.limit, std::move(stop));
    if (!bus)
        return Outcome::absent;
    if (!surroundings.session.empty())
        return bus->call(loginManager, "LockSession", g_variant_new("(s)", surroundings.session.c_str())).outcome;
    const BusObject session{loginManager.service, sessionPath(*bus), "org.freedesktop.login1.Session"};
    return bus->call(session, "Lock", nullptr).outcome;
}

SystemOutcome lockSession(const Surroundings &surroundings, const std::stop_token &stop)
{
    const Outcome first = askScreenSaver(surroundings, stop);
    return outcomeOf(first == Outcome::absent ? askLoginManager(surroundings, stop) : first);
}

SystemOutcome suspendMachine(const Surroundings &surroundings, const std::stop_token &stop)
{
    const auto bus = MessageBus::open(surroundings.buses.system, surroundings.limit, stop);
    if (!bus)
        return SystemOutcome::unavailable;
    constexpr gboolean interactive = FALSE; // a refusal is told by the palette, and no other window asks
    return outcomeOf(bus->call(loginManager, "Suspend", g_variant_new("(b)", interactive)).outcome);
}

bool isFolder(const std::string &path)
{
    struct stat status { };
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

GVariant *showFoldersArguments(const std::string &path)
{
    char *const uri = g_filename_to_uri(path.c_str(), nullptr, nullptr);
    GVariantBuilder uris;
    g_variant_builder_init(&uris, G_VARIANT_TYPE("as"));
    g_variant_builder_add(&uris, "s", uri ? uri : "");
    g_free(uri);
    return g_variant_new("(ass)", &uris, "");
}

enum class Shown { Yes, NoFolder, Unanswered };

Shown showFolder(const Surroundings &surroundings, const std::string &path, const std::stop_token &stop)
{
    if (!path.starts_with('/') || !isFolder(path))
        return Shown::NoFolder;
    const auto bus = MessageBus::open(surroundings.buses.session, surroundings.limit, stop);
    const Outcome outcome = bus ? bus->call(fileManager, "ShowFolders", showFoldersArguments(path)).outcome : Outcome::absent;
    // One that is still starting has the request: asking another would show two windows.
    return outcome == Outcome::done || outcome == Outcome::late ? Shown::Yes : Shown::Unanswered;
}

} // namespace

LinuxSystemControl::Surroundings LinuxSystemControl::surroundingsOf(const Environment &environment, const UserFolders &folders)
{
    Surroundings surroundings;
    surroundings.buses = linuxBusAddresses(environment);
    surroundings.session = nonEmpty(environment, "XDG_SESSION_ID").value_or("");
    surroundings.trash.dataHome = folders.data.value_or("");
    surroundings.trash.user = ::getuid();
    surroundings.desktop = DesktopEnvironment::from(environment);
    return surroundings;
}

Task<SystemOutcome> LinuxSystemControl::lockScreen()
{
    auto work = [surroundings = surroundings](std::stop_token stop) { return lockSession(surroundings, stop); };
    const SystemOutcome outcome = co_await actor.run(std::move(work));
    co_await throwIfCancelled();
    co_return outcome;
}

Task<SystemOutcome> LinuxSystemControl::sleep()
{
    auto work = [surroundings = surroundings](std::stop_token stop) { return suspendMachine(surroundings, stop); };
    const SystemOutcome outcome = co_await actor.run(std::move(work));
    co_await throwIfCancelled();
    co_return outcome;
}

Task<SystemOutcome> LinuxSystemControl::emptyTrash()
{
    auto work = [places = surroundings.trash](std::stop_token stop) { return emptyTrashFolders(places, stop); };
    const bool emptied = co_await actor.run(std::move(work));
    co_await throwIfCancelled();
    co_return emptied ? SystemOutcome::done : SystemOutcome::refused;
}

Task<bool> LinuxSystemControl::openFolder(std::string path)
{
    if (path == "/Applications")
        path = surroundings.applications;
    auto work = [surroundings = surroundings, path](std::stop_token stop) { return showFolder(surroundings, path, stop); };
    const Shown shown = co_await actor.run(std::move(work));
    co_await throwIfCancelled();
    if (shown == Shown::Unanswered)
        co_return co_await workspace.open(std::move(path));
    co_return shown == Shown::Yes;
}

Task<bool> LinuxSystemControl::openSettings(SettingsPage page)
{
    auto work = [page, desktop = surroundings.desktop](std::stop_token) { return settingsEntry(page, desktop); };
    const std::optional<std::string> entry = co_await actor.run(std::move(work));
    co_await throwIfCancelled();
    if (!entry)
        co_return false;
    try {
        const std::vector<std::string> none;
        co_await launcher.launch(*entry, none);
        co_return true;
    } catch (const Cancelled &) {
        throw;
    } catch (...) {
        co_return false;
    }
}

} // namespace korvane
