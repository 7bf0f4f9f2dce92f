#include "tests/desktop/Gestures.h"

#include <QCoreApplication>
#include <QMouseEvent>
#include <QWidget>

namespace korvane::test {

void press(QWidget &target, Qt::Key key, Qt::KeyboardModifiers modifiers, const QString &text)
{
    pressNative(target, key, modifiers, 0, 0, text);
}

void pressNative(QWidget &target, Qt::Key key, Qt::KeyboardModifiers modifiers, std::uint32_t keysym, std::uint32_t scanCode,
    const QString &text)
{
    for (const auto kind : {QEvent::KeyPress, QEvent::KeyRelease}) {
        QKeyEvent event(kind, key, modifiers, scanCode, keysym, 0, text);
        QCoreApplication::sendEvent(&target, &event);
    }
}

void type(QWidget &target, const QString &text)
{
    for (const QChar c : text)
        press(target, Qt::Key(c.toUpper().unicode()), {}, QString(c));
}

void click(QWidget &target, const QPoint &place)
{
    for (const auto kind : {QEvent::MouseButtonPress, QEvent::MouseButtonRelease}) {
        QMouseEvent event(kind, QPointF(place), QPointF(target.mapToGlobal(place)), Qt::LeftButton,
            kind == QEvent::MouseButtonPress ? Qt::LeftButton : Qt::NoButton, Qt::NoModifier);
        QCoreApplication::sendEvent(&target, &event);
    }
}

void click(QWidget &target) { click(target, target.rect().center()); }

} // namespace korvane::test
