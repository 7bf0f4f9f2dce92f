#pragma once

#include "Vorrel/Views/SearchComponents.h"

class QVBoxLayout;

/// What the pages of the settings window are made of.
namespace korvane {

/// A group of settings on a ground of its own.
class SettingsCard : public QWidget {
public:
    enum class Tone { Plain, Warning };
    explicit SettingsCard(Appearance &appearance, Tone tone = Tone::Plain, QWidget *parent = nullptr);

    QVBoxLayout &column() { return *_column; }
    /// Adds a sentence that takes as many lines as it needs.
    Text &addText(Text::Tone tone, TypeSize size = TypeSize::Body);
    /// Adds what a setting is called with its control at the right.
    void addRow(QWidget *label, QWidget *control);
    /// Adds buttons side by side.
    void addButtons(std::initializer_list<QWidget *> buttons);

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    Appearance &appearance;
    const Tone tone;
    QVBoxLayout *_column;
};

/// A global shortcut in frames.
class ShortcutCaps : public QWidget {
public:
    explicit ShortcutCaps(Appearance &appearance, QWidget *parent = nullptr);
    void show(const HotkeyConfiguration &shortcut);
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    Appearance &appearance;
    QStringList keys;
};

} // namespace korvane
