// The rigid transform between corresponding points, in the plane or in space.
//
// `gfPointsToPoints` accumulates pairs (a, b) one at a time into running sums (15 doubles
// and two ints, no allocation per pair) and returns the rotation and translation X that
// minimise sum |X a - b|^2: the transform takes the first point of each pair onto the second.
// Method: the singular value decomposition of the centred cross-covariance (Kabsch 1976,
// Arun, Huang and Blostein 1987) with the reflection guard of Umeyama 1991.
//
// Conventions, which decide the direction of the result:
//  - cross sums: entry (j dim + i) accumulates sum a_i b_j, so H read row by row from them
//    is sum b a^T (row j, column i);
//  - with H = U S V^T (singular values largest first), R = V U^T minimises sum |R b - a|^2,
//    so the transform sought is X p = R^T p + t with t = mean(b) - R^T mean(a);
//  - a determinant of R below 0 (mirrored data) negates the last column of V first, so R is
//    always a proper rotation;
//  - X is built as the geometry library's local frame (which maps world coordinates into
//    the frame) with origin -R t, z axis the third column of R and x reference its first
//    column (in the plane: origin -R t and x axis the first column of R); its matrix is R^T.
//
// `get_xform` returns true exactly when |s0| <= 1e10 |s1| and s1 > 0: coincident or
// collinear pairs (one pair, for example, whose centred sums vanish and would pass the ratio
// alone) give false, with the transform written all the same. It rewrites
// the sums in place (centring), so it must be called once per accumulation.
//
// In space the pairs are summed relative to the first valid pair (a0, b0): the sums of
// (a - a0)_i (b - b0)_j centre to the same covariance, but without the cancellation that raw
// sums suffer when the points lie far from the origin compared with their spread (points
// 20 mm apart 2 m from the origin lose six digits of the rotation otherwise). The means are
// a0 and b0 plus the means of the offsets.
//
// The plane form keeps a centring that is only exact for pairs whose first points sum to
// zero (pairs already centred on the first points): it corrects entries 0, 1, 3 and 4 with
// a row stride of 3 while H is read from entries 0 to 3, so entry 2 (sum a0 b1) is not
// centred and entry 3 is corrected with sum a0 instead of sum a1. Hosts that depend on
// those results get them unchanged; callers with uncentred 2-D data centre it first.
//
// Pairs are dropped without notice when either point is invalid (x at either extreme double,
// or y or z at +DBL_MAX), when a coordinate is not finite, or when their dimension differs
// from the one the first valid pair fixed. Sums that overflow make `get_xform` return false
// and leave the transform untouched.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/point.h"
#include "gfit/platform/xform.h"

class GFIT_EXPORT gfPointsToPoints {
 public:
  // Count and dimension 0; the sums are zeroed too, so that no entry is ever read unset.
  gfPointsToPoints() : cross_{}, first_{}, second_{}, reference_{}, count_(0), dim_(0) {}
  ~gfPointsToPoints() {}

  void add_pair(giPoint2 const& a, giPoint2 const& b);
  void add_pair(giPoint3 const& a, giPoint3 const& b);

  bool get_xform(giXform2& xform);
  bool get_xform(giXform3& xform);

  int count() const { return count_; }
  int dimension() const { return dim_; }

 protected:
  void add_pair(double const* a, double const* b);
  void initialise_matrix();

 private:
  double cross_[9];
  double first_[3];
  double second_[3];
  double reference_[6];  // a0 and b0 of the first 3-D pair
  int count_;
  int dim_;
};
