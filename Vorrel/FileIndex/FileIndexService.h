#pragma once

#include "Support/Task.h"

#include <optional>
#include <string>
#include <vector>

namespace korvane {

/// One file or folder that the index knows.
struct IndexedFile {
    std::string path; ///< Absolute; bytes.
    std::string name; ///< Last component of the path.
    bool isDirectory = false;
    long long size = 0; ///< Bytes.
    double modified = 0; ///< Seconds since 1970; 0 when unknown.
    bool operator==(const IndexedFile &) const = default;
};

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
