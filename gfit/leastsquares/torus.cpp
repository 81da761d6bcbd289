#include "gfit/leastsquares/torus.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <vector>

#include "gfit/leastsquares/axis_candidates.h"
#include "gfit/leastsquares/evaluator.h"
#include "gfit/leastsquares/probed.h"
#include "gfit/leastsquares/refusal.h"
#include "gfit/leastsquares/search_shared.h"
#include "gfit/platform/eigen_solvers.h"
#include "gfit/platform/levenberg_marquardt.h"
#include "gfit/platform/parallel.h"
#include "gfit/platform/report.h"
#include "gfit/platform/simplex.h"
#include "gfit/utilities/direction_sampling.h"

using gfit::detail::CentredPoints;

namespace {
// Below this the distance from the axis or from the spine circle has no derivative.
constexpr double kSmooth = 1e-7;
}  // namespace

// ---- the problem ------------------------------------------------------------------------

gfLeastSquareTorus::gfLeastSquareTorus(giPoint3coDynArr const& points) : gfLeastSquareDistance3(8, points) {}
gfLeastSquareTorus::gfLeastSquareTorus(giPoint3coDynArr const& points, giPoint3 const& origin)
    : gfLeastSquareDistance3(8, points), origin_{origin.x(), origin.y(), origin.z()} {}
gfLeastSquareTorus::~gfLeastSquareTorus() = default;

void gfLeastSquareTorus::normalize_parameters(mlVector& p) const {
  giUnitVec3 u(p[3], p[4], p[5]);
  if (u.invalid()) u = giUnitVec3(1.0, 0.0, 0.0);
  p[3] = u.x();
  p[4] = u.y();
  p[5] = u.z();
}

void gfLeastSquareTorus::get_distance(double& d, int i) const {
  double square = 0.0;
  evaluate_block(i, 1, &d, &square, nullptr, 0);
}

void gfLeastSquareTorus::get_distance_and_gradient(double& d, mlVector& g, int i) const {
  mlVector const& p = parameters();
  double F = 0.0, G = 0.0;
  mlVector dF(6), dG(6);
  giPoint3 const& q = points()[i];
  const giPoint3 from_origin(q.x() - origin_[0], q.y() - origin_[1], q.z() - origin_[2]);
  F_G_and_derivatives(giPoint3(p[0], p[1], p[2]), giUnitVec3(p[3], p[4], p[5]), from_origin, F, dF, G, dG);
  const double e = G - p[6], rho = std::sqrt(e * e + F * F);
  d = rho - p[7];
  if (rho > kSmooth) {
    for (int k = 0; k < 6; ++k) g[k] = (e * dG[k] + F * dF[k]) / rho;
    g[6] = -e / rho;
  } else {
    for (int k = 0; k < 6; ++k) g[k] = 0.0;
    g[6] = -1.0;
  }
  g[7] = -1.0;
}

void gfLeastSquareTorus::evaluate_block(int first, int count, double* distances, double* squares, double* jacobian,
                                        int ld) const {
  mlVector const& p = parameters();
  const gfit::detail::AxisFrame frame(p, origin_);
  const double ux = frame.ux, uy = frame.uy, uz = frame.uz, r1 = p[6], r2 = p[7];
  giPoint3 const* q = points().data() + first;
  gfit::detail::AxialPoint a;
  for (int k = 0; k < count; ++k) {
    frame.locate(q[k], a);
    const double e = a.G - r1, rho = std::sqrt(e * e + a.F * a.F);
    const double d = rho - r2;
    distances[k] = d;
    squares[k] = d * d;
    if (!jacobian) continue;
    double g[8] = {0, 0, 0, 0, 0, 0, -1.0, -1.0};
    if (rho > kSmooth) {
      const double ce = e / rho, cf = a.F / rho;
      frame.gradient(a);
      // dF/dA = -u, dF/du = d - u F; dG/du = F dG/dA.
      g[0] = ce * a.g0 - cf * ux;
      g[1] = ce * a.g1 - cf * uy;
      g[2] = ce * a.g2 - cf * uz;
      g[3] = ce * a.F * a.g0 + cf * (a.dx - ux * a.F);
      g[4] = ce * a.F * a.g1 + cf * (a.dy - uy * a.F);
      g[5] = ce * a.F * a.g2 + cf * (a.dz - uz * a.F);
      g[6] = -ce;
    }
    for (int j = 0; j < 8; ++j) jacobian[j * ld + k] = g[j];
  }
}

int gfLeastSquareTorus::n_independent_parameters() const { return n_parameters() - 1; }

void gfLeastSquareTorus::parameter_scales(mlVector& s) const {
  mlVector const& p = parameters();
  const double L = std::fmax(std::fabs(p[6]), p[7]);
  s.resize(n_parameters());
  for (int k = 0; k < 8; ++k) s[k] = (k >= 3 && k < 6) ? L : 1.0;
}

double gfDistanceFromTorus(giPoint3 const& point, giPoint3 const& centre, giUnitVec3 const& axis, double r1,
                           double r2, giPoint3& foot, giUnitVec3& normal) {
  const giVector3 d = point - centre;
  const double F = axis.dot(d);
  giUnitVec3 radial(d - axis * F);
  if (radial.invalid()) radial = axis.any_normal();  // on the axis: any meridian
  const double G = radial.dot(d), e = G - r1;
  const double rho = std::sqrt(e * e + F * F);
  giUnitVec3 n(radial * e + axis * F);
  if (n.invalid()) n = radial;  // on the spine circle
  foot = centre + radial * r1 + n * r2;
  normal = n;
  return rho - r2;
}

// ---- the start for one axis direction ---------------------------------------------------

namespace {

constexpr int kScanIterations = 6;   // variable-projection steps per trial direction
constexpr int kScanPoints = 1024;    // trial directions are fitted on at most this many points
constexpr int kStarts = 4;           // distinct starts refined by Levenberg-Marquardt

using Matrix7 = Eigen::Matrix<double, 7, 7>;
using Vector7 = Eigen::Matrix<double, 7, 1>;

// A torus (8 parameters, world coordinates) found from one trial direction, with its sum of
// squared distances over the points it was fitted to.
struct TorusStart {
  double torus[8] = {0, 0, 0, 0, 0, 1, 0, 0};
  double sum_of_squares = DBL_MAX;
  giUnitVec3 axis() const { return giUnitVec3(torus[3], torus[4], torus[5]); }
  mlVector parameters() const {
    return mlVector{torus[0], torus[1], torus[2], torus[3], torus[4], torus[5], torus[6], torus[7]};
  }
};

// The variable-projection fit of the axis from a trial direction d. In the frame (e1, e2, d)
// about the centroid the axis passes through (a, b, 0) along (alpha, beta, 1); those four are
// the outer unknowns. About any axis the points' meridian coordinates (G, F), distance from
// the axis and height along it, lie near a circle, centre (c, h) and radius R: the inner
// unknowns, solved in closed form (Kasa) and settled by Gauss-Newton. The outer unknowns
// take damped Gauss-Newton steps on the reduced normal equations (the Schur complement of
// the circle's block, Kaufman's form of the projected Jacobian); after each step the circle
// is settled again. The torus is then centred at (a, b, 0) + h u (u the unit axis), with
// r1 = c and r2 = R. A fitter owns its scratch arrays: nothing is allocated per direction.
class TorusAlongDirection {
 public:
  // `normals` (null: none), one per point, give the axis position a start of its own.
  explicit TorusAlongDirection(CentredPoints const& points, giUnitVec3 const* normals = nullptr)
      : points_(points), normals_(normals), x_(points.count()), y_(points.count()), z_(points.count()),
        g_(points.count()), f_(points.count()) {}

  // The axis starts along d through (offset[0], offset[1]); with `offset` null, through the
  // best (smallest sum of squares with its meridian circle) of: the centres of the circles
  // through all the points projected along d, through the highest twentieth of them and
  // through the lowest twentieth (every slice across the axis of a surface of revolution is
  // a set of circles about the axis, and the extreme slices of a tube hold one circle
  // each), and the point where the projected normal lines meet. Then up to `iterations`
  // steps (with none, only the meridian circle is fitted). False when the points admit no
  // meridian circle.
  //
  // Why the normals: a short, fat elbow (a quarter turn with a bend radius 1.5 times the
  // tube's) seen along its axis is a filled sector, whose circles lie anywhere; from a
  // position off the axis the fit slides into a false minimum (a spindle-shaped torus, or
  // an axis through the tube's middle) even from the exact direction. The normal lines
  // meet near the axis for any direction within tens of degrees of it.
  bool fit(giUnitVec3 const& d, int iterations, double const* offset, TorusStart& out);

 private:
  // p = (a, b, alpha, beta, c, h, R).
  double pass(double const* p, Matrix7& jtj, Vector7& jte) const;
  bool meridian_circle(double* p);
  double meridian_sum_of_squares(double const* p) const;
  void settle_circle(double* p, double& s, Matrix7& jtj, Vector7& jte, int steps) const;
  bool projected_circle(double lo, double hi, double& a, double& b) const;
  bool normals_meet(giUnitVec3 const& e1, giUnitVec3 const& e2, double& a, double& b) const;

  CentredPoints const& points_;
  giUnitVec3 const* normals_;
  std::vector<double> x_, y_, z_, g_, f_;
};

// The algebraic circle u^2 + v^2 = A u + B v + C (Kasa) from the moments of the points
// added: centre (A/2, B/2) and radius, or false when the moments admit none.
struct KasaCircle {
  double suu = 0, suv = 0, svv = 0, su = 0, sv = 0, suw = 0, svw = 0, sw = 0, n = 0;

  void add(double u, double v) {
    const double w = u * u + v * v;
    suu += u * u;
    suv += u * v;
    svv += v * v;
    su += u;
    sv += v;
    suw += u * w;
    svw += v * w;
    sw += w;
    n += 1.0;
  }

  bool circle(double& cu, double& cv, double& radius) const {
    if (n < 3.0) return false;
    Eigen::Matrix3d m;
    m << suu, suv, su, suv, svv, sv, su, sv, n;
    Eigen::FullPivLU<Eigen::Matrix3d> lu(m);
    if (lu.rank() < 3) return false;
    const Eigen::Vector3d x = lu.solve(Eigen::Vector3d(suw, svw, sw));
    cu = 0.5 * x[0];
    cv = 0.5 * x[1];
    const double r2 = x[2] + cu * cu + cv * cv;
    if (!(r2 > 0.0) || !std::isfinite(r2)) return false;
    radius = std::sqrt(r2);
    return true;
  }
};

// The axis of p: unit direction (ux, uy, uz) in the frame and 1 / |(alpha, beta, 1)|.
struct FrameAxis {
  double ux, uy, uz, inv;
  explicit FrameAxis(double const* p) {
    inv = 1.0 / std::sqrt(1.0 + p[2] * p[2] + p[3] * p[3]);
    ux = p[2] * inv;
    uy = p[3] * inv;
    uz = inv;
  }
};

// The sum of squared distances at p and the normal equations of all seven unknowns.
double TorusAlongDirection::pass(double const* p, Matrix7& jtj, Vector7& jte) const {
  const int n = points_.count();
  const FrameAxis u(p);
  const double a = p[0], b = p[1], c = p[4], h = p[5], R = p[6];
  double s = 0.0;
  double m[28] = {0};  // the upper triangle of J^T J, row by row
  double v[7] = {0};
  for (int i = 0; i < n; ++i) {
    const double vx = x_[i] - a, vy = y_[i] - b, vz = z_[i];
    const double F = vx * u.ux + vy * u.uy + vz * u.uz;
    const double wx = vx - F * u.ux, wy = vy - F * u.uy, wz = vz - F * u.uz;
    const double G = std::sqrt(wx * wx + wy * wy + wz * wz);
    const double eg = G - c, ef = F - h;
    const double rho = std::sqrt(eg * eg + ef * ef);
    const double e = rho - R;
    s += e * e;
    double cg = 1.0, cf = 0.0;
    if (rho > kSmooth) {
      cg = eg / rho;
      cf = ef / rho;
    }
    // dG/dA = -w / G and dF/dA = -u; a turn of the axis by dalpha moves F by w_x dalpha /
    // |n| and G by -F w_x dalpha / (G |n|) (likewise beta with y).
    const double gw = G > kSmooth ? cg / G : 0.0;
    const double j[7] = {-gw * wx - cf * u.ux,
                         -gw * wy - cf * u.uy,
                         (cf - gw * F) * wx * u.inv,
                         (cf - gw * F) * wy * u.inv,
                         -cg,
                         -cf,
                         -1.0};
    int k = 0;
    for (int r = 0; r < 7; ++r) {
      v[r] += j[r] * e;
      for (int col = r; col < 7; ++col) m[k++] += j[r] * j[col];
    }
  }
  int k = 0;
  for (int r = 0; r < 7; ++r) {
    jte[r] = v[r];
    for (int col = r; col < 7; ++col) jtj(r, col) = jtj(col, r) = m[k++];
  }
  return s;
}

// The meridian coordinates about the axis of p into g_ and f_, and the algebraic circle
// through them into p[4..6], in one pass; the moments are taken about the first point's
// coordinates, which keeps their digits when the ring is far larger than the tube.
bool TorusAlongDirection::meridian_circle(double* p) {
  const int n = points_.count();
  const FrameAxis u(p);
  double g0 = 0.0, f0 = 0.0;
  KasaCircle kasa;
  for (int i = 0; i < n; ++i) {
    const double vx = x_[i] - p[0], vy = y_[i] - p[1], vz = z_[i];
    const double F = vx * u.ux + vy * u.uy + vz * u.uz;
    const double wx = vx - F * u.ux, wy = vy - F * u.uy, wz = vz - F * u.uz;
    const double G = std::sqrt(wx * wx + wy * wy + wz * wz);
    g_[i] = G;
    f_[i] = F;
    if (i == 0) {
      g0 = G;
      f0 = F;
    }
    kasa.add(G - g0, F - f0);
  }
  double cu = 0, cv = 0, radius = 0;
  if (!kasa.circle(cu, cv, radius)) return false;
  p[4] = g0 + cu;
  p[5] = f0 + cv;
  p[6] = radius;
  return true;
}

// The sum of squared distances of the meridian coordinates from the circle of p.
double TorusAlongDirection::meridian_sum_of_squares(double const* p) const {
  double s = 0.0;
  for (int i = 0; i < points_.count(); ++i) {
    const double e = std::hypot(g_[i] - p[4], f_[i] - p[5]) - p[6];
    s += e * e;
  }
  return s;
}

// Gauss-Newton on the meridian circle (c, h, R) alone, at most `steps` steps, until the
// sum of squares settles to 1e-8 (the search only ranks and seeds: the final fit polishes).
void TorusAlongDirection::settle_circle(double* p, double& s, Matrix7& jtj, Vector7& jte, int steps) const {
  Matrix7 trial_jtj;
  Vector7 trial_jte;
  for (int step = 0; step < steps; ++step) {
    Eigen::LDLT<Eigen::Matrix3d> ldlt(jtj.bottomRightCorner<3, 3>());
    if (ldlt.info() != Eigen::Success) return;
    Eigen::Vector3d delta = ldlt.solve(-jte.tail<3>());
    if (!delta.allFinite()) return;
    double trial[7] = {p[0], p[1], p[2], p[3], p[4] + delta[0], p[5] + delta[1], p[6] + delta[2]};
    const double ts = pass(trial, trial_jtj, trial_jte);
    if (!(ts < s)) return;
    const bool settled = s - ts <= 1e-8 * s;
    std::copy(trial, trial + 7, p);
    s = ts;
    jtj = trial_jtj;
    jte = trial_jte;
    if (settled) return;
  }
}

// The algebraic circle through the projections of the points with lo <= z <= hi.
bool TorusAlongDirection::projected_circle(double lo, double hi, double& a, double& b) const {
  KasaCircle kasa;
  for (int i = 0; i < points_.count(); ++i)
    if (z_[i] >= lo && z_[i] <= hi) kasa.add(x_[i], y_[i]);
  double radius = 0.0;
  return kasa.circle(a, b, radius);
}

// The point where the normal lines, projected along the trial direction, meet in the least-
// squares sense (on a surface of revolution every normal line meets the axis). Each line
// weighs as its projected normal's squared length, so normals along the direction, which
// say nothing of the position, count for nothing.
bool TorusAlongDirection::normals_meet(giUnitVec3 const& e1, giUnitVec3 const& e2, double& a, double& b) const {
  double sxx = 0, sxy = 0, syy = 0, rx = 0, ry = 0;
  for (int i = 0; i < points_.count(); ++i) {
    // The projected line through (x, y) along (tx, ty) has the normal m = (-ty, tx).
    const double mx = -e2.dot(normals_[i]), my = e1.dot(normals_[i]);
    const double c = mx * x_[i] + my * y_[i];
    sxx += mx * mx;
    sxy += mx * my;
    syy += my * my;
    rx += mx * c;
    ry += my * c;
  }
  return gfit::detail::solve_symmetric_2x2(sxx, sxy, syy, rx, ry, a, b);
}

bool TorusAlongDirection::fit(giUnitVec3 const& d, int iterations, double const* offset, TorusStart& out) {
  const int n = points_.count();
  if (n < 3 || d.invalid()) return false;
  const giUnitVec3 e1 = d.any_normal(), e2(d.cross(e1));
  double const* q = points_.xyz();
  for (int i = 0; i < n; ++i) {
    const double px = q[3 * i], py = q[3 * i + 1], pz = q[3 * i + 2];
    x_[i] = e1.x() * px + e1.y() * py + e1.z() * pz;
    y_[i] = e2.x() * px + e2.y() * py + e2.z() * pz;
    z_[i] = d.x() * px + d.y() * py + d.z() * pz;
  }
  Matrix7 jtj, trial_jtj;
  Vector7 jte, trial_jte;
  double p[7] = {0, 0, 0, 0, 0, 0, 0};
  double s = DBL_MAX;
  if (offset) {
    p[0] = offset[0];
    p[1] = offset[1];
    if (!meridian_circle(p)) return false;
    s = pass(p, jtj, jte);
  } else {
    // The twentieths by height (at least 5 points): the z ranked k from either end.
    std::copy(z_.begin(), z_.end(), f_.begin());
    const int k = std::max(n / 20, 5);
    std::nth_element(f_.begin(), f_.begin() + k, f_.end());
    const double low = f_[k];
    std::nth_element(f_.begin(), f_.begin() + (n - 1 - k), f_.end());
    const double high = f_[n - 1 - k];
    const double slabs[4][2] = {{-DBL_MAX, DBL_MAX}, {high, DBL_MAX}, {-DBL_MAX, low}, {0.0, 0.0}};
    for (int slab = 0; slab < (normals_ ? 4 : 3); ++slab) {
      double t[7] = {0, 0, 0, 0, 0, 0, 0};
      if (slab < 3 ? !projected_circle(slabs[slab][0], slabs[slab][1], t[0], t[1]) : !normals_meet(e1, e2, t[0], t[1]))
        continue;
      if (!meridian_circle(t)) continue;
      const double ts = meridian_sum_of_squares(t);
      if (ts < s) {
        std::copy(t, t + 7, p);
        s = ts;
      }
    }
    if (s == DBL_MAX && !meridian_circle(p)) return false;  // no circle across d: through the centroid
    s = pass(p, jtj, jte);
  }
  if (!std::isfinite(s)) return false;
  settle_circle(p, s, jtj, jte, 3);

  double lambda = 0.0;
  for (int it = 0; it < iterations && s > 0.0; ++it) {
    // The reduced system of the axis: S = A - B C^-1 B^T, r = -(g_out - B C^-1 g_in).
    Eigen::LDLT<Eigen::Matrix3d> inner(jtj.bottomRightCorner<3, 3>());
    if (inner.info() != Eigen::Success) break;
    const Eigen::Matrix<double, 3, 4> cb = inner.solve(jtj.bottomLeftCorner<3, 4>());
    const Eigen::Vector3d cg = inner.solve(jte.tail<3>());
    Eigen::Matrix4d S = jtj.topLeftCorner<4, 4>() - jtj.topRightCorner<4, 3>() * cb;
    const Eigen::Vector4d r = -(jte.head<4>() - jtj.topRightCorner<4, 3>() * cg);
    for (int j = 0; j < 4; ++j) S(j, j) *= 1.0 + lambda;
    Eigen::LDLT<Eigen::Matrix4d> outer(S);
    const Eigen::Vector4d step = outer.solve(r);
    if (outer.info() != Eigen::Success || !step.allFinite()) break;
    const Eigen::Vector3d inner_step = -cg - cb * step;
    double trial[7] = {p[0] + step[0], p[1] + step[1], p[2] + step[2], p[3] + step[3],
                       p[4] + inner_step[0], p[5] + inner_step[1], p[6] + inner_step[2]};
    double ts = pass(trial, trial_jtj, trial_jte);
    if (std::isfinite(ts)) settle_circle(trial, ts, trial_jtj, trial_jte, 1);
    if (ts < s) {
      const bool settled = s - ts <= 1e-7 * s;
      std::copy(trial, trial + 7, p);
      s = ts;
      jtj = trial_jtj;
      jte = trial_jte;
      lambda = lambda > 1e-6 ? 0.1 * lambda : 0.0;
      if (settled) break;
    } else {
      lambda = lambda == 0.0 ? 1e-3 : 10.0 * lambda;
      if (lambda > 1e6) break;
    }
  }
  if (!std::isfinite(s)) return false;
  // Back to world coordinates.
  const FrameAxis u(p);
  const giVector3 axis = giVector3(e1) * u.ux + giVector3(e2) * u.uy + giVector3(d) * u.uz;
  const giPoint3 centre = points_.centroid() + giVector3(e1) * p[0] + giVector3(e2) * p[1] + axis * p[5];
  const double t[8] = {centre.x(), centre.y(), centre.z(), axis.x(), axis.y(), axis.z(), p[4], p[6]};
  std::copy(t, t + 8, out.torus);
  out.sum_of_squares = s;
  return true;
}

// At most `limit` points spread evenly over the array (all of them when there are fewer).
giPoint3coDynArr const& spread(giPoint3coDynArr const& points, int limit, giPoint3coDynArr& storage) {
  const int n = points.count();
  if (n <= limit) return points;
  storage.clear(0);
  storage.reserve(limit);
  for (int k = 0; k < limit; ++k) storage.append(points[static_cast<int>(static_cast<long long>(n) * k / limit)]);
  return storage;
}

// The starts of `directions`, fitted on the allowed threads; ok[i] says whether direction
// i gave one. Each start is computed alone, so the results do not depend on the threads.
void fit_directions(std::vector<giUnitVec3> const& directions, std::vector<TorusAlongDirection>& fitters,
                    std::vector<TorusStart>& starts, std::vector<char>& ok) {
  const int count = static_cast<int>(directions.size());
  starts.assign(count, TorusStart());
  ok.assign(count, 0);
  gfit::detail::parallel_for(count, static_cast<int>(fitters.size()), [&](int i, int worker) {
    if (gfit::detail::cancelled()) return;  // the caller gives up on a cancelled scan
    ok[i] = fitters[worker].fit(directions[i], kScanIterations, nullptr, starts[i]);
  });
}

bool physical(mlVector const& p) { return p[6] > 0.0 && p[7] > 0.0; }

struct Fitted {
  mlVector parameters;  // the centre measured from `origin`
  double value = DBL_MAX;
  giPoint3 origin = giPoint3(0.0, 0.0, 0.0);
};

// A start's parameters with the centre measured from `origin`.
mlVector from(giPoint3 const& origin, TorusStart const& s) {
  mlVector p = s.parameters();
  p[0] -= origin.x();
  p[1] -= origin.y();
  p[2] -= origin.z();
  return p;
}

// Keeps `candidate` when it beats `best`: a torus with both radii positive beats one
// without; otherwise the smaller mean squared distance wins (the first of equal ones).
void keep_better(Fitted const& candidate, Fitted& best) {
  if (!std::isfinite(candidate.value)) return;
  if (best.value == DBL_MAX) {
    best = candidate;
    return;
  }
  const bool a = physical(candidate.parameters), b = physical(best.parameters);
  if (a != b) {
    if (a) best = candidate;
    return;
  }
  if (candidate.value < best.value) best = candidate;
}

// The best of `starts` that differ from each other (in axis by more than 10 degrees, in
// centre or ring radius by more than `size` / 20), best first, those with both radii
// positive before the others, at most `count` of them. A broad false minimum leaves many
// starts about it, not all settled: only one of them is kept.
std::vector<TorusStart> distinct_best(std::vector<TorusStart> starts, double size, int count) {
  std::stable_sort(starts.begin(), starts.end(), [](TorusStart const& a, TorusStart const& b) {
    const bool pa = a.torus[6] > 0.0 && a.torus[7] > 0.0, pb = b.torus[6] > 0.0 && b.torus[7] > 0.0;
    return pa != pb ? pa : a.sum_of_squares < b.sum_of_squares;
  });
  const double parallel = std::cos(10.0 * giPi / 180.0);
  std::vector<TorusStart> chosen;
  for (TorusStart const& s : starts) {
    if (static_cast<int>(chosen.size()) >= count) break;
    bool other = true;
    for (TorusStart const& c : chosen) {
      const double apart = std::hypot(std::hypot(s.torus[0] - c.torus[0], s.torus[1] - c.torus[1]),
                                      s.torus[2] - c.torus[2]);
      if (std::fabs(s.axis().dot(c.axis())) >= parallel && apart <= 0.05 * size &&
          std::fabs(s.torus[6] - c.torus[6]) <= 0.05 * size)
        other = false;
    }
    if (other) chosen.push_back(s);
  }
  return chosen;
}

// Unit normals of the points, each the direction of least spread of the point and its
// `neighbours` nearest others: enough for the axis of revolution to find a torus's axis and
// its position even where the shape of the points hides them (a short, fat elbow). The
// neighbours are found by brute force: the scan holds at most kScanPoints points.
giUnitVec3coDynArr estimate_normals(CentredPoints const& centred, int neighbours) {
  const int m = centred.count(), k = std::min(neighbours, m - 1);
  double const* q = centred.xyz();
  const int threads = gfit::detail::threads_for(m, 10.0 * m);
  std::vector<std::vector<std::pair<double, int>>> scratch(threads, std::vector<std::pair<double, int>>(m));
  std::vector<giUnitVec3> normals(m);
  gfit::detail::parallel_for(m, threads, [&](int i, int worker) {
    std::vector<std::pair<double, int>>& near = scratch[worker];
    for (int j = 0; j < m; ++j) {
      const double dx = q[3 * j] - q[3 * i], dy = q[3 * j + 1] - q[3 * i + 1], dz = q[3 * j + 2] - q[3 * i + 2];
      near[j] = {dx * dx + dy * dy + dz * dz, j};  // the point itself comes first, at 0
    }
    std::nth_element(near.begin(), near.begin() + k, near.end());
    Eigen::Vector3d mean = Eigen::Vector3d::Zero();
    for (int t = 0; t <= k; ++t) mean += Eigen::Vector3d(q + 3 * near[t].second);
    mean /= k + 1;
    Eigen::Matrix3d cov = Eigen::Matrix3d::Zero();
    for (int t = 0; t <= k; ++t) {
      const Eigen::Vector3d d = Eigen::Vector3d(q + 3 * near[t].second) - mean;
      cov += d * d.transpose();
    }
    Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> eig;
    eig.computeDirect(cov);
    const Eigen::Vector3d n = eig.eigenvectors().col(0);
    normals[i] = giUnitVec3(n[0], n[1], n[2]);
  });
  giUnitVec3coDynArr out(m, 16);
  for (giUnitVec3 const& n : normals) out.append(n.invalid() ? giUnitVec3(0.0, 0.0, 1.0) : n);
  return out;
}

// The search of evaluate_torus (see the header): the best torus, or false.
bool search_torus(giPoint3coDynArr const& points, Fitted& best) {
  giPoint3coDynArr storage;
  giPoint3coDynArr const& scan = spread(points, kScanPoints, storage);
  CentredPoints centred(scan);
  const int m = centred.count();
  double size = 0.0;  // the RMS distance of the points from their centroid

  // Trial directions: the principal axes, the guess directions, the circle's normal.
  std::vector<giUnitVec3> directions;
  {
    mlMatrix scatter(3, 3);
    double const* q = centred.xyz();
    for (int i = 0; i < m; ++i)
      for (int r = 0; r < 3; ++r)
        for (int c = 0; c <= r; ++c) scatter(r, c) += q[3 * i + r] * q[3 * i + c];
    size = std::sqrt((scatter(0, 0) + scatter(1, 1) + scatter(2, 2)) / m);
    mlSymEigenVecs eig(scatter);
    giVector3 axes[3];
    for (int k = 0; k < 3; ++k) {
      mlVector v = eig.eigenvector(k);
      axes[k] = giVector3(v[0], v[1], v[2]);
      directions.emplace_back(axes[k]);
    }
    // Where two principal moments are alike their axes are any pair in their plane (a 90-degree
    // elbow with a bend radius three times the tube's has its axis and its chord alike), so
    // the axis may be anywhere in it: directions around that plane, 10 degrees apart.
    for (int i = 0; i < 3; ++i)
      for (int j = i + 1; j < 3; ++j)
        if (eig.eigenvalue(i) >= 0.5 * eig.eigenvalue(j))
          for (int k = 1; k < 18; ++k)
            if (k != 9)
              directions.emplace_back(axes[i] * std::cos(k * giPi / 18) + axes[j] * std::sin(k * giPi / 18));
  }
  for (int k = 0; k < gfLeastSquareDistance3::num_guess_directions(); ++k)
    directions.push_back(gfLeastSquareDistance3::guess_direction(k));
  {
    giPoint3 centre;
    giUnitVec3 normal;
    double radius = 0.0, rms = 0.0;
    if (gfLeastSquareEvaluator::evaluate_circle3(points, centre, normal, radius, rms)) directions.push_back(normal);
  }

  giUnitVec3coDynArr normals;
  if (m >= 6) normals = estimate_normals(centred, 6);
  const int threads = gfit::detail::threads_for(100, 60.0 * kScanIterations * m);
  std::vector<TorusAlongDirection> fitters(
      threads, TorusAlongDirection(centred, normals.count() == m ? normals.data() : nullptr));
  std::vector<TorusStart> starts, pool;
  std::vector<char> ok;
  auto scan_directions = [&]() {
    fit_directions(directions, fitters, starts, ok);
    for (size_t i = 0; i < starts.size(); ++i)
      if (ok[i]) pool.push_back(starts[i]);
  };
  scan_directions();
  if (gfit::detail::cancelled()) return false;
  // The axis of revolution of the points with estimated normals, position included.
  if (normals.count() == m) {
    giPoint3 point;
    giUnitVec3 direction;
    double rms = 0.0;
    TorusStart start;
    if (gfLeastSquareEvaluator::evaluate_axis_rev(scan, normals, point, direction, rms)) {
      const giUnitVec3 e1 = direction.any_normal(), e2(direction.cross(e1));
      const giVector3 offset = point - centred.centroid();
      const double ab[2] = {e1.dot(offset), e2.dot(offset)};
      if (fitters[0].fit(direction, kScanIterations, ab, start)) pool.push_back(start);
    }
  }
  if (pool.empty()) return false;
  TorusStart const* first = &pool.front();
  for (TorusStart const& s : pool)
    if (s.sum_of_squares < first->sum_of_squares) first = &s;

  // Unless the best already fits within a thousandth of both radii, the same from a pattern
  // of directions over the whole hemisphere about it, 15 degrees apart: the minimum over
  // the axis is narrow (a tilt moves the far points by the ring's size) and false minima,
  // such as a spindle-shaped torus about a short elbow, are broad.
  const double rms = std::sqrt(first->sum_of_squares / m);
  if (!(first->torus[6] > 0.0 && rms <= 1e-3 * std::fmin(first->torus[6], first->torus[7]))) {
    gfVectorGradient gradient(giVector3(first->axis()), giPi, 7);
    directions.clear();
    for (gfVectorGradientIterator it = gradient.iterator(); it++;) directions.push_back(it.vector().unit());
    scan_directions();
  }
  if (gfit::detail::cancelled()) return false;
  std::vector<TorusStart> chosen = distinct_best(pool, size, kStarts);

  // Levenberg-Marquardt from each start on the points of the scan, then from the best on
  // all the points, in a frame centred on the scan.
  const giPoint3 origin = centred.centroid();
  gfLeastSquareTorus problem(scan, origin);
  Fitted on_scan;
  on_scan.origin = origin;
  for (TorusStart const& s : chosen) {
    mlLevenbergMarquardt lm(problem);
    Fitted f;
    f.origin = origin;
    f.parameters = mlVector(8);
    f.value = lm.fit(from(origin, s), f.parameters);
    keep_better(f, on_scan);
  }
  if (on_scan.value == DBL_MAX) return false;
  if (scan.count() == points.count()) {
    best = on_scan;
  } else {
    gfLeastSquareTorus all(points, origin);
    mlLevenbergMarquardt lm(all);
    best.origin = origin;
    best.parameters = mlVector(8);
    best.value = lm.fit(on_scan.parameters, best.parameters);
  }
  return std::isfinite(best.value);
}

// The test of a solution (see leastsquares/refusal.h): a finite value and a Jacobian of full
// rank (the centre is a real point of the torus, so it needs no sliding), formed in the frame
// of the problem whose parameters `p` are (centre measured from `origin`). Records the reason
// when it fails.
bool determined_torus(giPoint3coDynArr const& points, giPoint3 const& origin, mlVector const& p, double value) {
  using gfit::detail::refuse;
  if (!std::isfinite(value)) return refuse(gfReason::no_convergence) != 0;
  gfLeastSquareTorus problem(points, origin);
  if (!gfit::detail::determined(gfit::detail::determination(problem, p))) return refuse(gfReason::not_determined) != 0;
  return true;
}

void write_torus(Fitted const& f, giPoint3& centre, giUnitVec3& axis, double& r1, double& r2, double& residual) {
  mlVector const& p = f.parameters;
  centre = giPoint3(f.origin.x() + p[0], f.origin.y() + p[1], f.origin.z() + p[2]);
  axis = giUnitVec3(p[3], p[4], p[5]);
  r1 = p[6];
  r2 = p[7];
  residual = std::sqrt(f.value);
}

}  // namespace

// ---- evaluator entries ------------------------------------------------------------------

int gfLeastSquareEvaluator::evaluate_torus(giPoint3coDynArr const& points, giPoint3& centre, giUnitVec3& axis,
                                           double& r1, double& r2, double& residual) {
  if (!gfit::detail::check_points(points, 7, gfit::detail::Span::space)) return 0;
  Fitted best;
  const bool found = search_torus(points, best);
  if (gfit::detail::cancelled()) return gfit::detail::refuse(gfReason::cancelled);
  if (!found) return gfit::detail::refuse(gfReason::no_convergence, "no torus found");
  // Judged on all the points, after the refinement on all of them, in the frame it used.
  if (!determined_torus(points, best.origin, best.parameters, best.value)) return 0;
  write_torus(best, centre, axis, r1, r2, residual);
  return gfit::detail::succeed();
}

int gfLeastSquareEvaluator::evaluate_torus_with_guess(giPoint3coDynArr const& points, giPoint3& centre,
                                                      giUnitVec3& axis, double& r1, double& r2, double& residual) {
  if (!gfit::detail::check_points(points, 7, gfit::detail::Span::space)) return 0;
  if (!centre.finite() || axis.invalid() ||
      !(std::isfinite(axis.x()) && std::isfinite(axis.y()) && std::isfinite(axis.z())))
    return gfit::detail::refuse(gfReason::invalid_argument, "the guess is unset or not finite");
  // The radii and the centre's height from the meridian circle about the given axis, on at
  // most kScanPoints of the points (a start needs no more); then the fit on all of them.
  giPoint3coDynArr storage;
  CentredPoints centred(spread(points, kScanPoints, storage));
  TorusAlongDirection fitter(centred);
  const giUnitVec3 e1 = axis.any_normal(), e2(axis.cross(e1));
  const giVector3 offset = centre - centred.centroid();
  const double ab[2] = {e1.dot(offset), e2.dot(offset)};
  TorusStart start;
  if (!fitter.fit(axis, 0, ab, start)) return gfit::detail::refuse(gfReason::no_convergence, "no torus found");
  const giPoint3 origin = centred.centroid();
  gfLeastSquareTorus problem(points, origin);
  mlLevenbergMarquardt lm(problem);
  Fitted f;
  f.origin = origin;
  f.parameters = mlVector(8);
  f.value = lm.fit(from(origin, start), f.parameters);
  if (gfit::detail::cancelled()) return gfit::detail::refuse(gfReason::cancelled);
  if (!determined_torus(points, origin, f.parameters, f.value)) return 0;
  write_torus(f, centre, axis, r1, r2, residual);
  return gfit::detail::succeed();
}

// ---- the probe-compensated torus --------------------------------------------------------

namespace {

// The mean squared compensated distance as a function of 7 variables that are all 1 at a
// reference torus: the centre and the radii move by `length` per unit, the axis turns by
// two angles of length / L per unit (L the ring's size) about the reference axis. Relative
// steps and tolerances of the simplex are then alike for every variable. The distances are
// the torus problem's own, plus each point's compensation.
class CompensatedTorus : public mlFunctionN1 {
 public:
  CompensatedTorus(giPoint3coDynArr const& points, doublecoDynArr const& rho)
      : mlFunctionN1(7), problem_(points), rho_(rho), distances_(kBlock), squares_(kBlock) {}

  // The reference torus; the length unit is a fifth of its tube radius (or of a hundredth
  // of its ring radius, when that is larger).
  void set_reference(mlVector const& torus) {
    reference_ = torus;
    w_ = giUnitVec3(torus[3], torus[4], torus[5]);
    e1_ = w_.any_normal();
    e2_ = giUnitVec3(w_.cross(e1_));
    const double size = std::fmax(std::fabs(torus[6]), torus[7]);
    length_ = 0.2 * std::fmax(torus[7], 0.01 * size);
    turn_ = length_ / size;
  }

  // The torus (8 parameters) at x.
  void torus(mlSlice const& x, mlVector& t) const {
    t.resize(8);
    for (int k = 0; k < 3; ++k) t[k] = reference_[k] + (x[k] - 1.0) * length_;
    const double a = (x[3] - 1.0) * turn_, b = (x[4] - 1.0) * turn_;
    const giVector3 u = giVector3(w_) * (std::cos(a) * std::cos(b)) + e1_ * (std::sin(a) * std::cos(b)) +
                        e2_ * std::sin(b);
    t[3] = u.x();
    t[4] = u.y();
    t[5] = u.z();
    t[6] = reference_[6] + (x[5] - 1.0) * length_;
    t[7] = reference_[7] + (x[6] - 1.0) * length_;
  }

  double function(mlSlice const& x) override {
    torus(x, t_);
    problem_.set_parameters(t_);
    const int n = problem_.n_points();
    double s = 0.0;
    for (int first = 0; first < n; first += kBlock) {
      const int count = std::min(kBlock, n - first);
      problem_.evaluate_distances(first, count, distances_.data(), squares_.data());
      for (int k = 0; k < count; ++k) {
        const double d = distances_[k] + rho_[first + k];
        s += d * d;
      }
    }
    return s / n;
  }

 private:
  static constexpr int kBlock = 256;
  gfLeastSquareTorus problem_;
  doublecoDynArr const& rho_;
  std::vector<double> distances_, squares_;
  mlVector reference_, t_;
  giUnitVec3 w_, e1_, e2_;
  double length_ = 1.0, turn_ = 1.0;
};

}  // namespace

int gfCalculateTorusDownhillSimplex(giPoint3coDynArr const& points, doublecoDynArr const& radii, int inside,
                                    giPoint3& centre, giVector3& axis, double& r1, double& r2, double& residual,
                                    double tolerance) {
  using gfit::detail::refuse;
  const int n = points.count();
  if (n < 7) return refuse(gfReason::too_few_points);
  if (!gfit::detail::check_radii(radii, n) || !gfit::detail::check_points(points, 7, gfit::detail::Span::space))
    return 0;
  if (!(tolerance >= 0.0)) return refuse(gfReason::invalid_argument, "the tolerance is negative or not a number");
  const doublecoDynArr rho = gfit::detail::signed_radii(radii, n, inside);
  double mean = 0.0;
  for (double r : rho) mean += r;
  mean /= n;
  giPoint3 c0;
  giUnitVec3 u0;
  double a1 = 0.0, a2 = 0.0, rms = 0.0;
  if (!gfLeastSquareEvaluator::evaluate_torus(points, c0, u0, a1, a2, rms)) return 0;
  mlVector best{c0.x(), c0.y(), c0.z(), u0.x(), u0.y(), u0.z(), a1, a2 + mean};
  if (!(best[7] > 0.0))
    return refuse(gfReason::failed, "the compensated tube radius is not positive: no surface fits these balls");

  const double gain = tolerance > 0.0 ? tolerance : 1e-9;
  CompensatedTorus f(points, rho);
  const mlVector ones(7, 1.0);
  f.set_reference(best);
  double value = f.function(ones);
  mlVector x;
  for (int restart = 0; restart < 50; ++restart) {  // a bound that converging runs never reach
    mlDownHillSimplex simplex(7);
    const double v = simplex.solve(f, ones, ml_simplex_standard);
    if (!(v < value)) break;
    simplex.result(x);
    const bool small = value - v <= gain * value;
    f.torus(x, best);
    value = v;
    if (small) break;
    f.set_reference(best);
  }
  // The simplex works in world coordinates; the rank is judged in a frame at the centroid,
  // as for the other fits.
  const giPoint3 origin = gfit::detail::mean_of(points.data(), n);
  mlVector local = best;
  local[0] -= origin.x();
  local[1] -= origin.y();
  local[2] -= origin.z();
  if (!determined_torus(points, origin, local, value)) return 0;
  centre = giPoint3(best[0], best[1], best[2]);
  axis = giVector3(best[3], best[4], best[5]);
  r1 = best[6];
  r2 = best[7];
  residual = std::sqrt(value);
  return gfit::detail::succeed();
}

int gfLeastSquareEvaluator::evaluate_probed_torus(giPoint3coDynArr const& points, doublecoDynArr const& radii,
                                                  int inside, giPoint3& centre, giUnitVec3& axis, double& r1,
                                                  double& r2, double& residual) {
  if (points.count() < 4) return gfit::detail::refuse(gfReason::too_few_points);
  giVector3 u;
  const int status = gfCalculateTorusDownhillSimplex(points, radii, inside, centre, u, r1, r2, residual, 0.0);
  if (status) axis = giUnitVec3(u);
  return status;
}
