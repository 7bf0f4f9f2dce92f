#pragma once

#include "CommandCore/IndexedFile.h"
#include "Vorrel/Store/Database.h"

namespace korvane {

/// The files in the rows of a query for path, name, is_directory, size and modified, in this order. A row without a path or a
/// name is left out; a size or time that is no number is 0.
class FileRows {
public:
    /// For `Database::read`, of one query.
    Database::RowReader reader() const;
    /// What has been read, once.
    std::vector<IndexedFile> take() { return std::move(*files); }

private:
    std::shared_ptr<std::vector<IndexedFile>> files = std::make_shared<std::vector<IndexedFile>>();
};

/// The answer to one such query.
Task<std::vector<IndexedFile>> filesOf(
    std::shared_ptr<Database> database, Database::Question question, std::optional<std::chrono::duration<double>> timeout = {});

} // namespace korvane
