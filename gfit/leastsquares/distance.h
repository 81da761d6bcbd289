// The least-squares frame that binds an element problem to the caller's points.
//
// `gfLeastSquareDistance2` and `gfLeastSquareDistance3` derive from mlDistanceLeastSquares
// and keep a reference to the caller's point array, which must outlive the problem; the
// element classes (circles, spheres, cylinders, cones, ...) derive from them and read point
// i on every distance evaluation. Parameter vectors of rotational elements begin with the
// axis point (x, y, z) and the axis direction (x, y, z).
#pragma once

#include <cmath>

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
  // The point the parameters measure positions from (an axis point, a centre): the
  // coordinate origin, unless the element's problem was built with a frame origin (the
  // searches put it at the points' centroid).
  virtual giPoint3 frame_origin() const { return giPoint3(0.0, 0.0, 0.0); }

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

namespace gfit::detail {

// The canonical axis of parameters that begin with an axis point and direction: p[3..5]
// made a unit vector ((1, 0, 0) when zero) and multiplied by `sign`, p[0..2] slid along it
// to the foot of the perpendicular from the origin. Returns how far the point slid, against
// the final direction (the old point's height along it).
GFIT_EXPORT double canonical_axis(mlVector& p, double sign = 1.0);

// F_G_and_derivatives in the form a batch loop over points wants, with the unit direction
// and the substitute gradient formed once: `locate` gives d = Q - A, F and G; `gradient`
// gives dG/dA (dG/du is F times it; dF/dA = -u and dF/du = d - u F).
struct AxialPoint {
  double dx, dy, dz;  // Q - A
  double F, G;
  double g0, g1, g2;  // dG/dA
};

class AxisFrame {
 public:
  // A = p[0..2], u = p[3..5] made unit. With `origin`, A is measured from it, and so are the
  // points: d = (Q - origin) - A, the difference of the points from the origin formed first,
  // exactly when the points lie far from the coordinate origin and close to `origin`.
  explicit AxisFrame(mlVector const& p, double const* origin = nullptr)
      : ax_(p[0]), ay_(p[1]), az_(p[2]), ox_(origin ? origin[0] : 0.0), oy_(origin ? origin[1] : 0.0),
        oz_(origin ? origin[2] : 0.0) {
    const giUnitVec3 u(p[3], p[4], p[5]);
    ux = u.x();
    uy = u.y();
    uz = u.z();
    sx_ = std::sqrt(std::fmax(0.0, 1.0 - ux * ux));
    sy_ = std::sqrt(std::fmax(0.0, 1.0 - uy * uy));
    sz_ = std::sqrt(std::fmax(0.0, 1.0 - uz * uz));
  }
  void locate(giPoint3 const& q, AxialPoint& a) const {
    a.dx = (q.x() - ox_) - ax_;
    a.dy = (q.y() - oy_) - ay_;
    a.dz = (q.z() - oz_) - az_;
    a.F = a.dx * ux + a.dy * uy + a.dz * uz;
    const double cx = uy * a.dz - uz * a.dy, cy = uz * a.dx - ux * a.dz, cz = ux * a.dy - uy * a.dx;
    a.G = std::sqrt(cx * cx + cy * cy + cz * cz);
  }
  void gradient(AxialPoint& a) const {
    if (a.G > 1e-7) {
      a.g0 = (ux * a.F - a.dx) / a.G;
      a.g1 = (uy * a.F - a.dy) / a.G;
      a.g2 = (uz * a.F - a.dz) / a.G;
    } else {  // on the axis: the frame's substitute gradient
      a.g0 = sx_;
      a.g1 = sy_;
      a.g2 = sz_;
    }
  }
  double ux, uy, uz;

 private:
  double ax_, ay_, az_, ox_, oy_, oz_, sx_, sy_, sz_;
};

}  // namespace gfit::detail
