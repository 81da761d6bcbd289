// The maximum inscribed circle of a planar profile: the largest circle, centred among the
// points, that contains none of them (the minimum-zone inner circle of a bore), and its
// probe-compensated form.
//
// Method: a walk of the centre over the nearest-point (Voronoi) diagram. From the start
// centre it finds the nearest points, moves straight away from them along the bisector of
// the widest empty angular gap between their directions, and stops at the first place
// where another point becomes as near (a vertex of the diagram); it repeats until the
// nearest points surround the centre (every gap under a half-turn), the centre meets a
// point, no further crossing lies ahead, or n steps have been taken. The walk climbs to a
// local maximum of the distance to the nearest point; which one depends on the start (the
// centroid by default, or the caller's circle).
//
// The radius is the smallest (compensated) distance from the final centre to a point,
// measured afresh there: not the distance to a support point remembered from an earlier
// step, nor to the first point when the walk stops where it starts (which would report the
// circumscribed radius of an evenly sampled lobed bore). Points within
// 1.1920928955078125e-7 of the nearest distance count as equally near. When the nearest
// points show one direction only, that nearest point is the support of the next step.
//
// Probe compensation: the compensated distance of point i from a centre c is
// |c - p_i| - rho_i, with rho_i = r_i, or -r_i when the `bool` is true. One support point
// moves the centre straight away until the compensated distance of another point equals
// its own; two use the circle on which three compensated distances are equal
// (cnxCircle2Constructor with the unsigned radii): it touches the three balls from outside
// (selector 0) when rho_i = r_i, and encloses them (selector 14) when rho_i = -r_i, since
// then |c - p_i| = e - r_i. The nearest such centre ahead is taken. With equal radii r the
// centre is the plain one and the radius differs by r.
//
// Refusals (a default giCircle2, with the reason recorded; see gfit/platform/report.h): no
// points (the centroid of nothing has no place, so there is no circle to return; recorded as
// too few points), non-finite coordinates or radii, coordinates or radii beyond 1e150 (their
// squares would overflow), negative radii, radii not one per point, or a start circle whose
// centre is not finite. The walk never moves the centre beyond 1e153.
#pragma once

#include <vector>

#include "gfit/extremal/circle_fit_utils.h"
#include "gfit/gfit_export.h"
#include "gfit/platform/shapes.h"
#include "gfit/platform/utilities.h"

class GFIT_EXPORT gfMaximumInscribedCircle {
 public:
  // `start`, when given, supplies the start centre and radius instead of the centroid.
  static giCircle2 calculate_maximum_inscribed_circle(std::vector<giPoint2> const& points,
                                                      utOptionalArg<giCircle2&> start = {});
  static giCircle2 calculate_maximum_inscribed_circle_probed(std::vector<giPoint2> const& points,
                                                             std::vector<double> const& radii, bool negate_radii,
                                                             utOptionalArg<giCircle2&> start = {});

 private:
  // The direction that leaves the nearest points: away from the only nearest direction, or
  // along the bisector of the widest counter-clockwise gap between nearest directions, whose
  // ends become `first` and `second` (left as they are when there is only one direction).
  // False when the centre coincides with a nearest point or every gap is under a half-turn.
  static bool step_direction_inscribed(std::vector<giPoint2> const& points, gfDistanceList& nearest,
                                       giPoint2 const& centre, giUnitVec2& direction, size_t& first, size_t& second);
  // The next centre along `direction` at which another point's compensated distance equals
  // the support points'; false when there is none ahead.
  static bool inscribed_probe_step(giPoint2 const& centre, giVector2 const& direction,
                                   std::vector<giPoint2> const& points, std::vector<double> const& radii,
                                   gfDistanceList const& support, bool negate_radii, giPoint2& new_centre);
};
