#pragma once

#include <QKeyEvent>
#include <QPoint>
#include <QString>

class QWidget;

/// What a user does to a widget, as events of the toolkit.
namespace korvane::test {

void press(QWidget &target, Qt::Key key, Qt::KeyboardModifiers modifiers = {}, const QString &text = {});
/// A key with the numbers that an X server gives it: its name, and its place on the keyboard plus 8.
void pressNative(QWidget &target, Qt::Key key, Qt::KeyboardModifiers modifiers, std::uint32_t keysym, std::uint32_t scanCode,
    const QString &text = {});
void type(QWidget &target, const QString &text);
void click(QWidget &target, const QPoint &place);
/// In the middle.
void click(QWidget &target);

} // namespace korvane::test
