#include "gfit/extremal/inscribed.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "gfit/platform/constructions.h"
#include "gfit/platform/report.h"
#include "gfit/utilities/vector_utils.h"

namespace {

// The support of the next step: the two ends of the widest gap (one entry when they are the
// same point).
void keep_gap_ends(gfDistanceList& nearest, size_t first, size_t second) {
  nearest.assign(1, {0.0, first});
  if (second != first) nearest.emplace_back(0.0, second);
}

// The radius of the empty circle about c: the smallest (compensated) distance to a point.
// Measured afresh at the final centre, never to a support point remembered from an earlier
// step, nor to the first point when the walk stops where it starts.
double nearest_distance(std::vector<giPoint2> const& points, double const* rho, giPoint2 const& c) {
  double smallest = DBL_MAX;
  for (size_t i = 0; i < points.size(); ++i) smallest = std::min(smallest, c.distance(points[i]) - (rho ? rho[i] : 0.0));
  return smallest;
}

}  // namespace

giCircle2 gfMaximumInscribedCircle::calculate_maximum_inscribed_circle(std::vector<giPoint2> const& points,
                                                                       utOptionalArg<giCircle2&> start) {
  if (!gfit::detail::accept_profile(points, 1)) return giCircle2();
  const size_t n = points.size();
  giPoint2 c = start ? start->centre() : gfit::detail::centroid(points);
  if (!gfit::detail::centre_in_range(c)) {
    gfit::detail::refuse(gfReason::invalid_argument, "the start circle's centre is not a usable point");
    return giCircle2();
  }
  gfDistanceList farthest, nearest;
  giUnitVec2 direction;
  for (size_t iteration = 0; iteration < n; ++iteration) {
    gfCircleFitUtils::calculate_distances(points, c, farthest, nearest);
    if (nearest.empty()) break;
    size_t first = n, second = n;  // n: the nearest points show one direction
    bool ok = step_direction_inscribed(points, nearest, c, direction, first, second);
    if (first == n) first = second = nearest[0].second;
    if (!ok) break;
    if (nearest.size() > 2) keep_gap_ends(nearest, first, second);
    double t;
    if (!gfCircleFitUtils::step_distance(c, direction, points, nearest, t) || t == DBL_MAX) break;
    giPoint2 next = c + direction * t;
    if (!gfit::detail::centre_in_range(next)) break;
    c = next;
  }
  gfit::detail::succeed();
  return giCircle2(c, nearest_distance(points, nullptr, c));
}

giCircle2 gfMaximumInscribedCircle::calculate_maximum_inscribed_circle_probed(std::vector<giPoint2> const& points,
                                                                              std::vector<double> const& radii,
                                                                              bool negate_radii,
                                                                              utOptionalArg<giCircle2&> start) {
  if (!gfit::detail::accept_profile(points, 1, &radii)) return giCircle2();
  const size_t n = points.size();
  std::vector<double> rho(radii);
  if (negate_radii)
    for (double& v : rho) v = -v;
  giPoint2 c = start ? start->centre() : gfit::detail::centroid(points);
  if (!gfit::detail::centre_in_range(c)) {
    gfit::detail::refuse(gfReason::invalid_argument, "the start circle's centre is not a usable point");
    return giCircle2();
  }
  gfDistanceList farthest, nearest;
  giUnitVec2 direction;
  for (size_t iteration = 0; iteration < n; ++iteration) {
    gfCircleFitUtils::calculate_distances(points, c, farthest, nearest, rho);
    if (nearest.empty()) break;
    size_t first = n, second = n;
    if (!step_direction_inscribed(points, nearest, c, direction, first, second)) break;
    if (first == n) first = second = nearest[0].second;
    // Deliberately a lower threshold than the plain walk: two nearest points already
    // become the pair of the three-ball construction.
    if (nearest.size() > 1) keep_gap_ends(nearest, first, second);
    giPoint2 next;
    if (!inscribed_probe_step(c, direction, points, rho, nearest, negate_radii, next)) break;
    if (!gfit::detail::centre_in_range(next)) break;
    c = next;
  }
  gfit::detail::succeed();
  return giCircle2(c, nearest_distance(points, rho.data(), c));
}

bool gfMaximumInscribedCircle::step_direction_inscribed(std::vector<giPoint2> const& points, gfDistanceList& nearest,
                                                        giPoint2 const& centre, giUnitVec2& direction, size_t& first,
                                                        size_t& second) {
  const size_t n0 = nearest[0].second;
  giUnitVec2 u0 = (points[n0] - centre).unit();
  if (u0.invalid()) return false;
  // Counter-clockwise pseudo-angles from the first nearest direction, which itself is 0 and
  // so sorts first; directions within the tolerance of it are dropped.
  gfDistanceList angles(1, {0.0, n0});
  for (size_t k = 1; k < nearest.size(); ++k) {
    giUnitVec2 uk = (points[nearest[k].second] - centre).unit();
    if (uk.invalid()) return false;
    double a = gfUtils::quick_angle(u0, uk) + 2.0;
    if (std::fabs(a) > giTolerance) angles.emplace_back(a, nearest[k].second);
  }
  if (angles.size() == 1) {
    direction = -u0;
    return true;
  }
  std::sort(angles.begin(), angles.end());
  first = 0;
  second = 1;
  double best = -DBL_MAX;
  giUnitVec2 gap_start, gap_end;
  for (size_t m = 0; m < angles.size(); ++m) {
    size_t following = angles[(m + 1) % angles.size()].second;
    giUnitVec2 current = (points[angles[m].second] - centre).unit();
    giUnitVec2 next = (points[following] - centre).unit();
    if (current.invalid() || next.invalid()) return false;
    double gap = gfUtils::quick_angle(current, next);
    if (gap > best) {  // the first widest gap wins a tie
      best = gap;
      first = angles[m].second;
      second = following;
      gap_start = current;
      gap_end = next;
    }
  }
  if (best < 0.0) return false;  // every gap under a half-turn: the nearest points surround the centre
  direction = gfUtils::bisector(gap_start, gap_end);
  return true;
}

bool gfMaximumInscribedCircle::inscribed_probe_step(giPoint2 const& centre, giVector2 const& direction,
                                                    std::vector<giPoint2> const& points,
                                                    std::vector<double> const& radii, gfDistanceList const& support,
                                                    bool negate_radii, giPoint2& new_centre) {
  const double eps = giTolerance;
  double best = DBL_MAX;
  if (support.size() == 1) {
    // Moving straight away from the support point q: at distance tau from q the compensated
    // distances of q and p_j are equal when
    //   tau = ((rho - rho_j)^2 - |w|^2) / (2 (h + rho - rho_j)),  w = q - p_j, h = w . direction.
    size_t s = support[0].second;
    giPoint2 const& q = points[s];
    double rho = radii[s], D = centre.distance(q);
    for (size_t j = 0; j < points.size(); ++j) {
      if (j == s) continue;
      giVector2 w = q - points[j];
      double h = w.dot(direction);
      double den = 2.0 * (h + rho - radii[j]);
      if (std::fabs(den) < eps) continue;
      double t = (rho - (w.squared_length() + rho * rho - radii[j] * radii[j] + 2.0 * rho * h) / den) - D;
      if (t > eps) best = std::min(best, t);
    }
    if (best == DBL_MAX) return false;
    new_centre = centre + direction * best;
    return true;
  }
  // Equal compensated distances e = |c - p| - rho: with rho >= 0 the circle of radius e
  // touches the balls (p, rho) from outside; with negated radii (rho = -r) |c - p| = e - r,
  // so it encloses the balls (p, r).
  const int selector = negate_radii ? cnxCircle2Constructor::enclose_all : 0;
  size_t a = support[0].second, b = support[1].second;
  cnxCircle2 A(points[a], std::fabs(radii[a])), B(points[b], std::fabs(radii[b]));
  for (size_t j = 0; j < points.size(); ++j) {
    if (j == a || j == b) continue;
    cnxCircle2 K(points[j], std::fabs(radii[j])), touching;
    if (!cnxCircle2Constructor::construct(touching, cnx_tangent, A, cnx_tangent, B, cnx_tangent, K, selector))
      continue;
    double e = (touching.centre() - centre).dot(direction);
    if (eps < e && e < best) {
      best = e;
      new_centre = touching.centre();
    }
  }
  return best != DBL_MAX;
}
