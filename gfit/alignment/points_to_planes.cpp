#include "gfit/alignment/points_to_planes.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <vector>

#include "gfit/platform/angle.h"
#include "gfit/platform/quadratic_minimiser.h"
#include "gfit/platform/report.h"

namespace {
using Vec6 = Eigen::Matrix<double, 6, 1>;
using Mat6 = Eigen::Matrix<double, 6, 6>;
using Vec3 = Eigen::Vector3d;

constexpr int max_removal_rounds = 6;
constexpr double rank_tolerance = 1e-10;  // relative singular value below which a lock row is dependent

Vec3 v3(giVector3 const& v) { return {v.x(), v.y(), v.z()}; }
Vec3 v3(giPoint3 const& p) { return {p.x(), p.y(), p.z()}; }
giVector3 gv(Vec3 const& v) { return {v.x(), v.y(), v.z()}; }
bool finite(giPoint3 const& p) { return p.finite() && !p.invalid(); }
bool finite(giVector3 const& v) { return !v.invalid() && std::isfinite(v.x()) && std::isfinite(v.y()) && std::isfinite(v.z()); }
bool lower_set(double lo) { return lo != -DBL_MAX; }
bool upper_set(double up) { return up != DBL_MAX; }

// Two unit vectors that complete d (unit) to an orthonormal frame.
void complete(Vec3 const& d, Vec3& u1, Vec3& u2) {
  Vec3 r = std::fabs(d.x()) > std::fabs(d.y()) ? Vec3(0, 1, 0) : Vec3(1, 0, 0);
  u1 = d.cross(r).normalized();
  u2 = d.cross(u1);
}

// The rotation by |w| about w, about the line through c.
giXform3 rotation(giPoint3 const& c, Vec3 const& w) {
  double angle = w.norm();
  if (!(angle > 0.0)) return giXform3(giXformIdentity{});
  Vec3 axis = w / angle;
  return giXform3(giXformRotate{}, c, giUnitVec3(axis.x(), axis.y(), axis.z()), giAngle(angle));
}

// One lock condition: row . x = rhs over x = (omega_scaled, t); which point and axis it
// checks afterwards.
struct LockRow {
  Vec6 row;
  double rhs;
  Vec3 measured, nominal, axis;
};
}  // namespace

gfPointsToPlanes::gfPointsToPlanes() : positioning_(0, 8), positioning2_(0, 8), bestfit_(0, 64) {}

void gfPointsToPlanes::reserve_bestfit(int n) {
  if (n > 0) bestfit_.reserve(n);
}

void gfPointsToPlanes::add_bestfit(giPoint3 const& measured, giPoint3 const& nominal, giVector3 const& normal,
                                   double lower, double upper, double weight) {
  if (weight == 0.0) return;
  giUnitVec3 n = finite(normal) ? normal.unit() : giUnitVec3();
  if (!finite(measured) || !finite(nominal) || n.invalid() || !std::isfinite(weight) || std::isnan(lower) ||
      std::isnan(upper) || lower == DBL_MAX || upper == -DBL_MAX || std::isinf(lower) || std::isinf(upper))
    bad_input_ = true;
  n_limits_ += (lower_set(lower) ? 1 : 0) + (upper_set(upper) ? 1 : 0);
  bestfit_.append(gfPlaneAndPoint(measured, nominal, giVector3(n), 0, lower, upper, weight));
}

void gfPointsToPlanes::add_positioning(giPoint3 const& measured, giWorkplane3 const& frame, giPoint3 const& nominal,
                                       int state_x, int state_y, int state_z, int kind) {
  if (!finite(measured) || !finite(nominal)) bad_input_ = true;
  giUnitVec3 const* axes[3] = {&frame.x_axis(), &frame.y_axis(), &frame.normal()};
  int const states[3] = {state_x, state_y, state_z};
  for (int k = 0; k < 3; ++k)
    if (states[k] == 0) positioning_.append(gfPlaneAndPoint(measured, nominal, giVector3(*axes[k]), kind, k, 0.0, POSITIONING_WEIGHT));
}

void gfPointsToPlanes::add_positioning(giPoint3 const& measured, giPoint3 const& nominal, giVector3 const& direction,
                                       int kind) {
  if (!finite(measured) || !finite(nominal)) bad_input_ = true;
  positioning2_.append(gfPlaneAndPoint(measured, nominal, direction, kind, -1.0, 0.0, POSITIONING_WEIGHT));
}

void gfPointsToPlanes::lock_direction(giVector3 const& measured, giVector3 const& nominal, int kind) {
  if (!finite(measured) || !finite(nominal) || measured.length() == 0.0 || nominal.length() == 0.0) bad_input_ = true;
  locked_directions_.append(measured);
  locked_directions_.append(nominal);
  locked_direction_kinds_.append(kind);
}

void gfPointsToPlanes::lock_rotations(giVector3 const& a, giVector3 const& b, giVector3 const& c) {
  for (giVector3 const* v : {&a, &b, &c})
    if (v->x() != -DBL_MAX) rotation_locks_.append(*v);
}

int gfPointsToPlanes::single_linear_step(giXform3& step) {
  int r;
  if (rotation_locks_.count() > 0)
    r = single_linear_step_translates(step);
  else if (locked_directions_.count() > 0)
    r = single_linear_step_locked_axis(step);
  else if (positioning_.count() + positioning2_.count() > 0)
    r = single_linear_step_locked_point(step);
  else
    r = single_linear_step_free(step);
  return r != 0 ? 1 : 0;
}

int gfPointsToPlanes::single_linear_step_translates(giXform3& step) { return solve_step(Freedom::translations, step); }
int gfPointsToPlanes::single_linear_step_locked_axis(giXform3& step) { return solve_step(Freedom::about_axis, step); }
int gfPointsToPlanes::single_linear_step_locked_point(giXform3& step) { return solve_step(Freedom::all, step); }
int gfPointsToPlanes::single_linear_step_free(giXform3& step) { return solve_step(Freedom::all, step); }

int gfPointsToPlanes::solve_step(Freedom freedom, giXform3& step) {
  using gfit::detail::refuse;
  overdetermined_.clear(0);
  if (bad_input_) return refuse(gfReason::non_finite_input, "a point, normal, weight, limit or lock is not finite");
  const int n = bestfit_.count();
  if (n == 0) return refuse(gfReason::too_few_points, "no measured point to fit");

  // The exact turn of a locked direction, and the axis the rotations keep to afterwards.
  Vec3 axis(0, 0, 1);
  Vec3 turn = Vec3::Zero();  // the turn of d1 onto d2, as angle times unit axis
  if (freedom == Freedom::about_axis) {
    Vec3 d1 = v3(locked_directions_[0]).normalized(), d2 = v3(locked_directions_[1]).normalized();
    Vec3 k = d1.cross(d2);
    double s = k.norm(), c = d1.dot(d2);
    if (s > 0.0) {
      turn = std::atan2(s, c) * (k / s);
    } else if (c < 0.0) {
      Vec3 u1, u2;
      complete(d1, u1, u2);
      turn = giPi * u1;
    }
    axis = d2;
  }
  Eigen::Matrix3d r0 = Eigen::Matrix3d::Identity();
  if (turn.norm() > 0.0) r0 = Eigen::AngleAxisd(turn.norm(), turn.normalized()).toRotationMatrix();

  // Rotation centre: the first held point, else the weighted centroid.
  Vec3 c;
  if (positioning_.count() > 0)
    c = v3(positioning_[0].measured_point());
  else if (positioning2_.count() > 0)
    c = v3(positioning2_[0].measured_point());
  else {
    c.setZero();
    double sw = 0.0;
    for (gfPlaneAndPoint const& r : bestfit_) {
      c += std::fabs(r.weight()) * v3(r.measured_point());
      sw += std::fabs(r.weight());
    }
    c /= sw;
  }
  auto moved = [&](giPoint3 const& p) -> Vec3 { return c + r0 * (v3(p) - c); };

  // RMS lever arm: the scale of the rotation unknowns.
  double lever = 0.0;
  for (gfPlaneAndPoint const& r : bestfit_) lever += (moved(r.measured_point()) - c).squaredNorm();
  lever = std::sqrt(lever / n);
  if (!(lever > 0.0) || !std::isfinite(lever)) lever = 1.0;

  // Normal equations (streamed) and the attraction.
  Mat6 a = Mat6::Zero();
  Vec6 b = Vec6::Zero();
  Eigen::Matrix3d spread = Eigen::Matrix3d::Zero();
  Vec3 arm_sum = Vec3::Zero();
  double sum_w2 = 0.0;
  for (gfPlaneAndPoint const& r : bestfit_) {
    Vec3 m = moved(r.measured_point()), arm = m - c;
    Vec3 nrm = v3(r.weighted_normal()) / r.weight();
    Vec6 j;
    j << arm.cross(nrm) / lever, nrm;
    double s = nrm.dot(m - v3(r.plane_point()));
    double w2 = r.weight() * r.weight();
    a.selfadjointView<Eigen::Upper>().rankUpdate(j, w2);
    b += w2 * s * j;
    spread += arm.squaredNorm() * Eigen::Matrix3d::Identity() - arm * arm.transpose();
    arm_sum += arm;
    sum_w2 += w2;
  }
  Mat6 h = a.selfadjointView<Eigen::Upper>();
  if (attraction_ != 0.0) {
    // sum |omega x arm + t|^2 over the points, in the scaled unknowns, divided by n.
    Eigen::Matrix3d cross;
    cross << 0, -arm_sum.z(), arm_sum.y(), arm_sum.z(), 0, -arm_sum.x(), -arm_sum.y(), arm_sum.x(), 0;
    Mat6 movement;
    movement << spread / (lever * lever), cross / lever, -cross / lever, n * Eigen::Matrix3d::Identity();
    h += attraction_ * (sum_w2 / n) * movement / n;
  }

  // Lock conditions.
  std::vector<LockRow> locks;
  auto hold = [&](giPoint3 const& measured, giPoint3 const& nominal, Vec3 const& dir) {
    Vec3 m = moved(measured), q = v3(nominal), arm = m - c;
    LockRow row{};
    row.row << arm.cross(dir) / lever, dir;
    row.rhs = dir.dot(q - m);
    row.measured = v3(measured);
    row.nominal = q;
    row.axis = dir;
    locks.push_back(row);
  };
  for (gfPlaneAndPoint const& r : positioning_) hold(r.measured_point(), r.plane_point(), v3(r.weighted_normal()) / r.weight());
  for (gfPlaneAndPoint const& r : positioning2_) {
    if (freedom == Freedom::about_axis) {
      Vec3 u1, u2;
      complete(axis, u1, u2);
      hold(r.measured_point(), r.plane_point(), u1);
      hold(r.measured_point(), r.plane_point(), u2);
    } else {
      for (int k = 0; k < 3; ++k) hold(r.measured_point(), r.plane_point(), Vec3::Unit(k));
    }
  }
  const size_t n_positioning = locks.size();
  auto fix_rotation = [&](Vec3 const& dir) {
    LockRow row{};
    row.row << dir, Vec3::Zero();
    row.rhs = 0.0;
    row.measured = row.nominal = row.axis = Vec3::Zero();  // never checked: not a held point
    locks.push_back(row);
  };
  if (freedom == Freedom::translations)
    for (int k = 0; k < 3; ++k) fix_rotation(Vec3::Unit(k));
  if (freedom == Freedom::about_axis) {
    Vec3 u1, u2;
    complete(axis, u1, u2);
    fix_rotation(u1);
    fix_rotation(u2);
  }

  // x = x0 + B y over the motions the locks allow.
  Vec6 x0 = Vec6::Zero();
  Eigen::Matrix<double, 6, Eigen::Dynamic> basis = Mat6::Identity();
  if (!locks.empty()) {
    const int rows = std::max<int>(6, static_cast<int>(locks.size()));
    Eigen::MatrixXd e = Eigen::MatrixXd::Zero(rows, 6);
    Eigen::VectorXd rhs = Eigen::VectorXd::Zero(rows);
    for (size_t i = 0; i < locks.size(); ++i) {
      e.row(i) = locks[i].row.transpose();
      rhs(i) = locks[i].rhs;
    }
    Eigen::JacobiSVD<Eigen::MatrixXd> svd(e, Eigen::ComputeFullU | Eigen::ComputeFullV);
    svd.setThreshold(rank_tolerance);
    const int rank = static_cast<int>(svd.rank());
    x0 = svd.solve(rhs);
    double scale = 1.0 + rhs.cwiseAbs().maxCoeff();
    if ((e * x0 - rhs).cwiseAbs().maxCoeff() > 1e-9 * scale)
      return refuse(gfReason::invalid_argument, "the locks contradict each other");
    basis = svd.matrixV().rightCols(6 - rank);
  }
  const int k = static_cast<int>(basis.cols());

  Vec6 x = x0;
  if (k > 0) {
    Eigen::MatrixXd hy = basis.transpose() * h * basis;
    Eigen::VectorXd gy = basis.transpose() * (h * x0 + b);
    if (attraction_ == 0.0) hy.diagonal().array() += TINY_DOUBLE * hy.trace() / k;

    // Inequalities from the limits, numbered in arrival order.
    intcoDynArr removed;
    int number = 0;
    for (gfPlaneAndPoint const& r : bestfit_) {
      double lo = r.first_parameter(), up = r.second_parameter();
      if (lower_set(lo) && upper_set(up) && lo > up) {
        removed.append(number);
        removed.append(number + 1);
      }
      number += (lower_set(lo) ? 1 : 0) + (upper_set(up) ? 1 : 0);
    }
    mlConstrainedQuadraticMinimiser qp;
    qp.reserve(k, 2 * n + 12);
    Eigen::VectorXd y(k), row(k);
    for (int round = 0;; ++round) {
      qp.set_problem(k, hy.data(), gy.data());  // hy is symmetric: storage order does not matter
      number = 0;
      for (gfPlaneAndPoint const& r : bestfit_) {
        double lo = r.first_parameter(), up = r.second_parameter();
        if (!lower_set(lo) && !upper_set(up)) continue;
        Vec3 m = moved(r.measured_point()), nrm = v3(r.weighted_normal()) / r.weight();
        Vec6 j;
        j << (m - c).cross(nrm) / lever, nrm;
        double s = nrm.dot(m - v3(r.plane_point())) + j.dot(x0);
        row = basis.transpose() * j;
        auto dropped = [&](int id) { return std::binary_search(removed.begin(), removed.end(), id); };
        if (lower_set(lo)) {
          if (!dropped(number)) qp.add_inequality(row.data(), lo - s, number);
          ++number;
        }
        if (upper_set(up)) {
          Eigen::VectorXd neg = -row;
          if (!dropped(number)) qp.add_inequality(neg.data(), s - up, number);
          ++number;
        }
      }
      // The step's trust region: no unknown moves the points by more than the RMS lever arm
      // (a translation larger than the part, a turn beyond a radian). It is never active on
      // a sensible step, but it keeps nearly opposite limits (two faces measured too thick,
      // whose rows differ only by rounding) from being met by an absurd turn: the programme
      // then sees them as contradictory. Its rows carry negative ids and are never reported.
      for (int u = 0; u < 6; ++u) {
        row = basis.row(u).transpose();
        Eigen::VectorXd neg = -row;
        qp.add_inequality(row.data(), -lever, -1 - 2 * u);
        qp.add_inequality(neg.data(), -lever, -2 - 2 * u);
      }
      auto status = qp.solve(y.data());
      if (status == mlConstrainedQuadraticMinimiser::ok) break;
      if (status == mlConstrainedQuadraticMinimiser::not_convex)
        return refuse(gfReason::not_determined, "the points do not determine the step");
      intcoDynArr named(0, 8);
      for (int id : qp.contradictory_constraints())
        if (id >= 0) named.append(id);
      if (status != mlConstrainedQuadraticMinimiser::infeasible || named.count() == 0 || round + 1 >= max_removal_rounds)
        return refuse(gfReason::no_convergence, "the tolerance limits could not be resolved");
      mlConstrainedQuadraticMinimiser::append_constraint_indices(removed, named);
    }
    overdetermined_ = removed;
    x = x0 + basis * y;
  }  // else every motion is locked and the limits have nothing to act on
  if (!x.allFinite()) return refuse(gfReason::no_convergence, "the step is not finite");

  // S = T(c + t) R R0 T(-c), exactly rigid.
  Vec3 omega = x.head<3>() / lever, t = x.tail<3>();
  giPoint3 centre(c.x(), c.y(), c.z());
  giXform3 s = giXform3(giXformTranslate{}, gv(t)) * rotation(centre, omega) * rotation(centre, turn);

  for (size_t i = 0; i < n_positioning; ++i) {
    LockRow const& l = locks[i];
    giPoint3 m = s * giPoint3(l.measured.x(), l.measured.y(), l.measured.z());
    if (std::fabs(l.axis.dot(v3(m) - l.nominal)) > POSITIONING_TOLERANCE)
      return refuse(gfReason::no_convergence, "a held point misses its nominal point after the step");
  }
  step = s;
  return 1;
}
