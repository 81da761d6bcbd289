#include "gfit/alignment/points_to_lines.h"

#include <Eigen/Dense>
#include <cmath>
#include <cstdio>

#include "gfit/platform/report.h"

namespace {
using Vec2 = Eigen::Vector2d;
using Vec3 = Eigen::Vector3d;
using Mat3 = Eigen::Matrix3d;

Vec2 v2(giPoint2 const& p) { return {p.x(), p.y()}; }
Vec2 v2(giVector2 const& p) { return {p.x(), p.y()}; }
double cross(Vec2 const& a, Vec2 const& b) { return a.x() * b.y() - a.y() * b.x(); }

// The refusal text: fixed storage, so a pointer a host kept never dangles.
thread_local char refusal_text[160];
}  // namespace

gfPointsToLines::gfPointsToLines() : records_(0, 64) {}

void gfPointsToLines::reserve(int n) {
  if (n > 0) records_.reserve(n);
}

void gfPointsToLines::add(giPoint2 const& measured, giPoint2 const& line_point, giVector2 const& normal, double weight) {
  if (weight == 0.0) return;
  giUnitVec2 n = normal.invalid() ? giUnitVec2() : normal.unit();
  if (!measured.finite() || measured.invalid() || !line_point.finite() || line_point.invalid() || n.invalid() ||
      !std::isfinite(weight))
    bad_input_ = true;
  records_.append(gfLineAndPoint(measured, line_point, giVector2(n) * std::fabs(weight)));
}

int gfPointsToLines::single_linear_step(giXform2& step) {
  using gfit::detail::refuse;
  if (bad_input_) return refuse(gfReason::non_finite_input, "a point, normal or weight is not finite");
  const int n = records_.count();
  if (n == 0) return refuse(gfReason::too_few_points, "no measured point to fit");

  Vec2 c = Vec2::Zero();
  double sw = 0.0;
  for (gfLineAndPoint const& r : records_) {
    double w = r.weighted_normal().length();
    c += w * v2(r.measured_point());
    sw += w;
  }
  c /= sw;
  double lever = 0.0;
  for (gfLineAndPoint const& r : records_) lever += (v2(r.measured_point()) - c).squaredNorm();
  lever = std::sqrt(lever / n);
  if (!(lever > 0.0)) lever = 1.0;

  // Normal equations, streamed; the sums the attraction needs.
  Mat3 h = Mat3::Zero();
  Vec3 b = Vec3::Zero();
  Vec2 arm_sum = Vec2::Zero();
  double spread = 0.0, sum_w2 = 0.0;
  for (gfLineAndPoint const& r : records_) {
    Vec2 wn = v2(r.weighted_normal()), arm = v2(r.measured_point()) - c;
    Vec3 j(cross(arm, wn) / lever, wn.x(), wn.y());  // the weighted row
    double ws = wn.dot(v2(r.measured_point()) - v2(r.line_point()));
    h += j * j.transpose();
    b += ws * j;
    arm_sum += arm;
    spread += arm.squaredNorm();
    sum_w2 += wn.squaredNorm();
  }
  if (attraction_ != 0.0) {
    // sum |omega perp(arm) + t|^2 / n in the scaled unknowns.
    Mat3 movement;
    movement << spread / (lever * lever), -arm_sum.y() / lever, arm_sum.x() / lever,  //
        -arm_sum.y() / lever, n, 0.0,                                                  //
        arm_sum.x() / lever, 0.0, n;
    h += attraction_ * (sum_w2 / n) * movement / n;
  } else {
    Eigen::SelfAdjointEigenSolver<Mat3> eig(h);
    if (!(eig.eigenvalues()(0) > TINY_DOUBLE * eig.eigenvalues()(2))) {
      Vec3 v = eig.eigenvectors().col(0);
      double omega = v(0) / lever;
      if (std::fabs(v(0)) < 1e-6 * v.norm()) {
        Vec2 d = v.tail<2>().normalized();
        if (std::fabs(d.x()) > std::fabs(d.y()) ? d.x() < 0 : d.y() < 0) d = -d;
        std::snprintf(refusal_text, sizeof refusal_text, "the lines leave free: translation along (%.6g, %.6g)", d.x() + 0.0, d.y() + 0.0);
      } else {
        // The velocity omega perp(x - c) + t vanishes at c + perp(t) / omega.
        Vec2 p = c + Vec2(-v(2), v(1)) / omega;
        std::snprintf(refusal_text, sizeof refusal_text, "the lines leave free: rotation about (%.6g, %.6g)", p.x() + 0.0, p.y() + 0.0);
      }
      return refuse(gfReason::not_determined, refusal_text);
    }
  }
  Eigen::LDLT<Mat3> ldlt(h);
  Vec3 x = ldlt.solve(-b);
  if (ldlt.info() != Eigen::Success || !x.allFinite())
    return refuse(gfReason::not_determined, "the lines do not determine the step");

  giXform2 rotation(giXformIdentity{});
  if (x(0) != 0.0) rotation = giXform2(giXformRotate{}, giPoint2(c.x(), c.y()), giAngle(x(0) / lever));
  step = giXform2(giXformTranslate{}, giVector2(x(1), x(2))) * rotation;
  return 1;
}
