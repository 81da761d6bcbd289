// Alignment of measured points of a section or profile to a nominal 2-D curve in the
// least-squares sense: the surface best fit transposed to the plane.
//
// Each step projects every fit point under the current transformation onto the nominal
// curve (through a gfFitPointProjector2), hands the valid projections to gfPointsToLines as
// tangent-line records with their weights and the fitting-points attraction 0.01, and applies
// the rigid step it returns. `fit` starts from the identity, normalises the weights to a mean
// absolute value of 1, and stops when a step moves no valid measured point by `tol` or more,
// or after 50 steps. The attraction gives the motions a profile leaves free (turning about a
// full circle's centre) the smallest movement, so they stay where they were.
//
// Refusals (0, reason through gfit::detail::refuse): no projector, a weight that is not
// finite, fewer than three valid projections, and measured points all on one straight line
// (the smallest singular value of the centred valid points at most 1e-12 of the largest):
// such points can only have been taken on a straight stretch, along which the motion is not
// determined. `fit` then leaves its outputs untouched when it refuses before the first
// step. Points that do not project (an invalid record) are skipped and counted.
//
// The nominal curve here is gfNominalProfile2, a chain of line segments and circular arcs
// projected exactly; any other curve supplies its own gfFitPointProjector2.
#pragma once

#include "gfit/alignment/points_to_lines.h"
#include "gfit/fitpoints/arrays.h"
#include "gfit/fitpoints/fit_point.h"
#include "gfit/gfit_export.h"
#include "gfit/platform/arrays.h"
#include "gfit/platform/xform.h"

// Projects points onto one nominal 2-D curve.
class GFIT_EXPORT gfFitPointProjector2 {
 public:
  // out = (point, the nearest point of the curve, the curve's unit normal there); `out` is
  // made invalid when the point has no foot.
  virtual void project(giPoint2 const& point, gfProjectedPoint2& out) const = 0;
  virtual ~gfFitPointProjector2();
};

// A measured point of a section or profile.
class GFIT_EXPORT gfMeasuredPoint2 : public gfFitPoint2 {
 public:
  explicit gfMeasuredPoint2(giPoint2 const& measured) : measured_(measured) {}
  void initial_projection(gfProjectedPoint2& out, gfFitPointProjector2 const* projector) const override;
  // The point moved by `xform`, projected; no projector leaves `out` as it was.
  void project_from_position(giXform2 const& xform, gfProjectedPoint2& out,
                             gfFitPointProjector2 const* projector) const override;
  giPoint2 const& measured_point() const { return measured_; }

 private:
  giPoint2 measured_;
};

// A nominal profile: line segments and circular arcs, in any order. The normal of an
// element points to the right of its direction of travel (outward for a counter-clockwise
// closed profile). A point whose nearest foot is an end of an element gets the direction
// from the foot to the point as its normal, signed like the element's normal; ties between
// elements go to the one added first.
class GFIT_EXPORT gfNominalProfile2 : public gfFitPointProjector2 {
 public:
  // False (nothing added) for a non-finite or zero-length segment.
  bool add_segment(giPoint2 const& from, giPoint2 const& to);
  // The arc about `centre` from `start` radians through `sweep` radians (positive:
  // counter-clockwise, |sweep| <= 2 pi). False for a non-finite or degenerate arc.
  bool add_arc(giPoint2 const& centre, double radius, double start, double sweep);
  int count() const { return static_cast<int>(kinds_.count()); }
  void project(giPoint2 const& point, gfProjectedPoint2& out) const override;

 private:
  intcoDynArr kinds_;      // 0: segment (a, b), 1: arc (centre, (radius, 0), (start, sweep))
  doublecoDynArr values_;  // six values per element
};

class GFIT_EXPORT gfCurveBestfit2 {
 public:
  static constexpr int max_steps = 50;
  static constexpr double fitting_points_attraction = 0.01;

  gfCurveBestfit2();

  void set_projector(gfFitPointProjector2 const* projector) { projector_ = projector; }
  // A fit point with its weight (0: the call is dropped).
  void add_point(gfFitPoint2coPrf const& point, double weight = 1.0);

  // One step; `step` receives it. 1 on success, 0 when no step was taken.
  int do_iteration(giXform2& step);
  // See the file comment: 1 when the fit ran its course, 0 when refused or a step failed.
  // The deviations are those of the valid records after the last step.
  int fit(double tol, giXform2& result, double& max_distance, double& max_signed, double& min_signed, int& n_invalid);

  giXform2 const& get_transformation() const { return transformation_; }
  gfProjectedPoint2coDynArr const& get_pointcloud() const { return cloud_; }
  int nb_points() const { return points_.count(); }
  int steps_taken() const { return steps_taken_; }

 private:
  void reproject_all_points();
  int check_points();

  gfFitPoint2PtrcoPageArr points_;
  doublecoPageArr weights_;
  gfProjectedPoint2coDynArr cloud_;
  giXform2 transformation_;
  gfFitPointProjector2 const* projector_ = nullptr;
  int steps_taken_ = 0;
};
