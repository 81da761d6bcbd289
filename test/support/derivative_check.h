// Checks a problem's analytic gradients against central differences of its distances.
#pragma once

#include "gfit/gfit.h"

namespace gfit::testing {

// The largest difference, over all points and parameters, between the analytic gradient at
// `parameters` and the central difference of get_distance with step h (relative to the
// parameter's magnitude, at least h), divided by max(1, |analytic|).
double gradient_error(mlDistanceLeastSquares& problem, mlVector const& parameters, double h = 1e-6);

// The largest difference, over all points, between the batch evaluation (evaluate_block,
// with and without the Jacobian, and evaluate_distances) and the per-point operations at
// `parameters`, relative to max(1, |per-point value|). A class that overrides the distances
// must override the batch loop to match.
double block_error(mlDistanceLeastSquares& problem, mlVector const& parameters);

}  // namespace gfit::testing
