// The least-squares cone: its problem class, the choice among candidate cones, its fitted
// value and its search.
//
// Parameters (8): axis point A (x, y, z), axis direction u (x, y, z; read as a unit vector),
// offset d, half-angle theta (radians). With F = (Q - A) . u and G = |u x (Q - A)| the
// height of Q along the axis and its distance from it, the cone is
//     F sin(theta) + G cos(theta) = d,
// and the signed distance of Q is F sin(theta) + G cos(theta) - d (positive outside): the
// cone opens towards -u, its apex is A + u d / sin(theta), and d is the signed distance of
// A from the surface along the surface normal (A inside: d > 0). Canonical form: theta in
// [0, pi/2], A the foot of the perpendicular from the origin onto the axis. A cylinder is
// the limit theta -> 0 with the apex at infinity, a plane the limit theta -> pi/2.
//
// Candidates whose half-angle lies within the non-physical tolerance (0.05 rad when the
// library is loaded) of 0 or pi/2 count as non-physical, nearly a cylinder or a plane; they
// win only when clearly better (gfLeastSquareConeResults).
//
// The parameterisation is Forbes's ("Least-squares best-fit geometric elements", NPL report
// DITC 140/89, 1989). The search (gfCalculateLeastSquareCone) starts from a linear fit per
// trial axis direction, Kasa's algebraic circle (I. Kasa, IEEE Trans. Instrum. Meas. 25,
// 1976) grown along the axis: for a direction w the points, in a frame (e1, e2, w) about
// their centroid, satisfy
//     x^2 + y^2 = 2 a x + 2 b y + c + e h + f h^2,
// linear in (a, b, c, e, f); the radius at h = 0 is r0 = sqrt(c + a^2 + b^2) and the
// radius grows by e / (2 r0) per unit height. (tan theta is taken from e, never from
// sqrt(f), which noise makes negative on near-cylinders.) Deterministic starts come first —
// from the surface normals, from two circles, along the cylinder's initial axis, the
// caller's guess, a plane for nearly flat cones, the principal axes and the seven guess
// directions — then batches of seed-1 random directions, each scored by its linear start,
// the best of a batch refined. Every refinement is a Levenberg-Marquardt fit of the full
// problem (strict, at most 10000 iterations). The linear starts of a batch may be computed
// on several threads (gfSetMaxThreads); the result is bit-identical for every thread count.
//
// Dense scans, far from the origin, bounded: the search works on at most 2000 points
// spread evenly through the array and refines its choice on all of them; every solver run
// works in a frame centred on the points (the problem's frame origin), so that 1e7 from the
// origin the cone keeps its digits. Its work is bounded by a budget of 2000 point
// evaluations per point of the subset (at least that of 1000 points): every linear start
// and solver run is charged, a refinement may spend at most a quarter of what is left, a
// fixed-axis start at most 200 iterations, and the final refinement on all the points at
// most 30 iterations. A cone takes a few hundred to a thousand per point; on points that
// hold no cone at a finite distance (a plane) the strict solver would crawl towards the
// apex at infinity, and the budget ends the search with the best cone found (about twice
// the time of a real cone of the same size, against 60 times before). A host's cancel
// flag (gfSetCancelFlag) is polled between starts and by the solver between iterations; a
// cancelled fit returns 0 with gfReason::cancelled.
//
// Its thresholds carry no unit, so a part in millimetres and the same part in metres give
// the same cone, scaled: the linear starts work in coordinates divided by the points' RMS
// distance from their centroid; sums of squares below that of an RMS of 1e-12 of the range
// (the diagonal of the points' bounding box) count as exact; agreement with the normals is
// given up when it costs more than 0.001 of the range (gfLeastSquareConeResults); a start
// is refined while within a factor 100 of the best sum of squares; the random batches stop
// after two that improve it by no more than 1e-6 relatively; the two-circle start splits at
// a gap of a tenth of the height span; half-angles and the guide's angle are angles. When
// the solver run that gave the answer ended with its polishing steps spent, the answer is
// fitted again from itself (at most three times, 200 iterations each), so that it does not
// depend on the start the search happened to reach.
//
// When the points determine a cone (leastsquares/refusal.h): at least 6 points, not
// coplanar; at the solution a Jacobian of full rank in the 6 independent parameters (judged
// with the axis point at the foot of the centroid) and an apex within 1e6 times the points'
// extent of their centroid. The test is applied to the cone the entry returns, after the
// refinement on all the points, in the frame the solver used. Otherwise the computations
// refuse (gfReason::not_determined), leaving every output untouched.
#pragma once

#include <cfloat>
#include <memory>

#include "gfit/fitpoints/arrays.h"
#include "gfit/gfit_export.h"
#include "gfit/leastsquares/axial_problem.h"
#include "gfit/platform/angle.h"
#include "gfit/platform/utilities.h"

namespace gfit::detail {
class CentredPoints;
class SearchBudget;
}

// Sets the process-wide non-physical tolerance of the cone fits (radians; 0.05 when the
// library is loaded) and returns the previous one. The value is atomic, so a swap never
// tears, but a fit reads it once when it starts: set it before fits run on other threads.
GFIT_EXPORT double gfSetLeastSquareConeNonPhysicalTolerance(double tolerance);
GFIT_EXPORT double gfLeastSquareConeNonPhysicalTolerance();

// A fitted cone: apex, unit axis direction (pointing from the opening towards the apex),
// half-angle and RMS deviation. The default value is invalid (unset apex and axis,
// deviation -DBL_MAX).
class GFIT_EXPORT gfFittedCone {
 public:
  gfFittedCone() : deviation_(-DBL_MAX) {}
  gfFittedCone(gfFittedCone const&) = default;
  gfFittedCone(giPoint3 const& apex, giUnitVec3 const& axis, giAngle const& half_angle, double deviation)
      : apex_(apex), axis_(axis), half_angle_(half_angle), deviation_(deviation) {}
  gfFittedCone& operator=(gfFittedCone const&) = default;

  giPoint3 const& apex() const { return apex_; }
  giUnitVec3 const& axis_dir() const { return axis_; }
  giAngle const& half_angle() const { return half_angle_; }
  double deviation() const { return deviation_; }

  // 1 when the apexes lie within `distance_tolerance` of each other, the half-angles within
  // `angle_tolerance` and the axes within `angle_tolerance` either way round; 0 for a
  // negative tolerance or an unset apex.
  int coincident(gfFittedCone const& other, double distance_tolerance, giAngle const& angle_tolerance) const;
  // 1 when the apex or the axis is unset, the half-angle is not strictly between 0 and
  // pi/2, or the deviation is negative (unset).
  int invalid() const;

 private:
  giPoint3 apex_;
  giUnitVec3 axis_;
  giAngle half_angle_;
  double deviation_;
};

class GFIT_EXPORT gfLeastSquareCone : public gfit::detail::AxialProblem {
 public:
  explicit gfLeastSquareCone(giPoint3coDynArr const& points);
  // The same problem with the axis point measured from `origin` (A = origin + p[0..2]),
  // normalised to the foot of the perpendicular from `origin`; the searches put `origin` at
  // the points' centroid, so that the axis point stays among the points however far they
  // lie from the coordinate origin (see gfLeastSquareCylinder). The distances are those of
  // the same cone in world coordinates.
  gfLeastSquareCone(giPoint3coDynArr const& points, giPoint3 const& origin);

  // Stores the parameters (grown to 8 when shorter) and caches sin and cos of the half-angle.
  void set_parameters(mlVector const& p) override;
  // u made unit (a zero one becomes (1, 0, 0)); theta reduced into [0, pi/2] (reversing u
  // and d as the surface requires); A moved to the foot of the perpendicular from the
  // origin, d shifted to keep the surface.
  void normalize_parameters(mlVector& p) const override;
  void get_distance_and_gradient(double& d, mlVector& g, int i) const override;
  void get_distance(double& d, int i) const override;
  int n_independent_parameters() const override;  // 6
  // (1, 1, 1, L, L, L, 1 / sin(theta), L), L the largest distance of a point from the apex.
  void parameter_scales(mlVector& s) const override;
  ~gfLeastSquareCone() override;

  // Whether a solution agrees with the caller's guess axis (within `limit`, either way
  // round; an unset guess always agrees) and with the surface normals: the cone's outward
  // normals sin(theta) u + cos(theta) r (r the radial unit vector) must all lie within
  // `limit` of the given normals, or all their reverses; points on the axis are not judged.
  // No normals: agrees. Returns 1 or 0.
  static int are_normals_in_limit(giPoint3coDynArr const& points, giAngle const& limit, giUnitVec3 const& guess,
                                  giUnitVec3coDynArr const& normals, mlVector& parameters);
  // Appends `cone` unless a coincident cone (gfFittedCone::coincident) is already in `list`.
  static void add_distinct_result(gfFittedCone const& cone, double distance_tolerance, giAngle angle_tolerance,
                                  gfFittedConecoDynArr& list);

 protected:
  // The distances F sin + G cos - d + offsets[i] (no offsets when null) and their gradient.
  void offset_block(double const* offsets, int first, int count, double* distances, double* squares,
                    double* jacobian, int ld) const override;

 private:
  double sin_ = 0.0, cos_ = 1.0;
  mutable mlVector dF_, dG_;
};

// The cone about a fixed axis direction w through a frame fixed at the points' centroid c:
// 4 non-redundant parameters (a, b, d, theta), the axis passing through c + a e1 + b e2
// along w, (e1, e2) = (w.any_normal(), w x e1). Heights are measured from that axis point,
// so the distance is that of the full cone with A = c + a e1 + b e2 and u = w. theta is kept
// in (-pi/2, pi/2]: a negative theta opens the cone towards +w.
class GFIT_EXPORT gfLeastSquareConeFixedAxis : public gfLeastSquareDistance3 {
 public:
  gfLeastSquareConeFixedAxis(giPoint3coDynArr const& points, giPoint3 const& centroid, giUnitVec3 const& w);

  void set_parameters(mlVector const& p) override;
  void normalize_parameters(mlVector& p) const override;
  void get_distance_and_gradient(double& d, mlVector& g, int i) const override;
  void get_distance(double& d, int i) const override;
  ~gfLeastSquareConeFixedAxis() override;

  void evaluate_block(int first, int count, double* distances, double* squares, double* jacobian,
                      int ld) const override;
  void evaluate_distances(int first, int count, double* distances, double* squares) const override {
    evaluate_block(first, count, distances, squares, nullptr, 0);
  }

  // The full cone's parameters (A, w, d, theta) of (a, b, d, theta).
  void to_cone(mlVector const& fixed, mlVector& cone) const;
  // The sum of the signed distances at the current parameters (n times the offset change
  // that fits the points best).
  double sum_of_distances() const;

 private:
  giPoint3 centroid_;
  giUnitVec3 w_, e1_, e2_;
  double sin_ = 0.0, cos_ = 1.0;
};

// The candidate cones of a search and the choice among them. Candidates are kept in four
// slots by sum of squares: physical and accepted, non-physical and accepted, physical,
// non-physical (accepted: gfLeastSquareCone::are_normals_in_limit with the guide, its angle
// and the normals; physical: tolerance < |theta| < pi/2 - tolerance).
class GFIT_EXPORT gfLeastSquareConeResults {
 public:
  gfLeastSquareConeResults(utObserverPtr<giPoint3coDynArr const> points, utObserverPtr<giUnitVec3coDynArr const> normals,
                           giVector3 const& guide, giAngle const& angle, double scale, double tolerance);

  // Files a candidate (value: its sum of squares; parameters grown to 8 when shorter).
  void add(double value, mlVector& parameters);
  // The best physical candidate (the accepted one unless that costs more than 0.001 scale
  // in RMS), replaced by the best non-physical one (chosen alike) when that has less than a
  // hundredth of its value, or merely less when the physical one's half-angle lies within
  // twice the tolerance of 0 or pi/2. value stays DBL_MAX when nothing was filed.
  void get_best(double& value, mlVector& parameters) const;
  // The value of the best physical and accepted candidate.
  double constrained_deviation() const { return slots_[0].value; }

 private:
  struct Slot {
    double value = DBL_MAX;
    mlVector parameters = mlVector(8);
  };
  Slot slots_[4];  // physical & accepted, non-physical & accepted, physical, non-physical
  utObserverPtr<giPoint3coDynArr const> points_;
  utObserverPtr<giUnitVec3coDynArr const> normals_;
  giVector3 guide_;
  giAngle angle_;
  double scale_;
  double tolerance_;
};

// Start vectors of the cone search. Each strategy writes a full parameter vector (A, u, d,
// theta) and returns its deviation, or DBL_MAX when it cannot make one.
class GFIT_EXPORT gfConeGuessGenerator {
 public:
  // The points (at least 6) and their normals (empty, or one per point) must outlive it.
  gfConeGuessGenerator(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals);
  ~gfConeGuessGenerator();

  // The sum of squared distances of the points from the cone of `parameters` (normalised in
  // place); 0 for no points.
  double deviation(mlVector& parameters);

  // The axis direction from a plane through the normals taken as points (its offset is
  // sin(theta)), the axis position from the normal lines meeting the axis, the generator
  // from an orthogonal line fit in the (height, radius) half-plane. Inward and outward
  // normals alike. Needs one normal per point.
  double get_guess_from_normals(mlVector& parameters);
  // The points split along the preliminary axis at their largest gap in height (when it is
  // a tenth of their height span or more) or at the median height; a circle in space fitted
  // to each half gives the axis (the mean of the circles' normals), a point on it and the
  // half-angle. Fails when the halves have no three points each, a circle fit fails, or the
  // radii are equal (a cylinder).
  double get_guess_two_circles(mlVector& parameters);
  // For half-angles near 90 degrees: the axis along the normal of the points' plane, the
  // cone opening one way (way > 0: its apex on the normal's side) or the other, fitted with
  // that axis fixed.
  double get_guess_flat(mlVector& parameters, int way);
  // The linear (generalised Kasa) start along `direction`, refined with the axis direction
  // fixed (gfLeastSquareConeFixedAxis).
  double get_guess_fixed_axis_fit(giUnitVec3 const& direction, mlVector& parameters);
  // The linear start alone.
  double get_guess_linear(giUnitVec3 const& direction, mlVector& parameters);

  // The axis of gfCylinder_InitialSolution, computed once.
  giUnitVec3 const& preliminary_axis();
  // The principal axes of the points (eigenvectors of their scatter, ascending).
  void principal_axes(giUnitVec3 axes[3]) const;
  giPoint3 const& centroid() const;
  // The points about their centroid, and their RMS distance from it: the frame of the
  // linear starts.
  gfit::detail::CentredPoints const& centred_points() const;
  double scale() const;
  // Charges the solver runs of the strategies to `budget` (null: none) and caps them by it;
  // a search bounds its work this way.
  void bound_work(gfit::detail::SearchBudget* budget) { budget_ = budget; }

 private:
  struct Frame;
  double checked_deviation(mlVector& parameters);
  double fixed_axis_fit(giUnitVec3 const& w, mlVector const& start, mlVector& parameters);

  giPoint3coDynArr const& points_;
  giUnitVec3coDynArr const& normals_;
  gfLeastSquareCone problem_;
  std::unique_ptr<Frame> frame_;
  giUnitVec3 preliminary_;
  gfit::detail::SearchBudget* budget_ = nullptr;
};

// The cone through at least 6 points. `apex`, `axis` and `half_angle` are read as a
// previous solution when k asks for refinement (k < 0, or 0 < k <= n - 6: the last k points
// are new), and are overwritten with the result: the apex, the unit axis pointing towards
// the apex, the half-angle in radians and the RMS residual. `guess` (unset: none) with
// `angle` bounds the axis, and random directions are drawn only within it; `normals`
// (empty: none, else one per point) must agree with the cone's normals within `angle`,
// unless that costs more than a thousandth of the range in RMS. Returns 1 with a result;
// 0 for fewer than 6 points, points that do not determine a cone (above), non-finite
// input, normals of another count than the points, no cone (including one whose apex runs
// to infinity, sin(theta) < 1e-12) or a cancelled search, leaving the outputs untouched;
// the reason is recorded (platform/report.h).
GFIT_EXPORT int gfCalculateLeastSquareCone(giPoint3coDynArr const& points, giPoint3& apex, giUnitVec3& axis,
                                           double& half_angle, double& residual, giUnitVec3 const& guess,
                                           giAngle const& angle, giUnitVec3coDynArr const& normals, int k);

// Up to `count` distinct cones with an RMS below `tolerance`, found from random axis
// directions drawn first along `normals` (used as preferred directions), and appended to
// `results` (distinct: apexes `tolerance` apart or axes and half-angles `angle` apart).
// Each attempt starts and refines on at most 2000 points spread evenly through the array; a
// cone within the tolerance there is refined on all the points and kept if within the
// tolerance there too. Returns the number of elements of `results` (0 for fewer than 6
// points, and 0 with `results` untouched when the host cancels).
GFIT_EXPORT int gfCalculateMultipleLeastSquareCones(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals,
                                                    double tolerance, giAngle const& angle, int count,
                                                    gfFittedConecoDynArr& results);

namespace gfit::detail {
// The outputs of cone parameters whose mean squared distance is `value`: the apex A + u d /
// sin(theta), the unit axis u, theta and the RMS residual. False, writing nothing, when the
// apex runs to infinity (sin(theta) < 1e-12) or anything is not finite.
GFIT_EXPORT bool cone_outputs(mlVector const& p, double value, giPoint3& apex, giUnitVec3& axis, double& half_angle,
                              double& residual);
// The same for parameters whose axis point is measured from `origin`.
GFIT_EXPORT bool cone_outputs(mlVector const& p, giPoint3 const& origin, double value, giPoint3& apex,
                              giUnitVec3& axis, double& half_angle, double& residual);
// Whether cone parameters of `problem` (in its frame: the axis point measured from its
// frame origin) with mean squared distance `value` are a result the points determine (see
// leastsquares/refusal.h): a finite value, an apex within 1e6 `extent` of the points'
// centroid, a Jacobian of full rank. Records the reason when they are not.
GFIT_EXPORT bool cone_determined(gfLeastSquareDistance3& problem, mlVector const& p, double value, double extent);
}  // namespace gfit::detail
