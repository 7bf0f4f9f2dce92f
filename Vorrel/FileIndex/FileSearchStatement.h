#pragma once

#include "CommandCore/FileSearchQuery.h"
#include "Vorrel/Platform/UserFolders.h"
#include "Vorrel/Store/Database.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// A file search as SQL. Pure functions; any thread.
namespace korvane {

/// A statement and its values, in the order of its placeholders.
struct CompiledSearch {
    std::string sql;
    std::vector<SQLValue> values;
    bool usesNameIndex = false; ///< By a `LIKE` for how names begin.
};

/// How a term of three characters and more is found: in the table of names, which knows every three characters in a row,
/// or by looking at each name.
enum class NameLookup { nameTable, eachName };

/// Whether the query asks for nothing: no terms, paths, extensions, folder filter and kind. The sort does not count.
bool isEmpty(const FileSearchQuery &query);
/// Whether a term is long enough for the table of names.
bool hasLongTerms(const FileSearchQuery &query);

/// What finds at most `limit` rows (1 to 1000) of a query that is not empty, best first; below `parent`, at any depth, when
/// it is given. The order is total.
CompiledSearch compile(const FileSearchQuery &query, const std::optional<std::string> &parent, int limit, NameLookup lookup,
    const UserFolders &folders);

/// `text` as a part of a LIKE pattern that means itself, with "\" as the escape.
std::string escapedLike(std::string_view text);
/// An absolute path without ".", "..", empty components and a slash at the end. Nothing on the disk is looked at.
std::string standardizedPath(std::string_view path);

} // namespace korvane
