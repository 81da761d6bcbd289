// When points determine an element (see refusal.h).
#include "gfit/leastsquares/refusal.h"

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <vector>

#include "gfit/leastsquares/distance.h"
#include "gfit/platform/levenberg_marquardt.h"
#include "gfit/platform/qr_accumulator.h"

namespace gfit::detail {

namespace {

// Relative to the largest singular value of the centred points: at or below it the points
// have no extent in that direction beyond the rounding of their coordinates.
constexpr double kFlat = 1e-12;
// Relative to the largest singular value of the scaled Jacobian: at or below it some
// combination of the parameters is not fixed by the data.
constexpr double kUndetermined = 1e-9;
// A size beyond this many extents is a line or a plane, not a curved element.
constexpr double kSizeBound = 1e6;
// Coordinates beyond this overflow when squared and summed.
constexpr double kLargestCoordinate = 1e150;

constexpr int kBlock = TriangularAccumulator::block_rows;

// Below this ratio of the smallest needed eigenvalue of the scatter to the largest (that is,
// of singular values below 1e-4), the scatter's rounding could hide a flat set: the spread
// is then taken again from a streamed QR of the centred points.
constexpr double kScatterTrusted = 1e-8;
constexpr int kSumBlock = 256;

// The exact spread: the singular values of the centred points from their streamed QR.
template <int D, class Point>
void exact_sigma(coDynArr<Point> const& points, PointSpread& s) {
  const int n = points.count();
  const Point c = mean_of(points.data(), n);
  double row[D];
  TriangularAccumulator acc(D);
  for (Point const& p : points) {
    for (int j = 0; j < D; ++j) row[j] = p[j] - c[j];
    acc.add_row(row);
  }
  acc.flush();
  Eigen::MatrixXd r = Eigen::MatrixXd::Zero(D, D);
  for (int i = 0; i < D; ++i)
    for (int j = i; j < D; ++j) r(i, j) = acc.r(i, j);
  Eigen::JacobiSVD<Eigen::MatrixXd> svd(r);
  for (int k = 0; k < D; ++k) s.sigma[k] = svd.singularValues()[k];
}

// One pass over the points: whether all are finite, their largest coordinate, their extent
// and their scatter about the first point (summed in blocks, so that rounding stays small),
// whose eigenvalues give the singular values of the centred points. When singular value
// `needed` is too small beside the largest to trust the scatter's, they are formed exactly.
// Returns false for a coordinate that is not finite.
template <int D, class Point>
bool survey(coDynArr<Point> const& points, int needed, PointSpread& s, double& largest) {
  s = PointSpread();
  largest = 0.0;
  const int n = points.count();
  if (n == 0) return true;
  double p0[D], lo[D], hi[D], sum[D] = {}, scatter[D][D] = {};
  for (int j = 0; j < D; ++j) p0[j] = lo[j] = hi[j] = points[0][j];
  for (int first = 0; first < n; first += kSumBlock) {
    const int last = std::min(n, first + kSumBlock);
    double bsum[D] = {}, bscatter[D][D] = {};
    bool finite = true;
    for (int i = first; i < last; ++i) {
      Point const& p = points[i];
      double d[D];
      for (int j = 0; j < D; ++j) {
        const double x = p[j];
        finite &= std::isfinite(x);
        lo[j] = x < lo[j] ? x : lo[j];
        hi[j] = x > hi[j] ? x : hi[j];
        d[j] = x - p0[j];
        bsum[j] += d[j];
      }
      for (int a = 0; a < D; ++a)
        for (int b = a; b < D; ++b) bscatter[a][b] += d[a] * d[b];
    }
    if (!finite) return false;
    for (int a = 0; a < D; ++a) {
      sum[a] += bsum[a];
      for (int b = a; b < D; ++b) scatter[a][b] += bscatter[a][b];
    }
  }
  double e = 0.0;
  for (int j = 0; j < D; ++j) {
    e += (hi[j] - lo[j]) * (hi[j] - lo[j]);
    largest = std::max(largest, std::max(std::fabs(lo[j]), std::fabs(hi[j])));
  }
  s.extent = std::sqrt(e);
  if (!(largest <= kLargestCoordinate)) return true;  // refused as out of range
  Eigen::MatrixXd c(D, D);
  for (int a = 0; a < D; ++a)
    for (int b = a; b < D; ++b) c(a, b) = c(b, a) = scatter[a][b] - sum[a] * sum[b] / n;
  Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> eig(c, Eigen::EigenvaluesOnly);
  for (int k = 0; k < D; ++k) s.sigma[k] = std::sqrt(std::max(0.0, eig.eigenvalues()[D - 1 - k]));
  const double top = s.sigma[0] * s.sigma[0], low = s.sigma[needed] * s.sigma[needed];
  if (top > 0.0 && !(low > kScatterTrusted * top)) exact_sigma<D>(points, s);
  return true;
}

// The index of the singular value that decides `span`.
int deciding(Span span, int dimensions) { return std::min(dimensions - 1, span == Span::space ? 2 : 1); }

template <int D, class Point>
PointSpread spread_of(coDynArr<Point> const& points, Span asked) {
  PointSpread s;
  double largest = 0.0;
  survey<D>(points, deciding(asked, D), s, largest);
  return s;
}

template <int D, class Point>
int check(coDynArr<Point> const& points, int minimum, Span span, PointSpread* out) {
  if (points.count() < minimum || points.count() < 1) return refuse(gfReason::too_few_points);
  const int needed = deciding(span, D);
  PointSpread s;
  double largest = 0.0;
  if (!survey<D>(points, needed, s, largest)) return refuse(gfReason::non_finite_input, "a coordinate is not finite");
  if (largest > kLargestCoordinate) return refuse(gfReason::out_of_range);
  if (span != Span::points && !(s.sigma[0] > 0.0))
    return refuse(gfReason::not_determined, "the points do not determine the element: they all coincide");
  if ((span == Span::plane || span == Span::space) && !s.spans(Span::plane))
    return refuse(gfReason::not_determined, "the points do not determine the element: they lie on a line");
  if (span == Span::space && !s.spans(Span::space))
    return refuse(gfReason::not_determined, "the points do not determine the element: they lie in a plane");
  if (out) *out = s;
  return 1;
}

// sigma_k / sigma_1 of the first m columns of the factor, R D^-1 (k counted over the columns
// kept). The leading m x m block of the factor of [J | d] is the factor of J.
double ratio_of(TriangularAccumulator const& acc, int m, mlVector const& scales, int k, int drop) {
  if (m < 1 || acc.cols() < m) return 0.0;
  const int kept = drop >= 0 && drop < m ? m - 1 : m;
  if (k < 1 || k > kept) return 0.0;
  Eigen::MatrixXd a = Eigen::MatrixXd::Zero(m, kept);
  for (int j = 0, col = 0; j < m; ++j) {
    if (j == drop) continue;
    const double s = j < scales.size() && scales[j] > 0.0 && std::isfinite(scales[j]) ? scales[j] : 1.0;
    for (int i = 0; i <= j; ++i) a(i, col) = acc.r(i, j) / s;
    ++col;
  }
  if (!a.allFinite()) return 0.0;
  Eigen::JacobiSVD<Eigen::MatrixXd> svd(a);
  const double largest = svd.singularValues()[0];
  if (!(largest > 0.0)) return 0.0;
  const double ratio = svd.singularValues()[k - 1] / largest;
  return std::isfinite(ratio) ? ratio : 0.0;
}

}  // namespace

bool PointSpread::spans(Span span) const {
  switch (span) {
    case Span::points: return true;
    case Span::line: return sigma[0] > 0.0;
    case Span::plane: return sigma[0] > 0.0 && sigma[1] > kFlat * sigma[0];
    case Span::space: return sigma[0] > 0.0 && sigma[2] > kFlat * sigma[0];
  }
  return false;
}

PointSpread point_spread(giPoint3coDynArr const& points, Span asked) { return spread_of<3>(points, asked); }
PointSpread point_spread(giPoint2coDynArr const& points, Span asked) { return spread_of<2>(points, asked); }

int check_points(giPoint3coDynArr const& points, int minimum, Span span, PointSpread* spread) {
  return check<3>(points, minimum, span, spread);
}
int check_points(giPoint2coDynArr const& points, int minimum, Span span, PointSpread* spread) {
  return check<2>(points, minimum, span, spread);
}

int check_radii(doublecoDynArr const& radii, int n) {
  if (radii.count() != n) return refuse(gfReason::bad_companion_array, "probe radii not one per point");
  for (double r : radii)
    if (!(std::isfinite(r) && r >= 0.0)) return refuse(gfReason::bad_probe_radius);
  return 1;
}

int check_normals(giUnitVec3coDynArr const& normals, int n, bool optional) {
  if (normals.count() != n && !(optional && normals.count() == 0))
    return refuse(gfReason::bad_companion_array, "normals not one per point");
  if (!all_valid(normals)) return refuse(gfReason::non_finite_input, "a normal is unset or not finite");
  return 1;
}

int check_normals(giUnitVec2coDynArr const& normals, int n, bool optional) {
  if (normals.count() != n && !(optional && normals.count() == 0))
    return refuse(gfReason::bad_companion_array, "normals not one per point");
  for (giUnitVec2 const& v : normals)
    if (v.invalid() || !std::isfinite(v.x()) || !std::isfinite(v.y()))
      return refuse(gfReason::non_finite_input, "a normal is unset or not finite");
  return 1;
}

double determination(mlDistanceLeastSquares& problem, mlVector const& parameters, int independent, int drop,
                     bool per_point) {
  const int m = problem.n_parameters(), n = problem.n_points();
  problem.set_parameters(parameters);
  if (n == 0 || m == 0) return 0.0;
  const int k = independent >= 0 ? independent : problem.n_independent_parameters();
  TriangularAccumulator acc(m);
  if (per_point) {
    mlVector g(m);
    std::vector<double> row(m);
    for (int i = 0; i < n; ++i) {
      g.fill(0.0);
      double d = 0.0;
      problem.get_distance_and_gradient(d, g, i);
      for (int j = 0; j < m; ++j) row[j] = g[j];
      acc.add_row(row.data());
    }
    acc.flush();
  } else {
    double distances[kBlock], squares[kBlock];
    for (int first = 0; first < n; first += kBlock) {
      const int count = std::min(kBlock, n - first);
      problem.evaluate_block(first, count, distances, squares, acc.buffer(), kBlock);
      acc.absorb(count);
    }
  }
  mlVector scales;
  problem.parameter_scales(scales);
  return ratio_of(acc, m, scales, k, drop);
}

double determination(mlLevenbergMarquardt const& solver, mlDistanceLeastSquares const& problem, int independent,
                     int drop) {
  const int m = problem.n_parameters();
  const int k = independent >= 0 ? independent : problem.n_independent_parameters();
  mlVector scales;
  problem.parameter_scales(scales);
  return ratio_of(solver.factor(), m, scales, k, drop);
}

double circle3_determination(giPoint3coDynArr const& points, mlVector const& p) {
  if (points.count() == 0 || p.size() < 7) return 0.0;
  const AxisFrame frame(p);
  TriangularAccumulator acc(7);
  AxialPoint a;
  for (giPoint3 const& q : points) {
    frame.locate(q, a);
    frame.gradient(a);
    // The radial error G - r ...
    const double radial[7] = {a.g0, a.g1, a.g2, a.F * a.g0, a.F * a.g1, a.F * a.g2, -1.0};
    // ... and the height F above the circle's plane.
    const double height[7] = {-frame.ux,
                              -frame.uy,
                              -frame.uz,
                              a.dx - frame.ux * a.F,
                              a.dy - frame.uy * a.F,
                              a.dz - frame.uz * a.F,
                              0.0};
    acc.add_row(radial);
    acc.add_row(height);
  }
  acc.flush();
  const double r = std::fabs(p[6]);
  const mlVector scales{1.0, 1.0, 1.0, r, r, r, 1.0};
  return ratio_of(acc, 7, scales, 6, -1);
}

bool determined(double ratio) { return ratio > kUndetermined; }

bool within_size_bound(double size, double extent) { return std::fabs(size) <= kSizeBound * extent; }

double slide_axis_point(mlVector& p, giPoint3 const& c) {
  const giUnitVec3 u(p[3], p[4], p[5]);
  if (u.invalid()) return 0.0;
  const double t = (c.x() - p[0]) * u.x() + (c.y() - p[1]) * u.y() + (c.z() - p[2]) * u.z();
  p[0] += t * u.x();
  p[1] += t * u.y();
  p[2] += t * u.z();
  return t;
}

giPoint3 centroid_in_frame(gfLeastSquareDistance3 const& problem) {
  const giPoint3 c = problem.centroid(), o = problem.frame_origin();
  return giPoint3(c.x() - o.x(), c.y() - o.y(), c.z() - o.z());
}

double axial_determination(gfLeastSquareDistance3& problem, mlVector const& parameters) {
  mlVector p = parameters;
  const double t = slide_axis_point(p, centroid_in_frame(problem));
  if (p.size() >= 8) p[6] -= t * std::sin(p[7]);
  return determination(problem, p);
}

}  // namespace gfit::detail
