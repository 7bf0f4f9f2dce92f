#pragma once

#include "Vorrel/Views/SearchComponents.h"

#include <QPlainTextEdit>

namespace korvane {

/// A scrolling text to read and to copy from, also by the keyboard alone. Keys that do neither go on to the palette.
class TextPane : public QPlainTextEdit {
    Q_OBJECT

public:
    explicit TextPane(Appearance &appearance, QWidget *parent = nullptr);
    /// Shows a text from its beginning; the same text leaves everything as it is.
    void show(const QString &text);
    void setTone(Text::Tone tone);
    /// How high all of the text is at `width`.
    int heightFor(int width) const;
    void applyAppearance();

protected:
    void keyPressEvent(QKeyEvent *event) override;

private:
    Appearance &appearance;
    Text::Tone tone = Text::Tone::Main;
    QString shown; // as it was given: the document has other characters for some
};

/// A text at full length, up to a limit that bounds what is shown and nothing else.
class ResultPreviewView : public QWidget {
    Q_OBJECT

public:
    static constexpr int displayLimit = 50'000; ///< Characters as people count them.

    ResultPreviewView(Appearance &appearance, IconStore &icons, QWidget *parent = nullptr);
    void show(const std::string &text);
    void applyAppearance();

    QString shownPart() const { return pane->toPlainText(); }
    QString statusLine() const { return status->text(); }

    std::function<void()> close = [] {};

private:
    Text *title, *status;
    TextPane *pane;
    std::optional<std::string> text;
};

/// The first `limit` characters of a text, or all of it, with how many these are.
struct TextPart {
    QString text;
    int characters = 0;
    bool complete = true;
};
TextPart firstCharacters(const QString &text, int limit);

} // namespace korvane
