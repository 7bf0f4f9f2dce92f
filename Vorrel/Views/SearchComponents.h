#pragma once

#include "Vorrel/Palette/PaletteState.h"
#include "Vorrel/Views/Appearance.h"
#include "Vorrel/Views/Painting.h"
#include "Vorrel/Views/RowList.h"
#include "Vorrel/Views/ViewText.h"

#include <QAbstractButton>
#include <QLabel>
#include <QVariantAnimation>

namespace korvane {

/// A `CommandIcon`'s picture as a still widget, in one colour.
class ResultIcon : public QWidget {
public:
    ResultIcon(IconStore &icons, int size, QWidget *parent = nullptr);
    void show(const std::string &symbol, const QColor &color);

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    IconStore &icons;
    std::string symbol;
    QColor color;
};

/// A line of text in the palette's fonts and colours; plain text always.
class Text : public QLabel {
public:
    enum class Tone { Main, Secondary, Accent, Warning };
    Text(Appearance &appearance, TypeSize size, Tone tone, QFont::Weight weight = QFont::Normal, QWidget *parent = nullptr);
    void applyAppearance();

private:
    Appearance &appearance;
    const TypeSize size;
    const Tone tone;
    const QFont::Weight weight;
};

/// A flat button: symbol, caption, keys and text side by side, all optional. Return and Space press it. It keeps the keyboard
/// while it is disabled, as what it started often disables it for a moment only.
class FlatButton : public QAbstractButton {
    Q_OBJECT

public:
    enum class Style {
        Quiet, ///< Text alone until the mouse is over it.
        Filled,
        Primary, ///< The one that a window is about.
        Tab ///< Filled when checked; its keys stand behind the text.
    };
    FlatButton(Appearance &appearance, IconStore &icons, Style style, QWidget *parent = nullptr);

    void setSymbol(const std::string &name);
    void setKeys(const QStringList &keys);
    void setCaption(const QString &text); ///< A quiet word before the text.
    void setOpensMenu(bool opens); ///< Shows a mark at the right that says so.
    Style style() const { return _style; }
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    bool focusNextPrevChild(bool next) override;
    void enterEvent(QEnterEvent *event) override;
    void leaveEvent(QEvent *event) override;

private:
    QFont textFont() const;
    QFont captionFont() const;
    QColor ink() const;
    void drawGround(QPainter &painter) const;

    Appearance &appearance;
    IconStore &icons;
    const Style _style;
    std::string symbol;
    QStringList keys;
    QString caption;
    bool opensMenu = false;
};

/// Hints such as "↵ Open · esc Back", with the keys in frames. Its accessible name is the line itself.
class HintLine : public QWidget {
public:
    explicit HintLine(Appearance &appearance, QWidget *parent = nullptr);
    void setLine(const QString &line);
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    Appearance &appearance;
    QList<KeyHint> hints;
};

/// A turning mark for work of unknown length; still where motion is unwanted, and at rest when hidden.
class Spinner : public QWidget {
public:
    Spinner(Appearance &appearance, int size, QWidget *parent = nullptr);

protected:
    void paintEvent(QPaintEvent *event) override;
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    Appearance &appearance;
    QVariantAnimation turn;
};

class FileFilters;

/// The tabs of the search categories, and below them what narrows a search for files.
class SearchFilterBar : public QWidget {
    Q_OBJECT

public:
    SearchFilterBar(Appearance &appearance, IconStore &icons, PaletteState &state, QWidget *parent = nullptr);
    void refresh();

private:
    PaletteState &state;
    std::vector<FlatButton *> tabs; // in the order of the categories
    FileFilters *fileFilters;
};

/// What the user's shortcuts are up to, with a way to look for them anew.
class ShortcutsBar : public QWidget {
public:
    ShortcutsBar(Appearance &appearance, IconStore &icons, ShortcutsService &service, QWidget *parent = nullptr);
    void refresh();
    void applyAppearance() { status->applyAppearance(); }

private:
    ShortcutsService &service;
    Text *status;
};

/// Where one is, below the field, with the way back.
class NestedHeader : public QWidget {
public:
    NestedHeader(Appearance &appearance, IconStore &icons, PaletteState &state, QWidget *parent = nullptr);
    /// Hides itself at the top level.
    void refresh();
    void applyAppearance();

    static QString titleFor(const PaletteState &state);

private:
    PaletteState &state;
    Text *title;
};

/// A failure's sentence with its ways out.
class ErrorArea : public QWidget {
    Q_OBJECT

public:
    ErrorArea(Appearance &appearance, IconStore &icons, PaletteState &state, QWidget *parent = nullptr);
    /// Hides itself without a failure.
    void refresh();
    void applyAppearance();

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    Appearance &appearance;
    PaletteState &state;
    ResultIcon *icon;
    Text *sentence;
    FlatButton *access, *refreshSearch, *retry;
};

/// What stands in the place of rows when there are none.
class EmptyState : public QWidget {
public:
    EmptyState(Appearance &appearance, IconStore &icons, QWidget *parent = nullptr);
    void refresh(const PaletteState &state);
    void showNoActions();
    void applyAppearance();

private:
    void show(const std::string &symbol, const QString &title, const QString &line);

    Appearance &appearance;
    ResultIcon *icon;
    Text *title, *line;
    std::string symbol;
};

class ProgressView : public QWidget {
public:
    explicit ProgressView(Appearance &appearance, QWidget *parent = nullptr);
    void applyAppearance() { label->applyAppearance(); }

private:
    Text *label;
};

/// The palette's rows.
class ResultList : public RowList {
    Q_OBJECT

public:
    ResultList(Appearance &appearance, IconStore &icons, PaletteState &state, QWidget *parent = nullptr);
    void refresh();
    RowFace face(int row) const override;

private:
    PaletteState &state;
    Rows shown;
};

/// The actions of the selected row that pass the panel's filter.
class ActionsList : public RowList {
    Q_OBJECT

public:
    ActionsList(Appearance &appearance, IconStore &icons, PaletteState &state, QWidget *parent = nullptr);
    void refresh();
    RowFace face(int row) const override;

private:
    PaletteState &state;
    std::vector<CommandAction> shown;
};

/// A shortcut's run: how long it has taken, and the way to end it. Counts on once a second while it is seen.
class RunMark : public QWidget {
    Q_OBJECT

public:
    RunMark(Appearance &appearance, IconStore &icons, AppServices &services, QWidget *parent = nullptr);
    /// Hides itself without a run.
    void refresh();
    void applyAppearance();

    QString shownTime() const { return elapsed->text(); }

protected:
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    static Task<void> count(Clock &clock, RunMark *mark);
    /// Shows the time now, and tells how long it stays right.
    Milliseconds showTime();

    AppServices &services;
    Text *elapsed;
    TaskHandle counting;
};

/// The bar at the bottom: what goes on, and what can be done.
class PaletteFooter : public QWidget {
    Q_OBJECT

public:
    PaletteFooter(Appearance &appearance, IconStore &icons, PaletteState &state, QWidget *parent = nullptr);
    void refresh();
    void applyAppearance();

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    Appearance &appearance;
    PaletteState &state;
    Text *name, *newKey, *filesText;
    Spinner *filesMark, *busyMark;
    RunMark *run;
    FlatButton *preview, *actions;
    HintLine *arguments, *hint;
};

/// The name of what a mode shows.
QString modeName(PaletteState::Mode mode);

} // namespace korvane
