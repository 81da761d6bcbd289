// gfit: fit geometric elements to measured points from the command line.
//
//   gfit fit <element> FILE [options]    FILE holds the points ('-': standard input)
//   gfit elements                        lists the elements and their options
//   gfit form <element> FILE             least-squares and minimum-zone form errors
//   gfit deviations --cad PART POINTS    deviations of the points from a CAD part
//   gfit affine PAIRS                    the affine map between corresponding points
//   gfit align --cad PART POINTS ...     alignment of the points to a CAD part
//   gfit align --rps FILE                RPS (3-2-1) alignment of reference points
//   gfit align --affine PAIRS            the same as gfit affine PAIRS
//   gfit allowance --cad PART POINTS     the placement with the largest uniform allowance
//
// A fit prints one JSON object on standard output, laid out as docs/results.md describes.
// Exit status: 2 for a usage error or unreadable input (a message on standard error), 1 for
// a fit that failed (its JSON, with status 0 and the reason, is still printed), 0 otherwise.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>

#include "tools/cli.h"

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

namespace {

giUnitVec3coDynArr unit_normals(PointTable const& table, std::string const& source, int expected) {
  if (table.rows() != expected)
    throw UsageError{source + " has " + std::to_string(table.rows()) + " normals for " + std::to_string(expected) +
                     " points"};
  giUnitVec3coDynArr normals(table.rows(), 16);
  const int c = table.columns;
  for (int i = 0; i < table.rows(); ++i) {
    giUnitVec3 n(table.values[c * i], table.values[c * i + 1], table.values[c * i + 2]);
    if (n.invalid()) throw UsageError{source + ": normal " + std::to_string(i + 1) + " is zero"};
    normals.append(n);
  }
  return normals;
}

}  // namespace

bool has_normals(Input const& input, Options const& options) {
  return input.normals.rows() > 0 || options.has("--normals");
}

giUnitVec3coDynArr normals_of(Input const& input, Options const& options) {
  const int n = input.points.rows();
  if (input.normals.rows() > 0) {
    if (options.has("--normals"))
      throw UsageError{input.source + " carries normals: give --normals FILE only for a file of points alone"};
    return unit_normals(input.normals, input.source, n);
  }
  if (!options.has("--normals")) return giUnitVec3coDynArr();
  std::string const& path = options.get("--normals");
  Input file;
  std::string error;
  if (!read_input(path, InputOptions{}, 3, 0, file, error)) throw UsageError{"normals file " + error};
  return unit_normals(file.points, "normals file " + path, n);
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

AxisGuide axis_guide(Input const& input, Options const& options) {
  AxisGuide guide;
  guide.angle = giAngle::from_degrees(options.has("--angle") ? number_option(options, "--angle") : 10.0);
  if (has_normals(input, options)) {
    if (options.has("--guess")) throw UsageError{"normals and --guess do not go together"};
    guide.normals = normals_of(input, options);
  } else if (options.has("--guess")) {
    guide.guess = vector_option(options, "--guess").unit();
    if (guide.guess.invalid()) throw UsageError{"--guess needs a non-zero direction"};
  }
  return guide;
}

void check_guess(AxisGuide const& guide, giUnitVec3 const& axis, FitResult& out) {
  if (guide.guess.invalid() || axis.invalid()) return;
  // Either sense of the axis honours the guess.
  const double cosine = std::fmin(1.0, std::fabs(guide.guess.dot(axis)));
  const double degrees = std::acos(cosine) * 180.0 / giPi;
  if (degrees > guide.angle.degrees()) {
    std::ostringstream text;
    text << "the fitted axis lies " << degrees << " degrees from --guess, beyond --angle " << guide.angle.degrees();
    out.warnings.push_back(text.str());
  }
}

Json xyz(giPoint3 const& p) { return Json::array({p.x(), p.y(), p.z()}); }
Json xyz(giVector3 const& v) { return Json::array({v.x(), v.y(), v.z()}); }
Json xy(giPoint2 const& p) { return Json::array({p.x(), p.y()}); }
Json xy(giVector2 const& v) { return Json::array({v.x(), v.y()}); }

std::vector<double> distances(mlDistanceLeastSquares& problem, mlVector const& p) {
  problem.set_parameters(p);
  std::vector<double> d(static_cast<size_t>(problem.n_points()));
  for (int i = 0; i < problem.n_points(); ++i) problem.get_distance(d[static_cast<size_t>(i)], i);
  return d;
}

void foot_and_orientation(giPoint3coDynArr const& points, giPoint3& point, giUnitVec3& axis) {
  if (points.count() == 0 || axis.invalid()) return;
  // Summed about the first point, so that a part far from the origin keeps its digits.
  giVector3 sum(0, 0, 0);
  for (int i = 1; i < points.count(); ++i) sum += points[i] - points[0];
  const giPoint3 centroid = points[0] + sum * (1.0 / points.count());
  point = point + axis * axis.dot(centroid - point);
  if (axis.dot(points[0] - point) < 0.0) axis = -axis;
}

giUnitVec3 canonical_normal(giUnitVec3 const& n) {
  if (n.invalid()) return n;
  int k = 0;
  for (int i = 1; i < 3; ++i)
    if (std::fabs(n[i]) > std::fabs(n[k])) k = i;
  return n[k] < 0.0 ? -n : n;
}

void add_angle(Json& object, std::string const& key, double radians) {
  object[key + "_deg"] = radians * 180.0 / giPi;
  object[key + "_rad"] = radians;
}

void cylinder_result(giPoint3coDynArr const& points, giPoint3 point, giUnitVec3 axis, double radius,
                     gfLeastSquareCylinder& problem, FitResult& out) {
  foot_and_orientation(points, point, axis);
  out.parameters["point"] = xyz(point);
  out.parameters["axis"] = xyz(giVector3(axis));
  out.parameters["radius"] = radius;
  out.parameters["diameter"] = 2.0 * radius;
  out.deviations = distances(problem, mlVector{point.x(), point.y(), point.z(), axis.x(), axis.y(), axis.z(), radius});
}

void cone_result(giPoint3coDynArr const& points, giPoint3 const& apex, giUnitVec3 const& axis, double half_angle,
                 gfLeastSquareCone& problem, FitResult& out) {
  giPoint3 point = apex;
  giUnitVec3 towards_apex = axis;
  foot_and_orientation(points, point, towards_apex);
  towards_apex = axis;  // a cone's axis points to its apex, whatever side the first point is on
  const double height = axis.dot(apex - point);  // from the axis point up to the apex
  out.parameters["apex"] = xyz(apex);
  out.parameters["point"] = xyz(point);
  out.parameters["axis"] = xyz(giVector3(axis));
  add_angle(out.parameters, "half_angle", half_angle);
  out.parameters["radius"] = height * std::tan(half_angle);  // across the axis at `point`
  const double d = height * std::sin(half_angle);
  out.deviations =
      distances(problem, mlVector{point.x(), point.y(), point.z(), axis.x(), axis.y(), axis.z(), d, half_angle});
}

void ellipse_result(giPoint2coDynArr const& points, giPoint2 const& centre, double a, double b, double angle,
                    FitResult& out) {
  a = std::fabs(a);
  b = std::fabs(b);
  if (a < b) {
    std::swap(a, b);
    angle += giPi / 2;
  }
  angle = std::remainder(angle, giPi);  // [-pi/2, pi/2]
  if (angle <= -giPi / 2) angle += giPi;
  out.parameters["centre"] = xy(centre);
  out.parameters["semi_axes"] = Json::array({a, b});
  add_angle(out.parameters, "angle", angle);
  gfLeastSquareEllipse problem(points);
  out.deviations = distances(problem, mlVector{a, b, centre.x(), centre.y(), angle});
}

Json uncertainty_json(gfElementUncertainty const& u, std::string const& kind) {
  Json j;
  j["sigma"] = u.sigma;
  j["degrees_of_freedom"] = u.degrees_of_freedom;
  if (kind == "circle")
    j["position"] = Json::array({u.position[0], u.position[1]});
  else
    j["position"] = Json::array({u.position[0], u.position[1], u.position[2]});
  if (kind == "circle" || kind == "sphere" || kind == "cylinder" || kind == "cone") {
    j["radius"] = u.radius;
    j["diameter"] = u.diameter;
  }
  if (kind == "plane" || kind == "line3" || kind == "cylinder" || kind == "cone") add_angle(j, "axis_angle", u.axis_angle);
  if (kind == "cone") add_angle(j, "half_angle", u.half_angle);
  if (kind == "plane") j["offset"] = u.offset;
  return j;
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

// Levenshtein distance, for suggesting the option a mistyped one was meant to be.
size_t edit_distance(std::string const& a, std::string const& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t up = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = up;
    }
  }
  return row[b.size()];
}

// The closest of `names` to `word`, or "" when none is close (more than two edits and half the
// word away).
std::string closest(std::string const& word, std::vector<std::string> const& names) {
  std::string best;
  size_t best_distance = std::max<size_t>(2, word.size() / 2) + 1;
  for (std::string const& n : names) {
    const size_t d = edit_distance(word, n);
    if (d < best_distance) best = n, best_distance = d;
  }
  return best;
}

// The deepest subcommand the parser entered.
CLI::App* active(CLI::App* app) {
  for (CLI::App* sub : app->get_subcommands()) return active(sub);
  return app;
}

std::vector<std::string> option_names(CLI::App* app) {
  std::vector<std::string> names;
  for (CLI::Option const* o : app->get_options())
    for (std::string const& n : o->get_lnames()) names.push_back("--" + n);
  return names;
}

std::vector<std::string> subcommand_names(CLI::App* app) {
  std::vector<std::string> names;
  for (CLI::App const* s : app->get_subcommands({})) names.push_back(s->get_name());
  return names;
}

// The summary and deviations of a fit, and the JSON of docs/results.md.
Json result_json(Element const& element, int status, Input const& input, FitResult const& fit, std::string const& units,
                 std::string const& reason) {
  Json out;
  out["schema"] = kSchema;
  out["element"] = element.name;
  out["status"] = status;
  if (status != 1) out["reason"] = reason;
  out["units"] = units;
  if (status == 1) {
    out["parameters"] = fit.parameters;
    if (!fit.deviations.empty()) {
      double squares = 0.0, lowest = INFINITY, highest = -INFINITY;
      for (double d : fit.deviations) {
        squares += d * d;
        lowest = std::min(lowest, d);
        highest = std::max(highest, d);
      }
      // The library's own RMS where the fit gives one (the deviations' agrees to rounding).
      out["residual"] = fit.residual >= 0.0 ? fit.residual : std::sqrt(squares / static_cast<double>(fit.deviations.size()));
      out["min"] = lowest;
      out["max"] = highest;
      out["form"] = highest - lowest;
    } else if (fit.residual >= 0.0) {
      out["residual"] = fit.residual;
    }
  }
  out["points"] = input.points.rows();
  for (auto const& [key, value] : fit.extra.items()) out[key] = value;
  return out;
}

bool write_residuals(std::string const& path, PointTable const& t, std::vector<double> const& deviations) {
  std::ofstream file(path);
  if (!file) return false;
  file.precision(17);
  file << "index,x,y,z,deviation\n";
  for (int i = 0; i < t.rows(); ++i) {
    double const* row = &t.values[static_cast<size_t>(i) * t.columns];
    file << i << "," << row[0] << "," << row[1] << "," << (t.columns > 2 ? row[2] : 0.0) << ","
         << deviations[static_cast<size_t>(i)] << "\n";
  }
  return static_cast<bool>(file);
}

struct FitCommand {
  std::string file;
  InputOptions input;
  std::string units = "mm";
  std::string residuals;
  Options options;
};

int run_fit(Element const& element, FitCommand const& command) {
  Input input;
  std::string error;
  if (!read_input(command.file, command.input, element.columns, element.max_columns, input, error)) {
    std::cerr << "gfit: " << error << "\n";
    return 2;
  }
  if (input.points.rows() < element.min_points) {
    std::cerr << "gfit: " << element.name << " needs at least " << element.min_points << " points, " << input.source
              << " has " << input.points.rows() << "\n";
    return 2;
  }
  FitResult fit;
  int status = 0;
  try {
    status = element.fit(input, command.options, fit);
  } catch (UsageError const& e) {
    std::cerr << "gfit: " << e.message << "\n";
    return 2;
  }
  std::string reason = fit.reason;
  if (status != 1 && reason.empty()) {
    // Why the library refused, as it recorded for this thread.
    char const* text = gfLastReasonText();
    reason = gfLastReason() != gfReason::none && text[0] != '\0' ? text : "the fit did not converge to an element";
  }
  std::cout << result_json(element, status, input, fit, command.units, reason).dump() << "\n";
  for (std::string const& w : fit.warnings) std::cerr << "gfit: " << element.name << ": warning: " << w << "\n";
  if (status != 1) {
    std::cerr << "gfit: " << element.name << ": " << reason << "\n";
    return 1;
  }
  if (!command.residuals.empty()) {
    if (fit.deviations.empty()) {
      std::cerr << "gfit: " << element.name << " has no per-point deviations for --residuals\n";
      return 2;
    }
    if (!write_residuals(command.residuals, input.points, fit.deviations)) {
      std::cerr << "gfit: cannot write " << command.residuals << "\n";
      return 2;
    }
  }
  return 0;
}

// The options every command that reads points takes.
void add_input_options(CLI::App* app, InputOptions& input) {
  app->add_option("--format", input.format, "input format (default: by extension and content)")
      ->check(CLI::IsMember({"auto", "text", "csv", "ply"}))
      ->type_name("FORMAT");
  app->add_option("--columns", input.columns, "the columns to read, by name or 1-based number (X,Y,Z or 2,3,4)")
      ->type_name("LIST");
}

// Every option of `specs` fills `options` by its name once parsed.
void add_spec_options(CLI::App* app, std::vector<OptionSpec> const& specs, Options& options) {
  for (OptionSpec const& spec : specs) {
    std::string const name = spec.name;
    if (spec.value.empty())
      app->add_flag_callback(name, [&options, name] { options.values[name] = ""; }, spec.help);
    else
      app->add_option_function<std::string>(
             name, [&options, name](std::string const& v) { options.values[name] = v; }, spec.help)
          ->type_name(spec.value);
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"gfit: fit geometric elements to measured points; results as JSON (docs/results.md)", "gfit"};
  app.require_subcommand(1);
  app.footer("Points: one per line as x y [z] text, CSV/TSV with or without a header, or PLY; '-' reads standard input.");

  // gfit fit ELEMENT FILE
  CLI::App* fit = app.add_subcommand("fit", "fit an element to the points in FILE");
  fit->require_subcommand(1);
  FitCommand command;
  Element const* chosen = nullptr;
  for (Element const& e : elements()) {
    CLI::App* sub = fit->add_subcommand(e.name, e.summary);
    sub->add_option("FILE", command.file, "the points ('-': standard input)")->required();
    add_input_options(sub, command.input);
    sub->add_option("--units", command.units, "the length unit of the coordinates, stated in the result (default mm)")
        ->type_name("UNIT");
    sub->add_option("--residuals", command.residuals, "write the signed deviation of every point (CSV: index,x,y,z,deviation)")
        ->type_name("FILE");
    add_spec_options(sub, e.options, command.options);
    sub->footer("Example: gfit fit " + e.name + " " + (e.example.empty() ? "points.xyz" : e.example));
    sub->callback([&chosen, &e] { chosen = &e; });
  }

  app.add_subcommand("elements", "list the elements and their options");

  // gfit form KIND FILE
  Command other;
  CLI::App* form = app.add_subcommand("form", "least-squares and minimum-zone form errors of a plane, 3-D line, sphere or cylinder");
  form->add_option("ELEMENT", other.args, "plane, line3, sphere or cylinder, then FILE")->required()->expected(2);
  add_input_options(form, other.input);
  form->footer("Example: gfit form cylinder data/cylinder.xyz");

  CLI::App* affine = app.add_subcommand("affine", "the affine map taking x y [z] onto x' y' [z'] (one pair per line)");
  affine->add_option("PAIRS", other.args, "the pairs ('-': standard input)")->required()->expected(1);
  add_input_options(affine, other.input);
  affine->footer("Example: gfit affine pairs.txt");

#ifdef GFIT_CLI_CAD
  CLI::App* deviations = app.add_subcommand("deviations", "deviations of measured points from a CAD part (CSV, or --json)");
  deviations->add_option("POINTS", other.args, "the measured points")->required()->expected(1);
  add_input_options(deviations, other.input);
  add_spec_options(deviations,
                   {{"--cad", "PART", "the CAD part: STEP, IGES or BREP (required)"},
                    {"--radius", "R", "probe ball radius: the points are ball centres (default 0)"},
                    {"--json", "", "JSON instead of CSV"},
                    {"--summary", "FILE", "write the summary there as JSON (default: one line on standard error)"}},
                   other.options);
  deviations->footer("Example: gfit deviations --cad data/bracket.step data/bracket.xyz");

  CLI::App* allowance = app.add_subcommand(
      "allowance", "the placement of a blank or casting with the largest uniform allowance to a CAD part");
  allowance->add_option("POINTS", other.args, "the points measured on the blank")->required()->expected(1);
  add_input_options(allowance, other.input);
  add_spec_options(allowance,
                   {{"--cad", "PART", "the finished part: STEP, IGES or BREP (required)"},
                    {"--units", "UNIT", "the length unit of the coordinates, stated in the result (default mm)"},
                    {"--json", "", "JSON (the only output; accepted for symmetry with align)"}},
                   other.options);
  allowance->footer("Example: gfit allowance --cad data/bracket.step data/bracket-displaced.xyz");
#endif

  CLI::App* align = app.add_subcommand(
      "align", "align measured points: to a CAD part, by reference points (--rps) or by an affine map (--affine)");
  align->add_option("POINTS", other.args, "the measured points (with --cad)")->expected(0, 1);
  add_input_options(align, other.input);
  std::string rps_file, affine_file;
  align->add_option("--rps", rps_file,
                    "RPS (3-2-1) alignment: one reference point per line, mx my mz qx qy qz lx ly lz [w] "
                    "(measured, nominal, locked world axes 0/1, weight)")
      ->type_name("FILE");
  align->add_option("--affine", affine_file, "the affine map taking x y [z] onto x' y' [z'] (one pair per line)")
      ->type_name("PAIRS");
  std::vector<std::string> pairs;
#ifdef GFIT_CLI_CAD
  add_spec_options(align,
                   {{"--cad", "PART", "the CAD part: STEP, IGES or BREP"},
                    {"--tol", "T", "convergence tolerance (default 1e-6)"},
                    {"--lock-origin", "x,y,z:x,y,z", "keep the measured point on the nominal one"},
                    {"--lock-rotations", "x,y,z[:...]", "axes the alignment may not rotate about"},
                    {"--bands", "FILE", "a tolerance band (low high) per point"},
                    {"--scale", "PASSES", "also fit a uniform scale, in this many passes"},
                    {"--json", "", "JSON instead of text"}},
                   other.options);
  align->add_option("--pairs", pairs, "start from corresponding points: a file of measured and one of nominal points")
      ->expected(2)
      ->type_name("MEASURED NOMINAL");
  align->footer(
      "Examples: gfit align --cad data/bracket.step data/bracket-displaced.xyz\n"
      "          gfit align --rps reference-points.txt");
#else
  align->add_flag_callback("--json", [] {}, "JSON (the only output of --rps and --affine)");
  align->footer("Example: gfit align --rps reference-points.txt");
#endif

  try {
    app.parse(argc, argv);
  } catch (CLI::CallForHelp const& e) {
    return app.exit(e) == 0 ? 0 : 2;
  } catch (CLI::CallForAllHelp const& e) {
    return app.exit(e) == 0 ? 0 : 2;
  } catch (CLI::ExtrasError const& e) {
    CLI::App* where = active(&app);
    std::string word;
    for (std::string const& r : where->remaining()) {
      word = r;
      break;
    }
    if (word.rfind("-", 0) == 0) {
      std::string const guess = closest(word, option_names(where));
      std::cerr << "gfit: " << where->get_name() << ": unknown option '" << word << "'"
                << (guess.empty() ? "" : " (did you mean '" + guess + "'?)") << "\n";
    } else {
      std::cerr << "gfit: " << where->get_name() << ": unexpected argument '" << word << "'\n";
    }
    std::cerr << "Run with --help for more information.\n";
    return 2;
  } catch (CLI::ParseError const& e) {
    CLI::App* where = active(&app);
    std::string message = e.what();
    if (where->get_subcommands({}).size() > 0 && !where->remaining().empty()) {
      // A mistyped element or command: suggest the closest name.
      std::string const word = where->remaining().front();
      std::string const guess = closest(word, subcommand_names(where));
      message = "unknown " + std::string(where == fit ? "element" : "command") + " '" + word + "'" +
                (guess.empty() ? "" : " (did you mean '" + guess + "'?)") +
                (where == fit ? "; see 'gfit elements'" : "");
    } else if (where == fit) {
      message = "fit needs an element and a file: gfit fit ELEMENT FILE (see 'gfit elements')";
    } else if (where != &app) {
      message = where->get_name() + ": " + message;
    }
    std::cerr << "gfit: " << message << "\n";
    if (argc < 2) std::cerr << app.help();
    return 2;
  }

  if (app.got_subcommand("elements")) {
    for (Element const& e : elements()) {
      std::cout << e.name << "\t" << e.summary;
      if (!e.options.empty()) {
        std::cout << " [options:";
        for (OptionSpec const& o : e.options) std::cout << " " << o.name;
        std::cout << "]";
      }
      std::cout << "\n";
    }
    return 0;
  }
  if (chosen) return run_fit(*chosen, command);
  if (app.got_subcommand("form")) return run_form(other);
  if (app.got_subcommand("affine")) return run_affine(other);
  if (app.got_subcommand("align") && (!rps_file.empty() || !affine_file.empty())) {
    if (!rps_file.empty() + !affine_file.empty() + !other.args.empty() > 1) {
      std::cerr << "gfit: align: give one of --rps FILE, --affine PAIRS or --cad PART POINTS\n";
      return 2;
    }
    if (!rps_file.empty()) return run_rps(rps_file, other.input);
    other.args = {affine_file};
    return run_affine(other);
  }
#ifdef GFIT_CLI_CAD
  if (app.got_subcommand("deviations")) return run_deviations(other);
  if (app.got_subcommand("allowance")) return run_allowance(other);
  if (app.got_subcommand("align")) {
    if (other.args.empty()) {
      std::cerr << "gfit: align: give --cad PART POINTS, --rps FILE or --affine PAIRS\n";
      return 2;
    }
    if (!pairs.empty()) other.options.values["--pairs"] = pairs[0] + "\n" + pairs[1];
    return run_align(other);
  }
#else
  if (app.got_subcommand("align")) {
    std::cerr << "gfit: align: give --rps FILE or --affine PAIRS (this build has no CAD alignment)\n";
    return 2;
  }
#endif
  return 2;
}
