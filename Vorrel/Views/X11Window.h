#pragma once

#include <QMargins>
#include <QPoint>
#include <QRect>

#include <cstdint>
#include <optional>

class QWidget;

/// What the toolkit does not tell or does about a window under X11. Everything is harmless on other platforms.
/// Main thread only; every question is one short round trip to the server.
namespace korvane::x11 {

/// Whether transparent parts of windows are drawn as such now.
bool compositorRuns();

/// Where the server says that the window's upper left corner is, in the toolkit's coordinates.
std::optional<QPoint> positionOf(const QWidget &window);

/// The server's present time, for requests that window managers judge by their age. 0 when there is none.
std::uint32_t serverTime();

/// Asks the window manager to give the mapped window the keyboard, as the answer to what the user did at `time`.
void activate(const QWidget &window, std::uint32_t time);
/// Tells when the user asked for the window; before it is mapped.
void setUserTime(const QWidget &window, std::uint32_t time);

/// Lets the mouse through outside `part`, and tells window managers and compositors that what lies outside is
/// the window's own shadow. `part` in units of the window; empty takes both back.
void setSolidPart(const QWidget &window, const QRect &part);

} // namespace korvane::x11
