#pragma once

#include "Vorrel/Views/QtSettingsWindow.h"
#include "tests/desktop/Scene.h"

#include <QImage>

#include <span>

namespace korvane::test {

/// The program's windows, to be put into a state and drawn. The state's texts are in the language in use when it is made.
class Stage : public Scene {
public:
    /// Shows the settings beside the palette; the picture is theirs then.
    SettingsState &showSettings();
    QtSettingsWindow &settingsWindow() { return *settings; }
    /// What the window shows now, and the menu over it if one is open, on a plain ground.
    QImage picture();

private:
    std::unique_ptr<QtSettingsWindow> settings;
};

/// One state of a window: how it looks is kept as a picture.
struct PictureState {
    const char *name;
    void (*arrange)(Stage &);
};
std::span<const PictureState> pictureStates();

} // namespace korvane::test
