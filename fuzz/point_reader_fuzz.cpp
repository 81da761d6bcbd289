// The command-line program's point reader on arbitrary bytes: it must accept or refuse with a
// message, and what it accepts must be consistent (finite values, whole rows, increasing
// source lines).
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "tools/point_reader.h"

namespace {

[[noreturn]] void fail(char const* what) {
  std::fprintf(stderr, "point_reader_fuzz: %s\n", what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  if (size < 1) return 0;
  // The first byte picks the reader's mode: any of 2 or 3, exactly 2, exactly 3, 3 or 4.
  static const int modes[4][2] = {{0, 0}, {2, 0}, {3, 0}, {3, 4}};
  const int mode = data[0] & 3;
  std::istringstream in(std::string(reinterpret_cast<char const*>(data) + 1, size - 1));
  gfit::cli::PointTable table;
  std::string error;
  if (!gfit::cli::read_points(in, modes[mode][0], table, error, modes[mode][1])) {
    if (error.empty()) fail("refused without a message");
    if (table.rows() != 0) fail("refused but kept points");
    return 0;
  }
  if (table.rows() > 0 && (table.columns < 2 || table.columns > 4)) fail("column count out of range");
  if (table.values.size() != static_cast<size_t>(table.rows()) * static_cast<size_t>(table.columns))
    fail("a partial row");
  for (double v : table.values)
    if (!std::isfinite(v)) fail("a non-finite value accepted");
  for (int i = 1; i < table.rows(); ++i)
    if (table.source_lines[i] <= table.source_lines[i - 1]) fail("source lines not increasing");
  return 0;
}
