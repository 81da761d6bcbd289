#include "gfit/leastsquares/cone.h"

#include <algorithm>
#include <atomic>
#include <cmath>

#include "gfit/leastsquares/refusal.h"
#include "gfit/leastsquares/search_shared.h"

namespace {
constexpr double kPi = 3.141592653589793;

// The one process-wide value of the least-squares fits.
std::atomic<double> g_non_physical_tolerance{0.05};
}  // namespace

double gfSetLeastSquareConeNonPhysicalTolerance(double tolerance) {
  return g_non_physical_tolerance.exchange(tolerance);
}

double gfLeastSquareConeNonPhysicalTolerance() { return g_non_physical_tolerance.load(); }

// ---- the fitted value -------------------------------------------------------------------

int gfFittedCone::coincident(gfFittedCone const& other, double distance_tolerance,
                             giAngle const& angle_tolerance) const {
  if (distance_tolerance < 0.0 || apex_.invalid() || other.apex_.invalid()) return 0;
  const double apart = apex_.distance(other.apex_);
  if (!(apart < DBL_MAX) || apart > distance_tolerance) return 0;
  if (!half_angle_.coincident(other.half_angle_, angle_tolerance)) return 0;
  return std::fabs(axis_.dot(other.axis_)) >= angle_tolerance.cos() ? 1 : 0;
}

int gfFittedCone::invalid() const {
  const double theta = half_angle_.radians();
  return apex_.invalid() || axis_.invalid() || !(theta > 0.0 && theta < kPi / 2) || !(deviation_ >= 0.0) ? 1 : 0;
}

// ---- the problem ------------------------------------------------------------------------

gfLeastSquareCone::gfLeastSquareCone(giPoint3coDynArr const& points)
    : AxialProblem(8, points, giPoint3(0.0, 0.0, 0.0)), dF_(6), dG_(6) {}
gfLeastSquareCone::gfLeastSquareCone(giPoint3coDynArr const& points, giPoint3 const& origin)
    : AxialProblem(8, points, origin), dF_(6), dG_(6) {}

namespace {
// Point q measured from the frame origin (q itself when that is the coordinate origin).
inline giPoint3 from_origin(giPoint3 const& q, double const* origin) {
  return giPoint3(q.x() - origin[0], q.y() - origin[1], q.z() - origin[2]);
}
}  // namespace
gfLeastSquareCone::~gfLeastSquareCone() = default;

void gfLeastSquareCone::set_parameters(mlVector const& p) {
  if (p.size() < 8) {
    mlVector grown = p;
    grown.resize(8);
    mlDistanceLeastSquares::set_parameters(grown);
  } else {
    mlDistanceLeastSquares::set_parameters(p);
  }
  const double theta = parameters()[7];
  cos_ = std::cos(theta);
  sin_ = std::sin(theta);
}

void gfLeastSquareCone::normalize_parameters(mlVector& p) const {
  double theta = p[7], d = p[6], sign = 1.0;
  theta -= 2.0 * kPi * std::floor(theta / (2.0 * kPi));
  if (theta > kPi) {
    theta -= kPi * std::floor(theta / kPi);
    d = -d;
  }
  if (theta > kPi / 2) {
    theta = kPi - theta;
    sign = -1.0;
    d = -d;
  }
  // Slide A to the foot of the perpendicular from the origin; the offset follows so that
  // the surface stays where it was.
  const double t = gfit::detail::canonical_axis(p, sign);
  p[6] = d + t * std::sin(theta);
  p[7] = theta;
}

void gfLeastSquareCone::get_distance(double& d, int i) const {
  mlVector const& p = parameters();
  const giUnitVec3 u(p[3], p[4], p[5]);
  const giVector3 q = from_origin(points()[i], origin_) - giPoint3(p[0], p[1], p[2]);
  d = u.dot(q) * sin_ + u.cross(q).length() * cos_ - p[6];
}

void gfLeastSquareCone::get_distance_and_gradient(double& d, mlVector& g, int i) const {
  mlVector const& p = parameters();
  double F = 0.0, G = 0.0;
  F_G_and_derivatives(giPoint3(p[0], p[1], p[2]), giUnitVec3(p[3], p[4], p[5]), from_origin(points()[i], origin_), F,
                      dF_, G, dG_);
  d = F * sin_ + G * cos_ - p[6];
  for (int k = 0; k < 6; ++k) g[k] = dF_[k] * sin_ + dG_[k] * cos_;
  g[6] = -1.0;
  g[7] = F * cos_ - G * sin_;
}

void gfLeastSquareCone::offset_block(double const* offsets, int first, int count, double* distances,
                                     double* squares, double* jacobian, int ld) const {
  // The per-point operations in one loop, with the unit direction formed once.
  mlVector const& p = parameters();
  const gfit::detail::AxisFrame frame(p, origin_);
  const double ux = frame.ux, uy = frame.uy, uz = frame.uz, off = p[6], s = sin_, c = cos_;
  giPoint3 const* q = points().data() + first;
  gfit::detail::AxialPoint a;
  for (int k = 0; k < count; ++k) {
    frame.locate(q[k], a);
    const double F = a.F, G = a.G;
    const double d = offsets ? F * s + G * c - off + offsets[first + k] : F * s + G * c - off;
    distances[k] = d;
    squares[k] = d * d;
    if (!jacobian) continue;
    frame.gradient(a);
    jacobian[k] = -ux * s + a.g0 * c;
    jacobian[ld + k] = -uy * s + a.g1 * c;
    jacobian[2 * ld + k] = -uz * s + a.g2 * c;
    jacobian[3 * ld + k] = (a.dx - ux * F) * s + F * a.g0 * c;
    jacobian[4 * ld + k] = (a.dy - uy * F) * s + F * a.g1 * c;
    jacobian[5 * ld + k] = (a.dz - uz * F) * s + F * a.g2 * c;
    jacobian[6 * ld + k] = -1.0;
    jacobian[7 * ld + k] = F * c - G * s;
  }
}

int gfLeastSquareCone::n_independent_parameters() const { return n_parameters() - 2; }

void gfLeastSquareCone::parameter_scales(mlVector& s) const {
  mlVector const& p = parameters();
  const giUnitVec3 u(p[3], p[4], p[5]);
  const giPoint3 apex = giPoint3(p[0], p[1], p[2]) + u * (p[6] / sin_);
  double L = 0.0;
  for (giPoint3 const& q : points()) L = std::fmax(L, from_origin(q, origin_).distance(apex));
  s.resize(n_parameters());
  s[0] = s[1] = s[2] = 1.0;
  s[3] = s[4] = s[5] = L;
  s[6] = 1.0 / sin_;
  s[7] = L;
}

int gfLeastSquareCone::are_normals_in_limit(giPoint3coDynArr const& points, giAngle const& limit,
                                            giUnitVec3 const& guess, giUnitVec3coDynArr const& normals,
                                            mlVector& parameters) {
  const giUnitVec3 u(parameters[3], parameters[4], parameters[5]);
  if (!guess.invalid() && std::fabs(u.dot(guess)) < limit.cos()) return 0;
  if (normals.count() == 0) return 1;
  const giPoint3 A(parameters[0], parameters[1], parameters[2]);
  const double s = std::sin(parameters[7]), c = std::cos(parameters[7]), cos_limit = limit.cos();
  bool outward = true, inward = true;
  const int n = std::min(points.count(), normals.count());
  for (int i = 0; i < n && (outward || inward); ++i) {
    const giVector3 d = points[i] - A;
    const giVector3 radial = d - u * u.dot(d);
    const double len = radial.length();
    if (!(len > 0.0)) continue;  // a point on the axis has no radial direction to judge
    // The cone's outward unit normal there: sin(theta) u + cos(theta) radial / |radial|.
    const double cos_angle = s * normals[i].dot(u) + c * normals[i].dot(radial) / len;
    if (cos_angle < cos_limit) outward = false;
    if (-cos_angle < cos_limit) inward = false;
  }
  return outward || inward ? 1 : 0;
}

void gfLeastSquareCone::add_distinct_result(gfFittedCone const& cone, double distance_tolerance,
                                            giAngle angle_tolerance, gfFittedConecoDynArr& list) {
  gfit::detail::add_distinct(cone, distance_tolerance, angle_tolerance, list);  // coincidence is symmetric
}

// ---- the cone about a fixed axis --------------------------------------------------------

gfLeastSquareConeFixedAxis::gfLeastSquareConeFixedAxis(giPoint3coDynArr const& points, giPoint3 const& centroid,
                                                       giUnitVec3 const& w)
    : gfLeastSquareDistance3(4, points), centroid_(centroid), w_(w), e1_(w.any_normal()), e2_(w.cross(e1_)) {}
gfLeastSquareConeFixedAxis::~gfLeastSquareConeFixedAxis() = default;

void gfLeastSquareConeFixedAxis::set_parameters(mlVector const& p) {
  mlDistanceLeastSquares::set_parameters(p);
  cos_ = std::cos(p[3]);
  sin_ = std::sin(p[3]);
}

void gfLeastSquareConeFixedAxis::normalize_parameters(mlVector& p) const {
  // theta and theta - pi (with d reversed) are the same surface: keep (-pi/2, pi/2].
  double theta = p[3] - 2.0 * kPi * std::floor((p[3] + kPi) / (2.0 * kPi));  // (-pi, pi]
  if (theta > kPi / 2) {
    theta -= kPi;
    p[2] = -p[2];
  } else if (theta <= -kPi / 2) {
    theta += kPi;
    p[2] = -p[2];
  }
  p[3] = theta;
}

void gfLeastSquareConeFixedAxis::get_distance(double& d, int i) const {
  double distance[1], square[1];
  evaluate_block(i, 1, distance, square, nullptr, 0);
  d = distance[0];
}

void gfLeastSquareConeFixedAxis::get_distance_and_gradient(double& d, mlVector& g, int i) const {
  double distance[1], square[1], jacobian[4];
  evaluate_block(i, 1, distance, square, jacobian, 1);
  d = distance[0];
  for (int k = 0; k < 4; ++k) g[k] = jacobian[k];
}

void gfLeastSquareConeFixedAxis::evaluate_block(int first, int count, double* distances, double* squares,
                                                double* jacobian, int ld) const {
  mlVector const& p = parameters();
  const double a = p[0], b = p[1], off = p[2], s = sin_, c = cos_;
  const double cx = centroid_.x(), cy = centroid_.y(), cz = centroid_.z();
  giPoint3 const* q = points().data() + first;
  for (int k = 0; k < count; ++k) {
    const giVector3 r(q[k].x() - cx, q[k].y() - cy, q[k].z() - cz);
    const double x = e1_.dot(r) - a, y = e2_.dot(r) - b, F = w_.dot(r);
    const double G = std::sqrt(x * x + y * y);
    const double d = F * s + G * c - off;
    distances[k] = d;
    squares[k] = d * d;
    if (!jacobian) continue;
    const double inv = G > 1e-7 ? 1.0 / G : 0.0;
    jacobian[k] = -x * inv * c;
    jacobian[ld + k] = -y * inv * c;
    jacobian[2 * ld + k] = -1.0;
    jacobian[3 * ld + k] = F * c - G * s;
  }
}

void gfLeastSquareConeFixedAxis::to_cone(mlVector const& fixed, mlVector& cone) const {
  const giPoint3 A = centroid_ + e1_ * fixed[0] + e2_ * fixed[1];
  cone.resize(8);
  cone[0] = A.x();
  cone[1] = A.y();
  cone[2] = A.z();
  cone[3] = w_.x();
  cone[4] = w_.y();
  cone[5] = w_.z();
  cone[6] = fixed[2];
  cone[7] = fixed[3];
}

double gfLeastSquareConeFixedAxis::sum_of_distances() const {
  double distances[64], squares[64], sum = 0.0;
  for (int first = 0; first < n_points(); first += 64) {
    const int count = std::min(64, n_points() - first);
    evaluate_block(first, count, distances, squares, nullptr, 0);
    for (int k = 0; k < count; ++k) sum += distances[k];
  }
  return sum;
}

// ---- the choice among candidates --------------------------------------------------------

gfLeastSquareConeResults::gfLeastSquareConeResults(utObserverPtr<giPoint3coDynArr const> points,
                                                   utObserverPtr<giUnitVec3coDynArr const> normals,
                                                   giVector3 const& guide, giAngle const& angle, double scale,
                                                   double tolerance)
    : points_(points), normals_(normals), guide_(guide), angle_(angle), scale_(scale), tolerance_(tolerance) {}

void gfLeastSquareConeResults::add(double value, mlVector& parameters) {
  if (parameters.size() < 8) parameters.resize(8);
  const double phi = std::fabs(parameters[7]);
  static const giPoint3coDynArr no_points;
  static const giUnitVec3coDynArr no_normals;
  const giUnitVec3 guide = guide_.invalid() ? giUnitVec3() : giUnitVec3(guide_);
  const bool accepted = gfLeastSquareCone::are_normals_in_limit(points_ ? *points_ : no_points, angle_, guide,
                                                               normals_ ? *normals_ : no_normals, parameters) != 0;
  const bool physical = tolerance_ < phi && phi < kPi / 2 - tolerance_;
  Slot& accepted_slot = slots_[physical ? 0 : 1];
  Slot& any_slot = slots_[physical ? 2 : 3];
  if (accepted && value < accepted_slot.value) {
    accepted_slot.value = value;
    accepted_slot.parameters = parameters;
  }
  if (value < any_slot.value) {
    any_slot.value = value;
    any_slot.parameters = parameters;
  }
}

void gfLeastSquareConeResults::get_best(double& value, mlVector& parameters) const {
  // Agreement with the normals and the guide is given up when it costs more than a
  // thousandth of the scale in RMS.
  auto choose = [&](Slot const& accepted, Slot const& any) -> Slot const& {
    return std::sqrt(accepted.value) - std::sqrt(any.value) > 0.001 * scale_ ? any : accepted;
  };
  Slot const& P = choose(slots_[0], slots_[2]);
  Slot const& N = choose(slots_[1], slots_[3]);
  const double phi = std::fabs(P.parameters[7]);
  const bool doubtful = phi < 2.0 * tolerance_ || phi > kPi / 2 - 2.0 * tolerance_;
  Slot const& best = N.value < 0.01 * P.value || (N.value < P.value && doubtful) ? N : P;
  value = best.value;
  parameters = best.parameters;
}

bool gfit::detail::cone_outputs(mlVector const& p, double value, giPoint3& apex, giUnitVec3& axis,
                                double& half_angle, double& residual) {
  return cone_outputs(p, giPoint3(0.0, 0.0, 0.0), value, apex, axis, half_angle, residual);
}

bool gfit::detail::cone_outputs(mlVector const& p, giPoint3 const& origin, double value, giPoint3& apex,
                                giUnitVec3& axis, double& half_angle, double& residual) {
  const double s = std::sin(p[7]);
  const giUnitVec3 u(p[3], p[4], p[5]);
  if (!(s >= 1e-12) || u.invalid()) return false;
  const giVector3 from = giVector3(p[0], p[1], p[2]) + u * (p[6] / s);
  const giPoint3 k = origin + from;
  if (!k.finite() || !std::isfinite(value) || !std::isfinite(p[7])) return false;
  apex = k;
  axis = u;
  half_angle = p[7];
  residual = std::sqrt(value);
  return true;
}

bool gfit::detail::cone_determined(gfLeastSquareDistance3& problem, mlVector const& p, double value, double extent) {
  if (!std::isfinite(value)) return refuse(gfReason::no_convergence) != 0;
  const double s = std::sin(p[7]);
  const giUnitVec3 u(p[3], p[4], p[5]);
  if (!(s >= 1e-12) || u.invalid())
    return refuse(gfReason::not_determined, "the points do not determine the cone: its apex runs to infinity") != 0;
  // The apex and the centroid both in the problem's frame.
  const giPoint3 apex = giPoint3(p[0], p[1], p[2]) + u * (p[6] / s);
  if (!apex.finite() || !within_size_bound(apex.distance(centroid_in_frame(problem)), extent))
    return refuse(gfReason::not_determined, "the points do not determine the cone: its apex runs to infinity") != 0;
  if (!determined(axial_determination(problem, p))) return refuse(gfReason::not_determined) != 0;
  return true;
}
