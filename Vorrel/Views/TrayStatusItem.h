#pragma once

#include "Vorrel/Platform/StatusItem.h"

#include <QObject>

#include <memory>

class QMenu;
class QSystemTrayIcon;

namespace korvane {

namespace x11 {
class SelectionWatch;
}

/// The mark in the desktop's tray. Appears as soon as there is a tray of either kind, also one that starts later.
/// A click does what the menu's first entry does. Main thread only.
class TrayStatusItem : public QObject, public StatusItem {
    Q_OBJECT

public:
    TrayStatusItem();
    ~TrayStatusItem() override;

    void show(std::string symbol, std::string description, std::vector<StatusMenuEntry> menu) override;

private Q_SLOTS:
    void askForHost();

private:
    void make();

    QString description;
    std::vector<StatusMenuEntry> entries;
    std::unique_ptr<x11::SelectionWatch> embeddingTray; // while there is no icon
    std::unique_ptr<QMenu> menu;
    std::unique_ptr<QSystemTrayIcon> icon; // refers to the menu
};

} // namespace korvane
