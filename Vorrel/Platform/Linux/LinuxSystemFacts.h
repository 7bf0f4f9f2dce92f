#pragma once

#include "Vorrel/Platform/Linux/LinuxEnvironment.h"
#include "Vorrel/Platform/SystemFacts.h"

namespace korvane {

/// The distribution's name from `releaseFile` (freedesktop.org's os-release) with the kernel's release, the processor as the
/// kernel names it, and the user's first language. Looks at the disk; any thread.
SystemFacts linuxSystemFacts(const Environment &environment, const std::string &releaseFile = "/etc/os-release");

} // namespace korvane
