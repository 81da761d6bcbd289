// Least-squares lines and planes, closed form.
//
// The line and the plane through points are the principal axes of the centred points
// (Forbes, "Least-squares best-fit geometric elements", NPL report DITC 140/89).
//
// In space (evaluate_line3, evaluate_plane) two passes over the points, streamed, nothing
// stored per point:
//  1. the sums of q = p - p0 and of q q^T (p0 the first point, so that the sums keep the
//     digits of points far from the origin), from which the centroid c = p0 + sum(q) / n and
//     the scatter about it, sum(q q^T) - sum(q) sum(q)^T / n; the principal axes are the
//     eigenvectors of that 3 x 3 matrix (Eigen's symmetric QR iteration). Shifting by p0
//     loses at most a factor (|c - p0| / spread)^2 of the scatter's digits, and the axes
//     only need its large entries.
//  2. the residual from the distances themselves. The scatter cannot give it: the squared
//     distances from the plane sum to its smallest eigenvalue, which lies below the
//     rounding of its entries whenever the points are flat to 1e-8 of their extent. So the
//     distance n . p - n . c of every point is formed with its rounding removed: each
//     coordinate is split into a part on a coarse grid (h, 2^-25 of the coordinates' size)
//     and the rest (l), the normal into a part on the grid 2^-26 (a) and the rest (b); a . h
//     is then exact (products of at most 53 bits, their sum too), the difference of two such
//     sums (point and centroid) is exact because it is as small as the distance, and b . h +
//     n . l is small; the distance carries an error of about 2^-79 of the coordinates' size
//     rather than 2^-53 of it. (p - c itself is not exact where a coordinate crosses a power
//     of two between the point and the centroid.) On a 200 mm patch 500 mm away with 1e-6 mm
//     of noise the RMS keeps 14 digits (11 with a plain dot product). The distance from a
//     line is the plain cross product (its residuals are not that small against the points'
//     spread).
// Both passes run two points abreast with a partial sum for each, in blocks, so that the
// compiler can use vector registers and the sums stay accurate; the order of additions is
// fixed, so the result does not depend on how the loop is compiled.
//
// In the plane (evaluate_line, evaluate_line2) the rows p_i - c stream through the
// triangular accumulator and the small factor is decomposed instead (same singular values
// and right vectors); the residual follows from the singular values.

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#if defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)
#include <emmintrin.h>
#endif

#include "gfit/leastsquares/distance.h"
#include "gfit/leastsquares/evaluator.h"
#include "gfit/platform/qr_accumulator.h"
#include "gfit/platform/report.h"
#include "gfit/platform/xform.h"
#include "gfit/utilities/vector_utils.h"

using gfit::detail::refuse;

namespace {

// ---- in space ---------------------------------------------------------------------------

constexpr int kBlock = 512;  // points per block of partial sums (two lanes of 256)

struct Principal {
  double centroid[3];
  double eigenvalues[3];  // ascending
  double axes[3][3];      // axes[k] is the unit eigenvector of eigenvalues[k]
  double spread;          // the RMS distance of the points from the centroid along the widest axis
};

// Two doubles side by side: an SSE2 register where there is one (every x86-64 compiler),
// else two plain doubles. The operations are the same IEEE operations lane by lane either
// way, so both give the same bits. (Compilers keep nine two-lane sums in registers only
// when told so: written as arrays, the loop of pass 1 runs at half the speed.)
#if defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)
struct Lanes {
  __m128d v;
  static Lanes zero() { return {_mm_setzero_pd()}; }
  static Lanes both(double x) { return {_mm_set1_pd(x)}; }
  // The x, y and z of points i and i + 1 (three packed doubles each).
  static void load(double const* q, Lanes& x, Lanes& y, Lanes& z) {
    const __m128d a = _mm_loadu_pd(q), b = _mm_loadu_pd(q + 2), c = _mm_loadu_pd(q + 4);  // x0 y0 | z0 x1 | y1 z1
    x.v = _mm_shuffle_pd(a, b, 2);
    y.v = _mm_shuffle_pd(a, c, 1);
    z.v = _mm_shuffle_pd(b, c, 2);
  }
  double sum() const {
    double l[2];
    _mm_storeu_pd(l, v);
    return l[0] + l[1];
  }
};
inline Lanes operator+(Lanes a, Lanes b) { return {_mm_add_pd(a.v, b.v)}; }
inline Lanes operator-(Lanes a, Lanes b) { return {_mm_sub_pd(a.v, b.v)}; }
inline Lanes operator*(Lanes a, Lanes b) { return {_mm_mul_pd(a.v, b.v)}; }
#else
struct Lanes {
  double l0, l1;
  static Lanes zero() { return {0.0, 0.0}; }
  static Lanes both(double x) { return {x, x}; }
  static void load(double const* q, Lanes& x, Lanes& y, Lanes& z) {
    x = {q[0], q[3]};
    y = {q[1], q[4]};
    z = {q[2], q[5]};
  }
  double sum() const { return l0 + l1; }
};
inline Lanes operator+(Lanes a, Lanes b) { return {a.l0 + b.l0, a.l1 + b.l1}; }
inline Lanes operator-(Lanes a, Lanes b) { return {a.l0 - b.l0, a.l1 - b.l1}; }
inline Lanes operator*(Lanes a, Lanes b) { return {a.l0 * b.l0, a.l1 * b.l1}; }
#endif

// Pass 1. False when a coordinate is not finite (or the sums overflow).
bool principal_axes(giPoint3 const* points, int n, Principal& out) {
  static_assert(sizeof(giPoint3) == 3 * sizeof(double), "points are three packed doubles");
  double const* p = reinterpret_cast<double const*>(points);
  const double x0 = p[0], y0 = p[1], z0 = p[2];
  const Lanes lx0 = Lanes::both(x0), ly0 = Lanes::both(y0), lz0 = Lanes::both(z0);
  double total[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};  // x y z xx xy xz yy yz zz
  int i = 0;
  while (i + 2 <= n) {
    const int last = std::min(n, i + kBlock);
    Lanes a0 = Lanes::zero(), a1 = a0, a2 = a0, a3 = a0, a4 = a0, a5 = a0, a6 = a0, a7 = a0, a8 = a0;
    for (; i + 2 <= last; i += 2) {
      Lanes x, y, z;
      Lanes::load(p + 3 * i, x, y, z);
      x = x - lx0;
      y = y - ly0;
      z = z - lz0;
      a0 = a0 + x;
      a1 = a1 + y;
      a2 = a2 + z;
      a3 = a3 + x * x;
      a4 = a4 + x * y;
      a5 = a5 + x * z;
      a6 = a6 + y * y;
      a7 = a7 + y * z;
      a8 = a8 + z * z;
    }
    Lanes const a[9] = {a0, a1, a2, a3, a4, a5, a6, a7, a8};
    for (int k = 0; k < 9; ++k) total[k] += a[k].sum();
  }
  if (i < n) {  // an odd point out
    const double x = p[3 * i] - x0, y = p[3 * i + 1] - y0, z = p[3 * i + 2] - z0;
    const double v[9] = {x, y, z, x * x, x * y, x * z, y * y, y * z, z * z};
    for (int k = 0; k < 9; ++k) total[k] += v[k];
  }
  for (double t : total)
    if (!std::isfinite(t)) return false;
  const double inv = 1.0 / n;
  const double mx = total[0] * inv, my = total[1] * inv, mz = total[2] * inv;
  out.centroid[0] = x0 + mx;
  out.centroid[1] = y0 + my;
  out.centroid[2] = z0 + mz;
  Eigen::Matrix3d scatter;
  scatter(0, 0) = total[3] - total[0] * mx;
  scatter(0, 1) = scatter(1, 0) = total[4] - total[0] * my;
  scatter(0, 2) = scatter(2, 0) = total[5] - total[0] * mz;
  scatter(1, 1) = total[6] - total[1] * my;
  scatter(1, 2) = scatter(2, 1) = total[7] - total[1] * mz;
  scatter(2, 2) = total[8] - total[2] * mz;
  Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> eigen(scatter);
  if (eigen.info() != Eigen::Success) return false;
  for (int k = 0; k < 3; ++k) {
    out.eigenvalues[k] = eigen.eigenvalues()[k];
    for (int j = 0; j < 3; ++j) out.axes[k][j] = eigen.eigenvectors()(j, k);
  }
  out.spread = std::sqrt(std::max(0.0, out.eigenvalues[2]) * inv);
  return true;
}

// Rounds x to a multiple of `grid` (a power of two) by the float addition of a large
// constant: exact in round-to-nearest arithmetic for |x| < 2^51 grid.
struct GridRounding {
  explicit GridRounding(double grid) : big(1.5 * 4503599627370496.0 * grid) {}
  double operator()(double x) const { return (x + big) - big; }
  double big;
};

// Pass 2 for the plane through c with unit normal nv: the sum of the squared distances,
// each formed without the rounding of its large terms (see the header).
double plane_sum_of_squares(giPoint3 const* points, int n, double const* c, double const* nv, double spread) {
  double const* p = reinterpret_cast<double const*>(points);
  // The grids: a power of two 2^-25 of a bound M of the coordinates (those within 2^9
  // spreads of the centroid), so that h has at most 26 bits; 2^-26 for the normal, so that
  // a has at most 27. Each a_k h_k is then exact, and so is their sum (below 2^53 units).
  const double bound = std::max({std::fabs(c[0]), std::fabs(c[1]), std::fabs(c[2])}) + 512.0 * spread;
  int e = 0;
  std::frexp(bound > 0.0 ? bound : 1.0, &e);
  const GridRounding on_p(std::ldexp(1.0, e - 25)), on_n(std::ldexp(1.0, -26));
  const double a[3] = {on_n(nv[0]), on_n(nv[1]), on_n(nv[2])};
  const double b[3] = {nv[0] - a[0], nv[1] - a[1], nv[2] - a[2]};
  // n . x as an exact large part and a small part.
  auto parts = [&](double const* x, double& large, double& small) {
    double h[3], l[3];
    for (int k = 0; k < 3; ++k) {
      h[k] = on_p(x[k]);
      l[k] = x[k] - h[k];
    }
    large = (a[0] * h[0] + a[1] * h[1]) + a[2] * h[2];
    small = (b[0] * h[0] + b[1] * h[1] + b[2] * h[2]) + (nv[0] * l[0] + nv[1] * l[1] + nv[2] * l[2]);
  };
  // The distance n . p - n . c: the difference of the large parts is exact (a multiple of
  // the units of both, and as small as the distance), the small parts carry the rest.
  double large_c = 0.0, small_c = 0.0;
  parts(c, large_c, small_c);
  auto distance = [&](double const* x) {
    double large = 0.0, small = 0.0;
    parts(x, large, small);
    return (large - large_c) + (small - small_c);
  };
  const Lanes big = Lanes::both(on_p.big), lc = Lanes::both(large_c), sc = Lanes::both(small_c);
  const Lanes ax = Lanes::both(a[0]), ay = Lanes::both(a[1]), az = Lanes::both(a[2]);
  const Lanes bx = Lanes::both(b[0]), by = Lanes::both(b[1]), bz = Lanes::both(b[2]);
  const Lanes nx = Lanes::both(nv[0]), ny = Lanes::both(nv[1]), nz = Lanes::both(nv[2]);
  double total = 0.0;
  int i = 0;
  while (i + 2 <= n) {
    const int last = std::min(n, i + kBlock);
    Lanes s = Lanes::zero();
    for (; i + 2 <= last; i += 2) {  // distance(), two points abreast
      Lanes x, y, z;
      Lanes::load(p + 3 * i, x, y, z);
      const Lanes hx = (x + big) - big, hy = (y + big) - big, hz = (z + big) - big;
      const Lanes lx = x - hx, ly = y - hy, lz = z - hz;
      const Lanes large = (ax * hx + ay * hy) + az * hz;
      const Lanes small = (bx * hx + by * hy + bz * hz) + (nx * lx + ny * ly + nz * lz);
      const Lanes d = (large - lc) + (small - sc);
      s = s + d * d;
    }
    total += s.sum();
  }
  if (i < n) {
    const double d = distance(p + 3 * i);
    total += d * d;
  }
  return total;
}

// Pass 2 for the line through c with unit direction u: the sum of |u x (p - c)|^2.
double line_sum_of_squares(giPoint3 const* p, int n, double const* c, double const* u) {
  const double cx = c[0], cy = c[1], cz = c[2], ux = u[0], uy = u[1], uz = u[2];
  double total = 0.0;
  for (int first = 0; first < n; first += kBlock) {
    const int last = std::min(n, first + kBlock);
    double s[2] = {0.0, 0.0};
    int i = first;
    for (; i + 2 <= last; i += 2)
      for (int l = 0; l < 2; ++l) {
        const double qx = p[i + l].x() - cx, qy = p[i + l].y() - cy, qz = p[i + l].z() - cz;
        const double x = uy * qz - uz * qy, y = uz * qx - ux * qz, z = ux * qy - uy * qx;
        s[l] += x * x + y * y + z * z;
      }
    if (i < last) {
      const double qx = p[i].x() - cx, qy = p[i].y() - cy, qz = p[i].z() - cz;
      const double x = uy * qz - uz * qy, y = uz * qx - ux * qz, z = ux * qy - uy * qx;
      s[0] += x * x + y * y + z * z;
    }
    total += s[0] + s[1];
  }
  return total;
}

// ---- in the plane -----------------------------------------------------------------------

template <int D>
struct CentredDecomposition {
  double centroid[D];
  double sigma[D];  // descending
  double v[D][D];   // v[row][column]; column k is the right vector of sigma[k]
};

// Returns false when a coordinate is not finite (the mean then is not finite either).
template <int D, class Point>
bool centred_decomposition(Point const* p, int n, CentredDecomposition<D>& out) {
  Point c = gfit::detail::mean_of(p, n);
  for (int j = 0; j < D; ++j) {
    if (!std::isfinite(c[j])) return false;
    out.centroid[j] = c[j];
  }
  gfit::detail::TriangularAccumulator acc(D);
  double row[D];
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < D; ++j) row[j] = p[i][j] - out.centroid[j];
    acc.add_row(row);
  }
  acc.flush();
  Eigen::Matrix<double, D, D> r;
  for (int i = 0; i < D; ++i)
    for (int j = 0; j < D; ++j) r(i, j) = acc.r(i, j);
  Eigen::JacobiSVD<Eigen::Matrix<double, D, D>> svd(r, Eigen::ComputeFullV);
  for (int k = 0; k < D; ++k) {
    out.sigma[k] = svd.singularValues()[k];
    for (int j = 0; j < D; ++j) out.v[j][k] = svd.matrixV()(j, k);
  }
  return true;
}

template <int D>
int index_of_largest(CentredDecomposition<D> const& dec) {
  int k = 0;
  double best = -DBL_MAX;
  for (int i = 0; i < D; ++i)
    if (std::fabs(dec.sigma[i]) > best) {
      best = std::fabs(dec.sigma[i]);
      k = i;
    }
  return k;
}

template <int D>
int index_of_smallest(CentredDecomposition<D> const& dec) {
  int k = 0;
  double best = DBL_MAX;
  for (int i = 0; i < D; ++i)
    if (std::fabs(dec.sigma[i]) < best) {
      best = std::fabs(dec.sigma[i]);
      k = i;
    }
  return k;
}

// The lines' status: 0 with the reason when all points coincide (the direction is then
// meaningless), else 1.
int coincident_or_fitted(double largest_sigma) {
  if (largest_sigma != 0.0) return gfit::detail::succeed();
  return refuse(gfReason::not_determined, "the points do not determine the line: they all coincide");
}

// RMS distance from the line along singular vector k: the other singular values.
template <int D>
double line_residual(CentredDecomposition<D> const& dec, int k, int n) {
  double s = 0.0;
  for (int i = 0; i < D; ++i)
    if (i != k) s += dec.sigma[i] * dec.sigma[i];
  return std::sqrt(s / n);
}

// The 2-D line: -1 refused (outputs untouched), 0 coincident points, 1 fitted; the reason
// recorded.
int fit_line2d(giPoint2coDynArr const& points, giPoint2& point, giUnitVec2& direction, double& residual) {
  const int n = points.count();
  if (n < 2) return refuse(gfReason::too_few_points) - 1;
  CentredDecomposition<2> dec;
  if (!centred_decomposition<2>(points.data(), n, dec)) return refuse(gfReason::non_finite_input) - 1;
  int k = index_of_largest(dec);
  point = giPoint2(dec.centroid[0], dec.centroid[1]);
  direction = giUnitVec2(dec.v[0][k], dec.v[1][k]);
  residual = line_residual(dec, k, n);
  return coincident_or_fitted(dec.sigma[k]);
}

}  // namespace

int gfLeastSquareEvaluator::evaluate_line(giPoint2coDynArr const& points, giPoint2& point, giUnitVec2& direction,
                                          double& residual) {
  return fit_line2d(points, point, direction, residual) == 1 ? 1 : 0;
}

int gfLeastSquareEvaluator::evaluate_line3(giPoint3coDynArr const& points, giPoint3& point, giUnitVec3& direction,
                                           double& residual) {
  const int n = points.count();
  if (n < 2) return refuse(gfReason::too_few_points);
  Principal axes;
  if (!principal_axes(points.data(), n, axes)) return refuse(gfReason::non_finite_input);
  double const* u = axes.axes[2];  // the largest eigenvalue's
  // Two points lie on their line: no rounding of a distance pass for them.
  const double sum = n == 2 ? 0.0 : line_sum_of_squares(points.data(), n, axes.centroid, u);
  point = giPoint3(axes.centroid[0], axes.centroid[1], axes.centroid[2]);
  direction = giUnitVec3(u[0], u[1], u[2]);
  residual = std::sqrt(sum / n);
  return coincident_or_fitted(axes.eigenvalues[2]);  // 0: all the points coincide
}

int gfLeastSquareEvaluator::evaluate_plane(giPoint3coDynArr const& points, giPoint3& point, giUnitVec3& normal,
                                           double& residual) {
  const int n = points.count();
  if (n < 3) return refuse(gfReason::too_few_points);
  Principal axes;
  if (!principal_axes(points.data(), n, axes)) return refuse(gfReason::non_finite_input);
  double const* nv = axes.axes[0];  // the smallest eigenvalue's
  const double sum = plane_sum_of_squares(points.data(), n, axes.centroid, nv, axes.spread);
  point = giPoint3(axes.centroid[0], axes.centroid[1], axes.centroid[2]);
  normal = giUnitVec3(nv[0], nv[1], nv[2]);
  residual = std::sqrt(sum / n);
  return gfit::detail::succeed();
}

int gfLeastSquareEvaluator::evaluate_line2(giPoint3 const& origin, giUnitVec3 const& normal,
                                           giPoint3coDynArr const& points, giPoint3& point, giUnitVec3& direction,
                                           double& residual) {
  const int n = points.count();
  if (n < 2) return refuse(gfReason::too_few_points);
  if (normal.invalid()) return refuse(gfReason::invalid_argument, "the plane's normal is unset");
  if (!origin.finite()) return refuse(gfReason::non_finite_input, "the plane's origin is not finite");
  giPoint2coDynArr in_plane;
  giXform3 to_plane;
  gfUtils::ProjectPointsToPlane(points, origin, normal, in_plane, &to_plane);
  giPoint2 p2;
  giUnitVec2 d2;
  double r2 = 0.0;
  int status = fit_line2d(in_plane, p2, d2, r2);
  if (status < 0) return 0;
  giXform3 back(giXformInverse{}, to_plane);
  giPoint3 p = back.transform(giPoint3(p2.x(), p2.y(), 0.0));
  giUnitVec3 u(back.transform(giVector3(d2.x(), d2.y(), 0.0)));
  double sum = 0.0;
  for (giPoint3 const& q : points) sum += u.cross(q - p).squared_length();
  point = p;
  direction = u;
  residual = std::sqrt(sum / n);
  return status;
}
