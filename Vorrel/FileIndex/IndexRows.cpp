#include "Vorrel/FileIndex/IndexRows.h"

#include "Support/Text.h"
#include "Vorrel/Store/SQLCells.h"

namespace korvane {

namespace {

std::optional<IndexedFile> parse(const SQLRow &row)
{
    const auto *path = text(row, "path");
    const auto *name = text(row, "name");
    if (!path || !name)
        return std::nullopt;
    const auto *directory = text(row, "is_directory");
    const auto *size = text(row, "size");
    const auto *modified = text(row, "modified");
    return IndexedFile{*path, *name, directory && *directory == "1", size ? integerFrom(*size).value_or(0) : 0,
        modified ? realFrom(*modified).value_or(0) : 0};
}

} // namespace

std::vector<IndexedFile> filesFrom(const std::vector<SQLRow> &rows)
{
    std::vector<IndexedFile> files;
    files.reserve(rows.size());
    for (const auto &row : rows)
        if (auto file = parse(row))
            files.push_back(std::move(*file));
    return files;
}

} // namespace korvane
