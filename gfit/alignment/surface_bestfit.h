// Alignment of measured fit points to a nominal object (usually a CAD surface) in the
// least-squares sense: an iterative-closest-point loop over linearised rigid steps.
//
// Each step projects every fit point under the current transformation (through the
// projector's batch interface), hands the valid projections to gfPointsToPlanes with their
// tolerance limits and weights, together with the locks, and applies the rigid step it
// returns. `fit` starts from the identity, normalises the weights to a mean absolute value
// of 1, and stops when a step moves no valid measured point by `tol` or more, when a step
// fails, or after 50 steps.
//
// Locks: an origin lock holds the measured lock point on the nominal one; an axis lock turns
// the measured direction onto the nominal one and, for a type of 1 or more, keeps the lock
// point on the nominal axis line (the type's value is the number of times the positioning
// record is given to the solver); rotation locks make every step a translation. After each
// accepted step the measured lock point and direction take the nominal values, since the
// lock now refers to the aligned position.
//
// Tolerance limits: every finite limit of every point is numbered in point order, lower
// before upper, including those of points that do not project and those already left out.
// The solver numbers only the limits it sees, so each step keeps a table from the solver's
// numbers to these. Limits found contradictory are recorded (`overdetermined_constraints`,
// ascending, kept across `fit` calls) and left out of every later step.
//
// A step whose solver finds new contradictory limits is undone when an earlier accepted step
// exists: the transformation goes back to the one before that step (and the next projection
// batch is an initial one again if it was the identity), and `do_iteration` returns 0.
// Two readings are added to the bare steps so that the fit still reaches its purpose:
//  - "new" limits decide the undo, not a non-empty record: otherwise, once any limit had
//    been recorded, every later step would be undone and the object could never move again;
//  - `fit` goes on after an undone step (counting it among its 50), so that it converges
//    without the limits it just left out instead of stopping where the bad step began.
//
// Refusals (reason through gfit::detail::refuse): no projector set, a weight or limit that
// is not finite (only +-DBL_MAX mean "no limit"), fewer than three valid projections, a
// solver that finds no step (contradictory locks, a singular problem). `do_iteration` then
// returns 0; `fit` returns 0, and writes the transformation reached so far and the
// deviations unless it refused before the first step (no projector, bad weights or limits),
// when its outputs are untouched. A fit point whose measured point is not finite does not
// project and counts as invalid.
#pragma once

#include "gfit/alignment/points_to_planes.h"
#include "gfit/fitpoints/arrays.h"
#include "gfit/fitpoints/projector.h"
#include "gfit/gfit_export.h"
#include "gfit/platform/arrays.h"
#include "gfit/platform/xform.h"

// How an axis lock holds the part: the direction alone, or the direction and the line
// through the lock point (the value is the repeat count of the lock point's record).
enum gfSurfaceBestfitLockedAxisType {
  gf_locked_axis_direction = 0,
  gf_locked_axis_through_point = 1,
};

class GFIT_EXPORT gfSurfaceBestfit {
 public:
  static constexpr int max_steps = 50;
  static constexpr double fitting_points_attraction = 0.01;

  gfSurfaceBestfit();

  void set_projector(gfFitPointProjector3 const* projector) { projector_ = projector; }
  void add_point(gfFitPoint3coPrf const& point);
  // Point, lower and upper limit of its signed deviation, weight (0: the call is dropped).
  void add_point(gfFitPoint3coPrf const& point, double lower, double upper, double weight);
  void reserve_points(int n);

  void lock_origin(giPoint3 const& measured, giPoint3 const& nominal);
  void lock_axis(gfSurfaceBestfitLockedAxisType type, giVector3 const& measured_direction,
                 giVector3 const& nominal_direction, giPoint3 const& measured_point, giPoint3 const& nominal_point);
  void lock_rotations(giVector3 const& a, giVector3 const& b, giVector3 const& c);

  // One step; `step` receives the step transform. 1 on success, 0 when no step was taken
  // or the step was undone.
  int do_iteration(giXform3& step);
  // See the file comment. Returns 1 when the fit ran its course, 0 when it was refused or a
  // step failed.
  int fit(double tol, giXform3& result, double& max_distance, double& max_signed, double& min_signed,
          int& n_invalid);

  giXform3 const& get_transformation() const { return transformation_; }
  gfProjectedPoint3coDynArr const& get_pointcloud() const { return cloud_; }
  int nb_points() const { return points_.count(); }
  gfFitPoint3 const* point(int i) const { return points_[i].get(); }
  intcoDynArr const& overdetermined_constraints() const { return overdetermined_; }
  // Steps taken by the last `fit`, and how many of them were undone.
  int steps_taken() const { return steps_taken_; }
  int steps_undone() const { return steps_undone_; }
  double weight(int i) const { return weights_[i]; }

  // Over the valid records: largest distance, largest and smallest signed distance (all
  // three start at 0), and the numbers of invalid and valid records.
  static void get_pointcloud_parameters(gfProjectedPoint3coDynArr const& cloud, double& max_distance,
                                        double& max_signed, double& min_signed, int& n_invalid, int& n_valid);

 private:
  void reproject_all_points(giXform3 const& xform);
  bool inputs_finite() const;

  giVector3 lock_direction1_, lock_direction2_;
  int lock_axis_type_ = 0;
  giPoint3 lock_point1_, lock_point2_;
  giVector3coDynArr rotation_locks_;
  int locked_ = 0;
  doublecoPageArr lower_, upper_, weights_;
  intcoDynArr overdetermined_;
  gfFitPoint3PtrcoPageArr points_;
  gfProjectedPoint3coDynArr cloud_;
  giXform3 transformation_;
  gfFitPointProjector3 const* projector_ = nullptr;
  int initial_projection_ = 1;
  giXform3 saved_transformation_;
  bool last_step_undone_ = false;
  int steps_taken_ = 0;
  int steps_undone_ = 0;
};
