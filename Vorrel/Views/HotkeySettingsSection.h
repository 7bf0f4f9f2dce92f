#pragma once

#include "Vorrel/Shell/SettingsState.h"
#include "Vorrel/Views/SettingsParts.h"

namespace korvane {

class HotkeyRecorder;

/// The settings of the global shortcut: what is wrong with it, if anything is, the recorder, and two ready choices.
/// Recording changes the draft alone.
class HotkeySettingsSection : public QWidget {
    Q_OBJECT

public:
    /// All three outlive the section.
    HotkeySettingsSection(SettingsState &state, Appearance &appearance, IconStore &icons, QWidget *parent = nullptr);
    /// Shows the present state at once.
    void refresh();
    void applyAppearance();

    HotkeyRecorder &recorder() { return *_recorder; }

private:
    void buildIssue();
    void buildShortcut();
    void refreshIssue();
    FlatButton *button(const QString &text, void (SettingsState::*pressed)());
    Text *rowLabel(const QString &text, QWidget *parent);

    SettingsState &state;
    Appearance &appearance;
    IconStore &icons;
    SettingsCard *issue, *shortcut;
    ResultIcon *warning;
    Text *issueText, *outcome, *requestedLabel, *activeLabel, *draft;
    ShortcutCaps *requested, *active;
    HotkeyRecorder *_recorder;
};

} // namespace korvane
