#pragma once

#include "Support/Clock.h"
#include "Vorrel/FileIndex/FileIndex.h"
#include "Vorrel/Platform/Dialogs.h"
#include "Vorrel/Platform/SystemFacts.h"

#include <deque>
#include <string_view>

namespace korvane {

/// Two short lists in memory, of error categories and of search timings. Nothing personal is ever
/// recorded: a category and a time, never a message; numbers, never a query. Main thread only.
class DiagnosticsService {
public:
    enum class Category { fileSearch, fileIndex, fileAccess, hotkey, command, database, clipboard, ai, mcp, other };

    struct ErrorEvent {
        Category category;
        double date; ///< Seconds since 1970.
    };
    struct SearchTiming {
        double milliseconds;
        int results;
        bool timedOut;
        double date; ///< Seconds since 1970.
    };

    /// What the report says of its surroundings, and what asks where to write it. All of it outlives the service.
    struct Ports {
        Clock &clock;
        Dialogs &dialogs;
        Executor pool; ///< Runs what touches the disk.
        std::function<SystemFacts()> facts; ///< Looks at this machine; blocks.
    };
    explicit DiagnosticsService(Ports ports) : ports(std::move(ports)) { }

    /// Keeps the newest 50.
    void recordError(Category category);
    /// Keeps the newest 100.
    void recordSearch(double milliseconds, int results, bool timedOut);

    /// The report: lines without a line feed at the end. In English, for whoever helps.
    std::string report(const FileIndex::Health &health, bool hotkeyRegistered, const SystemFacts &facts) const;
    /// The same with what the machine says of itself.
    Task<std::string> presentReport(FileIndex::Health health, bool hotkeyRegistered) const;
    /// Asks where to write the report and writes it there, whole or not at all. Gives the sentence that says how it ended:
    /// English, a key of `L10n`. Throws `Cancelled` alone.
    Task<std::string> writeWithSavePanel(std::shared_ptr<FileIndex> fileIndex, bool hotkeyRegistered) const;

    const std::deque<ErrorEvent> &errorEvents() const { return _errorEvents; } ///< Oldest first.
    const std::deque<SearchTiming> &searchTimings() const { return _searchTimings; } ///< Oldest first.

private:
    const Ports ports;
    std::deque<ErrorEvent> _errorEvents;
    std::deque<SearchTiming> _searchTimings;
};

std::string_view rawValue(DiagnosticsService::Category category);

} // namespace korvane
