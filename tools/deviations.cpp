// gfit deviations --cad PART POINTS [--radius R] [--json]
//
// The deviation of every measured point from a CAD part (STEP, IGES or BREP): the nominal
// point, the outward normal there and the signed deviation along it (positive: outside the
// material), then a summary. Each point is projected as a probed point whose approximate
// normal is the part's outward normal at its nearest foot point, with the probe radius R
// (default 0: the points lie on the measured surface; R > 0: they are probe-ball centres).
// A point is invalid (listed, and left out of the summary) when the library's projector finds
// no foot point for it, or when its nearest foot point does not see it along the normal (it
// lies beyond the edge of a face, where the projector would settle for a farther face).
// The last line (CSV) or the "summary" object (JSON) gives the count, the number of invalid
// points and the smallest, largest and RMS deviation of the valid ones.
//
// Exit status: 0; 1 when no point could be projected; 2 for bad arguments or unreadable files.
#include <charconv>
#include <cmath>
#include <fstream>
#include <iostream>

#include "gfit/cad.h"
#include "tools/cli.h"

namespace gfit::cli {

namespace {

std::string number(double v) {
  char buffer[32];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, v);
  return std::string(buffer, result.ptr);
}

struct Deviation {
  gfProjectedPoint3 record;
  giPoint3 measured;
};

std::string csv(std::vector<Deviation> const& rows) {
  std::string out = "index,x,y,z,nominal_x,nominal_y,nominal_z,normal_x,normal_y,normal_z,deviation\n";
  for (size_t i = 0; i < rows.size(); ++i) {
    Deviation const& d = rows[i];
    out += std::to_string(i);
    for (int k = 0; k < 3; ++k) out += "," + number(d.measured[k]);
    if (d.record.invalid()) {
      out += ",,,,,,,invalid\n";
      continue;
    }
    for (int k = 0; k < 3; ++k) out += "," + number(d.record.nominal_point()[k]);
    for (int k = 0; k < 3; ++k) out += "," + number(d.record.nominal_normal()[k]);
    out += "," + number(d.record.signed_distance()) + "\n";
  }
  return out;
}

std::string json(std::vector<Deviation> const& rows, JsonObject summary, std::string const& cad) {
  JsonObject head;
  head.add("cad", cad);
  std::string out = head.str();
  out.pop_back();  // the object goes on
  out += ", \"points\": [";
  for (size_t i = 0; i < rows.size(); ++i) {
    Deviation const& d = rows[i];
    JsonObject row;
    row.add("index", static_cast<int>(i)).add("measured", {d.measured.x(), d.measured.y(), d.measured.z()});
    if (d.record.invalid()) {
      row.add("valid", 0);
    } else {
      giPoint3 const& q = d.record.nominal_point();
      giUnitVec3 const& n = d.record.nominal_normal();
      row.add("valid", 1)
          .add("nominal", {q.x(), q.y(), q.z()})
          .add("normal", {n.x(), n.y(), n.z()})
          .add("deviation", d.record.signed_distance());
    }
    out += (i ? ",\n  " : "\n  ") + row.str();
  }
  return out + "],\n \"summary\": " + summary.str() + "}\n";
}

}  // namespace

int run_deviations(std::vector<std::string> const& args) {
  std::string cad, points_path;
  double radius = 0.0;
  bool as_json = false;
  Options options;
  for (size_t i = 0; i < args.size(); ++i) {
    std::string const& a = args[i];
    if (a == "--json") {
      as_json = true;
    } else if (a == "--cad" || a == "--radius") {
      if (i + 1 >= args.size()) {
        std::cerr << "gfit: " << a << " needs a value\n";
        return 2;
      }
      options.values[a] = args[++i];
    } else if (a.rfind("--", 0) == 0) {
      std::cerr << "gfit: deviations takes no option '" << a << "'\n";
      return 2;
    } else if (points_path.empty()) {
      points_path = a;
    } else {
      std::cerr << "gfit: deviations takes one file of points, not '" << a << "' too\n";
      return 2;
    }
  }
  if (!options.has("--cad") || points_path.empty()) {
    std::cerr << "usage: gfit deviations --cad PART.step POINTS [--radius R] [--json]\n";
    return 2;
  }
  try {
    if (options.has("--radius")) radius = number_option(options, "--radius");
  } catch (UsageError const& e) {
    std::cerr << "gfit: " << e.message << "\n";
    return 2;
  }
  cad = options.get("--cad");

  std::string error;
  tskSurfPtr part = tskSurf::read(cad, error);
  if (!part) {
    std::cerr << "gfit: " << error << "\n";
    return 2;
  }
  std::ifstream file;
  if (points_path != "-") {
    file.open(points_path);
    if (!file) {
      std::cerr << "gfit: cannot read " << points_path << "\n";
      return 2;
    }
  }
  PointTable table;
  if (!read_points(points_path == "-" ? std::cin : file, 3, table, error)) {
    std::cerr << "gfit: " << (points_path == "-" ? "standard input" : points_path) << ", " << error << "\n";
    return 2;
  }

  // The approximate normal of each point is the outward normal at its nearest foot point.
  gfSurfProjectorForFitting3 projector(*part);
  tskSurfPointList feet;
  giXform3 const identity(giXformIdentity{});
  std::vector<Deviation> rows;
  double lowest = INFINITY, highest = -INFINITY, squares = 0.0;
  int valid = 0;
  for (giPoint3 const& p : points3(table)) {
    giUnitVec3 outward;
    part->project(p, feet, [](tskSurfPoint const& foot) { return foot.distance; });
    bool seen = !feet.empty() && part->normal(feet[0], 1e-5, 1e-5, outward) &&
                (feet[0].distance < 1e-4 || outward.cross(p - feet[0].point).length() <= 0.01 * feet[0].distance);
    Deviation d{gfProjectedPoint3(), p};
    if (seen) gfProbedPoint3(p, outward, radius).project_from_position(identity, d.record, &projector);
    if (!d.record.invalid()) {
      double s = d.record.signed_distance();
      lowest = std::min(lowest, s);
      highest = std::max(highest, s);
      squares += s * s;
      ++valid;
    }
    rows.push_back(d);
  }

  JsonObject summary;
  summary.add("count", static_cast<int>(rows.size()))
      .add("invalid", static_cast<int>(rows.size()) - valid)
      .add("min", valid ? lowest : NAN)
      .add("max", valid ? highest : NAN)
      .add("rms", valid ? std::sqrt(squares / valid) : NAN);
  if (as_json) {
    std::cout << json(rows, summary, cad);
  } else {
    std::cout << csv(rows) << "# " << part->n_faces() << " faces; summary " << summary.str() << "\n";
  }
  if (valid == 0) {
    std::cerr << "gfit: no point could be projected onto " << cad << "\n";
    return 1;
  }
  return 0;
}

}  // namespace gfit::cli
