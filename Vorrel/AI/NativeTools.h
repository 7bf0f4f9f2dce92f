#pragma once

namespace korvane {

class AppServices;
class ToolRegistry;

/// The program's own tools.
class NativeTools {
public:
    /// Adds them to the registry, which `services` outlive. Throws `configuration` for a name that is taken; the tools before
    /// it stay.
    static void registerTools(ToolRegistry &registry, AppServices &services);
};

} // namespace korvane
