#pragma once

#include "Vorrel/Platform/Linux/LinuxEnvironment.h"
#include "Vorrel/Platform/Linux/X11Hotkeys.h"

namespace korvane {

/// Global shortcuts of a Linux desktop: the portal's under Wayland, where the X server grants a key and does not see it
/// pressed; otherwise those of the X display. Main thread only.
class LinuxHotkeys final : public HotkeyRegistering {
public:
    /// `description` tells the user of a Wayland desktop what the shortcut does. `clock` outlives this object.
    LinuxHotkeys(Executor mainThread, Executor pool, Clock &clock, const Environment &environment, std::string description);

    bool install(Handlers handlers) override { return chosen->install(std::move(handlers)); }
    void remove() override { chosen->remove(); }
    HotkeyLease reserve(const HotkeyConfiguration &configuration) override { return chosen->reserve(configuration); }
    bool decidesAtOnce() const override { return chosen->decidesAtOnce(); }

    /// As those of `X11Hotkeys`; the portal holds no keys back.
    std::uint32_t claimKeys() { return display ? display->claimKeys() : 0; }
    void letKeysThrough()
    {
        if (display)
            display->letKeysThrough();
    }

private:
    std::unique_ptr<HotkeyRegistering> chosen;
    X11Hotkeys *display = nullptr; // what was chosen, where it is that
};

} // namespace korvane
