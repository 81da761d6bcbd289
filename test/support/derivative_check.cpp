#include "test/support/derivative_check.h"

#include <algorithm>
#include <cmath>

namespace gfit::testing {

double gradient_error(mlDistanceLeastSquares& problem, mlVector const& parameters, double h) {
  const int m = problem.n_parameters();
  double worst = 0.0;
  mlVector g(m), p = parameters;
  for (int i = 0; i < problem.n_points(); ++i) {
    problem.set_parameters(parameters);
    double d = 0.0;
    problem.get_distance_and_gradient(d, g, i);
    for (int j = 0; j < m; ++j) {
      double step = h * std::max(1.0, std::fabs(parameters[j]));
      p = parameters;
      p[j] += step;
      problem.set_parameters(p);
      double dp = 0.0;
      problem.get_distance(dp, i);
      p[j] = parameters[j] - step;
      problem.set_parameters(p);
      double dm = 0.0;
      problem.get_distance(dm, i);
      double numeric = (dp - dm) / (2.0 * step);
      worst = std::max(worst, std::fabs(numeric - g[j]) / std::max(1.0, std::fabs(g[j])));
    }
  }
  problem.set_parameters(parameters);
  return worst;
}

}  // namespace gfit::testing
