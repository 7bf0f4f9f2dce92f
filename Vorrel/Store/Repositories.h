#pragma once

#include "CommandCore/CommandRegistry.h"
#include "CommandCore/JSONValue.h"
#include "Vorrel/Store/Database.h"

#include <unordered_map>

/// Small stores over one `Database`: values without state of their own. Reads throw what `rows` throws,
/// writes what `execute` throws; nothing is retried. Times are seconds since 1970, read from the
/// clock before the hop to the database.
namespace korvane {

/// A saved web or file address with a name.
struct Quicklink {
    std::string id, title, url;
    bool operator==(const Quicklink &) const = default;
};

/// One remembered launch of an application with a line of arguments.
struct AppLaunchRecord {
    std::string appPath;
    std::string arguments; ///< The typed line as it stood.
    long long count = 0;
    double lastUsed = 0; ///< Seconds since 1970.
    bool operator==(const AppLaunchRecord &) const = default;
};

/// Settings as JSON texts by key.
class SettingsRepository {
public:
    explicit SettingsRepository(std::shared_ptr<Database> database) : database(std::move(database)) { }
    /// The stored document; nothing without one. Throws when it is no JSON.
    Task<std::optional<JSONValue>> load(std::string key) const;
    /// The stored document turned into a value by `decode`, whose errors pass through.
    template <class T> Task<std::optional<T>> load(std::string key, T (*decode)(const JSONValue &)) const
    {
        const std::optional<JSONValue> stored = co_await load(std::move(key));
        if (!stored)
            co_return std::nullopt;
        co_return decode(*stored);
    }
    Task<void> save(std::string key, JSONValue value) const;

private:
    std::shared_ptr<Database> database;
};

/// How often and when rows were used.
class CommandUsageStore {
public:
    CommandUsageStore(std::shared_ptr<Database> database, Clock &clock) : database(std::move(database)), clock(&clock) { }
    /// Adds one use now; counted in SQL, so that two records never lose one.
    Task<void> record(std::string id) const;
    /// All uses by identifier; a row that does not parse is left out.
    Task<UsageByIdentifier> load() const;

private:
    std::shared_ptr<Database> database;
    Clock *clock;
};

class QuicklinkRepository {
public:
    explicit QuicklinkRepository(std::shared_ptr<Database> database) : database(std::move(database)) { }
    Task<std::vector<Quicklink>> load() const; ///< By title, in byte order.
    Task<void> save(Quicklink link) const; ///< Replaces one of the same identifier.
    Task<void> remove(std::string id) const; ///< Removing an absent one is no failure.

private:
    std::shared_ptr<Database> database;
};

class AppLaunchRepository {
public:
    AppLaunchRepository(std::shared_ptr<Database> database, Clock &clock) : database(std::move(database)), clock(&clock) { }
    /// Adds one launch now of this application with this line.
    Task<void> record(std::string appPath, std::string arguments) const;
    /// The application's lines, most recent first, at most `limit`.
    Task<std::vector<AppLaunchRecord>> recents(std::string appPath, int limit) const;

private:
    std::shared_ptr<Database> database;
    Clock *clock;
};

} // namespace korvane
