// The least-squares sphere. Parameters (cx, cy, cz, r); distance |Q - C| - r, signed
// (positive outside).
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
};
