#pragma once

#include "CommandCore/MCP.h"
#include "CommandCore/Tools.h"
#include "Support/MainLoop.h"
#include "Support/Observed.h"
#include "Vorrel/Launch/PermissionService.h"
#include "Vorrel/MCP/StdioTransport.h"
#include "Vorrel/Shell/KeychainService.h"
#include "Vorrel/Store/Database.h"

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace korvane {

/// The user's MCP servers: stores their configurations, connects them when asked to and puts the tools of those that are
/// connected into the registry. Nothing connects by itself. Of secrets only the names of their accounts are stored. Main thread
/// only; outlives its operations.
///
/// The end of a server is noticed by what it is asked next: until then its tools and its status stay as they are.
class MCPManager {
public:
    static constexpr std::size_t mostTools = 500; ///< Of one server.
    static constexpr int mostPages = 20; ///< Of one server's list of tools.

    /// All but the database outlive the manager.
    struct Parts {
        ToolRegistry &registry;
        KeychainService &keychain;
        std::shared_ptr<Database> database;
        std::optional<StdioTransport::Parts> transport; ///< Nothing where no server can be run.
    };
    explicit MCPManager(Parts parts);

    /// Reads the stored servers. Throws what the store throws, and `JSONError` for a row that is no configuration.
    Task<void> load();
    /// Stores a server. Throws `configuration` "Give the server a name.", "Plaintext environment values are not stored. Use
    /// secretEnvironment with Keychain account references." or "This server is already configured.", and `database` "Could not
    /// save local data."
    Task<void> add(MCPServerConfiguration configuration);
    /// Disconnects a server and forgets it. Throws what the store throws.
    Task<void> remove(MCPServerConfiguration configuration);
    /// Asks the user whether this server may be started, showing what would run. Throws `permission` "The operation was
    /// cancelled." Asked each time, before `connect`.
    static Task<void> confirm(const PermissionService &permissions, const MCPServerConfiguration &configuration);
    /// Starts a server and registers its tools under "mcp.", its identifier and a dot; at once back when that is under way. The
    /// user's consent is the caller's affair. Throws what went wrong, which the status says, too; then no tool of it is left.
    Task<void> connect(MCPServerConfiguration configuration);
    /// Takes the server's tools away and ends it with all that it started. Does not throw.
    Task<void> disconnect(MCPServerConfiguration configuration);
    /// Disconnects every server, one after the other, and then all those at once that are still being connected; returns when
    /// none runs any more. Does not throw.
    Task<void> stop();

    const std::vector<MCPServerConfiguration> &configurations() const { return _configurations; }
    /// By identifier: what is shown of each server. English, a key of `L10n`, or already localised where it holds a number.
    const std::map<std::string, std::string> &status() const { return _status; }

    // Observed
    Observed<std::vector<MCPServerConfiguration>> _configurations;
    Observed<std::map<std::string, std::string>> _status;

private:
    using Transport = std::shared_ptr<StdioTransport>;
    using Tools = std::vector<MCPToolDescription>;
    class Connecting;

    Task<void> disconnectServer(std::string id);
    Transport cutOff(const std::string &id);
    Task<void> end(Transport transport);

    // The steps of `connect`
    Task<void> establish(MCPServerConfiguration configuration, std::string session, Transport transport);
    Transport newTransport();
    Task<MCPServerConfiguration::Texts> readSecrets(MCPServerConfiguration::Texts accounts);
    Task<void> initialize(Transport transport);
    Task<Tools> discover(Transport transport);
    Task<MCPToolList> page(Transport transport, std::optional<std::string> cursor);
    void registerTools(const std::string &id, const Tools &tools, const Transport &transport);
    void requireCurrent(const std::string &id, const std::string &session) const;

    bool isStored(const std::string &id) const;
    void setStatus(const std::string &id, std::string status);
    void clearStatus(const std::string &id);

    const Parts parts;
    MainThreadOnly confined;
    std::map<std::string, Transport> _transports; ///< Of the servers that are connected, by identifier.
    /// The last attempt to connect each server that was not disconnected since: one that is not here any more is stale.
    std::map<std::string, std::string> _sessions;
    std::shared_ptr<std::set<std::string>> _connecting = std::make_shared<std::set<std::string>>();
    std::set<Transport> open; ///< All that were made and have not come to the end of their `close`.
};

} // namespace korvane
