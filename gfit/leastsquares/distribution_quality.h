// How well the measured points determine a fitted element.
//
// A small residual does not make a good element: points bunched on a short arc of a circle
// or a thin strip of a plane fix it poorly. Each member takes the points and the fitted
// element and returns one non-negative number, larger for better spread points; 0.0 means
// too few points, or that the measure could not be formed.
//
// Lines and planes use closed formulas over the points' extents (lengths in the caller's
// unit; the constants 1e-4, 9 and 999 are absolute):
//  - lines: with t the position of a point along the line and h its distance from it,
//    L = max t - min t and w = max(1e-4, max h); in space L / (999 w + L), in the plane
//    L / (9 w + L). line2 first projects the points onto the given plane.
//  - the plane: from the points' own principal axes e1, e2, e3 (largest spread first),
//    L1, L2 = the extents along e1, e2, T = max(1e-4, extent along e3),
//    r = min(L1, L2) / (max(L1, L2) + 1e-4), result sqrt(r) L1 L2 / (999 T^2 + L1 L2).
//    The given point and normal do not enter.
//
// The curved elements fill their least-squares problem's parameter vector with the given
// element and take mlDistanceLeastSquares::point_distribution_quality: the k-th largest
// singular value of the Jacobian with scaled columns over sqrt(n), k the number of
// independent parameters. It is dimensionless, unchanged by a rigid motion or a change of
// unit, and 0 when the points leave some combination of parameters free. It is then
// divided by a constant of the element, which puts well spread points near 1:
//     circle, circle2, circle3  0.708   (a full circle gives 1/sqrt(2))
//     sphere                    0.578   (a full sphere gives 1/sqrt(3))
//     cylinder                  0.26    (three rings over a length of two radii: 0.258)
//     cone                      0.15    (a 90 degree cone on 11 evenly spaced rings from apex
//                                        to base: 0.150; densely sampled flanks 0.14 to 0.17)
//     torus                     0.51    (any full torus: 0.500)
//     probed cylinder           0.177
//     ellipse, probed circle, probed cone: undivided.
// The probed cylinder has the plain cylinder's Jacobian (the ball radii only shift the
// distances), so for the same points it scores the plain value times 0.26 / 0.177.
// Elements are set up so that the measure depends on the points and the element only:
//  - cylinders: the given axis point is moved along the axis to the foot of the points'
//    centroid, since the sensitivity to a tilt is measured about the axis point;
//  - cones: the parameters are (apex, axis, 0, half-angle) with the axis pointing towards
//    the apex, as the cone fits return them; the last argument is the half-angle in
//    radians, strictly between 0 and pi/2. (The cone problem's last parameter is the
//    half-angle; its offset is 0 when the axis point is the apex.) The probed cone's
//    second point array, the contact estimates of its fit, only decides on which side each
//    ball touched, which does not change the Jacobian: it is accepted and not used.
//  - tori: the direction's scale is max(|r1|, r2), the size of the ring.
// Minimum points: 2 for lines, 3 for the plane and every curved element (after the
// projection into the plane for circle2 and circle3).
//
// Refusals return 0.0 and record their reason (gfLastReason): too few points, a non-finite
// coordinate, radius or element value, an unset or zero direction, radii not one per
// point, a half-angle outside (0, pi/2), a zero semi-axis. A formed measure records success.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/arrays.h"

class GFIT_EXPORT gfLeastSquareDistributionQuality {
 public:
  static double distribution_quality_line(giPoint2coDynArr const& points, giPoint2 const& point,
                                          giUnitVec2 const& direction);
  static double distribution_quality_line2(giPoint3 const& origin, giUnitVec3 const& normal,
                                           giPoint3coDynArr const& points, giPoint3 const& point,
                                           giUnitVec3 const& direction);
  static double distribution_quality_line3(giPoint3coDynArr const& points, giPoint3 const& point,
                                           giUnitVec3 const& direction);
  static double distribution_quality_plane(giPoint3coDynArr const& points, giPoint3 const& point,
                                           giUnitVec3 const& normal);

  static double distribution_quality_circle(giPoint2coDynArr const& points, giPoint2 const& centre, double radius);
  // The circle in the plane (origin, normal): points and centre mapped into that plane.
  static double distribution_quality_circle2(giPoint3 const& origin, giUnitVec3 const& normal,
                                             giPoint3coDynArr const& points, giPoint3 const& centre, double radius);
  // The circle in space: points mapped into the circle's own plane (centre, normal).
  static double distribution_quality_circle3(giPoint3coDynArr const& points, giPoint3 const& centre,
                                             giUnitVec3 const& normal, double radius);
  static double distribution_quality_sphere(giPoint3coDynArr const& points, giPoint3 const& centre, double radius);
  static double distribution_quality_cylinder(giPoint3coDynArr const& points, giPoint3 const& point,
                                              giUnitVec3 const& axis, double radius);
  // `point` is the apex, `axis` points towards it, `half_angle` in radians.
  static double distribution_quality_cone(giPoint3coDynArr const& points, giPoint3 const& point,
                                          giUnitVec3 const& axis, double half_angle);
  static double distribution_quality_torus(giPoint3coDynArr const& points, giPoint3 const& centre,
                                           giUnitVec3 const& axis, double r1, double r2);
  // The ellipse's semi-axes (a along `angle`, b) and the angle of a from the x axis.
  static double distribution_quality_ellipse(giPoint2coDynArr const& points, giPoint2 const& centre, double a,
                                             double b, double angle);

  // Probe-compensated elements: `radii` one ball radius per point, `inside` as in the fits.
  static double distribution_quality_probed_circle(giPoint2coDynArr const& points, doublecoDynArr const& radii,
                                                   int inside, giPoint2 const& centre, double radius);
  static double distribution_quality_probed_cylinder(giPoint3coDynArr const& points, doublecoDynArr const& radii,
                                                     int inside, giPoint3 const& point, giUnitVec3 const& axis,
                                                     double radius);
  static double distribution_quality_probed_cone(giPoint3coDynArr const& points, doublecoDynArr const& radii,
                                                 int inside, giPoint3coDynArr const& contacts, giPoint3 const& point,
                                                 giUnitVec3 const& axis, double half_angle);
};
