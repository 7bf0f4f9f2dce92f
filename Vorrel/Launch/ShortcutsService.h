#pragma once

#include "CommandCore/CommandRegistry.h"
#include "Support/Clock.h"
#include "Support/Observed.h"
#include "Vorrel/Launch/BoundedProcess.h"

#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korvane {

/// One of the user's own shortcuts.
struct ShortcutItem {
    std::string name;
    bool operator==(const ShortcutItem &) const = default;
};

/// Lists, runs and shows the user's shortcuts. Any coroutine.
class ShortcutRunning {
public:
    virtual ~ShortcutRunning() = default;
    virtual Task<std::vector<std::string>> listNames() = 0;
    virtual Task<void> run(std::string name) = 0;
    virtual Task<void> view(std::string name) = 0;
};

/// Does so by the system's command-line tool, with one word for the operation and the name as one argument.
/// Throws `toolExecution` "The shortcut did not complete. Check it in Shortcuts and try again." for any exit status but 0,
/// and what `BoundedProcess` throws.
class ShortcutsCLI final : public ShortcutRunning {
public:
    static constexpr double listTimeout = 20, runTimeout = 180, viewTimeout = 20; ///< Seconds.
    static constexpr std::size_t outputLimit = 262'144; ///< Bytes.

    /// Runs the tool with these arguments for at most so many seconds.
    using ExecuteProcess = std::function<Task<BoundedProcess::Output>(std::vector<std::string> arguments, double timeout)>;
    explicit ShortcutsCLI(ExecuteProcess executeProcess) : executeProcess(std::move(executeProcess)) { }
    /// The tool at an absolute path.
    static ExecuteProcess tool(std::string path, std::shared_ptr<BoundedProcess> process);

    Task<std::vector<std::string>> listNames() override;
    Task<void> run(std::string name) override;
    Task<void> view(std::string name) override;

private:
    Task<std::string> outputOf(std::vector<std::string> arguments, double timeout);

    ExecuteProcess executeProcess;
};

/// Keeps the list of shortcuts and runs one at a time. Main thread only.
class ShortcutsService : public std::enable_shared_from_this<ShortcutsService> {
public:
    /// Without shortcuts.
    ShortcutsService() = default;
    /// `clock` outlives the service.
    ShortcutsService(Executor mainThread, Clock &clock, std::unique_ptr<ShortcutRunning> runner);
    virtual ~ShortcutsService() = default;

    /// Refreshes, and from then on whenever ten minutes have passed and the list is old. Once.
    virtual void start();
    virtual void stop(); ///< Ends everything that goes on.
    /// Looks for shortcuts anew in a task of its own; without `force` only when the list is older than five minutes.
    virtual void refresh(bool force);
    /// The same, for a caller who waits: throws what the runner throws, and leaves the old list then. Returns at once while
    /// another refresh goes on.
    Task<void> refreshNow();
    /// Runs a shortcut to its end. Throws `recoverable` "A shortcut is already running.", what the runner throws, and
    /// `Cancelled` for a run that `cancelRun` ended. Cancelling the caller ends the run.
    Task<void> run(std::string name);
    Task<void> view(std::string name);
    virtual void cancelRun(); ///< Ends the run in flight, if there is one.

    virtual CommandRegistry::Commands commands() const; ///< One for each shortcut, in the order of the tool.

    std::function<void()> onUpdate = [] {}; ///< Called after a good refresh.

    Observed<std::vector<ShortcutItem>> shortcuts;
    Observed<std::string> statusText; ///< One line for the user, localised.
    Observed<std::optional<std::string>> runningName;
    Observed<std::optional<double>> startedAt; ///< Seconds since 1970 at the start of the run in flight; nothing without one.

private:
    bool isOld() const;
    static Task<void> refreshDropping(std::weak_ptr<ShortcutsService> weak);
    static Task<void> monitorTask(std::weak_ptr<ShortcutsService> weak, Clock &clock);
    static Task<void> runTask(std::shared_ptr<ShortcutRunning> runner, std::string name, Continuation<void> done);

    const Executor mainThread;
    Clock *const clock = nullptr;
    const std::shared_ptr<ShortcutRunning> runner; ///< Shared with runs, which may outlive the service. Null without shortcuts.
    TaskHandle refreshHandle, monitor, runHandle;
    bool refreshing = false;
    double lastRefresh = -std::numeric_limits<double>::infinity(); ///< By the clock that never jumps.
};

/// A shortcut as a row.
class ShortcutCommand final : public Command {
public:
    ShortcutCommand(ShortcutItem item, std::weak_ptr<ShortcutsService> service);

    const std::string &id() const override { return row->id; }
    Row result(const CommandContext &) const override { return row; }
    bool isFixed() const override { return true; }

    const ShortcutItem item;

private:
    Row row;
};

} // namespace korvane
