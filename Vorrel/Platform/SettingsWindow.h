#pragma once

namespace korvane {

/// The settings window, made once and then shown and hidden. Main thread only.
class SettingsWindow {
public:
    virtual ~SettingsWindow() = default;
    /// Puts it in the middle of the screen, before all others, with the keyboard. It does not remember where it was.
    virtual void showCentred() = 0;
};

} // namespace korvane
