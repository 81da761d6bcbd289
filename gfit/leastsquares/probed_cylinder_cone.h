// Probe-compensated cylinders and cones: the points are the centres of a touch probe's ball,
// each with its ball radius, and the element fitted is the surface the ball touched.
//
// Each problem keeps signed compensations rho_i, one per point, and adds them to the plain
// element's signed distance (positive outside):
//   cylinder   |u x (Q - P)| - r + rho
//   cone       F sin(theta) + G cos(theta) - d + rho
// With the inside flag rho_i = +r_i: the centre lies inside the surface (a bore, a conical
// seat touched from within) and the touched surface lies one ball radius farther out;
// without it rho_i = -r_i (a shaft or a conical point touched from outside). The parameter
// layouts, normalisation, scales and independent-parameter counts are the plain elements'.
// The radii must hold exactly one entry per point, each finite and not negative (zero
// allowed).
//
// The evaluator's entries (evaluate_probed_cylinder, evaluate_probed_cone) fit the plain
// element to the ball centres, shift its radius (the cone: its offset d) by the mean
// compensation, which is exact when all radii are equal, and make one Levenberg-Marquardt
// fit of the compensated problem from there. The cone entries also take optional contact
// estimates, one per centre (from a nominal model, say): when given, the plain cone is
// fitted to them instead, and each centre's side comes from them (a centre outside the
// contacts' cone is compensated as touched from outside, one inside as touched from within),
// so that centres touched from both sides mix. Contacts of another count are refused.
//
// When the points determine the element (leastsquares/refusal.h): the plain element's rule
// (not coplanar; at the solution a full-rank Jacobian, a positive radius within 1e6 extents,
// an apex within 1e6 extents), applied to the compensated solution as well. Unlike the plain
// cylinder, a refusal or failure leaves every output untouched (no failure mark).
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/leastsquares/cone.h"
#include "gfit/leastsquares/cylinder.h"
#include "gfit/leastsquares/probed_problem.h"

class GFIT_EXPORT gfLeastSquareProbedCylinder : public gfit::detail::Probed<gfLeastSquareCylinder> {
 public:
  gfLeastSquareProbedCylinder(giPoint3coDynArr const& points, doublecoDynArr const& radii, int inside);
  ~gfLeastSquareProbedCylinder() override;
  using Probed::compensation;
};

class GFIT_EXPORT gfLeastSquareProbedCone : public gfit::detail::Probed<gfLeastSquareCone> {
 public:
  gfLeastSquareProbedCone(giPoint3coDynArr const& points, doublecoDynArr const& radii, int inside);
  // One inside flag per point (a centre touched from within where non-zero).
  gfLeastSquareProbedCone(giPoint3coDynArr const& points, doublecoDynArr const& radii, intcoDynArr const& inside);
  ~gfLeastSquareProbedCone() override;
  using Probed::compensation;
};
