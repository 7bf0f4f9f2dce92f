#pragma once

#include "Support/Task.h"

#include <functional>
#include <string>

namespace korvane {

class AppServices;

/// The tools that a model may call. Holds the way to ask the user before one runs. Main thread only.
class ToolRegistry {
public:
    /// Asks for approval; throws when it is refused.
    using Approve = std::function<Task<void>(std::string title, std::string detail)>;
    explicit ToolRegistry(Approve approve) : approve(std::move(approve)) { }

    bool confirmWrites = true; ///< Ask before tools that write.

private:
    Approve approve;
};

/// The program's own tools.
class NativeTools {
public:
    /// Adds them to the registry. Throws `AppError` for a tool that cannot be added.
    static void registerTools(ToolRegistry &registry, AppServices &services);
};

} // namespace korvane
