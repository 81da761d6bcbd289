// gfit deviations --cad PART POINTS [--radius R] [--json] [--summary FILE]
//
// The deviation of every measured point from a CAD part (STEP, IGES or BREP): the nominal
// point, the outward normal there and the signed deviation along it (positive: outside the
// material), then a summary. Each point is projected as a probed point whose approximate
// normal is the part's outward normal at its nearest foot point, with the probe radius R
// (default 0: the points lie on the measured surface; R > 0: they are probe-ball centres).
// A point is invalid (listed, and left out of the summary) when the library's projector finds
// no foot point for it, or when its nearest foot point does not see it along the normal (it
// lies beyond the edge of a face, where the projector would settle for a farther face).
// Each row gives the face of the part the point was projected onto. The summary (the count,
// the number of invalid points, the smallest, largest and RMS deviation of the valid ones and
// the units) goes to --summary FILE, else into the JSON or as one line on standard error, so
// the CSV on standard output is rows only. Lengths are millimetres: a STEP file in another
// unit is converted on reading, with a notice.
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
  int face;  // the face of the nearest foot point, -1 when none was seen
};

// The length unit a STEP file declares (its LENGTH_UNIT entity): "mm", "m", "inch", ...;
// "" for other formats or when none is found. The reader converts every unit to mm.
std::string cad_length_unit(std::string const& path) {
  std::ifstream file(path);
  std::string line, text;
  int lines = 0;
  while (std::getline(file, line) && lines++ < 200000) {
    if (line.find("LENGTH_UNIT") == std::string::npos) continue;
    text = line;
    // The entity may run over the next lines up to its ';'.
    while (text.find(';') == std::string::npos && std::getline(file, line)) text += line;
    if (text.find("INCH") != std::string::npos) return "inch";
    if (text.find("FOOT") != std::string::npos) return "foot";
    if (text.find("SI_UNIT(.MILLI.,.METRE.)") != std::string::npos) return "mm";
    if (text.find("SI_UNIT(.CENTI.,.METRE.)") != std::string::npos) return "cm";
    if (text.find("SI_UNIT(.MICRO.,.METRE.)") != std::string::npos) return "um";
    if (text.find("SI_UNIT($,.METRE.)") != std::string::npos) return "m";
  }
  return "";
}

std::string csv(std::vector<Deviation> const& rows) {
  std::string out = "index,x,y,z,face,nominal_x,nominal_y,nominal_z,normal_x,normal_y,normal_z,deviation\n";
  for (size_t i = 0; i < rows.size(); ++i) {
    Deviation const& d = rows[i];
    out += std::to_string(i);
    for (int k = 0; k < 3; ++k) out += "," + number(d.measured[k]);
    out += "," + (d.face >= 0 ? std::to_string(d.face) : std::string());
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

std::string json(std::vector<Deviation> const& rows, Json const& summary, std::string const& cad) {
  Json out;
  out["schema"] = kSchema;
  out["cad"] = cad;
  out["points"] = Json::array();
  for (size_t i = 0; i < rows.size(); ++i) {
    Deviation const& d = rows[i];
    Json row;
    row["index"] = static_cast<int>(i);
    row["measured"] = xyz(d.measured);
    if (d.record.invalid()) {
      row["valid"] = 0;
    } else {
      row["valid"] = 1;
      row["face"] = d.face;
      row["nominal"] = xyz(d.record.nominal_point());
      row["normal"] = xyz(giVector3(d.record.nominal_normal()));
      row["deviation"] = d.record.signed_distance();
    }
    out["points"].push_back(row);
  }
  out["summary"] = summary;
  return out.dump() + "\n";
}

}  // namespace

int run_deviations(Command const& command) {
  Options const& options = command.options;
  if (!options.has("--cad")) {
    std::cerr << "gfit: deviations needs --cad PART (STEP, IGES or BREP)\n"
                 "usage: gfit deviations --cad PART.step POINTS [--radius R] [--json] [--summary FILE]\n";
    return 2;
  }
  double radius = 0.0;
  try {
    if (options.has("--radius")) radius = number_option(options, "--radius");
  } catch (UsageError const& e) {
    std::cerr << "gfit: " << e.message << "\n";
    return 2;
  }
  if (radius < 0.0) {
    std::cerr << "gfit: --radius needs a probe radius of 0 or more\n";
    return 2;
  }
  const bool as_json = options.has("--json");
  std::string const cad = options.get("--cad");

  std::string error;
  tskSurfPtr part = tskSurf::read(cad, error);
  if (!part) {
    std::cerr << "gfit: " << error << "\n";
    return 2;
  }
  // The reader gives millimetres whatever the file's unit: say which it was.
  const std::string file_unit = cad_length_unit(cad);
  if (!file_unit.empty() && file_unit != "mm")
    std::cerr << "gfit: " << cad << " is in " << file_unit << "; converted to mm on reading\n";
  Input input;
  if (!read_input(command.args[0], command.input, 3, 0, input, error)) {
    std::cerr << "gfit: " << error << "\n";
    return 2;
  }
  PointTable const& table = input.points;

  // The approximate normal of each point is the outward normal at its nearest foot point.
  gfSurfProjectorForFitting3 projector(*part);
  tskSurfPointList feet;
  giXform3 const identity(giXformIdentity{});
  std::vector<Deviation> rows;
  double lowest = INFINITY, highest = -INFINITY, squares = 0.0;
  int valid = 0, deep_inside = 0, first_deep = -1;
  for (giPoint3 const& p : points3(table)) {
    giUnitVec3 outward;
    part->project(p, feet, [](tskSurfPoint const& foot) { return foot.distance; });
    bool seen = !feet.empty() && part->normal(feet[0], 1e-5, 1e-5, outward) &&
                (feet[0].distance < 1e-4 || outward.cross(p - feet[0].point).length() <= 0.01 * feet[0].distance);
    Deviation d{gfProjectedPoint3(), p, seen ? feet[0].face : -1};
    // A ball centre never lies inside the material: a point that does is no centre (or the
    // part is misplaced), and its compensated deviation would come out on the wrong side.
    if (seen && radius > 0.0 && outward.dot(p - feet[0].point) < -radius && deep_inside++ == 0)
      first_deep = static_cast<int>(rows.size());
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

  if (deep_inside > 0)
    std::cerr << "gfit: warning: " << deep_inside << " point(s) lie more than --radius " << radius
              << " inside the material (the first: index " << first_deep
              << "); probe-ball centres never do, so their deviations are not to be trusted\n";
  Json summary;
  summary["count"] = static_cast<int>(rows.size());
  summary["invalid"] = static_cast<int>(rows.size()) - valid;
  summary["min"] = valid ? Json(lowest) : Json(nullptr);
  summary["max"] = valid ? Json(highest) : Json(nullptr);
  summary["form"] = valid ? Json(highest - lowest) : Json(nullptr);
  summary["rms"] = valid ? Json(std::sqrt(squares / valid)) : Json(nullptr);
  summary["faces"] = part->n_faces();
  summary["units"] = "mm";
  summary["file_units"] = file_unit.empty() ? Json(nullptr) : Json(file_unit);
  if (as_json) {
    std::cout << json(rows, summary, cad);
  } else {
    std::cout << csv(rows);
  }
  if (options.has("--summary")) {
    std::ofstream file(options.get("--summary"));
    file << summary.dump() << "\n";
    if (!file) {
      std::cerr << "gfit: cannot write " << options.get("--summary") << "\n";
      return 2;
    }
  } else if (!as_json) {
    std::cerr << "gfit: summary " << summary.dump() << "\n";
  }
  if (valid == 0) {
    std::cerr << "gfit: no point could be projected onto " << cad << "\n";
    return 1;
  }
  return 0;
}

}  // namespace gfit::cli
