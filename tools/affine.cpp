// `gfit affine PAIRS`: the least-squares affine map between corresponding points.
#include <iostream>

#include "tools/cli.h"

namespace gfit::cli {

int run_affine(Command const& command) {
  Input input;
  std::string error;
  if (!read_input(command.args[0], command.input, 4, 6, input, error)) {
    std::cerr << "gfit: " << error << "\n";
    return 2;
  }
  PointTable const& table = input.points;
  std::string const& source = input.source;
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
  Json out;
  out["schema"] = kSchema;
  out["command"] = "affine";
  double rms = 0.0;
  Json matrix = Json::array(), translation = Json::array();
  bool ok = false;
  if (dim == 2) {
    giXform2 x;
    ok = pairs.get_xform(x, rms);
    for (int i = 0; ok && i < 2; ++i) {
      matrix.push_back(Json::array({x(i, 0), x(i, 1)}));
      translation.push_back(x(i, 2));
    }
  } else {
    giXform3 x;
    ok = pairs.get_xform(x, rms);
    for (int i = 0; ok && i < 3; ++i) {
      matrix.push_back(Json::array({x(i, 0), x(i, 1), x(i, 2)}));
      translation.push_back(x(i, 3));
    }
  }
  out["status"] = ok ? 1 : 0;
  if (ok) {
    out["matrix"] = matrix;
    out["translation"] = translation;
    out["rms"] = rms;
  } else {
    out["reason"] = gfLastReasonText();
  }
  out["pairs"] = n;
  std::cout << out.dump() << "\n";
  if (!ok) {
    std::cerr << "gfit: no affine map: " << gfLastReasonText() << "\n";
    return 1;
  }
  return 0;
}

}  // namespace gfit::cli
