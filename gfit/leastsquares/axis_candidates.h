// Circles of points projected along trial axis directions, the inner step of the searches
// over axes (cylinder, and the other rotational elements).
//
// For a trial direction d the points are projected into the plane through the origin with
// normal d and the least-squares circle is fitted there; the candidate axis is that
// circle's centre along d, and the circle's sum of squared radial errors is the candidate
// cylinder's sum of squared distances (the in-plane radial error is the distance from the
// cylinder). A search makes thousands of these fits, so they are made cheap:
//  - the points are centred once on their centroid; each trial only rotates them into the
//    plane, and nothing is allocated per trial (a fitter owns its scratch arrays);
//  - the fit starts from the algebraic (Kasa) circle and takes at most three damped
//    Gauss-Newton steps on the geometric distances (or as many as the caller allows),
//    stopping once the sum of squares falls by less than 1e-10 relatively. Near the axis
//    this is the least-squares circle that a Levenberg-Marquardt fit from the centroid
//    reaches; far from it, a circle whose sum of squares is within about 1e-6 of that
//    circle's, enough to rank a losing candidate. A fit that ran out of steps says so
//    (`settled` false), so that a search can finish the candidates that contend for a win.
//    The winning candidate of a search is refined by the element's own fit in any case.
#pragma once

#include <vector>

#include "gfit/gfit_export.h"
#include "gfit/platform/arrays.h"

namespace gfit::detail {

// The points of one search, centred on their centroid (shared, read-only, by all fitters).
class GFIT_EXPORT CentredPoints {
 public:
  explicit CentredPoints(giPoint3coDynArr const& points);
  int count() const { return n_; }
  giPoint3 const& centroid() const { return centroid_; }
  double const* xyz() const { return xyz_.data(); }  // x y z of point i at 3i

 private:
  int n_;
  giPoint3 centroid_;
  std::vector<double> xyz_;
};

struct ProjectedCircle {
  // The centre from the points' centroid, in the plane through the centroid normal to the
  // direction: the axis passes through centroid + offset.
  giVector3 offset;
  double radius = 0.0;
  double sum_of_squares = 0.0;  // of the radial errors
  double largest_error = 0.0;   // the largest |radial error| (roundness)
  bool settled = true;          // false when the steps ran out before the sum settled
};

class GFIT_EXPORT CircleAlongDirection {
 public:
  static constexpr int default_steps = 3;

  explicit CircleAlongDirection(CentredPoints const& points);
  // False when the projected points admit no circle (fewer than 3, or all coincident).
  // At most `steps` Gauss-Newton steps.
  bool fit(giUnitVec3 const& direction, ProjectedCircle& out, int steps = default_steps);

 private:
  double pass(double a, double b, double r, double* jtj, double* jte, double& largest) const;

  CentredPoints const& points_;
  std::vector<double> x_, y_;
};

// Circle fits (`fitters`, one per thread, over the same points) spent by
// best_projected_circle: `fits` ranking fits and `finished` contenders.
struct RankingWork {
  int fits = 0;
  int finished = 0;
};

// The index of the direction, among those `used`, whose projected circle has the smallest
// sum of squares (the first of equal ones); -1 when none admits a circle. `circles` and
// `fitted` (sized like `directions`) receive every circle. The circles are fitted on the
// fitters' threads; the answer does not depend on their number.
//
// A search over axes means to rank its trial directions by the least-squares circle of the
// projected points. It ranks them instead by the algebraic circle (no Gauss-Newton step),
// whose sum of squared geometric distances is an upper bound of the least-squares circle's
// and costs a fifth of it; every circle whose sum is within `contender` times the smallest
// is then fitted to convergence (`finish_steps` steps) before the winner is chosen. The
// least-squares winner is thus chosen whenever its algebraic circle's sum is within
// `contender` of its own, which holds for any direction near a cylinder's axis (the
// projected points then lie on a circle up to the noise).
GFIT_EXPORT int best_projected_circle(std::vector<CircleAlongDirection>& fitters,
                                      std::vector<giUnitVec3> const& directions, std::vector<char> const& used,
                                      std::vector<ProjectedCircle>& circles, std::vector<char>& fitted,
                                      double contender, int finish_steps, RankingWork& work);

}  // namespace gfit::detail
