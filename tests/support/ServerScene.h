#pragma once

#include "Vorrel/MCP/MCPManager.h"
#include "Vorrel/Platform/Headless/HeadlessSecretStore.h"
#include "Vorrel/Platform/Linux/LinuxServerLaunching.h"
#include "Vorrel/Shell/AppLog.h"
#include "tests/support/Await.h"
#include "tests/support/MarkedProcesses.h"
#include "tests/support/Soon.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>

namespace korvane::test {

/// The machine's time, in which only the long wait for a reply is a short one: processes end in their own time.
struct ImpatientClock final : SystemClock {
    static constexpr Milliseconds patience{400};
    static double seconds() { return double(patience.count()) / 1000; }
    Task<void> sleep(Milliseconds delay) override
    {
        return SystemClock::sleep(impatient && delay == StdioTransport::replyTimeout ? patience : delay);
    }
    bool impatient = false; ///< Set before use.
};

/// Remembers what it has launched.
class RememberingLaunching final : public ServerLaunching {
public:
    explicit RememberingLaunching(std::string host) : real(std::move(host)) { }

    Task<bool> isExecutable(std::string path) override { return real.isExecutable(std::move(path)); }
    Task<std::shared_ptr<ServerProcess>> launch(std::shared_ptr<const Program> program) override
    {
        auto process = co_await real.launch(std::move(program));
        const std::scoped_lock lock(mutex);
        launched.push_back(process);
        co_return process;
    }
    bool anyRuns() const
    {
        const std::scoped_lock lock(mutex);
        return std::ranges::any_of(launched, [](const auto &process) { return process->isRunning(); });
    }

private:
    LinuxServerLaunching real;
    mutable std::mutex mutex;
    std::vector<std::shared_ptr<ServerProcess>> launched;
};

/// A manager over a store in memory whose servers are real processes, and a registry that asks nobody.
struct ServerScene {
    explicit ServerScene(std::string home = "/home/ada", std::string host = KORVANE_BINARIES "/korvane-mcp-host") :
        launching(std::move(host)),
        manager({registry, keychain, database, StdioTransport::Parts{pool.executor(), clock, launching, std::move(home)}})
    {
        AppLog::silence();
        secrets.keep("mark", marked.value());
        await(loop, manager.load());
    }
    ~ServerScene()
    {
        await(loop, manager.stop());
        EXPECT_TRUE(nothingRuns());
        pool.join();
        loop.shutDown();
    }

    /// A server whose processes can be found.
    static MCPServerConfiguration server(std::string id, std::string command, std::vector<std::string> arguments)
    {
        MCPServerConfiguration made;
        made.id = id;
        made.name = std::move(id);
        made.command = std::move(command);
        made.args = std::move(arguments);
        made.secretEnvironment = {{MarkedProcesses::name(), "mark"}};
        return made;
    }

    /// The sentence that the user sees; empty for a success.
    std::string connect(const MCPServerConfiguration &configuration)
    {
        return failureOf([&] { await(loop, manager.connect(configuration)); });
    }
    std::string call(const std::string &tool, JSONValue input)
    {
        return failureOf([&] { result = await(loop, registry.call(tool, std::move(input))).value; });
    }
    /// Seconds that it took.
    double disconnect(const MCPServerConfiguration &configuration)
    {
        const double before = SystemClock().uptime();
        await(loop, manager.disconnect(configuration));
        return SystemClock().uptime() - before;
    }
    const std::string &status(const std::string &id) const { return manager.status().at(id); }
    /// The text of the first piece of the last result's content.
    std::string resultText() const
    {
        const auto *content = result["content"].array();
        const auto *text = content && !content->empty() ? content->front()["text"].string() : nullptr;
        return text ? *text : "";
    }
    /// By both witnesses: a process may be too short-lived to be seen, and one that escaped would not count as running.
    bool nothingRuns(Milliseconds limit = Milliseconds(3000))
    {
        return soon(
            loop, [this] { return !launching.anyRuns() && marked.alive().empty(); }, limit);
    }

    MarkedProcesses marked;
    MainLoop loop;
    ThreadPool pool{2};
    ImpatientClock clock;
    HeadlessSecretStore secrets;
    KeychainService keychain{pool.executor(), &secrets};
    ToolRegistry registry{[](const ToolDefinition &, const JSONValue &) -> Task<void> { co_return; }};
    RememberingLaunching launching;
    std::shared_ptr<Database> database = await(loop, Database::open(pool.executor(), ":memory:", Database::Access::readWrite));
    MCPManager manager;
    JSONValue result; ///< Of the last call that succeeded.

private:
    static std::string failureOf(const std::function<void()> &work)
    {
        try {
            work();
        } catch (...) {
            return AppError::friendly(std::current_exception());
        }
        return "";
    }
};

} // namespace korvane::test
