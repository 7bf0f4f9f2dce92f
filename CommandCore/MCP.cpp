#include "CommandCore/MCP.h"

#include "Support/UUID.h"

namespace korvane {

namespace {

using Texts = MCPServerConfiguration::Texts;

const std::string &textOf(const JSONValue &json)
{
    if (!json.string())
        throw JSONError("no text");
    return *json.string();
}

/// The text of a member that may be missing or null.
std::optional<std::string> optionalText(const JSONValue &json, std::string_view key)
{
    return json[key].isNull() ? std::nullopt : std::optional(textOf(json[key]));
}

std::vector<std::string> textList(const JSONValue &json)
{
    std::vector<std::string> texts;
    if (json.isNull())
        return texts;
    if (!json.array())
        throw JSONError("no list");
    for (const JSONValue &element : *json.array())
        texts.push_back(textOf(element));
    return texts;
}

Texts textMap(const JSONValue &json)
{
    Texts texts;
    if (json.isNull())
        return texts;
    if (!json.object())
        throw JSONError("no object");
    for (const auto &[key, value] : *json.object())
        texts[key] = textOf(value);
    return texts;
}

MCPServerConfiguration::Transport transportFrom(const std::string &raw)
{
    if (raw == "stdio")
        return MCPServerConfiguration::Transport::stdio;
    if (raw == "streamableHTTP")
        return MCPServerConfiguration::Transport::streamableHTTP;
    throw JSONError("unknown transport");
}

} // namespace

JSONValue MCPServerConfiguration::json() const
{
    const bool local = transport == Transport::stdio;
    JSONValue::Object object{{"id", id}, {"name", name}, {"transport", local ? "stdio" : "streamableHTTP"}, {"command", command},
        {"args", JSONValue::Array(args.begin(), args.end())}, {"env", JSONValue::Object(env.begin(), env.end())},
        {"secretEnvironment", JSONValue::Object(secretEnvironment.begin(), secretEnvironment.end())}};
    if (url)
        object["url"] = *url;
    return object;
}

MCPServerConfiguration MCPServerConfiguration::fromJSON(const JSONValue &json)
{
    auto id = optionalText(json, "id");
    return {.id = id ? std::move(*id) : newUUID(),
        .name = json.text("name"),
        .transport = transportFrom(optionalText(json, "transport").value_or("stdio")),
        .command = optionalText(json, "command").value_or(""),
        .args = textList(json["args"]),
        .env = textMap(json["env"]),
        .secretEnvironment = textMap(json["secretEnvironment"]),
        .url = optionalText(json, "url")};
}

MCPToolDescription MCPToolDescription::fromJSON(const JSONValue &json)
{
    const auto *object = json.object();
    if (!object || !object->contains("inputSchema"))
        throw JSONError("no inputSchema");
    return {.name = json.text("name"), .description = optionalText(json, "description"), .inputSchema = json["inputSchema"]};
}

MCPToolList MCPToolList::fromJSON(const JSONValue &json)
{
    const auto *entries = json["tools"].array();
    if (!entries)
        throw JSONError("no tools");
    MCPToolList list{.tools = {}, .nextCursor = optionalText(json, "nextCursor")};
    for (const JSONValue &entry : *entries)
        list.tools.push_back(MCPToolDescription::fromJSON(entry));
    return list;
}

} // namespace korvane
