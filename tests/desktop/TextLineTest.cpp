// Lines that are laid out once look as if they were laid out each time.
#include "Vorrel/Views/TextLine.h"

#include <gtest/gtest.h>

#include <QFontMetrics>
#include <QImage>
#include <QPainter>

#include <functional>

namespace korvane::test {

namespace {

QImage pictureOf(const std::function<void(QPainter &)> &draw)
{
    QImage image(300, 40, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::white);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::black);
    draw(painter);
    return image;
}

QFont letters(int size)
{
    QFont font;
    font.setPixelSize(size);
    font.setHintingPreference(QFont::PreferNoHinting);
    return font;
}

const QPoint baseline(10, 25);

} // namespace

TEST(TextLine, LooksAsTheToolkitDrawsItTheFirstTimeAndTheNext)
{
    for (const char *text : {"Zebra 12", "Übergröße – AVA", "设置", "שלום", "e\u0301 🇩🇪"}) {
        const QString line = QString::fromUtf8(text);
        const QFont font = letters(14);
        const QImage plain = pictureOf([&](QPainter &painter) {
            painter.setFont(font);
            painter.drawText(baseline, line);
        });
        for (int time = 0; time < 2; time++)
            EXPECT_EQ(pictureOf([&](QPainter &painter) { textLine::draw(painter, font, baseline, line, 280); }), plain)
                << text << ", time " << time;
        EXPECT_EQ(textLine::width(font, line), QFontMetrics(font).horizontalAdvance(line)) << text;
    }
}

TEST(TextLine, WhatIsWiderThanItsRoomIsCutWhereItWasAsked)
{
    const QFont font = letters(14);
    const QString path = "/home/user/a/rather/long/path/to/a/file.txt";
    const int whole = textLine::width(font, path);
    for (const auto elide : {Qt::ElideRight, Qt::ElideMiddle}) {
        const QImage plain = pictureOf([&](QPainter &painter) {
            painter.setFont(font);
            painter.drawText(baseline, QFontMetrics(font).elidedText(path, elide, whole - 1));
        });
        EXPECT_EQ(pictureOf([&](QPainter &painter) { textLine::draw(painter, font, baseline, path, whole - 1, elide); }), plain);
    }
    const auto drawn = [&](int room) {
        return pictureOf([&](QPainter &painter) { textLine::draw(painter, font, baseline, path, room); });
    };
    EXPECT_EQ(drawn(whole), drawn(2 * whole)) << "what just fits is whole";
    EXPECT_NE(drawn(whole), drawn(whole - 1));
}

TEST(TextLine, TheSameTextInAnotherFontIsAnotherLine)
{
    const QString text = "Same";
    EXPECT_LT(textLine::width(letters(12), text), textLine::width(letters(21), text));
    QFont heavy = letters(12);
    heavy.setWeight(QFont::Bold);
    const auto drawn = [&](const QFont &font) {
        return pictureOf([&](QPainter &painter) { textLine::draw(painter, font, baseline, text, 280); });
    };
    EXPECT_NE(drawn(letters(12)), drawn(heavy));
}

TEST(TextLine, StandsInTheMiddleOfItsPlace)
{
    const QImage image =
        pictureOf([&](QPainter &painter) { textLine::drawCentred(painter, letters(14), QRectF(100, 0, 100, 40), "HHH"); });
    int first = image.width(), last = -1;
    for (int x = 0; x < image.width(); x++)
        for (int y = 0; y < image.height(); y++)
            if (image.pixelColor(x, y).lightness() < 128)
                first = std::min(first, x), last = std::max(last, x);
    EXPECT_NEAR((first + last) / 2.0, 150, 1.5);
}

} // namespace korvane::test
