#include "tests/support/DiskFolder.h"
#include "tests/support/ServerScene.h"

#include <gmock/gmock.h>

using namespace korvane;
using namespace korvane::test;

namespace {

using Strings = std::vector<std::string>;
using Object = JSONValue::Object;

constexpr const char *reported = "The MCP tool reported an execution error.";
constexpr const char *rejected = "The MCP server rejected the request.";

std::string variable(const char *name)
{
    const char *value = std::getenv(name);
    return value ? value : "";
}

/// Servers that others have written, as a user would configure them.
struct ReferenceServers : testing::Test, DiskFolder, ServerScene {
    ReferenceServers() : ServerScene(path)
    {
        const std::string interpreter = program("node");
        secrets.keep("path", std::filesystem::path(interpreter).parent_path().string() + ":/usr/bin:/bin");
        secrets.keep("memory", path + "/memory.jsonl");
    }

    static std::string program(const std::string &name)
    {
        const auto found = findProgram(name, variable("PATH"));
        return found ? *found : "";
    }
    static std::string folderOfServers() { return variable("KORVANE_SERVERS"); }
    /// One that is started by the interpreter of its language.
    static MCPServerConfiguration script(const std::string &name, Strings arguments = {})
    {
        arguments.insert(arguments.begin(), folderOfServers() + "/node_modules/.bin/mcp-server-" + name);
        return withPath(server(name, program("node"), std::move(arguments)));
    }
    static MCPServerConfiguration withPath(MCPServerConfiguration configuration)
    {
        configuration.secretEnvironment["PATH"] = "path";
        return configuration;
    }
    bool offers(const std::string &tool) const
    {
        return std::ranges::any_of(registry.definitions(), [&](const ToolDefinition &one) { return one.name == tool; });
    }
};

} // namespace

TEST_F(ReferenceServers, EchoComesBackAndAWrongArgumentIsAnError)
{
    const auto everything = script("everything");
    ASSERT_EQ(connect(everything), "");
    EXPECT_THAT(status("everything"), testing::MatchesRegex("Connected · [0-9]+ tools"));
    EXPECT_EQ(call("mcp.everything.echo", Object{{"message", "high tide 🌊"}}), "");
    EXPECT_EQ(resultText(), "Echo: high tide 🌊");
    EXPECT_THAT((Strings{reported, rejected}), testing::Contains(call("mcp.everything.echo", Object{{"message", 5}})));
    EXPECT_EQ(call("mcp.everything.echo", Object{}), "Required tool input is missing.") << "the server is not even asked";
    EXPECT_EQ(call("mcp.everything.echo", Object{{"message", "still"}}), "") << "an error ends nothing";
    disconnect(everything);
    EXPECT_TRUE(registry.definitions().empty());
    EXPECT_TRUE(nothingRuns());
}

TEST_F(ReferenceServers, AServerSeesNoVariablesButItsOwn)
{
    ::setenv("KORVANE_TEST_SECRET", "not for servers", 1);
    ASSERT_EQ(connect(script("everything")), "");
    ASSERT_EQ(call("mcp.everything.get-env", Object{}), "");
    const JSONValue variables = JSONValue::parse(resultText());
    Strings names;
    for (const auto &[name, value] : *variables.object())
        names.push_back(name);
    EXPECT_THAT(names, testing::ElementsAre("HOME", MarkedProcesses::name(), "LANG", "PATH"));
    EXPECT_EQ(variables["HOME"], JSONValue(path));
    EXPECT_EQ(variables["LANG"], JSONValue("en_US.UTF-8"));
}

TEST_F(ReferenceServers, FilesAreWrittenWhereAllowedAndNowhereElse)
{
    const auto files = script("filesystem", {folder("allowed")});
    file("outside.txt", "private");
    ASSERT_EQ(connect(files), "");
    EXPECT_EQ(call("mcp.filesystem.write_file", Object{{"path", path + "/allowed/a.txt"}, {"content", "tide\n"}}), "");
    EXPECT_EQ(contents("allowed/a.txt"), "tide\n");
    EXPECT_EQ(call("mcp.filesystem.list_directory", Object{{"path", path + "/allowed"}}), "");
    EXPECT_EQ(resultText(), "[FILE] a.txt");
    EXPECT_EQ(call("mcp.filesystem.read_text_file", Object{{"path", path + "/outside.txt"}}), reported);
    disconnect(files);
    EXPECT_TRUE(nothingRuns());
}

TEST_F(ReferenceServers, WhatIsRememberedIsThereAfterReconnecting)
{
    auto memory = script("memory");
    memory.secretEnvironment["MEMORY_FILE_PATH"] = "memory";
    ASSERT_EQ(connect(memory), "");
    const JSONValue entity =
        Object{{"name", "Sea"}, {"entityType", "water"}, {"observations", JSONValue::Array{JSONValue("is wet")}}};
    EXPECT_EQ(call("mcp.memory.create_entities", Object{{"entities", JSONValue::Array{entity}}}), "");
    ASSERT_EQ(connect(memory), "") << "a new process";
    EXPECT_EQ(call("mcp.memory.read_graph", Object{}), "");
    EXPECT_EQ(JSONValue::parse(resultText())["entities"].array()->at(0)["observations"], entity["observations"]);
    EXPECT_EQ(marked.alive().size(), 1u);
}

TEST_F(ReferenceServers, AThoughtIsCounted)
{
    ASSERT_EQ(connect(script("sequential-thinking")), "");
    const Object thought{{"thought", "Look"}, {"thoughtNumber", 1}, {"totalThoughts", 2}, {"nextThoughtNeeded", true}};
    EXPECT_EQ(call("mcp.sequential-thinking.sequentialthinking", thought), "");
    EXPECT_EQ(JSONValue::parse(resultText())["thoughtHistoryLength"], JSONValue(1));
}

TEST_F(ReferenceServers, ConnectedByTheirWrapperTheyEndWithIt)
{
    const auto wrapped =
        withPath(server("wrapped", program("npx"), {"--prefix", folderOfServers(), "--offline", "mcp-server-everything"}));
    ASSERT_EQ(connect(wrapped), "");
    EXPECT_GE(marked.alive().size(), 2u) << "the wrapper and the server";
    EXPECT_EQ(call("mcp.wrapped.echo", Object{{"message", "through"}}), "");
    EXPECT_EQ(resultText(), "Echo: through");
    disconnect(wrapped);
    EXPECT_TRUE(nothingRuns());
}

TEST_F(ReferenceServers, AServerThatIgnoresItsEndIsGoneAfterBothStepsAlsoBehindItsWrapper)
{
    const std::string stubborn = KORVANE_BINARIES "/korvane_hostile_server stubborn";
    const auto wrapped =
        withPath(server("wrapped", program("npx"), {"--prefix", folderOfServers(), "--offline", "-c", stubborn + "; wait"}));
    ASSERT_EQ(connect(wrapped), "");
    EXPECT_GE(marked.alive().size(), 3u) << "the wrapper, its shell and the server";
    EXPECT_EQ(call("mcp.wrapped.work", Object{{"text", "through"}}), "");
    const double ending = disconnect(wrapped);
    EXPECT_GE(ending, 0.59);
    EXPECT_LT(ending, 1.5);
    EXPECT_TRUE(nothingRuns());
}

TEST_F(ReferenceServers, SeveralAtOnceKeepTheirToolsApart)
{
    for (const auto &one :
        {script("everything"), script("filesystem", {path}), script("memory"), script("sequential-thinking")}) {
        await(loop, manager.add(one));
        EXPECT_EQ(connect(one), "") << one.name;
    }
    for (const char *tool : {"mcp.everything.echo", "mcp.filesystem.read_text_file", "mcp.memory.read_graph",
             "mcp.sequential-thinking.sequentialthinking"})
        EXPECT_TRUE(offers(tool)) << tool;
    disconnect(script("filesystem"));
    EXPECT_FALSE(offers("mcp.filesystem.read_text_file"));
    EXPECT_TRUE(offers("mcp.memory.read_graph"));
    await(loop, manager.stop());
    EXPECT_TRUE(registry.definitions().empty());
    EXPECT_TRUE(nothingRuns());
}
