// Probe-compensated fits: the points are the centres of a touch probe's ball, each with its
// ball radius, and the element fitted is the surface the ball touched.
//
// Each problem keeps signed compensation radii rho_i, copied from the caller's radii r_i:
//  - inside flag non-zero: rho_i = +r_i. The probe centre lies inside the circle or sphere
//    (a bore or a hollow touched from within), or for a line or plane on the side its
//    normal points to; the surface is one ball radius farther from the centre;
//  - inside flag zero: rho_i = -r_i (a shaft or ball touched from without; the side
//    opposite the normal).
// Distances (rho = rho_i of the point):
//   circle, sphere   |p - c| + rho - R
//   line, plane      p . n - d - rho        (parameters: offset d, then the normal)
// The radii must hold exactly one entry per point, each finite and not negative (zero
// allowed); the approximate normals of the line and plane likewise one per point.
//
// When the points determine the element (leastsquares/refusal.h): as for the plain circle
// and sphere (not collinear, not coplanar; a full-rank Jacobian and a radius within 1e6
// times the extent at the solution, and a positive compensated radius); the plane needs
// points that are not collinear, the line points that do not all coincide (their Jacobians
// have full rank exactly then). Otherwise the entries refuse with outputs untouched.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/leastsquares/circle.h"
#include "gfit/leastsquares/ellipse.h"
#include "gfit/leastsquares/probed_problem.h"
#include "gfit/leastsquares/sphere.h"

class GFIT_EXPORT gfLeastSquareProbedCircle2 : public gfit::detail::Probed<gfLeastSquareCircle2> {
 public:
  gfLeastSquareProbedCircle2(giPoint2coDynArr const& points, doublecoDynArr const& radii, int inside);
  ~gfLeastSquareProbedCircle2() override;
  using Probed::compensation;
};

class GFIT_EXPORT gfLeastSquareProbedLine2 : public gfLeastSquareDistance2 {
 public:
  gfLeastSquareProbedLine2(giPoint2coDynArr const& points, doublecoDynArr const& radii, int inside);
  // The normal made unit (a zero one becomes (1, 0)); the offset kept.
  void normalize_parameters(mlVector& p) const override;
  void get_distance_and_gradient(double& d, mlVector& g, int i) const override;
  void get_distance(double& d, int i) const override;
  ~gfLeastSquareProbedLine2() override;

 private:
  doublecoDynArr rho_;
};

class GFIT_EXPORT gfLeastSquareProbedPlane : public gfLeastSquareDistance3 {
 public:
  gfLeastSquareProbedPlane(giPoint3coDynArr const& points, doublecoDynArr const& radii, int inside);
  // The normal made unit (a zero one becomes (1, 0, 0)); the offset kept.
  void normalize_parameters(mlVector& p) const override;
  void get_distance_and_gradient(double& d, mlVector& g, int i) const override;
  void get_distance(double& d, int i) const override;
  ~gfLeastSquareProbedPlane() override;

 private:
  doublecoDynArr rho_;
};

class GFIT_EXPORT gfLeastSquareProbedSphere : public gfit::detail::Probed<gfLeastSquareSphere> {
 public:
  gfLeastSquareProbedSphere(giPoint3coDynArr const& points, doublecoDynArr const& radii, int inside);
  ~gfLeastSquareProbedSphere() override;
};

// The plain ellipse fit, with the foot point and normal a host needs to offset the closest
// point by its probe radius.
class GFIT_EXPORT gfLeastSquareProbedEllipse : public gfLeastSquareEllipse {
 public:
  explicit gfLeastSquareProbedEllipse(giPoint2coDynArr const& points);
  // The signed distance of point i, the closest point of the ellipse and the outward unit
  // normal there, at the current parameters.
  void get_distance_and_closest_point(double& distance, giPoint2& closest, giVector2& normal, int i) const;
  ~gfLeastSquareProbedEllipse() override;
};

namespace gfit::detail {
// The signed compensations of the first n radii: +r with the inside flag, -r without.
GFIT_EXPORT doublecoDynArr signed_radii(doublecoDynArr const& radii, int n, int inside);
// Exactly n radii, each finite and not negative (check_radii of leastsquares/refusal.h
// without recording a reason).
GFIT_EXPORT bool radii_usable(doublecoDynArr const& radii, int n);
}  // namespace gfit::detail
