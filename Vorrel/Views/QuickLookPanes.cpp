#include "Vorrel/Views/QuickLookPanes.h"

#include <QFontDatabase>
#include <QGridLayout>
#include <QKeyEvent>
#include <QMimeData>
#include <QPainter>
#include <QScrollBar>
#include <QTextBlock>

#include <algorithm>
#include <cmath>

namespace korvane {

// FileTextPane

static QString fromUtf16(const std::u16string &text) { return QString::fromUtf16(text.data(), qsizetype(text.size())); }

FileTextPane::FileTextPane(Appearance &appearance, QWidget *parent) : TextPane(appearance, parent), look(appearance)
{
    setUndoRedoEnabled(false);
    setCursorWidth(0); // nothing can be written here
    setFocusPolicy(Qt::StrongFocus);
    setViewportMargins(Metrics::margin, 0, Metrics::margin - 8, 0);
    setWordWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    document()->setDocumentMargin(0);
    applyLook();
}

void FileTextPane::applyLook()
{
    applyAppearance();
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    font.setPixelSize(look.font(TypeSize::Body).pixelSize());
    font.setHintingPreference(QFont::PreferNoHinting);
    setFont(font);
    constexpr int columnsOfTab = 4;
    setTabStopDistance(columnsOfTab * QFontMetricsF(font).horizontalAdvance(u' '));
}

void FileTextPane::begin(previewText::Lines lines)
{
    parts = std::move(lines.parts);
    continued = std::move(lines.continued);
    next = 0;
    setPlainText({});
    append();
}

bool FileTextPane::append()
{
    if (next >= parts.size())
        return false;
    const QString part = fromUtf16(std::exchange(parts[next], {}));
    if (next++ == 0) {
        setPlainText(part);
        return true;
    }
    QTextCursor end(document());
    end.movePosition(QTextCursor::End);
    end.insertText(part);
    return true;
}

void FileTextPane::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Escape)
        event->ignore();
    else if (event->key() == Qt::Key_Space)
        verticalScrollBar()->triggerAction(
            event->modifiers() & Qt::ShiftModifier ? QScrollBar::SliderPageStepSub : QScrollBar::SliderPageStepAdd);
    else
        QPlainTextEdit::keyPressEvent(event);
}

QMimeData *FileTextPane::createMimeDataFromSelection() const
{
    const QTextCursor selection = textCursor();
    QString text;
    for (QTextBlock block = document()->findBlock(selection.selectionStart());
         block.isValid() && block.position() <= selection.selectionEnd(); block = block.next()) {
        const int from = std::max(0, selection.selectionStart() - block.position());
        const int to = std::min(block.length() - 1, selection.selectionEnd() - block.position());
        text += block.text().mid(from, to - from);
        const bool goesOn = selection.selectionEnd() >= block.position() + block.length();
        if (goesOn && !std::ranges::binary_search(continued, block.blockNumber()))
            text += u'\n';
    }
    auto *data = new QMimeData;
    data->setText(text);
    return data;
}

// PicturePane

PicturePane::PicturePane(Appearance &appearance, QWidget *parent) : QWidget(parent), appearance(appearance)
{
    setFocusPolicy(Qt::StrongFocus);
}

void PicturePane::show(const QImage &image, const QSize &fullSize, bool isDrawing)
{
    picture = QPixmap::fromImage(image);
    full = fullSize;
    drawing = isDrawing;
    update();
}

QSize PicturePane::room() const { return size() * devicePixelRatioF(); }

QRectF PicturePane::place() const
{
    const QSizeF natural = QSizeF(full) / devicePixelRatioF();
    const QSizeF largest(size());
    const bool fits = !drawing && natural.width() <= largest.width() && natural.height() <= largest.height();
    const QSizeF shown = fits ? natural : QSizeF(picture.size()).scaled(largest, Qt::KeepAspectRatio);
    // On whole pixels: a picture at its own size is shown without a change.
    const QPointF corner((largest.width() - shown.width()) / 2, (largest.height() - shown.height()) / 2);
    return {QPointF(std::floor(corner.x()), std::floor(corner.y())), shown};
}

const QPixmap &PicturePane::ground()
{
    const bool dark = appearance.theme().dark;
    constexpr int side = 8;
    squares = QPixmap(2 * side, 2 * side);
    squares.fill(dark ? QColor(0x2b, 0x2d, 0x35) : QColor(0xff, 0xff, 0xff));
    QPainter painter(&squares);
    const QColor other = dark ? QColor(0x33, 0x35, 0x3e) : QColor(0xee, 0xef, 0xf3);
    painter.fillRect(0, 0, side, side, other);
    painter.fillRect(side, side, side, side, other);
    return squares;
}

void PicturePane::paintEvent(QPaintEvent *)
{
    if (picture.isNull())
        return;
    QPainter painter(this);
    const QRectF where = place();
    if (picture.hasAlphaChannel())
        painter.drawTiledPixmap(where, ground());
    painter.setRenderHint(QPainter::SmoothPixmapTransform, where.size() * devicePixelRatioF() != QSizeF(picture.size()));
    painter.drawPixmap(where, picture, QRectF(picture.rect()));
}

void PicturePane::resizeEvent(QResizeEvent *) { resized(); }

// PagesPane

static constexpr int pageMargin = 20;
static constexpr int pageGap = 14;
static constexpr int widestPage = 1100;
static constexpr int mostPagePixels = 24 * 1024 * 1024;

PagesPane::PagesPane(Appearance &appearance, QWidget *parent) : QAbstractScrollArea(parent), appearance(appearance)
{
    setFrameShape(QFrame::NoFrame);
    setFocusPolicy(Qt::StrongFocus);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    viewport()->setAutoFillBackground(false);
    applyAppearance();
}

void PagesPane::applyAppearance() { styleScrollBar(*verticalScrollBar(), appearance.theme()); }

void PagesPane::begin(std::vector<QSizeF> all)
{
    sizes = std::move(all);
    drawn.clear();
    arrange();
    verticalScrollBar()->setValue(0);
    viewport()->update();
}

/// All pages in one scale, so that a sheet among smaller ones is the larger one here too.
void PagesPane::arrange()
{
    tops.clear();
    int top = pageMargin;
    for (int page = 0; page < int(sizes.size()); page++) {
        tops.push_back(top);
        top += placeOf(page).height() + pageGap;
    }
    const int height = sizes.empty() ? 0 : top - pageGap + pageMargin;
    tops.push_back(top);
    QScrollBar &bar = *verticalScrollBar();
    const double place = bar.maximum() > 0 ? double(bar.value()) / bar.maximum() : 0;
    bar.setRange(0, std::max(0, height - viewport()->height()));
    bar.setPageStep(viewport()->height());
    constexpr int line = 40;
    bar.setSingleStep(line);
    bar.setValue(int(std::lround(place * bar.maximum())));
}

QRect PagesPane::placeOf(int page) const
{
    constexpr int least = 40;
    const int width = std::clamp(viewport()->width() - 2 * pageMargin, least, widestPage);
    const QSizeF &size = sizes[std::size_t(page)];
    const int height = std::max(1, int(std::lround(width * size.height() / size.width())));
    return {(viewport()->width() - width) / 2, tops[std::size_t(page)], width, height};
}

QSize PagesPane::pixelsOf(int page) const
{
    const QSize pixels = placeOf(page).size() * devicePixelRatioF();
    const double share = double(mostPagePixels) / (double(pixels.width()) * pixels.height());
    return (share < 1 ? pixels * std::sqrt(share) : pixels).boundedTo({16'000, 16'000});
}

int PagesPane::firstVisible() const
{
    const auto after = std::upper_bound(tops.begin(), tops.end(), verticalScrollBar()->value());
    return std::clamp(int(after - tops.begin()) - 1, 0, std::max(0, int(sizes.size()) - 1));
}

bool PagesPane::isMissing(int page) const
{
    const auto known = drawn.constFind(page);
    return known == drawn.constEnd() || known->pixels != pixelsOf(page);
}

std::optional<PagesPane::Wish> PagesPane::wish() const
{
    if (sizes.empty())
        return std::nullopt;
    const int first = firstVisible();
    const int bottom = verticalScrollBar()->value() + viewport()->height();
    int last = first;
    for (; last < int(sizes.size()) && tops[std::size_t(last)] < bottom; last++)
        if (isMissing(last))
            return Wish{last, pixelsOf(last)};
    for (const int near : {last, first - 1})
        if (near >= 0 && near < int(sizes.size()) && isMissing(near))
            return Wish{near, pixelsOf(near)};
    return std::nullopt;
}

void PagesPane::setPage(const Wish &wish, const QImage &image)
{
    drawn.insert(wish.page, {wish.pixels, QPixmap::fromImage(image)});
    forgetFarPages();
    viewport()->update();
}

void PagesPane::forgetFarPages()
{
    constexpr int kept = 4; // to both sides
    const int middle = firstVisible();
    drawn.removeIf(
        [&](const QHash<int, Drawn>::iterator &one) { return std::abs(one.key() - middle) > kept && !isMissing(middle); });
}

void PagesPane::paintEvent(QPaintEvent *)
{
    QPainter painter(viewport());
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    const int shift = verticalScrollBar()->value();
    for (int page = firstVisible(); page < int(sizes.size()); page++) {
        const QRect place = placeOf(page).translated(0, -shift);
        if (place.top() > viewport()->height())
            break;
        painter.fillRect(place.adjusted(-1, -1, 1, 1), QColor(0, 0, 0, appearance.theme().dark ? 90 : 34));
        painter.fillRect(place, Qt::white);
        if (const auto known = drawn.constFind(page); known != drawn.constEnd() && !known->picture.isNull())
            painter.drawPixmap(place, known->picture);
    }
}

void PagesPane::resizeEvent(QResizeEvent *)
{
    arrange();
    moved();
}

void PagesPane::scrollContentsBy(int, int)
{
    viewport()->update();
    moved();
}

void PagesPane::keyPressEvent(QKeyEvent *event)
{
    QScrollBar &bar = *verticalScrollBar();
    switch (event->key()) {
    case Qt::Key_Home: bar.setValue(bar.minimum()); break;
    case Qt::Key_End: bar.setValue(bar.maximum()); break;
    case Qt::Key_Space:
        bar.triggerAction(event->modifiers() & Qt::ShiftModifier ? QScrollBar::SliderPageStepSub : QScrollBar::SliderPageStepAdd);
        break;
    default: QAbstractScrollArea::keyPressEvent(event);
    }
}

// FileCard

FileCard::FileCard(Appearance &appearance, QWidget *parent) :
    QWidget(parent), appearance(appearance), grid(new QGridLayout), iconPlace(new QWidget(this)), sentence(add(Text::Tone::Main))
{
    setFocusPolicy(Qt::StrongFocus);
    iconPlace->setFixedSize(iconSize, iconSize);
    sentence->setWordWrap(true);
    sentence->setContentsMargins(0, 0, 0, 12);
    sentence->setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Maximum);
    sentence->hide();
    grid->setHorizontalSpacing(14);
    grid->setVerticalSpacing(7);
    grid->setColumnStretch(1, 1);

    auto *facts = new QVBoxLayout;
    facts->setSpacing(0);
    facts->addStretch(1);
    facts->addWidget(sentence);
    facts->addLayout(grid);
    facts->addStretch(1);
    auto *row = new QHBoxLayout(this);
    row->setContentsMargins(36, 16, 36, 24);
    row->setSpacing(32);
    row->addWidget(iconPlace);
    row->addLayout(facts, 1);
}

Text *FileCard::add(Text::Tone tone)
{
    auto *text = new Text(appearance, TypeSize::Body, tone, QFont::Normal, this);
    texts.push_back(text);
    return text;
}

void FileCard::setIcon(const QImage &image)
{
    icon = QPixmap::fromImage(image);
    update();
}

void FileCard::setRow(const QString &label, const QString &value)
{
    const auto known = std::ranges::find_if(rows, [&](const auto &row) { return row.first->text() == label; });
    if (known != rows.end()) {
        known->second->setText(value);
        return;
    }
    Text *name = add(Text::Tone::Secondary), *told = add(Text::Tone::Main);
    name->setText(label);
    name->setAlignment(Qt::AlignRight | Qt::AlignTop);
    told->setText(value);
    told->setWordWrap(true);
    told->setTextInteractionFlags(Qt::TextSelectableByMouse);
    const int row = int(rows.size());
    grid->addWidget(name, row, 0);
    grid->addWidget(told, row, 1);
    rows.emplace_back(name, told);
}

void FileCard::setSentence(const QString &words)
{
    sentence->setText(words);
    sentence->setVisible(!words.isEmpty());
}

void FileCard::applyAppearance()
{
    for (Text *text : texts)
        text->applyAppearance();
}

void FileCard::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    if (!icon.isNull())
        painter.drawPixmap(iconPlace->geometry(), icon);
}

} // namespace korvane
