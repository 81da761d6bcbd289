// Ellipses, probe-compensated circles, planes and spheres, and the axis of revolution.
#include <cmath>

#include "tools/cli.h"

namespace gfit::cli {

namespace {

int fit_ellipse(Input const& in, Options const&, FitResult& out) {
  giPoint2coDynArr points = points2(in.points);
  giPoint2 centre;
  double major = 0, minor = 0, angle = 0, residual = 0;
  const int status = gfLeastSquareEvaluator::evaluate_ellipse(points, centre, major, minor, angle, residual);
  if (status != 1) return status;
  out.residual = residual;
  ellipse_result(points, centre, major, minor, angle, out);
  out.extra["distribution_quality"] = Quality::distribution_quality_ellipse(points, centre, major, minor, angle);
  gfElementUncertainty u;
  if (gfLeastSquareUncertainty::ellipse(points, centre, major, minor, angle, u))
    out.extra["uncertainty"] = uncertainty_json(u, major >= minor ? "ellipse" : "ellipse-swapped");
  return status;
}

int fit_axis_rev(Input const& in, Options const& options, FitResult& out) {
  if (!has_normals(in, options))
    throw UsageError{"axisrev needs normals: --normals FILE, or a points file that carries them"};
  giPoint3coDynArr points = points3(in.points);
  giUnitVec3coDynArr normals = normals_of(in, options);
  giPoint3 point;
  giUnitVec3 direction;
  double residual = 0.0;
  const int status = gfLeastSquareEvaluator::evaluate_axis_rev(points, normals, point, direction, residual);
  if (status != 1) return status;
  out.residual = residual;
  foot_and_orientation(points, point, direction);
  out.parameters["point"] = xyz(point);
  out.parameters["axis"] = xyz(giVector3(direction));
  // The residual measures the normals' lines against the axis, not the points against a
  // surface: there are no per-point deviations.
  out.residual = residual;
  return status;
}

int fit_probed_circle(Input const& in, Options const& options, FitResult& out) {
  giPoint2 centre;
  double radius = 0.0, residual = 0.0;
  const giPoint2coDynArr points = points2(in.points);
  const doublecoDynArr radii = probe_radii(in.points, 2, options);
  const int inside = options.has("--inside") ? 1 : 0;
  const int status = gfLeastSquareEvaluator::evaluate_probed_circle(points, radii, inside, centre, radius, residual);
  if (status != 1) return status;
  out.residual = residual;
  out.parameters["centre"] = xy(centre);
  out.parameters["radius"] = radius;
  out.parameters["diameter"] = 2.0 * radius;
  gfLeastSquareProbedCircle2 problem(points, radii, inside);
  out.deviations = distances(problem, mlVector{centre.x(), centre.y(), radius});
  out.extra["distribution_quality"] = Quality::distribution_quality_probed_circle(points, radii, inside, centre, radius);
  return status;
}

int fit_probed_sphere(Input const& in, Options const& options, FitResult& out) {
  giPoint3 centre;
  double radius = 0.0, residual = 0.0;
  const giPoint3coDynArr points = points3(in.points);
  const doublecoDynArr radii = probe_radii(in.points, 3, options);
  const int inside = options.has("--inside") ? 1 : 0;
  const int status = gfLeastSquareEvaluator::evaluate_probed_sphere(points, radii, inside, centre, radius, residual);
  if (status != 1) return status;
  out.residual = residual;
  out.parameters["centre"] = xyz(centre);
  out.parameters["radius"] = radius;
  out.parameters["diameter"] = 2.0 * radius;
  gfLeastSquareProbedSphere problem(points, radii, inside);
  out.deviations = distances(problem, mlVector{centre.x(), centre.y(), centre.z(), radius});
  return status;
}

int fit_probed_plane(Input const& in, Options const& options, FitResult& out) {
  if (!has_normals(in, options))
    throw UsageError{"probed-plane needs approximate normals (material to probe centre): --normals FILE, or a "
                     "points file that carries them"};
  giPoint3coDynArr points = points3(in.points);
  giUnitVec3coDynArr normals = normals_of(in, options);
  const doublecoDynArr radii = probe_radii(in.points, 3, options);
  giPoint3 point;
  giUnitVec3 normal;
  double residual = 0.0;
  const int status = gfLeastSquareEvaluator::evaluate_probed_plane(points, radii, normals, point, normal, residual);
  if (status != 1) return status;
  out.residual = residual;
  // The normal keeps the side the probe came from: it says where the material is.
  out.parameters["point"] = xyz(point);
  out.parameters["normal"] = xyz(giVector3(normal));
  // The centres lie on the normal's side (inside flag 1), one ball radius off the surface.
  gfLeastSquareProbedPlane problem(points, radii, 1);
  out.deviations = distances(problem, mlVector{normal.dot(point - giPoint3(0, 0, 0)), normal.x(), normal.y(), normal.z()});
  return status;
}

}  // namespace

std::vector<Element> ellipse_probed_elements() {
  std::vector<OptionSpec> plane_options = {{"--radius", "R", "probe ball radius of every point (else x y z r)"},
                                           {"--normals", "FILE", "approximate normals, material to probe centre"}};
  return {
      {"ellipse", 2, 5, "geometric least-squares ellipse (x y per point)", {}, fit_ellipse, 0, "data/ellipse.xy"},
      {"axisrev", 3, 6, "axis of a surface of revolution, from one surface normal per point",
       {{"--normals", "FILE", "one surface normal per point (or normals in the points' file)"}}, fit_axis_rev, 0,
       "data/cylinder.xyz --normals data/cylinder-normals.xyz"},
      {"probed-circle", 2, 3, "circle touched by a probe ball (x y [r] per ball centre)",
       probe_options("the ball centres lie inside (a bore)"), fit_probed_circle, 3, "centres.xy --radius 1 --inside"},
      {"probed-sphere", 3, 4, "sphere touched by a probe ball (x y z [r] per ball centre)",
       probe_options("the ball centres lie inside (a hollow)"), fit_probed_sphere, 4, "data/probed-sphere.xyzr"},
      {"probed-plane", 3, 3, "plane touched by a probe ball (x y z [r] per ball centre)", plane_options,
       fit_probed_plane, 4, "centres.xyz --radius 1 --normals normals.xyz"},
  };
}

}  // namespace gfit::cli
