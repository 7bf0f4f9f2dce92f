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

struct sqlite3_stmt;

namespace korvane {

/// A value bound to a `?` placeholder: a text, a 64-bit float or null. Every integer that the program
/// stores is bound as a number; the column's affinity stores whole values as integers again.
using SQLValue = std::variant<std::string, double, std::nullptr_t>;

/// One row of an answer, by column name. Every value is text as SQLite prints it; a NULL is absent.
using SQLRow = std::map<std::string, std::string, std::less<>>;

/// The row that a query stands on, by the number of a column from 0. For answers of many rows, which would otherwise go
/// through texts by name. Valid only during the call that it is given to.
class SQLColumns {
public:
    explicit SQLColumns(sqlite3_stmt *statement) : statement(statement) { }
    /// As SQLite prints it; nothing for a NULL.
    std::optional<std::string> text(int column) const;
    /// A whole number that is stored as one; nothing for anything else.
    std::optional<long long> integer(int column) const;
    /// A number, whole or not; nothing for anything else.
    std::optional<double> number(int column) const;

private:
    sqlite3_stmt *statement;
};

/// One statement and the values of each time it is run.
struct SQLBatch {
    std::string sql;
    std::vector<std::vector<SQLValue>> rows;
};

/// One connection to the program's SQLite file.
///
/// Threads:  callable from any coroutine; statements run one at a time, in the order of the calls, on
///           the connection's own strand of the pool, and the caller resumes on its own executor.
/// Errors:   `AppError` of kind `database`, with the sentences told at each operation; a cancelled
///           `rows` throws `Cancelled`. A write that has begun is carried to its end, unless it may be abandoned.
/// Files:    a store on disk that another program has moved, removed or replaced is written no more: what
///           was committed goes to the file that was opened, and every later write is "Could not save
///           local data." Reads go on from that file.
/// Lifetime: `AppServices` owns it and closes it last; repositories share it.
class Database {
public:
    enum class Access { readWrite, readOnly };
    /// A `large` transaction takes 64 MB of memory for its time. When it has made the write-ahead log long, its caller
    /// waits until that is copied into the file, and nobody else does.
    enum class Effort { usual, large };
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
    /// A query with its values.
    struct Question {
        std::string sql;
        std::vector<SQLValue> values = {};
        /// Whether no index can serve a `LIKE` of it. A `readOnly` store then compares several times as fast, on a second
        /// connection, since that takes every `LIKE` away from the indexes.
        bool scans = false;
    };
    /// Told each row of an answer, on the connection's thread; of a query that fails, as many as there were. What it owns
    /// ends on either thread.
    using RowReader = std::function<void(const SQLColumns &)>;
    /// The rows of a query to `reader`; otherwise as `rows`.
    Task<void> read(Question question, RowReader reader, std::optional<std::chrono::duration<double>> timeout = {});
    /// The rows of `ifAny` where `probe` has an answer and of `ifNone` where it has none, in one turn of the connection.
    /// `ifNone` is called on its thread. `timeout` bounds the second query.
    Task<void> readIf(std::string probe, Question ifAny, std::function<Question()> ifNone, RowReader reader,
        std::optional<std::chrono::duration<double>> timeout = {});
    /// One statement, stepped once; anything but its end is "Could not save local data."
    Task<void> execute(std::string sql, std::vector<SQLValue> values = {});
    /// One statement over many rows of values, in one transaction; all or nothing. No rows: no transaction.
    Task<void> executeBatch(std::string sql, std::vector<std::vector<SQLValue>> rows);
    /// Several such batches in order, in one transaction; all or nothing. No rows in any: no transaction. Cancelling the caller
    /// does not end it; `abandon` does, also while it runs: it is undone and throws `Cancelled`.
    Task<void> executeBatches(std::vector<SQLBatch> batches, Effort effort = Effort::usual, std::stop_token abandon = {});
    /// Statements in order, in one transaction; the first failure undoes all. `abandon` as above.
    Task<void> executeTransaction(std::vector<std::pair<std::string, std::vector<SQLValue>>> statements,
        Effort effort = Effort::usual, std::stop_token abandon = {});
    /// Empties the write-ahead log into the file and gives unused memory back, as far as nobody else has to wait for
    /// it: best effort, and never a failure. A store in memory and one that is only read have nothing to settle.
    Task<void> settle();
    /// Closes the connection after everything asked for before. Later calls throw "The database is closed."
    Task<void> close();

    const std::string &path() const;

private:
    Task<void> settleLongLog();
    struct Connection; // keeps SQLite out of this header
    explicit Database(std::shared_ptr<Connection> connection);
    std::shared_ptr<Connection> connection; // shared with the work that is still queued
};

} // namespace korvane
