// Extremal circles of a planar profile, the narrowest cone of a set of directions and the
// convex hull of planar points.
//
// The circles take x y per point, or x y r with a probe ball radius r per point for the
// compensated forms: `--outer` makes the circumscribed circle enclose the balls (otherwise
// it bounds the centres pulled in by r); `--inside` makes the inscribed and min-max circles
// use |c - p| + r (the balls touched a bore from inside) instead of |c - p| - r.
#include <vector>

#include "tools/cli.h"

namespace gfit::cli {

namespace {

struct Profile {
  std::vector<giPoint2> points;
  std::vector<double> radii;  // empty: no probe radii given
};

// x y per point, or x y r; `flag` (--outer or --inside) only goes with radii.
Profile profile(PointTable const& t, Options const& options, std::string const& flag) {
  Profile p;
  for (int i = 0; i < t.rows(); ++i) {
    double const* row = &t.values[static_cast<size_t>(i) * t.columns];
    p.points.emplace_back(row[0], row[1]);
    if (t.columns == 3) p.radii.push_back(row[2]);
  }
  if (options.has(flag) && p.radii.empty()) throw UsageError{flag + " needs a third column of probe radii"};
  return p;
}

// A refused circle (the default one) prints the reason the entry recorded.
int circle_result(giCircle2 const& c, JsonObject& out) {
  int status = c.invalid() ? 0 : 1;
  out.add("status", status).add("centre", {c.centre().x(), c.centre().y()}).add("radius", c.radius());
  if (status == 0) out.add("reason", gfLastReasonText());
  return status;
}

int fit_min_circle(PointTable const& t, Options const& options, JsonObject& out) {
  Profile p = profile(t, options, "--outer");
  return circle_result(
      p.radii.empty() ? gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle(p.points)
                      : gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle_probed(p.points, p.radii,
                                                                                           options.has("--outer")),
      out);
}

int fit_max_circle(PointTable const& t, Options const& options, JsonObject& out) {
  Profile p = profile(t, options, "--inside");
  return circle_result(p.radii.empty() ? gfMaximumInscribedCircle::calculate_maximum_inscribed_circle(p.points)
                                       : gfMaximumInscribedCircle::calculate_maximum_inscribed_circle_probed(
                                             p.points, p.radii, options.has("--inside")),
                       out);
}

int fit_minmax_circle(PointTable const& t, Options const& options, JsonObject& out) {
  Profile p = profile(t, options, "--inside");
  double width = 0.0;
  giCircle2 c = p.radii.empty() ? gfMinMaxCircleFit::fit(p.points, width)
                                : gfMinMaxCircleFit::fit_probed(p.points, p.radii, options.has("--inside"), width);
  char const* reason = gfLastReasonText();  // before anything else can record one
  int status = c.invalid() ? 0 : 1;
  out.add("status", status).add("centre", {c.centre().x(), c.centre().y()}).add("radius", c.radius());
  out.add("width", width);
  if (status == 0) out.add("reason", reason);
  return status;
}

int convex_hull(PointTable const& t, Options const&, JsonObject& out) {
  giPoint2coDynArr hull;
  gf_calculate_convex_hull(points2(t), hull);
  std::vector<std::vector<double>> corners;
  for (giPoint2 const& p : hull) corners.push_back({p.x(), p.y()});
  out.add("status", 1).add("hull", corners).add("count", hull.count());
  return 1;
}

int cone_of_directions(PointTable const& t, Options const&, JsonObject& out) {
  giUnitVec3coDynArr directions(t.rows(), 16);
  for (int i = 0; i < t.rows(); ++i) {
    giUnitVec3 d(t.values[3 * i], t.values[3 * i + 1], t.values[3 * i + 2]);
    if (d.invalid()) throw UsageError{"line " + std::to_string(t.source_lines[i]) + ": a zero direction"};
    directions.append(d);
  }
  giUnitVec3 axis;
  giAngle angle;
  int status = gfContainmentCone(directions).solve(axis, angle);
  out.add("status", status)
      .add("axis", {axis.x(), axis.y(), axis.z()})
      .add("half_angle", angle.radians())
      .add("half_angle_degrees", angle.degrees());
  return status;
}

}  // namespace

std::vector<Element> extremal_elements() {
  return {
      {"min-circle", 0, 1, "minimum circumscribed circle (x y [r] per point)", {"--outer"}, fit_min_circle},
      {"max-circle", 0, 1, "maximum inscribed circle (x y [r] per point)", {"--inside"}, fit_max_circle},
      {"minmax-circle", 0, 1, "minimum-zone circle and its width (x y [r] per point)", {"--inside"},
       fit_minmax_circle},
      {"hull", 2, 1, "convex hull, counter-clockwise from the lowest point (x y per point)", {}, convex_hull},
      {"cone-of-directions", 3, 1, "narrowest cone holding the directions (x y z per direction)", {},
       cone_of_directions},
  };
}

}  // namespace gfit::cli
