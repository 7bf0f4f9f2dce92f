#include "Vorrel/Views/Painting.h"

#include "Vorrel/Views/Appearance.h"
#include "Vorrel/Views/TextLine.h"

#include <QPainter>
#include <QScrollBar>

namespace korvane {

static constexpr int keyHeight = 18;
static constexpr int keyPadding = 5;
static constexpr int keyGap = 3;

void fillRounded(QPainter &painter, const QRectF &place, qreal radius, const QColor &color)
{
    painter.setPen(Qt::NoPen);
    painter.setBrush(color);
    painter.drawRoundedRect(place, radius, radius);
    painter.setBrush(Qt::NoBrush);
}

static int keyWidth(const QFont &font, const QString &key)
{
    return std::max(keyHeight, textLine::width(font, key) + 2 * keyPadding);
}

int keysWidth(const Appearance &appearance, const QStringList &keys)
{
    const QFont font = appearance.font(TypeSize::Caption);
    int width = keys.isEmpty() ? 0 : -keyGap;
    for (const QString &key : keys)
        width += keyWidth(font, key) + keyGap;
    return width;
}

void drawKeys(QPainter &painter, const Appearance &appearance, const QStringList &keys, const QPoint &start)
{
    const Theme &theme = appearance.theme();
    const QFont font = appearance.font(TypeSize::Caption);
    int x = start.x();
    for (const QString &key : keys) {
        const QRectF cap(x, start.y() - keyHeight / 2, keyWidth(font, key), keyHeight);
        painter.setPen(QPen(theme.keyBorder, 1));
        painter.setBrush(theme.keyGround);
        painter.drawRoundedRect(cap.adjusted(0.5, 0.5, -0.5, -0.5), 4.5, 4.5);
        painter.setBrush(Qt::NoBrush);
        painter.setPen(theme.secondary);
        textLine::drawCentred(painter, font, cap, key);
        x += keyWidth(font, key) + keyGap;
    }
}

void styleScrollBar(QScrollBar &bar, const Theme &theme)
{
    const QString thumb = theme.dark ? QStringLiteral("rgba(255,255,255,44)") : QStringLiteral("rgba(0,0,0,40)");
    bar.setStyleSheet(QStringLiteral("QScrollBar:vertical{background:transparent;border:none;width:8px;margin:4px 2px}"
                                     "QScrollBar::handle:vertical{background:%1;border-radius:3px;min-height:32px}"
                                     "QScrollBar::add-line,QScrollBar::sub-line{height:0;border:none}"
                                     "QScrollBar::add-page,QScrollBar::sub-page{background:transparent}")
                          .arg(thumb));
}

} // namespace korvane
