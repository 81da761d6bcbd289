#include "gfit/extremal/minimum_zone_fits.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <numeric>
#include <vector>

#include "gfit/leastsquares/evaluator.h"
#include "gfit/platform/angle.h"
#include "gfit/platform/quadratic_minimiser.h"
#include "gfit/platform/report.h"

#include <Eigen/Dense>

namespace gfit::detail {

namespace {

struct Vec {
  double x = 0.0, y = 0.0, z = 0.0;
};
inline Vec operator+(Vec a, Vec b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
inline Vec operator-(Vec a, Vec b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
inline Vec operator*(double s, Vec a) { return {s * a.x, s * a.y, s * a.z}; }
inline double dot(Vec a, Vec b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
inline Vec cross(Vec a, Vec b) { return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }
inline double norm(Vec a) { return std::sqrt(dot(a, a)); }
inline Vec unit(Vec a) { return (1.0 / norm(a)) * a; }

// Scaled units: the points' extent is 1. Below these the zone is settled.
constexpr double zero_width = 1e-15;          // a zone this thin is exact already
constexpr double settled = 1e-12;             // predicted narrowing, relative to the width
constexpr double smallest_trust = 1e-16;
constexpr double certified_below = 1e-7;      // distance of zero from the contacts' hull
constexpr int max_contacts = 32;              // per side, for the certificate

enum class Kind { plane, line, sphere, cylinder };

// The element in scaled coordinates. plane: p = foot of the origin, u = normal;
// line, cylinder: p = axis point nearest the origin, u = axis; sphere: p = centre.
struct Element {
  Vec p, u;
};

struct Zone {
  Kind kind;
  std::vector<Vec> q;  // the points relative to the centroid, in units of the extent
  Vec origin;
  double scale = 1.0;

  int k() const { return kind == Kind::plane ? 2 : kind == Kind::sphere ? 3 : 4; }
  bool two_sided() const { return kind != Kind::line; }
  int variables() const { return k() + (two_sided() ? 2 : 1); }

  // Two unit vectors completing u to a right-handed frame (fixed axes for the sphere).
  static void frame(Vec u, Vec& e1, Vec& e2) {
    Vec r = std::fabs(u.x) > std::fabs(u.y) ? Vec{0.0, 1.0, 0.0} : Vec{1.0, 0.0, 0.0};
    e1 = unit(cross(u, r));
    e2 = cross(u, e1);
  }

  double distance(Element const& el, Vec point) const {
    Vec v = point - el.p;
    if (kind == Kind::plane) return dot(v, el.u);
    if (kind == Kind::sphere) return norm(v);
    return norm(v - dot(v, el.u) * el.u);
  }

  // Distance and its gradient in the independent parameters of `apply`.
  double gradient(Element const& el, Vec e1, Vec e2, Vec point, double* g) const {
    Vec v = point - el.p;
    switch (kind) {
      case Kind::plane:
        g[0] = dot(v, e1);
        g[1] = dot(v, e2);
        return dot(v, el.u);
      case Kind::sphere: {
        double d = norm(v);
        double s = d > 0.0 ? -1.0 / d : 0.0;  // a centre on a point: flat to first order
        g[0] = s * v.x, g[1] = s * v.y, g[2] = s * v.z;
        return d;
      }
      default: {
        double t = dot(v, el.u);
        Vec w = v - t * el.u;
        double d = norm(w);
        double a = 0.0, b = 0.0;
        if (d > 0.0) a = -dot(w, e1) / d, b = -dot(w, e2) / d;
        g[0] = a, g[1] = b, g[2] = t * a, g[3] = t * b;
        return d;
      }
    }
  }

  // The Hessian of the distance in the same parameters (k x k, row-major): what a zone held
  // by fewer contacts than parameters needs to converge fast (SQP rather than SLP).
  void hessian(Element const& el, Vec e1, Vec e2, Vec point, double* h) const {
    const int k = this->k();
    std::fill(h, h + k * k, 0.0);
    Vec v = point - el.p;
    switch (kind) {
      case Kind::plane: {  // u(a, b) = unit(u + a e1 + b e2) bends back by -u
        double d = dot(v, el.u);
        h[0] = h[3] = -d;
        return;
      }
      case Kind::sphere: {  // (I - w w^T) / d
        double d = norm(v);
        if (!(d > 0.0)) return;
        double w[3] = {v.x / d, v.y / d, v.z / d};
        for (int a = 0; a < 3; ++a)
          for (int b = 0; b < 3; ++b) h[a * 3 + b] = ((a == b ? 1.0 : 0.0) - w[a] * w[b]) / d;
        return;
      }
      default: {
        // d^2 = f(x, y, a, b) = A^2 + B^2 + T^2 - (T + A a + B b)^2 / (1 + a^2 + b^2),
        // A = X - x, B = Y - y, with (X, Y, T) the point in the frame (e1, e2, u).
        double X = dot(v, e1), Y = dot(v, e2), T = dot(v, el.u);
        double d = std::sqrt(X * X + Y * Y);
        if (!(d > 0.0)) return;
        double gf[4] = {-2 * X, -2 * Y, -2 * T * X, -2 * T * Y};
        double hf[16] = {2, 0, 2 * T, 0,                        //
                         0, 2, 0, 2 * T,                        //
                         2 * T, 0, 2 * T * T - 2 * X * X, -2 * X * Y,  //
                         0, 2 * T, -2 * X * Y, 2 * T * T - 2 * Y * Y};
        for (int a = 0; a < 4; ++a)
          for (int b = 0; b < 4; ++b) h[a * 4 + b] = hf[a * 4 + b] / (2 * d) - gf[a] * gf[b] / (4 * d * d * d);
      }
    }
  }

  // The element moved by the step d: the plane tilted about its foot point; the centre
  // shifted; the axis point shifted across the axis and the axis tilted, then the point
  // pinned again as the foot of the origin.
  Element apply(Element const& el, Vec e1, Vec e2, double const* d) const {
    Element out = el;
    switch (kind) {
      case Kind::plane:
        out.u = unit(el.u + d[0] * e1 + d[1] * e2);
        out.p = dot(el.p, out.u) * out.u;
        break;
      case Kind::sphere:
        out.p = el.p + Vec{d[0], d[1], d[2]};
        break;
      default: {
        Vec p = el.p + d[0] * e1 + d[1] * e2;
        out.u = unit(el.u + d[2] * e1 + d[3] * e2);
        out.p = p - dot(p, out.u) * out.u;
      }
    }
    return out;
  }

  void extremes(Element const& el, double& hi, double& lo) const {
    hi = -DBL_MAX, lo = DBL_MAX;
    for (Vec const& v : q) {
      double d = distance(el, v);
      hi = std::max(hi, d);
      lo = std::min(lo, d);
    }
  }
  double width(double hi, double lo) const { return two_sided() ? hi - lo : 2.0 * hi; }
};

struct Search {
  Element el;
  double hi = 0.0, lo = 0.0;
  int steps = 0;
  bool capped = false;
};

// Sequential linear programming from `el` (see the header).
Search minimise(Zone const& z, Element el) {
  const int k = z.k(), nv = z.variables();
  const int iR = k, ir = k + 1;
  const int n = static_cast<int>(z.q.size());
  Search s;
  s.el = el;
  z.extremes(el, s.hi, s.lo);
  double w = z.width(s.hi, s.lo);
  double trust = std::max(w, 1e-12);

  std::vector<double> e(n), bound(n), h(nv * nv), gq(nv), row(nv), x(nv), x2(nv), corr(n);
  mlConstrainedQuadraticMinimiser qp;
  std::vector<int> id_point, weight_point;  // constraint id -> point (-1 - i: inner side; n: box)
  std::vector<double> weight;
  double g[4];
  int polish = 0;
  double last_polish = 0.0;
  for (; s.steps < gfMinimumZoneFit::max_steps; ++s.steps) {
    if (w <= zero_width || trust <= smallest_trust) return s;
    Vec e1{1.0, 0.0, 0.0}, e2{0.0, 1.0, 0.0};
    if (z.kind != Kind::sphere) Zone::frame(s.el.u, e1, e2);
    // Which points can reach an extreme within the box.
    double r_lo = -DBL_MAX, r_hi = DBL_MAX;
    for (int i = 0; i < n; ++i) {
      e[i] = z.gradient(s.el, e1, e2, z.q[i], g);
      double b = 0.0;
      for (int j = 0; j < k; ++j) b += std::fabs(g[j]);
      bound[i] = b * trust;
      r_lo = std::max(r_lo, e[i] - bound[i]);
      r_hi = std::min(r_hi, e[i] + bound[i]);
    }
    // The curvature of the zone's Lagrangian (the contacts' distance Hessians weighted by
    // the last multipliers, outer minus inner), its negative part dropped, plus a small
    // proximal term that keeps it positive definite.
    Eigen::Matrix4d lag = Eigen::Matrix4d::Zero();
    double hp[16];
    for (size_t c = 0; c < weight_point.size(); ++c) {
      z.hessian(s.el, e1, e2, z.q[weight_point[c]], hp);
      for (int a = 0; a < k; ++a)
        for (int b = 0; b < k; ++b) lag(a, b) += weight[c] * hp[a * k + b];
    }
    Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> eig(lag.topLeftCorner(k, k));
    Eigen::MatrixXd curv = eig.eigenvectors() * eig.eigenvalues().cwiseMax(0.0).asDiagonal() *
                           eig.eigenvectors().transpose();
    const double top = eig.eigenvalues().maxCoeff();
    const double mu = top > 0.0 ? 1e-3 * top : 0.01 / trust;
    std::fill(h.begin(), h.end(), 0.0);
    for (int a = 0; a < k; ++a)
      for (int b = 0; b < k; ++b) h[a * nv + b] = curv(a, b);
    for (int j = 0; j < nv; ++j) h[j * nv + j] += mu;
    std::fill(gq.begin(), gq.end(), 0.0);
    gq[iR] = (z.two_sided() ? 1.0 : 2.0) - mu * s.hi;
    if (z.two_sided()) gq[ir] = -1.0 - mu * s.lo;
    // The programme; `extra` (one per point, or null) adds to each linearised distance the
    // part of the true distance at a trial step that the linearisation missed (the
    // second-order correction: contacts that curve into the zone are seen a step early).
    auto build = [&](double const* extra) {
      qp.set_problem(nv, h.data(), gq.data());
      id_point.assign(2 * k, n);  // the box
      int id = 0;
      for (int j = 0; j < k; ++j) {
        std::fill(row.begin(), row.end(), 0.0);
        row[j] = 1.0;
        qp.add_inequality(row.data(), -trust, id++);
        row[j] = -1.0;
        qp.add_inequality(row.data(), -trust, id++);
      }
      for (int i = 0; i < n; ++i) {
        const bool upper = e[i] + bound[i] >= r_lo;
        const bool lower = z.two_sided() && e[i] - bound[i] <= r_hi;
        if (!upper && !lower) continue;
        z.gradient(s.el, e1, e2, z.q[i], g);
        const double ei = e[i] + (extra ? extra[i] : 0.0);
        if (upper) {  // R - g.d >= e
          id_point.push_back(i);
          std::fill(row.begin(), row.end(), 0.0);
          for (int j = 0; j < k; ++j) row[j] = -g[j];
          row[iR] = 1.0;
          qp.add_inequality(row.data(), ei, id++);
        }
        if (lower) {  // g.d - r >= -e
          id_point.push_back(-1 - i);
          std::fill(row.begin(), row.end(), 0.0);
          for (int j = 0; j < k; ++j) row[j] = g[j];
          row[ir] = -1.0;
          qp.add_inequality(row.data(), -ei, id++);
        }
      }
    };
    build(nullptr);
    if (qp.solve(x.data()) != mlConstrainedQuadraticMinimiser::ok) return s;
    weight_point.clear(), weight.clear();
    for (int a = 0; a < qp.n_active(); ++a) {
      int ip = id_point[qp.active_id(a)];
      if (ip == n) continue;
      weight_point.push_back(ip >= 0 ? ip : -1 - ip);
      weight.push_back(ip >= 0 ? qp.active_multiplier(a) : -qp.active_multiplier(a));
    }
    double quadratic = 0.0;
    for (int a = 0; a < k; ++a)
      for (int b = 0; b < k; ++b) quadratic += 0.5 * x[a] * curv(a, b) * x[b];
    const double model = (z.two_sided() ? x[iR] - x[ir] : 2.0 * x[iR]) + quadratic;
    const double predicted = w - model;
    if (!(predicted > 0.0)) return s;
    double step = 0.0;
    for (int j = 0; j < k; ++j) step = std::max(step, std::fabs(x[j]));
    Element trial = z.apply(s.el, e1, e2, x.data());
    double hi, lo;
    z.extremes(trial, hi, lo);
    double wt = z.width(hi, lo);
    if (!(wt < w - 0.75 * predicted)) {
      // A poor step: try it again with the distances' missed curvature.
      for (int i = 0; i < n; ++i) {
        z.gradient(s.el, e1, e2, z.q[i], g);
        double lin = e[i];
        for (int j = 0; j < k; ++j) lin += g[j] * x[j];
        corr[i] = z.distance(trial, z.q[i]) - lin;
      }
      build(corr.data());
      if (qp.solve(x2.data()) == mlConstrainedQuadraticMinimiser::ok) {
        Element second = z.apply(s.el, e1, e2, x2.data());
        double hi2, lo2;
        z.extremes(second, hi2, lo2);
        if (z.width(hi2, lo2) < wt) {
          trial = second, hi = hi2, lo = lo2, wt = z.width(hi2, lo2);
          step = 0.0;
          for (int j = 0; j < k; ++j) step = std::max(step, std::fabs(x2[j]));
        }
      }
    }
    // Polishing: once the predicted narrowing is below what the widths can resolve, the
    // steps are Newton steps on the contacts' equations and are judged by their size; they
    // go on while each is at most half the previous one.
    if (predicted <= settled * w + 1e-14 * (std::fabs(s.hi) + std::fabs(s.lo))) {
      if (polish >= 8 || (polish > 0 && step > 0.5 * last_polish) ||
          !(wt <= w + 1e-15 * (std::fabs(s.hi) + std::fabs(s.lo)))) return s;
      s.el = trial, s.hi = hi, s.lo = lo;
      w = wt;
      last_polish = step;
      ++polish;
      continue;
    }
    if (wt < w) {
      const double rho = (w - wt) / predicted;
      s.el = trial, s.hi = hi, s.lo = lo;
      w = wt;
      if (rho < 0.25)
        trust = 0.5 * step;
      else if (rho > 0.75 && step > 0.5 * trust)
        trust *= 2.0;
    } else {
      trust = 0.25 * step;
    }
  }
  s.capped = true;
  return s;
}

// Indices of the points within `tol` of the extreme, nearest first (ties by index), at most
// max_contacts.
std::vector<int> contacts(std::vector<double> const& e, double extreme, double tol, bool upper) {
  std::vector<int> idx;
  for (int i = 0; i < static_cast<int>(e.size()); ++i)
    if (upper ? e[i] >= extreme - tol : e[i] <= extreme + tol) idx.push_back(i);
  std::stable_sort(idx.begin(), idx.end(), [&](int a, int b) {
    return std::fabs(e[a] - extreme) < std::fabs(e[b] - extreme);
  });
  if (static_cast<int>(idx.size()) > max_contacts) idx.resize(max_contacts);
  return idx;
}

// The distance of zero from conv{g_i : outer} - conv{g_j : inner} (line: conv{g_i}), found
// as min |G w| over the weights; 0 when the weights solve G w = 0 exactly.
double certificate(Zone const& z, Element const& el, std::vector<int> const& outer, std::vector<int> const& inner) {
  const int k = z.k();
  const int m = static_cast<int>(outer.size() + inner.size());
  if (outer.empty() || (z.two_sided() && inner.empty())) return DBL_MAX;
  Vec e1{1.0, 0.0, 0.0}, e2{0.0, 1.0, 0.0};
  if (z.kind != Kind::sphere) Zone::frame(el.u, e1, e2);
  std::vector<double> cols(static_cast<size_t>(k) * m);  // column c of G at cols[c * k]
  double g[4];
  for (int c = 0; c < m; ++c) {
    const bool up = c < static_cast<int>(outer.size());
    z.gradient(el, e1, e2, z.q[up ? outer[c] : inner[c - outer.size()]], g);
    for (int j = 0; j < k; ++j) cols[c * k + j] = up ? g[j] : -g[j];
  }
  // Variables (y, w): y = G w exactly, min |y|^2 over the weights; a ridge of 1e-10 on the
  // weights keeps the Hessian definite and moves |y| by about that much at most.
  const int nv = k + m;
  std::vector<double> h(static_cast<size_t>(nv) * nv, 0.0), zero(nv, 0.0), row(nv), x(nv);
  for (int j = 0; j < nv; ++j) h[j * nv + j] = j < k ? 1.0 : 1e-10;
  mlConstrainedQuadraticMinimiser qp;
  qp.set_problem(nv, h.data(), zero.data());
  for (int j = 0; j < k; ++j) {
    std::fill(row.begin(), row.end(), 0.0);
    row[j] = 1.0;
    for (int c = 0; c < m; ++c) row[k + c] = -cols[c * k + j];
    qp.add_equality(row.data(), 0.0, -1 - j);
  }
  for (int side = 0; side < (z.two_sided() ? 2 : 1); ++side) {
    std::fill(row.begin(), row.end(), 0.0);
    for (int c = 0; c < m; ++c) row[k + c] = (c < static_cast<int>(outer.size())) == (side == 0) ? 1.0 : 0.0;
    qp.add_equality(row.data(), 1.0, -10 - side);
  }
  for (int c = 0; c < m; ++c) {
    std::fill(row.begin(), row.end(), 0.0);
    row[k + c] = 1.0;
    qp.add_inequality(row.data(), 0.0, c);
  }
  if (qp.solve(x.data()) != mlConstrainedQuadraticMinimiser::ok) return DBL_MAX;
  double r2 = 0.0;
  for (int j = 0; j < k; ++j) {
    double t = 0.0;
    for (int c = 0; c < m; ++c) t += cols[c * k + j] * x[k + c];
    r2 += t * t;
  }
  return std::sqrt(r2);
}

bool finite_and_in_range(giPoint3coDynArr const& points, gfReason& reason) {
  for (giPoint3 const& p : points) {
    if (!p.finite()) {
      reason = gfReason::non_finite_input;
      return false;
    }
    if (std::fabs(p.x()) > 1e150 || std::fabs(p.y()) > 1e150 || std::fabs(p.z()) > 1e150) {
      reason = gfReason::out_of_range;
      return false;
    }
  }
  return true;
}

// Singular values of the centred points, descending, relative to the largest: whether they
// span a line (rank 1), a plane (rank 2) or space.
int centred_rank(std::vector<Vec> const& q) {
  double m[3][3] = {};
  for (Vec const& v : q) {
    double c[3] = {v.x, v.y, v.z};
    for (int a = 0; a < 3; ++a)
      for (int b = 0; b < 3; ++b) m[a][b] += c[a] * c[b];
  }
  // Eigenvalues of the symmetric 3x3 moment matrix by Jacobi rotations.
  for (int sweep = 0; sweep < 50; ++sweep) {
    double off = std::fabs(m[0][1]) + std::fabs(m[0][2]) + std::fabs(m[1][2]);
    if (off == 0.0) break;
    for (int p = 0; p < 2; ++p)
      for (int r = p + 1; r < 3; ++r) {
        if (m[p][r] == 0.0) continue;
        double theta = (m[r][r] - m[p][p]) / (2.0 * m[p][r]);
        double t = (theta >= 0 ? 1.0 : -1.0) / (std::fabs(theta) + std::sqrt(theta * theta + 1.0));
        double c = 1.0 / std::sqrt(t * t + 1.0), s = t * c;
        for (int i = 0; i < 3; ++i) {
          double a = m[i][p], b = m[i][r];
          m[i][p] = c * a - s * b, m[i][r] = s * a + c * b;
        }
        for (int i = 0; i < 3; ++i) {
          double a = m[p][i], b = m[r][i];
          m[p][i] = c * a - s * b, m[r][i] = s * a + c * b;
        }
      }
  }
  double ev[3] = {std::fabs(m[0][0]), std::fabs(m[1][1]), std::fabs(m[2][2])};
  std::sort(ev, ev + 3, [](double a, double b) { return a > b; });
  if (!(ev[0] > 0.0)) return 0;
  // Singular values are square roots of these: 1e-12 relative in sigma is 1e-24 here.
  int rank = 1;
  if (ev[1] > 1e-24 * ev[0]) ++rank;
  if (ev[2] > 1e-24 * ev[0]) ++rank;
  return rank;
}

Zone make_zone(Kind kind, giPoint3coDynArr const& points) {
  Zone z;
  z.kind = kind;
  const int n = points.count();
  double sx = 0.0, sy = 0.0, sz = 0.0;
  for (giPoint3 const& p : points) sx += p.x(), sy += p.y(), sz += p.z();
  z.origin = {sx / n, sy / n, sz / n};
  double extent = 0.0;
  for (giPoint3 const& p : points) extent = std::max(extent, norm(Vec{p.x(), p.y(), p.z()} - z.origin));
  z.scale = extent;
  z.q.reserve(n);
  const double inv = extent > 0.0 ? 1.0 / extent : 1.0;
  for (giPoint3 const& p : points) z.q.push_back(inv * (Vec{p.x(), p.y(), p.z()} - z.origin));
  return z;
}

Vec local(Zone const& z, giPoint3 const& p) { return (1.0 / z.scale) * (Vec{p.x(), p.y(), p.z()} - z.origin); }
giPoint3 world(Zone const& z, Vec v) {
  return giPoint3(z.origin.x + z.scale * v.x, z.origin.y + z.scale * v.y, z.origin.z + z.scale * v.z);
}

// The least-squares start, pinned like the search's elements; false when it fails.
bool least_squares_start(Zone const& z, giPoint3coDynArr const& points, Element& el) {
  giPoint3 point;
  giUnitVec3 dir;
  double radius = 0.0, residual = 0.0;
  int ok = 0;
  switch (z.kind) {
    case Kind::plane: ok = gfLeastSquareEvaluator::evaluate_plane(points, point, dir, residual); break;
    case Kind::line: ok = gfLeastSquareEvaluator::evaluate_line3(points, point, dir, residual); break;
    case Kind::sphere: ok = gfLeastSquareEvaluator::evaluate_sphere(points, point, radius, residual); break;
    case Kind::cylinder:
      ok = gfLeastSquareEvaluator::evaluate_cylinder(points, point, dir, radius, residual, giUnitVec3(), giAngle(),
                                                     0);
      break;
  }
  if (ok != 1 || !point.finite()) return false;
  el.p = local(z, point);
  if (z.kind == Kind::sphere) return std::isfinite(norm(el.p));
  if (dir.invalid()) return false;
  el.u = unit(Vec{dir.x(), dir.y(), dir.z()});
  if (!std::isfinite(norm(el.u))) return false;
  // The foot of the origin (the centroid) on the plane or the axis.
  el.p = z.kind == Kind::plane ? dot(el.p, el.u) * el.u : el.p - dot(el.p, el.u) * el.u;
  return true;
}

// Writes the element of (el, hi, lo) in the caller's coordinates.
void write_element(Zone const& z, Element const& el, double hi, double lo, giPoint3& point, giUnitVec3& direction,
                   double& radius) {
  Vec p = el.p;
  if (z.kind == Kind::plane) p = p + (0.5 * (hi + lo)) * el.u;  // the mid plane
  point = world(z, p);
  direction = z.kind == Kind::sphere ? giUnitVec3() : giUnitVec3(el.u.x, el.u.y, el.u.z);
  if (z.kind == Kind::sphere || z.kind == Kind::cylinder)
    radius = 0.5 * (hi + lo) * z.scale;
  else if (z.kind == Kind::line)
    radius = hi * z.scale;
  else
    radius = 0.0;
}

int fit(Kind kind, giPoint3coDynArr const& points, gfMinimumZone& zone) {
  const int needed = kind == Kind::plane ? 3 : kind == Kind::line ? 2 : kind == Kind::sphere ? 4 : 5;
  if (points.count() < needed) return refuse(gfReason::too_few_points, "too few points for the minimum zone");
  gfReason reason = gfReason::none;
  if (!finite_and_in_range(points, reason))
    return refuse(reason, reason == gfReason::out_of_range ? "coordinates too large" : "a coordinate is not finite");
  Zone z = make_zone(kind, points);
  const int rank = z.scale > 0.0 ? centred_rank(z.q) : 0;
  const int rank_needed = kind == Kind::line ? 1 : kind == Kind::plane ? 2 : 3;
  if (rank < rank_needed)
    return refuse(gfReason::not_determined, kind == Kind::line    ? "the points coincide"
                                            : kind == Kind::plane ? "the points are collinear"
                                                                  : "the points are coplanar");
  Element start;
  if (!least_squares_start(z, points, start))
    return refuse(gfReason::no_convergence, "the least-squares element to start from failed");

  double hi0, lo0;
  z.extremes(start, hi0, lo0);
  Search s = minimise(z, start);

  // The contacts and their proof.
  std::vector<double> e(z.q.size());
  for (size_t i = 0; i < z.q.size(); ++i) e[i] = z.distance(s.el, z.q[i]);
  const double w = z.width(s.hi, s.lo);
  const double tol = 1e-12 + 1e-9 * w;
  std::vector<int> outer = contacts(e, s.hi, tol, true);
  std::vector<int> inner = z.two_sided() ? contacts(e, s.lo, tol, false) : std::vector<int>();
  double cert = w <= zero_width ? 0.0 : certificate(z, s.el, outer, inner);

  gfMinimumZone out;
  out.width = w * z.scale;
  out.least_squares_width = z.width(hi0, lo0) * z.scale;
  write_element(z, s.el, s.hi, s.lo, out.point, out.direction, out.radius);
  write_element(z, start, hi0, lo0, out.least_squares_point, out.least_squares_direction, out.least_squares_radius);
  for (int i : outer) out.outer.append(i);
  for (int i : inner) out.inner.append(i);
  out.certificate = cert;
  out.iterations = s.steps;
  out.status = cert <= certified_below ? gfMinimumZoneFit::certified
               : s.capped             ? gfMinimumZoneFit::iteration_limit
                                      : gfMinimumZoneFit::not_certified;
  zone = out;
  return succeed(zone.status);
}

}  // namespace
}  // namespace gfit::detail

int gfMinimumZoneFit::plane(giPoint3coDynArr const& points, gfMinimumZone& zone) {
  return gfit::detail::fit(gfit::detail::Kind::plane, points, zone);
}
int gfMinimumZoneFit::line3(giPoint3coDynArr const& points, gfMinimumZone& zone) {
  return gfit::detail::fit(gfit::detail::Kind::line, points, zone);
}
int gfMinimumZoneFit::sphere(giPoint3coDynArr const& points, gfMinimumZone& zone) {
  return gfit::detail::fit(gfit::detail::Kind::sphere, points, zone);
}
int gfMinimumZoneFit::cylinder(giPoint3coDynArr const& points, gfMinimumZone& zone) {
  return gfit::detail::fit(gfit::detail::Kind::cylinder, points, zone);
}
