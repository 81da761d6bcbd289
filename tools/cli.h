// The command-line program's element table. Each family of elements lives in its own
// file and contributes its entries through a function declared here.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "gfit/gfit.h"
#include "tools/json.h"
#include "tools/point_reader.h"

namespace gfit::cli {

// Options after the file: `--name value` or a bare `--flag` (value "").
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

struct Element {
  std::string name;
  int columns;      // coordinates per point: 2 or 3 (0: either, decided by the file)
  int min_points;
  std::string summary;
  std::vector<std::string> options;  // accepted option names, e.g. "--normals"
  // Fits the points, writes status and parameters into `out` and returns the status.
  std::function<int(PointTable const&, Options const&, JsonObject&)> fit;
  int max_columns = 0;  // above `columns`: optional further values per point (a probe radius)
};

// The points of a table, from its first 3 (2) values per row.
giPoint3coDynArr points3(PointTable const& t);
giPoint2coDynArr points2(PointTable const& t);
// Unit vectors read from a file of x y z lines, one per point (--normals).
giUnitVec3coDynArr read_normals(std::string const& path, int expected);

// The probe radius of every point: the optional column after the `coordinates`, or --radius R.
doublecoDynArr probe_radii(PointTable const& t, int coordinates, Options const& options);

// How the searches over axis directions are guided: --normals FILE (one surface normal per
// point) or --guess x,y,z (not both), within --angle DEG (default 10).
struct AxisGuide {
  giUnitVec3coDynArr normals;  // empty without --normals
  giUnitVec3 guess;            // unset without --guess
  giAngle angle;
};
AxisGuide axis_guide(Options const& options, int points);

// The status and, on success, the axis point, direction, radius and residual of a cylinder.
void add_cylinder_result(JsonObject& out, int status, giPoint3 const& point, giUnitVec3 const& direction,
                         double radius, double residual);

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

// `gfit form plane|line3|sphere|cylinder FILE`: least-squares and minimum-zone form errors.
int run_form(std::vector<std::string> const& args);

// `gfit deviations --cad PART POINTS`: deviations of measured points from a CAD part
// (built with gfit::cad only).
int run_deviations(std::vector<std::string> const& args);
// `gfit align --cad PART POINTS ...`: alignment of measured points to a CAD part (gfit::cad only).
int run_align(std::vector<std::string> const& args);

// `gfit affine PAIRS`: the least-squares affine map taking the first point of each pair onto
// the second (gfPointsAffineMatch), as JSON.
int run_affine(std::vector<std::string> const& args);

// `gfit align --rps FILE` and `gfit align --affine PAIRS` (tools/alignments2.cpp); `gfit
// allowance --cad PART POINTS`: the maxi-min placement (gfit::cad only).
int run_alignments2(std::vector<std::string> const& args);
int run_allowance(std::vector<std::string> const& args);

}  // namespace gfit::cli
