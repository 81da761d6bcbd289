// The front end of the least-squares element fits: one static entry per element and input
// variant, each taking the measured points and returning the element, its residual and a
// status.
//
// Conventions shared by every entry:
//  - status 1: the fit succeeded and every output holds the result; 0: refused or failed;
//  - inputs first, outputs after them; a refusal (too few points, a non-finite coordinate,
//    an unusable plane, companion arrays not one per point, a negative probe radius, points
//    that do not determine the element) writes no output. Two documented exceptions: the
//    lines write their outputs when all points coincide, and the plain cylinder marks its
//    direction (x = -DBL_MAX) whenever its computation returns 0;
//  - why an entry returned 0 is recorded for the calling thread: gfLastReason() and
//    gfLastReasonText() (platform/report.h); a success clears it;
//  - points determine the element (leastsquares/refusal.h) when they span what it needs
//    (lines: two distinct points; circles, ellipses, probed planes: a plane, not a line;
//    spheres, cylinders, cones, tori: space, not a plane), and when at the solution the
//    scaled Jacobian has full rank in the independent parameters and the size is within 1e6
//    times the points' extent (radius, semi-axis, the cone's apex distance). Otherwise the
//    entry refuses with gfReason::not_determined. The plane alone is exempt: collinear or
//    coincident points give 1, with the normal from the first of the zero singular values;
//  - probe radii and normals are exactly one per point; probe radii finite and not negative
//    (zero allowed);
//  - the residual is the RMS distance of the points from the fitted element;
//  - a fit in a given plane (entries ending in 2 that take 3-D points) maps the points into
//    that plane's coordinates (gfUtils::ProjectPointsToPlane), fits in 2-D and maps the
//    result back.
// Every entry works on its arguments and locals only, so concurrent calls are safe.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/angle.h"
#include "gfit/platform/arrays.h"

class gfFittedCylinder;
using gfFittedCylindercoDynArr = coDynArr<gfFittedCylinder>;
class gfFittedCone;
using gfFittedConecoDynArr = coDynArr<gfFittedCone>;

class GFIT_EXPORT gfLeastSquareEvaluator {
 public:
  // Least-squares lines and planes, closed form (at least 2 points for lines, 3 for planes).
  // The point output is the centroid. The direction (normal) is the right singular vector
  // of the centred points with the largest (smallest) singular value, the first of equal
  // ones; its sign is whatever the decomposition gives.
  // The lines return 0 when all points coincide, with the outputs written (the direction is
  // then meaningless). The plane makes no such test: collinear or coincident points give 1,
  // with the normal taken from the first of the zero singular values.
  static int evaluate_line(giPoint2coDynArr const& points, giPoint2& point, giUnitVec2& direction, double& residual);
  static int evaluate_line3(giPoint3coDynArr const& points, giPoint3& point, giUnitVec3& direction, double& residual);
  static int evaluate_plane(giPoint3coDynArr const& points, giPoint3& point, giUnitVec3& normal, double& residual);
  // The line in the plane (origin, normal), mapped back into space. Its residual is taken
  // in space over the given points, so it includes their heights above the plane. Returns
  // the status of the in-plane line; its outputs are written whenever that line ran.
  static int evaluate_line2(giPoint3 const& origin, giUnitVec3 const& normal, giPoint3coDynArr const& points,
                            giPoint3& point, giUnitVec3& direction, double& residual);

  // Circles and spheres by Levenberg-Marquardt (at least 3 points, 4 for the sphere).
  // evaluate_circle starts from the centroid and the mean distance from it.
  static int evaluate_circle(giPoint2coDynArr const& points, giPoint2& centre, double& radius, double& residual);
  // The circle in the plane (origin, normal), its centre mapped back into space; the
  // residual is taken in space, so it counts the points' heights above the plane as well.
  static int evaluate_circle2(giPoint3 const& origin, giUnitVec3 const& normal, giPoint3coDynArr const& points,
                              giPoint3& centre, double& radius, double& residual);
  // The circle in space: a plane, the circle in it, then the 7-parameter circle. Dense
  // inputs are thinned to 10000 points (all up to 10000; the first 10000 below 12000; 10000
  // spread evenly from 12000 on). The normal's sign is the plane fit's.
  static int evaluate_circle3(giPoint3coDynArr const& points, giPoint3& centre, giUnitVec3& normal, double& radius,
                              double& residual);
  // The sphere: a fit from the centroid with three times the range as radius; when its mean
  // squared distance is not below range * 0.003, 19 more fits from the best of 100 random
  // spheres each (seed 1), keeping the best.
  static int evaluate_sphere(giPoint3coDynArr const& points, giPoint3& centre, double& radius, double& residual);

  // The cylinder (see gfCalculateLeastSquareCylinder in leastsquares/cylinder.h): at least 4
  // points here, 5 in the computation. Whenever the computation returns 0 (a refusal
  // included), the direction's x is set to -DBL_MAX as a failure mark: the cylinder's
  // definition asks for it, and it is the only output a refusal writes. Fewer than 4 points
  // write nothing. With a guess axis (unset: none) and its angle:
  static int evaluate_cylinder(giPoint3coDynArr const& points, giPoint3& point, giUnitVec3& direction, double& radius,
                               double& residual, giUnitVec3 const& guess, giAngle const& angle, int k);
  // With surface normals (one per point) that the radial directions must agree with:
  static int evaluate_cylinder(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals,
                               giAngle const& angle, giPoint3& point, giUnitVec3& direction, double& radius,
                               double& residual, int k);
  // Several distinct cylinders in one point set (gfCalculateMultipleLeastSquareCylinders).
  static int evaluate_multiple_cylinders(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals,
                                         double tolerance, giAngle const& angle, int count,
                                         gfFittedCylindercoDynArr& results);

  // The geometric ellipse (gfCalculateLeastSquareEllipse in leastsquares/ellipse.h): centre,
  // semi-axes major >= minor, the major axis's angle in [0, pi), residual. At least 5 points
  // (the ellipse has five parameters), not collinear.
  static int evaluate_ellipse(giPoint2coDynArr const& points, giPoint2& centre, double& major, double& minor,
                              double& angle, double& residual);
  // The ellipse in the plane (origin, normal), its centre mapped back into space. The angle
  // is measured from `direction` projected into the plane, counter-clockwise about the
  // normal (from the projection frame's x axis when `direction` is unset; a direction along
  // the normal is refused). The residual is taken in space: it includes the points' heights
  // above the plane, like the residuals of evaluate_circle2 and evaluate_line2, so that
  // points that do not lie in the given plane show in it.
  static int evaluate_ellipse2(giPoint3 const& origin, giUnitVec3 const& normal, giUnitVec3 const& direction,
                               giPoint3coDynArr const& points, giPoint3& centre, double& major, double& minor,
                               double& angle, double& residual);

  // Probe-compensated fits (leastsquares/probed.h): `radii` holds a ball radius per point;
  // `inside` non-zero when the probe centres lie inside the circle or sphere.
  // The circle: 10 fits from starts spread by the largest radius about the centroid (seed 1).
  static int evaluate_probed_circle(giPoint2coDynArr const& points, doublecoDynArr const& radii, int inside,
                                    giPoint2& centre, double& radius, double& residual);
  // The sphere: the restart scheme of evaluate_sphere on the compensated distances.
  static int evaluate_probed_sphere(giPoint3coDynArr const& points, doublecoDynArr const& radii, int inside,
                                    giPoint3& centre, double& radius, double& residual);
  // The plane and the line: `normals` (one per point) are approximate surface normals,
  // pointing from the material to the probe centre; the surface is placed one ball radius
  // behind each centre against them, and the returned normal agrees with them. When they
  // sum to zero both sides are fitted and the better one is returned. The line returns its
  // unit normal, not its direction.
  static int evaluate_probed_plane(giPoint3coDynArr const& points, doublecoDynArr const& radii,
                                   giUnitVec3coDynArr const& normals, giPoint3& point, giUnitVec3& normal,
                                   double& residual);
  static int evaluate_probed_line2(giPoint2coDynArr const& points, doublecoDynArr const& radii,
                                   giUnitVec2coDynArr const& normals, giPoint2& point, giUnitVec2& normal,
                                   double& residual);

  // The torus (leastsquares/torus.h): centre, unit axis, ring radius r1, tube radius r2. At
  // least 4 points here and 7 in the computation; a refusal or failure writes no output.
  // From the points alone:
  static int evaluate_torus(giPoint3coDynArr const& points, giPoint3& centre, giUnitVec3& axis, double& r1,
                            double& r2, double& residual);
  // From a guess: `centre` and `axis` are read as the start (the centre's height along the
  // axis and the radii come from the points' meridian circle about that axis line) and
  // overwritten with the result. Refuses fewer than 7 points and a non-finite or unset guess.
  static int evaluate_torus_with_guess(giPoint3coDynArr const& points, giPoint3& centre, giUnitVec3& axis,
                                       double& r1, double& r2, double& residual);
  // The torus touched by a probe ball (gfCalculateTorusDownhillSimplex): `inside` non-zero
  // when the ball centres lie inside the tube. At least 4 points (7 in the computation).
  static int evaluate_probed_torus(giPoint3coDynArr const& points, doublecoDynArr const& radii, int inside,
                                   giPoint3& centre, giUnitVec3& axis, double& r1, double& r2, double& residual);

  // The axis of revolution from points and their surface normals (leastsquares/
  // axis_of_revolution.h): at least 6 points and exactly one normal per point. With a set
  // `direction`, one fit from (point, direction); otherwise the multi-start search.
  static int evaluate_axis_rev(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals, giPoint3& point,
                               giUnitVec3& direction, double& residual);

  // The cone (see gfCalculateLeastSquareCone in leastsquares/cone.h): at least 6 points, which
  // the computation checks. Outputs: the apex, the unit axis pointing towards the apex, the
  // half-angle in radians and the RMS residual; previous values when k asks for refinement.
  // A refusal or failure leaves every output untouched. With a guess axis (unset: none) and
  // its angle:
  static int evaluate_cone(giPoint3coDynArr const& points, giPoint3& apex, giUnitVec3& axis, double& half_angle,
                           double& residual, giUnitVec3 const& guess, giAngle const& angle, int k);
  // With surface normals (one per point) that the cone's normals must agree with:
  static int evaluate_cone(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals, giAngle const& angle,
                           giPoint3& apex, giUnitVec3& axis, double& half_angle, double& residual, int k);
  // Several distinct cones in one point set (gfCalculateMultipleLeastSquareCones).
  static int evaluate_multiple_cones(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals,
                                     double tolerance, giAngle const& angle, int count, gfFittedConecoDynArr& results);
  // The cone fits' process-wide non-physical tolerance (gfSetLeastSquareConeNonPhysicalTolerance):
  // stores the new value and returns the previous one.
  static double set_cone_non_physical_tolerance(double tolerance);

  // Probe-compensated cylinders and cones (leastsquares/probed_cylinder_cone.h): the plain
  // element fitted to the ball centres with the arguments of evaluate_cylinder or
  // evaluate_cone, its radius (offset) shifted by the mean compensation, then one fit of the
  // compensated problem. `radii` holds a ball radius per point (finite, not negative);
  // `inside` non-zero when the centres lie inside the surface. A non-positive compensated
  // radius, or a cone whose apex runs to infinity, is a failure. A refusal or failure leaves
  // every output untouched. At least 4 points here (the computations need 5 for the
  // cylinder, 6 for the cone). With refinement (k), the previous element is the compensated
  // one.
  static int evaluate_probed_cylinder(giPoint3coDynArr const& points, doublecoDynArr const& radii, int inside,
                                      giPoint3& point, giUnitVec3& direction, double& radius, double& residual,
                                      giUnitVec3 const& guess, giAngle const& angle, int k);
  static int evaluate_probed_cylinder(giPoint3coDynArr const& points, doublecoDynArr const& radii, int inside,
                                      giUnitVec3coDynArr const& normals, giAngle const& angle, giPoint3& point,
                                      giUnitVec3& direction, double& radius, double& residual, int k);
  // `contacts`: optional estimates of the touched points, none or one per ball centre (another
  // count is refused). When given, the plain cone is fitted to them and each
  // point's side is read from them: a centre outside the contacts' cone is compensated as
  // touched from outside, one inside as touched from within (`inside` then only decides
  // for a centre that coincides with its contact).
  static int evaluate_probed_cone(giPoint3coDynArr const& points, doublecoDynArr const& radii, int inside,
                                  giPoint3coDynArr const& contacts, giPoint3& apex, giUnitVec3& axis,
                                  double& half_angle, double& residual, giUnitVec3 const& guess, giAngle const& angle,
                                  int k);
  static int evaluate_probed_cone(giPoint3coDynArr const& points, doublecoDynArr const& radii, int inside,
                                  giPoint3coDynArr const& contacts, giUnitVec3coDynArr const& normals,
                                  giAngle const& angle, giPoint3& apex, giUnitVec3& axis, double& half_angle,
                                  double& residual, int k);
};

