#include "Vorrel/Views/SettingsView.h"

#include "Vorrel/AI/AgentStore.h"
#include "Vorrel/FileIndex/FileIndex.h"
#include "Vorrel/Shell/L10n.h"
#include "Vorrel/Views/AgentSettingsView.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QCoreApplication>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QPainter>
#include <QScrollArea>
#include <QShortcut>
#include <QVBoxLayout>

namespace korvane {

using Tab = SettingsState::Tab;

static constexpr int viewMargin = 24;
static const auto refreshEvent = QEvent::Type(QEvent::registerEventType());

// The tabs

namespace {

/// A list of tabs to screen readers.
QAccessibleInterface *makeTabList(const QString &name, QObject *object)
{
    if (name != QLatin1String(SettingsTabBar::staticMetaObject.className()))
        return nullptr;
    return new QAccessibleWidget(static_cast<QWidget *>(object), QAccessible::PageTabList);
}

const char *symbolOf(Tab tab)
{
    switch (tab) {
    case Tab::general: return "gearshape";
    case Tab::files: return "folder.badge.gearshape";
    case Tab::clipboard: return "clipboard";
    case Tab::ai: return "sparkles";
    case Tab::agents: return "person.crop.circle";
    case Tab::mcp: break;
    }
    return "point.3.connected.trianglepath.dotted";
}

} // namespace

QString SettingsTabBar::label(Tab tab)
{
    switch (tab) {
    case Tab::general: return fromUtf8(L10n::shown("General"));
    case Tab::files: return fromUtf8(L10n::shown("File Index"));
    case Tab::clipboard: return fromUtf8(L10n::shown("Clipboard"));
    case Tab::ai: return fromUtf8(L10n::shown("AI"));
    case Tab::agents: return fromUtf8(L10n::shown("Agents"));
    case Tab::mcp: break;
    }
    return fromUtf8(L10n::shown("MCP"));
}

SettingsTabBar::SettingsTabBar(SettingsState &state, Appearance &appearance, IconStore &icons, QWidget *parent) :
    QWidget(parent), state(state), appearance(appearance)
{
    static const bool installed = [] {
        QAccessible::installFactory(makeTabList);
        return true;
    }();
    (void)installed;
    setAccessibleName(fromUtf8(L10n::shown("Settings")));
    auto *row = new QHBoxLayout(this);
    row->setContentsMargins(viewMargin - 10, 12, viewMargin - 10, 12);
    row->setSpacing(8);
    row->addStretch();
    for (const Tab tab : SettingsState::tabs) {
        const auto choose = [this, tab] { this->state.selectedTab = tab; };
        FlatButton *button = makeButton(appearance, icons, label(tab), choose, FlatButton::Style::Tab);
        button->setSymbol(symbolOf(tab));
        button->installEventFilter(this);
        connect(button, &QAbstractButton::clicked, this, [this] { refresh(); }); // a chosen one stays so
        row->addWidget(button);
        buttons.push_back(button);
    }
    row->addStretch();
}

int SettingsTabBar::chosen() const { return int(state.selectedTab.get()); }

void SettingsTabBar::choose(int number)
{
    state.selectedTab = SettingsState::tabs[number];
    refresh();
}

void SettingsTabBar::step(int by)
{
    const int count = int(buttons.size());
    choose((chosen() + by + count) % count);
}

void SettingsTabBar::takeFocus() { buttons[std::size_t(chosen())]->setFocus(Qt::TabFocusReason); }

void SettingsTabBar::refresh()
{
    for (int i = 0; i < int(buttons.size()); i++) {
        FlatButton *button = buttons[std::size_t(i)];
        button->setChecked(i == chosen());
        button->setFocusPolicy(i == chosen() ? Qt::TabFocus : Qt::NoFocus);
    }
}

bool SettingsTabBar::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() != QEvent::KeyPress)
        return QWidget::eventFilter(watched, event);
    const int last = int(buttons.size()) - 1;
    switch (static_cast<QKeyEvent *>(event)->key()) {
    case Qt::Key_Left: step(-1); break;
    case Qt::Key_Right: step(1); break;
    case Qt::Key_Home: choose(0); break;
    case Qt::Key_End: choose(last); break;
    default: return QWidget::eventFilter(watched, event);
    }
    takeFocus();
    return true;
}

void SettingsTabBar::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.fillRect(QRect(0, height() - 1, width(), 1), appearance.theme().separator);
}

// The foot

/// The line at the window's foot, with the button that makes drafts real.
class SettingsFooter : public QWidget {
public:
    /// `pressed` is told of the button.
    SettingsFooter(
        SettingsState &state, Appearance &appearance, IconStore &icons, const std::function<void()> &pressed, QWidget *parent) :
        QWidget(parent),
        state(state), appearance(appearance),
        line(new Text(appearance, TypeSize::Small, Text::Tone::Secondary, QFont::Normal, this)),
        save(makeButton(appearance, icons, fromUtf8(L10n::shown("Save Settings")), pressed, FlatButton::Style::Primary))
    {
        line->setWordWrap(true);
        auto *row = new QHBoxLayout(this);
        row->setContentsMargins(viewMargin, 13, viewMargin, 12);
        row->setSpacing(16);
        row->addWidget(line, 1);
        row->addWidget(save);
    }

    void refresh()
    {
        // A change of the words is told to screen readers as the label's new name. What an earlier save said makes room during
        // the next one, so that the same words are told again.
        const bool says = state.message->has_value() && !state.saving;
        line->setText(says ? shownText(state.message->value()) : fromUtf8(L10n::shown("Changes are saved locally.")));
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

// A page in its place

/// A pane, scrolled where it may be longer than the window.
class SettingsView::Page : public QWidget {
public:
    Page(SettingsPane *pane, Appearance &appearance, QWidget *parent) : QWidget(parent), pane(pane)
    {
        auto *column = new QVBoxLayout(this);
        column->setContentsMargins(0, 0, 0, 0);
        column->addWidget(pane->scrolls() ? static_cast<QWidget *>(makeScrollArea(pane, appearance)) : pane);
    }

    SettingsPane *const pane;
};

// The view

static SettingsPane *makePane(Tab tab, const PaneParts &parts)
{
    switch (tab) {
    case Tab::general: return new GeneralSettingsPane(parts);
    case Tab::files: return new FileIndexSettingsPane(parts);
    case Tab::clipboard: return new ClipboardSettingsPane(parts);
    case Tab::ai: return new AISettingsPane(parts);
    case Tab::agents: return new AgentSettingsView(parts, parts.state.agents());
    case Tab::mcp: break;
    }
    return new MCPSettingsPane(parts);
}

SettingsView::SettingsView(const PaneParts &parts) :
    parts(parts), tabBar(new SettingsTabBar(parts.state, parts.appearance, parts.icons, this)), pages(new QWidget(this)),
    footer(new SettingsFooter(
        parts.state, parts.appearance, parts.icons, [this] { save(); }, this))
{
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    column->addWidget(tabBar);
    column->addWidget(pages, 1);
    column->addWidget(footer);
    auto *place = new QVBoxLayout(pages);
    place->setContentsMargins(0, 0, 0, 0);

    const auto changed = [this] { refreshSoon(); };
    subscriptions = parts.state.observe(changed);
    for (Subscription &one : parts.state.fileIndex().observe(changed))
        subscriptions.push_back(std::move(one));
    for (Subscription &one : parts.state.agents().observe(changed))
        subscriptions.push_back(std::move(one));
    connect(&parts.appearance, &Appearance::changed, this, [this] { applyAppearance(); });
    addKeys();
    refresh();
}

void SettingsView::addKeys()
{
    const auto add = [this](const QKeySequence &keys, const std::function<void()> &run) {
        connect(new QShortcut(keys, this), &QShortcut::activated, this, run);
    };
    const auto turn = [this](int by) {
        tabBar->step(by);
        tabBar->takeFocus();
    };
    for (const QKeyCombination keys : {Qt::CTRL | Qt::Key_Tab, Qt::CTRL | Qt::Key_PageDown})
        add(keys, [turn] { turn(1); });
    for (const QKeyCombination keys :
        {Qt::CTRL | Qt::SHIFT | Qt::Key_Backtab, Qt::CTRL | Qt::SHIFT | Qt::Key_Tab, Qt::CTRL | Qt::Key_PageUp})
        add(keys, [turn] { turn(-1); });
    for (const QKeyCombination keys : {QKeyCombination(Qt::Key_Escape), Qt::CTRL | Qt::Key_W})
        add(keys, [this] { window()->close(); });
}

SettingsView::Page &SettingsView::page(Tab tab)
{
    Page *&one = made[std::size_t(tab)];
    if (!one) {
        one = new Page(makePane(tab, parts), parts.appearance, pages);
        one->setAccessibleName(SettingsTabBar::label(tab));
        one->hide();
        pages->layout()->addWidget(one);
    }
    return *one;
}

SettingsPane &SettingsView::pane(Tab tab) { return *page(tab).pane; }

HotkeySettingsSection &SettingsView::hotkeySection()
{
    return static_cast<GeneralSettingsPane &>(pane(Tab::general)).hotkeySection();
}

void SettingsView::showTab(Tab tab)
{
    Page *before = std::exchange(shown, &page(tab));
    if (before == shown)
        return;
    tabBar->refresh();
    if (before) {
        if (QWidget *focused = focusWidget(); focused && before->isAncestorOf(focused))
            tabBar->takeFocus();
        before->hide();
    }
    shown->show();
    if (isVisible())
        shown->pane->opened();
}

void SettingsView::refresh()
{
    refreshPending = false;
    showTab(parts.state.selectedTab);
    shown->pane->refresh();
    footer->refresh();
    layout()->activate();
}

void SettingsView::save()
{
    parts.state.save();
    refresh(); // shows that a save runs, however short it is
}

void SettingsView::refreshSoon()
{
    // However many properties change in one turn of the event loop, the views are brought up to date once. A window that is
    // hidden is when it is shown.
    if (isVisible() && !std::exchange(refreshPending, true))
        QCoreApplication::postEvent(this, new QEvent(refreshEvent));
}

bool SettingsView::event(QEvent *event)
{
    if (event->type() == refreshEvent && refreshPending)
        refresh();
    return QWidget::event(event);
}

void SettingsView::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    if (!event->spontaneous())
        shown->pane->opened();
}

void SettingsView::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.fillRect(rect(), parts.appearance.theme().ground);
}

void SettingsView::applyAppearance()
{
    for (Page *one : made)
        if (one)
            one->pane->applyAppearance();
    footer->applyAppearance();
    for (QWidget *child : findChildren<QWidget *>())
        child->updateGeometry();
    update();
}

// The keyboard

QList<QWidget *> SettingsView::focusOrder() const
{
    const QWidget *focused = focusWidget();
    QList<QWidget *> all;
    const std::function<void(const QWidget &)> collect = [&](const QWidget &below) {
        for (QObject *child : below.children()) {
            auto *widget = qobject_cast<QWidget *>(child);
            if (!widget || widget->isWindow())
                continue;
            const bool takesKeys = (widget->focusPolicy() & Qt::TabFocus) && !widget->focusProxy();
            const bool usable = widget->isVisibleTo(this) && widget->isEnabled();
            if (widget == focused || (takesKeys && usable))
                all += widget;
            if (usable || widget->isAncestorOf(focused))
                collect(*widget);
        }
    };
    collect(*this);
    return all;
}

bool SettingsView::focusNextPrevChild(bool next)
{
    // The toolkit's own order is that in which widgets were made, and pages and rows are made late.
    const QList<QWidget *> order = focusOrder();
    if (order.isEmpty())
        return false;
    const qsizetype now = order.indexOf(focusWidget());
    const qsizetype count = order.size();
    const qsizetype target = now < 0 ? (next ? 0 : count - 1) : (now + (next ? 1 : count - 1)) % count;
    QWidget *chosen = order[target];
    chosen->setFocus(next ? Qt::TabFocusReason : Qt::BacktabFocusReason);
    for (QWidget *around = chosen->parentWidget(); around; around = around->parentWidget())
        if (auto *area = qobject_cast<QScrollArea *>(around))
            area->ensureWidgetVisible(chosen, viewMargin, viewMargin);
    return true;
}

} // namespace korvane
