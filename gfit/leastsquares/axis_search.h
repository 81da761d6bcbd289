// Pieces shared by the searches over axis directions (cylinder, cone, torus): the input
// check, the random trial directions, the refinement of a previous solution for a grown
// point set, the subset of points a search ranks its candidates on, and the bound on its
// work.
#pragma once

#include <limits>

#include "gfit/gfit_export.h"
#include "gfit/platform/angle.h"
#include "gfit/platform/arrays.h"
#include "gfit/platform/least_squares.h"
#include "gfit/platform/levenberg_marquardt.h"
#include "gfit/platform/random.h"

namespace gfit::detail {

// Finite points, set and finite normals (none, or one per point), a finite guess when one
// is set, a finite angle.
GFIT_EXPORT bool valid_axis_search_input(giPoint3coDynArr const& points, giUnitVec3 const& guess,
                                         giAngle const& angle, giUnitVec3coDynArr const& normals);

// A random direction of the upper hemisphere: (2 u1 - 1, 2 u2 - 1, 0.9999999 u3 + 1e-7) made
// unit, u drawn in this order (z kept positive).
inline giUnitVec3 hemisphere_direction(mlRandom& random) {
  const double u1 = random.next_unit(), u2 = random.next_unit(), u3 = random.next_unit();
  return giUnitVec3(2.0 * u1 - 1.0, 2.0 * u2 - 1.0, 0.9999999 * u3 + 1e-7);
}

// Refits a previous solution after points were appended. With k > 0 the last k points are
// new: the refinement is given up (false) when one of them lies farther from the previous
// element than max(10 x the old points' typical distance, range x 0.001), or when after
// the fit some point lies farther than max(1.1 x the old points' largest distance, range x
// 1e-6). The typical distance is the 90th percentile of the old distances below 21
// points, else the largest.
// With k < 0 the fit is taken as it is. `lm` is a solver over `problem`; `result` and
// `value` receive its solution and mean squared distance.
GFIT_EXPORT bool refine_grown_fit(mlDistanceLeastSquares& problem, mlLevenbergMarquardt& lm, double range,
                                  mlVector const& previous, int k, mlVector& result, double& value);

// The points a search works on: at most `limit` of them, spread evenly through the array
// (point trunc(n k / limit) for k = 0 .. limit - 1, the thinning of the circle in space),
// with the normals of the same points when there are normals. A search over axes needs a
// few thousand points to tell a good axis from a poor one; beyond that more points only
// cost time, so the searches rank on the subset and refine their winner on all points.
// With n <= limit the subset is the caller's arrays themselves (nothing is copied).
class GFIT_EXPORT SearchSubset {
 public:
  SearchSubset(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals, int limit);
  SearchSubset(SearchSubset const&) = delete;
  SearchSubset& operator=(SearchSubset const&) = delete;

  giPoint3coDynArr const& points() const { return all_ ? points_ : own_points_; }
  giUnitVec3coDynArr const& normals() const { return all_ ? normals_ : own_normals_; }
  int count() const { return points().count(); }
  bool all() const { return all_; }

 private:
  giPoint3coDynArr const& points_;
  giUnitVec3coDynArr const& normals_;
  bool all_;
  giPoint3coDynArr own_points_;
  giUnitVec3coDynArr own_normals_;
};

// The work a search may still do, counted in point evaluations (the distance of one point,
// with or without its gradient), and the host's cancel flag. A search is given a budget in
// proportion to the points it works on, charges every circle fit and solver run against
// it, and stops with the best it has found once the budget is spent or the host cancels.
// The budgets are set far above what a search needs on data that hold its element, so they
// only bound the work on data that hold none (a cone search on a plane).
class GFIT_EXPORT SearchBudget {
 public:
  explicit SearchBudget(double evaluations) : left_(evaluations) {}

  // Charges `evaluations`; false once the budget is spent or the host cancelled.
  bool charge(double evaluations) {
    left_ -= evaluations;
    return go_on();
  }
  bool go_on() const;
  double left() const { return left_; }
  // The solver iterations over `points` points that the budget still pays for, at most
  // `cap` (at least 1 while it lasts, so that a solver always gets one look).
  int iterations(double points, int cap) const;
  // Runs `lm` from `start` with its iterations capped by the budget (and by `cap`), charges
  // the evaluations it made (each weighing `weight`: a problem with fewer parameters costs
  // less per point) and returns its value; NaN when nothing is left.
  double fit(mlLevenbergMarquardt& lm, int points, int cap, mlVector const& start, mlVector& result,
             double weight = 1.0);

 private:
  double left_;
};

}  // namespace gfit::detail
