#pragma once

#include "Vorrel/Platform/ServerLaunching.h"

namespace korvane {

/// Starts each server through a process of its own that looks after it (`korvane-mcp-host`): that one adopts whatever the server
/// starts, so that all of it can be ended, also when this program is killed. Any thread.
///
/// A server is spoken to by one thread of its own; one that prints nothing or never reads holds up nobody else.
class LinuxServerLaunching final : public ServerLaunching {
public:
    /// `host` is the absolute path of the program that looks after a server.
    explicit LinuxServerLaunching(std::string host) : host(std::move(host)) { }

    Task<bool> isExecutable(std::string path) override;
    Task<std::shared_ptr<ServerProcess>> launch(std::shared_ptr<const Program> program) override;

private:
    const std::string host;
};

} // namespace korvane
