#include "gfit/leastsquares/axis_candidates.h"

#include <cfloat>
#include <cmath>

#include "gfit/leastsquares/distance.h"

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
// losing candidate needs, so the steps are capped there.
constexpr int kMaxSteps = 3;

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

// One pass over the projected points at circle (a, b, r): returns the sum of squared radial
// errors and accumulates J^T J (6 entries) and J^T e of the geometric residuals.
double CircleAlongDirection::pass(double a, double b, double r, double* jtj, double* jte, double& largest) const {
  const int n = points_.count();
  double s = 0.0, j00 = 0, j01 = 0, j02 = 0, j11 = 0, j12 = 0, e0 = 0, e1 = 0, e2 = 0, big = 0.0;
  for (int i = 0; i < n; ++i) {
    const double dx = x_[i] - a, dy = y_[i] - b;
    const double rho = std::sqrt(dx * dx + dy * dy);
    const double e = rho - r;
    const double inv = rho > 1e-7 ? 1.0 / rho : 0.0;
    const double gx = -dx * inv, gy = -dy * inv;  // the radius column is -1
    s += e * e;
    big = std::fmax(big, std::fabs(e));
    j00 += gx * gx;
    j01 += gx * gy;
    j02 -= gx;
    j11 += gy * gy;
    j12 -= gy;
    e0 += gx * e;
    e1 += gy * e;
    e2 -= e;
  }
  jtj[0] = j00;
  jtj[1] = j01;
  jtj[2] = j02;
  jtj[3] = j11;
  jtj[4] = j12;
  jtj[5] = n;
  jte[0] = e0;
  jte[1] = e1;
  jte[2] = e2;
  largest = big;
  return s;
}

bool CircleAlongDirection::fit(giUnitVec3 const& d, ProjectedCircle& out) {
  const int n = points_.count();
  if (n < 3 || d.invalid()) return false;
  giUnitVec3 e1 = d.any_normal();
  giUnitVec3 e2(d.cross(e1));
  const double ax = e1.x(), ay = e1.y(), az = e1.z(), bx = e2.x(), by = e2.y(), bz = e2.z();
  // Project, and gather the moments of the algebraic circle x^2 + y^2 = 2 a x + 2 b y + c.
  double sx = 0, sy = 0, sxx = 0, sxy = 0, syy = 0, sz = 0, sxz = 0, syz = 0;
  double const* q = points_.xyz();
  for (int i = 0; i < n; ++i) {
    const double px = q[3 * i], py = q[3 * i + 1], pz = q[3 * i + 2];
    const double x = ax * px + ay * py + az * pz, y = bx * px + by * py + bz * pz;
    x_[i] = x;
    y_[i] = y;
    const double z = x * x + y * y;
    sx += x;
    sy += y;
    sxx += x * x;
    sxy += x * y;
    syy += y * y;
    sz += z;
    sxz += x * z;
    syz += y * z;
  }
  if (!(sxx + syy > 0.0)) return false;  // every point on the axis
  double m[6] = {4 * sxx, 4 * sxy, 2 * sx, 4 * syy, 2 * sy, static_cast<double>(n)};
  double v[3] = {2 * sxz, 2 * syz, sz}, abc[3];
  double a = 0.0, b = 0.0, r = std::sqrt((sxx + syy) / n);
  if (solve3(m, v, abc) && abc[2] + abc[0] * abc[0] + abc[1] * abc[1] > 0.0) {
    a = abc[0];
    b = abc[1];
    r = std::sqrt(abc[2] + a * a + b * b);
  }

  // Damped Gauss-Newton on the geometric distances.
  double jtj[6], jte[3], largest = 0.0;
  double s = pass(a, b, r, jtj, jte, largest);
  double lambda = 0.0;
  for (int iteration = 0; iteration < kMaxSteps; ++iteration) {
    double damped[6] = {jtj[0] * (1 + lambda), jtj[1], jtj[2], jtj[3] * (1 + lambda), jtj[4], jtj[5] * (1 + lambda)};
    double rhs[3] = {-jte[0], -jte[1], -jte[2]}, step[3];
    if (!solve3(damped, rhs, step)) break;
    const double size = std::fabs(a) + std::fabs(b) + std::fabs(r);
    if (std::fabs(step[0]) + std::fabs(step[1]) + std::fabs(step[2]) <= 1e-14 * size) break;
    double tjtj[6], tjte[3], tlargest = 0.0;
    const double ts = pass(a + step[0], b + step[1], r + step[2], tjtj, tjte, tlargest);
    if (ts < s) {
      // A candidate only has to be ranked and to seed the cylinder's own fit: a sum of
      // squares settled to 1e-10 does both.
      const bool settled = s - ts <= 1e-10 * s;
      a += step[0];
      b += step[1];
      r += step[2];
      s = ts;
      largest = tlargest;
      std::copy(tjtj, tjtj + 6, jtj);
      std::copy(tjte, tjte + 3, jte);
      lambda *= 0.1;
      if (settled) break;
    } else {
      lambda = lambda == 0.0 ? 1e-3 : lambda * 10.0;
      if (lambda > 1e8) break;
    }
  }
  if (!std::isfinite(s)) return false;
  // The centre in space: the projected centroid moved by (a, b) in the plane.
  giPoint3 const& c = points_.centroid();
  giVector3 in_plane = giVector3(c.x(), c.y(), c.z()) - d * d.dot(c.vector()) + e1 * a + e2 * b;
  out.centre = giPoint3(in_plane.x(), in_plane.y(), in_plane.z());
  out.radius = r;
  out.sum_of_squares = s;
  out.largest_error = largest;
  return true;
}

}  // namespace gfit::detail
