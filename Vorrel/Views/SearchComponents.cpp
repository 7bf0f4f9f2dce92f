#include "Vorrel/Views/SearchComponents.h"

#include "Vorrel/Shell/L10n.h"
#include "Vorrel/Views/Appearance.h"
#include "Vorrel/Views/FileFilters.h"
#include "Vorrel/Views/IconStore.h"
#include "Vorrel/Views/TextLine.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QPainter>
#include <QVBoxLayout>

#include <cmath>

namespace korvane {

QString modeName(PaletteState::Mode mode)
{
    switch (mode) {
    case PaletteState::Mode::commands: return fromUtf8(L10n::shown("Commands"));
    case PaletteState::Mode::files: return fromUtf8(L10n::shown("Search Files"));
    case PaletteState::Mode::clipboard: return fromUtf8(L10n::shown("Clipboard History"));
    case PaletteState::Mode::ai: return fromUtf8(L10n::shown("Ask AI"));
    }
    return {};
}

// ResultIcon

ResultIcon::ResultIcon(IconStore &icons, int size, QWidget *parent) : QWidget(parent), icons(icons)
{
    setFixedSize(size, size);
    setAttribute(Qt::WA_TransparentForMouseEvents);
}

void ResultIcon::show(const std::string &name, const QColor &tint)
{
    symbol = name;
    color = tint;
    update();
}

void ResultIcon::paintEvent(QPaintEvent *)
{
    if (symbol.empty())
        return;
    QPainter painter(this);
    painter.drawPixmap(0, 0, icons.symbol(symbol, width(), devicePixelRatioF(), color));
}

// Text

Text::Text(Appearance &appearance, TypeSize size, Tone tone, QFont::Weight weight, QWidget *parent) :
    QLabel(parent), appearance(appearance), size(size), tone(tone), weight(weight)
{
    setTextFormat(Qt::PlainText);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    applyAppearance();
}

void Text::applyAppearance()
{
    const Theme &theme = appearance.theme();
    QPalette colours = palette();
    colours.setColor(QPalette::WindowText,
        tone == Tone::Main          ? theme.text
            : tone == Tone::Accent  ? theme.accent
            : tone == Tone::Warning ? theme.warning
                                    : theme.secondary);
    setPalette(colours);
    QFont letters = appearance.font(size, weight);
    letters.setLetterSpacing(QFont::AbsoluteSpacing, font().letterSpacing());
    setFont(letters);
}

// FlatButton

namespace {

constexpr int buttonHeight = 28;
constexpr int buttonPadding = 8;
constexpr int symbolSide = 16;
constexpr int buttonGap = 6;
constexpr int captionGap = 4;
constexpr int menuMarkSide = 12;

/// A tab to screen readers: toolkits have no widget for a tab that stands alone.
class TabAccessible : public QAccessibleWidget {
public:
    explicit TabAccessible(FlatButton *button) : QAccessibleWidget(button, QAccessible::PageTab) { }

    QString text(QAccessible::Text kind) const override
    {
        return kind == QAccessible::Name ? button()->text() : QAccessibleWidget::text(kind);
    }
    QAccessible::State state() const override
    {
        QAccessible::State state = QAccessibleWidget::state();
        state.selectable = true;
        state.selected = button()->isChecked();
        return state;
    }
    QStringList actionNames() const override { return {pressAction()}; }
    void doAction(const QString &name) override
    {
        if (name == pressAction())
            button()->click();
    }

private:
    FlatButton *button() const { return static_cast<FlatButton *>(object()); }
};

QAccessibleInterface *makeTab(const QString &name, QObject *object)
{
    if (name != QLatin1String(FlatButton::staticMetaObject.className()))
        return nullptr;
    auto *button = qobject_cast<FlatButton *>(object);
    return button && button->style() == FlatButton::Style::Tab ? new TabAccessible(button) : nullptr;
}

} // namespace

FlatButton::FlatButton(Appearance &appearance, IconStore &icons, Style style, QWidget *parent) :
    QAbstractButton(parent), appearance(appearance), icons(icons), _style(style)
{
    static const bool installed = [] {
        QAccessible::installFactory(makeTab);
        return true;
    }();
    (void)installed;
    setFocusPolicy(Qt::TabFocus);
    setCheckable(style == Style::Tab);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

void FlatButton::setSymbol(const std::string &name)
{
    symbol = name;
    updateGeometry();
    update();
}

void FlatButton::setKeys(const QStringList &names)
{
    keys = names;
    updateGeometry();
    update();
}

void FlatButton::setCaption(const QString &text)
{
    caption = text;
    updateGeometry();
    update();
}

void FlatButton::setOpensMenu(bool opens)
{
    opensMenu = opens;
    updateGeometry();
    update();
}

QFont FlatButton::textFont() const
{
    return appearance.font(TypeSize::Small, _style == Style::Quiet ? QFont::Normal : QFont::Medium);
}

QFont FlatButton::captionFont() const { return appearance.font(TypeSize::Small); }

static int sidePadding(FlatButton::Style style)
{
    switch (style) {
    case FlatButton::Style::Quiet: return buttonPadding;
    case FlatButton::Style::Primary: return buttonPadding + 8;
    case FlatButton::Style::Filled:
    case FlatButton::Style::Tab: break;
    }
    return buttonPadding + 2;
}

QSize FlatButton::sizeHint() const
{
    int width = 2 * sidePadding(_style);
    if (!symbol.empty())
        width += symbolSide;
    if (!caption.isEmpty())
        width += textLine::width(captionFont(), caption) + captionGap;
    if (!keys.isEmpty())
        width += keysWidth(appearance, keys) + buttonGap;
    if (!text().isEmpty())
        width += textLine::width(textFont(), text()) + (symbol.empty() ? 0 : 4);
    if (opensMenu)
        width += captionGap + menuMarkSide;
    return {width, _style == Style::Primary ? buttonHeight + 4 : buttonHeight};
}

QColor FlatButton::ink() const
{
    const Theme &theme = appearance.theme();
    if (!isEnabled())
        return theme.faint;
    switch (_style) {
    case Style::Primary: return theme.ground;
    case Style::Filled: return theme.text;
    case Style::Tab: return isChecked() ? theme.accent : theme.secondary;
    case Style::Quiet: break;
    }
    return theme.secondary;
}

void FlatButton::drawGround(QPainter &painter) const
{
    const Theme &theme = appearance.theme();
    const bool marked = isChecked() && _style == Style::Tab;
    if (marked)
        fillRounded(painter, rect(), 7, theme.selection);
    else if (_style == Style::Primary && isEnabled())
        fillRounded(painter, rect(), 7, theme.accent);
    else if (_style == Style::Filled || _style == Style::Primary)
        fillRounded(painter, rect(), 7, theme.keyGround);
    if (underMouse() && isEnabled() && !marked)
        fillRounded(painter, rect(), 7, theme.hover);
    if (hasFocus()) {
        // Around a filled button a line of its own colour would not be seen.
        const bool outside = _style != Style::Primary;
        painter.setPen(QPen(outside ? theme.accent : theme.text, 1.5));
        painter.drawRoundedRect(QRectF(rect()).adjusted(0.75, 0.75, -0.75, -0.75), 6.5, 6.5);
    }
}

void FlatButton::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    drawGround(painter);

    const qreal ratio = devicePixelRatioF();
    int x = sidePadding(_style);
    const auto drawText = [&](const QString &text, const QFont &font, const QColor &color) {
        painter.setPen(color);
        x += textLine::drawLeft(painter, font, QRect(x, 0, width() - x, height()), text);
    };
    const auto drawKeyCaps = [&] {
        drawKeys(painter, appearance, keys, QPoint(x, height() / 2));
        x += keysWidth(appearance, keys);
    };
    if (!symbol.empty()) {
        painter.drawPixmap(x, (height() - symbolSide) / 2, icons.symbol(symbol, symbolSide, ratio, ink()));
        x += symbolSide + 4;
    }
    if (!caption.isEmpty()) {
        drawText(caption, captionFont(), appearance.theme().secondary);
        x += captionGap;
    }
    if (!keys.isEmpty() && _style != Style::Tab) {
        drawKeyCaps();
        x += buttonGap;
    }
    drawText(text(), textFont(), ink());
    if (!keys.isEmpty() && _style == Style::Tab) {
        x += buttonGap;
        drawKeyCaps();
    }
    if (opensMenu)
        painter.drawPixmap(x + captionGap, (height() - menuMarkSide) / 2,
            icons.symbol("chevron.down", menuMarkSide, ratio, appearance.theme().secondary));
}

void FlatButton::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter)
        click();
    else if (event->key() == Qt::Key_Up || event->key() == Qt::Key_Down)
        event->ignore(); // they walk through the rows, wherever the keyboard is
    else
        QAbstractButton::keyPressEvent(event);
}

bool FlatButton::focusNextPrevChild(bool next)
{
    // A disabled button is given no keys: this is the toolkit's, which takes the keyboard from what it disables.
    const bool keeps = !isEnabled() && isVisible() && window()->focusWidget() == this;
    return keeps || QAbstractButton::focusNextPrevChild(next);
}

void FlatButton::enterEvent(QEnterEvent *) { update(); }

void FlatButton::leaveEvent(QEvent *) { update(); }

// HintLine

static constexpr int hintGap = 2 * buttonPadding; // as between two buttons

HintLine::HintLine(Appearance &appearance, QWidget *parent) : QWidget(parent), appearance(appearance)
{
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

void HintLine::setLine(const QString &line)
{
    const QList<KeyHint> next = keyHints(line);
    if (next == hints)
        return;
    hints = next;
    setAccessibleName(line);
    updateGeometry();
    update();
}

QSize HintLine::sizeHint() const
{
    const QFont font = appearance.font(TypeSize::Small);
    int width = 0;
    for (const KeyHint &hint : hints)
        width += keysWidth(appearance, hint.keys) + buttonGap + textLine::width(font, hint.text) + hintGap;
    return {width, buttonHeight};
}

void HintLine::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QFont font = appearance.font(TypeSize::Small);
    int x = hintGap / 2;
    for (const KeyHint &hint : hints) {
        drawKeys(painter, appearance, hint.keys, QPoint(x, height() / 2));
        x += keysWidth(appearance, hint.keys) + buttonGap;
        painter.setPen(appearance.theme().secondary);
        x += textLine::drawLeft(painter, font, QRect(x, 0, width(), height()), hint.text) + hintGap;
    }
}

// Spinner

Spinner::Spinner(Appearance &appearance, int size, QWidget *parent) : QWidget(parent), appearance(appearance)
{
    setFixedSize(size, size);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    turn.setStartValue(0.0);
    turn.setEndValue(360.0);
    turn.setDuration(900);
    turn.setLoopCount(-1);
    QObject::connect(&turn, &QVariantAnimation::valueChanged, this, [this] { update(); });
}

void Spinner::showEvent(QShowEvent *)
{
    if (!appearance.reducedMotion())
        turn.start();
}

void Spinner::hideEvent(QHideEvent *) { turn.stop(); }

void Spinner::paintEvent(QPaintEvent *)
{
    const Theme &theme = appearance.theme();
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const qreal stroke = width() > 16 ? 2.5 : 1.75;
    const QRectF circle = QRectF(rect()).adjusted(stroke, stroke, -stroke, -stroke);
    painter.setPen(QPen(theme.separator, stroke));
    painter.drawEllipse(circle);
    painter.setPen(QPen(theme.accent, stroke, Qt::SolidLine, Qt::RoundCap));
    painter.drawArc(circle, int((90 - turn.currentValue().toReal()) * 16), -100 * 16);
}

// SearchFilterBar

SearchFilterBar::SearchFilterBar(Appearance &appearance, IconStore &icons, PaletteState &state, QWidget *parent) :
    QWidget(parent), state(state), fileFilters(new FileFilters(appearance, icons, state, this))
{
    auto *line = new QHBoxLayout;
    line->setContentsMargins(Metrics::margin - 8, 8, Metrics::margin, 4);
    line->setSpacing(4);
    for (const SearchCategory category : allSearchCategories) {
        auto *tab = new FlatButton(appearance, icons, FlatButton::Style::Tab, this);
        tab->setText(shownText(rawValue(category)));
        const std::string place = std::to_string(tabs.size() + 1);
        const QStringList keys = keyNames(L10n::format("⌘%lld", place));
        tab->setKeys(keys);
        tab->setAccessibleDescription(keys.join(u'+'));
        connect(tab, &QAbstractButton::clicked, this, [this, category] {
            this->state.setCategory(category);
            refresh(); // a click on the marked tab must not take its mark
        });
        line->addWidget(tab);
        tabs.push_back(tab);
    }
    line->addStretch();
    auto *rows = new QVBoxLayout(this);
    rows->setContentsMargins(0, 0, 0, 0);
    rows->setSpacing(0);
    rows->addLayout(line);
    rows->addWidget(fileFilters);
}

void SearchFilterBar::refresh()
{
    for (std::size_t i = 0; i < tabs.size(); i++)
        tabs[i]->setChecked(allSearchCategories[i] == state.category());
    const bool forFiles = state.category() == SearchCategory::files;
    fileFilters->setVisible(forFiles);
    if (forFiles)
        fileFilters->refresh();
}

// ShortcutsBar

ShortcutsBar::ShortcutsBar(Appearance &appearance, IconStore &icons, ShortcutsService &service, QWidget *parent) :
    QWidget(parent), service(service), status(new Text(appearance, TypeSize::Small, Text::Tone::Secondary, QFont::Normal, this))
{
    auto *button = new FlatButton(appearance, icons, FlatButton::Style::Filled, this);
    button->setText(fromUtf8(L10n::shown("Refresh List")));
    connect(button, &QAbstractButton::clicked, this, [this] { this->service.refresh(true); });
    auto *line = new QHBoxLayout(this);
    line->setContentsMargins(Metrics::margin, 4, Metrics::margin, 4);
    line->setSpacing(12);
    line->addWidget(status, 1);
    line->addWidget(button);
}

void ShortcutsBar::refresh() { status->setText(shownText(service.statusText.get())); }

// NestedHeader

NestedHeader::NestedHeader(Appearance &appearance, IconStore &icons, PaletteState &state, QWidget *parent) :
    QWidget(parent), state(state), title(new Text(appearance, TypeSize::Body, Text::Tone::Main, QFont::DemiBold, this))
{
    auto *back = new FlatButton(appearance, icons, FlatButton::Style::Filled, this);
    const QString label = fromUtf8(L10n::shown("esc Back"));
    const QList<KeyHint> hints = keyHints(label);
    back->setSymbol("chevron.left");
    back->setKeys(hints.value(0).keys);
    back->setText(hints.value(0).text);
    back->setAccessibleName(label);
    QObject::connect(back, &QAbstractButton::clicked, this, [this] { this->state.escape(); });

    auto *line = new QHBoxLayout(this);
    line->setContentsMargins(Metrics::margin - 8, 8, Metrics::margin, 4);
    line->setSpacing(12);
    line->addWidget(back);
    line->addWidget(title, 1);
}

QString NestedHeader::titleFor(const PaletteState &state)
{
    if (state.childTitle())
        return shownText(*state.childTitle());
    if (state.argumentTarget())
        return fromUtf8(L10n::shown("Arguments · ")) + fromUtf8(state.argumentTarget()->title);
    if (state.mode() == PaletteState::Mode::ai && state.activeAgent())
        return fromUtf8(state.activeAgent()->name);
    return state.mode() == PaletteState::Mode::commands ? QString() : modeName(state.mode());
}

void NestedHeader::refresh()
{
    const QString text = titleFor(state);
    title->setText(text);
    setVisible(!text.isEmpty());
}

void NestedHeader::applyAppearance() { title->applyAppearance(); }

// ErrorArea

ErrorArea::ErrorArea(Appearance &appearance, IconStore &icons, PaletteState &state, QWidget *parent) :
    QWidget(parent), appearance(appearance), state(state), icon(new ResultIcon(icons, 18, this)),
    sentence(new Text(appearance, TypeSize::Body, Text::Tone::Main, QFont::Normal, this))
{
    sentence->setWordWrap(true);
    auto *line = new QHBoxLayout(this);
    line->setContentsMargins(Metrics::margin + 4, 12, Metrics::margin, 12);
    line->setSpacing(8);
    line->addWidget(icon, 0, Qt::AlignVCenter);
    line->addSpacing(4);
    line->addWidget(sentence, 1);
    const auto button = [&](const QString &text, auto pressed) {
        auto *made = new FlatButton(appearance, icons, FlatButton::Style::Filled, this);
        made->setText(text);
        QObject::connect(made, &QAbstractButton::clicked, this, pressed);
        line->addWidget(made, 0, Qt::AlignVCenter);
        return made;
    };
    access = button(fromUtf8(L10n::shown("File Access Settings")), [this] { this->state.openFilePrivacySettings(); });
    refreshSearch = button(fromUtf8(L10n::shown("Refresh Search")), [this] { this->state.retrySearch(); });
    retry = button(fromUtf8(L10n::shown("Retry")), [this] { this->state.retrySearch(); });
    applyAppearance();
}

void ErrorArea::refresh()
{
    setVisible(state.error().has_value());
    if (!state.error())
        return;
    const QString text = shownText(*state.error());
    const bool fresh = text != sentence->text();
    sentence->setText(text);
    setAccessibleName(text);
    access->setVisible(state.errorRecovery().openAccessSettings);
    refreshSearch->setVisible(state.errorRecovery().refreshResults);
    retry->setVisible(state.errorRecovery().rerunAction);
    if (fresh && QAccessible::isActive()) {
        QAccessibleEvent alert(this, QAccessible::Alert);
        QAccessible::updateAccessibility(&alert);
    }
}

void ErrorArea::applyAppearance()
{
    icon->show("exclamationmark.triangle", appearance.theme().warning);
    sentence->applyAppearance();
    update();
}

void ErrorArea::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    fillRounded(
        painter, rect().adjusted(Metrics::listMargin + 4, 4, -Metrics::listMargin - 4, -4), 8, appearance.theme().warningGround);
}

// EmptyState

EmptyState::EmptyState(Appearance &appearance, IconStore &icons, QWidget *parent) :
    QWidget(parent), appearance(appearance), icon(new ResultIcon(icons, 40, this)),
    title(new Text(appearance, TypeSize::Heading, Text::Tone::Main, QFont::DemiBold, this)),
    line(new Text(appearance, TypeSize::Body, Text::Tone::Secondary, QFont::Normal, this))
{
    line->setWordWrap(true);
    line->setAlignment(Qt::AlignHCenter | Qt::AlignTop);
    line->setFixedWidth(440);
    title->setAlignment(Qt::AlignCenter);
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(Metrics::margin, 0, Metrics::margin, 16);
    column->setSpacing(0);
    column->addStretch();
    column->addWidget(icon, 0, Qt::AlignHCenter);
    column->addSpacing(16);
    column->addWidget(title, 0, Qt::AlignHCenter);
    column->addSpacing(8);
    column->addWidget(line, 0, Qt::AlignHCenter);
    column->addStretch();
}

static QString emptyTitle(const PaletteState &state)
{
    if (!state.query().empty())
        return fromUtf8(L10n::shown("No Results"));
    if (state.argumentTarget())
        return fromUtf8(L10n::shown("Arguments for ")) + fromUtf8(state.argumentTarget()->title);
    return modeName(state.mode());
}

static QString emptyLine(const PaletteState &state)
{
    if (state.argumentTarget())
        return fromUtf8(L10n::shown("Type arguments and press Return, or pick a previous launch below."));
    if (state.mode() == PaletteState::Mode::files || state.category() == SearchCategory::files)
        return fromUtf8(L10n::shown(
            "Results come from Korvane's own file index. Add folders in Settings → File Index if something is missing."));
    return fromUtf8(L10n::shown("Type a name or keyword to find a result."));
}

void EmptyState::refresh(const PaletteState &state)
{
    const char *name = state.mode() == PaletteState::Mode::clipboard ? "clipboard"
        : state.argumentTarget()                                     ? "terminal"
                                                                     : "magnifyingglass";
    show(name, emptyTitle(state), emptyLine(state));
}

void EmptyState::showNoActions() { show("magnifyingglass", fromUtf8(L10n::shown("No Results")), {}); }

void EmptyState::show(const std::string &name, const QString &heading, const QString &text)
{
    symbol = name;
    icon->show(symbol, appearance.theme().faint);
    title->setText(heading);
    line->setText(text);
    line->setVisible(!text.isEmpty());
    line->setFixedHeight(text.isEmpty() ? 0 : line->heightForWidth(line->width()));
}

void EmptyState::applyAppearance()
{
    icon->show(symbol, appearance.theme().faint);
    title->applyAppearance();
    line->applyAppearance();
}

// ProgressView

ProgressView::ProgressView(Appearance &appearance, QWidget *parent) :
    QWidget(parent), label(new Text(appearance, TypeSize::Body, Text::Tone::Secondary, QFont::Normal, this))
{
    label->setText(fromUtf8(L10n::shown("Searching…")));
    auto *column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 16);
    column->setSpacing(12);
    column->addStretch();
    column->addWidget(new Spinner(appearance, 24, this), 0, Qt::AlignHCenter);
    column->addWidget(label, 0, Qt::AlignHCenter);
    column->addStretch();
}

// ResultList

ResultList::ResultList(Appearance &appearance, IconStore &icons, PaletteState &state, QWidget *parent) :
    RowList(appearance, icons, parent), state(state)
{
    setAccessibleName(fromUtf8(L10n::shown("Results")));
    clicked = [this](int row) {
        // Between the drawing and the click the list may have changed.
        if (this->state.results() != shown)
            return;
        this->state.select(row);
        this->state.execute();
    };
}

RowFace ResultList::face(int row) const
{
    const CommandResult &result = *shown[std::size_t(row)];
    // The program's own commands are named in the words of the platform; names of the user's things stay as they are.
    const auto text = result.kind == ResultKind::command ? shownText : fromUtf8;
    return {.title = text(result.title), .subtitle = text(result.subtitle.value_or("")), .icon = result.icon};
}

void ResultList::refresh()
{
    if (state.results() == shown)
        return showSelection(state.selection());
    shown = state.results();
    std::vector<Section> heads;
    std::optional<ResultKind> kind;
    for (std::size_t row = 0; row < shown.size(); row++)
        if (kind != shown[row]->kind) {
            kind = shown[row]->kind;
            heads.push_back({int(row), shownText(rawValue(*kind))});
        }
    showRows(int(shown.size()), std::move(heads), state.selection());
}

// ActionsList

ActionsList::ActionsList(Appearance &appearance, IconStore &icons, PaletteState &state, QWidget *parent) :
    RowList(appearance, icons, parent), state(state)
{
    setAccessibleName(fromUtf8(L10n::shown("Actions")));
    clicked = [this](int row) { this->state.execute(shown[std::size_t(row)]); };
}

RowFace ActionsList::face(int row) const
{
    const CommandAction &action = shown[std::size_t(row)];
    const char *symbol = action.role == ActionRole::write ? "pencil"
        : action.role == ActionRole::destructive          ? "exclamationmark.triangle"
                                                          : "arrow.right";
    const std::string keys = action.shortcut ? *action.shortcut : action.key ? std::string(label(*action.key)) : std::string();
    return {.title = shownText(action.title),
        .icon = CommandIcon::symbol(symbol),
        .badge = action.role == ActionRole::normal ? QString() : shownText(rawValue(action.role)),
        .grave = action.role == ActionRole::destructive,
        .keys = keyNames(keys)};
}

void ActionsList::refresh()
{
    std::vector<CommandAction> actions = state.filteredActions();
    const auto same = [](const CommandAction &a, const CommandAction &b) { return a.id == b.id && a.title == b.title; };
    const bool unchanged = std::equal(actions.begin(), actions.end(), shown.begin(), shown.end(), same);
    shown = std::move(actions);
    if (unchanged)
        showSelection(state.actionSelection());
    else
        showRows(int(shown.size()), {}, state.actionSelection());
}

// RunMark

RunMark::RunMark(Appearance &appearance, IconStore &icons, AppServices &services, QWidget *parent) :
    QWidget(parent), services(services),
    elapsed(new Text(appearance, TypeSize::Small, Text::Tone::Secondary, QFont::Normal, this))
{
    auto *stop = new FlatButton(appearance, icons, FlatButton::Style::Filled, this);
    stop->setText(fromUtf8(L10n::shown("Stop Execution")));
    connect(stop, &QAbstractButton::clicked, this, [this] { this->services.shortcuts->cancelRun(); });
    auto *line = new QHBoxLayout(this);
    line->setContentsMargins(0, 0, 0, 0);
    line->setSpacing(8);
    line->addWidget(new Spinner(appearance, 16, this));
    line->addWidget(elapsed);
    line->addWidget(stop);
    applyAppearance();
}

void RunMark::applyAppearance()
{
    elapsed->applyAppearance();
    // Wide enough for what is to come, so that nothing moves with every second.
    elapsed->setMinimumWidth(QFontMetrics(elapsed->font()).horizontalAdvance(QStringLiteral("00:00")));
}

void RunMark::refresh()
{
    showTime();
    setVisible(services.shortcuts->startedAt->has_value());
}

Milliseconds RunMark::showTime()
{
    const double start = services.shortcuts->startedAt->value_or(0);
    const double passed = std::max(0.0, services.platform.clock.now() - start);
    const int seconds = int(passed);
    elapsed->setText(QStringLiteral("%1:%2").arg(seconds / 60).arg(seconds % 60, 2, 10, QLatin1Char('0')));
    return Milliseconds(std::int64_t(std::ceil((seconds + 1 - passed) * 1000)));
}

Task<void> RunMark::count(Clock &clock, RunMark *mark)
{
    for (;;)
        co_await clock.sleep(mark->showTime());
}

void RunMark::showEvent(QShowEvent *) { counting = spawn(services.platform.mainThread, count(services.platform.clock, this)); }

void RunMark::hideEvent(QHideEvent *) { counting.cancel(); }

// PaletteFooter

PaletteFooter::PaletteFooter(Appearance &appearance, IconStore &icons, PaletteState &state, QWidget *parent) :
    QWidget(parent), appearance(appearance), state(state),
    name(new Text(appearance, TypeSize::Caption, Text::Tone::Secondary, QFont::DemiBold, this)),
    newKey(new Text(appearance, TypeSize::Small, Text::Tone::Accent, QFont::DemiBold, this)),
    filesText(new Text(appearance, TypeSize::Small, Text::Tone::Secondary, QFont::Normal, this)),
    filesMark(new Spinner(appearance, 12, this)), busyMark(new Spinner(appearance, 16, this)),
    run(new RunMark(appearance, icons, state.services, this)),
    preview(new FlatButton(appearance, icons, FlatButton::Style::Quiet, this)),
    actions(new FlatButton(appearance, icons, FlatButton::Style::Quiet, this)), arguments(new HintLine(appearance, this)),
    hint(new HintLine(appearance, this))
{
    setFixedHeight(44);
    name->setText(QStringLiteral("KORVANE"));
    QFont spaced = name->font();
    spaced.setLetterSpacing(QFont::AbsoluteSpacing, 2);
    name->setFont(spaced);
    filesText->setText(fromUtf8(L10n::shown("Files…")));
    preview->setText(fromUtf8(L10n::shown("Preview")));
    preview->setKeys(keyNames(label(ActionKey::preview)));
    actions->setText(fromUtf8(L10n::shown("Actions")));
    actions->setKeys(keyNames("⌘ K"));
    arguments->setLine(QStringLiteral("⇥ ") + fromUtf8(L10n::shown("Arguments")));
    arguments->setAccessibleName(fromUtf8(L10n::shown("Arguments")));
    hint->setLine(fromUtf8(L10n::shown("↵ Open · esc Back")));
    connect(preview, &QAbstractButton::clicked, this, [this] { this->state.togglePreview(); });
    connect(actions, &QAbstractButton::clicked, this, [this] { this->state.toggleActions(); });

    auto *line = new QHBoxLayout(this);
    line->setContentsMargins(Metrics::margin, 1, Metrics::margin - hintGap / 2, 0);
    line->setSpacing(0);
    line->addWidget(name);
    line->addWidget(newKey);
    auto *marks = new QHBoxLayout;
    marks->setContentsMargins(16, 0, 0, 0);
    marks->setSpacing(8);
    for (QWidget *one : std::initializer_list<QWidget *>{filesMark, filesText, busyMark, run})
        marks->addWidget(one);
    line->addLayout(marks);
    line->addStretch();
    for (QWidget *one : std::initializer_list<QWidget *>{preview, arguments, actions, hint})
        line->addWidget(one);
}

void PaletteFooter::refresh()
{
    const Row selected = state.selectedResult();
    const auto &key = state.newKey();
    name->setVisible(!key);
    newKey->setVisible(key.has_value());
    if (key)
        newKey->setText(fromUtf8(L10n::shown("Press %@ to open or hide Korvane.")).replace(QLatin1String("%@"), nameOf(*key)));
    filesMark->setVisible(state.searchingFiles());
    filesText->setVisible(state.searchingFiles());
    run->refresh();
    busyMark->setVisible(state.busy() && run->isHidden());
    preview->setVisible(selected && (selected->preview || selected->previewText));
    arguments->setVisible(selected && selected->kind == ResultKind::application && !state.childTitle() && !state.showsActions());
    actions->setVisible(selected != nullptr);
}

void PaletteFooter::applyAppearance()
{
    name->applyAppearance();
    newKey->applyAppearance();
    filesText->applyAppearance();
    run->applyAppearance();
    update();
}

void PaletteFooter::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.fillRect(QRect(0, 0, width(), 1), appearance.theme().separator);
}

} // namespace korvane
