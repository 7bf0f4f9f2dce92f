#pragma once

#include "CommandCore/IndexedFile.h"
#include "Vorrel/Store/Database.h"

namespace korvane {

/// The files in the rows of a query for path, name, is_directory, size and modified. A row without a path or a name is
/// left out; a size or time that is no number is 0.
std::vector<IndexedFile> filesFrom(const std::vector<SQLRow> &rows);

} // namespace korvane
