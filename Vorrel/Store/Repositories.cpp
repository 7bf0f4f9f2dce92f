#include "Vorrel/Store/Repositories.h"

#include "Support/Text.h"
#include "Vorrel/Store/SQLCells.h"

namespace korvane {

namespace {

constexpr char loadSettingSql[] = "SELECT value FROM settings WHERE key=?";
constexpr char saveSettingSql[] =
    "INSERT INTO settings(key,value) VALUES(?,?) ON CONFLICT(key) DO UPDATE SET value=excluded.value";

constexpr char recordUsageSql[] = "INSERT INTO command_usage(id,count,last_used) VALUES(?,1,?) "
                                  "ON CONFLICT(id) DO UPDATE SET count=count+1,last_used=excluded.last_used";
constexpr char loadUsageSql[] = "SELECT * FROM command_usage";

constexpr char loadQuicklinksSql[] = "SELECT id,title,url_template FROM quicklinks ORDER BY title";
constexpr char saveQuicklinkSql[] = "INSERT INTO quicklinks(id,title,url_template) VALUES(?,?,?) "
                                    "ON CONFLICT(id) DO UPDATE SET title=excluded.title,url_template=excluded.url_template";
constexpr char removeQuicklinkSql[] = "DELETE FROM quicklinks WHERE id=?";

constexpr char recordLaunchSql[] = "INSERT INTO app_launches(app_path,arguments,count,last_used) VALUES(?,?,1,?) "
                                   "ON CONFLICT(app_path,arguments) DO UPDATE SET count=count+1,last_used=excluded.last_used";
constexpr char recentLaunchesSql[] =
    "SELECT app_path,arguments,count,last_used FROM app_launches WHERE app_path=? ORDER BY last_used DESC LIMIT ?";

std::optional<long long> integer(const SQLRow &row, std::string_view column)
{
    const auto *value = text(row, column);
    return value ? integerFrom(*value) : std::nullopt;
}

std::optional<double> real(const SQLRow &row, std::string_view column)
{
    const auto *value = text(row, column);
    return value ? realFrom(*value) : std::nullopt;
}

std::optional<CommandUsage> usageFrom(const SQLRow &row)
{
    const auto count = integer(row, "count");
    const auto lastUsed = real(row, "last_used");
    if (!count || !lastUsed)
        return std::nullopt;
    return CommandUsage{*count, *lastUsed};
}

std::optional<Quicklink> quicklinkFrom(const SQLRow &row)
{
    const auto *id = text(row, "id");
    const auto *title = text(row, "title");
    const auto *url = text(row, "url_template");
    if (!id || !title || !url)
        return std::nullopt;
    return Quicklink{*id, *title, *url};
}

std::optional<AppLaunchRecord> launchFrom(const SQLRow &row)
{
    const auto *appPath = text(row, "app_path");
    const auto *arguments = text(row, "arguments");
    const auto count = integer(row, "count");
    const auto lastUsed = real(row, "last_used");
    if (!appPath || !arguments || !count || !lastUsed)
        return std::nullopt;
    return AppLaunchRecord{*appPath, *arguments, *count, *lastUsed};
}

/// What `read` makes of the rows, in their order; a row that it cannot read is left out.
template <class Record>
std::vector<Record> records(const std::vector<SQLRow> &rows, std::optional<Record> (*read)(const SQLRow &))
{
    std::vector<Record> result;
    for (const auto &row : rows)
        if (auto record = read(row))
            result.push_back(std::move(*record));
    return result;
}

} // namespace

Task<std::optional<JSONValue>> SettingsRepository::load(std::string key) const
{
    std::vector<SQLValue> values{std::move(key)};
    const auto rows = co_await database->rows(loadSettingSql, std::move(values));
    const auto *value = rows.empty() ? nullptr : text(rows.front(), "value");
    if (!value)
        co_return std::nullopt;
    co_return JSONValue::parse(*value);
}

Task<void> SettingsRepository::save(std::string key, JSONValue value) const
{
    std::vector<SQLValue> values{std::move(key), value.encodedString()};
    co_await database->execute(saveSettingSql, std::move(values));
}

Task<void> CommandUsageStore::record(std::string id) const
{
    std::vector<SQLValue> values{std::move(id), clock->now()};
    co_await database->execute(recordUsageSql, std::move(values));
}

Task<UsageByIdentifier> CommandUsageStore::load() const
{
    UsageByIdentifier usage;
    const auto rows = co_await database->rows(loadUsageSql);
    for (const auto &row : rows) {
        const auto *id = text(row, "id");
        const auto read = usageFrom(row);
        if (id && read)
            usage.insert_or_assign(*id, *read);
    }
    co_return usage;
}

Task<std::vector<Quicklink>> QuicklinkRepository::load() const
{
    const auto rows = co_await database->rows(loadQuicklinksSql);
    co_return records(rows, quicklinkFrom);
}

Task<void> QuicklinkRepository::save(Quicklink link) const
{
    std::vector<SQLValue> values{std::move(link.id), std::move(link.title), std::move(link.url)};
    co_await database->execute(saveQuicklinkSql, std::move(values));
}

Task<void> QuicklinkRepository::remove(std::string id) const
{
    std::vector<SQLValue> values{std::move(id)};
    co_await database->execute(removeQuicklinkSql, std::move(values));
}

Task<void> AppLaunchRepository::record(std::string appPath, std::string arguments) const
{
    std::vector<SQLValue> values{std::move(appPath), std::move(arguments), clock->now()};
    co_await database->execute(recordLaunchSql, std::move(values));
}

Task<std::vector<AppLaunchRecord>> AppLaunchRepository::recents(std::string appPath, int limit) const
{
    std::vector<SQLValue> values{std::move(appPath), double(limit)};
    const auto rows = co_await database->rows(recentLaunchesSql, std::move(values));
    co_return records(rows, launchFrom);
}

} // namespace korvane
