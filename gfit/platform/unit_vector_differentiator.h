// The derivative of a normalised vector: for u = v / |v|,
//     du/dv = (I - u u^T) / |v|,
// the tool for the gradient of anything built on a unit direction (an axis, a normal) that a
// solver parametrises by an unnormalised vector. Part of the surface kernel's platform layer;
// it needs nothing of OpenCASCADE.
//
// A zero or non-finite v has no direction: `valid()` is false, `unit()` is unset and every
// derivative is zero.
#pragma once

#include <cmath>

#include "gfit/platform/point.h"

class tskUnitVectorDifferentiator3 {
 public:
  explicit tskUnitVectorDifferentiator3(giVector3 const& v) : length_(v.length()), unit_(v) {
    if (!(length_ > 0.0) || !std::isfinite(length_)) length_ = 0.0;
  }

  bool valid() const { return length_ > 0.0; }
  double length() const { return length_; }
  giUnitVec3 const& unit() const { return unit_; }

  // du for a change dv of the vector: (dv - u (u . dv)) / |v|.
  giVector3 derivative(giVector3 const& dv) const {
    if (!valid()) return {0.0, 0.0, 0.0};
    giVector3 u = unit_;
    return (dv - u * u.dot(dv)) / length_;
  }
  // The 3 x 3 Jacobian du_i / dv_j, row by row.
  void jacobian(double (&j)[3][3]) const {
    for (int r = 0; r < 3; ++r)
      for (int c = 0; c < 3; ++c) j[r][c] = valid() ? ((r == c ? 1.0 : 0.0) - unit_[r] * unit_[c]) / length_ : 0.0;
  }
  // The chain rule for a scalar f(u): df/dv = (I - u u^T) df/du / |v| (the matrix is symmetric).
  giVector3 gradient(giVector3 const& df_du) const { return derivative(df_du); }

 private:
  double length_;
  giUnitVec3 unit_;
};
