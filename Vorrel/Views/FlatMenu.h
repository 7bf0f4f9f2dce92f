#pragma once

#include "Vorrel/Views/SearchComponents.h"

#include <QMenu>

#include <functional>

namespace korvane {

/// A menu of equal entries, one of which may be marked, drawn like the palette. Arrows walk through it, Return chooses,
/// Escape closes it alone; a letter closes it and goes to whatever lies behind.
class FlatMenu : public QMenu {
    Q_OBJECT

public:
    /// `appearance` and `icons` outlive the menu; `owner` is the button that opens it and gets what is typed.
    FlatMenu(Appearance &appearance, IconStore &icons, QWidget *owner);

    /// Shows below its owner, with the marked entry, or else the first, ready to be chosen.
    void open();

protected:
    bool event(QEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    void applyAppearance();

    Appearance &appearance;
    IconStore &icons;
    QWidget *owner;
};

/// A button that shows one of several values after what it is about, and opens a menu with all of them. Return, Space
/// and the arrow down open it.
class Picker : public FlatButton {
    Q_OBJECT

public:
    /// `caption` says what is picked; empty where a symbol does.
    Picker(Appearance &appearance, IconStore &icons, const QString &caption, QWidget *parent = nullptr);

    /// Adds a value to the menu.
    void addEntry(const QString &text, std::function<void()> chosen);
    /// Marks the entry at `index`, or none for -1, and shows its text on the button, or `text` where that is given.
    void show(int index, const QString &text = {});

    FlatMenu &menu() { return *_menu; }

protected:
    void keyPressEvent(QKeyEvent *event) override;

private:
    const QString caption;
    FlatMenu *_menu;
};

} // namespace korvane
