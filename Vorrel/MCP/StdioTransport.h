#pragma once

#include "CommandCore/MCP.h"
#include "Support/Clock.h"
#include "Vorrel/MCP/LineBuffer.h"
#include "Vorrel/MCP/MCPTransport.h"
#include "Vorrel/Platform/ServerLaunching.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korvane {

/// Runs one server and speaks JSON-RPC 2.0 (jsonrpc.org) with it, a message a line. Whatever breaks the protocol ends the
/// connection. Started once, then open until `close`; there is no reconnecting. Held by a shared pointer, which its tasks hold
/// weakly. Any thread: the state belongs to a strand of the pool.
class StdioTransport final : public MCPTransport, public std::enable_shared_from_this<StdioTransport> {
public:
    static constexpr Milliseconds replyTimeout{20'000};
    static constexpr Milliseconds closeStep{300}; ///< Between the steps of `close`.
    static constexpr std::size_t largestLine = 8'000'000; ///< Bytes of a line received, its line feed included.
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
    /// for a transport other than `stdio`, for a command that is no absolute path of an executable and for texts that no
    /// program can be given; the system's error when it could not be started; and `mcp` "The MCP connection is closed." when
    /// it was closed before or meanwhile; and `Cancelled`, which closes it.
    Task<void> start(MCPServerConfiguration configuration, MCPServerConfiguration::Texts secrets);
    /// Throws `mcp`: "The MCP server is disconnected.", "The MCP connection is closed.", "The MCP request exceeds the size
    /// limit.", "The MCP server timed out." (20 seconds), "The MCP server rejected the request.", "The MCP server disconnected.";
    /// and `Cancelled`, which the server is told.
    Task<JSONValue> request(std::string method, JSONValue params) override;
    /// Sends a message that has no reply. Throws like `request`, but for what concerns the reply.
    Task<void> notify(std::string method, JSONValue params);
    /// Ends the connection and the server with all that it started: end of its input, then signal 15, then signal 9, 0.3
    /// seconds apart. Returns when nothing of it runs any more, or signal 9 has been sent. A server that has not begun within
    /// that time is not waited for: it is killed when it does. Any number of times; goes through also when the caller is
    /// cancelled.
    Task<void> close();

private:
    using Self = std::shared_ptr<StdioTransport>;
    using Weak = std::weak_ptr<StdioTransport>;
    using Texts = MCPServerConfiguration::Texts;
    using Process = std::shared_ptr<ServerProcess>;
    using Closers = std::vector<Continuation<void>>; ///< Those who wait for the end of `close`.
    enum class Cancelling { tellsServer, isSilent }; ///< The protocol forbids to cancel "initialize".

    // Operations on the strand
    Task<void> startOnStrand(Self self, MCPServerConfiguration configuration, Texts secrets);
    Task<JSONValue> requestOnStrand(Self self, std::string method, JSONValue params);
    Task<void> notifyOnStrand(Self self, std::string method, JSONValue params);
    Task<void> closeOnStrand(Self self);

    // Tasks of the strand
    static Task<void> expireLater(Weak weak, Clock &clock, std::int64_t id, Cancelling cancelling);
    static Task<void> giveUpLaunching(Weak weak, Clock &clock);
    static Task<void> readAll(Weak weak, Process process);
    static Task<void> finishClosing(Self self, std::shared_ptr<Closers> closers);
    static Task<void> endServer(Clock &clock, Process process);

    // Steps on the strand
    void send(const JSONValue &message);
    void sendIfPossible(const JSONValue &message);
    void write(std::string line);
    void expect(std::int64_t id, Cancelling cancelling, Continuation<JSONValue> reply);
    void expire(std::int64_t id, Cancelling cancelling);
    void cancel(std::int64_t id, Cancelling cancelling);
    std::optional<Continuation<JSONValue>> forget(std::int64_t id);
    void receive(std::string_view bytes);
    bool handle(std::string_view line);
    void beginClosing();
    void failPending();

    // Fixed after construction
    const Parts parts;
    Actor actor;

    // On the strand only
    Process process; ///< From the start to the end of `close`.
    std::int64_t sequence = 0; ///< The last number given to a request.
    std::map<std::int64_t, Continuation<JSONValue>> pending;
    std::map<std::int64_t, TaskHandle> timeouts; ///< Of those in `pending`.
    TaskHandle reader;
    LineBuffer buffer{largestLine};
    std::optional<TaskHandle> launching; ///< While `start` waits for it.
    TaskHandle givingUp; ///< Of a launch, for the close.
    bool closed = false; ///< Set by the beginning of `close`.
    /// Owned by what comes to the end: a transport that owned them would be kept alive by those who wait for it.
    std::weak_ptr<Closers> closers;
};

} // namespace korvane
