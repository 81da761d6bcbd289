// Circles, spheres and cylinders.
#include <fstream>

#include "tools/cli.h"

namespace gfit::cli {

namespace {

int fit_circle(PointTable const& t, Options const&, JsonObject& out) {
  giPoint2 centre;
  double radius = 0.0, residual = 0.0;
  int status = gfLeastSquareEvaluator::evaluate_circle(points2(t), centre, radius, residual);
  out.add("status", status).add("centre", {centre.x(), centre.y()}).add("radius", radius).add("residual", residual);
  return status;
}

int fit_circle3(PointTable const& t, Options const&, JsonObject& out) {
  giPoint3 centre;
  giUnitVec3 normal;
  double radius = 0.0, residual = 0.0;
  int status = gfLeastSquareEvaluator::evaluate_circle3(points3(t), centre, normal, radius, residual);
  out.add("status", status)
      .add("centre", {centre.x(), centre.y(), centre.z()})
      .add("normal", {normal.x(), normal.y(), normal.z()})
      .add("radius", radius)
      .add("residual", residual);
  return status;
}

int fit_sphere(PointTable const& t, Options const&, JsonObject& out) {
  giPoint3 centre;
  double radius = 0.0, residual = 0.0;
  int status = gfLeastSquareEvaluator::evaluate_sphere(points3(t), centre, radius, residual);
  out.add("status", status)
      .add("centre", {centre.x(), centre.y(), centre.z()})
      .add("radius", radius)
      .add("residual", residual);
  return status;
}

giUnitVec3coDynArr read_normals(std::string const& path, int expected) {
  std::ifstream in(path);
  if (!in) throw UsageError{"cannot read normals file " + path};
  PointTable table;
  std::string error;
  if (!read_points(in, 3, table, error)) throw UsageError{"normals file " + path + ", " + error};
  if (table.rows() != expected)
    throw UsageError{"normals file " + path + " has " + std::to_string(table.rows()) + " normals for " +
                     std::to_string(expected) + " points"};
  giUnitVec3coDynArr normals(table.rows(), 16);
  for (int i = 0; i < table.rows(); ++i) {
    giUnitVec3 n(table.values[3 * i], table.values[3 * i + 1], table.values[3 * i + 2]);
    if (n.invalid()) throw UsageError{"normals file " + path + ": normal " + std::to_string(i + 1) + " is zero"};
    normals.append(n);
  }
  return normals;
}

int fit_cylinder(PointTable const& t, Options const& options, JsonObject& out) {
  giPoint3coDynArr points = points3(t);
  giPoint3 point;
  giUnitVec3 direction;
  double radius = 0.0, residual = 0.0;
  giAngle angle = giAngle::from_degrees(options.has("--angle") ? number_option(options, "--angle") : 10.0);
  int status = 0;
  if (options.has("--normals")) {
    if (options.has("--guess")) throw UsageError{"--normals and --guess do not go together"};
    giUnitVec3coDynArr normals = read_normals(options.get("--normals"), points.count());
    status = gfLeastSquareEvaluator::evaluate_cylinder(points, normals, angle, point, direction, radius, residual, 0);
  } else {
    giUnitVec3 guess;
    if (options.has("--guess")) {
      guess = vector_option(options, "--guess").unit();
      if (guess.invalid()) throw UsageError{"--guess needs a non-zero direction"};
    }
    status = gfLeastSquareEvaluator::evaluate_cylinder(points, point, direction, radius, residual, guess, angle, 0);
  }
  out.add("status", status);
  if (status == 1)
    out.add("point", {point.x(), point.y(), point.z()})
        .add("direction", {direction.x(), direction.y(), direction.z()})
        .add("radius", radius)
        .add("residual", residual);
  return status;
}

}  // namespace

std::vector<Element> circle_cylinder_elements() {
  return {
      {"circle", 2, 3, "least-squares circle in the plane (x y per point)", {}, fit_circle},
      {"circle3", 3, 3, "least-squares circle in space with its own plane", {}, fit_circle3},
      {"sphere", 3, 4, "least-squares sphere", {}, fit_sphere},
      {"cylinder", 3, 5,
       "least-squares cylinder; --normals FILE (one outward or inward normal per point) or --guess x,y,z, "
       "with --angle DEG (default 10)",
       {"--normals", "--guess", "--angle"},
       fit_cylinder},
  };
}

}  // namespace gfit::cli
