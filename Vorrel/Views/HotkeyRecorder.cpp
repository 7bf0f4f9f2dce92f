#include "Vorrel/Views/HotkeyRecorder.h"

#include "Vorrel/Shell/L10n.h"
#include "Vorrel/Views/Appearance.h"
#include "Vorrel/Views/KeyEvents.h"
#include "Vorrel/Views/Painting.h"
#include "Vorrel/Views/ViewText.h"

#include <QAccessible>
#include <QKeyEvent>
#include <QPainter>

namespace korvane {

static constexpr int recorderHeight = 32;
static constexpr int sidePadding = 12;
static constexpr int partGap = 10; // between the keys and the word

HotkeyRecorder::HotkeyRecorder(Appearance &appearance, QWidget *parent) : QAbstractButton(parent), appearance(appearance)
{
    setFocusPolicy(Qt::StrongFocus);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    setAccessibleName(fromUtf8(L10n::shown("Record global shortcut")));
    say(restingTitle());
    connect(this, &QAbstractButton::clicked, this, &HotkeyRecorder::beginRecording);
}

HotkeyRecorder::~HotkeyRecorder() { finish(); }

QString HotkeyRecorder::restingTitle() const
{
    return nameOf(configuration) + QStringLiteral(" · ") + fromUtf8(L10n::shown("Record…"));
}

void HotkeyRecorder::say(const QString &title)
{
    setText(title);
    setAccessibleDescription(title);
    updateGeometry();
    update();
}

void HotkeyRecorder::show(const HotkeyConfiguration &next)
{
    configuration = next;
    if (!_recording)
        say(restingTitle());
}

void HotkeyRecorder::request(int number)
{
    const auto before = std::exchange(lastRequest, number);
    if (before && before != number && isVisible())
        beginRecording();
}

void HotkeyRecorder::beginRecording()
{
    if (_recording)
        return finish();
    _recording = true;
    say(fromUtf8(L10n::shown("Press shortcut… (Esc cancels)")));
    setFocus(Qt::OtherFocusReason);
    recordingChanged(true);
}

void HotkeyRecorder::finish()
{
    if (!std::exchange(_recording, false))
        return;
    say(restingTitle());
    recordingChanged(false);
}

void HotkeyRecorder::record(const QKeyEvent &key)
{
    const auto pressed = hotkeyOf(key);
    if (!pressed)
        return; // a modifier that waits for its key
    if (pressed->keyCode == HotkeyConfiguration::escapeKey)
        return finish();
    if (!pressed->valid())
        return say(fromUtf8(L10n::shown("Include ⌘, ⌥ or ⌃ (Esc cancels)")));
    configuration = *pressed;
    changed(configuration);
    finish();
}

bool HotkeyRecorder::event(QEvent *event)
{
    if (_recording) {
        switch (event->type()) {
        case QEvent::ShortcutOverride: // no menu and no default button acts on a key that is being recorded
            event->accept();
            return true;
        case QEvent::KeyPress: // Tab as well, before it could move the keyboard
            record(static_cast<const QKeyEvent &>(*event));
            event->accept();
            return true;
        case QEvent::KeyRelease: event->accept(); return true;
        default: break;
        }
    }
    if (event->type() == QEvent::KeyPress) {
        const int key = static_cast<QKeyEvent *>(event)->key();
        if (key == Qt::Key_Return || key == Qt::Key_Enter) {
            click();
            return true;
        }
    }
    return QAbstractButton::event(event);
}

void HotkeyRecorder::focusOutEvent(QFocusEvent *event)
{
    QAbstractButton::focusOutEvent(event);
    finish();
}

void HotkeyRecorder::hideEvent(QHideEvent *event)
{
    QAbstractButton::hideEvent(event);
    finish();
}

void HotkeyRecorder::changeEvent(QEvent *event)
{
    QAbstractButton::changeEvent(event);
    if (event->type() == QEvent::ActivationChange && !isActiveWindow())
        finish();
}

QSize HotkeyRecorder::sizeHint() const
{
    const QFontMetrics metrics(appearance.font(TypeSize::Small, QFont::Medium));
    const int title = metrics.horizontalAdvance(text());
    const int resting =
        keysWidth(appearance, keysOf(configuration)) + partGap + metrics.horizontalAdvance(fromUtf8(L10n::shown("Record…")));
    return {2 * sidePadding + (_recording ? title : resting), recorderHeight};
}

void HotkeyRecorder::paintEvent(QPaintEvent *)
{
    const Theme &theme = appearance.theme();
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    fillRounded(painter, rect(), 7, _recording ? theme.selection : theme.keyGround);
    if (underMouse() && !_recording)
        fillRounded(painter, rect(), 7, theme.hover);
    if (hasFocus() || _recording) {
        painter.setPen(QPen(theme.accent, 1.5));
        painter.drawRoundedRect(QRectF(rect()).adjusted(0.75, 0.75, -0.75, -0.75), 6.5, 6.5);
    }
    const QFont font = appearance.font(TypeSize::Small, QFont::Medium);
    painter.setFont(font);
    if (_recording) {
        painter.setPen(theme.accent);
        painter.drawText(rect(), Qt::AlignCenter | Qt::TextSingleLine, text());
        return;
    }
    const QStringList keys = keysOf(configuration);
    drawKeys(painter, appearance, keys, QPoint(sidePadding, height() / 2));
    const int left = sidePadding + keysWidth(appearance, keys) + partGap;
    painter.setFont(font);
    painter.setPen(theme.text);
    painter.drawText(rect().adjusted(left, 0, 0, 0), Qt::AlignVCenter | Qt::TextSingleLine, fromUtf8(L10n::shown("Record…")));
}

} // namespace korvane
