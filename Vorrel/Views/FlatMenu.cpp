#include "Vorrel/Views/FlatMenu.h"

#include "Vorrel/Views/Appearance.h"
#include "Vorrel/Views/IconStore.h"
#include "Vorrel/Views/X11Window.h"

#include <QCoreApplication>
#include <QKeyEvent>
#include <QPainter>
#include <QPainterPath>

namespace korvane {

static constexpr int menuRadius = 10;
static constexpr int menuPadding = 4;
static constexpr int entryLeft = 32; // where texts begin, behind the mark
static constexpr int entryRight = 20;
static constexpr int markSize = 14;

FlatMenu::FlatMenu(Appearance &appearance, IconStore &icons, QWidget *owner) :
    QMenu(owner), appearance(appearance), icons(icons), owner(owner)
{
    setWindowFlag(Qt::FramelessWindowHint);
    setWindowFlag(Qt::NoDropShadowWindowHint);
    setAttribute(Qt::WA_TranslucentBackground);
}

void FlatMenu::applyAppearance()
{
    setFont(appearance.font(TypeSize::Small));
    // The style sheet gives the places alone; everything is drawn here.
    setStyleSheet(QStringLiteral("QMenu{background:transparent;border:none;padding:%1px}"
                                 "QMenu::item{padding:6px %2px 6px %3px}"
                                 "QMenu::indicator{width:0;height:0}")
                      .arg(menuPadding)
                      .arg(entryRight)
                      .arg(entryLeft));
}

void FlatMenu::open()
{
    applyAppearance();
    popup(owner->mapToGlobal(QPoint(0, owner->height() + 4)));
    const QList<QAction *> entries = actions();
    const auto marked = std::find_if(entries.begin(), entries.end(), [](const QAction *entry) { return entry->isChecked(); });
    setActiveAction(marked != entries.end() ? *marked : entries.value(0));
}

bool FlatMenu::event(QEvent *event)
{
    // A letter is no shortcut of some window while the menu stands.
    if (event->type() == QEvent::ShortcutOverride)
        event->accept();
    return QMenu::event(event);
}

void FlatMenu::keyPressEvent(QKeyEvent *event)
{
    const QString text = event->text();
    const bool letter = !text.isEmpty() && text.front().isPrint() && event->key() != Qt::Key_Space;
    if (!letter || event->modifiers() & (Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier))
        return QMenu::keyPressEvent(event);
    close();
    QWidget *const behind = owner->window()->focusWidget();
    QCoreApplication::sendEvent(behind ? behind : owner, event);
}

void FlatMenu::resizeEvent(QResizeEvent *event)
{
    QMenu::resizeEvent(event);
    if (x11::compositorRuns())
        return clearMask();
    QPainterPath outline;
    outline.addRoundedRect(rect(), menuRadius, menuRadius);
    setMask(outline.toFillPolygon().toPolygon());
}

void FlatMenu::paintEvent(QPaintEvent *)
{
    const Theme &theme = appearance.theme();
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setBrush(theme.raised);
    painter.setPen(QPen(theme.border, 1));
    painter.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), menuRadius - 0.5, menuRadius - 0.5);
    painter.setFont(font());
    for (QAction *entry : actions()) {
        const QRect place = actionGeometry(entry);
        if (entry == activeAction())
            fillRounded(painter, place, menuRadius - menuPadding, theme.selection);
        if (entry->isChecked())
            painter.drawPixmap(place.left() + 10, place.center().y() + 1 - markSize / 2,
                icons.symbol("checkmark", markSize, devicePixelRatioF(), theme.accent));
        painter.setPen(theme.text);
        painter.drawText(place.adjusted(entryLeft, 0, 0, 0), Qt::AlignVCenter | Qt::TextSingleLine, entry->data().toString());
    }
}

// Picker

Picker::Picker(Appearance &appearance, IconStore &icons, const QString &caption, QWidget *parent) :
    FlatButton(appearance, icons, Style::Filled, parent), caption(caption), _menu(new FlatMenu(appearance, icons, this))
{
    setCaption(caption);
    setOpensMenu(true);
    connect(this, &QAbstractButton::clicked, _menu, &FlatMenu::open);
}

void Picker::addEntry(const QString &text, std::function<void()> chosen)
{
    // An ampersand in a text is no mnemonic.
    QAction *entry = _menu->addAction(QString(text).replace(u'&', QLatin1String("&&")), this, std::move(chosen));
    entry->setData(text);
    entry->setCheckable(true);
}

void Picker::show(int index, const QString &text)
{
    const QList<QAction *> entries = _menu->actions();
    for (int i = 0; i < entries.size(); i++)
        entries[i]->setChecked(i == index);
    const QString value = text.isEmpty() && index >= 0 ? entries.value(index)->data().toString() : text;
    if (value == this->text())
        return;
    setText(value);
    setAccessibleName(caption.isEmpty() ? value : caption + QStringLiteral(": ") + value);
}

void Picker::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Down || event->key() == Qt::Key_Space)
        click();
    else
        FlatButton::keyPressEvent(event);
}

} // namespace korvane
