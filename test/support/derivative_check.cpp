#include "test/support/derivative_check.h"

#include <algorithm>
#include <cmath>
#include <vector>

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

double block_error(mlDistanceLeastSquares& problem, mlVector const& parameters) {
  const int m = problem.n_parameters(), n = problem.n_points();
  problem.set_parameters(parameters);
  std::vector<double> distances(n), squares(n), jacobian(static_cast<size_t>(m) * n), plain(n), plain_squares(n);
  problem.evaluate_block(0, n, distances.data(), squares.data(), jacobian.data(), n);
  problem.evaluate_distances(0, n, plain.data(), plain_squares.data());
  auto gap = [](double a, double b) { return std::fabs(a - b) / std::max(1.0, std::fabs(b)); };
  double worst = 0.0;
  mlVector g(m);
  for (int i = 0; i < n; ++i) {
    double d = 0.0, e = 0.0;
    problem.get_distance(d, i);
    problem.get_distance_and_gradient(e, g, i);
    worst = std::max({worst, gap(distances[i], d), gap(plain[i], d), gap(e, d), gap(squares[i], d * d)});
    for (int j = 0; j < m; ++j) worst = std::max(worst, gap(jacobian[static_cast<size_t>(j) * n + i], g[j]));
  }
  return worst;
}

}  // namespace gfit::testing
