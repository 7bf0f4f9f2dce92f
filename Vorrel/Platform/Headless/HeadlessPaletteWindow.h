#pragma once

#include "Vorrel/Platform/PaletteWindow.h"
#include "Vorrel/Platform/SettingsWindow.h"

#include <string>

namespace korvane {

/// A window without a screen: what the controller does to it is kept, fades end when the test says so.
/// Main thread only.
class HeadlessPaletteWindow final : public PaletteWindow {
public:
    std::vector<Screen> screens() const override { return allScreens; }
    std::optional<Screen> mainScreen() const override
    {
        return allScreens.empty() ? std::nullopt : std::optional(allScreens.front());
    }
    Point mouse() const override { return mouseAt; }
    ScreenRect frame() const override { return at; }
    void moveTo(int x, int y) override
    {
        at.x = x, at.y = y;
        log.push_back("move");
    }
    bool visible() const override { return isVisible; }
    void setOpacity(double value) override
    {
        opacity = value;
        log.push_back(value == 0 ? "transparent" : "opaque");
    }
    void bringToFront() override
    {
        isVisible = keyboard = true;
        log.push_back("front");
    }
    void orderOut() override
    {
        isVisible = keyboard = false;
        log.push_back("out");
    }
    void animateOpacity(double target, Milliseconds duration, std::function<void()> completed) override
    {
        opacity = target;
        log.push_back(target == 0 ? "fade out" : "fade in");
        fades.push_back({target, duration, std::move(completed)});
    }
    bool reducedMotion() const override { return reduced; }
    bool hasSheet() const override { return sheet; }
    void bringSheetToFront() override { ++sheetRaised; }
    bool hasKeyboard() const override { return keyboard; }
    void focusInput() override
    {
        ++focused;
        log.push_back("focus");
    }
    void onKeyboardLost(std::function<void()> lost) override { keyboardLost = std::move(lost); }

    struct Fade {
        double target;
        Milliseconds duration;
        std::function<void()> completed;
    };
    /// Ends the oldest fade that has not ended.
    void endFade()
    {
        if (fades.size() > ended)
            fades[ended++].completed();
    }
    void loseKeyboard()
    {
        keyboard = false;
        if (keyboardLost)
            keyboardLost();
    }

    std::vector<Screen> allScreens{{{0, 0, 1920, 1080}, {0, 0, 1920, 1080}}};
    Point mouseAt{10, 10};
    ScreenRect at{0, 0, 700, 510};
    std::vector<Fade> fades; ///< All, the oldest first.
    double opacity = 1;
    bool isVisible = false, keyboard = false, reduced = false, sheet = false;
    int focused = 0, sheetRaised = 0;
    std::vector<std::string> log; ///< What was done to the window, in order.

private:
    std::size_t ended = 0;
    std::function<void()> keyboardLost;
};

/// Counts how often it was shown.
class HeadlessSettingsWindow final : public SettingsWindow {
public:
    void showCentred() override { ++shown; }
    int shown = 0;
};

} // namespace korvane
