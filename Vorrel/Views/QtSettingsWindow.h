#pragma once

#include "Vorrel/Platform/Platform.h"
#include "Vorrel/Platform/SettingsWindow.h"
#include "Vorrel/Shell/SettingsState.h"

#include <memory>

class QWidget;

namespace korvane {

class Appearance;
class HotkeySettingsSection;
class IconStore;
class SettingsView;

/// The settings in an ordinary window that closing only hides. Main thread only.
class QtSettingsWindow : public SettingsWindow {
public:
    /// The size of what the window shows, in the toolkit's units.
    static constexpr int width = 650, height = 540;

    /// All four, and what `platform` refers to, outlive the window.
    QtSettingsWindow(SettingsState &state, const Platform &platform, Appearance &appearance, IconStore &icons);
    ~QtSettingsWindow() override;

    void showCentred() override;

    QWidget *surface() const;
    SettingsView &view() const { return *_view; }
    HotkeySettingsSection &hotkeySection() const;
    /// Shows the present state at once, laid out for painting.
    void refresh();

private:
    std::unique_ptr<SettingsView> _view;
};

} // namespace korvane
