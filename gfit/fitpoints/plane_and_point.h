// Pairings of a measured point with a nominal plane (in space) or line (in the plane), the
// records that the points-to-planes and points-to-lines alignments solve on.
#pragma once

#include "gfit/platform/dynarr.h"
#include "gfit/platform/point.h"
#include "gfit/platform/shapes.h"

// A measured point and the nominal plane it should lie on. The normal is stored multiplied by
// the weight (so it has unit length only for weight 1). `kind` and the two parameters are the
// pairing mode and its values as the solver that consumes the record defines them.
class gfPlaneAndPoint {
 public:
  gfPlaneAndPoint() = default;
  gfPlaneAndPoint(giPoint3 const& measured, giPoint3 const& plane_point, giVector3 const& normal, int kind,
                  double first, double second, double weight)
      : plane_point_(plane_point), weighted_normal_(normal * weight), measured_(measured), kind_(kind),
        first_(first), second_(second), weight_(weight) {}
  gfPlaneAndPoint(giPoint3 const& measured, giPlane const& plane, int kind, double first, double second,
                  double weight)
      : gfPlaneAndPoint(measured, plane.origin(), giVector3(plane.normal()), kind, first, second, weight) {}

  giPoint3 const& plane_point() const { return plane_point_; }
  // The plane's normal times the weight.
  giVector3 const& weighted_normal() const { return weighted_normal_; }
  giPoint3 const& measured_point() const { return measured_; }
  int kind() const { return kind_; }
  double first_parameter() const { return first_; }
  double second_parameter() const { return second_; }
  double weight() const { return weight_; }

 private:
  giPoint3 plane_point_;
  giVector3 weighted_normal_;
  giPoint3 measured_;
  int kind_ = 0;
  double first_ = 0.0;
  double second_ = 0.0;
  double weight_ = 0.0;  // a default record weighs nothing
};

// The 2-D counterpart: a measured point and the nominal line it should lie on.
class gfLineAndPoint {
 public:
  gfLineAndPoint() = default;
  gfLineAndPoint(giPoint2 const& measured, giPoint2 const& line_point, giVector2 const& weighted_normal)
      : line_point_(line_point), weighted_normal_(weighted_normal), measured_(measured) {}

  giPoint2 const& line_point() const { return line_point_; }
  giVector2 const& weighted_normal() const { return weighted_normal_; }
  giPoint2 const& measured_point() const { return measured_; }

 private:
  giPoint2 line_point_;
  giVector2 weighted_normal_;
  giPoint2 measured_;
};
