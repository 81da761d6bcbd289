#include "gfit/leastsquares/cylinder.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "gfit/leastsquares/axis_candidates.h"
#include "gfit/leastsquares/axis_search.h"
#include "gfit/leastsquares/evaluator.h"
#include "gfit/leastsquares/refusal.h"
#include "gfit/leastsquares/search_shared.h"
#include "gfit/platform/levenberg_marquardt.h"
#include "gfit/platform/parallel.h"
#include "gfit/platform/random.h"
#include "gfit/platform/report.h"
#include "gfit/platform/shapes.h"
#include "gfit/platform/workplane.h"
#include "gfit/utilities/direction_sampling.h"

using gfit::detail::CentredPoints;
using gfit::detail::CircleAlongDirection;
using gfit::detail::ProjectedCircle;

namespace {
constexpr double kPi = 3.141592653589793;
}  // namespace

// ---- the fitted value -------------------------------------------------------------------

int gfFittedCylinder::coincident(gfFittedCylinder const& other, double tolerance, giAngle const& angle) const {
  if (tolerance < 0.0) return 0;
  giWorkplane3 across(point_, direction_, direction_.any_normal());
  giPoint3 p = across.to_work(other.point_);
  double offset = std::hypot(p.x(), p.y());  // across this axis; along it is free
  return offset <= tolerance && std::fabs(radius_ - other.radius_) <= tolerance &&
                 std::fabs(direction_.dot(other.direction_)) >= angle.cos()
             ? 1
             : 0;
}

int gfFittedCylinder::invalid() const {
  return point_.invalid() || direction_.invalid() || !(radius_ > 0.0) || !(deviation_ >= 0.0) ? 1 : 0;
}

// ---- the problem ------------------------------------------------------------------------

gfLeastSquareCylinder::gfLeastSquareCylinder(giPoint3coDynArr const& points)
    : AxialProblem(7, points, giPoint3(0.0, 0.0, 0.0)), dF_(6), dG_(6) {}
gfLeastSquareCylinder::gfLeastSquareCylinder(giPoint3coDynArr const& points, giPoint3 const& origin)
    : AxialProblem(7, points, origin), dF_(6), dG_(6) {}
gfLeastSquareCylinder::~gfLeastSquareCylinder() = default;

void gfLeastSquareCylinder::normalize_parameters(mlVector& p) const { gfit::detail::canonical_axis(p); }

namespace {
// Point i measured from the frame origin (itself when that is the coordinate origin).
inline giPoint3 from_origin(giPoint3 const& q, double const* origin) {
  return giPoint3(q.x() - origin[0], q.y() - origin[1], q.z() - origin[2]);
}
}  // namespace

void gfLeastSquareCylinder::get_distance(double& d, int i) const {
  mlVector const& p = parameters();
  giUnitVec3 u(p[3], p[4], p[5]);
  d = u.cross(from_origin(points()[i], origin_) - giPoint3(p[0], p[1], p[2])).length() - p[6];
}

void gfLeastSquareCylinder::get_distance_and_gradient(double& d, mlVector& g, int i) const {
  mlVector const& p = parameters();
  double F = 0.0, G = 0.0;
  F_G_and_derivatives(giPoint3(p[0], p[1], p[2]), giUnitVec3(p[3], p[4], p[5]), from_origin(points()[i], origin_), F,
                      dF_, G, dG_);
  d = G - p[6];
  for (int k = 0; k < 6; ++k) g[k] = dG_[k];
  g[6] = -1.0;
}

void gfLeastSquareCylinder::offset_block(double const* offsets, int first, int count, double* distances,
                                         double* squares, double* jacobian, int ld) const {
  // The per-point operations in one loop, with the unit direction formed once.
  mlVector const& p = parameters();
  const gfit::detail::AxisFrame frame(p, origin_);
  const double r = p[6];
  giPoint3 const* q = points().data() + first;
  gfit::detail::AxialPoint a;
  for (int k = 0; k < count; ++k) {
    frame.locate(q[k], a);
    const double d = offsets ? a.G - r + offsets[first + k] : a.G - r;
    distances[k] = d;
    squares[k] = d * d;
    if (!jacobian) continue;
    frame.gradient(a);
    jacobian[k] = a.g0;
    jacobian[ld + k] = a.g1;
    jacobian[2 * ld + k] = a.g2;
    jacobian[3 * ld + k] = a.F * a.g0;
    jacobian[4 * ld + k] = a.F * a.g1;
    jacobian[5 * ld + k] = a.F * a.g2;
    jacobian[6 * ld + k] = -1.0;
  }
}

int gfLeastSquareCylinder::n_independent_parameters() const { return n_parameters() - 2; }

void gfLeastSquareCylinder::parameter_scales(mlVector& s) const {
  mlVector const& p = parameters();
  const giUnitVec3 u(p[3], p[4], p[5]);
  const giPoint3 P(p[0], p[1], p[2]);
  double lo = 0.0, hi = 0.0;
  bool first = true;
  for (giPoint3 const& q : points()) {
    double F = u.dot(from_origin(q, origin_) - P);
    if (first || F < lo) lo = F;
    if (first || F > hi) hi = F;
    first = false;
  }
  const double L = std::sqrt((hi - lo) * (hi - lo) + p[6] * p[6]);
  s.resize(n_parameters());
  for (int k = 0; k < 7; ++k) s[k] = (k >= 3 && k < 6) ? L : 1.0;
}

int gfLeastSquareCylinder::are_normals_in_limit(giPoint3coDynArr const& points, giAngle const& limit,
                                                giUnitVec3 const& guess, giUnitVec3coDynArr const& normals,
                                                mlVector& parameters) {
  const giUnitVec3 u(parameters[3], parameters[4], parameters[5]);
  if (!guess.invalid() && std::fabs(u.dot(guess)) < limit.cos()) return 0;
  if (normals.count() == 0) return 1;
  const giPoint3 P(parameters[0], parameters[1], parameters[2]);
  const double c = limit.cos();
  bool outward = true, inward = true;
  const int n = std::min(points.count(), normals.count());
  for (int i = 0; i < n && (outward || inward); ++i) {
    giVector3 d = points[i] - P;
    giVector3 radial = d - u * u.dot(d);
    const double len = radial.length();
    if (!(len > 0.0)) continue;  // a point on the axis has no radial direction to judge
    // angle(radial, normal) > limit  <=>  cos(angle) < cos(limit)
    const double cos_angle = normals[i].dot(radial) / len;
    if (cos_angle < c) outward = false;
    if (-cos_angle < c) inward = false;
  }
  return outward || inward ? 1 : 0;
}

void gfLeastSquareCylinder::add_distinct_result(gfFittedCylinder const& c, double tolerance, giAngle angle,
                                                gfFittedCylindercoDynArr& results) {
  gfit::detail::add_distinct(c, tolerance, angle, results);
}

// ---- initial axis -----------------------------------------------------------------------

namespace {

// The circle through three points: its unit normal and radius. False for (nearly)
// collinear points, where the sine of the angle at `a` is below 1e-9.
bool circle_through(giPoint3 const& a, giPoint3 const& b, giPoint3 const& c, giUnitVec3& normal, double& radius) {
  giVector3 ab = b - a, bc = c - b, ac = c - a;
  giVector3 n = ab.cross(ac);
  if (!(n.length() > 1e-9 * ab.length() * ac.length())) return false;
  normal = n.unit();
  giInfLine3 bisector_ab(a + ab * 0.5, normal.cross(ab).unit());
  giInfLine3 bisector_bc(b + bc * 0.5, normal.cross(bc).unit());
  giPoint3 centre, other;
  if (!bisector_ab.closest_points(bisector_bc, centre, other)) return false;
  radius = centre.distance(a);
  return true;
}

// The initial axis's thresholds, fractions of the points' extent or ratios of radii: two
// rings of three points are congruent when their radii differ by a tenth at most; two
// points closer than 1e-9 of the extent give no direction; the walk stops at a projected
// circle round to a thousandth of the extent (0.1 on a part 100 across).
constexpr double kCongruent = 0.1;
constexpr double kCoincident = 1e-9;
constexpr double kRound = 1e-3;

// Fits the projected circles of `directions` in order, on the allowed threads, a chunk at
// a time, handing each result to `visit` in order until it returns false. Returns the
// number of circles fitted.
template <class Visit>
int fit_directions_in_order(std::vector<giUnitVec3> const& directions, std::vector<CircleAlongDirection>& fitters,
                            int steps, Visit visit) {
  const int threads = static_cast<int>(fitters.size());
  const int chunk = threads == 1 ? 1 : 8 * threads;
  std::vector<ProjectedCircle> circles(chunk);
  std::vector<char> fitted(chunk);
  const int total = static_cast<int>(directions.size());
  for (int start = 0; start < total; start += chunk) {
    const int count = std::min(chunk, total - start);
    gfit::detail::parallel_for(count, threads, [&](int i, int worker) {
      fitted[i] = fitters[worker].fit(directions[start + i], circles[i], steps);
    });
    for (int i = 0; i < count; ++i)
      if (!visit(start + i, fitted[i] != 0, circles[i])) return start + count;
  }
  return total;
}

std::vector<CircleAlongDirection> make_fitters(CentredPoints const& centred, int items) {
  const int threads = gfit::detail::threads_for(items, 20.0 * centred.count());
  return std::vector<CircleAlongDirection>(threads, CircleAlongDirection(centred));
}

// Point evaluations of one circle fit of `steps` Gauss-Newton steps, per point: the
// projection, the pass at the algebraic circle and one pass per step.
double circle_work(int steps) { return 2.0 + steps; }

// gfCylinder_InitialSolution with the caller's fitters (over the same points, centred),
// their circles taking at most `circle_steps` Gauss-Newton steps; the walk stops early when
// the budget (if any) is spent or the host cancels.
void initial_solution(giPoint3coDynArr const& points, std::vector<CircleAlongDirection>& fitters, int circle_steps,
                      gfit::detail::SearchBudget* budget, giVector3& direction) {
  const int n = points.count();
  // The lengths it compares with are fractions of the points' extent (see the header).
  const double size = gfit::detail::extent(points.data(), n);
  bool have_six = false;
  giVector3 six;
  if (n == 6) {
    giUnitVec3 n1, n2;
    double r1 = 0.0, r2 = 0.0;
    if (circle_through(points[0], points[1], points[2], n1, r1) &&
        circle_through(points[3], points[4], points[5], n2, r2) &&
        std::fabs(std::fabs(n1.dot(n2)) - 1.0) <= 0.1 && std::fabs(r1 - r2) <= kCongruent * std::fmax(r1, r2)) {
      have_six = true;
      six = n1;
    }
  }
  giVector3 v = n >= 2 ? points[0] - points[1] : giVector3(1.0, 0.0, 0.0);
  if (!(v.length() > kCoincident * size)) v = giVector3(1.0, 0.0, 0.0);

  if (n >= 3) {
    double best = DBL_MAX;
    int steps = 20;
    double angle = kPi;
    std::vector<giUnitVec3> directions;
    for (int level = 0; level < 3; ++level) {
      gfVectorGradient gradient(v, angle, steps);
      directions.clear();
      for (gfVectorGradientIterator it = gradient.iterator(); it++;) directions.push_back(it.vector().unit());
      const giVector3 old_v = v;
      double next_angle = kPi;
      bool stopped = false;
      const int fitted_count =
          fit_directions_in_order(directions, fitters, circle_steps, [&](int i, bool fitted, ProjectedCircle const& c) {
            if (fitted && c.largest_error < best) {
              best = c.largest_error;
              v = directions[i];
              next_angle = 1.5 * gradient.step_angle();
            }
            // Without a budget (the guess of another search) the host's flag is still polled.
            if ((i & 63) == 63 && (budget ? !budget->charge(64 * circle_work(circle_steps) * n)
                                          : gfit::detail::cancelled()))
              stopped = true;
            return !(best < kRound * size) && !stopped;  // round enough: walk no further
          });
      if (budget) budget->charge((fitted_count & 63) * circle_work(circle_steps) * n);
      if (stopped || (budget ? !budget->go_on() : gfit::detail::cancelled())) break;
      angle = next_angle;  // pi again when nothing improved
      if (old_v.unit().dot(v.unit()) > 0.99) break;
      steps = std::max(2, static_cast<int>(std::sqrt(static_cast<double>(steps))));
    }
  }
  direction = have_six ? six : v;
}

}  // namespace

int gfCylinder_InitialSolution(giPoint3coDynArr const& points, giVector3& direction) {
  CentredPoints centred(points);
  std::vector<CircleAlongDirection> fitters = make_fitters(centred, 100);
  initial_solution(points, fitters, CircleAlongDirection::default_steps, nullptr, direction);
  return 1;
}

// ---- the full computation ---------------------------------------------------------------
//
// The search runs phase A's deterministic axes and phase B's passes of seed-1 random
// batches on at most kSearchPoints points spread evenly through the array, in a frame
// centred on them, refines its winner on all the points and judges whether the points
// determine it there. See the header.

namespace {

using gfit::detail::SearchBudget;

constexpr int kSearchPoints = 2000;
// Work bound of the search, in point evaluations per point of the subset. Phase A and the
// eight passes of phase B cost about 1e5 per point at the most, so those steps always
// run to their end; the bound only guarantees that nothing can run away.
constexpr double kSearchWork = 2e5;
// Candidates are ranked by the algebraic circle of their projected points, and those within
// kContender of a batch's best are fitted to convergence (gfit::detail::best_projected_circle);
// the ring walk ranks by the algebraic circle's roundness.
constexpr int kRankingSteps = 0;
constexpr double kContender = 2.0;
constexpr int kFinishSteps = 50;
// A solution within this fraction of the range in RMS ends the search after its first pass;
// agreement with the normals is given up when it costs more than this fraction in RMS.
constexpr double kGoodEnough = 1e-3;

struct Solution {
  double value = DBL_MAX;
  mlVector parameters = mlVector(7);  // axis point from the frame origin, direction, radius
  bool converged = true;              // whether the solver's run that gave it converged
};

void set_candidate(ProjectedCircle const& c, giUnitVec3 const& d, mlVector& p) {
  p[0] = c.offset.x();
  p[1] = c.offset.y();
  p[2] = c.offset.z();
  p[3] = d.x();
  p[4] = d.y();
  p[5] = d.z();
  p[6] = c.radius;
}

// Parameters in world coordinates of parameters measured from `origin`.
mlVector to_world(mlVector const& p, giPoint3 const& origin) {
  mlVector w = p;
  w[0] += origin.x();
  w[1] += origin.y();
  w[2] += origin.z();
  return w;
}

// The test of a solution (see leastsquares/refusal.h): a finite value, a positive radius
// within the size bound, and a Jacobian of full rank. `p` is in the frame of `problem` (the
// axis point measured from its frame origin). Records the reason when it fails.
bool determined_cylinder(gfLeastSquareDistance3& problem, mlVector const& p, double value, double extent) {
  using gfit::detail::refuse;
  if (!std::isfinite(value)) return refuse(gfReason::no_convergence) != 0;
  if (!(p[6] > 0.0)) return refuse(gfReason::failed, "the cylinder's radius is not positive") != 0;
  if (!gfit::detail::within_size_bound(p[6], extent) ||
      !gfit::detail::determined(gfit::detail::axial_determination(problem, p)))
    return refuse(gfReason::not_determined) != 0;
  return true;
}

// The outputs of parameters measured from `origin` (normalised there: the axis point is the
// foot from `origin`). The axis point given back is the foot of the perpendicular from the
// coordinate origin, as the normalised parameters of the problem in world coordinates have
// it: origin + p - (origin . u) u, the large terms formed first.
void write_outputs(mlVector const& p, double value, giPoint3 const& origin, giPoint3& point, giUnitVec3& direction,
                   double& radius, double& residual) {
  const giUnitVec3 u(p[3], p[4], p[5]);
  const double t = origin.x() * u.x() + origin.y() * u.y() + origin.z() * u.z();
  direction = u;
  radius = p[6];
  point = giPoint3((origin.x() - t * u.x()) + p[0], (origin.y() - t * u.y()) + p[1], (origin.z() - t * u.z()) + p[2]);
  residual = std::sqrt(value);
}

// Phases A and B over the points of one subset, in a frame centred on them.
class CylinderSearch {
 public:
  CylinderSearch(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals, giUnitVec3 const& guess,
                 giAngle const& angle, SearchBudget& budget)
      : points_(points), normals_(normals), guess_(guess), angle_(angle), centred_(points),
        problem_(points, centred_.centroid()), lm_(problem_), range_(problem_.range()), budget_(budget),
        fitters_(make_fitters(centred_, 100)) {}

  giPoint3 const& origin() const { return centred_.centroid(); }
  Solution const& best_ok() const { return best_ok_; }
  Solution const& best_any() const { return best_any_; }

  void run() {
    phase_a();
    phase_b();
  }

 private:
  bool agrees(mlVector const& p, giAngle const& limit) const {
    mlVector world = to_world(p, origin());
    return gfLeastSquareCylinder::are_normals_in_limit(points_, limit, guess_, normals_, world) == 1;
  }

  // Runs the solver from `start_` and files its solution.
  void refine(giAngle const& limit) {
    const double value = budget_.fit(lm_, points_.count(), mlLevenbergMarquardt::default_max_iterations, start_,
                                      result_);
    if (!std::isfinite(value)) return;
    const bool ok = agrees(result_, limit);
    const bool converged = gfit::detail::converged(lm_);
    if (ok && value < best_ok_.value) {
      best_ok_.value = value;
      best_ok_.parameters = result_;
      best_ok_.converged = converged;
    }
    if (value < best_any_.value) {
      best_any_.value = value;
      best_any_.parameters = result_;
      best_any_.converged = converged;
    }
  }

  // Phase A's fit from a direction, judged with a 10-degree limit.
  void fit_from_direction(giVector3 const& direction) {
    const giUnitVec3 d = direction.unit();
    ProjectedCircle circle;
    if (!budget_.go_on() || d.invalid() || !fitters_[0].fit(d, circle, kFinishSteps)) return;
    budget_.charge(circle_work(kFinishSteps) * points_.count());
    set_candidate(circle, d, start_);
    refine(giAngle::from_degrees(10.0));
  }

  // Three deterministic axes (the ring walk, the farthest pair, the plane of the normals),
  // and the caller's guess axis when there is one.
  void phase_a() {
    const int n = points_.count();
    giVector3 initial;
    initial_solution(points_, fitters_, kRankingSteps, &budget_, initial);
    fit_from_direction(initial);
    int a = 0, b = 0;
    double far = -1.0;
    for (int i = 1; i < n; ++i)
      if (points_[i].squared_distance(points_[0]) > far) {
        far = points_[i].squared_distance(points_[0]);
        a = i;
      }
    far = -1.0;
    for (int i = 0; i < n; ++i)
      if (points_[i].squared_distance(points_[a]) > far) {
        far = points_[i].squared_distance(points_[a]);
        b = i;
      }
    const giVector3 span = points_[a] - points_[b];
    if (span.length() > 0.0) fit_from_direction(span);
    if (normals_.count() > 2) {
      giPoint3coDynArr tips(normals_.count(), 16);
      for (giUnitVec3 const& u : normals_) tips.append(giPoint3(u.x(), u.y(), u.z()));
      giPoint3 plane_point;
      giUnitVec3 plane_normal;
      double rms = 0.0;
      if (gfLeastSquareEvaluator::evaluate_plane(tips, plane_point, plane_normal, rms))
        fit_from_direction(plane_normal);
    }
    if (!guess_.invalid()) fit_from_direction(guess_);
  }

  // Batches of 100 random directions in one hemisphere (seed 1 in every pass); the best
  // candidate of each batch is refined.
  void phase_b() {
    const int m = points_.count();
    const double cos_25 = giAngle::from_degrees(25.0).cos();
    std::vector<giUnitVec3> candidates(100);
    std::vector<char> used(100), fitted(100);
    std::vector<ProjectedCircle> circles(100);
    for (int pass = 0; pass <= gfLeastSquareDistance3::num_guess_directions(); ++pass) {
      // The other passes only when the best fit is off by more than a thousandth of the range
      // in RMS (lengths with lengths, so that the unit does not decide).
      if (pass >= 1 && std::sqrt(best_ok_.value) < range_ * kGoodEnough) break;
      bool restricted = false;
      giUnitVec3 pass_direction;
      double cos_cone = 1.0;
      if (pass >= 1) {
        restricted = true;
        if (normals_.count() == 0) {
          if (guess_.invalid() || pass > 1) break;
          pass_direction = guess_;
          cos_cone = angle_.cos();
        } else {
          pass_direction = gfLeastSquareDistance3::guess_direction(pass - 1);
          cos_cone = cos_25;
        }
      }
      mlRandom random(1);
      for (int batch = 0; batch < 20; ++batch) {
        if (!budget_.go_on()) return;
        for (int j = 0; j < 100; ++j) {
          candidates[j] = gfit::detail::hemisphere_direction(random);
          used[j] = !restricted || std::fabs(pass_direction.dot(candidates[j])) >= cos_cone;
        }
        gfit::detail::RankingWork work;
        const int chosen = gfit::detail::best_projected_circle(fitters_, candidates, used, circles, fitted, kContender,
                                                               kFinishSteps, work);
        budget_.charge((work.fits * circle_work(0) + work.finished * circle_work(kFinishSteps)) * m);
        if (chosen < 0) continue;
        set_candidate(circles[chosen], candidates[chosen], start_);
        refine(angle_);
      }
    }
  }

  giPoint3coDynArr const& points_;
  giUnitVec3coDynArr const& normals_;
  giUnitVec3 const& guess_;
  giAngle const& angle_;
  CentredPoints centred_;
  gfLeastSquareCylinder problem_;
  mlLevenbergMarquardt lm_;
  double range_;
  SearchBudget& budget_;
  std::vector<CircleAlongDirection> fitters_;
  Solution best_ok_, best_any_;
  mlVector start_ = mlVector(7), result_ = mlVector(7);
};

bool same(mlVector const& a, mlVector const& b) {
  for (int k = 0; k < 7; ++k)
    if (a[k] != b[k]) return false;
  return true;
}

}  // namespace

int gfCalculateLeastSquareCylinder(giPoint3coDynArr const& points, giPoint3& point, giUnitVec3& direction,
                                   double& radius, double& residual, giUnitVec3 const& guess, giAngle const& angle,
                                   giUnitVec3coDynArr const& normals, int k) {
  using gfit::detail::refuse;
  const int n = points.count();
  gfit::detail::PointSpread spread;
  if (n < 5) return refuse(gfReason::too_few_points);
  if (!gfit::detail::check_normals(normals, n, true) ||
      !gfit::detail::check_points(points, 5, gfit::detail::Span::space, &spread))
    return 0;
  if (!gfit::detail::valid_axis_search_input(points, guess, angle, normals))
    return refuse(gfReason::non_finite_input, "the guess axis or the angle is not finite");

  if (k != 0 && (k < 0 || k + 5 <= n)) {
    const bool previous_usable = point.finite() && !direction.invalid() && std::isfinite(radius);
    if (previous_usable) {
      const giPoint3 origin = gfit::detail::mean_of(points.data(), n);
      gfLeastSquareCylinder problem(points, origin);
      mlLevenbergMarquardt lm(problem);
      mlVector previous{point.x() - origin.x(), point.y() - origin.y(), point.z() - origin.z(), direction.x(),
                        direction.y(), direction.z(), radius};
      mlVector result(7);
      double value = 0.0;
      if (gfit::detail::refine_grown_fit(problem, lm, problem.range(), previous, k, result, value)) {
        if (!determined_cylinder(problem, result, value, spread.extent)) return 0;
        write_outputs(result, value, origin, point, direction, radius, residual);
        return gfit::detail::succeed();
      }
      if (gfit::detail::cancelled()) return gfit::detail::refuse(gfReason::cancelled);
    }
  }

  gfit::detail::SearchSubset subset(points, normals, kSearchPoints);
  SearchBudget budget(kSearchWork * subset.count());
  CylinderSearch search(subset.points(), subset.normals(), guess, angle, budget);
  search.run();
  if (gfit::detail::cancelled()) return gfit::detail::refuse(gfReason::cancelled);
  Solution best_ok = search.best_ok(), best_any = search.best_any();
  if (best_ok.value == DBL_MAX && best_any.value == DBL_MAX)
    return gfit::detail::refuse(gfReason::no_convergence, "no cylinder found");
  const giPoint3 origin = search.origin();
  gfLeastSquareCylinder problem(points, origin);
  if (!subset.all()) {
    // The winners refined on all the points, and judged again against all the normals.
    mlLevenbergMarquardt lm(problem);
    mlVector result(7);
    auto refine = [&](Solution& s) {
      if (s.value == DBL_MAX) return;
      const double value = lm.fit(s.parameters, result);
      s.value = std::isfinite(value) ? value : DBL_MAX;
      s.parameters = result;
      s.converged = gfit::detail::converged(lm);
    };
    const bool one = best_ok.value != DBL_MAX && same(best_ok.parameters, best_any.parameters);
    refine(best_any);
    if (one)
      best_ok = best_any;
    else
      refine(best_ok);
    mlVector world = to_world(best_ok.parameters, origin);
    if (best_ok.value != DBL_MAX &&
        gfLeastSquareCylinder::are_normals_in_limit(points, angle, guess, normals, world) != 1)
      best_ok.value = DBL_MAX;
    if (gfit::detail::cancelled()) return gfit::detail::refuse(gfReason::cancelled);
    if (best_ok.value == DBL_MAX && best_any.value == DBL_MAX)
      return gfit::detail::refuse(gfReason::no_convergence, "no cylinder found");
  }
  // Agreement with the normals is given up when it costs more than a thousandth of the
  // range in RMS.
  if (problem.range() * kGoodEnough < std::sqrt(best_ok.value) - std::sqrt(best_any.value)) best_ok = best_any;
  // The answer run to convergence on all the points (see gfit::detail::finish_fit).
  if (!best_ok.converged) {
    mlLevenbergMarquardt lm(problem);
    lm.set_strict(true);
    best_ok.value = gfit::detail::finish_fit(lm, best_ok.parameters, best_ok.value);
  }
  // Judged on all the points (after the refinement on them), in the search's frame.
  if (!determined_cylinder(problem, best_ok.parameters, best_ok.value, spread.extent)) return 0;
  write_outputs(best_ok.parameters, best_ok.value, origin, point, direction, radius, residual);
  return gfit::detail::succeed();
}

int gfCalculateMultipleLeastSquareCylinders(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals,
                                            double tolerance, giAngle const& angle, int count,
                                            gfFittedCylindercoDynArr& results) {
  // Each attempt ranks and refines on the subset; a cylinder within the tolerance there is
  // refined on all the points and kept if it is within the tolerance there too and the
  // points determine it.
  class Attempts {
   public:
    Attempts(giPoint3coDynArr const& some, giPoint3coDynArr const& points, double extent, double tolerance,
             int count)
        : some_(some), all_points_(some.count() == points.count()), extent_(extent), tolerance_(tolerance),
          origin_(gfit::detail::mean_of(some.data(), some.count())), problem_(some, origin_), all_(points, origin_),
          lm_(problem_), lm_all_(all_), budget_(kSearchWork * some.count() * std::max(1, count)) {}
    bool go_on() const { return budget_.go_on(); }
    bool attempt(giUnitVec3 d, gfFittedCylinder& out) {
      const giPoint3 plane_origin(0.0, 0.0, 0.0);
      giPoint3 centre;
      double r = 0.0, e = 0.0;
      budget_.charge(2 * 20.0 * some_.count());  // two circle fits, about twenty passes each
      if (!gfLeastSquareEvaluator::evaluate_circle2(plane_origin, d, some_, centre, r, e)) return false;
      const giUnitVec3 d2 = gfit::detail::nearby_direction(d);
      giPoint3 centre2;
      double r2 = 0.0, e2 = 0.0;
      if (gfLeastSquareEvaluator::evaluate_circle2(plane_origin, d2, some_, centre2, r2, e2) && e2 < e) {
        d = d2;
        centre = centre2;
        r = r2;
      }
      start_ = mlVector{centre.x() - origin_.x(), centre.y() - origin_.y(), centre.z() - origin_.z(),
                        d.x(), d.y(), d.z(), r};
      double rms = std::sqrt(
          budget_.fit(lm_, some_.count(), mlLevenbergMarquardt::default_max_iterations, start_, result_));
      if (!(rms < tolerance_)) return false;
      if (!all_points_) {
        rms = std::sqrt(lm_all_.fit(result_, refined_));
        if (!(rms < tolerance_)) return false;
        result_ = refined_;
      }
      // Only cylinders that all the points determine (see leastsquares/refusal.h), judged in
      // the frame of the solver's parameters.
      if (!(result_[6] > 0.0 && gfit::detail::within_size_bound(result_[6], extent_) &&
            gfit::detail::determined(gfit::detail::axial_determination(all_, result_))))
        return false;
      giPoint3 axis_point;
      giUnitVec3 axis;
      double radius = 0.0, deviation = 0.0;
      write_outputs(result_, rms * rms, origin_, axis_point, axis, radius, deviation);
      out = gfFittedCylinder(axis_point, axis, radius, rms);
      return true;
    }

   private:
    giPoint3coDynArr const& some_;
    const bool all_points_;
    const double extent_, tolerance_;
    const giPoint3 origin_;
    gfLeastSquareCylinder problem_, all_;
    mlLevenbergMarquardt lm_, lm_all_;
    SearchBudget budget_;
    mlVector start_ = mlVector(7), result_ = mlVector(7), refined_ = mlVector(7);
  };
  return gfit::detail::several_elements(points, normals, tolerance, angle, count, 5, kSearchPoints,
                                        "no cylinder within the tolerance", results,
                                        [&](gfit::detail::SearchSubset const& subset, double extent) {
                                          return std::make_unique<Attempts>(subset.points(), points, extent,
                                                                            tolerance, count);
                                        });
}

// ---- evaluator entries ------------------------------------------------------------------

int gfLeastSquareEvaluator::evaluate_cylinder(giPoint3coDynArr const& points, giPoint3& point, giUnitVec3& direction,
                                              double& radius, double& residual, giUnitVec3 const& guess,
                                              giAngle const& angle, int k) {
  if (points.count() < 4) return gfit::detail::refuse(gfReason::too_few_points);
  giUnitVec3coDynArr no_normals;
  int status = gfCalculateLeastSquareCylinder(points, point, direction, radius, residual, guess, angle, no_normals, k);
  if (status == 0) direction.set_invalid();
  return status;
}

int gfLeastSquareEvaluator::evaluate_cylinder(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals,
                                              giAngle const& angle, giPoint3& point, giUnitVec3& direction,
                                              double& radius, double& residual, int k) {
  if (points.count() < 4) return gfit::detail::refuse(gfReason::too_few_points);
  int status =
      gfCalculateLeastSquareCylinder(points, point, direction, radius, residual, giUnitVec3(), angle, normals, k);
  if (status == 0) direction.set_invalid();
  return status;
}

int gfLeastSquareEvaluator::evaluate_multiple_cylinders(giPoint3coDynArr const& points,
                                                        giUnitVec3coDynArr const& normals, double tolerance,
                                                        giAngle const& angle, int count,
                                                        gfFittedCylindercoDynArr& results) {
  return gfCalculateMultipleLeastSquareCylinders(points, normals, tolerance, angle, count, results);
}
