#include "CommandCore/Commands.h"
#include "Vorrel/MCP/StdioTransport.h"
#include "Vorrel/Platform/Headless/HeadlessServers.h"
#include "tests/support/Await.h"

#include <gtest/gtest.h>

#include <thread>

using namespace korvane;
using namespace korvane::test;

namespace {

/// A transport on real threads, and a server that answers each request by its own parameters.
struct Threads : testing::Test {
    Threads()
    {
        servers.hear = [](HeadlessServer &server, const std::string &line) {
            const auto message = JSONValue::parse(line);
            if (message["id"].isNull() || message.text("method") == "wait")
                return;
            const JSONValue reply = JSONValue::Object{{"jsonrpc", "2.0"}, {"id", message["id"]}, {"result", message["params"]}};
            server.say(reply.encodedString());
        };
        await(loop, transport->start({.id = "one", .name = "One", .command = "/opt/server"}, {}));
    }
    ~Threads() override
    {
        transport.reset();
        pool.join();
    }

    MainLoop loop;
    ThreadPool pool{4};
    SystemClock clock;
    HeadlessServers servers;
    std::shared_ptr<StdioTransport> transport =
        std::make_shared<StdioTransport>(StdioTransport::Parts{pool.executor(), clock, servers, "/home/ada"});
};

using StdioTransportThreads = Threads;

bool isCancelled(Begun<JSONValue> asking)
{
    try {
        asking.result();
    } catch (const Cancelled &) {
        return true;
    } catch (const AppError &) {
    }
    return false;
}

} // namespace

TEST_F(StdioTransportThreads, ManyRequestsAtOnceEachGetTheirOwnReply)
{
    std::vector<Begun<JSONValue>> asking;
    for (int i = 0; i < 300; ++i)
        asking.emplace_back(loop, transport->request("echo", i));
    for (int i = 0; i < 300; ++i)
        EXPECT_EQ(asking[static_cast<std::size_t>(i)].result(), JSONValue(i));
    await(loop, transport->close());
    EXPECT_EQ(servers.running(), 0U);
}

TEST_F(StdioTransportThreads, RequestsAreCancelledWhileRepliesAndTheCloseArrive)
{
    std::vector<Begun<JSONValue>> answered, waiting;
    for (int i = 0; i < 100; ++i) {
        answered.emplace_back(loop, transport->request("echo", i));
        waiting.emplace_back(loop, transport->request("wait", i));
    }
    loop.runUntilIdle();
    for (auto &one : answered)
        one.cancel();
    for (std::size_t i = 0; i < waiting.size() / 2; ++i)
        waiting[i].cancel();
    std::vector<Begun<void>> closing;
    for (int i = 0; i < 3; ++i)
        closing.emplace_back(loop, transport->close());
    std::size_t cancelled = 0;
    for (auto &one : waiting)
        cancelled += isCancelled(std::move(one)) ? 1 : 0;
    EXPECT_LE(cancelled, 50U) << "the close fails the others";
    for (auto &one : answered)
        isCancelled(std::move(one));
    for (auto &one : closing)
        one.result();
    EXPECT_EQ(servers.running(), 0U);
}

TEST_F(StdioTransportThreads, ATransportThatNobodyHoldsGoesWhileItsServerPrints)
{
    const auto server = servers.launched().at(0);
    std::jthread printing([server](std::stop_token stop) {
        while (!stop.stop_requested() && server->isRunning())
            server->say(R"({"jsonrpc":"2.0","id":7,"method":"ping"})");
    });
    EXPECT_EQ(await(loop, transport->request("echo", "x")), JSONValue("x"));
    transport.reset();
    printing.join(); // it prints until it was ended
    EXPECT_FALSE(server->isRunning());
}
