// The axis of a surface of revolution from points and their surface normals.
//
// On any surface of revolution every normal line meets the axis. The problem minimises, over
// all points, the offset between each point's normal line and the axis: with w = n x u,
// the distance of point p with normal n is (p - P) . w / |w|, their common perpendicular's
// length, signed; 0 when the normal is parallel to the axis (|w| <= 1e-7), where the
// gradient row is left as the previous point's.
// Parameters (6): axis point P (x, y, z), axis direction u (x, y, z); 4 independent.
//
// When the points determine the axis (leastsquares/refusal.h): at least 6 points that do not
// all coincide, exactly one set, finite normal per point, and at the solution a Jacobian of
// full rank in the 4 independent parameters (judged at the axis point nearest the
// centroid). A sphere's normals, say, meet every axis through its centre: refused
// (gfReason::not_determined), outputs untouched.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/leastsquares/distance.h"

class GFIT_EXPORT gfLeastSquareAxisRev : public gfLeastSquareDistance3 {
 public:
  // The normals, one per point, are not copied and must outlive the problem.
  gfLeastSquareAxisRev(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals);

  // u made unit (a zero one becomes (1, 0, 0)); P moved to the axis point nearest the origin.
  void normalize_parameters(mlVector& p) const override;
  void get_distance_and_gradient(double& d, mlVector& g, int i) const override;
  void get_distance(double& d, int i) const override;
  int n_independent_parameters() const override;  // 4
  // The direction's scales are the largest distance from P to a point; the position's are
  // the frame's.
  void parameter_scales(mlVector& s) const override;
  ~gfLeastSquareAxisRev() override;

  // One fit from (point, direction); an unset point (a coordinate at either extreme double,
  // or not a number) starts at the centroid. value = the mean squared distance.
  void evaluate_with_guess(giPoint3& point, giUnitVec3& direction, double& value);
  // Fits from the seven guess directions in turn (from `point`, or the centroid when it is
  // unset), keeping the best and stopping at the first whose RMS is at most a thousandth
  // of the range (the diagonal of the points' bounding box).
  void evaluate(giPoint3& point, giUnitVec3& direction, double& value);

 private:
  giUnitVec3coDynArr const& normals_;
};
