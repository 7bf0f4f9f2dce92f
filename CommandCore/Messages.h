#pragma once

#include "CommandCore/Tools.h"

#include <optional>
#include <string>
#include <vector>

/// What is said between a user, a model and the tools.
namespace korvane {

struct Message {
    enum class Role { system, user, assistant, tool };
    Role role = Role::user;
    std::string content; ///< For `tool` the JSON text of its result.
    std::optional<std::string> toolCallID = {}; ///< On `tool` messages only.

    /// "role", "content" and, where there is one, "toolCallID".
    JSONValue json() const;
    /// Throws `JSONError` for anything else.
    static Message fromJSON(const JSONValue &json);
    bool operator==(const Message &) const = default;
};
std::string_view rawValue(Message::Role role);

/// A model's wish to have a tool called.
struct ToolCall {
    std::string id;
    std::string name;
    JSONValue arguments;

    /// With exactly these three keys.
    JSONValue json() const;
    /// Throws `JSONError` for anything else.
    static ToolCall fromJSON(const JSONValue &json);
    bool operator==(const ToolCall &) const = default;
};

struct Conversation {
    Conversation(); ///< A new identifier, no messages.
    std::string id; ///< Upper-case UUID.
    std::vector<Message> messages;

    /// "id" and "messages".
    JSONValue json() const;
    /// Throws `JSONError` for anything else.
    static Conversation fromJSON(const JSONValue &json);
    bool operator==(const Conversation &) const = default;
};

/// What a model answers. Never stored.
struct ModelResponse {
    std::string text; ///< May be empty.
    std::vector<ToolCall> toolCalls;
    std::optional<std::string> continuation; ///< Bytes that only the provider understands.
};

/// A model to talk to. Called on the main thread, which it does not hold up; a cancelled caller gets `Cancelled` soon.
class ModelProvider {
public:
    virtual ~ModelProvider() = default;
    /// `messages` is the whole opening of a conversation when there is no `continuation`, otherwise what has been added to what
    /// that stands for: bytes that an earlier response of this conversation returned, unchanged.
    virtual Task<ModelResponse> chat(
        std::vector<Message> messages, std::vector<ToolDefinition> tools, std::optional<std::string> continuation) = 0;
};

} // namespace korvane
