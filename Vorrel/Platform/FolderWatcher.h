#pragma once

#include "Support/AsyncStream.h"

#include <memory>
#include <string>
#include <vector>

namespace korvane {

/// Tells that something came, went or changed in folders, and not what. Main thread only.
class FolderWatcher {
public:
    virtual ~FolderWatcher() = default;

    /// Watches `folders` and all folders below them; those that do not exist yet are noticed when they
    /// come. The returned stream yields a value for every burst of changes; dropping or finishing it
    /// ends the watch. Where nothing can be watched it never yields.
    virtual AsyncStream<bool> watch(std::vector<std::string> folders) = 0;
};

} // namespace korvane
