#pragma once

#include "Vorrel/Views/PreviewText.h"
#include "Vorrel/Views/ResultPreviewView.h"

#include <QAbstractScrollArea>
#include <QHash>
#include <QImage>
#include <QPointer>

#include <functional>
#include <optional>
#include <vector>

class QGridLayout;

/// What the preview of a file shows, one pane for each way in which a file can be shown. They ask for what is to be read or
/// decoded and wait for none of it. Main thread only.
namespace korvane {

/// The text of a file, in letters of one width, to read and to copy from.
class FileTextPane : public TextPane {
    Q_OBJECT

public:
    explicit FileTextPane(Appearance &appearance, QWidget *parent = nullptr);

    /// Shows the first part of the text; `append` the next ones, each in a few milliseconds.
    void begin(previewText::Lines lines);
    /// False when there was none left.
    bool append();
    void applyLook();

protected:
    void keyPressEvent(QKeyEvent *event) override;
    /// As it stands in the file: without the line feeds that break long lines.
    QMimeData *createMimeDataFromSelection() const override;

private:
    Appearance &look;
    std::vector<std::u16string> parts;
    std::vector<int> continued;
    std::size_t next = 0;
};

/// A picture, as large as it is or as there is room.
class PicturePane : public QWidget {
    Q_OBJECT

public:
    explicit PicturePane(Appearance &appearance, QWidget *parent = nullptr);

    /// `full` is the size of the whole in pixels of its own; a drawing fills the pane.
    void show(const QImage &picture, const QSize &full, bool isDrawing);
    /// In pixels of the screen: what it can use at its present size.
    QSize room() const;
    QSize pixels() const { return picture.size(); } ///< That are there to be shown.

    std::function<void()> resized = [] {};

protected:
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    QRectF place() const;
    const QPixmap &ground();

    Appearance &appearance;
    QPixmap picture, squares;
    QSize full;
    bool drawing = false;
};

/// The pages of a document below each other.
class PagesPane : public QAbstractScrollArea {
    Q_OBJECT

public:
    explicit PagesPane(Appearance &appearance, QWidget *parent = nullptr);

    void begin(std::vector<QSizeF> sizes);
    struct Wish {
        int page;
        QSize pixels;
    };
    /// The page that is missed most at the present size and place: what is seen, then what is next to it.
    std::optional<Wish> wish() const;
    /// The answer to a wish; a null image when the page cannot be shown.
    void setPage(const Wish &wish, const QImage &image);
    void applyAppearance();

    std::function<void()> moved = [] {}; ///< There may be a wish.

protected:
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    void scrollContentsBy(int dx, int dy) override;
    void keyPressEvent(QKeyEvent *event) override;

private:
    struct Drawn {
        QSize pixels; ///< As they were asked for.
        QPixmap picture;
    };
    void arrange();
    int firstVisible() const;
    QRect placeOf(int page) const; ///< Within the column of pages.
    QSize pixelsOf(int page) const;
    bool isMissing(int page) const;
    void forgetFarPages();

    Appearance &appearance;
    std::vector<QSizeF> sizes; // in points
    std::vector<int> tops; // of each page, and of the end
    QHash<int, Drawn> drawn;
};

/// What there is to say of a file that shows nothing of itself.
class FileCard : public QWidget {
    Q_OBJECT

public:
    explicit FileCard(Appearance &appearance, QWidget *parent = nullptr);

    void setIcon(const QImage &icon);
    /// Adds a row, or changes the value of the one with that label.
    void setRow(const QString &label, const QString &value);
    /// Below everything; empty for none.
    void setSentence(const QString &sentence);
    void applyAppearance();

    static constexpr int iconSize = 112;

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    Text *add(Text::Tone tone);

    Appearance &appearance;
    QGridLayout *grid;
    QWidget *iconPlace;
    QPixmap icon;
    std::vector<Text *> texts; // all of them
    Text *sentence;
    std::vector<std::pair<Text *, Text *>> rows;
};

} // namespace korvane
