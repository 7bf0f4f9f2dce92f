#pragma once

#include "Vorrel/Views/SettingsPanes.h"

#include <array>

namespace korvane {

class SettingsFooter;

/// The tabs of the settings window side by side. One of them can have the keyboard, the chosen one; the arrows, Home and End
/// choose another.
class SettingsTabBar : public QWidget {
    Q_OBJECT

public:
    SettingsTabBar(SettingsState &state, Appearance &appearance, IconStore &icons, QWidget *parent);
    void refresh();
    /// Chooses the tab so many places on, round and round.
    void step(int by);
    /// Gives the keyboard to the chosen tab.
    void takeFocus();

    static QString label(SettingsState::Tab tab);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    void choose(int number);
    int chosen() const;

    SettingsState &state;
    Appearance &appearance;
    std::vector<FlatButton *> buttons; // in the order of the tabs
};

/// What the settings window shows: the tabs, the page of the chosen one, and the line with the button that makes drafts real.
/// Pages are made when they are first seen. Tab and Shift with Tab walk through all controls from the top to the bottom,
/// Ctrl with Tab, Page Up and Page Down through the pages; Escape and Ctrl with W close the window. Main thread only.
class SettingsView : public QWidget {
    Q_OBJECT

public:
    /// Everything outlives the view.
    explicit SettingsView(const PaneParts &parts);

    /// Shows the present state at once, laid out for painting.
    void refresh();
    HotkeySettingsSection &hotkeySection();
    /// The page of a tab, which is made when it is not there yet.
    SettingsPane &pane(SettingsState::Tab tab);

    /// What Tab walks through, in this order; with what has the keyboard, even if that has just been disabled or hidden, so that
    /// the next one is known.
    QList<QWidget *> focusOrder() const;

protected:
    bool event(QEvent *event) override;
    void showEvent(QShowEvent *event) override;
    void paintEvent(QPaintEvent *event) override;
    bool focusNextPrevChild(bool next) override;

private:
    class Page;
    static constexpr std::size_t tabCount = std::size(SettingsState::tabs);

    void addKeys();
    void save();
    void refreshSoon();
    /// Brings the page of a tab into its place, to be refreshed there: what a page asks the keyboard for it gets when it is seen.
    void showTab(SettingsState::Tab tab);
    void applyAppearance();
    Page &page(SettingsState::Tab tab);

    const PaneParts parts;
    SettingsTabBar *tabBar;
    QWidget *pages;
    SettingsFooter *footer;
    std::array<Page *, tabCount> made{};
    Page *shown = nullptr;
    std::vector<Subscription> subscriptions;
    bool refreshPending = false;
};

} // namespace korvane
