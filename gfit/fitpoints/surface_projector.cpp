#include "gfit/fitpoints/surface_projector.h"

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

  // A foot point seen along its normal from the probing side scores |1 - r|, which no farther
  // foot point can beat when r >= 0 (they all score |1 - r| or 1 + r): it decides the answer.
  auto decisive = [&](tskSurfPoint const& foot) {
    if (!(r >= 0.0) || foot.distance < on_surface) return false;
    giUnitVec3 n;
    if (!surface_.normal(foot, normal_tolerance, normal_tolerance, n)) return false;
    giUnitVec3 u = (p - foot.point).unit();
    return n.cross(u).length() <= parallel_limit && dot_or_zero(approximate, u) > 0.0;
  };
  surface_.project(p, feet_, decisive);

  double best = DBL_MAX;
  giPoint3 nominal;
  giUnitVec3 normal;
  for (int i = 0; i < feet_.count(); ++i) {
    tskSurfPoint const& foot = feet_[i];
    giUnitVec3 n;
    if (!surface_.normal(foot, normal_tolerance, normal_tolerance, n)) continue;
    giVector3 d = p - foot.point;
    double length = d.length();
    giUnitVec3 oriented;
    double score;
    if (length >= on_surface) {
      giUnitVec3 u = d.unit();
      if (n.cross(u).length() > parallel_limit) continue;
      oriented = dot_or_zero(approximate, u) > 0.0 ? u : -u;
      score = std::fabs(oriented.dot(u) - r);
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
