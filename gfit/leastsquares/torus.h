// The least-squares torus: its problem class, the closed-form distance, the search from
// points alone and the probe-compensated fit.
//
// Parameters (8): centre (x, y, z), axis direction (x, y, z), ring radius r1 (from the axis
// to the tube's spine circle), tube radius r2. With F the height of point Q above the
// equatorial plane through the centre and G its distance from the axis (F_G_and_derivatives
// of the frame), the signed distance is
//     d = sqrt((G - r1)^2 + F^2) - r2          (positive outside the tube).
// The centre is a real point of the torus (the centre of its spine circle), not a point
// free to slide along the axis, so the only redundancy is the axis direction's length:
// 7 independent parameters. A negative r1 describes the meridian circle on the far side of
// the axis, a different (self-intersecting) surface; the search prefers results with both
// radii positive.
//
// The search (gfLeastSquareEvaluator::evaluate_torus) ranks its trial axes on at most 1024
// of the points, spread evenly over the array. Each trial direction gives a torus by
// variable projection (Golub and Pereyra, SIAM J. Numer. Anal. 10, 1973, with Kaufman's
// Jacobian): the outer unknowns are the axis's position across the direction and its tilt,
// the inner ones the meridian circle of the points' (G, F) coordinates, solved in closed
// form at every step. The trial directions are the principal axes of the points (and, where
// two principal moments are alike, directions around their plane), the seven guess
// directions of the frame, the normal of the circle in space through all the points, and
// the axis of revolution of the points with normals estimated from their nearest
// neighbours; unless the best of these already fits within a thousandth of its radii, a
// ring pattern of directions over the whole hemisphere about it follows (gfVectorGradient,
// 15 degrees apart). The best distinct results go to Levenberg-Marquardt, and the best
// outcome, one with both radii positive if there is any, is refined on all the points.
// The solver works in a frame centred on the points (see the frame constructor below).
// Trial directions may be fitted on several threads (gfSetMaxThreads); the result is
// bit-identical for every thread count. The work is bounded by construction (a fixed set
// of directions, each with at most six steps, at most four solver runs on the 1024 points
// and one on all of them); a host's cancel flag (gfSetCancelFlag) stops the search between
// directions and the solver between iterations, and the fit then returns 0 with
// gfReason::cancelled.
//
// Its thresholds carry no unit, so a part in millimetres and the same part in metres give
// the same torus, scaled: the hemisphere pattern follows unless the best fits within a
// thousandth of its smaller radius in RMS; starts are distinct when their axes differ by 10
// degrees or their centres or ring radii by 0.05 of the points' RMS distance from their
// centroid; the inner fits settle on relative changes of the sum of squares (1e-7, 1e-8).
// (Within 1e-7 of the axis or the spine circle, where the distance has no derivative, the
// gradient takes its limit: a guard at the singular points, not a choice of the search.)
//
// When the points determine a torus (leastsquares/refusal.h): at least 7 points, not
// coplanar; at the solution (after the refinement on all the points, in the frame the solver
// used) a Jacobian of full rank in the 7 independent parameters. Otherwise the entries
// refuse (gfReason::not_determined), leaving the outputs untouched.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/leastsquares/distance.h"

class GFIT_EXPORT gfLeastSquareTorus : public gfLeastSquareDistance3 {
 public:
  explicit gfLeastSquareTorus(giPoint3coDynArr const& points);
  // The same problem with the centre measured from `origin` (centre = origin + p[0..2]).
  // The fits put `origin` at the points' centroid, so that the parameters stay of the
  // torus's own size however far the points lie from the coordinate origin, and the
  // solver's steps are resolved to the torus's digits, not to those of the offset.
  gfLeastSquareTorus(giPoint3coDynArr const& points, giPoint3 const& origin);
  giPoint3 frame_origin() const override { return giPoint3(origin_[0], origin_[1], origin_[2]); }

  // The axis made unit length (a zero axis becomes (1, 0, 0)); centre and radii kept, signs
  // included.
  void normalize_parameters(mlVector& p) const override;
  // With rho = sqrt((G - r1)^2 + F^2): d = rho - r2, the axis parts (A, u) are
  // ((G - r1) dG + F dF) / rho, the r1 part -(G - r1) / rho and the r2 part -1. On the spine
  // circle (rho <= 1e-7), where rho has no derivative, the axis parts are 0 and the r1 part
  // -1, as for the circle in space.
  void get_distance_and_gradient(double& d, mlVector& g, int i) const override;
  void get_distance(double& d, int i) const override;
  int n_independent_parameters() const override;  // 7: the axis's length is free
  // (1, 1, 1, L, L, L, 1, 1), L = max(|r1|, r2): a tilt of the axis moves the points by
  // about the ring's size.
  void parameter_scales(mlVector& s) const override;
  ~gfLeastSquareTorus() override;

  void evaluate_block(int first, int count, double* distances, double* squares, double* jacobian,
                      int ld) const override;
  void evaluate_distances(int first, int count, double* distances, double* squares) const override {
    evaluate_block(first, count, distances, squares, nullptr, 0);
  }

 private:
  double origin_[3] = {0.0, 0.0, 0.0};
};

// The signed distance of `point` from the torus (centre, unit axis, r1, r2), positive
// outside the tube; `foot` receives the nearest point of the torus and `normal` the unit
// normal there, pointing out of the tube (for r2 > 0). A point on the axis takes its
// meridian along axis.any_normal(); a point on the spine circle takes the outward radial
// direction as its normal. (For r1 < 0 the spine point lies on the far side of the axis,
// as in the distance of gfLeastSquareTorus.)
GFIT_EXPORT double gfDistanceFromTorus(giPoint3 const& point, giPoint3 const& centre, giUnitVec3 const& axis,
                                       double r1, double r2, giPoint3& foot, giUnitVec3& normal);

// The probe-compensated torus: `points` are the centres of a probe's ball, `radii` the ball
// radius of each (at least one per point), `inside` non-zero when the centres lie inside
// the tube (the surface is then one ball radius farther from the spine circle), zero when
// outside. Minimises the mean squared compensated distance (d + rho_i, rho_i = +r_i inside,
// -r_i outside) by the downhill simplex over 7 variables (centre, the axis as two angles,
// r1, r2), started from the plain torus of the centres with r2 shifted by the mean
// compensation (exact for equal radii), and restarted from the best vertex until a restart
// gains less than `tolerance` relatively (0: 1e-9; negative: refused), at most 50 times.
// Returns 1 with centre, unit axis, radii and the RMS residual written; 0 for fewer than 7
// points, non-finite input, too few radii, no plain torus or a compensated tube radius that
// is not positive, leaving the outputs untouched.
GFIT_EXPORT int gfCalculateTorusDownhillSimplex(giPoint3coDynArr const& points, doublecoDynArr const& radii,
                                                int inside, giPoint3& centre, giVector3& axis, double& r1,
                                                double& r2, double& residual, double tolerance);
