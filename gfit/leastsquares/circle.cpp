#include "gfit/leastsquares/circle.h"

#include <cmath>

#include "gfit/leastsquares/evaluator.h"
#include "gfit/leastsquares/refusal.h"
#include "gfit/platform/levenberg_marquardt.h"
#include "gfit/platform/report.h"
#include "gfit/utilities/vector_utils.h"

using gfit::detail::refuse;
using gfit::detail::Span;

// ---- circle in the plane ----------------------------------------------------------------

gfLeastSquareCircle2::gfLeastSquareCircle2(giPoint2coDynArr const& points) : gfLeastSquareDistance2(3, points) {}
gfLeastSquareCircle2::~gfLeastSquareCircle2() = default;

void gfLeastSquareCircle2::normalize_parameters(mlVector&) const {}

void gfLeastSquareCircle2::get_distance(double& d, int i) const {
  mlVector const& p = parameters();
  giPoint2 const& q = points()[i];
  d = std::hypot(q.x() - p[0], q.y() - p[1]) - p[2];
}

void gfLeastSquareCircle2::get_distance_and_gradient(double& d, mlVector& g, int i) const {
  mlVector const& p = parameters();
  giPoint2 const& q = points()[i];
  double dx = q.x() - p[0], dy = q.y() - p[1];
  double rho = std::sqrt(dx * dx + dy * dy);
  d = rho - p[2];
  if (rho > 1e-7) {
    g[0] = -dx / rho;
    g[1] = -dy / rho;
  } else {
    g[0] = g[1] = 0.0;
  }
  g[2] = -1.0;
}

void gfLeastSquareCircle2::evaluate_block(int first, int count, double* distances, double* squares,
                                          double* jacobian, int ld) const {
  offset_block(nullptr, first, count, distances, squares, jacobian, ld);
}

void gfLeastSquareCircle2::offset_block(double const* offsets, int first, int count, double* distances,
                                        double* squares, double* jacobian, int ld) const {
  mlVector const& p = parameters();
  const double cx = p[0], cy = p[1], r = p[2];
  giPoint2 const* q = points().data() + first;
  for (int k = 0; k < count; ++k) {
    double dx = q[k].x() - cx, dy = q[k].y() - cy;
    double rho = std::sqrt(dx * dx + dy * dy);
    double d = offsets ? rho + offsets[first + k] - r : rho - r;
    distances[k] = d;
    squares[k] = d * d;
    if (jacobian) {
      double inv = rho > 1e-7 ? 1.0 / rho : 0.0;
      jacobian[k] = -dx * inv;
      jacobian[ld + k] = -dy * inv;
      jacobian[2 * ld + k] = -1.0;
    }
  }
}

// ---- circle in space --------------------------------------------------------------------

gfLeastSquareCircle3::gfLeastSquareCircle3(giPoint3coDynArr const& points)
    : gfLeastSquareDistance3(7, points), dF_(6), dG_(6) {}
gfLeastSquareCircle3::~gfLeastSquareCircle3() = default;

void gfLeastSquareCircle3::normalize_parameters(mlVector& p) const {
  giUnitVec3 n(p[3], p[4], p[5]);
  if (n.invalid()) n = giUnitVec3(1.0, 0.0, 0.0);
  p[3] = n.x();
  p[4] = n.y();
  p[5] = n.z();
}

void gfLeastSquareCircle3::get_distance(double& d, int i) const {
  mlVector const& p = parameters();
  giUnitVec3 u(p[3], p[4], p[5]);
  giVector3 v = points()[i] - giPoint3(p[0], p[1], p[2]);
  double F = u.dot(v);
  double e = u.cross(v).length() - p[6];
  last_square_distance_ = e * e + F * F;
  d = std::sqrt(last_square_distance_);
}

void gfLeastSquareCircle3::get_distance_and_gradient(double& d, mlVector& g, int i) const {
  mlVector const& p = parameters();
  double F = 0.0, G = 0.0;
  F_G_and_derivatives(giPoint3(p[0], p[1], p[2]), giUnitVec3(p[3], p[4], p[5]), points()[i], F, dF_, G, dG_);
  double e = G - p[6];
  last_square_distance_ = e * e + F * F;
  d = std::sqrt(last_square_distance_);
  if (d > 1e-7) {
    for (int k = 0; k < 6; ++k) g[k] = (e * dG_[k] + F * dF_[k]) / d;
    g[6] = -e / d;
  } else {
    for (int k = 0; k < 6; ++k) g[k] = 0.0;
    g[6] = -1.0;
  }
}

double gfLeastSquareCircle3::get_last_square_distance() const { return last_square_distance_; }

int gfLeastSquareCircle3::n_independent_parameters() const { return n_parameters() - 1; }

void gfLeastSquareCircle3::parameter_scales(mlVector& s) const {
  const double r = parameters()[6];
  s.resize(n_parameters());
  for (int k = 0; k < 7; ++k) s[k] = (k >= 3 && k < 6) ? r : 1.0;
}

// ---- evaluator entries ------------------------------------------------------------------

int gfLeastSquareEvaluator::evaluate_circle(giPoint2coDynArr const& points, giPoint2& centre, double& radius,
                                            double& residual) {
  gfit::detail::PointSpread spread;
  if (!gfit::detail::check_points(points, 3, Span::plane, &spread)) return 0;
  const int n = points.count();
  gfLeastSquareCircle2 problem(points);
  giPoint2 c = problem.centroid();
  double mean = 0.0;
  for (giPoint2 const& q : points) mean += q.distance(c);
  mean /= n;
  mlVector start{c.x(), c.y(), mean}, result(3);
  mlLevenbergMarquardt lm(problem);
  double value = lm.fit(start, result);
  if (!std::isfinite(value)) return refuse(gfReason::no_convergence);
  if (!gfit::detail::within_size_bound(result[2], spread.extent) ||
      !gfit::detail::determined(gfit::detail::determination(lm, problem)))
    return refuse(gfReason::not_determined);
  centre = giPoint2(result[0], result[1]);
  radius = result[2];
  residual = std::sqrt(value);
  return gfit::detail::succeed();
}

int gfLeastSquareEvaluator::evaluate_circle2(giPoint3 const& origin, giUnitVec3 const& normal,
                                             giPoint3coDynArr const& points, giPoint3& centre, double& radius,
                                             double& residual) {
  const int n = points.count();
  if (n < 3) return refuse(gfReason::too_few_points);
  if (normal.invalid()) return refuse(gfReason::invalid_argument, "the plane's normal is unset");
  if (!origin.finite()) return refuse(gfReason::non_finite_input, "the plane's origin is not finite");
  if (!gfit::detail::check_points(points, 3, Span::points)) return 0;
  giPoint2coDynArr in_plane;
  giXform3 to_plane;
  gfUtils::ProjectPointsToPlane(points, origin, normal, in_plane, &to_plane);
  giPoint2 c2;
  double r = 0.0, r2 = 0.0;
  if (!evaluate_circle(in_plane, c2, r, r2)) return 0;
  giPoint3 c = giXform3(giXformInverse{}, to_plane).transform(giPoint3(c2.x(), c2.y(), 0.0));
  // The residual in space: radial error and height above the plane together.
  double sum = 0.0;
  for (giPoint3 const& q : points) {
    giVector3 d = q - c;
    double radial = normal.cross(d).length() - r, height = normal.dot(d);
    sum += radial * radial + height * height;
  }
  centre = c;
  radius = r;
  residual = std::sqrt(sum / n);
  return gfit::detail::succeed();
}

namespace {
// Dense scans are thinned to 10000 points: all up to 10000; the first 10000 below 12000;
// from 12000 on, 10000 spread evenly. The jump at 12000 is a fixed property of the fit.
giPoint3coDynArr const& thinned(giPoint3coDynArr const& points, giPoint3coDynArr& storage) {
  const int n = points.count(), kept = 10000;
  if (n <= kept) return points;
  storage.clear(0);
  storage.reserve(kept);
  for (int k = 0; k < kept; ++k) {
    long long spread = static_cast<long long>(static_cast<double>(static_cast<long long>(n) * k) / 10000.0) % n;
    int index = n < 12000 ? k : static_cast<int>(spread);
    storage.append(points[index]);
  }
  return storage;
}
}  // namespace

int gfLeastSquareEvaluator::evaluate_circle3(giPoint3coDynArr const& points, giPoint3& centre, giUnitVec3& normal,
                                             double& radius, double& residual) {
  gfit::detail::PointSpread spread;
  if (!gfit::detail::check_points(points, 3, Span::plane, &spread)) return 0;
  giPoint3coDynArr storage;
  giPoint3coDynArr const& used = thinned(points, storage);
  // Thinned points must still span a plane.
  if (&used != &points && !gfit::detail::check_points(used, 3, Span::plane, &spread)) return 0;
  giPoint3 plane_point, c;
  giUnitVec3 n;
  double r = 0.0, rms = 0.0;
  if (!evaluate_plane(used, plane_point, n, rms)) return refuse(gfReason::not_determined);
  if (!evaluate_circle2(plane_point, n, used, c, r, rms)) return 0;
  gfLeastSquareCircle3 problem(used);
  mlVector start{c.x(), c.y(), c.z(), n.x(), n.y(), n.z(), r}, result(7);
  mlLevenbergMarquardt lm(problem);
  double value = lm.fit(start, result);
  if (!std::isfinite(value)) return refuse(gfReason::no_convergence);
  if (!gfit::detail::within_size_bound(result[6], spread.extent) ||
      !gfit::detail::determined(gfit::detail::circle3_determination(used, result)))
    return refuse(gfReason::not_determined);
  residual = std::sqrt(value);
  normal = giUnitVec3(result[3], result[4], result[5]);
  radius = result[6];
  centre = giPoint3(result[0], result[1], result[2]);
  return gfit::detail::succeed();
}
