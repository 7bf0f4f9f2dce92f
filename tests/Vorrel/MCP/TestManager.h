#pragma once

#include "CommandCore/Commands.h"
#include "Vorrel/MCP/MCPManager.h"
#include "Vorrel/Platform/Headless/HeadlessSecretStore.h"
#include "Vorrel/Shell/AppLog.h"
#include "tests/Vorrel/MCP/ScriptedServer.h"
#include "tests/support/Await.h"
#include "tests/support/HeadlessDesktop.h"

namespace korvane::test {

/// A manager over servers, a keychain and a store in memory, in virtual time.
struct TestManager {
    TestManager()
    {
        AppLog::silence();
        servers().hear = script.hear();
    }
    ~TestManager()
    {
        Begun<void> stopping(loop(), manager.stop());
        desktop.clock.advance(Milliseconds(5000));
        loop().shutDown();
    }

    MainLoop &loop() { return desktop.loop; }
    HeadlessServers &servers() { return desktop.servers; }
    void advance(Milliseconds time) { desktop.clock.advance(time); }

    template <class T> Begun<T> begin(Task<T> task)
    {
        Begun<T> begun(loop(), std::move(task));
        loop().runUntilIdle();
        return begun;
    }
    /// What a task came to: "done", or the text that a user is shown of its error.
    static std::string outcomeOf(Begun<void> task)
    {
        try {
            task.result();
            return "done";
        } catch (...) {
            return AppError::friendly(std::current_exception());
        }
    }
    /// The same of a task that may wait for a server to end.
    std::string outcome(Task<void> task)
    {
        Begun<void> begun(loop(), std::move(task));
        advance(Milliseconds(700));
        return outcomeOf(std::move(begun));
    }
    std::string connect() { return outcome(manager.connect(server)); }

    Strings tools() const
    {
        Strings names;
        for (const ToolDefinition &tool : registry.definitions())
            names.push_back(tool.name);
        return names;
    }
    std::string status(const std::string &id = "one") const
    {
        const auto found = manager.status().find(id);
        return found == manager.status().end() ? "none" : found->second;
    }
    Strings names() const
    {
        Strings all;
        for (const MCPServerConfiguration &one : manager.configurations())
            all.push_back(one.id + " " + one.name);
        return all;
    }

    HeadlessDesktop desktop;
    ServerScript script;
    HeadlessSecretStore secrets;
    KeychainService keychain{desktop.loop.executor(), &secrets};
    Strings approved; ///< The tools for which the user was asked.
    ToolRegistry registry{[this](const ToolDefinition &tool, const JSONValue &) -> Task<void> {
        approved.push_back(tool.name);
        co_return;
    }};
    std::shared_ptr<Database> database =
        await(desktop.loop, Database::open(desktop.loop.executor(), ":memory:", Database::Access::readWrite));
    StdioTransport::Parts transport{desktop.loop.executor(), desktop.clock, desktop.servers, "/home/ada"};
    MCPManager manager{{registry, keychain, database, transport}};
    const MCPServerConfiguration server{.id = "one", .name = "One", .command = "/opt/server"};
};

} // namespace korvane::test
