// The rigid placement of measured points over a nominal object that maximises the smallest
// signed deviation: the largest uniform allowance of a blank or casting over its finished
// nominal shape. One-sided (Chebyshev) fitting (Shakarji and Clement, "Reference algorithms
// for Chebyshev and one-sided data fitting for coordinate metrology", CIRP Annals 53, 2004).
//
// The signed deviation of a record is n . (m - q), positive on the side the nominal normal
// points to (the material to be machined away, for an outward normal). The fit works through
// the same projector interface as the surface best fit: any nominal object that projects
// fit points (a CAD surface, a test shape) can be used.
//
// Boundedness first: if every nominal normal of the initial projection lies within a cone of
// half-angle below 90 degrees (gfContainmentCone), moving the points along its axis raises
// every deviation, so there is no largest allowance: refused with gfReason::not_determined.
//
// Method: sequential linear programming with a trust region. About the current placement,
// with x = (omega l, t) the rotation about the valid points' centroid c (scaled by the RMS
// lever arm l) and the translation, the programme
//     maximise z  subject to  s_i + J_i x >= z  for every valid record,  |x_k| <= Delta,
// J_i = [((m_i - c) x n_i) / l, n_i], is solved by mlConstrainedQuadraticMinimiser, with z
// counted from the current smallest deviation and a strictly convex term 1e-6 / (2 Delta)
// |(x, z)|^2 that leaves a unique vertex unchanged and picks the smallest motion when the
// optimum is not unique (a sphere leaves every rotation free). Only records that can become
// the smallest within the trust region are candidates, and the programme is solved by
// constraint generation: first on the 256 candidates of lowest reach, then with the most
// violated of the others added, 256 at a time, until none is violated; so a dense scan costs
// a few small programmes and one pass over the points per programme. The step (exactly rigid) is
// taken and the points re-projected; it is kept when the true smallest deviation increased
// (and no valid record was lost), Delta doubling when the step reached the trust region's
// edge; otherwise it is undone and Delta quartered. The fit stops when the programme
// predicts no gain above 1e-14 of the points' extent R, when Delta < 1e-9 R, or after 50
// programmes. Delta starts at l / 10. Kept steps never decrease the smallest deviation.
//
// Refusals (0, outputs untouched, reason recorded): no projector, a missing point, fewer than
// four valid projections, normals within a hemisphere, a programme that fails.
#pragma once

#include "gfit/fitpoints/arrays.h"
#include "gfit/fitpoints/projector.h"
#include "gfit/gfit_export.h"
#include "gfit/platform/xform.h"

class GFIT_EXPORT gfSurfaceMaxiMinFit {
 public:
  static constexpr int max_steps = 50;

  gfSurfaceMaxiMinFit();

  void set_projector(gfFitPointProjector3 const* projector) { projector_ = projector; }
  void add_point(gfFitPoint3coPrf const& point);
  void reserve_points(int n);

  // The placement (measured onto nominal), the smallest and largest signed deviation of the
  // valid records under it and the number of records that did not project. 1 on success.
  int fit(giXform3& result, double& min_deviation, double& max_deviation, int& n_invalid);

  giXform3 const& get_transformation() const { return transformation_; }
  gfProjectedPoint3coDynArr const& get_pointcloud() const { return cloud_; }
  int nb_points() const { return points_.count(); }
  // Programmes solved by the last `fit`, and how many of their steps were kept.
  int steps_taken() const { return steps_taken_; }
  int steps_kept() const { return steps_kept_; }

 private:
  void project(gfProjectedPoint3coDynArr& cloud, giXform3 const& xform, int initial) const;

  gfFitPoint3PtrcoPageArr points_;
  gfProjectedPoint3coDynArr cloud_;
  giXform3 transformation_;
  gfFitPointProjector3 const* projector_ = nullptr;
  int steps_taken_ = 0;
  int steps_kept_ = 0;
};
