#pragma once

#include "CommandCore/IndexedFile.h"
#include "Support/AsyncStream.h"

#include <string>
#include <vector>

namespace korvane {

/// A source of everything that is below a folder.
class FileScanner {
public:
    virtual ~FileScanner() = default;

    /// What is below `root` (a leading tilde is the home folder), but not the root itself nor anything that
    /// `isSkipped` by a prefix, in batches and in no order. The stream ends with an `AppError` when the root could not be
    /// walked to its end, with `Cancelled` after a cancellation. Finishing the stream ends the walk. Main thread.
    virtual AsyncStream<std::vector<IndexedFile>> scan(std::string root, std::vector<std::string> skipPrefixes) = 0;
};

/// Whether `path` is one of `prefixes` or lies below one.
bool isSkipped(const std::string &path, const std::vector<std::string> &prefixes);

} // namespace korvane
