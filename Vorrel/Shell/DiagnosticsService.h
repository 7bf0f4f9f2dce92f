#pragma once

#include "Support/Clock.h"

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

    explicit DiagnosticsService(Clock &clock) : clock(clock) { }

    /// Keeps the newest 50.
    void recordError(Category category);
    /// Keeps the newest 100.
    void recordSearch(double milliseconds, int results, bool timedOut);

    const std::deque<ErrorEvent> &errorEvents() const { return _errorEvents; } ///< Oldest first.
    const std::deque<SearchTiming> &searchTimings() const { return _searchTimings; } ///< Oldest first.

private:
    Clock &clock;
    std::deque<ErrorEvent> _errorEvents;
    std::deque<SearchTiming> _searchTimings;
};

std::string_view rawValue(DiagnosticsService::Category category);

} // namespace korvane
