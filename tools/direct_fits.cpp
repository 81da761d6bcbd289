// Closed-form circles, ellipses and spheres. The circle and the ellipse are fitted in the
// plane for x y files and in space (in the plane of the points) for x y z files.
#include <cmath>

#include "tools/cli.h"

namespace gfit::cli {

namespace {

// The CLI's status (1 fitted, 0 not), with the direct fit's own status name beside it.
int direct_status(FitResult& out, gfDirectFitStatus status) {
  out.extra["status_name"] = gf_direct_fit_status_name(status);
  if (status != gfDirectFitStatus::fitted) out.reason = std::string("the closed-form fit gave '") +
                                                        gf_direct_fit_status_name(status) + "'";
  return status == gfDirectFitStatus::fitted ? 1 : 0;
}

int fit_direct_circle(Input const& in, Options const&, FitResult& out) {
  PointTable const& t = in.points;
  if (t.columns == 2) {
    giPoint2coDynArr points = points2(t);
    gfDirectCircle2 c(points);
    if (!direct_status(out, c.status())) return 0;
    out.parameters["centre"] = xy(c.centre());
    out.parameters["radius"] = c.radius();
    out.parameters["diameter"] = 2.0 * c.radius();
    gfLeastSquareCircle2 problem(points);
    out.deviations = distances(problem, mlVector{c.centre().x(), c.centre().y(), c.radius()});
    out.extra["chi"] = c.chi();
    out.extra["distribution_quality"] = Quality::distribution_quality_circle(points, c.centre(), c.radius());
    return 1;
  }
  giPoint3coDynArr points = points3(t);
  gfDirectCircle3 c(points);
  if (!direct_status(out, c.status())) return 0;
  const giUnitVec3 normal = canonical_normal(c.workplane().normal());
  out.parameters["centre"] = xyz(c.centre());
  out.parameters["normal"] = xyz(giVector3(normal));
  out.parameters["radius"] = c.radius();
  out.parameters["diameter"] = 2.0 * c.radius();
  circle3_deviations(points, c.centre(), normal, c.radius(), out);
  out.extra["chi"] = c.chi();
  out.extra["distribution_quality"] = Quality::distribution_quality_circle3(points, c.centre(), normal, c.radius());
  return 1;
}

int fit_direct_ellipse(Input const& in, Options const&, FitResult& out) {
  PointTable const& t = in.points;
  if (t.columns == 2) {
    giPoint2coDynArr points = points2(t);
    gfDirectEllipse2 e(points);
    if (!direct_status(out, e.status())) return 0;
    const giVector2 a_axis = e.a_axis();
    ellipse_result(points, e.centre(), e.a_length(), e.b_length(), std::atan2(a_axis.y(), a_axis.x()), out);
    out.extra["chi"] = e.chi();
    out.extra["distribution_quality"] = Quality::distribution_quality_ellipse(points, e.centre(), e.a_length(),
                                                                              e.b_length(), e.angle().radians());
    return 1;
  }
  // In space the ellipse's plane has no x axis to measure an angle from: its axes are given
  // as directions, and there is no distance function of the library to give deviations.
  giPoint3coDynArr points = points3(t);
  gfDirectEllipse3 e(points);
  if (!direct_status(out, e.status())) return 0;
  const bool swap = std::fabs(e.a_length()) < std::fabs(e.b_length());
  out.parameters["centre"] = xyz(e.centre());
  out.parameters["normal"] = xyz(giVector3(canonical_normal(e.workplane().normal())));
  out.parameters["semi_axes"] = swap ? Json::array({std::fabs(e.b_length()), std::fabs(e.a_length())})
                                     : Json::array({std::fabs(e.a_length()), std::fabs(e.b_length())});
  out.parameters["major_axis"] = xyz(giVector3(swap ? e.b_axis() : e.a_axis()));
  out.parameters["minor_axis"] = xyz(giVector3(swap ? e.a_axis() : e.b_axis()));
  out.extra["chi"] = e.chi();
  return 1;
}

int fit_direct_sphere(Input const& in, Options const&, FitResult& out) {
  giPoint3coDynArr points = points3(in.points);
  gfSphereFit s(points);
  if (!direct_status(out, s.status())) return 0;
  out.parameters["centre"] = xyz(s.centre());
  out.parameters["radius"] = s.radius();
  out.parameters["diameter"] = 2.0 * s.radius();
  gfLeastSquareSphere problem(points);
  out.deviations = distances(problem, mlVector{s.centre().x(), s.centre().y(), s.centre().z(), s.radius()});
  out.extra["chi"] = s.chi();
  out.extra["distribution_quality"] = Quality::distribution_quality_sphere(points, s.centre(), s.radius());
  return 1;
}

}  // namespace

std::vector<Element> direct_fit_elements() {
  return {
      {"direct-circle", 0, 2, "closed-form circle (x y, or x y z for a circle in space)", {}, fit_direct_circle},
      {"direct-ellipse", 0, 2, "closed-form ellipse, a circle below 4 points (x y, or x y z)", {}, fit_direct_ellipse, 0,
       "data/ellipse.xy"},
      {"direct-sphere", 3, 4, "closed-form (algebraic) sphere (x y z per point)", {}, fit_direct_sphere},
  };
}

}  // namespace gfit::cli
