#include "Vorrel/Store/ClipboardRepository.h"

#include "Support/Text.h"
#include "Support/URL.h"
#include "Support/UUID.h"
#include "Vorrel/Store/SQLCells.h"

#include <algorithm>

namespace korvane {

namespace {

constexpr char insertSql[] = "INSERT INTO clipboard_history(id,content,kind,created_at,source_app) VALUES(?,?,?,?,?) "
                             "ON CONFLICT(content) DO UPDATE SET created_at=excluded.created_at, source_app=excluded.source_app";
constexpr char pruneSql[] =
    "DELETE FROM clipboard_history WHERE id NOT IN (SELECT id FROM clipboard_history ORDER BY created_at DESC LIMIT ?)";
constexpr char searchSql[] =
    "SELECT * FROM clipboard_history WHERE instr(lower(content),lower(?)) > 0 ORDER BY created_at DESC LIMIT 500";
constexpr char entrySql[] = "SELECT * FROM clipboard_history WHERE id=?";
constexpr char clearSql[] = "DELETE FROM clipboard_history";

std::string kindOf(const std::string &content)
{
    const auto parts = parsedURL(content);
    const bool isAddress = parts && (parts->scheme == "http" || parts->scheme == "https" || parts->scheme == "mailto");
    return isAddress ? "url" : "text";
}

/// Takes the content out of the row.
std::optional<ClipboardEntry> entryFrom(SQLRow row)
{
    const auto *id = text(row, "id"), *kind = text(row, "kind"), *created = text(row, "created_at"),
               *source = text(row, "source_app");
    const auto content = row.find("content");
    if (!id || content == row.end())
        return std::nullopt;
    return ClipboardEntry{.id = *id,
        .content = std::move(content->second),
        .kind = kind ? *kind : "text",
        .createdAt = created ? realFrom(*created).value_or(0) : 0,
        .sourceApp = source ? std::optional(*source) : std::nullopt};
}

} // namespace

JSONValue ClipboardEntry::json() const
{
    JSONValue::Object object{{"id", id}, {"content", displayable(content)}, {"kind", kind}, {"createdAt", createdAt}};
    if (sourceApp)
        object["sourceApp"] = *sourceApp;
    return object;
}

Task<void> ClipboardRepository::insert(std::string content, std::optional<std::string> sourceApp, int limit) const
{
    if (content.empty() || content.size() > largestContent)
        co_return;
    std::string kind = kindOf(content);
    SQLValue source = nullptr;
    if (sourceApp)
        source = std::move(*sourceApp);
    std::vector<SQLValue> values{newUUID(), std::move(content), std::move(kind), clock->now(), std::move(source)};
    co_await database->execute(insertSql, std::move(values));
    co_await prune(limit);
}

Task<void> ClipboardRepository::prune(int limit) const
{
    std::vector<SQLValue> values{double(std::clamp(limit, leastLimit, greatestLimit))};
    co_await database->execute(pruneSql, std::move(values));
}

Task<std::vector<ClipboardEntry>> ClipboardRepository::search(std::string query) const
{
    std::vector<SQLValue> values{std::move(query)};
    auto rows = co_await database->rows(searchSql, std::move(values));
    std::vector<ClipboardEntry> entries;
    entries.reserve(rows.size());
    for (auto &row : rows)
        if (auto entry = entryFrom(std::move(row)))
            entries.push_back(std::move(*entry));
    co_return entries;
}

Task<std::optional<ClipboardEntry>> ClipboardRepository::entry(std::string id) const
{
    std::vector<SQLValue> values{std::move(id)};
    auto rows = co_await database->rows(entrySql, std::move(values));
    co_return rows.empty() ? std::nullopt : entryFrom(std::move(rows.front()));
}

Task<void> ClipboardRepository::clear() const { co_await database->execute(clearSql); }

} // namespace korvane
