#include "Vorrel/Views/RowList.h"

#include "Vorrel/Views/Appearance.h"
#include "Vorrel/Views/IconStore.h"
#include "Vorrel/Views/Painting.h"
#include "Vorrel/Views/TextLine.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QMouseEvent>
#include <QPainter>
#include <QScrollBar>

#include <algorithm>

namespace korvane {

static constexpr int rowHeight = 40;
static constexpr int headHeight = 28;
static constexpr int padding = 4; // above the first and below the last row
static constexpr int iconSize = 24;
static constexpr int glyphSize = 16;
static constexpr int badgeHeight = 18;
static constexpr int rowInset = 12; // from the row's edge to what it shows

// For screen readers

namespace {

/// One row. It stands for a place in the list: what it says follows the list.
class RowAccessible : public QAccessibleInterface {
public:
    RowAccessible(RowList *list, int row) : list(list), row(row) { }

    bool isValid() const override { return list && row < list->count(); }
    QObject *object() const override { return nullptr; }
    QAccessibleInterface *parent() const override { return QAccessible::queryAccessibleInterface(list); }
    QAccessibleInterface *child(int) const override { return nullptr; }
    int childCount() const override { return 0; }
    int indexOfChild(const QAccessibleInterface *) const override { return -1; }
    QAccessibleInterface *childAt(int, int) const override { return nullptr; }
    QAccessible::Role role() const override { return QAccessible::ListItem; }
    void setText(QAccessible::Text, const QString &) override { }

    QString text(QAccessible::Text kind) const override
    {
        if (!isValid())
            return {};
        const RowFace face = list->face(row);
        if (kind == QAccessible::Name)
            return face.subtitle.isEmpty() ? face.title : face.title + QStringLiteral(", ") + face.subtitle;
        if (kind == QAccessible::Description)
            return face.badge;
        if (kind == QAccessible::Accelerator)
            return face.keys.join(u'+');
        return {};
    }
    QRect rect() const override
    {
        if (!isValid())
            return {};
        const QRect place = list->rowRect(row);
        return {list->viewport()->mapToGlobal(place.topLeft()), place.size()};
    }
    QAccessible::State state() const override
    {
        QAccessible::State state;
        if (!isValid()) {
            state.invalid = true;
            return state;
        }
        state.selectable = true;
        state.focusable = true;
        state.selected = row == list->selection();
        state.active = state.selected;
        state.focused = state.selected && list->window()->isActiveWindow();
        state.offscreen = !list->viewport()->rect().intersects(list->rowRect(row));
        state.invisible = !list->isVisible();
        return state;
    }

private:
    QPointer<RowList> list;
    int row;
};

class RowListAccessible : public QAccessibleWidget {
public:
    explicit RowListAccessible(RowList *list) : QAccessibleWidget(list, QAccessible::List) { }
    ~RowListAccessible() override
    {
        for (const QAccessible::Id id : items)
            QAccessible::deleteAccessibleInterface(id);
    }

    int childCount() const override { return list() ? list()->count() : 0; }
    QAccessibleInterface *child(int index) const override
    {
        if (index < 0 || index >= childCount())
            return nullptr;
        if (const auto known = items.constFind(index); known != items.constEnd())
            return QAccessible::accessibleInterface(*known);
        auto *item = new RowAccessible(list(), index);
        items.insert(index, QAccessible::registerAccessibleInterface(item));
        return item;
    }
    int indexOfChild(const QAccessibleInterface *child) const override
    {
        return items.key(QAccessible::uniqueId(const_cast<QAccessibleInterface *>(child)), -1);
    }
    QAccessibleInterface *childAt(int x, int y) const override
    {
        return list() ? child(list()->rowAt(list()->viewport()->mapFromGlobal(QPoint(x, y)))) : nullptr;
    }
    QAccessibleInterface *focusChild() const override { return list() ? child(list()->selection()) : nullptr; }
    QString text(QAccessible::Text kind) const override
    {
        return kind == QAccessible::Name ? object()->property("accessibleName").toString() : QAccessibleWidget::text(kind);
    }

private:
    RowList *list() const { return qobject_cast<RowList *>(object()); }

    mutable QHash<int, QAccessible::Id> items; // by row
};

QAccessibleInterface *makeAccessible(const QString &name, QObject *object)
{
    if (name != QLatin1String(RowList::staticMetaObject.className()))
        return nullptr;
    auto *list = qobject_cast<RowList *>(object);
    return list ? new RowListAccessible(list) : nullptr;
}

} // namespace

// The list

RowList::RowList(Appearance &appearance, IconStore &icons, QWidget *parent) :
    QAbstractScrollArea(parent), appearance(appearance), icons(icons)
{
    static const bool installed = [] {
        QAccessible::installFactory(makeAccessible);
        return true;
    }();
    (void)installed;

    setFrameShape(QFrame::NoFrame);
    setFocusPolicy(Qt::NoFocus);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    viewport()->setAutoFillBackground(false);
    viewport()->setMouseTracking(true);
    verticalScrollBar()->setSingleStep(rowHeight);
    applyAppearance();
}

void RowList::applyAppearance()
{
    styleScrollBar(*verticalScrollBar(), appearance.theme());
    viewport()->update();
}

int RowList::sectionOf(int row) const
{
    const auto after = std::upper_bound(
        sections.begin(), sections.end(), row, [](int value, const Section &section) { return value < section.first; });
    return int(after - sections.begin()) - 1;
}

bool RowList::startsSection(int row) const
{
    const int section = sectionOf(row);
    return section >= 0 && sections[std::size_t(section)].first == row;
}

int RowList::topOf(int row) const { return padding + row * rowHeight + (sectionOf(row) + 1) * headHeight; }

int RowList::contentHeight() const { return rows == 0 ? 0 : topOf(rows - 1) + rowHeight + padding; }

QRect RowList::rowRect(int row) const
{
    // The scroll bar stands in the margin, so that rows are equally wide with and without it.
    return {Metrics::listMargin, topOf(row) - verticalScrollBar()->value(), width() - 2 * Metrics::listMargin, rowHeight};
}

int RowList::lastRowAbove(int y) const
{
    int low = 0, high = rows;
    while (low < high) {
        const int middle = (low + high) / 2;
        if (topOf(middle) <= y)
            low = middle + 1;
        else
            high = middle;
    }
    return low - 1;
}

int RowList::rowAfter(QAbstractSlider::SliderAction action) const
{
    const int page = std::max(1, viewport()->height() / rowHeight);
    const int step = action == QAbstractSlider::SliderPageStepAdd ? page
        : action == QAbstractSlider::SliderPageStepSub            ? -page
        : action == QAbstractSlider::SliderToMaximum              ? rows
                                                                  : -rows;
    return std::min(std::max(selected + step, 0), rows - 1);
}

int RowList::rowAt(const QPoint &place) const
{
    const int row = lastRowAbove(place.y() + verticalScrollBar()->value());
    return row >= 0 && rowRect(row).contains(place) ? row : -1;
}

void RowList::fitScrollBar()
{
    verticalScrollBar()->setPageStep(viewport()->height());
    verticalScrollBar()->setRange(0, std::max(0, contentHeight() - viewport()->height()));
}

void RowList::reveal(int row)
{
    if (row < 0)
        return;
    // The first row of a section brings its head along, and the very first the top of the list.
    const int top = row == 0 ? 0 : topOf(row) - (startsSection(row) ? headHeight : 0);
    const int bottom = topOf(row) + rowHeight + padding;
    const int now = verticalScrollBar()->value();
    if (top < now)
        verticalScrollBar()->setValue(top);
    else if (bottom > now + viewport()->height())
        verticalScrollBar()->setValue(bottom - viewport()->height());
}

void RowList::showRows(int count, std::vector<Section> heads, int selection)
{
    rows = count;
    sections = std::move(heads);
    selected = selection >= 0 && selection < rows ? selection : -1;
    hovered = pressed = -1;
    fitScrollBar();
    if (selected >= 0)
        reveal(selected);
    viewport()->update();
    if (QAccessible::isActive()) {
        QAccessibleEvent event(this, QAccessible::ObjectReorder);
        QAccessible::updateAccessibility(&event);
        tellSelection(false);
    }
}

void RowList::showSelection(int selection)
{
    const int next = selection >= 0 && selection < rows ? selection : -1;
    if (next == selected)
        return;
    selected = next;
    hovered = -1;
    reveal(selected);
    viewport()->update();
    tellSelection(true);
}

void RowList::tellSelection(bool byUser)
{
    if (!QAccessible::isActive() || selected < 0)
        return;
    QAccessibleEvent selection(this, QAccessible::Selection);
    selection.setChild(selected);
    QAccessible::updateAccessibility(&selection);
    // While the user walks through the rows the reader follows; while the user types it stays with the field.
    if (!byUser)
        return;
    QAccessibleEvent focus(this, QAccessible::Focus);
    focus.setChild(selected);
    QAccessible::updateAccessibility(&focus);
}

// Mouse

void RowList::setHovered(int row)
{
    if (row != std::exchange(hovered, row))
        viewport()->update();
}

void RowList::mouseMoveEvent(QMouseEvent *event) { setHovered(rowAt(event->position().toPoint())); }

void RowList::leaveEvent(QEvent *) { setHovered(-1); }

void RowList::mousePressEvent(QMouseEvent *event)
{
    pressed = event->button() == Qt::LeftButton ? rowAt(event->position().toPoint()) : -1;
    event->setAccepted(pressed >= 0); // elsewhere the window can be dragged
}

void RowList::mouseReleaseEvent(QMouseEvent *event)
{
    const int row = std::exchange(pressed, -1);
    if (event->button() == Qt::LeftButton && row >= 0 && row == rowAt(event->position().toPoint()))
        clicked(row);
}

void RowList::keyPressEvent(QKeyEvent *event) { event->ignore(); } // keys belong to the palette

void RowList::resizeEvent(QResizeEvent *event)
{
    QAbstractScrollArea::resizeEvent(event);
    fitScrollBar();
    reveal(selected);
}

// Drawing

void RowList::paintEvent(QPaintEvent *event)
{
    if (rows == 0)
        return;
    QPainter painter(viewport());
    painter.setRenderHint(QPainter::Antialiasing);
    const QRect dirty = event->rect();
    for (int row = std::max(0, lastRowAbove(dirty.top() + verticalScrollBar()->value())); row < rows; row++) {
        const QRect place = rowRect(row);
        if (place.top() - headHeight > dirty.bottom())
            break;
        if (startsSection(row))
            drawHead(painter, sections[std::size_t(sectionOf(row))], place.translated(0, -headHeight));
        if (place.bottom() >= dirty.top())
            drawRow(painter, row, place);
    }
}

void RowList::drawHead(QPainter &painter, const Section &section, const QRect &place) const
{
    painter.setPen(appearance.theme().secondary);
    const QRect line(place.left() + rowInset, place.top(), place.width() - 2 * rowInset, headHeight);
    textLine::drawLeft(painter, appearance.font(TypeSize::Caption, QFont::DemiBold), line.adjusted(0, 4, 0, 0), section.title);
}

void RowList::drawIcon(QPainter &painter, const RowFace &face, const QRect &place) const
{
    const CommandIcon &icon = face.icon;
    const Theme &theme = appearance.theme();
    const qreal ratio = devicePixelRatioF();
    if (icon.kind == CommandIcon::Kind::file) {
        QPixmap picture;
        switch (icons.file(icon.value, iconSize, ratio, picture)) {
        case IconStore::Look::Ready: painter.drawPixmap(place.topLeft(), picture); return;
        case IconStore::Look::Loading: fillRounded(painter, place.adjusted(2, 2, -2, -2), 6, theme.hover); return;
        case IconStore::Look::Nothing: break;
        }
    }
    fillRounded(painter, place, 7, face.grave ? theme.warningGround : theme.tile);
    const int inset = (iconSize - glyphSize) / 2;
    const std::string name = icon.kind == CommandIcon::Kind::symbol ? icon.value
        : icon.value.ends_with(".desktop")                          ? "app"
                                                                    : "doc";
    painter.drawPixmap(
        place.topLeft() + QPoint(inset, inset), icons.symbol(name, glyphSize, ratio, face.grave ? theme.warning : theme.accent));
}

int RowList::drawRightSide(QPainter &painter, int row, const RowFace &face, const QRect &place) const
{
    const Theme &theme = appearance.theme();
    int right = place.right() + 1 - rowInset;
    if (!face.keys.isEmpty()) {
        const int width = keysWidth(appearance, face.keys);
        drawKeys(painter, appearance, face.keys, QPoint(right - width, place.center().y() + 1));
        right -= width + 8;
    } else if (row == selected) {
        painter.drawPixmap(QPoint(right - glyphSize, place.top() + (rowHeight - glyphSize) / 2),
            icons.symbol("return", glyphSize, devicePixelRatioF(), theme.accent));
        right -= glyphSize + 8;
    }
    if (!face.badge.isEmpty()) {
        const QFont font = appearance.font(TypeSize::Caption);
        const int width = textLine::width(font, face.badge) + 12;
        const QRect pill(right - width, place.top() + (rowHeight - badgeHeight) / 2, width, badgeHeight);
        fillRounded(painter, pill, badgeHeight / 2.0, face.grave ? theme.warningGround : theme.keyGround);
        painter.setPen(face.grave ? theme.warning : theme.secondary);
        textLine::drawCentred(painter, font, pill, face.badge);
        right -= width + 8;
    }
    return right;
}

/// A path says most at both ends, any other text at its beginning.
static Qt::TextElideMode elision(const QString &text)
{
    return text.startsWith(u'/') || text.startsWith(QLatin1String("~/")) ? Qt::ElideMiddle : Qt::ElideRight;
}

void RowList::drawRow(QPainter &painter, int row, const QRect &place) const
{
    const Theme &theme = appearance.theme();
    const RowFace face = this->face(row);
    if (row == selected || row == hovered)
        fillRounded(painter, place.adjusted(0, 1, 0, -1), 8, row == selected ? theme.selection : theme.hover);

    const int textLeft = place.left() + rowInset + iconSize + 12;
    drawIcon(painter, face, QRect(place.left() + rowInset, place.top() + (rowHeight - iconSize) / 2, iconSize, iconSize));
    const int right = drawRightSide(painter, row, face, place);

    const QFont titleFont = appearance.font(TypeSize::Title, row == selected ? QFont::Medium : QFont::Normal);
    const int baseline = place.top() + (rowHeight + QFontMetrics(titleFont).capHeight()) / 2;
    const int available = right - textLeft;
    // The title gives way only when the subtitle would not get a third.
    const int titleRoom = face.subtitle.isEmpty() ? available : std::max(available - 160, available * 2 / 3);
    painter.setPen(theme.text);
    textLine::draw(painter, titleFont, QPoint(textLeft, baseline), face.title, titleRoom);
    if (face.subtitle.isEmpty())
        return;

    const int subtitleLeft = textLeft + std::min(textLine::width(titleFont, face.title), titleRoom) + 12;
    painter.setPen(theme.secondary);
    textLine::draw(painter, appearance.font(TypeSize::Small), QPoint(subtitleLeft, baseline), face.subtitle, right - subtitleLeft,
        elision(face.subtitle));
}

} // namespace korvane
