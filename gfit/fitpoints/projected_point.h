// The outcome of projecting one measured point onto the nominal object.
//
// A record holds the measured point (after the transform was applied), the nominal point
// and the nominal normal, oriented to the probing side. A record that carries no projection
// is invalid: its measured x is -DBL_MAX (the `set_invalid` mark) or one of its measured
// coordinates is +DBL_MAX (the unset value a default record has). Only the measured point
// is inspected; consumers skip invalid records.
#pragma once

#include <cfloat>

#include "gfit/platform/angle.h"
#include "gfit/platform/dynarr.h"
#include "gfit/platform/point.h"

class gfProjectedPoint3 {
 public:
  gfProjectedPoint3() = default;
  gfProjectedPoint3(giPoint3 const& measured, giPoint3 const& nominal, giUnitVec3 const& normal)
      : measured_(measured), nominal_(nominal), normal_(normal) {}

  giPoint3 const& measured_point() const { return measured_; }
  giPoint3 const& nominal_point() const { return nominal_; }
  giUnitVec3 const& nominal_normal() const { return normal_; }

  // Euclidean distance between measured and nominal point.
  giLength distance() const { return measured_.distance(nominal_); }
  // (measured - nominal) . normal: positive on the side the normal points to.
  double signed_distance() const { return normal_.dot(measured_ - nominal_); }

  int invalid() const {
    return measured_.x() == -DBL_MAX || measured_.x() == DBL_MAX || measured_.y() == DBL_MAX ||
           measured_.z() == DBL_MAX;
  }
  void set_invalid() { measured_.set_x(-DBL_MAX); }

 private:
  giPoint3 measured_;
  giPoint3 nominal_;
  giUnitVec3 normal_;
};

class gfProjectedPoint2 {
 public:
  gfProjectedPoint2() = default;
  gfProjectedPoint2(giPoint2 const& measured, giPoint2 const& nominal, giUnitVec2 const& normal)
      : measured_(measured), nominal_(nominal), normal_(normal) {}

  giPoint2 const& measured_point() const { return measured_; }
  giPoint2 const& nominal_point() const { return nominal_; }
  giUnitVec2 const& nominal_normal() const { return normal_; }

  giLength distance() const { return measured_.distance(nominal_); }
  double signed_distance() const { return normal_.dot(measured_ - nominal_); }

  int invalid() const { return measured_.x() == -DBL_MAX || measured_.x() == DBL_MAX || measured_.y() == DBL_MAX; }
  void set_invalid() { measured_.set_x(-DBL_MAX); }

 private:
  giPoint2 measured_;
  giPoint2 nominal_;
  giUnitVec2 normal_;
};

using gfProjectedPoint3coDynArr = coDynArr<gfProjectedPoint3>;
using gfProjectedPoint2coDynArr = coDynArr<gfProjectedPoint2>;
