// Standard uncertainties of least-squares elements, from the data's own scatter.
//
// At a least-squares solution the parameter covariance is s^2 (J^T J)^+ with
// s^2 = (sum of squared distances) / (n - k), k the element's independent parameters (Forbes,
// "Least-squares best-fit geometric elements", NPL 1989, §5; the usual first-order result for
// Gaussian noise along the normal). J^T J is never formed: the Jacobian rows stream through
// the same triangular factor the solver builds (no n-by-p storage), and the covariance comes
// from a small SVD of that factor.
//
// Gauge freedoms are removed before inverting, so the figures belong to quantities the data
// fix: each element is re-parameterised at the solution in its independent quantities, in a
// frame (e1, e2, axis) with origin at the foot of the points' centroid on the axis (or plane):
//   circle   (cx, cy, r)                    sphere   (cx, cy, cz, r)
//   plane    (h, a, b): offset along the normal, tilts of the normal towards e1 and e2
//   line3    (x0, y0, a, b): axis point shifts along e1, e2, tilts of the axis
//   cylinder (x0, y0, a, b, r)              cone     (x0, y0, a, b, r0, theta)
//   circle in space (cx, cy, cz, a, b, r)  in the frame of its normal, origin at its centre
//   torus    (cx, cy, cz, a, b, r1, r2)    the same; the centre is a real point of a torus
//   line     (h, a): the plane's figures for a line in the plane
//   ellipse  (a, b, cx, cy, theta)          its problem's own parameters, all independent
// where r0 is the cone's radius in the plane through the axis point across the axis. That
// covariance (`independent`) is mapped back to the problem's own parameter vector
// (`parameters`: the circle's, sphere's, cylinder's (A, u, r) and cone's (A, u, d, theta) of
// the least-squares problem classes, with A the axis point above; for the plane (point,
// normal) and the line (point, direction)); that matrix is singular along the gauge
// directions (the point sliding along the axis, the length of the direction).
//
// The line in space has two residual components per point (across the line), so n - k
// counts 2n - 4 there. So has the circle in space (radial in its plane, and the height off
// it: the circle's distance is the root of their squares, which has no derivative on the
// circle), so 2n - 6 there; the figures assume the same scatter in both components.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/arrays.h"
#include "gfit/platform/matrix.h"

class GFIT_EXPORT gfElementUncertainty {
 public:
  double sigma = 0.0;  // s, the RMS distance corrected for the fitted parameters
  int degrees_of_freedom = 0;
  // Standard uncertainties (one standard deviation).
  double position[3] = {0.0, 0.0, 0.0};  // centre, axis point or plane point, along x, y, z
  double radius = 0.0;                    // circle, sphere, cylinder; the cone's r0
  double diameter = 0.0;
  double axis_angle = 0.0;   // radians: the angle between the fitted and the true axis/normal
                             // (root of the sum of the two tilt variances)
  double half_angle = 0.0;   // cone, radians
  double offset = 0.0;       // plane, line in the plane: along its normal
  double second_radius = 0.0;  // torus: the tube radius r2 (`radius` is r1); ellipse: the
                               // semi-axis b (`radius` is a, `axis_angle` the angle theta)
  giPoint3 axis_point;       // where the position figures are taken (circle: z = 0)
  mlMatrix independent;      // covariance of the independent quantities listed above
  mlMatrix parameters;       // the same mapped onto the problem's parameter vector
};

class GFIT_EXPORT gfLeastSquareUncertainty {
 public:
  // Each entry takes the points and the fitted element, returns 1 and fills `out`, or returns
  // 0 (outputs untouched, reason recorded) for fewer points than parameters plus one,
  // non-finite input, an unset direction, or a Jacobian that does not determine the element.
  static int circle(giPoint2coDynArr const& points, giPoint2 const& centre, double radius,
                    gfElementUncertainty& out);
  static int sphere(giPoint3coDynArr const& points, giPoint3 const& centre, double radius,
                    gfElementUncertainty& out);
  static int plane(giPoint3coDynArr const& points, giPoint3 const& point, giUnitVec3 const& normal,
                   gfElementUncertainty& out);
  static int line3(giPoint3coDynArr const& points, giPoint3 const& point, giUnitVec3 const& direction,
                   gfElementUncertainty& out);
  static int cylinder(giPoint3coDynArr const& points, giPoint3 const& point, giUnitVec3 const& direction,
                      double radius, gfElementUncertainty& out);
  // The cone as the evaluator returns it: apex, unit axis towards the apex, half-angle.
  static int cone(giPoint3coDynArr const& points, giPoint3 const& apex, giUnitVec3 const& axis, double half_angle,
                  gfElementUncertainty& out);
  // The circle in space: centre, unit normal, radius.
  static int circle3(giPoint3coDynArr const& points, giPoint3 const& centre, giUnitVec3 const& normal, double radius,
                     gfElementUncertainty& out);
  // The torus: centre, unit axis, ring radius r1, tube radius r2.
  static int torus(giPoint3coDynArr const& points, giPoint3 const& centre, giUnitVec3 const& axis, double r1,
                   double r2, gfElementUncertainty& out);
  // The line in the plane: a point and the unit direction.
  static int line(giPoint2coDynArr const& points, giPoint2 const& point, giUnitVec2 const& direction,
                  gfElementUncertainty& out);
  // The ellipse in the plane: centre, semi-axes a and b, angle of the a-axis (radians).
  static int ellipse(giPoint2coDynArr const& points, giPoint2 const& centre, double a, double b, double angle,
                     gfElementUncertainty& out);
};
