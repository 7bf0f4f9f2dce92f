#pragma once

#include "CommandCore/Commands.h"
#include "Support/Clock.h"
#include "Support/MainLoop.h"
#include "Vorrel/Store/Database.h"
#include "tests/support/Await.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

struct sqlite3;

/// A store of one test and the people around it: another program's connection, files, a small disk.
namespace korvane::test {

using Access = Database::Access;
using Strings = std::vector<std::string>;
using Values = std::vector<SQLValue>;
using SQLRows = std::vector<SQLRow>;

/// A new folder, removed with everything in it.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder &) = delete;
    TemporaryFolder &operator=(const TemporaryFolder &) = delete;

    std::string operator/(const std::string &name) const { return path + "/" + name; }
    const std::string path;
};

std::string contentsOf(const std::string &path);
void writeFile(const std::string &path, const std::string &contents);
bool exists(const std::string &path);
/// The text of tests/data/store/`name`.
std::string fixture(const std::string &name);

/// SQLite as another program uses it, without anything of ours.
class OtherProgram {
public:
    explicit OtherProgram(const std::string &path);
    ~OtherProgram();
    OtherProgram(const OtherProgram &) = delete;
    OtherProgram &operator=(const OtherProgram &) = delete;

    /// Runs a script; a failure fails the test.
    void run(const std::string &script);
    /// Every row as one line, cells separated by "|", a NULL as "NULL".
    Strings lines(const std::string &sql);
    std::string line(const std::string &sql);
    /// Whether somebody else is writing.
    bool isLockedOut();

private:
    sqlite3 *handle = nullptr;
};

/// Everything that a store's schema says, in one order.
Strings schemaOf(const std::string &path);

/// What a call ended with: "done", "cancelled", or the kind and the sentence of its error.
std::string outcomeOf(const std::function<void()> &call);

/// What `work` gives when an ordinary user runs it, in a process of its own.
std::string asOrdinaryUser(const std::function<std::string()> &work);

/// While it lives no file may grow beyond `bytes`: what a full disk does to a program.
class FullDisk {
public:
    explicit FullDisk(unsigned long long bytes);
    ~FullDisk();
    FullDisk(const FullDisk &) = delete;
    FullDisk &operator=(const FullDisk &) = delete;

private:
    unsigned long long before;
};

/// The ways in which a call can be stopped, all on one thread: an uptime that the test sets, and a hook that
/// is called whenever a running query asks for it.
struct TestStore {
    MainLoop loop;
    ManualClock clock{loop};
    TemporaryFolder folder;
    const std::string file = folder / "korvane.sqlite";
    double uptime = 1000;
    int looks = 0; ///< How often the uptime was asked for.
    std::function<void()> onLook;

    std::shared_ptr<Database> open(Access access = Access::readWrite) { return openPath(file, access); }
    std::shared_ptr<Database> openPath(const std::string &path, Access access = Access::readWrite)
    {
        return await(Database::open(loop.executor(), path, access, uptimeFunction()));
    }
    Database::Uptime uptimeFunction()
    {
        return [this] {
            ++looks;
            if (onLook)
                onLook();
            return uptime;
        };
    }

    template <class T> T await(Task<T> task) { return test::await(loop, std::move(task)); }
    template <class T> Begun<T> begin(Task<T> task) { return Begun<T>(loop, std::move(task)); }
    SQLRows rows(const std::shared_ptr<Database> &database, std::string sql, Values values = {},
        std::optional<std::chrono::duration<double>> timeout = {})
    {
        return await(database->rows(std::move(sql), std::move(values), timeout));
    }
    /// The first cell named `value` of an answer; "no row" or "NULL" without one.
    std::string value(const std::shared_ptr<Database> &database, std::string sql, Values values = {})
    {
        const auto answer = rows(database, std::move(sql), std::move(values));
        if (answer.empty())
            return "no row";
        const auto found = answer.front().find("value");
        return found == answer.front().end() ? "NULL" : found->second;
    }
    void execute(const std::shared_ptr<Database> &database, std::string sql, Values values = {})
    {
        await(database->execute(std::move(sql), std::move(values)));
    }
};

inline constexpr char databaseClosed[] = "database: The database is closed.";
inline constexpr char couldNotOpen[] = "database: Could not open the local database.";
inline constexpr char couldNotMigrate[] = "database: Could not migrate the local database.";
inline constexpr char couldNotPrepare[] = "database: The database query could not be prepared.";
inline constexpr char couldNotBind[] = "database: Could not bind database values.";
inline constexpr char couldNotSave[] = "database: Could not save local data.";
inline constexpr char couldNotRead[] = "database: Could not read local data.";
inline constexpr char tookTooLong[] = "recoverable: File search took too long. Add a filename or folder filter and try again.";

/// A query that never ends by itself.
inline constexpr char endless[] = "WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x+1 FROM n) SELECT count(*) AS value FROM n";
/// One that takes many looks at its budget and then ends.
inline constexpr char lengthy[] =
    "WITH RECURSIVE n(x) AS (SELECT 1 UNION ALL SELECT x+1 FROM n WHERE x<20000) SELECT count(*) AS value FROM n";

} // namespace korvane::test
