#include "Vorrel/Views/QtSettingsWindow.h"

#include "Vorrel/Shell/L10n.h"
#include "Vorrel/Views/Appearance.h"
#include "Vorrel/Views/HotkeySettingsSection.h"
#include "Vorrel/Views/IconStore.h"
#include "Vorrel/Views/X11Window.h"

#include <QCursor>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QPainter>
#include <QScreen>
#include <QScrollArea>
#include <QScrollBar>
#include <QVBoxLayout>

namespace korvane {

static constexpr int pageMargin = 24;
static const auto refreshEvent = QEvent::Type(QEvent::registerEventType());

namespace {

/// The line at the window's foot, with the button that makes drafts real.
class SettingsFooter : public QWidget {
public:
    SettingsFooter(SettingsState &state, Appearance &appearance, IconStore &icons, QWidget *parent) :
        QWidget(parent), state(state), appearance(appearance),
        line(new Text(appearance, TypeSize::Small, Text::Tone::Secondary, QFont::Normal, this)),
        save(new FlatButton(appearance, icons, FlatButton::Style::Primary, this))
    {
        line->setWordWrap(true);
        save->setText(fromUtf8(L10n::shown("Save Settings")));
        connect(save, &QAbstractButton::clicked, this, [this] { this->state.save(); });
        auto *row = new QHBoxLayout(this);
        row->setContentsMargins(pageMargin, 13, pageMargin, 12);
        row->setSpacing(16);
        row->addWidget(line, 1);
        row->addWidget(save);
    }

    void refresh()
    {
        line->setText(
            state.message->has_value() ? shownText(state.message->value()) : fromUtf8(L10n::shown("Changes are saved locally.")));
        save->setEnabled(!state.saving);
    }
    void applyAppearance() { line->applyAppearance(); }

protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        painter.fillRect(QRect(0, 0, width(), 1), appearance.theme().separator);
    }

private:
    SettingsState &state;
    Appearance &appearance;
    Text *line;
    FlatButton *save;
};

/// Holds a page that may be longer than the window.
class SettingsPageArea : public QScrollArea {
public:
    SettingsPageArea(Appearance &appearance, QWidget *section, QWidget *parent) : QScrollArea(parent), appearance(appearance)
    {
        auto *page = new QWidget;
        auto *column = new QVBoxLayout(page);
        column->setContentsMargins(pageMargin, pageMargin, pageMargin, pageMargin);
        column->setSpacing(16);
        column->addWidget(section);
        column->addStretch();
        setWidget(page);
        setWidgetResizable(true);
        setFrameShape(QFrame::NoFrame);
        setFocusPolicy(Qt::NoFocus);
        setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
        page->setAutoFillBackground(false);
        viewport()->setAutoFillBackground(false);
        applyAppearance();
    }

    void applyAppearance() { styleScrollBar(*verticalScrollBar(), appearance.theme()); }

private:
    Appearance &appearance;
};

} // namespace

class QtSettingsWindow::Surface : public QWidget {
public:
    Surface(SettingsState &state, Appearance &appearance, IconStore &icons) :
        appearance(appearance), hotkey(new HotkeySettingsSection(state, appearance, icons)),
        page(new SettingsPageArea(appearance, hotkey, this)), footer(new SettingsFooter(state, appearance, icons, this))
    {
        setAttribute(Qt::WA_QuitOnClose, false);
        setWindowTitle(fromUtf8(L10n::shown("Korvane Settings")));
        setFixedSize(QtSettingsWindow::width, QtSettingsWindow::height);
        auto *column = new QVBoxLayout(this);
        column->setContentsMargins(0, 0, 0, 0);
        column->setSpacing(0);
        column->addWidget(page, 1);
        column->addWidget(footer);
        subscriptions = state.observe([this] { refreshSoon(); });
        connect(&appearance, &Appearance::changed, this, [this] { applyAppearance(); });
        applyAppearance();
        refresh();
    }

    void refresh()
    {
        refreshPending = false;
        hotkey->refresh();
        footer->refresh();
        layout()->activate();
    }

    Appearance &appearance;
    HotkeySettingsSection *hotkey;

protected:
    bool event(QEvent *event) override
    {
        if (event->type() == refreshEvent && refreshPending)
            refresh();
        return QWidget::event(event);
    }

    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        painter.fillRect(rect(), appearance.theme().ground);
    }

private:
    /// However many properties change in one turn of the event loop, the views are brought up to date once.
    void refreshSoon()
    {
        if (!std::exchange(refreshPending, true))
            QCoreApplication::postEvent(this, new QEvent(refreshEvent));
    }

    void applyAppearance()
    {
        hotkey->applyAppearance();
        page->applyAppearance();
        footer->applyAppearance();
        for (QWidget *child : findChildren<QWidget *>())
            child->updateGeometry();
        update();
    }

    SettingsPageArea *page;
    SettingsFooter *footer;
    std::vector<Subscription> subscriptions;
    bool refreshPending = false;
};

QtSettingsWindow::QtSettingsWindow(SettingsState &state, const Platform &platform, Appearance &appearance) :
    icons(std::make_shared<IconStore>(platform.mainThread, platform.pool)),
    _surface(std::make_unique<Surface>(state, appearance, *icons))
{
}

QtSettingsWindow::~QtSettingsWindow() = default;

QWidget *QtSettingsWindow::surface() const { return _surface.get(); }

HotkeySettingsSection &QtSettingsWindow::hotkeySection() const { return *_surface->hotkey; }

void QtSettingsWindow::refresh() { _surface->refresh(); }

void QtSettingsWindow::showCentred()
{
    refresh();
    const QScreen *screen = QGuiApplication::screenAt(QCursor::pos());
    if (!screen)
        screen = QGuiApplication::primaryScreen();
    if (screen) {
        QRect frame = _surface->frameGeometry();
        frame.moveCenter(screen->availableGeometry().center());
        _surface->move(frame.topLeft());
    }
    _surface->setWindowState(_surface->windowState() & ~Qt::WindowMinimized);
    x11::showInFront(*_surface);
    _surface->setFocus(Qt::OtherFocusReason); // no control is marked before the user asks for one
}

} // namespace korvane
