#include "Vorrel/Shell/DiagnosticsService.h"

#include "Support/WholeFile.h"
#include "Vorrel/Shell/AppLog.h"
#include "Vorrel/Shell/Formats.h"
#include "Vorrel/Shell/L10n.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <system_error>

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

std::string_view nameOf(FileIndex::Health::State state)
{
    switch (state) {
    case FileIndex::Health::State::indexing: return "indexing";
    case FileIndex::Health::State::watching: return "watching";
    case FileIndex::Health::State::liveUpdatesUnavailable: return "liveUpdatesUnavailable";
    }
    return {};
}

std::string oneDecimal(double number)
{
    char text[64];
    return {text, static_cast<std::size_t>(std::snprintf(text, sizeof text, "%.1f", number))};
}

/// The middle one of sorted values; of two middle ones the greater.
template <class Value> Value median(const std::vector<Value> &sorted) { return sorted[sorted.size() / 2]; }

template <class Value> Value percentile95(const std::vector<Value> &sorted)
{
    const auto place = static_cast<std::size_t>(std::ceil(double(sorted.size()) * 0.95)) - 1;
    return sorted[std::min(place, sorted.size() - 1)];
}

std::vector<std::string> errorLines(const std::deque<DiagnosticsService::ErrorEvent> &events)
{
    struct Group {
        int count = 0;
        double last = 0;
    };
    std::map<std::string_view, Group> groups;
    for (const auto &event : events) {
        Group &group = groups[rawValue(event.category)];
        ++group.count;
        group.last = std::max(group.last, event.date);
    }
    std::vector<std::string> lines;
    for (const auto &[category, group] : groups)
        lines.push_back(
            "- " + std::string(category) + ": " + std::to_string(group.count) + " (last at " + iso8601(group.last) + ")");
    if (lines.empty())
        lines.push_back("- none recorded");
    return lines;
}

std::vector<std::string> searchLines(const std::deque<DiagnosticsService::SearchTiming> &timings)
{
    if (timings.empty())
        return {"- no searches recorded yet"};
    std::vector<double> durations;
    std::vector<int> results;
    int timedOut = 0;
    for (const auto &timing : timings) {
        durations.push_back(timing.milliseconds);
        results.push_back(timing.results);
        timedOut += timing.timedOut;
    }
    std::ranges::sort(durations);
    std::ranges::sort(results);
    return {"- Median duration: " + oneDecimal(median(durations)) + " ms",
        "- p95 duration: " + oneDecimal(percentile95(durations)) + " ms", "- Timed out: " + std::to_string(timedOut),
        "- Median results: " + std::to_string(median(results))};
}

} // namespace

std::string DiagnosticsService::report(const FileIndex::Health &health, bool hotkeyRegistered, const SystemFacts &facts) const
{
    std::vector<std::string> lines{"Korvane Diagnostics", "===================", "Generated: " + iso8601(ports.clock.now()), "",
        "Application", "- Version: " KORVANE_VERSION, "- System: " + facts.version, "- Architecture: " + facts.architecture,
        "- Preferred language: " + (facts.language.empty() ? "unknown" : facts.language), "", "File Index",
        "- Indexed files: " + formattedCount(health.fileCount, L10n::languageInUse()),
        "- Status: " + std::string(nameOf(health.state)), "- Indexed roots: " + std::to_string(health.rootCount), "",
        "Global Hotkey", hotkeyRegistered ? "- Registered: yes" : "- Registered: no", "",
        "Recent Errors (this session, capped at " + std::to_string(errorLimit) + ")"};
    const auto add = [&lines](const std::vector<std::string> &more) { lines.insert(lines.end(), more.begin(), more.end()); };
    add(errorLines(_errorEvents));
    add({"",
        "Search Performance (last " + std::to_string(_searchTimings.size()) + " of max " + std::to_string(timingLimit)
            + " searches)"});
    add(searchLines(_searchTimings));
    add({"", "This export contains no clipboard content, file paths, search text, conversations or credentials."});
    std::string text;
    for (const std::string &line : lines)
        text += (&line == &lines.front() ? "" : "\n") + line;
    return text;
}

Task<std::string> DiagnosticsService::presentReport(FileIndex::Health health, bool hotkeyRegistered) const
{
    Actor disk(ports.pool);
    auto look = [facts = ports.facts](std::stop_token) { return facts(); };
    const SystemFacts facts = co_await disk.run(std::move(look));
    co_return report(health, hotkeyRegistered, facts);
}

Task<std::string> DiagnosticsService::writeWithSavePanel(std::shared_ptr<FileIndex> fileIndex, bool hotkeyRegistered) const
{
    std::string text = co_await presentReport(fileIndex->indexHealth(), hotkeyRegistered);
    Dialogs::Choice panel{.message = L10n::shown("Diagnostics include versions, index status, hotkey registration, recent error "
                                                 "categories and search timings. No clipboard content, file paths, search "
                                                 "text or credentials are included."),
        .saveAs = "korvane-diagnostics.txt"};
    const auto chosen = co_await ports.dialogs.choose(std::move(panel));
    if (!chosen || chosen->empty())
        co_return L10n::key("Diagnostics export was cancelled.");
    Actor disk(ports.pool);
    auto write = [path = chosen->front(), text](std::stop_token) { writeWholeFile(path, text); };
    try {
        co_await disk.run(std::move(write));
    } catch (const std::system_error &) {
        AppLog::app.error("Diagnostics export failed");
        co_return L10n::key("Could not export diagnostics. Choose a writable location and try again.");
    }
    AppLog::app.info("Diagnostics exported (" + std::to_string(text.size()) + " bytes)");
    co_return L10n::key("Diagnostics exported.");
}

void DiagnosticsService::recordError(Category category)
{
    append(_errorEvents, ErrorEvent{category, ports.clock.now()}, errorLimit);
}

void DiagnosticsService::recordSearch(double milliseconds, int results, bool timedOut)
{
    append(_searchTimings, SearchTiming{milliseconds, results, timedOut, ports.clock.now()}, timingLimit);
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
