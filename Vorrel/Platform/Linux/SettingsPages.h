#pragma once

#include "Vorrel/Platform/Linux/DesktopEntries.h"
#include "Vorrel/Platform/SystemControl.h"

#include <optional>
#include <string>

namespace korvane {

/// Path of the desktop entry that opens this page of the settings: the running desktop's own, else any other that is installed
/// and runs here. Nothing where there is none. Looks at the disk.
std::optional<std::string> settingsEntry(SettingsPage page, const DesktopEnvironment &environment);

} // namespace korvane
