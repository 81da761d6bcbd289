// One linearised rigid step that brings measured points onto the tangent planes of their
// nominal points, under locks and tolerance bands: the inner solver of the surface best fit.
//
// Problem. Records i carry a measured point m, a nominal point q, a unit normal n, a weight
// w and optional limits lo <= n.(m' - q) <= up on the signed deviation after the step. The
// step m' = c + R (m - c) + t minimises
//     sum w_i^2 (n_i.(m_i' - q_i))^2  +  lambda (sum w^2 / N) sum |m_i' - m_i|^2
// to first order in the rotation (Chen and Medioni 1992; Low, UNC TR04-004, 2004), where
// lambda is the fitting-points attraction: it gives the motions the data leave free (along a
// plane, about a cylinder's axis) the smallest movement instead of an arbitrary one. With
// lambda = 0 the reduced normal matrix gets 1e-7 trace / k on its diagonal instead, so that
// it stays strictly convex. The rotation unknowns are scaled by the RMS distance of the
// points from c, so that all unknowns move the points by comparable amounts.
//
// Locks are removed exactly, never by penalties: the unknowns x = (omega, t) are written
// x = x0 + B y with B a basis of the motions the locks allow (from the singular value
// decomposition of the lock equations), and the quadratic programme is solved for y alone.
//  - Rotation locks: translations only (the axes given are recorded; every rotation is
//    locked, as the variant's name says).
//  - A locked direction d1 -> d2: first the exact rotation R0 (Rodrigues, about d1 x d2)
//    that takes d1 onto d2, then rotations about d2 only.
//  - Positioning records hold a measured point on a nominal one. The rotation centre c is the
//    first positioning record's measured point (after R0), so that point moves by t alone and
//    its conditions are linear in t exactly; other points are held to first order and checked
//    afterwards. The work-plane form holds the point along each work-plane axis whose state is
//    0 (a non-zero state leaves that axis free); the direction form holds it in every
//    direction, or, with a locked direction, across the direction only (the point then lies on
//    the nominal axis line and may slide along it). Repeating a record adds the same
//    conditions again, which the exact elimination absorbs.
// Without positioning records c is the weighted centroid of the measured points.
//
// Limits become inequalities of the quadratic programme (mlConstrainedQuadraticMinimiser).
// Every finite limit is numbered in arrival order, lower before upper, over the calls of
// `add_bestfit`. A record with lo > up reports both its numbers at once and leaves both out.
// When the limits contradict each other, the programme's certificate names them; they are
// left out and the programme solved again (at most six rounds). A trust region bounds each
// unknown's movement by the RMS lever arm, so that limits which only an absurd step could
// reconcile (rows that are opposite up to rounding) are reported as contradictory too. The step is still returned,
// and `overdetermined_constraints()` lists the numbers left out, ascending.
//
// The step is exactly rigid: R is the rotation by |omega| about omega (Rodrigues), composed
// with R0, and S = T(c + t) R R0 T(-c).
//
// `single_linear_step` returns 0 (with S untouched) when there is nothing to fit (no record
// of non-zero weight), when a record holds a non-finite number, when the locks contradict
// each other, when the reduced problem is singular, or when a held point misses its nominal
// point by more than POSITIONING_TOLERANCE after the step; the reason goes to
// gfit::detail::refuse.
//
// Kept for hosts that set them, not used by the step: the multiple-guesses flag, the number
// of guesses (60, 240 after `increase_num_guesses`) and the ambiguity limit (0.5) belong to
// a downhill-simplex shift search that this class does not provide.
#pragma once

#include "gfit/fitpoints/arrays.h"
#include "gfit/gfit_export.h"
#include "gfit/platform/arrays.h"
#include "gfit/platform/workplane.h"
#include "gfit/platform/xform.h"

class GFIT_EXPORT gfPointsToPlanes {
 public:
  static constexpr double POSITIONING_TOLERANCE = 1e-05;
  static constexpr double POSITIONING_WEIGHT = 1000.0;
  static constexpr double TINY_DOUBLE = 1e-07;

  gfPointsToPlanes();

  void reserve_bestfit(int n);
  // A measured point, its nominal point and nominal normal (any length; its direction is
  // used), the limits of the signed deviation (-DBL_MAX / +DBL_MAX: none) and the weight.
  // A weight of 0 is ignored.
  void add_bestfit(giPoint3 const& measured, giPoint3 const& nominal, giVector3 const& normal, double lower,
                   double upper, double weight);
  // Holds `measured` on `nominal` along the axes of `frame` whose state is 0.
  void add_positioning(giPoint3 const& measured, giWorkplane3 const& frame, giPoint3 const& nominal, int state_x,
                       int state_y, int state_z, int kind);
  // Holds `measured` on `nominal` (across a locked direction when one is set); `direction`
  // is recorded with the record.
  void add_positioning(giPoint3 const& measured, giPoint3 const& nominal, giVector3 const& direction, int kind);
  // The measured direction is to be turned onto the nominal one; rotations about it stay free.
  void lock_direction(giVector3 const& measured, giVector3 const& nominal, int kind);
  // Records each axis whose x is not -DBL_MAX; any of them makes the step translations only.
  void lock_rotations(giVector3 const& a, giVector3 const& b, giVector3 const& c);
  void set_fitting_points_attraction(double lambda) { attraction_ = lambda; }
  void increase_num_guesses() { num_guesses_ = 240; }
  void set_fit_dev_limit_for_ambiguity(double limit) { ambiguity_limit_ = limit; }

  // One step; 1 with S set, 0 without (see the file comment).
  int single_linear_step(giXform3& step);
  intcoDynArr const& overdetermined_constraints() const { return overdetermined_; }

  int n_bestfit() const { return bestfit_.count(); }
  int n_limits() const { return n_limits_; }
  double attraction() const { return attraction_; }
  int multiple_guesses() const { return multiple_guesses_; }
  int num_guesses() const { return num_guesses_; }
  double fit_dev_limit_for_ambiguity() const { return ambiguity_limit_; }

 protected:
  int single_linear_step_translates(giXform3& step);
  int single_linear_step_locked_axis(giXform3& step);
  int single_linear_step_locked_point(giXform3& step);
  int single_linear_step_free(giXform3& step);

 private:
  enum class Freedom { translations, about_axis, all };
  int solve_step(Freedom freedom, giXform3& step);

  gfPlaneAndPointcoDynArr positioning_;   // work-plane form: one record per held axis
  gfPlaneAndPointcoDynArr positioning2_;  // direction form
  gfPlaneAndPointcoDynArr bestfit_;
  giVector3coDynArr locked_directions_;   // pairs: measured, nominal
  intcoDynArr locked_direction_kinds_;
  giVector3coDynArr rotation_locks_;
  double attraction_ = 0.0;
  int multiple_guesses_ = 1;
  int num_guesses_ = 60;
  double ambiguity_limit_ = 0.5;
  int n_limits_ = 0;
  bool bad_input_ = false;
  intcoDynArr overdetermined_;
};
