// gfit: fit geometric elements to measured points from the command line.
//
//   gfit fit <element> FILE [options]    FILE holds one point per line ('-': standard input)
//   gfit elements                        lists the elements
//
// The result is one JSON object on standard output: the element, the status (1 fitted,
// 0 not), its parameters, the RMS residual and the number of points. Unreadable input, a
// malformed line or too few points give a message on standard error and exit status 2; a
// fit that fails prints its JSON with status 0 and exits with 1.

#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "gfit/gfit.h"
#include "tools/json.h"
#include "tools/point_reader.h"

namespace {

using gfit::cli::JsonObject;
using gfit::cli::PointTable;

giPoint3coDynArr points3(PointTable const& t) {
  giPoint3coDynArr out(t.rows(), 16);
  for (int i = 0; i < t.rows(); ++i) out.append(giPoint3(t.values[3 * i], t.values[3 * i + 1], t.values[3 * i + 2]));
  return out;
}

struct Element {
  std::string name;
  int columns;
  int min_points;
  std::string summary;
  std::function<int(PointTable const&, JsonObject&)> fit;
};

int fit_line3(PointTable const& t, JsonObject& out) {
  giPoint3 point;
  giUnitVec3 direction;
  double residual = 0.0;
  int status = gfLeastSquareEvaluator::evaluate_line3(points3(t), point, direction, residual);
  out.add("status", status)
      .add("point", {point.x(), point.y(), point.z()})
      .add("direction", {direction.x(), direction.y(), direction.z()})
      .add("residual", residual);
  return status;
}

int fit_plane(PointTable const& t, JsonObject& out) {
  giPoint3 point;
  giUnitVec3 normal;
  double residual = 0.0;
  int status = gfLeastSquareEvaluator::evaluate_plane(points3(t), point, normal, residual);
  out.add("status", status)
      .add("point", {point.x(), point.y(), point.z()})
      .add("normal", {normal.x(), normal.y(), normal.z()})
      .add("residual", residual);
  return status;
}

std::vector<Element> const& elements() {
  static const std::vector<Element> table = {
      {"line3", 3, 2, "least-squares line in space (x y z per point)", fit_line3},
      {"plane", 3, 3, "least-squares plane (x y z per point)", fit_plane},
  };
  return table;
}

void usage(std::ostream& os) {
  os << "usage: gfit fit <element> FILE      fit an element to the points in FILE ('-' for standard input)\n"
        "       gfit elements                list the elements\n"
        "Points: one per line, coordinates separated by spaces or commas, '#' starts a comment.\n";
}

int run_fit(std::vector<std::string> const& args) {
  if (args.size() != 2) {
    usage(std::cerr);
    return 2;
  }
  Element const* element = nullptr;
  for (Element const& e : elements())
    if (e.name == args[0]) element = &e;
  if (!element) {
    std::cerr << "gfit: unknown element '" << args[0] << "' (see 'gfit elements')\n";
    return 2;
  }
  std::string const& path = args[1];
  std::ifstream file;
  if (path != "-") {
    file.open(path);
    if (!file) {
      std::cerr << "gfit: cannot read " << path << "\n";
      return 2;
    }
  }
  std::istream& in = path == "-" ? std::cin : file;
  std::string source = path == "-" ? "standard input" : path;
  PointTable table;
  std::string error;
  if (!gfit::cli::read_points(in, element->columns, table, error)) {
    std::cerr << "gfit: " << source << ", " << error << "\n";
    return 2;
  }
  if (table.rows() < element->min_points) {
    std::cerr << "gfit: " << element->name << " needs at least " << element->min_points << " points, " << source
              << " has " << table.rows() << "\n";
    return 2;
  }
  JsonObject out;
  out.add("element", element->name);
  int status = element->fit(table, out);
  out.add("points", table.rows());
  std::cout << out.str() << "\n";
  if (status != 1) {
    std::cerr << "gfit: the " << element->name << " fit failed (degenerate points)\n";
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty() || args[0] == "--help" || args[0] == "-h") {
    usage(args.empty() ? std::cerr : std::cout);
    return args.empty() ? 2 : 0;
  }
  if (args[0] == "elements") {
    for (Element const& e : elements()) std::cout << e.name << "\t" << e.summary << "\n";
    return 0;
  }
  if (args[0] == "fit") return run_fit(std::vector<std::string>(args.begin() + 1, args.end()));
  std::cerr << "gfit: unknown command '" << args[0] << "'\n";
  usage(std::cerr);
  return 2;
}
