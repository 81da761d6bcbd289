#include "gfit/utilities/vector_utils.h"

#include <cmath>

namespace {
// The x axis, or the y axis when |v.x| > |v.y|; z plays no part.
giVector3 reference_axis(giVector3 const& v) {
  return std::fabs(v.x()) > std::fabs(v.y()) ? giVector3(0.0, 1.0, 0.0) : giVector3(1.0, 0.0, 0.0);
}
}  // namespace

void gfUtils::ProjectPointsToPlane(giPoint3coDynArr const& points, giPoint3 const& origin, giVector3 const& normal,
                                   giPoint2coDynArr& out, giXform3* xform) {
  giXform3 frame(giXformLocal{}, origin, normal.unit(), reference_axis(normal).unit());
  out.clear(0);
  out.reserve(points.count());
  out.expand(points.count());
  giPoint2* o = out.data();
  giPoint3 const* p = points.data();
  for (int i = 0, n = points.count(); i < n; ++i) {
    giPoint3 q = frame.transform(p[i]);
    o[i] = giPoint2(q.x(), q.y());
  }
  if (xform) *xform = frame;
}

giUnitVec2 gfUtils::bisector(giUnitVec2 const& a, giUnitVec2 const& b) {
  if (giPoint2(a.x(), a.y()).coincident(giPoint2(b.x(), b.y()))) return a;
  giUnitVec2 candidate;
  if (std::fabs(a.x() * b.y() - a.y() * b.x()) < 0.5 && a.dot(b) < 0.0)
    candidate = giUnitVec2(b.y() - a.y(), a.x() - b.x());  // (b - a) turned clockwise
  else
    candidate = giUnitVec2(a.x() + b.x(), a.y() + b.y());
  if (quick_angle(a, candidate) > quick_angle(a, b)) candidate = -candidate;
  return candidate;
}

void gfUtils::get_orthogonal(giVector3 const& v, giVector3& out) { out = v.cross(reference_axis(v)).unit(); }

bool gfUtils::intersect_lines(giPoint2 const& p1, giVector2 const& d1, giPoint2 const& p2, giVector2 const& d2,
                              double& t) {
  double den = d1.x() * d2.y() - d1.y() * d2.x();
  if (std::fabs(den) < giTolerance) return false;
  giVector2 w = p2 - p1;
  t = (w.x() * d2.y() - w.y() * d2.x()) / den;
  return true;
}
