// One linearised rigid step in the plane that brings measured points onto the tangent lines
// of their nominal points: the inner solver of the 2-D curve best fit, the planar
// counterpart of gfPointsToPlanes.
//
// Records (gfLineAndPoint) hold a measured point m, a point q of the nominal line and the
// line's unit normal n times the weight w (the weight's sign plays no part). The step
// m' = c + R(omega) (m - c) + t minimises, to first order in the angle omega,
//     sum w_i^2 (n_i . (m_i' - q_i))^2  +  lambda (sum w^2 / N) sum |m_i' - m_i|^2,
// where c is the |w|-weighted centroid of the measured points and lambda the fitting-points
// attraction. The unknowns are (omega l, t_x, t_y), l the RMS distance of the points from c,
// so that all three move the points by comparable amounts; the row of record i is
// w_i [((m_i - c) x n_i) / l, n_i^T] with x the scalar cross product of the plane.
//
// With lambda > 0 the motions the lines leave free (sliding along a straight profile,
// turning about a circle's centre) get the smallest movement. With lambda = 0 nothing is
// added: a normal matrix with an eigenvalue below 1e-7 of its largest is refused with
// gfReason::not_determined and the reason names the free motion ("translation along
// (1, 0)", "rotation about (x, y)"), in fixed storage of the calling thread that the next
// such refusal rewrites.
//
// The step is exactly rigid: the rotation by omega about c, then the translation t.
// `single_linear_step` returns 0 with the step untouched when there is no record of
// non-zero weight, a record is not finite (its normal unset or zero), or the motion is not
// determined; the reason goes to gfit::detail::refuse.
#pragma once

#include "gfit/fitpoints/arrays.h"
#include "gfit/gfit_export.h"
#include "gfit/platform/xform.h"

class GFIT_EXPORT gfPointsToLines {
 public:
  static constexpr double TINY_DOUBLE = 1e-07;

  gfPointsToLines();

  void reserve(int n);
  // A measured point, a point of its nominal line, the line's normal (any length: its
  // direction is used) and the weight; weight 0 is ignored.
  void add(giPoint2 const& measured, giPoint2 const& line_point, giVector2 const& normal, double weight);
  void set_fitting_points_attraction(double lambda) { attraction_ = lambda; }
  double attraction() const { return attraction_; }

  // One step; 1 with `step` set, 0 without (see the file comment).
  int single_linear_step(giXform2& step);

  gfLineAndPointcoDynArr const& records() const { return records_; }

 private:
  gfLineAndPointcoDynArr records_;
  double attraction_ = 0.0;
  bool bad_input_ = false;
};
