#include "Vorrel/Views/QtPaletteWindow.h"

#include "Vorrel/Views/Appearance.h"
#include "Vorrel/Views/IconStore.h"
#include "Vorrel/Views/KeyEvents.h"
#include "Vorrel/Views/Painting.h"
#include "Vorrel/Views/PaletteInput.h"
#include "Vorrel/Views/PaletteView.h"
#include "Vorrel/Views/X11Window.h"

#include <QApplication>
#include <QBackingStore>
#include <QBitmap>
#include <QCursor>
#include <QDialog>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QScreen>
#include <QVariantAnimation>
#include <QWindow>

#include <cmath>

namespace korvane {

using namespace std::chrono_literals;

// The shadow reaches this far; it falls a little downwards.
static constexpr int shadowReach = 40;
static constexpr int shadowDrop = 10;

static constexpr double freshFor = 0.5; // seconds

// The window itself

/// Draws the ground and the shadow, holds the view, and sees every key and mouse press first.
class QtPaletteWindow::Surface : public QWidget {
public:
    Surface(PaletteController &controller, Appearance &appearance, IconStore &icons) :
        QWidget(nullptr, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint), controller(controller),
        appearance(appearance), icons(icons)
    {
        setAttribute(Qt::WA_TranslucentBackground);
        setAttribute(Qt::WA_QuitOnClose, false);
        setWindowTitle(QStringLiteral("Korvane Vorrel"));
        connect(&appearance, &Appearance::changed, this, [this] {
            partsRatio = 0;
            update();
        });
        qApp->installEventFilter(this);
        followScreens();
        setMargin(0, true);
    }

    ~Surface() override { qApp->removeEventFilter(this); }

    bool hasView() const { return _view; }

    PaletteView &view()
    {
        // The controller is still being built when it makes its window.
        if (!_view) {
            _view = new PaletteView(controller.state(), appearance, icons, this);
            _view->setGeometry(palette());
            _view->fileSelected = [this] { fileSelected(); };
            _view->show();
            setFocusProxy(&_view->field());
            _view->field().setFocus(Qt::OtherFocusReason);
        }
        return *_view;
    }

    /// The palette's part of the window.
    QRect palette() const { return {margin, margin, QtPaletteWindow::width, QtPaletteWindow::height}; }

    /// Makes room for the shadow, or none. What is not `composed` has its corners cut off.
    void setMargin(int units, bool composed)
    {
        if (margin != units)
            partsRatio = 0; // without a margin there is no shadow
        margin = units;
        setFixedSize(QtPaletteWindow::width + 2 * margin, QtPaletteWindow::height + 2 * margin);
        if (_view)
            _view->setGeometry(palette());
        // The window's own mask and not the widget's, to which the toolkit would clip everything that it draws.
        if (!composed)
            winId();
        if (QWindow *window = windowHandle())
            window->setMask(composed ? QRegion() : outline());
    }

    /// Before it draws anew, the toolkit asks the server whether it has taken the picture before. Now it has; while it is
    /// busy with a window that appears, the answer would take milliseconds.
    void readyToPaint() const
    {
        QBackingStore *store = backingStore();
        if (!store || store->size().isEmpty())
            return;
        store->beginPaint(QRect(0, 0, 1, 1));
        store->endPaint();
    }

    /// The toolkit overlooks that a window has the keyboard again when it went and came within a moment.
    void noteKeyboard()
    {
        if (isVisible() && !isActiveWindow() && QGuiApplication::focusWindow() == windowHandle())
            QApplication::setActiveWindow(this);
    }

    int margin = 0;
    std::function<void()> deactivated = [] {};
    std::function<void()> gainedKeyboard = [] {};
    std::function<void()> fileSelected = [] {};

protected:
    bool event(QEvent *event) override
    {
        // One that fades away has given the keyboard up.
        if (event->type() == QEvent::WindowDeactivate && isVisible() && controller.presented())
            deactivated();
        // A dialog that stands over the palette.
        if (event->type() == QEvent::WindowBlocked)
            veil = std::make_unique<Veil>(*this);
        else if (event->type() == QEvent::WindowUnblocked)
            veil.reset();
        return QWidget::event(event);
    }

    bool eventFilter(QObject *target, QEvent *event) override
    {
        if (event->type() == QEvent::KeyPress && target == this && !_view)
            return QCoreApplication::sendEvent(&view().field(), event); // typed before there was a field
        if (event->type() == QEvent::KeyPress && target->isWidgetType())
            return handleKey(static_cast<QWidget *>(target), *static_cast<QKeyEvent *>(event));
        if (event->type() == QEvent::MouseButtonPress && target->isWindowType())
            reportPress(static_cast<QWindow *>(target), *static_cast<QMouseEvent *>(event));
        return false;
    }

    void showEvent(QShowEvent *) override
    {
        painted = keyboardCame = false;
        pressWatch.set(true);
    }
    void hideEvent(QHideEvent *) override { pressWatch.set(false); }

    void closeEvent(QCloseEvent *event) override
    {
        event->ignore(); // whoever asks a palette to close wants it out of the way
        controller.hide();
    }

    void mousePressEvent(QMouseEvent *event) override
    {
        if (event->button() == Qt::LeftButton)
            grip = event->globalPosition().toPoint() - pos();
    }
    void mouseMoveEvent(QMouseEvent *event) override
    {
        if (event->buttons() & Qt::LeftButton && !grip.isNull())
            move(event->globalPosition().toPoint() - grip);
    }
    void mouseReleaseEvent(QMouseEvent *) override { grip = {}; }

    void paintEvent(QPaintEvent *) override
    {
        // The first picture is the ground, on the screen while the rest is still being made.
        if (!_view)
            QMetaObject::invokeMethod(
                this, [this] { view(); }, Qt::QueuedConnection);
        QPainter painter(this);
        if (partsRatio != devicePixelRatioF())
            makeParts();
        // Drawn lower than the palette, and cut off at the window's lower edge where it is almost nothing.
        if (margin > 0)
            shadow.drawAround(painter,
                palette().adjusted(-shadowReach, -shadowReach + shadowDrop, shadowReach, shadowReach + shadowDrop),
                RoundPart::Edges::Stretched);
        drawGround(painter);
        painted = true;
        if (std::exchange(keyboardCame, false))
            QMetaObject::invokeMethod(
                this, [this] { gainedKeyboard(); }, Qt::QueuedConnection);
    }

private:
    /// Whoever hears of the keyboard asks the server about it, and the first picture need not wait for that.
    void keyboardComes()
    {
        noteKeyboard();
        if (painted)
            gainedKeyboard();
        else
            keyboardCame = true;
    }

    /// Filled rectangles where nothing is round: to stretch a picture along the edges takes the toolkit ten times as long.
    void drawGround(QPainter &painter) const
    {
        const Theme &theme = appearance.theme();
        const QRect all = palette();
        const int corner = ground.corner;
        painter.fillRect(all.adjusted(corner, 0, -corner, 0), theme.ground);
        for (const int left : {all.left(), all.right() + 1 - corner})
            painter.fillRect(left, all.top() + corner, corner, all.height() - 2 * corner, theme.ground);
        for (const int top : {all.top(), all.bottom()})
            painter.fillRect(all.left() + corner, top, all.width() - 2 * corner, 1, theme.border);
        for (const int left : {all.left(), all.right()})
            painter.fillRect(left, all.top() + corner, 1, all.height() - 2 * corner, theme.border);
        ground.drawAround(painter, all, RoundPart::Edges::LeftOut);
    }

    /// Dims the palette.
    class Veil : public QWidget {
    public:
        explicit Veil(Surface &surface) : QWidget(&surface), dark(surface.appearance.theme().dark)
        {
            setGeometry(surface.palette());
            show();
            raise();
        }

    protected:
        void paintEvent(QPaintEvent *) override
        {
            QPainter painter(this);
            painter.setRenderHint(QPainter::Antialiasing);
            fillRounded(painter, rect(), Metrics::radius, QColor(0, 0, 0, dark ? 110 : 60));
        }

    private:
        const bool dark;
    };

    bool handleKey(QWidget *target, const QKeyEvent &event)
    {
        if (target->window() != this || !isVisible() || !_view || _view->field().composing())
            return false;
        return controller.handleKey(keyPressOf(event));
    }

    void reportPress(const QWindow *target, const QMouseEvent &event)
    {
        if (!isVisible() || !(event.button() == Qt::LeftButton || event.button() == Qt::RightButton))
            return;
        // A menu of the field is a window of the palette too. An open one gets all presses, also those beside it.
        const QPoint place = event.globalPosition().toPoint();
        const bool inMenu = target->type() == Qt::Popup && QRect(QPoint(), target->size()).contains(event.position().toPoint());
        lastPress = event.timestamp();
        controller.mousePressed(place.x(), place.y(), target == windowHandle() || inMenu);
    }

    /// A press that the toolkit did not or will not report. Both tell of it, in either order; when the toolkit was first,
    /// its window, a menu perhaps, may be gone by now.
    void reportForeignPress(std::uint32_t time, bool ours)
    {
        if (ours || lastPress == time)
            return;
        const QPoint place = QCursor::pos();
        controller.mousePressed(place.x(), place.y(), false);
    }

    /// Screens change in several steps; what they come to is seen at the next turn.
    void followScreens()
    {
        const auto follow = [this](QScreen *screen) {
            connect(
                screen, &QScreen::geometryChanged, this, [this] { controller.screensChanged(); }, Qt::QueuedConnection);
        };
        for (QScreen *screen : QGuiApplication::screens())
            follow(screen);
        connect(qApp, &QGuiApplication::screenAdded, this, follow);
        connect(
            qApp, &QGuiApplication::screenRemoved, this, [this] { controller.screensChanged(); }, Qt::QueuedConnection);
    }

    QRegion outline() const
    {
        // The larger scale keeps the staircase of the corners as fine as the screen.
        QPainterPath path;
        path.addRoundedRect(palette(), Metrics::radius, Metrics::radius);
        return path.toFillPolygon().toPolygon();
    }

    /// How dark the shadow is at a distance from the rounded rectangle's edge, negative inside.
    static qreal shadeAt(qreal distance)
    {
        const qreal t = std::clamp((distance + shadowReach / 4.0) / (shadowReach * 1.15), 0.0, 1.0);
        return (1 - t) * (1 - t) * (1 - t);
    }

    /// The four corners of something round, to be stretched along the edges between them. Only so is a repaint of a few
    /// rows cheap: a rounded outline costs as much for a part of it as for all.
    struct RoundPart {
        QPixmap picture; ///< One unit lies between the corners.
        int corner = 0; ///< Side of a corner, in units.
        qreal ratio = 1; ///< Pixels of the picture for a unit.

        enum class Edges { Stretched, LeftOut };
        /// All but the middle.
        void drawAround(QPainter &painter, const QRect &whole, Edges edges) const
        {
            const qreal c = corner * ratio, s = picture.width();
            const int xs[4] = {whole.left(), whole.left() + corner, whole.right() + 1 - corner, whole.right() + 1};
            const int ys[4] = {whole.top(), whole.top() + corner, whole.bottom() + 1 - corner, whole.bottom() + 1};
            const qreal from[4] = {0, c, s - c, s};
            for (int row = 0; row < 3; row++)
                for (int column = 0; column < 3; column++)
                    if ((row != 1 && column != 1) || (edges == Edges::Stretched && row != column))
                        painter.drawPixmap(QRectF(xs[column], ys[row], xs[column + 1] - xs[column], ys[row + 1] - ys[row]),
                            picture, QRectF(from[column], from[row], from[column + 1] - from[column], from[row + 1] - from[row]));
        }
    };

    static QImage emptyPart(int corner, qreal ratio)
    {
        const int side = int(std::ceil((2 * corner + 1) * ratio));
        QImage image(side, side, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        return image;
    }

    static RoundPart partOf(QImage &&image, int corner, qreal ratio)
    {
        return {QPixmap::fromImage(std::move(image)), corner, ratio};
    }

    RoundPart makeShadow(qreal ratio) const
    {
        const int corner = shadowReach + 2 * Metrics::radius;
        QImage image = emptyPart(corner, ratio);
        const int side = image.width();
        const qreal inner = shadowReach + Metrics::radius; // where the centres of the corners' circles lie
        for (int y = 0; y < side; y++) {
            auto *line = reinterpret_cast<QRgb *>(image.scanLine(y));
            for (int x = 0; x < side; x++) {
                const qreal px = (x + 0.5) / ratio, py = (y + 0.5) / ratio, end = side / ratio;
                const qreal dx = std::max(inner - std::min(px, end - px), 0.0);
                const qreal dy = std::max(inner - std::min(py, end - py), 0.0);
                const qreal distance = std::hypot(dx, dy) - Metrics::radius;
                line[x] = qRgba(0, 0, 0, qRound(appearance.theme().shadow * shadeAt(distance)));
            }
        }
        return partOf(std::move(image), corner, ratio);
    }

    RoundPart makeGround(qreal ratio) const
    {
        constexpr int corner = Metrics::radius;
        constexpr qreal line = 1;
        const Theme &theme = appearance.theme();
        QImage image = emptyPart(corner, ratio);
        const QRectF whole(0, 0, image.width() / ratio, image.height() / ratio);
        QPainter painter(&image);
        painter.scale(ratio, ratio);
        painter.setRenderHint(QPainter::Antialiasing);
        fillRounded(painter, whole, corner, theme.ground);
        painter.setPen(QPen(theme.border, line));
        painter.drawRoundedRect(whole.adjusted(line / 2, line / 2, -line / 2, -line / 2), corner - line / 2, corner - line / 2);
        painter.end();
        return partOf(std::move(image), corner, ratio);
    }

    void makeParts()
    {
        partsRatio = devicePixelRatioF();
        ground = makeGround(partsRatio);
        if (margin > 0)
            shadow = makeShadow(partsRatio);
    }

    PaletteController &controller;
    Appearance &appearance;
    IconStore &icons;
    PaletteView *_view = nullptr;
    std::unique_ptr<Veil> veil;
    QPoint grip;
    RoundPart ground, shadow;
    qreal partsRatio = 0; // they were made for; 0 when they are to be made anew
    std::uint64_t lastPress = 0; // the server's time of the last press in a window of this program
    x11::PressWatch pressWatch{[this](std::uint32_t time, bool ours) { reportForeignPress(time, ours); }};
    bool painted = false; // since it appeared
    bool keyboardCame = false; // before that
    x11::FocusWatch focusWatch{*this, [this] { keyboardComes(); }};
};

/// One change of opacity at a time; a new one ends the one before without its completion being lost.
class QtPaletteWindow::Fade : public QObject {
public:
    explicit Fade(QWidget &window) : window(window)
    {
        connect(&animation, &QVariantAnimation::valueChanged, this,
            [this](const QVariant &value) { this->window.setWindowOpacity(value.toReal()); });
        connect(&animation, &QVariantAnimation::finished, this, [this] { finish(); });
    }

    void to(double opacity, Milliseconds duration, std::function<void()> then)
    {
        animation.stop();
        finish();
        completed = std::move(then);
        if (duration == 0ms) {
            window.setWindowOpacity(opacity);
            finish();
            return;
        }
        animation.setStartValue(window.windowOpacity());
        animation.setEndValue(opacity);
        animation.setDuration(int(duration.count()));
        animation.setEasingCurve(opacity > window.windowOpacity() ? QEasingCurve::OutCubic : QEasingCurve::InCubic);
        animation.start();
    }

    void stop() { animation.stop(); }

private:
    void finish()
    {
        if (auto then = std::exchange(completed, nullptr))
            QMetaObject::invokeMethod(this, std::move(then), Qt::QueuedConnection);
    }

    QWidget &window;
    QVariantAnimation animation;
    std::function<void()> completed;
};

// The port

QtPaletteWindow::QtPaletteWindow(
    PaletteController &controller, const Platform &platform, Appearance &appearance, IconStore &icons) :
    mainThread(platform.mainThread),
    clock(platform.clock), appearance(appearance), _surface(std::make_unique<Surface>(controller, appearance, icons)),
    fade(std::make_unique<Fade>(*_surface))
{
    _surface->deactivated = [this] { deactivated(); };
    _surface->gainedKeyboard = [this] { noteKeyboard(); };
    _surface->fileSelected = [this] { fileSelected(); };
}

QtPaletteWindow::~QtPaletteWindow() = default;

QWidget *QtPaletteWindow::surface() const { return _surface.get(); }

PaletteView &QtPaletteWindow::view() const { return _surface->view(); }

/// A report may be of a moment ago, and the window manager still at work.
void QtPaletteWindow::noteKeyboard()
{
    if (!_surface->isVisible() || x11::keyboardOf(*_surface) != x11::Keyboard::Ours)
        return;
    hadKeyboard = true;
    keyboardSettled();
}

static ScreenRect rectFrom(const QRect &rect) { return {rect.x(), rect.y(), rect.width(), rect.height()}; }

static PaletteWindow::Screen screenFrom(const QScreen &screen)
{
    return {rectFrom(screen.geometry()), rectFrom(screen.availableGeometry())};
}

std::vector<PaletteWindow::Screen> QtPaletteWindow::screens() const
{
    std::vector<Screen> all;
    for (const QScreen *screen : QGuiApplication::screens())
        all.push_back(screenFrom(*screen));
    return all;
}

std::optional<PaletteWindow::Screen> QtPaletteWindow::mainScreen() const
{
    const QScreen *screen = QGuiApplication::primaryScreen();
    return screen ? std::optional(screenFrom(*screen)) : std::nullopt;
}

PaletteWindow::Point QtPaletteWindow::mouse() const
{
    const QPoint place = QCursor::pos();
    return {place.x(), place.y()};
}

ScreenRect QtPaletteWindow::frame() const
{
    QPoint corner = wanted;
    if (_surface->isVisible())
        corner = x11::positionOf(*_surface).value_or(_surface->pos()) + QPoint(_surface->margin, _surface->margin);
    return {corner.x(), corner.y(), width, height};
}

void QtPaletteWindow::moveTo(int x, int y)
{
    wanted = {x, y};
    _surface->move(wanted - QPoint(_surface->margin, _surface->margin));
}

bool QtPaletteWindow::visible() const { return _surface->isVisible(); }

void QtPaletteWindow::setOpacity(double opacity)
{
    fade->stop();
    _surface->setWindowOpacity(opacity);
}

void QtPaletteWindow::takeShape()
{
    const Shape now{x11::compositorRuns(), _surface->devicePixelRatioF()};
    if (now != shape) { // window managers do a lot about a new shape, also when it is the old one
        shape = now;
        _surface->setMargin(now.composed ? shadowReach : 0, now.composed);
        _surface->winId();
        x11::setSolidPart(*_surface, now.composed ? _surface->palette() : QRect());
    }
    _surface->move(wanted - QPoint(_surface->margin, _surface->margin));
}

void QtPaletteWindow::bringToFront()
{
    if (_surface->hasView())
        view().refresh();
    const bool appears = !_surface->isVisible();
    if (appears) {
        hadKeyboard = false;
        takeShape();
        _surface->readyToPaint();
    }
    const std::uint32_t asked = userTime();
    const std::uint32_t time = asked ? asked : x11::serverTime();
    x11::setUserTime(*_surface, time);
    _surface->show();
    _surface->raise();
    // The toolkit's own request waits for the server, which is busy with a window that appears, before anything is painted.
    if (!x11::activate(*_surface, time))
        _surface->activateWindow();
    shownAt = clock.uptime();
    if (!appears)
        return noteKeyboard(); // one on its way out still has it, and nothing will be reported
    // The first picture is made while the server and the window manager are busy with the new window: once it is exposed, the
    // toolkit only has to copy it. It paints nothing before it takes a window for mapped. The server is not asked anything
    // now: the picture would wait for its answer.
    _surface->setAttribute(Qt::WA_Mapped);
    _surface->repaint();
    Task<void> task = settle(clock, this);
    settling = spawn(mainThread, std::move(task));
}

Task<void> QtPaletteWindow::settle(Clock &clock, QtPaletteWindow *window)
{
    co_await clock.sleep(60ms);
    Surface &surface = *window->_surface;
    const QPoint place = window->wanted - QPoint(surface.margin, surface.margin);
    if (surface.isVisible() && (surface.pos() != place || x11::positionOf(surface).value_or(place) != place))
        surface.move(place);
    if (surface.isVisible() && !surface.isActiveWindow() && x11::keyboardOf(surface) == x11::Keyboard::Nobody)
        surface.activateWindow(); // without a window manager nobody has answered
}

void QtPaletteWindow::orderOut()
{
    settling.cancel();
    following.cancel();
    _surface->hide();
    keyboardSettled();
}

void QtPaletteWindow::animateOpacity(double opacity, Milliseconds duration, std::function<void()> completed)
{
    // Nothing would be seen of it, and the palette would only be late to leave.
    const bool seen = _surface->margin > 0;
    fade->to(opacity, seen ? duration : 0ms, std::move(completed));
}

bool QtPaletteWindow::reducedMotion() const { return appearance.reducedMotion(); }

QDialog *QtPaletteWindow::sheet() const
{
    for (QDialog *dialog : _surface->findChildren<QDialog *>(Qt::FindDirectChildrenOnly))
        if (dialog->isVisible())
            return dialog;
    return nullptr;
}

bool QtPaletteWindow::hasSheet() const { return sheet() != nullptr; }

void QtPaletteWindow::bringSheetToFront()
{
    if (QDialog *dialog = sheet()) {
        dialog->raise();
        dialog->activateWindow();
        x11::activate(*dialog, x11::serverTime());
    }
}

bool QtPaletteWindow::hasKeyboard() const { return _surface->isActiveWindow(); }

void QtPaletteWindow::focusInput()
{
    if (_surface->hasView()) // else the field takes the focus when it is made
        view().field().setFocus(Qt::OtherFocusReason);
}

void QtPaletteWindow::onKeyboardLost(std::function<void()> lost) { keyboardLost = std::move(lost); }

bool QtPaletteWindow::isFresh() const { return clock.uptime() - shownAt < freshFor; }

bool QtPaletteWindow::keyboardIsLost() const
{
    switch (x11::keyboardOf(*_surface)) {
    case x11::Keyboard::Ours: return false; // the report is older than the keyboard's return
    case x11::Keyboard::Nobody: return !isFresh();
    case x11::Keyboard::Other: return hadKeyboard || !isFresh(); // else the report is of the showing before
    }
    return true;
}

/// A window of ours that was shown just before, such as the settings at a start that has something to tell, appears late
/// and takes the keyboard, although the palette was asked for last.
bool QtPaletteWindow::overtakenByOwnWindow() const
{
    const QWidget *active = QApplication::activeWindow();
    const bool isAbove = active && active->windowFlags() & Qt::WindowStaysOnTopHint; // such as the preview of a file
    return isFresh() && active && active != _surface.get() && !isAbove && !hasSheet();
}

void QtPaletteWindow::deactivated()
{
    const bool overtaken = overtakenByOwnWindow();
    if (!overtaken && keyboardIsLost())
        return keyboardLost();
    // A window manager that still tidies up after another window takes the keyboard from a fresh one.
    if (overtaken || x11::keyboardOf(*_surface) == x11::Keyboard::Nobody) {
        _surface->raise();
        x11::activate(*_surface, x11::serverTime());
    }
    following = spawn(mainThread, followKeyboard(clock, this));
}

Task<void> QtPaletteWindow::followKeyboard(Clock &clock, QtPaletteWindow *window)
{
    for (int look = 0; look < 20; look++) {
        co_await clock.sleep(50ms);
        Surface &surface = *window->_surface;
        if (!surface.isVisible() || surface.isActiveWindow())
            co_return;
        surface.noteKeyboard();
        if (window->keyboardIsLost()) {
            window->keyboardLost();
            co_return;
        }
    }
}

} // namespace korvane
