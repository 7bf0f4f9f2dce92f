#pragma once

#include "Support/Clock.h"

#include <cstddef>
#include <exception>
#include <string>
#include <utility>
#include <vector>

namespace korvane {

struct HTTPRequest {
    std::string url; ///< https, or plain http to this machine alone; nothing else is spoken.
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    Milliseconds timeout{60'000}; ///< For the whole of it, from the name's resolution to the last byte.
    std::size_t bodyLimit = 0; ///< The response's body is cut off once it has this many bytes.
};

struct HTTPResponse {
    int status = 0; ///< Of a redirection too: none is followed.
    std::string body; ///< Empty unless the status is from 200 to 299; what else a server says is not read.
    bool bodyTooLarge = false; ///< The limit was reached, and the body is not kept.
};

/// Why there is no response. Nothing of the request is in it.
class HTTPFailure : public std::exception {
public:
    enum class Reason {
        unreachable, ///< No connection, one that is not trusted, a time-out, a line that dropped.
        notHTTP ///< Something answered that does not speak the protocol.
    };
    explicit HTTPFailure(Reason reason) : _reason(reason) { }
    Reason reason() const { return _reason; }
    const char *what() const noexcept override { return "HTTP failure"; }

private:
    Reason _reason;
};

/// Posts requests to servers whose certificates it verifies. Any thread; requests do not wait for each other.
class HTTPClient {
public:
    virtual ~HTTPClient() = default;
    /// Throws `HTTPFailure`, and `Cancelled` as soon as the caller is cancelled, whatever the request waits for; its connection
    /// is then closed.
    virtual Task<HTTPResponse> post(HTTPRequest request) = 0;
};

} // namespace korvane
