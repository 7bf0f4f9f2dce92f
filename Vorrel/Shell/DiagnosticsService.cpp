#include "Vorrel/Shell/DiagnosticsService.h"

namespace korvane {

namespace {

constexpr std::size_t errorLimit = 50;
constexpr std::size_t timingLimit = 100;

template <class Event> void append(std::deque<Event> &list, Event event, std::size_t limit)
{
    list.push_back(event);
    if (list.size() > limit)
        list.pop_front();
}

} // namespace

void DiagnosticsService::recordError(Category category) { append(_errorEvents, ErrorEvent{category, clock.now()}, errorLimit); }

void DiagnosticsService::recordSearch(double milliseconds, int results, bool timedOut)
{
    append(_searchTimings, SearchTiming{milliseconds, results, timedOut, clock.now()}, timingLimit);
}

std::string_view rawValue(DiagnosticsService::Category category)
{
    using enum DiagnosticsService::Category;
    switch (category) {
    case fileSearch: return "fileSearch";
    case fileIndex: return "fileIndex";
    case fileAccess: return "fileAccess";
    case hotkey: return "hotkey";
    case command: return "command";
    case database: return "database";
    case clipboard: return "clipboard";
    case ai: return "ai";
    case mcp: return "mcp";
    case other: return "other";
    }
    return {};
}

} // namespace korvane
