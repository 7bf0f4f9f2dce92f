#pragma once

#include "CommandCore/MCP.h"
#include "Support/Clock.h"
#include "Vorrel/MCP/MCPTransport.h"
#include "Vorrel/Platform/ServerLaunching.h"
#include "Vorrel/Platform/UserFolders.h"

#include <map>

namespace korvane {

/// Runs one server and speaks JSON-RPC 2.0 (jsonrpc.org) with it, a message a line. Whatever breaks the protocol ends the
/// connection. Started once, then open until `close`; there is no reconnecting. Held by a shared pointer, which its tasks hold
/// weakly. Any thread: the state belongs to a strand of the pool.
class StdioTransport final : public MCPTransport, public std::enable_shared_from_this<StdioTransport> {
public:
    static constexpr Milliseconds replyTimeout{20'000};
    static constexpr Milliseconds closeStep{300}; ///< Between the steps of `close`.
    static constexpr std::size_t largestLine = 8'000'000; ///< Bytes received without a complete line.
    static constexpr std::size_t largestMessage = 999'999; ///< Bytes of a message sent, without its line feed.
    static constexpr std::size_t mostUnwritten = 8'000'000; ///< Bytes that a server may leave unread before it is closed.

    struct Parts {
        Executor pool;
        Clock &clock; ///< These two outlive the transport's tasks.
        ServerLaunching &launching;
        std::string home; ///< The user's home folder.
    };
    explicit StdioTransport(Parts parts);
    ~StdioTransport() override;

    /// Starts the server with a clean environment and the secrets (variable to value) laid over it. Throws `configuration`
    /// for a transport other than `stdio` and for a command that is no absolute path of an executable, and the system's error
    /// when it could not be started.
    Task<void> start(MCPServerConfiguration configuration, MCPServerConfiguration::Texts secrets);
    /// Throws `mcp`: "The MCP server is disconnected.", "The MCP connection is closed.", "The MCP request exceeds the size
    /// limit.", "The MCP server timed out." (20 seconds), "The MCP server rejected the request.", "The MCP server disconnected.";
    /// and `Cancelled`, which the server is told.
    Task<JSONValue> request(std::string method, JSONValue params) override;
    /// Sends a message that has no reply. Throws like `request`, but for what concerns the reply.
    Task<void> notify(std::string method, JSONValue params);
    /// Ends the connection and the server with all that it started: end of its input, then signal 15, then signal 9, 0.3
    /// seconds apart. Returns when nothing of it runs any more, or signal 9 has been sent. Any number of times; goes through also
    /// when the caller is cancelled.
    Task<void> close();
};

} // namespace korvane
