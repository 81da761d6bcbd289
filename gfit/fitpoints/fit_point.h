// Measured points that an alignment projects onto a nominal object again and again as its
// transform changes.
//
// `gfFitPoint3` is the abstract measured point in space; it knows what kind of measurement
// it is and hands itself to a projector, which knows the nominal geometry (double dispatch:
// `project_from_position` calls the projector's `rotate_and_project` with the point itself).
// `gfProbedPoint3` is the centre of a touch-probe tip: the measured position, the surface
// normal known at measurement time (only used to choose the side of the surface) and the tip
// radius. `gfFitPoint2` is the 2-D counterpart, projected by the 2-D curve best fit.
//
// Fit points are held through shared handles (`gfFitPoint3coPrf`, owning or external, see
// platform/shared_handle.h) in paged arrays, whose elements never move.
#pragma once

#include "gfit/fitpoints/projected_point.h"
#include "gfit/gfit_export.h"
#include "gfit/platform/pagearr.h"
#include "gfit/platform/point.h"
#include "gfit/platform/shared_handle.h"
#include "gfit/platform/xform.h"

class gfFitPointProjector3;
class gfFitPointProjector2;  // the 2-D curve best fit's projector

class GFIT_EXPORT gfFitPoint3 {
 public:
  // Projection under the identity transform.
  virtual void initial_projection(gfProjectedPoint3& out, gfFitPointProjector3 const* projector) const = 0;
  // Projection of the point moved by `xform` onto the projector's nominal object.
  virtual void project_from_position(giXform3 const& xform, gfProjectedPoint3& out,
                                     gfFitPointProjector3 const* projector) const = 0;
  virtual ~gfFitPoint3();
};

class GFIT_EXPORT gfProbedPoint3 : public gfFitPoint3 {
 public:
  // The point and normal at the geometry defaults (unset), radius 0.
  gfProbedPoint3() = default;
  // Stores the three values unchanged; `radius` is in the model's length unit.
  gfProbedPoint3(giPoint3 const& measured, giUnitVec3 const& approximate_normal, double radius)
      : measured_(measured), normal_(approximate_normal), radius_(radius) {}

  // Exactly `project_from_position` with the identity transform.
  void initial_projection(gfProjectedPoint3& out, gfFitPointProjector3 const* projector) const override;
  // Calls the projector's `rotate_and_project(xform, this, out)`. The projector must be a
  // gfProjectorForFitting3; any other projector (or none) leaves `out` as it was.
  void project_from_position(giXform3 const& xform, gfProjectedPoint3& out,
                             gfFitPointProjector3 const* projector) const override;
  ~gfProbedPoint3() override;

  virtual giPoint3 const& measured_point() const { return measured_; }
  virtual giUnitVec3 const& approximate_normal() const { return normal_; }
  virtual double radius() const { return radius_; }

 private:
  giPoint3 measured_;
  giUnitVec3 normal_;
  double radius_ = 0.0;
};

class GFIT_EXPORT gfFitPoint2 {
 public:
  virtual void initial_projection(gfProjectedPoint2& out, gfFitPointProjector2 const* projector) const = 0;
  virtual void project_from_position(giXform2 const& xform, gfProjectedPoint2& out,
                                     gfFitPointProjector2 const* projector) const = 0;
  virtual ~gfFitPoint2();
};

using gfFitPoint3coPrf = coPrf<gfFitPoint3>;
using gfFitPoint2coPrf = coPrf<gfFitPoint2>;
using gfFitPoint3PtrcoPageArr = coPageArr<gfFitPoint3coPrf>;
using gfFitPoint2PtrcoPageArr = coPageArr<gfFitPoint2coPrf>;
