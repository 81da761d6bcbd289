#include "gfit/alignment/surface_maxi_min.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <utility>
#include <vector>

#include "gfit/extremal/containment_cone.h"
#include "gfit/platform/quadratic_minimiser.h"
#include "gfit/platform/report.h"

namespace {
constexpr size_t working_chunk = 256;  // records added to the programme's working set at a time

using Vec3 = Eigen::Vector3d;
using Vec6 = Eigen::Matrix<double, 6, 1>;

Vec3 v3(giPoint3 const& p) { return {p.x(), p.y(), p.z()}; }
Vec3 v3(giUnitVec3 const& p) { return {p.x(), p.y(), p.z()}; }
bool usable(gfProjectedPoint3 const& r) {
  return !r.invalid() && r.measured_point().finite() && r.nominal_point().finite() && !r.nominal_normal().invalid() &&
         std::isfinite(r.signed_distance());
}

struct Extremes {
  double lowest = DBL_MAX, highest = -DBL_MAX;
  int valid = 0;
};
Extremes extremes(gfProjectedPoint3coDynArr const& cloud) {
  Extremes e;
  for (gfProjectedPoint3 const& r : cloud) {
    if (!usable(r)) continue;
    double s = r.signed_distance();
    e.lowest = std::min(e.lowest, s);
    e.highest = std::max(e.highest, s);
    ++e.valid;
  }
  return e;
}

// The rotation by |w| about w through c.
giXform3 rotation(Vec3 const& c, Vec3 const& w) {
  double angle = w.norm();
  if (!(angle > 0.0)) return giXform3(giXformIdentity{});
  Vec3 a = w / angle;
  return giXform3(giXformRotate{}, giPoint3(c.x(), c.y(), c.z()), giUnitVec3(a.x(), a.y(), a.z()), giAngle(angle));
}
}  // namespace

gfSurfaceMaxiMinFit::gfSurfaceMaxiMinFit() : cloud_(0, 256) {}

void gfSurfaceMaxiMinFit::add_point(gfFitPoint3coPrf const& point) { points_.append(point); }

void gfSurfaceMaxiMinFit::reserve_points(int n) {
  if (n > 0) cloud_.reserve(n);
}

void gfSurfaceMaxiMinFit::project(gfProjectedPoint3coDynArr& cloud, giXform3 const& xform, int initial) const {
  const int n = points_.count();
  cloud.clear(0);
  cloud.expand(n);
  for (int i = 0; i < n; ++i) cloud[i] = gfProjectedPoint3();
  projector_->project_batch([this](int i) -> gfFitPoint3 const& { return *points_[i]; },
                            [&cloud](int i) -> gfProjectedPoint3& { return cloud[i]; }, n, initial, xform);
}

int gfSurfaceMaxiMinFit::fit(giXform3& result, double& min_deviation, double& max_deviation, int& n_invalid) {
  using gfit::detail::refuse;
  steps_taken_ = steps_kept_ = 0;
  if (!projector_) return refuse(gfReason::invalid_argument, "no projector was set");
  for (int i = 0; i < points_.count(); ++i)
    if (!points_[i]) return refuse(gfReason::non_finite_input, "a fit point is missing");

  giXform3 x(giXformIdentity{});
  gfProjectedPoint3coDynArr cloud(0, 256), trial(0, 256);
  project(cloud, x, 1);
  Extremes now = extremes(cloud);
  if (now.valid < 4) return refuse(gfReason::too_few_points, "fewer than four points project onto the nominal object");

  // Normals within a hemisphere: the allowance grows without bound along the cone's axis.
  {
    giUnitVec3coDynArr normals(0, now.valid);
    for (gfProjectedPoint3 const& r : cloud)
      if (usable(r)) normals.append(r.nominal_normal());
    gfContainmentCone cone(normals);
    giUnitVec3 axis;
    giAngle angle;
    if (cone.solve(axis, angle) == 1 && angle.radians() < 0.5 * giPi - 1e-9)
      return refuse(gfReason::not_determined,
                    "the nominal normals lie within a hemisphere: the allowance grows without bound along its axis");
  }

  // Extent of the points, for the stopping tests.
  Vec3 lo = Vec3::Constant(DBL_MAX), hi = Vec3::Constant(-DBL_MAX);
  for (gfProjectedPoint3 const& r : cloud)
    if (usable(r)) {
      lo = lo.cwiseMin(v3(r.measured_point()));
      hi = hi.cwiseMax(v3(r.measured_point()));
    }
  const double extent = (hi - lo).norm();

  mlConstrainedQuadraticMinimiser qp;
  std::vector<int> candidates, working;
  std::vector<std::pair<double, int>> violated;
  std::vector<char> in_working;
  std::vector<double> bound;
  double delta = -1.0;
  for (int iteration = 0; iteration < max_steps; ++iteration) {
    if (gfit::detail::cancelled()) return refuse(gfReason::cancelled);
    // Linearisation about the centroid of the valid points.
    Vec3 c = Vec3::Zero();
    for (gfProjectedPoint3 const& r : cloud)
      if (usable(r)) c += v3(r.measured_point());
    c /= now.valid;
    double lever = 0.0;
    for (gfProjectedPoint3 const& r : cloud)
      if (usable(r)) lever += (v3(r.measured_point()) - c).squaredNorm();
    lever = std::sqrt(lever / now.valid);
    if (!(lever > 0.0)) lever = 1.0;
    if (delta < 0.0) delta = 0.1 * lever;
    if (delta < 1e-9 * extent) break;

    // Records that can be the smallest anywhere in the trust region.
    const int n = cloud.count();
    bound.assign(n, 0.0);
    double ceiling = DBL_MAX;
    for (int i = 0; i < n; ++i) {
      gfProjectedPoint3 const& r = cloud[i];
      if (!usable(r)) continue;
      Vec3 nrm = v3(r.nominal_normal()), arm = v3(r.measured_point()) - c;
      bound[i] = delta * (arm.cross(nrm).lpNorm<1>() / lever + nrm.lpNorm<1>());
      ceiling = std::min(ceiling, r.signed_distance() + bound[i]);
    }
    candidates.clear();
    for (int i = 0; i < n; ++i)
      if (usable(cloud[i]) && cloud[i].signed_distance() - bound[i] <= ceiling) candidates.push_back(i);

    // maximise dz = z - lowest: minimise -dz + eps/2 |(x, dz)|^2. Constraint generation: the
    // programme is solved on a working set (the records lowest within their bounds first)
    // and every violated record joins it until none is left, which gives the optimum of
    // the whole programme at the cost of a few small ones.
    for (int i : candidates) bound[i] = cloud[i].signed_distance() - bound[i];  // now the lowest reach
    auto lower_reach = [&](int a, int b) { return bound[a] < bound[b] || (bound[a] == bound[b] && a < b); };
    const size_t first = std::min(candidates.size(), working_chunk);
    if (first > 0) std::nth_element(candidates.begin(), candidates.begin() + (first - 1), candidates.end(), lower_reach);
    std::sort(candidates.begin(), candidates.begin() + first, lower_reach);
    const int k = 7;
    const double eps = 1e-6 / delta;
    double h[k * k] = {};
    double g[k] = {0, 0, 0, 0, 0, 0, -1.0};
    for (int i = 0; i < k; ++i) h[i * k + i] = eps;
    auto row_of = [&](int i, double (&row)[k]) {
      gfProjectedPoint3 const& r = cloud[i];
      Vec3 nrm = v3(r.nominal_normal()), arm = v3(r.measured_point()) - c;
      Vec3 rot = arm.cross(nrm) / lever;
      double const values[k] = {rot.x(), rot.y(), rot.z(), nrm.x(), nrm.y(), nrm.z(), -1.0};
      std::copy(values, values + k, row);
    };
    working.assign(candidates.begin(), candidates.begin() + first);
    in_working.assign(n, 0);
    for (int i : working) in_working[i] = 1;
    double y[k];
    for (;;) {
      qp.reserve(k, static_cast<int>(working.size()) + 12);
      qp.set_problem(k, h, g);
      double row[k];
      for (int i : working) {
        row_of(i, row);
        qp.add_inequality(row, now.lowest - cloud[i].signed_distance(), i);
      }
      for (int u = 0; u < 6; ++u) {
        std::fill(row, row + k, 0.0);
        row[u] = 1.0;
        qp.add_inequality(row, -delta, -1 - 2 * u);
        row[u] = -1.0;
        qp.add_inequality(row, -delta, -2 - 2 * u);
      }
      auto status = qp.solve(y);
      if (status != mlConstrainedQuadraticMinimiser::ok)
        return refuse(gfReason::no_convergence, "the linear programme of a maxi-min step failed");
      // Records outside the working set that the solution violates, most violated first.
      violated.clear();
      for (int i : candidates) {
        if (in_working[i]) continue;
        row_of(i, row);
        double lhs = 0.0;
        for (int j = 0; j < k; ++j) lhs += row[j] * y[j];
        double excess = lhs - (now.lowest - cloud[i].signed_distance());
        if (excess < -1e-12 * (1.0 + std::fabs(now.lowest))) violated.emplace_back(excess, i);
      }
      if (violated.empty()) break;
      size_t take = std::min<size_t>(violated.size(), working_chunk);
      std::partial_sort(violated.begin(), violated.begin() + take, violated.end());
      for (size_t j = 0; j < take; ++j) {
        working.push_back(violated[j].second);
        in_working[violated[j].second] = 1;
      }
    }
    ++steps_taken_;
    if (!(y[6] > 1e-14 * extent)) break;  // no first-order gain left

    Vec6 step;
    step << y[0], y[1], y[2], y[3], y[4], y[5];
    giXform3 s = giXform3(giXformTranslate{}, giVector3(y[3], y[4], y[5])) * rotation(c, step.head<3>() / lever);
    giXform3 candidate = s * x;
    project(trial, candidate, 0);
    Extremes then = extremes(trial);
    if (then.valid == now.valid && then.lowest > now.lowest) {
      x = candidate;
      std::swap(cloud, trial);
      now = then;
      ++steps_kept_;
      if (step.cwiseAbs().maxCoeff() > 0.99 * delta) delta *= 2.0;
    } else {
      delta *= 0.25;
    }
  }

  transformation_ = x;
  cloud_ = std::move(cloud);
  int invalid = 0;
  for (gfProjectedPoint3 const& r : cloud_) invalid += usable(r) ? 0 : 1;
  result = x;
  min_deviation = now.lowest;
  max_deviation = now.highest;
  n_invalid = invalid;
  return gfit::detail::succeed(1);
}
