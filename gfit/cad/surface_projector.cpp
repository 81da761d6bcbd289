#include "gfit/cad/surface_projector.h"

#include <cfloat>
#include <cmath>

namespace {
constexpr double on_surface = 1e-4;         // P closer than this to F lies on the surface
constexpr double normal_tolerance = 1e-5;   // distance (mm) and angle (rad) tolerances of normals
constexpr double parallel_limit = 0.01;     // |n x u| above this: P is not seen along the normal

double dot_or_zero(giUnitVec3 const& a, giVector3 const& b) { return a.invalid() ? 0.0 : a.dot(b); }
}  // namespace

gfSurfProjectorForFitting3::gfSurfProjectorForFitting3(tskSurf const& surface) : surface_(surface) {}
gfSurfProjectorForFitting3::~gfSurfProjectorForFitting3() = default;

void gfSurfProjectorForFitting3::rotate_and_project(giXform3 const& xform, gfProbedPoint3 const* probed,
                                                    gfProjectedPoint3& out) {
  if (!probed) return;
  giPoint3 const p = xform.transform(probed->measured_point());
  giUnitVec3 const approximate = probed->approximate_normal().invalid()
                                     ? giUnitVec3()
                                     : xform.transform(giVector3(probed->approximate_normal())).unit();
  double const r = probed->radius();

  // Which farther foot points could still beat this one? Those off the surface all score
  // |1 - r| (probing side) or 1 + r, and a tie keeps the earlier one. So with r >= 0 an accepted
  // foot point off the surface that scores |1 - r| (on the probing side, or any side for r = 0)
  // settles the answer at its own distance, and one on the surface that scores no more than
  // |1 - r| leaves only the foot points within 1e-4 of P to compare.
  auto cutoff = [&](tskSurfPoint const& foot) {
    giUnitVec3 n;
    if (!(r >= 0.0) || !surface_.normal(foot, normal_tolerance, normal_tolerance, n)) return DBL_MAX;
    giVector3 d = p - foot.point;
    if (foot.distance < on_surface) {
      giUnitVec3 oriented = dot_or_zero(approximate, n) < 0.0 ? -n : n;
      return std::fabs(oriented.dot(d) - r) <= std::fabs(1.0 - r) ? on_surface : DBL_MAX;
    }
    giUnitVec3 u = d.unit();
    bool accepted = n.cross(u).length() <= parallel_limit;
    return accepted && (r == 0.0 || dot_or_zero(approximate, u) > 0.0) ? foot.distance : DBL_MAX;
  };
  // Per-thread working storage: never shared, so concurrent calls on one projector cannot
  // meet; the kernel rebuilds the evaluators when the list last served another surface.
  static thread_local tskSurfPointList feet;
  surface_.project(p, feet, cutoff);

  double best = DBL_MAX;
  giPoint3 nominal;
  giUnitVec3 normal;
  for (int i = 0; i < feet.count(); ++i) {
    tskSurfPoint const& foot = feet[i];
    giUnitVec3 n;
    if (!surface_.normal(foot, normal_tolerance, normal_tolerance, n)) continue;
    giVector3 d = p - foot.point;
    double length = d.length();
    giUnitVec3 oriented;
    double score;
    if (length >= on_surface) {
      giUnitVec3 u = d.unit();
      if (n.cross(u).length() > parallel_limit) continue;
      // n' = +-u, so n'.u is +-1 exactly; taking the product instead would let |u|^2 = 1 +- 1 ulp
      // break the ties between equally good foot points that the first one must win.
      bool probing_side = dot_or_zero(approximate, u) > 0.0;
      oriented = probing_side ? u : -u;
      score = std::fabs((probing_side ? 1.0 : -1.0) - r);
    } else {
      oriented = dot_or_zero(approximate, n) < 0.0 ? -n : n;
      score = std::fabs(oriented.dot(d) - r);
    }
    if (score < best) {
      best = score;
      nominal = foot.point + oriented * r;
      normal = oriented;
    }
  }
  out = best < DBL_MAX ? gfProjectedPoint3(p, nominal, normal) : gfProjectedPoint3();
}

gfSurfaceForFitting::gfSurfaceForFitting(tskSurfPtr surface) : surface_(std::move(surface)) {}
gfSurfaceForFitting::~gfSurfaceForFitting() = default;

gfObjectForFitting* gfSurfaceForFitting::copy() const {
  return new gfSurfaceForFitting(surface_ ? surface_->copy() : nullptr);
}

gfProjectorForFitting3coPrf gfSurfaceForFitting::create_projector() {
  if (!surface_) return gfObjectForFitting::create_projector();
  return gfProjectorForFitting3coPrf(new gfSurfProjectorForFitting3(*surface_));
}

void gfSurfaceForFitting::transform(giXform3 const& xform) { tskSurf::transform(surface_, xform); }
