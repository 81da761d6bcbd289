#include "gfit/alignment/rps_fitting.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <string>

#include "gfit/alignment/points_to_planes.h"
#include "gfit/platform/report.h"

namespace {
using Vec3 = Eigen::Vector3d;
using Vec6 = Eigen::Matrix<double, 6, 1>;
using Mat6 = Eigen::Matrix<double, 6, 6>;

constexpr int max_steps = 50;
constexpr double free_eigenvalue = gfPointsToPlanes::TINY_DOUBLE;  // relative to the largest

Vec3 v3(giPoint3 const& p) { return {p.x(), p.y(), p.z()}; }
Vec3 v3(giUnitVec3 const& p) { return {p.x(), p.y(), p.z()}; }
bool usable(giPoint3 const& p) { return p.finite() && !p.invalid(); }

// One locked direction of one record.
struct Lock {
  Vec3 measured, nominal, direction;
  double weight;
};

template <class F>
void for_each_lock(gfRPSDatacoDynArr const& data, F&& f) {
  for (gfRPSData const& r : data) {
    if (r.weight() == 0.0) continue;
    for (int k = 0; k < 3; ++k)
      if (r.locked(k)) f(Lock{v3(r.measured_point()), v3(r.nominal_point()), v3(r.direction(k)), r.weight()});
  }
}

// Small components are printed as 0 so that "along (0, 0, 1)" reads as such.
void append_vector(std::string& s, Vec3 v) {
  char buf[96];
  for (int k = 0; k < 3; ++k)
    if (std::fabs(v(k)) < 1e-9 * v.norm()) v(k) = 0.0;
  std::snprintf(buf, sizeof buf, "(%.6g, %.6g, %.6g)", v.x() + 0.0, v.y() + 0.0, v.z() + 0.0);
  s += buf;
}

// Makes a direction's largest component positive, so the text does not depend on the sign
// an eigenvector happened to get.
Vec3 canonical(Vec3 v) {
  int k = 0;
  for (int i = 1; i < 3; ++i)
    if (std::fabs(v(i)) > std::fabs(v(k))) k = i;
  return v(k) < 0.0 ? Vec3(-v) : v;
}

// The free motions, as text. `free` holds the null vectors (omega, t) of the velocity field
// v(x) = omega x (x - c) + t, omega unscaled.
std::string name_free_motions(Eigen::MatrixXd const& free, Vec3 const& c) {
  const int k = static_cast<int>(free.cols());
  // Combinations with no rotation: the free translations.
  Eigen::JacobiSVD<Eigen::MatrixXd> svd(free.topRows(3), Eigen::ComputeFullV);
  Eigen::VectorXd sv = Eigen::VectorXd::Zero(k);
  sv.head(svd.singularValues().size()) = svd.singularValues();
  const double top = std::max(1.0, sv.size() ? sv(0) : 0.0);
  int n_rot = 0;
  for (int i = 0; i < sv.size(); ++i) n_rot += sv(i) > 1e-6 * top ? 1 : 0;
  Eigen::MatrixXd v = free * svd.matrixV();  // first n_rot columns rotate, the rest translate
  Eigen::MatrixXd translations = v.rightCols(k - n_rot).bottomRows(3);

  std::string s = "the locks leave free: ";
  bool first = true;
  auto sep = [&] {
    if (!first) s += "; ";
    first = false;
  };
  Eigen::Matrix3d tbasis = Eigen::Matrix3d::Zero();
  int nt = 0;
  if (k - n_rot > 0) {
    Eigen::HouseholderQR<Eigen::MatrixXd> qr(translations);
    Eigen::MatrixXd q = qr.householderQ() * Eigen::MatrixXd::Identity(3, 3);
    nt = k - n_rot;
    tbasis.leftCols(nt) = q.leftCols(nt);
    sep();
    if (nt == 1) {
      s += "translation along ";
      append_vector(s, canonical(q.col(0)));
    } else if (nt == 2) {
      s += "translations normal to ";
      append_vector(s, canonical(q.col(2)));
    } else {
      s += "all translations";
    }
  }
  for (int i = 0; i < n_rot; ++i) {
    Vec3 w = v.col(i).head<3>(), t = v.col(i).tail<3>();
    for (int j = 0; j < nt; ++j) t -= tbasis.col(j).dot(t) * tbasis.col(j);  // free slides add nothing
    double w2 = w.squaredNorm();
    Vec3 axis_point = c + w.cross(t) / w2;
    double pitch = w.dot(t) / w2;
    sep();
    s += "rotation about ";
    append_vector(s, canonical(w.normalized()));
    s += " through ";
    append_vector(s, axis_point);
    if (std::fabs(pitch) > 1e-9 * (1.0 + axis_point.norm())) s += " (with a screw slide)";
  }
  return s;
}

// The refusal text: fixed storage, so a pointer a host kept never dangles.
thread_local char refusal_text[512];
}  // namespace

int gfRPSFitting(gfRPSDatacoDynArr const& data, giXform3& result, double& rms, double& max_deviation) {
  using gfit::detail::refuse;
  if (data.count() == 0) return refuse(gfReason::too_few_points, "no RPS record");
  for (gfRPSData const& r : data) {
    if (!usable(r.measured_point()) || !usable(r.nominal_point()) || !std::isfinite(r.weight()))
      return refuse(gfReason::non_finite_input, "an RPS point or weight is not finite");
    if (r.weight() < 0.0) return refuse(gfReason::invalid_argument, "an RPS weight is negative");
    for (int k = 0; k < 3; ++k)
      if (r.locked(k) && (r.direction(k).invalid() || !v3(r.direction(k)).allFinite()))
        return refuse(gfReason::invalid_argument, "an RPS frame axis is unset");
  }

  // The weighted centroid, the extent and the RMS lever arm of the locked points.
  Vec3 c = Vec3::Zero(), lo = Vec3::Constant(DBL_MAX), hi = Vec3::Constant(-DBL_MAX);
  double sw = 0.0, coordinate = 0.0;
  int n_locks = 0;
  for_each_lock(data, [&](Lock const& l) {
    c += l.weight * l.measured;
    sw += l.weight;
    lo = lo.cwiseMin(l.measured);
    hi = hi.cwiseMax(l.measured);
    coordinate = std::max({coordinate, l.measured.cwiseAbs().maxCoeff(), l.nominal.cwiseAbs().maxCoeff()});
    ++n_locks;
  });
  if (n_locks == 0) return refuse(gfReason::too_few_points, "no locked direction of positive weight");
  c /= sw;
  const double extent = (hi - lo).norm();
  double lever = 0.0;
  for_each_lock(data, [&](Lock const& l) { lever += (l.measured - c).squaredNorm(); });
  lever = std::sqrt(lever / n_locks);
  if (!(lever > 0.0)) lever = 1.0;

  // Do the locks determine the motion? Eigenvalues of the scaled normal matrix.
  Mat6 h = Mat6::Zero();
  for_each_lock(data, [&](Lock const& l) {
    Vec6 j;
    j << (l.measured - c).cross(l.direction) / lever, l.direction;
    h.selfadjointView<Eigen::Lower>().rankUpdate(j, l.weight);
  });
  Eigen::SelfAdjointEigenSolver<Mat6> eig(Mat6(h.selfadjointView<Eigen::Lower>()));
  const double largest = eig.eigenvalues()(5);
  int n_free = 0;
  while (n_free < 6 && !(eig.eigenvalues()(n_free) > free_eigenvalue * largest)) ++n_free;
  if (n_free > 0) {
    Eigen::MatrixXd free = eig.eigenvectors().leftCols(n_free);
    free.topRows(3) /= lever;  // back to unscaled rotations
    std::snprintf(refusal_text, sizeof refusal_text, "%s", name_free_motions(free, c).c_str());
    return refuse(gfReason::not_determined, refusal_text);
  }

  // Gauss-Newton steps on the fixed planes.
  const double tol = 1e-12 * extent + 8.0 * DBL_EPSILON * coordinate;
  giXform3 x(giXformIdentity{});
  bool settled = false;
  for (int step = 0; step < max_steps && !settled; ++step) {
    gfPointsToPlanes solver;
    solver.reserve_bestfit(n_locks);
    for (gfRPSData const& r : data) {
      if (r.weight() == 0.0) continue;
      giPoint3 m = x * r.measured_point();
      for (int k = 0; k < 3; ++k)
        if (r.locked(k))
          solver.add_bestfit(m, r.nominal_point(), giVector3(r.direction(k)), -DBL_MAX, DBL_MAX, std::sqrt(r.weight()));
    }
    giXform3 s;
    if (solver.single_linear_step(s) == 0) return 0;  // the solver recorded its reason
    double moved = 0.0;
    for (gfRPSData const& r : data) {
      if (r.weight() == 0.0) continue;
      giPoint3 m = x * r.measured_point();
      moved = std::max(moved, static_cast<double>((s * m).distance(m)));
    }
    x = s * x;
    settled = moved <= tol;
  }
  if (!settled) return refuse(gfReason::no_convergence, "the RPS steps did not settle in 50 steps");

  double sum = 0.0, worst = 0.0;
  for_each_lock(data, [&](Lock const& l) {
    giPoint3 m = x * giPoint3(l.measured.x(), l.measured.y(), l.measured.z());
    double r = l.direction.dot(v3(m) - l.nominal);
    sum += l.weight * r * r;
    worst = std::max(worst, std::fabs(r));
  });
  result = x;
  rms = std::sqrt(sum / sw);
  max_deviation = worst;
  return gfit::detail::succeed(1);
}

int gfRPSFitting(gfRPSDatacoDynArr const& data, giXform3& result) {
  double rms, max_deviation;
  return gfRPSFitting(data, result, rms, max_deviation);
}
