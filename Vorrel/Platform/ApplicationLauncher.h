#pragma once

#include "Support/Task.h"

#include <string>
#include <vector>

namespace korvane {

/// Starts applications. Main thread; nothing blocks it. A started application outlives this program
/// and gets nothing that this program added to its environment.
class ApplicationLauncher {
public:
    virtual ~ApplicationLauncher() = default;

    /// Opens the application at `path`: a running one may merely come forward. With arguments a new
    /// instance is asked for. Throws anything when the system could not start it.
    virtual Task<void> launch(std::string path, std::vector<std::string> arguments) = 0;
    /// Runs one of the application's own actions (see `ApplicationSource::actions`).
    virtual Task<void> launchAction(std::string path, std::string actionId) = 0;
};

} // namespace korvane
