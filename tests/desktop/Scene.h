#pragma once

#include "Vorrel/Palette/PaletteController.h"
#include "Vorrel/Views/Appearance.h"
#include "Vorrel/Views/IconStore.h"
#include "Vorrel/Views/PaletteView.h"
#include "Vorrel/Views/QtPaletteWindow.h"
#include "tests/support/TestPalette.h"

#include <QTemporaryDir>

namespace korvane::test {

/// The palette in its real window, over a system in memory. Everything runs on the test's own loop.
class Scene : public TestPalette {
public:
    Scene();
    ~Scene();

    PaletteState &palette() { return controller->state(); }
    QtPaletteWindow &shownWindow() { return *window; }
    PaletteView &view() { return window->view(); }
    PaletteSearchField &field() { return view().field(); }

    /// Shows the palette and waits until the window has the keyboard.
    void show();
    /// Runs what is ready on both loops, until neither has work.
    void turn();
    /// Turns until `done`, at most five seconds of real time, with which the manual clock goes on. False when the time was not
    /// enough.
    bool waitFor(const std::function<bool()> &done);

    /// Adds a command to the palette's registry that remembers its runs in `ran`.
    void add(CommandResultFields fields);
    /// Writes a desktop entry with this icon and gives its path.
    std::string desktopEntry(const std::string &name, const std::string &icon);
    /// A row of an application with a desktop entry of its own.
    Row application(const std::string &name, const std::string &icon, const std::string &subtitle);

    QTemporaryDir folder;
    Appearance appearance;
    std::shared_ptr<IconStore> icons = std::make_shared<IconStore>(loop.executor(), loop.executor());
    QtPaletteWindow *window = nullptr; // the controller's
    std::unique_ptr<PaletteController> controller;
};

} // namespace korvane::test
