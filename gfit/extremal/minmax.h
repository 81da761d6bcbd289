// The min-max (minimum-zone, Chebyshev) circle of a planar profile: the centre that
// minimises the width, the difference between the largest and the smallest distance from
// the centre to the points, and the circle midway between the two. The width is the
// roundness of the profile.
//
// Plain form (`fit`): a walk of the centre from the centroid, then an exact finish.
// The walk: at each centre the farthest and nearest points (within 1.1920928955078125e-7)
// are found; the centre moves towards the middle of the angular sweep of the farthest points
// (towards the only farthest point, when there is one) as far as the next place where
// another point becomes as near as a nearest point, and the walk stops as soon as the width
// would grow, when a nearest point lies strictly inside the farthest points' sweep, when the
// width is below 1.1920928955078125e-6, or after 10 n steps. The walk only watches the
// nearest points' events and stops at the first step that would widen the zone, so on its
// own it can stop well above the minimum zone (7 % on evenly sampled lobed profiles, several
// times it on noisy partial arcs).
//
// Added to the walk, the finish: from the walk's centre, and from the centre of the
// algebraic circle through the points, a trust-region descent on the limacon model of the
// width (a small linear programme per step) runs until its basis names the contact points;
// the centre is then solved exactly from them (two outer and two inner points, or three and
// one), and the narrower of the two results replaces the walk's when it is narrower. The
// result carries its own proof: the directions to the outer and the inner contacts
// alternate around the centre (2 + 2), so no move of the centre narrows the zone (see
// minimum_zone.h). The width is not convex in the centre; started from those two centres,
// the finish reaches the minimum zone of roundness profiles full or partial (180 and 270
// degrees, even or uneven sampling, with noise), as exhaustive search over contact sets
// confirms.
//
// Probe-compensated form (`fit_probed`): the width of the compensated distances
// |c - p_i| - rho_i (rho_i = r_i, or -r_i when the `bool` is true) is minimised over the
// centre by the downhill simplex (`mlDownHillSimplex`) from the centroid, at speed 2
// (`ml_simplex_standard`: relative tolerances 1e-11 on the spread of the function values
// and on the simplex extent, at most 5000 evaluations per variable, one restart from the
// best vertex). The initial simplex is scaled to the data: a step of 1/10 of the points'
// RMS distance from the centroid along each axis, so that profiles far from the origin are
// searched at their own size. The simplex stops on the size of its vertices, a little short
// of the corner where the zone is narrowest; the same exact finish follows (the contact
// equations then are |c - p_a| - rho_a = |c - p_b| - rho_b, solved by Newton's method).
// With all radii 0 it gives the plain minimum zone; with equal radii r the centre and width
// are the plain ones and the radius differs by r.
//
// Refusals (a default giCircle2, `width` untouched; the reason is recorded, see
// gfit/platform/report.h): non-finite coordinates or radii, coordinates or radii beyond
// 1e150 (their squares would overflow), negative radii, radii not one per point, and three
// or more distinct points on one straight line (no circle bounds their zone: it narrows
// without end as the radius grows). No points give a default circle and width 0 (recorded as
// too few points); one point (plain form) its own place with radius 0 and width 0, and so do
// coincident points.
#pragma once

#include <vector>

#include "gfit/extremal/circle_fit_utils.h"
#include "gfit/gfit_export.h"
#include "gfit/platform/shapes.h"
#include "gfit/platform/simplex.h"

class GFIT_EXPORT gfMinMaxCircleFit {
 public:
  static giCircle2 fit(std::vector<giPoint2> const& points, double& width);
  static giCircle2 fit_probed(std::vector<giPoint2> const& points, std::vector<double> const& radii,
                              bool negate_radii, double& width);

 private:
  // The centroid.
  static giPoint2 get_centre_point(std::vector<giPoint2> const& points);
  // The direction of the next step of the walk (not unitised when it points at the only
  // farthest point); false when the walk should stop.
  static bool step_direction(std::vector<giPoint2> const& points, gfDistanceList const& nearest,
                             gfDistanceList const& farthest, giPoint2 const& centre, giVector2& direction);
};

// The compensated width as a function of the centre (x[0], x[1]): the largest minus the
// smallest |centre - p_i| - rho_i. It holds copies of the points and of the working radii.
// With no points it is minus infinity.
class GFIT_EXPORT gfProbedMinMaxCircleFunctionN1 : public mlFunctionN1 {
 public:
  gfProbedMinMaxCircleFunctionN1(std::vector<giPoint2> const& points, std::vector<double> const& radii)
      : mlFunctionN1(2), points_(points), radii_(radii) {}
  double function(mlSlice const& x) override;
  ~gfProbedMinMaxCircleFunctionN1() override;

 private:
  std::vector<giPoint2> points_;
  std::vector<double> radii_;
};
