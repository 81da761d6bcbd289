#include "gfit/fitpoints/fit_point.h"

#include "gfit/fitpoints/projector.h"

gfFitPoint3::~gfFitPoint3() = default;
gfFitPoint2::~gfFitPoint2() = default;
gfProbedPoint3::~gfProbedPoint3() = default;

void gfProbedPoint3::initial_projection(gfProjectedPoint3& out, gfFitPointProjector3 const* projector) const {
  project_from_position(giXform3(giXformIdentity{}), out, projector);
}

void gfProbedPoint3::project_from_position(giXform3 const& xform, gfProjectedPoint3& out,
                                           gfFitPointProjector3 const* projector) const {
  // rotate_and_project is not const in the projectors' interface, but no projector of the
  // library changes when it projects (working storage is per call or per thread), so a
  // projector handed out const by the batch interface may be used through it.
  auto* probing = dynamic_cast<gfProjectorForFitting3 const*>(projector);
  if (probing) const_cast<gfProjectorForFitting3*>(probing)->rotate_and_project(xform, this, out);
}
