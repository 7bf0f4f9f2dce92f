#include "Vorrel/Platform/Linux/LinuxPasteboardWatching.h"

#include "Support/ChildProcess.h"
#include "Vorrel/Shell/L10n.h"

namespace korvane {

bool sharesCopiesWithX11(const std::vector<std::string> &variables)
{
    return environmentValue(variables, "XDG_CURRENT_DESKTOP").find("GNOME") != std::string_view::npos;
}

LinuxPasteboardWatching::LinuxPasteboardWatching(
    Executor mainThread, Executor pool, Clock &clock, std::vector<std::string> variables, const DesktopEntries &entries) :
    classes(pool, clock, entries)
{
    const bool isWayland = !environmentValue(variables, "WAYLAND_DISPLAY").empty();
    const std::string display(environmentValue(variables, "DISPLAY"));
    if (!display.empty() || !isWayland) {
        auto identify = [this](std::vector<std::string> names) { return classes.identify(std::move(names)); };
        x11 = std::make_unique<X11PasteboardWatching>(mainThread, pool, clock, display, std::move(identify));
    }
    if (!isWayland || (x11 && sharesCopiesWithX11(variables))) {
        followX11();
        return;
    }
    wayland = std::make_unique<WaylandPasteboardWatching>(mainThread, pool, clock, std::move(variables));
    ofWayland = wayland->obstacle.observe([this] { waylandEnded(); });
}

void LinuxPasteboardWatching::followX11()
{
    usesX11 = true;
    changesOfX11 = x11->changeCount();
    obstacle = x11->obstacle.get();
    ofX11 = x11->obstacle.observe([this] { obstacle = x11->obstacle.get(); });
}

void LinuxPasteboardWatching::waylandEnded()
{
    if (x11)
        followX11();
    if (!x11 || wayland->standing() == WaylandPasteboardWatching::Standing::missing)
        obstacle = wayland->obstacle.get();
    else if (!obstacle.get())
        obstacle = L10n::key("Not every copy is kept: this desktop does not let programs follow the clipboard.");
}

std::int64_t LinuxPasteboardWatching::changeCount() const
{
    return (wayland ? wayland->changeCount() : 0) + (usesX11 ? x11->changeCount() - changesOfX11 : 0);
}

Task<std::vector<std::string>> LinuxPasteboardWatching::types()
{
    if (usesX11)
        co_return co_await x11->types();
    auto types = co_await wayland->types();
    const auto mark = co_await markOfX11();
    if (mark.maybeSecret)
        types.emplace_back(concealedType);
    co_return types;
}

Task<std::optional<std::string>> LinuxPasteboardWatching::string(Form form, std::size_t limit)
{
    if (usesX11)
        co_return co_await x11->string(form, limit);
    const auto before = co_await markOfX11();
    if (before.maybeSecret)
        co_return std::nullopt;
    auto text = co_await wayland->string(form, limit);
    const auto after = co_await markOfX11();
    co_return after == before ? std::move(text) : std::nullopt;
}

Task<bool> LinuxPasteboardWatching::mayHoldText()
{
    if (usesX11)
        co_return co_await x11->mayHoldText();
    const auto mark = co_await markOfX11();
    co_return mark.maybeSecret || co_await wayland->mayHoldText();
}

Task<std::optional<std::string>> LinuxPasteboardWatching::frontmostApplication()
{
    // Under Wayland a native program in front is no window of the X server, and it tells none then.
    if (!x11)
        co_return std::nullopt;
    co_return co_await x11->frontmostApplication();
}

Task<X11PasteboardWatching::Mark> LinuxPasteboardWatching::markOfX11()
{
    if (!x11)
        co_return X11PasteboardWatching::Mark{};
    co_return co_await x11->mark();
}

} // namespace korvane
