// Levenberg-Marquardt minimisation of a sum of squared point distances.
//
// A trust-region Levenberg-Marquardt method in Moré's form (J. J. Moré, "The
// Levenberg-Marquardt algorithm: implementation and theory", Numerical Analysis, Lecture
// Notes in Mathematics 630, 1978): each step solves
//     min |J d + r|^2   subject to   |D d| <= Delta,
// i.e. (J^T J + lambda D^2) d = -J^T r, with D the diagonal of the problem's parameter
// scales (sensitivities; see mlDistanceLeastSquares) and the trust radius Delta grown or
// shrunk by the ratio of actual to predicted reduction.
//
// How it stays accurate and fast on dense scans:
//  - the points are streamed: each evaluation folds the rows [J_i | r_i] into a small
//    triangular factor by blocked Householder reflections; no n x p Jacobian is stored,
//    J^T J is never formed, and nothing is allocated per point;
//  - the step comes from an SVD of the scaled (p x p) factor, truncated to the problem's
//    n_independent_parameters() and to the numerical rank (singular values above 1e-12 of
//    the largest): redundant parameters (an axis point that may slide along its axis, a
//    direction of free length) get the minimum-norm step;
//  - normalize_parameters() is applied to every trial point, so the parameters stay
//    canonical.
//
// Stopping rules (tol = 1e-12 by default, 1e-15 in strict mode):
//  - the sum of squares is exactly 0;
//  - the Gauss-Newton model predicts a relative reduction of at most max(tol, 4 eps)
//    (the residual is orthogonal to the Jacobian's range: a stationary point);
//  - an accepted step reduced the sum of squares by at most tol relatively, as predicted;
//  - the scaled step or the trust radius fell to tol * (|D p| + tol): the step is below
//    the resolution of the parameters;
//  - the iteration limit (default 100 trial evaluations; set_max_iterations).
//
// `fit` returns the mean squared distance at the solution (sum of squares / points).
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/least_squares.h"

class GFIT_EXPORT mlLevenbergMarquardt {
 public:
  static constexpr int default_max_iterations = 100;
  static constexpr double default_tolerance = 1e-12;
  static constexpr double strict_tolerance = 1e-15;

  enum Termination {
    not_run,
    zero_residual,
    stationary,        // no reduction left in the model
    small_reduction,   // relative reduction below the tolerance
    small_step,        // step below the resolution of the parameters
    iteration_limit,
    no_points,
    non_finite_start,  // a distance at the start is not finite
  };

  explicit mlLevenbergMarquardt(mlDistanceLeastSquares& problem) : problem_(problem) {}

  void set_max_iterations(int n) { max_iterations_ = n; }
  void set_strict(bool strict) { strict_ = strict; }

  // Minimises from `start` (normalised first); writes the solution (normalised) into
  // `result`, leaves it as the problem's current parameters and returns the mean squared
  // distance there. With no points it returns 0 and the normalised start.
  double fit(mlVector const& start, mlVector& result);

  // Trial steps evaluated by the last fit, and why it stopped.
  int iterations() const { return iterations_; }
  Termination termination() const { return termination_; }

 private:
  mlDistanceLeastSquares& problem_;
  int max_iterations_ = default_max_iterations;
  bool strict_ = false;
  int iterations_ = 0;
  Termination termination_ = not_run;
};
