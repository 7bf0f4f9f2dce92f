#include "Vorrel/Views/SettingsParts.h"

#include "Vorrel/Views/Appearance.h"

#include <QHBoxLayout>
#include <QPainter>
#include <QVBoxLayout>

namespace korvane {

static constexpr int cardRadius = 10;
static constexpr int capsHeight = 20;

SettingsCard::SettingsCard(Appearance &appearance, Tone tone, QWidget *parent) :
    QWidget(parent), appearance(appearance), tone(tone), _column(new QVBoxLayout(this))
{
    _column->setContentsMargins(16, 12, 16, 16);
    _column->setSpacing(8);
}

Text &SettingsCard::addText(Text::Tone textTone, TypeSize size)
{
    auto *text = new Text(appearance, size, textTone, QFont::Normal, this);
    text->setWordWrap(true);
    _column->addWidget(text);
    return *text;
}

void SettingsCard::addRow(QWidget *label, QWidget *control)
{
    auto *row = new QHBoxLayout;
    row->setSpacing(16);
    row->addWidget(label, 1);
    row->addWidget(control);
    _column->addLayout(row);
}

void SettingsCard::addButtons(std::initializer_list<QWidget *> buttons)
{
    auto *row = new QHBoxLayout;
    row->setContentsMargins(0, 4, 0, 0);
    row->setSpacing(8);
    for (QWidget *button : buttons)
        row->addWidget(button);
    row->addStretch();
    _column->addLayout(row);
}

void SettingsCard::paintEvent(QPaintEvent *)
{
    const Theme &theme = appearance.theme();
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    if (tone == Tone::Warning)
        return fillRounded(painter, rect(), cardRadius, theme.warningGround);
    painter.setBrush(theme.raised);
    painter.setPen(QPen(theme.separator, 1));
    painter.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), cardRadius, cardRadius);
}

// ShortcutCaps

ShortcutCaps::ShortcutCaps(Appearance &appearance, QWidget *parent) : QWidget(parent), appearance(appearance)
{
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

void ShortcutCaps::show(const HotkeyConfiguration &shortcut)
{
    keys = keysOf(shortcut);
    setAccessibleName(nameOf(shortcut));
    updateGeometry();
    update();
}

QSize ShortcutCaps::sizeHint() const { return {keysWidth(appearance, keys), capsHeight}; }

void ShortcutCaps::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    drawKeys(painter, appearance, keys, QPoint(0, height() / 2));
}

} // namespace korvane
