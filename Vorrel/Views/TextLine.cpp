#include "Vorrel/Views/TextLine.h"

#include <QCache>
#include <QFontMetrics>
#include <QPainter>
#include <QStaticText>
#include <QTextLayout>
#include <QWidget>

namespace korvane::textLine {

namespace {

constexpr int unlimited = QWIDGETSIZE_MAX;
constexpr qsizetype mostLetters = 64 * 1024; // about two megabytes of laid-out text
constexpr qsizetype costOfLine = 64; // in letters, beside its own

struct Key {
    QFont font;
    QString text;
    int room;
    Qt::TextElideMode elide;
    bool operator==(const Key &) const = default;
};

size_t qHash(const Key &key, size_t seed) { return qHashMulti(seed, key.font, key.text, key.room, int(key.elide)); }

struct Line {
    QStaticText letters;
    int width, height;
    int fontAscent;
    qreal ascent; ///< Of the tallest font in it.
};

QCache<Key, Line> &lines()
{
    static QCache<Key, Line> cache(mostLetters);
    return cache;
}

/// From the top of the laid-out text to its baseline. Letters of another script may bring a taller font along.
qreal ascentOf(const QFont &font, const QString &text)
{
    QTextLayout layout(text, font);
    layout.beginLayout();
    const QTextLine line = layout.createLine();
    layout.endLayout();
    return line.isValid() ? line.ascent() : 0;
}

const Line &lineFor(const Key &key)
{
    if (const Line *known = lines().object(key))
        return *known;
    const QFontMetrics metrics(key.font);
    const QString text = key.room == unlimited ? key.text : metrics.elidedText(key.text, key.elide, key.room);
    auto *line = new Line{
        QStaticText(text), metrics.horizontalAdvance(text), metrics.height(), metrics.ascent(), ascentOf(key.font, text)};
    line->letters.setTextFormat(Qt::PlainText);
    line->letters.prepare({}, key.font);
    lines().insert(key, line, std::min(costOfLine + text.size(), mostLetters));
    return *line;
}

} // namespace

int width(const QFont &font, const QString &text) { return lineFor({font, text, unlimited, Qt::ElideRight}).width; }

void draw(QPainter &painter, const QFont &font, const QPoint &baseline, const QString &text, int room, Qt::TextElideMode elide)
{
    const bool fits = width(font, text) <= room;
    const Line &line = lineFor({font, text, fits ? unlimited : room, fits ? Qt::ElideRight : elide});
    painter.setFont(font);
    painter.drawStaticText(QPointF(baseline.x(), baseline.y() - line.ascent), line.letters);
}

int drawLeft(QPainter &painter, const QFont &font, const QRectF &place, const QString &text)
{
    const Line &line = lineFor({font, text, unlimited, Qt::ElideRight});
    painter.setFont(font);
    const int top = qRound(place.center().y() - line.height / 2.0);
    painter.drawStaticText(QPointF(place.left(), top + line.fontAscent - line.ascent), line.letters);
    return line.width;
}

void drawCentred(QPainter &painter, const QFont &font, const QRectF &place, const QString &text)
{
    const qreal left = place.center().x() - width(font, text) / 2.0;
    drawLeft(painter, font, QRectF(left, place.top(), place.width(), place.height()), text);
}

} // namespace korvane::textLine
