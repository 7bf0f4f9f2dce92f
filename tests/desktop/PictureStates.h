#pragma once

#include "Vorrel/Views/QtDialogs.h"
#include "Vorrel/Views/QtSettingsWindow.h"
#include "Vorrel/Views/QuickLookWindow.h"
#include "tests/desktop/Scene.h"

#include <QImage>

#include <span>

namespace korvane::test {

/// The program's windows, to be put into a state and drawn. The state's texts are in the language in use when it is made.
class Stage : public Scene {
public:
    ~Stage();
    /// Shows the settings beside the palette; the picture is theirs then.
    SettingsState &showSettings();
    QtSettingsWindow &settingsWindow() { return *settings; }
    /// Shows the preview of a file over the palette; the picture is the preview's then. `sample` writes the file to the path
    /// that it is given, always the same for the same name.
    void showPreview(const QString &name, const std::function<void(const QString &path)> &sample);
    /// The same while the file is still being decoded.
    void showLoadingPreview(const QString &name);
    /// Asks in a dialog over the palette; the picture is the dialog's then.
    void showQuestion(std::string title, std::string detail);
    /// What the window shows now, and the menu over it if one is open, on a plain ground.
    QImage picture();

private:
    QtPreviewWindow &makePreview(const std::string &decoder);
    QWidget &shownWidget() const;

    std::unique_ptr<QtSettingsWindow> settings;
    std::unique_ptr<QtPreviewWindow> preview;
    std::unique_ptr<QtDialogs> alerts;
    TaskHandle question;
};

/// One state of a window: how it looks is kept as a picture.
struct PictureState {
    const char *name;
    void (*arrange)(Stage &);
};
std::span<const PictureState> pictureStates();

} // namespace korvane::test
