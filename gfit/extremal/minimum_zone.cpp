#include "gfit/extremal/minimum_zone.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <utility>

namespace gfit::detail {

namespace {

// Scaled units: the profile's extent is 1.
constexpr double lp_tolerance = 1e-13;       // reduced costs and pivots of the programme
constexpr double contact_tolerance = 1e-12;  // a distance this close to an extreme is a contact
constexpr double smallest_trust = 1e-15;
constexpr int max_steps = 200;                // trust-region steps per refinement
constexpr int max_pivots = 400;               // simplex pivots per programme
constexpr int max_newton = 12;

// The profile in its own frame: relative to the centroid, in units of the extent.
struct Frame {
  std::vector<giPoint2> q;
  std::vector<double> rho;  // empty for plain points
  giPoint2 origin;
  double scale = 1.0;

  giPoint2 local(giPoint2 const& p) const {
    return giPoint2((p.x() - origin.x()) / scale, (p.y() - origin.y()) / scale);
  }
  giPoint2 world(giPoint2 const& c) const {
    return giPoint2(origin.x() + c.x() * scale, origin.y() + c.y() * scale);
  }
  double e(size_t i, giPoint2 const& c) const { return c.distance(q[i]) - (rho.empty() ? 0.0 : rho[i]); }
  double width(giPoint2 const& c) const {
    double hi = -DBL_MAX, lo = DBL_MAX;
    for (size_t i = 0; i < q.size(); ++i) {
      double d = e(i, c);
      hi = std::max(hi, d);
      lo = std::min(lo, d);
    }
    return hi - lo;
  }
};

Frame make_frame(std::vector<giPoint2> const& points, double const* rho) {
  Frame f;
  double sx = 0.0, sy = 0.0;
  for (giPoint2 const& p : points) {
    sx += p.x();
    sy += p.y();
  }
  const double n = static_cast<double>(points.size());
  f.origin = giPoint2(sx / n, sy / n);
  double extent = 0.0;
  for (giPoint2 const& p : points) extent = std::max(extent, p.distance(f.origin));
  f.scale = extent > 0.0 ? extent : 1.0;
  f.q.reserve(points.size());
  for (giPoint2 const& p : points) f.q.push_back(f.local(p));
  if (rho) f.rho.assign(rho, rho + points.size());
  for (double& r : f.rho) r /= f.scale;
  return f;
}

// Inverse of a 4-by-4 matrix by Gauss-Jordan elimination with partial pivoting; false when
// a pivot vanishes.
bool invert4(double m[4][4], double inv[4][4]) {
  double a[4][8];
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 8; ++j) a[i][j] = j < 4 ? m[i][j] : (j - 4 == i ? 1.0 : 0.0);
  for (int col = 0; col < 4; ++col) {
    int pivot = col;
    for (int r = col + 1; r < 4; ++r)
      if (std::fabs(a[r][col]) > std::fabs(a[pivot][col])) pivot = r;
    if (std::fabs(a[pivot][col]) < 1e-14) return false;
    if (pivot != col)
      for (int j = 0; j < 8; ++j) std::swap(a[pivot][j], a[col][j]);
    double d = 1.0 / a[col][col];
    for (int j = 0; j < 8; ++j) a[col][j] *= d;
    for (int r = 0; r < 4; ++r) {
      if (r == col || a[r][col] == 0.0) continue;
      double f = a[r][col];
      for (int j = 0; j < 8; ++j) a[r][j] -= f * a[col][j];
    }
  }
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j) inv[i][j] = a[i][j + 4];
  return true;
}

// The linearised zone at one centre: e_i and the unit vectors u_i towards the points.
// Constraint k of the programme in x = (d_x, d_y, R, r), a_k . x <= b_k:
//   k <  n:        -u_k . d - R <= -e_k        (outer)
//   n <= k < 2n:    u_i . d + r <= e_i         (inner, i = k - n)
//   2n .. 2n + 3:  +d_x, -d_x, +d_y, -d_y <= trust radius
struct Programme {
  std::vector<double> e, ux, uy;
  double trust = 0.1;
  size_t n = 0;

  void row(size_t k, double a[4], double& b) const {
    a[0] = a[1] = a[2] = a[3] = 0.0;
    if (k < n) {
      a[0] = -ux[k], a[1] = -uy[k], a[2] = -1.0, b = -e[k];
    } else if (k < 2 * n) {
      size_t i = k - n;
      a[0] = ux[i], a[1] = uy[i], a[3] = 1.0, b = e[i];
    } else {
      size_t box = k - 2 * n;
      a[box / 2] = (box % 2) ? -1.0 : 1.0;
      b = trust;
    }
  }

  void linearise(Frame const& f, giPoint2 const& c) {
    n = f.q.size();
    e.resize(n);
    ux.resize(n);
    uy.resize(n);
    for (size_t i = 0; i < n; ++i) {
      double dx = f.q[i].x() - c.x(), dy = f.q[i].y() - c.y(), d = std::sqrt(dx * dx + dy * dy);
      e[i] = d - (f.rho.empty() ? 0.0 : f.rho[i]);
      ux[i] = d > 0.0 ? dx / d : 0.0;  // a centre on a point: that point's distance is flat to first order
      uy[i] = d > 0.0 ? dy / d : 0.0;
    }
  }

  // Minimises R - r; returns the step (x[0], x[1]), the model width x[2] - x[3] and the
  // constraints of the final basis with a positive multiplier (the contacts).
  void solve(double x[4], size_t basis[4], double lambda[4]) const {
    const size_t m = 2 * n + 4;
    // Start at the corner (+trust, +trust) of the box with R and r on the extremes there.
    x[0] = x[1] = trust;
    size_t hi = 0, lo = 0;
    double R = -DBL_MAX, r = DBL_MAX;
    for (size_t i = 0; i < n; ++i) {
      double v = e[i] - ux[i] * x[0] - uy[i] * x[1];
      if (v > R) R = v, hi = i;
      if (v < r) r = v, lo = i;
    }
    x[2] = R, x[3] = r;
    basis[0] = 2 * n, basis[1] = 2 * n + 2, basis[2] = hi, basis[3] = n + lo;
    const double cost[4] = {0.0, 0.0, 1.0, -1.0};
    int degenerate = 0;
    for (int pivot = 0; pivot < max_pivots; ++pivot) {
      double A[4][4], inv[4][4], b;
      for (int j = 0; j < 4; ++j) row(basis[j], A[j], b);
      if (!invert4(A, inv)) break;
      // Multipliers of A^T lambda = -cost; the most negative leaves (the lowest basis
      // position among equals after a run of degenerate pivots, so that cycling ends).
      int leave = -1;
      for (int j = 0; j < 4; ++j) {
        lambda[j] = 0.0;
        for (int k = 0; k < 4; ++k) lambda[j] -= inv[k][j] * cost[k];
        bool better = leave < 0 || (degenerate > 20 ? basis[j] < basis[leave] : lambda[j] < lambda[leave]);
        if (lambda[j] < -lp_tolerance && better) leave = j;
      }
      if (leave < 0) return;
      double p[4];
      for (int k = 0; k < 4; ++k) p[k] = -inv[k][leave];
      double step = DBL_MAX;
      size_t enter = m;
      for (size_t k = 0; k < m; ++k) {
        if (k == basis[0] || k == basis[1] || k == basis[2] || k == basis[3]) continue;
        double a[4];
        row(k, a, b);
        double s = a[0] * p[0] + a[1] * p[1] + a[2] * p[2] + a[3] * p[3];
        if (s <= lp_tolerance) continue;
        double t = std::max(0.0, b - (a[0] * x[0] + a[1] * x[1] + a[2] * x[2] + a[3] * x[3])) / s;
        if (t < step) step = t, enter = k;
      }
      if (enter == m) break;  // unbounded: cannot happen with the box and both extremes
      for (int k = 0; k < 4; ++k) x[k] += step * p[k];
      basis[leave] = enter;
      degenerate = step == 0.0 ? degenerate + 1 : 0;
    }
    for (int j = 0; j < 4; ++j) lambda[j] = 0.0;  // no optimal basis: name no contacts
  }
};

// Newton on the two equations that the contacts give; returns the polished centre, or
// `c` unchanged when the contacts do not fix a point.
giPoint2 polish(Frame const& f, giPoint2 c, std::vector<size_t> const& outer, std::vector<size_t> const& inner) {
  size_t eq[2][2];
  if (outer.size() >= 2 && inner.size() >= 2) {
    eq[0][0] = outer[0], eq[0][1] = outer[1], eq[1][0] = inner[0], eq[1][1] = inner[1];
  } else if (outer.size() >= 3) {
    eq[0][0] = outer[0], eq[0][1] = outer[1], eq[1][0] = outer[0], eq[1][1] = outer[2];
  } else if (inner.size() >= 3) {
    eq[0][0] = inner[0], eq[0][1] = inner[1], eq[1][0] = inner[0], eq[1][1] = inner[2];
  } else {
    return c;
  }
  giPoint2 x = c;
  for (int it = 0; it < max_newton; ++it) {
    double g[2], J[2][2];
    for (int k = 0; k < 2; ++k) {
      giVector2 da = x - f.q[eq[k][0]], db = x - f.q[eq[k][1]];
      double la = da.length(), lb = db.length();
      if (la == 0.0 || lb == 0.0) return c;
      g[k] = f.e(eq[k][0], x) - f.e(eq[k][1], x);
      J[k][0] = da.x() / la - db.x() / lb;
      J[k][1] = da.y() / la - db.y() / lb;
    }
    double det = J[0][0] * J[1][1] - J[0][1] * J[1][0];
    double size = std::fabs(J[0][0] * J[1][1]) + std::fabs(J[0][1] * J[1][0]);
    if (!(std::fabs(det) > 1e-12 * size) || size == 0.0) return c;
    double sx = (g[0] * J[1][1] - g[1] * J[0][1]) / det, sy = (g[1] * J[0][0] - g[0] * J[1][0]) / det;
    if (!std::isfinite(sx) || !std::isfinite(sy)) return c;
    x = giPoint2(x.x() - sx, x.y() - sy);
    if (std::fabs(sx) + std::fabs(sy) <= 1e-16 * (1.0 + std::fabs(x.x()) + std::fabs(x.y()))) break;
  }
  return x;
}

// Contacts and the alternation test in the frame.
bool certify(Frame const& f, giPoint2 const& c, std::vector<size_t>& outer, std::vector<size_t>& inner) {
  double hi = -DBL_MAX, lo = DBL_MAX;
  for (size_t i = 0; i < f.q.size(); ++i) {
    double d = f.e(i, c);
    hi = std::max(hi, d);
    lo = std::min(lo, d);
  }
  outer.clear();
  inner.clear();
  for (size_t i = 0; i < f.q.size(); ++i) {
    double d = f.e(i, c);
    if (d >= hi - contact_tolerance) outer.push_back(i);
    if (d <= lo + contact_tolerance) inner.push_back(i);
  }
  // Directions around the centre, outer +1 and inner -1; a point that is both (a zone of
  // width at rounding level) counts as both.
  std::vector<std::pair<double, int>> around;
  for (size_t i : outer) around.emplace_back(std::atan2(f.q[i].y() - c.y(), f.q[i].x() - c.x()), 1);
  for (size_t i : inner) around.emplace_back(std::atan2(f.q[i].y() - c.y(), f.q[i].x() - c.x()), -1);
  std::sort(around.begin(), around.end());
  if (hi - lo <= contact_tolerance) return true;  // every point on one circle
  int changes = 0;
  for (size_t k = 0; k < around.size(); ++k) {
    auto const& a = around[k];
    auto const& b = around[(k + 1) % around.size()];
    if (a.second != b.second) {
      ++changes;
      if (a.first == b.first) return true;  // an outer and an inner contact in one direction
    }
  }
  return changes >= 4;
}

MinimumZone result_at(Frame const& f, std::vector<giPoint2> const& points, double const* rho, giPoint2 const& c) {
  MinimumZone z;
  z.certified = certify(f, c, z.outer, z.inner);
  z.centre = f.world(c);
  // Width and radius in the caller's coordinates, from the distances the caller sees.
  double hi = -DBL_MAX, lo = DBL_MAX;
  for (size_t i = 0; i < points.size(); ++i) {
    double d = points[i].distance(z.centre) - (rho ? rho[i] : 0.0);
    hi = std::max(hi, d);
    lo = std::min(lo, d);
  }
  z.width = hi - lo;
  z.radius = 0.5 * (hi + lo);
  return z;
}

}  // namespace

MinimumZone check_minimum_zone(std::vector<giPoint2> const& points, double const* rho, giPoint2 const& centre) {
  Frame f = make_frame(points, rho);
  return result_at(f, points, rho, f.local(centre));
}

MinimumZone refine_minimum_zone(std::vector<giPoint2> const& points, double const* rho, giPoint2 const& start) {
  Frame f = make_frame(points, rho);
  giPoint2 c = f.local(start);
  if (!c.finite()) c = giPoint2(0.0, 0.0);
  Programme lp;
  lp.trust = 0.1;
  double width = f.width(c);
  std::vector<size_t> outer, inner;
  for (int step = 0; step < max_steps && lp.trust >= smallest_trust; ++step) {
    lp.linearise(f, c);
    double x[4], lambda[4];
    size_t basis[4];
    lp.solve(x, basis, lambda);
    outer.clear();
    inner.clear();
    for (int j = 0; j < 4; ++j) {
      if (!(lambda[j] > lp_tolerance)) continue;
      if (basis[j] < lp.n) outer.push_back(basis[j]);
      else if (basis[j] < 2 * lp.n) inner.push_back(basis[j] - lp.n);
    }
    double predicted = width - (x[2] - x[3]);
    double moved = std::max(std::fabs(x[0]), std::fabs(x[1]));
    if (!(predicted > 1e-15 * (1.0 + width)) || moved == 0.0) break;  // the model sees no narrower zone
    giPoint2 next(c.x() + x[0], c.y() + x[1]);
    double w = f.width(next);
    double ratio = (width - w) / predicted;
    if (w < width) {
      c = next;
      width = w;
      if (ratio > 0.75 && moved >= 0.99 * lp.trust) lp.trust *= 2.0;
      if (ratio < 0.25) lp.trust = 0.25 * moved;
    } else {
      lp.trust = 0.25 * moved;
    }
  }
  // The exact centre of the contacts, kept when it is not wider (beyond rounding).
  giPoint2 exact = polish(f, c, outer, inner);
  if (exact != c && exact.finite() && f.width(exact) <= width + 4.0 * DBL_EPSILON * (1.0 + width)) c = exact;
  return result_at(f, points, rho, c);
}

giPoint2 algebraic_circle_centre(std::vector<giPoint2> const& points) {
  // Least squares of x^2 + y^2 = 2 a x + 2 b y + k in the centroid's frame.
  double sx = 0.0, sy = 0.0;
  for (giPoint2 const& p : points) {
    sx += p.x();
    sy += p.y();
  }
  const double n = static_cast<double>(points.size());
  giPoint2 o(sx / n, sy / n);
  double xx = 0, xy = 0, yy = 0, xz = 0, yz = 0;
  for (giPoint2 const& p : points) {
    double x = p.x() - o.x(), y = p.y() - o.y(), z = x * x + y * y;
    xx += x * x, xy += x * y, yy += y * y, xz += x * z, yz += y * z;
  }
  // With centred coordinates the constant decouples: [xx xy; xy yy] (2a, 2b) = (xz, yz).
  double det = xx * yy - xy * xy;
  if (!(std::fabs(det) > 1e-12 * (xx * yy)) || !std::isfinite(det)) return o;
  double a = 0.5 * (xz * yy - yz * xy) / det, b = 0.5 * (yz * xx - xz * xy) / det;
  giPoint2 c(o.x() + a, o.y() + b);
  return c.finite() ? c : o;
}

}  // namespace gfit::detail
