#pragma once

#include "Vorrel/Palette/PaletteController.h"
#include "Vorrel/Platform/PaletteWindow.h"
#include "Vorrel/Platform/Platform.h"

#include <QPoint>

class QDialog;
class QWidget;

namespace korvane {

class Appearance;
class IconStore;
class PaletteView;

/// The palette's window: without a frame, rounded, above others, with a soft shadow of its own where the desktop
/// composes windows. Reports keys and the mouse to its controller before any view sees them. Main thread only.
class QtPaletteWindow : public PaletteWindow {
public:
    /// The size of the palette itself, in the toolkit's units; a shadow comes on top.
    static constexpr int width = 700, height = 510;

    /// `controller`, what `platform` refers to, `appearance` and `icons` outlive the window. Until `controller` is
    /// complete the window only keeps it.
    QtPaletteWindow(PaletteController &controller, const Platform &platform, Appearance &appearance, IconStore &icons);
    ~QtPaletteWindow() override;

    std::vector<Screen> screens() const override;
    std::optional<Screen> mainScreen() const override;
    Point mouse() const override;
    ScreenRect frame() const override;
    void moveTo(int x, int y) override;

    bool visible() const override;
    void setOpacity(double opacity) override;
    void bringToFront() override;
    void orderOut() override;
    void animateOpacity(double opacity, Milliseconds duration, std::function<void()> completed) override;
    bool reducedMotion() const override;

    bool hasSheet() const override;
    void bringSheetToFront() override;
    bool hasKeyboard() const override;
    void focusInput() override;

    void onKeyboardLost(std::function<void()> lost) override;

    /// The window that dialogs stand over.
    QWidget *surface() const;
    PaletteView &view() const;

    /// Asked by `bringToFront` for the server's time of the key that it answers; 0 when it answers none.
    std::function<std::uint32_t()> userTime = [] { return 0; };
    /// Told when the window really has the keyboard, and when it will not get it any more.
    std::function<void()> keyboardSettled = [] {};
    /// Told at each refresh of the view while a row of a file is selected.
    std::function<void()> fileSelected = [] {};

private:
    class Surface;
    class Fade;

    QDialog *sheet() const;
    void takeShape();
    void deactivated();
    void noteKeyboard();
    bool isFresh() const;
    /// Whether the keyboard is lost for good, not on its way back.
    bool keyboardIsLost() const;
    bool overtakenByOwnWindow() const;
    /// Looks again until it is clear where the keyboard went: the toolkit reports a loss only once.
    static Task<void> followKeyboard(Clock &clock, QtPaletteWindow *window);
    /// Some window managers report a wrong place right after a window appears, and a later move would then go wrong.
    static Task<void> settle(Clock &clock, QtPaletteWindow *window);

    /// What the window's outline depends on.
    struct Shape {
        bool composed;
        double ratio; ///< Pixels of a unit.
        bool operator==(const Shape &) const = default;
    };

    Executor mainThread;
    Clock &clock;
    Appearance &appearance;
    std::unique_ptr<Surface> _surface;
    std::unique_ptr<Fade> fade;
    std::optional<Shape> shape; // as it has it now
    QPoint wanted; // the palette's upper left corner
    bool hadKeyboard = false; // since it was shown
    double shownAt = 0; // by the clock that never jumps
    std::function<void()> keyboardLost = [] {};
    TaskHandle settling, following;
};

} // namespace korvane
