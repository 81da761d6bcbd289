#include "gfit/extremal/circle_fit_utils.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <functional>

#include "gfit/platform/report.h"
#include "gfit/utilities/vector_utils.h"

namespace {

// One distance against a running extreme that it passes by `beyond` (negative: falls short
// of it): within the tolerance it joins the list, clearly beyond it starts the list afresh.
void track_extreme(gfDistanceList& list, double d, size_t i, double beyond) {
  if (std::fabs(beyond) < giTolerance) {
    list.emplace_back(d, i);
  } else if (beyond >= giTolerance) {
    list.clear();
    list.emplace_back(d, i);
  }
}

}  // namespace

void gfCircleFitUtils::calculate_distances(std::vector<giPoint2> const& points, giPoint2 const& centre,
                                           gfDistanceList& farthest, gfDistanceList& nearest,
                                           utOptionalArg<std::vector<double> const&> radii) {
  const double eps = giTolerance;
  double largest = -1.0, smallest = DBL_MAX;
  for (size_t i = 0; i < points.size(); ++i) {
    double d = centre.distance(points[i]);
    if (radii) d -= (*radii)[i];
    track_extreme(farthest, d, i, d - largest);
    largest = std::max(largest, d);
    track_extreme(nearest, d, i, smallest - d);
    smallest = std::min(smallest, d);
  }
  std::sort(farthest.begin(), farthest.end(), std::greater<>());
  std::sort(nearest.begin(), nearest.end());
  while (!farthest.empty() && farthest.front().first - farthest.back().first >= eps) farthest.pop_back();
  while (!nearest.empty() && nearest.back().first - nearest.front().first >= eps) nearest.pop_back();
}

bool gfCircleFitUtils::step_distance(giPoint2 const& centre, giVector2 const& direction,
                                     std::vector<giPoint2> const& points, gfDistanceList const& support,
                                     double& step) {
  step = DBL_MAX;
  for (auto const& entry : support) {
    size_t s = entry.second;
    giPoint2 const& ps = points[s];
    for (size_t j = 0; j < points.size(); ++j) {
      if (j == s) continue;
      giVector2 d = points[j] - ps;
      giPoint2 mid(0.5 * (ps.x() + points[j].x()), 0.5 * (ps.y() + points[j].y()));
      double t;
      if (gfUtils::intersect_lines(centre, direction, mid, giVector2(-d.y(), d.x()), t) && giTolerance < t &&
          t < step)
        step = t;
    }
  }
  return step != DBL_MAX;
}

namespace gfit::detail {

bool finite_points(std::vector<giPoint2> const& points) {
  for (giPoint2 const& p : points)
    if (!p.finite()) return false;
  return true;
}

bool valid_radii(std::vector<giPoint2> const& points, std::vector<double> const& radii) {
  if (radii.size() != points.size()) return false;
  for (double r : radii)
    if (!std::isfinite(r) || r < 0.0) return false;
  return true;
}

bool accept_profile(std::vector<giPoint2> const& points, size_t minimum, std::vector<double> const* radii) {
  if (points.size() < minimum) return refuse(gfReason::too_few_points, minimum <= 1 ? "no points" : "too few points");
  if (!finite_points(points)) return refuse(gfReason::non_finite_input, "a coordinate is not a finite number");
  for (giPoint2 const& p : points)
    if (std::fabs(p.x()) > coordinate_limit || std::fabs(p.y()) > coordinate_limit)
      return refuse(gfReason::out_of_range, "a coordinate beyond 1e150, whose square would overflow");
  if (!radii) return true;
  if (radii->size() != points.size())
    return refuse(gfReason::bad_companion_array, "probe radii are not one per point");
  for (double r : *radii) {
    if (!std::isfinite(r)) return refuse(gfReason::non_finite_input, "a probe radius is not a finite number");
    if (r < 0.0) return refuse(gfReason::bad_probe_radius, "a negative probe radius");
    if (r > coordinate_limit) return refuse(gfReason::out_of_range, "a probe radius beyond 1e150");
  }
  return true;
}

bool centre_in_range(giPoint2 const& c) {
  return c.finite() && std::fabs(c.x()) <= 1e153 && std::fabs(c.y()) <= 1e153;
}

giPoint2 centroid(std::vector<giPoint2> const& points) {
  double sx = 0.0, sy = 0.0;
  for (giPoint2 const& p : points) {
    sx += p.x();
    sy += p.y();
  }
  double n = static_cast<double>(points.size());
  return giPoint2(sx / n, sy / n);
}

}  // namespace gfit::detail
