// Pieces shared by the searches over axis directions (cylinder, cone): the input check, the
// random trial directions and the refinement of a previous solution for a grown point set.
#pragma once

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

}  // namespace gfit::detail
