#pragma once

#include "Vorrel/Views/SearchComponents.h"

#include <QListWidget>

namespace korvane {

/// The user's Agents below each other, one of which is chosen. The arrows walk through them.
class AgentList : public QListWidget {
    Q_OBJECT

public:
    struct Entry {
        std::string id, icon;
        QString name;
        bool unsaved = false; ///< Has edits that are not stored; marked.
        bool operator==(const Entry &) const = default;
    };
    AgentList(Appearance &appearance, IconStore &icons, QWidget *parent = nullptr);

    /// Shows these, with the one of this identifier chosen, or none.
    void show(std::vector<Entry> entries, const std::string &chosen);
    const std::vector<Entry> &entries() const { return shown; }
    void applyAppearance();

    std::function<void(const std::string &id)> chosen = [](const std::string &) {}; ///< The user chose one.

private:
    Appearance &appearance;
    std::vector<Entry> shown;
    bool writing = false;
};

} // namespace korvane
