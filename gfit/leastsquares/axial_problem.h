// What the problems of the elements about an axis (cylinder, cone) share: a frame origin
// that their axis point is measured from, and the batch evaluation of their distances
// through one loop that also serves their probe-compensated forms.
#pragma once

#include "gfit/leastsquares/distance.h"

namespace gfit::detail {

// A least-squares problem whose parameters begin with an axis point measured from a frame
// origin (the coordinate origin, or the points' centroid in the searches, so that the axis
// point stays among the points however far they lie from the coordinate origin). The
// distances of a block of points, with or without their gradient, come from offset_block:
// the element's distances plus a per-point offset (none here; a probe ball's radius in the
// probe-compensated forms).
class AxialProblem : public gfLeastSquareDistance3 {
 public:
  AxialProblem(int n_parameters, giPoint3coDynArr const& points, giPoint3 const& origin)
      : gfLeastSquareDistance3(n_parameters, points), origin_{origin.x(), origin.y(), origin.z()} {}

  giPoint3 frame_origin() const override { return giPoint3(origin_[0], origin_[1], origin_[2]); }
  void evaluate_block(int first, int count, double* distances, double* squares, double* jacobian,
                      int ld) const override {
    offset_block(nullptr, first, count, distances, squares, jacobian, ld);
  }
  void evaluate_distances(int first, int count, double* distances, double* squares) const override {
    evaluate_block(first, count, distances, squares, nullptr, 0);
  }

 protected:
  // The distances of points [first, first + count) plus offsets[i] (no offsets when null),
  // their squares, and with `jacobian` their gradient rows (parameter k of point first + i at
  // jacobian[k ld + i]), in one loop.
  virtual void offset_block(double const* offsets, int first, int count, double* distances, double* squares,
                            double* jacobian, int ld) const = 0;

  double origin_[3];
};

}  // namespace gfit::detail
