#include "Vorrel/Views/HotkeySettingsSection.h"

#include "Vorrel/Shell/L10n.h"
#include "Vorrel/Views/Appearance.h"
#include "Vorrel/Views/HotkeyRecorder.h"

#include <QHBoxLayout>
#include <QVBoxLayout>

namespace korvane {

HotkeySettingsSection::HotkeySettingsSection(SettingsState &state, Appearance &appearance, IconStore &icons, QWidget *parent) :
    QWidget(parent), state(state), appearance(appearance), icons(icons),
    issue(new SettingsCard(appearance, SettingsCard::Tone::Warning, this)),
    shortcut(new SettingsCard(appearance, SettingsCard::Tone::Plain, this))
{
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(16);
    column->addWidget(issue);
    column->addWidget(shortcut);
    buildIssue();
    buildShortcut();
    applyAppearance();
    refresh();
}

FlatButton *HotkeySettingsSection::button(const QString &text, void (SettingsState::*pressed)())
{
    return makeButton(appearance, icons, text, [this, pressed] { (state.*pressed)(); });
}

Text *HotkeySettingsSection::rowLabel(const QString &text, QWidget *parent)
{
    auto *label = new Text(appearance, TypeSize::Body, Text::Tone::Main, QFont::Normal, parent);
    label->setText(text);
    return label;
}

void HotkeySettingsSection::buildIssue()
{
    warning = new ResultIcon(icons, 18, issue);
    auto *title = new Text(appearance, TypeSize::Title, Text::Tone::Main, QFont::DemiBold, issue);
    title->setText(fromUtf8(L10n::shown("Shortcut needs attention")));
    auto *heading = new QHBoxLayout;
    heading->setSpacing(8);
    heading->addWidget(warning);
    heading->addWidget(title, 1);
    issue->column().addLayout(heading);
    issueText = &issue->addText(Text::Tone::Main);

    requested = new ShortcutCaps(appearance, issue);
    requestedLabel = rowLabel(fromUtf8(L10n::shown("Requested shortcut")), issue);
    issue->addRow(requestedLabel, requested);
    outcome = &issue->addText(Text::Tone::Main);
    active = new ShortcutCaps(appearance, issue);
    activeLabel = rowLabel(fromUtf8(L10n::shown("Current shortcut")), issue);
    issue->addRow(activeLabel, active);
    issue->addButtons({button(fromUtf8(L10n::shown("Record a Different Shortcut")), &SettingsState::recordCustomHotkey),
        button(fromUtf8(L10n::shown("Open Keyboard Settings")), &SettingsState::openKeyboardSettings)});
}

void HotkeySettingsSection::buildShortcut()
{
    _recorder = new HotkeyRecorder(appearance, shortcut);
    _recorder->changed = [this](const HotkeyConfiguration &recorded) {
        AppPreferences edited = state.preferences;
        edited.hotkey = recorded;
        state.preferences = edited;
    };
    _recorder->recordingChanged = [this](bool recording) { state.recordingHotkeyChanged(recording); };
    shortcut->addRow(rowLabel(fromUtf8(L10n::shown("Current shortcut")), shortcut), _recorder);
    draft = &shortcut->addText(Text::Tone::Accent);
    shortcut->addText(Text::Tone::Secondary, TypeSize::Small)
        .setText(fromUtf8(
            L10n::shown("Click Record, then press a shortcut with Command, Option or Control. Save Settings to apply.")));
    shortcut->addText(Text::Tone::Secondary, TypeSize::Small)
        .setText(fromUtf8(L10n::shown("To replace Spotlight, first change its shortcut in System Settings → Keyboard → "
                                      "Keyboard Shortcuts → Spotlight, then Save Settings here.")));
    shortcut->addButtons({button(fromUtf8(L10n::shown("Use Command + Space (Spotlight)")), &SettingsState::draftSpotlightHotkey),
        button(fromUtf8(L10n::shown("Restore Option + Space")), &SettingsState::restoreDefaultHotkey)});
}

void HotkeySettingsSection::refreshIssue()
{
    issue->setVisible(state.hotkeyIssue->has_value());
    if (!state.hotkeyIssue.get())
        return;
    issueText->setText(shownText(state.hotkeyIssue->value()));
    const auto &attempt = state.hotkeyAttempt.get();
    requested->setVisible(attempt.has_value());
    requestedLabel->setVisible(attempt.has_value());
    if (attempt)
        requested->show(*attempt);
    const auto &still = state.activeHotkey.get();
    active->setVisible(still.has_value());
    activeLabel->setVisible(still.has_value());
    if (still)
        active->show(*still);
    outcome->setText(
        fromUtf8(still ? L10n::shown("Your previous shortcut remains active. Record another combination and save to apply it.")
                       : L10n::shown("No global shortcut is active. Open Korvane or Settings from the menu bar.")));
}

void HotkeySettingsSection::refresh()
{
    refreshIssue();
    const HotkeyConfiguration &wanted = state.preferences->hotkey;
    draft->setVisible(wanted != state.appliedHotkey.get());
    const std::string format = L10n::shown("Draft: %@ — choose Save Settings to apply.");
    draft->setText(fromUtf8(format).replace(QLatin1String("%@"), nameOf(wanted)));
    _recorder->show(wanted);
    _recorder->request(state.recorderRequest);
}

void HotkeySettingsSection::applyAppearance()
{
    warning->show("exclamationmark.triangle.fill", appearance.theme().warning);
    for (Text *text : findChildren<Text *>())
        text->applyAppearance();
    update();
}

} // namespace korvane
