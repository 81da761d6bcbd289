#include "tools/input.h"

#include <fstream>
#include <iostream>

namespace gfit::cli {

bool read_input(std::string const& path, InputOptions const& options, int columns, int max_columns, Input& input,
                std::string& error) {
  input.source = path == "-" ? "standard input" : path;
  if (options.format != "auto" && options.format != "text") {
    error = "the format '" + options.format + "' is not read yet";
    return false;
  }
  std::ifstream file;
  if (path != "-") {
    file.open(path, std::ios::binary);
    if (!file) {
      error = "cannot read " + path;
      return false;
    }
  }
  std::istream& in = path == "-" ? std::cin : file;
  if (!read_points(in, columns, input.points, error, max_columns)) {
    error = input.source + ", " + error;
    return false;
  }
  input.normals = PointTable{};
  return true;
}

}  // namespace gfit::cli
