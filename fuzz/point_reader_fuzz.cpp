// The command-line program's point readers on arbitrary bytes: each must accept or refuse with
// a message, and what it accepts must be consistent (finite values, whole rows, as many normals
// as points or none, increasing source lines).
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "tools/ply_reader.h"
#include "tools/point_reader.h"
#include "tools/table_reader.h"

namespace {

[[noreturn]] void fail(char const* what) {
  std::fprintf(stderr, "point_reader_fuzz: %s\n", what);
  std::abort();
}

void check(gfit::cli::PointTable const& table, int lowest, int highest) {
  if (table.rows() > 0 && (table.columns < lowest || table.columns > highest)) fail("column count out of range");
  if (table.columns > 0 && table.values.size() != static_cast<size_t>(table.rows()) * static_cast<size_t>(table.columns))
    fail("a partial row");
  for (double v : table.values)
    if (!std::isfinite(v)) fail("a non-finite value accepted");
  for (int i = 1; i < table.rows(); ++i)
    if (table.source_lines[i] <= table.source_lines[i - 1]) fail("source lines not increasing");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  if (size < 1) return 0;
  // The first byte picks the column mode (bits 0-1: any of 2 or 3, exactly 2, exactly 3, 3 or
  // 4) and the reader (bits 2-3: plain text, table, table with chosen columns (bit 4: by number
  // or by name), PLY).
  static const int modes[4][2] = {{0, 0}, {2, 0}, {3, 0}, {3, 4}};
  const int mode = data[0] & 3, reader = (data[0] >> 2) & 3;
  const int lowest = modes[mode][0] == 0 ? 2 : modes[mode][0];
  const int highest = modes[mode][0] == 0 ? 3 : (modes[mode][1] > 0 ? modes[mode][1] : modes[mode][0]);
  std::istringstream in(std::string(reinterpret_cast<char const*>(data) + 1, size - 1));
  gfit::cli::PointTable points, normals;
  std::string error;
  bool ok = false;
  if (reader == 0) {
    ok = gfit::cli::read_points(in, modes[mode][0], points, error, modes[mode][1]);
  } else if (reader == 3) {
    ok = gfit::cli::read_ply(in, modes[mode][0], modes[mode][1], points, normals, error);
  } else {
    const std::string choice = reader == 1 ? "" : (data[0] & 16) ? "2,3,4" : "x,y,z";
    ok = gfit::cli::read_delimited(in, choice, modes[mode][0], modes[mode][1], points, normals, error);
  }
  if (!ok) {
    if (error.empty()) fail("refused without a message");
    if (points.rows() != 0 || normals.rows() != 0) fail("refused but kept points");
    return 0;
  }
  check(points, lowest, highest);
  check(normals, 3, 3);
  if (normals.rows() != 0 && normals.rows() != points.rows()) fail("normals and points differ in count");
  return 0;
}
