#pragma once

#include "Vorrel/Views/SearchComponents.h"

class QScrollArea;
class QVBoxLayout;

/// What the pages of the settings window are made of.
namespace korvane {

/// A group of settings on a ground of its own.
class SettingsCard : public QWidget {
public:
    enum class Tone { Plain, Warning };
    explicit SettingsCard(Appearance &appearance, Tone tone = Tone::Plain, QWidget *parent = nullptr);

    QVBoxLayout &column() { return *_column; }
    /// Adds what the group is called.
    Text &addHeading(const QString &text);
    /// Adds a sentence that takes as many lines as it needs.
    Text &addText(Text::Tone tone, TypeSize size = TypeSize::Body);
    /// Adds a quiet sentence that explains what stands above it.
    Text &addNote(const QString &text);
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

/// A button with these words, which are its name as they stand: an ampersand makes no key of the letter behind it.
FlatButton *makeButton(Appearance &appearance, IconStore &icons, const QString &text, const std::function<void()> &pressed,
    FlatButton::Style style = FlatButton::Style::Filled);

/// Scrolls what has a layout and may be higher than its room. The scroll bar stands in the margin at the right, so that what is
/// shown is equally wide with and without it. Follows the appearance by itself.
QScrollArea *makeScrollArea(QWidget *inside, Appearance &appearance);

/// One line of plain text that is cut in the middle where it does not fit; the whole is its tool tip and what a screen reader
/// reads.
class ElidedText : public Text {
public:
    ElidedText(Appearance &appearance, TypeSize size, Text::Tone tone, QWidget *parent = nullptr);
    QSize sizeHint() const override;
    QSize minimumSizeHint() const override { return {0, sizeHint().height()}; }

protected:
    void paintEvent(QPaintEvent *event) override;
    bool event(QEvent *event) override;
};

/// Rows of things that the user has, each with what can be done to it. Where the same things are shown again their words
/// change in place; otherwise the rows are made anew, and the keyboard stays at the same place among their buttons.
class SettingsRows : public QWidget {
public:
    struct Action {
        QString text; ///< Empty for a button that is a symbol.
        std::string symbol;
        QString name; ///< For a button without a text.
        std::function<void()> run;
    };
    struct Row {
        std::string key; ///< What tells things apart.
        std::string symbol;
        QString title, subtitle; ///< The second may be empty.
        std::vector<Action> actions;
    };
    SettingsRows(Appearance &appearance, IconStore &icons, QWidget *parent = nullptr);

    void show(std::vector<Row> next);
    void applyAppearance();

private:
    struct Shown {
        Row row;
        QWidget *whole;
        ResultIcon *icon;
        ElidedText *title, *subtitle;
        std::vector<FlatButton *> buttons;
    };
    bool showsSame(const std::vector<Row> &next) const;
    void make(Row row);
    void write(Shown &shown);
    std::vector<FlatButton *> buttons() const;

    Appearance &appearance;
    IconStore &icons;
    std::vector<Shown> rows;
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
