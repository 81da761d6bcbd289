// Reference-point-system (RPS) alignment: the 3-2-1 alignment of sheet-metal and
// body-in-white inspection (VDA 2032).
//
// Each RPS point holds only the directions it locks: a surface point usually its normal
// direction (Z of the car-body frame), a hole X and Y, a slot one of them. A record gives the
// measured point m, the nominal point q, a frame and which of the frame's three axes d_k are
// locked, and a weight w >= 0. The rigid motion x -> R x + t found minimises
//     sum over records, over their locked axes:  w (d_k . (R m + t - q))^2,
// so the weight multiplies the squared deviation (a weight of 4 counts like four copies of
// the record); records of weight 0 take no part. Exactly six independent locks (the 3-2-1
// rule) are interpolated: every locked deviation comes out 0.
//
// Method: every locked axis is one fixed plane record (through q, normal d_k, weight sqrt(w))
// of gfPointsToPlanes. Exact-rotation linear steps are taken from the current position until
// a step moves no measured point by more than 1e-12 of the points' extent (plus rounding of
// the coordinates), at most 50 steps. The planes do not move, so the steps are Gauss-Newton
// steps of the objective above and its stationary points are their fixed points.
//
// Before the first step the locks are checked to determine the motion: the normal matrix of
// the locked rows (rotations scaled by the RMS lever arm about the weighted centroid) must
// have no eigenvalue below 1e-7 of its largest. Otherwise the set is refused with
// gfReason::not_determined and the reason text names the free motions, in world coordinates:
// the free translations first ("translation along (0, 1, 0)", "translations normal to
// (0, 0, 1)", "all translations"), then each free rotation with its axis direction and a
// point on the axis. That text lives in fixed storage of the calling thread: a kept pointer
// stays valid, and the next such refusal on the thread rewrites it.
//
// Refusals (0, outputs untouched, reason recorded): no record, a non-finite or unset point,
// a non-finite or negative weight, no locked axis of positive weight, a set that leaves a
// motion free, or steps that do not settle.
#pragma once

#include "gfit/fitpoints/arrays.h"
#include "gfit/gfit_export.h"
#include "gfit/platform/workplane.h"
#include "gfit/platform/xform.h"

class GFIT_EXPORT gfRPSData {
 public:
  // An unset record: no point, world frame, nothing locked, weight 0.
  gfRPSData() = default;
  // `lock_x`, `lock_y`, `lock_z` non-zero: that axis of `frame` is locked.
  gfRPSData(giPoint3 const& measured, giPoint3 const& nominal, giWorkplane3 const& frame, int lock_x, int lock_y,
            int lock_z, double weight = 1.0)
      : measured_(measured), nominal_(nominal), frame_(frame), locks_{lock_x != 0, lock_y != 0, lock_z != 0},
        weight_(weight) {}

  giPoint3 const& measured_point() const { return measured_; }
  giPoint3 const& nominal_point() const { return nominal_; }
  giWorkplane3 const& frame() const { return frame_; }
  bool locked(int axis) const { return locks_[axis]; }
  // The frame's axis `axis` (0: x, 1: y, 2: the normal).
  giUnitVec3 const& direction(int axis) const {
    return axis == 0 ? frame_.x_axis() : (axis == 1 ? frame_.y_axis() : frame_.normal());
  }
  double weight() const { return weight_; }

 private:
  giPoint3 measured_;
  giPoint3 nominal_;
  giWorkplane3 frame_;
  bool locks_[3] = {false, false, false};
  double weight_ = 0.0;
};

// The RPS alignment (see the file comment). `result` takes measured points onto the nominal
// ones; `rms` is sqrt(sum w r^2 / sum w) and `max_deviation` the largest |r| over the locked
// deviations r after the motion. 1 on success, 0 refused with outputs untouched.
GFIT_EXPORT int gfRPSFitting(gfRPSDatacoDynArr const& data, giXform3& result, double& rms, double& max_deviation);
GFIT_EXPORT int gfRPSFitting(gfRPSDatacoDynArr const& data, giXform3& result);
