// The command-line program's element table and the pieces its commands share. Each family
// of elements lives in its own file and contributes its entries through a function declared
// here; tools/gfit.cpp parses the command line (CLI11) and writes the result (one JSON object,
// documented in docs/results.md).
#pragma once

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "gfit/gfit.h"
#include "tools/input.h"
#include "tools/point_reader.h"

namespace gfit::cli {

// Keys keep the order they were written in, so every result reads in the documented order.
using Json = nlohmann::ordered_json;

// Version of the result layout (docs/results.md); raised when a key changes meaning.
constexpr int kSchema = 1;

// The options a command was given: `--name value`, or `--flag` (value "").
struct Options {
  std::map<std::string, std::string> values;
  bool has(std::string const& name) const { return values.count(name) != 0; }
  std::string const& get(std::string const& name) const { return values.at(name); }
};

// Thrown by the parsing helpers below on a bad option value; the program reports it and
// exits with status 2. (The library itself never throws.)
struct UsageError {
  std::string message;
};

double number_option(Options const& options, std::string const& name);
// x,y,z given as one argument.
giVector3 vector_option(Options const& options, std::string const& name);

// One option of an element: a flag when `value` is empty, else the name of its value.
struct OptionSpec {
  std::string name;   // "--normals"
  std::string value;  // "FILE", "R", "x,y,z"; "" for a flag
  std::string help;
};

// What a fit hands back besides its status: the parameters under the common names, the
// signed deviation of every point (the element's own distance function) and figures of its
// own (distribution_quality, uncertainty, ...), written after the common ones.
struct FitResult {
  Json parameters = Json::object();
  Json extra = Json::object();
  std::vector<double> deviations;  // one per point, or empty: the element has no distance
  double residual = -1.0;          // the library's RMS, when the fit gives one (< 0: none)
  std::string reason;              // set by fits that read the reason themselves
  std::vector<std::string> warnings;
};

struct Element {
  std::string name;
  int columns;      // coordinates per point: 2 or 3 (0: either, decided by the file)
  int min_points;
  std::string summary;
  std::vector<OptionSpec> options;
  std::function<int(Input const&, Options const&, FitResult&)> fit;
  int max_columns = 0;      // above `columns`: optional further values per point (a probe radius)
  std::string example = "";  // arguments after `gfit fit NAME`, shown by --help
};

// The points of a table, from its first 3 (2) values per row.
giPoint3coDynArr points3(PointTable const& t);
giPoint2coDynArr points2(PointTable const& t);
// One unit normal per point: from the input file when it carried normals, else --normals FILE
// (both: a usage error). Empty when neither is given.
giUnitVec3coDynArr normals_of(Input const& input, Options const& options);
bool has_normals(Input const& input, Options const& options);

// The probe radius of every point: the optional column after the `coordinates`, or --radius R.
doublecoDynArr probe_radii(PointTable const& t, int coordinates, Options const& options);

// How the searches over axis directions are guided: normals (from the file or --normals FILE)
// or --guess x,y,z (not both), within --angle DEG (default 10).
struct AxisGuide {
  giUnitVec3coDynArr normals;  // empty without normals
  giUnitVec3 guess;            // unset without --guess
  giAngle angle;
};
AxisGuide axis_guide(Input const& input, Options const& options);
// Warns when a --guess was given and the fitted axis lies farther from it than --angle.
void check_guess(AxisGuide const& guide, giUnitVec3 const& axis, FitResult& out);

// JSON arrays of coordinates.
Json xyz(giPoint3 const& p);
Json xyz(giVector3 const& v);
Json xy(giPoint2 const& p);
Json xy(giVector2 const& v);

// The signed distances of the points from the element a problem holds at parameters `p`
// (the problem classes' own distance functions).
std::vector<double> distances(mlDistanceLeastSquares& problem, mlVector const& p);

// An axis through `point` along `axis` at the foot of the points' centroid, oriented so that
// the first point lies on its positive side (unchanged when it lies across the foot).
void foot_and_orientation(giPoint3coDynArr const& points, giPoint3& point, giUnitVec3& axis);
// The common parameters and deviations of a cylinder (plain or probe-compensated: the problem).
void cylinder_result(giPoint3coDynArr const& points, giPoint3 point, giUnitVec3 axis, double radius,
                     gfLeastSquareCylinder& problem, FitResult& out);
// The same for a cone given by apex, axis towards the apex and half-angle.
void cone_result(giPoint3coDynArr const& points, giPoint3 const& apex, giUnitVec3 const& axis, double half_angle,
                 gfLeastSquareCone& problem, FitResult& out);
// An angle in degrees and its radians twin, as "<key>_deg" and "<key>_rad".
void add_angle(Json& object, std::string const& key, double radians);
// The standard uncertainties of a least-squares element; `kind` picks the figures that mean
// something for it ("circle", "sphere", "plane", "line3", "cylinder", "cone").
Json uncertainty_json(gfElementUncertainty const& u, std::string const& kind);
// The circle in space's signed deviations (outside its radius: positive).
void circle3_deviations(giPoint3coDynArr const& points, giPoint3 const& centre, giUnitVec3 const& normal,
                        double radius, FitResult& out);
// --normals, --guess and --angle, as the searches over axis directions take them.
std::vector<OptionSpec> axis_options();
// --radius and --inside of the probe-compensated fits.
std::vector<OptionSpec> probe_options(std::string const& inside_help);
// An ellipse in the plane under the one convention of the results: semi_axes [major, minor]
// and the angle of the major axis from +x, counter-clockwise, in (-90, 90] degrees; its
// signed deviations through the ellipse's problem class.
void ellipse_result(giPoint2coDynArr const& points, giPoint2 const& centre, double a, double b, double angle,
                    FitResult& out);
// A unit normal with its largest component made positive (planes, circles in space, tori).
giUnitVec3 canonical_normal(giUnitVec3 const& n);

// The measure of how well the points determine a fitted element, printed as
// "distribution_quality" by the fits of the elements that have one.
using Quality = gfLeastSquareDistributionQuality;

// The families.
std::vector<Element> line_plane_elements();
std::vector<Element> circle_cylinder_elements();
std::vector<Element> direct_fit_elements();
std::vector<Element> ellipse_probed_elements();
std::vector<Element> extremal_elements();
std::vector<Element> cone_elements();
std::vector<Element> torus_elements();

// The other commands, each given its positional arguments, its options and how to read input.
struct Command {
  std::vector<std::string> args;
  Options options;
  InputOptions input;
};
// `gfit form plane|line3|sphere|cylinder FILE`: least-squares and minimum-zone form errors.
int run_form(Command const& command);
// `gfit deviations --cad PART POINTS`: deviations of measured points from a CAD part
// (built with gfit::cad only).
int run_deviations(Command const& command);
// `gfit align --cad PART POINTS ...`: alignment of measured points to a CAD part (gfit::cad only).
int run_align(Command const& command);
// `gfit affine PAIRS`: the least-squares affine map taking the first point of each pair onto
// the second (gfPointsAffineMatch), as JSON.
int run_affine(Command const& command);

// `gfit align --rps FILE` and `gfit align --affine PAIRS` (tools/alignments2.cpp); `gfit
// allowance --cad PART POINTS`: the maxi-min placement (gfit::cad only).
int run_rps(std::string const& path, InputOptions const& format);
int run_allowance(Command const& command);

}  // namespace gfit::cli
