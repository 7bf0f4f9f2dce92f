#include "Vorrel/Views/SettingsControls.h"

#include "Support/Memory.h"
#include "Vorrel/Views/TextLine.h"

#include <QFontDatabase>
#include <QKeyEvent>
#include <QPainter>
#include <QRegularExpressionValidator>
#include <QScrollBar>
#include <QTextDocument>
#include <QVBoxLayout>

#include <limits>

namespace korvane {

static constexpr int toggleHeight = 24, fieldHeight = 32;
static constexpr int fieldRadius = 7;
static constexpr int switchWidth = 36, switchHeight = 20;

// Toggle

Toggle::Toggle(Appearance &appearance, const QString &name, QWidget *parent) : QCheckBox(parent), appearance(appearance)
{
    // The name is no caption of the toolkit's: in that an ampersand would make a key of the letter behind it.
    setAccessibleName(name);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    connect(&appearance, &Appearance::changed, this, [this] { updateGeometry(); });
}

QSize Toggle::sizeHint() const
{
    return {textLine::width(appearance.font(TypeSize::Body), name()) + 16 + switchWidth, toggleHeight};
}

void Toggle::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter)
        click();
    else
        QCheckBox::keyPressEvent(event);
}

void Toggle::paintEvent(QPaintEvent *)
{
    const Theme &theme = appearance.theme();
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setOpacity(isEnabled() ? 1 : 0.5);

    const QFont font = appearance.font(TypeSize::Body);
    painter.setPen(theme.text);
    const int baseline = (height() + QFontMetrics(font).capHeight()) / 2;
    textLine::draw(painter, font, QPoint(0, baseline), name(), width() - switchWidth - 16, Qt::ElideMiddle);

    // With the keyboard the switch makes room inside its place for the line around it.
    const QRectF place(width() - switchWidth, (height() - switchHeight) / 2.0, switchWidth, switchHeight);
    const QRectF track = hasFocus() ? place.adjusted(2.5, 2.5, -2.5, -2.5) : place;
    const qreal radius = track.height() / 2;
    fillRounded(painter, track, radius, isChecked() ? theme.accent : theme.keyGround);
    if (!isChecked()) {
        painter.setPen(QPen(theme.faint, 1));
        painter.drawRoundedRect(track.adjusted(0.5, 0.5, -0.5, -0.5), radius - 0.5, radius - 0.5);
    }
    const qreal knobInset = hasFocus() ? 2 : 3;
    const qreal knob = track.height() - 2 * knobInset;
    const qreal left = isChecked() ? track.right() - knobInset - knob : track.left() + knobInset;
    fillRounded(painter, {left, track.top() + knobInset, knob, knob}, knob / 2, isChecked() ? theme.ground : theme.secondary);
    if (hasFocus()) {
        painter.setPen(QPen(theme.accent, 1.5));
        painter.drawRoundedRect(place.adjusted(0.75, 0.75, -0.75, -0.75), switchHeight / 2.0, switchHeight / 2.0);
    }
}

// FieldFrame

FieldFrame::FieldFrame(Appearance &appearance, QWidget *inside, const QMargins &margins, QWidget *parent) :
    QWidget(parent), appearance(appearance), inside(inside)
{
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(margins);
    column->addWidget(inside);
    inside->installEventFilter(this);
    connect(&appearance, &Appearance::changed, this, [this] { applyAppearance(); });
    applyAppearance();
}

void FieldFrame::applyAppearance()
{
    inside->setPalette(appearance.fieldColours(inside->palette()));
    inside->setFont(appearance.font(TypeSize::Body));
    update();
}

bool FieldFrame::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::FocusIn || event->type() == QEvent::FocusOut)
        update();
    return QWidget::eventFilter(watched, event);
}

// With a focus proxy the frame itself, which has no name, would say that it has the keyboard.
void FieldFrame::mousePressEvent(QMouseEvent *) { inside->setFocus(Qt::MouseFocusReason); }

void FieldFrame::paintEvent(QPaintEvent *)
{
    const Theme &theme = appearance.theme();
    const bool marked = inside->hasFocus();
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setBrush(theme.dark ? theme.ground : Qt::white);
    painter.setPen(QPen(marked ? theme.accent : theme.border, marked ? 1.5 : 1));
    const qreal half = marked ? 0.75 : 0.5;
    painter.drawRoundedRect(QRectF(rect()).adjusted(half, half, -half, -half), fieldRadius - half, fieldRadius - half);
}

// LineField

namespace {

QLineEdit *bareLine(const QString &name)
{
    auto *line = new QLineEdit;
    line->setFrame(false);
    line->setAccessibleName(name);
    return line;
}

FieldFrame *framed(Appearance &appearance, QLineEdit *line)
{
    auto *frame = new FieldFrame(appearance, line, {6, 0, 6, 0});
    frame->setFixedHeight(fieldHeight);
    return frame;
}

/// A field below its name.
void stack(QWidget &whole, Appearance &appearance, const QString &name, QWidget *field)
{
    auto *label = new Text(appearance, TypeSize::Small, Text::Tone::Secondary, QFont::Normal, &whole);
    label->setText(name);
    label->setWordWrap(true);
    auto *column = new QVBoxLayout(&whole);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(4);
    column->addWidget(label);
    column->addWidget(field);
}

} // namespace

LineField::LineField(Appearance &appearance, const QString &name, Kind kind, QWidget *parent) :
    QWidget(parent), _line(bareLine(name))
{
    if (kind == Kind::Secret)
        _line->setEchoMode(QLineEdit::Password);
    stack(*this, appearance, name, framed(appearance, _line));
    connect(_line, &QLineEdit::textEdited, this, [this](const QString &text) {
        wipe(shown);
        shown = text.toStdString();
        edited(shown);
    });
    connect(_line, &QLineEdit::returnPressed, this, [this] { submitted(); });
}

LineField::~LineField() { wipe(shown); }

void LineField::show(const std::string &text)
{
    if (text == shown)
        return;
    wipe(shown);
    shown = text;
    _line->setText(fromUtf8(text)); // which also forgets what could be undone
}

// NumberField

NumberField::NumberField(Appearance &appearance, const QString &name, QWidget *parent) : QWidget(parent), _line(bareLine(name))
{
    constexpr int fieldWidth = 96;
    constexpr int mostDigits = std::numeric_limits<int>::digits10;
    _line->setMaxLength(mostDigits);
    _line->setAlignment(Qt::AlignRight);
    _line->setInputMethodHints(Qt::ImhDigitsOnly);
    _line->setValidator(new QRegularExpressionValidator(QRegularExpression(QStringLiteral("[0-9]*")), _line));
    _line->installEventFilter(this);
    auto *label = new Text(appearance, TypeSize::Body, Text::Tone::Main, QFont::Normal, this);
    label->setText(name);
    label->setWordWrap(true);
    FieldFrame *frame = framed(appearance, _line);
    frame->setFixedWidth(fieldWidth);
    auto *row = new QHBoxLayout(this);
    row->setContentsMargins(0, 0, 0, 0);
    row->setSpacing(16);
    row->addWidget(label, 1);
    row->addWidget(frame);
    write();
    connect(_line, &QLineEdit::textEdited, this, [this](const QString &text) {
        bool isNumber = false;
        const int typed = text.toInt(&isNumber);
        if (isNumber)
            edited(number = typed);
    });
}

void NumberField::show(int next)
{
    if (std::exchange(number, next) != next)
        write();
}

void NumberField::write()
{
    const QString text = QString::number(number);
    if (_line->text() != text)
        _line->setText(text);
}

bool NumberField::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::FocusOut)
        write();
    if (event->type() == QEvent::KeyPress) {
        const int key = static_cast<QKeyEvent *>(event)->key();
        const int step = key == Qt::Key_Up ? 1 : key == Qt::Key_Down && number > 0 ? -1 : 0;
        if (step != 0) {
            number += step;
            write();
            edited(number);
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}

// TextEditor

TextEditor::TextEditor(Appearance &appearance, const QString &name, Letters letters, int lines, QWidget *parent) :
    QWidget(parent), appearance(appearance), letters(letters), lines(lines), _editor(new QPlainTextEdit)
{
    _editor->setFrameShape(QFrame::NoFrame);
    _editor->setAccessibleName(name);
    _editor->setTabChangesFocus(true);
    _editor->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    _editor->viewport()->setAutoFillBackground(false);
    frame = new FieldFrame(appearance, _editor, {4, 4, 4, 4});
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->addWidget(frame);
    connect(_editor, &QPlainTextEdit::textChanged, this, [this] {
        if (writing)
            return;
        shown = _editor->toPlainText().toStdString();
        edited(shown);
    });
    connect(&appearance, &Appearance::changed, this, [this] { applyAppearance(); });
    applyAppearance();
}

void TextEditor::applyAppearance()
{
    QFont font = appearance.font(TypeSize::Body);
    if (letters == Letters::Code) {
        font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
        font.setPixelSize(appearance.font(TypeSize::Small).pixelSize());
    }
    _editor->setFont(font);
    const int margins = 8 + 2 * int(_editor->document()->documentMargin());
    frame->setFixedHeight(QFontMetrics(font).lineSpacing() * lines + margins);
    styleScrollBar(*_editor->verticalScrollBar(), appearance.theme());
}

void TextEditor::show(const std::string &text)
{
    if (text == shown)
        return;
    shown = text;
    writing = true;
    _editor->setPlainText(fromUtf8(text));
    writing = false;
}

} // namespace korvane
