// Form errors by the minimum zone: flatness, straightness in space, sphericity and
// cylindricity as the width of the narrowest zone that holds every point (ISO 12781 for
// flatness, ISO 12180 for cylindricity; the method after Shakarji and Clement, "Reference
// algorithms for Chebyshev and one-sided data fitting for coordinate metrology", CIRP Annals
// 53, 2004).
//
// Zones:
//   plane     two parallel planes;       width = largest minus smallest signed distance
//   line3     one cylinder about a line; width = its diameter (twice the largest distance)
//   sphere    two concentric spheres;    width = outer minus inner radius
//   cylinder  two coaxial cylinders;     width = outer minus inner radius
//
// Method: sequential linear programming from the least-squares element. At the current
// element the distances are linearised in the element's independent parameters (tilts of a
// normal or axis, shifts of an axis point or centre: never a redundant one, so the steps are
// unique), and the zone of the linear model, min R - r over r <= e_i + g_i.d <= R, is
// minimised inside a trust box |d_j| <= Delta by the constrained quadratic minimiser with a
// small proximal term (mu/2)|x - x_k|^2 (it needs a positive definite Hessian; at a vertex of
// the programme, which is where the steps end, the term changes nothing, and a fixed point of
// the iteration is a point where the linear programme cannot improve the zone). A step is
// kept when the true width falls; the trust box follows the agreement of model and width.
// Only points that can reach the extremes within the box enter the programme, so late steps
// are small programmes over the few points near the two surfaces.
//
// Certificate: at the end, the contacts (points within a rounding tolerance of the two
// extremes) prove the zone optimal when zero lies in conv{g_i : outer} - conv{g_j : inner}
// (for the line: zero in conv{g_i}), i.e. no move of the element narrows the zone to first
// order (the dual of the linear programme is feasible). That distance is computed by a small
// quadratic programme and reported; for the plane it is the 2+2 crossing or 3+1 inside test.
//
// Global or local: the sphere and cylinder zones are the local minimum reached from the
// least-squares element, as measuring practice takes them. The plane and the line are searched
// from the least-squares element as well; their zones are globally minimal whenever the
// points are thin compared with their extent (every flatness or straightness data set).
// The zone never exceeds the least-squares element's own zone: only narrowing steps are kept.
//
// Work is done relative to the points' centroid and in units of their extent, so data far
// from the origin keep their digits. Every loop is bounded; nothing allocates per point in the
// distance loops; the result is the same bit for bit on every run.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/arrays.h"

// The result of a minimum-zone fit.
class GFIT_EXPORT gfMinimumZone {
 public:
  int status = 0;                   // gfMinimumZoneFit::Status
  double width = 0.0;               // the zone's width (see above)
  double least_squares_width = 0.0; // the same zone measure about the least-squares element
  // plane: a point of the mid plane (the foot of the points' centroid) and the unit normal;
  // line3, cylinder: the axis point nearest the centroid and the unit axis direction;
  // sphere: the centre (direction unset).
  giPoint3 point;
  giUnitVec3 direction;
  // sphere, cylinder: the mid radius (outer + inner) / 2; line3: the zone's radius.
  double radius = 0.0;
  // The least-squares element the search started from, in the same form.
  giPoint3 least_squares_point;
  giUnitVec3 least_squares_direction;
  double least_squares_radius = 0.0;
  // The contact points (indices into the points): on the outer surface (the largest
  // distances; for the plane the side the normal points to) and on the inner one.
  intcoDynArr outer, inner;
  // The distance of zero from the convex hull of the contacts' signed gradients, in units of
  // the points' extent (0: the zone proves itself). Below 1e-7 counts as certified: a zone
  // held by fewer contacts than parameters (common for the line) settles only to about that.
  double certificate = 0.0;
  int iterations = 0;  // linear-programming steps taken
};

class GFIT_EXPORT gfMinimumZoneFit {
 public:
  enum Status {
    refused = 0,          // bad input (too few points, non-finite or overflowing coordinates,
                          // points that do not determine the element) or the least-squares
                          // start failed; `zone` untouched, reason recorded (gfLastReason)
    certified = 1,        // a minimum zone proved by its contacts
    not_certified = 2,    // the search stopped (no narrower zone found) without a proof
    iteration_limit = 3,  // the step cap was reached: the narrowest zone found so far
  };
  static constexpr int max_steps = 200;

  // At least 3 points (not collinear) for the plane, 2 (not coincident) for the line,
  // 4 (not coplanar) for the sphere, 5 (not coplanar) for the cylinder. Returns the status,
  // also stored in zone.status.
  static int plane(giPoint3coDynArr const& points, gfMinimumZone& zone);
  static int line3(giPoint3coDynArr const& points, gfMinimumZone& zone);
  static int sphere(giPoint3coDynArr const& points, gfMinimumZone& zone);
  static int cylinder(giPoint3coDynArr const& points, gfMinimumZone& zone);
};
