// Reading measured points from text: one point per line, coordinates separated by
// whitespace or commas, `#` starting a comment; blank lines are skipped.
//
// The reader streams: it never holds a whole line, only the field being read (at most
// `max_field_chars` characters), so a file of any line length is read or refused in constant
// memory. The values are gathered in blocks and moved into one contiguous array at the end,
// block by block, so reading n points of c values peaks at about 8c bytes per point plus a
// block (a growing array would briefly hold two copies). The input line of each point is
// kept as the few places where the numbering jumps (comments, blank lines), not per point.
//
// Strictness: a NUL byte anywhere is an error naming its line and column (a NUL would
// otherwise end a field silently); numbers must parse completely and be finite. Numbers too
// small for a normal double (1e-310) are accepted as the nearest double, subnormal or zero.
#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <utility>
#include <vector>

namespace gfit::cli {

// The input line of every point, stored as runs: point i lies on line i + offset of the last
// run that starts at or before i.
class SourceLines {
 public:
  std::int64_t operator[](int point) const;
  void clear() { runs_.clear(); }
  // Records that `point` was read from `line`; points arrive in order.
  void add(int point, std::int64_t line);

 private:
  std::vector<std::pair<int, std::int64_t>> runs_;  // (first point, line - point)
};

struct PointTable {
  int columns = 0;                  // coordinates per point
  std::vector<double> values;       // row by row
  SourceLines source_lines;         // the input line of each point
  int rows() const { return columns == 0 ? 0 : static_cast<int>(values.size() / columns); }
};

// Longest field (number) the reader accepts, in characters.
constexpr int max_field_chars = 256;

// Reads points of exactly `columns` values (or, with columns 0, of the count the first
// point has, 2 or 3; with max_columns > columns, of any count from columns to max_columns
// that the first point sets). On a malformed line returns false with a message naming the
// line (and, for a NUL byte or an overlong field, the column).
bool read_points(std::istream& in, int columns, PointTable& table, std::string& error, int max_columns = 0);

}  // namespace gfit::cli
