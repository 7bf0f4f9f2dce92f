#include "CommandCore/MCP.h"

#include <gtest/gtest.h>

using namespace korvane;

namespace {

using Configuration = MCPServerConfiguration;

Configuration configuration(const char *json) { return Configuration::fromJSON(JSONValue::parse(json)); }

template <class Record> bool decodes(const char *json)
{
    try {
        Record::fromJSON(JSONValue::parse(json));
        return true;
    } catch (const JSONError &) {
        return false;
    }
}

} // namespace

TEST(MCPServerConfigurationJSON, ANameIsEnough)
{
    const auto first = configuration(R"({"name":"N"})"), second = configuration(R"({"name":"N"})");
    EXPECT_EQ(first, (Configuration{.id = first.id, .name = "N"}));
    EXPECT_EQ(first.id.size(), 36U);
    EXPECT_NE(first.id, second.id) << "each gets an identifier of its own";
}

TEST(MCPServerConfigurationJSON, HasAllItsKeysAndTheAddressOnlyWhereThereIsOne)
{
    Configuration whole{.id = "i",
        .name = "n",
        .transport = Configuration::Transport::streamableHTTP,
        .command = "/c",
        .args = {"a", ""},
        .env = {{"E", "v"}},
        .secretEnvironment = {{"S", "acct"}},
        .url = "https://example.org"};
    EXPECT_EQ(whole.json(),
        JSONValue::parse(R"({"id":"i","name":"n","transport":"streamableHTTP","command":"/c","args":["a",""],"env":{"E":"v"},)"
                         R"("secretEnvironment":{"S":"acct"},"url":"https:\/\/example.org"})"));
    EXPECT_EQ(Configuration::fromJSON(whole.json()), whole);
    whole.url.reset();
    whole.transport = Configuration::Transport::stdio;
    EXPECT_EQ(whole.json()["transport"], JSONValue("stdio"));
    EXPECT_EQ(whole.json().object()->size(), 7U);
    EXPECT_EQ(Configuration::fromJSON(whole.json()), whole);
}

TEST(MCPServerConfigurationJSON, NullIsAbsentAndOtherKeysAreNotLookedAt)
{
    const auto read = configuration(R"({"name":"N","id":null,"transport":null,"command":null,"args":null,"env":null,)"
                                    R"("secretEnvironment":null,"url":null,"later":7})");
    EXPECT_EQ(read, (Configuration{.id = read.id, .name = "N"}));
    EXPECT_EQ(configuration(R"({"name":"","id":""})").id, "") << "an empty one is one";
}

TEST(MCPServerConfigurationJSON, WhatHasNoNameOrAMemberOfAnotherTypeDoesNotDecode)
{
    for (const char *json : {"{}", "[]", "null", "\"N\"", R"({"name":null})", R"({"name":7})", R"({"name":"N","id":7})",
             R"({"name":"N","transport":"http"})", R"({"name":"N","transport":7})", R"({"name":"N","command":[]})",
             R"({"name":"N","args":"a"})", R"({"name":"N","args":[7]})", R"({"name":"N","args":{}})", R"({"name":"N","env":[]})",
             R"({"name":"N","env":{"A":7}})", R"({"name":"N","env":{"A":null}})", R"({"name":"N","secretEnvironment":"a"})",
             R"({"name":"N","url":7})"})
        EXPECT_FALSE(decodes<Configuration>(json)) << json;
}

TEST(MCPToolListJSON, TakesToolsAndACursorAndIgnoresTheRest)
{
    const auto list = MCPToolList::fromJSON(JSONValue::parse(
        R"({"tools":[{"name":"a","inputSchema":{"x":1},"title":"A"},{"name":"b","description":"d","inputSchema":null}],)"
        R"("nextCursor":"c","_meta":{}})"));
    ASSERT_EQ(list.tools.size(), 2U);
    EXPECT_EQ(list.tools[0].name, "a");
    EXPECT_EQ(list.tools[0].description, std::nullopt);
    EXPECT_EQ(list.tools[0].inputSchema, JSONValue(JSONValue::Object{{"x", 1}}));
    EXPECT_EQ(list.tools[1].description, "d");
    EXPECT_TRUE(list.tools[1].inputSchema.isNull());
    EXPECT_EQ(list.nextCursor, "c");
    EXPECT_EQ(MCPToolList::fromJSON(JSONValue::parse(R"({"tools":[],"nextCursor":null})")).nextCursor, std::nullopt);
}

TEST(MCPToolListJSON, OneBadEntryMakesTheWholePageUnreadable)
{
    EXPECT_TRUE(decodes<MCPToolList>(R"({"tools":[{"name":"a","inputSchema":{}}]})"));
    for (const char *json : {"{}", "[]", "null", R"({"tools":null})", R"({"tools":{}})", R"({"tools":[7]})",
             R"({"tools":[{"name":"a","inputSchema":{}},{"name":"a"}]})", R"({"tools":[{"inputSchema":{}}]})",
             R"({"tools":[{"name":7,"inputSchema":{}}]})", R"({"tools":[{"name":"a","description":7,"inputSchema":{}}]})",
             R"({"tools":[],"nextCursor":7})"})
        EXPECT_FALSE(decodes<MCPToolList>(json)) << json;
}

TEST(JSONValueTake, MovesAMemberOutAndLeavesNull)
{
    JSONValue value = JSONValue::parse(R"({"a":[1],"b":2})");
    EXPECT_EQ(value.take("a"), JSONValue(JSONValue::Array{1}));
    EXPECT_EQ(value, JSONValue::parse(R"({"a":null,"b":2})"));
    EXPECT_TRUE(value.take("none").isNull());
    EXPECT_TRUE(JSONValue("text").take("a").isNull());
}
