// The geometric (orthogonal-distance) least-squares ellipse in the plane.
//
// Parameters (5): semi-axis a, semi-axis b, centre x, centre y, angle theta of the a-axis
// from the x axis (radians). The distance of a point is its true signed distance from the
// ellipse (positive outside), through the foot point: in the ellipse's frame (u, v) the
// foot point's multiplier t solves
//     F(t) = (t + a^2)^2 (t + b^2)^2 - a^2 u^2 (t + b^2)^2 - b^2 v^2 (t + a^2)^2 = 0
// beyond the pole -min(a^2, b^2). Newton's method runs on F divided by its positive factor
// (t + a^2)^2 (t + b^2)^2, a convex decreasing function there, from Eberly's lower bracket
// (Eberly, "Distance from a point to an ellipse, an ellipsoid, or a hyperellipsoid", 2011):
// it rises monotonically to the root and reaches it to rounding in a few steps for points
// near the curve, where a start above the root would take tens of steps. At most 64
// steps. Points on the axis lines (within 1e-10) take closed forms, so no point (the centre,
// a point on an axis) loops or gives NaN. The curve depends on |a| and |b| only; a negative
// semi-axis is read as its magnitude.
//
// The gradient is that of the signed distance with the foot point held: -n . df/dq, n the
// outward unit normal at the foot point and f the foot point moved by the parameter q.
//
// When the points determine an ellipse (leastsquares/refusal.h): at least 5 points (through
// four runs a family of ellipses), not collinear; at the solution a Jacobian of full rank,
// or of full rank without the angle when the ellipse is a circle (whose angle changes
// nothing), and semi-axes within 1e6 times the points' extent. Otherwise the entries refuse
// (gfReason::not_determined).
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/leastsquares/distance.h"

class GFIT_EXPORT gfLeastSquareEllipse : public gfLeastSquareDistance2 {
 public:
  explicit gfLeastSquareEllipse(giPoint2coDynArr const& points);

  void normalize_parameters(mlVector& p) const override;  // nothing to do
  void get_distance_and_gradient(double& d, mlVector& g, int i) const override;
  void get_distance(double& d, int i) const override;
  // (1, 1, 1, 1, sqrt(a^2 + b^2)): a turn of the ellipse moves its points by about its size.
  void parameter_scales(mlVector& s) const override;
  ~gfLeastSquareEllipse() override;

  // The distances (and gradients) of a block of points, the frame's trigonometry once.
  void evaluate_block(int first, int count, double* distances, double* squares, double* jacobian,
                      int ld) const override;
  void evaluate_distances(int first, int count, double* distances, double* squares) const override;

  // The foot point of the last distance evaluation, in the ellipse's own frame. The state
  // makes an object unsafe for concurrent distance evaluations.
  double foot_x() const { return foot_x_; }
  double foot_y() const { return foot_y_; }

 protected:
  mutable double foot_x_ = 0.0, foot_y_ = 0.0;
  // Working values of the last Newton iteration: the multiplier t, t + a^2, t + b^2, their
  // squares and the last derivative.
  mutable double t_ = 0.0, ta_ = 0.0, tb_ = 0.0, ta2_ = 0.0, tb2_ = 0.0, derivative_ = 0.0;
};

// The ellipse of at least 5 points: a fit from the least-squares circle, then 19 fits each
// from the best of 100 random ellipses about the centroid (seed 1); the best is kept.
// major >= minor are the semi-axes; angle is the major axis's direction in [0, pi).
// Returns 0 for fewer than 5 points, non-finite coordinates or points that do not determine
// the ellipse (outputs untouched).
GFIT_EXPORT int gfCalculateLeastSquareEllipse(giPoint2coDynArr const& points, giPoint2& centre, double& major,
                                              double& minor, double& angle, double& residual);

namespace gfit::detail {
// The signed distance of (u, v), given in the ellipse's frame, from the ellipse with
// semi-axes |a|, |b| centred at the frame's origin; the foot point into (fx, fy).
GFIT_EXPORT double ellipse_frame_distance(double a, double b, double u, double v, double& fx, double& fy);
}  // namespace gfit::detail
