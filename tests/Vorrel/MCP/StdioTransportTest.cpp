#include "Vorrel/MCP/StdioTransport.h"

#include "CommandCore/Commands.h"
#include "Vorrel/Platform/Headless/HeadlessServers.h"
#include "tests/support/Await.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <system_error>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Strings = std::vector<std::string>;
using Endurance = HeadlessServer::Endurance;
using Texts = MCPServerConfiguration::Texts;

constexpr char disconnected[] = "mcp: The MCP server disconnected.";
constexpr char isDisconnected[] = "mcp: The MCP server is disconnected.";
constexpr char isClosed[] = "mcp: The MCP connection is closed.";
constexpr char tooLarge[] = "mcp: The MCP request exceeds the size limit.";
constexpr char timedOut[] = "mcp: The MCP server timed out.";
constexpr char rejected[] = "mcp: The MCP server rejected the request.";
constexpr char noExecutable[] = "configuration: Select an absolute path to an executable, such as /opt/homebrew/bin/node.";
constexpr char noTexts[] =
    "configuration: A variable of an MCP server needs a name without an equals sign, and neither values nor "
    "arguments may contain a null character.";

std::string nameOf(AppError::Kind kind)
{
    switch (kind) {
    case AppError::Kind::configuration: return "configuration";
    case AppError::Kind::mcp: return "mcp";
    default: return "another kind";
    }
}

/// What a call came to: its result, "done", "cancelled", or the kind and the sentence of its error.
template <class T> std::string outcomeOf(Begun<T> call)
{
    try {
        if constexpr (std::is_void_v<T>) {
            call.result();
            return "done";
        } else {
            return call.result().encodedString();
        }
    } catch (const Cancelled &) {
        return "cancelled";
    } catch (const AppError &error) {
        return nameOf(error.kind()) + ": " + error.errorDescription();
    } catch (const std::system_error &error) {
        return "system: " + std::to_string(error.code().value());
    }
}

struct Transport : testing::Test {
    ~Transport() override
    {
        Begun<void> closing(loop, transport->close());
        clock.advance(600ms);
        EXPECT_TRUE(closing.done());
    }

    template <class T> Begun<T> begin(Task<T> task)
    {
        Begun<T> begun(loop, std::move(task));
        loop.runUntilIdle();
        return begun;
    }
    std::string start(MCPServerConfiguration configuration, Texts secrets = {})
    {
        return outcomeOf(begin(transport->start(std::move(configuration), std::move(secrets))));
    }
    /// The server, after it was started.
    HeadlessServer &server()
    {
        if (servers.launched().empty())
            EXPECT_EQ(start(usable), "done");
        return *servers.launched().at(0);
    }
    Begun<JSONValue> ask(std::string method = "tools/list") { return begin(transport->request(std::move(method), params)); }
    void say(const std::string &message)
    {
        server().say(message);
        loop.runUntilIdle();
    }
    void print(std::string_view bytes)
    {
        server().print(bytes);
        loop.runUntilIdle();
    }
    std::string reply(int id, const std::string &result) const
    {
        return R"({"jsonrpc":"2.0","id":)" + std::to_string(id) + R"(,"result":)" + result + "}";
    }
    /// The connection is closed once the server was asked to end.
    bool isClosing() { return !server().steps().empty(); }
    bool isOpen()
    {
        auto asking = ask();
        const auto id = JSONValue::parse(server().heard().back())["id"].encodedString();
        say(R"({"jsonrpc":"2.0","id":)" + id + R"(,"result":"open"})");
        return asking.done() && outcomeOf(std::move(asking)) == "\"open\"";
    }

    const MCPServerConfiguration usable{.id = "one", .name = "One", .command = "/opt/server"};
    const JSONValue params = JSONValue::Object{};
    MainLoop loop;
    ManualClock clock{loop};
    HeadlessServers servers;
    std::shared_ptr<StdioTransport> transport =
        std::make_shared<StdioTransport>(StdioTransport::Parts{loop.executor(), clock, servers, "/home/ada"});
};

/// A system that hangs, looking at the disk or starting the program.
class HangingLaunching final : public ServerLaunching {
public:
    explicit HangingLaunching(bool looking) : looking(looking) { }

    Task<bool> isExecutable(std::string) override
    {
        if (looking)
            co_await hang();
        co_return true;
    }
    Task<std::shared_ptr<ServerProcess>> launch(std::shared_ptr<const Program>) override
    {
        co_await hang();
        co_return nullptr;
    }

private:
    Task<void> hang()
    {
        std::function<void(Continuation<void>)> begin = [this](Continuation<void> done) { waiting = std::move(done); };
        co_await suspend<void>(std::move(begin));
    }

    const bool looking;
    std::optional<Continuation<void>> waiting;
};

const std::string cancelled1 = R"({"jsonrpc":"2.0","method":"notifications\/cancelled","params":{"requestId":1}})";
const std::string asked1 = R"({"id":1,"jsonrpc":"2.0","method":"tools\/list","params":{}})";

} // namespace

// Starting

TEST_F(Transport, StreamableHTTPIsReservedWhateverTheCommand)
{
    MCPServerConfiguration remote = usable;
    remote.transport = MCPServerConfiguration::Transport::streamableHTTP;
    remote.command = "";
    EXPECT_EQ(start(remote), "configuration: Streamable HTTP is reserved for a future release. Use stdio.");
    EXPECT_THAT(servers.launched(), IsEmpty());
}

TEST_F(Transport, OnlyAnAbsolutePathOfAnExecutableIsStarted)
{
    servers.executables = {"opt/server", "/opt/server"};
    for (const std::string &command : {std::string(), std::string("opt/server"), std::string("/opt/other"),
             std::string("~/server"), std::string("/opt/server\0/etc/passwd", 23)}) {
        MCPServerConfiguration other = usable;
        other.command = command;
        EXPECT_EQ(start(other), noExecutable) << command;
    }
    EXPECT_THAT(servers.launched(), IsEmpty());
}

TEST_F(Transport, TheEnvironmentIsMadeFromNothing)
{
    MCPServerConfiguration configuration = usable;
    configuration.args = {"-v", "", "two words"};
    EXPECT_EQ(start(configuration), "done");
    const auto &program = server().program;
    EXPECT_EQ(program.path, "/opt/server");
    EXPECT_THAT(program.arguments, ElementsAre("-v", "", "two words"));
    EXPECT_THAT(program.environment,
        ElementsAre("HOME=/home/ada", "LANG=en_US.UTF-8", "PATH=/opt/homebrew/bin:/usr/local/bin:/usr/bin:/bin"));
}

TEST_F(Transport, TheServersVariablesWinOverTheThreeAndSecretsOverThese)
{
    MCPServerConfiguration configuration = usable;
    configuration.env = {{"PATH", "/opt"}, {"TOKEN", "plain"}, {"MODE", "a=b"}};
    EXPECT_EQ(start(configuration, {{"TOKEN", "secret"}, {"LANG", ""}}), "done");
    EXPECT_THAT(server().program.environment, ElementsAre("HOME=/home/ada", "LANG=", "MODE=a=b", "PATH=/opt", "TOKEN=secret"));
}

TEST_F(Transport, TextsThatNoProgramCanBeGivenAreRefusedBeforeTheLaunch)
{
    const std::string nul("a\0b", 3);
    const struct {
        const char *why;
        Strings args;
        Texts env, secrets;
    } cases[] = {
        {"a NUL in an argument", {nul}, {}, {}},
        {"a variable without a name", {}, {{"", "a"}}, {}},
        {"an equals sign in a name", {}, {{"A=B", "a"}}, {}},
        {"a NUL in a name", {}, {{nul, "a"}}, {}},
        {"a NUL in a value", {}, {{"A", nul}}, {}},
        {"a NUL in a secret", {}, {}, {{"A", nul}}},
        {"an equals sign in the name of a secret", {}, {}, {{"=", "a"}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        MCPServerConfiguration configuration = usable;
        configuration.args = c.args;
        configuration.env = c.env;
        EXPECT_EQ(start(configuration, c.secrets), noTexts);
    }
    EXPECT_THAT(servers.launched(), IsEmpty());
}

TEST_F(Transport, AnErrorOfTheSystemPassesOutAsItStands)
{
    servers.launchFailure = std::make_exception_ptr(std::system_error(ENOEXEC, std::generic_category()));
    EXPECT_EQ(start(usable), "system: " + std::to_string(ENOEXEC));
    EXPECT_EQ(outcomeOf(ask()), isDisconnected);
}

TEST_F(Transport, WhatIsClosedIsNotStarted)
{
    EXPECT_EQ(outcomeOf(begin(transport->close())), "done") << "there is nothing to wait for";
    EXPECT_EQ(start(usable), isClosed);
    EXPECT_THAT(servers.launched(), IsEmpty());
}

TEST_F(Transport, AServerThatIsLaunchedDuringTheCloseIsEndedByIt)
{
    bool closedBefore = false;
    servers.endurance = Endurance::endsWithKill;
    Begun<void> starting(loop, transport->start(usable, {}));
    Begun<void> closing(loop, transport->close());
    servers.onLaunch = [&] { closedBefore = closing.done(); };
    EXPECT_EQ(outcomeOf(std::move(starting)), isClosed);
    loop.runUntilIdle();
    EXPECT_FALSE(closedBefore) << "it waits for what is launched";
    EXPECT_TRUE(closing.done()) << "and for nothing else: nobody has spoken to it";
    EXPECT_THAT(servers.launched().at(0)->steps(), ElementsAre("kill", "let go"));
}

TEST_F(Transport, ALaunchThatDoesNotEndIsWaitedForByTheCloseForTwoStepsAndNoLonger)
{
    for (const bool looking : {false, true}) {
        HangingLaunching hanging(looking);
        const auto stuck = std::make_shared<StdioTransport>(StdioTransport::Parts{loop.executor(), clock, hanging, "/home/ada"});
        auto starting = begin(stuck->start(usable, {}));
        clock.advance(1h);
        EXPECT_FALSE(starting.done());
        auto first = begin(stuck->close());
        clock.advance(599ms);
        auto second = begin(stuck->close());
        EXPECT_FALSE(first.done() || second.done() || starting.done());
        clock.advance(1ms);
        EXPECT_TRUE(first.done() && second.done());
        EXPECT_EQ(outcomeOf(std::move(starting)), isClosed);
        EXPECT_EQ(clock.sleepers(), 0U);
        EXPECT_TRUE(begin(stuck->close()).done());
    }
}

TEST_F(Transport, AStartThatIsCancelledGivesTheLaunchUpInTheSameTime)
{
    HangingLaunching hanging(false);
    const auto stuck = std::make_shared<StdioTransport>(StdioTransport::Parts{loop.executor(), clock, hanging, "/home/ada"});
    auto starting = begin(stuck->start(usable, {}));
    starting.cancel();
    clock.advance(599ms);
    EXPECT_FALSE(starting.done());
    clock.advance(1ms);
    EXPECT_EQ(outcomeOf(std::move(starting)), "cancelled");
    EXPECT_EQ(outcomeOf(begin(stuck->start(usable, {}))), isClosed);
}

// Requests

TEST_F(Transport, RequestsAreNumberedFromOneAndNoNumberComesTwice)
{
    server();
    auto first = ask();
    auto second = ask("initialize");
    EXPECT_THAT(server().heard(), ElementsAre(asked1, R"({"id":2,"jsonrpc":"2.0","method":"initialize","params":{}})"));
    say(reply(2, "2"));
    say(reply(1, R"({"a":[1,null]})"));
    EXPECT_EQ(outcomeOf(std::move(first)), R"({"a":[1,null]})");
    EXPECT_EQ(outcomeOf(std::move(second)), "2");
    auto third = ask();
    EXPECT_EQ(JSONValue::parse(server().heard().back())["id"], JSONValue(3));
    say(reply(3, "null"));
    EXPECT_EQ(outcomeOf(std::move(third)), "null");
}

TEST_F(Transport, ANotificationHasNoNumberAndWaitsForNothing)
{
    server();
    EXPECT_EQ(outcomeOf(begin(transport->notify("notifications/initialized", params))), "done");
    EXPECT_THAT(server().heard(), ElementsAre(R"({"jsonrpc":"2.0","method":"notifications\/initialized","params":{}})"));
}

TEST_F(Transport, AServerThatHasEndedIsDisconnectedAlsoBeforeItsOutputEnds)
{
    server().exit();
    EXPECT_EQ(outcomeOf(begin(transport->request("a", params))), isDisconnected);
}

TEST_F(Transport, ATransportThatWasNeverStartedIsDisconnected)
{
    EXPECT_EQ(outcomeOf(ask()), isDisconnected);
    EXPECT_EQ(outcomeOf(begin(transport->notify("a", params))), isClosed);
}

TEST_F(Transport, AMessageOfAMillionBytesIsRefusedAndOneByteLessIsSent)
{
    server();
    const std::size_t around = asked1.size() - 2 + std::string(R"({"x":""})").size();
    const auto sized = [&](std::size_t bytes) { return JSONValue::Object{{"x", std::string(bytes - around, 'a')}}; };
    const auto request = [&](std::size_t bytes) { return begin(transport->request("tools/list", sized(bytes))); };
    EXPECT_EQ(outcomeOf(request(1'000'000)), tooLarge);
    EXPECT_THAT(server().heard(), IsEmpty());
    auto fits = request(999'999);
    ASSERT_EQ(server().heard().size(), 1U);
    EXPECT_EQ(server().heard()[0].size(), 999'999U) << "measured before the line feed";
    say(reply(2, "1"));
    EXPECT_EQ(outcomeOf(std::move(fits)), "1") << "the one that was refused had the number 1";

    EXPECT_EQ(outcomeOf(begin(transport->notify("a", JSONValue::Object{{"x", std::string(1'000'000, 'a')}}))), tooLarge);
    EXPECT_TRUE(isOpen());
}

TEST_F(Transport, ARequestThatJSONCannotExpressFailsAndLeavesNothingWaiting)
{
    server();
    EXPECT_THROW(await(loop, transport->request("a", std::nan(""))), JSONError);
    EXPECT_EQ(clock.sleepers(), 0U);
    EXPECT_TRUE(isOpen());
}

TEST_F(Transport, AReplyWithAnErrorRejectsTheRequestWithoutTheServersWords)
{
    server();
    auto asking = ask();
    say(R"({"jsonrpc":"2.0","id":1,"error":{"code":-32000,"message":"the disk of Ada is full"}})");
    EXPECT_EQ(outcomeOf(std::move(asking)), rejected);
    EXPECT_TRUE(isOpen());
}

TEST_F(Transport, ARequestTimesOutAfterTwentySecondsAndTheServerIsTold)
{
    server();
    auto asking = ask();
    clock.advance(19'999ms);
    EXPECT_FALSE(asking.done());
    EXPECT_THAT(server().heard(), ElementsAre(asked1));
    clock.advance(1ms);
    EXPECT_EQ(outcomeOf(std::move(asking)), timedOut);
    EXPECT_THAT(server().heard(), ElementsAre(asked1, cancelled1));
}

TEST_F(Transport, AReplyAfterTheTimeOutIsDroppedAndTheNextRequestWorks)
{
    server();
    auto asking = ask();
    clock.advance(20s);
    EXPECT_EQ(outcomeOf(std::move(asking)), timedOut);
    say(reply(1, "1"));
    EXPECT_FALSE(isClosing());
    EXPECT_TRUE(isOpen());
}

TEST_F(Transport, ATimeOutOfInitializeTellsTheServerNothing)
{
    server();
    auto asking = ask("initialize");
    clock.advance(20s);
    EXPECT_EQ(outcomeOf(std::move(asking)), timedOut);
    EXPECT_EQ(server().heard().size(), 1U);
}

TEST_F(Transport, ARequestThatWasAnsweredLeavesNoTimerBehind)
{
    server();
    auto asking = ask();
    EXPECT_EQ(clock.sleepers(), 1U);
    say(reply(1, "1"));
    EXPECT_EQ(outcomeOf(std::move(asking)), "1");
    EXPECT_EQ(clock.sleepers(), 0U);
}

TEST_F(Transport, CancellingTheCallerTellsTheServerAndIsNoTimeOut)
{
    server();
    auto asking = ask();
    asking.cancel();
    loop.runUntilIdle();
    EXPECT_TRUE(asking.done());
    EXPECT_EQ(outcomeOf(std::move(asking)), "cancelled");
    EXPECT_THAT(server().heard(), ElementsAre(asked1, cancelled1));
    EXPECT_EQ(clock.sleepers(), 0U);
    say(reply(1, "1"));
    EXPECT_TRUE(isOpen());
}

TEST_F(Transport, CancellingInitializeTellsTheServerNothing)
{
    server();
    auto asking = ask("initialize");
    asking.cancel();
    EXPECT_EQ(outcomeOf(std::move(asking)), "cancelled");
    EXPECT_EQ(server().heard().size(), 1U);
}

TEST_F(Transport, ACallerThatWasCancelledBeforeSendsNothing)
{
    server();
    Begun<JSONValue> asking(loop, transport->request("tools/list", params));
    asking.cancel();
    EXPECT_EQ(outcomeOf(std::move(asking)), "cancelled");
    EXPECT_THAT(server().heard(), IsEmpty());
}

// What the server prints

TEST_F(Transport, TwoLinesInOneReadAndOneLineInTwoReadsAreAllHandled)
{
    server();
    auto first = ask(), second = ask(), third = ask();
    print(reply(1, "1") + "\n" + reply(2, "2") + "\n");
    EXPECT_EQ(outcomeOf(std::move(first)), "1");
    EXPECT_EQ(outcomeOf(std::move(second)), "2");
    const std::string line = reply(3, "3") + "\n";
    for (const char byte : line) {
        EXPECT_FALSE(third.done());
        print({&byte, 1});
    }
    EXPECT_EQ(outcomeOf(std::move(third)), "3");
}

TEST_F(Transport, ALineOfEightMillionBytesIsReadAndOneOfMoreClosesTheConnection)
{
    server();
    auto asking = ask();
    const std::size_t around = reply(1, "\"\"").size() + 1;
    print(reply(1, '"' + std::string(StdioTransport::largestLine - around, 'x') + '"') + "\n");
    EXPECT_EQ(asking.result().string()->size(), StdioTransport::largestLine - around);

    auto first = ask(), second = ask();
    print(std::string(8'000'000, 'x'));
    EXPECT_FALSE(first.done() || second.done() || isClosing());
    print("x");
    EXPECT_EQ(outcomeOf(std::move(first)), disconnected);
    EXPECT_EQ(outcomeOf(std::move(second)), disconnected);
    EXPECT_TRUE(isClosing());
}

TEST_F(Transport, ABannerBeforeTheFirstReplyClosesTheConnectionAtOnce)
{
    server();
    auto asking = ask("initialize");
    print("Server ready on stdio.\n" + reply(1, "{}") + "\n");
    EXPECT_EQ(outcomeOf(std::move(asking)), disconnected);
    EXPECT_TRUE(isClosing());
    EXPECT_EQ(outcomeOf(ask()), isDisconnected);
}

TEST_F(Transport, WhatStandsBeforeAViolationStillCounts)
{
    server();
    auto first = ask(), second = ask();
    print(reply(1, "1") + "\n{\"jsonrpc\":\"1.0\"}\n" + reply(2, "2") + "\n");
    EXPECT_EQ(outcomeOf(std::move(first)), "1");
    EXPECT_EQ(outcomeOf(std::move(second)), disconnected);
}

TEST_F(Transport, EmptyLinesAndCarriageReturnsAreNoViolation)
{
    server();
    auto asking = ask();
    print("\n\n" + reply(1, "1") + "\r\n\n");
    EXPECT_EQ(outcomeOf(std::move(asking)), "1");
    EXPECT_FALSE(isClosing());
}

TEST_F(Transport, APingIsAnsweredWithItsNumber)
{
    server();
    say(R"({"jsonrpc":"2.0","id":7,"method":"ping"})");
    EXPECT_THAT(server().heard(), ElementsAre(R"({"id":7,"jsonrpc":"2.0","result":{}})"));
}

TEST_F(Transport, AnyOtherRequestOfTheServerIsNotSupportedWhateverItsNumber)
{
    server();
    for (const char *id : {"8", "\"a\"", "0.5", "-1", "1e300", "true", "[]", "{\"b\":null}"}) {
        say(std::string(R"({"jsonrpc":"2.0","id":)") + id + R"(,"method":"sampling/createMessage","params":{}})");
        const auto answer = JSONValue::parse(server().heard().back());
        EXPECT_EQ(answer["id"], JSONValue::parse(id));
        EXPECT_EQ(answer["error"], JSONValue::parse(R"({"code":-32601,"message":"Client capability not supported"})"));
        EXPECT_EQ(answer.object()->size(), 3U);
    }
}

TEST_F(Transport, NotificationsOfTheServerAreIgnoredWhateverTheirMethod)
{
    server();
    for (const char *method : {"notifications/message", "ping", "tools/list", ""})
        say(std::string(R"({"jsonrpc":"2.0","method":")") + method + R"("})");
    EXPECT_THAT(server().heard(), IsEmpty());
    EXPECT_TRUE(isOpen());
}

TEST_F(Transport, RepliesThatNameNoRequestAreIgnoredAndTheRequestTimesOut)
{
    server();
    auto asking = ask();
    for (const char *id : {"\"1\"", "null", "-1", "true", "[1]", "2", "0", "1e300", "0.9", "-0.5"})
        say(std::string(R"({"jsonrpc":"2.0","id":)") + id + R"(,"result":1})");
    EXPECT_FALSE(asking.done());
    clock.advance(20s);
    EXPECT_EQ(outcomeOf(std::move(asking)), timedOut);
}

TEST_F(Transport, TheNumberOfAReplyIsCutToAWholeOne)
{
    server();
    auto asking = ask();
    say(R"({"jsonrpc":"2.0","id":1.99,"result":"one"})");
    EXPECT_EQ(outcomeOf(std::move(asking)), "\"one\"");
}

TEST_F(Transport, ASecondReplyToOneRequestIsDropped)
{
    server();
    auto asking = ask();
    print(reply(1, "1") + "\n" + reply(1, "2") + "\n");
    EXPECT_EQ(outcomeOf(std::move(asking)), "1");
    EXPECT_TRUE(isOpen());
}

TEST_F(Transport, AServerThatAsksWithoutEndAndNeverReadsIsClosed)
{
    server().stopReading();
    const std::string id(900'000, 'x');
    int asked = 0;
    while (!isClosing() && asked < 100) {
        say(R"({"jsonrpc":"2.0","method":"ping","id":")" + id + "\"}");
        ++asked;
    }
    EXPECT_EQ(asked, 9) << "nine answers of 900,000 bytes are the first to be more than eight million";
}

TEST_F(Transport, AServerThatReadsNoRequestsIsClosedWhenEightMillionBytesWait)
{
    server().stopReading();
    std::vector<Begun<JSONValue>> asking;
    for (int i = 0; i < 9 && !isClosing(); ++i)
        asking.push_back(begin(transport->request("a", std::string(950'000, 'x'))));
    EXPECT_EQ(asking.size(), 9U);
    EXPECT_TRUE(isClosing());
    for (auto &one : asking)
        EXPECT_EQ(outcomeOf(std::move(one)), disconnected);
}

TEST_F(Transport, EightMillionUnreadBytesAreLeftAndOneMoreClosesTheConnection)
{
    for (const std::size_t more : {0U, 1U}) {
        const auto other = std::make_shared<StdioTransport>(StdioTransport::Parts{loop.executor(), clock, servers, "/home/ada"});
        await(loop, other->start(usable, {}));
        const auto deaf = servers.launched().back();
        deaf->stopReading();
        const std::size_t around = std::string(R"({"jsonrpc":"2.0","method":"a","params":{"x":""}})").size() + 1;
        for (const std::size_t line : {1'000'000U, 1'000'000U, 1'000'000U, 1'000'000U, 1'000'000U, 1'000'000U, 1'000'000U})
            await(loop, other->notify("a", JSONValue::Object{{"x", std::string(line - around, 'x')}}));
        for (const std::size_t line : {500'000U + more, std::size_t(500'000)}) {
            EXPECT_THAT(deaf->steps(), IsEmpty());
            await(loop, other->notify("a", JSONValue::Object{{"x", std::string(line - around, 'x')}}));
        }
        loop.runUntilIdle();
        EXPECT_EQ(deaf->steps().empty(), more == 0);
        await(loop, other->close());
    }
}

// The end

TEST_F(Transport, AWriteThatFailsClosesTheConnection)
{
    server().failWrites();
    auto asking = ask();
    EXPECT_EQ(outcomeOf(std::move(asking)), disconnected);
    EXPECT_TRUE(isClosing());
}

TEST_F(Transport, TheEndOfTheOutputClosesTheConnection)
{
    server();
    auto first = ask(), second = ask();
    server().closeOutput();
    EXPECT_EQ(outcomeOf(std::move(first)), disconnected);
    EXPECT_EQ(outcomeOf(std::move(second)), disconnected);
    loop.runUntilIdle();
    EXPECT_EQ(outcomeOf(ask()), isDisconnected);
    EXPECT_EQ(outcomeOf(begin(transport->notify("a", params))), isClosed);
}

TEST_F(Transport, AReplyWithoutTheEndOfItsLineIsNoneWhenTheOutputEnds)
{
    server();
    auto asking = ask();
    print(reply(1, "1"));
    server().closeOutput();
    loop.runUntilIdle();
    EXPECT_EQ(outcomeOf(std::move(asking)), disconnected);
    EXPECT_TRUE(isClosing());
}

TEST_F(Transport, CloseFailsWhatIsOutstandingAndTellsTheServerNothing)
{
    server();
    auto asking = ask();
    auto closing = begin(transport->close());
    EXPECT_EQ(outcomeOf(std::move(asking)), disconnected);
    EXPECT_EQ(clock.sleepers(), 0U) << "neither the time-out nor a step is left to wait for";
    EXPECT_EQ(outcomeOf(std::move(closing)), "done");
    EXPECT_THAT(server().heard(), ElementsAre(asked1));
    EXPECT_EQ(server().steps().front(), "close input");
    EXPECT_EQ(server().steps().back(), "let go");
}

TEST_F(Transport, AServerIsEndedByItsInputThenByOneSignalAndThenByTheOtherThreeTenthsOfASecondApart)
{
    const struct {
        const char *why;
        Endurance endurance;
        Strings at0, at299, at300, at599, at600;
    } cases[] = {
        {"ends with its input", Endurance::endsWithInput, {"close input", "let go"}, {}, {}, {}, {}},
        {"ends when asked", Endurance::endsWithTerminate, {"close input"}, {}, {"terminate"}, {}, {"let go"}},
        {"ends only by force", Endurance::endsWithKill, {"close input"}, {}, {"terminate"}, {}, {"kill", "let go"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        servers.endurance = c.endurance;
        const auto other = std::make_shared<StdioTransport>(StdioTransport::Parts{loop.executor(), clock, servers, "/home/ada"});
        await(loop, other->start(usable, {}));
        const auto &ending = *servers.launched().back();
        Strings expected;
        auto closing = begin(other->close());
        const auto expect = [&](const Strings &more) {
            expected.insert(expected.end(), more.begin(), more.end());
            EXPECT_EQ(ending.steps(), expected);
            EXPECT_EQ(closing.done(), expected.back() == "let go");
        };
        expect(c.at0);
        clock.advance(299ms);
        expect(c.at299);
        clock.advance(1ms);
        expect(c.at300);
        clock.advance(299ms);
        expect(c.at599);
        clock.advance(1ms);
        expect(c.at600);
        EXPECT_FALSE(ending.isRunning());
        closing.result();
    }
}

TEST_F(Transport, AServerThatEndsBetweenTheStepsGetsNoSignal)
{
    servers.endurance = Endurance::endsWithKill;
    server();
    auto closing = begin(transport->close());
    clock.advance(299ms);
    server().exit();
    clock.advance(1ms);
    EXPECT_TRUE(closing.done());
    EXPECT_THAT(server().steps(), ElementsAre("close input", "let go"));
}

TEST_F(Transport, EveryCallerOfCloseReturnsOnlyAtTheEnd)
{
    servers.endurance = Endurance::endsWithKill;
    server();
    std::vector<Begun<void>> closing;
    closing.push_back(begin(transport->close()));
    clock.advance(300ms);
    closing.push_back(begin(transport->close()));
    clock.advance(299ms);
    closing.push_back(begin(transport->close()));
    for (const auto &one : closing)
        EXPECT_FALSE(one.done());
    clock.advance(1ms);
    for (const auto &one : closing)
        EXPECT_TRUE(one.done());
    EXPECT_TRUE(begin(transport->close()).done());
    EXPECT_THAT(server().steps(), ElementsAre("close input", "terminate", "kill", "let go"));
}

TEST_F(Transport, CloseGoesToItsEndAlthoughItsCallerIsCancelled)
{
    servers.endurance = Endurance::endsWithKill;
    server();
    {
        Begun<void> early(loop, transport->close());
        early.cancel();
        loop.runUntilIdle();
        EXPECT_FALSE(early.done());
        clock.advance(300ms);
        early.cancel();
        loop.runUntilIdle();
        EXPECT_FALSE(early.done());
        clock.advance(300ms);
        EXPECT_EQ(outcomeOf(std::move(early)), "done");
    }
    EXPECT_FALSE(server().isRunning());
}

TEST_F(Transport, TheServerIsReadUntilItsEndSoThatAFullPipeDoesNotHoldIt)
{
    servers.endurance = Endurance::endsWithKill;
    server();
    auto closing = begin(transport->close());
    print("not JSON\n");
    say(R"({"jsonrpc":"2.0","id":7,"method":"ping"})");
    EXPECT_THAT(server().heard(), IsEmpty()) << "nothing is said behind the end of the input";
    clock.advance(600ms);
    EXPECT_TRUE(closing.done());
}

TEST_F(Transport, ATransportThatNobodyHoldsEndsItsServer)
{
    servers.endurance = Endurance::endsWithKill;
    server();
    transport = std::make_shared<StdioTransport>(StdioTransport::Parts{loop.executor(), clock, servers, "/home/ada"});
    loop.runUntilIdle();
    EXPECT_THAT(server().steps(), ElementsAre("kill", "let go")) << "and the reader has gone with it";
}

namespace {

/// A server that always has something to say.
class EndlessServer final : public ServerProcess, public ServerLaunching {
public:
    Task<std::string> read() override { co_return "{\"jsonrpc\":\"2.0\",\"method\":\"notifications/message\"}\n"; }
    void write(std::string, std::function<void()>) override { }
    std::size_t unwritten() const override { return 0; }
    void closeInput() override { running = false; }
    bool isRunning() const override { return running; }
    void terminate() override { }
    void kill() override { }

    Task<bool> isExecutable(std::string) override { co_return true; }
    Task<std::shared_ptr<ServerProcess>> launch(std::shared_ptr<const Program>) override
    {
        co_return std::shared_ptr<ServerProcess>(this, [](auto *) {});
    }

    bool running = true;
};

} // namespace

TEST_F(Transport, AServerThatPrintsWithoutEndHoldsUpNobody)
{
    EndlessServer endless;
    const auto flooded = std::make_shared<StdioTransport>(StdioTransport::Parts{loop.executor(), clock, endless, "/home/ada"});
    await(loop, flooded->start(usable, {}));
    Begun<JSONValue> asking(loop, flooded->request("a", params));
    await(loop, flooded->close());
    EXPECT_EQ(outcomeOf(std::move(asking)), disconnected);
    loop.runUntilIdle(); // it comes to rest: the reader has gone
}
