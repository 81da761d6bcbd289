// gfit: fit geometric elements to measured points from the command line.
//
//   gfit fit <element> FILE [options]    FILE holds one point per line ('-': standard input)
//   gfit elements                        lists the elements and their options
//   gfit form <element> FILE             least-squares and minimum-zone form errors
//   gfit deviations --cad PART POINTS    deviations of the points from a CAD part (CSV or --json)
//   gfit affine PAIRS                    the affine map between corresponding points
//   gfit align --cad PART POINTS ...     alignment of the points to a CAD part (tools/align.cpp)
//
// The result is one JSON object on standard output: the element, the status (1 fitted,
// 0 not), its parameters, the RMS residual and the number of points. Unreadable input, a
// malformed line, a bad option or too few points give a message on standard error and exit
// status 2; a fit that fails prints its JSON with status 0 and exits with 1.

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>

#include "tools/cli.h"
#include "tools/input.h"

namespace gfit::cli {

giPoint3coDynArr points3(PointTable const& t) {
  const int c = t.columns;
  giPoint3coDynArr out(t.rows(), 16);
  for (int i = 0; i < t.rows(); ++i) out.append(giPoint3(t.values[c * i], t.values[c * i + 1], t.values[c * i + 2]));
  return out;
}

giPoint2coDynArr points2(PointTable const& t) {
  const int c = t.columns;
  giPoint2coDynArr out(t.rows(), 16);
  for (int i = 0; i < t.rows(); ++i) out.append(giPoint2(t.values[c * i], t.values[c * i + 1]));
  return out;
}

giUnitVec3coDynArr read_normals(std::string const& path, int expected) {
  std::ifstream in(path);
  if (!in) throw UsageError{"cannot read normals file " + path};
  PointTable table;
  std::string error;
  if (!read_points(in, 3, table, error)) throw UsageError{"normals file " + path + ", " + error};
  if (table.rows() != expected)
    throw UsageError{"normals file " + path + " has " + std::to_string(table.rows()) + " normals for " +
                     std::to_string(expected) + " points"};
  giUnitVec3coDynArr normals(table.rows(), 16);
  for (int i = 0; i < table.rows(); ++i) {
    giUnitVec3 n(table.values[3 * i], table.values[3 * i + 1], table.values[3 * i + 2]);
    if (n.invalid()) throw UsageError{"normals file " + path + ": normal " + std::to_string(i + 1) + " is zero"};
    normals.append(n);
  }
  return normals;
}

double number_option(Options const& options, std::string const& name) {
  std::string const& text = options.get(name);
  char* end = nullptr;
  double v = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(v)) throw UsageError{name + " needs a number, not '" + text + "'"};
  return v;
}

giVector3 vector_option(Options const& options, std::string const& name) {
  std::string text = options.get(name);
  std::replace(text.begin(), text.end(), ',', ' ');
  std::istringstream in(text);
  double x, y, z;
  std::string rest;
  if (!(in >> x >> y >> z) || (in >> rest) || !std::isfinite(x) || !std::isfinite(y) || !std::isfinite(z))
    throw UsageError{name + " needs x,y,z, not '" + options.get(name) + "'"};
  return {x, y, z};
}

doublecoDynArr probe_radii(PointTable const& t, int coordinates, Options const& options) {
  doublecoDynArr radii(t.rows(), 16);
  const bool column = t.columns > coordinates;
  if (column == options.has("--radius"))
    throw UsageError{column ? "give the probe radius either as a column or as --radius, not both"
                            : "give the probe radius as a last column or as --radius R"};
  const double fixed = column ? 0.0 : number_option(options, "--radius");
  for (int i = 0; i < t.rows(); ++i) radii.append(column ? t.values[t.columns * i + coordinates] : fixed);
  return radii;
}

AxisGuide axis_guide(Options const& options, int points) {
  AxisGuide guide;
  guide.angle = giAngle::from_degrees(options.has("--angle") ? number_option(options, "--angle") : 10.0);
  if (options.has("--normals")) {
    if (options.has("--guess")) throw UsageError{"--normals and --guess do not go together"};
    guide.normals = read_normals(options.get("--normals"), points);
  } else if (options.has("--guess")) {
    guide.guess = vector_option(options, "--guess").unit();
    if (guide.guess.invalid()) throw UsageError{"--guess needs a non-zero direction"};
  }
  return guide;
}

void add_cylinder_result(JsonObject& out, int status, giPoint3 const& point, giUnitVec3 const& direction,
                         double radius, double residual) {
  out.add("status", status);
  if (status == 1)
    out.add("point", {point.x(), point.y(), point.z()})
        .add("direction", {direction.x(), direction.y(), direction.z()})
        .add("radius", radius)
        .add("residual", residual);
}

}  // namespace gfit::cli

namespace {

using namespace gfit::cli;

std::vector<Element> const& elements() {
  static const std::vector<Element> table = [] {
    std::vector<Element> all;
    for (auto family : {line_plane_elements, circle_cylinder_elements, direct_fit_elements,
                         ellipse_probed_elements, extremal_elements, cone_elements,
                         torus_elements}) {
      std::vector<Element> some = family();
      all.insert(all.end(), some.begin(), some.end());
    }
    return all;
  }();
  return table;
}

void usage(std::ostream& os) {
  os << "usage: gfit fit <element> FILE [options]   fit an element to the points in FILE ('-': standard input)\n"
        "       gfit elements                      list the elements and their options\n"
        "       gfit form plane|line3|sphere|cylinder FILE\n"
        "                                          least-squares and minimum-zone form errors\n"
#ifdef GFIT_CLI_CAD
        "       gfit deviations --cad PART.step POINTS [--radius R] [--json]\n"
        "                                          deviations of the points from a CAD part\n"
        "       gfit align --cad PART.step POINTS [--pairs MEASURED NOMINAL] [--tol T] [--lock-origin x,y,z:x,y,z]\n"
        "                  [--lock-rotations x,y,z[:...]] [--bands FILE] [--scale PASSES] [--json]\n"
        "                                          align the points to a CAD part and report deviations\n"
#endif
        "       gfit affine PAIRS                  affine map taking x y [z] onto x' y' [z'] (one pair per line)\n"
        "       gfit align --rps FILE | --affine PAIRS\n"
        "                                          RPS (3-2-1) alignment: mx my mz qx qy qz lx ly lz [w] per line\n"
#ifdef GFIT_CLI_CAD
        "       gfit allowance --cad PART.step POINTS  placement with the largest uniform allowance\n"
#endif
        "Points: one per line, coordinates separated by spaces or commas, '#' starts a comment.\n";
}

int run_fit(std::vector<std::string> const& args) {
  if (args.size() < 2) {
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
  Options options;
  for (size_t i = 2; i < args.size(); ++i) {
    std::string const& name = args[i];
    if (std::find(element->options.begin(), element->options.end(), name) == element->options.end()) {
      std::cerr << "gfit: " << element->name << " takes no option '" << name << "'\n";
      return 2;
    }
    bool has_value = i + 1 < args.size() && args[i + 1].rfind("--", 0) != 0;
    options.values[name] = has_value ? args[++i] : "";
  }
  Input input;
  std::string error;
  if (!read_input(args[1], InputOptions{}, element->columns, element->max_columns, input, error)) {
    std::cerr << "gfit: " << error << "\n";
    return 2;
  }
  PointTable const& table = input.points;
  std::string const& source = input.source;
  if (table.rows() < element->min_points) {
    std::cerr << "gfit: " << element->name << " needs at least " << element->min_points << " points, " << source
              << " has " << table.rows() << "\n";
    return 2;
  }
  JsonObject out;
  out.add("element", element->name);
  int status = 0;
  try {
    status = element->fit(table, options, out);
  } catch (UsageError const& e) {
    std::cerr << "gfit: " << e.message << "\n";
    return 2;
  }
  out.add("points", table.rows());
  std::cout << out.str() << "\n";
  if (status != 1) {
    // Why the library refused, as it recorded for this thread.
    char const* reason = gfLastReasonText();
    std::cerr << "gfit: " << element->name << ": "
              << (gfLastReason() != gfReason::none && reason[0] != '\0' ? reason : "the fit failed") << "\n";
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
    for (Element const& e : elements()) {
      std::cout << e.name << "\t" << e.summary;
      if (!e.options.empty()) {
        std::cout << " [options:";
        for (std::string const& o : e.options) std::cout << " " << o;
        std::cout << "]";
      }
      std::cout << "\n";
    }
    return 0;
  }
  if (args[0] == "fit") return run_fit(std::vector<std::string>(args.begin() + 1, args.end()));
  if (args[0] == "affine") return run_affine(std::vector<std::string>(args.begin() + 1, args.end()));
  if (args[0] == "form") return run_form(std::vector<std::string>(args.begin() + 1, args.end()));
  if (args[0] == "align" && args.size() > 1 && (args[1] == "--rps" || args[1] == "--affine"))
    return run_alignments2(std::vector<std::string>(args.begin() + 1, args.end()));
#ifdef GFIT_CLI_CAD
  if (args[0] == "allowance") return run_allowance(std::vector<std::string>(args.begin() + 1, args.end()));
#endif
#ifdef GFIT_CLI_CAD
  if (args[0] == "deviations") return run_deviations(std::vector<std::string>(args.begin() + 1, args.end()));
  if (args[0] == "align") return run_align(std::vector<std::string>(args.begin() + 1, args.end()));
#endif
  std::cerr << "gfit: unknown command '" << args[0] << "'\n";
  usage(std::cerr);
  return 2;
}
