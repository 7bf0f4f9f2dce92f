#include "Vorrel/Views/TrayStatusItem.h"

#include "Vorrel/Views/IconStore.h"
#include "Vorrel/Views/ViewText.h"
#include "Vorrel/Views/X11Window.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QDBusVariant>
#include <QMenu>
#include <QSystemTrayIcon>

namespace korvane {

static const auto watcherService = QStringLiteral("org.kde.StatusNotifierWatcher");
static const auto watcherPath = QStringLiteral("/StatusNotifierWatcher");

// The toolkit decides once in the life of a process, when its first icon is made, which kind of tray there is.
// So none is made before there is a tray.

TrayStatusItem::TrayStatusItem()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    auto *watcher = new QDBusServiceWatcher(watcherService, bus, QDBusServiceWatcher::WatchForRegistration, this);
    connect(watcher, &QDBusServiceWatcher::serviceRegistered, this, &TrayStatusItem::askForHost);
    bus.connect(
        watcherService, watcherPath, watcherService, QStringLiteral("StatusNotifierHostRegistered"), this, SLOT(askForHost()));
}

TrayStatusItem::~TrayStatusItem() = default;

void TrayStatusItem::show(std::string, std::string text, std::vector<StatusMenuEntry> menuEntries)
{
    description = fromUtf8(text);
    entries = std::move(menuEntries);
    if (icon)
        return make();
    askForHost();
}

void TrayStatusItem::askForHost()
{
    if (entries.empty())
        return;
    QDBusMessage call = QDBusMessage::createMethodCall(
        watcherService, watcherPath, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    call.setArguments({watcherService, QStringLiteral("IsStatusNotifierHostRegistered")});
    call.setAutoStartService(false);
    auto *answer = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call, 5000), this);
    connect(answer, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher *pending) {
        pending->deleteLater();
        const QDBusPendingReply<QDBusVariant> reply = *pending;
        if (!reply.isError() && reply.value().variant().toBool())
            return make(); // also for an icon of a tray that has started anew
        if (icon)
            return;
        if (!embeddingTray)
            embeddingTray = std::make_unique<x11::SelectionWatch>("_NET_SYSTEM_TRAY_S0", [this] {
                if (!icon)
                    make();
            });
        if (embeddingTray->hasOwner())
            make();
    });
}

void TrayStatusItem::make()
{
    icon.reset();
    menu = std::make_unique<QMenu>();
    for (const StatusMenuEntry &entry : entries) {
        if (entry.title.empty()) {
            menu->addSeparator();
            continue;
        }
        QAction *action = menu->addAction(fromUtf8(entry.title));
        if (!entry.keyEquivalent.empty())
            action->setShortcut(QKeySequence(QStringLiteral("Ctrl+") + fromUtf8(entry.keyEquivalent).toUpper()));
        connect(action, &QAction::triggered, this, [run = entry.action] { run(); });
    }

    // A tray may be of any colour: the mark brings its own ground along.
    QIcon mark;
    for (const int size : {16, 22, 32, 48})
        mark.addPixmap(IconStore::mark(size, 1));
    icon = std::make_unique<QSystemTrayIcon>(mark);
    icon->setToolTip(description);
    icon->setContextMenu(menu.get());
    connect(icon.get(), &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger && !entries.empty())
            entries.front().action();
    });
    icon->show();
}

} // namespace korvane
