#include "Vorrel/Views/PaletteView.h"

#include "Vorrel/Shell/L10n.h"
#include "Vorrel/Views/Appearance.h"
#include "Vorrel/Views/IconStore.h"
#include "Vorrel/Views/KeyEvents.h"
#include "Vorrel/Views/PaletteInput.h"

#include <QBoxLayout>
#include <QCoreApplication>
#include <QKeyEvent>
#include <QScrollBar>

namespace korvane {

using Mode = PaletteState::Mode;

static const auto refreshEvent = QEvent::Type(QEvent::registerEventType());

/// The assistant's answer, or what it can do while there is none.
class PaletteView::AssistantView : public QWidget {
public:
    AssistantView(Appearance &appearance, IconStore &icons, QWidget *parent) :
        QWidget(parent), appearance(appearance), pane(new TextPane(appearance, this)), icon(new ResultIcon(icons, 16, this)),
        label(new Text(appearance, TypeSize::Small, Text::Tone::Secondary, QFont::Medium, this)),
        status(new Text(appearance, TypeSize::Small, Text::Tone::Secondary, QFont::Normal, this))
    {
        label->setText(fromUtf8(L10n::shown("Ask AI")));
        pane->setAccessibleName(label->text());
        auto *line = new QHBoxLayout;
        line->setSpacing(8);
        line->addWidget(icon);
        line->addWidget(label);
        line->addStretch();
        line->addWidget(status);
        line->addSpacing(8);
        auto *column = new QVBoxLayout(this);
        column->setContentsMargins(Metrics::margin, 12, Metrics::margin - 8, 12);
        column->setSpacing(8);
        column->addWidget(pane, 1);
        column->addLayout(line);
    }

    void refresh(const PaletteState &state)
    {
        // The program's own words are paler than the model's, so that neither passes for the other.
        const bool introduces = state.aiOutput().empty();
        pane->setTone(introduces ? Text::Tone::Secondary : Text::Tone::Main);
        pane->show(foreignText(introduces ? state.aiIntroduction() : state.aiOutput()));
        status->setText(runStatus(state.aiStatus()));
    }
    void applyAppearance()
    {
        icon->show("sparkles", appearance.theme().accent);
        pane->applyAppearance();
        label->applyAppearance();
        status->applyAppearance();
    }

private:
    Appearance &appearance;
    TextPane *pane;
    ResultIcon *icon;
    Text *label, *status;
};

PaletteView::PaletteView(PaletteState &state, Appearance &appearance, IconStore &icons, QWidget *parent) :
    QWidget(parent), state(state), appearance(appearance), icons(icons), input(new PaletteInput(appearance, this)),
    header(new NestedHeader(appearance, icons, state, this)), filters(new SearchFilterBar(appearance, icons, state, this)),
    shortcuts(new ShortcutsBar(appearance, icons, *state.services.shortcuts, this)),
    checking(new Text(appearance, TypeSize::Small, Text::Tone::Secondary, QFont::Normal, this)),
    errors(new ErrorArea(appearance, icons, state, this)), middle(new QStackedLayout),
    results(new ResultList(appearance, icons, state)), footer(new PaletteFooter(appearance, icons, state, this))
{
    checking->setText(fromUtf8(L10n::shown("Checking file access…")));
    checking->setContentsMargins(Metrics::margin, 8, Metrics::margin, 4);

    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);
    column->addWidget(input);
    column->addWidget(header);
    column->addWidget(filters);
    column->addWidget(shortcuts);
    column->addWidget(checking);
    column->addWidget(errors);
    column->addLayout(middle, 1);
    middle->addWidget(results); // not before: a page without a parent would appear as a window of its own
    column->addWidget(footer);

    PaletteSearchField &field = input->field();
    field.move = [&state](int delta) { state.move(delta); };
    field.submit = [&state] { state.execute(); };
    field.escape = [&state] { state.escape(); };
    field.tab = [&state] { state.beginArguments(); };
    input->edited = [&state](const QString &text) { state.setInputText(text.toStdString()); };

    icons.setThemes(appearance.iconThemes());
    subscriptions = state.observe([this] { refreshSoon(); });
    subscriptions.push_back(icons.arrivals.observe([this] { results->viewport()->update(); }));
    ShortcutsService &service = *state.services.shortcuts;
    subscriptions.push_back(service.statusText.observe([this] { refreshSoon(); }));
    subscriptions.push_back(service.startedAt.observe([this] { refreshSoon(); }));
    connect(&appearance, &Appearance::changed, this, [this] {
        this->icons.setThemes(this->appearance.iconThemes());
        applyAppearance();
    });
    applyAppearance();
    refresh();
}

PaletteView::~PaletteView() = default;

PaletteSearchField &PaletteView::field() { return input->field(); }

void PaletteView::applyAppearance()
{
    input->applyAppearance();
    input->setSymbol(icons.symbol("command", 22, devicePixelRatioF(), appearance.theme().secondary));
    header->applyAppearance();
    shortcuts->applyAppearance();
    checking->applyAppearance();
    errors->applyAppearance();
    results->applyAppearance();
    footer->applyAppearance();
    if (actionsPage)
        actionsPage->applyAppearance();
    if (previewPage)
        previewPage->applyAppearance();
    if (assistantPage)
        assistantPage->applyAppearance();
    if (progressPage)
        progressPage->applyAppearance();
    if (emptyPage)
        emptyPage->applyAppearance();
    for (QWidget *child : findChildren<QWidget *>())
        child->updateGeometry();
    update();
}

void PaletteView::refreshSoon()
{
    if (!std::exchange(refreshPending, true))
        QCoreApplication::postEvent(this, new QEvent(refreshEvent));
}

bool PaletteView::event(QEvent *event)
{
    if (event->type() == refreshEvent && refreshPending)
        refresh();
    return QWidget::event(event);
}

QString PaletteView::placeholder() const
{
    if (state.showsActions())
        return fromUtf8(L10n::shown("Search Actions…"));
    if (state.childTitle())
        return fromUtf8(L10n::shown("Search applications to open this file…"));
    if (state.argumentTarget())
        return fromUtf8(L10n::shown("Arguments for ")) + fromUtf8(state.argumentTarget()->title) + QStringLiteral("…");
    switch (state.mode()) {
    case Mode::ai: return fromUtf8(L10n::shown("Ask AI to do something…"));
    case Mode::clipboard: return fromUtf8(L10n::shown("Search clipboard history…"));
    case Mode::files: return fromUtf8(L10n::shown("Search indexed filenames…"));
    case Mode::commands: break;
    }
    return fromUtf8(L10n::shown("Search apps, files, commands or ask AI…"));
}

void PaletteView::refresh()
{
    refreshPending = false;
    _refreshes++;
    input->show(fromUtf8(state.inputText()), placeholder());
    header->refresh();
    const bool filtered = state.mode() == Mode::commands || state.mode() == Mode::files;
    filters->setVisible(filtered);
    filters->refresh();
    shortcuts->setVisible(state.category() == SearchCategory::shortcuts);
    shortcuts->refresh();
    checking->setVisible(state.coordinator.checkingAccess());
    errors->refresh();
    refreshMiddle();
    footer->refresh();
    const Row selected = state.selectedResult();
    if (selected && selected->preview && selected->preview->kind == PreviewResource::Kind::file)
        fileSelected();
    layout()->activate();
}

/// What the Tab key reaches in a part of the window.
static QList<QWidget *> reachedIn(const QWidget &part)
{
    QList<QWidget *> all = part.findChildren<QWidget *>();
    all.removeIf([](const QWidget *one) { return !(one->focusPolicy() & Qt::TabFocus); });
    return all;
}

/// Gives what is in a page its place among what the keyboard reaches: right after another part of the window.
static void tabAfter(const QWidget &part, const QWidget &page)
{
    QWidget *last = reachedIn(part).last();
    for (QWidget *next : reachedIn(page))
        QWidget::setTabOrder(std::exchange(last, next), next);
}

template <class Page, class... Arguments> Page &PaletteView::page(Page *&kept, Arguments &&...arguments)
{
    if (!kept) {
        kept = new Page(std::forward<Arguments>(arguments)..., this);
        middle->addWidget(kept);
        tabAfter(*errors, *kept);
        if constexpr (requires { kept->applyAppearance(); })
            kept->applyAppearance();
    }
    middle->setCurrentWidget(kept);
    return *kept;
}

void PaletteView::refreshMiddle()
{
    if (state.showsActions()) {
        ActionsList &actions = page(actionsPage, appearance, icons, state);
        actions.refresh();
        if (actions.count() == 0)
            page(emptyPage, appearance, icons).showNoActions();
    } else if (const Row selected = state.selectedResult(); state.showsPreview() && selected) {
        ResultPreviewView &preview = page(previewPage, appearance, icons);
        preview.close = [this] { state.togglePreview(); };
        preview.show(selected->previewText.value_or("").whole());
    } else if (state.mode() == Mode::ai) {
        page(assistantPage, appearance, icons).refresh(state);
    } else if (state.searching() || (state.searchingFiles() && state.results().empty())) {
        page(progressPage, appearance);
    } else if (state.results().empty()) {
        page(emptyPage, appearance, icons).refresh(state);
    } else {
        middle->setCurrentWidget(results);
    }
    results->refresh(); // also when hidden: it must not keep rows of another session
}

void PaletteView::turnPage(QAbstractSlider::SliderAction action)
{
    const QWidget *shown = middle->currentWidget();
    if (shown == results)
        state.select(results->rowAfter(action));
    else if (shown == actionsPage)
        state.selectAction(actionsPage->rowAfter(action));
    else if (const auto *pane = shown->findChild<TextPane *>())
        pane->verticalScrollBar()->triggerAction(action);
}

void PaletteView::keyPressEvent(QKeyEvent *event)
{
    if (const auto action = pageActionOf(*event); action && !input->field().composing())
        return turnPage(*action);
    // A letter typed while a button has the keyboard is meant for the field.
    const bool printable = !event->text().isEmpty() && event->text().front().isPrint();
    if (input->field().hasFocus()
        || !(printable || event->key() == Qt::Key_Up || event->key() == Qt::Key_Down || event->key() == Qt::Key_Return))
        return event->ignore();
    input->field().setFocus(Qt::OtherFocusReason);
    QCoreApplication::sendEvent(&input->field(), event);
}

} // namespace korvane
