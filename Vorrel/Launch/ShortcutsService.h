#pragma once

#include "CommandCore/CommandRegistry.h"

#include <functional>

namespace korvane {

/// The user's own shortcuts. This base has none; main thread only.
class ShortcutsService {
public:
    virtual ~ShortcutsService() = default;
    virtual void start() { }
    virtual void stop() { }
    /// Looks for shortcuts anew; without `force` only when the list is old.
    virtual void refresh(bool force) { (void)force; }
    virtual CommandRegistry::Commands commands() const { return {}; }
    /// Ends the run in flight, if there is one.
    virtual void cancelRun() { }

    std::function<void()> onUpdate = [] {}; ///< Called after a good refresh.
};

} // namespace korvane
