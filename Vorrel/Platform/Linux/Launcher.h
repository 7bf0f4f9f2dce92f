#pragma once

#include "Support/ChildProcess.h"
#include "Vorrel/Platform/ApplicationLauncher.h"
#include "Vorrel/Platform/Linux/DesktopEntries.h"
#include "Vorrel/Platform/Linux/ExecLine.h"

#include <functional>

namespace korvane {

/// Starts applications by their desktop entries.
///
/// A program is started detached (see `spawnDetachedProcess`), in the entry's working folder or else at
/// home, with the environment as it was when this program started, and is then handed to the user's
/// systemd, where there is one, as a unit of its own, so that it also survives this program's. An
/// application that D-Bus activates is asked through the bus first. Main thread; what blocks runs on
/// the pool.
class DesktopLauncher : public ApplicationLauncher {
public:
    struct Options {
        Executor pool;
        /// The environment that started programs get, as "NAME=value", with which this one was started.
        /// Also says where programs, the bus and the terminal are.
        std::vector<std::string> environment;
        /// Asked on the main thread at each launch: the token by which the desktop lets the started
        /// program come to the front. Empty, or empty text, for none.
        std::function<std::string()> activationToken = {};
    };
    explicit DesktopLauncher(Options options);

    Task<void> launch(std::string path, std::vector<std::string> arguments) override;
    Task<void> launchAction(std::string path, std::string actionId) override;
    /// Lets the application at `path` open a file or an address.
    Task<void> launchWithTarget(std::string path, ExecLine::Target target);

    const DesktopEnvironment &desktop() const { return _desktop; }
    const std::string &sessionBus() const { return _sessionBus; }

private:
    /// What is wanted of an application. A value.
    struct Request {
        std::string path;
        std::string actionId = {};
        std::vector<std::string> arguments = {};
        std::optional<ExecLine::Target> target = {};
        std::string token = {};
    };
    Task<void> start(Request request);
    std::string newToken() const;

    class Work;
    const Executor pool;
    const std::vector<std::string> environment; // without the token that this program was started with
    const DesktopEnvironment _desktop;
    const std::string _sessionBus;
    const std::function<std::string()> activationToken;
};

/// The words that run `command` in a terminal of the user's: $TERMINAL, the system's choice, then the
/// usual ones. Empty when there is none. Looks at the disk.
std::vector<std::string> inTerminal(const std::vector<std::string> &environment, std::vector<std::string> command);

/// Name of the unit for a started application, by the rules for names of units.
std::string applicationScopeName(const std::string &identifier, const std::string &random);

/// Variables of an environment given as "NAME=value".
Environment variablesOf(std::vector<std::string> environment);

} // namespace korvane
