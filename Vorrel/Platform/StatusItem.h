#pragma once

#include <functional>
#include <string>
#include <vector>

namespace korvane {

/// One entry of the status menu. An empty title is a separator.
struct StatusMenuEntry {
    std::string title; ///< Localised.
    std::string keyEquivalent; ///< A letter or sign pressed with the platform's command key; may be empty.
    std::function<void()> action;
};

/// The program's persistent mark in the system's status area, with a menu. Main thread only.
class StatusItem {
public:
    virtual ~StatusItem() = default;
    /// Shows the mark. Where the system has no status area now, it appears when there is one.
    virtual void show(std::string symbol, std::string description, std::vector<StatusMenuEntry> menu) = 0;
};

} // namespace korvane
