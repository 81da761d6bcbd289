// Tori: from points alone or from a guess, and touched by a probe ball.
#include "tools/cli.h"

namespace gfit::cli {

namespace {

void add_torus(JsonObject& out, int status, giPoint3 const& centre, giUnitVec3 const& axis, double r1, double r2,
               double residual) {
  out.add("status", status);
  if (status == 1)
    out.add("centre", {centre.x(), centre.y(), centre.z()})
        .add("axis", {axis.x(), axis.y(), axis.z()})
        .add("r1", r1)
        .add("r2", r2)
        .add("residual", residual);
}

int fit_torus(PointTable const& t, Options const& options, JsonObject& out) {
  giPoint3coDynArr points = points3(t);
  giPoint3 centre;
  giUnitVec3 axis;
  double r1 = 0.0, r2 = 0.0, residual = 0.0;
  int status = 0;
  if (options.has("--centre") != options.has("--axis"))
    throw UsageError{"a guess needs both --centre x,y,z and --axis x,y,z"};
  if (options.has("--centre")) {
    giVector3 c = vector_option(options, "--centre");
    centre = giPoint3(c.x(), c.y(), c.z());
    axis = vector_option(options, "--axis").unit();
    if (axis.invalid()) throw UsageError{"--axis needs a non-zero direction"};
    status = gfLeastSquareEvaluator::evaluate_torus_with_guess(points, centre, axis, r1, r2, residual);
  } else {
    status = gfLeastSquareEvaluator::evaluate_torus(points, centre, axis, r1, r2, residual);
  }
  add_torus(out, status, centre, axis, r1, r2, residual);
  if (status == 1) out.add("distribution_quality", Quality::distribution_quality_torus(points, centre, axis, r1, r2));
  return status;
}

int fit_probed_torus(PointTable const& t, Options const& options, JsonObject& out) {
  giPoint3 centre;
  giUnitVec3 axis;
  double r1 = 0.0, r2 = 0.0, residual = 0.0;
  int status = gfLeastSquareEvaluator::evaluate_probed_torus(points3(t), probe_radii(t, 3, options),
                                                             options.has("--inside") ? 1 : 0, centre, axis, r1, r2,
                                                             residual);
  add_torus(out, status, centre, axis, r1, r2, residual);
  return status;
}

}  // namespace

std::vector<Element> torus_elements() {
  Element probed{"probed-torus", 3, 7,
                 "torus touched by a probe ball: x y z [r] per ball centre, or --radius R; --inside when the centres "
                 "lie inside the tube",
                 {"--radius", "--inside"}, fit_probed_torus};
  probed.max_columns = 4;
  return {
      {"torus", 3, 7,
       "least-squares torus (centre, axis, ring radius r1, tube radius r2); --centre x,y,z with --axis x,y,z "
       "start from a guess",
       {"--centre", "--axis"}, fit_torus},
      probed,
  };
}

}  // namespace gfit::cli
