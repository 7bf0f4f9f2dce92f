#pragma once

#include "Vorrel/Store/Database.h"

namespace korvane {

/// The text of a column; null where the column is NULL or the row has none of that name. Lives as long as the row.
inline const std::string *text(const SQLRow &row, std::string_view column)
{
    const auto found = row.find(column);
    return found == row.end() ? nullptr : &found->second;
}

} // namespace korvane
