#pragma once

#include "Support/Task.h"

#include <string>
#include <vector>

namespace korvane {

/// An application that can open a file.
struct ApplicationHandler {
    std::string name;
    std::string path;
    bool operator==(const ApplicationHandler &) const = default;
};

/// Hands files to other programs. Main thread; nothing blocks it. Paths are absolute.
class Workspace {
public:
    virtual ~Workspace() = default;

    /// Opens a file, a folder or an address (anything with a scheme) with its default application.
    /// False when nothing could.
    virtual Task<bool> open(std::string pathOrURL) = 0;
    /// Opens `path` with the application at `application`. Throws anything when that failed.
    virtual Task<void> openWith(std::string path, std::string application) = 0;
    /// Selects `path` in a window of the file manager.
    virtual Task<void> reveal(std::string path) = 0;
    /// The applications that can open `path`, the preferred ones first.
    virtual Task<std::vector<ApplicationHandler>> handlers(std::string path) = 0;
};

} // namespace korvane
