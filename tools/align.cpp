// gfit align --cad PART POINTS [--pairs MEASURED NOMINAL] [--tol T] [--lock-origin x,y,z:x,y,z]
//            [--lock-rotations x,y,z[:x,y,z[:x,y,z]]] [--bands FILE] [--scale PASSES] [--json]
//
// Aligns measured points (x y z per line, on the part's surface) to a CAD part by the surface
// best fit and prints the transform that takes the points onto the part (4 x 4, and as a
// translation with a rotation vector in degrees), the signed deviation of every point after
// alignment, and a summary: RMS, smallest and largest deviation, invalid points, steps taken,
// the tolerance limits found contradictory.
//  --pairs M N     files of corresponding measured and nominal points: a rough alignment first
//  --tol T         stop when a step moves no point by T (default 1e-6 mm)
//  --lock-origin   hold the measured point on the nominal point
//  --lock-rotations  forbid rotations (translations only)
//  --bands FILE    "lower upper" per point: tolerance band of its signed deviation
//  --scale PASSES  also estimate x and y scale factors (up to PASSES rescalings)
// Each point's approximate normal is the part's outward normal at its nearest foot point.
// Exit status: 0 aligned; 1 the alignment failed; 2 bad arguments or unreadable files.
#include <cfloat>
#include <cmath>
#include <fstream>
#include <iostream>
#include <sstream>

#include "gfit/cad.h"
#include "tools/cli.h"

namespace gfit::cli {

namespace {

PointTable read_table(std::string const& path, int columns, char const* what) {
  std::ifstream in(path);
  if (!in) throw UsageError{std::string("cannot read ") + what + " " + path};
  PointTable table;
  std::string error;
  if (!read_points(in, columns, table, error)) throw UsageError{std::string(what) + " " + path + ", " + error};
  return table;
}

// "x,y,z:x,y,z..." into vectors.
std::vector<giVector3> vectors(std::string const& text, std::string const& name) {
  std::vector<giVector3> out;
  std::stringstream parts(text);
  std::string part;
  while (std::getline(parts, part, ':')) {
    Options one;
    one.values[name] = part;
    out.push_back(vector_option(one, name));
  }
  return out;
}

giVector3 rotation_vector_degrees(giXform3 const& x) {
  double w[3] = {x(2, 1) - x(1, 2), x(0, 2) - x(2, 0), x(1, 0) - x(0, 1)};
  double s = 0.5 * std::sqrt(w[0] * w[0] + w[1] * w[1] + w[2] * w[2]);
  double c = 0.5 * (x(0, 0) + x(1, 1) + x(2, 2) - 1.0);
  double angle = std::atan2(s, c);
  if (s == 0.0) return {0, 0, 0};
  double k = angle * (180.0 / giPi) / (2.0 * s);
  return {w[0] * k, w[1] * k, w[2] * k};
}

}  // namespace

int run_align(Command const& command) {
  Options const& options = command.options;
  std::string const& points_path = command.args[0];
  std::vector<std::string> pairs;
  if (options.has("--pairs")) {
    std::string const& both = options.get("--pairs");  // the two files, one per line
    pairs = {both.substr(0, both.find('\n')), both.substr(both.find('\n') + 1)};
  }
  try {
    if (!options.has("--cad")) throw UsageError{"align needs --cad PART (STEP, IGES or BREP)"};
    double tol = options.has("--tol") ? number_option(options, "--tol") : 1e-6;
    if (!(tol > 0.0)) throw UsageError{"--tol needs a positive number"};
    int passes = options.has("--scale") ? static_cast<int>(number_option(options, "--scale")) : 0;
    if (options.has("--scale") && (passes < 1 || passes > 1000)) throw UsageError{"--scale needs a count of passes from 1 to 1000"};
    if (passes > 0 && (options.has("--lock-origin") || options.has("--lock-rotations") || options.has("--bands")))
      throw UsageError{"--scale does not take locks or bands"};

    std::string error;
    tskSurfPtr part = tskSurf::read(options.get("--cad"), error);
    if (!part) throw UsageError{error};
    Input input;
    if (!read_input(points_path, command.input, 3, 0, input, error)) throw UsageError{error};
    PointTable const& table = input.points;
    giPoint3coDynArr measured = points3(table);
    const int n = measured.count();
    if (n < 3) throw UsageError{"align needs at least 3 points, " + points_path + " has " + std::to_string(n)};

    giXform3 rough(giXformIdentity{});
    if (!pairs.empty()) {
      giPoint3coDynArr m = points3(read_table(pairs[0], 3, "pairs file")), q = points3(read_table(pairs[1], 3, "pairs file"));
      if (m.count() != q.count()) throw UsageError{"the two --pairs files differ in length"};
      gfPointsToPoints pp;
      for (int i = 0; i < m.count(); ++i) pp.add_pair(m[i], q[i]);
      if (!pp.get_xform(rough)) throw UsageError{"the --pairs points do not fix a transform (fewer than 3, or collinear)"};
    }
    std::vector<double> lower(n, -DBL_MAX), upper(n, DBL_MAX);
    if (options.has("--bands")) {
      PointTable bands = read_table(options.get("--bands"), 2, "bands file");
      if (bands.rows() != n)
        throw UsageError{"bands file has " + std::to_string(bands.rows()) + " lines for " + std::to_string(n) + " points"};
      for (int i = 0; i < n; ++i) {
        lower[i] = bands.values[2 * i];
        upper[i] = bands.values[2 * i + 1];
      }
    }

    // Fit points: moved by the rough alignment, approximate normal from the nearest foot. A
    // point whose nearest foot point does not see it along the normal (beyond the edge of a
    // face, where the projector would settle for a farther face) is left out and reported
    // invalid, as `gfit deviations` does.
    std::vector<gfFitPoint3coPrf> points;
    std::vector<int> fitted;  // index of each fit point's measured point
    tskSurfPointList feet;
    for (int i = 0; i < n; ++i) {
      giPoint3 p = rough * measured[i];
      giUnitVec3 outward;
      part->project(p, feet, [](tskSurfPoint const& foot) { return foot.distance; });
      bool seen = !feet.empty() && part->normal(feet[0], 1e-5, 1e-5, outward) &&
                  (feet[0].distance < 1e-4 || outward.cross(p - feet[0].point).length() <= 0.01 * feet[0].distance);
      if (!seen) continue;
      points.emplace_back(new gfProbedPoint3(p, outward, 0.0));
      fitted.push_back(i);
    }
    if (points.size() < 3) throw UsageError{"fewer than 3 points lie over a face of the part"};

    gfSurfProjectorForFitting3 projector(*part);
    gfSurfaceBestfit bf;
    bf.set_projector(&projector);
    bf.reserve_points(n);
    for (size_t k = 0; k < points.size(); ++k) bf.add_point(points[k], lower[fitted[k]], upper[fitted[k]], 1.0);
    if (options.has("--lock-origin")) {
      std::vector<giVector3> v = vectors(options.get("--lock-origin"), "--lock-origin");
      if (v.size() != 2) throw UsageError{"--lock-origin needs x,y,z:x,y,z (measured:nominal)"};
      bf.lock_origin(rough * giPoint3(v[0].x(), v[0].y(), v[0].z()), giPoint3(v[1].x(), v[1].y(), v[1].z()));
    }
    if (options.has("--lock-rotations")) {
      std::vector<giVector3> v = vectors(options.get("--lock-rotations"), "--lock-rotations");
      if (v.empty() || v.size() > 3) throw UsageError{"--lock-rotations needs one to three axes x,y,z:..."};
      v.resize(3, giVector3());
      bf.lock_rotations(v[0], v[1], v[2]);
    }

    giXform3 result;
    double dmax = 0, smax = 0, smin = 0, sx = 1, sy = 1;
    int n_invalid = 0, status;
    gfProjectedPoint3coDynArr cloud;
    if (passes > 0) {
      giPoint3coPageArr none, cloud_points;
      for (int i : fitted) cloud_points.append(measured[i]);
      giXform3 start = rough;
      gfBestfitAlignmentWithScale::get_alignment(part, none, none, cloud_points, tol, gfSurfaceBestfit::max_steps, start,
                                                 result, sx, sy, passes);
      status = result.is_unset() ? 0 : 1;
      gfSurfProjectorForFitting3 scaled(*part);
      cloud.expand(static_cast<int>(points.size()));
      for (size_t k = 0; k < points.size(); ++k)
        points[k]->project_from_position(result * giXform3(giXformInverse{}, rough), cloud[static_cast<int>(k)], &scaled);
    } else {
      status = bf.fit(tol, result, dmax, smax, smin, n_invalid);
      if (!result.is_unset()) result = result * rough;
      cloud = bf.get_pointcloud();
    }
    if (status != 1 && result.is_unset()) {
      std::cerr << "gfit: the alignment failed: " << gfLastReasonText() << "\n";
      return 1;
    }

    double squares = 0, lowest = INFINITY, highest = -INFINITY;
    int valid = 0;
    std::vector<std::vector<double>> deviations;
    for (int i = 0; i < n; ++i) deviations.push_back({static_cast<double>(i), NAN});
    for (int k = 0; k < cloud.count(); ++k) {
      if (cloud[k].invalid()) continue;
      double s = cloud[k].signed_distance();
      deviations[fitted[k]][1] = s;
      squares += s * s;
      lowest = std::min(lowest, s);
      highest = std::max(highest, s);
      ++valid;
    }
    giVector3 t = result.translation_part(), r = rotation_vector_degrees(result);
    std::vector<std::vector<double>> matrix;
    for (int row = 0; row < 3; ++row) matrix.push_back({result(row, 0), result(row, 1), result(row, 2), result(row, 3)});
    matrix.push_back({0, 0, 0, 1});
    std::vector<int> contradictory;
    for (int k : bf.overdetermined_constraints()) contradictory.push_back(k);

    Json summary;
    summary["rms"] = valid ? Json(std::sqrt(squares / valid)) : Json(nullptr);
    summary["min"] = valid ? Json(lowest) : Json(nullptr);
    summary["max"] = valid ? Json(highest) : Json(nullptr);
    summary["form"] = valid ? Json(highest - lowest) : Json(nullptr);
    summary["invalid"] = n - valid;
    summary["steps"] = passes > 0 ? 0 : bf.steps_taken();
    summary["contradictory_limits"] = contradictory;
    summary["units"] = "mm";
    if (passes > 0) {
      summary["scale_x"] = sx;
      summary["scale_y"] = sy;
    }
    if (options.has("--json")) {
      Json out;
      out["schema"] = kSchema;
      out["status"] = status;
      if (status != 1) out["reason"] = gfLastReasonText();
      out["transform"] = matrix;
      out["translation"] = xyz(t);
      out["rotation_vector_degrees"] = xyz(r);
      out["deviations"] = deviations;
      out["summary"] = summary;
      std::cout << out.dump() << "\n";
    } else {
      std::cout << "# transform taking the points onto the part (4 x 4)\n";
      for (auto const& row : matrix) std::cout << row[0] << " " << row[1] << " " << row[2] << " " << row[3] << "\n";
      std::cout << "# translation " << t.x() << " " << t.y() << " " << t.z() << "  rotation vector (deg) " << r.x()
                << " " << r.y() << " " << r.z() << "\n# index,deviation\n";
      for (auto const& d : deviations) {
        std::cout << static_cast<int>(d[0]) << ",";
        if (std::isfinite(d[1])) std::cout << d[1] << "\n";
        else std::cout << "invalid\n";
      }
      std::cout << "# summary " << summary.dump() << "\n";
    }
    if (status != 1) {
      std::cerr << "gfit: the alignment stopped early: " << gfLastReasonText() << "\n";
      return 1;
    }
    return 0;
  } catch (UsageError const& e) {
    std::cerr << "gfit: " << e.message << "\n";
    return 2;
  }
}

}  // namespace gfit::cli
