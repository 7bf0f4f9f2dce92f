#include "Vorrel/Platform/Linux/Launcher.h"

#include "Support/Text.h"
#include "Support/UUID.h"
#include "Vorrel/Platform/Linux/MessageBus.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <gio/gio.h>
#include <stdexcept>

namespace korvane {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

using Strings = std::vector<std::string>;

constexpr Milliseconds activationLimit = 10s; // a service may have to start first
constexpr Milliseconds scopeLimit = 2s;

/// The variables by which an activation token is handed on, under Wayland and X11.
constexpr std::array<std::string_view, 2> tokenVariables{"XDG_ACTIVATION_TOKEN", "DESKTOP_STARTUP_ID"};

bool isTokenVariable(std::string_view variable)
{
    return std::any_of(tokenVariables.begin(), tokenVariables.end(),
        [&](auto name) { return variable.size() > name.size() && variable.starts_with(name) && variable[name.size()] == '='; });
}

Strings withoutToken(Strings environment)
{
    std::erase_if(environment, isTokenVariable);
    return environment;
}

Strings withToken(Strings environment, const std::string &token)
{
    if (!token.empty())
        for (const auto name : tokenVariables)
            environment.push_back(std::string(name) + "=" + token);
    return environment;
}

} // namespace

Environment variablesOf(std::vector<std::string> environment)
{
    return [environment = std::move(environment)](std::string_view name) -> std::optional<std::string> {
        const auto value = environmentValue(environment, name);
        return value.data() ? std::optional<std::string>(value) : std::nullopt;
    };
}

// The terminal

namespace {

/// A terminal, and what stands between its name and the command that it runs.
struct Terminal {
    std::string_view program;
    std::string_view separator; ///< Empty for none.
};

/// The first two are the system's own choice.
constexpr std::array<Terminal, 19> terminals{{{"x-terminal-emulator", "-e"}, {"xdg-terminal-exec", ""}, {"gnome-terminal", "--"},
    {"ptyxis", "--"}, {"kgx", "--"}, {"konsole", "-e"}, {"xfce4-terminal", "-x"}, {"mate-terminal", "-x"}, {"tilix", "-e"},
    {"terminator", "-x"}, {"foot", ""}, {"kitty", ""}, {"alacritty", "-e"}, {"ghostty", "-e"}, {"wezterm", "-e"}, {"urxvt", "-e"},
    {"rxvt", "-e"}, {"st", "-e"}, {"xterm", "-e"}}};

Strings joined(std::string program, std::string_view separator, Strings command)
{
    Strings words{std::move(program)};
    if (!separator.empty())
        words.emplace_back(separator);
    words.insert(words.end(), std::make_move_iterator(command.begin()), std::make_move_iterator(command.end()));
    return words;
}

} // namespace

std::vector<std::string> inTerminal(const std::vector<std::string> &environment, std::vector<std::string> command)
{
    const auto searchPath = environmentValue(environment, "PATH");
    if (const std::string chosen(environmentValue(environment, "TERMINAL")); !chosen.empty())
        if (auto program = findProgram(chosen, searchPath)) {
            const auto name = fs::path(chosen).filename().native();
            const auto known =
                std::find_if(terminals.begin(), terminals.end(), [&](const auto &one) { return one.program == name; });
            return joined(*program, known == terminals.end() ? "-e" : known->separator, std::move(command));
        }
    for (const auto &one : terminals)
        if (auto program = findProgram(std::string(one.program), searchPath))
            return joined(*program, one.separator, std::move(command));
    return {};
}

// The unit

std::string applicationScopeName(const std::string &identifier, const std::string &random)
{
    static constexpr char digits[] = "0123456789abcdef";
    constexpr std::size_t longest = 180; // a unit's name has at most 255 characters
    std::string escaped;
    for (const char byte : identifier) {
        if (escaped.size() > longest)
            break;
        const bool plain = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9')
            || byte == '_' || byte == '.' || byte == ':';
        if (plain)
            escaped += byte;
        else
            ((escaped += "\\x") += digits[static_cast<unsigned char>(byte) >> 4]) += digits[byte & 15];
    }
    return "app-korvane-" + escaped + "-" + random + ".scope";
}

namespace {

std::string identifierOf(const std::string &path) { return fs::path(path).stem().native(); }

/// Asks the user's systemd to take the program out of this program's unit. Nothing is lost without.
void adoptBySystemd(const std::string &bus, const std::string &identifier, pid_t program)
{
    const auto connection = MessageBus::open(bus, scopeLimit);
    if (!connection)
        return;
    const std::string name = applicationScopeName(identifier, newUUID().substr(0, 8));
    GVariantBuilder properties;
    g_variant_builder_init(&properties, G_VARIANT_TYPE("a(sv)"));
    GVariantBuilder processes;
    g_variant_builder_init(&processes, G_VARIANT_TYPE("au"));
    g_variant_builder_add(&processes, "u", static_cast<guint32>(program));
    g_variant_builder_add(&properties, "(sv)", "PIDs", g_variant_builder_end(&processes));
    g_variant_builder_add(&properties, "(sv)", "Slice", g_variant_new_string("app.slice"));
    g_variant_builder_add(&properties, "(sv)", "CollectMode", g_variant_new_string("inactive-or-failed"));
    GVariant *const parameters = g_variant_new("(ssa(sv)a(sa(sv)))", name.c_str(), "fail", &properties, nullptr);
    const BusObject manager{"org.freedesktop.systemd1", "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager"};
    connection->call(manager, "StartTransientUnit", parameters);
}

} // namespace

// The launch

/// One launch, on a thread of the pool. Blocks; throws anything when the application did not start.
class DesktopLauncher::Work {
public:
    Work(Request request, Strings environment, DesktopEnvironment desktop, std::string bus) :
        request(std::move(request)), environment(std::move(environment)), desktop(std::move(desktop)), bus(std::move(bus))
    {
    }

    /// The process that was started; nothing when the bus activated the application.
    std::optional<pid_t> run()
    {
        const auto entry = DesktopEntry::read(request.path, desktop);
        if (!entry)
            throw std::runtime_error("no application");
        const auto action = chosenAction(*entry);
        const std::string &exec = action ? action->exec : entry->exec;
        // The bus has no way to pass words, only files: with arguments the command line is used.
        if (entry->dbusActivatable && (request.arguments.empty() || exec.empty()) && activate())
            return std::nullopt;
        const auto line = ExecLine::parse(exec);
        if (!line)
            throw std::runtime_error("no command line");
        return spawn(*entry,
            line->words({.arguments = request.arguments,
                .target = request.target,
                .name = action ? action->name : entry->name,
                .icon = action && !action->icon.empty() ? action->icon : entry->icon,
                .location = request.path}));
    }

private:
    const DesktopAction *chosenAction(const DesktopEntry &entry) const
    {
        if (request.actionId.empty())
            return nullptr;
        for (const auto &action : entry.actions)
            if (action.id == request.actionId)
                return &action;
        throw std::runtime_error("no such action");
    }

    bool activate() const
    {
        const std::string name = identifierOf(request.path);
        if (!request.arguments.empty() || !g_dbus_is_name(name.c_str()) || name.starts_with(':'))
            return false;
        std::string object = "/" + name;
        std::replace(object.begin(), object.end(), '.', '/');
        std::replace(object.begin(), object.end(), '-', '_');
        if (!g_variant_is_object_path(object.c_str()))
            return false;
        const auto connection = MessageBus::open(bus, activationLimit);
        if (!connection)
            return false;
        const BusObject application{name, object, "org.freedesktop.Application"};
        return callApplication(*connection, application).outcome == BusReply::Outcome::done;
    }

    BusReply callApplication(MessageBus &connection, const BusObject &application) const
    {
        GVariantBuilder platform;
        g_variant_builder_init(&platform, G_VARIANT_TYPE("a{sv}"));
        if (!request.token.empty() && isValidUTF8(request.token))
            for (const auto key : {"activation-token", "desktop-startup-id"})
                g_variant_builder_add(&platform, "{sv}", key, g_variant_new_string(request.token.c_str()));
        if (!request.actionId.empty())
            return connection.call(
                application, "ActivateAction", g_variant_new("(sava{sv})", request.actionId.c_str(), nullptr, &platform));
        if (!request.target)
            return connection.call(application, "Activate", g_variant_new("(a{sv})", &platform));
        const char *const addresses[] = {request.target->uri.c_str(), nullptr};
        return connection.call(application, "Open", g_variant_new("(^asa{sv})", addresses, &platform));
    }

    pid_t spawn(const DesktopEntry &entry, Strings words) const
    {
        if (entry.terminal)
            words = inTerminal(environment, std::move(words));
        if (words.empty())
            throw std::runtime_error("no terminal");
        return spawnDetachedProcess({std::move(words), withToken(environment, request.token), workingDirectory(entry)});
    }

    std::string workingDirectory(const DesktopEntry &entry) const
    {
        if (!entry.workingDirectory.empty())
            return entry.workingDirectory;
        const std::string home(environmentValue(environment, "HOME"));
        std::error_code failed;
        return fs::is_directory(home, failed) ? home : "/";
    }

    const Request request;
    const Strings environment;
    const DesktopEnvironment desktop;
    const std::string bus;
};

DesktopLauncher::DesktopLauncher(Options options) :
    pool(std::move(options.pool)), environment(withoutToken(std::move(options.environment))),
    _desktop(DesktopEnvironment::from(variablesOf(environment))),
    _sessionBus(linuxBusAddresses(variablesOf(environment)).session), activationToken(std::move(options.activationToken))
{
}

std::string DesktopLauncher::newToken() const
{
    auto token = activationToken ? activationToken() : std::string();
    return token.find('\0') == std::string::npos ? token : std::string();
}

Task<void> DesktopLauncher::launch(std::string path, std::vector<std::string> arguments)
{
    Request request{.path = std::move(path), .arguments = std::move(arguments), .token = newToken()};
    co_await start(std::move(request));
}

Task<void> DesktopLauncher::launchAction(std::string path, std::string actionId)
{
    Request request{.path = std::move(path), .actionId = std::move(actionId), .token = newToken()};
    co_await start(std::move(request));
}

Task<void> DesktopLauncher::launchWithTarget(std::string path, ExecLine::Target target)
{
    Request request{.path = std::move(path), .target = std::move(target), .token = newToken()};
    co_await start(std::move(request));
}

Task<void> DesktopLauncher::start(Request request)
{
    // An actor for each launch: one that waits for a slow service does not hold up the next.
    Actor actor(pool);
    const std::string identifier = identifierOf(request.path);
    auto work = [job = Work(std::move(request), environment, _desktop, _sessionBus)](
                    std::stop_token) mutable { return job.run(); };
    const Executor threads = pool;
    const std::string bus = _sessionBus;
    const auto program = co_await actor.run(std::move(work));
    if (program && !bus.empty())
        runLater(threads, [bus, identifier, program = *program] { adoptBySystemd(bus, identifier, program); });
}

} // namespace korvane
