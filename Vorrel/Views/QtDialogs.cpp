#include "Vorrel/Views/QtDialogs.h"

#include "Vorrel/Shell/L10n.h"
#include "Vorrel/Views/Appearance.h"
#include "Vorrel/Views/IconStore.h"
#include "Vorrel/Views/KeyEvents.h"
#include "Vorrel/Views/Painting.h"
#include "Vorrel/Views/ResultPreviewView.h"
#include "Vorrel/Views/ViewText.h"
#include "Vorrel/Views/X11Window.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QBoxLayout>
#include <QDialogButtonBox>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QKeyEvent>
#include <QLabel>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QPointer>
#include <QPushButton>
#include <QScreen>
#include <QScrollBar>
#include <QSplitter>
#include <QStandardPaths>
#include <QToolButton>
#include <QUrl>

#include <filesystem>

namespace korvane {

static constexpr int alertWidth = 360, wideAlertWidth = 560; // of the words
static constexpr int mostDetail = 220; // units of height; more takes the wide form
static constexpr int mostWideDetail = 440; // more is scrolled
static constexpr int aroundDetail = 200; // the least height of everything else, on a small screen
static constexpr int alertRadius = 12;
static constexpr int signSize = 40;

namespace {

/// A button of an alert: the default one in the accent's colour, the others quiet.
class AlertButton : public QPushButton {
public:
    AlertButton(const QString &text, Appearance &appearance, QWidget *parent) : QPushButton(text, parent), appearance(appearance)
    {
        setFont(appearance.font(TypeSize::Body, QFont::Medium));
        setAutoDefault(true);
        setFixedHeight(32);
        setMinimumWidth(96);
    }

protected:
    void paintEvent(QPaintEvent *) override
    {
        const Theme &theme = appearance.theme();
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        const QRectF place = QRectF(rect()).adjusted(2, 2, -2, -2);
        fillRounded(painter, place, 7, isDefault() ? theme.accent : theme.keyGround);
        if (underMouse() || isDown())
            fillRounded(painter, place, 7, theme.hover);
        if (hasFocus()) {
            painter.setPen(QPen(theme.accent, 1.5));
            painter.drawRoundedRect(QRectF(rect()).adjusted(0.75, 0.75, -0.75, -0.75), 8.5, 8.5);
        }
        painter.setFont(font());
        painter.setPen(isDefault() ? theme.ground : theme.text);
        painter.drawText(rect(), Qt::AlignCenter | Qt::TextSingleLine, text());
    }

private:
    Appearance &appearance;
};

} // namespace

/// A warning sign, a sentence, its details as plain text, and buttons of which the first is the default. Drawn
/// like the palette, without the window manager's frame; it can be moved by its ground.
class QtDialogs::Alert : public QDialog {
public:
    Alert(Appearance &appearance, const std::string &title, const std::string &detail, QWidget *owner) :
        QDialog(owner, Qt::Dialog | Qt::FramelessWindowHint), appearance(appearance)
    {
        setAttribute(Qt::WA_TranslucentBackground);
        setWindowTitle(foreignText(title));
        words = detail.empty() ? nullptr : detailPane(detail);
        const int width = words ? words->width() : alertWidth;
        auto *heading = plain(title, appearance.font(TypeSize::Title, QFont::DemiBold), width);
        heading->setFixedWidth(width);

        auto *text = new QVBoxLayout;
        text->setSpacing(8);
        text->addWidget(heading);
        if (words)
            text->addWidget(words);
        text->addStretch();
        auto *top = new QHBoxLayout;
        top->setSpacing(0);
        top->addSpacing(signSize + 16);
        top->addLayout(text, 1);
        buttons = new QHBoxLayout;
        buttons->setSpacing(8);
        buttons->addStretch();
        auto *column = new QVBoxLayout(this);
        column->setContentsMargins(24, 24, 24, 20);
        column->setSpacing(20);
        column->addLayout(top);
        column->addLayout(buttons);
        column->setSizeConstraint(QLayout::SetFixedSize);
        setAccessibleDescription(foreignText(detail));
    }

    QPushButton *addButton(const QString &text, DialogCode code)
    {
        auto *button = new AlertButton(text, appearance, this);
        connect(button, &QPushButton::clicked, this, [this, code] { done(code); });
        buttons->addWidget(button);
        return button;
    }

protected:
    void paintEvent(QPaintEvent *) override
    {
        const Theme &theme = appearance.theme();
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setBrush(theme.raised);
        painter.setPen(QPen(theme.border, 1));
        painter.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), alertRadius, alertRadius);
        const QRect sign(24, 24, signSize, signSize);
        fillRounded(painter, sign, 10, theme.warningGround);
        const int symbol = 24, inset = (signSize - symbol) / 2;
        painter.drawPixmap(sign.topLeft() + QPoint(inset, inset),
            IconStore::drawSymbol("exclamationmark.triangle", symbol, devicePixelRatioF(), theme.warning));
    }
    void resizeEvent(QResizeEvent *event) override
    {
        QDialog::resizeEvent(event);
        if (x11::compositorRuns())
            return;
        QPainterPath outline;
        outline.addRoundedRect(rect(), alertRadius, alertRadius);
        setMask(outline.toFillPolygon().toPolygon());
    }
    void keyPressEvent(QKeyEvent *event) override
    {
        if (const auto action = pageActionOf(*event); action && words)
            words->verticalScrollBar()->triggerAction(*action);
        else
            QDialog::keyPressEvent(event);
    }
    void mousePressEvent(QMouseEvent *event) override { grip = event->globalPosition().toPoint() - pos(); }
    void mouseMoveEvent(QMouseEvent *event) override
    {
        if (event->buttons() & Qt::LeftButton)
            move(event->globalPosition().toPoint() - grip);
    }

private:
    /// A tool may have a name that is one endless word.
    static QString breakable(const QString &text, const QFontMetrics &metrics, int width)
    {
        constexpr QChar softBreak(0x200b);
        QString broken, word;
        for (const QChar c : text) {
            if (c.isSpace())
                word.clear();
            else if (!c.isLowSurrogate() && metrics.horizontalAdvance(word + c) > width) {
                broken += softBreak;
                word.clear();
            }
            word += c;
            broken += c;
        }
        return broken;
    }

    QLabel *plain(const std::string &text, const QFont &font, int width)
    {
        auto *label = new QLabel(this);
        label->setTextFormat(Qt::PlainText);
        label->setText(breakable(foreignText(text), QFontMetrics(font), width));
        label->setFont(font);
        label->setWordWrap(true);
        label->setTextInteractionFlags(Qt::NoTextInteraction);
        QPalette colours = label->palette();
        colours.setColor(QPalette::WindowText, appearance.theme().text);
        label->setPalette(colours);
        return label;
    }

    /// Details may be as long as what a model sends, and are seen whole where the screen has the room.
    TextPane *detailPane(const std::string &detail)
    {
        constexpr int scrollBar = 12;
        auto *pane = new TextPane(appearance, this);
        pane->setFocusPolicy(Qt::NoFocus);
        pane->setTextInteractionFlags(Qt::NoTextInteraction);
        pane->show(foreignText(detail));
        const int narrow = pane->heightFor(alertWidth - scrollBar);
        const bool wide = narrow > mostDetail;
        const int needed = wide ? pane->heightFor(wideAlertWidth - scrollBar) : narrow;
        const QScreen *shownOn = parentWidget() ? parentWidget()->screen() : screen();
        const int room = shownOn->availableGeometry().height() - aroundDetail;
        pane->setFixedSize(wide ? wideAlertWidth : alertWidth, std::min({needed, mostWideDetail, room}) + 2);
        return pane;
    }

    Appearance &appearance;
    TextPane *words = nullptr;
    QHBoxLayout *buttons;
    QPoint grip;
};

QWidget *QtDialogs::owner() const
{
    QWidget *window = palette();
    return window && window->isVisible() ? window : QApplication::activeWindow();
}

namespace {

/// Takes the dialog away with whoever asked.
struct Closing {
    explicit Closing(QDialog *dialog) : dialog(dialog) { }
    ~Closing()
    {
        if (dialog) {
            dialog->hide();
            dialog->deleteLater();
        }
    }
    Closing(const Closing &) = delete;
    Closing &operator=(const Closing &) = delete;
    QPointer<QDialog> dialog;
};

} // namespace

/// Shows the dialog and returns whether it was accepted; the dialog is still there then.
Task<bool> QtDialogs::ask(QDialog *dialog)
{
    std::function<void(Continuation<bool>)> begin = [dialog](Continuation<bool> done) {
        QObject::connect(dialog, &QDialog::finished, dialog, [done](int result) { done.resume(result == QDialog::Accepted); });
        dialog->setWindowModality(dialog->parentWidget() ? Qt::WindowModal : Qt::NonModal);
        const std::uint32_t time = x11::serverTime();
        dialog->winId();
        x11::setUserTime(*dialog, time);
        dialog->show();
        dialog->raise();
        dialog->activateWindow();
        x11::activate(*dialog, time);
    };
    co_return co_await suspend<bool>(std::move(begin));
}

Task<bool> QtDialogs::confirm(std::string title, std::string detail)
{
    auto *alert = new Alert(appearance, title, detail, owner());
    const Closing closing(alert);
    // The first in the order of the keyboard is the one that does nothing.
    QPushButton *cancel = alert->addButton(fromUtf8(L10n::shown("Cancel")), QDialog::Rejected);
    alert->addButton(fromUtf8(L10n::shown("Allow")), QDialog::Accepted);
    cancel->setDefault(true);
    cancel->setFocus();
    co_return co_await ask(alert);
}

Task<void> QtDialogs::failure(std::string title, std::string detail)
{
    auto *alert = new Alert(appearance, title, detail, owner());
    const Closing closing(alert);
    QPushButton *button = alert->addButton(fromUtf8(L10n::shown("OK")), QDialog::Accepted);
    button->setDefault(true);
    button->setFocus();
    co_await ask(alert);
}

/// Leaves of the toolkit's panel what is needed to find a folder or a file. Its other parts speak the toolkit's own
/// language, and change files.
static void simplify(QFileDialog &panel, const Theme &theme)
{
    for (const char *name : {"lookInLabel", "fileNameLabel", "fileTypeLabel", "fileTypeCombo", "backButton", "forwardButton",
             "newFolderButton", "listModeButton", "detailModeButton"})
        if (auto *part = panel.findChild<QWidget *>(QLatin1String(name)))
            part->hide();
    for (auto *view : panel.findChildren<QAbstractItemView *>())
        view->setContextMenuPolicy(Qt::NoContextMenu);
    if (auto *halves = panel.findChild<QSplitter *>())
        halves->setSizes({160, 440});
    if (auto *up = panel.findChild<QToolButton *>(QStringLiteral("toParentButton"))) {
        const QString name = fromUtf8(L10n::shown("Parent Folder"));
        up->setIcon(IconStore::drawSymbol("arrow.up", 16, panel.devicePixelRatioF(), theme.text));
        up->setToolTip(name);
        up->setAccessibleName(name);
    }
    if (auto *box = panel.findChild<QDialogButtonBox *>())
        for (auto *button : box->buttons())
            button->setIcon({});
}

/// The user's folders that there are.
static QList<QUrl> usualPlaces()
{
    QList<QUrl> places;
    for (const auto place : {QStandardPaths::HomeLocation, QStandardPaths::DesktopLocation, QStandardPaths::DocumentsLocation,
             QStandardPaths::DownloadLocation, QStandardPaths::PicturesLocation}) {
        const QString path = QStandardPaths::writableLocation(place);
        const QUrl url = QUrl::fromLocalFile(path);
        if (QFileInfo::exists(path) && !places.contains(url))
            places += url;
    }
    return places;
}

/// A panel that shows all of its words, which those of desktops do not.
QFileDialog *QtDialogs::panelFor(const Choice &choice) const
{
    auto *panel = new QFileDialog(owner(), fromUtf8(choice.title));
    panel->setOption(QFileDialog::DontUseNativeDialog);
    panel->setOption(QFileDialog::ReadOnly);
    panel->setFont(appearance.font(TypeSize::Body));
    const bool saves = !choice.saveAs.empty();
    panel->setAcceptMode(saves ? QFileDialog::AcceptSave : QFileDialog::AcceptOpen);
    panel->setOption(QFileDialog::DontConfirmOverwrite); // asked in our own words
    panel->setFileMode(saves  ? QFileDialog::AnyFile
            : choice.folders  ? QFileDialog::Directory
            : choice.multiple ? QFileDialog::ExistingFiles
                              : QFileDialog::ExistingFile);
    panel->setOption(QFileDialog::ShowDirsOnly, choice.folders);
    panel->setViewMode(QFileDialog::List);
    panel->setSidebarUrls(usualPlaces());
    panel->setLabelText(QFileDialog::Reject, fromUtf8(L10n::shown("Cancel")));
    const std::string usual = saves ? L10n::shown("Save") : L10n::shown("Open");
    panel->setLabelText(QFileDialog::Accept, fromUtf8(choice.prompt.empty() ? usual : choice.prompt));
    if (!choice.message.empty()) {
        auto *message = new QLabel(fromUtf8(choice.message), panel);
        message->setTextFormat(Qt::PlainText);
        message->setWordWrap(true);
        message->setContentsMargins(16, 16, 16, 8);
        panel->layout()->setMenuBar(message); // the one place above what the panel lays out itself
    }
    panel->layout()->setContentsMargins(16, 8, 16, 16);
    if (!choice.directory.empty())
        panel->setDirectory(QFile::decodeName(QByteArray::fromStdString(choice.directory)));
    if (saves)
        panel->selectFile(QFile::decodeName(QByteArray::fromStdString(choice.saveAs)));
    panel->resize(640, 440);
    simplify(*panel, appearance.theme());
    return panel;
}

Task<std::optional<std::vector<std::string>>> QtDialogs::choose(Choice choice)
{
    QFileDialog *panel = panelFor(choice);
    const Closing closing(panel);
    const bool accepted = co_await ask(panel);
    if (!accepted || !closing.dialog)
        co_return std::nullopt;
    std::vector<std::string> paths;
    for (const QString &path : panel->selectedFiles())
        paths.push_back(QFile::encodeName(path).toStdString());
    if (!choice.saveAs.empty() && !paths.empty() && QFileInfo::exists(panel->selectedFiles().front())) {
        const std::string name = std::filesystem::path(paths.front()).filename().string();
        std::string question = L10n::format("Replace “%@”?", name), detail = L10n::shown("The file that is there will be lost.");
        const bool replaces = co_await confirm(std::move(question), std::move(detail));
        if (!replaces)
            co_return std::nullopt;
    }
    co_return paths;
}

} // namespace korvane
