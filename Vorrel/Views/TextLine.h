#pragma once

#include <QFont>
#include <QString>

class QPainter;
class QPoint;
class QRectF;

/// Single lines of plain text, laid out once for as long as they are shown now and then: finding the shapes and places of
/// letters costs several times what drawing them does, and most lines of one picture stand in the next one too.
/// Main thread only. The lines that were not used for the longest time are forgotten.
namespace korvane::textLine {

/// How wide the text is, in units of the layout, rounded up.
int width(const QFont &font, const QString &text);

/// Draws the text from `baseline` on in the painter's pen. More than `room` units of it are cut by an ellipsis as `elide`
/// says.
void draw(QPainter &painter, const QFont &font, const QPoint &baseline, const QString &text, int room,
    Qt::TextElideMode elide = Qt::ElideRight);

/// Draws the text from the left of `place`, half way up, whole. Gives how wide it is.
int drawLeft(QPainter &painter, const QFont &font, const QRectF &place, const QString &text);

/// Draws the text in the middle of `place`, whole.
void drawCentred(QPainter &painter, const QFont &font, const QRectF &place, const QString &text);

} // namespace korvane::textLine
