#pragma once

#include "CommandCore/MCP.h"
#include "CommandCore/Tools.h"
#include "Vorrel/MCP/MCPTransport.h"

namespace korvane {

/// A tool of a server, as any other tool. Whatever the server says of it, it counts as destructive, so that every call asks.
class MCPToolAdapter final : public Tool {
public:
    /// `prefix` is "mcp.", the server's identifier and a dot.
    MCPToolAdapter(std::string_view prefix, const MCPToolDescription &tool, std::shared_ptr<MCPTransport> transport);

    const ToolDefinition &definition() const override { return _definition; }
    /// Gives the server's whole reply. Throws `toolExecution` "The MCP tool reported an execution error." for one that says so,
    /// and what the transport throws.
    Task<ToolResult> execute(JSONValue input) const override;

private:
    const ToolDefinition _definition;
    const std::string remoteName;
    const std::shared_ptr<MCPTransport> transport;
};

} // namespace korvane
