// `gfit affine PAIRS`: the least-squares affine map between corresponding points.
#include <fstream>
#include <iostream>

#include "tools/cli.h"

namespace gfit::cli {

int run_affine(std::vector<std::string> const& args) {
  if (args.size() != 1) {
    std::cerr << "usage: gfit affine PAIRS   (per line: x y x' y', or x y z x' y' z'; '-': standard input)\n";
    return 2;
  }
  std::string const& path = args[0];
  std::ifstream file;
  if (path != "-") {
    file.open(path);
    if (!file) {
      std::cerr << "gfit: cannot read " << path << "\n";
      return 2;
    }
  }
  const std::string source = path == "-" ? "standard input" : path;
  PointTable table;
  std::string error;
  if (!read_points(path == "-" ? std::cin : file, 4, table, error, 6)) {
    std::cerr << "gfit: " << source << ", " << error << "\n";
    return 2;
  }
  if (table.columns != 4 && table.columns != 6) {
    std::cerr << "gfit: a pair is 4 values in the plane or 6 in space, not " << table.columns << "\n";
    return 2;
  }
  const int dim = table.columns / 2, n = table.rows();
  if (n < dim + 1) {
    std::cerr << "gfit: an affine map in " << dim << "-D needs at least " << dim + 1 << " pairs, " << source << " has "
              << n << "\n";
    return 2;
  }
  gfPointsAffineMatch pairs;
  for (int i = 0; i < n; ++i) {
    double const* v = &table.values[static_cast<size_t>(i) * table.columns];
    if (dim == 2)
      pairs.add_pair(giPoint2(v[0], v[1]), giPoint2(v[2], v[3]));
    else
      pairs.add_pair(giPoint3(v[0], v[1], v[2]), giPoint3(v[3], v[4], v[5]));
  }
  JsonObject out;
  out.add("command", "affine");
  double rms = 0.0;
  std::vector<std::vector<double>> matrix(dim);
  std::vector<double> translation(dim);
  bool ok = false;
  if (dim == 2) {
    giXform2 x;
    ok = pairs.get_xform(x, rms);
    for (int i = 0; ok && i < 2; ++i) {
      matrix[i] = {x(i, 0), x(i, 1)};
      translation[i] = x(i, 2);
    }
  } else {
    giXform3 x;
    ok = pairs.get_xform(x, rms);
    for (int i = 0; ok && i < 3; ++i) {
      matrix[i] = {x(i, 0), x(i, 1), x(i, 2)};
      translation[i] = x(i, 3);
    }
  }
  out.add("status", ok ? 1 : 0);
  if (ok) out.add("matrix", matrix).add("translation", translation).add("rms", rms);
  out.add("pairs", n);
  std::cout << out.str() << "\n";
  if (!ok) {
    std::cerr << "gfit: no affine map: " << gfLastReasonText() << "\n";
    return 1;
  }
  return 0;
}

}  // namespace gfit::cli
