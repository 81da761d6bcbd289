#include "gfit/extremal/minmax.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "gfit/extremal/minimum_zone.h"
#include "gfit/platform/report.h"
#include "gfit/utilities/vector_utils.h"

namespace {

// The tolerance of the walk's direction step: ten times the one of the distance lists, so
// that a width at rounding level is not chased.
constexpr double direction_tolerance = 1.1920928955078125e-6;
constexpr size_t unset = static_cast<size_t>(-1);

// The unit vector from `centre` to `p`; false when they are within the tolerance.
bool unit_towards(giPoint2 const& centre, giPoint2 const& p, giUnitVec2& u) {
  giVector2 d = p - centre;
  if (d.length() <= direction_tolerance) return false;
  u = d.unit();
  return true;
}

// Three or more distinct points on one straight line have no minimum-zone circle: the zone
// narrows without end as the circle grows into their line. Refused as not determined.
bool minimum_zone_exists(std::vector<giPoint2> const& points) {
  if (points.size() < 3) return true;
  giPoint2 o = gfit::detail::centroid(points);
  double xx = 0.0, xy = 0.0, yy = 0.0;
  for (giPoint2 const& p : points) {
    double x = p.x() - o.x(), y = p.y() - o.y();
    xx += x * x, xy += x * y, yy += y * y;
  }
  double mean = 0.5 * (xx + yy), spread = std::hypot(0.5 * (xx - yy), xy);
  double largest = mean + spread, smallest = xx * yy - xy * xy > 0.0 ? (xx * yy - xy * xy) / largest : 0.0;
  if (largest == 0.0 || smallest > 1e-24 * largest) return true;  // coincident points: a zone of width 0
  gfit::detail::refuse(gfReason::not_determined, "the points lie on a straight line: no circle bounds their zone");
  return false;
}

// Replaces (centre, radius, width) by the certified minimum zone refined from that centre or
// from the algebraic circle's, whichever is narrower, when it is narrower.
void finish_minimum_zone(std::vector<giPoint2> const& points, double const* rho, giPoint2& centre, double& radius,
                         double& width) {
  if (points.size() < 3) return;
  bool distinct = false;
  for (giPoint2 const& p : points) distinct = distinct || p != points[0];
  if (!distinct) return;
  gfit::detail::MinimumZone best = gfit::detail::refine_minimum_zone(points, rho, centre);
  gfit::detail::MinimumZone other =
      gfit::detail::refine_minimum_zone(points, rho, gfit::detail::algebraic_circle_centre(points));
  if (other.width < best.width) best = other;
  if (best.width < width || !(width == width)) {
    centre = best.centre;
    radius = best.radius;
    width = best.width;
  }
}

}  // namespace

giPoint2 gfMinMaxCircleFit::get_centre_point(std::vector<giPoint2> const& points) {
  return gfit::detail::centroid(points);
}

giCircle2 gfMinMaxCircleFit::fit(std::vector<giPoint2> const& points, double& width) {
  if (points.empty()) {
    width = 0.0;
    gfit::detail::refuse(gfReason::too_few_points, "no points");
    return giCircle2();
  }
  if (!gfit::detail::accept_profile(points, 1)) return giCircle2();
  if (!minimum_zone_exists(points)) return giCircle2();
  width = 0.0;
  if (points.size() == 1) {
    gfit::detail::succeed();
    return giCircle2(points[0], 0.0);
  }
  width = DBL_MAX;
  giPoint2 c = get_centre_point(points), centre = c;
  double r = c.distance(points[0]);
  gfDistanceList farthest, nearest;
  giVector2 direction;
  for (size_t iteration = 0, limit = 10 * points.size(); iteration < limit; ++iteration) {
    gfCircleFitUtils::calculate_distances(points, c, farthest, nearest);
    if (farthest.empty() || nearest.empty()) break;
    double w = farthest[0].first - nearest[0].first;
    if (!(w <= width)) break;  // the width grew (or is not a number): keep the previous centre
    width = w;
    r = (farthest[0].first + nearest[0].first) * 0.5;
    centre = c;
    double t;
    if (!step_direction(points, nearest, farthest, c, direction)) break;
    if (!gfCircleFitUtils::step_distance(c, direction, points, nearest, t)) break;
    giPoint2 next = c + direction * t;
    if (!gfit::detail::centre_in_range(next)) break;
    c = next;
  }
  // The walk stops where its steps stop narrowing the zone, which need not be the minimum:
  // finish from its centre (and from the algebraic circle's) with the certified descent.
  finish_minimum_zone(points, nullptr, centre, r, width);
  gfit::detail::succeed();
  return giCircle2(centre, r);
}

bool gfMinMaxCircleFit::step_direction(std::vector<giPoint2> const& points, gfDistanceList const& nearest,
                                       gfDistanceList const& farthest, giPoint2 const& centre,
                                       giVector2& direction) {
  if (farthest.size() == 1) {
    direction = points[farthest[0].second] - centre;  // not unitised: the step counts in this vector
    return true;
  }
  if (farthest[0].first - nearest[0].first < direction_tolerance) return false;
  giUnitVec2 a, u;
  if (!unit_towards(centre, points[nearest[0].second], a)) return false;
  // The angular sweep of the farthest points, counter-clockwise from a: its ends are the
  // smallest and largest pseudo-angles. A farthest point exactly along a (pseudo-angle -2)
  // could be either end; the first further nearest point decides which.
  double smallest = DBL_MAX, largest = -DBL_MAX;
  size_t smallest_index = unset, largest_index = unset, aligned = unset;
  for (auto const& f : farthest) {
    if (!unit_towards(centre, points[f.second], u)) return false;
    double g = gfUtils::quick_angle(a, u);
    if (g == -2.0) {
      aligned = f.second;
      continue;
    }
    if (g < smallest) {
      smallest = g;
      smallest_index = f.second;
    }
    if (g > largest) {
      largest = g;
      largest_index = f.second;
    }
  }
  for (size_t k = 1; k < nearest.size(); ++k) {
    if (!unit_towards(centre, points[nearest[k].second], u)) return false;
    double g = gfUtils::quick_angle(a, u);
    if (aligned != unset) {
      if (largest > g) {
        largest = 2.0;
        largest_index = aligned;
      } else {
        smallest = -2.0;
        smallest_index = aligned;
      }
      aligned = unset;
    }
    // A nearest point strictly inside the farthest points' sweep: the extremes interlace.
    if (smallest < g && g < largest) return false;
  }
  // Every farthest point along a with no further nearest point to place it: no sweep.
  if (smallest_index == unset || largest_index == unset) return false;
  giUnitVec2 from, to;
  unit_towards(centre, points[smallest_index], from);
  unit_towards(centre, points[largest_index], to);
  direction = gfUtils::bisector(from, to);
  return true;
}

giCircle2 gfMinMaxCircleFit::fit_probed(std::vector<giPoint2> const& points, std::vector<double> const& radii,
                                        bool negate_radii, double& width) {
  if (points.empty() && radii.empty()) {
    width = 0.0;
    gfit::detail::refuse(gfReason::too_few_points, "no points");
    return giCircle2();
  }
  if (!gfit::detail::accept_profile(points, 1, &radii)) return giCircle2();
  if (!minimum_zone_exists(points)) return giCircle2();
  std::vector<double> rho(radii);
  if (negate_radii)
    for (double& v : rho) v = -v;
  giPoint2 start = get_centre_point(points);
  gfProbedMinMaxCircleFunctionN1 compensated_width(points, rho);
  mlDownHillSimplex simplex(2);
  // Scale the initial simplex to the profile rather than to the distance of the centroid
  // from the origin.
  double spread = 0.0;
  for (giPoint2 const& p : points) spread += p.squared_distance(start);
  double step = 0.1 * std::sqrt(spread / static_cast<double>(points.size()));
  if (step > 0.0) simplex.set_initial_steps(mlVector{step, step});
  simplex.solve(compensated_width, mlVector{start.x(), start.y()}, ml_simplex_standard);
  mlVector x;
  simplex.result(x);
  giPoint2 centre(x[0], x[1]);
  if (!gfit::detail::centre_in_range(centre)) centre = start;
  gfDistanceList farthest, nearest;
  gfCircleFitUtils::calculate_distances(points, centre, farthest, nearest, rho);
  double largest = farthest.empty() ? -DBL_MAX : farthest[0].first;
  if (farthest.empty())  // every compensated distance below -1: the list was never started
    for (size_t i = 0; i < points.size(); ++i) largest = std::max(largest, centre.distance(points[i]) - rho[i]);
  double smallest = nearest.empty() ? largest : nearest[0].first;
  double w = largest - smallest, r = (smallest + largest) * 0.5;
  // The simplex stops on the spread of its vertices, a little short of the corner where the
  // zone is narrowest: finish with the certified descent.
  finish_minimum_zone(points, rho.data(), centre, r, w);
  width = w;
  gfit::detail::succeed();
  return giCircle2(centre, r);
}

gfProbedMinMaxCircleFunctionN1::~gfProbedMinMaxCircleFunctionN1() = default;

double gfProbedMinMaxCircleFunctionN1::function(mlSlice const& x) {
  if (points_.empty()) return -DBL_MAX - DBL_MAX;
  giPoint2 centre(x[0], x[1]);
  double largest = -DBL_MAX, smallest = DBL_MAX;
  for (size_t i = 0; i < points_.size(); ++i) {
    double d = centre.distance(points_[i]) - radii_[i];
    largest = std::max(largest, d);
    smallest = std::min(smallest, d);
  }
  return largest - smallest;
}
