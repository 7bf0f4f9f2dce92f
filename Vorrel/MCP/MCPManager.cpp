#include "Vorrel/MCP/MCPManager.h"

#include "CommandCore/Commands.h"
#include "Support/Memory.h"
#include "Support/UUID.h"
#include "Vorrel/MCP/MCPToolAdapter.h"
#include "Vorrel/Shell/AppLog.h"
#include "Vorrel/Shell/L10n.h"
#include "Vorrel/Store/SQLCells.h"

#include <algorithm>
#include <array>

namespace korvane {

namespace {

constexpr char loadSql[] = "SELECT configuration FROM mcp_servers";
constexpr char addSql[] = "INSERT INTO mcp_servers(id,configuration) VALUES(?,?)";
constexpr char removeSql[] = "DELETE FROM mcp_servers WHERE id=?";

constexpr const char *ourVersion = "2025-11-25";
constexpr std::array<std::string_view, 4> knownVersions{"2025-11-25", "2025-06-18", "2025-03-26", "2024-11-05"};

using Texts = MCPServerConfiguration::Texts;

std::string prefixOf(const std::string &id) { return "mcp." + id + "."; }

MCPServerConfiguration configurationFrom(const SQLRow &row)
{
    const auto *configuration = text(row, "configuration");
    if (!configuration)
        throw JSONError("no configuration");
    return MCPServerConfiguration::fromJSON(JSONValue::parse(*configuration));
}

void requireFewTools(std::size_t count)
{
    if (count > MCPManager::mostTools)
        throw AppError(AppError::Kind::mcp, "The server exceeds the 500-tool limit.");
}

JSONValue introduction()
{
    return JSONValue::Object{{"protocolVersion", ourVersion}, {"capabilities", JSONValue::Object()},
        {"clientInfo", JSONValue::Object{{"name", "Korvane"}, {"version", KORVANE_VERSION}}}};
}

} // namespace

MCPManager::MCPManager(Parts given) : parts(std::move(given)) { }

// What is stored

Task<void> MCPManager::load()
{
    confined.check();
    const auto rows = co_await parts.database->rows(loadSql);
    std::vector<MCPServerConfiguration> servers;
    servers.reserve(rows.size());
    for (const SQLRow &row : rows)
        servers.push_back(configurationFrom(row));
    _configurations = std::move(servers);
}

Task<void> MCPManager::add(MCPServerConfiguration configuration)
{
    confined.check();
    if (configuration.name.empty())
        throw AppError(AppError::Kind::configuration, "Give the server a name.");
    if (!configuration.env.empty())
        throw AppError(AppError::Kind::configuration,
            "Plaintext environment values are not stored. Use secretEnvironment with Keychain account references.");
    if (isStored(configuration.id))
        throw AppError(AppError::Kind::configuration, "This server is already configured.");
    std::vector<SQLValue> values{configuration.id, configuration.json().encodedString()};
    co_await parts.database->execute(addSql, std::move(values));
    auto servers = _configurations.get();
    servers.push_back(std::move(configuration));
    _configurations = std::move(servers);
}

Task<void> MCPManager::remove(MCPServerConfiguration configuration)
{
    confined.check();
    co_await disconnectServer(configuration.id);
    std::vector<SQLValue> values{configuration.id};
    co_await parts.database->execute(removeSql, std::move(values));
    co_await disconnectServer(configuration.id); // what was connected meanwhile
    auto servers = _configurations.get();
    std::erase_if(servers, [&](const MCPServerConfiguration &one) { return one.id == configuration.id; });
    _configurations = std::move(servers);
    clearStatus(configuration.id);
}

Task<void> MCPManager::confirm(const PermissionService &permissions, const MCPServerConfiguration &configuration)
{
    std::string arguments;
    for (const std::string &argument : configuration.args)
        arguments += (arguments.empty() ? "" : " ") + argument;
    std::string title = L10n::format("Start MCP server “%@”?", configuration.name);
    std::string detail = L10n::format(
        L10n::key("This runs a local process with your user permissions. Only connect servers you trust.\n\nExecutable: "
                  "%@\nArguments: %@"),
        {configuration.command, arguments});
    co_await permissions.confirm(std::move(title), std::move(detail));
}

// Connecting

/// Marks a server as being connected, for as long as the attempt is under way.
class MCPManager::Connecting {
public:
    Connecting(std::shared_ptr<std::set<std::string>> all, std::string id) : all(std::move(all)), id(std::move(id)) { }
    Connecting(const Connecting &) = delete;
    ~Connecting() { all->erase(id); }

private:
    const std::shared_ptr<std::set<std::string>> all; // also where the attempt is destroyed after the manager
    const std::string id;
};

Task<void> MCPManager::connect(MCPServerConfiguration configuration)
{
    confined.check();
    const std::string id = configuration.id;
    if (!_connecting->insert(id).second)
        co_return;
    const Connecting connecting(_connecting, id);
    const bool wasStored = isStored(id);
    const std::string session = newUUID();
    const Transport earlier = cutOff(id);
    _sessions[id] = session;
    co_await end(earlier);

    Transport transport;
    std::exception_ptr error;
    try {
        requireCurrent(id, session); // a disconnect may have come while the earlier connection was being closed
        setStatus(id, L10n::key("Connecting…"));
        transport = newTransport();
        co_await establish(std::move(configuration), session, transport);
    } catch (...) {
        error = std::current_exception();
    }
    if (!error)
        co_return;
    parts.registry.remove(prefixOf(id));
    co_await end(transport);
    if (isStored(id) || !wasStored) // a server that was removed meanwhile has no status
        setStatus(id, AppError::friendly(error));
    std::rethrow_exception(error);
}

Task<void> MCPManager::establish(MCPServerConfiguration configuration, std::string session, Transport transport)
{
    const std::string id = configuration.id;
    Texts secrets = co_await readSecrets(configuration.secretEnvironment);
    co_await transport->start(std::move(configuration), std::move(secrets));
    co_await initialize(transport);
    const Tools tools = co_await discover(transport);
    co_await throwIfCancelled();
    requireCurrent(id, session);
    registerTools(id, tools, transport);
    _transports[id] = transport;
    setStatus(id, L10n::format("Connected · %lld tools", std::to_string(tools.size())));
    AppLog::mcp.info("MCP initialization and tool discovery completed");
}

MCPManager::Transport MCPManager::newTransport()
{
    if (!parts.transport)
        throw AppError(AppError::Kind::mcp, "MCP servers cannot be run on this system.");
    return *open.insert(std::make_shared<StdioTransport>(*parts.transport)).first;
}

Task<Texts> MCPManager::readSecrets(Texts accounts)
{
    Texts secrets;
    for (const auto &[name, account] : accounts) {
        std::optional<std::string> secret = co_await parts.keychain.get(account);
        if (!secret)
            throw AppError(AppError::Kind::configuration, "A required MCP credential is missing from Keychain.");
        secrets[name] = *secret;
        wipe(*secret);
    }
    co_return secrets;
}

Task<void> MCPManager::initialize(Transport transport)
{
    const JSONValue reply = co_await transport->request("initialize", introduction());
    const std::string *version = reply["protocolVersion"].string();
    if (!version || std::ranges::find(knownVersions, *version) == knownVersions.end())
        throw AppError(AppError::Kind::mcp, "This MCP protocol version is not supported.");
    co_await transport->notify("notifications/initialized", JSONValue::Object());
}

Task<MCPManager::Tools> MCPManager::discover(Transport transport)
{
    Tools tools;
    std::set<std::string> seen;
    std::optional<std::string> cursor;
    for (int pages = 1;; ++pages) {
        MCPToolList list = co_await page(transport, cursor);
        std::ranges::move(list.tools, std::back_inserter(tools));
        cursor = std::move(list.nextCursor);
        if (cursor && !seen.insert(*cursor).second)
            throw AppError(AppError::Kind::mcp, "The server repeated a pagination cursor.");
        requireFewTools(tools.size());
        if (!cursor)
            co_return tools;
        if (pages == mostPages)
            throw AppError(AppError::Kind::mcp, "The server returned too many tool pages.");
    }
}

Task<MCPToolList> MCPManager::page(Transport transport, std::optional<std::string> cursor)
{
    JSONValue::Object params;
    if (cursor)
        params.emplace("cursor", std::move(*cursor));
    JSONValue reply = co_await transport->request("tools/list", std::move(params));
    // A page may be large, and is read where it holds nobody up.
    auto read = [reply = std::move(reply)](std::stop_token) { return MCPToolList::fromJSON(reply); };
    co_return co_await runAside(parts.transport->pool, std::move(read));
}

void MCPManager::registerTools(const std::string &id, const Tools &tools, const Transport &transport)
{
    const std::string prefix = prefixOf(id);
    for (const MCPToolDescription &tool : tools)
        parts.registry.registerTool(std::make_shared<MCPToolAdapter>(prefix, tool, transport));
}

void MCPManager::requireCurrent(const std::string &id, const std::string &session) const
{
    const auto current = _sessions.find(id);
    if (current == _sessions.end() || current->second != session)
        throw Cancelled();
}

// Disconnecting

Task<void> MCPManager::disconnect(MCPServerConfiguration configuration)
{
    confined.check();
    co_await disconnectServer(std::move(configuration.id));
}

Task<void> MCPManager::disconnectServer(std::string id)
{
    const Transport transport = cutOff(id);
    co_await end(transport);
    if (!_sessions.contains(id)) // or it is being connected again
        setStatus(id, L10n::key("Disconnected"));
}

/// Makes an attempt to connect the server stale, takes its tools away and gives its connection.
MCPManager::Transport MCPManager::cutOff(const std::string &id)
{
    _sessions.erase(id);
    parts.registry.remove(prefixOf(id));
    auto found = _transports.extract(id);
    return found ? std::move(found.mapped()) : nullptr;
}

Task<void> MCPManager::end(Transport transport)
{
    if (!transport)
        co_return;
    co_await transport->close();
    open.erase(transport);
}

Task<void> MCPManager::stop()
{
    confined.check();
    const std::vector<MCPServerConfiguration> servers = _configurations;
    for (const MCPServerConfiguration &server : servers)
        co_await disconnectServer(server.id);
    _sessions.clear();
    while (!_transports.empty())
        co_await disconnectServer(_transports.begin()->first);
    for (const Transport &connecting : open) // all at once, each of which may take both steps
        spawnDetached(parts.transport->pool, connecting->close());
    while (!open.empty())
        co_await end(*open.begin());
}

// What is shown

bool MCPManager::isStored(const std::string &id) const
{
    return std::ranges::find(_configurations.get(), id, &MCPServerConfiguration::id) != _configurations->end();
}

void MCPManager::setStatus(const std::string &id, std::string status)
{
    auto all = _status.get();
    all[id] = std::move(status);
    _status = std::move(all);
}

void MCPManager::clearStatus(const std::string &id)
{
    auto all = _status.get();
    all.erase(id);
    _status = std::move(all);
}

} // namespace korvane
