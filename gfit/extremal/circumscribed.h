// The minimum circumscribed circle of a planar profile: the smallest circle enclosing all
// points (the minimum-zone outer circle of a shaft), and its probe-compensated form.
//
// Definition: mc(P) is the circle of least radius containing every point of P; it is
// unique, and it is the two-point circle of two points of P or the circumcircle of three.
// mc(empty) is no circle (a default giCircle2); mc({p}) is (p, 0).
//
// Method: the incremental construction of Welzl (1991) with up to three boundary points,
// run over the points in a fixed pseudo-random order: a Fisher-Yates shuffle drawn from
// mlRandom seeded with 1 (two 15-bit draws per swap). Added to the plain construction in
// input order, because that order makes scans that arrive sorted by angle (every roundness
// profile) quadratic to cubic, about 30 s for 1e5 points; in the drawn order the expected
// time is linear whatever the input order. The order depends only on the number of points,
// so the same input gives the same circle, bit for bit, on every run. A permuted copy of
// the points (and radii) is the only working storage.
//
// Containment is tested exactly (distance <= radius, no tolerance). Duplicates of a
// boundary point (within 1.1920928955078125e-7) are taken as on the circle, so no
// three-point circle is ever built through coincident points.
//
// Probe compensation: each point is the centre of a probe ball with its own radius r_i.
// The extended distance of point i from a centre c is |p_i - c| + s r_i, with s = +1 when
// `outer` is true (the circle encloses the balls) and -1 otherwise (it encloses the points
// pulled in by their radii). The result is the circle whose radius bounds every extended
// distance, built by the same incremental scheme with the three-circle boundary step of
// cnxCircle2Constructor. With equal radii r it is the plain circle grown (outer) or shrunk
// (not outer) by r.
//
// Refusals (a default giCircle2, with the reason recorded; see gfit/platform/report.h): no
// points (mc(empty) is no circle; recorded as too few points), non-finite coordinates or
// radii, coordinates or radii beyond 1e150 (their squares would overflow), negative radii,
// or radii not one per point.
#pragma once

#include <vector>

#include "gfit/gfit_export.h"
#include "gfit/platform/shapes.h"

class GFIT_EXPORT gfMinimumCircumscribedCircle {
 public:
  static giCircle2 fit_smallest_enclosing_circle(std::vector<giPoint2> const& points);
  static giCircle2 fit_smallest_enclosing_circle_probed(std::vector<giPoint2> const& points,
                                                        std::vector<double> const& radii, bool outer);

 private:
  // The circle on a and b as diameter.
  static giCircle2 fit_two_point_circle(giPoint2 const& a, giPoint2 const& b);
  // The smallest circle of points 0 .. q-1 with point q on its boundary.
  static giCircle2 smallest_circle_with_one_point(std::vector<giPoint2> const& points, size_t q);
  // The smallest circle of points 0 .. a-1 with points a and b (a < b) on its boundary.
  static giCircle2 smallest_circle_with_two_points(std::vector<giPoint2> const& points, size_t a, size_t b);
  static giCircle2 smallest_circle_with_one_point_probed(std::vector<giPoint2> const& points,
                                                         std::vector<double> const& radii, bool outer, size_t q);
  static giCircle2 smallest_circle_with_two_points_probed(std::vector<giPoint2> const& points,
                                                          std::vector<double> const& radii, bool outer, size_t a,
                                                          size_t b);
};
