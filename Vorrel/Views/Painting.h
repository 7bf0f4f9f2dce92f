#pragma once

#include <QRect>
#include <QStringList>

class QPainter;
class QScrollBar;
class QColor;

namespace korvane {

class Appearance;
struct Theme;

/// The grid that all parts of the palette keep: steps of four units.
namespace Metrics {
inline constexpr int margin = 20; ///< From the palette's edge to what it shows.
inline constexpr int listMargin = 8; ///< From the palette's edge to a row's ground.
inline constexpr int radius = 14; ///< Of the palette's corners.
} // namespace Metrics

void fillRounded(QPainter &painter, const QRectF &place, qreal radius, const QColor &color);

/// Keys as small caps, each in its own frame.
int keysWidth(const Appearance &appearance, const QStringList &keys);
/// `start`: left end and vertical centre. The painter antialiases.
void drawKeys(QPainter &painter, const Appearance &appearance, const QStringList &keys, const QPoint &start);

/// A thin bar without a ground and arrows.
void styleScrollBar(QScrollBar &bar, const Theme &theme);

} // namespace korvane
