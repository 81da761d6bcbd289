#include "gfit/alignment/affine_match.h"

#include <Eigen/Dense>
#include <cmath>

#include "gfit/platform/report.h"

using gfit::detail::refuse;

namespace {

// The sources span the space when the smallest singular value of their scatter matrix is
// at least this fraction of the largest.
constexpr double kSpanTolerance = 1e-12;

bool usable(giPoint3 const& p) { return p.finite() && !p.invalid(); }
bool usable(giPoint2 const& p) { return p.finite() && !p.invalid(); }

// Folds one row into the c x c upper-triangular factor R (row-major) by Givens rotations,
// so that R^T R gains row^T row. The diagonal stays non-negative. `row` is overwritten.
void fold_row(double* r, int c, double* row) {
  for (int j = 0; j < c; ++j) {
    const double x = row[j];
    if (x == 0.0) continue;
    double& d = r[j * c + j];
    const double h = std::hypot(d, x);
    const double cs = d / h, sn = x / h;
    d = h;
    for (int k = j + 1; k < c; ++k) {
      const double rk = r[j * c + k], xk = row[k];
      r[j * c + k] = cs * rk + sn * xk;
      row[k] = cs * xk - sn * rk;
    }
  }
}

}  // namespace

gfPointsAffineMatch::gfPointsAffineMatch() : r_{}, a0_{}, b0_{}, count_(0), dim_(0) {}

bool gfPointsAffineMatch::add_pair(giPoint2 const& a, giPoint2 const& b) {
  if (!usable(a) || !usable(b)) return refuse(gfReason::non_finite_input, "a point of the pair is not finite or unset");
  const double pa[2] = {a.x(), a.y()}, pb[2] = {b.x(), b.y()};
  return add(pa, pb, 2);
}

bool gfPointsAffineMatch::add_pair(giPoint3 const& a, giPoint3 const& b) {
  if (!usable(a) || !usable(b)) return refuse(gfReason::non_finite_input, "a point of the pair is not finite or unset");
  const double pa[3] = {a.x(), a.y(), a.z()}, pb[3] = {b.x(), b.y(), b.z()};
  return add(pa, pb, 3);
}

bool gfPointsAffineMatch::add(double const* a, double const* b, int dim) {
  if (dim_ != 0 && dim_ != dim)
    return refuse(gfReason::invalid_argument, "plane and space pairs do not mix in one match");
  if (dim_ == 0) {
    dim_ = dim;
    for (int i = 0; i < dim; ++i) {
      a0_[i] = a[i];
      b0_[i] = b[i];
    }
  }
  // The row [1, a - a0, b - b0]: relative to the first pair, so that points far from the
  // origin keep their digits.
  const int c = 1 + 2 * dim;
  double row[kMaxColumns];
  row[0] = 1.0;
  for (int i = 0; i < dim; ++i) {
    row[1 + i] = a[i] - a0_[i];
    row[1 + dim + i] = b[i] - b0_[i];
  }
  fold_row(r_, c, row);
  ++count_;
  return true;
}

bool gfPointsAffineMatch::solve(int dim, double (&m)[3][3], double (&t)[3], double& rms) const {
  if (dim_ != dim) {
    if (dim_ == 0) return refuse(gfReason::too_few_points, "no pairs");
    return refuse(gfReason::invalid_argument, dim == 3 ? "the pairs lie in the plane" : "the pairs lie in space");
  }
  if (count_ < dim + 1) return refuse(gfReason::too_few_points, "fewer pairs than the map has dimensions plus one");
  const int c = 1 + 2 * dim, p = 1 + dim;
  auto r = [&](int i, int j) { return r_[i * c + j]; };

  // Rows and columns 1..dim of the factor are the triangular factor of the centred sources.
  Eigen::Matrix3d centred = Eigen::Matrix3d::Zero();
  for (int i = 0; i < dim; ++i)
    for (int j = i; j < dim; ++j) centred(i, j) = r(1 + i, 1 + j);
  if (!centred.allFinite()) return refuse(gfReason::out_of_range, "the points' spread overflows");
  const Eigen::Vector3d sigma = Eigen::JacobiSVD<Eigen::Matrix3d>(centred).singularValues();
  const double largest = sigma[0], smallest = sigma[dim - 1];
  if (!(largest > 0.0) || smallest * smallest < kSpanTolerance * largest * largest)
    return refuse(gfReason::not_determined,
                  dim == 3 ? "the source points are coplanar" : "the source points are collinear");

  // Back substitution R_x X = R_xb: row 0 of X is the translation in the shifted
  // coordinates, row 1 + i holds column i of M.
  double x[4][3];
  for (int j = 0; j < dim; ++j)
    for (int i = p - 1; i >= 0; --i) {
      double s = r(i, p + j);
      for (int k = i + 1; k < p; ++k) s -= r(i, k) * x[k][j];
      x[i][j] = s / r(i, i);
    }
  double residual = 0.0;
  for (int i = p; i < c; ++i)
    for (int j = i; j < c; ++j) residual += r(i, j) * r(i, j);

  double mm[3][3] = {}, tt[3] = {};
  for (int j = 0; j < dim; ++j) {
    for (int i = 0; i < dim; ++i) mm[j][i] = x[1 + i][j];
    // b = M (a - a0) + x0 + b0, so t = b0 + x0 - M a0.
    double s = b0_[j] + x[0][j];
    for (int i = 0; i < dim; ++i) s -= mm[j][i] * a0_[i];
    tt[j] = s;
  }
  for (int j = 0; j < dim; ++j) {
    if (!std::isfinite(tt[j])) return refuse(gfReason::out_of_range, "the map overflows");
    for (int i = 0; i < dim; ++i)
      if (!std::isfinite(mm[j][i])) return refuse(gfReason::out_of_range, "the map overflows");
  }
  for (int j = 0; j < 3; ++j) {
    t[j] = tt[j];
    for (int i = 0; i < 3; ++i) m[j][i] = mm[j][i];
  }
  rms = std::sqrt(residual / count_);
  return true;
}

bool gfPointsAffineMatch::get_xform(giXform3& xform, double& rms) const {
  double m[3][3], t[3], e = 0.0;
  if (!solve(3, m, t, e)) return false;
  xform = giXform3(m, giVector3(t[0], t[1], t[2]));
  rms = e;
  return gfit::detail::succeed(1) != 0;
}

bool gfPointsAffineMatch::get_xform(giXform3& xform) const {
  double rms = 0.0;
  return get_xform(xform, rms);
}

bool gfPointsAffineMatch::get_xform(giXform2& xform, double& rms) const {
  double m[3][3], t[3], e = 0.0;
  if (!solve(2, m, t, e)) return false;
  const double m2[2][2] = {{m[0][0], m[0][1]}, {m[1][0], m[1][1]}};
  xform = giXform2(m2, giVector2(t[0], t[1]));
  rms = e;
  return gfit::detail::succeed(1) != 0;
}

bool gfPointsAffineMatch::get_xform(giXform2& xform) const {
  double rms = 0.0;
  return get_xform(xform, rms);
}

bool gfPointsAffineMatch::match(giPoint3coDynArr const& from, giPoint3coDynArr const& to, giXform3& xform,
                                double& rms) {
  if (from.count() != to.count()) return refuse(gfReason::bad_companion_array, "the point arrays differ in length");
  gfPointsAffineMatch pairs;
  for (int i = 0; i < from.count(); ++i)
    if (!pairs.add_pair(from[i], to[i])) return false;
  return pairs.get_xform(xform, rms);
}

bool gfPointsAffineMatch::match(giPoint2coDynArr const& from, giPoint2coDynArr const& to, giXform2& xform,
                                double& rms) {
  if (from.count() != to.count()) return refuse(gfReason::bad_companion_array, "the point arrays differ in length");
  gfPointsAffineMatch pairs;
  for (int i = 0; i < from.count(); ++i)
    if (!pairs.add_pair(from[i], to[i])) return false;
  return pairs.get_xform(xform, rms);
}
