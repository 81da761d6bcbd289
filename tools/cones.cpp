// Cones, and probe-compensated cylinders and cones.
#include <cmath>

#include "tools/cli.h"

namespace gfit::cli {

namespace {

int fit_cone(Input const& in, Options const& options, FitResult& out) {
  giPoint3coDynArr points = points3(in.points);
  const AxisGuide guide = axis_guide(in, options);
  giPoint3 apex;
  giUnitVec3 axis;
  double half_angle = 0.0, residual = 0.0;
  const int status =
      guide.normals.count() > 0
          ? gfLeastSquareEvaluator::evaluate_cone(points, guide.normals, guide.angle, apex, axis, half_angle,
                                                  residual, 0)
          : gfLeastSquareEvaluator::evaluate_cone(points, apex, axis, half_angle, residual, guide.guess, guide.angle,
                                                  0);
  if (status != 1) return status;
  out.residual = residual;
  check_guess(guide, axis, out);
  gfLeastSquareCone problem(points);
  cone_result(points, apex, axis, half_angle, problem, out);
  out.extra["distribution_quality"] = Quality::distribution_quality_cone(points, apex, axis, half_angle);
  gfElementUncertainty u;
  if (gfLeastSquareUncertainty::cone(points, apex, axis, half_angle, u)) out.extra["uncertainty"] = uncertainty_json(u, "cone");
  return status;
}

int fit_probed_cylinder(Input const& in, Options const& options, FitResult& out) {
  giPoint3coDynArr points = points3(in.points);
  const doublecoDynArr radii = probe_radii(in.points, 3, options);
  const int inside = options.has("--inside") ? 1 : 0;
  const AxisGuide guide = axis_guide(in, options);
  giPoint3 point;
  giUnitVec3 direction;
  double radius = 0.0, residual = 0.0;
  const int status = guide.normals.count() > 0
                         ? gfLeastSquareEvaluator::evaluate_probed_cylinder(points, radii, inside, guide.normals,
                                                                            guide.angle, point, direction, radius,
                                                                            residual, 0)
                         : gfLeastSquareEvaluator::evaluate_probed_cylinder(points, radii, inside, point, direction,
                                                                            radius, residual, guide.guess,
                                                                            guide.angle, 0);
  if (status != 1) return status;
  out.residual = residual;
  check_guess(guide, direction, out);
  gfLeastSquareProbedCylinder problem(points, radii, inside);
  cylinder_result(points, point, direction, radius, problem, out);
  out.extra["distribution_quality"] =
      Quality::distribution_quality_probed_cylinder(points, radii, inside, point, direction, radius);
  return status;
}

// The contact estimates of --contacts FILE: x y z per line, one per ball centre.
giPoint3coDynArr read_contacts(Options const& options, int expected) {
  if (!options.has("--contacts")) return giPoint3coDynArr();
  std::string const& path = options.get("--contacts");
  Input file;
  std::string error;
  if (!read_input(path, InputOptions{}, 3, 0, file, error)) throw UsageError{"contacts file " + error};
  if (file.points.rows() != expected)
    throw UsageError{"contacts file " + path + " has " + std::to_string(file.points.rows()) + " points for " +
                     std::to_string(expected) + " ball centres"};
  return points3(file.points);
}

int fit_probed_cone(Input const& in, Options const& options, FitResult& out) {
  giPoint3coDynArr points = points3(in.points);
  const doublecoDynArr radii = probe_radii(in.points, 3, options);
  const int inside = options.has("--inside") ? 1 : 0;
  const AxisGuide guide = axis_guide(in, options);
  const giPoint3coDynArr contacts = read_contacts(options, points.count());
  giPoint3 apex;
  giUnitVec3 axis;
  double half_angle = 0.0, residual = 0.0;
  const int status = guide.normals.count() > 0
                         ? gfLeastSquareEvaluator::evaluate_probed_cone(points, radii, inside, contacts, guide.normals,
                                                                        guide.angle, apex, axis, half_angle, residual,
                                                                        0)
                         : gfLeastSquareEvaluator::evaluate_probed_cone(points, radii, inside, contacts, apex, axis,
                                                                        half_angle, residual, guide.guess,
                                                                        guide.angle, 0);
  if (status != 1) return status;
  out.residual = residual;
  check_guess(guide, axis, out);
  gfLeastSquareProbedCone problem(points, radii, inside);
  cone_result(points, apex, axis, half_angle, problem, out);
  if (contacts.count() > 0) {
    // Each centre's side came from the contacts: the one-flag distances would not be the fit's.
    out.deviations.clear();
    out.residual = residual;
  }
  out.extra["distribution_quality"] =
      Quality::distribution_quality_probed_cone(points, radii, inside, contacts, apex, axis, half_angle);
  return status;
}

}  // namespace

std::vector<OptionSpec> probe_options(std::string const& inside_help) {
  return {{"--radius", "R", "probe ball radius of every point (else a last column x y z r)"},
          {"--inside", "", inside_help}};
}

std::vector<Element> cone_elements() {
  std::vector<OptionSpec> cylinder_options = probe_options("the ball centres lie inside (a bore)");
  for (OptionSpec const& o : axis_options()) cylinder_options.push_back(o);
  std::vector<OptionSpec> cone_options = probe_options("the ball centres lie inside (a conical seat)");
  cone_options.push_back({"--contacts", "FILE", "estimated touch points, one per centre, which decide each centre's side"});
  for (OptionSpec const& o : axis_options()) cone_options.push_back(o);
  return {
      {"cone", 3, 6, "least-squares cone: apex, axis towards the apex, half-angle", axis_options(), fit_cone, 0,
       "data/cone.xyz --guess 0,0.6,0.8 --angle 5"},
      {"probed-cylinder", 3, 5, "cylinder touched by a probe ball (x y z [r] per ball centre)", cylinder_options,
       fit_probed_cylinder, 4, "centres.xyz --radius 1 --inside"},
      {"probed-cone", 3, 6, "cone touched by a probe ball (x y z [r] per ball centre)", cone_options, fit_probed_cone, 4,
       "data/cone.xyz --radius 0.5 --inside"},
  };
}

}  // namespace gfit::cli
