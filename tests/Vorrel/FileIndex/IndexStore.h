#pragma once

#include "CommandCore/IndexedFile.h"
#include "Vorrel/FileIndex/FileIndexRepository.h"
#include "tests/Vorrel/Store/TestStore.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

/// A file index of one test, on a file or in memory.
namespace korvane::test {

inline const UserFolders adasFolders{"/home/ada", "/home/ada/.local/share"};

inline IndexedFile fileAt(const std::string &path, long long size = 1, double modified = 1000)
{
    return {path, lastPathComponent(path), false, size, modified};
}
inline IndexedFile folderAt(const std::string &path, double modified = 1000)
{
    return {path, lastPathComponent(path), true, 0, modified};
}
inline std::vector<IndexedFile> filesAt(const Strings &paths)
{
    std::vector<IndexedFile> files;
    for (const auto &path : paths)
        files.push_back(fileAt(path));
    return files;
}
inline Strings pathsOf(const std::vector<IndexedFile> &files)
{
    Strings paths;
    for (const auto &file : files)
        paths.push_back(file.path);
    return paths;
}

/// A repository on the writing connection of a store, and the questions that tests ask it.
struct IndexStore : TestStore {
    std::shared_ptr<Database> database;
    FileIndexRepository repository;

    explicit IndexStore(IndexSteps steps = {}, bool inMemory = false) :
        database(inMemory ? openPath(":memory:") : open()), repository(database, adasFolders, clock, steps)
    {
    }

    FileIndexRepository reader() { return {open(Access::readOnly), adasFolders, clock}; }

    void add(const Strings &paths) { await(repository.upsert(filesAt(paths))); }
    void stage(const Strings &paths) { await(repository.stage(filesAt(paths))); }
    void commit(const std::string &root) { await(repository.commitStagedRoot(root)); }
    std::string commitOutcome(const std::string &root)
    {
        return outcomeOf([&] { await(repository.commitStagedRoot(root)); });
    }
    std::string searchOutcome(const FileIndexRepository &where, const std::string &text)
    {
        return outcomeOf([&] { await(where.search(text, {}, 50)); });
    }
    Strings search(
        const FileIndexRepository &where, const std::string &text, std::optional<std::string> parent = {}, int limit = 1000)
    {
        return pathsOf(await(where.search(text, std::move(parent), limit)));
    }

    /// The paths of a table, by path.
    Strings paths(const std::string &table = "file_index")
    {
        Strings result;
        for (const auto &row : rows(database, "SELECT path FROM " + table + " ORDER BY path"))
            result.push_back(row.at("path"));
        return result;
    }
    Strings staged() { return paths("file_index_staging"); }
    /// Every column of every row, by path.
    Strings allRows()
    {
        Strings result;
        for (const auto &row : rows(database,
                 "SELECT path||'|'||name||'|'||parent||'|'||is_directory||'|'||size||'|'||modified||'|'||batch_id AS line "
                 "FROM file_index ORDER BY path"))
            result.push_back(row.at("line"));
        return result;
    }
    /// "done" if the table of names holds exactly the names of the rows.
    std::string namesOutcome()
    {
        return outcomeOf(
            [&] { execute(database, "INSERT INTO file_index_fts(file_index_fts,rank) VALUES('integrity-check',1)"); });
    }
    std::string integrity() { return value(database, "SELECT integrity_check AS value FROM pragma_integrity_check"); }
    /// What a SQLite without the table's module, made long ago, leaves behind.
    void removeNameTable()
    {
        for (const char *sql : {"DROP TRIGGER file_index_ai", "DROP TRIGGER file_index_ad", "DROP TRIGGER file_index_au",
                 "DROP TABLE file_index_fts"})
            execute(database, sql);
    }
    /// Lets a test see the answer to a held lock without the wait before it.
    void doNotWaitForLocks() { rows(database, "PRAGMA busy_timeout=0"); }
};

} // namespace korvane::test
