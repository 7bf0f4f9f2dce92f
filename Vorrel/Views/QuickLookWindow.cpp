#include "Vorrel/Views/QuickLookWindow.h"

#include "Support/OwnThread.h"
#include "Vorrel/Shell/Formats.h"
#include "Vorrel/Shell/L10n.h"
#include "Vorrel/Views/IconFinder.h"
#include "Vorrel/Views/IconStore.h"
#include "Vorrel/Views/KeyEvents.h"
#include "Vorrel/Views/PreviewFile.h"
#include "Vorrel/Views/QuickLookPanes.h"
#include "Vorrel/Views/TextLine.h"
#include "Vorrel/Views/X11Window.h"

#include <QApplication>
#include <QBoxLayout>
#include <QCursor>
#include <QFile>
#include <QKeyEvent>
#include <QPainter>
#include <QScreen>
#include <QWindow>

#include <cmath>
#include <cstring>

namespace korvane {

using namespace std::chrono_literals;

static constexpr auto quietFor = 100ms; // before it says that it loads
static constexpr auto partPause = 3ms; // between parts of a text: what the user does comes in between
static constexpr auto firstSumLook = 20ms, sumLook = 100ms;
static constexpr auto resizePause = 120ms;

static constexpr int headerHeight = 58;
static constexpr QSize smallestWindow{400, 280};
static constexpr QSize loadingSize{640, 420}, textSize{780, 640}, pagesSize{820, 900}, cardSize{560, 250}, drawingSize{600, 560};
static constexpr double largestShare = 0.86; // of the screen's free part

static QString joined(const QStringList &facts)
{
    QStringList told = facts;
    told.removeAll(QString());
    return told.join(QStringLiteral(" · "));
}

static QString capitalised(const QString &words) { return words.left(1).toUpper() + words.mid(1); }

static QString sizeWords(long long bytes) { return fromUtf8(formattedByteCount(bytes, L10n::languageInUse())); }

static QString dateWords(double date) { return date > 0 ? fromUtf8(formattedDate(date, L10n::languageInUse())) : QString(); }

static QString countWords(long long count, const char *one, const char *many)
{
    return fromUtf8(count == 1 ? L10n::text(one) : L10n::format(many, formattedCount(count, L10n::languageInUse())));
}

static QString lastPart(const std::string &path)
{
    const std::size_t end = path.find_last_not_of('/');
    const std::string trimmed = end == std::string::npos ? path : path.substr(0, end + 1);
    return fromUtf8(trimmed.size() > 1 ? trimmed.substr(trimmed.rfind('/') + 1) : trimmed);
}

static QString folderOf(const std::string &path)
{
    const std::size_t slash = path.rfind('/');
    return fromUtf8(slash == 0 || slash == std::string::npos ? std::string("/") : path.substr(0, slash));
}

static QImage imageOf(DecoderProcess::Answer answer)
{
    const auto format = answer.reply.isOpaque ? QImage::Format_RGB32 : QImage::Format_ARGB32_Premultiplied;
    auto *bytes = new std::vector<unsigned char>(std::move(answer.bytes));
    constexpr int bytesOfPixel = 4;
    return {bytes->data(), answer.reply.width, answer.reply.height, qsizetype(answer.reply.width) * bytesOfPixel, format,
        [](void *held) { delete static_cast<std::vector<unsigned char> *>(held); }, bytes};
}

// What stands in the window

namespace {

/// The file's name, what there is to say of it in a line, and the way out.
class PreviewHeader : public QWidget {
public:
    PreviewHeader(Appearance &appearance, IconStore &icons, QWidget *parent) :
        QWidget(parent), appearance(appearance), closeButton(new FlatButton(appearance, icons, FlatButton::Style::Quiet, this))
    {
        setFixedHeight(headerHeight);
        closeButton->setSymbol("xmark");
        closeButton->setAccessibleName(fromUtf8(L10n::shown("Close")));
        closeButton->setToolTip(closeButton->accessibleName());
    }

    void setName(const QString &text)
    {
        name = text;
        tell();
    }
    void setFacts(const QString &text)
    {
        facts = text;
        tell();
    }
    FlatButton &button() const { return *closeButton; }

protected:
    void resizeEvent(QResizeEvent *) override
    {
        const QSize size = closeButton->sizeHint();
        closeButton->setGeometry(QRect(QPoint(width() - size.width() - 14, (height() - size.height()) / 2), size));
    }

    void paintEvent(QPaintEvent *) override
    {
        const Theme &theme = appearance.theme();
        QPainter painter(this);
        painter.fillRect(QRect(0, height() - 1, width(), 1), theme.separator);
        const int room = closeButton->x() - 10 - Metrics::margin;
        const int middle = height() / 2;
        painter.setPen(theme.text);
        const QFont title = appearance.font(TypeSize::Title, QFont::DemiBold);
        textLine::draw(painter, title, {Metrics::margin, facts.isEmpty() ? middle + 5 : middle - 4}, name, room, Qt::ElideMiddle);
        painter.setPen(theme.secondary);
        textLine::draw(painter, appearance.font(TypeSize::Small), {Metrics::margin, middle + 15}, facts, room);
    }

private:
    void tell()
    {
        setAccessibleName(name);
        setAccessibleDescription(facts);
        update();
    }

    Appearance &appearance;
    FlatButton *closeButton;
    QString name, facts;
};

} // namespace

class QtPreviewWindow::Surface : public QWidget {
public:
    Surface(Appearance &appearance, IconStore &icons) :
        QWidget(nullptr,
            Qt::Dialog | Qt::CustomizeWindowHint | Qt::WindowTitleHint | Qt::WindowCloseButtonHint | Qt::WindowMaximizeButtonHint
                | Qt::WindowStaysOnTopHint),
        appearance(appearance), header(new PreviewHeader(appearance, icons, this)), contents(new QVBoxLayout),
        foot(new Text(appearance, TypeSize::Small, Text::Tone::Secondary, QFont::Normal, this))
    {
        setAttribute(Qt::WA_QuitOnClose, false);
        setMinimumSize(smallestWindow);
        foot->setContentsMargins(Metrics::margin, 8, Metrics::margin, 10);
        auto *column = new QVBoxLayout(this);
        column->setContentsMargins(0, 0, 0, 0);
        column->setSpacing(0);
        column->addWidget(header);
        column->addLayout(contents, 1);
        column->addWidget(foot);
        connect(&header->button(), &QAbstractButton::clicked, this, [this] { QWidget::close(); });
        connect(&appearance, &Appearance::changed, this, [this] { applyAppearance(); });
        qApp->installEventFilter(this);
    }

    ~Surface() override { qApp->removeEventFilter(this); }

    /// Takes everything of the file before away.
    void begin(const QString &name)
    {
        setWindowTitle(name);
        setAccessibleName(name);
        header->setName(name);
        header->setFacts({});
        setFoot({});
        put(nullptr);
    }

    /// The pane is the window's from now on; none leaves it empty.
    void put(QWidget *next, int above = 0, int below = 0)
    {
        delete pane;
        pane = next;
        contents->setContentsMargins(0, above, 0, below);
        if (!pane)
            return;
        contents->addWidget(pane);
        pane->setAccessibleName(windowTitle());
        pane->show();
        pane->setFocus(Qt::OtherFocusReason);
    }

    void setFoot(const QString &words)
    {
        foot->setText(words);
        foot->setVisible(!words.isEmpty());
    }

    void putLoading()
    {
        auto *words = new Text(appearance, TypeSize::Body, Text::Tone::Secondary, QFont::Normal, this);
        words->setText(fromUtf8(L10n::shown("Loading…")));
        words->setAlignment(Qt::AlignCenter);
        put(words, 0, headerHeight); // in the middle of the window, seen as a whole
        words->setAccessibleName(words->text());
    }

    void setFacts(const QString &facts) { header->setFacts(facts); }
    template <class Pane> Pane *shown() const { return dynamic_cast<Pane *>(pane.data()); }

    /// Gives everything its place before the window is seen; hidden widgets learn theirs only when they are drawn.
    void layOut() { grab(QRect(0, 0, 1, 1)); }

    std::function<bool(const KeyPress &)> keyPressed = [](const KeyPress &) { return false; };
    std::function<void()> closed = [] {};

protected:
    bool eventFilter(QObject *target, QEvent *event) override
    {
        // Windows get a key before their widgets do, and once.
        return event->type() == QEvent::KeyPress && target == windowHandle() && isVisible()
            && keyPressed(keyPressOf(static_cast<const QKeyEvent &>(*event)));
    }

    void closeEvent(QCloseEvent *) override { closed(); }

    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        painter.fillRect(rect(), appearance.theme().ground);
    }

private:
    void applyAppearance()
    {
        foot->applyAppearance();
        if (auto *text = shown<FileTextPane>())
            text->applyLook();
        if (auto *pages = shown<PagesPane>())
            pages->applyAppearance();
        if (auto *card = shown<FileCard>())
            card->applyAppearance();
        if (auto *words = shown<Text>())
            words->applyAppearance();
        update();
        header->update();
    }

    Appearance &appearance;
    PreviewHeader *header;
    QVBoxLayout *contents;
    Text *foot;
    QPointer<QWidget> pane;
};

/// One preview from the wish for it to its end.
struct QtPreviewWindow::Showing {
    ~Showing() { stop.request_stop(); }

    std::string path;
    Events events;
    QRect place; ///< Where the window may stand.
    double ratio = 1; ///< Pixels of a unit there.
    PreviewFile file;
    bool sized = false; ///< The window has the size that it appears with.
    bool filled = false; ///< Something stands in it.
    bool settled = false;
    int asked = 0; ///< Requests that the decoder has not answered.
    std::unique_ptr<AsyncEvent> moved; ///< Of the pages.
    QSize decoded; ///< Pixels of the picture that is shown.
    std::stop_source stop; ///< For what runs on threads.
    TaskHandle presenting, loading, sharpening;
};

// The port

QtPreviewWindow::QtPreviewWindow(
    Executor mainThread, Clock &clock, Appearance &appearance, IconStore &icons, std::string decoderProgram) :
    mainThread(std::move(mainThread)),
    clock(clock), appearance(appearance), icons(icons), decoderProgram(std::move(decoderProgram))
{
}

QtPreviewWindow::~QtPreviewWindow() = default;

QWidget *QtPreviewWindow::surface() const { return _surface.get(); }

bool QtPreviewWindow::settled() const { return showing && showing->settled; }

std::function<void()> QtPreviewWindow::keyWindow()
{
    QWidget *window = QApplication::activeWindow();
    if (!window)
        return {};
    return [held = QPointer<QWidget>(window)] {
        if (held && held->isVisible())
            x11::showInFront(*held);
    };
}

static const QScreen *screenOfKeyboard()
{
    if (const QWidget *window = QApplication::activeWindow())
        return window->screen();
    const QScreen *screen = QGuiApplication::screenAt(QCursor::pos());
    return screen ? screen : QGuiApplication::primaryScreen();
}

bool QtPreviewWindow::show(const std::string &path, Events events)
{
    const QScreen *screen = screenOfKeyboard();
    if (!screen)
        return false;
    telling.cancel();
    dropShowing();
    if (!_surface) {
        _surface = std::make_unique<Surface>(appearance, icons);
        _surface->closed = [this] { userClosed(); };
        _surface->keyPressed = [this](const KeyPress &press) {
            const auto pressed = showing ? showing->events.keyPressed : nullptr;
            return pressed && pressed(press);
        };
    }
    showing = std::make_unique<Showing>();
    showing->path = path;
    showing->events = std::move(events);
    showing->place = screen->availableGeometry();
    showing->ratio = screen->devicePixelRatio();
    showing->sized = _surface->isVisible();
    _surface->begin(lastPart(path));
    showing->presenting = spawn(mainThread, present());
    showing->loading = spawn(mainThread, appearLate());
    return true;
}

void QtPreviewWindow::close()
{
    telling.cancel();
    dropShowing();
    if (_surface)
        _surface->hide();
}

/// Whoever shows it is told when the window has gone, and may show another one then.
void QtPreviewWindow::userClosed()
{
    if (!showing)
        return;
    std::function<void()> closed = std::move(showing->events.closed);
    dropShowing();
    if (closed)
        telling = spawn(mainThread, tell(std::move(closed)));
}

Task<void> QtPreviewWindow::tell(std::function<void()> closed)
{
    co_await throwIfCancelled();
    closed();
}

void QtPreviewWindow::dropShowing()
{
    if (!showing)
        return;
    const bool another = decoder != nullptr;
    decoder.reset(); // whatever it is at, nobody waits for it
    showing.reset();
    _surface->put(nullptr);
    if (another)
        prepare();
}

void QtPreviewWindow::prepare()
{
    if (!ready || ready->ended())
        ready = std::make_unique<DecoderProcess>(decoderProgram);
    readying = spawn(mainThread, endReadiness());
}

Task<void> QtPreviewWindow::endReadiness()
{
    co_await throwIfCancelled();
    co_await clock.sleep(readiness);
    ready.reset();
}

DecoderProcess &QtPreviewWindow::decodes()
{
    if (!decoder || decoder->ended())
        decoder = ready && !ready->ended() ? std::move(ready) : std::make_unique<DecoderProcess>(decoderProgram);
    return *decoder;
}

Task<DecoderProcess::Answer> QtPreviewWindow::ask(decoding::Request request)
{
    showing->asked++;
    DecoderProcess::Answer answer = co_await decodes().ask(request, showing->file.content);
    showing->asked--;
    co_return answer;
}

// How it appears

/// Gives the pane its place, in a window that is fit for it unless the user sees that already: it would jump.
void QtPreviewWindow::arrange(QSize contents)
{
    showing->filled = true;
    if (!std::exchange(showing->sized, true)) {
        const QSize largest = (QSizeF(showing->place.size()) * largestShare).toSize();
        const QSize size = (contents + QSize(0, headerHeight)).boundedTo(largest).expandedTo(smallestWindow);
        QRect frame(QPoint(), size);
        frame.moveCenter(showing->place.center());
        _surface->setWindowState(_surface->windowState() & ~(Qt::WindowMinimized | Qt::WindowMaximized));
        _surface->setGeometry(frame);
    }
    _surface->layOut();
}

void QtPreviewWindow::appear(QSize contents)
{
    arrange(contents);
    showing->loading.cancel();
    x11::showInFront(*_surface);
}

Task<void> QtPreviewWindow::appearLate()
{
    co_await throwIfCancelled();
    co_await clock.sleep(quietFor);
    if (!showing->filled) {
        _surface->putLoading();
        arrange(loadingSize);
    }
    x11::showInFront(*_surface);
}

// What it shows

Task<void> QtPreviewWindow::present()
{
    co_await throwIfCancelled();
    std::function<PreviewFile()> read = [path = showing->path] { return readPreviewFile(path); };
    showing->file = co_await onOwnThread(std::move(read));
    const PreviewFile &file = showing->file;
    _surface->setFacts(joined({capitalised(file.kindName), sizeWords(file.size), dateWords(file.modified)}));
    switch (file.kind) {
    case PreviewKind::Text: co_await presentText(); break;
    case PreviewKind::Folder: co_await presentFolder(); break;
    case PreviewKind::Picture:
    case PreviewKind::Document:
        if (!file.content)
            co_await presentCard(fromUtf8(L10n::shown("This file could not be shown.")));
        else if (file.kind == PreviewKind::Picture)
            co_await presentPicture();
        else
            co_await presentPages();
        break;
    case PreviewKind::Other:
        co_await presentCard(file.exists && file.readable ? QString() : fromUtf8(L10n::shown("This file could not be shown.")));
    }
}

Task<void> QtPreviewWindow::presentText()
{
    auto *pane = new FileTextPane(appearance, _surface.get());
    pane->begin(std::move(showing->file.text));
    if (showing->file.isCut)
        _surface->setFoot(fromUtf8(L10n::format("Only the first %@ are shown.",
            formattedByteCount(1'000'000 * (previewText::mostBytes / 1'000'000), L10n::languageInUse()))));
    _surface->put(pane, 14, showing->file.isCut ? 0 : 10);
    appear(textSize);
    while (pane->append())
        co_await clock.sleep(partPause);
    showing->settled = true;
}

Task<void> QtPreviewWindow::presentPicture()
{
    const QSizeF largest = QSizeF(showing->place.size()) * largestShare - QSizeF(0, headerHeight);
    const QSize room = (largest * showing->ratio).toSize();
    const decoding::Request request{.wish = decoding::Wish::Picture, .width = room.width(), .height = room.height()};
    DecoderProcess::Answer answer = co_await ask(request);
    const decoding::Reply reply = answer.reply;
    if (reply.outcome != decoding::Outcome::Done) {
        co_await presentCard(fromUtf8(L10n::shown("This file could not be shown.")));
        co_return;
    }
    const PreviewFile &file = showing->file;
    const QSize full(reply.fullWidth, reply.fullHeight);
    _surface->setFacts(joined({capitalised(file.kindName), QStringLiteral("%1 × %2").arg(full.width()).arg(full.height()),
        sizeWords(file.size), dateWords(file.modified)}));
    auto *pane = new PicturePane(appearance, _surface.get());
    showing->decoded = QSize(reply.width, reply.height);
    pane->show(imageOf(std::move(answer)), full, reply.isDrawing);
    pane->resized = [this] { showing->sharpening = spawn(mainThread, sharpen()); };
    _surface->put(pane);
    const QSizeF natural = QSizeF(showing->decoded) / showing->ratio;
    appear(reply.isDrawing ? natural.scaled(drawingSize, Qt::KeepAspectRatio).toSize() : natural.toSize());
    showing->settled = true;
    const bool moves = reply.count > 1 && !appearance.reducedMotion();
    if (moves)
        co_await play(request, Milliseconds(reply.milliseconds));
}

/// Each frame is decoded while the one before it is seen.
Task<void> QtPreviewWindow::play(decoding::Request request, Milliseconds shownFor)
{
    request.wish = decoding::Wish::NextFrame;
    for (;;) {
        const double shownAt = clock.uptime();
        DecoderProcess::Answer next = co_await ask(request);
        if (next.reply.outcome != decoding::Outcome::Done)
            co_return; // the last frame stays
        const auto passed = Milliseconds(std::llround((clock.uptime() - shownAt) * 1000));
        co_await clock.sleep(shownFor - passed);
        const decoding::Reply reply = next.reply;
        if (auto *pane = _surface->shown<PicturePane>())
            pane->show(imageOf(std::move(next)), {reply.fullWidth, reply.fullHeight}, reply.isDrawing);
        shownFor = Milliseconds(reply.milliseconds);
    }
}

/// A window that the user made larger shows more of a picture's pixels.
Task<void> QtPreviewWindow::sharpen()
{
    co_await throwIfCancelled();
    co_await clock.sleep(resizePause);
    const auto *pane = _surface->shown<PicturePane>();
    if (!pane || showing->asked > 0)
        co_return;
    const QSize room = pane->room().boundedTo({decoding::longestSide, decoding::longestSide});
    const QSize best = QSizeF(showing->decoded).scaled(room, Qt::KeepAspectRatio).toSize();
    if (best.width() <= showing->decoded.width())
        co_return;
    const decoding::Request request{.wish = decoding::Wish::Picture, .width = room.width(), .height = room.height()};
    DecoderProcess::Answer answer = co_await ask(request);
    const decoding::Reply reply = answer.reply;
    auto *stillThere = _surface->shown<PicturePane>();
    if (reply.outcome != decoding::Outcome::Done || !stillThere)
        co_return;
    showing->decoded = QSize(reply.width, reply.height);
    stillThere->show(imageOf(std::move(answer)), {reply.fullWidth, reply.fullHeight}, reply.isDrawing);
}

static std::vector<QSizeF> pageSizes(const DecoderProcess::Answer &answer)
{
    std::vector<QSizeF> sizes;
    for (std::size_t at = 0; at + 2 * sizeof(float) <= answer.bytes.size(); at += 2 * sizeof(float)) {
        float sides[2];
        std::memcpy(sides, answer.bytes.data() + at, sizeof sides);
        const bool isSize = sides[0] >= 1 && sides[1] >= 1 && sides[0] < 1e5F && sides[1] < 1e5F;
        sizes.emplace_back(isSize ? QSizeF(sides[0], sides[1]) : QSizeF(100, 100));
    }
    return sizes;
}

/// A page that costs the process its life is tried once more, and takes nothing from the pages after it.
Task<DecoderProcess::Answer> QtPreviewWindow::askFor(decoding::Request page, decoding::Request document)
{
    DecoderProcess::Answer answer;
    for (bool again = false;; again = true) {
        if (decoder->ended())
            co_await ask(document);
        answer = co_await ask(page);
        if (!decoder->ended() || again)
            co_return answer;
    }
}

Task<void> QtPreviewWindow::presentPages()
{
    const decoding::Request request{.wish = decoding::Wish::Document};
    const DecoderProcess::Answer document = co_await ask(request);
    if (document.reply.outcome != decoding::Outcome::Done) {
        const bool locked = document.reply.outcome == decoding::Outcome::Locked;
        co_await presentCard(fromUtf8(
            locked ? L10n::shown("This document is protected by a password.") : L10n::shown("This file could not be shown.")));
        co_return;
    }
    const PreviewFile &file = showing->file;
    _surface->setFacts(
        joined({capitalised(file.kindName), countWords(document.reply.count, L10n::key("1 page"), L10n::key("%@ pages")),
            sizeWords(file.size), dateWords(file.modified)}));
    auto *pane = new PagesPane(appearance, _surface.get());
    _surface->put(pane);
    pane->begin(pageSizes(document));
    pane->moved = [this] {
        if (showing && showing->moved)
            showing->moved->fire();
    };
    arrange(pagesSize);
    for (;;) {
        while (const auto wish = pane->wish()) {
            const decoding::Request page{
                .wish = decoding::Wish::Page, .page = wish->page, .width = wish->pixels.width(), .height = wish->pixels.height()};
            DecoderProcess::Answer answer = co_await askFor(page, request);
            pane->setPage(*wish, answer.reply.outcome == decoding::Outcome::Done ? imageOf(std::move(answer)) : QImage());
            if (!_surface->isVisible())
                appear(pagesSize);
        }
        showing->settled = true;
        showing->moved = std::make_unique<AsyncEvent>();
        co_await showing->moved->wait();
    }
}

Task<void> QtPreviewWindow::presentFolder()
{
    auto sum = std::make_shared<FolderSum>();
    runOnOwnThread([sum, path = showing->path, stop = showing->stop.get_token()] { sumFolder(path, *sum, stop); });
    co_await clock.sleep(firstSumLook);
    co_await presentCard({});
    showing->settled = false;
    for (bool complete = false; !complete;) {
        complete = sum->complete;
        const QString mark = complete ? QString() : QStringLiteral(" …");
        if (auto *card = _surface->shown<FileCard>()) {
            card->setRow(fromUtf8(L10n::shown("Size")), sizeWords(sum->bytes) + mark);
            card->setRow(
                fromUtf8(L10n::shown("Contents")), countWords(sum->items, L10n::key("1 item"), L10n::key("%@ items")) + mark);
        }
        if (!complete)
            co_await clock.sleep(sumLook);
    }
    showing->settled = true;
}

Task<void> QtPreviewWindow::presentCard(QString sentence)
{
    const PreviewFile &file = showing->file;
    std::function<QImage()> find = [names = file.icons, themes = appearance.iconThemes(), ratio = showing->ratio] {
        IconFinder finder;
        finder.setThemes(themes);
        return finder.firstOf(names, FileCard::iconSize, ratio);
    };
    const QImage icon = co_await onOwnThread(std::move(find));
    auto *card = new FileCard(appearance, _surface.get());
    card->setIcon(icon);
    card->setSentence(sentence);
    card->setRow(fromUtf8(L10n::shown("Kind")), capitalised(file.kindName));
    if (file.exists) {
        card->setRow(fromUtf8(L10n::shown("Size")), sizeWords(file.kind == PreviewKind::Folder ? 0 : file.size));
        if (file.kind == PreviewKind::Folder)
            card->setRow(fromUtf8(L10n::shown("Contents")), {});
        card->setRow(fromUtf8(L10n::shown("Modified")), dateWords(file.modified));
    }
    card->setRow(fromUtf8(L10n::shown("Where")), folderOf(showing->path));
    _surface->setFacts({}); // the card tells them
    _surface->put(card);
    appear(cardSize);
    showing->settled = true;
}

} // namespace korvane
