#include "Vorrel/Platform/Linux/LinuxHotkeys.h"

#include "Vorrel/Platform/Linux/PortalHotkeys.h"

namespace korvane {

LinuxHotkeys::LinuxHotkeys(
    Executor mainThread, Executor pool, Clock &clock, const Environment &environment, std::string description)
{
    if (nonEmpty(environment, "WAYLAND_DISPLAY")) {
        chosen = std::make_unique<PortalHotkeys>(
            std::move(mainThread), std::move(pool), linuxBusAddresses(environment).session, std::move(description));
        return;
    }
    auto made = std::make_unique<X11Hotkeys>(std::move(mainThread), clock, nonEmpty(environment, "DISPLAY").value_or(""));
    display = made.get();
    chosen = std::move(made);
}

} // namespace korvane
