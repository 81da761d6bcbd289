// Work planes: right-handed orthonormal frames placed in the world.
//
// `to_work` maps world coordinates into the frame, `to_world` maps frame coordinates back.
// Points take the origin into account, vectors do not.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/point.h"

class GFIT_EXPORT giWorkplane3 {
 public:
  // The world frame.
  giWorkplane3();
  // Origin, normal (the frame's z axis) and a direction for the x axis; the x axis is that
  // direction made orthogonal to the normal (when it is parallel to the normal, the
  // normal's `any_normal()` is used), and y = z x x.
  giWorkplane3(giPoint3 const& origin, giUnitVec3 const& normal, giVector3 const& x_direction);

  giPoint3 const& origin() const { return origin_; }
  giUnitVec3 const& x_axis() const { return x_; }
  giUnitVec3 const& y_axis() const { return y_; }
  giUnitVec3 const& normal() const { return z_; }

  giPoint3 to_work(giPoint3 const& p) const {
    giVector3 d = p - origin_;
    return {x_.dot(d), y_.dot(d), z_.dot(d)};
  }
  giVector3 to_work(giVector3 const& v) const { return {x_.dot(v), y_.dot(v), z_.dot(v)}; }
  giPoint3 to_world(giPoint3 const& p) const { return origin_ + to_world(p.vector()); }
  giVector3 to_world(giVector3 const& v) const {
    return {x_.x() * v.x() + y_.x() * v.y() + z_.x() * v.z(),
            x_.y() * v.x() + y_.y() * v.y() + z_.y() * v.z(),
            x_.z() * v.x() + y_.z() * v.y() + z_.z() * v.z()};
  }

 private:
  giPoint3 origin_;
  giUnitVec3 x_, y_, z_;
};

class GFIT_EXPORT giWorkplane2 {
 public:
  giWorkplane2();
  // Origin and x axis; y is x turned counter-clockwise by a right angle.
  giWorkplane2(giPoint2 const& origin, giVector2 const& x_direction);

  giPoint2 const& origin() const { return origin_; }
  giUnitVec2 const& x_axis() const { return x_; }
  giUnitVec2 const& y_axis() const { return y_; }

  giPoint2 to_work(giPoint2 const& p) const {
    giVector2 d = p - origin_;
    return {x_.dot(d), y_.dot(d)};
  }
  giVector2 to_work(giVector2 const& v) const { return {x_.dot(v), y_.dot(v)}; }
  giPoint2 to_world(giPoint2 const& p) const { return origin_ + to_world(giVector2(p.x(), p.y())); }
  giVector2 to_world(giVector2 const& v) const {
    return {x_.x() * v.x() + y_.x() * v.y(), x_.y() * v.x() + y_.y() * v.y()};
  }

 private:
  giPoint2 origin_;
  giUnitVec2 x_, y_;
};
