#pragma once

#include "Support/Clock.h"
#include "Support/Task.h"

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace korvane {

/// A value bound to a `?` placeholder: a text, a 64-bit float or null. Every integer that the program
/// stores is bound as a number; the column's affinity stores whole values as integers again.
using SQLValue = std::variant<std::string, double, std::nullptr_t>;

/// One row of an answer, by column name. Every value is text as SQLite prints it; a NULL is absent.
using SQLRow = std::map<std::string, std::string, std::less<>>;

/// One connection to the program's SQLite file.
///
/// Threads:  callable from any coroutine; statements run one at a time, in the order of the calls, on
///           the connection's own strand of the pool, and the caller resumes on its own executor.
/// Errors:   `AppError` of kind `database`, with the sentences told at each operation; a cancelled
///           `rows` throws `Cancelled`. A write that has begun is always carried to its end.
/// Files:    a store on disk that another program has moved, removed or replaced is written no more: what
///           was committed goes to the file that was opened, and every later write is "Could not save
///           local data." Reads go on from that file.
/// Lifetime: `AppServices` owns it and closes it last; repositories share it.
class Database {
public:
    enum class Access { readWrite, readOnly };
    /// Seconds on a clock that never jumps; `rows` measures its budget on it.
    using Uptime = std::function<double()>;

    /// Opens `path` on `pool` and, for `readWrite`, creates the file and brings its schema to the
    /// present version. ":memory:" gives a private store without a file. Throws "Could not open the local
    /// database.", "Could not migrate the local database." or "Could not configure the local database."
    /// `patience` is how long an operation waits for another connection's lock: 500 ms for `readOnly` and
    /// 3000 ms for `readWrite` unless told otherwise.
    static Task<std::shared_ptr<Database>> open(
        Executor pool, std::string path, Access access, Uptime uptime = {}, std::optional<Milliseconds> patience = {});
    ~Database();

    /// Rows of one query. `timeout` bounds it: when it runs out, "File search took too long. Add a
    /// filename or folder filter and try again." Without one only cancellation ends it early.
    Task<std::vector<SQLRow>> rows(
        std::string sql, std::vector<SQLValue> values = {}, std::optional<std::chrono::duration<double>> timeout = {});
    /// One statement, stepped once; anything but its end is "Could not save local data."
    Task<void> execute(std::string sql, std::vector<SQLValue> values = {});
    /// One statement over many rows of values, in one transaction; all or nothing. No rows: no transaction.
    Task<void> executeBatch(std::string sql, std::vector<std::vector<SQLValue>> rows);
    /// Statements in order, in one transaction; the first failure undoes all.
    Task<void> executeTransaction(std::vector<std::pair<std::string, std::vector<SQLValue>>> statements);
    /// Closes the connection after everything asked for before. Later calls throw "The database is closed."
    Task<void> close();

    const std::string &path() const;

private:
    struct Connection; // keeps SQLite out of this header
    explicit Database(std::shared_ptr<Connection> connection);
    std::shared_ptr<Connection> connection; // shared with the work that is still queued
};

} // namespace korvane
