// gfit align --rps FILE              RPS (3-2-1) alignment of reference points
// gfit align --affine PAIRS          the least-squares affine map between corresponding points
// gfit allowance --cad PART POINTS   the placement with the largest uniform allowance (maxi-min)
//
// --rps FILE: one reference point per line, "mx my mz  qx qy qz  lx ly lz [w]": the measured
// point, the nominal point, which world axes it locks (0 or 1 each) and its weight (default 1).
// Prints the transform taking the measured points onto the nominal ones with the RMS and the
// largest locked deviation after it; a set that leaves a motion free is refused, naming it.
//
// allowance --cad PART POINTS: points measured on a blank or casting (x y z per line), the
// finished part as CAD. Prints the placement that maximises the smallest signed deviation
// (outward positive) and that allowance; refused when the part's normals at the points lie
// within a hemisphere (the allowance would grow without bound).
// Exit status: 0 done; 1 refused or failed; 2 bad arguments or unreadable files.
#include <cmath>
#include <iostream>

#include "tools/cli.h"
#ifdef GFIT_CLI_CAD
#include "gfit/cad.h"
#endif

namespace gfit::cli {

namespace {

PointTable read_table(std::string const& path, InputOptions const& format, int columns, int max_columns) {
  Input input;
  std::string error;
  if (!read_input(path, format, columns, max_columns, input, error)) throw UsageError{error};
  return input.points;
}

void add_transform(Json& out, giXform3 const& x) {
  Json matrix = Json::array();
  for (int row = 0; row < 3; ++row) matrix.push_back({x(row, 0), x(row, 1), x(row, 2), x(row, 3)});
  matrix.push_back({0, 0, 0, 1});
  giVector3 t = x.translation_part();
  out["transform"] = matrix;
  out["translation"] = {t.x(), t.y(), t.z()};
}

int align_rps(std::string const& path, InputOptions const& format) {
  PointTable table = read_table(path, format, 9, 10);
  const int n = table.rows(), columns = table.columns;
  gfRPSDatacoDynArr data;
  giWorkplane3 world;
  for (int i = 0; i < n; ++i) {
    double const* v = &table.values[static_cast<size_t>(i) * columns];
    for (int k = 6; k < 9; ++k)
      if (v[k] != 0.0 && v[k] != 1.0)
        throw UsageError{"RPS file " + path + ", record " + std::to_string(i + 1) + ": a lock flag is 0 or 1"};
    data.append(gfRPSData(giPoint3(v[0], v[1], v[2]), giPoint3(v[3], v[4], v[5]), world, v[6] != 0.0, v[7] != 0.0,
                          v[8] != 0.0, columns > 9 ? v[9] : 1.0));
  }
  giXform3 result;
  double rms = 0.0, worst = 0.0;
  const int status = gfRPSFitting(data, result, rms, worst);
  Json out;
  out["schema"] = kSchema;
  out["command"] = "align-rps";
  out["status"] = status;
  if (status == 1) {
    add_transform(out, result);
    out["rms"] = rms;
    out["max_deviation"] = worst;
  } else {
    out["reason"] = gfLastReasonText();
  }
  out["records"] = n;
  std::cout << out.dump() << "\n";
  if (status != 1) {
    std::cerr << "gfit: no RPS alignment: " << gfLastReasonText() << "\n";
    return 1;
  }
  return 0;
}

}  // namespace

int run_rps(std::string const& path, InputOptions const& format) {
  try {
    return align_rps(path, format);
  } catch (UsageError const& e) {
    std::cerr << "gfit: " << e.message << "\n";
    return 2;
  }
}

#ifdef GFIT_CLI_CAD
int run_allowance(Command const& command) {
  try {
    Options const& options = command.options;
    if (!options.has("--cad")) throw UsageError{"allowance needs --cad PART (STEP, IGES or BREP)"};
    std::string const& part_path = options.get("--cad");
    std::string const& points_path = command.args[0];
    std::string error;
    tskSurfPtr part = tskSurf::read(part_path, error);
    if (!part) throw UsageError{error};
    giPoint3coDynArr measured = points3(read_table(points_path, command.input, 3, 0));
    const int n = measured.count();
    if (n < 4) throw UsageError{"allowance needs at least 4 points, " + points_path + " has " + std::to_string(n)};

    // Approximate normals: the part's outward normal at each point's nearest foot. A point
    // whose nearest foot does not see it along the normal (beyond the edge of a face, where a
    // small move makes it jump to another face) is left out and counted invalid, as `gfit
    // align` does.
    gfSurfaceMaxiMinFit fit;
    fit.reserve_points(n);
    tskSurfPointList feet;
    int left_out = 0;
    for (int i = 0; i < n; ++i) {
      giUnitVec3 outward;
      giPoint3 const& p = measured[i];
      part->project(p, feet, [](tskSurfPoint const& foot) { return foot.distance; });
      bool seen = !feet.empty() && part->normal(feet[0], 1e-5, 1e-5, outward) &&
                  (feet[0].distance < 1e-4 || outward.cross(p - feet[0].point).length() <= 0.01 * feet[0].distance);
      if (!seen) {
        ++left_out;
        continue;
      }
      fit.add_point(gfFitPoint3coPrf(new gfProbedPoint3(p, outward, 0.0)));
    }
    gfSurfProjectorForFitting3 projector(*part);
    fit.set_projector(&projector);
    giXform3 result;
    double lowest = 0.0, highest = 0.0;
    int invalid = 0;
    const int status = fit.fit(result, lowest, highest, invalid);
    Json out;
    out["schema"] = kSchema;
    out["command"] = "allowance";
    out["status"] = status;
    if (status == 1) {
      add_transform(out, result);
      out["allowance"] = lowest;
      out["max_deviation"] = highest;
      out["invalid"] = invalid + left_out;
      out["steps"] = fit.steps_taken();
    } else {
      out["reason"] = gfLastReasonText();
    }
    out["units"] = options.has("--units") ? options.get("--units") : "mm";
    out["points"] = n;
    std::cout << out.dump() << "\n";
    if (status != 1) {
      std::cerr << "gfit: no allowance placement: " << gfLastReasonText() << "\n";
      return 1;
    }
    return 0;
  } catch (UsageError const& e) {
    std::cerr << "gfit: " << e.message << "\n";
    return 2;
  }
}
#endif

}  // namespace gfit::cli
