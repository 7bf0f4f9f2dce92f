#include "CommandCore/ExtensionManifest.h"

#include <gtest/gtest.h>

using namespace korvane;

static const char *const whole = R"({"commands":[{"mode":"view","name":"list","title":"List"}],"name":"notes",)"
                                 R"("title":"Notes","tools":[{"description":"Finds notes","inputSchema":{"type":"object"},)"
                                 R"("name":"find"},{"description":"Counts them","name":"count"}],"version":"1.2"})";

TEST(ExtensionManifest, IsReadAndWrittenWithTheNamesOfItsFields)
{
    const auto manifest = ExtensionManifest::fromJSON(JSONValue::parse(whole));
    EXPECT_EQ(manifest.name, "notes");
    EXPECT_EQ(manifest.version, "1.2");
    ASSERT_EQ(manifest.commands.size(), 1u);
    EXPECT_EQ(manifest.commands[0], (ExtensionManifest::Command{.name = "list", .title = "List", .mode = "view"}));
    ASSERT_EQ(manifest.tools.size(), 2u);
    EXPECT_EQ(manifest.tools[0].inputSchema, JSONValue(JSONValue::Object{{"type", "object"}}));
    EXPECT_FALSE(manifest.tools[1].inputSchema);
    EXPECT_EQ(manifest.json().encodedString(), whole);
}

TEST(ExtensionManifest, ASchemaOfNullIsNone)
{
    const auto tool = ExtensionManifest::Tool::fromJSON(JSONValue::parse(R"({"name":"a","description":"b","inputSchema":null})"));
    EXPECT_FALSE(tool.inputSchema);
    EXPECT_EQ(tool.json().encodedString(), R"({"description":"b","name":"a"})");
}

TEST(ExtensionManifest, AMissingKeyOrOneOfAnotherTypeIsRefused)
{
    const JSONValue::Object object = *JSONValue::parse(whole).object();
    for (const auto &[key, value] : object) {
        SCOPED_TRACE(key);
        JSONValue::Object broken = object;
        broken[key] = 7;
        EXPECT_THROW(ExtensionManifest::fromJSON(broken), JSONError);
        broken.erase(key);
        EXPECT_THROW(ExtensionManifest::fromJSON(broken), JSONError);
    }
    for (const char *member : {R"({"name":"a","title":"b"})", R"({"name":"a","title":"b","mode":1})", "7"}) {
        JSONValue::Object broken = object;
        broken["commands"] = JSONValue::Array{JSONValue::parse(member)};
        EXPECT_THROW(ExtensionManifest::fromJSON(broken), JSONError) << member;
    }
    JSONValue::Object broken = object;
    broken["tools"] = JSONValue::Array{JSONValue::Object{{"name", "a"}}};
    EXPECT_THROW(ExtensionManifest::fromJSON(broken), JSONError);
    broken = object;
    broken["further"] = 1;
    EXPECT_EQ(ExtensionManifest::fromJSON(broken).name, "notes") << "a key of a later version does no harm";
}
