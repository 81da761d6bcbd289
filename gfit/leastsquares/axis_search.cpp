#include "gfit/leastsquares/axis_search.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "gfit/leastsquares/distance.h"
#include "gfit/platform/report.h"

namespace gfit::detail {

bool valid_axis_search_input(giPoint3coDynArr const& points, giUnitVec3 const& guess, giAngle const& angle,
                             giUnitVec3coDynArr const& normals) {
  if (!all_finite(points) || !all_valid(normals)) return false;
  if (normals.count() != 0 && normals.count() != points.count()) return false;
  if (!guess.invalid() && !(std::isfinite(guess.x()) && std::isfinite(guess.y()) && std::isfinite(guess.z())))
    return false;
  return std::isfinite(angle.radians());
}

bool refine_grown_fit(mlDistanceLeastSquares& problem, mlLevenbergMarquardt& lm, double range,
                      mlVector const& previous, int k, mlVector& result, double& value) {
  const int n = problem.n_points();
  problem.set_parameters(previous);
  const int old_count = k > 0 ? n - k : n;
  if (old_count < 1) return false;
  std::vector<double> old_distances(old_count);
  double largest_new = 0.0;
  for (int i = 0; i < n; ++i) {
    double d = 0.0;
    problem.get_distance(d, i);
    if (i < old_count)
      old_distances[i] = std::fabs(d);
    else
      largest_new = std::max(largest_new, std::fabs(d));
  }
  std::sort(old_distances.begin(), old_distances.end());
  const int last = old_count - 1;
  const int idx = n < 21 ? static_cast<int>((old_count - 1) * 0.9) : last;
  if (k >= 0 && !(largest_new < std::max(10.0 * old_distances[idx], range * 0.001))) return false;
  value = lm.fit(previous, result);
  if (!std::isfinite(value)) return false;
  if (k >= 0) {
    double largest = 0.0;
    for (int i = 0; i < n; ++i) {
      double d = 0.0;
      problem.get_distance(d, i);
      largest = std::max(largest, std::fabs(d));
    }
    if (std::max(1.1 * old_distances[last], range * 1e-6) <= largest) return false;
  }
  return true;
}

SearchSubset::SearchSubset(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals, int limit)
    : points_(points), normals_(normals), all_(points.count() <= limit) {
  if (all_) return;
  const long long n = points.count();
  const bool with_normals = normals.count() == points.count();
  own_points_.reserve(limit);
  if (with_normals) own_normals_.reserve(limit);
  for (int k = 0; k < limit; ++k) {
    const int i = static_cast<int>(n * k / limit);
    own_points_.append(points[i]);
    if (with_normals) own_normals_.append(normals[i]);
  }
}

bool SearchBudget::go_on() const { return left_ > 0.0 && !cancelled(); }

int SearchBudget::iterations(double points, int cap) const {
  if (!go_on() || !(points > 0.0)) return 0;
  // A solver run also evaluates the points once at its start and once for its scales.
  const double affordable = left_ / points - 2.0;
  return affordable >= cap ? cap : std::max(1, static_cast<int>(affordable));
}

double SearchBudget::fit(mlLevenbergMarquardt& lm, int points, int cap, mlVector const& start, mlVector& result,
                         double weight) {
  const int allowed = iterations(weight * points, cap);
  if (allowed == 0) return std::numeric_limits<double>::quiet_NaN();
  lm.set_max_iterations(allowed);
  const double value = lm.fit(start, result);
  charge(weight * (lm.iterations() + 2) * points);
  return value;
}

}  // namespace gfit::detail
