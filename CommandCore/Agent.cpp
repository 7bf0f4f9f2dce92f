#include "CommandCore/Agent.h"

namespace korvane {

namespace {

JSONValue jsonOf(const std::vector<std::string> &texts) { return JSONValue::Array(texts.begin(), texts.end()); }

std::vector<std::string> textsOf(const JSONValue &json, std::string_view key)
{
    const auto *array = json[key].array();
    if (!array)
        throw JSONError("no list: " + std::string(key));
    std::vector<std::string> texts;
    for (const JSONValue &element : *array) {
        if (!element.string())
            throw JSONError("no text in: " + std::string(key));
        texts.push_back(*element.string());
    }
    return texts;
}

} // namespace

JSONValue Agent::json() const
{
    return JSONValue::Object{{"id", id}, {"name", name}, {"icon", icon}, {"systemPrompt", systemPrompt}, {"model", model},
        {"tools", jsonOf(tools)}, {"skills", jsonOf(skills)}};
}

Agent Agent::fromJSON(const JSONValue &json)
{
    return {.id = json.text("id"),
        .name = json.text("name"),
        .icon = json.text("icon"),
        .systemPrompt = json.text("systemPrompt"),
        .model = json.text("model"),
        .tools = textsOf(json, "tools"),
        .skills = textsOf(json, "skills")};
}

} // namespace korvane
