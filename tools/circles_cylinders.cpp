// Circles, spheres and cylinders.
#include <cmath>

#include "tools/cli.h"

namespace gfit::cli {

namespace {

int fit_circle(Input const& in, Options const&, FitResult& out) {
  giPoint2coDynArr points = points2(in.points);
  giPoint2 centre;
  double radius = 0.0, residual = 0.0;
  const int status = gfLeastSquareEvaluator::evaluate_circle(points, centre, radius, residual);
  if (status != 1) return status;
  out.residual = residual;
  out.parameters["centre"] = xy(centre);
  out.parameters["radius"] = radius;
  out.parameters["diameter"] = 2.0 * radius;
  gfLeastSquareCircle2 problem(points);
  out.deviations = distances(problem, mlVector{centre.x(), centre.y(), radius});
  out.extra["distribution_quality"] = Quality::distribution_quality_circle(points, centre, radius);
  gfElementUncertainty u;
  if (gfLeastSquareUncertainty::circle(points, centre, radius, u)) out.extra["uncertainty"] = uncertainty_json(u, "circle");
  return status;
}

}  // namespace

// The circle in space: the library's distance sqrt((G - r)^2 + F^2) has no sign; it takes
// the sign of G - r (outside the circle's radius: positive).
void circle3_deviations(giPoint3coDynArr const& points, giPoint3 const& centre, giUnitVec3 const& normal,
                        double radius, FitResult& out) {
  gfLeastSquareCircle3 problem(points);
  out.deviations = distances(problem, mlVector{centre.x(), centre.y(), centre.z(), normal.x(), normal.y(),
                                               normal.z(), radius});
  for (int i = 0; i < points.count(); ++i)
    if (normal.cross(points[i] - centre).length() < radius) out.deviations[static_cast<size_t>(i)] *= -1.0;
}

namespace {

int fit_circle3(Input const& in, Options const&, FitResult& out) {
  giPoint3coDynArr points = points3(in.points);
  giPoint3 centre;
  giUnitVec3 normal;
  double radius = 0.0, residual = 0.0;
  const int status = gfLeastSquareEvaluator::evaluate_circle3(points, centre, normal, radius, residual);
  if (status != 1) return status;
  out.residual = residual;
  normal = canonical_normal(normal);
  out.parameters["centre"] = xyz(centre);
  out.parameters["normal"] = xyz(giVector3(normal));
  out.parameters["radius"] = radius;
  out.parameters["diameter"] = 2.0 * radius;
  circle3_deviations(points, centre, normal, radius, out);
  out.extra["distribution_quality"] = Quality::distribution_quality_circle3(points, centre, normal, radius);
  gfElementUncertainty u;
  if (gfLeastSquareUncertainty::circle3(points, centre, normal, radius, u)) out.extra["uncertainty"] = uncertainty_json(u, "circle3");
  return status;
}

int fit_sphere(Input const& in, Options const&, FitResult& out) {
  giPoint3coDynArr points = points3(in.points);
  giPoint3 centre;
  double radius = 0.0, residual = 0.0;
  const int status = gfLeastSquareEvaluator::evaluate_sphere(points, centre, radius, residual);
  if (status != 1) return status;
  out.residual = residual;
  out.parameters["centre"] = xyz(centre);
  out.parameters["radius"] = radius;
  out.parameters["diameter"] = 2.0 * radius;
  gfLeastSquareSphere problem(points);
  out.deviations = distances(problem, mlVector{centre.x(), centre.y(), centre.z(), radius});
  out.extra["distribution_quality"] = Quality::distribution_quality_sphere(points, centre, radius);
  gfElementUncertainty u;
  if (gfLeastSquareUncertainty::sphere(points, centre, radius, u)) out.extra["uncertainty"] = uncertainty_json(u, "sphere");
  return status;
}

int fit_cylinder(Input const& in, Options const& options, FitResult& out) {
  giPoint3coDynArr points = points3(in.points);
  giPoint3 point;
  giUnitVec3 direction;
  double radius = 0.0, residual = 0.0;
  const AxisGuide guide = axis_guide(in, options);
  const int status =
      guide.normals.count() > 0
          ? gfLeastSquareEvaluator::evaluate_cylinder(points, guide.normals, guide.angle, point, direction, radius,
                                                      residual, 0)
          : gfLeastSquareEvaluator::evaluate_cylinder(points, point, direction, radius, residual, guide.guess,
                                                      guide.angle, 0);
  if (status != 1) return status;
  out.residual = residual;
  check_guess(guide, direction, out);
  gfLeastSquareCylinder problem(points);
  cylinder_result(points, point, direction, radius, problem, out);
  out.extra["distribution_quality"] = Quality::distribution_quality_cylinder(points, point, direction, radius);
  gfElementUncertainty u;
  if (gfLeastSquareUncertainty::cylinder(points, point, direction, radius, u))
    out.extra["uncertainty"] = uncertainty_json(u, "cylinder");
  return status;
}

}  // namespace

std::vector<OptionSpec> axis_options() {
  return {{"--normals", "FILE", "one surface normal per point, outward or inward (or normals in the points' file)"},
          {"--guess", "x,y,z", "approximate axis direction"},
          {"--angle", "DEG", "how far from the normals' plane or the guess the axis may lie (default 10)"}};
}

std::vector<Element> circle_cylinder_elements() {
  return {
      {"circle", 2, 3, "least-squares circle in the plane (x y per point)", {}, fit_circle, 0, "data/roundness.xy"},
      {"circle3", 3, 3, "least-squares circle in space with its own plane", {}, fit_circle3},
      {"sphere", 3, 4, "least-squares sphere", {}, fit_sphere},
      {"cylinder", 3, 5, "least-squares cylinder, guided by surface normals or a guess axis", axis_options(),
       fit_cylinder, 0, "data/cylinder.xyz --normals data/cylinder-normals.xyz"},
  };
}

}  // namespace gfit::cli
