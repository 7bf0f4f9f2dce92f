#pragma once

#include "CommandCore/JSONValue.h"
#include "Support/Task.h"

#include <string>

namespace korvane {

/// The way to one server, as its tools see it. Any thread.
class MCPTransport {
public:
    virtual ~MCPTransport() = default;
    /// Sends a request and gives the "result" of the reply. Throws `mcp` errors in sentences of the transport's own, and
    /// `Cancelled`.
    virtual Task<JSONValue> request(std::string method, JSONValue params) = 0;
};

} // namespace korvane
