#include "Vorrel/Views/AgentList.h"

#include "Vorrel/Shell/L10n.h"
#include "Vorrel/Views/IconStore.h"
#include "Vorrel/Views/TextLine.h"

#include <QPainter>
#include <QScrollBar>
#include <QStyledItemDelegate>

#include <algorithm>

namespace korvane {

namespace {

constexpr int rowHeight = 32, symbolSide = 16, inset = 8, markSide = 6;

class RowPainter : public QStyledItemDelegate {
public:
    RowPainter(Appearance &appearance, IconStore &icons, AgentList *list) :
        QStyledItemDelegate(list), appearance(appearance), icons(icons), list(list)
    {
    }

    QSize sizeHint(const QStyleOptionViewItem &, const QModelIndex &) const override { return {0, rowHeight}; }

    void paint(QPainter *painter, const QStyleOptionViewItem &option, const QModelIndex &index) const override
    {
        const Theme &theme = appearance.theme();
        const AgentList::Entry &entry = list->entries()[std::size_t(index.row())];
        const bool isChosen = option.state & QStyle::State_Selected;
        painter->save();
        painter->setRenderHint(QPainter::Antialiasing);
        const QRect place = option.rect.adjusted(2, 1, -6, -1); // the scroll bar has its room at the right
        if (isChosen || option.state & QStyle::State_MouseOver)
            fillRounded(*painter, place, 7, isChosen ? theme.selection : theme.hover);
        if (isChosen && list->hasFocus()) {
            painter->setPen(QPen(theme.accent, 1.5));
            painter->drawRoundedRect(QRectF(place).adjusted(0.75, 0.75, -0.75, -0.75), 6.5, 6.5);
        }
        const QColor ink = isChosen ? theme.accent : theme.secondary;
        painter->drawPixmap(place.left() + inset, place.center().y() + 1 - symbolSide / 2,
            icons.symbol(entry.icon, symbolSide, list->devicePixelRatioF(), ink));
        int right = place.right() - inset;
        if (entry.unsaved) {
            fillRounded(*painter, QRectF(right - markSide, place.center().y() - markSide / 2.0 + 0.5, markSide, markSide),
                markSide / 2.0, theme.accent);
            right -= markSide + inset;
        }
        const QFont font = appearance.font(TypeSize::Body, isChosen ? QFont::Medium : QFont::Normal);
        const int textLeft = place.left() + inset + symbolSide + inset;
        const int baseline = place.top() + (place.height() + QFontMetrics(font).capHeight()) / 2;
        painter->setPen(theme.text);
        textLine::draw(*painter, font, QPoint(textLeft, baseline), entry.name, right - textLeft);
        painter->restore();
    }

private:
    Appearance &appearance;
    IconStore &icons;
    AgentList *list;
};

} // namespace

AgentList::AgentList(Appearance &appearance, IconStore &icons, QWidget *parent) : QListWidget(parent), appearance(appearance)
{
    setAccessibleName(fromUtf8(L10n::shown("Agents")));
    setFrameShape(QFrame::NoFrame);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setUniformItemSizes(true);
    setTabKeyNavigation(false);
    setEditTriggers(NoEditTriggers);
    setMouseTracking(true);
    viewport()->setAutoFillBackground(false);
    setItemDelegate(new RowPainter(appearance, icons, this));
    connect(this, &QListWidget::currentRowChanged, this, [this](int row) {
        if (!writing && row >= 0)
            this->chosen(shown[std::size_t(row)].id);
    });
    applyAppearance();
}

void AgentList::applyAppearance()
{
    styleScrollBar(*verticalScrollBar(), appearance.theme());
    viewport()->update();
}

void AgentList::show(std::vector<Entry> entries, const std::string &id)
{
    writing = true;
    if (entries != shown) {
        shown = std::move(entries);
        clear();
        for (const Entry &entry : shown) {
            auto *item = new QListWidgetItem(entry.name, this);
            if (entry.unsaved)
                item->setData(Qt::AccessibleDescriptionRole, fromUtf8(L10n::shown("Unsaved changes")));
            item->setToolTip(entry.name.toHtmlEscaped());
        }
    }
    setCurrentRow(int(std::ranges::find(shown, id, &Entry::id) - shown.begin()));
    writing = false;
}

} // namespace korvane
