#include "gfit/leastsquares/axis_candidates.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "gfit/leastsquares/distance.h"
#include "gfit/platform/parallel.h"

namespace gfit::detail {

CentredPoints::CentredPoints(giPoint3coDynArr const& points)
    : n_(points.count()), centroid_(mean_of(points.data(), points.count())), xyz_(3 * static_cast<size_t>(n_)) {
  for (int i = 0; i < n_; ++i) {
    xyz_[3 * i] = points[i].x() - centroid_.x();
    xyz_[3 * i + 1] = points[i].y() - centroid_.y();
    xyz_[3 * i + 2] = points[i].z() - centroid_.z();
  }
}

CircleAlongDirection::CircleAlongDirection(CentredPoints const& points)
    : points_(points), x_(points.count()), y_(points.count()) {}

namespace {
// Near the axis the circle settles in two or three steps. Far from it the projected points
// form a band, the residuals are large and Gauss-Newton converges only linearly; after three
// steps such a circle's sum of squares is within about 1e-6 of its limit, which is all a
// losing candidate needs, so the steps are capped there by default.

// Solves the symmetric 3 x 3 system m x = v (m given as xx, xy, xz, yy, yz, zz) by Cramer's
// rule; false when it is singular.
bool solve3(double const* m, double const* v, double* x) {
  const double a = m[0], b = m[1], c = m[2], d = m[3], e = m[4], f = m[5];
  const double c00 = d * f - e * e, c01 = c * e - b * f, c02 = b * e - c * d;
  const double det = a * c00 + b * c01 + c * c02;
  if (!(std::fabs(det) > 0.0) || !std::isfinite(det)) return false;
  const double c11 = a * f - c * c, c12 = b * c - a * e, c22 = a * d - b * b;
  x[0] = (c00 * v[0] + c01 * v[1] + c02 * v[2]) / det;
  x[1] = (c01 * v[0] + c11 * v[1] + c12 * v[2]) / det;
  x[2] = (c02 * v[0] + c12 * v[1] + c22 * v[2]) / det;
  return std::isfinite(x[0]) && std::isfinite(x[1]) && std::isfinite(x[2]);
}
}  // namespace

// The loops over points run two points abreast, with a separate partial sum for each, so
// that the compiler can keep both in one vector register; the partial sums are added in a
// fixed order, so the result does not depend on how the loop is compiled.
constexpr int kLanes = 2;

// One pass over the projected points at circle (a, b, r): returns the sum of squared radial
// errors and the largest |error|, and, when `jtj` is not null, accumulates J^T J (6 entries)
// and J^T e of the geometric residuals.
double CircleAlongDirection::pass(double a, double b, double r, double* jtj, double* jte, double& largest) const {
  const int n = points_.count();
  double const* x = x_.data();
  double const* y = y_.data();
  double s[kLanes] = {}, big[kLanes] = {};
  if (!jtj) {
    int i = 0;
    for (; i + kLanes <= n; i += kLanes)
      for (int l = 0; l < kLanes; ++l) {
        const double dx = x[i + l] - a, dy = y[i + l] - b;
        const double e = std::sqrt(dx * dx + dy * dy) - r;
        s[l] += e * e;
        big[l] = std::max(big[l], std::fabs(e));
      }
    for (; i < n; ++i) {
      const double dx = x[i] - a, dy = y[i] - b;
      const double e = std::sqrt(dx * dx + dy * dy) - r;
      s[0] += e * e;
      big[0] = std::max(big[0], std::fabs(e));
    }
    largest = std::max(big[0], big[1]);
    return s[0] + s[1];
  }
  double j00[kLanes] = {}, j01[kLanes] = {}, j02[kLanes] = {}, j11[kLanes] = {}, j12[kLanes] = {};
  double e0[kLanes] = {}, e1[kLanes] = {}, e2[kLanes] = {};
  auto point = [&](int i, int l) {
    const double dx = x[i] - a, dy = y[i] - b;
    const double rho = std::sqrt(dx * dx + dy * dy);
    const double e = rho - r;
    const double inv = rho > 1e-7 ? 1.0 / rho : 0.0;
    const double gx = -dx * inv, gy = -dy * inv;  // the radius column is -1
    s[l] += e * e;
    big[l] = std::max(big[l], std::fabs(e));
    j00[l] += gx * gx;
    j01[l] += gx * gy;
    j02[l] -= gx;
    j11[l] += gy * gy;
    j12[l] -= gy;
    e0[l] += gx * e;
    e1[l] += gy * e;
    e2[l] -= e;
  };
  int i = 0;
  for (; i + kLanes <= n; i += kLanes)
    for (int l = 0; l < kLanes; ++l) point(i + l, l);
  for (; i < n; ++i) point(i, 0);
  jtj[0] = j00[0] + j00[1];
  jtj[1] = j01[0] + j01[1];
  jtj[2] = j02[0] + j02[1];
  jtj[3] = j11[0] + j11[1];
  jtj[4] = j12[0] + j12[1];
  jtj[5] = n;
  jte[0] = e0[0] + e0[1];
  jte[1] = e1[0] + e1[1];
  jte[2] = e2[0] + e2[1];
  largest = std::max(big[0], big[1]);
  return s[0] + s[1];
}

bool CircleAlongDirection::fit(giUnitVec3 const& d, ProjectedCircle& out, int steps) {
  const int n = points_.count();
  if (n < 3 || d.invalid()) return false;
  giUnitVec3 e1 = d.any_normal();
  giUnitVec3 e2(d.cross(e1));
  const double ax = e1.x(), ay = e1.y(), az = e1.z(), bx = e2.x(), by = e2.y(), bz = e2.z();
  // Project, and gather the moments of the algebraic circle x^2 + y^2 = 2 a x + 2 b y + c.
  double sx[kLanes] = {}, sy[kLanes] = {}, sxx[kLanes] = {}, sxy[kLanes] = {}, syy[kLanes] = {}, sz[kLanes] = {},
         sxz[kLanes] = {}, syz[kLanes] = {};
  double const* q = points_.xyz();
  double* xs = x_.data();
  double* ys = y_.data();
  auto point = [&](int i, int l) {
    const double px = q[3 * i], py = q[3 * i + 1], pz = q[3 * i + 2];
    const double x = ax * px + ay * py + az * pz, y = bx * px + by * py + bz * pz;
    xs[i] = x;
    ys[i] = y;
    const double z = x * x + y * y;
    sx[l] += x;
    sy[l] += y;
    sxx[l] += x * x;
    sxy[l] += x * y;
    syy[l] += y * y;
    sz[l] += z;
    sxz[l] += x * z;
    syz[l] += y * z;
  };
  int i = 0;
  for (; i + kLanes <= n; i += kLanes)
    for (int l = 0; l < kLanes; ++l) point(i + l, l);
  for (; i < n; ++i) point(i, 0);
  const double Sx = sx[0] + sx[1], Sy = sy[0] + sy[1], Sxx = sxx[0] + sxx[1], Sxy = sxy[0] + sxy[1],
               Syy = syy[0] + syy[1], Sz = sz[0] + sz[1], Sxz = sxz[0] + sxz[1], Syz = syz[0] + syz[1];
  if (!(Sxx + Syy > 0.0)) return false;  // every point on the axis
  double m[6] = {4 * Sxx, 4 * Sxy, 2 * Sx, 4 * Syy, 2 * Sy, static_cast<double>(n)};
  double v[3] = {2 * Sxz, 2 * Syz, Sz}, abc[3];
  double a = 0.0, b = 0.0, r = std::sqrt((Sxx + Syy) / n);
  if (solve3(m, v, abc) && abc[2] + abc[0] * abc[0] + abc[1] * abc[1] > 0.0) {
    a = abc[0];
    b = abc[1];
    r = std::sqrt(abc[2] + a * a + b * b);
  }

  // Damped Gauss-Newton on the geometric distances (with no steps, only their sum).
  double jtj[6], jte[3], largest = 0.0;
  double s = pass(a, b, r, steps > 0 ? jtj : nullptr, jte, largest);
  double lambda = 0.0;
  bool settled = false;
  for (int iteration = 0; iteration < steps && !settled; ++iteration) {
    double damped[6] = {jtj[0] * (1 + lambda), jtj[1], jtj[2], jtj[3] * (1 + lambda), jtj[4], jtj[5] * (1 + lambda)};
    double rhs[3] = {-jte[0], -jte[1], -jte[2]}, step[3];
    if (!solve3(damped, rhs, step)) {
      settled = true;
      break;
    }
    const double size = std::fabs(a) + std::fabs(b) + std::fabs(r);
    if (std::fabs(step[0]) + std::fabs(step[1]) + std::fabs(step[2]) <= 1e-14 * size) {
      settled = true;
      break;
    }
    double tjtj[6], tjte[3], tlargest = 0.0;
    const double ts = pass(a + step[0], b + step[1], r + step[2], tjtj, tjte, tlargest);
    if (ts < s) {
      // A candidate only has to be ranked and to seed the cylinder's own fit: a sum of
      // squares settled to 1e-10 does both.
      settled = s - ts <= 1e-10 * s;
      a += step[0];
      b += step[1];
      r += step[2];
      s = ts;
      largest = tlargest;
      std::copy(tjtj, tjtj + 6, jtj);
      std::copy(tjte, tjte + 3, jte);
      lambda *= 0.1;
    } else {
      lambda = lambda == 0.0 ? 1e-3 : lambda * 10.0;
      if (lambda > 1e8) settled = true;  // no step lowers the sum: as settled as it gets
    }
  }
  if (!std::isfinite(s)) return false;
  // The centre: the centroid moved by (a, b) in the plane.
  out.offset = e1 * a + e2 * b;
  out.settled = settled;
  out.radius = r;
  out.sum_of_squares = s;
  out.largest_error = largest;
  return true;
}

int best_projected_circle(std::vector<CircleAlongDirection>& fitters, std::vector<giUnitVec3> const& directions,
                          std::vector<char> const& used, std::vector<ProjectedCircle>& circles,
                          std::vector<char>& fitted, double contender, int finish_steps, RankingWork& work) {
  const int count = static_cast<int>(directions.size());
  parallel_for(count, static_cast<int>(fitters.size()), [&](int j, int worker) {
    fitted[j] = used[j] && fitters[worker].fit(directions[j], circles[j], 0);
  });
  double smallest = DBL_MAX;
  for (int j = 0; j < count; ++j) {
    work.fits += used[j] ? 1 : 0;
    if (fitted[j]) smallest = std::min(smallest, circles[j].sum_of_squares);
  }
  for (int j = 0; j < count; ++j)
    if (fitted[j] && !circles[j].settled && circles[j].sum_of_squares <= contender * smallest) {
      fitted[j] = fitters[0].fit(directions[j], circles[j], finish_steps);
      ++work.finished;
    }
  int chosen = -1;
  smallest = DBL_MAX;
  for (int j = 0; j < count; ++j)  // the strictly smallest sum; the first index wins a tie
    if (fitted[j] && circles[j].sum_of_squares < smallest) {
      smallest = circles[j].sum_of_squares;
      chosen = j;
    }
  return chosen;
}

}  // namespace gfit::detail
