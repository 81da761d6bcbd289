// Affine transforms of the plane and of space.
//
// A transform maps p to M p + t. It carries a state code beside its matrix:
//   0  unset      (the default; the first matrix element is -DBL_MAX)
//   1  identity
//   2  translation only
//   3  rigid      (rotation and translation)
//   4  general    (anything else, for example a scale)
// The codes are kept exact through products and inverses, so callers may test for the unset
// state and for the identity without looking at the numbers.
//
// Constructors take a tag that names the kind of transform. `A * B` applies B first.
// Points take the translation, vectors do not.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/angle.h"
#include "gfit/platform/point.h"

struct giXformIdentity {};
struct giXformTranslate {};
struct giXformRotate {};
struct giXformLocal {};
struct giXformScale {};
struct giXformInverse {};

class GFIT_EXPORT giXform3 {
 public:
  enum State { unset = 0, identity = 1, translation = 2, rigid = 3, general = 4 };

  giXform3();
  explicit giXform3(giXformIdentity);
  giXform3(giXformTranslate, giVector3 const& t);
  // Rotation by `angle` (right-handed) about the line through `origin` along `axis`.
  giXform3(giXformRotate, giPoint3 const& origin, giUnitVec3 const& axis, giAngle const& angle);
  // World coordinates into the local frame whose origin is `origin`, whose z axis is `z_axis`
  // and whose x axis is `x_reference` made orthogonal to z (y = z x x).
  giXform3(giXformLocal, giPoint3 const& origin, giUnitVec3 const& z_axis, giUnitVec3 const& x_reference);
  // Scale by (sx, sy, sz) along the world axes about the world origin.
  giXform3(giXformScale, double sx, double sy, double sz);
  giXform3(giXformInverse, giXform3 const& x);
  // The general transform p -> M p + t, M given row by row.
  giXform3(double const (&m)[3][3], giVector3 const& t);

  template <class... Args>
  void become(Args&&... args) { *this = giXform3(static_cast<Args&&>(args)...); }

  int state() const { return state_; }
  bool is_unset() const { return state_ == unset; }
  bool is_identity() const { return state_ == identity; }

  // Element (row, col) of the 3 x 4 matrix [M | t].
  double operator()(int row, int col) const { return m_[row * 4 + col]; }
  giVector3 translation_part() const { return {m_[3], m_[7], m_[11]}; }

  giPoint3 transform(giPoint3 const& p) const {
    return {m_[0] * p.x() + m_[1] * p.y() + m_[2] * p.z() + m_[3],
            m_[4] * p.x() + m_[5] * p.y() + m_[6] * p.z() + m_[7],
            m_[8] * p.x() + m_[9] * p.y() + m_[10] * p.z() + m_[11]};
  }
  giVector3 transform(giVector3 const& v) const {
    return {m_[0] * v.x() + m_[1] * v.y() + m_[2] * v.z(),
            m_[4] * v.x() + m_[5] * v.y() + m_[6] * v.z(),
            m_[8] * v.x() + m_[9] * v.y() + m_[10] * v.z()};
  }

  friend GFIT_EXPORT giXform3 operator*(giXform3 const& a, giXform3 const& b);

 private:
  double m_[12];  // row-major [M | t]
  int state_;
};

inline giPoint3 operator*(giXform3 const& x, giPoint3 const& p) { return x.transform(p); }
inline giVector3 operator*(giXform3 const& x, giVector3 const& v) { return x.transform(v); }

class GFIT_EXPORT giXform2 {
 public:
  enum State { unset = 0, identity = 1, translation = 2, rigid = 3, general = 4 };

  giXform2();
  explicit giXform2(giXformIdentity);
  giXform2(giXformTranslate, giVector2 const& t);
  // Counter-clockwise rotation by `angle` about `origin`.
  giXform2(giXformRotate, giPoint2 const& origin, giAngle const& angle);
  // World coordinates into the local frame with this origin and x axis.
  giXform2(giXformLocal, giPoint2 const& origin, giUnitVec2 const& x_axis);
  giXform2(giXformScale, double sx, double sy);
  giXform2(giXformInverse, giXform2 const& x);
  giXform2(double const (&m)[2][2], giVector2 const& t);

  template <class... Args>
  void become(Args&&... args) { *this = giXform2(static_cast<Args&&>(args)...); }

  int state() const { return state_; }
  bool is_unset() const { return state_ == unset; }
  bool is_identity() const { return state_ == identity; }
  double operator()(int row, int col) const { return m_[row * 3 + col]; }

  giPoint2 transform(giPoint2 const& p) const {
    return {m_[0] * p.x() + m_[1] * p.y() + m_[2], m_[3] * p.x() + m_[4] * p.y() + m_[5]};
  }
  giVector2 transform(giVector2 const& v) const {
    return {m_[0] * v.x() + m_[1] * v.y(), m_[3] * v.x() + m_[4] * v.y()};
  }

  friend GFIT_EXPORT giXform2 operator*(giXform2 const& a, giXform2 const& b);

 private:
  double m_[6];  // row-major [M | t]
  int state_;
};

inline giPoint2 operator*(giXform2 const& x, giPoint2 const& p) { return x.transform(p); }
inline giVector2 operator*(giXform2 const& x, giVector2 const& v) { return x.transform(v); }
