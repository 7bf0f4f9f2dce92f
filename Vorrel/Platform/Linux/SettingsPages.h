#pragma once

#include "Vorrel/Platform/Linux/DesktopEntries.h"
#include "Vorrel/Platform/SystemControl.h"

#include <optional>
#include <string>

namespace korvane {

/// Path of the desktop entry that opens this page of the running desktop's settings. Nothing where it has none: what the settings
/// of another desktop say need not hold here, installed or not. Looks at the disk.
std::optional<std::string> settingsEntry(SettingsPage page, const DesktopEnvironment &environment);

} // namespace korvane
