#pragma once

#include "Vorrel/Platform/Linux/LinuxEnvironment.h"
#include "Vorrel/Platform/Linux/WaylandPasteboardWatching.h"
#include "Vorrel/Platform/Linux/WindowClasses.h"
#include "Vorrel/Platform/Linux/X11PasteboardWatching.h"

namespace korvane {

/// The clipboard of a Linux desktop. Under X11 that of the display. Under Wayland an X server sees copies of other programs
/// only where the desktop hands all of them on, as that of GNOME does; elsewhere "wl-paste" follows, and the X server is
/// what remains where it cannot. Main thread only.
class LinuxPasteboardWatching final : public PasteboardWatching {
public:
    /// `variables` are the process's own, as "NAME=value". `clock` and `entries` outlive this object.
    LinuxPasteboardWatching(
        Executor mainThread, Executor pool, Clock &clock, std::vector<std::string> variables, const DesktopEntries &entries);

    std::int64_t changeCount() const override;
    Task<std::vector<std::string>> types() override { return asked().types(); }
    Task<std::optional<std::string>> string(Form form, std::size_t limit) override { return asked().string(form, limit); }
    Task<std::optional<std::string>> frontmostApplication() override { return asked().frontmostApplication(); }

private:
    PasteboardWatching &asked() const { return x11 ? static_cast<PasteboardWatching &>(*x11) : *wayland; }
    void followX11();
    void waylandEnded();

    const Executor mainThread, pool;
    Clock &clock;
    const std::string display;
    WindowClasses classes;
    std::unique_ptr<WaylandPasteboardWatching> wayland; ///< Kept where X11 has taken over: a question may be under way.
    std::unique_ptr<X11PasteboardWatching> x11;
    Subscription ofWayland, ofX11;
};

} // namespace korvane
