// Shapes the axis searches share: the 2 x 2 normal equations of a position across an axis,
// the extent every unit-bearing threshold of a search is measured in, the list of distinct
// elements, and the search for several elements in one point set (cylinders and cones).
//
// Thresholds and units. A search compares lengths with lengths and squared lengths with
// squared lengths, and every length it compares with is a fraction of the points' extent
// (the diagonal of their axis-parallel bounding box, `extent` below). A part measured in
// millimetres and the same part in metres then make the same choices and end at the same
// element, scaled. Angles, ratios and iteration counts carry no unit and stay as they are.
#pragma once

#include <algorithm>
#include <cmath>

#include "gfit/leastsquares/axis_search.h"
#include "gfit/leastsquares/distance.h"
#include "gfit/leastsquares/refusal.h"
#include "gfit/platform/angle.h"
#include "gfit/platform/arrays.h"
#include "gfit/platform/levenberg_marquardt.h"
#include "gfit/platform/report.h"
#include "gfit/utilities/direction_sampling.h"

namespace gfit::detail {

// The diagonal of the points' axis-parallel bounding box (0 for none or one point).
inline double extent(giPoint3 const* points, int n) {
  if (n < 1) return 0.0;
  double lo[3] = {points[0].x(), points[0].y(), points[0].z()}, hi[3] = {lo[0], lo[1], lo[2]};
  for (int i = 1; i < n; ++i) {
    const double q[3] = {points[i].x(), points[i].y(), points[i].z()};
    for (int k = 0; k < 3; ++k) {
      lo[k] = std::min(lo[k], q[k]);
      hi[k] = std::max(hi[k], q[k]);
    }
  }
  return std::sqrt((hi[0] - lo[0]) * (hi[0] - lo[0]) + (hi[1] - lo[1]) * (hi[1] - lo[1]) +
                   (hi[2] - lo[2]) * (hi[2] - lo[2]));
}

// Solves the symmetric 2 x 2 normal equations [m00 m01; m01 m11] (a, b) = (v0, v1) by
// Cramer's rule. False when the matrix is singular relative to its size (det at most 1e-12
// of the squared trace: the rows say nothing in some direction) or the solution is not
// finite. The searches fit a position across a trial axis this way, from lines (normal
// lines, projected normals) that must meet the axis.
inline bool solve_symmetric_2x2(double m00, double m01, double m11, double v0, double v1, double& a, double& b) {
  const double det = m00 * m11 - m01 * m01;
  if (!(det > 1e-12 * (m00 + m11) * (m00 + m11))) return false;
  a = (v0 * m11 - v1 * m01) / det;
  b = (m00 * v1 - m01 * v0) / det;
  return std::isfinite(a) && std::isfinite(b);
}

// Whether the solver's last fit converged (its step fell below the resolution of the
// parameters, or the fit is exact) rather than stopping when its polishing steps or its
// iterations ran out.
inline bool converged(mlLevenbergMarquardt const& lm) {
  return lm.termination() == mlLevenbergMarquardt::small_step ||
         lm.termination() == mlLevenbergMarquardt::zero_residual;
}

// Finishes a search's answer: fits again from `parameters` (mean squared distance `value`)
// while the solver stops short of convergence, at most `runs` times, keeping each result
// that is finite and no worse than 1e-10 relatively. Returns the value kept. Where the sum
// of squares is flat along some combination of parameters (a short arc, a large residual),
// a solver run may end with its polishing steps spent while the parameters still move at
// 1e-7; the answer then depends on the start, and a start a search reached by another path
// (the same part in another unit, the points in another order) ends elsewhere. Run to
// convergence, it ends where the points put it.
inline double finish_fit(mlLevenbergMarquardt& lm, mlVector& parameters, double value, int runs = 3) {
  mlVector result(parameters.size());
  for (int k = 0; k < runs; ++k) {
    const double v = lm.fit(parameters, result);
    if (!(v <= value * (1.0 + 1e-10))) break;
    parameters = result;
    value = v;
    if (converged(lm)) break;
  }
  return value;
}

// Appends `element` to `list` unless a coincident one (Fitted::coincident with `tolerance`
// and `angle`) is already there.
template <class Fitted>
void add_distinct(Fitted const& element, double tolerance, giAngle const& angle, coDynArr<Fitted>& list) {
  for (Fitted const& e : list)
    if (element.coincident(e, tolerance, angle)) return;
  list.append(element);
}

// Several elements in one point set: up to `count` distinct elements with an RMS below
// `tolerance`, from random axis directions drawn first along `normals` (each taken as a
// preferred direction, then caps of 30 degrees about them; seed 1), appended to `results`.
// `make_attempts(subset, extent)` is given the points an attempt starts and refines on (at
// most `limit`, spread evenly through the array) and the extent of all the points, and
// returns the element's attempts (a pointer: they own a solver over their problem): an object with `bool go_on()` (its work bound holds) and
// `bool attempt(giUnitVec3 const& direction, Fitted& out)`, true with an element within
// the tolerance on all the points that they determine. Refuses fewer than `least` points,
// points that do not span space, and unset or non-finite normals. Returns the number of
// elements of `results`; 0 with `results` untouched when the host cancels.
template <class Fitted, class MakeAttempts>
int several_elements(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals, double tolerance,
                     giAngle const& angle, int count, int least, int limit, char const* none_found,
                     coDynArr<Fitted>& results, MakeAttempts make_attempts) {
  PointSpread spread;
  if (points.count() < least) return refuse(gfReason::too_few_points);
  if (!check_points(points, least, Span::space, &spread)) return 0;
  // The normals only steer the random directions: any number of them, each set and finite.
  if (!all_valid(normals)) return refuse(gfReason::non_finite_input, "a normal is unset or not finite");
  const giUnitVec3coDynArr no_normals;
  SearchSubset subset(points, no_normals, limit);
  coDynArr<Fitted> found = results;  // the caller's list is left alone if cancelled
  const int found_before = found.count();
  gfRandDirGenMulti directions(1000.0, normals, giAngle::from_degrees(30.0), 0.9);
  auto attempts = make_attempts(subset, spread.extent);
  const long long tries = 150LL * count;
  Fitted element;
  for (long long t = 0; t < tries && found.count() < count && attempts->go_on(); ++t)
    if (attempts->attempt(directions.direction(), element)) add_distinct(element, tolerance, angle, found);
  if (cancelled()) return refuse(gfReason::cancelled);
  results = found;
  if (results.count() == found_before) refuse(gfReason::no_convergence, none_found);
  else succeed();
  return results.count();
}

// The second direction an attempt of several_elements tries: one drawn near `d` (a cap of
// 30 degrees, seed 1), kept when its start is the better.
inline giUnitVec3 nearby_direction(giUnitVec3 const& d) {
  gfRandDirGenerator nearby(1.1, d, giAngle::from_degrees(30.0), 0.1);
  return nearby.rand_vec_bias_region();
}

}  // namespace gfit::detail
