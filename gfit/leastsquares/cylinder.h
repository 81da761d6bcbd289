// The least-squares cylinder: its problem class, its fitted value and its search.
//
// Parameters (7): axis point (x, y, z), axis direction (x, y, z), radius. The distance of
// point Q is |u x (Q - P)| - r (u the unit direction), signed: positive outside. The axis
// point is kept canonical as the foot of the perpendicular from the coordinate origin (or
// from the frame origin of the second constructor).
//
// The search (gfCalculateLeastSquareCylinder) proposes axis directions — a ring-pattern walk
// (gfCylinder_InitialSolution), the farthest pair of points, a plane through the surface
// normals, the caller's guess axis, then batches of seed-1 random directions — seeds each
// with the circle of the points projected along it, and refines the best of each batch by
// Levenberg-Marquardt. What it adds to those steps, and why:
//  - Dense scans. The steps run on at most 2000 points spread evenly through the array
//    (point trunc(n k / 2000), as the circle in space thins its input); the winner is then
//    refined on all the points (with normals: both the best agreeing and the best overall
//    solution, and the agreement judged again on all the points). The search costs the same
//    for any n; the cost per point is that of the final refinement.
//  - Far from the origin. Every solver run works in a frame centred on the points (the
//    problem's frame origin at their centroid) and the result is mapped back: 1e7 from the
//    origin a cylinder keeps the digits it has at the origin, and the answer does not
//    depend on the order of the points beyond rounding.
//  - The guess axis, when given, is also tried as a fourth deterministic axis.
//  - Ranking. Each direction of a batch is ranked by the algebraic (Kasa) circle of its
//    projected points, whose sum of squared geometric distances bounds the least-squares
//    circle's from above; the circles within a factor 2 of a batch's best are then fitted
//    to convergence and the batch goes to the smallest sum, as it would with every circle
//    converged (gfit::detail::best_projected_circle). The ring walk ranks by the algebraic
//    circle's roundness. Evidence that this chooses as the least-squares circle does (pass
//    0's 20 batches of 100 directions, each winner compared with that of evaluate_circle2
//    and the cylinder sum): the same winner in every batch on two crossing cylinders whose
//    RMS differ by 4e-4, two parallel ones, doubly curved patches with two plausible axes
//    (radii 50 and 50.5, 50 and 52), a torus patch and a full cylinder. On patches of a
//    quarter of the circumference or less the directions of a batch all lie degrees away
//    from the axis, their circles converge slowly and 7 (90 degrees) to 17 (30 degrees) of
//    20 batch winners differ (as they did with circles capped at three Gauss-Newton steps);
//    each winner is refined by the cylinder's own fit, and on 24 such patches (15 to 90
//    degrees) the search ends at the same cylinder as with every circle converged, to 1e-11
//    in the radius. The tests keep both checks.
//  - Bounded and cancellable. The work is bounded (the passes above cost about 1e5 point
//    evaluations per point of the subset; the budget is twice that; each refinement runs at
//    most the solver's iteration limit). A host's cancel flag (gfSetCancelFlag) is polled
//    between candidates and by the solver between iterations; a cancelled fit returns 0
//    with gfReason::cancelled.
//  - Thresholds relative to the data. Every length the search compares with is a fraction
//    of the points' extent (the diagonal of their bounding box): the ring walk stops at a
//    projected circle round to 1e-3 of it (0.1 on a part 100 across); the passes after the
//    first run only while the best solution's RMS exceeds 1e-3 of it, and agreement with
//    the normals is given up when it costs more than 1e-3 of it in RMS; two points closer
//    than 1e-9 of it give the walk no start direction; six points are read as two rings
//    when their radii agree within a tenth. Angles, ratios and counts carry no unit. A part
//    in millimetres and the same part in metres therefore give the same cylinder, scaled.
//    (Before, the passes after the first stopped on a mean squared distance below 1e-3 of
//    the range, an area against a length, and the walk on a roundness of 0.1 in any unit.)
//  - Run to convergence. When the solver run that gave the answer ended with its polishing
//    steps or its iterations spent (a short, rough arc, where the sum of squares is flat
//    along the radius and the axis position together), the answer is fitted again from
//    itself, strictly, at most three times (gfit::detail::finish_fit): otherwise it would
//    depend on the start the search happened to reach, at 1e-7.
// The candidates of a batch may be evaluated on several threads (see gfSetMaxThreads in
// platform/parallel.h); the result is bit-identical for every thread count.
//
// When the points determine a cylinder (leastsquares/refusal.h): at least 5 points, not
// coplanar; at the solution a Jacobian of full rank in the 5 independent parameters (judged
// with the axis point at the foot of the centroid) and a positive radius within 1e6 times the
// points' extent. The test is applied to the cylinder the entry returns, after the
// refinement on all the points, in the frame the solver used (and to every cylinder the
// multiple search keeps). Otherwise the computations refuse (gfReason::not_determined).
#pragma once

#include <cfloat>

#include "gfit/gfit_export.h"
#include "gfit/leastsquares/axial_problem.h"
#include "gfit/platform/angle.h"

// A fitted cylinder: axis point, unit axis direction, radius and RMS deviation. The default
// value is invalid (unset point and direction, radius and deviation at -DBL_MAX).
class GFIT_EXPORT gfFittedCylinder {
 public:
  gfFittedCylinder() : radius_(-DBL_MAX), deviation_(-DBL_MAX) {}
  gfFittedCylinder(giPoint3 const& point, giUnitVec3 const& direction, double radius, double deviation)
      : point_(point), direction_(direction), radius_(radius), deviation_(deviation) {}

  giPoint3 const& axis_point() const { return point_; }
  giUnitVec3 const& axis_dir() const { return direction_; }
  double radius() const { return radius_; }
  double deviation() const { return deviation_; }

  // 1 when `other` has the same axis (its axis point within `tolerance` of this axis, the
  // directions within `angle`, either way round) and a radius within `tolerance`; 0 for a
  // negative tolerance.
  int coincident(gfFittedCylinder const& other, double tolerance, giAngle const& angle) const;
  // 1 when unset, with a non-positive radius or a negative (unset) deviation.
  int invalid() const;

 private:
  giPoint3 point_;
  giUnitVec3 direction_;
  double radius_;
  double deviation_;
};

using gfFittedCylindercoDynArr = coDynArr<gfFittedCylinder>;

class GFIT_EXPORT gfLeastSquareCylinder : public gfit::detail::AxialProblem {
 public:
  explicit gfLeastSquareCylinder(giPoint3coDynArr const& points);
  // The same problem with the axis point measured from `origin`: point = origin + p[0..2],
  // and normalisation slides it to the foot of the perpendicular from `origin`. The searches
  // put `origin` at the points' centroid: the axis point then stays among the points,
  // however far they lie from the coordinate origin. (The foot from the coordinate origin
  // lies as far from the points as they lie from it, and a tilt of the axis about it moves
  // the points by that lever: 1e6 away, the tilt and the position of the axis can no longer
  // be told apart, and the fit loses most of its digits.) The distances are those of the
  // same cylinder in world coordinates.
  gfLeastSquareCylinder(giPoint3coDynArr const& points, giPoint3 const& origin);

  // The direction made unit (a zero one becomes (1, 0, 0)); the axis point moved along the
  // axis to the foot of the perpendicular from the origin; the radius kept, sign included.
  void normalize_parameters(mlVector& p) const override;
  void get_distance_and_gradient(double& d, mlVector& g, int i) const override;
  void get_distance(double& d, int i) const override;
  int n_independent_parameters() const override;  // 5
  // (1, 1, 1, L, L, L, 1), L = sqrt(height range^2 + r^2): a tilt of the axis moves the
  // distances by about the cylinder's extent.
  void parameter_scales(mlVector& s) const override;
  ~gfLeastSquareCylinder() override;

  // Whether a solution agrees with the caller's guess axis (within `limit`, either way
  // round; an unset guess always agrees) and with the surface normals: the radial
  // directions from the axis must all be within `limit` of the normals, all outward or all
  // inward. No normals: agrees. Returns 1 or 0.
  static int are_normals_in_limit(giPoint3coDynArr const& points, giAngle const& limit, giUnitVec3 const& guess,
                                  giUnitVec3coDynArr const& normals, mlVector& parameters);
  // Appends `c` unless a coincident cylinder is already in `results`.
  static void add_distinct_result(gfFittedCylinder const& c, double tolerance, giAngle angle,
                                  gfFittedCylindercoDynArr& results);

 protected:
  // The distances G - r + offsets[i] (no offsets when null) and their gradient.
  void offset_block(double const* offsets, int first, int count, double* distances, double* squares,
                    double* jacobian, int ld) const override;

 private:
  mutable mlVector dF_, dG_;
};

// An approximate axis direction from the points alone: a walk over ring patterns of
// directions, refined in up to three levels, keeping the direction whose projected circle
// is roundest; for exactly six points forming two congruent parallel rings of three, the
// rings' normal. Always returns 1.
GFIT_EXPORT int gfCylinder_InitialSolution(giPoint3coDynArr const& points, giVector3& direction);

// The cylinder through at least 5 points. `point`, `direction` and `radius` are read as a
// previous solution when k asks for refinement (k < 0, or 0 < k <= n - 5: the last k points
// are new) and are overwritten with the result. `guess` (unset: none) with `angle` bounds
// the axis; `normals` (empty: none, else one per point) must agree with the radial
// directions within `angle`, unless that costs more than a thousandth of the range in RMS.
// Returns 1 with a result; 0 for fewer than 5 points, non-finite input, normals of another
// count than the points, or no solution, leaving the outputs untouched.
GFIT_EXPORT int gfCalculateLeastSquareCylinder(giPoint3coDynArr const& points, giPoint3& point, giUnitVec3& direction,
                                               double& radius, double& residual, giUnitVec3 const& guess,
                                               giAngle const& angle, giUnitVec3coDynArr const& normals, int k);

// Up to `count` distinct cylinders with an RMS below `tolerance`, found from random axis
// directions drawn first along `normals` (used as preferred directions) and appended to
// `results`. Each attempt fits and refines on at most 2000 points spread evenly through the
// array; a cylinder within the tolerance there is refined on all the points and kept if it
// is within the tolerance there too. Returns the number of elements of `results` (0 for
// fewer than 5 points, and 0 with `results` untouched when the host cancels).
GFIT_EXPORT int gfCalculateMultipleLeastSquareCylinders(giPoint3coDynArr const& points,
                                                        giUnitVec3coDynArr const& normals, double tolerance,
                                                        giAngle const& angle, int count,
                                                        gfFittedCylindercoDynArr& results);
