// Tori: from points alone or from a guess, and touched by a probe ball.
#include "tools/cli.h"

namespace gfit::cli {

namespace {

// The torus's parameters and its signed deviations (the torus problem's distance; the probed
// torus's distances are those of the touched surface, the centres one ball radius off it).
void torus_result(giPoint3coDynArr const& points, giPoint3 const& centre, giUnitVec3 axis, double r1, double r2,
                  doublecoDynArr const* radii, int inside, FitResult& out) {
  axis = canonical_normal(axis);
  out.parameters["centre"] = xyz(centre);
  out.parameters["axis"] = xyz(giVector3(axis));
  out.parameters["radii"] = Json::array({r1, r2});  // ring (axis to the tube's spine), tube
  gfLeastSquareTorus problem(points);
  out.deviations = distances(problem, mlVector{centre.x(), centre.y(), centre.z(), axis.x(), axis.y(), axis.z(), r1, r2});
  if (radii)  // a centre touched from outside lies one radius outside the surface, from inside one inside
    for (int i = 0; i < points.count(); ++i) out.deviations[static_cast<size_t>(i)] += (inside ? 1.0 : -1.0) * (*radii)[i];
}

int fit_torus(Input const& in, Options const& options, FitResult& out) {
  giPoint3coDynArr points = points3(in.points);
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
  if (status != 1) return status;
  out.residual = residual;
  torus_result(points, centre, axis, r1, r2, nullptr, 0, out);
  out.extra["distribution_quality"] = Quality::distribution_quality_torus(points, centre, axis, r1, r2);
  gfElementUncertainty u;
  if (gfLeastSquareUncertainty::torus(points, centre, axis, r1, r2, u)) out.extra["uncertainty"] = uncertainty_json(u, "torus");
  return status;
}

int fit_probed_torus(Input const& in, Options const& options, FitResult& out) {
  giPoint3 centre;
  giUnitVec3 axis;
  double r1 = 0.0, r2 = 0.0, residual = 0.0;
  const giPoint3coDynArr points = points3(in.points);
  const doublecoDynArr radii = probe_radii(in.points, 3, options);
  const int inside = options.has("--inside") ? 1 : 0;
  const int status =
      gfLeastSquareEvaluator::evaluate_probed_torus(points, radii, inside, centre, axis, r1, r2, residual);
  if (status != 1) return status;
  out.residual = residual;
  torus_result(points, centre, axis, r1, r2, &radii, inside, out);
  return status;
}

}  // namespace

std::vector<Element> torus_elements() {
  return {
      {"torus", 3, 7, "least-squares torus: centre, axis, radii [ring, tube]",
       {{"--centre", "x,y,z", "start from this centre (with --axis)"},
        {"--axis", "x,y,z", "start from this axis (with --centre)"}},
       fit_torus, 0, "data/torus.xyz --centre 121,-34,47 --axis 0.2,-0.3,0.9"},
      {"probed-torus", 3, 7, "torus touched by a probe ball (x y z [r] per ball centre)",
       probe_options("the ball centres lie inside the tube"), fit_probed_torus, 4, "data/probed-torus.xyzr"},
  };
}

}  // namespace gfit::cli
