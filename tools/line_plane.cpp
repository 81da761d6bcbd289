// Lines and planes.
#include "tools/cli.h"

namespace gfit::cli {

namespace {

int fit_line3(PointTable const& t, Options const&, JsonObject& out) {
  giPoint3 point;
  giUnitVec3 direction;
  double residual = 0.0;
  int status = gfLeastSquareEvaluator::evaluate_line3(points3(t), point, direction, residual);
  out.add("status", status)
      .add("point", {point.x(), point.y(), point.z()})
      .add("direction", {direction.x(), direction.y(), direction.z()})
      .add("residual", residual);
  if (status == 1)
    out.add("distribution_quality", Quality::distribution_quality_line3(points3(t), point, direction));
  return status;
}

int fit_plane(PointTable const& t, Options const&, JsonObject& out) {
  giPoint3 point;
  giUnitVec3 normal;
  double residual = 0.0;
  int status = gfLeastSquareEvaluator::evaluate_plane(points3(t), point, normal, residual);
  out.add("status", status)
      .add("point", {point.x(), point.y(), point.z()})
      .add("normal", {normal.x(), normal.y(), normal.z()})
      .add("residual", residual);
  if (status == 1) out.add("distribution_quality", Quality::distribution_quality_plane(points3(t), point, normal));
  return status;
}

}  // namespace

std::vector<Element> line_plane_elements() {
  return {
      {"line3", 3, 2, "least-squares line in space (x y z per point)", {}, fit_line3},
      {"plane", 3, 3, "least-squares plane (x y z per point)", {}, fit_plane},
  };
}

}  // namespace gfit::cli
