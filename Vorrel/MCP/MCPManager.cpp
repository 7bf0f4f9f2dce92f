#include "Vorrel/MCP/MCPManager.h"

#include "Vorrel/Shell/L10n.h"

namespace korvane {

MCPManager::MCPManager(Parts parts) { (void)parts; }
Task<void> MCPManager::load() { co_return; }
Task<void> MCPManager::add(MCPServerConfiguration) { co_return; }
Task<void> MCPManager::remove(MCPServerConfiguration) { co_return; }
Task<void> MCPManager::connect(MCPServerConfiguration) { co_return; }
Task<void> MCPManager::disconnect(MCPServerConfiguration) { co_return; }
Task<void> MCPManager::stop() { co_return; }

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

} // namespace korvane
