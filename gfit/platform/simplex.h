// Derivative-free minimisation of a function of several variables: the downhill simplex
// method of Nelder and Mead (Computer Journal 7, 1965), with the standard coefficients
// (reflection 1, expansion 2, contraction 1/2, shrink 1/2).
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/matrix.h"

// A function R^n -> R to be minimised.
class GFIT_EXPORT mlFunctionN1 {
 public:
  explicit mlFunctionN1(int n_variables) : n_variables_(n_variables) {}
  virtual double function(mlSlice const& x) = 0;
  // Central-difference gradient with relative step 1e-6; override where it is known.
  virtual void gradient(mlSlice const& x, mlVector& g);
  virtual int n_variables() const { return n_variables_; }
  virtual ~mlFunctionN1();

 private:
  int n_variables_;
};

// How hard the minimiser works. Each setting fixes the initial simplex (a step along each
// coordinate axis from the start, relative to the start's magnitude unless set explicitly
// with `set_initial_steps`) and the stopping rule: the simplex stops when both its spread
// of function values, |f_max - f_min| <= ftol * (|f_max| + |f_min|) + 1e-300, and its
// extent, max |x_i - x_best| <= xtol * (|x_best| + 1e-300) in every coordinate, are small.
// After convergence the search restarts once from the best vertex with a fresh simplex of
// the initial size (twice for `ml_simplex_thorough`) and keeps the better end point, which
// guards against a simplex that collapsed early.
//   value  name                 relative step  ftol, xtol  evaluations at most
//   0      ml_simplex_thorough  0.1            1e-15       20000 per variable
//   1      ml_simplex_careful   0.05           1e-13       10000 per variable
//   2      ml_simplex_standard  0.05           1e-11       5000 per variable
//   3      ml_simplex_quick     0.05           1e-7        1000 per variable, no restart
// A zero start coordinate takes the step 0.00025 (as in the common practice of fminsearch).
enum mlDownHillSimplexSpeed {
  ml_simplex_thorough = 0,
  ml_simplex_careful = 1,
  ml_simplex_standard = 2,
  ml_simplex_quick = 3,
};

class GFIT_EXPORT mlDownHillSimplex {
 public:
  explicit mlDownHillSimplex(int n_variables);

  // Absolute initial steps, one per variable, replacing the relative rule of the speed.
  void set_initial_steps(mlVector const& steps) { steps_ = steps; }

  // Minimises from `start`; returns the smallest function value found.
  double solve(mlFunctionN1& f, mlVector const& start, mlDownHillSimplexSpeed speed);
  void result(mlVector& x) const { x = best_; }
  int evaluations() const { return evaluations_; }

 private:
  double run(mlFunctionN1& f, mlVector& x, double ftol, double xtol, double relative_step, int max_evaluations);

  int n_;
  mlVector steps_;
  mlVector best_;
  int evaluations_ = 0;
};
