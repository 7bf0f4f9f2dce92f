#pragma once

#include "Support/Task.h"

#include <string>

namespace korvane {

/// What became of a request to the system.
enum class SystemOutcome {
    done,
    refused, ///< The system has the service and said no, or it failed.
    unavailable ///< There is no such service.
};

/// A page of the system's own settings.
enum class SettingsPage {
    keyboard,
    loginItems, ///< What starts with the session.
    filePrivacy ///< What programs may read.
};

/// The machine's session, power and trash. Main thread; nothing blocks it; nothing throws but `Cancelled`.

class SystemControl {
public:
    virtual ~SystemControl() = default;

    virtual Task<SystemOutcome> lockScreen() = 0;
    virtual Task<SystemOutcome> sleep() = 0;
    /// Removes for good what the user has thrown away, on all mounted volumes.
    virtual Task<SystemOutcome> emptyTrash() = 0;
    /// Opens a folder in the file manager. False when that failed.
    virtual Task<bool> openFolder(std::string path) = 0;
    /// Opens a page of the system's settings. False where the system has no such page.
    virtual Task<bool> openSettings(SettingsPage page) = 0;
};

} // namespace korvane
