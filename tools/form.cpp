// `gfit form plane|line3|sphere|cylinder FILE`: the form error of the points by the least
// squares and by the minimum zone, side by side, with the element of each and the contact
// points of the zone.
#include <iostream>

#include "tools/cli.h"

namespace gfit::cli {

namespace {

Json direction(giUnitVec3 const& u) { return u.invalid() ? Json::array() : xyz(giVector3(u)); }

Json contact_points(giPoint3coDynArr const& points, intcoDynArr const& idx) {
  Json rows = Json::array();
  for (int i : idx) rows.push_back(xyz(points[i]));
  return rows;
}

}  // namespace

int run_form(Command const& command) {
  std::string const& kind = command.args[0];
  int (*fit)(giPoint3coDynArr const&, gfMinimumZone&) = nullptr;
  if (kind == "plane") fit = gfMinimumZoneFit::plane;
  if (kind == "line3") fit = gfMinimumZoneFit::line3;
  if (kind == "sphere") fit = gfMinimumZoneFit::sphere;
  if (kind == "cylinder") fit = gfMinimumZoneFit::cylinder;
  if (!fit) {
    std::cerr << "gfit: form of '" << kind << "' is not available (plane, line3, sphere, cylinder)\n";
    return 2;
  }
  Input input;
  std::string error;
  if (!read_input(command.args[1], command.input, 3, 0, input, error)) {
    std::cerr << "gfit: " << error << "\n";
    return 2;
  }
  PointTable const& table = input.points;
  giPoint3coDynArr points = points3(table);
  gfMinimumZone zone;
  const int status = fit(points, zone);
  Json out;
  out["schema"] = kSchema;
  out["element"] = kind;
  out["status"] = status;
  if (status == gfMinimumZoneFit::refused) {
    out["reason"] = gfLastReasonText();
    out["points"] = table.rows();
    std::cout << out.dump() << "\n";
    std::cerr << "gfit: the " << kind << " form was refused: " << gfLastReasonText() << "\n";
    return 1;
  }
  const bool radial = kind == "sphere" || kind == "cylinder";
  char const* axis_key = kind == "plane" ? "normal" : "axis";
  // The same names as the fits' parameters, for each of the two elements.
  auto element = [&](giPoint3 const& point, giUnitVec3 const& u, double radius) {
    Json e;
    e[kind == "sphere" ? "centre" : "point"] = xyz(point);
    if (kind != "sphere") e[axis_key] = direction(u);
    if (radial) e["radius"] = radius;
    return e;
  };
  out["least_squares_width"] = zone.least_squares_width;
  out["minimum_zone_width"] = zone.width;
  out["certified"] = zone.status == gfMinimumZoneFit::certified ? 1 : 0;
  out["certificate"] = zone.certificate;
  out["least_squares"] = element(zone.least_squares_point, zone.least_squares_direction, zone.least_squares_radius);
  out["minimum_zone"] = element(zone.point, zone.direction, zone.radius);
  out["outer_contacts"] = contact_points(points, zone.outer);
  if (kind != "line3") out["inner_contacts"] = contact_points(points, zone.inner);
  out["iterations"] = zone.iterations;
  out["points"] = table.rows();
  std::cout << out.dump() << "\n";
  return 0;
}

}  // namespace gfit::cli
