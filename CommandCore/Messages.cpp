#include "CommandCore/Messages.h"

#include "Support/UUID.h"

#include <algorithm>
#include <array>

namespace korvane {

namespace {

using Role = Message::Role;
constexpr std::array roles{Role::system, Role::user, Role::assistant, Role::tool};

} // namespace

std::string_view rawValue(Message::Role role)
{
    switch (role) {
    case Role::system: return "system";
    case Role::user: return "user";
    case Role::assistant: return "assistant";
    case Role::tool: break;
    }
    return "tool";
}

JSONValue Message::json() const
{
    JSONValue::Object members{{"role", std::string(rawValue(role))}, {"content", content}};
    if (toolCallID)
        members.emplace("toolCallID", *toolCallID);
    return members;
}

Message Message::fromJSON(const JSONValue &json)
{
    const std::string &raw = json.text("role");
    const auto role = std::ranges::find(roles, raw, [](Role known) { return rawValue(known); });
    if (role == roles.end())
        throw JSONError("unknown role");
    Message message{.role = *role, .content = json.text("content")};
    if (!json["toolCallID"].isNull())
        message.toolCallID = json.text("toolCallID");
    return message;
}

JSONValue ToolCall::json() const { return JSONValue::Object{{"id", id}, {"name", name}, {"arguments", arguments}}; }

ToolCall ToolCall::fromJSON(const JSONValue &json)
{
    if (!json.object() || !json.object()->contains("arguments"))
        throw JSONError("not a tool call");
    return {.id = json.text("id"), .name = json.text("name"), .arguments = json["arguments"]};
}

Conversation::Conversation() : id(newUUID()) { }

JSONValue Conversation::json() const
{
    JSONValue::Array list;
    for (const Message &message : messages)
        list.push_back(message.json());
    return JSONValue::Object{{"id", id}, {"messages", std::move(list)}};
}

Conversation Conversation::fromJSON(const JSONValue &json)
{
    const auto *list = json["messages"].array();
    if (!list)
        throw JSONError("no messages");
    Conversation conversation;
    conversation.id = json.text("id");
    for (const JSONValue &message : *list)
        conversation.messages.push_back(Message::fromJSON(message));
    return conversation;
}

} // namespace korvane
