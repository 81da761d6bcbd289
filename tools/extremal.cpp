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

// The circle's result; a refused circle (the default one) gives the reason the entry recorded.
// Without probe radii each point's deviation is its signed distance from the circle (the
// least-squares circle's distance function), so form is the roundness the circle gives.
int circle_result(giCircle2 const& c, Profile const& p, char const* reason, FitResult& out) {
  if (c.invalid()) {
    out.reason = reason;
    return 0;
  }
  out.parameters["centre"] = xy(c.centre());
  out.parameters["radius"] = c.radius();
  out.parameters["diameter"] = 2.0 * c.radius();
  if (p.radii.empty()) {
    giPoint2coDynArr points(static_cast<int>(p.points.size()), 16);
    for (giPoint2 const& q : p.points) points.append(q);
    gfLeastSquareCircle2 problem(points);
    out.deviations = distances(problem, mlVector{c.centre().x(), c.centre().y(), c.radius()});
  }
  return 1;
}

int fit_min_circle(Input const& in, Options const& options, FitResult& out) {
  Profile p = profile(in.points, options, "--outer");
  giCircle2 c = p.radii.empty() ? gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle(p.points)
                                : gfMinimumCircumscribedCircle::fit_smallest_enclosing_circle_probed(
                                      p.points, p.radii, options.has("--outer"));
  return circle_result(c, p, gfLastReasonText(), out);
}

int fit_max_circle(Input const& in, Options const& options, FitResult& out) {
  Profile p = profile(in.points, options, "--inside");
  giCircle2 c = p.radii.empty() ? gfMaximumInscribedCircle::calculate_maximum_inscribed_circle(p.points)
                                : gfMaximumInscribedCircle::calculate_maximum_inscribed_circle_probed(
                                      p.points, p.radii, options.has("--inside"));
  return circle_result(c, p, gfLastReasonText(), out);
}

int fit_minmax_circle(Input const& in, Options const& options, FitResult& out) {
  Profile p = profile(in.points, options, "--inside");
  double width = 0.0;
  giCircle2 c = p.radii.empty() ? gfMinMaxCircleFit::fit(p.points, width)
                                : gfMinMaxCircleFit::fit_probed(p.points, p.radii, options.has("--inside"), width);
  const int status = circle_result(c, p, gfLastReasonText(), out);
  if (status) out.extra["width"] = width;
  return status;
}

int convex_hull(Input const& in, Options const&, FitResult& out) {
  giPoint2coDynArr hull;
  gf_calculate_convex_hull(points2(in.points), hull);
  Json corners = Json::array();
  for (giPoint2 const& p : hull) corners.push_back(xy(p));
  out.parameters["hull"] = corners;
  out.parameters["count"] = hull.count();
  return 1;
}

int cone_of_directions(Input const& in, Options const&, FitResult& out) {
  PointTable const& t = in.points;
  giUnitVec3coDynArr directions(t.rows(), 16);
  for (int i = 0; i < t.rows(); ++i) {
    giUnitVec3 d(t.values[3 * i], t.values[3 * i + 1], t.values[3 * i + 2]);
    if (d.invalid()) throw UsageError{"line " + std::to_string(t.source_lines[i]) + ": a zero direction"};
    directions.append(d);
  }
  giUnitVec3 axis;
  giAngle angle;
  const int status = gfContainmentCone(directions).solve(axis, angle);
  if (status != 1) return status;
  out.parameters["axis"] = xyz(giVector3(axis));
  add_angle(out.parameters, "half_angle", angle.radians());
  return status;
}

}  // namespace

std::vector<Element> extremal_elements() {
  const OptionSpec outer{"--outer", "", "with probe radii: the circle encloses the balls"};
  const OptionSpec inside{"--inside", "", "with probe radii: the balls touched a bore from inside"};
  return {
      {"min-circle", 0, 1, "minimum circumscribed circle (x y [r] per point)", {outer}, fit_min_circle, 0,
       "data/roundness.xy"},
      {"max-circle", 0, 1, "maximum inscribed circle (x y [r] per point)", {inside}, fit_max_circle, 0,
       "data/roundness.xy"},
      {"minmax-circle", 0, 1, "minimum-zone circle and its width (x y [r] per point)", {inside}, fit_minmax_circle, 0,
       "data/roundness.xy"},
      {"hull", 2, 1, "convex hull, counter-clockwise from the lowest point (x y per point)", {}, convex_hull, 0,
       "outline.xy"},
      {"cone-of-directions", 3, 1, "narrowest cone holding the directions (x y z per direction)", {},
       cone_of_directions, 0, "normals.xyz"},
  };
}

}  // namespace gfit::cli
