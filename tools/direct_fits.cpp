// Closed-form circles, ellipses and spheres. The circle and the ellipse are fitted in the
// plane for x y files and in space (in the plane of the points) for x y z files.
#include "tools/cli.h"

namespace gfit::cli {

namespace {

// The CLI's status (1 fitted, 0 not) and the direct fit's own status name.
int add_status(JsonObject& out, gfDirectFitStatus status) {
  int ok = status == gfDirectFitStatus::fitted ? 1 : 0;
  out.add("status", ok).add("status_name", gf_direct_fit_status_name(status));
  return ok;
}

JsonObject& add_point(JsonObject& out, char const* key, giPoint2 const& p) { return out.add(key, {p.x(), p.y()}); }
JsonObject& add_point(JsonObject& out, char const* key, giPoint3 const& p) {
  return out.add(key, {p.x(), p.y(), p.z()});
}
JsonObject& add_vector(JsonObject& out, char const* key, giVector2 const& v) { return out.add(key, {v.x(), v.y()}); }
JsonObject& add_vector(JsonObject& out, char const* key, giVector3 const& v) {
  return out.add(key, {v.x(), v.y(), v.z()});
}

int fit_direct_circle(PointTable const& t, Options const&, JsonObject& out) {
  if (t.columns == 2) {
    gfDirectCircle2 c(points2(t));
    int ok = add_status(out, c.status());
    add_point(out, "centre", c.centre()).add("radius", c.radius()).add("chi", c.chi());
    if (ok) out.add("distribution_quality", Quality::distribution_quality_circle(points2(t), c.centre(), c.radius()));
    return ok;
  }
  giPoint3coDynArr pts = points3(t);
  gfDirectCircle3 c(pts);
  int ok = add_status(out, c.status());
  add_point(out, "centre", c.centre()).add("radius", c.radius());
  add_vector(out, "normal", c.workplane().normal()).add("chi", c.chi());
  if (ok)
    out.add("distribution_quality",
            Quality::distribution_quality_circle3(pts, c.centre(), c.workplane().normal(), c.radius()));
  return ok;
}

template <class Ellipse>
void add_axes(JsonObject& out, Ellipse const& e) {
  add_point(out, "centre", e.centre()).add("a_length", e.a_length()).add("b_length", e.b_length());
  add_vector(out, "a_axis", e.a_axis());
  add_vector(out, "b_axis", e.b_axis());
}

int fit_direct_ellipse(PointTable const& t, Options const&, JsonObject& out) {
  if (t.columns == 2) {
    gfDirectEllipse2 e(points2(t));
    int ok = add_status(out, e.status());
    add_axes(out, e);
    out.add("angle", e.angle().radians()).add("chi", e.chi());
    if (ok)
      out.add("distribution_quality", Quality::distribution_quality_ellipse(
                                          points2(t), e.centre(), e.a_length(), e.b_length(), e.angle().radians()));
    return ok;
  }
  giPoint3coDynArr pts = points3(t);
  gfDirectEllipse3 e(pts);
  int ok = add_status(out, e.status());
  add_axes(out, e);
  add_vector(out, "normal", e.workplane().normal()).add("chi", e.chi());
  return ok;
}

int fit_direct_sphere(PointTable const& t, Options const&, JsonObject& out) {
  giPoint3coDynArr pts = points3(t);
  gfSphereFit s(pts);
  int ok = add_status(out, s.status());
  add_point(out, "centre", s.centre()).add("radius", s.radius()).add("chi", s.chi());
  if (ok) out.add("distribution_quality", Quality::distribution_quality_sphere(pts, s.centre(), s.radius()));
  return ok;
}

}  // namespace

std::vector<Element> direct_fit_elements() {
  return {
      {"direct-circle", 0, 2, "closed-form circle (x y, or x y z for a circle in space)", {}, fit_direct_circle},
      {"direct-ellipse", 0, 2, "closed-form ellipse, a circle below 4 points (x y, or x y z)", {}, fit_direct_ellipse},
      {"direct-sphere", 3, 4, "closed-form (algebraic) sphere (x y z per point)", {}, fit_direct_sphere},
  };
}

}  // namespace gfit::cli
