#pragma once

#include "Vorrel/Platform/HotkeyRegistering.h"

#include "Support/Task.h"

#include <memory>

namespace korvane {

/// Global shortcuts by the portal of a Wayland desktop (`org.freedesktop.portal.GlobalShortcuts`). The desktop asks its user,
/// who may choose other keys or none; so a lease is given at once, and `lost` is told when it comes to nothing. Main thread;
/// nothing blocks it.
class PortalHotkeys final : public HotkeyRegistering {
public:
    /// `bus` is the address of the session bus. Ends, with what waits on `mainThread`, before `pool` does. `description` tells
    /// the user of the desktop what the shortcut does.
    PortalHotkeys(Executor mainThread, Executor pool, std::string bus, std::string description);
    ~PortalHotkeys() override;

    /// False without a session bus. A desktop without the portal is found out soon after, and told as `unavailable`;
    /// the next `reserve` looks for it again.
    bool install(Handlers handlers) override;
    void remove() override;
    HotkeyLease reserve(const HotkeyConfiguration &configuration) override;
    bool decidesAtOnce() const override { return false; }

    /// The combination in the words of the freedesktop.org shortcuts specification, such as "ALT+space".
    static std::string trigger(const HotkeyConfiguration &configuration);

private:
    class Portal;

    const Executor mainThread, pool;
    const std::string bus, description;
    std::shared_ptr<Portal> portal;
};

} // namespace korvane
