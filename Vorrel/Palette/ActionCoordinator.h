#pragma once

#include "Support/Observed.h"
#include "Vorrel/Launch/ApplicationService.h"
#include "Vorrel/Platform/Dialogs.h"

#include <map>

namespace korvane {

/// Runs the flows that need a window of the system on top of the palette, and tells through
/// `isPresenting` that the palette must not hide while such a window stands. Main thread only.
class ActionCoordinator {
public:
    explicit ActionCoordinator(Dialogs &dialogs) : dialogs(dialogs) { }
    virtual ~ActionCoordinator() = default;

    /// Opens or closes the preview of a file. This build has no preview window: the request ends as
    /// cancelled, which nobody sees.
    virtual Task<void> togglePreview(std::string path);

    /// Asks for what the application at `path` is to open (a folder when `folders`, otherwise two files) and
    /// launches it with `arguments` and the choice. A choice is made once for the life of the process.
    /// Throws `Cancelled` when the user cancels, `recoverable` "Choose exactly two files to compare." for a
    /// wrong number, and what the launch throws.
    Task<void> collectAndOpen(
        std::string path, std::vector<std::string> arguments, bool folders, ApplicationService &applications);

    /// Ends what runs and closes what stands, but for a panel that waits for its own answer.
    virtual void reset();

    bool isPresenting() const { return _isPresenting; }
    bool checkingAccess() const { return _checkingAccess; }

    Observed<bool> _isPresenting{false};
    Observed<bool> _checkingAccess{false};

private:
    Dialogs &dialogs;
    std::map<std::string, std::vector<std::string>> collected; // by application and base arguments
};

} // namespace korvane
