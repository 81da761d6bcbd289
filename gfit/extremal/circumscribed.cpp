#include "gfit/extremal/circumscribed.h"

#include <cfloat>

#include "gfit/extremal/circle_fit_utils.h"
#include "gfit/platform/constructions.h"

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

}  // namespace

giCircle2 gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle(std::vector<giPoint2> const& points) {
  if (points.empty() || !gfit::detail::finite_points(points)) return giCircle2();
  if (points.size() == 1) return giCircle2(points[0], 0.0);
  giCircle2 circle = fit_two_point_circle(points[0], points[1]);
  for (size_t i = 2; i < points.size(); ++i)
    if (!inside(circle, points[i].distance(circle.centre()))) circle = smallest_circle_with_one_point(points, i);
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
  if (points.empty() || !gfit::detail::finite_points(points) || !gfit::detail::valid_radii(points, radii))
    return giCircle2();
  // A single point, or all points at one place: the circle shrinks to that place (the
  // probe radii are not applied, since no circle through the balls is defined).
  bool all_coincident = true;
  for (giPoint2 const& p : points) all_coincident = all_coincident && p.coincident(points[0]);
  if (all_coincident) return giCircle2(points[0], 0.0);
  giCircle2 circle(points[0], 0.0);
  for (size_t i = 1; i < points.size(); ++i)
    if (extended_distance(points, radii, outer, i, circle.centre()) > circle.radius())
      circle = smallest_circle_with_one_point_probed(points, radii, outer, i);
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
