#include "Vorrel/MCP/MCPManager.h"

#include "Vorrel/Shell/AppLog.h"
#include "tests/Vorrel/MCP/TestManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <system_error>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using Endurance = HeadlessServer::Endurance;

namespace {

constexpr char plaintext[] =
    "Plaintext environment values are not stored. Use secretEnvironment with Keychain account references.";
constexpr char missingSecret[] = "A required MCP credential is missing from Keychain.";
constexpr char unknownVersion[] = "This MCP protocol version is not supported.";
constexpr char manyTools[] = "The server exceeds the 500-tool limit.";
constexpr char manyPages[] = "The server returned too many tool pages.";
constexpr char repeated[] = "The server repeated a pagination cursor.";
constexpr char sameName[] = "A tool with this name is already registered.";
constexpr char disconnected[] = "The MCP server disconnected.";
constexpr char timedOut[] = "The MCP server timed out.";
constexpr char cancelled[] = "Operation cancelled.";
constexpr char undecodable[] = "The operation could not be completed. Please try again or check permissions.";
constexpr char notSaved[] = "Could not save local data.";

struct Manager : testing::Test, TestManager {
    std::string add(const std::string &json)
    {
        return outcome(manager.add(MCPServerConfiguration::fromJSON(JSONValue::parse(json))));
    }
    Strings stored()
    {
        Strings rows;
        for (const SQLRow &row : await(loop(), database->rows("SELECT id,configuration FROM mcp_servers")))
            rows.push_back(row.at("id") + " " + row.at("configuration"));
        return rows;
    }
    /// `count` tools over `pages` pages.
    void serve(int count, int pages)
    {
        script.pages.clear();
        const int each = count / pages;
        for (int i = 0; i < pages; ++i) {
            const bool isLast = i + 1 == pages;
            const int first = i * each;
            script.pages.push_back(
                ServerScript::page(first, isLast ? count - first : each, isLast ? "" : "c" + std::to_string(i)));
        }
    }
    /// Nothing of the server is left, and it says why.
    void expectNothingLeft(const std::string &why)
    {
        EXPECT_THAT(tools(), IsEmpty());
        EXPECT_EQ(servers().running(), 0U);
        EXPECT_EQ(status(), why);
    }
};

} // namespace

// What is stored

TEST_F(Manager, AServerNeedsANameWhichIsNotTrimmed)
{
    EXPECT_EQ(add(R"({"id":"a","name":""})"), "Give the server a name.");
    EXPECT_EQ(add(R"({"id":"a","name":" "})"), "done");
    EXPECT_THAT(names(), ElementsAre("a  "));
}

TEST_F(Manager, PlainValuesAreRefusedAndReferencesToSecretsAreStored)
{
    EXPECT_EQ(add(R"({"id":"a","name":"A","env":{"A":"1"}})"), plaintext);
    EXPECT_THAT(stored(), IsEmpty());
    EXPECT_EQ(add(R"({"id":"a","name":"A","secretEnvironment":{"A":"acct"}})"), "done");
    EXPECT_THAT(stored(),
        ElementsAre(R"(a {"args":[],"command":"","env":{},"id":"a","name":"A","secretEnvironment":{"A":"acct"},)"
                    R"("transport":"stdio"})"));
}

TEST_F(Manager, TheNameIsLookedAtBeforeTheValuesAndTheseBeforeTheIdentifier)
{
    EXPECT_EQ(add(R"({"id":"a","name":"A"})"), "done");
    EXPECT_EQ(add(R"({"id":"a","name":"","env":{"A":"1"}})"), "Give the server a name.");
    EXPECT_EQ(add(R"({"id":"a","name":"A","env":{"A":"1"}})"), plaintext);
}

TEST_F(Manager, AnIdentifierIsTakenOnceAndANameAnyNumberOfTimes)
{
    EXPECT_EQ(add(R"({"id":"a","name":"A"})"), "done");
    EXPECT_EQ(add(R"({"id":"a","name":"B"})"), "This server is already configured.");
    EXPECT_EQ(add(R"({"id":"b","name":"A"})"), "done");
    EXPECT_THAT(names(), ElementsAre("a A", "b A"));
}

TEST_F(Manager, AServerThatTheStoreRefusesIsNotListed)
{
    await(loop(), database->execute("INSERT INTO mcp_servers(id,configuration) VALUES('a','{}')"));
    EXPECT_EQ(add(R"({"id":"a","name":"A"})"), notSaved);
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(Manager, LoadingReplacesWhatWasThereAndFailsAsAWholeForOneBadRow)
{
    EXPECT_EQ(add(R"({"id":"a","name":"A"})"), "done");
    await(loop(), database->execute("INSERT INTO mcp_servers(id,configuration) VALUES('b','{\"id\":\"b\",\"name\":\"B\"}')"));
    EXPECT_EQ(outcome(manager.load()), "done");
    EXPECT_THAT(names(), ElementsAre("a A", "b B"));
    for (const char *bad : {"{\"id\":\"c\"}", "", "{"}) {
        await(
            loop(), database->execute("INSERT OR REPLACE INTO mcp_servers(id,configuration) VALUES('c',?)", {std::string(bad)}));
        EXPECT_EQ(outcome(manager.load()), undecodable) << bad;
        EXPECT_THAT(names(), ElementsAre("a A", "b B"));
    }
}

TEST_F(Manager, RemovingAServerEndsItAndForgetsItsRowAndItsStatus)
{
    outcome(manager.add(server));
    EXPECT_EQ(connect(), "done");
    EXPECT_EQ(outcome(manager.remove(server)), "done");
    expectNothingLeft("none");
    EXPECT_THAT(names(), IsEmpty());
    EXPECT_THAT(stored(), IsEmpty());
}

TEST_F(Manager, AServerWhoseRowCannotBeRemovedStaysAndIsDisconnected)
{
    outcome(manager.add(server));
    EXPECT_EQ(connect(), "done");
    await(loop(), database->close());
    EXPECT_EQ(outcome(manager.remove(server)), "The database is closed.");
    expectNothingLeft("Disconnected");
    EXPECT_THAT(names(), ElementsAre("one One"));
}

// Connecting

TEST_F(Manager, TheHandshakeIsSaidInItsOrder)
{
    Strings log;
    AppLog::observe([&](std::string_view category, AppLog::Level level, std::string_view message) {
        log.push_back(std::string(category) + (level == AppLog::Level::info ? " info: " : " error: ") + std::string(message));
    });
    EXPECT_EQ(connect(), "done");
    AppLog::observe({});
    EXPECT_THAT(script.methods(), ElementsAre("initialize", "notifications/initialized", "tools/list"));
    EXPECT_EQ(script.asked[0]["params"],
        JSONValue::parse(
            R"({"protocolVersion":"2025-11-25","capabilities":{},"clientInfo":{"name":"Korvane","version":"0.1.0"}})"));
    EXPECT_EQ(script.asked[1]["params"], JSONValue(JSONValue::Object()));
    EXPECT_EQ(script.asked[2]["params"], JSONValue(JSONValue::Object()));
    EXPECT_THAT(log, ElementsAre("mcp info: MCP initialization and tool discovery completed"));
    EXPECT_THAT(tools(), ElementsAre("mcp.one.t1", "mcp.one.t2"));
    EXPECT_EQ(status(), "Connected · 2 tools");
}

TEST_F(Manager, TheStatusSaysWhatIsGoingOn)
{
    Strings seen;
    const auto watching = manager._status.observe([&] { seen.push_back(status()); });
    EXPECT_EQ(connect(), "done");
    EXPECT_EQ(outcome(manager.disconnect(server)), "done");
    EXPECT_THAT(seen, ElementsAre("Connecting…", "Connected · 2 tools", "Disconnected"));
    EXPECT_EQ(servers().running(), 0U);
    EXPECT_THAT(tools(), IsEmpty());
}

TEST_F(Manager, DisconnectingAServerThatWasNeverConnectedSaysSo)
{
    EXPECT_EQ(outcome(manager.disconnect(server)), "done");
    EXPECT_EQ(status(), "Disconnected");
}

TEST_F(Manager, FourVersionsOfTheProtocolAreSpokenAndNoOther)
{
    for (const char *version : {"2025-11-25", "2025-06-18", "2025-03-26", "2024-11-05"}) {
        script.version = version;
        EXPECT_EQ(connect(), "done") << version;
    }
    for (const char *version : {"2025-11-26", "2024-10-07", "", "1.0", "2025-11-25 "}) {
        script.version = version;
        EXPECT_EQ(connect(), unknownVersion) << version;
        expectNothingLeft(unknownVersion);
    }
    for (const char *reply : {"{}", "null", "[]", R"({"protocolVersion":20251125})", R"({"protocolVersion":null})"}) {
        script.instead["initialize"] = JSONValue::parse(reply);
        EXPECT_EQ(connect(), unknownVersion) << reply;
        expectNothingLeft(unknownVersion);
    }
}

TEST_F(Manager, SecretsComeFromTheKeychainAndAreNotStored)
{
    MCPServerConfiguration secretive = server;
    secretive.secretEnvironment = {{"TOKEN", "acct"}, {"OTHER", "acct"}};
    secrets.keep("acct", "hidden");
    EXPECT_EQ(outcome(manager.connect(secretive)), "done");
    EXPECT_THAT(servers().launched().at(0)->program.environment, testing::IsSupersetOf({"TOKEN=hidden", "OTHER=hidden"}));
}

TEST_F(Manager, AMissingSecretFailsBeforeAnythingIsLaunched)
{
    MCPServerConfiguration secretive = server;
    secretive.secretEnvironment = {{"TOKEN", "acct"}};
    EXPECT_EQ(outcome(manager.connect(secretive)), missingSecret);
    expectNothingLeft(missingSecret);
    EXPECT_THAT(servers().launched(), IsEmpty());
}

TEST_F(Manager, AKeychainThatRefusesFailsTheConnection)
{
    MCPServerConfiguration secretive = server;
    secretive.secretEnvironment = {{"TOKEN", "acct"}};
    secrets.readOutcome = SecretStore::Outcome::denied;
    EXPECT_EQ(outcome(manager.connect(secretive)), "Keychain access was denied.");
    expectNothingLeft("Keychain access was denied.");
}

TEST_F(Manager, AConfigurationWithANameAloneFailsForItsCommand)
{
    const auto bare = MCPServerConfiguration::fromJSON(JSONValue::parse(R"({"name":"N"})"));
    constexpr char why[] = "Select an absolute path to an executable, such as /opt/homebrew/bin/node.";
    EXPECT_EQ(outcome(manager.connect(bare)), why);
    EXPECT_EQ(status(bare.id), why);
}

TEST_F(Manager, WhereNoServerCanBeRunConnectingSaysSo)
{
    MCPManager without({registry, keychain, database, std::nullopt});
    EXPECT_EQ(outcome(without.connect(server)), "MCP servers cannot be run on this system.");
    EXPECT_EQ(without.status().at("one"), "MCP servers cannot be run on this system.");
    EXPECT_EQ(outcome(without.stop()), "done");
}

TEST_F(Manager, ALaunchThatTheSystemRefusesHasTheGeneralText)
{
    servers().launchFailure = std::make_exception_ptr(std::system_error(ENOEXEC, std::generic_category()));
    EXPECT_EQ(connect(), undecodable);
    expectNothingLeft(undecodable);
}

// The list of tools

TEST_F(Manager, FiveHundredToolsOverTwentyPagesConnect)
{
    serve(500, 20);
    EXPECT_EQ(connect(), "done");
    EXPECT_EQ(status(), "Connected · 500 tools");
    EXPECT_EQ(tools().size(), 500U);
    EXPECT_EQ(script.asked.size(), 22U);
    EXPECT_EQ(script.asked[2]["params"], JSONValue(JSONValue::Object()));
    EXPECT_EQ(script.asked[21]["params"], JSONValue(JSONValue::Object{{"cursor", "c18"}}));
}

TEST_F(Manager, NoToolsAtAllConnect)
{
    serve(0, 1);
    EXPECT_EQ(connect(), "done");
    EXPECT_EQ(status(), "Connected · 0 tools");
}

TEST_F(Manager, OneToolMoreIsTooManyOnOnePageAndOnSeveral)
{
    for (const int pages : {1, 2, 20}) {
        serve(501, pages);
        ServerScript fresh;
        fresh.pages = script.pages;
        servers().hear = fresh.hear();
        EXPECT_EQ(connect(), manyTools) << pages;
        expectNothingLeft(manyTools);
        EXPECT_EQ(fresh.asked.size(), static_cast<std::size_t>(pages) + 2);
    }
}

TEST_F(Manager, TooManyToolsAreNoticedOnThePageThatHasThem)
{
    script.pages = {ServerScript::page(0, 501, "next")};
    EXPECT_EQ(connect(), manyTools);
    EXPECT_EQ(script.methods().size(), 3U) << "no other page is asked for";
}

TEST_F(Manager, TwentyPagesAreReadAndNoMore)
{
    serve(20, 20);
    EXPECT_EQ(connect(), "done");
    ServerScript longer;
    longer.pages.clear();
    for (int i = 0; i < 21; ++i)
        longer.pages.push_back(ServerScript::page(i, 1, "c" + std::to_string(i)));
    servers().hear = longer.hear();
    EXPECT_EQ(connect(), manyPages);
    expectNothingLeft(manyPages);
    EXPECT_EQ(longer.methods().size(), 22U) << "the 21st page is not asked for";
}

TEST_F(Manager, ACursorThatComesTwiceFails)
{
    script.pages = {ServerScript::page(0, 1, "a"), ServerScript::page(1, 1, "b"), ServerScript::page(2, 1, "a")};
    EXPECT_EQ(connect(), repeated);
    expectNothingLeft(repeated);
}

TEST_F(Manager, ARepeatedCursorIsNoticedBeforeTheTools)
{
    script.pages = {ServerScript::page(0, 1, "a"), ServerScript::page(1, 600, "a")};
    EXPECT_EQ(connect(), repeated);
}

TEST_F(Manager, AnEmptyCursorIsOneAndNullIsNone)
{
    script.pages = {JSONValue::parse(R"({"tools":[],"nextCursor":""})"), JSONValue::parse(R"({"tools":[],"nextCursor":null})")};
    EXPECT_EQ(connect(), "done");
    EXPECT_EQ(script.asked.back()["params"], JSONValue(JSONValue::Object{{"cursor", ""}}));
}

TEST_F(Manager, TwoToolsOfOneNameFailTheConnectionAsAWhole)
{
    script.pages = {ServerScript::page(1, 3, "a"), ServerScript::page(2, 1)};
    EXPECT_EQ(connect(), sameName);
    expectNothingLeft(sameName);
}

TEST_F(Manager, APageThatDoesNotDecodeFailsTheConnection)
{
    for (const char *page : {R"({"tools":[{"name":"a"}]})", R"({"tools":[{"inputSchema":{}}]})", R"({"tools":{}})", "{}", "null",
             R"({"tools":[7]})", R"({"tools":[],"nextCursor":7})", R"({"tools":[{"name":7,"inputSchema":{}}]})"}) {
        script.instead["tools/list"] = JSONValue::parse(page);
        EXPECT_EQ(connect(), undecodable) << page;
        expectNothingLeft(undecodable);
    }
}

TEST_F(Manager, AServerThatEndsOrNeverAnswersLeavesNothing)
{
    for (const char *method : {"initialize", "notifications/initialized", "tools/list"}) {
        SCOPED_TRACE(method);
        ServerScript ending;
        ending.deadly = {method};
        servers().hear = ending.hear();
        EXPECT_THAT(connect(), testing::AnyOf(disconnected, "The MCP server is disconnected."));
        EXPECT_THAT(tools(), IsEmpty());
        EXPECT_EQ(servers().running(), 0U);
    }
    for (const char *method : {"initialize", "tools/list"}) {
        SCOPED_TRACE(method);
        ServerScript silent;
        silent.silent = {method};
        servers().hear = silent.hear();
        auto connecting = begin(manager.connect(server));
        advance(19'999ms);
        EXPECT_EQ(status(), "Connecting…");
        advance(1ms);
        EXPECT_EQ(outcomeOf(std::move(connecting)), timedOut);
        expectNothingLeft(timedOut);
    }
}

TEST_F(Manager, AServerThatIgnoresEverythingIsGoneWithinSixTenthsOfASecond)
{
    servers().endurance = Endurance::endsWithKill;
    EXPECT_EQ(connect(), "done");
    auto disconnecting = begin(manager.disconnect(server));
    EXPECT_THAT(tools(), IsEmpty()) << "its tools go first";
    EXPECT_EQ(status(), "Connected · 2 tools");
    advance(599ms);
    EXPECT_FALSE(disconnecting.done());
    advance(1ms);
    EXPECT_TRUE(disconnecting.done());
    expectNothingLeft("Disconnected");
}

TEST_F(Manager, TheEndOfAServerIsNoticedByItsNextCall)
{
    EXPECT_EQ(connect(), "done");
    servers().launched().at(0)->exit();
    loop().runUntilIdle();
    EXPECT_EQ(status(), "Connected · 2 tools");
    EXPECT_EQ(tools().size(), 2U);
    EXPECT_THROW(await(loop(), registry.call("mcp.one.t1", JSONValue::Object())), AppError);
    EXPECT_EQ(connect(), "done") << "the user connects it again";
    EXPECT_EQ(servers().running(), 1U);
}

TEST_F(Manager, AFailedConnectTakesTheEarlierConnectionsToolsToo)
{
    EXPECT_EQ(connect(), "done");
    script.version = "none";
    EXPECT_EQ(connect(), unknownVersion);
    expectNothingLeft(unknownVersion);
}

// Races

TEST_F(Manager, ASecondConnectReturnsAtOnceAndOnlyOneServerStarts)
{
    script.silent = {"initialize"};
    auto first = begin(manager.connect(server));
    auto second = begin(manager.connect(server));
    EXPECT_TRUE(second.done());
    EXPECT_EQ(outcomeOf(std::move(second)), "done");
    EXPECT_FALSE(first.done());
    EXPECT_EQ(servers().launched().size(), 1U);
}

TEST_F(Manager, AnotherServerIsConnectedBesideOneThatIsSlow)
{
    ServerScript other;
    script.silent = {"initialize"};
    auto slow = begin(manager.connect(server));
    servers().hear = other.hear();
    EXPECT_EQ(outcome(manager.connect({.id = "two", .name = "Two", .command = "/opt/server"})), "done");
    EXPECT_THAT(tools(), ElementsAre("mcp.two.t1", "mcp.two.t2"));
    EXPECT_FALSE(slow.done());
    advance(20s);
    EXPECT_EQ(outcomeOf(std::move(slow)), timedOut);
}

TEST_F(Manager, ADisconnectDuringTheDiscoveryEndsTheAttemptAsCancelled)
{
    script.silent = {"tools/list"};
    auto connecting = begin(manager.connect(server));
    EXPECT_EQ(outcome(manager.disconnect(server)), "done");
    EXPECT_EQ(status(), "Disconnected");
    EXPECT_FALSE(connecting.done()) << "the attempt goes stale and learns of it when it looks";
    const auto id = script.asked.back()["id"].encodedString();
    const auto page = ServerScript::page(1, 2).encodedString();
    servers().launched().at(0)->say(R"({"jsonrpc":"2.0","id":)" + id + R"(,"result":)" + page + "}");
    EXPECT_EQ(outcomeOf(std::move(connecting)), cancelled);
    expectNothingLeft(cancelled);
}

TEST_F(Manager, ADisconnectDuringTheEndOfAnEarlierConnectionIsNotForgotten)
{
    servers().endurance = Endurance::endsWithKill;
    EXPECT_EQ(connect(), "done");
    auto again = begin(manager.connect(server));
    auto disconnecting = begin(manager.disconnect(server));
    advance(600ms);
    EXPECT_EQ(outcomeOf(std::move(again)), cancelled);
    EXPECT_TRUE(disconnecting.done());
    expectNothingLeft(cancelled);
    EXPECT_EQ(servers().launched().size(), 1U);
}

TEST_F(Manager, AConnectDuringADisconnectKeepsItsStatus)
{
    servers().endurance = Endurance::endsWithKill;
    EXPECT_EQ(connect(), "done");
    auto disconnecting = begin(manager.disconnect(server));
    auto connecting = begin(manager.connect(server));
    advance(600ms);
    EXPECT_TRUE(disconnecting.done());
    EXPECT_EQ(outcomeOf(std::move(connecting)), "done");
    EXPECT_EQ(status(), "Connected · 2 tools");
    EXPECT_EQ(servers().running(), 1U);
}

TEST_F(Manager, AServerThatWasRemovedDuringItsConnectHasNoStatus)
{
    outcome(manager.add(server));
    script.silent = {"tools/list"};
    auto connecting = begin(manager.connect(server));
    EXPECT_EQ(outcome(manager.remove(server)), "done");
    advance(20s);
    EXPECT_EQ(outcomeOf(std::move(connecting)), timedOut);
    expectNothingLeft("none");
}

TEST_F(Manager, AConnectDuringTheRemovalLeavesNothing)
{
    servers().endurance = Endurance::endsWithKill;
    outcome(manager.add(server));
    EXPECT_EQ(connect(), "done");
    auto removing = begin(manager.remove(server));
    auto connecting = begin(manager.connect(server));
    advance(2s);
    EXPECT_TRUE(removing.done() && connecting.done());
    expectNothingLeft("none");
}

TEST_F(Manager, StopWithoutServersDoesNothing)
{
    EXPECT_TRUE(begin(manager.stop()).done());
    EXPECT_TRUE(manager.status().empty());
}

TEST_F(Manager, StopEndsTheServersOneAfterTheOther)
{
    servers().endurance = Endurance::endsWithTerminate;
    for (const char *id : {"a", "b"}) {
        const MCPServerConfiguration one{.id = id, .name = id, .command = "/opt/server"};
        outcome(manager.add(one));
        EXPECT_EQ(outcome(manager.connect(one)), "done");
    }
    auto stopping = begin(manager.stop());
    advance(599ms);
    EXPECT_EQ(status("a") + ", " + status("b"), "Connected · 2 tools, Connected · 2 tools");
    EXPECT_EQ(servers().running(), 1U);
    advance(1ms);
    EXPECT_EQ(status("a") + ", " + status("b"), "Disconnected, Connected · 2 tools");
    advance(599ms);
    EXPECT_FALSE(stopping.done());
    advance(1ms);
    EXPECT_TRUE(stopping.done());
    EXPECT_EQ(servers().running(), 0U);
    EXPECT_THAT(tools(), IsEmpty());
    EXPECT_EQ(status("a") + status("b"), "DisconnectedDisconnected");
}

TEST_F(Manager, StopEndsAServerThatIsConnectedButNotStored)
{
    EXPECT_EQ(connect(), "done");
    EXPECT_EQ(outcome(manager.stop()), "done");
    expectNothingLeft("Disconnected");
}

TEST_F(Manager, StopEndsAnAttemptThatIsUnderWay)
{
    servers().endurance = Endurance::endsWithKill;
    script.silent = {"initialize"};
    auto connecting = begin(manager.connect(server));
    auto stopping = begin(manager.stop());
    EXPECT_FALSE(stopping.done());
    advance(600ms);
    EXPECT_TRUE(stopping.done());
    EXPECT_EQ(outcomeOf(std::move(connecting)), disconnected);
    expectNothingLeft(disconnected);
}

namespace {

enum class Interruption { cancel, disconnect, remove, stop };

using Wait = std::function<void(TestManager &)>;

Wait turns(int count)
{
    return [count](TestManager &world) {
        for (int i = 0; i < count; ++i)
            world.loop().runOne();
    };
}

/// One attempt that is interrupted after a while. False when it had come to its end before.
bool interruptAfter(const Wait &wait, Interruption how, bool reconnects, Endurance endurance, int &given)
{
    TestManager world;
    world.servers().endurance = endurance;
    MCPServerConfiguration server = world.server;
    server.secretEnvironment = {{"TOKEN", "acct"}};
    world.secrets.keep("acct", "hidden");
    world.outcome(world.manager.add(server));
    if (reconnects)
        world.outcome(world.manager.connect(server));
    Begun<void> connecting(world.loop(), world.manager.connect(server));
    wait(world);
    const bool wasUnderWay = !connecting.done();
    std::optional<Begun<void>> interrupting;
    switch (how) {
    case Interruption::cancel: connecting.cancel(); break;
    case Interruption::disconnect: interrupting.emplace(world.loop(), world.manager.disconnect(server)); break;
    case Interruption::remove: interrupting.emplace(world.loop(), world.manager.remove(server)); break;
    case Interruption::stop: interrupting.emplace(world.loop(), world.manager.stop()); break;
    }
    world.advance(5s);
    EXPECT_TRUE(connecting.done() && (!interrupting || interrupting->done()));
    const std::string outcome = TestManager::outcomeOf(std::move(connecting));
    if (how == Interruption::cancel && outcome == "done") { // the last step was over
        EXPECT_EQ(world.status(), "Connected · 2 tools");
        EXPECT_EQ(world.tools().size(), 2U);
        EXPECT_EQ(world.servers().running(), 1U);
        return wasUnderWay;
    }
    EXPECT_EQ(world.servers().running(), 0U);
    EXPECT_THAT(world.tools(), IsEmpty());
    const std::string expected = how == Interruption::remove ? "none" : outcome == "done" ? "Disconnected" : world.status();
    EXPECT_EQ(world.status(), expected);
    EXPECT_NE(world.status(), "Connecting…");
    if (how == Interruption::cancel || how == Interruption::disconnect) {
        EXPECT_THAT(outcome, testing::AnyOf("done", cancelled));
        EXPECT_EQ(world.status(), outcome == "done" ? "Disconnected" : cancelled);
    }
    given += outcome == "done" ? 0 : 1;
    return wasUnderWay;
}

} // namespace

TEST(ManagerInterrupted, AtWhateverPointNothingIsLeft)
{
    for (const bool reconnects : {false, true}) {
        for (const auto how : {Interruption::cancel, Interruption::disconnect, Interruption::remove, Interruption::stop}) {
            // The end of an earlier server takes no time, so that the loop alone leads through the attempt.
            const auto endurance = reconnects ? Endurance::endsWithInput : Endurance::endsWithTerminate;
            int given = 0, count = 0;
            while (interruptAfter(turns(count), how, reconnects, endurance, given)) {
                ASSERT_FALSE(testing::Test::HasFailure()) << "after " << count << " turns, by " << int(how) << reconnects;
                ++count;
            }
            EXPECT_GT(count, 20) << "the attempt has as many points";
            EXPECT_GT(given, 15) << "and most of them are before its end";
        }
    }
}

TEST(ManagerInterrupted, WhileAnEarlierServerIsBeingEndedNothingIsLeft)
{
    for (const auto how : {Interruption::cancel, Interruption::disconnect, Interruption::remove, Interruption::stop}) {
        for (const Milliseconds time : {0ms, 1ms, 299ms, 300ms, 301ms, 598ms, 599ms}) {
            int given = 0;
            const Wait wait = [time](TestManager &world) { world.advance(time); };
            EXPECT_TRUE(interruptAfter(wait, how, true, Endurance::endsWithKill, given));
            EXPECT_EQ(given, 1) << "the attempt does not succeed";
            ASSERT_FALSE(testing::Test::HasFailure()) << "after " << time.count() << " ms, by " << int(how);
        }
    }
}

namespace {

/// A connect that begins after a while of another operation on the connected server. False when that had come to its end before.
bool connectAfter(const Wait &wait, Interruption what, Endurance endurance)
{
    TestManager world;
    world.servers().endurance = endurance;
    world.outcome(world.manager.add(world.server));
    world.outcome(world.manager.connect(world.server));
    Task<void> task = what == Interruption::disconnect ? world.manager.disconnect(world.server)
        : what == Interruption::remove                 ? world.manager.remove(world.server)
                                                       : world.manager.stop();
    Begun<void> ending(world.loop(), std::move(task));
    wait(world);
    const bool wasUnderWay = !ending.done();
    Begun<void> connecting(world.loop(), world.manager.connect(world.server));
    world.advance(5s);
    EXPECT_TRUE(ending.done() && connecting.done());
    const bool connected = TestManager::outcomeOf(std::move(connecting)) == "done" && !world.tools().empty();
    EXPECT_EQ(world.servers().running(), connected ? 1U : 0U);
    EXPECT_EQ(world.tools().size(), connected ? 2U : 0U);
    EXPECT_EQ(world.status() == "Connected · 2 tools", connected) << world.status();
    EXPECT_NE(world.status(), "Connecting…");
    if (what == Interruption::disconnect) {
        EXPECT_TRUE(connected) << "it came later";
    }
    return wasUnderWay;
}

} // namespace

TEST(ManagerInterrupted, AConnectAtWhateverPointOfAnEndIsConnectedOrLeavesNothing)
{
    for (const auto what : {Interruption::disconnect, Interruption::remove, Interruption::stop}) {
        int count = 0;
        while (connectAfter(turns(count), what, Endurance::endsWithInput)) {
            ASSERT_FALSE(testing::Test::HasFailure()) << "after " << count << " turns of " << int(what);
            ++count;
        }
        EXPECT_GT(count, 5) << "the end has as many points";
        for (const Milliseconds time : {0ms, 299ms, 300ms, 301ms, 599ms}) {
            const Wait wait = [time](TestManager &world) { world.advance(time); };
            EXPECT_TRUE(connectAfter(wait, what, Endurance::endsWithKill));
            ASSERT_FALSE(testing::Test::HasFailure()) << "after " << time.count() << " ms of " << int(what);
        }
    }
}

// The question

TEST_F(Manager, TheUserIsAskedWithWhatWouldRun)
{
    MCPServerConfiguration asked = server;
    asked.args = {"-a", "b c"};
    const PermissionService permissions(desktop.dialogs);
    desktop.dialogs.accept();
    EXPECT_EQ(outcome(MCPManager::confirm(permissions, asked)), "done");
    desktop.dialogs.refuse();
    EXPECT_EQ(outcome(MCPManager::confirm(permissions, asked)), "The operation was cancelled.");
    ASSERT_EQ(desktop.dialogs.asked().size(), 2U) << "each time";
    EXPECT_EQ(desktop.dialogs.asked()[0].title, "Start MCP server “One”?");
    EXPECT_EQ(desktop.dialogs.asked()[0].detail,
        "This runs a local process with your user permissions. Only connect servers you trust.\n\n"
        "Executable: /opt/server\nArguments: -a b c");
}
