#pragma once

#include <QImage>
#include <QPoint>
#include <QRect>

#include <cstdint>
#include <initializer_list>
#include <xcb/xcb.h>

namespace korvane::test {

/// Someone in front of the private X server: moves the mouse, presses buttons and keys, and sees the screen. All of
/// it through a connection of its own, as another device and another pair of eyes.
class Person {
public:
    Person();
    ~Person();
    Person(const Person &) = delete;

    void moveMouse(const QPoint &place) const;
    void press(const QPoint &place, std::uint8_t button = left) const; ///< And releases.
    /// Presses a key, by its place on the keyboard, while others are held. Codes are those of Linux input events.
    void key(std::uint8_t code, std::initializer_list<std::uint8_t> held = {}) const;
    QRgb colourAt(const QPoint &place) const;
    /// Paints the desktop behind all windows.
    void paintDesktop(QRgb colour) const;
    /// Where the server says a window's upper left corner is.
    QPoint placeOf(xcb_window_t window) const;
    xcb_window_t keyboardOwner() const;

    static constexpr std::uint8_t left = 1, right = 3;
    static constexpr std::uint8_t control = 29, shift = 42, menu = 127; // codes of keys

private:
    void fake(std::uint8_t type, std::uint8_t detail, const QPoint &place = {}) const;
    void finish() const; ///< Until the server has done it all.

    xcb_connection_t *x;
    xcb_window_t root;
};

/// A window of another program, which takes the keyboard when it appears.
class ForeignWindow {
public:
    explicit ForeignWindow(const QRect &place);
    ~ForeignWindow();
    ForeignWindow(const ForeignWindow &) = delete;

    bool hasKeyboard() const;
    void takeKeyboard() const; ///< As when its program is asked to come to the front.
    /// Presses of mouse buttons that have reached it.
    int presses();

private:
    xcb_connection_t *x;
    xcb_window_t window;
    int counted = 0;
};

} // namespace korvane::test
