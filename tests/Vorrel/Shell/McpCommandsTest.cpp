#include "Support/FileLock.h"
#include "tests/Vorrel/Shell/TestTool.h"
#include "tests/support/ScriptedAI.h"

#include <gmock/gmock.h>

using namespace korvane;
using namespace korvane::test;

namespace {

using Object = JSONValue::Object;

/// A server in memory that tells the tide, and a file that describes it.
struct McpCommand : TestTool {
    McpCommand()
    {
        desktop->servers.hear = [this](HeadlessServer &server, const std::string &line) {
            const JSONValue message = JSONValue::parse(line);
            if (const JSONValue &id = message["id"]; !id.isNull())
                answer(server, message["method"].string() ? *message["method"].string() : "", id, message["params"]);
        };
        makeProvider = [this](std::string) { return std::make_unique<ScriptedProvider>(model); };
    }

    void answer(HeadlessServer &server, const std::string &method, const JSONValue &id, const JSONValue &params)
    {
        JSONValue result;
        if (method == "initialize")
            result = Object{{"protocolVersion", version}};
        else if (method == "tools/list")
            result = Object{{"tools",
                JSONValue::Array{Object{{"name", "height"}, {"description", "Height of the water."},
                                     {"inputSchema", JSONValue::schema({{"port", "Where"}}, {"port"})}},
                    Object{{"name", "moon"}, {"inputSchema", Object{}}}}}};
        else if (silent)
            return;
        else if (params["name"] == JSONValue("moon"))
            result = Object{{"isError", true}};
        else
            result = Object{{"content", "2 m"}, {"port", params["arguments"]["port"]}};
        server.say(JSONValue(Object{{"jsonrpc", "2.0"}, {"id", id}, {"result", result}}).encodedString());
    }

    std::string file(const std::string &name, const std::string &text) const
    {
        std::filesystem::create_directories(root + "/home");
        const std::string path = root + "/home/" + name;
        std::ofstream(path) << text;
        return path;
    }
    void add()
    {
        ASSERT_EQ(
            run({"mcp", "add", file("tide.json", R"({"id":"t","name":"Tide","command":"/opt/server","args":["--port","a b"]})")}),
            0)
            << err;
    }
    /// Interrupts what runs as soon as the server has heard `method`.
    void interruptAt(const std::string &method)
    {
        onInterrupt = [this](std::function<void()> given) { stop = std::move(given); };
        const auto before = desktop->servers.hear;
        desktop->servers.hear = [this, before, method](HeadlessServer &server, const std::string &line) {
            before(server, line);
            if (JSONValue::parse(line)["method"] == JSONValue(method) && stop)
                runLater(desktop->loop.executor(), stop);
        };
    }
    std::size_t launched() const { return desktop->servers.launched().size(); }

    std::string version = "2025-11-25";
    bool silent = false; ///< Calls are not answered.
    ModelScript model;
    std::function<void()> stop;
};

const Strings question{"Start MCP server “Tide”?\nThis runs a local process with your user permissions. Only connect servers "
                       "you trust.\n\nExecutable: /opt/server\nArguments: --port a b"};

} // namespace

TEST_F(McpCommand, AServerIsAddedListedAndRemoved)
{
    EXPECT_EQ(run({"mcp", "list"}), 0) << err;
    EXPECT_EQ(out, "");
    add();
    EXPECT_EQ(out, "t\n");
    EXPECT_EQ(run({"mcp", "list"}), 0);
    EXPECT_EQ(out, "t\tTide\t/opt/server\n");
    EXPECT_EQ(run({"mcp", "list", "--json"}), 0);
    EXPECT_EQ(out,
        "[{\"args\":[\"--port\",\"a b\"],\"command\":\"\\/opt\\/server\",\"env\":{},\"id\":\"t\",\"name\":\"Tide\","
        "\"secretEnvironment\":{},\"transport\":\"stdio\"}]\n");
    EXPECT_EQ(run({"mcp", "remove", "t"}), 0) << err;
    EXPECT_EQ(run({"mcp", "list"}), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(launched(), 0u);
    EXPECT_TRUE(dialogs.asked.empty());
}

TEST_F(McpCommand, ServersAreNotChangedUnderARunningKorvane)
{
    add();
    const auto instance = FileLock::tryTake(root + "/data/Korvane/korvane.lock");
    EXPECT_EQ(run({"mcp", "remove", "t"}), 1);
    EXPECT_EQ(err, "Korvane runs and keeps the servers itself. Quit it first.\n");
    EXPECT_EQ(run({"mcp", "add", file("b.json", R"({"name":"Other","command":"/opt/other","args":[]})")}), 1);
    EXPECT_EQ(err, "Korvane runs and keeps the servers itself. Quit it first.\n");
    EXPECT_EQ(run({"mcp", "list"}), 0);
    EXPECT_EQ(out, "t\tTide\t/opt/server\n");
}

TEST_F(McpCommand, WhatIsNoServerIsNotAdded)
{
    add();
    const struct {
        std::string file, sentence;
    } cases[] = {
        {root + "/none.json", "The file " + root + "/none.json could not be read.\n"},
        {file("a.json", "{"), "The file " + root + "/home/a.json describes no MCP server.\n"},
        {file("b.json", R"({"command":"/opt/server"})"), "The file " + root + "/home/b.json describes no MCP server.\n"},
        {file("c.json", R"({"name":""})"), "Give the server a name.\n"},
        {file("d.json", R"({"name":"N","env":{"A":"1"}})"),
            "Plaintext environment values are not stored. Use secretEnvironment with Keychain account references.\n"},
        {file("e.json", R"({"name":"Other","id":"t"})"), "This server is already configured.\n"},
    };
    for (const auto &[path, sentence] : cases) {
        EXPECT_EQ(run({"mcp", "add", path}), 1) << path;
        EXPECT_EQ(err, sentence);
        EXPECT_EQ(out, "");
    }
    EXPECT_EQ(run({"mcp", "list"}), 0);
    EXPECT_EQ(out, "t\tTide\t/opt/server\n");
}

TEST_F(McpCommand, ToolsAreListedByTheServersOwnNames)
{
    add();
    EXPECT_EQ(run({"mcp", "tools", "t", "--yes"}), 0) << err;
    EXPECT_EQ(out,
        "[{\"description\":\"Height of the water.\",\"inputSchema\":"
            + JSONValue::schema({{"port", "Where"}}, {"port"}).encodedString()
            + ",\"name\":\"height\"},{\"description\":\"moon\",\"inputSchema\":{},\"name\":\"moon\"}]\n");
    EXPECT_EQ(dialogs.asked, question);
    EXPECT_EQ(launched(), 1u);
    EXPECT_EQ(desktop->servers.running(), 0u) << "it is ended again";
}

TEST_F(McpCommand, ACallAsksOnceAndPrintsTheReply)
{
    add();
    EXPECT_EQ(run({"mcp", "call", "t", "height", R"({"port":"Brest"})", "--yes"}), 0) << err;
    EXPECT_EQ(out, "{\"content\":\"2 m\",\"port\":\"Brest\"}\n");
    EXPECT_EQ(dialogs.asked, question);
    EXPECT_EQ(desktop->servers.running(), 0u);
}

TEST_F(McpCommand, WithoutConsentNothingIsStarted)
{
    add();
    for (const Strings &words : {Strings{"mcp", "tools", "t"}, Strings{"mcp", "call", "t", "height", "{}"}}) {
        EXPECT_EQ(run(words), 1);
        EXPECT_EQ(err, "The operation was cancelled.\n");
        EXPECT_EQ(out, "");
    }
    EXPECT_EQ(launched(), 0u);
}

TEST_F(McpCommand, ACallThatFailsIsOneSentenceAndEndsTheServer)
{
    add();
    const struct {
        Strings words;
        const char *sentence;
    } cases[] = {
        {{"mcp", "call", "t", "moon", "{}"}, "The MCP tool reported an execution error.\n"},
        {{"mcp", "call", "t", "height", "{}"}, "Required tool input is missing.\n"},
        {{"mcp", "call", "t", "height", "[]"}, "Tool input must be a JSON object.\n"},
        {{"mcp", "call", "t", "sun", "{}"}, "This tool is not available.\n"},
    };
    for (auto [words, sentence] : cases) {
        words.push_back("--yes");
        EXPECT_EQ(run(words), 1) << testing::PrintToString(words);
        EXPECT_EQ(err, sentence);
        EXPECT_EQ(out, "");
    }
    EXPECT_EQ(launched(), std::size(cases));
    EXPECT_EQ(desktop->servers.running(), 0u);
}

TEST_F(McpCommand, AServerThatCannotBeConnectedIsToldAndEnded)
{
    add();
    version = "1999-01-01";
    EXPECT_EQ(run({"mcp", "tools", "t", "--yes"}), 1);
    EXPECT_EQ(err, "This MCP protocol version is not supported.\n");
    EXPECT_EQ(desktop->servers.running(), 0u);
    ASSERT_EQ(run({"mcp", "add", file("none.json", R"({"id":"n","name":"None","command":"relative"})")}), 0);
    EXPECT_EQ(run({"mcp", "tools", "n", "--yes"}), 1);
    EXPECT_EQ(err, "Select an absolute path to an executable, such as /opt/homebrew/bin/node.\n");
}

TEST_F(McpCommand, AServerThatIsNotThereIsTold)
{
    add();
    for (const Strings &words : {Strings{"mcp", "remove", "x"}, Strings{"mcp", "tools", "x", "--yes"},
             Strings{"mcp", "call", "x", "height", "{}", "--yes"}}) {
        EXPECT_EQ(run(words), 1);
        EXPECT_EQ(err, "There is no MCP server with the identifier x.\n");
    }
    EXPECT_TRUE(dialogs.asked.empty());
}

TEST_F(McpCommand, InterruptingACallEndsItAndItsServer)
{
    add();
    silent = true;
    interruptAt("tools/call");
    EXPECT_EQ(run({"mcp", "call", "t", "height", R"({"port":"Brest"})", "--yes"}), 1);
    EXPECT_EQ(err, "The operation was cancelled.\n");
    EXPECT_FALSE(stop) << "nothing is listened for any more";
    EXPECT_EQ(desktop->servers.running(), 0u);
    const Strings heard = desktop->servers.launched().front()->heard();
    EXPECT_THAT(heard.back(), testing::HasSubstr("notifications\\/cancelled"));
}

TEST_F(McpCommand, InterruptingWhileItConnectsEndsItsServer)
{
    add();
    interruptAt("initialize");
    EXPECT_EQ(run({"mcp", "tools", "t", "--yes"}), 1);
    EXPECT_EQ(err, "The operation was cancelled.\n");
    EXPECT_EQ(launched(), 1u);
    EXPECT_EQ(desktop->servers.running(), 0u);
}

TEST_F(McpCommand, WrongUsageIsTold)
{
    add();
    for (const Strings &words : {Strings{"mcp"}, Strings{"mcp", "start"}, Strings{"mcp", "add"}, Strings{"mcp", "list", "t"},
             Strings{"mcp", "tools"}, Strings{"mcp", "call", "t", "height"}, Strings{"mcp", "call", "t", "height", "{", "--yes"},
             Strings{"mcp", "list", "--connect", "t"}, Strings{"calc", "1", "--connect", "t"}}) {
        EXPECT_EQ(run(words), 2) << testing::PrintToString(words);
        EXPECT_EQ(out, "");
    }
    EXPECT_EQ(launched(), 0u);
}

// A request that may use a server

namespace {

struct AskWithServer : McpCommand {
    AskWithServer()
    {
        add();
        model.answers(wishes({wish("1", "mcp.t.height", Object{{"port", "Brest"}})})).answers(said("Two metres."));
    }
    void turnOn() { ASSERT_EQ(run({"settings", "set", "aiEnabled", "true"}), 0) << err; }
};

} // namespace

TEST_F(AskWithServer, ConnectsItForThatRunAlone)
{
    turnOn();
    EXPECT_EQ(run({"ask", "how high?", "--connect", "t", "--allow", "mcp.t", "--allow", "mcp.t.height"}), 0) << err;
    EXPECT_EQ(out, "Two metres.\n");
    EXPECT_TRUE(dialogs.asked.empty()) << "both were allowed by name";
    EXPECT_EQ(launched(), 1u);
    EXPECT_EQ(desktop->servers.running(), 0u);
    ASSERT_EQ(model.asked.size(), 2u);
    EXPECT_EQ(model.asked.back().messages.back().content, "{\"content\":\"2 m\",\"port\":\"Brest\"}");
}

TEST_F(AskWithServer, AsksForWhatWasNotAllowedByItsName)
{
    turnOn();
    EXPECT_EQ(run({"ask", "how high?", "--connect", "t", "--allow", "mcp.t.height"}), 1);
    EXPECT_EQ(dialogs.asked, question);
    EXPECT_EQ(launched(), 0u) << "the server itself";
    dialogs.asked.clear();
    EXPECT_EQ(run({"ask", "how high?", "--connect", "t", "--allow", "mcp.t"}), 1);
    EXPECT_THAT(dialogs.asked, testing::ElementsAre(testing::StartsWith("AI wants to run mcp.t.height\n")));
    EXPECT_THAT(err, testing::EndsWith("The operation was cancelled.\n"));
    EXPECT_EQ(launched(), 1u);
    EXPECT_EQ(desktop->servers.running(), 0u) << "a failure ends it, too";
}

TEST_F(AskWithServer, StartsNothingWhileRequestsAreTurnedOff)
{
    EXPECT_EQ(run({"ask", "how high?", "--connect", "t", "--allow", "mcp.t"}), 1);
    EXPECT_EQ(err, "Enable AI Requests and save an API key in Settings → AI.\n");
    EXPECT_EQ(launched(), 0u);
}

TEST_F(AskWithServer, AServerThatIsNotThereIsTold)
{
    turnOn();
    EXPECT_EQ(run({"ask", "how high?", "--connect", "t", "--connect", "x", "--allow", "mcp.t"}), 1);
    EXPECT_EQ(err, "There is no MCP server with the identifier x.\n");
    EXPECT_EQ(launched(), 0u);
}

TEST_F(AskWithServer, YesIsTheConsentToAllOfIt)
{
    turnOn();
    EXPECT_EQ(run({"ask", "how high?", "--connect", "t", "--yes"}), 0) << err;
    EXPECT_EQ(out, "Two metres.\n");
    EXPECT_EQ(dialogs.asked.size(), 2u) << "asked each time, and answered by it";
}

TEST_F(AskWithServer, AServerThatIsNamedTwiceIsAskedForAndStartedOnce)
{
    turnOn();
    EXPECT_EQ(run({"ask", "how high?", "--connect", "t", "--connect", "t", "--yes"}), 0) << err;
    EXPECT_EQ(dialogs.asked.size(), 2u);
    EXPECT_EQ(launched(), 1u);
}
