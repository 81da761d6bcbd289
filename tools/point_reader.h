// Reading measured points from text: one point per line, coordinates separated by
// whitespace or commas, `#` starting a comment; blank lines are skipped.
#pragma once

#include <istream>
#include <string>
#include <vector>

namespace gfit::cli {

struct PointTable {
  int columns = 0;                  // coordinates per point
  std::vector<double> values;       // row by row
  std::vector<int> source_lines;    // the input line of each point
  int rows() const { return columns == 0 ? 0 : static_cast<int>(values.size()) / columns; }
};

// Reads points of exactly `columns` values (or, with columns 0, of the count the first
// point has, 2 or 3; with max_columns > columns, of any count from columns to max_columns
// that the first point sets). On a malformed line returns false with a message naming the
// line.
bool read_points(std::istream& in, int columns, PointTable& table, std::string& error, int max_columns = 0);

}  // namespace gfit::cli
