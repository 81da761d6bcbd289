// Angles and lengths.
//
// `giAngle` keeps the angle in radians with its cosine beside it, so that an angle made from
// a cosine (`giAngleCosine`) gives that cosine back exactly: the searches compare dot
// products of unit vectors with the cosine of a limit and must not lose it to acos/cos
// round trips. Default: 0 radians.
#pragma once

#include <cmath>

#include "gfit/platform/point.h"

// pi, spelled out: the POSIX macro for it is not part of standard C++ (MSVC hides it).
constexpr double giPi = 3.141592653589793;

struct giAngleCosine {};

class giAngle {
 public:
  giAngle() : radians_(0.0), cos_(1.0) {}
  explicit giAngle(double radians) : radians_(radians), cos_(std::cos(radians)) {}
  // The angle in [0, pi] whose cosine is `c` (clamped to [-1, 1]); `cos()` returns the clamped c.
  giAngle(giAngleCosine, double c) {
    cos_ = c < -1.0 ? -1.0 : (c > 1.0 ? 1.0 : c);
    radians_ = std::acos(cos_);
  }
  static giAngle from_degrees(double degrees) { return giAngle(degrees * (giPi / 180.0)); }

  double radians() const { return radians_; }
  double value() const { return radians_; }
  double degrees() const { return radians_ * (180.0 / giPi); }
  double cos() const { return cos_; }
  double sin() const { return std::sin(radians_); }
  double tan() const { return std::tan(radians_); }

  // Within `tolerance` (compared in radians, inclusive).
  bool coincident(giAngle const& other, giAngle const& tolerance) const {
    return std::fabs(radians_ - other.radians_) <= tolerance.radians_;
  }

 private:
  double radians_;
  double cos_;
};

// The unsigned angle between two vectors, in [0, pi]. atan2 of the cross and dot products
// keeps full accuracy near 0 and pi, where acos of the dot product would not.
inline giAngle unsigned_angle(giVector3 const& a, giVector3 const& b) {
  return giAngle(std::atan2(a.cross(b).length(), a.dot(b)));
}
inline giAngle unsigned_angle(giVector2 const& a, giVector2 const& b) {
  return giAngle(std::atan2(std::fabs(a.cross(b)), a.dot(b)));
}

// A length in the caller's unit; converts to double.
class giLength {
 public:
  giLength() : value_(0.0) {}
  giLength(double v) : value_(v) {}
  double value() const { return value_; }
  operator double() const { return value_; }

 private:
  double value_;
};
