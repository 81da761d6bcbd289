// Shared steps of the centre walks of the maximum inscribed and min-max circles: the lists
// of nearest and farthest points from a centre, and the distance along a ray to the next
// centre at which another point becomes as near as a support point.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include "gfit/gfit_export.h"
#include "gfit/platform/point.h"
#include "gfit/platform/utilities.h"

// (distance, point index) pairs; they compare by distance, then by index.
using gfDistanceList = std::vector<std::pair<double, size_t>>;

class GFIT_EXPORT gfCircleFitUtils {
 public:
  // The points within 1.1920928955078125e-7 of the largest and of the smallest distance
  // from `centre`: `farthest` in descending and `nearest` in ascending order of (distance,
  // index). With `radii`, each distance is |centre - p_i| - radii[i].
  //
  // The lists are not cleared up front: each is reset by the first point that beats its
  // running extreme (which starts at -1 for the farthest and +DBL_MAX for the nearest) by
  // the tolerance. Compensated distances all below -1 therefore leave `farthest` with what
  // it held. A final trim keeps exactly the entries within the tolerance of the extreme,
  // even when the running extreme crept in steps smaller than the tolerance.
  static void calculate_distances(std::vector<giPoint2> const& points, giPoint2 const& centre,
                                  gfDistanceList& farthest, gfDistanceList& nearest,
                                  utOptionalArg<std::vector<double> const&> radii = {});

  // The smallest t > 1.1920928955078125e-7 at which the ray centre + t direction crosses
  // the perpendicular bisector of a support point p_s and another point p_j (every support
  // entry s, every j != s): the first place ahead where p_j becomes as near as p_s. The
  // direction is used as given, so t is in multiples of it. False, with step = +DBL_MAX,
  // when no bisector is crossed ahead.
  static bool step_distance(giPoint2 const& centre, giVector2 const& direction, std::vector<giPoint2> const& points,
                            gfDistanceList const& support, double& step);
};

namespace gfit::detail {
// The largest coordinate or probe radius the extremal circles accept: squared distances
// between any two such values, and their sums, stay finite (1e150 squared is 1e300).
constexpr double coordinate_limit = 1e150;
// Every coordinate finite.
bool finite_points(std::vector<giPoint2> const& points);
// One finite, non-negative radius per point.
bool valid_radii(std::vector<giPoint2> const& points, std::vector<double> const& radii);
// The input checks of the circle entries: at least `minimum` points, every coordinate
// finite and within coordinate_limit, and (with radii) one finite, non-negative radius
// within the limit per point. On a refusal the reason is recorded and false returned.
bool accept_profile(std::vector<giPoint2> const& points, size_t minimum,
                    std::vector<double> const* radii = nullptr);
// A centre the walks may move to: finite and within 1e153, so that its distances to
// accepted points cannot overflow.
bool centre_in_range(giPoint2 const& c);
// The mean of the coordinates (the points must not be empty).
giPoint2 centroid(std::vector<giPoint2> const& points);
}  // namespace gfit::detail
