#include "gfit/leastsquares/uncertainty.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <vector>

#include "gfit/leastsquares/circle.h"
#include "gfit/leastsquares/cone.h"
#include "gfit/leastsquares/cylinder.h"
#include "gfit/leastsquares/ellipse.h"
#include "gfit/leastsquares/sphere.h"
#include "gfit/leastsquares/torus.h"
#include "gfit/platform/qr_accumulator.h"
#include "gfit/platform/report.h"

namespace gfit::detail {
namespace {

using Eigen::MatrixXd;
using Eigen::Vector3d;
constexpr int kBlock = TriangularAccumulator::block_rows;
// Below this fraction of the largest singular value a combination of the independent
// quantities is not fixed by the data.
constexpr double kRank = 1e-12;

struct Frame {
  Vector3d e1, e2, u, origin;
};

// (e1, e2, u) right-handed, the origin at the foot of `centroid` on the line (point, u).
Frame make_frame(Vector3d const& point, Vector3d u, Vector3d const& centroid) {
  Frame f;
  f.u = u.normalized();
  Vector3d r = std::fabs(f.u.x()) > std::fabs(f.u.y()) ? Vector3d(0, 1, 0) : Vector3d(1, 0, 0);
  f.e1 = f.u.cross(r).normalized();
  f.e2 = f.u.cross(f.e1);
  f.origin = point + f.u * (centroid - point).dot(f.u);
  return f;
}

Vector3d vec(giPoint3 const& p) { return {p.x(), p.y(), p.z()}; }
Vector3d vec(giUnitVec3 const& p) { return {p.x(), p.y(), p.z()}; }

Vector3d centroid_of(giPoint3coDynArr const& points) {
  Vector3d c = Vector3d::Zero();
  for (giPoint3 const& p : points) c += vec(p);
  return c / points.count();
}

// s^2 (M^T M)^+ from the k x k (or taller) factor M of the independent Jacobian; false
// when M is rank-deficient.
bool covariance_from_factor(MatrixXd const& m, double ss, int dof, MatrixXd& cov, double& s2) {
  Eigen::JacobiSVD<MatrixXd> svd(m, Eigen::ComputeThinV);
  auto const& sv = svd.singularValues();
  const int k = static_cast<int>(m.cols());
  if (sv.size() < k || !(sv[k - 1] > kRank * sv[0])) return false;
  s2 = ss / dof;
  Eigen::VectorXd inv2 = sv.head(k).cwiseInverse().cwiseAbs2();
  cov = s2 * svd.matrixV() * inv2.asDiagonal() * svd.matrixV().transpose();
  return cov.allFinite();
}

// The triangular factor of the problem's Jacobian at `params`, streamed, and the sum of
// squared distances.
MatrixXd problem_factor(mlDistanceLeastSquares& problem, mlVector const& params, double& ss) {
  const int p = problem.n_parameters(), n = problem.n_points();
  problem.set_parameters(params);
  TriangularAccumulator acc(p + 1);
  std::vector<double> squares(kBlock);
  ss = 0.0;
  for (int first = 0; first < n; first += kBlock) {
    const int count = std::min(kBlock, n - first);
    problem.evaluate_block(first, count, acc.buffer() + p * kBlock, squares.data(), acc.buffer(), kBlock);
    for (int i = 0; i < count; ++i) ss += squares[i];
    acc.absorb(count);
  }
  MatrixXd r = MatrixXd::Zero(p, p);
  for (int i = 0; i < p; ++i)
    for (int j = i; j < p; ++j) r(i, j) = acc.r(i, j);
  return r;
}

void position_from(MatrixXd const& pos_cov, gfElementUncertainty& out) {
  for (int j = 0; j < 3; ++j) out.position[j] = std::sqrt(std::max(0.0, pos_cov(j, j)));
}

void store(MatrixXd const& m, mlMatrix& out) {
  out.resize(static_cast<int>(m.rows()), static_cast<int>(m.cols()));
  for (int i = 0; i < m.rows(); ++i)
    for (int j = 0; j < m.cols(); ++j) out(i, j) = m(i, j);
}

// The axis elements (cylinder: 5 independent quantities, cone: 6) through their problems.
int axis_element(mlDistanceLeastSquares& problem, mlVector const& params, MatrixXd const& t, Frame const& f,
                 int n, gfElementUncertainty& out, bool cone) {
  const int k = static_cast<int>(t.cols());
  if (n <= k) return refuse(gfReason::too_few_points, "too few points for the uncertainty");
  double ss = 0.0, s2 = 0.0;
  MatrixXd r = problem_factor(problem, params, ss);
  MatrixXd cov;
  if (!std::isfinite(ss) || !covariance_from_factor(r * t, ss, n - k, cov, s2))
    return refuse(gfReason::not_determined, "the points do not determine the element");
  gfElementUncertainty u;
  u.sigma = std::sqrt(s2);
  u.degrees_of_freedom = n - k;
  Eigen::Matrix<double, 3, 2> e;
  e << f.e1, f.e2;
  position_from(e * cov.topLeftCorner(2, 2) * e.transpose(), u);
  u.axis_angle = std::sqrt(std::max(0.0, cov(2, 2) + cov(3, 3)));
  u.radius = std::sqrt(std::max(0.0, cov(4, 4)));
  u.diameter = 2.0 * u.radius;
  if (cone) u.half_angle = std::sqrt(std::max(0.0, cov(5, 5)));
  u.axis_point = giPoint3(f.origin.x(), f.origin.y(), f.origin.z());
  store(cov, u.independent);
  store(t * cov * t.transpose(), u.parameters);
  out = u;
  return succeed();
}

// The position figures of a centre that moves in all three frame directions: the first
// three independent quantities, along (e1, e2, u).
void position3_from(MatrixXd const& cov, Frame const& f, gfElementUncertainty& out) {
  Eigen::Matrix3d e;
  e << f.e1, f.e2, f.u;
  position_from(e * cov.topLeftCorner(3, 3) * e.transpose(), out);
}

// The centre shifts (3), the two tilts and then `extra` scalars, onto a problem vector of
// (centre, direction, scalars...).
MatrixXd centre_axis_map(Frame const& f, int extra) {
  MatrixXd t = MatrixXd::Zero(6 + extra, 5 + extra);
  t.block<3, 1>(0, 0) = f.e1, t.block<3, 1>(0, 1) = f.e2, t.block<3, 1>(0, 2) = f.u;
  t.block<3, 1>(3, 3) = f.e1, t.block<3, 1>(3, 4) = f.e2;
  for (int j = 0; j < extra; ++j) t(6 + j, 5 + j) = 1.0;
  return t;
}

bool finite(giPoint3coDynArr const& points) {
  for (giPoint3 const& p : points)
    if (!p.finite()) return false;
  return true;
}

}  // namespace
}  // namespace gfit::detail

using namespace gfit::detail;

int gfLeastSquareUncertainty::circle(giPoint2coDynArr const& points, giPoint2 const& centre, double radius,
                                     gfElementUncertainty& out) {
  const int n = points.count();
  if (n < 4) return refuse(gfReason::too_few_points, "too few points for the uncertainty");
  for (giPoint2 const& p : points)
    if (!p.finite()) return refuse(gfReason::non_finite_input, "a coordinate is not finite");
  if (!centre.finite() || !std::isfinite(radius)) return refuse(gfReason::non_finite_input, "the circle is not finite");
  gfLeastSquareCircle2 problem(points);
  mlVector params(3);
  params[0] = centre.x(), params[1] = centre.y(), params[2] = radius;
  double ss = 0.0, s2 = 0.0;
  MatrixXd cov;
  MatrixXd r = problem_factor(problem, params, ss);
  if (!std::isfinite(ss) || !covariance_from_factor(r, ss, n - 3, cov, s2))
    return refuse(gfReason::not_determined, "the points do not determine the circle");
  gfElementUncertainty u;
  u.sigma = std::sqrt(s2);
  u.degrees_of_freedom = n - 3;
  u.position[0] = std::sqrt(cov(0, 0)), u.position[1] = std::sqrt(cov(1, 1));
  u.radius = std::sqrt(cov(2, 2));
  u.diameter = 2.0 * u.radius;
  u.axis_point = giPoint3(centre.x(), centre.y(), 0.0);
  store(cov, u.independent);
  store(cov, u.parameters);
  out = u;
  return succeed();
}

int gfLeastSquareUncertainty::sphere(giPoint3coDynArr const& points, giPoint3 const& centre, double radius,
                                     gfElementUncertainty& out) {
  const int n = points.count();
  if (n < 5) return refuse(gfReason::too_few_points, "too few points for the uncertainty");
  if (!finite(points) || !centre.finite() || !std::isfinite(radius))
    return refuse(gfReason::non_finite_input, "a coordinate is not finite");
  gfLeastSquareSphere problem(points);
  mlVector params(4);
  params[0] = centre.x(), params[1] = centre.y(), params[2] = centre.z(), params[3] = radius;
  double ss = 0.0, s2 = 0.0;
  MatrixXd cov;
  MatrixXd r = problem_factor(problem, params, ss);
  if (!std::isfinite(ss) || !covariance_from_factor(r, ss, n - 4, cov, s2))
    return refuse(gfReason::not_determined, "the points do not determine the sphere");
  gfElementUncertainty u;
  u.sigma = std::sqrt(s2);
  u.degrees_of_freedom = n - 4;
  for (int j = 0; j < 3; ++j) u.position[j] = std::sqrt(cov(j, j));
  u.radius = std::sqrt(cov(3, 3));
  u.diameter = 2.0 * u.radius;
  u.axis_point = centre;
  store(cov, u.independent);
  store(cov, u.parameters);
  out = u;
  return succeed();
}

int gfLeastSquareUncertainty::cylinder(giPoint3coDynArr const& points, giPoint3 const& point,
                                       giUnitVec3 const& direction, double radius, gfElementUncertainty& out) {
  if (points.count() < 6) return refuse(gfReason::too_few_points, "too few points for the uncertainty");
  if (!finite(points) || !point.finite() || !std::isfinite(radius))
    return refuse(gfReason::non_finite_input, "a coordinate is not finite");
  if (direction.invalid()) return refuse(gfReason::invalid_argument, "the axis direction is unset");
  Frame f = make_frame(vec(point), vec(direction), centroid_of(points));
  gfLeastSquareCylinder problem(points);
  mlVector params(7);
  for (int j = 0; j < 3; ++j) params[j] = f.origin[j], params[3 + j] = f.u[j];
  params[6] = radius;
  // Independent (x0, y0, a, b, r) -> (A, u, r).
  MatrixXd t = MatrixXd::Zero(7, 5);
  t.block<3, 1>(0, 0) = f.e1, t.block<3, 1>(0, 1) = f.e2;
  t.block<3, 1>(3, 2) = f.e1, t.block<3, 1>(3, 3) = f.e2;
  t(6, 4) = 1.0;
  return axis_element(problem, params, t, f, points.count(), out, false);
}

int gfLeastSquareUncertainty::cone(giPoint3coDynArr const& points, giPoint3 const& apex, giUnitVec3 const& axis,
                                   double half_angle, gfElementUncertainty& out) {
  if (points.count() < 7) return refuse(gfReason::too_few_points, "too few points for the uncertainty");
  if (!finite(points) || !apex.finite() || !std::isfinite(half_angle))
    return refuse(gfReason::non_finite_input, "a coordinate is not finite");
  if (axis.invalid()) return refuse(gfReason::invalid_argument, "the axis direction is unset");
  Frame f = make_frame(vec(apex), vec(axis), centroid_of(points));
  // The surface F sin(theta) + G cos(theta) = d about A: with A the apex d = 0; moving A by t
  // along the axis makes d = -t sin(theta), and the radius there r0 = d / cos(theta).
  const double th = half_angle, tpos = (f.origin - vec(apex)).dot(f.u);
  const double d = -tpos * std::sin(th), r0 = d / std::cos(th);
  gfLeastSquareCone problem(points);
  mlVector params(8);
  for (int j = 0; j < 3; ++j) params[j] = f.origin[j], params[3 + j] = f.u[j];
  params[6] = d, params[7] = th;
  // Independent (x0, y0, a, b, r0, theta) -> (A, u, d = r0 cos(theta), theta).
  MatrixXd t = MatrixXd::Zero(8, 6);
  t.block<3, 1>(0, 0) = f.e1, t.block<3, 1>(0, 1) = f.e2;
  t.block<3, 1>(3, 2) = f.e1, t.block<3, 1>(3, 3) = f.e2;
  t(6, 4) = std::cos(th);
  t(6, 5) = -r0 * std::sin(th);
  t(7, 5) = 1.0;
  return axis_element(problem, params, t, f, points.count(), out, true);
}

int gfLeastSquareUncertainty::plane(giPoint3coDynArr const& points, giPoint3 const& point, giUnitVec3 const& normal,
                                    gfElementUncertainty& out) {
  const int n = points.count();
  if (n < 4) return refuse(gfReason::too_few_points, "too few points for the uncertainty");
  if (!finite(points) || !point.finite()) return refuse(gfReason::non_finite_input, "a coordinate is not finite");
  if (normal.invalid()) return refuse(gfReason::invalid_argument, "the normal is unset");
  Frame f = make_frame(vec(point), vec(normal), centroid_of(points));
  // d_i = (q_i - O).n - h - a x_i - b y_i: rows (-1, -x_i, -y_i).
  TriangularAccumulator acc(3);
  double ss = 0.0, row[3];
  for (giPoint3 const& p : points) {
    Vector3d v = vec(p) - f.origin;
    double d = v.dot(f.u);
    ss += d * d;
    row[0] = -1.0, row[1] = -v.dot(f.e1), row[2] = -v.dot(f.e2);
    acc.add_row(row);
  }
  acc.flush();
  MatrixXd r = MatrixXd::Zero(3, 3);
  for (int i = 0; i < 3; ++i)
    for (int j = i; j < 3; ++j) r(i, j) = acc.r(i, j);
  double s2 = 0.0;
  MatrixXd cov;
  if (!std::isfinite(ss) || !covariance_from_factor(r, ss, n - 3, cov, s2))
    return refuse(gfReason::not_determined, "the points do not determine the plane");
  gfElementUncertainty u;
  u.sigma = std::sqrt(s2);
  u.degrees_of_freedom = n - 3;
  position_from(f.u * cov(0, 0) * f.u.transpose(), u);
  u.offset = std::sqrt(cov(0, 0));
  u.axis_angle = std::sqrt(cov(1, 1) + cov(2, 2));
  u.axis_point = giPoint3(f.origin.x(), f.origin.y(), f.origin.z());
  MatrixXd t = MatrixXd::Zero(6, 3);  // (h, a, b) -> (point, normal)
  t.block<3, 1>(0, 0) = f.u, t.block<3, 1>(3, 1) = f.e1, t.block<3, 1>(3, 2) = f.e2;
  store(cov, u.independent);
  store(t * cov * t.transpose(), u.parameters);
  out = u;
  return succeed();
}

int gfLeastSquareUncertainty::line3(giPoint3coDynArr const& points, giPoint3 const& point,
                                    giUnitVec3 const& direction, gfElementUncertainty& out) {
  const int n = points.count();
  if (n < 3) return refuse(gfReason::too_few_points, "too few points for the uncertainty");
  if (!finite(points) || !point.finite()) return refuse(gfReason::non_finite_input, "a coordinate is not finite");
  if (direction.invalid()) return refuse(gfReason::invalid_argument, "the direction is unset");
  Frame f = make_frame(vec(point), vec(direction), centroid_of(points));
  // Across the line along e1: X_i = x0 + a t_i, and along e2 the same with (y0, b): the two
  // components share one 2 x 2 normal matrix.
  TriangularAccumulator acc(2);
  double ss = 0.0, row[2];
  for (giPoint3 const& p : points) {
    Vector3d v = vec(p) - f.origin;
    double t = v.dot(f.u);
    ss += (v - t * f.u).squaredNorm();
    row[0] = 1.0, row[1] = t;
    acc.add_row(row);
  }
  acc.flush();
  MatrixXd r = MatrixXd::Zero(4, 4);  // (x0, y0, a, b): block-diagonal in the two components
  r(0, 0) = r(1, 1) = acc.r(0, 0);
  r(0, 2) = r(1, 3) = acc.r(0, 1);
  r(2, 2) = r(3, 3) = acc.r(1, 1);
  double s2 = 0.0;
  MatrixXd cov;
  if (!std::isfinite(ss) || !covariance_from_factor(r, ss, 2 * n - 4, cov, s2))
    return refuse(gfReason::not_determined, "the points do not determine the line");
  gfElementUncertainty u;
  u.sigma = std::sqrt(s2);
  u.degrees_of_freedom = 2 * n - 4;
  Eigen::Matrix<double, 3, 2> e;
  e << f.e1, f.e2;
  position_from(e * cov.topLeftCorner(2, 2) * e.transpose(), u);
  u.axis_angle = std::sqrt(cov(2, 2) + cov(3, 3));
  u.axis_point = giPoint3(f.origin.x(), f.origin.y(), f.origin.z());
  MatrixXd t = MatrixXd::Zero(6, 4);  // (x0, y0, a, b) -> (point, direction)
  t.block<3, 1>(0, 0) = f.e1, t.block<3, 1>(0, 1) = f.e2, t.block<3, 1>(3, 2) = f.e1, t.block<3, 1>(3, 3) = f.e2;
  store(cov, u.independent);
  store(t * cov * t.transpose(), u.parameters);
  out = u;
  return succeed();
}

int gfLeastSquareUncertainty::circle3(giPoint3coDynArr const& points, giPoint3 const& centre,
                                      giUnitVec3 const& normal, double radius, gfElementUncertainty& out) {
  const int n = points.count();
  if (n < 4) return refuse(gfReason::too_few_points, "too few points for the uncertainty");
  if (!finite(points) || !centre.finite() || !std::isfinite(radius))
    return refuse(gfReason::non_finite_input, "a coordinate is not finite");
  if (normal.invalid()) return refuse(gfReason::invalid_argument, "the normal is unset");
  const Vector3d c = vec(centre);
  Frame f = make_frame(c, vec(normal), c);
  // Two residuals per point, in the frame (x, y, z) of Q - C: the radial e = G - r with
  // G = |(x, y)| and the height F = z. Under a shift (dx, dy, dz) of the centre, tilts (a, b)
  // of the normal towards e1, e2 and a change dr of the radius, to first order
  //   dF = -dz + a x + b y,   dG = -(x dx + y dy + z (a x + b y)) / G,   de = dG - dr.
  // A point on the axis (G = 0) has no radial direction: its radial row is left out.
  TriangularAccumulator acc(6);
  double ss = 0.0, row[6];
  int rows = 0;
  for (giPoint3 const& p : points) {
    const Vector3d v = vec(p) - c;
    const double x = v.dot(f.e1), y = v.dot(f.e2), z = v.dot(f.u), g = std::hypot(x, y);
    ss += (g - radius) * (g - radius) + z * z;
    row[0] = 0.0, row[1] = 0.0, row[2] = -1.0, row[3] = x, row[4] = y, row[5] = 0.0;
    acc.add_row(row), ++rows;
    if (g > 0.0) {
      row[0] = -x / g, row[1] = -y / g, row[2] = 0.0, row[3] = -z * x / g, row[4] = -z * y / g, row[5] = -1.0;
      acc.add_row(row), ++rows;
    }
  }
  acc.flush();
  MatrixXd r = MatrixXd::Zero(6, 6);
  for (int i = 0; i < 6; ++i)
    for (int j = i; j < 6; ++j) r(i, j) = acc.r(i, j);
  double s2 = 0.0;
  MatrixXd cov;
  if (!std::isfinite(ss) || rows <= 6 || !covariance_from_factor(r, ss, rows - 6, cov, s2))
    return refuse(gfReason::not_determined, "the points do not determine the circle");
  gfElementUncertainty u;
  u.sigma = std::sqrt(s2);
  u.degrees_of_freedom = rows - 6;
  position3_from(cov, f, u);
  u.axis_angle = std::sqrt(std::max(0.0, cov(3, 3) + cov(4, 4)));
  u.radius = std::sqrt(std::max(0.0, cov(5, 5)));
  u.diameter = 2.0 * u.radius;
  u.axis_point = centre;
  const MatrixXd t = centre_axis_map(f, 1);  // -> (centre, normal, r)
  store(cov, u.independent);
  store(t * cov * t.transpose(), u.parameters);
  out = u;
  return succeed();
}

int gfLeastSquareUncertainty::torus(giPoint3coDynArr const& points, giPoint3 const& centre, giUnitVec3 const& axis,
                                    double r1, double r2, gfElementUncertainty& out) {
  const int n = points.count();
  if (n < 8) return refuse(gfReason::too_few_points, "too few points for the uncertainty");
  if (!finite(points) || !centre.finite() || !std::isfinite(r1) || !std::isfinite(r2))
    return refuse(gfReason::non_finite_input, "a coordinate is not finite");
  if (axis.invalid()) return refuse(gfReason::invalid_argument, "the axis direction is unset");
  const Vector3d c = vec(centre);
  Frame f = make_frame(c, vec(axis), c);
  // The problem measured from the centre itself, so that its Jacobian keeps the torus's digits
  // however far the points lie from the coordinate origin.
  gfLeastSquareTorus problem(points, centre);
  mlVector params(8);
  for (int j = 0; j < 3; ++j) params[j] = 0.0, params[3 + j] = f.u[j];
  params[6] = r1, params[7] = r2;
  const MatrixXd t = centre_axis_map(f, 2);  // (cx, cy, cz, a, b, r1, r2) -> (C, u, r1, r2)
  double ss = 0.0, s2 = 0.0;
  MatrixXd r = problem_factor(problem, params, ss);
  MatrixXd cov;
  if (!std::isfinite(ss) || !covariance_from_factor(r * t, ss, n - 7, cov, s2))
    return refuse(gfReason::not_determined, "the points do not determine the torus");
  gfElementUncertainty u;
  u.sigma = std::sqrt(s2);
  u.degrees_of_freedom = n - 7;
  position3_from(cov, f, u);
  u.axis_angle = std::sqrt(std::max(0.0, cov(3, 3) + cov(4, 4)));
  u.radius = std::sqrt(std::max(0.0, cov(5, 5)));
  u.diameter = 2.0 * u.radius;
  u.second_radius = std::sqrt(std::max(0.0, cov(6, 6)));
  u.axis_point = centre;
  store(cov, u.independent);
  store(t * cov * t.transpose(), u.parameters);
  out = u;
  return succeed();
}

int gfLeastSquareUncertainty::line(giPoint2coDynArr const& points, giPoint2 const& point,
                                   giUnitVec2 const& direction, gfElementUncertainty& out) {
  const int n = points.count();
  if (n < 3) return refuse(gfReason::too_few_points, "too few points for the uncertainty");
  for (giPoint2 const& p : points)
    if (!p.finite()) return refuse(gfReason::non_finite_input, "a coordinate is not finite");
  if (!point.finite()) return refuse(gfReason::non_finite_input, "the line is not finite");
  if (direction.invalid()) return refuse(gfReason::invalid_argument, "the direction is unset");
  // Frame: origin at the foot of the centroid, d along the line, m = d rotated a quarter
  // turn (the side the line's signed distance counts positive). d_i = (q_i - O).m - h - a t_i.
  const double dx = direction.x(), dy = direction.y(), mx = -dy, my = dx;
  double cx = 0.0, cy = 0.0;
  for (giPoint2 const& p : points) cx += p.x() - point.x(), cy += p.y() - point.y();
  const double along = (cx * dx + cy * dy) / n;
  const double ox = point.x() + along * dx, oy = point.y() + along * dy;
  TriangularAccumulator acc(2);
  double ss = 0.0, row[2];
  for (giPoint2 const& p : points) {
    const double vx = p.x() - ox, vy = p.y() - oy, h = vx * mx + vy * my;
    ss += h * h;
    row[0] = -1.0, row[1] = -(vx * dx + vy * dy);
    acc.add_row(row);
  }
  acc.flush();
  MatrixXd r = MatrixXd::Zero(2, 2);
  r(0, 0) = acc.r(0, 0), r(0, 1) = acc.r(0, 1), r(1, 1) = acc.r(1, 1);
  double s2 = 0.0;
  MatrixXd cov;
  if (!std::isfinite(ss) || !covariance_from_factor(r, ss, n - 2, cov, s2))
    return refuse(gfReason::not_determined, "the points do not determine the line");
  gfElementUncertainty u;
  u.sigma = std::sqrt(s2);
  u.degrees_of_freedom = n - 2;
  u.offset = std::sqrt(std::max(0.0, cov(0, 0)));
  u.position[0] = std::fabs(mx) * u.offset, u.position[1] = std::fabs(my) * u.offset;
  u.axis_angle = std::sqrt(std::max(0.0, cov(1, 1)));
  u.axis_point = giPoint3(ox, oy, 0.0);
  MatrixXd t = MatrixXd::Zero(4, 2);  // (h, a) -> (point, direction)
  t(0, 0) = mx, t(1, 0) = my, t(2, 1) = mx, t(3, 1) = my;
  store(cov, u.independent);
  store(t * cov * t.transpose(), u.parameters);
  out = u;
  return succeed();
}

int gfLeastSquareUncertainty::ellipse(giPoint2coDynArr const& points, giPoint2 const& centre, double a, double b,
                                      double angle, gfElementUncertainty& out) {
  const int n = points.count();
  if (n < 6) return refuse(gfReason::too_few_points, "too few points for the uncertainty");
  for (giPoint2 const& p : points)
    if (!p.finite()) return refuse(gfReason::non_finite_input, "a coordinate is not finite");
  if (!centre.finite() || !std::isfinite(a) || !std::isfinite(b) || !std::isfinite(angle))
    return refuse(gfReason::non_finite_input, "the ellipse is not finite");
  // The problem's parameters are all independent, except for a circle, whose angle the data
  // do not fix: the rank test below refuses it.
  gfLeastSquareEllipse problem(points);
  mlVector params(5);
  params[0] = a, params[1] = b, params[2] = centre.x(), params[3] = centre.y(), params[4] = angle;
  double ss = 0.0, s2 = 0.0;
  MatrixXd cov;
  MatrixXd r = problem_factor(problem, params, ss);
  if (!std::isfinite(ss) || !covariance_from_factor(r, ss, n - 5, cov, s2))
    return refuse(gfReason::not_determined, "the points do not determine the ellipse");
  gfElementUncertainty u;
  u.sigma = std::sqrt(s2);
  u.degrees_of_freedom = n - 5;
  u.position[0] = std::sqrt(std::max(0.0, cov(2, 2))), u.position[1] = std::sqrt(std::max(0.0, cov(3, 3)));
  u.radius = std::sqrt(std::max(0.0, cov(0, 0)));
  u.diameter = 2.0 * u.radius;
  u.second_radius = std::sqrt(std::max(0.0, cov(1, 1)));
  u.axis_angle = std::sqrt(std::max(0.0, cov(4, 4)));
  u.axis_point = giPoint3(centre.x(), centre.y(), 0.0);
  store(cov, u.independent);
  store(cov, u.parameters);
  out = u;
  return succeed();
}
