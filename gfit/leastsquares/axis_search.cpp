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

namespace {
// The largest |distance| of points [first, last) at the problem's current parameters,
// evaluated a block at a time.
double largest_distance(mlDistanceLeastSquares const& problem, int first, int last) {
  constexpr int kBlock = 256;
  double distances[kBlock], squares[kBlock], largest = 0.0;
  for (int i = first; i < last; i += kBlock) {
    const int count = std::min(kBlock, last - i);
    problem.evaluate_distances(i, count, distances, squares);
    for (int k = 0; k < count; ++k) largest = std::max(largest, std::fabs(distances[k]));
  }
  return largest;
}
}  // namespace

bool refine_grown_fit(mlDistanceLeastSquares& problem, mlLevenbergMarquardt& lm, double range,
                      mlVector const& previous, int k, mlVector& result, double& value) {
  const int n = problem.n_points();
  problem.set_parameters(previous);
  const int old_count = k > 0 ? n - k : n;
  if (old_count < 1) return false;
  // The old points' typical distance: their largest, or below 21 points their 90th
  // percentile (a sort of at most 20 values). Nothing per point is stored.
  double old_largest = 0.0, old_typical = 0.0;
  if (k >= 0) {
    if (n < 21) {
      std::vector<double> old_distances(old_count);
      for (int i = 0; i < old_count; ++i) {
        double d = 0.0;
        problem.get_distance(d, i);
        old_distances[i] = std::fabs(d);
      }
      std::sort(old_distances.begin(), old_distances.end());
      old_largest = old_distances[old_count - 1];
      old_typical = old_distances[static_cast<int>((old_count - 1) * 0.9)];
    } else {
      old_largest = old_typical = largest_distance(problem, 0, old_count);
    }
    const double largest_new = largest_distance(problem, old_count, n);
    if (!(largest_new < std::max(10.0 * old_typical, range * 0.001))) return false;
  }
  value = lm.fit(previous, result);
  if (!std::isfinite(value)) return false;
  if (k >= 0 && std::max(1.1 * old_largest, range * 1e-6) <= largest_distance(problem, 0, n)) return false;
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
