#include "CommandCore/Tools.h"

#include "CommandCore/Commands.h"

#include <algorithm>
#include <array>

namespace korvane {

namespace {

constexpr std::array permissions{ToolPermission::read, ToolPermission::write, ToolPermission::destructive};

/// The names that an input must have, as the schema lists them; empty where it lists nothing.
const JSONValue::Array &requiredOf(const JSONValue &schema)
{
    static const JSONValue::Array none;
    const auto *names = schema["required"].array();
    return names ? *names : none;
}

} // namespace

std::string_view rawValue(ToolPermission permission)
{
    switch (permission) {
    case ToolPermission::read: return "read";
    case ToolPermission::write: return "write";
    case ToolPermission::destructive: break;
    }
    return "destructive";
}

JSONValue ToolDefinition::json() const
{
    return JSONValue::Object{{"name", name}, {"description", description}, {"inputSchema", inputSchema},
        {"permission", std::string(rawValue(permission))}, {"requiresApproval", requiresApproval}};
}

ToolDefinition ToolDefinition::fromJSON(const JSONValue &json)
{
    const std::string &raw = json.text("permission");
    const auto permission = std::ranges::find(permissions, raw, [](ToolPermission known) { return rawValue(known); });
    const bool *approval = json["requiresApproval"].boolean();
    if (permission == permissions.end() || !approval || !json.object()->contains("inputSchema"))
        throw JSONError("not a tool's definition");
    return {.name = json.text("name"),
        .description = json.text("description"),
        .inputSchema = json["inputSchema"],
        .permission = *permission,
        .requiresApproval = *approval};
}

bool PermissionPolicy::requiresConfirmation(ToolPermission permission) const
{
    switch (permission) {
    case ToolPermission::read: return false;
    case ToolPermission::write: return confirmWrites;
    case ToolPermission::destructive: break;
    }
    return true;
}

void ToolRegistry::registerTool(std::shared_ptr<const Tool> tool)
{
    confined.check();
    const std::string name = tool->definition().name;
    if (!tools.emplace(name, std::move(tool)).second)
        throw AppError(AppError::Kind::configuration, "A tool with this name is already registered.");
}

void ToolRegistry::remove(std::string_view prefix)
{
    confined.check();
    std::erase_if(tools, [prefix](const auto &tool) { return tool.first.starts_with(prefix); });
}

std::vector<ToolDefinition> ToolRegistry::definitions() const
{
    confined.check();
    std::vector<ToolDefinition> definitions;
    definitions.reserve(tools.size());
    for (const auto &[name, tool] : tools)
        definitions.push_back(tool->definition());
    return definitions;
}

bool ToolRegistry::needsApproval(const ToolDefinition &definition) const
{
    return definition.requiresApproval || policy.requiresConfirmation(definition.permission);
}

Task<ToolResult> ToolRegistry::call(std::string name, JSONValue input) const
{
    confined.check();
    co_await throwIfCancelled();
    const auto found = tools.find(name);
    if (found == tools.end())
        throw AppError(AppError::Kind::toolExecution, "This tool is not available.");
    const std::shared_ptr<const Tool> tool = found->second; // stays, whatever is removed meanwhile
    const auto *members = input.object();
    if (!members)
        throw AppError(AppError::Kind::toolExecution, "Tool input must be a JSON object.");
    for (const JSONValue &required : requiredOf(tool->definition().inputSchema)) {
        const auto *key = required.string();
        if (!key || input[*key].isNull())
            throw AppError(AppError::Kind::toolExecution, "Required tool input is missing.");
    }
    if (needsApproval(tool->definition()))
        co_await approve(tool->definition(), input);
    co_await throwIfCancelled(); // a request that was cancelled while the question stood does not act
    co_return co_await tool->execute(std::move(input));
}

} // namespace korvane
