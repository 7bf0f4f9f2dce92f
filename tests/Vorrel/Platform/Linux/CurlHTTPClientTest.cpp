#include "Vorrel/Platform/Linux/CurlHTTPClient.h"

#include "CommandCore/Commands.h"
#include "Vorrel/AI/OpenAIProvider.h"
#include "Vorrel/Platform/Headless/HeadlessSecretStore.h"
#include "tests/Vorrel/Platform/Linux/TestServer.h"
#include "tests/support/Await.h"
#include "tests/support/Soon.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <dlfcn.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace korvane;
using namespace korvane::test;
using Connection = TestServer::Connection;
using Reason = HTTPFailure::Reason;
using Time = std::chrono::steady_clock;

namespace {

/// Names that are being resolved for ever.
std::atomic<int> hangingNames = 0;

} // namespace

/// In place of the system's: one name never comes to an answer.
extern "C" int getaddrinfo(const char *name, const char *service, const addrinfo *hints, addrinfo **result)
{
    using Real = int (*)(const char *, const char *, const addrinfo *, addrinfo **);
    static const Real real = reinterpret_cast<Real>(::dlsym(RTLD_NEXT, "getaddrinfo"));
    if (name && std::string_view(name) == "hanging.example") {
        ++hangingNames;
        for (;;)
            ::pause();
    }
    return real(name, service, hints, result);
}

namespace {

struct HTTP : testing::Test {
    HTTPRequest request(const std::string &url) const
    {
        HTTPRequest made{.url = url, .headers = {}, .body = "{\"a\":1}", .timeout = Milliseconds(8000), .bodyLimit = 1000};
        made.headers.emplace_back("Authorization", "Bearer sk-marker");
        return made;
    }
    HTTPResponse post(HTTPRequest asked) { return await(loop, client->post(std::move(asked))); }
    HTTPResponse post(const TestServer &server) { return post(request(server.url())); }

    std::optional<Reason> failure(HTTPRequest asked)
    {
        try {
            post(std::move(asked));
        } catch (const HTTPFailure &failure) {
            return failure.reason();
        }
        return std::nullopt;
    }
    std::optional<Reason> failure(const TestServer &server) { return failure(request(server.url())); }

    void use(CurlHTTPClient::Settings settings) { client.emplace(std::move(settings)); }

    /// How long a caller waits for the end of a request that is cancelled once `reached`.
    Milliseconds cancelled(HTTPRequest asked, const std::function<bool()> &reached)
    {
        Begun<HTTPResponse> begun(loop, client->post(std::move(asked)));
        EXPECT_TRUE(soon(loop, reached));
        const auto start = Time::now();
        begun.cancel();
        EXPECT_THROW(begun.result(), Cancelled);
        return std::chrono::duration_cast<Milliseconds>(Time::now() - start);
    }

    MainLoop loop;
    std::optional<CurlHTTPClient> client{CurlHTTPClient::Settings()};
};

constexpr Milliseconds promptly{200};

void answerOnce(Connection &connection)
{
    connection.request();
    connection.send(TestServer::response("fine"));
}

} // namespace

TEST_F(HTTP, ARequestArrivesWithItsHeadersAndBody)
{
    TestServer server(answerOnce);
    const HTTPResponse response = post(server);
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, "fine");
    const std::string seen = server.requests().at(0);
    EXPECT_TRUE(seen.starts_with("POST /v1/responses HTTP/1.1\r\n")) << seen;
    EXPECT_NE(seen.find("\r\nAuthorization: Bearer sk-marker\r\n"), seen.npos) << seen;
    EXPECT_TRUE(seen.ends_with("\r\n\r\n{\"a\":1}")) << seen;
    EXPECT_EQ(seen.find("Expect:"), seen.npos);
}

TEST_F(HTTP, AServerOfAKnownAuthorityIsTrusted)
{
    const TestAuthority authority;
    TestServer server(answerOnce, &authority);
    use({.authorities = authority.authorities()});
    EXPECT_EQ(post(server).body, "fine");
}

TEST_F(HTTP, AnUnknownAuthorityAnotherHostAndAnExpiredCertificateAreRefusedBeforeTheKeyIsSent)
{
    const TestAuthority present, other, elsewhere("other.example"), expired("localhost", TestAuthority::Validity::expired);
    const struct {
        const char *why;
        const TestAuthority &server;
        std::optional<std::string> authorities;
    } cases[] = {
        {"an authority that nobody knows", present, std::nullopt},
        {"another authority", present, other.authorities()},
        {"another host's certificate", elsewhere, elsewhere.authorities()},
        {"an expired certificate", expired, expired.authorities()},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        TestServer server(answerOnce, &c.server);
        use({.authorities = c.authorities});
        EXPECT_EQ(failure(server), Reason::unreachable);
        for (const std::string &seen : server.requests())
            EXPECT_EQ(seen.find("sk-marker"), std::string::npos);
    }
}

TEST_F(HTTP, ARedirectionIsNotFollowedAndTheKeyStays)
{
    TestServer target(answerOnce);
    TestServer server([&](Connection &connection) {
        connection.request();
        connection.send("HTTP/1.1 307 Temporary Redirect\r\nLocation: " + target.url() + "\r\nContent-Length: 0\r\n\r\n");
    });
    EXPECT_EQ(post(server).status, 307);
    EXPECT_EQ(target.connections(), 0);
}

TEST_F(HTTP, AStatusThatIsNoSuccessDecidesWithoutABody)
{
    for (const char *status : {"302 Found", "401 Unauthorized", "429 Too Many Requests", "503 Service Unavailable"}) {
        SCOPED_TRACE(status);
        TestServer server([&](Connection &connection) {
            connection.request();
            connection.send("HTTP/1.1 " + std::string(status) + "\r\nContent-Length: 99999999\r\n\r\nnever more than this");
            connection.awaitClose();
        });
        const HTTPResponse response = post(server);
        EXPECT_EQ(response.status, std::stoi(status));
        EXPECT_EQ(response.body, "");
        EXPECT_FALSE(response.bodyTooLarge);
    }
}

TEST_F(HTTP, AnInterimStatusIsNotTheResponse)
{
    TestServer server([](Connection &connection) {
        connection.request();
        connection.send("HTTP/1.1 103 Early Hints\r\n\r\n" + TestServer::response("fine"));
    });
    EXPECT_EQ(post(server).body, "fine");
}

TEST_F(HTTP, ABodyBelowTheLimitIsReadAndOneAtTheLimitIsCutOff)
{
    constexpr std::size_t limit = 8'000'000;
    const auto postFor = [&](std::size_t size, bool endless) {
        TestServer server([&](Connection &connection) {
            connection.request();
            connection.send(
                endless ? "HTTP/1.1 200 OK\r\n\r\n" + std::string(size, 'x') : TestServer::response(std::string(size, 'x')));
            if (endless)
                connection.awaitClose();
        });
        HTTPRequest asked = request(server.url());
        asked.bodyLimit = limit;
        return post(std::move(asked));
    };
    const HTTPResponse below = postFor(limit - 1, false);
    EXPECT_EQ(below.body.size(), limit - 1);
    EXPECT_FALSE(below.bodyTooLarge);
    for (const bool endless : {false, true}) {
        const HTTPResponse at = postFor(limit, endless);
        EXPECT_TRUE(at.bodyTooLarge) << endless;
        EXPECT_EQ(at.status, 200);
        EXPECT_EQ(at.body, "");
    }
}

TEST_F(HTTP, WhatIsNoHTTPIsToldApartFromWhatCannotBeReached)
{
    TestServer rubbish([](Connection &connection) {
        connection.request();
        connection.send("220 mail.example ESMTP\r\n");
    });
    EXPECT_EQ(failure(rubbish), Reason::notHTTP);
    TestServer silent([](Connection &connection) { connection.request(); });
    EXPECT_EQ(failure(silent), Reason::unreachable);
    EXPECT_EQ(failure(request("http://127.0.0.1:1/v1")), Reason::unreachable);
}

TEST_F(HTTP, ALineThatDropsInTheBodyIsNoResponse)
{
    TestServer server([](Connection &connection) {
        connection.request();
        connection.send("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf of it");
    });
    EXPECT_EQ(failure(server), Reason::unreachable);
}

TEST_F(HTTP, AServerThatNeverAnswersIsGivenUpAfterTheTimeLimit)
{
    TestServer server([](Connection &connection) {
        connection.request();
        connection.awaitClose();
    });
    HTTPRequest asked = request(server.url());
    asked.timeout = Milliseconds(150);
    EXPECT_EQ(failure(std::move(asked)), Reason::unreachable);
    EXPECT_TRUE(soon(loop, [&] { return server.closed() == 1; }));
}

TEST_F(HTTP, NothingButHTTPAndHTTPSIsSpoken)
{
    for (const char *url : {"file:///etc/hostname", "ftp://127.0.0.1/a", "gopher://127.0.0.1/a"})
        EXPECT_TRUE(failure(request(url))) << url;
}

TEST_F(HTTP, ARequestToAnotherMachineGoesThroughTheProxyWithoutShowingItTheKey)
{
    TestServer proxy([](Connection &connection) {
        connection.request();
        connection.send("HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n");
    });
    use(CurlHTTPClient::Settings::from([&](std::string_view name) -> std::optional<std::string> {
        if (name == "HTTPS_PROXY")
            return "http://127.0.0.1:" + std::to_string(proxy.port());
        return std::nullopt;
    }));
    EXPECT_EQ(failure(request("https://models.example.org/v1")), Reason::unreachable);
    const auto seen = proxy.requests();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_TRUE(seen[0].starts_with("CONNECT models.example.org:443 HTTP/1.1\r\n")) << seen[0];
    EXPECT_EQ(seen[0].find("sk-marker"), std::string::npos);
}

TEST_F(HTTP, HostsThatTheEnvironmentNamesAndPlainHTTPGoPastTheProxy)
{
    const TestAuthority authority;
    TestServer proxy(answerOnce), plain(answerOnce), secure(answerOnce, &authority);
    use({.proxy = "http://127.0.0.1:" + std::to_string(proxy.port()),
        .noProxy = "example.org,localhost",
        .authorities = authority.authorities()});
    EXPECT_EQ(post(plain).body, "fine");
    EXPECT_EQ(post(secure).body, "fine");
    EXPECT_EQ(proxy.connections(), 0);
}

TEST_F(HTTP, ARequestIsCancelledWhileTheNameIsResolved)
{
    const int before = hangingNames;
    EXPECT_LE(cancelled(request("https://hanging.example/v1"), [&] { return hangingNames > before; }), promptly);
    const auto start = Time::now();
    client.reset();
    EXPECT_LE(Time::now() - start, promptly) << "the end of the client does not wait for the name either";
}

namespace {

/// An address at which nobody takes a connection: a queue of one that is full, so that the system drops what asks for more.
struct FullQueue {
    FullQueue()
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        EXPECT_EQ(::bind(full.get(), reinterpret_cast<sockaddr *>(&address), size), 0);
        EXPECT_EQ(::listen(full.get(), 0), 0);
        ::getsockname(full.get(), reinterpret_cast<sockaddr *>(&address), &size);
        for (int i = 0; i < 3; ++i) {
            waiting.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            ::connect(waiting.back().get(), reinterpret_cast<const sockaddr *>(&address), size);
        }
        url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/v1";
    }
    const Descriptor full{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    std::vector<Descriptor> waiting;
    std::string url;
};

/// A phase of a connection in which the server stops; it notes that it has come there, and goes on when that has been noted.
struct Phase {
    const char *name;
    bool secure;
    std::size_t body;
    TestServer::Serve serve;

    HTTPRequest of(HTTPRequest asked, const TestServer &server) const
    {
        // The handshake hangs because the other side does not even speak TLS.
        asked.url = secure ? "https://localhost:" + std::to_string(server.port()) + "/v1" : server.url();
        asked.body.assign(body, ' ');
        return asked;
    }
};

std::vector<Phase> phases(std::atomic<int> &reached)
{
    return {
        {"the handshake of TLS", true, 10,
            [&reached](Connection &connection) {
                ++reached;
                connection.awaitClose();
            }},
        {"sending", false, 50'000'000,
            [&reached](Connection &connection) {
                ++reached;
                while (reached == 1) // nothing is read while the line fills
                    std::this_thread::yield();
                connection.awaitClose();
            }},
        {"waiting for the answer", false, 10,
            [&reached](Connection &connection) {
                connection.request();
                ++reached;
                connection.awaitClose();
            }},
        {"the body", false, 10,
            [&reached](Connection &connection) {
                connection.request();
                connection.send("HTTP/1.1 200 OK\r\nContent-Length: 900\r\n\r\nhalf of it");
                ++reached;
                connection.awaitClose();
            }},
    };
}

} // namespace

TEST_F(HTTP, ARequestIsCancelledWhileItConnects)
{
    const FullQueue nobody;
    const auto start = Time::now();
    EXPECT_LE(cancelled(request(nobody.url), [&] { return Time::now() - start > Milliseconds(50); }), promptly);
}

TEST_F(HTTP, ARequestIsCancelledInEveryPhaseOfItsConnection)
{
    std::atomic<int> reached = 0;
    for (const Phase &phase : phases(reached)) {
        SCOPED_TRACE(phase.name);
        reached = 0;
        TestServer server(phase.serve);
        EXPECT_LE(cancelled(phase.of(request(""), server), [&] { return reached == 1; }), promptly);
        ++reached;
        EXPECT_TRUE(soon(loop, [&] { return server.closed() == 1; })) << "the connection is closed, too";
    }
}

TEST_F(HTTP, TheTimeLimitHoldsInEveryPhase)
{
    const auto givenUp = [this](HTTPRequest asked) {
        asked.timeout = Milliseconds(150);
        return failure(std::move(asked)) == Reason::unreachable;
    };
    const int before = hangingNames;
    EXPECT_TRUE(givenUp(request("https://hanging.example/v1"))) << "resolving the name";
    EXPECT_GT(hangingNames, before);
    const FullQueue nobody;
    EXPECT_TRUE(givenUp(request(nobody.url))) << "connecting";
    std::atomic<int> reached = 0;
    for (const Phase &phase : phases(reached)) {
        SCOPED_TRACE(phase.name);
        reached = 0;
        TestServer server(phase.serve);
        EXPECT_TRUE(givenUp(phase.of(request(""), server)));
        EXPECT_EQ(reached++, 1);
        EXPECT_TRUE(soon(loop, [&] { return server.closed() == 1; }));
    }
}

TEST_F(HTTP, AServerThatSendsHeadersWithoutEndIsCutOff)
{
    for (const char *line : {"X-More: and more\r\n", "HTTP/1.1 103 Early Hints\r\nX-More: and more\r\n\r\n"}) {
        SCOPED_TRACE(line);
        std::atomic<std::size_t> sent = 0;
        TestServer server([&](Connection &connection) {
            connection.request();
            connection.send("HTTP/1.1 103 Early Hints\r\n");
            std::string many;
            while (many.size() < 50'000)
                many += line;
            while (sent < 20'000'000 && connection.send(many))
                sent += many.size();
            connection.awaitClose();
        });
        EXPECT_TRUE(failure(server));
        EXPECT_TRUE(soon(loop, [&] { return server.closed() == 1; }));
        EXPECT_LT(sent, 20'000'000u);
    }
}

TEST(ProxyVariables, AreReadInSmallLettersBeforeCapitalsAndTheSecureOneBeforeThatForAll)
{
    using Variables = std::map<std::string, std::string>;
    const auto from = [](Variables variables) {
        return CurlHTTPClient::Settings::from([&](std::string_view name) -> std::optional<std::string> {
            const auto found = variables.find(std::string(name));
            return found == variables.end() ? std::nullopt : std::optional(found->second);
        });
    };
    Variables all{{"https_proxy", "a"}, {"HTTPS_PROXY", "b"}, {"all_proxy", "c"}, {"ALL_PROXY", "d"}};
    for (const char *proxy : {"a", "b", "c", "d"}) {
        EXPECT_EQ(from(all).proxy, proxy);
        std::erase_if(all, [proxy](const auto &variable) { return variable.second == proxy; });
    }
    EXPECT_EQ(from({{"http_proxy", "x"}, {"https_proxy", ""}}).proxy, "") << "plain HTTP goes to this machine alone";
    EXPECT_EQ(from({{"no_proxy", "e"}, {"NO_PROXY", "f"}}).noProxy, "e");
    EXPECT_EQ(from({{"NO_PROXY", "f"}}).noProxy, "f");
}

TEST_F(HTTP, TheProviderTellsEachEndOfARealLineInItsSentence)
{
    const auto response = [](const std::string &status) { return "HTTP/1.1 " + status + "\r\nContent-Length: 5\r\n\r\nwords"; };
    const AppError rejected(AppError::Kind::configuration, "The provider rejected your API key or model access.");
    const AppError unreachable(AppError::Kind::network, "Could not reach the AI provider. Check your connection.");
    const struct {
        std::string sent;
        AppError told;
    } cases[] = {
        {response("401 Unauthorized"), rejected},
        {response("403 Forbidden"), rejected},
        {response("429 Too Many Requests"),
            AppError(AppError::Kind::network, "The provider rate limit or account quota was reached.")},
        {response("302 Found"),
            AppError(AppError::Kind::network, "The AI request failed (HTTP 302). Check the model in Settings.")},
        {response("500 Oh"), AppError(AppError::Kind::network, "The AI request failed (HTTP 500). Check the model in Settings.")},
        {"220 mail.example ESMTP\r\n", AppError(AppError::Kind::network, "The AI provider returned an invalid response.")},
        {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf of it", unreachable},
        {"", unreachable},
    };
    HeadlessSecretStore secrets;
    secrets.keep("ai.openai", "sk-marker");
    KeychainService keychain(loop.executor(), &secrets);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.sent);
        TestServer server([&](Connection &connection) {
            connection.request();
            connection.send(c.sent);
        });
        OpenAIProvider provider("m", keychain, &*client, loop.executor(), server.url("/v1"));
        try {
            await(loop, provider.chat({{Message::Role::user, "Hello?"}}, {}, {}));
            ADD_FAILURE() << "no error";
        } catch (const AppError &error) {
            EXPECT_EQ(error, c.told);
        }
    }
}

TEST_F(HTTP, TheProviderTalksToARealServer)
{
    const std::string answer = R"({"status":"completed","output":[{"type":"message","content":[{"text":"Hello"}]}]})";
    std::string padded = answer;
    TestServer server([&](Connection &connection) {
        connection.request();
        connection.send(TestServer::response(padded));
    });
    HeadlessSecretStore secrets;
    secrets.keep("ai.openai", "sk-marker");
    KeychainService keychain(loop.executor(), &secrets);
    OpenAIProvider provider(
        "gpt-4.1-mini", keychain, &*client, loop.executor(), OpenAIProvider::endpoint({"OPENAI_BASE_URL=" + server.url("/v1/")}));
    const std::vector<Message> messages{{Message::Role::user, "Hello?"}};
    EXPECT_EQ(await(loop, provider.chat(messages, {}, {})).text, "Hello");
    EXPECT_NE(server.requests().at(0).find("POST /v1/responses "), std::string::npos);

    padded.resize(7'999'999, ' ');
    EXPECT_EQ(await(loop, provider.chat(messages, {}, {})).text, "Hello");
    padded.resize(8'000'000, ' ');
    try {
        await(loop, provider.chat(messages, {}, {}));
        ADD_FAILURE() << "no error";
    } catch (const AppError &error) {
        EXPECT_EQ(error, AppError(AppError::Kind::network, "The AI response is too large."));
    }
}

TEST(HTTPThreads, RequestsOfManyThreadsAreAnsweredOrCancelledFromOthers)
{
    TestServer server([](Connection &connection) {
        connection.request();
        connection.send(TestServer::response("fine"));
    });
    TestServer mute([](Connection &connection) { connection.awaitClose(); });
    std::atomic<int> answered = 0, ended = 0;
    const auto ask = [&](CurlHTTPClient &client, std::string url) -> Task<void> {
        HTTPRequest request{.url = std::move(url), .headers = {{"Authorization", "Bearer k"}}, .body = "{}", .bodyLimit = 100};
        try {
            const HTTPResponse response = co_await client.post(std::move(request));
            answered += response.status == 200;
        } catch (const HTTPFailure &) {
        } catch (const Cancelled &) {
            ++ended;
        }
    };
    {
        CurlHTTPClient client{CurlHTTPClient::Settings()};
        ThreadPool pool(3);
        for (int i = 0; i < 8; ++i) {
            spawnDetached(pool.executor(), ask(client, server.url()));
            Actor actor(pool.executor());
            const int before = mute.connections();
            auto hanging = std::make_shared<TaskHandle>(spawn(actor.executor(), ask(client, mute.url())));
            // Cancelled on its own strand, which is another thread's by now: perhaps before it has begun, or when it waits.
            std::thread([&, executor = actor.executor(), hanging] {
                while (i % 2 == 0 && mute.connections() == before)
                    std::this_thread::yield();
                runLater(executor, [hanging] { hanging->cancel(); });
            }).join();
        }
        pool.join();
    }
    EXPECT_EQ(answered, 8);
    EXPECT_EQ(ended, 8);
}
