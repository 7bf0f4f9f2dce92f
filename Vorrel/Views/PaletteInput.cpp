#include "Vorrel/Views/PaletteInput.h"

#include "Vorrel/Shell/L10n.h"
#include "Vorrel/Views/Appearance.h"
#include "Vorrel/Views/KeyEvents.h"
#include "Vorrel/Views/SearchComponents.h"
#include "Vorrel/Views/ViewText.h"

#include <QGuiApplication>
#include <QInputMethodEvent>
#include <QKeyEvent>
#include <QPainter>

#include <limits>

namespace korvane {

PaletteSearchField::PaletteSearchField(QWidget *parent) : QLineEdit(parent)
{
    setFrame(false);
    setMaxLength(std::numeric_limits<int>::max()); // the toolkit would cut a long text without a word
    setAttribute(Qt::WA_MacShowFocusRect, false);
    setAccessibleName(fromUtf8(L10n::shown("Search commands, apps or ask AI")));
}

void PaletteSearchField::keyPressEvent(QKeyEvent *event)
{
    if (mapped(event))
        return;
    if (!composing() && pageActionOf(*event))
        return event->ignore(); // meant for what is below
    QLineEdit::keyPressEvent(event);
}

bool PaletteSearchField::mapped(QKeyEvent *event)
{
    const bool plain = !(event->modifiers() & ~(Qt::KeypadModifier | Qt::ShiftModifier));
    const bool isReturn = event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter;
    if (composing()) {
        if (isReturn)
            commitComposition();
        else if (event->key() == Qt::Key_Escape)
            dropComposition();
        else
            return event->key() == Qt::Key_Up || event->key() == Qt::Key_Down || event->key() == Qt::Key_Tab;
        return true;
    }
    if (!plain)
        return false;
    switch (event->key()) {
    case Qt::Key_Up: move(-1); return true;
    case Qt::Key_Down: move(1); return true;
    case Qt::Key_Return:
    case Qt::Key_Enter: submit(); return true;
    case Qt::Key_Escape: escape(); return true;
    case Qt::Key_Tab: tab(); return true;
    default: return false;
    }
}

void PaletteSearchField::inputMethodEvent(QInputMethodEvent *event)
{
    preedit = event->preeditString();
    QLineEdit::inputMethodEvent(event);
}

bool PaletteSearchField::focusNextPrevChild(bool next)
{
    // Tab has a meaning of its own here; the way out by keyboard is Shift and Tab.
    return next ? false : QLineEdit::focusNextPrevChild(false);
}

void PaletteSearchField::commitComposition()
{
    QGuiApplication::inputMethod()->commit();
    if (!composing())
        return;
    // Not every input method commits on demand. What the user sees is what the user gets.
    QInputMethodEvent commit;
    commit.setCommitString(preedit);
    inputMethodEvent(&commit);
    QGuiApplication::inputMethod()->reset();
}

void PaletteSearchField::dropComposition()
{
    QGuiApplication::inputMethod()->reset();
    QInputMethodEvent nothing;
    inputMethodEvent(&nothing);
}

static constexpr int symbolSize = 22;

PaletteInput::PaletteInput(Appearance &appearance, QWidget *parent) : QWidget(parent), appearance(appearance)
{
    // A field lays out its text as soon as it is made: in its own font, so that no other one is loaded.
    setFont(appearance.font(TypeSize::Field));
    _field = new PaletteSearchField(this);
    setFixedHeight(64);
    connect(_field, &QLineEdit::textChanged, this, [this](const QString &text) {
        if (!writing)
            edited(text);
    });
    applyAppearance();
}

void PaletteInput::applyAppearance()
{
    _field->setPalette(appearance.fieldColours(QPalette()));
    _field->setFont(appearance.font(TypeSize::Field));
    update();
}

void PaletteInput::show(const QString &text, const QString &placeholder)
{
    if (_field->placeholderText() != placeholder)
        _field->setPlaceholderText(placeholder);
    if (_field->text() == text)
        return;
    writing = true;
    _field->setText(text);
    writing = false;
}

void PaletteInput::setSymbol(const QPixmap &picture)
{
    symbol = picture;
    update();
}

void PaletteInput::resizeEvent(QResizeEvent *)
{
    const int left = Metrics::margin + symbolSize + 12;
    _field->setGeometry(left, 12, width() - left - Metrics::margin, height() - 24);
}

void PaletteInput::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    if (!symbol.isNull())
        painter.drawPixmap(Metrics::margin, (height() - symbolSize) / 2, symbol);
    painter.fillRect(QRect(0, height() - 1, width(), 1), appearance.theme().separator);
}

} // namespace korvane
