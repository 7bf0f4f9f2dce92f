#include "Vorrel/Views/SettingsParts.h"

#include "Vorrel/Views/Appearance.h"
#include "Vorrel/Views/TextLine.h"

#include <QHBoxLayout>
#include <QHelpEvent>
#include <QKeySequence>
#include <QPainter>
#include <QScrollArea>
#include <QScrollBar>
#include <QVBoxLayout>

#include <algorithm>

namespace korvane {

static constexpr int cardRadius = 10;
static constexpr int capsHeight = 20;

SettingsCard::SettingsCard(Appearance &appearance, Tone tone, QWidget *parent) :
    QWidget(parent), appearance(appearance), tone(tone), _column(new QVBoxLayout(this))
{
    _column->setContentsMargins(16, 12, 16, 16);
    _column->setSpacing(8);
}

Text &SettingsCard::addHeading(const QString &words)
{
    auto *text = new Text(appearance, TypeSize::Title, Text::Tone::Main, QFont::DemiBold, this);
    text->setText(words);
    text->setWordWrap(true);
    _column->addWidget(text);
    return *text;
}

Text &SettingsCard::addNote(const QString &words)
{
    Text &text = addText(Text::Tone::Secondary, TypeSize::Small);
    text.setText(words);
    return text;
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

FlatButton *makeButton(
    Appearance &appearance, IconStore &icons, const QString &text, const std::function<void()> &pressed, FlatButton::Style style)
{
    auto *button = new FlatButton(appearance, icons, style);
    button->setText(text);
    button->setShortcut(QKeySequence());
    button->setAccessibleName(text);
    QObject::connect(button, &QAbstractButton::clicked, button, pressed);
    return button;
}

QScrollArea *makeScrollArea(QWidget *inside, Appearance &appearance)
{
    auto *area = new QScrollArea;
    area->setWidget(inside);
    area->setWidgetResizable(true);
    area->setFrameShape(QFrame::NoFrame);
    area->setFocusPolicy(Qt::NoFocus);
    area->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    inside->setAutoFillBackground(false);
    area->viewport()->setAutoFillBackground(false);

    QScrollBar *bar = area->verticalScrollBar();
    const QMargins margins = inside->layout()->contentsMargins();
    QObject::connect(bar, &QScrollBar::rangeChanged, inside, [inside, bar, margins](int, int last) {
        QMargins beside = margins;
        if (last > 0)
            beside.setRight(margins.right() - bar->sizeHint().width());
        inside->layout()->setContentsMargins(beside);
    });
    const auto style = [bar, &appearance] { styleScrollBar(*bar, appearance.theme()); };
    QObject::connect(&appearance, &Appearance::changed, bar, style);
    style();
    return area;
}

// ElidedText

ElidedText::ElidedText(Appearance &appearance, TypeSize size, Text::Tone tone, QWidget *parent) :
    Text(appearance, size, tone, QFont::Normal, parent)
{
    setAttribute(Qt::WA_TransparentForMouseEvents, false); // for the tool tip
}

QSize ElidedText::sizeHint() const { return {textLine::width(font(), text()), QFontMetrics(font()).height()}; }

void ElidedText::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setPen(palette().color(QPalette::WindowText));
    const int baseline = (height() + QFontMetrics(font()).capHeight()) / 2;
    textLine::draw(painter, font(), QPoint(0, baseline), text(), width(), Qt::ElideMiddle);
}

bool ElidedText::event(QEvent *event)
{
    if (event->type() == QEvent::ToolTip)
        setToolTip(width() < sizeHint().width() ? text().toHtmlEscaped() : QString());
    return Text::event(event);
}

// SettingsRows

static constexpr int rowIconSize = 18;

SettingsRows::SettingsRows(Appearance &appearance, IconStore &icons, QWidget *parent) :
    QWidget(parent), appearance(appearance), icons(icons)
{
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(12);
    hide();
}

std::vector<FlatButton *> SettingsRows::buttons() const
{
    std::vector<FlatButton *> all;
    for (const Shown &shown : rows)
        all.insert(all.end(), shown.buttons.begin(), shown.buttons.end());
    return all;
}

bool SettingsRows::showsSame(const std::vector<Row> &next) const
{
    return std::ranges::equal(
        rows, next, {}, [](const Shown &shown) { return shown.row.key; }, &Row::key);
}

void SettingsRows::show(std::vector<Row> next)
{
    if (showsSame(next)) {
        for (std::size_t i = 0; i < next.size(); i++) {
            rows[i].row = std::move(next[i]);
            write(rows[i]);
        }
        return;
    }
    const auto before = buttons();
    const auto focused = std::ranges::find_if(before, [](const FlatButton *button) { return button->hasFocus(); });
    const auto place = focused - before.begin();
    std::vector<QWidget *> old;
    for (const Shown &shown : rows)
        old.push_back(shown.whole);
    rows.clear();
    for (Row &row : next)
        make(std::move(row));
    const auto after = buttons();
    if (focused != before.end() && !after.empty())
        after[std::min(std::size_t(place), after.size() - 1)]->setFocus(Qt::OtherFocusReason);
    for (QWidget *whole : old) {
        whole->hide();
        whole->deleteLater();
    }
    setVisible(!rows.empty());
}

void SettingsRows::make(Row row)
{
    auto *whole = new QWidget(this);
    Shown shown{.row = std::move(row),
        .whole = whole,
        .icon = new ResultIcon(icons, rowIconSize, whole),
        .title = new ElidedText(appearance, TypeSize::Body, Text::Tone::Main, whole),
        .subtitle = new ElidedText(appearance, TypeSize::Small, Text::Tone::Secondary, whole),
        .buttons = {}};
    auto *words = new QVBoxLayout;
    words->setSpacing(2);
    words->addWidget(shown.title);
    words->addWidget(shown.subtitle);
    auto *line = new QHBoxLayout(whole);
    line->setContentsMargins(0, 0, 0, 0);
    line->setSpacing(8);
    line->addWidget(shown.icon);
    line->addSpacing(4);
    line->addLayout(words, 1);
    for (std::size_t i = 0; i < shown.row.actions.size(); i++) {
        const Action &action = shown.row.actions[i];
        const auto run = [this, number = rows.size(), i] {
            const auto chosen = rows[number].row.actions[i].run; // what it does may change the rows
            chosen();
        };
        FlatButton *button = makeButton(
            appearance, icons, action.text, run, action.text.isEmpty() ? FlatButton::Style::Quiet : FlatButton::Style::Filled);
        if (!action.symbol.empty())
            button->setSymbol(action.symbol);
        if (action.text.isEmpty()) {
            button->setAccessibleName(action.name);
            button->setToolTip(action.name);
        }
        line->addWidget(button);
        shown.buttons.push_back(button);
    }
    layout()->addWidget(whole);
    rows.push_back(std::move(shown));
    write(rows.back());
}

void SettingsRows::write(Shown &shown)
{
    shown.icon->show(shown.row.symbol, appearance.theme().secondary);
    shown.title->setText(shown.row.title);
    shown.subtitle->setText(shown.row.subtitle);
    shown.subtitle->setVisible(!shown.row.subtitle.isEmpty());
    for (FlatButton *button : shown.buttons)
        button->setAccessibleDescription(shown.row.title); // tells equal buttons of several rows apart
}

void SettingsRows::applyAppearance()
{
    for (Shown &shown : rows)
        write(shown);
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
