// The least-squares frame that binds an element problem to the caller's points.
//
// `gfLeastSquareDistance2` and `gfLeastSquareDistance3` derive from mlDistanceLeastSquares
// and keep a reference to the caller's point array, which must outlive the problem; the
// element classes (circles, spheres, cylinders, cones, ...) derive from them and read point
// i on every distance evaluation. Parameter vectors of rotational elements begin with the
// axis point (x, y, z) and the axis direction (x, y, z).
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/arrays.h"
#include "gfit/platform/least_squares.h"

class GFIT_EXPORT gfLeastSquareDistance2 : public mlDistanceLeastSquares {
 public:
  gfLeastSquareDistance2(int n_parameters, giPoint2coDynArr const& points);

  // The arithmetic mean of the points (NaN coordinates for an empty array).
  giPoint2 centroid() const;
  // The length of the diagonal of the points' axis-parallel bounding box (0 for one point).
  double range() const;
  giPoint2coDynArr const& points() const { return points_; }

 private:
  giPoint2coDynArr const& points_;
};

class GFIT_EXPORT gfLeastSquareDistance3 : public mlDistanceLeastSquares {
 public:
  gfLeastSquareDistance3(int n_parameters, giPoint3coDynArr const& points);

  giPoint3 centroid() const;
  double range() const;
  giPoint3coDynArr const& points() const { return points_; }

  // The axis directions that the searches over axes try first: the three coordinate axes,
  // then the four body diagonals of a cube with non-negative z, unit length.
  static int num_guess_directions() { return 7; }
  static giUnitVec3 guess_direction(int i);

 protected:
  // The position of point Q relative to the axis through A along unit u:
  //   F = (Q - A) . u          (height along the axis)
  //   G = |u x (Q - A)|        (distance from the axis)
  // and their derivatives with respect to the six axis parameters (A, u) in dF[0..5],
  // dG[0..5]. Within 1e-7 of the axis G is not differentiable; there dG[k] = sqrt(max(0,
  // 1 - u_k^2)) for k < 3 keeps the Jacobian row non-zero. dG[3..5] = F dG[0..2]. Shorter
  // vectors are grown to six elements; longer ones keep their other elements.
  static void F_G_and_derivatives(giPoint3 const& A, giUnitVec3 const& u, giPoint3 const& Q, double& F, mlVector& dF,
                                  double& G, mlVector& dG);
  // The canonical form of an axis stored as p[0..2] (point) and p[3..5] (direction): the
  // direction made unit (a zero one becomes (1, 0, 0)) and the point slid along the axis to
  // the foot of the perpendicular from the origin. Returns the distance it slid, t = P . u.
  static double normalize_axis(mlVector& p);

 private:
  giPoint3coDynArr const& points_;
};

namespace gfit::detail {
// The mean of n points, summed relative to the first point so that data far from the
// origin keep their digits (identical points give exactly that point). Non-finite
// coordinates give non-finite results.
GFIT_EXPORT giPoint3 mean_of(giPoint3 const* points, int n);
GFIT_EXPORT giPoint2 mean_of(giPoint2 const* points, int n);

// Every coordinate finite: the entries refuse anything else.
GFIT_EXPORT bool all_finite(giPoint3coDynArr const& points);
GFIT_EXPORT bool all_finite(giPoint2coDynArr const& points);
GFIT_EXPORT bool all_finite(doublecoDynArr const& values);
// Every vector set (not the unset mark) and finite.
GFIT_EXPORT bool all_valid(giUnitVec3coDynArr const& vectors);
}  // namespace gfit::detail
