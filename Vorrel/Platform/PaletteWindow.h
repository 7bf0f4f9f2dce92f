#pragma once

#include "Support/Clock.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace korvane {

/// A rectangle in the screen's own units, y growing downwards.
struct ScreenRect {
    int x = 0, y = 0, width = 0, height = 0;
    bool contains(int px, int py) const { return px >= x && px < x + width && py >= y && py < y + height; }
    bool operator==(const ScreenRect &) const = default;
};

/// The floating window as its controller needs it. Main thread only.
class PaletteWindow {
public:
    virtual ~PaletteWindow() = default;

    struct Screen {
        ScreenRect frame; ///< The whole screen.
        ScreenRect visible; ///< Less panels and docks.
    };
    virtual std::vector<Screen> screens() const = 0;
    virtual std::optional<Screen> mainScreen() const = 0;
    struct Point {
        int x = 0, y = 0;
    };
    virtual Point mouse() const = 0;
    virtual ScreenRect frame() const = 0;
    virtual void moveTo(int x, int y) = 0;

    virtual bool visible() const = 0;
    virtual void setOpacity(double opacity) = 0;
    /// Shows the window above others and takes the keyboard.
    virtual void bringToFront() = 0;
    virtual void orderOut() = 0;
    /// Fades to `opacity` and then calls `completed`, on the main thread and never inside this call.
    virtual void animateOpacity(double opacity, Milliseconds duration, std::function<void()> completed) = 0;
    virtual bool reducedMotion() const = 0;

    /// Whether a dialog stands over the window.
    virtual bool hasSheet() const = 0;
    virtual void bringSheetToFront() = 0;
    virtual bool hasKeyboard() const = 0;
    virtual void focusInput() = 0;

    /// Calls `lost` when the window loses the keyboard to something else.
    virtual void onKeyboardLost(std::function<void()> lost) = 0;
};

} // namespace korvane
