#include "gfit/leastsquares/distribution_quality.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>

#include "gfit/leastsquares/circle.h"
#include "gfit/leastsquares/cone.h"
#include "gfit/leastsquares/cylinder.h"
#include "gfit/leastsquares/distance.h"
#include "gfit/leastsquares/ellipse.h"
#include "gfit/leastsquares/probed.h"
#include "gfit/leastsquares/probed_cylinder_cone.h"
#include "gfit/leastsquares/sphere.h"
#include "gfit/leastsquares/torus.h"
#include "gfit/platform/qr_accumulator.h"
#include "gfit/platform/report.h"
#include "gfit/platform/xform.h"
#include "gfit/utilities/vector_utils.h"

using gfit::detail::all_finite;
using gfit::detail::refuse;

namespace {

constexpr double kPi = 3.14159265358979323846;
// Divisors that bring well spread points near 1 (see the header for the calibration).
constexpr double kCircleDivisor = 0.708;
constexpr double kSphereDivisor = 0.578;
constexpr double kCylinderDivisor = 0.26;
constexpr double kConeDivisor = 0.15;
constexpr double kTorusDivisor = 0.51;
constexpr double kProbedCylinderDivisor = 0.177;
// The floor of the line's width and of the plane's thickness, and the plane's ratio guard.
constexpr double kMinimumWidth = 1e-4;
constexpr int kMinimumCurvedPoints = 3;

double refused(gfReason reason, char const* message) {
  refuse(reason, message);
  return 0.0;
}

double formed(double q) {
  if (!std::isfinite(q) || q < 0.0) return refused(gfReason::failed, "the distribution measure could not be formed");
  gfit::detail::succeed();
  return q;
}

bool usable(giUnitVec3 const& u) {
  return !u.invalid() && std::isfinite(u.x()) && std::isfinite(u.y()) && std::isfinite(u.z());
}
bool usable(giUnitVec2 const& u) { return !u.invalid() && std::isfinite(u.x()) && std::isfinite(u.y()); }
bool usable(giPoint3 const& p) { return p.finite() && !p.invalid(); }
bool usable(giPoint2 const& p) { return p.finite() && !p.invalid(); }

// The measure of a problem at `parameters`, divided by `divisor`.
double curved(mlDistanceLeastSquares& problem, mlVector const& parameters, double divisor) {
  return formed(problem.point_distribution_quality(parameters) / divisor);
}

// Common checks of the curved elements' points; returns false after recording a refusal.
template <class Points>
bool points_usable(Points const& points) {
  if (points.count() < kMinimumCurvedPoints) return refuse(gfReason::too_few_points, "fewer than 3 points"), false;
  if (!all_finite(points)) return refuse(gfReason::non_finite_input, "a point coordinate is not finite"), false;
  return true;
}

bool probe_radii_usable(doublecoDynArr const& radii, int n) {
  if (radii.count() != n) return refuse(gfReason::bad_companion_array, "probe radii not one per point"), false;
  if (!all_finite(radii)) return refuse(gfReason::non_finite_input, "a probe radius is not finite"), false;
  for (double r : radii)
    if (r < 0.0) return refuse(gfReason::bad_probe_radius, "a probe radius is negative"), false;
  return true;
}

// L / (factor w + L) over points given as offsets from the line's point: t along the unit
// direction, h across it.
template <class Offsets>
double line_measure(int n, Offsets offset_of, double factor) {
  double lo = 0.0, hi = 0.0, w = kMinimumWidth;
  for (int i = 0; i < n; ++i) {
    double t = 0.0, h = 0.0;
    offset_of(i, t, h);
    if (i == 0 || t < lo) lo = t;
    if (i == 0 || t > hi) hi = t;
    w = std::fmax(w, h);
  }
  const double L = hi - lo;
  return L / (factor * w + L);
}

// Axis point moved along the axis to the foot of the points' centroid: the sensitivity to
// a tilt is taken about the axis point, so this makes the measure independent of where the
// caller's point happens to lie on the axis.
mlVector cylinder_parameters(giPoint3coDynArr const& points, giPoint3 const& point, giUnitVec3 const& axis,
                             double radius) {
  const giPoint3 c = gfit::detail::mean_of(points.data(), points.count());
  const giPoint3 foot = point + axis * axis.dot(c - point);
  return mlVector{foot.x(), foot.y(), foot.z(), axis.x(), axis.y(), axis.z(), radius};
}

bool cylinder_usable(giPoint3 const& point, giUnitVec3 const& axis, double radius) {
  if (!usable(point) || !std::isfinite(radius))
    return refuse(gfReason::non_finite_input, "the cylinder's point or radius is not finite"), false;
  if (!usable(axis)) return refuse(gfReason::invalid_argument, "the cylinder's axis is unset"), false;
  return true;
}

bool cone_usable(giPoint3 const& apex, giUnitVec3 const& axis, double half_angle) {
  if (!usable(apex) || !std::isfinite(half_angle))
    return refuse(gfReason::non_finite_input, "the cone's apex or half-angle is not finite"), false;
  if (!usable(axis)) return refuse(gfReason::invalid_argument, "the cone's axis is unset"), false;
  if (!(half_angle > 0.0 && half_angle < 0.5 * kPi))
    return refuse(gfReason::invalid_argument, "the cone's half-angle is not between 0 and pi/2"), false;
  return true;
}

mlVector cone_parameters(giPoint3 const& apex, giUnitVec3 const& axis, double half_angle) {
  return mlVector{apex.x(), apex.y(), apex.z(), axis.x(), axis.y(), axis.z(), 0.0, half_angle};
}

// The circle in the plane through `origin` with `normal`: points and centre in that plane's
// coordinates.
double circle_in_plane(giPoint3 const& origin, giUnitVec3 const& normal, giPoint3coDynArr const& points,
                       giPoint3 const& centre, double radius) {
  if (!points_usable(points)) return 0.0;
  if (!usable(origin) || !usable(centre) || !std::isfinite(radius))
    return refused(gfReason::non_finite_input, "the plane's origin, the centre or the radius is not finite");
  if (!usable(normal)) return refused(gfReason::invalid_argument, "the plane's normal is unset");
  giPoint2coDynArr in_plane;
  giXform3 to_plane;
  gfUtils::ProjectPointsToPlane(points, origin, normal, in_plane, &to_plane);
  if (in_plane.count() < kMinimumCurvedPoints) return refused(gfReason::too_few_points, "fewer than 3 points");
  const giPoint3 c = to_plane.transform(centre);
  gfLeastSquareCircle2 problem(in_plane);
  return curved(problem, mlVector{c.x(), c.y(), radius}, kCircleDivisor);
}

}  // namespace

// ---- lines and planes -------------------------------------------------------------------

double gfLeastSquareDistributionQuality::distribution_quality_line(giPoint2coDynArr const& points,
                                                                   giPoint2 const& point,
                                                                   giUnitVec2 const& direction) {
  const int n = points.count();
  if (n < 2) return refused(gfReason::too_few_points, "fewer than 2 points");
  if (!all_finite(points) || !usable(point))
    return refused(gfReason::non_finite_input, "a point coordinate is not finite");
  if (!usable(direction)) return refused(gfReason::invalid_argument, "the line's direction is unset");
  giPoint2 const* p = points.data();
  return formed(line_measure(
      n,
      [&](int i, double& t, double& h) {
        const giVector2 d = p[i] - point;
        t = direction.dot(d);
        h = std::fabs(direction.cross(d));
      },
      9.0));
}

double gfLeastSquareDistributionQuality::distribution_quality_line3(giPoint3coDynArr const& points,
                                                                    giPoint3 const& point,
                                                                    giUnitVec3 const& direction) {
  const int n = points.count();
  if (n < 2) return refused(gfReason::too_few_points, "fewer than 2 points");
  if (!all_finite(points) || !usable(point))
    return refused(gfReason::non_finite_input, "a point coordinate is not finite");
  if (!usable(direction)) return refused(gfReason::invalid_argument, "the line's direction is unset");
  giPoint3 const* p = points.data();
  return formed(line_measure(
      n,
      [&](int i, double& t, double& h) {
        const giVector3 d = p[i] - point;
        t = direction.dot(d);
        h = direction.cross(d).length();
      },
      999.0));
}

double gfLeastSquareDistributionQuality::distribution_quality_line2(giPoint3 const& origin, giUnitVec3 const& normal,
                                                                    giPoint3coDynArr const& points,
                                                                    giPoint3 const& point,
                                                                    giUnitVec3 const& direction) {
  const int n = points.count();
  if (n < 2) return refused(gfReason::too_few_points, "fewer than 2 points");
  if (!all_finite(points) || !usable(point) || !usable(origin))
    return refused(gfReason::non_finite_input, "a point coordinate is not finite");
  if (!usable(direction) || !usable(normal))
    return refused(gfReason::invalid_argument, "the line's direction or the plane's normal is unset");
  giPoint3 const* p = points.data();
  return formed(line_measure(
      n,
      [&](int i, double& t, double& h) {
        // The point dropped onto the plane, then measured from the line's point.
        const giVector3 d = (p[i] - normal * normal.dot(p[i] - origin)) - point;
        t = direction.dot(d);
        h = direction.cross(d).length();
      },
      999.0));
}

double gfLeastSquareDistributionQuality::distribution_quality_plane(giPoint3coDynArr const& points,
                                                                    giPoint3 const&, giUnitVec3 const&) {
  const int n = points.count();
  if (n < 3) return refused(gfReason::too_few_points, "fewer than 3 points");
  if (!all_finite(points)) return refused(gfReason::non_finite_input, "a point coordinate is not finite");
  // Principal axes: the right singular vectors of the centred points, streamed through the
  // triangular factor (the eigenvectors of the scatter matrix, without squaring it).
  giPoint3 const* p = points.data();
  const giPoint3 c = gfit::detail::mean_of(p, n);
  gfit::detail::TriangularAccumulator acc(3);
  for (int i = 0; i < n; ++i) {
    const double row[3] = {p[i].x() - c.x(), p[i].y() - c.y(), p[i].z() - c.z()};
    acc.add_row(row);
  }
  acc.flush();
  Eigen::Matrix3d r = Eigen::Matrix3d::Zero();
  for (int i = 0; i < 3; ++i)
    for (int j = i; j < 3; ++j) r(i, j) = acc.r(i, j);
  if (!r.allFinite()) return refused(gfReason::out_of_range, "the points' spread overflows");
  Eigen::JacobiSVD<Eigen::Matrix3d> svd(r, Eigen::ComputeFullV);
  const Eigen::Matrix3d v = svd.matrixV();  // columns by descending singular value
  double lo[3] = {0, 0, 0}, hi[3] = {0, 0, 0};
  for (int i = 0; i < n; ++i) {
    const Eigen::Vector3d d(p[i].x() - c.x(), p[i].y() - c.y(), p[i].z() - c.z());
    for (int k = 0; k < 3; ++k) {
      const double s = v.col(k).dot(d);
      if (i == 0 || s < lo[k]) lo[k] = s;
      if (i == 0 || s > hi[k]) hi[k] = s;
    }
  }
  const double L1 = hi[0] - lo[0], L2 = hi[1] - lo[1], T = std::fmax(kMinimumWidth, hi[2] - lo[2]);
  const double ratio = std::fmin(L1, L2) / (std::fmax(L1, L2) + kMinimumWidth);
  return formed(std::sqrt(ratio) * L1 * L2 / (999.0 * T * T + L1 * L2));
}

// ---- circles and spheres ----------------------------------------------------------------

double gfLeastSquareDistributionQuality::distribution_quality_circle(giPoint2coDynArr const& points,
                                                                     giPoint2 const& centre, double radius) {
  if (!points_usable(points)) return 0.0;
  if (!usable(centre) || !std::isfinite(radius))
    return refused(gfReason::non_finite_input, "the centre or the radius is not finite");
  gfLeastSquareCircle2 problem(points);
  return curved(problem, mlVector{centre.x(), centre.y(), radius}, kCircleDivisor);
}

double gfLeastSquareDistributionQuality::distribution_quality_circle2(giPoint3 const& origin,
                                                                      giUnitVec3 const& normal,
                                                                      giPoint3coDynArr const& points,
                                                                      giPoint3 const& centre, double radius) {
  return circle_in_plane(origin, normal, points, centre, radius);
}

double gfLeastSquareDistributionQuality::distribution_quality_circle3(giPoint3coDynArr const& points,
                                                                      giPoint3 const& centre,
                                                                      giUnitVec3 const& normal, double radius) {
  return circle_in_plane(centre, normal, points, centre, radius);
}

double gfLeastSquareDistributionQuality::distribution_quality_sphere(giPoint3coDynArr const& points,
                                                                     giPoint3 const& centre, double radius) {
  if (!points_usable(points)) return 0.0;
  if (!usable(centre) || !std::isfinite(radius))
    return refused(gfReason::non_finite_input, "the centre or the radius is not finite");
  gfLeastSquareSphere problem(points);
  return curved(problem, mlVector{centre.x(), centre.y(), centre.z(), radius}, kSphereDivisor);
}

// ---- axial elements ---------------------------------------------------------------------

double gfLeastSquareDistributionQuality::distribution_quality_cylinder(giPoint3coDynArr const& points,
                                                                       giPoint3 const& point,
                                                                       giUnitVec3 const& axis, double radius) {
  if (!points_usable(points) || !cylinder_usable(point, axis, radius)) return 0.0;
  gfLeastSquareCylinder problem(points);
  return curved(problem, cylinder_parameters(points, point, axis, radius), kCylinderDivisor);
}

double gfLeastSquareDistributionQuality::distribution_quality_cone(giPoint3coDynArr const& points,
                                                                   giPoint3 const& point, giUnitVec3 const& axis,
                                                                   double half_angle) {
  if (!points_usable(points) || !cone_usable(point, axis, half_angle)) return 0.0;
  gfLeastSquareCone problem(points);
  return curved(problem, cone_parameters(point, axis, half_angle), kConeDivisor);
}

double gfLeastSquareDistributionQuality::distribution_quality_torus(giPoint3coDynArr const& points,
                                                                    giPoint3 const& centre, giUnitVec3 const& axis,
                                                                    double r1, double r2) {
  if (!points_usable(points)) return 0.0;
  if (!usable(centre) || !std::isfinite(r1) || !std::isfinite(r2))
    return refused(gfReason::non_finite_input, "the torus's centre or a radius is not finite");
  if (!usable(axis)) return refused(gfReason::invalid_argument, "the torus's axis is unset");
  gfLeastSquareTorus problem(points);
  return curved(problem, mlVector{centre.x(), centre.y(), centre.z(), axis.x(), axis.y(), axis.z(), r1, r2},
                kTorusDivisor);
}

double gfLeastSquareDistributionQuality::distribution_quality_ellipse(giPoint2coDynArr const& points,
                                                                      giPoint2 const& centre, double a, double b,
                                                                      double angle) {
  if (!points_usable(points)) return 0.0;
  if (!usable(centre) || !std::isfinite(a) || !std::isfinite(b) || !std::isfinite(angle))
    return refused(gfReason::non_finite_input, "the ellipse's centre, a semi-axis or its angle is not finite");
  if (a == 0.0 || b == 0.0) return refused(gfReason::invalid_argument, "a semi-axis of the ellipse is zero");
  gfLeastSquareEllipse problem(points);
  return curved(problem, mlVector{a, b, centre.x(), centre.y(), angle}, 1.0);
}

// ---- probe-compensated elements ---------------------------------------------------------

double gfLeastSquareDistributionQuality::distribution_quality_probed_circle(giPoint2coDynArr const& points,
                                                                            doublecoDynArr const& radii, int inside,
                                                                            giPoint2 const& centre, double radius) {
  if (!points_usable(points) || !probe_radii_usable(radii, points.count())) return 0.0;
  if (!usable(centre) || !std::isfinite(radius))
    return refused(gfReason::non_finite_input, "the centre or the radius is not finite");
  gfLeastSquareProbedCircle2 problem(points, radii, inside);
  return curved(problem, mlVector{centre.x(), centre.y(), radius}, 1.0);
}

double gfLeastSquareDistributionQuality::distribution_quality_probed_cylinder(giPoint3coDynArr const& points,
                                                                              doublecoDynArr const& radii,
                                                                              int inside, giPoint3 const& point,
                                                                              giUnitVec3 const& axis,
                                                                              double radius) {
  if (!points_usable(points) || !probe_radii_usable(radii, points.count()) || !cylinder_usable(point, axis, radius))
    return 0.0;
  gfLeastSquareProbedCylinder problem(points, radii, inside);
  return curved(problem, cylinder_parameters(points, point, axis, radius), kProbedCylinderDivisor);
}

double gfLeastSquareDistributionQuality::distribution_quality_probed_cone(giPoint3coDynArr const& points,
                                                                          doublecoDynArr const& radii, int inside,
                                                                          giPoint3coDynArr const&,
                                                                          giPoint3 const& point,
                                                                          giUnitVec3 const& axis,
                                                                          double half_angle) {
  if (!points_usable(points) || !probe_radii_usable(radii, points.count()) || !cone_usable(point, axis, half_angle))
    return 0.0;
  gfLeastSquareProbedCone problem(points, radii, inside);
  return curved(problem, cone_parameters(point, axis, half_angle), 1.0);
}
