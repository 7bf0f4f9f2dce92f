#pragma once

#include "CommandCore/Commands.h"
#include "Vorrel/Platform/Dialogs.h"

namespace korvane {

/// Puts a confirming alert between anyone and anything dangerous. Main thread only.
class PermissionService {
public:
    explicit PermissionService(Dialogs &dialogs) : dialogs(&dialogs) { }

    /// Asks; anything but "Allow" throws `permission` "The operation was cancelled."
    Task<void> confirm(std::string title, std::string detail) const;
    /// Asks for the destructive role only; the others pass at once.
    Task<void> authorize(ActionRole role, std::string title, std::string detail) const;

private:
    Dialogs *dialogs;
};

} // namespace korvane
