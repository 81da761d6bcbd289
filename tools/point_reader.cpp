#include "tools/point_reader.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <sstream>

namespace gfit::cli {

bool read_points(std::istream& in, int columns, PointTable& table, std::string& error, int max_columns) {
  table = PointTable();
  const int lowest = columns == 0 ? 2 : columns;
  const int highest = columns == 0 ? 3 : (max_columns > columns ? max_columns : columns);
  table.columns = lowest == highest ? lowest : 0;
  std::string line;
  std::vector<double> row;
  for (int number = 1; std::getline(in, line); ++number) {
    if (auto hash = line.find('#'); hash != std::string::npos) line.erase(hash);
    for (char& c : line)
      if (c == ',') c = ' ';
    row.clear();
    std::istringstream fields(line);
    std::string field;
    while (fields >> field) {
      char* end = nullptr;
      errno = 0;
      double v = std::strtod(field.c_str(), &end);
      if (end == field.c_str() || *end != '\0' || errno == ERANGE || !std::isfinite(v)) {
        error = "line " + std::to_string(number) + ": '" + field + "' is not a finite number";
        return false;
      }
      row.push_back(v);
    }
    if (row.empty()) continue;
    if (table.columns == 0) {
      const int found = static_cast<int>(row.size());
      if (found < lowest || found > highest) {
        error = "line " + std::to_string(number) + ": expected " + std::to_string(lowest) + " to " +
                std::to_string(highest) + " values, found " + std::to_string(found);
        return false;
      }
      table.columns = found;
    }
    if (static_cast<int>(row.size()) != table.columns) {
      error = "line " + std::to_string(number) + ": expected " + std::to_string(table.columns) +
              " coordinates, found " + std::to_string(row.size());
      return false;
    }
    table.values.insert(table.values.end(), row.begin(), row.end());
    table.source_lines.push_back(number);
  }
  if (in.bad()) {
    error = "read error";
    return false;
  }
  return true;
}

}  // namespace gfit::cli
