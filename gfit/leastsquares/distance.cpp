#include "gfit/leastsquares/distance.h"

#include <cmath>
#include <limits>

#include "gfit/platform/shapes.h"

namespace gfit::detail {

namespace {
constexpr int kSumBlock = 256;  // partial sums over blocks keep rounding errors small
}

giPoint3 mean_of(giPoint3 const* p, int n) {
  if (n <= 0) {
    double nan = std::numeric_limits<double>::quiet_NaN();
    return {nan, nan, nan};
  }
  const double x0 = p[0].x(), y0 = p[0].y(), z0 = p[0].z();
  double sx = 0.0, sy = 0.0, sz = 0.0;
  for (int first = 0; first < n; first += kSumBlock) {
    const int last = first + kSumBlock < n ? first + kSumBlock : n;
    double bx = 0.0, by = 0.0, bz = 0.0;
    for (int i = first; i < last; ++i) {
      bx += p[i].x() - x0;
      by += p[i].y() - y0;
      bz += p[i].z() - z0;
    }
    sx += bx;
    sy += by;
    sz += bz;
  }
  const double inv = 1.0 / n;
  return {x0 + sx * inv, y0 + sy * inv, z0 + sz * inv};
}

giPoint2 mean_of(giPoint2 const* p, int n) {
  if (n <= 0) {
    double nan = std::numeric_limits<double>::quiet_NaN();
    return {nan, nan};
  }
  const double x0 = p[0].x(), y0 = p[0].y();
  double sx = 0.0, sy = 0.0;
  for (int first = 0; first < n; first += kSumBlock) {
    const int last = first + kSumBlock < n ? first + kSumBlock : n;
    double bx = 0.0, by = 0.0;
    for (int i = first; i < last; ++i) {
      bx += p[i].x() - x0;
      by += p[i].y() - y0;
    }
    sx += bx;
    sy += by;
  }
  const double inv = 1.0 / n;
  return {x0 + sx * inv, y0 + sy * inv};
}

bool all_finite(giPoint3coDynArr const& points) {
  for (giPoint3 const& p : points)
    if (!p.finite()) return false;
  return true;
}

bool all_finite(giPoint2coDynArr const& points) {
  for (giPoint2 const& p : points)
    if (!p.finite()) return false;
  return true;
}

bool all_finite(doublecoDynArr const& values) {
  for (double v : values)
    if (!std::isfinite(v)) return false;
  return true;
}

bool all_valid(giUnitVec3coDynArr const& vectors) {
  for (giUnitVec3 const& v : vectors)
    if (v.invalid() || !std::isfinite(v.x()) || !std::isfinite(v.y()) || !std::isfinite(v.z())) return false;
  return true;
}

double canonical_axis(mlVector& p, double sign) {
  giUnitVec3 u(p[3], p[4], p[5]);
  if (u.invalid()) u = giUnitVec3(1.0, 0.0, 0.0);
  if (sign < 0.0) u = -u;
  const double t = p[0] * u.x() + p[1] * u.y() + p[2] * u.z();
  p[0] -= t * u.x();
  p[1] -= t * u.y();
  p[2] -= t * u.z();
  p[3] = u.x();
  p[4] = u.y();
  p[5] = u.z();
  return t;
}

}  // namespace gfit::detail

// ---- 2-D --------------------------------------------------------------------------------

gfLeastSquareDistance2::gfLeastSquareDistance2(int n_parameters, giPoint2coDynArr const& points)
    : mlDistanceLeastSquares(n_parameters, points.count()), points_(points) {}

giPoint2 gfLeastSquareDistance2::centroid() const { return gfit::detail::mean_of(points_.data(), points_.count()); }

double gfLeastSquareDistance2::range() const {
  giBox2 box;
  for (giPoint2 const& p : points_) box.merge(p);
  return box.diagonal();
}

// ---- 3-D --------------------------------------------------------------------------------

gfLeastSquareDistance3::gfLeastSquareDistance3(int n_parameters, giPoint3coDynArr const& points)
    : mlDistanceLeastSquares(n_parameters, points.count()), points_(points) {}

giPoint3 gfLeastSquareDistance3::centroid() const { return gfit::detail::mean_of(points_.data(), points_.count()); }

double gfLeastSquareDistance3::range() const {
  giBox3 box;
  for (giPoint3 const& p : points_) box.merge(p);
  return box.diagonal();
}

namespace {
// Made when the library is loaded and only read afterwards.
const giUnitVec3 kGuessDirections[7] = {
    giUnitVec3(1.0, 0.0, 0.0),  giUnitVec3(0.0, 1.0, 0.0),  giUnitVec3(0.0, 0.0, 1.0),  giUnitVec3(1.0, 1.0, 1.0),
    giUnitVec3(-1.0, 1.0, 1.0), giUnitVec3(1.0, -1.0, 1.0), giUnitVec3(-1.0, -1.0, 1.0),
};
}  // namespace

giUnitVec3 gfLeastSquareDistance3::guess_direction(int i) { return kGuessDirections[i]; }

void gfLeastSquareDistance3::F_G_and_derivatives(giPoint3 const& A, giUnitVec3 const& u, giPoint3 const& Q, double& F,
                                                 mlVector& dF, double& G, mlVector& dG) {
  const double dx = Q.x() - A.x(), dy = Q.y() - A.y(), dz = Q.z() - A.z();
  const double ux = u.x(), uy = u.y(), uz = u.z();
  F = dx * ux + dy * uy + dz * uz;
  const double cx = uy * dz - uz * dy, cy = uz * dx - ux * dz, cz = ux * dy - uy * dx;
  G = std::sqrt(cx * cx + cy * cy + cz * cz);
  if (dF.size() < 6) dF.resize(6);
  if (dG.size() < 6) dG.resize(6);
  dF[0] = -ux;
  dF[1] = -uy;
  dF[2] = -uz;
  dF[3] = dx - ux * F;
  dF[4] = dy - uy * F;
  dF[5] = dz - uz * F;
  if (std::fabs(G) > 1e-7) {
    dG[0] = (ux * F - dx) / G;
    dG[1] = (uy * F - dy) / G;
    dG[2] = (uz * F - dz) / G;
  } else {
    // On the axis G has no derivative; this substitute keeps the row non-zero.
    dG[0] = std::sqrt(std::fmax(0.0, 1.0 - ux * ux));
    dG[1] = std::sqrt(std::fmax(0.0, 1.0 - uy * uy));
    dG[2] = std::sqrt(std::fmax(0.0, 1.0 - uz * uz));
  }
  dG[3] = F * dG[0];
  dG[4] = F * dG[1];
  dG[5] = F * dG[2];
}
