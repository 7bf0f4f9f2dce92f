#pragma once

#include "CommandCore/JSONValue.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

/// The messages of JSON-RPC 2.0 (jsonrpc.org) between the program and a server, a JSON text each. Any thread.
namespace korvane {

/// One line that a server has printed, as what it is.
struct ServerMessage {
    /// What no server may print: the connection ends.
    struct Violation { };
    /// An empty line, a notification, or a reply that names no request of ours.
    struct Nothing { };
    /// Asks something of us and wants an answer.
    struct Request {
        std::string method;
        JSONValue id; ///< Of any kind but null; it goes back as it came.
    };
    struct Reply {
        std::int64_t id = 0;
        bool rejected = false; ///< The server gave an error, of which nothing is kept.
        JSONValue result;
    };
    using Kind = std::variant<Violation, Nothing, Request, Reply>;

    /// `line` comes without its line feed; any bytes. Throws nothing.
    static Kind read(std::string_view line);

    static JSONValue request(std::int64_t id, std::string method, JSONValue params);
    static JSONValue notification(std::string method, JSONValue params);
    /// Tells the server that the reply to a request of ours is no longer waited for.
    static JSONValue cancellation(std::int64_t id);
    /// What a request of the server is answered: a ping by an empty result, any other by the error -32601.
    static JSONValue answer(Request request);
};

} // namespace korvane
