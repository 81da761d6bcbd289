// Cones, and probe-compensated cylinders and cones.
#include <cmath>
#include <fstream>

#include "tools/cli.h"

namespace gfit::cli {

namespace {

void add_cone(JsonObject& out, int status, giPoint3 const& apex, giUnitVec3 const& axis, double half_angle,
              double residual) {
  out.add("status", status);
  if (status == 1)
    out.add("apex", {apex.x(), apex.y(), apex.z()})
        .add("axis", {axis.x(), axis.y(), axis.z()})
        .add("half_angle", half_angle)
        .add("half_angle_degrees", half_angle * 180.0 / giPi)
        .add("residual", residual);
}

int fit_cone(PointTable const& t, Options const& options, JsonObject& out) {
  giPoint3coDynArr points = points3(t);
  const AxisGuide guide = axis_guide(options, points.count());
  giPoint3 apex;
  giUnitVec3 axis;
  double half_angle = 0.0, residual = 0.0;
  const int status =
      options.has("--normals")
          ? gfLeastSquareEvaluator::evaluate_cone(points, guide.normals, guide.angle, apex, axis, half_angle,
                                                  residual, 0)
          : gfLeastSquareEvaluator::evaluate_cone(points, apex, axis, half_angle, residual, guide.guess, guide.angle,
                                                  0);
  add_cone(out, status, apex, axis, half_angle, residual);
  if (status == 1) out.add("distribution_quality", Quality::distribution_quality_cone(points, apex, axis, half_angle));
  return status;
}

int fit_probed_cylinder(PointTable const& t, Options const& options, JsonObject& out) {
  giPoint3coDynArr points = points3(t);
  const doublecoDynArr radii = probe_radii(t, 3, options);
  const int inside = options.has("--inside") ? 1 : 0;
  const AxisGuide guide = axis_guide(options, points.count());
  giPoint3 point;
  giUnitVec3 direction;
  double radius = 0.0, residual = 0.0;
  const int status = options.has("--normals")
                         ? gfLeastSquareEvaluator::evaluate_probed_cylinder(points, radii, inside, guide.normals,
                                                                            guide.angle, point, direction, radius,
                                                                            residual, 0)
                         : gfLeastSquareEvaluator::evaluate_probed_cylinder(points, radii, inside, point, direction,
                                                                            radius, residual, guide.guess,
                                                                            guide.angle, 0);
  add_cylinder_result(out, status, point, direction, radius, residual);
  if (status == 1)
    out.add("distribution_quality",
            Quality::distribution_quality_probed_cylinder(points, radii, inside, point, direction, radius));
  return status;
}

// The contact estimates of --contacts FILE: x y z per line, one per ball centre.
giPoint3coDynArr read_contacts(Options const& options, int expected) {
  if (!options.has("--contacts")) return giPoint3coDynArr();
  std::string const& path = options.get("--contacts");
  std::ifstream in(path);
  if (!in) throw UsageError{"cannot read contacts file " + path};
  PointTable table;
  std::string error;
  if (!read_points(in, 3, table, error)) throw UsageError{"contacts file " + path + ", " + error};
  if (table.rows() != expected)
    throw UsageError{"contacts file " + path + " has " + std::to_string(table.rows()) + " points for " +
                     std::to_string(expected) + " ball centres"};
  return points3(table);
}

int fit_probed_cone(PointTable const& t, Options const& options, JsonObject& out) {
  giPoint3coDynArr points = points3(t);
  const doublecoDynArr radii = probe_radii(t, 3, options);
  const int inside = options.has("--inside") ? 1 : 0;
  const AxisGuide guide = axis_guide(options, points.count());
  const giPoint3coDynArr contacts = read_contacts(options, points.count());
  giPoint3 apex;
  giUnitVec3 axis;
  double half_angle = 0.0, residual = 0.0;
  const int status = options.has("--normals")
                         ? gfLeastSquareEvaluator::evaluate_probed_cone(points, radii, inside, contacts, guide.normals,
                                                                        guide.angle, apex, axis, half_angle, residual,
                                                                        0)
                         : gfLeastSquareEvaluator::evaluate_probed_cone(points, radii, inside, contacts, apex, axis,
                                                                        half_angle, residual, guide.guess,
                                                                        guide.angle, 0);
  add_cone(out, status, apex, axis, half_angle, residual);
  if (status == 1)
    out.add("distribution_quality",
            Quality::distribution_quality_probed_cone(points, radii, inside, contacts, apex, axis, half_angle));
  return status;
}

}  // namespace

std::vector<Element> cone_elements() {
  Element probed_cylinder{"probed-cylinder", 3, 5,
                          "cylinder touched by a probe ball: x y z [r] per ball centre, or --radius R; --inside for a "
                          "bore; --normals FILE or --guess x,y,z with --angle DEG as for cylinder",
                          {"--radius", "--inside", "--normals", "--guess", "--angle"},
                          fit_probed_cylinder};
  probed_cylinder.max_columns = 4;
  Element probed_cone{"probed-cone", 3, 6,
                      "cone touched by a probe ball: x y z [r], or --radius R; --inside when the centres lie inside; "
                      "--contacts FILE (estimated touch points, one per centre, which decide each centre's side); "
                      "--normals FILE or --guess x,y,z with --angle DEG",
                      {"--radius", "--inside", "--contacts", "--normals", "--guess", "--angle"},
                      fit_probed_cone};
  probed_cone.max_columns = 4;
  return {
      {"cone", 3, 6,
       "least-squares cone: apex, axis towards the apex, half-angle; --normals FILE (one outward or inward normal "
       "per point) or --guess x,y,z, with --angle DEG (default 10)",
       {"--normals", "--guess", "--angle"},
       fit_cone},
      probed_cylinder,
      probed_cone,
  };
}

}  // namespace gfit::cli
