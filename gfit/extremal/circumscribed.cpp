#include "gfit/extremal/circumscribed.h"

#include <cfloat>
#include <cstdint>
#include <utility>

#include "gfit/extremal/circle_fit_utils.h"
#include "gfit/platform/constructions.h"
#include "gfit/platform/random.h"
#include "gfit/platform/report.h"

namespace {

// Exact containment; a radius still at +DBL_MAX is not set yet and contains nothing.
bool inside(giCircle2 const& circle, double distance) {
  return circle.radius() != DBL_MAX && distance <= circle.radius();
}

double signed_radius(std::vector<double> const& radii, bool outer, size_t i) { return outer ? radii[i] : -radii[i]; }

double extended_distance(std::vector<giPoint2> const& points, std::vector<double> const& radii, bool outer, size_t i,
                         giPoint2 const& centre) {
  return points[i].distance(centre) + signed_radius(radii, outer, i);
}

// A fixed pseudo-random order of 0 .. n-1 (Fisher-Yates with mlRandom seeded with 1, two
// 15-bit draws per swap): the same on every run, and no input order (such as a scan sorted
// by angle) can make the incremental construction quadratic or cubic except by chance.
std::vector<size_t> fixed_random_order(size_t n) {
  std::vector<size_t> order(n);
  for (size_t i = 0; i < n; ++i) order[i] = i;
  mlRandom random(1);
  for (size_t i = n; i-- > 1;) {
    std::uint32_t draw = (static_cast<std::uint32_t>(random.next()) << 15) | static_cast<std::uint32_t>(random.next());
    std::swap(order[i], order[draw % (i + 1)]);
  }
  return order;
}

}  // namespace

giCircle2 gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle(std::vector<giPoint2> const& points) {
  if (!gfit::detail::accept_profile(points, 1)) return giCircle2();
  gfit::detail::succeed();
  if (points.size() == 1) return giCircle2(points[0], 0.0);
  std::vector<giPoint2> shuffled;
  shuffled.reserve(points.size());
  for (size_t i : fixed_random_order(points.size())) shuffled.push_back(points[i]);
  giCircle2 circle = fit_two_point_circle(shuffled[0], shuffled[1]);
  for (size_t i = 2; i < shuffled.size(); ++i)
    if (!inside(circle, shuffled[i].distance(circle.centre()))) circle = smallest_circle_with_one_point(shuffled, i);
  return circle;
}

giCircle2 gfMinimumCircumscribedCircle::fit_two_point_circle(giPoint2 const& a, giPoint2 const& b) {
  giPoint2 mid(0.5 * (a.x() + b.x()), 0.5 * (a.y() + b.y()));
  return giCircle2(mid, a.distance(mid));
}

giCircle2 gfMinimumCircumscribedCircle::smallest_circle_with_one_point(std::vector<giPoint2> const& points, size_t q) {
  giCircle2 circle = fit_two_point_circle(points[0], points[q]);
  if (q <= 1) return circle;
  for (size_t j = 1; j < q; ++j) {
    if (inside(circle, points[j].distance(circle.centre()))) continue;
    // A duplicate of the boundary point is taken as on it.
    if (!points[j].coincident(points[q])) circle = smallest_circle_with_two_points(points, j, q);
  }
  return circle;
}

giCircle2 gfMinimumCircumscribedCircle::smallest_circle_with_two_points(std::vector<giPoint2> const& points, size_t a,
                                                                        size_t b) {
  giCircle2 circle = fit_two_point_circle(points[a], points[b]);
  for (size_t k = 0; k < a; ++k) {
    if (inside(circle, points[k].distance(circle.centre()))) continue;
    if (points[k].coincident(points[a]) || points[k].coincident(points[b])) continue;
    circle.become(points[k], points[a], points[b]);  // collinear: left as it is
  }
  return circle;
}

giCircle2 gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle_probed(std::vector<giPoint2> const& points,
                                                                             std::vector<double> const& radii,
                                                                             bool outer) {
  if (!gfit::detail::accept_profile(points, 1, &radii)) return giCircle2();
  gfit::detail::succeed();
  // A single point, or all points at one place: the circle shrinks to that place (the
  // probe radii are not applied, since no circle through the balls is defined).
  bool all_coincident = true;
  for (giPoint2 const& p : points) all_coincident = all_coincident && p.coincident(points[0]);
  if (all_coincident) return giCircle2(points[0], 0.0);
  std::vector<giPoint2> p;
  std::vector<double> r;
  p.reserve(points.size());
  r.reserve(points.size());
  for (size_t i : fixed_random_order(points.size())) {
    p.push_back(points[i]);
    r.push_back(radii[i]);
  }
  giCircle2 circle(p[0], 0.0);
  for (size_t i = 1; i < p.size(); ++i)
    if (extended_distance(p, r, outer, i, circle.centre()) > circle.radius())
      circle = smallest_circle_with_one_point_probed(p, r, outer, i);
  return circle;
}

giCircle2 gfMinimumCircumscribedCircle::smallest_circle_with_one_point_probed(std::vector<giPoint2> const& points,
                                                                              std::vector<double> const& radii,
                                                                              bool outer, size_t q) {
  giCircle2 circle(points[q], 0.0);
  for (size_t j = 0; j < q; ++j) {
    double e = extended_distance(points, radii, outer, j, circle.centre());
    if (e < 0.0 || e <= circle.radius()) continue;
    circle = smallest_circle_with_two_points_probed(points, radii, outer, j, q);
  }
  return circle;
}

giCircle2 gfMinimumCircumscribedCircle::smallest_circle_with_two_points_probed(std::vector<giPoint2> const& points,
                                                                               std::vector<double> const& radii,
                                                                               bool outer, size_t a, size_t b) {
  const double s = outer ? 1.0 : -1.0;
  cnxCircle2 A(points[a], radii[a]), B(points[b], radii[b]);
  giCircle2 circle(points[a], 0.0);
  giVector2 ab = points[b] - points[a];
  double length = ab.length();
  if (length != 0.0) {
    // The circle through the far ends of the two balls along their common line.
    giUnitVec2 u = ab.unit();
    giPoint2 ea = points[a] - u * (s * radii[a]);
    giPoint2 eb = points[b] + u * (s * radii[b]);
    circle = giCircle2(giPoint2(0.5 * (ea.x() + eb.x()), 0.5 * (ea.y() + eb.y())),
                       ((radii[a] + radii[b]) * s + length) * 0.5);
  }
  for (size_t k = 0; k < a; ++k) {
    double e = extended_distance(points, radii, outer, k, circle.centre());
    if (circle.radius() != DBL_MAX && (e < 0.0 || e <= circle.radius())) continue;
    cnxCircle2 K(points[k], radii[k]), touching;
    cnxCircle2Constructor::construct(touching, cnx_tangent, A, cnx_tangent, B, cnx_tangent, K,
                                     outer ? cnxCircle2Constructor::enclose_all : 0);
    if (!touching.invalid())
      circle = giCircle2(touching.centre(), touching.radius());
    else  // no circle touches all three: keep the centre and take point k onto the circle
      circle.set_radius(extended_distance(points, radii, outer, k, circle.centre()));
  }
  return circle;
}
