#pragma once

#include "CommandCore/JSONValue.h"
#include "Support/MainLoop.h"
#include "Support/Task.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

/// Everything that a model may do, and the one gate that it passes. Platform-free.
namespace korvane {

/// How much a tool can change.
enum class ToolPermission { read, write, destructive };
std::string_view rawValue(ToolPermission permission);

/// What a model and the user are told of a tool.
struct ToolDefinition {
    std::string name; ///< Unique in a registry.
    std::string description;
    JSONValue inputSchema;
    ToolPermission permission = ToolPermission::read;
    bool requiresApproval = false; ///< Asks the user on every call, whatever the policy says.

    /// With exactly these five keys.
    JSONValue json() const;
    /// Throws `JSONError` for a missing key, one of another type and an unknown permission.
    static ToolDefinition fromJSON(const JSONValue &json);
    bool operator==(const ToolDefinition &) const = default;
};

struct ToolResult {
    explicit ToolResult(JSONValue value) : value(std::move(value)) { }
    JSONValue value;
};

/// Something that can be called by name with a JSON object. Main thread; `execute` may suspend and throw.
class Tool {
public:
    virtual ~Tool() = default;
    virtual const ToolDefinition &definition() const = 0;
    /// `input` is an object that has every member which the schema requires, none of them null; nothing else has been checked.
    virtual Task<ToolResult> execute(JSONValue input) const = 0;
};

/// What has to be confirmed by the user.
struct PermissionPolicy {
    bool confirmWrites = true;
    bool requiresConfirmation(ToolPermission permission) const;
};

/// The set of named tools, and the gate before each call: the input is checked, the user is asked where the tool or the policy
/// says so, and only then the tool runs. No approval is remembered. Main thread only.
class ToolRegistry {
public:
    /// Returns when the user approves this call and throws when not.
    using Approve = std::function<Task<void>(const ToolDefinition &definition, const JSONValue &input)>;
    explicit ToolRegistry(Approve approve) : approve(std::move(approve)) { }

    PermissionPolicy policy;

    /// Adds a tool under its name. Throws `configuration` "A tool with this name is already registered." and changes nothing
    /// when there is one. (Its name elsewhere, `register`, is a word of the language.)
    void registerTool(std::shared_ptr<const Tool> tool);
    /// Removes every tool whose name begins with `prefix`; a call that runs goes on.
    void remove(std::string_view prefix);
    /// In ascending order of the names, byte by byte.
    std::vector<ToolDefinition> definitions() const;

    /// Runs a tool once all of this holds, looked at in this order: not cancelled; the tool exists ("This tool is not
    /// available."); the input is an object ("Tool input must be a JSON object."); it has what the schema's "required" names
    /// ("Required tool input is missing."); approved where that is needed; still not cancelled. The sentences are
    /// `toolExecution`; what the approval and the tool throw passes through.
    Task<ToolResult> call(std::string name, JSONValue input) const;

private:
    bool needsApproval(const ToolDefinition &definition) const;

    const Approve approve;
    std::map<std::string, std::shared_ptr<const Tool>, std::less<>> tools;
    MainThreadOnly confined;
};

} // namespace korvane
