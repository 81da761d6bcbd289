// Circles, spheres and cylinders.
#include "tools/cli.h"

namespace gfit::cli {

namespace {

int fit_circle(PointTable const& t, Options const&, JsonObject& out) {
  giPoint2 centre;
  double radius = 0.0, residual = 0.0;
  int status = gfLeastSquareEvaluator::evaluate_circle(points2(t), centre, radius, residual);
  out.add("status", status).add("centre", {centre.x(), centre.y()}).add("radius", radius).add("residual", residual);
  if (status == 1) out.add("distribution_quality", Quality::distribution_quality_circle(points2(t), centre, radius));
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
  if (status == 1)
    out.add("distribution_quality", Quality::distribution_quality_circle3(points3(t), centre, normal, radius));
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
  if (status == 1) out.add("distribution_quality", Quality::distribution_quality_sphere(points3(t), centre, radius));
  return status;
}

int fit_cylinder(PointTable const& t, Options const& options, JsonObject& out) {
  giPoint3coDynArr points = points3(t);
  giPoint3 point;
  giUnitVec3 direction;
  double radius = 0.0, residual = 0.0;
  const AxisGuide guide = axis_guide(options, points.count());
  const int status =
      options.has("--normals")
          ? gfLeastSquareEvaluator::evaluate_cylinder(points, guide.normals, guide.angle, point, direction, radius,
                                                      residual, 0)
          : gfLeastSquareEvaluator::evaluate_cylinder(points, point, direction, radius, residual, guide.guess,
                                                      guide.angle, 0);
  add_cylinder_result(out, status, point, direction, radius, residual);
  if (status == 1)
    out.add("distribution_quality", Quality::distribution_quality_cylinder(points, point, direction, radius));
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
