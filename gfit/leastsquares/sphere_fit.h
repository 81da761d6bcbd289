// The algebraic sphere: x^2 + y^2 + z^2 + Dx + Ey + Fz + G = 0 fitted by linear least squares
// (Kasa's algebraic fit), in closed form.
//
// One pass over the points accumulates the normal equations of (D, E, F, G); a Gauss-Jordan
// elimination with partial pivoting solves them, and centre = -(D, E, F) / 2, radius =
// sqrt(|centre|^2 - G). No starting guess, no iteration: a quick sphere, or the start of an
// iterative fit. The coordinates are used as given (not centred), so the normal equations
// lose accuracy as the sphere moves away from the origin relative to its radius. Measured on
// exact points (radii 0.001 to 4000): 1e-9 relative up to 30 radii from the origin for full
// spheres and hemispheres (about 1e-10 there), 1e-8 at 100 radii, 1e-7 to 1e-6 at 300,
// 1e-5 to 1e-3 at 1000; caps of 45 degrees keep 1e-9 up to about 10 radii.
//
// Points that do not determine a sphere are refused before the elimination (see
// leastsquares/refusal.h): coincident, collinear or coplanar points make the normal
// equations singular (status `singular`); a radius that is not finite or beyond 1e6 times
// the points' extent is `degenerate`. The reason is recorded (gfLastReason). The object
// keeps a reference to the caller's array, which `chi` reads: it must outlive the object.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/leastsquares/direct_fit.h"
#include "gfit/platform/arrays.h"

class GFIT_EXPORT gfSphereFit {
 public:
  // Fits at once: status fitted, too_few_points (fewer than 4 points), singular (coplanar,
  // collinear or coincident points) or degenerate (a coordinate that is not finite, a
  // radius not finite or beyond the size bound).
  explicit gfSphereFit(giPoint3coDynArr const& points);

  // Returns 1 and writes centre and radius when the fit succeeds; otherwise 0, outputs
  // untouched.
  static int fit(giPoint3coDynArr const& points, giPoint3& centre, double& radius);

  giPoint3 const& centre() const { return centre_; }
  double radius() const { return radius_; }
  gfDirectFitStatus status() const { return status_; }
  // RMS of |p - centre| - radius over the points, whatever the status; the largest double
  // for an empty array.
  double chi() const;

 protected:
  void do_fit();
  // Gauss-Jordan elimination in place on a rows x columns row-major matrix (rows <= columns):
  // pivot k takes the row r >= k with the largest |m[r][k]| (the first of equal ones); pivots
  // and entries at or below 1e-20 in magnitude are skipped, so a singular system leaves
  // whatever the elimination reached; finally each row is divided by its diagonal element
  // when that exceeds 1e-20.
  static void matrix_rowred(double* const matrix, int rows, int columns);

 private:
  giPoint3coDynArr const& points_;
  double radius_ = 0.0;
  giPoint3 centre_;
  gfDirectFitStatus status_ = gfDirectFitStatus::not_fitted;
};
