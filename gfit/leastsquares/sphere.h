// The least-squares sphere. Parameters (cx, cy, cz, r); distance |Q - C| - r, signed
// (positive outside).
//
// When the points determine a sphere (leastsquares/refusal.h): at least 4 points, not
// coplanar; at the solution a Jacobian of full rank and a positive radius within 1e6 times
// the points' extent. Otherwise the entries refuse (gfReason::not_determined).
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/leastsquares/distance.h"

class GFIT_EXPORT gfLeastSquareSphere : public gfLeastSquareDistance3 {
 public:
  explicit gfLeastSquareSphere(giPoint3coDynArr const& points);

  void normalize_parameters(mlVector& p) const override;  // nothing to do
  void get_distance_and_gradient(double& d, mlVector& g, int i) const override;
  void get_distance(double& d, int i) const override;
  ~gfLeastSquareSphere() override;

  void evaluate_block(int first, int count, double* distances, double* squares, double* jacobian,
                      int ld) const override;
  void evaluate_distances(int first, int count, double* distances, double* squares) const override {
    evaluate_block(first, count, distances, squares, nullptr, 0);
  }

  // The RMS distance of the points from `centre`.
  double evaluate_radius(giPoint3 const& centre) const;

 protected:
  // The distances |Q - C| - r + offsets[i] (no offsets when null) and their gradient in one
  // loop: the batch form of this class and of the probe-compensated sphere.
  void offset_block(double const* offsets, int first, int count, double* distances, double* squares,
                    double* jacobian, int ld) const;
};

namespace gfit::detail {
// The sphere's restart scheme on any sphere problem: a fit from the centroid with three
// times the range as radius; unless its RMS distance is below range * 0.003 (lengths
// compared with lengths: the choice does not depend on the unit), 19
// more fits, each from the best of 100 random spheres about the centroid (seed 1). Writes
// the best parameters and returns their mean squared distance; `ratio`, when given,
// receives their determination (leastsquares/refusal.h), read off the solver's factor.
GFIT_EXPORT double sphere_restarts(gfLeastSquareSphere& problem, mlVector& best, double* ratio = nullptr);

struct PointSpread;
// Whether the best sphere of the restarts (mean squared distance `value`, determination
// `ratio`) is a result: a finite value, a positive radius within the size bound and a
// full-rank Jacobian (see leastsquares/refusal.h). Records the reason when it is not.
GFIT_EXPORT bool sphere_determined(mlVector const& best, double value, double ratio, PointSpread const& spread);
}  // namespace gfit::detail
