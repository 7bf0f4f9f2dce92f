#pragma once

#include "CommandCore/Commands.h"

namespace korvane {

/// The history of copied texts. This base keeps none; main thread only.
class ClipboardService {
public:
    virtual ~ClipboardService() = default;
    virtual void start() { }
    /// Rows of the entries that match. Throws `AppError` and `Cancelled`.
    virtual Task<Rows> search(std::string query)
    {
        (void)query;
        co_return Rows();
    }
    /// Ends the watcher.
    virtual void stop() { }

    bool enabled = true; ///< Whether what is copied is kept.
    int maximumItems = 500; ///< How many entries are kept.
};

} // namespace korvane
