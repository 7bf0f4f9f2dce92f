#pragma once

#include "Vorrel/Platform/HotkeyRegistering.h"

#include <algorithm>
#include <vector>

namespace korvane {

/// Global shortcuts in memory: other programs hold what its owner says, and keys are pressed by hand. Outlives its leases.
/// Main thread only.
class HeadlessHotkeys final : public HotkeyRegistering {
public:
    bool install(Handlers given) override
    {
        if (unavailable)
            return false;
        handlers = std::move(given);
        return true;
    }
    void remove() override
    {
        handlers = {};
        log.push_back("remove");
    }
    HotkeyLease reserve(const HotkeyConfiguration &configuration) override
    {
        log.push_back("reserve " + configuration.displayName());
        const auto same = [&](const HotkeyConfiguration &one) { return one.sameKeys(configuration); };
        if (std::ranges::any_of(taken, same) || std::ranges::any_of(held, same))
            throw HotkeyRegistrationError(HotkeyRegistrationError::Reason::rejected, existsStatus);
        held.push_back(configuration);
        return HotkeyLease([this, configuration] {
            log.push_back("release " + configuration.displayName());
            std::erase_if(held, [&](const HotkeyConfiguration &one) { return one.sameKeys(configuration); });
        });
    }
    bool decidesAtOnce() const override { return !asksUser; }

    /// The user presses a combination. True when it was registered.
    bool press(const HotkeyConfiguration &configuration)
    {
        const bool known = std::ranges::any_of(held, [&](const HotkeyConfiguration &one) { return one.sameKeys(configuration); });
        if (known && handlers.pressed)
            handlers.pressed();
        return known && handlers.pressed;
    }

    static constexpr std::int32_t existsStatus = -9878;

    bool unavailable = false; ///< Set before `install`.
    bool asksUser = false; ///< Decides only after `reserve`.
    std::vector<HotkeyConfiguration> taken; ///< By other programs.
    std::vector<HotkeyConfiguration> held; ///< By this one.
    std::vector<std::string> log; ///< "reserve ⌥Space", "release ⌥Space", "remove", in their order.
    Handlers handlers;
};

} // namespace korvane
