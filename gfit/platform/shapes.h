// Planes, infinite lines, circles and boxes.
#pragma once

#include <cfloat>

#include "gfit/gfit_export.h"
#include "gfit/platform/point.h"

// A plane through `origin` with unit normal `normal`. Distances are signed: positive on the
// side the normal points to.
class giPlane {
 public:
  giPlane() = default;
  giPlane(giPoint3 const& origin, giUnitVec3 const& normal) : origin_(origin), normal_(normal) {}

  giPoint3 const& origin() const { return origin_; }
  giUnitVec3 const& normal() const { return normal_; }
  double distance(giPoint3 const& p) const { return normal_.dot(p - origin_); }
  giPoint3 project(giPoint3 const& p) const { return p - normal_ * distance(p); }

 private:
  giPoint3 origin_;
  giUnitVec3 normal_;
};

// An infinite line through `point` along the unit `direction`.
class giInfLine2 {
 public:
  giInfLine2() = default;
  giInfLine2(giPoint2 const& point, giUnitVec2 const& direction) : point_(point), direction_(direction) {}

  giPoint2 const& point() const { return point_; }
  giUnitVec2 const& direction() const { return direction_; }
  double distance_of_point(giPoint2 const& p) const { return std::fabs(direction_.cross(p - point_)); }

 private:
  giPoint2 point_;
  giUnitVec2 direction_;
};

class GFIT_EXPORT giInfLine3 {
 public:
  giInfLine3() = default;
  giInfLine3(giPoint3 const& point, giUnitVec3 const& direction) : point_(point), direction_(direction) {}

  giPoint3 const& point() const { return point_; }
  giUnitVec3 const& direction() const { return direction_; }
  double distance_of_point(giPoint3 const& p) const { return direction_.cross(p - point_).length(); }
  giPoint3 project(giPoint3 const& p) const { return point_ + direction_ * direction_.dot(p - point_); }

  // The mutually closest points of this line and `other`. Returns false, leaving the outputs
  // untouched, when the lines are parallel (|u x v|^2 <= 1e-24).
  bool closest_points(giInfLine3 const& other, giPoint3& on_this, giPoint3& on_other) const;

 private:
  giPoint3 point_;
  giUnitVec3 direction_;
};

// A circle in the plane. The default circle (centre unset, radius +DBL_MAX) stands for "no
// circle".
class GFIT_EXPORT giCircle2 {
 public:
  giCircle2() : radius_(DBL_MAX) {}
  giCircle2(giPoint2 const& centre, double radius) : centre_(centre), radius_(radius) {}

  giPoint2 const& centre() const { return centre_; }
  double radius() const { return radius_; }
  void set_centre(giPoint2 const& c) { centre_ = c; }
  void set_radius(double r) { radius_ = r; }
  bool invalid() const { return centre_.invalid() || radius_ == DBL_MAX; }

  // Becomes the circle through three points. Returns false, leaving the circle unchanged,
  // when the points are collinear (including coincident), so that no finite circle exists.
  bool become(giPoint2 const& a, giPoint2 const& b, giPoint2 const& c);

 private:
  giPoint2 centre_;
  double radius_;
};

// Axis-parallel boxes, empty until the first point is merged.
class giBox2 {
 public:
  giBox2() : min_(DBL_MAX, DBL_MAX), max_(-DBL_MAX, -DBL_MAX) {}
  void merge(giPoint2 const& p) {
    if (p.x() < min_.x()) min_.set_x(p.x());
    if (p.y() < min_.y()) min_.set_y(p.y());
    if (p.x() > max_.x()) max_.set_x(p.x());
    if (p.y() > max_.y()) max_.set_y(p.y());
  }
  bool empty() const { return min_.x() > max_.x(); }
  giPoint2 const& min() const { return min_; }
  giPoint2 const& max() const { return max_; }
  double diagonal() const { return empty() ? 0.0 : (max_ - min_).length(); }

 private:
  giPoint2 min_, max_;
};

class giBox3 {
 public:
  giBox3() : min_(DBL_MAX, DBL_MAX, DBL_MAX), max_(-DBL_MAX, -DBL_MAX, -DBL_MAX) {}
  void merge(giPoint3 const& p) {
    if (p.x() < min_.x()) min_.set_x(p.x());
    if (p.y() < min_.y()) min_.set_y(p.y());
    if (p.z() < min_.z()) min_.set_z(p.z());
    if (p.x() > max_.x()) max_.set_x(p.x());
    if (p.y() > max_.y()) max_.set_y(p.y());
    if (p.z() > max_.z()) max_.set_z(p.z());
  }
  bool empty() const { return min_.x() > max_.x(); }
  giPoint3 const& min() const { return min_; }
  giPoint3 const& max() const { return max_; }
  double diagonal() const { return empty() ? 0.0 : (max_ - min_).length(); }

 private:
  giPoint3 min_, max_;
};
