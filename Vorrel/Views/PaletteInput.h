#pragma once

#include <QLineEdit>

#include <functional>

namespace korvane {

class Appearance;

/// The palette's field, with its own meaning of five keys. While an input method composes a text, all keys
/// belong to it; Return then only takes the text over.
class PaletteSearchField : public QLineEdit {
    Q_OBJECT

public:
    explicit PaletteSearchField(QWidget *parent = nullptr);

    bool composing() const { return !preedit.isEmpty(); }

    std::function<void(int)> move = [](int) {};
    std::function<void()> submit = [] {};
    std::function<void()> escape = [] {};
    std::function<void()> tab = [] {};

protected:
    void keyPressEvent(QKeyEvent *event) override;
    void inputMethodEvent(QInputMethodEvent *event) override;
    bool focusNextPrevChild(bool next) override;

private:
    bool mapped(QKeyEvent *event);
    void commitComposition();
    void dropComposition();

    QString preedit;
};

/// The field with its symbol, bound to a text that lives elsewhere.
class PaletteInput : public QWidget {
    Q_OBJECT

public:
    PaletteInput(Appearance &appearance, QWidget *parent = nullptr);

    PaletteSearchField &field() { return *_field; }
    /// Writes the text into the field, if it is another one, and the placeholder.
    void show(const QString &text, const QString &placeholder);
    void setSymbol(const QPixmap &symbol);
    void applyAppearance();

    std::function<void(const QString &)> edited = [](const QString &) {}; ///< The user changed the text.

protected:
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    Appearance &appearance;
    PaletteSearchField *_field;
    QPixmap symbol;
    bool writing = false;
};

} // namespace korvane
