#include "Vorrel/MCP/MCPToolAdapter.h"

#include "Vorrel/AI/AIRuntime.h"
#include "tests/Vorrel/MCP/TestManager.h"
#include "tests/support/ScriptedAI.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::test;
using testing::ElementsAre;

namespace {

/// A connected server with one tool.
struct Adapter : testing::Test, TestManager {
    Adapter()
    {
        script.pages = {JSONValue::parse(R"({"tools":[{"name":"Write a note!","description":"Writes.","inputSchema":)"
                                         R"({"type":"object","required":["text"]}}]})")};
        EXPECT_EQ(connect(), "done");
        script.asked.clear();
    }
    std::string call(JSONValue input = JSONValue::Object{{"text", "x"}})
    {
        try {
            return await(loop(), registry.call(name, std::move(input))).value.encodedString();
        } catch (const AppError &error) {
            return error.errorDescription();
        }
    }
    const std::string name = "mcp.one.Write a note!";
};

MCPToolDescription describe(const char *json) { return MCPToolDescription::fromJSON(JSONValue::parse(json)); }

} // namespace

TEST(MCPToolAdapterDefinition, EveryRemoteToolIsDestructiveWhateverTheServerSays)
{
    const MCPToolAdapter adapter("mcp.id.",
        describe(
            R"({"name":"n","description":"d","inputSchema":{"a":[1]},"annotations":{"readOnlyHint":true},"permission":"read"})"),
        nullptr);
    EXPECT_EQ(adapter.definition(),
        (ToolDefinition{.name = "mcp.id.n",
            .description = "d",
            .inputSchema = JSONValue::parse(R"({"a":[1]})"),
            .permission = ToolPermission::destructive,
            .requiresApproval = false}));
}

TEST(MCPToolAdapterDefinition, AToolWithoutDescriptionIsDescribedByItsOwnName)
{
    EXPECT_EQ(MCPToolAdapter("mcp.id.", describe(R"({"name":"n","inputSchema":null})"), nullptr).definition().description, "n");
    EXPECT_EQ(MCPToolAdapter("mcp.id.", describe(R"({"name":"n","description":"","inputSchema":{}})"), nullptr)
                  .definition()
                  .description,
        "")
        << "an empty one is one";
}

TEST_F(Adapter, ACallSendsTheRemoteNameAndTheInputAsItStands)
{
    EXPECT_EQ(call(JSONValue::parse(R"({"text":"x","more":[null,1.5]})")), R"({"content":[{"text":"x","type":"text"}]})");
    ASSERT_EQ(script.methods(), (Strings{"tools/call"}));
    EXPECT_EQ(
        script.asked[0]["params"], JSONValue::parse(R"({"name":"Write a note!","arguments":{"text":"x","more":[null,1.5]}})"));
}

TEST_F(Adapter, AnErrorOfTheToolIsToldWithoutTheServersWords)
{
    script.callResult = JSONValue::parse(R"({"isError":true,"content":[{"type":"text","text":"disk full"}]})");
    EXPECT_EQ(call(), "The MCP tool reported an execution error.");
}

TEST_F(Adapter, AnythingButTrueIsNoErrorAndTheReplyIsUnchanged)
{
    for (const char *reply : {R"({"isError":false})", R"({"isError":"true"})", R"({"isError":1})", R"({"isError":null})", "{}",
             "null", "[true]", R"("text")", R"({"content":[],"structuredContent":{"isError":true}})"}) {
        script.instead["tools/call"] = JSONValue::parse(reply);
        EXPECT_EQ(call(), reply);
    }
}

TEST_F(Adapter, ErrorsOfTheTransportPassOutUnchanged)
{
    script.deadly = {"tools/call"};
    EXPECT_EQ(call(), "The MCP server disconnected.");
    EXPECT_EQ(call(), "The MCP server is disconnected.");
}

TEST_F(Adapter, WhatTheServersSchemaRequiresIsCheckedBeforeAnybodyIsAsked)
{
    EXPECT_EQ(call(JSONValue::Object{}), "Required tool input is missing.");
    EXPECT_TRUE(approved.empty());
    EXPECT_TRUE(script.asked.empty());
}

TEST_F(Adapter, EveryCallAsksAlsoWhenWritesNeedNoConfirmation)
{
    registry.policy.confirmWrites = false;
    call();
    call();
    EXPECT_THAT(approved, ElementsAre(name, name));
}

TEST_F(Adapter, ACallThatRunsGoesOnWhenTheServerIsTakenAway)
{
    script.silent = {"tools/call"};
    auto calling = begin(registry.call(name, JSONValue::Object{{"text", "x"}}));
    EXPECT_EQ(outcome(manager.remove(server)), "done");
    ASSERT_TRUE(calling.done());
    EXPECT_THROW(calling.result(), AppError);
    EXPECT_EQ(call(), "This tool is not available.");
}

TEST_F(Adapter, TheReplyReachesTheModelAsItsJSON)
{
    ModelScript model;
    model.answers(wishes({wish("1", name, JSONValue::Object{{"text", "x"}})})).answers(said("done"));
    ScriptedProvider provider(model);
    const AIRuntime runtime(registry);
    await(loop(), runtime.run("question", provider, {}, {}, [](const std::string &) {}));
    ASSERT_EQ(model.asked.size(), 2U);
    ASSERT_EQ(model.asked[0].tools.size(), 1U);
    EXPECT_EQ(model.asked[0].tools[0].description, "Writes.");
    EXPECT_EQ(model.asked[1].messages.back().content, R"({"content":[{"text":"x","type":"text"}]})");
}

TEST_F(Adapter, AToolWithoutDescriptionReachesTheModelWithItsOwnName)
{
    ServerScript silent;
    silent.pages = {JSONValue::parse(R"({"tools":[{"name":"Write a note!","inputSchema":{"type":"object"}}]})")};
    servers().hear = silent.hear();
    ASSERT_EQ(connect(), "done");
    ModelScript model;
    model.answers(said("done"));
    ScriptedProvider provider(model);
    const AIRuntime runtime(registry);
    await(loop(), runtime.run("question", provider, {}, {}, [](const std::string &) {}));
    ASSERT_EQ(model.asked.size(), 1U);
    ASSERT_EQ(model.asked[0].tools.size(), 1U);
    EXPECT_EQ(model.asked[0].tools[0].description, "Write a note!");
}
