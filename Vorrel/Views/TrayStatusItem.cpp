#include "Vorrel/Views/TrayStatusItem.h"

#include "Vorrel/Views/IconStore.h"
#include "Vorrel/Views/ViewText.h"

#include <QDBusConnection>
#include <QDBusServiceWatcher>
#include <QMenu>
#include <QSystemTrayIcon>

namespace korvane {

TrayStatusItem::TrayStatusItem()
{
    // The toolkit decides once, when an icon is made, which kind of tray there is.
    auto *watcher = new QDBusServiceWatcher(QStringLiteral("org.kde.StatusNotifierWatcher"), QDBusConnection::sessionBus(),
                                            QDBusServiceWatcher::WatchForRegistration, this);
    connect(watcher, &QDBusServiceWatcher::serviceRegistered, this, [this] {
        if (icon)
            make();
    });
}

TrayStatusItem::~TrayStatusItem() = default;

void TrayStatusItem::show(std::string, std::string text, std::vector<StatusMenuEntry> menuEntries)
{
    description = fromUtf8(text);
    entries = std::move(menuEntries);
    make();
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
