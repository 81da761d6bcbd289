// The affine map between two sets of corresponding points.
//
// gfPointsAffineMatch finds x' = M x + t (12 unknowns in space, 6 in the plane) taking the
// first points a_i of the pairs onto the second points b_i in least squares,
//     minimise sum |M a_i + t - b_i|^2.
// Unlike the rigid point-pair alignment, M is any matrix: scales, shears and reflections
// are all allowed. (Späth, "Fitting affine and orthogonal transformations between two sets
// of points", Mathematical Communications 9, 2004.)
//
// Pairs are fed one at a time and folded into a small triangular factor of the rows
// [1, a_i - a_0, b_i - b_0] (a_0, b_0 the first pair), so any number of pairs costs
// constant memory and no allocation. Solving from the factor rather than from the normal
// sums sum(a a^T), sum(b a^T) keeps the condition number unsquared and keeps the digits of
// points far from the origin. The factor's block for the centred a is that of the centred
// sources, so its singular values decide whether the sources span the space: the map is
// refused when sigma_min^2 < 1e-12 sigma_max^2 (the sources' scatter matrix is singular at
// 1e-12), that is coplanar sources in space or collinear ones in the plane. The result is
// exact (to rounding) when the pairs are related by an affine map, and the fit from b to a
// is then the inverse of the fit from a to b.
//
// Refusals (false, the transform untouched, the reason recorded for gfLastReason):
//  - add_pair: a non-finite or unset point (the pair is dropped), or a pair of the other
//    dimension than the first accepted one;
//  - get_xform: fewer than dim + 1 pairs, no pairs of that dimension, or sources that do
//    not span the space.
// The accumulation is not changed by get_xform, which may be called again after more pairs.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/arrays.h"
#include "gfit/platform/xform.h"

class GFIT_EXPORT gfPointsAffineMatch {
 public:
  gfPointsAffineMatch();

  // Adds the pair a -> b. Returns false, and keeps nothing of it, when a point is not
  // finite or unset or the pair's dimension differs from the first accepted pair's.
  bool add_pair(giPoint2 const& a, giPoint2 const& b);
  bool add_pair(giPoint3 const& a, giPoint3 const& b);

  int count() const { return count_; }
  int dimension() const { return dim_; }  // 0 until a pair is accepted

  // The least-squares affine map taking the first points onto the second (a general
  // transform, state giXform3::general), and the RMS of |M a_i + t - b_i| over the pairs.
  bool get_xform(giXform3& xform) const;
  bool get_xform(giXform3& xform, double& rms) const;
  bool get_xform(giXform2& xform) const;
  bool get_xform(giXform2& xform, double& rms) const;

  // The whole match for arrays of pairs (from[i] -> to[i]); false, outputs untouched, for
  // arrays of different lengths or any refusal above.
  static bool match(giPoint3coDynArr const& from, giPoint3coDynArr const& to, giXform3& xform, double& rms);
  static bool match(giPoint2coDynArr const& from, giPoint2coDynArr const& to, giXform2& xform, double& rms);

 private:
  static constexpr int kMaxColumns = 7;  // 1 + 3 source + 3 target coordinates
  bool add(double const* a, double const* b, int dim);
  bool solve(int dim, double (&m)[3][3], double (&t)[3], double& rms) const;

  double r_[kMaxColumns * kMaxColumns];  // upper-triangular factor, row-major
  double a0_[3], b0_[3];                 // the first pair, subtracted from every pair
  int count_;
  int dim_;
};
