// When points determine an element: the one test that every fitting entry applies before it
// reports a result, so that a fit the data do not fix is refused rather than returned.
//
// Before any iteration (check_points, check_radii, check_normals):
//  - fewer points than the element needs: gfReason::too_few_points. With one distance per
//    point that is its number of independent parameters (circle 3, sphere 4, ellipse and
//    cylinder 5, cone 6, torus 7); the circle in space, whose distance has two parts, 3;
//  - a coordinate that is not finite: non_finite_input; one so large (beyond 1e150) that
//    its square overflows: out_of_range;
//  - what the element needs the points to span, judged on the singular values s1 >= s2 >=
//    s3 of the centred points (from one pass over their scatter; where that could hide a
//    flat set, from a streamed QR of the centred points, whose rounding cannot):
//    two distinct points (not all coincident) for lines; a plane (s2 > 1e-12 s1) for
//    circles, ellipses and probed planes; space (s3 > 1e-12 s1) for spheres, cylinders,
//    cones and tori. Otherwise not_determined;
//  - companion arrays exactly one per point (bad_companion_array), probe radii finite and
//    not negative (bad_probe_radius; zero is allowed), normals set and finite.
// After the solve (determination, within_size_bound):
//  - the Jacobian J of the distances at the solution, its columns divided by the problem's
//    parameter scales D (1 where it knows none): when its k-th largest singular value, k the
//    number of independent parameters, is at most 1e-9 times the largest, a combination of
//    parameters is not fixed by the data (the scaled, normalised J D^-1 / sqrt(n) whose k-th
//    singular value is the point distribution quality; its ratio to the largest is
//    dimensionless). Axis points that the problem keeps at the foot of the perpendicular
//    from its frame origin (the coordinate origin, or the centroid a search put it at) are
//    first slid to the foot of the points' centroid, so that the test depends neither on
//    where the part sits nor on the frame the fit used. Where a search ranks on a subset
//    of the points, the test is applied to the element it returns, after its refinement on
//    all of them;
//  - a size bound: a circle, sphere or cylinder whose radius, an ellipse whose semi-axis or a
//    cone whose apex distance from the points exceeds 1e6 times the points' extent (the
//    diagonal of their bounding box) is a line or a plane in disguise.
// The threshold 1e-9 was measured on the fitted elements: the NIST reference sets score
// 1.3e-3 or more (cones 1.3e-3, cylinders 6e-3, spheres 5e-2, circles in space 7e-2), a
// 20-degree arc of a circle 2.4e-3, a 1-degree arc 6e-6, a 0.1-degree arc 6e-8; points on a
// line with noise of 1e-6 of their extent, which no circle describes better than a line,
// score below 1e-12. Arcs below about 0.015 degrees are refused.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/arrays.h"
#include "gfit/platform/least_squares.h"
#include "gfit/platform/report.h"

class gfLeastSquareDistance3;
class mlLevenbergMarquardt;

namespace gfit::detail {

// What the points of an element must span.
enum class Span { points, line, plane, space };

// The spread of a point set: its extent (bounding-box diagonal) and the singular values of
// the centred points, descending (sigma[2] = 0 in the plane).
struct PointSpread {
  double extent = 0.0;
  double sigma[3] = {0.0, 0.0, 0.0};
  // Whether the points span `span` (points: always).
  bool spans(Span span) const;
};

// The spread of finite points (at least one). The singular values come from the points'
// scatter, or, where that could hide a flat set in the span asked about, from a streamed QR.
GFIT_EXPORT PointSpread point_spread(giPoint3coDynArr const& points, Span asked = Span::space);
GFIT_EXPORT PointSpread point_spread(giPoint2coDynArr const& points, Span asked = Span::plane);

// The up-front checks of an entry: at least `minimum` points, all finite and within range,
// spanning `span`. Returns 1, with the spread in `spread` when given; or records the
// reason and returns 0.
GFIT_EXPORT int check_points(giPoint3coDynArr const& points, int minimum, Span span, PointSpread* spread = nullptr);
GFIT_EXPORT int check_points(giPoint2coDynArr const& points, int minimum, Span span, PointSpread* spread = nullptr);

// Probe radii: exactly n, finite and not negative. Returns 1, or records the reason and
// returns 0.
GFIT_EXPORT int check_radii(doublecoDynArr const& radii, int n);
// Normals: exactly n (or none, when `optional`), each set and finite. Returns 1, or records
// the reason and returns 0.
GFIT_EXPORT int check_normals(giUnitVec3coDynArr const& normals, int n, bool optional);
GFIT_EXPORT int check_normals(giUnitVec2coDynArr const& normals, int n, bool optional);

// The ratio of the k-th largest to the largest singular value of the scaled Jacobian of
// `problem` at `parameters` (left as its current parameters), k = `independent` (the
// problem's n_independent_parameters() when negative). `drop`, when not negative, leaves
// that parameter's column out (k counts the others). 0 when it cannot be formed. The
// Jacobian streams through the problem's batch evaluation; `per_point` evaluates point by
// point instead, with the gradient cleared for each, for problems whose gradient may leave
// a row unwritten.
GFIT_EXPORT double determination(mlDistanceLeastSquares& problem, mlVector const& parameters, int independent = -1,
                                 int drop = -1, bool per_point = false);
// The same from the factor that `solver` kept at the result of its last fit, which must be
// `problem`'s current parameters (as a fit leaves them): no pass over the points. 0 when the
// solver kept no factor.
GFIT_EXPORT double determination(mlLevenbergMarquardt const& solver, mlDistanceLeastSquares const& problem,
                                 int independent = -1, int drop = -1);
// The same for the circle in space (centre, normal, radius), whose unsigned distance has no
// derivative on the circle: its two parts, the height above the plane and the radial error,
// each give a row.
GFIT_EXPORT double circle3_determination(giPoint3coDynArr const& points, mlVector const& parameters);

// Whether a determination ratio shows the element fixed by the data.
GFIT_EXPORT bool determined(double ratio);

// Whether a size (a radius, a semi-axis, the apex's distance from the points) is within
// 1e6 times the points' extent.
GFIT_EXPORT bool within_size_bound(double size, double extent);

// The axis point p[0..2] slid along the unit axis p[3..5] to the foot of `c`; returns how far
// it moved along the axis.
GFIT_EXPORT double slide_axis_point(mlVector& p, giPoint3 const& c);

// The points' centroid in the frame of `problem`'s parameters: the centroid less the
// problem's frame origin (the centroid itself when that is the coordinate origin).
GFIT_EXPORT giPoint3 centroid_in_frame(gfLeastSquareDistance3 const& problem);

// `determination` of a cylinder-like (7 parameters: axis point, axis, radius) or cone-like
// (8: axis point, axis, offset, half-angle; the offset moved with the point so that the
// surface stays) problem, its axis point first slid to the foot of the points' centroid,
// both in the problem's frame (parameters measured from its frame origin): the same world
// point whatever the frame, so that the ratio depends neither on where the part sits nor on
// the frame the fit used.
GFIT_EXPORT double axial_determination(gfLeastSquareDistance3& problem, mlVector const& parameters);

}  // namespace gfit::detail
