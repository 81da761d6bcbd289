// Lines and planes.
#include <cmath>

#include "tools/cli.h"

namespace gfit::cli {

namespace {

int fit_line3(Input const& in, Options const&, FitResult& out) {
  giPoint3coDynArr points = points3(in.points);
  giPoint3 point;
  giUnitVec3 direction;
  double residual = 0.0;
  const int status = gfLeastSquareEvaluator::evaluate_line3(points, point, direction, residual);
  if (status != 1) return status;
  out.residual = residual;
  foot_and_orientation(points, point, direction);
  out.parameters["point"] = xyz(point);
  out.parameters["axis"] = xyz(giVector3(direction));
  // A line in space has no sides: the deviation is the distance from it, never negative.
  out.deviations.reserve(static_cast<size_t>(points.count()));
  for (giPoint3 const& q : points) out.deviations.push_back(direction.cross(q - point).length());
  out.extra["distribution_quality"] = Quality::distribution_quality_line3(points, point, direction);
  gfElementUncertainty u;
  if (gfLeastSquareUncertainty::line3(points, point, direction, u)) out.extra["uncertainty"] = uncertainty_json(u, "line3");
  return status;
}

int fit_plane(Input const& in, Options const&, FitResult& out) {
  giPoint3coDynArr points = points3(in.points);
  giPoint3 point;
  giUnitVec3 normal;
  double residual = 0.0;
  const int status = gfLeastSquareEvaluator::evaluate_plane(points, point, normal, residual);
  if (status != 1) return status;
  out.residual = residual;
  normal = canonical_normal(normal);
  out.parameters["point"] = xyz(point);
  out.parameters["normal"] = xyz(giVector3(normal));
  // The plane's signed distance along its normal, measured from its point (the points'
  // centroid) so that data far from the origin keep their digits.
  out.deviations.reserve(static_cast<size_t>(points.count()));
  for (giPoint3 const& q : points) out.deviations.push_back(normal.dot(q - point));
  out.extra["distribution_quality"] = Quality::distribution_quality_plane(points, point, normal);
  gfElementUncertainty u;
  if (gfLeastSquareUncertainty::plane(points, point, normal, u)) out.extra["uncertainty"] = uncertainty_json(u, "plane");
  return status;
}

}  // namespace

std::vector<Element> line_plane_elements() {
  return {
      {"line3", 3, 2, "least-squares line in space (x y z per point)", {}, fit_line3, 0, "data/line.xyz"},
      {"plane", 3, 3, "least-squares plane (x y z per point)", {}, fit_plane, 0, "data/plane.xyz --residuals plane.csv"},
  };
}

}  // namespace gfit::cli
