// One-dimensional minimisation by Brent's method (R. P. Brent, "Algorithms for Minimization
// without Derivatives", 1973, chapter 5): golden-section search with parabolic
// interpolation, deterministic and derivative-free.
#pragma once

#include "gfit/gfit_export.h"

class GFIT_EXPORT mlFunction {
 public:
  virtual double function(double x) = 0;
  virtual ~mlFunction();
};

// Minimises f over [lower, upper] (in either order). The search stops when the bracket
// around the best x is narrower than 4 * (tolerance * |x| + 1e-21), or after
// max_iterations. Writes the best abscissa into x_min and returns f(x_min).
GFIT_EXPORT double ml_brent_minimum_search(mlFunction& f, double lower, double upper, double tolerance, double& x_min,
                                           int max_iterations = 200);
