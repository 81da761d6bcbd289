#include "gfit/alignment/points_to_points.h"

#include <cfloat>
#include <cmath>

#include "gfit/platform/matrix.h"
#include "gfit/platform/report.h"
#include "gfit/platform/svd.h"

namespace {
bool usable(double x, double y, double z) {
  return x != -DBL_MAX && x != DBL_MAX && y != DBL_MAX && z != DBL_MAX && std::isfinite(x) && std::isfinite(y) &&
         std::isfinite(z);
}
bool all_finite(double const* v, int n) {
  for (int i = 0; i < n; ++i)
    if (!std::isfinite(v[i])) return false;
  return true;
}
constexpr double collinear_ratio = 1e10;
}  // namespace

void gfPointsToPoints::initialise_matrix() {
  for (int i = 0; i < dim_ * dim_; ++i) cross_[i] = 0.0;
  for (int i = 0; i < dim_; ++i) first_[i] = second_[i] = 0.0;
}

void gfPointsToPoints::add_pair(double const* a, double const* b) {
  if (count_ == 0) initialise_matrix();
  ++count_;
  for (int i = 0; i < dim_; ++i) {
    for (int j = 0; j < dim_; ++j) cross_[j * dim_ + i] += a[i] * b[j];
    first_[i] += a[i];
    second_[i] += b[i];
  }
}

void gfPointsToPoints::add_pair(giPoint2 const& a, giPoint2 const& b) {
  if (!usable(b.x(), b.y(), 0.0) || !usable(a.x(), a.y(), 0.0)) return;
  if (dim_ == 0) dim_ = 2;
  if (dim_ != 2) return;
  double pa[2] = {a.x(), a.y()}, pb[2] = {b.x(), b.y()};
  add_pair(pa, pb);
}

void gfPointsToPoints::add_pair(giPoint3 const& a, giPoint3 const& b) {
  if (!usable(b.x(), b.y(), b.z()) || !usable(a.x(), a.y(), a.z())) return;
  if (dim_ == 0) dim_ = 3;
  if (dim_ != 3) return;
  if (count_ == 0)
    for (int i = 0; i < 3; ++i) {
      reference_[i] = a[i];
      reference_[3 + i] = b[i];
    }
  double pa[3] = {a.x() - reference_[0], a.y() - reference_[1], a.z() - reference_[2]};
  double pb[3] = {b.x() - reference_[3], b.y() - reference_[4], b.z() - reference_[5]};
  add_pair(pa, pb);
}

bool gfPointsToPoints::get_xform(giXform3& xform) {
  if (dim_ != 3) return gfit::detail::refuse(gfReason::too_few_points, "no 3-D point pairs were added");
  if (!all_finite(cross_, 9) || !all_finite(first_, 3) || !all_finite(second_, 3))
    return gfit::detail::refuse(gfReason::out_of_range, "point pairs too large: their sums overflow");
  const double k = 1.0 / count_;
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) cross_[3 * j + i] -= k * second_[j] * first_[i];
  for (int i = 0; i < 3; ++i) {
    first_[i] *= k;
    second_[i] *= k;
  }
  double const mean_a[3] = {reference_[0] + first_[0], reference_[1] + first_[1], reference_[2] + first_[2]};
  double const mean_b[3] = {reference_[3] + second_[0], reference_[4] + second_[1], reference_[5] + second_[2]};

  mlMatrix h(utConvert{}, cross_, 3, 3);
  mlSingularValueDecomposition svd(h);
  mlMatrix v = svd.V();
  mlMatrix r(mlMatrixProduct{}, v, mlMatrix(mlMatrixTranspose{}, svd.U()));
  if (r.determinant() < 0.0) {
    for (int i = 0; i < 3; ++i) v(i, 2) = -v(i, 2);
    r.become(mlMatrixProduct{}, v, mlMatrix(mlMatrixTranspose{}, svd.U()));
  }
  double t[3];
  for (int i = 0; i < 3; ++i) t[i] = mean_b[i] - r[i] * mean_a[0] - r[i + 3] * mean_a[1] - r[i + 6] * mean_a[2];
  // The local frame maps world into the frame: its matrix is R^T when its axes are the
  // columns of R, and its origin o gives the translation -R^T o = t when o = -R t.
  giPoint3 origin(-(r[0] * t[0] + r[1] * t[1] + r[2] * t[2]), -(r[3] * t[0] + r[4] * t[1] + r[5] * t[2]),
                  -(r[6] * t[0] + r[7] * t[1] + r[8] * t[2]));
  xform.become(giXformLocal{}, origin, giUnitVec3(r[2], r[5], r[8]), giUnitVec3(r[0], r[3], r[6]));

  mlVector const& s = svd.diagonal();
  if (!(std::fabs(s[0]) <= collinear_ratio * std::fabs(s[1])) || s[1] == 0.0)
    return gfit::detail::refuse(gfReason::not_determined, "the point pairs are collinear or coincident");
  return gfit::detail::succeed(1);
}

bool gfPointsToPoints::get_xform(giXform2& xform) {
  if (dim_ != 2) return gfit::detail::refuse(gfReason::too_few_points, "no 2-D point pairs were added");
  if (!all_finite(cross_, 4) || !all_finite(first_, 2) || !all_finite(second_, 2))
    return gfit::detail::refuse(gfReason::out_of_range, "point pairs too large: their sums overflow");
  const double k = 1.0 / count_;
  // The row stride of 3 is kept as hosts know it: exact for pairs centred on the first points.
  for (int i = 0; i < 2; ++i) {
    cross_[i] -= k * second_[0] * first_[i];
    cross_[3 + i] -= k * second_[1] * first_[i];
  }
  for (int i = 0; i < 2; ++i) {
    first_[i] *= k;
    second_[i] *= k;
  }

  mlMatrix h(utConvert{}, cross_, 2, 2);
  mlSingularValueDecomposition svd(h);
  mlMatrix v = svd.V();
  mlMatrix r(mlMatrixProduct{}, v, mlMatrix(mlMatrixTranspose{}, svd.U()));
  if (r.determinant() < 0.0) {
    v(0, 1) = -v(0, 1);
    v(1, 1) = -v(1, 1);
    r.become(mlMatrixProduct{}, v, mlMatrix(mlMatrixTranspose{}, svd.U()));
  }
  double t[2];
  for (int i = 0; i < 2; ++i) t[i] = second_[i] - r[i] * first_[0] - r[i + 2] * first_[1];
  giPoint2 origin(-(r[0] * t[0] + r[1] * t[1]), -(r[2] * t[0] + r[3] * t[1]));
  xform.become(giXformLocal{}, origin, giUnitVec2(r[0], r[2]));

  mlVector const& s = svd.diagonal();
  if (!(std::fabs(s[0]) <= collinear_ratio * std::fabs(s[1])) || s[1] == 0.0)
    return gfit::detail::refuse(gfReason::not_determined, "the point pairs are collinear or coincident");
  return gfit::detail::succeed(1);
}
