#include "tests/support/DiskFolder.h"
#include "tests/support/ServerScene.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <set>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;

namespace {

using Sentences = std::vector<std::string>;

constexpr const char *disconnected = "The MCP server disconnected.";
constexpr const char *isDisconnected = "The MCP server is disconnected.";
constexpr const char *isClosed = "The MCP connection is closed.";
constexpr const char *timedOut = "The MCP server timed out.";
constexpr const char *rejected = "The MCP server rejected the request.";
constexpr const char *wrongVersion = "This MCP protocol version is not supported.";
constexpr const char *notDecoded = "The operation could not be completed. Please try again or check permissions.";
constexpr const char *unavailable = "This tool is not available.";

constexpr double soonEnough = 1.5; ///< Seconds for what may take both steps of an end, and for nothing longer.

/// What a server that misbehaves in one way leads to.
struct Case {
    const char *mode, *why;
    Sentences connecting = {}; ///< One of them is the failure; none is a success.
    Sentences calling = {}; ///< The same of a call, once connected.
    std::optional<std::string> calledAgain = {}; ///< The failure of a second call, empty for a success.
    bool ignoresRequestsToEnd = false; ///< Takes the third step to end.
};

void PrintTo(const Case &one, std::ostream *out) { *out << one.mode << ": " << one.why; }

/// One server, which misbehaves as it is told.
struct HostileServersThreads : testing::TestWithParam<Case>, ServerScene {
    std::string connect(const std::string &mode)
    {
        configuration.args = {mode};
        return ServerScene::connect(configuration);
    }
    std::string call(std::string text = "hello")
    {
        return ServerScene::call("mcp.s.work", JSONValue::Object{{"text", std::move(text)}});
    }
    double disconnect() { return ServerScene::disconnect(configuration); }

    MCPServerConfiguration configuration = server("s", KORVANE_BINARIES "/korvane_hostile_server", {});
};

const Case cases[] = {
    {"good", "one that does everything right"},

    {"banner", "it prints something else first", {disconnected}},
    {"prompt", "what it prints first has no line of its own", {disconnected}},
    {"not-json", "its reply is no JSON", {disconnected}},
    {"scalar", "its line is JSON, but no message", {disconnected}},
    {"batch", "several messages in one line are none", {disconnected}},
    {"two-values", "two values in one line", {disconnected}},
    {"jsonrpc-1", "another version of the envelope", {disconnected}},
    {"jsonrpc-number", "the version of the envelope is a text", {disconnected}},
    {"no-jsonrpc", "the envelope has no version", {disconnected}},
    {"wrong-version", "a version of the protocol that is not known", {wrongVersion}},
    {"empty-version", "an empty version", {wrongVersion}},
    {"version-number", "a version that is no text", {wrongVersion}},
    {"no-version", "no version", {wrongVersion}},
    {"no-initialize-result", "no result, which counts as null", {wrongVersion}},
    {"oldest-version", "the oldest version that is known"},
    {"initialize-error", "it refuses", {rejected}},
    {"never-answers", "it says nothing", {timedOut}},
    {"half-line", "it stops in the middle of a line", {timedOut}},
    {"drips-for-good", "its line has no end", {timedOut}},

    {"string-id", "a reply's identifier is a number", {timedOut}},
    {"null-id", "a reply without identifier", {timedOut}},
    {"no-id", "a reply without identifier", {timedOut}},
    {"negative-id", "a negative identifier", {timedOut}},
    {"enormous-id", "an identifier beyond every integer", {timedOut}},
    {"boolean-id", "a boolean is no number", {timedOut}},
    {"fractional-id", "an identifier is cut to an integer"},
    {"exponent-id", "an identifier may be spelt in any way"},
    {"method-number", "only a text is a method, so this is a reply"},
    {"method-and-result", "what has a method is a request, whatever else it has", {timedOut}},

    {"duplicate-replies", "only the first reply counts"},
    {"replies-to-nothing", "replies to what nobody asked are dropped"},
    {"byte-by-byte", "a line in many pieces is one"},
    {"slow-drip", "a slow line is a line"},
    {"crlf", "a carriage return before the line feed is white space"},
    {"empty-lines", "empty lines are skipped"},
    {"carriage-return-line", "a line of white space is no JSON", {disconnected}},
    {"spaces", "a long line is a line"},
    {"stderr-flood", "what it says elsewhere is thrown away"},
    {"notification-flood", "notifications are ignored"},
    {"unknown-reply-flood", "replies to what nobody asked are dropped"},
    {"ping-flood-unread", "it asks without reading the answers", {}, {disconnected}, isDisconnected},

    {"cursor-loop", "a page leads to itself", {"The server repeated a pagination cursor."}},
    {"cursor-long-loop", "pages lead in a circle", {"The server repeated a pagination cursor."}},
    {"pages-20", "five hundred tools on twenty pages"},
    {"pages-21", "one page more", {"The server returned too many tool pages."}},
    {"tools-500", "five hundred tools"},
    {"tools-501", "one tool more", {"The server exceeds the 500-tool limit."}},
    {"tools-none", "no tool at all", {}, {unavailable}},
    {"same-names", "two tools of one name", {"A tool with this name is already registered."}},
    {"no-schema", "a tool has a schema", {notDecoded}},
    {"null-schema", "a schema that says nothing is one"},
    {"no-tools", "a list has its entries", {notDecoded}},
    {"tools-object", "a list is one", {notDecoded}},
    {"tool-text", "a tool is an object", {notDecoded}},
    {"name-number", "a name is a text", {notDecoded}},
    {"description-number", "a description is a text", {notDecoded}},
    {"cursor-number", "a cursor is a text", {notDecoded}},
    {"list-error", "it refuses to list", {rejected}},
    {"list-null", "nothing is no list", {notDecoded}},
    {"required-number", "nobody can give what has no name", {}, {"Required tool input is missing."}},
    {"long-name", "a name of a million bytes"},

    {"asks", "each request of its own is refused under the identifier that it has"},
    {"pings", "each ping is answered under the identifier that it has"},
    {"huge", "a result of seven million bytes"},
    {"too-huge", "more than eight million bytes without an end", {}, {disconnected}, isDisconnected},
    {"deep", "deeper than any honest result", {}, {disconnected}, isDisconnected},
    {"deep-enough", "deep, but readable"},
    {"bad-utf8", "no UTF-8", {}, {disconnected}, isDisconnected},
    {"nul-bytes", "a NUL inside a text", {}, {disconnected}},
    {"nul-between", "a NUL before the message", {}, {disconnected}},
    {"byte-order-mark", "a mark before the message", {}, {disconnected}},
    {"lone-surrogate", "half a character", {}, {disconnected}},
    {"controls", "control characters that are escaped are text"},
    {"infinite", "a number beyond all", {}, {disconnected}},
    {"big-number", "a number beyond every integer"},
    {"tool-error", "the tool has failed", {}, {"The MCP tool reported an execution error."},
        "The MCP tool reported an execution error."},
    {"tool-error-text", "only the boolean true is an error"},
    {"error-member", "it refuses", {}, {rejected}, rejected},
    {"error-false", "any error but null is one", {}, {rejected}},
    {"error-null", "an error of null is none"},
    {"no-result", "no result is null, and that is one"},
    {"answers-late", "a late reply is dropped, and the next call works", {}, {timedOut}, ""},
    {"stops-reading", "it does nothing any more", {}, {timedOut}, timedOut},

    {"exit-at-once", "it ends at once", {disconnected, isDisconnected, isClosed}},
    {"exit-in-initialize", "it ends when it is greeted", {disconnected}},
    {"exit-after-initialize", "it greets and ends", {disconnected, isDisconnected, isClosed}},
    {"half-line-and-exit", "it ends in the middle of a line", {disconnected}},
    {"exit-on-second-page", "it ends when only a part of its tools is known", {disconnected}},
    {"exit-in-huge", "it ends in the middle of a result", {}, {disconnected}, isDisconnected},
    {"exit-while-asking", "it ends before it is answered itself", {}, {disconnected}, isDisconnected},
    {"exit-in-list", "it ends when it shall list", {disconnected}},
    {"exit-in-call", "it ends when it shall work", {}, {disconnected}, isDisconnected},
    {"crash", "it crashes", {}, {disconnected}, isDisconnected},
    {"closes-output", "it lives on and cannot speak", {}, {disconnected}, isDisconnected},
    {"closes-input", "it lives on and cannot hear", {disconnected, isDisconnected, isClosed}},
    {"stubborn", "it ends neither by the end of its input nor when it is asked", {}, {}, {}, true},
    {"stops-itself", "it stands still", {}, {timedOut}, timedOut},
    {"leaves-daemons", "what it has left behind ends, too", {}, {}, {}, true},
    {"daemon-in-the-end", "what it leaves behind in the end ends, too", {}, {}, {}, true},
    {"becomes-daemon", "it goes on without its first process", {}, {}, {}, true},
    {"chain", "what it starts never stands still", {}, {}, {}, true},
    {"loses-first-thread", "it looks dead and is not", {}, {}, {}, true},
    {"talks-to-the-end", "it goes on talking when nobody listens", {}, {}, {}, true},
};

} // namespace

TEST_P(HostileServersThreads, EndInTheToldSentenceWithNothingLeftRunning)
{
    const Case &given = GetParam();
    // Only where nothing else can come: on a busy machine a flood takes its time.
    clock.impatient = given.connecting == Sentences{timedOut} || given.calling == Sentences{timedOut};
    const double begun = SystemClock().uptime();
    const std::string failure = connect(given.mode);
    if (!given.connecting.empty()) {
        EXPECT_LT(SystemClock().uptime() - begun, soonEnough + (clock.impatient ? clock.seconds() : 0));
        EXPECT_THAT(given.connecting, testing::Contains(failure));
        EXPECT_EQ(status("s"), failure);
        EXPECT_TRUE(registry.definitions().empty()) << "no tool is left behind";
        EXPECT_EQ(call(), unavailable);
    } else {
        ASSERT_EQ(failure, "");
        EXPECT_EQ(status("s"), "Connected · " + std::to_string(registry.definitions().size()) + " tools");
        const std::string called = call();
        if (given.calling.empty())
            EXPECT_EQ(called, "");
        else
            EXPECT_THAT(given.calling, testing::Contains(called));
        if (given.calledAgain)
            EXPECT_EQ(call(), *given.calledAgain);
    }
    if (clock.impatient)
        EXPECT_GE(SystemClock().uptime() - begun, 0.4) << "it was waited for";
    const double ending = disconnect();
    EXPECT_EQ(status("s"), "Disconnected");
    EXPECT_TRUE(registry.definitions().empty());
    EXPECT_LT(ending, soonEnough) << "nothing that it does can hold this up";
    if (given.ignoresRequestsToEnd)
        EXPECT_GE(ending, 0.59) << "it was given both steps";
    EXPECT_TRUE(nothingRuns(3s));
}

INSTANTIATE_TEST_SUITE_P(All, HostileServersThreads, testing::ValuesIn(cases), [](const auto &info) {
    std::string name = info.param.mode;
    std::ranges::replace(name, '-', '_');
    return name;
});

// Results

using ServerResultsThreads = HostileServersThreads;

TEST_F(ServerResultsThreads, ComeAsTheServerGaveThem)
{
    ASSERT_EQ(connect("good"), "");
    EXPECT_EQ(call("über\n\t\"quoted\" \xF0\x9F\x8C\x8A"), "");
    EXPECT_EQ(resultText(), "über\n\t\"quoted\" \xF0\x9F\x8C\x8A");
    EXPECT_EQ(registry.definitions().front().name, "mcp.s.work");
    EXPECT_EQ(registry.definitions().front().permission, ToolPermission::destructive);
}

TEST_F(ServerResultsThreads, MayBeSevenMillionBytes)
{
    ASSERT_EQ(connect("huge"), "");
    EXPECT_EQ(call(), "");
    EXPECT_EQ(resultText().size(), 7'000'000u);
}

TEST_F(ServerResultsThreads, OfACallThatIsTooLongAreNone)
{
    ASSERT_EQ(connect("good"), "");
    EXPECT_EQ(call(std::string(1'000'000, 'x')), "The MCP request exceeds the size limit.");
    EXPECT_EQ(call(std::string(900'000, 'x')), "") << "and the connection goes on";
    EXPECT_EQ(resultText().size(), 900'000u);
}

TEST_F(ServerResultsThreads, StandForEachOfSeveralCallsAtOnce)
{
    ASSERT_EQ(connect("slow-drip"), "");
    std::vector<Begun<ToolResult>> calls;
    for (int i = 0; i < 10; ++i)
        calls.emplace_back(loop, registry.call("mcp.s.work", JSONValue::Object{{"text", std::to_string(i)}}));
    for (std::size_t i = 0; i < calls.size(); ++i)
        EXPECT_EQ(calls[i].result().value["content"].array()->at(0)["text"], JSONValue(std::to_string(i)));
}

// Time

TEST_F(ServerResultsThreads, AWellBehavedServerIsNotWaitedForLongerThanOneStep)
{
    ASSERT_EQ(connect("good"), "");
    EXPECT_LT(disconnect(), 0.5);
    EXPECT_TRUE(marked.alive().empty()) << "when disconnecting is done nothing of it runs";
}

TEST_F(ServerResultsThreads, AStubbornServerIsGoneAfterBothSteps)
{
    ASSERT_EQ(connect("stubborn"), "");
    const double ending = disconnect();
    EXPECT_GE(ending, 0.59);
    EXPECT_LT(ending, 1.5);
    EXPECT_TRUE(soon(
        loop, [this] { return marked.alive().empty(); }, 1s));
}

TEST_F(ServerResultsThreads, AServerBehindAWrapperIsGoneAfterBothStepsWithAllThatWasStarted)
{
    const DiskFolder disk;
    const std::string hostile = configuration.command, python = disk.path + "/venv/bin/python3";
    ASSERT_EQ(std::system(("/usr/bin/python3 -m venv --without-pip " + disk.path + "/venv").c_str()), 0);
    const std::string child = "import subprocess, sys; subprocess.run([sys.argv[1], 'stubborn'])";
    const struct {
        std::string command;
        std::vector<std::string> arguments;
        std::size_t processes;
    } wrappers[] = {
        {"/bin/sh", {"-c", hostile + " stubborn; wait"}, 2},
        {"/bin/sh", {"-c", "exec 3<&0; " + hostile + " stubborn <&3 & wait"}, 2},
        {"/usr/bin/env", {"WRAPPED=1", hostile, "stubborn"}, 1},
        {python, {"-c", child, hostile}, 2},
    };
    for (const auto &wrapper : wrappers) {
        SCOPED_TRACE(wrapper.command + " " + wrapper.arguments[1]);
        configuration.command = wrapper.command;
        configuration.args = wrapper.arguments;
        ASSERT_EQ(ServerScene::connect(configuration), "");
        EXPECT_EQ(marked.alive().size(), wrapper.processes);
        EXPECT_EQ(call(), "");
        const double ending = disconnect();
        EXPECT_GE(ending, 0.59);
        EXPECT_LT(ending, soonEnough);
        EXPECT_TRUE(nothingRuns(1s));
    }
}

TEST_F(ServerResultsThreads, DisconnectingInTheMiddleOfConnectingLeavesNothing)
{
    configuration.args = {"never-answers"};
    Begun<void> connecting(loop, manager.connect(configuration));
    EXPECT_TRUE(soon(loop, [this] { return marked.alive().size() == 1; }));
    await(loop, manager.disconnect(configuration));
    EXPECT_THROW(connecting.result(), std::exception);
    EXPECT_TRUE(nothingRuns());
    EXPECT_TRUE(registry.definitions().empty());
}

TEST_F(ServerResultsThreads, StoppingEndsAllServersAlsoThoseThatAreStillConnecting)
{
    MCPServerConfiguration silent = configuration;
    silent.id = "t";
    silent.args = {"never-answers"};
    for (const MCPServerConfiguration &one : {configuration, silent})
        await(loop, manager.add(one));
    ASSERT_EQ(connect("stubborn"), "");
    Begun<void> connecting(loop, manager.connect(silent));
    EXPECT_TRUE(soon(loop, [this] { return marked.alive().size() == 2; }));
    await(loop, manager.stop());
    EXPECT_TRUE(soon(
        loop, [this] { return marked.alive().empty(); }, 1s));
    EXPECT_THROW(connecting.result(), std::exception);
}

namespace {

/// Servers whose beginning is never told, as on a file system that does not answer.
struct UnansweredLaunchesThreads : testing::Test {
    static std::string hostOn(const DiskFolder &disk)
    {
        return disk.script("host", "echo >>\"$0.begun\"; while [ -e \"$0\" ]; do sleep 0.05; done");
    }

    DiskFolder disk;
    ServerScene scene{"/home/ada", hostOn(disk)};
};

} // namespace

TEST_F(UnansweredLaunchesThreads, HoldUpNeitherTheStoreNorTheEnd)
{
    std::vector<MCPServerConfiguration> servers;
    for (const char *id : {"a", "b", "c", "d", "e"})
        servers.push_back(ServerScene::server(id, "/bin/true", {}));
    std::vector<Begun<void>> connecting;
    for (const MCPServerConfiguration &server : servers) {
        await(scene.loop, scene.manager.add(server));
        connecting.emplace_back(scene.loop, scene.manager.connect(server));
    }
    EXPECT_TRUE(soon(scene.loop, [this] { return disk.contents("host.begun") == "\n\n\n\n\n"; }));
    Begun<std::vector<SQLRow>> reading(scene.loop, scene.database->rows("SELECT id FROM mcp_servers"));
    EXPECT_TRUE(soon(
        scene.loop, [&] { return reading.done(); }, 2s));
    EXPECT_LT(scene.disconnect(servers.front()), 0.5) << "an attempt is not waited for";

    const double before = SystemClock().uptime();
    Begun<void> stopping(scene.loop, scene.manager.stop());
    EXPECT_TRUE(soon(
        scene.loop, [&] { return stopping.done(); }, 5s));
    EXPECT_GE(SystemClock().uptime() - before, 0.59);
    EXPECT_LT(SystemClock().uptime() - before, 1.5) << "all of them within the time of one";
    for (Begun<void> &one : connecting)
        EXPECT_THROW(one.result(), std::exception);
}

TEST_F(ServerResultsThreads, PressingTwiceStartsOneServer)
{
    configuration.args = {"slow-drip"};
    Begun<void> first(loop, manager.connect(configuration)), second(loop, manager.connect(configuration));
    second.result();
    EXPECT_FALSE(first.done());
    first.result();
    EXPECT_EQ(marked.alive().size(), 1u);
}

TEST_F(ServerResultsThreads, ConnectingAgainEndsTheServerBefore)
{
    ASSERT_EQ(connect("stubborn"), "");
    const auto before = marked.alive();
    ASSERT_EQ(connect("good"), "");
    const auto after = marked.alive();
    ASSERT_EQ(after.size(), 1u);
    EXPECT_NE(before, after);
    EXPECT_EQ(call(), "");
}

TEST_F(ServerResultsThreads, EveryModeOfTheServerIsExpectedSomewhere)
{
    std::set<std::string> expected, known;
    for (const Case &one : cases)
        expected.insert(one.mode);
    FILE *list = ::popen(KORVANE_BINARIES "/korvane_hostile_server", "r");
    ASSERT_TRUE(list);
    char line[100];
    while (std::fgets(line, sizeof line, list))
        known.insert(std::string(line, std::strcspn(line, "\n")));
    EXPECT_EQ(::pclose(list), 0);
    EXPECT_EQ(expected, known);
    EXPECT_GE(known.size(), 40u);
}
