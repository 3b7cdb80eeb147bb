#pragma once
/// @file
/// Tables on a terminal.

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "host/kvhost_Values.h"

namespace kvhost {

/// Where text goes.
struct Screen {
    size_t width = 80;
    bool cut = false;  ///< cut what is wider; a file or a pipe gets everything
};

struct Column {
    std::string title;  ///< broken at blanks where the column is narrower
    bool rightAligned = false;
};

using Row = std::vector<std::string>;

/// Lays rows out in columns. Where even narrow columns do not fit on the screen, each row is written as a block with
/// one line "title: cell" per column.
/// @return lines, each ended by a newline
std::string FormatTable(const std::vector<Column>& columns, const std::vector<Row>& rows, const Screen& screen);

/// Objects with the same fields in the same order, one a row.
/// @param objects  at least one
std::string FormatObjects(const nlohmann::ordered_json& objects, const Screen& screen);

/// All instances of a class as a table.
std::string FormatClass(const ClassData& data, const Screen& screen);

}  // namespace kvhost
