#include "Vorrel/Views/ResultPreviewView.h"

#include "Vorrel/Shell/L10n.h"
#include "Vorrel/Views/Appearance.h"

#include <QBoxLayout>
#include <QKeyEvent>
#include <QScrollBar>
#include <QTextBlock>
#include <QTextBoundaryFinder>
#include <QTextLayout>

#include <cmath>

namespace korvane {

TextPart firstCharacters(const QString &text, int limit)
{
    TextPart part;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype end = 0;
    while (part.characters < limit) {
        const qsizetype next = finder.toNextBoundary();
        if (next < 0)
            break;
        end = next;
        part.characters++;
    }
    part.complete = end >= text.size();
    part.text = part.complete ? text : text.left(end);
    return part;
}

// TextPane

TextPane::TextPane(Appearance &appearance, QWidget *parent) : QPlainTextEdit(parent), appearance(appearance)
{
    setReadOnly(true);
    setFrameShape(QFrame::NoFrame);
    setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    setFocusPolicy(Qt::StrongFocus);
    setContextMenuPolicy(Qt::NoContextMenu);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    document()->setDocumentMargin(0);
    viewport()->setAutoFillBackground(false);
    applyAppearance();
}

void TextPane::applyAppearance()
{
    const Theme &theme = appearance.theme();
    QPalette colours;
    colours.setColor(QPalette::Base, Qt::transparent);
    colours.setColor(QPalette::Text, tone == Text::Tone::Main ? theme.text : theme.secondary);
    colours.setColor(QPalette::Highlight, theme.dark ? QColor(0x5a, 0x60, 0xd6) : QColor(0xc9, 0xcc, 0xf7));
    colours.setColor(QPalette::HighlightedText, theme.text);
    setPalette(colours);
    setFont(appearance.font(TypeSize::Body));
    styleScrollBar(*verticalScrollBar(), theme);
}

/// Whether breaking lines between words would cost more than a person waits: the toolkit looks for the end of a
/// word anew in every line.
static bool hasEndlessWord(const QString &text)
{
    constexpr int longest = 1000;
    int word = 0;
    for (const QChar c : text)
        if (word = c.isSpace() ? 0 : word + 1; word > longest)
            return true;
    return false;
}

void TextPane::show(const QString &text)
{
    if (text == shown)
        return;
    shown = text;
    setWordWrapMode(hasEndlessWord(text) ? QTextOption::WrapAnywhere : QTextOption::WrapAtWordBoundaryOrAnywhere);
    setPlainText(text);
}

void TextPane::setTone(Text::Tone wanted)
{
    if (std::exchange(tone, wanted) != wanted)
        applyAppearance();
}

int TextPane::heightFor(int width) const
{
    QTextOption option;
    option.setWrapMode(wordWrapMode());
    const QFontMetricsF metrics(font());
    qreal height = 0;
    for (QTextBlock block = document()->begin(); block.isValid(); block = block.next()) {
        QTextLayout layout(block.text(), font());
        layout.setTextOption(option);
        layout.beginLayout();
        for (QTextLine line = layout.createLine(); line.isValid(); line = layout.createLine()) {
            line.setLineWidth(width);
            height += std::max(line.height(), metrics.lineSpacing());
        }
        layout.endLayout();
    }
    return int(std::ceil(height));
}

static bool isForReading(const QKeyEvent &event)
{
    switch (event.key()) {
    case Qt::Key_Left:
    case Qt::Key_Right:
    case Qt::Key_Home:
    case Qt::Key_End:
    case Qt::Key_PageUp:
    case Qt::Key_PageDown: return true;
    case Qt::Key_Up:
    case Qt::Key_Down: return event.modifiers() & Qt::ShiftModifier; // alone they choose another row
    default: return event.matches(QKeySequence::Copy) || event.matches(QKeySequence::SelectAll);
    }
}

void TextPane::keyPressEvent(QKeyEvent *event)
{
    if (isForReading(*event))
        QPlainTextEdit::keyPressEvent(event);
    else
        event->ignore();
}

// ResultPreviewView

ResultPreviewView::ResultPreviewView(Appearance &appearance, IconStore &icons, QWidget *parent) :
    QWidget(parent), title(new Text(appearance, TypeSize::Body, Text::Tone::Main, QFont::DemiBold, this)),
    status(new Text(appearance, TypeSize::Small, Text::Tone::Secondary, QFont::Normal, this)),
    pane(new TextPane(appearance, this))
{
    title->setText(fromUtf8(L10n::shown("Text Preview")));
    pane->setAccessibleName(title->text());
    auto *closeButton = new FlatButton(appearance, icons, FlatButton::Style::Quiet, this);
    closeButton->setSymbol("xmark");
    closeButton->setAccessibleName(fromUtf8(L10n::shown("Close")));
    connect(closeButton, &QAbstractButton::clicked, this, [this] { close(); });

    auto *head = new QHBoxLayout;
    head->addWidget(title, 1);
    head->addWidget(closeButton);
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(Metrics::margin, 8, Metrics::margin - 8, 12);
    column->setSpacing(8);
    column->addLayout(head);
    column->addWidget(pane, 1);
    column->addWidget(status);
}

void ResultPreviewView::show(const std::string &next)
{
    if (text == next)
        return;
    text = next;
    const TextPart part = firstCharacters(fromUtf8(next), displayLimit);
    pane->show(part.text);
    status->setText(part.complete
            ? QString::number(part.characters) + fromUtf8(L10n::shown(" characters · Return copies · ↑ ↓ Browse"))
            : fromUtf8(L10n::shown("Showing the first 50,000 characters. Return copies the complete item.")));
}

void ResultPreviewView::applyAppearance()
{
    title->applyAppearance();
    status->applyAppearance();
    pane->applyAppearance();
}

} // namespace korvane
