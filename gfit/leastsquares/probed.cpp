#include "gfit/leastsquares/probed.h"

#include <cfloat>
#include <cmath>

#include "gfit/leastsquares/evaluator.h"
#include "gfit/leastsquares/refusal.h"
#include "gfit/platform/levenberg_marquardt.h"
#include "gfit/platform/random.h"

using gfit::detail::check_points;
using gfit::detail::check_radii;
using gfit::detail::refuse;
using gfit::detail::signed_radii;
using gfit::detail::Span;

namespace gfit::detail {
doublecoDynArr signed_radii(doublecoDynArr const& radii, int n, int inside) {
  doublecoDynArr rho(n, 16);
  for (int i = 0; i < n; ++i) rho.append(inside ? radii[i] : -radii[i]);
  return rho;
}

bool radii_usable(doublecoDynArr const& radii, int n) {
  if (radii.count() != n) return false;
  for (double r : radii)
    if (!(std::isfinite(r) && r >= 0.0)) return false;
  return true;
}
}  // namespace gfit::detail

// ---- circle -----------------------------------------------------------------------------

gfLeastSquareProbedCircle2::gfLeastSquareProbedCircle2(giPoint2coDynArr const& points, doublecoDynArr const& radii,
                                                       int inside)
    : Probed(points, signed_radii(radii, points.count(), inside)) {}
gfLeastSquareProbedCircle2::~gfLeastSquareProbedCircle2() = default;

// ---- line in the plane ------------------------------------------------------------------

gfLeastSquareProbedLine2::gfLeastSquareProbedLine2(giPoint2coDynArr const& points, doublecoDynArr const& radii,
                                                   int inside)
    : gfLeastSquareDistance2(3, points), rho_(signed_radii(radii, points.count(), inside)) {}
gfLeastSquareProbedLine2::~gfLeastSquareProbedLine2() = default;

void gfLeastSquareProbedLine2::normalize_parameters(mlVector& p) const {
  giUnitVec2 n(p[1], p[2]);
  if (n.invalid()) n = giUnitVec2(1.0, 0.0);
  p[1] = n.x();
  p[2] = n.y();
}

// The normal is read as a unit vector, so that the distance does not change along it and
// the gradient p - (p . n) n is that of the distance itself.
void gfLeastSquareProbedLine2::get_distance(double& d, int i) const {
  mlVector const& p = parameters();
  const giUnitVec2 n(p[1], p[2]);
  d = n.dot(giVector2(points()[i].x(), points()[i].y())) - p[0] - rho_[i];
}

void gfLeastSquareProbedLine2::get_distance_and_gradient(double& d, mlVector& g, int i) const {
  mlVector const& p = parameters();
  const giUnitVec2 n(p[1], p[2]);
  giPoint2 const& q = points()[i];
  const double along = q.x() * n.x() + q.y() * n.y();
  d = along - p[0] - rho_[i];
  g[0] = -1.0;
  g[1] = q.x() - along * n.x();  // the component of the point across the normal
  g[2] = q.y() - along * n.y();
}

// ---- plane ------------------------------------------------------------------------------

gfLeastSquareProbedPlane::gfLeastSquareProbedPlane(giPoint3coDynArr const& points, doublecoDynArr const& radii,
                                                   int inside)
    : gfLeastSquareDistance3(4, points), rho_(signed_radii(radii, points.count(), inside)) {}
gfLeastSquareProbedPlane::~gfLeastSquareProbedPlane() = default;

void gfLeastSquareProbedPlane::normalize_parameters(mlVector& p) const {
  giUnitVec3 n(p[1], p[2], p[3]);
  if (n.invalid()) n = giUnitVec3(1.0, 0.0, 0.0);
  p[1] = n.x();
  p[2] = n.y();
  p[3] = n.z();
}

void gfLeastSquareProbedPlane::get_distance(double& d, int i) const {
  mlVector const& p = parameters();
  d = giUnitVec3(p[1], p[2], p[3]).dot(points()[i].vector()) - p[0] - rho_[i];
}

void gfLeastSquareProbedPlane::get_distance_and_gradient(double& d, mlVector& g, int i) const {
  mlVector const& p = parameters();
  const giUnitVec3 n(p[1], p[2], p[3]);
  giPoint3 const& q = points()[i];
  const double along = n.dot(q.vector());
  d = along - p[0] - rho_[i];
  g[0] = -1.0;
  g[1] = q.x() - along * n.x();
  g[2] = q.y() - along * n.y();
  g[3] = q.z() - along * n.z();
}

// ---- sphere -----------------------------------------------------------------------------

gfLeastSquareProbedSphere::gfLeastSquareProbedSphere(giPoint3coDynArr const& points, doublecoDynArr const& radii,
                                                     int inside)
    : Probed(points, signed_radii(radii, points.count(), inside)) {}
gfLeastSquareProbedSphere::~gfLeastSquareProbedSphere() = default;

// ---- ellipse ----------------------------------------------------------------------------

gfLeastSquareProbedEllipse::gfLeastSquareProbedEllipse(giPoint2coDynArr const& points) : gfLeastSquareEllipse(points) {}
gfLeastSquareProbedEllipse::~gfLeastSquareProbedEllipse() = default;

void gfLeastSquareProbedEllipse::get_distance_and_closest_point(double& distance, giPoint2& closest,
                                                                giVector2& normal, int i) const {
  get_distance(distance, i);  // leaves the foot point (u, v) in the frame
  mlVector const& p = parameters();
  const double a = std::fabs(p[0]), b = std::fabs(p[1]), c = std::cos(p[4]), s = std::sin(p[4]);
  const double u = foot_x_, v = foot_y_;
  giVector2 n(u * b * b, v * a * a);  // the direction of (u b / a, v a / b), scaled by a b
  n = n.squared_length() > 0.0 ? giVector2(n.unit()) : giVector2(1.0, 0.0);
  normal = giVector2(n.x() * c - n.y() * s, n.x() * s + n.y() * c);
  closest = giPoint2(p[2] + u * c - v * s, p[3] + u * s + v * c);
}

// ---- evaluator entries ------------------------------------------------------------------

int gfLeastSquareEvaluator::evaluate_probed_circle(giPoint2coDynArr const& points, doublecoDynArr const& radii,
                                                   int inside, giPoint2& centre, double& radius, double& residual) {
  const int n = points.count();
  gfit::detail::PointSpread spread;
  if (n < 3) return refuse(gfReason::too_few_points);
  if (!check_radii(radii, n) || !check_points(points, 3, Span::plane, &spread)) return 0;
  gfLeastSquareProbedCircle2 problem(points, radii, inside);
  const giPoint2 c = problem.centroid();
  double mean = 0.0, m = 0.0;
  for (giPoint2 const& q : points) mean += q.distance(c);
  mean /= n;
  for (int i = 0; i < n; ++i) m = std::fmax(m, std::fabs(radii[i]));
  // Ten fits from starts spread by the largest probe radius about the centroid (seed 1).
  mlRandom random(1);
  double best = DBL_MAX, ratio = 0.0;
  mlVector start(3), result(3), kept(3);
  for (int pass = 0; pass < 10; ++pass) {
    start[0] = c.x() - m + random.next_unit() * 2.0 * m;
    start[1] = c.y() - m + random.next_unit() * 2.0 * m;
    start[2] = std::fmax(mean - m + random.next_unit() * 2.0 * m, 0.1 * mean);
    mlLevenbergMarquardt lm(problem);
    const double rms = std::sqrt(lm.fit(start, result));
    if (rms < best) {
      best = rms;
      kept = result;
      ratio = gfit::detail::determination(lm, problem);
    }
  }
  if (best == DBL_MAX) return refuse(gfReason::no_convergence);
  if (!(kept[2] > 0.0)) return refuse(gfReason::failed, "the compensated radius is not positive");
  if (!gfit::detail::within_size_bound(kept[2], spread.extent) || !gfit::detail::determined(ratio))
    return refuse(gfReason::not_determined);
  centre = giPoint2(kept[0], kept[1]);
  radius = kept[2];
  residual = best;
  return gfit::detail::succeed();
}

int gfLeastSquareEvaluator::evaluate_probed_sphere(giPoint3coDynArr const& points, doublecoDynArr const& radii,
                                                   int inside, giPoint3& centre, double& radius, double& residual) {
  const int n = points.count();
  gfit::detail::PointSpread spread;
  if (n < 4) return refuse(gfReason::too_few_points);
  if (!check_radii(radii, n) || !check_points(points, 4, Span::space, &spread)) return 0;
  gfLeastSquareProbedSphere problem(points, radii, inside);
  mlVector best;
  double ratio = 0.0;
  const double value = gfit::detail::sphere_restarts(problem, best, &ratio);
  if (!gfit::detail::sphere_determined(best, value, ratio, spread)) return 0;
  centre = giPoint3(best[0], best[1], best[2]);
  radius = best[3];
  residual = std::sqrt(value);
  return gfit::detail::succeed();
}

namespace {
// The plane and the line share their scheme: start from the plain fit (offset, normal);
// with approximate normals that do not cancel, the side is the one they point to and one
// fit is made; when they cancel, both sides are fitted and the better kept. The returned
// normal agrees with the approximate normals.
template <class Problem, class Points>
double fit_both_sides(Points const& points, doublecoDynArr const& radii, double sum_dot_start, bool usable_sum,
                      mlVector const& start, mlVector& best) {
  double best_value = DBL_MAX;
  mlVector result(start.size());
  for (int pass = 0; pass < 2; ++pass) {
    const int inside = usable_sum ? (sum_dot_start > 0.0 ? 1 : 0) : (pass == 0 ? 1 : 0);
    Problem problem(points, radii, inside);
    mlLevenbergMarquardt lm(problem);
    const double value = lm.fit(start, result);
    if (value < best_value) {
      best_value = value;
      best = result;
    }
    if (usable_sum) break;
  }
  return best_value;
}
}  // namespace

int gfLeastSquareEvaluator::evaluate_probed_plane(giPoint3coDynArr const& points, doublecoDynArr const& radii,
                                                  giUnitVec3coDynArr const& normals, giPoint3& point,
                                                  giUnitVec3& normal, double& residual) {
  // The plane's Jacobian (-1, p - (p . n) n) has full rank exactly when the points are not
  // collinear, so the up-front check is its whole determination test.
  const int n = points.count();
  if (n < 3) return refuse(gfReason::too_few_points);
  if (!check_radii(radii, n) || !gfit::detail::check_normals(normals, n, false) ||
      !check_points(points, 3, Span::plane))
    return 0;
  giPoint3 p0;
  giUnitVec3 n0;
  double rms = 0.0;
  if (!evaluate_plane(points, p0, n0, rms)) return 0;
  giVector3 sum(0.0, 0.0, 0.0);
  for (int i = 0; i < n; ++i) sum += giVector3(normals[i]);
  const bool usable = sum.squared_length() != 0.0;
  mlVector start{n0.dot(p0.vector()), n0.x(), n0.y(), n0.z()}, best;
  const double value = fit_both_sides<gfLeastSquareProbedPlane>(points, radii, sum.dot(n0), usable, start, best);
  if (!(value < DBL_MAX)) return refuse(gfReason::no_convergence);
  giUnitVec3 fitted(best[1], best[2], best[3]);
  // The point: p0 projected onto {x : x . n = d}.
  point = p0 - fitted * (fitted.dot(p0.vector()) - best[0]);
  normal = sum.dot(fitted) < 0.0 ? -fitted : fitted;
  residual = std::sqrt(value);
  return gfit::detail::succeed();
}

int gfLeastSquareEvaluator::evaluate_probed_line2(giPoint2coDynArr const& points, doublecoDynArr const& radii,
                                                  giUnitVec2coDynArr const& normals, giPoint2& point,
                                                  giUnitVec2& normal, double& residual) {
  // As for the plane: the line is determined exactly when the points do not all coincide.
  const int n = points.count();
  if (n < 2) return refuse(gfReason::too_few_points);
  if (!check_radii(radii, n) || !gfit::detail::check_normals(normals, n, false) ||
      !check_points(points, 2, Span::line))
    return 0;
  giPoint2 p0;
  giUnitVec2 t0;
  double rms = 0.0;
  if (!evaluate_line(points, p0, t0, rms)) return 0;
  giVector2 n0(-t0.y(), t0.x());  // the direction turned by +90 degrees
  giVector2 sum(0.0, 0.0);
  for (int i = 0; i < n; ++i) sum += giVector2(normals[i]);
  const bool usable = sum.squared_length() != 0.0;
  mlVector start{n0.dot(giVector2(p0.x(), p0.y())), n0.x(), n0.y()}, best;
  const double value = fit_both_sides<gfLeastSquareProbedLine2>(points, radii, sum.dot(n0), usable, start, best);
  if (!(value < DBL_MAX)) return refuse(gfReason::no_convergence);
  giUnitVec2 fitted(best[1], best[2]);
  point = p0 - fitted * (fitted.dot(giVector2(p0.x(), p0.y())) - best[0]);
  normal = sum.dot(fitted) < 0.0 ? -fitted : fitted;
  residual = std::sqrt(value);
  return gfit::detail::succeed();
}
