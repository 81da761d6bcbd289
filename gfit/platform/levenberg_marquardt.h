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
// Near the minimum the sums of squares stop telling steps apart: their rounding (from the
// coordinates' own) exceeds the reduction a step can bring, and on ill-conditioned data
// (a small patch of a sphere) the parameters are then still far from converged. So once the
// Gauss-Newton model predicts a relative reduction below 1e-8, the solver polishes with
// plain Gauss-Newton steps, which the triangular factor computes accurately, and judges
// them by their size: it goes on while each step is at most half the previous one and the
// sum of squares does not grow beyond 1e-10 relatively.
//
// Stopping rules (tol = 1e-13 by default, 1e-15 in strict mode; D p the scaled parameters):
//  - the sum of squares is exactly 0;
//  - the Gauss-Newton step, the accepted step or the trust radius is at most
//    tol * (|D p| + tol): below the resolution of the parameters;
//  - polishing stops contracting, or ran 8 steps (16 in strict mode);
//  - the iteration limit (default 100 trial evaluations; set_max_iterations).
//
// A trial point whose distances or gradients are not finite is rejected (the trust radius
// shrinks); when a gradient is not finite at the start, no step can be formed and `fit`
// returns +infinity with the start (termination non_finite_gradient), so that a search never
// keeps such a start as a solution.
//
// `fit` returns the mean squared distance at the solution (sum of squares / points). It
// polls the host's cancel flag (gfSetCancelFlag, platform/report.h) once per iteration and
// every 4096 points of a pass; when the flag is set it stops and returns NaN, a value every
// caller treats as no solution, with `result` holding the last accepted parameters.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/least_squares.h"
#include "gfit/platform/qr_accumulator.h"

class GFIT_EXPORT mlLevenbergMarquardt {
 public:
  static constexpr int default_max_iterations = 100;
  static constexpr double default_tolerance = 1e-13;
  static constexpr double strict_tolerance = 1e-15;

  enum Termination {
    not_run,
    zero_residual,
    small_step,           // step below the resolution of the parameters
    stationary,           // Gauss-Newton polishing stopped contracting
    iteration_limit,
    no_points,
    non_finite_start,     // a distance at the start is not finite
    non_finite_gradient,  // a gradient at the start is not finite: fit returns +infinity
    cancelled,            // the host's cancel flag was set: fit returns NaN
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
  // The triangular factor R of [J | d] (Jacobian and distances, n_parameters + 1 columns)
  // at the result of the last fit, R^T R = [J d]^T [J d]; no columns when the fit ended
  // before a Jacobian could be used. It lets a caller judge the solution without another
  // pass over the points.
  gfit::detail::TriangularAccumulator const& factor() const { return factor_; }

 private:
  mlDistanceLeastSquares& problem_;
  int max_iterations_ = default_max_iterations;
  bool strict_ = false;
  int iterations_ = 0;
  Termination termination_ = not_run;
  gfit::detail::TriangularAccumulator factor_;
};
