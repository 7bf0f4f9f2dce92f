#include "Vorrel/MCP/MCPToolAdapter.h"

#include "CommandCore/Commands.h"

namespace korvane {

namespace {

ToolDefinition definitionOf(std::string_view prefix, const MCPToolDescription &tool)
{
    return {.name = std::string(prefix) + tool.name,
        .description = tool.description.value_or(tool.name),
        .inputSchema = tool.inputSchema,
        .permission = ToolPermission::destructive};
}

} // namespace

MCPToolAdapter::MCPToolAdapter(std::string_view prefix, const MCPToolDescription &tool, std::shared_ptr<MCPTransport> transport) :
    _definition(definitionOf(prefix, tool)), remoteName(tool.name), transport(std::move(transport))
{
}

Task<ToolResult> MCPToolAdapter::execute(JSONValue input) const
{
    JSONValue::Object params;
    params.emplace("name", remoteName);
    params.emplace("arguments", std::move(input));
    JSONValue reply = co_await transport->request("tools/call", std::move(params));
    const bool *failed = reply["isError"].boolean();
    if (failed && *failed)
        throw AppError(AppError::Kind::toolExecution, "The MCP tool reported an execution error.");
    co_return ToolResult(std::move(reply));
}

} // namespace korvane
