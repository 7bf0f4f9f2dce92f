#pragma once

#include "CommandCore/IndexedFile.h"
#include "Support/Task.h"

#include <optional>
#include <string>
#include <vector>

namespace korvane {

/// Finds files by name. This base knows no files; a host gives `AppServices` another. Main thread only.
class FileIndexService {
public:
    virtual ~FileIndexService() = default;
    virtual Task<void> start() { co_return; }
    /// Files that match the query language's text, best first. Throws `AppError` and `Cancelled`.
    virtual Task<std::vector<IndexedFile>> search(std::string query, std::optional<std::string> directory)
    {
        (void)query, (void)directory;
        co_return std::vector<IndexedFile>();
    }
    /// Returns at once.
    virtual void rebuild() { }
    /// Ends every task. Call once.
    virtual Task<void> stop() { co_return; }
};

} // namespace korvane
