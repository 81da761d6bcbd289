#include <cmath>

#include "gfit/platform/shapes.h"
#include "gfit/platform/workplane.h"
#include "gfit/platform/xform.h"

// ---- unit vectors, lines, circles -------------------------------------------------------

giUnitVec3 giUnitVec3::any_normal() const {
  giVector3 r = std::fabs(x_) > std::fabs(y_) ? giVector3(0.0, 1.0, 0.0) : giVector3(1.0, 0.0, 0.0);
  return giVector3(*this).cross(r).unit();
}

bool giInfLine3::closest_points(giInfLine3 const& other, giPoint3& on_this, giPoint3& on_other) const {
  giVector3 u = direction_, v = other.direction_;
  giVector3 w = point_ - other.point_;
  double b = u.dot(v);
  double den = 1.0 - b * b;  // |u x v|^2 for unit u, v
  if (!(den > 1e-24)) return false;
  double d = u.dot(w), e = v.dot(w);
  double s = (b * e - d) / den;
  double t = (e - b * d) / den;
  on_this = point_ + u * s;
  on_other = other.point_ + v * t;
  return true;
}

bool giCircle2::become(giPoint2 const& a, giPoint2 const& b, giPoint2 const& c) {
  // Work relative to a, which keeps the digits of points far from the origin.
  giVector2 ab = b - a, ac = c - a;
  double den = 2.0 * ab.cross(ac);
  if (den == 0.0 || !std::isfinite(den)) return false;
  double sb = ab.squared_length(), sc = ac.squared_length();
  giVector2 offset((ac.y() * sb - ab.y() * sc) / den, (ab.x() * sc - ac.x() * sb) / den);
  if (!std::isfinite(offset.x()) || !std::isfinite(offset.y())) return false;
  centre_ = a + offset;
  radius_ = offset.length();
  return true;
}

// ---- work planes ------------------------------------------------------------------------

giWorkplane3::giWorkplane3()
    : origin_(0.0, 0.0, 0.0), x_(1.0, 0.0, 0.0), y_(0.0, 1.0, 0.0), z_(0.0, 0.0, 1.0) {}

giWorkplane3::giWorkplane3(giPoint3 const& origin, giUnitVec3 const& normal, giVector3 const& x_direction)
    : origin_(origin), z_(normal) {
  giUnitVec3 x = (x_direction - normal * normal.dot(x_direction)).unit();
  x_ = x.invalid() ? normal.any_normal() : x;
  y_ = z_.cross(x_).unit();
}

giWorkplane2::giWorkplane2() : origin_(0.0, 0.0), x_(1.0, 0.0), y_(0.0, 1.0) {}

giWorkplane2::giWorkplane2(giPoint2 const& origin, giVector2 const& x_direction)
    : origin_(origin), x_(x_direction.unit()), y_(x_.perpendicular()) {}

// ---- 3-D transforms ---------------------------------------------------------------------

namespace {
void set_identity(double* m, int n) {  // n x (n + 1), row-major
  for (int r = 0; r < n; ++r)
    for (int c = 0; c <= n; ++c) m[r * (n + 1) + c] = (r == c) ? 1.0 : 0.0;
}
}  // namespace

giXform3::giXform3() : state_(unset) {
  set_identity(m_, 3);
  m_[0] = -DBL_MAX;
}

giXform3::giXform3(giXformIdentity) : state_(identity) { set_identity(m_, 3); }

giXform3::giXform3(giXformTranslate, giVector3 const& t) : state_(translation) {
  set_identity(m_, 3);
  m_[3] = t.x();
  m_[7] = t.y();
  m_[11] = t.z();
}

giXform3::giXform3(giXformRotate, giPoint3 const& origin, giUnitVec3 const& k, giAngle const& angle)
    : state_(rigid) {
  double c = angle.cos(), s = angle.sin(), v = 1.0 - c;
  double x = k.x(), y = k.y(), z = k.z();
  double r[9] = {c + x * x * v,     x * y * v - z * s, x * z * v + y * s,
                 y * x * v + z * s, c + y * y * v,     y * z * v - x * s,
                 z * x * v - y * s, z * y * v + x * s, c + z * z * v};
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) m_[i * 4 + j] = r[i * 3 + j];
    // t = o - R o, so that the axis stays in place
    m_[i * 4 + 3] = origin[i] - (r[i * 3] * origin.x() + r[i * 3 + 1] * origin.y() + r[i * 3 + 2] * origin.z());
  }
}

giXform3::giXform3(giXformLocal, giPoint3 const& origin, giUnitVec3 const& z_axis, giUnitVec3 const& x_reference)
    : state_(rigid) {
  giWorkplane3 frame(origin, z_axis, x_reference);
  giUnitVec3 const* axes[3] = {&frame.x_axis(), &frame.y_axis(), &frame.normal()};
  for (int i = 0; i < 3; ++i) {
    m_[i * 4 + 0] = axes[i]->x();
    m_[i * 4 + 1] = axes[i]->y();
    m_[i * 4 + 2] = axes[i]->z();
    m_[i * 4 + 3] = -axes[i]->dot(origin.vector());
  }
}

giXform3::giXform3(giXformScale, double sx, double sy, double sz) : state_(general) {
  set_identity(m_, 3);
  m_[0] = sx;
  m_[5] = sy;
  m_[10] = sz;
  if (sx == 1.0 && sy == 1.0 && sz == 1.0) state_ = identity;
}

giXform3::giXform3(double const (&m)[3][3], giVector3 const& t) : state_(general) {
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) m_[i * 4 + j] = m[i][j];
  m_[3] = t.x();
  m_[7] = t.y();
  m_[11] = t.z();
}

giXform3::giXform3(giXformInverse, giXform3 const& x) : state_(x.state_) {
  double const* a = x.m_;
  double r[9];
  switch (x.state_) {
    case unset:
      *this = giXform3();
      return;
    case identity:
    case translation:
      for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) r[i * 3 + j] = (i == j) ? 1.0 : 0.0;
      break;
    case rigid:
      for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) r[i * 3 + j] = a[j * 4 + i];
      break;
    default: {
      // Cofactor inverse of the 3 x 3 part; a singular matrix has no inverse.
      double c00 = a[5] * a[10] - a[6] * a[9], c01 = a[6] * a[8] - a[4] * a[10], c02 = a[4] * a[9] - a[5] * a[8];
      double det = a[0] * c00 + a[1] * c01 + a[2] * c02;
      if (det == 0.0 || !std::isfinite(det)) {
        *this = giXform3();
        return;
      }
      double inv = 1.0 / det;
      r[0] = c00 * inv;
      r[1] = (a[2] * a[9] - a[1] * a[10]) * inv;
      r[2] = (a[1] * a[6] - a[2] * a[5]) * inv;
      r[3] = c01 * inv;
      r[4] = (a[0] * a[10] - a[2] * a[8]) * inv;
      r[5] = (a[2] * a[4] - a[0] * a[6]) * inv;
      r[6] = c02 * inv;
      r[7] = (a[1] * a[8] - a[0] * a[9]) * inv;
      r[8] = (a[0] * a[5] - a[1] * a[4]) * inv;
    }
  }
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 3; ++j) m_[i * 4 + j] = r[i * 3 + j];
    m_[i * 4 + 3] = -(r[i * 3] * a[3] + r[i * 3 + 1] * a[7] + r[i * 3 + 2] * a[11]);
  }
}

namespace {
template <class X>
int product_state(int a, int b) {
  if (a == X::unset || b == X::unset) return X::unset;
  if (a == X::identity) return b;
  if (b == X::identity) return a;
  if (a == X::general || b == X::general) return X::general;
  if (a == X::translation && b == X::translation) return X::translation;
  return X::rigid;
}
}  // namespace

giXform3 operator*(giXform3 const& a, giXform3 const& b) {
  giXform3 r;
  int state = product_state<giXform3>(a.state_, b.state_);
  if (state == giXform3::unset) return r;
  for (int i = 0; i < 3; ++i) {
    for (int j = 0; j < 4; ++j) {
      double s = (j == 3) ? a.m_[i * 4 + 3] : 0.0;
      for (int k = 0; k < 3; ++k) s += a.m_[i * 4 + k] * b.m_[k * 4 + j];
      r.m_[i * 4 + j] = s;
    }
  }
  r.state_ = state;
  return r;
}

// ---- 2-D transforms ---------------------------------------------------------------------

giXform2::giXform2() : state_(unset) {
  set_identity(m_, 2);
  m_[0] = -DBL_MAX;
}

giXform2::giXform2(giXformIdentity) : state_(identity) { set_identity(m_, 2); }

giXform2::giXform2(giXformTranslate, giVector2 const& t) : state_(translation) {
  set_identity(m_, 2);
  m_[2] = t.x();
  m_[5] = t.y();
}

giXform2::giXform2(giXformRotate, giPoint2 const& o, giAngle const& angle) : state_(rigid) {
  double c = angle.cos(), s = angle.sin();
  m_[0] = c;
  m_[1] = -s;
  m_[3] = s;
  m_[4] = c;
  m_[2] = o.x() - (c * o.x() - s * o.y());
  m_[5] = o.y() - (s * o.x() + c * o.y());
}

giXform2::giXform2(giXformLocal, giPoint2 const& origin, giUnitVec2 const& x_axis) : state_(rigid) {
  giUnitVec2 y_axis = x_axis.perpendicular();
  m_[0] = x_axis.x();
  m_[1] = x_axis.y();
  m_[3] = y_axis.x();
  m_[4] = y_axis.y();
  m_[2] = -(m_[0] * origin.x() + m_[1] * origin.y());
  m_[5] = -(m_[3] * origin.x() + m_[4] * origin.y());
}

giXform2::giXform2(giXformScale, double sx, double sy) : state_(general) {
  set_identity(m_, 2);
  m_[0] = sx;
  m_[4] = sy;
  if (sx == 1.0 && sy == 1.0) state_ = identity;
}

giXform2::giXform2(double const (&m)[2][2], giVector2 const& t) : state_(general) {
  m_[0] = m[0][0];
  m_[1] = m[0][1];
  m_[3] = m[1][0];
  m_[4] = m[1][1];
  m_[2] = t.x();
  m_[5] = t.y();
}

giXform2::giXform2(giXformInverse, giXform2 const& x) : state_(x.state_) {
  double const* a = x.m_;
  if (x.state_ == unset) {
    *this = giXform2();
    return;
  }
  double det = a[0] * a[4] - a[1] * a[3];
  if (det == 0.0 || !std::isfinite(det)) {
    *this = giXform2();
    return;
  }
  double r[4];
  if (x.state_ == rigid || x.state_ == identity || x.state_ == translation) {
    r[0] = a[0]; r[1] = a[3]; r[2] = a[1]; r[3] = a[4];  // transpose
  } else {
    r[0] = a[4] / det; r[1] = -a[1] / det; r[2] = -a[3] / det; r[3] = a[0] / det;
  }
  m_[0] = r[0];
  m_[1] = r[1];
  m_[3] = r[2];
  m_[4] = r[3];
  m_[2] = -(r[0] * a[2] + r[1] * a[5]);
  m_[5] = -(r[2] * a[2] + r[3] * a[5]);
}

giXform2 operator*(giXform2 const& a, giXform2 const& b) {
  giXform2 r;
  int state = product_state<giXform2>(a.state_, b.state_);
  if (state == giXform2::unset) return r;
  for (int i = 0; i < 2; ++i) {
    for (int j = 0; j < 3; ++j) {
      double s = (j == 2) ? a.m_[i * 3 + 2] : 0.0;
      for (int k = 0; k < 2; ++k) s += a.m_[i * 3 + k] * b.m_[k * 3 + j];
      r.m_[i * 3 + j] = s;
    }
  }
  r.state_ = state;
  return r;
}
