// The CAD-surface nominal object and its projector (in the gfit::cad library).
//
// `gfSurfProjectorForFitting3::rotate_and_project` moves a probed point by the transform, asks
// the surface kernel for every foot point and scores them:
//  - P is the moved measured point, N the moved approximate normal, r the probe radius;
//  - for each foot point F (nearest first) with surface normal n (tolerances 1e-5 mm and
//    1e-5 rad; a foot point without a normal is rejected), d = P - F and L = |d|:
//      L >= 1e-4: u = d / L; rejected when |n x u| > 0.01 (P is not seen along the normal);
//                 otherwise n' = u if N.u > 0, else -u, and the score is |n'.u - r|;
//      L <  1e-4: P is on the surface: n' = -n if N.n < 0, else n; the score is |n'.d - r|;
//    the nominal point is Q = F + r n' (where the probe centre would be on the nominal part);
//  - the lowest score wins; a tie keeps the earlier foot point. No foot point kept: the record
//    becomes a default (invalid) one; otherwise it holds P, Q and n'.
// Scoring on the unit vector is deliberate: every accepted foot point on the probing side
// scores |1 - r| and every other one 1 + r, so with the list nearest first the nearest
// acceptable foot point on the probing side wins. That also means that once such a foot point
// is found (any accepted one when r = 0), farther faces cannot change the answer, and the
// kernel is told to skip them.
#pragma once

#include "gfit/fitpoints/projector.h"
#include "gfit/gfit_cad_export.h"
#include "gfit/cad/surface.h"

class GFIT_CAD_EXPORT gfSurfProjectorForFitting3 : public gfProjectorForFitting3 {
 public:
  // The surface must outlive the projector. The projector holds nothing but the surface: the
  // working list of foot points (with the kernel's per-face evaluators, which are costly to
  // build) belongs to the calling thread and is reused by its next projections, onto this
  // surface or any other. So one projector may serve any number of threads at once, and each
  // answer is the same whichever thread computes it.
  explicit gfSurfProjectorForFitting3(tskSurf const& surface);
  ~gfSurfProjectorForFitting3() override;
  // A null `probed` leaves `out` as it was. An unset approximate normal counts as
  // perpendicular to everything (N.u = N.n = 0).
  void rotate_and_project(giXform3 const& xform, gfProbedPoint3 const* probed, gfProjectedPoint3& out) override;

 private:
  tskSurf const& surface_;
};

class GFIT_CAD_EXPORT gfSurfaceForFitting : public gfObjectForFitting {
 public:
  explicit gfSurfaceForFitting(tskSurfPtr surface);
  ~gfSurfaceForFitting() override;

  // A new object holding a deep copy of the surface, so that the copy can be transformed
  // without touching this one.
  gfObjectForFitting* copy() const override;
  // An owning handle to a projector onto the surface held by this object (which must outlive
  // the projector). Without a surface, the empty object's projector.
  gfProjectorForFitting3coPrf create_projector() override;
  // Applies tskSurf::transform to the held surface (in place: every holder of the handle sees it).
  void transform(giXform3 const& xform) override;
  tskSurfPtr get_surface() const { return surface_; }

 private:
  tskSurfPtr surface_;
};
