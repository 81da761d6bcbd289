// Points, vectors and unit vectors in the plane and in space.
//
// Plain value classes of doubles. Unset marks are part of the contract:
//  - a default point has every coordinate at +DBL_MAX;
//  - a default vector or unit vector has x at -DBL_MAX (and y, z at 0); `invalid()` tests it.
// A unit vector is made unit length by its constructor. Unitising a zero (or non-finite)
// vector cannot give a direction, so it yields the unset mark instead of NaNs, and the
// caller sees `invalid()`.
#pragma once

#include <cfloat>
#include <cmath>

#include "gfit/gfit_export.h"

// The tolerance that the 2-D constructions share for coincidence, parallelism and equal
// distances (the single-precision epsilon).
constexpr double giTolerance = 1.1920928955078125e-7;

class giUnitVec2;
class giUnitVec3;

// ---------------------------------------------------------------------------------------
class giVector2 {
 public:
  giVector2() : x_(-DBL_MAX), y_(0.0) {}
  giVector2(double x, double y) : x_(x), y_(y) {}

  double x() const { return x_; }
  double y() const { return y_; }
  void set_x(double v) { x_ = v; }
  void set_y(double v) { y_ = v; }
  double operator[](int i) const { return i == 0 ? x_ : y_; }

  bool invalid() const { return x_ == -DBL_MAX; }
  double squared_length() const { return x_ * x_ + y_ * y_; }
  double length() const { return std::sqrt(squared_length()); }
  double dot(giVector2 const& o) const { return x_ * o.x_ + y_ * o.y_; }
  // The z component of the 3-D cross product: positive when `o` lies counter-clockwise.
  double cross(giVector2 const& o) const { return x_ * o.y_ - y_ * o.x_; }
  inline giUnitVec2 unit() const;

  giVector2 operator-() const { return {-x_, -y_}; }
  giVector2& operator+=(giVector2 const& o) { x_ += o.x_; y_ += o.y_; return *this; }
  giVector2& operator-=(giVector2 const& o) { x_ -= o.x_; y_ -= o.y_; return *this; }
  giVector2& operator*=(double s) { x_ *= s; y_ *= s; return *this; }

 private:
  double x_, y_;
};

inline giVector2 operator+(giVector2 a, giVector2 const& b) { return a += b; }
inline giVector2 operator-(giVector2 a, giVector2 const& b) { return a -= b; }
inline giVector2 operator*(giVector2 a, double s) { return a *= s; }
inline giVector2 operator*(double s, giVector2 a) { return a *= s; }
inline giVector2 operator/(giVector2 const& a, double s) { return {a.x() / s, a.y() / s}; }

// ---------------------------------------------------------------------------------------
class giUnitVec2 {
 public:
  giUnitVec2() : x_(-DBL_MAX), y_(0.0) {}
  // Normalises (x, y); a zero or non-finite vector gives the unset mark.
  giUnitVec2(double x, double y) { assign(x, y); }
  explicit giUnitVec2(giVector2 const& v) { assign(v.x(), v.y()); }

  double x() const { return x_; }
  double y() const { return y_; }
  double operator[](int i) const { return i == 0 ? x_ : y_; }
  bool invalid() const { return x_ == -DBL_MAX; }

  operator giVector2() const { return {x_, y_}; }
  double dot(giVector2 const& o) const { return x_ * o.x() + y_ * o.y(); }
  double cross(giVector2 const& o) const { return x_ * o.y() - y_ * o.x(); }
  giUnitVec2 operator-() const { giUnitVec2 r; r.x_ = -x_; r.y_ = -y_; return r; }
  // The direction turned counter-clockwise by a right angle.
  giUnitVec2 perpendicular() const { giUnitVec2 r; r.x_ = -y_; r.y_ = x_; return r; }

 private:
  void assign(double x, double y) {
    double len = std::sqrt(x * x + y * y);
    if (len > 0.0 && std::isfinite(len)) {
      x_ = x / len;
      y_ = y / len;
    } else {
      x_ = -DBL_MAX;
      y_ = 0.0;
    }
  }
  double x_, y_;
};

inline giUnitVec2 giVector2::unit() const { return giUnitVec2(x_, y_); }
inline giVector2 operator*(giUnitVec2 const& a, double s) { return {a.x() * s, a.y() * s}; }
inline giVector2 operator*(double s, giUnitVec2 const& a) { return {a.x() * s, a.y() * s}; }

// ---------------------------------------------------------------------------------------
class giPoint2 {
 public:
  giPoint2() : x_(DBL_MAX), y_(DBL_MAX) {}
  giPoint2(double x, double y) : x_(x), y_(y) {}

  double x() const { return x_; }
  double y() const { return y_; }
  void set_x(double v) { x_ = v; }
  void set_y(double v) { y_ = v; }
  double operator[](int i) const { return i == 0 ? x_ : y_; }

  // Unset or invalidated: x at either extreme double, or y at +DBL_MAX.
  bool invalid() const { return x_ == -DBL_MAX || x_ == DBL_MAX || y_ == DBL_MAX; }
  bool finite() const { return std::isfinite(x_) && std::isfinite(y_); }

  double squared_distance(giPoint2 const& o) const {
    double dx = x_ - o.x_, dy = y_ - o.y_;
    return dx * dx + dy * dy;
  }
  double distance(giPoint2 const& o) const { return std::sqrt(squared_distance(o)); }
  // Within `tolerance` of `o`; compared on squared lengths, so no root is taken.
  bool coincident(giPoint2 const& o, double tolerance = giTolerance) const {
    return squared_distance(o) <= tolerance * tolerance;
  }

  giPoint2& operator+=(giVector2 const& v) { x_ += v.x(); y_ += v.y(); return *this; }
  giPoint2& operator-=(giVector2 const& v) { x_ -= v.x(); y_ -= v.y(); return *this; }
  bool operator==(giPoint2 const& o) const { return x_ == o.x_ && y_ == o.y_; }
  bool operator!=(giPoint2 const& o) const { return !(*this == o); }

 private:
  double x_, y_;
};

inline giVector2 operator-(giPoint2 const& a, giPoint2 const& b) { return {a.x() - b.x(), a.y() - b.y()}; }
inline giPoint2 operator+(giPoint2 p, giVector2 const& v) { return p += v; }
inline giPoint2 operator-(giPoint2 p, giVector2 const& v) { return p -= v; }

// ---------------------------------------------------------------------------------------
class giVector3 {
 public:
  giVector3() : x_(-DBL_MAX), y_(0.0), z_(0.0) {}
  giVector3(double x, double y, double z) : x_(x), y_(y), z_(z) {}

  double x() const { return x_; }
  double y() const { return y_; }
  double z() const { return z_; }
  void set_x(double v) { x_ = v; }
  void set_y(double v) { y_ = v; }
  void set_z(double v) { z_ = v; }
  double operator[](int i) const { return i == 0 ? x_ : (i == 1 ? y_ : z_); }

  bool invalid() const { return x_ == -DBL_MAX; }
  double squared_length() const { return x_ * x_ + y_ * y_ + z_ * z_; }
  double length() const { return std::sqrt(squared_length()); }
  double dot(giVector3 const& o) const { return x_ * o.x_ + y_ * o.y_ + z_ * o.z_; }
  giVector3 cross(giVector3 const& o) const {
    return {y_ * o.z_ - z_ * o.y_, z_ * o.x_ - x_ * o.z_, x_ * o.y_ - y_ * o.x_};
  }
  inline giUnitVec3 unit() const;

  giVector3 operator-() const { return {-x_, -y_, -z_}; }
  giVector3& operator+=(giVector3 const& o) { x_ += o.x_; y_ += o.y_; z_ += o.z_; return *this; }
  giVector3& operator-=(giVector3 const& o) { x_ -= o.x_; y_ -= o.y_; z_ -= o.z_; return *this; }
  giVector3& operator*=(double s) { x_ *= s; y_ *= s; z_ *= s; return *this; }

 private:
  double x_, y_, z_;
};

inline giVector3 operator+(giVector3 a, giVector3 const& b) { return a += b; }
inline giVector3 operator-(giVector3 a, giVector3 const& b) { return a -= b; }
inline giVector3 operator*(giVector3 a, double s) { return a *= s; }
inline giVector3 operator*(double s, giVector3 a) { return a *= s; }
inline giVector3 operator/(giVector3 const& a, double s) { return {a.x() / s, a.y() / s, a.z() / s}; }

// ---------------------------------------------------------------------------------------
class GFIT_EXPORT giUnitVec3 {
 public:
  giUnitVec3() : x_(-DBL_MAX), y_(0.0), z_(0.0) {}
  // Normalises (x, y, z); a zero or non-finite vector gives the unset mark.
  giUnitVec3(double x, double y, double z) { assign(x, y, z); }
  explicit giUnitVec3(giVector3 const& v) { assign(v.x(), v.y(), v.z()); }

  double x() const { return x_; }
  double y() const { return y_; }
  double z() const { return z_; }
  double operator[](int i) const { return i == 0 ? x_ : (i == 1 ? y_ : z_); }
  bool invalid() const { return x_ == -DBL_MAX; }
  // Writes the unset mark into x only, as a failure mark on an output direction.
  void set_invalid() { x_ = -DBL_MAX; }

  operator giVector3() const { return {x_, y_, z_}; }
  double dot(giVector3 const& o) const { return x_ * o.x() + y_ * o.y() + z_ * o.z(); }
  giVector3 cross(giVector3 const& o) const { return giVector3(*this).cross(o); }
  giUnitVec3 operator-() const {
    giUnitVec3 r;
    r.x_ = -x_; r.y_ = -y_; r.z_ = -z_;
    return r;
  }

  // A unit vector perpendicular to this one: unit(this x r), where r is the x axis, or the
  // y axis when |x| > |y| (the same reference-axis rule as the plane projection).
  giUnitVec3 any_normal() const;

 private:
  void assign(double x, double y, double z) {
    double len = std::sqrt(x * x + y * y + z * z);
    if (len > 0.0 && std::isfinite(len)) {
      x_ = x / len;
      y_ = y / len;
      z_ = z / len;
    } else {
      x_ = -DBL_MAX;
      y_ = 0.0;
      z_ = 0.0;
    }
  }
  double x_, y_, z_;
};

inline giUnitVec3 giVector3::unit() const { return giUnitVec3(x_, y_, z_); }
inline giVector3 operator*(giUnitVec3 const& a, double s) { return {a.x() * s, a.y() * s, a.z() * s}; }
inline giVector3 operator*(double s, giUnitVec3 const& a) { return {a.x() * s, a.y() * s, a.z() * s}; }

// ---------------------------------------------------------------------------------------
class giPoint3 {
 public:
  giPoint3() : x_(DBL_MAX), y_(DBL_MAX), z_(DBL_MAX) {}
  giPoint3(double x, double y, double z) : x_(x), y_(y), z_(z) {}

  double x() const { return x_; }
  double y() const { return y_; }
  double z() const { return z_; }
  void set_x(double v) { x_ = v; }
  void set_y(double v) { y_ = v; }
  void set_z(double v) { z_ = v; }
  double operator[](int i) const { return i == 0 ? x_ : (i == 1 ? y_ : z_); }

  // Unset or invalidated: x at either extreme double, or y or z at +DBL_MAX.
  bool invalid() const { return x_ == -DBL_MAX || x_ == DBL_MAX || y_ == DBL_MAX || z_ == DBL_MAX; }
  bool finite() const { return std::isfinite(x_) && std::isfinite(y_) && std::isfinite(z_); }

  double squared_distance(giPoint3 const& o) const {
    double dx = x_ - o.x_, dy = y_ - o.y_, dz = z_ - o.z_;
    return dx * dx + dy * dy + dz * dz;
  }
  double distance(giPoint3 const& o) const { return std::sqrt(squared_distance(o)); }
  bool coincident(giPoint3 const& o, double tolerance = giTolerance) const {
    return squared_distance(o) <= tolerance * tolerance;
  }
  // The position vector (from the origin).
  giVector3 vector() const { return {x_, y_, z_}; }

  giPoint3& operator+=(giVector3 const& v) { x_ += v.x(); y_ += v.y(); z_ += v.z(); return *this; }
  giPoint3& operator-=(giVector3 const& v) { x_ -= v.x(); y_ -= v.y(); z_ -= v.z(); return *this; }
  bool operator==(giPoint3 const& o) const { return x_ == o.x_ && y_ == o.y_ && z_ == o.z_; }
  bool operator!=(giPoint3 const& o) const { return !(*this == o); }

 private:
  double x_, y_, z_;
};

inline giVector3 operator-(giPoint3 const& a, giPoint3 const& b) {
  return {a.x() - b.x(), a.y() - b.y(), a.z() - b.z()};
}
inline giPoint3 operator+(giPoint3 p, giVector3 const& v) { return p += v; }
inline giPoint3 operator-(giPoint3 p, giVector3 const& v) { return p -= v; }
