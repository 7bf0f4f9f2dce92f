#pragma once

#include "Vorrel/Views/SearchComponents.h"

#include <QCheckBox>
#include <QLineEdit>
#include <QPlainTextEdit>

#include <functional>

/// What settings are changed with. All follow the appearance by themselves.
namespace korvane {

/// A setting that is on or off: its name, with a switch at the right. A click anywhere on it turns it, and so do Space and
/// Return; `clicked` tells what the user did alone.
class Toggle : public QCheckBox {
    Q_OBJECT

public:
    Toggle(Appearance &appearance, const QString &name, QWidget *parent = nullptr);
    QString name() const { return accessibleName(); }
    QSize sizeHint() const override;
    QSize minimumSizeHint() const override { return {0, sizeHint().height()}; }

protected:
    void paintEvent(QPaintEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    bool hitButton(const QPoint &place) const override { return rect().contains(place); }
    void enterEvent(QEnterEvent *) override { update(); }
    void leaveEvent(QEvent *) override { update(); }

private:
    Appearance &appearance;
};

/// The ground of something to type into, with a line around it that is marked while that has the keyboard.
class FieldFrame : public QWidget {
    Q_OBJECT

public:
    /// Takes `inside` over.
    FieldFrame(Appearance &appearance, QWidget *inside, const QMargins &margins, QWidget *parent = nullptr);

protected:
    void paintEvent(QPaintEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void applyAppearance();

    Appearance &appearance;
    QWidget *inside;
};

/// A named line to type into, bound to a text that lives elsewhere.
class LineField : public QWidget {
    Q_OBJECT

public:
    enum class Kind {
        Plain,
        Secret ///< Shows dots, and forgets what can be undone when another text is shown.
    };
    LineField(Appearance &appearance, const QString &name, Kind kind, QWidget *parent = nullptr);
    ~LineField() override;

    QLineEdit &line() { return *_line; }
    /// Writes the text into the field if it is another one than was shown or typed last.
    void show(const std::string &text);

    std::function<void(const std::string &)> edited = [](const std::string &) {}; ///< The user changed the text.
    std::function<void()> submitted = [] {}; ///< The user pressed Return.

private:
    QLineEdit *_line;
    std::string shown;
};

/// A whole number in a short field, to be typed or counted up and down by the arrows. What is no number changes nothing, and
/// gives way to the present one when the keyboard leaves or `write` is called.
class NumberField : public QWidget {
    Q_OBJECT

public:
    NumberField(Appearance &appearance, const QString &name, QWidget *parent = nullptr);

    QLineEdit &line() { return *_line; }
    void show(int number);
    /// Gives a field without a number the present one back.
    void write();

    std::function<void(int)> edited = [](int) {}; ///< The user changed the number.

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    QLineEdit *_line;
    int number = 0;
};

/// Lines to type into, bound to a text that lives elsewhere. Tab leaves them.
class TextEditor : public QWidget {
    Q_OBJECT

public:
    enum class Letters { Reading, Code };
    /// `lines` are in view; more are scrolled to.
    TextEditor(Appearance &appearance, const QString &name, Letters letters, int lines, QWidget *parent = nullptr);

    QPlainTextEdit &editor() { return *_editor; }
    /// As `LineField::show`.
    void show(const std::string &text);

    std::function<void(const std::string &)> edited = [](const std::string &) {}; ///< The user changed the text.

private:
    void applyAppearance();

    Appearance &appearance;
    const Letters letters;
    const int lines;
    QPlainTextEdit *_editor;
    FieldFrame *frame;
    std::string shown;
    bool writing = false;
};

} // namespace korvane
