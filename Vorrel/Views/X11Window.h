#pragma once

#include <QAbstractNativeEventFilter>
#include <QPoint>
#include <QRect>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

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

/// What lets a program that is started now bring its first window to the front: an identifier by the Startup Notification
/// protocol, whose time window managers that guard the focus compare. Empty where there is no X server.
std::string launchToken();

/// Asks the window manager to give the mapped window the keyboard, as the answer to what the user did at `time`. False
/// where there is no X server.
bool activate(const QWidget &window, std::uint32_t time);
/// Tells when the user asked for the window; before it is mapped.
void setUserTime(const QWidget &window, std::uint32_t time);

/// Shows an ordinary window in front of all others and gives it the keyboard, as the answer to what the user did just now.
void showInFront(QWidget &window);

/// Who has the keyboard by the server's own word: reports of the toolkit may be older than what has happened since.
enum class Keyboard {
    Ours, ///< The given window.
    Nobody, ///< No program's window, such as while a window manager looks for the next one.
    Other
};
Keyboard keyboardOf(const QWidget &window);

/// What a key of this code says without Shift in the layout that was active at `modifiers`, as the server reported them.
std::optional<std::uint32_t> plainKeysym(std::uint32_t keyCode, std::uint32_t modifiers);

/// Lets the mouse through outside `part`, and tells window managers and compositors that what lies outside is
/// the window's own shadow. `part` in units of the window; empty takes both back.
void setSolidPart(const QWidget &window, const QRect &part);

/// Calls `gained` soon after the server has given the keyboard to a window, for as long as it lives.
class FocusWatch : public QAbstractNativeEventFilter {
public:
    FocusWatch(QWidget &window, std::function<void()> gained);
    ~FocusWatch() override;
    bool nativeEventFilter(const QByteArray &type, void *message, qintptr *result) override;

private:
    QWidget &window;
    std::function<void()> gained;
};

/// A connection to the server beside the toolkit's, which takes all events of its own.
class OwnConnection;

/// Tells when another client takes a selection that stands for a service, such as the tray's.
class SelectionWatch {
public:
    SelectionWatch(const char *selection, std::function<void()> taken);
    ~SelectionWatch();
    bool hasOwner() const;

private:
    std::unique_ptr<OwnConnection> connection;
    std::uint32_t name = 0;
};

/// Tells of presses of the left and the right mouse button anywhere on the desktop, also where no window hears of
/// them, and takes them from nobody. Nothing is asked of the server while it is off.
class PressWatch {
public:
    /// `pressed` gets the server's time of the press, which is also that of the toolkit's event, and whether a
    /// window of this program is under the mouse.
    explicit PressWatch(std::function<void(std::uint32_t time, bool ours)> pressed);
    ~PressWatch();
    void set(bool on);

private:
    std::function<void(std::uint32_t, bool)> pressed;
    std::unique_ptr<OwnConnection> connection;
    std::optional<std::uint8_t> extension; // its number in this server
    bool watching = false;
};

} // namespace korvane::x11
