// Least-squares circles: in the plane, in a given plane in space, and in space with their
// own plane (Forbes, "Least-squares best-fit geometric elements", NPL 1989).
//
// Parameter vectors:
//   gfLeastSquareCircle2   (cx, cy, r)                        distance |Q - C| - r, signed
//   gfLeastSquareCircle3   (cx, cy, cz, nx, ny, nz, r)        distance sqrt((G - r)^2 + F^2),
//                          with F the height of Q above the circle's plane and G its distance
//                          from the axis through C along n; never negative, by design.
//
// When the points determine a circle (leastsquares/refusal.h): at least 3 points, not
// collinear (in the plane; in space for the circle with its own plane); at the solution a
// Jacobian of full rank (for the circle in space, its height and radial parts as two rows per
// point, since the unsigned distance has no derivative on the circle) and a radius within
// 1e6 times the points' extent. Otherwise the entries refuse (gfReason::not_determined).
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/leastsquares/distance.h"

class GFIT_EXPORT gfLeastSquareCircle2 : public gfLeastSquareDistance2 {
 public:
  explicit gfLeastSquareCircle2(giPoint2coDynArr const& points);

  void normalize_parameters(mlVector& p) const override;  // nothing to do
  void get_distance_and_gradient(double& d, mlVector& g, int i) const override;
  void get_distance(double& d, int i) const override;
  ~gfLeastSquareCircle2() override;

  void evaluate_block(int first, int count, double* distances, double* squares, double* jacobian,
                      int ld) const override;
  void evaluate_distances(int first, int count, double* distances, double* squares) const override {
    evaluate_block(first, count, distances, squares, nullptr, 0);
  }

 protected:
  // The distances |Q - C| - r + offsets[i] (no offsets when null) and their gradient in one
  // loop: the batch form of this class and of the probe-compensated circle.
  void offset_block(double const* offsets, int first, int count, double* distances, double* squares,
                    double* jacobian, int ld) const;
};

class GFIT_EXPORT gfLeastSquareCircle3 : public gfLeastSquareDistance3 {
 public:
  explicit gfLeastSquareCircle3(giPoint3coDynArr const& points);

  // The normal made unit length (a zero normal becomes (1, 0, 0)); centre and radius kept.
  void normalize_parameters(mlVector& p) const override;
  void get_distance_and_gradient(double& d, mlVector& g, int i) const override;
  void get_distance(double& d, int i) const override;
  // e^2 + F^2 of the last evaluation, stored while the distance is computed.
  double get_last_square_distance() const override;
  int n_independent_parameters() const override;  // 6: the normal's length is free
  // (1, 1, 1, r, r, r, 1): a tilt of the normal moves the points' distances by about r.
  void parameter_scales(mlVector& s) const override;
  ~gfLeastSquareCircle3() override;

 private:
  mutable double last_square_distance_ = 0.0;
  mutable mlVector dF_, dG_;
};
