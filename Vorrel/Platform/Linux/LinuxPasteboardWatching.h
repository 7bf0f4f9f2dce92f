#pragma once

#include "Vorrel/Platform/Linux/LinuxEnvironment.h"
#include "Vorrel/Platform/Linux/WaylandPasteboardWatching.h"
#include "Vorrel/Platform/Linux/WindowClasses.h"
#include "Vorrel/Platform/Linux/X11PasteboardWatching.h"

namespace korvane {

/// Whether this desktop hands every copy on to its X server, and takes those from there, all the time. `variables` are the
/// process's own, as "NAME=value". Any thread.
bool sharesCopiesWithX11(const std::vector<std::string> &variables);

/// The clipboard of a Linux desktop. Under X11 that of the display.
///
/// Under Wayland an X server sees copies of other programs only where the desktop hands all of them on, as that of GNOME does;
/// elsewhere "wl-paste" follows, and the X server is what remains where it cannot. A desktop may hand on what an X program
/// copies without the mark of a secret. So while such a program marks what it has, nothing is read; a program
/// of each kind that does not answer costs both limits of time. Main thread only.
class LinuxPasteboardWatching final : public PasteboardWatching {
public:
    /// `variables` are the process's own, as "NAME=value". `clock` and `entries` outlive this object.
    LinuxPasteboardWatching(
        Executor mainThread, Executor pool, Clock &clock, std::vector<std::string> variables, const DesktopEntries &entries);

    std::int64_t changeCount() const override;
    Task<std::vector<std::string>> types() override;
    Task<std::optional<std::string>> string(Form form, std::size_t limit) override;
    Task<bool> mayHoldText() override;
    Task<std::optional<std::string>> frontmostApplication() override;

private:
    void followX11();
    void waylandEnded();
    Task<X11PasteboardWatching::Mark> markOfX11();

    WindowClasses classes;
    std::unique_ptr<WaylandPasteboardWatching> wayland; ///< Kept where X11 has taken over: a question may be under way.
    std::unique_ptr<X11PasteboardWatching> x11; ///< Null without a display.
    bool usesX11 = false;
    std::int64_t changesOfX11 = 0; ///< When it took over.
    Subscription ofWayland, ofX11;
};

} // namespace korvane
