#pragma once

#include "CommandCore/CommandRegistry.h"
#include "Support/Observed.h"

#include <functional>
#include <optional>
#include <string>

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

    Observed<std::string> statusText; ///< One line for the user, localised.
    Observed<std::optional<double>> startedAt; ///< Seconds since 1970 at the start of the run in flight; nothing without one.
};

} // namespace korvane
