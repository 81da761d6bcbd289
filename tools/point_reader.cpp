#include "tools/point_reader.h"

#include "tools/read_support.h"

#include <algorithm>
#include <climits>
#include <memory>
#include <new>

namespace gfit::cli {

std::int64_t SourceLines::operator[](int point) const {
  auto after = std::upper_bound(runs_.begin(), runs_.end(), point,
                                [](int p, std::pair<int, std::int64_t> const& run) { return p < run.first; });
  if (after == runs_.begin()) return point + 1;  // not read: no better answer than the plain numbering
  return point + std::prev(after)->second;
}

void SourceLines::add(int point, std::int64_t line) {
  if (runs_.empty() || runs_.back().second != line - point) runs_.emplace_back(point, line - point);
}

namespace {

using detail::BlockStore;
using detail::printable;

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f' || c == ','; }

}  // namespace

bool read_points(std::istream& in, int columns, PointTable& table, std::string& error, int max_columns) {
  table = PointTable();
  const int lowest = columns == 0 ? 2 : columns;
  const int highest = columns == 0 ? 3 : (max_columns > columns ? max_columns : columns);
  table.columns = lowest == highest ? lowest : 0;

  BlockStore store;
  std::vector<double> row(static_cast<size_t>(highest));
  char field[max_field_chars + 1];
  int field_length = 0;
  long long found = 0;  // values on the current line (only the first `highest` are kept)
  int points = 0;
  std::int64_t line = 1, column = 0;
  bool comment = false;
  auto where = [&] { return "line " + std::to_string(line); };

  auto end_field = [&]() -> bool {
    if (field_length == 0) return true;
    field[field_length] = '\0';
    double v = 0.0;
    if (!detail::parse_number(field, field_length, v)) {
      error = where() + ": '" + printable(field, field_length) + "' is not a finite number";
      return false;
    }
    if (found < highest) row[static_cast<size_t>(found)] = v;
    ++found;
    field_length = 0;
    return true;
  };

  auto end_line = [&]() -> bool {
    if (!end_field()) return false;
    if (found > 0) {
      if (table.columns == 0) {
        if (found < lowest || found > highest) {
          error = where() + ": expected " + std::to_string(lowest) + " to " + std::to_string(highest) +
                  " values, found " + std::to_string(found);
          return false;
        }
        table.columns = static_cast<int>(found);
      }
      if (found != table.columns) {
        error = where() + ": expected " + std::to_string(table.columns) + " coordinates, found " +
                std::to_string(found);
        return false;
      }
      if (points == INT_MAX) {
        error = where() + ": more than " + std::to_string(INT_MAX) + " points";
        return false;
      }
      for (int i = 0; i < table.columns; ++i) store.push(row[static_cast<size_t>(i)]);
      table.source_lines.add(points++, line);
    }
    found = 0;
    comment = false;
    ++line;
    column = 0;
    return true;
  };

  auto fail = [&] {
    table = PointTable();
    return false;
  };

  try {
    const bool read = detail::scan_bytes(in, column, where, error, [&](char c) -> bool {
      if (c == '\n') return end_line();
      if (comment) return true;
      if (c == '#') {
        if (!end_field()) return false;
        comment = true;
        return true;
      }
      if (is_space(c)) return end_field();
      if (field_length == max_field_chars) {
        error = where() + ", column " + std::to_string(column) + ": a field longer than " +
                std::to_string(max_field_chars) + " characters";
        return false;
      }
      field[field_length++] = c;
      return true;
    });
    if (!read) return fail();
    if (!end_line()) return fail();  // a last line without its newline
    store.move_to(table.values);
  } catch (std::bad_alloc const&) {
    error = where() + ": out of memory after " + std::to_string(points) + " points";
    return fail();
  }
  return true;
}

}  // namespace gfit::cli
