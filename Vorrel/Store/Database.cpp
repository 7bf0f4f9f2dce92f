#include "Vorrel/Store/Database.h"
#include "Vorrel/Store/TextFunctions.h"

#include "CommandCore/Commands.h"

#include <sqlite3.h>

#include <algorithm>
#include <limits>
#include <list>
#include <sys/stat.h>

namespace korvane {

namespace {

constexpr char couldNotSave[] = "Could not save local data.";

// The schema. Every step runs at every read-write open and changes nothing that is there already: no step
// looks at `user_version`, which only tells people what made a file.

constexpr char firstStep[] =
    "PRAGMA journal_mode=WAL;"
    "PRAGMA foreign_keys=ON;"
    "BEGIN IMMEDIATE;"
    "CREATE TABLE IF NOT EXISTS schema_migrations(version INTEGER PRIMARY KEY);"
    "CREATE TABLE IF NOT EXISTS command_usage(id TEXT PRIMARY KEY, count INTEGER NOT NULL DEFAULT 0, last_used REAL NOT NULL);"
    "CREATE TABLE IF NOT EXISTS clipboard_history(id TEXT PRIMARY KEY, content TEXT NOT NULL UNIQUE, kind TEXT NOT NULL, "
    "created_at REAL NOT NULL, source_app TEXT);"
    "CREATE INDEX IF NOT EXISTS clipboard_date ON clipboard_history(created_at DESC);"
    "CREATE TABLE IF NOT EXISTS settings(key TEXT PRIMARY KEY, value TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS quicklinks(id TEXT PRIMARY KEY, title TEXT NOT NULL, url_template TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS extensions(id TEXT PRIMARY KEY, manifest TEXT NOT NULL, enabled INTEGER NOT NULL DEFAULT 0);"
    "CREATE TABLE IF NOT EXISTS agents(id TEXT PRIMARY KEY, configuration TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS skills(id TEXT PRIMARY KEY, name TEXT NOT NULL, path TEXT NOT NULL, description TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS mcp_servers(id TEXT PRIMARY KEY, configuration TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS conversations(id TEXT PRIMARY KEY, messages TEXT NOT NULL, updated_at REAL NOT NULL);"
    "INSERT OR IGNORE INTO schema_migrations(version) VALUES(1);"
    "PRAGMA user_version=1;"
    "COMMIT;";

constexpr char secondStep[] =
    "BEGIN IMMEDIATE;"
    "CREATE TABLE IF NOT EXISTS file_index(path TEXT PRIMARY KEY, name TEXT NOT NULL, parent TEXT NOT NULL, "
    "is_directory INTEGER NOT NULL DEFAULT 0, size INTEGER NOT NULL DEFAULT 0, modified REAL NOT NULL DEFAULT 0);"
    "CREATE INDEX IF NOT EXISTS file_index_name ON file_index(name COLLATE NOCASE);"
    "CREATE TABLE IF NOT EXISTS index_roots(id TEXT PRIMARY KEY, path TEXT NOT NULL, added_at REAL NOT NULL);"
    "INSERT OR IGNORE INTO schema_migrations(version) VALUES(2);"
    "PRAGMA user_version=2;"
    "COMMIT;";

constexpr char thirdStep[] =
    "BEGIN IMMEDIATE;"
    "CREATE TABLE IF NOT EXISTS app_launches(app_path TEXT NOT NULL, arguments TEXT NOT NULL, count INTEGER NOT NULL DEFAULT 1, "
    "last_used REAL NOT NULL, PRIMARY KEY(app_path, arguments));"
    "INSERT OR IGNORE INTO schema_migrations(version) VALUES(3);"
    "PRAGMA user_version=3;"
    "COMMIT;";

// SQLite cannot add a column "if not exists"; asking for the column is the test. Every row holds 0 in it.
constexpr char batchColumnProbe[] = "SELECT batch_id FROM file_index LIMIT 1";

constexpr char fourthStepWithoutColumn[] = "BEGIN IMMEDIATE;"
                                           "ALTER TABLE file_index ADD COLUMN batch_id INTEGER NOT NULL DEFAULT 0;"
                                           "INSERT OR IGNORE INTO schema_migrations(version) VALUES(4);"
                                           "PRAGMA user_version=4;"
                                           "COMMIT;";

constexpr char fourthStepWithColumn[] = "INSERT OR IGNORE INTO schema_migrations(version) VALUES(4); "
                                        "PRAGMA user_version=4;";

constexpr char fifthStep[] =
    "BEGIN IMMEDIATE;"
    "CREATE TABLE IF NOT EXISTS file_index_staging(path TEXT PRIMARY KEY, name TEXT NOT NULL, parent TEXT NOT NULL, "
    "is_directory INTEGER NOT NULL DEFAULT 0, size INTEGER NOT NULL DEFAULT 0, modified REAL NOT NULL DEFAULT 0);"
    "INSERT OR IGNORE INTO schema_migrations(version) VALUES(5);"
    "PRAGMA user_version=5;"
    "COMMIT;";

constexpr char nameTable[] = "CREATE VIRTUAL TABLE IF NOT EXISTS file_index_fts "
                             "USING fts5(name, content='file_index', content_rowid='rowid', tokenize='trigram');";

constexpr char parentIndex[] = "CREATE INDEX IF NOT EXISTS file_index_parent ON file_index(parent);";

// The name table stores no names of its own: these keep it true to `file_index`.
constexpr const char *nameTriggers[] = {
    "CREATE TRIGGER IF NOT EXISTS file_index_ai AFTER INSERT ON file_index BEGIN "
    "INSERT INTO file_index_fts(rowid, name) VALUES (new.rowid, new.name); END;",
    "CREATE TRIGGER IF NOT EXISTS file_index_ad AFTER DELETE ON file_index BEGIN "
    "INSERT INTO file_index_fts(file_index_fts, rowid, name) VALUES('delete', old.rowid, old.name); END;",
    "CREATE TRIGGER IF NOT EXISTS file_index_au AFTER UPDATE OF name ON file_index BEGIN "
    "INSERT INTO file_index_fts(file_index_fts, rowid, name) VALUES('delete', old.rowid, old.name); "
    "INSERT INTO file_index_fts(rowid, name) VALUES (new.rowid, new.name); END;",
};

// Compiled and not run: fails where the table is absent, is something else, or its module is not in this SQLite.
constexpr char nameTableProbe[] = "EXPLAIN INSERT INTO file_index_fts(file_index_fts, rowid, name) VALUES('delete', 0, '')";

constexpr char dropNameTriggers[] = "DROP TRIGGER IF EXISTS file_index_ai;"
                                    "DROP TRIGGER IF EXISTS file_index_ad;"
                                    "DROP TRIGGER IF EXISTS file_index_au;";

constexpr char nameSchema[] = "SELECT 1 FROM sqlite_master "
                              "WHERE name IN ('file_index_fts','file_index_ai','file_index_ad','file_index_au')";

constexpr char synchronous[] = "PRAGMA synchronous=NORMAL;";

// A large publication makes a log as large as the file. It is cut down to this many bytes when it is next begun anew.
constexpr char logLimit[] = "PRAGMA journal_size_limit=67108864;";

constexpr off_t longLog = 4 * 1024 * 1024; ///< Bytes; about what a write finds when it has to copy the log itself.

constexpr char forgetBackfill[] = "DELETE FROM settings WHERE key='fileIndex.ftsBackfilled'";

AppError failure(const char *sentence) { return AppError(AppError::Kind::database, sentence); }

struct Finalizer {
    void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalizer>;

/// How long one query may run, and who may stop it.
struct QueryBudget {
    double deadline; ///< On the clock of `uptime`.
    const Database::Uptime &uptime;
    const std::stop_token &stop;
};

/// Asks the budget while a query steps; removed on every way out of the query.
class ProgressHandler {
public:
    /// Keeps the cost of asking far below the cost of the query, and the wait for an answer below a millisecond.
    static constexpr int instructionsBetweenLooks = 2000;

    ProgressHandler(sqlite3 *handle, QueryBudget &budget) : handle(handle)
    {
        sqlite3_progress_handler(handle, instructionsBetweenLooks, &isOver, &budget);
    }
    ~ProgressHandler() { sqlite3_progress_handler(handle, 0, nullptr, nullptr); }
    ProgressHandler(const ProgressHandler &) = delete;
    ProgressHandler &operator=(const ProgressHandler &) = delete;

private:
    static int isOver(void *context)
    {
        const auto *budget = static_cast<const QueryBudget *>(context);
        if (!budget)
            return 0;
        return budget->stop.stop_requested() || budget->deadline <= budget->uptime();
    }

    sqlite3 *handle;
};

int run(sqlite3 *handle, const char *sql) { return sqlite3_exec(handle, sql, nullptr, nullptr, nullptr); }

/// A write transaction; undone unless it is committed.
class Transaction {
public:
    explicit Transaction(sqlite3 *handle) : handle(handle)
    {
        if (run(handle, "BEGIN IMMEDIATE") != SQLITE_OK)
            throw failure(couldNotSave);
    }
    ~Transaction()
    {
        if (!committed)
            run(handle, "ROLLBACK");
    }
    Transaction(const Transaction &) = delete;
    Transaction &operator=(const Transaction &) = delete;

    void commit()
    {
        if (run(handle, "COMMIT") != SQLITE_OK)
            throw failure(couldNotSave);
        committed = true;
    }

private:
    sqlite3 *handle;
    bool committed = false;
};

/// What a large transaction is given, for its time. The cache holds what is written in random order, the indexes by name
/// and by path, which would otherwise go to the log several times over.
class EffortScope {
public:
    EffortScope(sqlite3 *handle, Database::Effort effort) : handle(effort == Database::Effort::large ? handle : nullptr)
    {
        if (!this->handle)
            return;
        run(handle, "PRAGMA cache_size=-65536");
        sqlite3_wal_autocheckpoint(handle, 0);
    }
    ~EffortScope()
    {
        if (!handle)
            return;
        run(handle, "PRAGMA cache_size=-2000");
        sqlite3_db_release_memory(handle);
        if (!committed)
            sqlite3_wal_autocheckpoint(handle, pagesBetweenCheckpoints);
    }
    void hasCommitted() { committed = true; }
    EffortScope(const EffortScope &) = delete;
    EffortScope &operator=(const EffortScope &) = delete;

    static constexpr int pagesBetweenCheckpoints = 1000; ///< As SQLite comes.

private:
    sqlite3 *handle;
    bool committed = false;
};

/// Which file a path names; nothing when it names none.
struct FileIdentity {
    dev_t device;
    ino_t number;
    bool operator==(const FileIdentity &) const = default;
};

std::optional<FileIdentity> identityOf(const std::string &path)
{
    struct stat status;
    if (stat(path.c_str(), &status) != 0)
        return std::nullopt;
    return FileIdentity{status.st_dev, status.st_ino};
}

int bindValue(sqlite3_stmt *statement, int index, const SQLValue &value)
{
    // By their true length, so that a text with a NUL inside is stored whole. Not copied: it stays until the statement has
    // been reset.
    if (const auto *text = std::get_if<std::string>(&value))
        return sqlite3_bind_text64(statement, index, text->data(), text->size(), SQLITE_STATIC, SQLITE_UTF8);
    if (const auto *number = std::get_if<double>(&value))
        return sqlite3_bind_double(statement, index, *number);
    return sqlite3_bind_null(statement, index);
}

void bind(sqlite3_stmt *statement, const std::vector<SQLValue> &values)
{
    int index = 0;
    for (const auto &value : values)
        if (bindValue(statement, ++index, value) != SQLITE_OK)
            throw failure("Could not bind database values.");
}

Statement prepare(sqlite3 *handle, const std::string &sql)
{
    sqlite3_stmt *prepared = nullptr;
    const int code = sqlite3_prepare_v2(handle, sql.c_str(), -1, &prepared, nullptr);
    Statement statement(prepared);
    if (code != SQLITE_OK || !statement)
        throw failure("The database query could not be prepared.");
    return statement;
}

Statement prepare(sqlite3 *handle, const std::string &sql, const std::vector<SQLValue> &values)
{
    Statement statement = prepare(handle, sql);
    bind(statement.get(), values);
    return statement;
}

void finish(sqlite3_stmt *statement)
{
    if (sqlite3_step(statement) != SQLITE_DONE)
        throw failure(couldNotSave);
}

/// Runs the statement once with these values; it can be run again with others.
void runOnce(sqlite3_stmt *statement, const std::vector<SQLValue> &values)
{
    bind(statement, values);
    finish(statement);
    sqlite3_reset(statement);
}

SQLRow rowOf(sqlite3_stmt *statement)
{
    SQLRow row;
    const int columns = sqlite3_column_count(statement);
    for (int column = 0; column < columns; ++column) {
        const char *name = sqlite3_column_name(statement, column);
        const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(statement, column));
        if (name && text)
            row.insert_or_assign(name, std::string(text, std::size_t(sqlite3_column_bytes(statement, column))));
    }
    return row;
}

std::function<void(sqlite3_stmt *)> onColumns(const Database::RowReader &reader)
{
    return [&reader](sqlite3_stmt *statement) { reader(SQLColumns(statement)); };
}

/// The queries that were asked last, ready to be asked again. Each is reset as soon as it has answered, so that none
/// keeps a view of the file or a lock.
class QueryCache {
public:
    /// A query that can be kept: a plain question. What configures a connection may take effect as it is prepared.
    static bool keeps(const std::string &sql) { return sql.starts_with("SELECT "); }

    /// The statement of this text, to be given back by `keep`; nothing if there is none.
    Statement take(const std::string &sql)
    {
        const auto found = std::find_if(kept.begin(), kept.end(), [&sql](const auto &entry) { return entry.first == sql; });
        if (found == kept.end())
            return nullptr;
        Statement statement = std::move(found->second);
        kept.erase(found);
        return statement;
    }
    void keep(const std::string &sql, Statement statement)
    {
        sqlite3_reset(statement.get());
        sqlite3_clear_bindings(statement.get());
        kept.emplace_front(sql, std::move(statement));
        if (kept.size() > capacity)
            kept.pop_back();
    }
    void clear() { kept.clear(); }

private:
    static constexpr std::size_t capacity = 12;
    std::list<std::pair<std::string, Statement>> kept; // the latest first
};

double steadyUptime() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

} // namespace

std::optional<std::string> SQLColumns::text(int column) const
{
    const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(statement, column));
    return text ? std::optional(std::string(text, std::size_t(sqlite3_column_bytes(statement, column)))) : std::nullopt;
}

std::optional<long long> SQLColumns::integer(int column) const
{
    const bool whole = sqlite3_column_type(statement, column) == SQLITE_INTEGER;
    return whole ? std::optional<long long>(sqlite3_column_int64(statement, column)) : std::nullopt;
}

std::optional<double> SQLColumns::number(int column) const
{
    const int type = sqlite3_column_type(statement, column);
    const bool isNumber = type == SQLITE_INTEGER || type == SQLITE_FLOAT;
    return isNumber ? std::optional(sqlite3_column_double(statement, column)) : std::nullopt;
}

/// The SQLite connection and what may touch it. After construction everything but the constants belongs to
/// the actor's work.
struct Database::Connection {
    Connection(Executor pool, std::string path, Access access, Uptime uptime, Milliseconds patience) :
        actor(pool), beside(std::move(pool)), path(std::move(path)), access(access),
        uptime(uptime ? std::move(uptime) : Uptime(steadyUptime)), patience(patience)
    {
    }
    ~Connection() { close(); }

    void open();
    std::vector<SQLRow> rows(
        const Question &question, std::optional<std::chrono::duration<double>> timeout, const std::stop_token &stop);
    void query(const Question &question, std::optional<std::chrono::duration<double>> timeout, const std::stop_token &stop,
        const std::function<void(sqlite3_stmt *)> &take);
    void execute(const std::string &sql, const std::vector<SQLValue> &values);
    void executeBatch(const std::string &sql, const std::vector<std::vector<SQLValue>> &rows);
    void executeBatches(const std::vector<SQLBatch> &batches, Effort effort, const std::stop_token &abandon);
    void executeTransaction(const std::vector<std::pair<std::string, std::vector<SQLValue>>> &statements, Effort effort,
        const std::stop_token &abandon);
    bool canSettle();
    bool hasLongLog();
    void checkpointBeside() const;
    void settle();
    void close();

    Actor actor;
    Actor beside; ///< For work on the file that statements need not wait for.
    const std::string path;
    const Access access;
    const Uptime uptime;
    const Milliseconds patience;

private:
    bool onDisk() const { return path != ":memory:"; }
    void migrate();
    void migrateNames();
    bool hasNameSchema();
    void configure();
    void requireOpen() const;
    void requireWritable();
    bool fileHasGone();
    void settleGoneFile();

    /// What answers a query.
    struct Reader {
        sqlite3 *handle;
        QueryCache &queries;
    };
    Reader readerFor(const Question &question);
    bool openScanner();
    static Statement begin(const Reader &reader, const Question &question, int &code);
    void runAll(const std::string &sql, const std::vector<std::vector<SQLValue>> &rows);
    /// Does `work` in one transaction.
    void transact(Effort effort, const std::stop_token &abandon, const std::function<void()> &work);

    sqlite3 *handle = nullptr;
    QueryCache queries;
    sqlite3 *scanner = nullptr; ///< With a `LIKE` of our own; opened when it is asked for.
    QueryCache scannerQueries;
    std::optional<FileIdentity> file; ///< That was opened for reading.
    std::string logPath; ///< The write-ahead log's path, as SQLite names it.
    std::optional<FileIdentity> log; ///< The write-ahead log that this connection writes; nothing if it needs none.
    bool settled = false;
};

void Database::Connection::open()
{
    const bool reads = access == Access::readOnly;
    const int flags =
        reads ? SQLITE_OPEN_READONLY | SQLITE_OPEN_FULLMUTEX : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX;
    if (sqlite3_open_v2(path.c_str(), &handle, flags, nullptr) != SQLITE_OK) {
        close();
        throw failure("Could not open the local database.");
    }
    sqlite3_busy_timeout(handle, int(patience.count()));
    useOwnTextFunctions(handle);
    if (reads) {
        if (onDisk())
            file = identityOf(path);
        return;
    }
    try {
        migrate();
        configure();
    } catch (...) {
        close();
        throw;
    }
    if (onDisk()) {
        logPath = sqlite3_filename_wal(sqlite3_db_filename(handle, "main"));
        log = identityOf(logPath);
    }
}

void Database::Connection::migrate()
{
    const auto step = [this](const char *script) {
        if (run(handle, script) != SQLITE_OK)
            throw failure("Could not migrate the local database.");
    };
    // Ahead of its turn in `configure`: each step commits, and waiting for the disk at each is most of a start.
    run(handle, synchronous);
    step(firstStep);
    step(secondStep);
    step(thirdStep);
    step(run(handle, batchColumnProbe) == SQLITE_OK ? fourthStepWithColumn : fourthStepWithoutColumn);
    step(fifthStep);
    migrateNames();
}

/// Best effort: a SQLite without FTS5 or its trigram tokenizer opens the file all the same, and searches do
/// without the name table. It must not keep the triggers then, or every write to `file_index` would fail; and
/// names that changed without them must be filled in again once they are back.
void Database::Connection::migrateNames()
{
    const bool wasComplete = hasNameSchema();
    run(handle, nameTable);
    run(handle, parentIndex);
    const bool usable = run(handle, nameTableProbe) == SQLITE_OK;
    if (usable)
        for (const char *trigger : nameTriggers)
            run(handle, trigger);
    else
        run(handle, dropNameTriggers);
    if (!wasComplete || !usable)
        run(handle, forgetBackfill);
}

bool Database::Connection::hasNameSchema()
{
    int found = 0;
    const auto count = [](void *found, int, char **, char **) {
        ++*static_cast<int *>(found);
        return 0;
    };
    sqlite3_exec(handle, nameSchema, count, &found, nullptr);
    return found == 4; // the table and its triggers
}

void Database::Connection::configure()
{
    const auto set = [this](const char *pragma) {
        if (run(handle, pragma) != SQLITE_OK)
            throw failure("Could not configure the local database.");
    };
    set(synchronous);
    if (onDisk())
        set(logLimit);
    // Writes pick rows by path, which this system compares by case. A store in memory has this one connection
    // for its searches too, and those fold names.
    if (onDisk())
        set("PRAGMA case_sensitive_like=ON;");
}

void Database::Connection::requireOpen() const
{
    if (!handle)
        throw failure("The database is closed.");
}

void Database::Connection::requireWritable()
{
    requireOpen();
    if (!fileHasGone())
        return;
    settleGoneFile();
    throw failure(couldNotSave);
}

/// Whether the store's path no longer names the file that is open here, or its write-ahead log has been taken
/// away. SQLite would go on writing into files that nobody can find any more, and report success.
bool Database::Connection::fileHasGone()
{
    if (!onDisk() || access == Access::readOnly)
        return false;
    int moved = 0;
    sqlite3_file_control(handle, "main", SQLITE_FCNTL_HAS_MOVED, &moved);
    return moved != 0 || (log && identityOf(logPath) != log);
}

/// A write-ahead log is tied to a path and not to a database: what stays in it would be played into whatever
/// file bears the path at the next start, and would be missing from the one it belongs to. So its pages go to
/// the file that is open here, wherever that is now, and the log is left empty. Best effort, once.
void Database::Connection::settleGoneFile()
{
    if (std::exchange(settled, true))
        return;
    sqlite3_wal_checkpoint_v2(handle, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
}

std::vector<SQLRow> Database::Connection::rows(
    const Question &question, std::optional<std::chrono::duration<double>> timeout, const std::stop_token &stop)
{
    std::vector<SQLRow> rows;
    query(question, timeout, stop, [&rows](sqlite3_stmt *statement) { rows.push_back(rowOf(statement)); });
    return rows;
}

/// Calls `take` with the statement on each row.
void Database::Connection::query(const Question &question, std::optional<std::chrono::duration<double>> timeout,
    const std::stop_token &stop, const std::function<void(sqlite3_stmt *)> &take)
{
    if (stop.stop_requested())
        throw Cancelled();
    requireOpen();
    QueryBudget budget{uptime() + (timeout ? timeout->count() : std::numeric_limits<double>::max()), uptime, stop};
    const Reader reader = readerFor(question);
    const ProgressHandler handler(reader.handle, budget);
    int code = SQLITE_OK;
    Statement statement = begin(reader, question, code);
    for (; code == SQLITE_ROW; code = sqlite3_step(statement.get()))
        take(statement.get());
    if (code == SQLITE_DONE) {
        if (QueryCache::keeps(question.sql))
            reader.queries.keep(question.sql, std::move(statement));
        return;
    }
    if (code != SQLITE_INTERRUPT)
        throw failure("Could not read local data.");
    if (stop.stop_requested())
        throw Cancelled();
    throw AppError(AppError::Kind::recoverable, "File search took too long. Add a filename or folder filter and try again.");
}

/// False where there is none: the other connection answers the same.
bool Database::Connection::openScanner()
{
    if (scanner)
        return true;
    if (!file || identityOf(path) != file)
        return false;
    const int flags = SQLITE_OPEN_READONLY | SQLITE_OPEN_FULLMUTEX;
    if (sqlite3_open_v2(path.c_str(), &scanner, flags, nullptr) != SQLITE_OK) {
        sqlite3_close(std::exchange(scanner, nullptr));
        return false;
    }
    sqlite3_busy_timeout(scanner, int(patience.count()));
    useOwnTextFunctions(scanner);
    useOwnLike(scanner);
    return true;
}

Database::Connection::Reader Database::Connection::readerFor(const Question &question)
{
    if (question.scans && openScanner())
        return {scanner, scannerQueries};
    return {handle, queries};
}

/// A query after its first step, which gives `code`. A kept statement that cannot go on, because what it asks has gone,
/// is prepared once more, so that the failure is the one of a new query.
Statement Database::Connection::begin(const Reader &reader, const Question &question, int &code)
{
    if (Statement kept = reader.queries.take(question.sql)) {
        bind(kept.get(), question.values);
        code = sqlite3_step(kept.get());
        if (code == SQLITE_ROW || code == SQLITE_DONE || code == SQLITE_INTERRUPT || code == SQLITE_BUSY)
            return kept;
    }
    Statement statement = prepare(reader.handle, question.sql, question.values);
    code = sqlite3_step(statement.get());
    return statement;
}

void Database::Connection::execute(const std::string &sql, const std::vector<SQLValue> &values)
{
    requireWritable();
    finish(prepare(handle, sql, values).get());
}

void Database::Connection::executeBatch(const std::string &sql, const std::vector<std::vector<SQLValue>> &rows)
{
    requireWritable();
    Transaction transaction(handle);
    runAll(sql, rows);
    transaction.commit();
}

void Database::Connection::executeBatches(const std::vector<SQLBatch> &batches, Effort effort, const std::stop_token &abandon)
{
    transact(effort, abandon, [&] {
        for (const auto &batch : batches)
            if (!batch.rows.empty())
                runAll(batch.sql, batch.rows);
    });
}

void Database::Connection::runAll(const std::string &sql, const std::vector<std::vector<SQLValue>> &rows)
{
    const Statement statement = prepare(handle, sql);
    for (const auto &values : rows)
        runOnce(statement.get(), values);
}

void Database::Connection::executeTransaction(
    const std::vector<std::pair<std::string, std::vector<SQLValue>>> &statements, Effort effort, const std::stop_token &abandon)
{
    transact(effort, abandon, [&] {
        const std::string *last = nullptr;
        Statement statement;
        for (const auto &[sql, values] : statements) {
            if (!last || *last != sql)
                statement = prepare(handle, sql);
            else
                sqlite3_clear_bindings(statement.get());
            last = &sql;
            runOnce(statement.get(), values);
        }
    });
}

void Database::Connection::transact(Effort effort, const std::stop_token &abandon, const std::function<void()> &work)
{
    if (abandon.stop_requested())
        throw Cancelled();
    requireWritable();
    EffortScope scope(handle, onDisk() ? effort : Effort::usual);
    Transaction transaction(handle);
    QueryBudget budget{std::numeric_limits<double>::max(), uptime, abandon};
    std::optional<ProgressHandler> handler; // ends before the transaction does
    if (abandon.stop_possible())
        handler.emplace(handle, budget);
    try {
        work();
        transaction.commit();
    } catch (const AppError &) {
        if (abandon.stop_requested())
            throw Cancelled();
        throw;
    }
    scope.hasCommitted();
}

bool Database::Connection::canSettle() { return handle && onDisk() && access == Access::readWrite && !fileHasGone(); }

/// Whether it is worth while to copy the log beside other work, after a large transaction. A shorter one is left to
/// whichever write makes it long.
bool Database::Connection::hasLongLog()
{
    struct stat status;
    if (canSettle() && stat(logPath.c_str(), &status) == 0 && status.st_size > longLog)
        return true;
    if (handle)
        sqlite3_wal_autocheckpoint(handle, EffortScope::pagesBetweenCheckpoints);
    return false;
}

/// Copies the log into the file on a connection of its own: the statements of this one go on meanwhile, and find
/// little left to copy.
void Database::Connection::checkpointBeside() const
{
    sqlite3 *opened = nullptr;
    if (sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX, nullptr) == SQLITE_OK) {
        // A connection learns what the file is by its first look at it.
        run(opened, "SELECT 1 FROM sqlite_master LIMIT 1");
        sqlite3_wal_checkpoint_v2(opened, nullptr, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
    }
    sqlite3_close(opened);
}

/// Empties what is left of the log, unless somebody reads from it just now: then the limit of its size does it later.
void Database::Connection::settle()
{
    if (!canSettle())
        return;
    sqlite3_busy_timeout(handle, 0);
    sqlite3_wal_checkpoint_v2(handle, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    sqlite3_busy_timeout(handle, int(patience.count()));
    sqlite3_wal_autocheckpoint(handle, EffortScope::pagesBetweenCheckpoints);
    sqlite3_db_release_memory(handle);
}

void Database::Connection::close()
{
    if (!handle)
        return;
    scannerQueries.clear();
    sqlite3_close(std::exchange(scanner, nullptr));
    queries.clear();
    if (fileHasGone())
        settleGoneFile();
    sqlite3_close(std::exchange(handle, nullptr));
}

Database::Database(std::shared_ptr<Connection> connection) : connection(std::move(connection)) { }

Database::~Database() = default;

const std::string &Database::path() const { return connection->path; }

Task<std::shared_ptr<Database>> Database::open(
    Executor pool, std::string path, Access access, Uptime uptime, std::optional<Milliseconds> patience)
{
    // A search must fail fast; a write rides out the other connection.
    const Milliseconds usual(access == Access::readOnly ? 500 : 3000);
    auto connection =
        std::make_shared<Connection>(std::move(pool), std::move(path), access, std::move(uptime), patience.value_or(usual));
    auto work = [connection](std::stop_token) { connection->open(); };
    co_await connection->actor.run(std::move(work));
    co_return std::shared_ptr<Database>(new Database(std::move(connection)));
}

Task<std::vector<SQLRow>> Database::rows(
    std::string sql, std::vector<SQLValue> values, std::optional<std::chrono::duration<double>> timeout)
{
    auto work = [connection = connection, question = Question{std::move(sql), std::move(values)}, timeout](
                    std::stop_token stop) { return connection->rows(question, timeout, stop); };
    co_await throwIfCancelled();
    co_return co_await connection->actor.run(std::move(work));
}

Task<void> Database::read(Question question, RowReader reader, std::optional<std::chrono::duration<double>> timeout)
{
    auto work = [connection = connection, question = std::move(question), reader = std::move(reader), timeout](
                    std::stop_token stop) { connection->query(question, timeout, stop, onColumns(reader)); };
    co_await throwIfCancelled();
    co_await connection->actor.run(std::move(work));
}

Task<void> Database::readIf(std::string probe, Question ifAny, std::function<Question()> ifNone, RowReader reader,
    std::optional<std::chrono::duration<double>> timeout)
{
    auto work = [connection = connection, probe = Question{std::move(probe)}, ifAny = std::move(ifAny),
                    ifNone = std::move(ifNone), reader = std::move(reader), timeout](std::stop_token stop) {
        const bool any = !connection->rows(probe, {}, stop).empty();
        connection->query(any ? ifAny : ifNone(), timeout, stop, onColumns(reader));
    };
    co_await throwIfCancelled();
    co_await connection->actor.run(std::move(work));
}

Task<void> Database::execute(std::string sql, std::vector<SQLValue> values)
{
    auto work = [connection = connection, sql = std::move(sql), values = std::move(values)](
                    std::stop_token) { connection->execute(sql, values); };
    co_await connection->actor.run(std::move(work));
}

Task<void> Database::executeBatch(std::string sql, std::vector<std::vector<SQLValue>> rows)
{
    if (rows.empty())
        co_return;
    auto work = [connection = connection, sql = std::move(sql), rows = std::move(rows)](
                    std::stop_token) { connection->executeBatch(sql, rows); };
    co_await connection->actor.run(std::move(work));
}

Task<void> Database::executeTransaction(
    std::vector<std::pair<std::string, std::vector<SQLValue>>> statements, Effort effort, std::stop_token abandon)
{
    auto work = [connection = connection, statements = std::move(statements), effort, abandon = std::move(abandon)](
                    std::stop_token) { connection->executeTransaction(statements, effort, abandon); };
    co_await connection->actor.run(std::move(work));
    if (effort == Effort::large)
        co_await settleLongLog();
}

Task<void> Database::executeBatches(std::vector<SQLBatch> batches, Effort effort, std::stop_token abandon)
{
    if (std::all_of(batches.begin(), batches.end(), [](const SQLBatch &batch) { return batch.rows.empty(); }))
        co_return;
    auto work = [connection = connection, batches = std::move(batches), effort, abandon = std::move(abandon)](
                    std::stop_token) { connection->executeBatches(batches, effort, abandon); };
    co_await connection->actor.run(std::move(work));
    if (effort == Effort::large)
        co_await settleLongLog();
}

Task<void> Database::settleLongLog()
{
    auto asks = [connection = connection](std::stop_token) { return connection->hasLongLog(); };
    const bool isLong = co_await connection->actor.run(std::move(asks));
    if (isLong)
        co_await settle();
}

Task<void> Database::settle()
{
    auto asks = [connection = connection](std::stop_token) { return connection->canSettle(); };
    const bool can = co_await connection->actor.run(std::move(asks));
    if (!can)
        co_return;
    auto copies = [connection = connection](std::stop_token) { connection->checkpointBeside(); };
    co_await connection->beside.run(std::move(copies));
    auto empties = [connection = connection](std::stop_token) { connection->settle(); };
    co_await connection->actor.run(std::move(empties));
}

Task<void> Database::close()
{
    auto work = [connection = connection](std::stop_token) { connection->close(); };
    co_await connection->actor.run(std::move(work));
}

} // namespace korvane
