#include "Vorrel/FileIndex/IndexRows.h"

#include "Support/Text.h"

namespace korvane {

namespace {

long long sizeIn(const SQLColumns &row, int column)
{
    const auto whole = row.integer(column);
    return whole ? *whole : integerFrom(row.text(column).value_or("")).value_or(0);
}

double timeIn(const SQLColumns &row, int column)
{
    const auto number = row.number(column);
    return number ? *number : realFrom(row.text(column).value_or("")).value_or(0);
}

std::optional<IndexedFile> fileIn(const SQLColumns &row)
{
    auto path = row.text(0), name = row.text(1);
    if (!path || !name)
        return std::nullopt;
    return IndexedFile{std::move(*path), std::move(*name), row.text(2) == "1", sizeIn(row, 3), timeIn(row, 4)};
}

} // namespace

Database::RowReader FileRows::reader() const
{
    return [files = files](const SQLColumns &row) {
        if (auto file = fileIn(row))
            files->push_back(std::move(*file));
    };
}

Task<std::vector<IndexedFile>> filesOf(
    std::shared_ptr<Database> database, Database::Question question, std::optional<std::chrono::duration<double>> timeout)
{
    FileRows rows;
    co_await database->read(std::move(question), rows.reader(), timeout);
    co_return rows.take();
}

} // namespace korvane
