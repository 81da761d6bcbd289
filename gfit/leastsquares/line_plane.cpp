// Least-squares lines and planes, closed form.
//
// The line and the plane through points are the principal axes of the centred points: the
// right singular vectors of the n x d matrix with rows p_i - c (Forbes, "Least-squares
// best-fit geometric elements", NPL report DITC 140/89). The matrix is never stored: its
// rows stream through the triangular accumulator, and the small factor is decomposed
// instead (same singular values and right vectors). The residuals follow from the singular
// values: the squared distances from the plane sum to the smallest sigma^2, those from the
// line to the sum of the others.

#include <Eigen/Dense>
#include <cmath>

#include "gfit/leastsquares/distance.h"
#include "gfit/leastsquares/evaluator.h"
#include "gfit/platform/qr_accumulator.h"
#include "gfit/platform/report.h"
#include "gfit/platform/xform.h"
#include "gfit/utilities/vector_utils.h"

using gfit::detail::refuse;

namespace {

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
  CentredDecomposition<3> dec;
  if (!centred_decomposition<3>(points.data(), n, dec)) return refuse(gfReason::non_finite_input);
  int k = index_of_largest(dec);
  point = giPoint3(dec.centroid[0], dec.centroid[1], dec.centroid[2]);
  direction = giUnitVec3(dec.v[0][k], dec.v[1][k], dec.v[2][k]);
  residual = line_residual(dec, k, n);
  return coincident_or_fitted(dec.sigma[k]);
}

int gfLeastSquareEvaluator::evaluate_plane(giPoint3coDynArr const& points, giPoint3& point, giUnitVec3& normal,
                                           double& residual) {
  const int n = points.count();
  if (n < 3) return refuse(gfReason::too_few_points);
  CentredDecomposition<3> dec;
  if (!centred_decomposition<3>(points.data(), n, dec)) return refuse(gfReason::non_finite_input);
  int k = index_of_smallest(dec);
  point = giPoint3(dec.centroid[0], dec.centroid[1], dec.centroid[2]);
  normal = giUnitVec3(dec.v[0][k], dec.v[1][k], dec.v[2][k]);
  residual = std::fabs(dec.sigma[k]) / std::sqrt(static_cast<double>(n));
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
