#include "tests/Vorrel/Platform/Linux/TestServer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace korvane::test {

namespace {

using Key = std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY *)>;
using Certificate = std::unique_ptr<X509, void (*)(X509 *)>;

constexpr long day = 24 * 60 * 60;

void extend(X509 *certificate, X509 *issuer, int kind, const std::string &value)
{
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION *const extension = X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str());
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

Certificate named(const std::string &name, EVP_PKEY *key, long from, long until)
{
    Certificate made(X509_new(), X509_free);
    X509_set_version(made.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(made.get()), ::getpid());
    X509_gmtime_adj(X509_getm_notBefore(made.get()), from);
    X509_gmtime_adj(X509_getm_notAfter(made.get()), until);
    X509_set_pubkey(made.get(), key);
    X509_NAME_add_entry_by_txt(
        X509_get_subject_name(made.get()), "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>(name.c_str()), -1, -1, 0);
    return made;
}

void write(const std::string &path, const std::function<void(FILE *)> &content)
{
    FILE *const file = std::fopen(path.c_str(), "w");
    ASSERT_TRUE(file) << path;
    content(file);
    std::fclose(file);
}

} // namespace

TestAuthority::TestAuthority(const std::string &host, Validity validity)
{
    std::string pattern = (std::filesystem::temp_directory_path() / "korvane-authority-XXXXXX").string();
    folder = ::mkdtemp(pattern.data());
    const Key issuerKey(EVP_EC_gen("P-256"), EVP_PKEY_free), serverKey(EVP_EC_gen("P-256"), EVP_PKEY_free);

    const Certificate issuer = named("Korvane tests", issuerKey.get(), -2 * day, 2 * day);
    X509_set_issuer_name(issuer.get(), X509_get_subject_name(issuer.get()));
    extend(issuer.get(), issuer.get(), NID_basic_constraints, "critical,CA:TRUE");
    X509_sign(issuer.get(), issuerKey.get(), EVP_sha256());

    const Certificate server = named(host, serverKey.get(), -2 * day, validity == Validity::present ? day : -day);
    X509_set_issuer_name(server.get(), X509_get_subject_name(issuer.get()));
    extend(server.get(), issuer.get(), NID_subject_alt_name, "DNS:" + host);
    X509_sign(server.get(), issuerKey.get(), EVP_sha256());

    write(authorities(), [&](FILE *file) { PEM_write_X509(file, issuer.get()); });
    write(certificate(), [&](FILE *file) { PEM_write_X509(file, server.get()); });
    write(key(), [&](FILE *file) { PEM_write_PrivateKey(file, serverKey.get(), nullptr, nullptr, 0, nullptr, nullptr); });
}

TestAuthority::~TestAuthority() { std::filesystem::remove_all(folder); }

TestServer::TestServer(Serve serve, const TestAuthority *authority) :
    serve(std::move(serve)), secure(authority), listening(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
    context(nullptr, SSL_CTX_free)
{
    std::signal(SIGPIPE, SIG_IGN);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(::bind(listening.get(), reinterpret_cast<sockaddr *>(&address), size), 0);
    EXPECT_EQ(::listen(listening.get(), 8), 0);
    ::getsockname(listening.get(), reinterpret_cast<sockaddr *>(&address), &size);
    _port = ntohs(address.sin_port);
    if (authority) {
        context.reset(SSL_CTX_new(TLS_server_method()));
        EXPECT_EQ(SSL_CTX_use_certificate_file(context.get(), authority->certificate().c_str(), SSL_FILETYPE_PEM), 1);
        EXPECT_EQ(SSL_CTX_use_PrivateKey_file(context.get(), authority->key().c_str(), SSL_FILETYPE_PEM), 1);
    }
    thread = std::thread([this] { run(); });
}

TestServer::~TestServer()
{
    ending = true;
    thread.join();
}

void TestServer::run()
{
    while (!ending) {
        pollfd ready{listening.get(), POLLIN, 0};
        if (::poll(&ready, 1, 5) != 1)
            continue;
        const Descriptor accepted(::accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
        const timeval patience{0, 5000};
        ::setsockopt(accepted.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        ++_connections;
        const std::unique_ptr<SSL, void (*)(SSL *)> tls(context ? SSL_new(context.get()) : nullptr, SSL_free);
        if (tls) {
            SSL_set_fd(tls.get(), accepted.get());
            int result = -1;
            while (!ending && (result = SSL_accept(tls.get())) != 1 && SSL_get_error(tls.get(), result) == SSL_ERROR_WANT_READ) {
            }
            if (result != 1)
                continue;
        }
        Connection connection(accepted.get(), tls.get(), *this);
        serve(connection);
    }
}

int TestServer::Connection::read(char *bytes, int count)
{
    while (!server.ending) {
        const auto got = tls ? SSL_read(tls, bytes, count) : static_cast<int>(::recv(descriptor, bytes, std::size_t(count), 0));
        if (got > 0)
            return got;
        const bool waits = tls ? SSL_get_error(tls, got) == SSL_ERROR_WANT_READ : got < 0 && (errno == EAGAIN || errno == EINTR);
        if (!waits)
            return 0;
    }
    return 0;
}

std::string TestServer::Connection::request()
{
    std::string all;
    std::size_t wanted = std::string::npos;
    char bytes[65536];
    while (all.size() < wanted) {
        const int got = read(bytes, sizeof bytes);
        if (got <= 0)
            break;
        all.append(bytes, std::size_t(got));
        const auto head = all.find("\r\n\r\n");
        if (wanted == std::string::npos && head != std::string::npos) {
            const auto length = all.find("Content-Length: ");
            wanted = head + 4 + (length < head ? std::stoul(all.substr(length + 16)) : 0);
        }
    }
    const std::scoped_lock lock(server.mutex);
    server._requests.push_back(all);
    return all;
}

bool TestServer::Connection::send(const std::string &bytes)
{
    for (std::size_t sent = 0; sent < bytes.size() && !server.ending;) {
        const int part = static_cast<int>(std::min<std::size_t>(bytes.size() - sent, 65536));
        const auto done = tls ? SSL_write(tls, bytes.data() + sent, part)
                              : static_cast<int>(::send(descriptor, bytes.data() + sent, std::size_t(part), MSG_NOSIGNAL));
        if (done <= 0)
            return false;
        sent += std::size_t(done);
    }
    return !server.ending;
}

void TestServer::Connection::awaitClose()
{
    char bytes[4096];
    while (read(bytes, sizeof bytes) > 0) { }
    if (!server.ending)
        ++server._closed;
}

std::string TestServer::url(const std::string &path) const
{
    return (secure ? "https://localhost:" : "http://127.0.0.1:") + std::to_string(_port) + path;
}

std::vector<std::string> TestServer::requests() const
{
    const std::scoped_lock lock(mutex);
    return _requests;
}

std::string TestServer::response(const std::string &body, const std::string &status)
{
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

} // namespace korvane::test
