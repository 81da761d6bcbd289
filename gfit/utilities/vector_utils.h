// Small geometric helpers shared by the fits: projection of points into a plane, an
// orthogonal vector, the bisector and pseudo-angle of 2-D directions, the intersection of
// two 2-D lines, and the largest movement of measured points under a transform.
#pragma once

#include "gfit/gfit_export.h"
#include "gfit/platform/arrays.h"
#include "gfit/platform/xform.h"

class GFIT_EXPORT gfUtils {
 public:
  // The 2-D coordinates of `points` in the plane through `origin` with normal `normal`:
  // each point is mapped by the local frame (origin; z = the normal; x = the reference axis
  // made orthogonal to it) and its height above the plane dropped; out[i] belongs to
  // points[i]. The reference axis is the x axis, or the y axis when |normal.x| >
  // |normal.y|. `xform`, when given, receives the frame's transform, whose inverse maps 2-D
  // results (with z = 0) back into space.
  static void ProjectPointsToPlane(giPoint3coDynArr const& points, giPoint3 const& origin, giVector3 const& normal,
                                   giPoint2coDynArr& out, giXform3* xform);

  // The unit vector halving the counter-clockwise turn from a to b (the reflex side when
  // that turn exceeds a half-turn).
  static giUnitVec2 bisector(giUnitVec2 const& a, giUnitVec2 const& b);

  // out = unit(v x r), r the reference axis chosen as in ProjectPointsToPlane.
  static void get_orthogonal(giVector3 const& v, giVector3& out);

  // Intersects p1 + t d1 with p2 + u d2. False, with t untouched, when the raw cross product
  // of the directions is below 1.1920928955078125e-7 in magnitude (parallel).
  static bool intersect_lines(giPoint2 const& p1, giVector2 const& d1, giPoint2 const& p2, giVector2 const& d2,
                              double& t);

  // A pseudo-angle, monotonic in the counter-clockwise angle from a to b over [0, 2 pi):
  // -2 at 0, 0 at pi, just under 2 towards 2 pi. Only its order means anything.
  static double quick_angle(giUnitVec2 const& a, giUnitVec2 const& b) {
    double c = a.dot(b);
    double s = a.x() * b.y() - a.y() * b.x();
    return s >= 0.0 ? -(1.0 + c) : (1.0 + c);
  }
};
