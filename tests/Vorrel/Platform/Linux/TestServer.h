#pragma once

#include "Support/Descriptor.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

typedef struct ssl_ctx_st SSL_CTX;
typedef struct ssl_st SSL;

namespace korvane::test {

/// An authority of the test's own and a certificate by it, as files in PEM in a temporary folder.
class TestAuthority {
public:
    enum class Validity { present, expired };
    explicit TestAuthority(const std::string &host = "localhost", Validity validity = Validity::present);
    ~TestAuthority();
    TestAuthority(const TestAuthority &) = delete;
    TestAuthority &operator=(const TestAuthority &) = delete;

    std::string authorities() const { return folder + "/authority.pem"; }
    std::string certificate() const { return folder + "/server.pem"; }
    std::string key() const { return folder + "/server.key"; }

private:
    std::string folder;
};

/// A server on this machine that does with each connection, one after the other, what the test says.
class TestServer {
public:
    /// One connection. Its operations block, and give up when the server ends.
    class Connection {
    public:
        /// Everything up to the end of a request: its head, and as many bytes as that announces.
        std::string request();
        bool send(const std::string &bytes); ///< Whether all of it was taken.
        /// Waits until the other side has closed, reading nothing that matters.
        void awaitClose();

    private:
        friend class TestServer;
        Connection(int descriptor, SSL *tls, TestServer &server) : descriptor(descriptor), tls(tls), server(server) { }
        int read(char *bytes, int count);

        const int descriptor;
        SSL *const tls;
        TestServer &server;
    };
    using Serve = std::function<void(Connection &)>;

    /// With an authority it speaks TLS.
    explicit TestServer(Serve serve, const TestAuthority *authority = nullptr);
    ~TestServer();
    TestServer(const TestServer &) = delete;
    TestServer &operator=(const TestServer &) = delete;

    int port() const { return _port; }
    std::string url(const std::string &path = "/v1/responses") const;
    std::vector<std::string> requests() const; ///< What `request` gave so far.
    int closed() const { return _closed; } ///< How many connections the other side closed in `awaitClose`.
    int connections() const { return _connections; }

    static std::string response(const std::string &body, const std::string &status = "200 OK");

private:
    void run();

    const Serve serve;
    const bool secure;
    Descriptor listening;
    int _port = 0;
    std::atomic<bool> ending = false;
    std::atomic<int> _closed = 0, _connections = 0;
    mutable std::mutex mutex;
    std::vector<std::string> _requests;
    std::unique_ptr<SSL_CTX, void (*)(SSL_CTX *)> context;
    std::thread thread;
};

} // namespace korvane::test
