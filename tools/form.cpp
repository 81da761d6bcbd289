// `gfit form plane|line3|sphere|cylinder FILE`: the form error of the points by the least
// squares and by the minimum zone, side by side, with the element of each and the contact
// points of the zone.
#include <fstream>
#include <iostream>

#include "tools/cli.h"

namespace gfit::cli {

namespace {

std::vector<double> xyz(giPoint3 const& p) { return {p.x(), p.y(), p.z()}; }
std::vector<double> xyz(giUnitVec3 const& u) {
  if (u.invalid()) return {};
  return {u.x(), u.y(), u.z()};
}

std::vector<std::vector<double>> contact_points(giPoint3coDynArr const& points, intcoDynArr const& idx) {
  std::vector<std::vector<double>> rows;
  for (int i : idx) rows.push_back(xyz(points[i]));
  return rows;
}

}  // namespace

int run_form(std::vector<std::string> const& args) {
  static char const* const usage = "usage: gfit form plane|line3|sphere|cylinder FILE\n";
  if (args.size() != 2) {
    std::cerr << usage;
    return 2;
  }
  std::string const& kind = args[0];
  int (*fit)(giPoint3coDynArr const&, gfMinimumZone&) = nullptr;
  if (kind == "plane") fit = gfMinimumZoneFit::plane;
  if (kind == "line3") fit = gfMinimumZoneFit::line3;
  if (kind == "sphere") fit = gfMinimumZoneFit::sphere;
  if (kind == "cylinder") fit = gfMinimumZoneFit::cylinder;
  if (!fit) {
    std::cerr << "gfit: form of '" << kind << "' is not available\n" << usage;
    return 2;
  }
  std::ifstream file;
  if (args[1] != "-") {
    file.open(args[1]);
    if (!file) {
      std::cerr << "gfit: cannot read " << args[1] << "\n";
      return 2;
    }
  }
  std::istream& in = args[1] == "-" ? std::cin : file;
  PointTable table;
  std::string error;
  if (!read_points(in, 3, table, error)) {
    std::cerr << "gfit: " << args[1] << ", " << error << "\n";
    return 2;
  }
  giPoint3coDynArr points = points3(table);
  gfMinimumZone zone;
  const int status = fit(points, zone);
  JsonObject out;
  out.add("form", kind).add("status", status);
  if (status == gfMinimumZoneFit::refused) {
    out.add("reason", gfLastReasonText()).add("points", table.rows());
    std::cout << out.str() << "\n";
    std::cerr << "gfit: the " << kind << " form was refused: " << gfLastReasonText() << "\n";
    return 1;
  }
  const bool radial = kind == "sphere" || kind == "cylinder";
  out.add("least_squares_width", zone.least_squares_width)
      .add("minimum_zone_width", zone.width)
      .add("certified", zone.status == gfMinimumZoneFit::certified ? 1 : 0)
      .add("certificate", zone.certificate)
      .add("least_squares_point", xyz(zone.least_squares_point));
  if (kind != "sphere") out.add(kind == "plane" ? "least_squares_normal" : "least_squares_direction",
                                xyz(zone.least_squares_direction));
  if (radial) out.add("least_squares_radius", zone.least_squares_radius);
  out.add("minimum_zone_point", xyz(zone.point));
  if (kind != "sphere") out.add(kind == "plane" ? "minimum_zone_normal" : "minimum_zone_direction", xyz(zone.direction));
  if (radial) out.add("minimum_zone_radius", zone.radius);
  out.add("outer_contacts", contact_points(points, zone.outer));
  if (kind != "line3") out.add("inner_contacts", contact_points(points, zone.inner));
  out.add("iterations", zone.iterations).add("points", table.rows());
  std::cout << out.str() << "\n";
  return 0;
}

}  // namespace gfit::cli
