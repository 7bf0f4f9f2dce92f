#pragma once

#include "Vorrel/Platform/Linux/DesktopEntries.h"

#include <optional>
#include <string>

namespace korvane {

/// Path of the desktop entry that opens the keyboard settings: the running desktop's own, else any other that is installed and
/// runs here. Nothing where there is none. Looks at the disk.
std::optional<std::string> keyboardSettingsEntry(const DesktopEnvironment &environment);

} // namespace korvane
