#include "gfit/leastsquares/axis_of_revolution.h"

#include <cfloat>
#include <cmath>

#include "gfit/leastsquares/evaluator.h"
#include "gfit/leastsquares/refusal.h"
#include "gfit/platform/levenberg_marquardt.h"

gfLeastSquareAxisRev::gfLeastSquareAxisRev(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals)
    : gfLeastSquareDistance3(6, points), normals_(normals) {}
gfLeastSquareAxisRev::~gfLeastSquareAxisRev() = default;

void gfLeastSquareAxisRev::normalize_parameters(mlVector& p) const { gfit::detail::canonical_axis(p); }

void gfLeastSquareAxisRev::get_distance(double& d, int i) const {
  mlVector const& p = parameters();
  giVector3 w = normals_[i].cross(giVector3(p[3], p[4], p[5]));
  const double s = w.length();
  d = s <= 1e-7 ? 0.0 : (points()[i] - giPoint3(p[0], p[1], p[2])).dot(w) / s;
}

void gfLeastSquareAxisRev::get_distance_and_gradient(double& d, mlVector& g, int i) const {
  mlVector const& p = parameters();
  const giVector3 n = normals_[i];
  const giVector3 w = n.cross(giVector3(p[3], p[4], p[5]));
  const double s = w.length();
  if (s <= 1e-7) {
    d = 0.0;  // the normal runs along the axis: no offset, and the gradient is left as it was
    return;
  }
  const giVector3 q = points()[i] - giPoint3(p[0], p[1], p[2]);
  d = q.dot(w) / s;
  // d(d)/dP = -w / |w|;  d(d)/du = (q x n) / |w| + d (n x w) / |w|^2
  const giVector3 du = q.cross(n) / s + n.cross(w) * (d / (s * s));
  g[0] = -w.x() / s;
  g[1] = -w.y() / s;
  g[2] = -w.z() / s;
  g[3] = du.x();
  g[4] = du.y();
  g[5] = du.z();
}

int gfLeastSquareAxisRev::n_independent_parameters() const { return 4; }

void gfLeastSquareAxisRev::parameter_scales(mlVector& s) const {
  gfLeastSquareDistance3::parameter_scales(s);
  mlVector const& p = parameters();
  const giPoint3 P(p[0], p[1], p[2]);
  double largest = 0.0;
  for (giPoint3 const& q : points()) largest = std::fmax(largest, q.distance(P));
  s[3] = s[4] = s[5] = largest;
}

namespace {
bool unset(giPoint3 const& p) {
  for (int k = 0; k < 3; ++k)
    if (p[k] == DBL_MAX || p[k] == -DBL_MAX || std::isnan(p[k])) return true;
  return false;
}
}  // namespace

void gfLeastSquareAxisRev::evaluate_with_guess(giPoint3& point, giUnitVec3& direction, double& value) {
  const giPoint3 start_point = unset(point) ? centroid() : point;
  mlVector start{start_point.x(), start_point.y(), start_point.z(), direction.x(), direction.y(), direction.z()};
  mlVector result(6);
  mlLevenbergMarquardt lm(*this);
  value = lm.fit(start, result);
  point = giPoint3(result[0], result[1], result[2]);
  direction = giUnitVec3(result[3], result[4], result[5]);
}

void gfLeastSquareAxisRev::evaluate(giPoint3& point, giUnitVec3& direction, double& value) {
  const giPoint3 start_point = unset(point) ? centroid() : point;
  // A start is good enough when the normal lines miss the axis by a thousandth of the
  // points' extent in RMS (0.1 on a part 100 across): lengths with lengths, so that the
  // choice does not depend on the unit.
  constexpr double kGoodEnough = 1e-3;
  const double scale = range();
  value = DBL_MAX;
  for (int k = 0; k < num_guess_directions(); ++k) {
    giPoint3 p = start_point;
    giUnitVec3 u = guess_direction(k);
    double v = DBL_MAX;
    evaluate_with_guess(p, u, v);
    if (v < value) {
      value = v;
      point = p;
      direction = u;
      if (std::sqrt(value) <= kGoodEnough * scale) break;
    }
  }
}

int gfLeastSquareEvaluator::evaluate_axis_rev(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals,
                                              giPoint3& point, giUnitVec3& direction, double& residual) {
  using gfit::detail::refuse;
  const int n = points.count();
  if (n < 6) return refuse(gfReason::too_few_points);
  if (!gfit::detail::check_normals(normals, n, false) ||
      !gfit::detail::check_points(points, 6, gfit::detail::Span::line))
    return 0;
  if (!direction.invalid() && !(std::isfinite(direction.x()) && std::isfinite(direction.y()) &&
                                std::isfinite(direction.z())))
    return refuse(gfReason::non_finite_input, "the starting direction is not finite");
  gfLeastSquareAxisRev problem(points, normals);
  giPoint3 p = point;
  giUnitVec3 u = direction;
  double value = DBL_MAX;
  if (!direction.invalid())
    problem.evaluate_with_guess(p, u, value);
  else
    problem.evaluate(p, u, value);
  if (!(value < DBL_MAX) || !std::isfinite(value) || u.invalid() || !p.finite())
    return refuse(gfReason::no_convergence);
  // The Jacobian at the axis point nearest the centroid; a normal along the axis leaves its
  // gradient unwritten, so the rows are formed point by point from cleared gradients.
  mlVector axis{p.x(), p.y(), p.z(), u.x(), u.y(), u.z()};
  gfit::detail::slide_axis_point(axis, problem.centroid());
  if (!gfit::detail::determined(gfit::detail::determination(problem, axis, -1, -1, true)))
    return refuse(gfReason::not_determined);
  point = p;
  direction = u;
  residual = std::sqrt(value);
  return gfit::detail::succeed();
}
