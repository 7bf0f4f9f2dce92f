#include "CommandCore/ExtensionManifest.h"

namespace korvane {

namespace {

template <class Record> JSONValue listOf(const std::vector<Record> &records)
{
    JSONValue::Array list;
    for (const Record &record : records)
        list.push_back(record.json());
    return list;
}

template <class Record> std::vector<Record> recordsOf(const JSONValue &json)
{
    if (!json.array())
        throw JSONError("no list");
    std::vector<Record> records;
    for (const JSONValue &element : *json.array())
        records.push_back(Record::fromJSON(element));
    return records;
}

} // namespace

JSONValue ExtensionManifest::Command::json() const { return JSONValue::Object{{"name", name}, {"title", title}, {"mode", mode}}; }

ExtensionManifest::Command ExtensionManifest::Command::fromJSON(const JSONValue &json)
{
    return {.name = json.text("name"), .title = json.text("title"), .mode = json.text("mode")};
}

JSONValue ExtensionManifest::Tool::json() const
{
    JSONValue::Object object{{"name", name}, {"description", description}};
    if (inputSchema)
        object["inputSchema"] = *inputSchema;
    return object;
}

ExtensionManifest::Tool ExtensionManifest::Tool::fromJSON(const JSONValue &json)
{
    const JSONValue &schema = json["inputSchema"];
    return {.name = json.text("name"),
        .description = json.text("description"),
        .inputSchema = schema.isNull() ? std::nullopt : std::optional(schema)};
}

JSONValue ExtensionManifest::json() const
{
    return JSONValue::Object{
        {"name", name}, {"title", title}, {"version", version}, {"commands", listOf(commands)}, {"tools", listOf(tools)}};
}

ExtensionManifest ExtensionManifest::fromJSON(const JSONValue &json)
{
    return {.name = json.text("name"),
        .title = json.text("title"),
        .version = json.text("version"),
        .commands = recordsOf<Command>(json["commands"]),
        .tools = recordsOf<Tool>(json["tools"])};
}

} // namespace korvane
