#pragma once

#include "Vorrel/Palette/PaletteState.h"
#include "Vorrel/Platform/KeyPress.h"
#include "Vorrel/Platform/PaletteWindow.h"

namespace korvane {

/// Owns the palette's state and decides when its window shows and hides. Main thread only.
class PaletteController {
public:
    /// Makes the window for a state that lives as long as the controller.
    using MakeWindow = std::function<std::unique_ptr<PaletteWindow>(PaletteController &)>;

    /// Starts `PaletteState::start` in a task of its own. `services` outlives the controller.
    PaletteController(AppServices &services, const MakeWindow &makeWindow);
    ~PaletteController();

    void toggle(); ///< Shows if hidden, hides if shown; under a dialog it only brings that forward.
    /// `toggle` for a click on something beside the palette, such as the status item. Where the press of that very click
    /// has just hidden the palette, it stays hidden.
    void toggleByClick();
    void hide();
    void stop(); ///< Removes the window for good, at application end.

    /// Handles a key that the window sees before its field does. True when it is consumed.
    bool handleKey(const KeyPress &key);
    /// The user pressed a mouse button at this place; `inside` when it was in one of the palette's own windows.
    void mousePressed(int x, int y, bool inside);
    /// Screens came, went or changed. A shown palette that no screen shows any more moves to one that exists.
    void screensChanged();

    bool presented() const { return _presented; }
    PaletteState &state() { return *_state; }
    ActionCoordinator &coordinator() { return actionCoordinator; }

private:
    bool handleCommand(const KeyPress &key);
    void placeWindow();
    bool mayHide() const;
    static Task<void> focusSoon(std::weak_ptr<PaletteController> weak);
    static Task<void> refreshApplications(std::shared_ptr<PaletteState> state);

    AppServices &services;
    ActionCoordinator actionCoordinator;
    std::shared_ptr<PaletteState> _state;
    std::unique_ptr<PaletteWindow> window;
    bool _presented = false;
    int presentationGeneration = 0;
    std::optional<double> hiddenByPress; ///< When, by the clock that never jumps.
    TaskHandle startTask;
    // Owns nothing; what waits holds it weakly. The state would not do: a task may keep that beyond the controller.
    std::shared_ptr<PaletteController> itself{this, [](PaletteController *) {}};
};

} // namespace korvane
