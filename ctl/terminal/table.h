#pragma once

#include <string>
#include <vector>

#include "ctl/terminal/console.h"

namespace qxpctl {

struct Cell {
    std::string text;
    Color color = Color::kPlain;
};

using Row = std::vector<Cell>;

/// Lines of aligned columns, two spaces apart, each with its line break. Control characters in the texts are escaped. A
/// character counts as one column.
/// @param width  0, or what lines are cut to.
std::string FormatTable(const std::vector<Row>& rows, const Stream& stream, size_t width = 0);

/// Columns that a text in UTF-8 takes, counting one for each character.
size_t CountColumns(const std::string& text);

/// "1 script", "2 scripts".
std::string Count(size_t number, const std::string& noun);

/// Bytes in the largest unit that leaves a number of at least one, as in "1.5 MiB".
std::string SizeText(uint64_t bytes);

}  // namespace qxpctl
