// Ellipses, probe-compensated circles, planes and spheres, and the axis of revolution.
#include <cmath>

#include "tools/cli.h"

namespace gfit::cli {

namespace {

int fit_ellipse(PointTable const& t, Options const&, JsonObject& out) {
  giPoint2 centre;
  double major = 0, minor = 0, angle = 0, residual = 0;
  int status = gfLeastSquareEvaluator::evaluate_ellipse(points2(t), centre, major, minor, angle, residual);
  out.add("status", status)
      .add("centre", {centre.x(), centre.y()})
      .add("major", major)
      .add("minor", minor)
      .add("angle", angle)
      .add("angle_degrees", angle * 180.0 / giPi)
      .add("residual", residual);
  if (status == 1)
    out.add("distribution_quality", Quality::distribution_quality_ellipse(points2(t), centre, major, minor, angle));
  return status;
}

int fit_axis_rev(PointTable const& t, Options const& options, JsonObject& out) {
  if (!options.has("--normals")) throw UsageError{"axisrev needs --normals FILE (one surface normal per point)"};
  giPoint3coDynArr points = points3(t);
  giUnitVec3coDynArr normals = read_normals(options.get("--normals"), points.count());
  giPoint3 point;
  giUnitVec3 direction;
  double residual = 0.0;
  int status = gfLeastSquareEvaluator::evaluate_axis_rev(points, normals, point, direction, residual);
  out.add("status", status)
      .add("point", {point.x(), point.y(), point.z()})
      .add("direction", {direction.x(), direction.y(), direction.z()})
      .add("residual", residual);
  return status;
}

int fit_probed_circle(PointTable const& t, Options const& options, JsonObject& out) {
  giPoint2 centre;
  double radius = 0.0, residual = 0.0;
  const giPoint2coDynArr points = points2(t);
  const doublecoDynArr radii = probe_radii(t, 2, options);
  const int inside = options.has("--inside") ? 1 : 0;
  int status = gfLeastSquareEvaluator::evaluate_probed_circle(points, radii, inside, centre, radius, residual);
  out.add("status", status).add("centre", {centre.x(), centre.y()}).add("radius", radius).add("residual", residual);
  if (status == 1)
    out.add("distribution_quality",
            Quality::distribution_quality_probed_circle(points, radii, inside, centre, radius));
  return status;
}

int fit_probed_sphere(PointTable const& t, Options const& options, JsonObject& out) {
  giPoint3 centre;
  double radius = 0.0, residual = 0.0;
  int status = gfLeastSquareEvaluator::evaluate_probed_sphere(points3(t), probe_radii(t, 3, options),
                                                              options.has("--inside") ? 1 : 0, centre, radius,
                                                              residual);
  out.add("status", status)
      .add("centre", {centre.x(), centre.y(), centre.z()})
      .add("radius", radius)
      .add("residual", residual);
  return status;
}

int fit_probed_plane(PointTable const& t, Options const& options, JsonObject& out) {
  if (!options.has("--normals"))
    throw UsageError{"probed-plane needs --normals FILE (approximate normals, material to probe centre)"};
  giPoint3coDynArr points = points3(t);
  giUnitVec3coDynArr normals = read_normals(options.get("--normals"), points.count());
  giPoint3 point;
  giUnitVec3 normal;
  double residual = 0.0;
  int status = gfLeastSquareEvaluator::evaluate_probed_plane(points, probe_radii(t, 3, options), normals, point,
                                                             normal, residual);
  out.add("status", status)
      .add("point", {point.x(), point.y(), point.z()})
      .add("normal", {normal.x(), normal.y(), normal.z()})
      .add("residual", residual);
  return status;
}

}  // namespace

std::vector<Element> ellipse_probed_elements() {
  Element probed_circle{"probed-circle", 2, 3,
                        "circle touched by a probe ball: x y [r] per ball centre, or --radius R; --inside for a bore",
                        {"--radius", "--inside"}, fit_probed_circle};
  probed_circle.max_columns = 3;
  Element probed_sphere{"probed-sphere", 3, 4, "sphere touched by a probe ball: x y z [r], or --radius R; --inside",
                        {"--radius", "--inside"}, fit_probed_sphere};
  probed_sphere.max_columns = 4;
  Element probed_plane{"probed-plane", 3, 3,
                       "plane touched by a probe ball: x y z [r], or --radius R; --normals FILE of approximate normals",
                       {"--radius", "--normals"}, fit_probed_plane};
  probed_plane.max_columns = 4;
  return {
      {"ellipse", 2, 5, "geometric least-squares ellipse (x y per point)", {}, fit_ellipse},
      {"axisrev", 3, 6, "axis of a surface of revolution; --normals FILE (one surface normal per point)",
       {"--normals"}, fit_axis_rev},
      probed_circle,
      probed_sphere,
      probed_plane,
  };
}

}  // namespace gfit::cli
