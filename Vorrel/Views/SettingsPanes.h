#pragma once

#include "Vorrel/Shell/SettingsState.h"
#include "Vorrel/Views/SettingsControls.h"
#include "Vorrel/Views/SettingsParts.h"

/// The pages behind the tabs of the settings window. Each is made when it is shown for the first time.
namespace korvane {

class HotkeySettingsSection;

/// What all pages are made with. Everything outlives them.
struct PaneParts {
    SettingsState &state;
    Executor mainThread;
    Appearance &appearance;
    IconStore &icons;
};

/// One page. It shows a state that lives elsewhere, and writes what the user changes there at once.
class SettingsPane : public QWidget {
public:
    explicit SettingsPane(const PaneParts &parts) : parts(parts) { }

    /// Shows the present state.
    virtual void refresh() = 0;
    /// The page has come before the user's eyes.
    virtual void opened() { }
    virtual void applyAppearance();
    /// Whether the window shall scroll it.
    virtual bool scrolls() const { return true; }

protected:
    FlatButton *button(const char *text, void (SettingsState::*pressed)());
    FlatButton *button(const char *text, std::function<void()> pressed);
    LineField *field(const char *name, Observed<std::string> SettingsState::*text, LineField::Kind kind = LineField::Kind::Plain);
    /// A switch that writes one of the preferences.
    Toggle *toggle(const char *name, bool AppPreferences::*setting);
    void edit(const std::function<void(AppPreferences &)> &change);
    /// Cards below each other.
    QVBoxLayout *column();
    SettingsCard *card(QVBoxLayout *column);

    const PaneParts parts;
};

class GeneralSettingsPane : public SettingsPane {
public:
    explicit GeneralSettingsPane(const PaneParts &parts);
    void refresh() override;
    void applyAppearance() override;

    HotkeySettingsSection &hotkeySection() const { return *hotkey; }

private:
    void buildLogin(SettingsCard &card);
    void buildQuicklinks(SettingsCard &card);
    std::vector<SettingsRows::Row> links() const;

    Toggle *login;
    Text *loginStatus;
    FlatButton *loginSettings;
    HotkeySettingsSection *hotkey;
    LineField *title, *address;
    SettingsRows *rows;
};

class FileIndexSettingsPane : public SettingsPane {
public:
    explicit FileIndexSettingsPane(const PaneParts &parts);
    void refresh() override;
    void applyAppearance() override;

private:
    std::vector<SettingsRows::Row> folders() const;

    SettingsRows *rows;
    Spinner *scanning;
    Text *status, *problem;
};

class ClipboardSettingsPane : public SettingsPane {
public:
    explicit ClipboardSettingsPane(const PaneParts &parts);
    void refresh() override;

private:
    Toggle *enabled;
    NumberField *limit;
};

class AISettingsPane : public SettingsPane {
public:
    explicit AISettingsPane(const PaneParts &parts);
    void refresh() override;

private:
    LineField *model, *key;
    Toggle *enabled, *confirms;
};

class MCPSettingsPane : public SettingsPane {
public:
    explicit MCPSettingsPane(const PaneParts &parts);
    void refresh() override;
    void applyAppearance() override;

private:
    std::vector<SettingsRows::Row> servers() const;

    SettingsCard *list;
    SettingsRows *rows;
    TextEditor *json;
    LineField *account, *secret;
};

} // namespace korvane
