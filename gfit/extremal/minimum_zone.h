// The exact finish of the min-max circle: from a start centre, the centre of a local minimum
// zone that proves itself by its contact points.
//
// The zone of a centre c is the annulus between the smallest and the largest of the
// (compensated) distances e_i(c) = |c - p_i| - rho_i; its width is their difference. Moving
// the centre by d changes e_i by about -u_i . d, with u_i the unit vector from c to p_i (the
// limacon model of roundness). Each step minimises that linear model of the width inside a
// trust region, a linear programme in (d, R, r): minimise R - r subject to
// r <= e_i - u_i . d <= R and |d_x|, |d_y| <= trust radius, solved by an active-set simplex.
// A step is kept when the true width falls, and the trust radius follows the agreement of
// model and width. Near a minimum the basis of the programme names the contact points: two
// on the outer circle and two on the inner one, or three and one. The centre is then solved
// exactly from them (Newton on e_a = e_b and e_c = e_d, or e_a = e_b = e_c; for plain points
// these are two perpendicular bisectors and one step suffices).
//
// Certificate: a centre is a minimum zone (no move of the centre narrows the zone) when the
// directions to the outer contacts and to the inner contacts cannot be parted by a line
// through the centre, i.e. they alternate outer, inner, outer, inner around it (or an outer
// and an inner contact lie in one direction). `certified` reports that check at the result.
//
// The width is not convex in the centre, so what is certified is a local minimum; started
// near the data's centre (the walk's result, the algebraic circle's centre) it is the
// minimum zone of roundness profiles, full or partial.
//
// Work is done relative to the points' centroid and in units of their extent, so profiles far
// from the origin keep their digits. Every loop is bounded; nothing allocates per point.
#pragma once

#include <cstddef>
#include <vector>

#include "gfit/platform/point.h"

namespace gfit::detail {

struct MinimumZone {
  giPoint2 centre;       // the caller's coordinates
  double width = 0.0;    // largest minus smallest compensated distance at `centre`
  double radius = 0.0;   // midway between the two
  bool certified = false;
  // The contact points found at `centre` (indices into the points), outer and inner.
  std::vector<std::size_t> outer, inner;
};

// Refines `start` (the caller's coordinates). `rho` is null for plain points, otherwise one
// working radius per point. The points must be finite, at least two, not all coincident.
MinimumZone refine_minimum_zone(std::vector<giPoint2> const& points, double const* rho, giPoint2 const& start);

// The certificate at `centre`: the contact points (within a rounding tolerance of the
// extremes) and whether their directions alternate.
MinimumZone check_minimum_zone(std::vector<giPoint2> const& points, double const* rho, giPoint2 const& centre);

// The centre of the algebraic (Kasa) circle through the points: a start near the data's
// centre that does not depend on the walk. Falls back to the centroid when the points are
// collinear.
giPoint2 algebraic_circle_centre(std::vector<giPoint2> const& points);

}  // namespace gfit::detail
