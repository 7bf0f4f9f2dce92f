#pragma once

#include "CommandCore/Commands.h"

#include <QAbstractScrollArea>
#include <QAbstractSlider>

#include <functional>
#include <vector>

namespace korvane {

class Appearance;
class IconStore;

/// What one row shows. Made for the rows in view alone.
struct RowFace {
    QString title, subtitle;
    CommandIcon icon = {};
    QString badge = {}; ///< A small label at the right.
    bool grave = false; ///< Marks what cannot be undone.
    QStringList keys = {}; ///< Keys at the right.
};

/// A list of equal rows under section heads, drawn by itself: its cost is that of the rows in view, however
/// many there are. The keyboard stays in the palette's field; the list shows a selection that lives elsewhere.
/// For screen readers it is a list whose items are the rows; section heads do not count.
class RowList : public QAbstractScrollArea {
    Q_OBJECT

public:
    struct Section {
        int first; ///< Its first row.
        QString title; ///< Shown; empty for none.
    };

    RowList(Appearance &appearance, IconStore &icons, QWidget *parent = nullptr);

    int count() const { return rows; }
    int selection() const { return selected; } ///< -1 when no row is selected.
    virtual RowFace face(int row) const = 0;
    /// The row to select when the list is turned by a page or to an end; -1 without rows.
    int rowAfter(QAbstractSlider::SliderAction action) const;
    /// Where a row is, in the viewport, its section's head not counted.
    QRect rowRect(int row) const;
    /// The row at a place in the viewport; -1 where there is none.
    int rowAt(const QPoint &place) const;

    void applyAppearance();

    std::function<void(int)> clicked = [](int) {};

protected:
    /// Shows other rows. `sections` in rising order, or none.
    void showRows(int count, std::vector<Section> sections, int selection);
    /// Shows the same rows with another selection, and scrolls to it.
    void showSelection(int selection);

    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void leaveEvent(QEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;

    Appearance &appearance;
    IconStore &icons;

private:
    int sectionOf(int row) const; ///< -1 without sections.
    int topOf(int row) const; ///< From the top of the contents.
    int contentHeight() const;
    int lastRowAbove(int y) const; ///< The last row that begins at or above `y` of the contents; -1 for none.
    bool startsSection(int row) const;
    void fitScrollBar();
    void reveal(int row);
    void setHovered(int row);
    void drawHead(QPainter &painter, const Section &section, const QRect &place) const;
    void drawRow(QPainter &painter, int row, const QRect &place) const;
    void drawIcon(QPainter &painter, const RowFace &face, const QRect &place) const;
    int drawRightSide(QPainter &painter, int row, const RowFace &face, const QRect &place) const;
    void tellSelection(bool byUser);

    int rows = 0;
    int selected = -1;
    int hovered = -1;
    int pressed = -1;
    std::vector<Section> sections;
};

} // namespace korvane
