#pragma once

#include "Support/Task.h"

namespace korvane {

/// Connections to the user's MCP servers. Main thread only.
class MCPManager {
public:
    /// Disconnects every server and returns when none runs any more.
    Task<void> stop() { co_return; }
};

} // namespace korvane
