#include "Vorrel/Platform/Linux/LinuxPasteboardWatching.h"

#include "Support/ChildProcess.h"

namespace korvane {

namespace {

/// Desktops that hand every copy on to their X server, and let nobody follow the clipboard otherwise.
bool sharesWithX11(const std::vector<std::string> &variables)
{
    return environmentValue(variables, "XDG_CURRENT_DESKTOP").find("GNOME") != std::string_view::npos;
}

} // namespace

LinuxPasteboardWatching::LinuxPasteboardWatching(
    Executor mainThread, Executor pool, Clock &clock, std::vector<std::string> variables, const DesktopEntries &entries) :
    mainThread(std::move(mainThread)),
    pool(std::move(pool)), clock(clock), display(environmentValue(variables, "DISPLAY")), classes(this->pool, clock, entries)
{
    const bool isWayland = !environmentValue(variables, "WAYLAND_DISPLAY").empty();
    if (!isWayland || (sharesWithX11(variables) && !display.empty())) {
        followX11();
        return;
    }
    wayland = std::make_unique<WaylandPasteboardWatching>(this->mainThread, this->pool, clock, std::move(variables));
    ofWayland = wayland->obstacle.observe([this] { waylandEnded(); });
}

void LinuxPasteboardWatching::followX11()
{
    auto identify = [this](std::vector<std::string> names) { return classes.identify(std::move(names)); };
    x11 = std::make_unique<X11PasteboardWatching>(mainThread, pool, clock, display, std::move(identify));
    ofX11 = x11->obstacle.observe([this] { obstacle = x11->obstacle.get(); });
}

void LinuxPasteboardWatching::waylandEnded()
{
    const bool remains = !display.empty();
    if (remains)
        followX11();
    if (!remains || wayland->standing() == WaylandPasteboardWatching::Standing::missing)
        obstacle = wayland->obstacle.get();
}

std::int64_t LinuxPasteboardWatching::changeCount() const
{
    return (wayland ? wayland->changeCount() : 0) + (x11 ? x11->changeCount() : 0);
}

} // namespace korvane
