// The cone search: start vectors, the full computation, several cones, the evaluator entries.
#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "gfit/leastsquares/axis_candidates.h"
#include "gfit/leastsquares/axis_search.h"
#include "gfit/leastsquares/cone.h"
#include "gfit/leastsquares/cylinder.h"
#include "gfit/leastsquares/evaluator.h"
#include "gfit/leastsquares/refusal.h"
#include "gfit/leastsquares/search_shared.h"
#include "gfit/platform/eigen_solvers.h"
#include "gfit/platform/levenberg_marquardt.h"
#include "gfit/platform/parallel.h"
#include "gfit/platform/report.h"
#include "gfit/platform/sort.h"
#include "gfit/utilities/direction_sampling.h"

using gfit::detail::CentredPoints;

namespace {
constexpr double kPi = 3.141592653589793;

// Solver iterations of a fixed-axis fit that makes a start within a bounded search.
constexpr int kStartIterations = 200;

// Every cone fit runs the solver strict, with room for the slow approach of near-cylinders.
void configure(mlLevenbergMarquardt& lm) {
  lm.set_max_iterations(10000);
  lm.set_strict(true);
}

// The linear start along a direction, in the frame (e1, e2, w) about the centroid: the axis
// through centroid + a e1 + b e2, offset d, half-angle theta (negative: the cone opens
// towards +w), and the sum of squared cone distances of the points from it.
struct LinearCone {
  double a = 0.0, b = 0.0, d = 0.0, theta = 0.0;
  double sum_of_squares = 0.0;
};

// Solves the generalised Kasa equations x^2 + y^2 = 2 a x + 2 b y + c + e h + f h^2 in the
// least-squares sense. Coordinates are divided by `scale` (the points' RMS distance from
// their centroid) so that the normal equations stay well conditioned. False when the
// points do not determine the five coefficients (all at one height, for instance) or give
// no real radius.
bool linear_cone(CentredPoints const& points, double scale, giUnitVec3 const& w, LinearCone& out) {
  const int n = points.count();
  if (n < 5 || w.invalid() || !(scale > 0.0)) return false;
  const giUnitVec3 e1 = w.any_normal();
  const giUnitVec3 e2(w.cross(e1));
  const double inv = 1.0 / scale;
  const double ax = e1.x() * inv, ay = e1.y() * inv, az = e1.z() * inv;
  const double bx = e2.x() * inv, by = e2.y() * inv, bz = e2.z() * inv;
  const double wx = w.x() * inv, wy = w.y() * inv, wz = w.z() * inv;
  double const* q = points.xyz();
  Eigen::Matrix<double, 5, 5> m = Eigen::Matrix<double, 5, 5>::Zero();
  Eigen::Matrix<double, 5, 1> v = Eigen::Matrix<double, 5, 1>::Zero(), row;
  for (int i = 0; i < n; ++i) {
    const double px = q[3 * i], py = q[3 * i + 1], pz = q[3 * i + 2];
    const double x = ax * px + ay * py + az * pz, y = bx * px + by * py + bz * pz, h = wx * px + wy * py + wz * pz;
    row << 2.0 * x, 2.0 * y, 1.0, h, h * h;
    m.noalias() += row * row.transpose();
    v.noalias() += row * (x * x + y * y);
  }
  Eigen::FullPivLU<Eigen::Matrix<double, 5, 5>> lu(m);
  if (lu.rank() < 5) return false;
  const Eigen::Matrix<double, 5, 1> s = lu.solve(v);
  const double a = s[0], b = s[1];
  const double r0_squared = s[2] + a * a + b * b;
  if (!(r0_squared > 0.0) || !std::isfinite(r0_squared) || !std::isfinite(s[3])) return false;
  const double r0 = std::sqrt(r0_squared);
  // The radius grows by e / (2 r0) per unit height along w; the cone's own axis points to
  // where it shrinks.
  const double theta = std::atan(-s[3] / (2.0 * r0));
  const double sin_t = std::sin(theta), cos_t = std::cos(theta), d = r0 * cos_t;
  double sum = 0.0;
  for (int i = 0; i < n; ++i) {
    const double px = q[3 * i], py = q[3 * i + 1], pz = q[3 * i + 2];
    const double x = ax * px + ay * py + az * pz - a, y = bx * px + by * py + bz * pz - b;
    const double h = wx * px + wy * py + wz * pz;
    const double e = h * sin_t + std::sqrt(x * x + y * y) * cos_t - d;
    sum += e * e;
  }
  if (!std::isfinite(sum)) return false;
  out.a = a * scale;
  out.b = b * scale;
  out.d = d * scale;
  out.theta = theta;
  out.sum_of_squares = sum * scale * scale;
  return true;
}

// The full cone's parameters of a linear start along w.
void linear_to_cone(CentredPoints const& points, giUnitVec3 const& w, LinearCone const& c, mlVector& p) {
  const giUnitVec3 e1 = w.any_normal();
  const giUnitVec3 e2(w.cross(e1));
  const giPoint3 A = points.centroid() + e1 * c.a + e2 * c.b;
  p.resize(8);
  p[0] = A.x();
  p[1] = A.y();
  p[2] = A.z();
  p[3] = w.x();
  p[4] = w.y();
  p[5] = w.z();
  p[6] = c.d;
  p[7] = c.theta;
}

double rms_distance_from(CentredPoints const& points) {
  double sum = 0.0;
  double const* q = points.xyz();
  for (int i = 0; i < 3 * points.count(); ++i) sum += q[i] * q[i];
  return points.count() > 0 ? std::sqrt(sum / points.count()) : 0.0;
}
}  // namespace

// ---- start vectors ----------------------------------------------------------------------

struct gfConeGuessGenerator::Frame {
  explicit Frame(giPoint3coDynArr const& points) : centred(points), scale(rms_distance_from(centred)) {}
  CentredPoints centred;
  double scale;
};

gfConeGuessGenerator::gfConeGuessGenerator(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals)
    : points_(points), normals_(normals), problem_(points), frame_(std::make_unique<Frame>(points)) {}
gfConeGuessGenerator::~gfConeGuessGenerator() = default;

giPoint3 const& gfConeGuessGenerator::centroid() const { return frame_->centred.centroid(); }
CentredPoints const& gfConeGuessGenerator::centred_points() const { return frame_->centred; }
double gfConeGuessGenerator::scale() const { return frame_->scale; }

double gfConeGuessGenerator::deviation(mlVector& parameters) {
  if (parameters.size() < 8) parameters.resize(8);
  problem_.normalize_parameters(parameters);
  problem_.set_parameters(parameters);
  return problem_.n_points() == 0 ? 0.0 : problem_.sum_of_squares();
}

double gfConeGuessGenerator::checked_deviation(mlVector& parameters) {
  for (int k = 0; k < 8; ++k)
    if (!std::isfinite(parameters[k])) return DBL_MAX;
  const double value = deviation(parameters);
  return std::isfinite(value) ? value : DBL_MAX;
}

giUnitVec3 const& gfConeGuessGenerator::preliminary_axis() {
  if (preliminary_.invalid()) {
    // A rough direction is all it has to be: dense scans are thinned to 1000 points spread
    // evenly through the array, which keeps the ring walk cheap.
    constexpr int kThinned = 1000;
    const int n = points_.count();
    giPoint3coDynArr thinned(std::min(n, kThinned), 16);
    if (n > kThinned)
      for (int i = 0; i < kThinned; ++i) thinned.append(points_[static_cast<int>(static_cast<long long>(i) * n / kThinned)]);
    giVector3 v;
    gfCylinder_InitialSolution(n > kThinned ? thinned : points_, v);
    preliminary_ = giUnitVec3(v);
    if (preliminary_.invalid()) preliminary_ = giUnitVec3(0.0, 0.0, 1.0);
  }
  return preliminary_;
}

void gfConeGuessGenerator::principal_axes(giUnitVec3 axes[3]) const {
  mlMatrix scatter(3, 3);
  double const* q = frame_->centred.xyz();
  for (int i = 0; i < frame_->centred.count(); ++i)
    for (int r = 0; r < 3; ++r)
      for (int c = 0; c <= r; ++c) scatter(r, c) += q[3 * i + r] * q[3 * i + c];
  mlSymEigenVecs eigen(scatter);
  for (int k = 0; k < 3; ++k) {
    mlVector e = eigen.eigenvector(k);
    axes[k] = giUnitVec3(e[0], e[1], e[2]);
  }
}

double gfConeGuessGenerator::get_guess_linear(giUnitVec3 const& direction, mlVector& parameters) {
  LinearCone c;
  if (!linear_cone(frame_->centred, frame_->scale, direction, c)) return DBL_MAX;
  linear_to_cone(frame_->centred, direction, c, parameters);
  return checked_deviation(parameters);
}

double gfConeGuessGenerator::fixed_axis_fit(giUnitVec3 const& w, mlVector const& start, mlVector& parameters) {
  gfLeastSquareConeFixedAxis problem(points_, centroid(), w);
  mlLevenbergMarquardt lm(problem);
  configure(lm);
  mlVector result(4);
  // Within a search the fit only makes a start: it is capped at kStartIterations and
  // charged at half the weight of the full problem's iterations (four parameters, not
  // eight).
  const double value = budget_ ? budget_->fit(lm, problem.n_points(), kStartIterations, start, result, 0.5)
                               : lm.fit(start, result);
  if (!std::isfinite(value)) return DBL_MAX;
  problem.to_cone(result, parameters);
  return checked_deviation(parameters);
}

double gfConeGuessGenerator::get_guess_fixed_axis_fit(giUnitVec3 const& direction, mlVector& parameters) {
  LinearCone c;
  if (!linear_cone(frame_->centred, frame_->scale, direction, c)) return DBL_MAX;
  return fixed_axis_fit(direction, mlVector{c.a, c.b, c.d, c.theta}, parameters);
}

double gfConeGuessGenerator::get_guess_flat(mlVector& parameters, int way) {
  giPoint3 point;
  giUnitVec3 normal;
  double rms = 0.0;
  if (!gfLeastSquareEvaluator::evaluate_plane(points_, point, normal, rms) || normal.invalid()) return DBL_MAX;
  // A steep cone about the plane's normal through the centroid, its apex on the side of
  // `way`; the offset that fits the points best for that cone, then the fit with the axis
  // direction fixed.
  const giUnitVec3 w = way > 0 ? normal : -normal;
  const double theta = kPi / 2 - 0.1;
  gfLeastSquareConeFixedAxis steep(points_, centroid(), w);
  steep.set_parameters(mlVector{0.0, 0.0, 0.0, theta});
  const double offset = steep.sum_of_distances() / steep.n_points();
  return fixed_axis_fit(w, mlVector{0.0, 0.0, offset, theta}, parameters);
}

double gfConeGuessGenerator::get_guess_from_normals(mlVector& parameters) {
  const int n = points_.count();
  if (n < 3 || normals_.count() != n) return DBL_MAX;
  // The normals' tips lie on the circle {x . u = sin(theta)} (or -sin(theta) for inward
  // normals): the plane through them gives the axis direction.
  giPoint3coDynArr tips(n, 16);
  for (giUnitVec3 const& v : normals_) tips.append(giPoint3(v.x(), v.y(), v.z()));
  giPoint3 tip_point;
  giUnitVec3 u;
  double rms = 0.0;
  if (!gfLeastSquareEvaluator::evaluate_plane(tips, tip_point, u, rms) || u.invalid()) return DBL_MAX;
  // Every normal line meets the axis: (Q - A) . (n x u) = 0, linear in the axis point A =
  // c + a e1 + b e2, each row divided by |n x u| to make it a distance.
  const giPoint3& c = centroid();
  const giUnitVec3 e1 = u.any_normal();
  const giUnitVec3 e2(u.cross(e1));
  double m00 = 0.0, m01 = 0.0, m11 = 0.0, v0 = 0.0, v1 = 0.0;
  for (int i = 0; i < n; ++i) {
    const giVector3 w = normals_[i].cross(u);
    const double s = w.length();
    if (s <= 1e-7) continue;
    const double r0 = e1.dot(w) / s, r1 = e2.dot(w) / s, rhs = (points_[i] - c).dot(w) / s;
    m00 += r0 * r0;
    m01 += r0 * r1;
    m11 += r1 * r1;
    v0 += r0 * rhs;
    v1 += r1 * rhs;
  }
  double a = 0.0, b = 0.0;
  if (!gfit::detail::solve_symmetric_2x2(m00, m01, m11, v0, v1, a, b)) return DBL_MAX;
  const giPoint3 A = c + e1 * a + e2 * b;
  // The generator: a line in the (height, radius) half-plane, whose unit normal is
  // (sin(theta), cos(theta)) and whose offset is d.
  giPoint2coDynArr profile(n, 16);
  for (giPoint3 const& q : points_) {
    const giVector3 r = q - A;
    const double h = u.dot(r);
    profile.append(giPoint2(h, (r - u * h).length()));
  }
  giPoint2 on_line;
  giUnitVec2 along;
  if (!gfLeastSquareEvaluator::evaluate_line(profile, on_line, along, rms)) return DBL_MAX;
  giVector2 nu(-along.y(), along.x());
  if (nu.y() < 0.0) nu = -nu;
  parameters = mlVector{A.x(), A.y(), A.z(), u.x(), u.y(), u.z(), nu.x() * on_line.x() + nu.y() * on_line.y(),
                        std::atan2(nu.x(), nu.y())};
  return checked_deviation(parameters);
}

double gfConeGuessGenerator::get_guess_two_circles(mlVector& parameters) {
  const int n = points_.count();
  if (n < 6) return DBL_MAX;
  const giUnitVec3 w = preliminary_axis();
  const giPoint3& c = centroid();
  std::vector<double> heights(n);
  for (int i = 0; i < n; ++i) heights[i] = w.dot(points_[i] - c);
  intcoDynArr order;
  doublecoQuickSortIndex(heights.data(), n, order);
  const double span = heights[order[n - 1]] - heights[order[0]];
  if (!(span > 0.0)) return DBL_MAX;
  int split = n / 2;
  double widest = -1.0;
  for (int k = 3; k <= n - 3; ++k) {
    const double gap = heights[order[k]] - heights[order[k - 1]];
    if (gap > widest) {
      widest = gap;
      if (gap >= 0.1 * span) split = k;
    }
  }
  // Keep the widest gap only if it stands out; otherwise the median.
  if (!(widest >= 0.1 * span)) split = n / 2;
  giPoint3coDynArr lower(split, 16), upper(n - split, 16);
  for (int k = 0; k < n; ++k) (k < split ? lower : upper).append(points_[order[k]]);
  giPoint3 c1, c2;
  giUnitVec3 n1, n2;
  double r1 = 0.0, r2 = 0.0, rms = 0.0;
  if (!gfLeastSquareEvaluator::evaluate_circle3(lower, c1, n1, r1, rms) ||
      !gfLeastSquareEvaluator::evaluate_circle3(upper, c2, n2, r2, rms))
    return DBL_MAX;
  if (n1.invalid() || n2.invalid() || !(std::fabs(r1 - r2) > 1e-9 * (std::fabs(r1) + std::fabs(r2))))
    return DBL_MAX;  // a cylinder, or no circles
  const giUnitVec3 u(giVector3(n1) + (n1.dot(n2) < 0.0 ? -giVector3(n2) : giVector3(n2)));
  if (u.invalid()) return DBL_MAX;
  // The axis through the first centre: radius r1 at height 0, r2 at height h2.
  const double h2 = u.dot(c2 - c1);
  const double theta = std::atan2(std::fabs(r1) - std::fabs(r2), h2);
  parameters = mlVector{c1.x(), c1.y(), c1.z(), u.x(), u.y(), u.z(), std::fabs(r1) * std::cos(theta), theta};
  return checked_deviation(parameters);
}

// ---- the full computation ---------------------------------------------------------------

namespace {

// The search's running state: the candidates and the solver.
//
// Three rules keep the search from spending itself on hopeless starts. A start is refined
// only while its deviation is within kPromising times the sum of squares of the cone chosen
// so far: from much worse starts the strict solver tends to crawl, for its full 10000
// iterations, towards a plane or a cylinder (the apex leaving for infinity). Once two
// refinements have crawled like that, no more are made: the points then have no cone at a
// finite distance to settle on (a plane, a line) or none that more starts would find. And
// sums of squares at the rounding level of the coordinates (RMS 1e-12 of the range) are
// filed as equal, so that among exact interpolations (six points admit several cones) a
// physical one is chosen: while the chosen cone is exact but not physical every start is
// refined, and the search stops once it has an exact cone that is physical and accepted.
//
// The solver works in a frame centred on the points (gfLeastSquareCone with a frame
// origin); the candidates are filed in world coordinates, as the choice among them reads
// them, and the search keeps each one's frame parameters beside it. Every solver run is
// charged to the search's budget, which also caps it.
class ConeSearch {
 public:
  static constexpr double kPromising = 100.0;
  static constexpr int kCrawls = 2;

  ConeSearch(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals, giUnitVec3 const& guess,
             giAngle const& angle, double tolerance, giPoint3 const& origin, gfit::detail::SearchBudget& budget)
      : points_(points), origin_(origin), problem_(points, origin), lm_(problem_), range_(problem_.range()),
        tolerance_(tolerance), floor_(points.count() * (1e-12 * range_) * (1e-12 * range_)),
        results_(utObserverPtr<giPoint3coDynArr const>(&points), utObserverPtr<giUnitVec3coDynArr const>(&normals),
                 guess.invalid() ? giVector3() : giVector3(guess), angle, range_, tolerance),
        budget_(budget) {
    configure(lm_);
  }

  bool promising(double deviation) const {
    if (!(deviation < DBL_MAX) || crawls_ >= kCrawls || !budget_.go_on()) return false;
    mlVector chosen(8);
    double value = DBL_MAX;
    results_.get_best(value, chosen);
    const double phi = std::fabs(chosen[7]);
    const bool physical = tolerance_ < phi && phi < kPi / 2 - tolerance_;
    return value == DBL_MAX || (value <= floor_ && !physical) || deviation <= kPromising * value;
  }

  // Refines a promising start (world coordinates) and files the result.
  void refine(double deviation, mlVector const& start) {
    if (!promising(deviation)) return;
    mlVector local = start;
    local[0] -= origin_.x();
    local[1] -= origin_.y();
    local[2] -= origin_.z();
    // One run may spend at most a quarter of what is left, so that a crawl leaves room for others.
    const int m = points_.count();
    const int cap = static_cast<int>(std::min(10000.0, budget_.left() / (4.0 * m)));
    const double mean_square = budget_.fit(lm_, m, std::max(cap, 1), local, result_);
    const double value = mean_square * points_.count();
    if (lm_.termination() == mlLevenbergMarquardt::iteration_limit) ++crawls_;
    if (!std::isfinite(value)) return;
    const double filed = std::max(value, floor_);
    mlVector world = result_;
    world[0] += origin_.x();
    world[1] += origin_.y();
    world[2] += origin_.z();
    results_.add(filed, world);
    filed_.push_back({world, result_, lm_.termination() == mlLevenbergMarquardt::stationary});
    smallest_ = std::min(smallest_, filed);
  }

  bool exact() const { return results_.constrained_deviation() <= floor_; }
  // The smallest sum of squares filed, whatever its slot: the measure of progress.
  double smallest() const { return smallest_; }

  // The chosen cone (in the frame), its mean squared distance and whether its run ended
  // with the polishing steps spent; false when there is none.
  bool best(mlVector& parameters, double& mean_square, bool& polishing_spent) {
    double value = DBL_MAX;
    mlVector world(8);
    results_.get_best(value, world);
    if (!(value < DBL_MAX)) return false;
    for (Filed const& f : filed_)
      if (bitwise_equal(f.world, world)) {
        parameters = f.local;
        polishing_spent = f.polishing_spent;
        problem_.set_parameters(parameters);
        mean_square = problem_.sum_of_squares() / points_.count();
        return true;
      }
    return false;
  }

 private:
  struct Filed {
    mlVector world, local;
    bool polishing_spent;  // its run ended with the polishing steps spent, not converged
  };
  static bool bitwise_equal(mlVector const& a, mlVector const& b) {
    for (int k = 0; k < 8; ++k)
      if (!(a[k] == b[k])) return false;
    return true;
  }

  giPoint3coDynArr const& points_;
  giPoint3 origin_;
  gfLeastSquareCone problem_;
  mlLevenbergMarquardt lm_;
  double range_;
  double tolerance_;
  double floor_;  // the sum of squares of an exact fit
  gfLeastSquareConeResults results_;
  gfit::detail::SearchBudget& budget_;
  std::vector<Filed> filed_;
  mlVector result_ = mlVector(8);
  double smallest_ = DBL_MAX;
  int crawls_ = 0;  // refinements that ran to the iteration limit
};

// The deterministic starts, in this order: from the normals (one per point), two circles,
// the fixed-axis fits along the cylinder's initial axis and the caller's guess, the flat
// cones both ways, the fixed-axis fits along the principal axes and the seven guess
// directions. They are refined from the smallest deviation up (ties in this order), so
// that the best of them sets the bar for the others.
void deterministic_starts(ConeSearch& search, gfConeGuessGenerator& generator, giUnitVec3coDynArr const& normals,
                          giUnitVec3 const& guess, int n) {
  struct Start {
    double deviation;
    mlVector parameters;
  };
  std::vector<Start> starts;
  auto keep = [&](double deviation, mlVector const& parameters) {
    if (deviation < DBL_MAX) starts.push_back({deviation, parameters});
  };
  mlVector p(8);
  if (normals.count() == n) keep(generator.get_guess_from_normals(p), p);
  keep(generator.get_guess_two_circles(p), p);
  keep(generator.get_guess_fixed_axis_fit(generator.preliminary_axis(), p), p);
  if (!guess.invalid()) keep(generator.get_guess_fixed_axis_fit(guess, p), p);
  keep(generator.get_guess_flat(p, 1), p);
  keep(generator.get_guess_flat(p, -1), p);
  giUnitVec3 principal[3];
  generator.principal_axes(principal);
  for (giUnitVec3 const& axis : principal) keep(generator.get_guess_fixed_axis_fit(axis, p), p);
  for (int i = 0; i < gfLeastSquareDistance3::num_guess_directions(); ++i)
    keep(generator.get_guess_fixed_axis_fit(gfLeastSquareDistance3::guess_direction(i), p), p);
  std::stable_sort(starts.begin(), starts.end(),
                   [](Start const& a, Start const& b) { return a.deviation < b.deviation; });
  for (Start const& start : starts) {
    if (search.exact()) return;
    search.refine(start.deviation, start.parameters);
  }
}

// Batches of 100 random directions of one hemisphere (one seed-1 sequence), inside the guide
// cone when there is a guide; the best linear start of each batch is refined. Stops on an
// exact fit, or once two batches in a row improved the smallest sum of squares by no more
// than 1e-6 relatively.
void random_batches(ConeSearch& search, gfConeGuessGenerator& generator, giUnitVec3 const& guess,
                    giAngle const& angle, gfit::detail::SearchBudget& budget) {
  constexpr int kBatches = 8, kDirections = 100;
  CentredPoints const& centred = generator.centred_points();
  const double scale = generator.scale();
  const int threads = gfit::detail::threads_for(kDirections, 60.0 * centred.count());
  std::vector<giUnitVec3> directions(kDirections);
  std::vector<char> used(kDirections), fitted(kDirections);
  std::vector<LinearCone> cones(kDirections);
  mlRandom random(1);
  mlVector start(8);
  int stale = 0;
  for (int batch = 0; batch < kBatches && !search.exact() && stale < 2 && budget.go_on(); ++batch) {
    int fits = 0;
    for (int j = 0; j < kDirections; ++j) {
      directions[j] = gfit::detail::hemisphere_direction(random);
      used[j] = guess.invalid() || std::fabs(guess.dot(directions[j])) >= angle.cos();
      fits += used[j];
    }
    gfit::detail::parallel_for(kDirections, threads, [&](int j, int) {
      fitted[j] = used[j] && linear_cone(centred, scale, directions[j], cones[j]);
    });
    budget.charge(0.5 * fits * centred.count());  // two light passes each
    int chosen = -1;
    double least = DBL_MAX;
    for (int j = 0; j < kDirections; ++j)  // the strictly smallest sum; the first index wins a tie
      if (fitted[j] && cones[j].sum_of_squares < least) {
        least = cones[j].sum_of_squares;
        chosen = j;
      }
    const double before = search.smallest();
    if (chosen >= 0) {
      linear_to_cone(centred, directions[chosen], cones[chosen], start);
      search.refine(least, start);
    }
    const double after = search.smallest();
    const bool improved = after < before && (before == DBL_MAX || before - after > 1e-6 * before);
    stale = improved ? 0 : stale + 1;
  }
}

}  // namespace

namespace {

// The search ranks its starts on at most this many points (SearchSubset), spread evenly
// through the array, and refines its choice on all of them.
constexpr int kSearchPoints = 2000;
// Work bounds in point evaluations per point worked on: the search on the subset, and the
// refinement of its choice on all the points. A cone search on points that hold a cone
// spends a few thousand per point (most of it in a few dozen strict solver runs); on points
// that hold none (a plane, whose best "cone" lies at infinity) the strict solver would
// crawl towards infinity for its 10000 iterations per run, and the bound stops it.
constexpr double kSearchWork = 2000.0;
constexpr int kLeastCharged = 1000;  // smaller subsets get the budget of this many points
constexpr double kRefineWork = 30.0;

}  // namespace

int gfCalculateLeastSquareCone(giPoint3coDynArr const& points, giPoint3& apex, giUnitVec3& axis, double& half_angle,
                               double& residual, giUnitVec3 const& guess, giAngle const& angle,
                               giUnitVec3coDynArr const& normals, int k) {
  using gfit::detail::refuse;
  const int n = points.count();
  gfit::detail::PointSpread spread;
  if (n < 6) return refuse(gfReason::too_few_points);
  if (!gfit::detail::check_normals(normals, n, true) ||
      !gfit::detail::check_points(points, 6, gfit::detail::Span::space, &spread))
    return 0;
  if (!gfit::detail::valid_axis_search_input(points, guess, angle, normals))
    return refuse(gfReason::non_finite_input, "the guess axis or the angle is not finite");
  const double tolerance = gfLeastSquareConeNonPhysicalTolerance();

  if (k != 0 && (k < 0 || k + 6 <= n)) {
    const bool previous_usable = apex.finite() && !axis.invalid() && std::isfinite(axis.x()) &&
                                 std::isfinite(axis.y()) && std::isfinite(axis.z()) && std::isfinite(half_angle) &&
                                 std::fabs(std::sin(half_angle)) >= 1e-12;
    if (previous_usable) {
      const giPoint3 origin = gfit::detail::mean_of(points.data(), n);
      gfLeastSquareCone problem(points, origin);
      mlLevenbergMarquardt lm(problem);
      configure(lm);
      mlVector previous{apex.x() - origin.x(), apex.y() - origin.y(), apex.z() - origin.z(), axis.x(), axis.y(),
                        axis.z(), 0.0, half_angle},
          result(8);
      double value = 0.0;
      if (gfit::detail::refine_grown_fit(problem, lm, problem.range(), previous, k, result, value)) {
        if (!gfit::detail::cone_determined(problem, result, value, spread.extent)) return 0;
        if (gfit::detail::cone_outputs(result, origin, value, apex, axis, half_angle, residual))
          return gfit::detail::succeed();
      }
      if (gfit::detail::cancelled()) return refuse(gfReason::cancelled);
    }
  }

  gfit::detail::SearchSubset subset(points, normals, kSearchPoints);
  giPoint3coDynArr const& some = subset.points();
  gfit::detail::SearchBudget budget(kSearchWork * std::max(some.count(), kLeastCharged));
  gfConeGuessGenerator generator(some, subset.normals());
  generator.bound_work(&budget);
  const giPoint3 origin = generator.centroid();
  ConeSearch search(some, subset.normals(), guess, angle, tolerance, origin, budget);
  deterministic_starts(search, generator, subset.normals(), guess, some.count());
  random_batches(search, generator, guess, angle, budget);
  if (gfit::detail::cancelled()) return gfit::detail::refuse(gfReason::cancelled);

  mlVector best(8);
  double mean_square = 0.0;
  bool polishing_spent = false;
  if (!search.best(best, mean_square, polishing_spent)) return refuse(gfReason::no_convergence, "no cone found");
  // The chosen cone on all the points, in the search's frame: refined there when the search
  // worked on a subset, then judged there.
  gfLeastSquareCone problem(points, origin);
  mlLevenbergMarquardt lm(problem);
  configure(lm);
  if (!subset.all()) {
    gfit::detail::SearchBudget refinement(kRefineWork * n);
    mlVector result(8);
    const double value = refinement.fit(lm, n, 10000, best, result);
    if (gfit::detail::cancelled()) return refuse(gfReason::cancelled);
    if (!std::isfinite(value)) return refuse(gfReason::no_convergence, "no cone found");
    best = result;
    mean_square = value;
    polishing_spent = lm.termination() == mlLevenbergMarquardt::stationary;
  }
  // The answer run to convergence on all the points (see gfit::detail::finish_fit) when its
  // run ended with the polishing steps spent. One that ran out of iterations is left as it
  // is: on points that hold no cone at a finite distance it is crawling towards infinity.
  if (polishing_spent) {
    lm.set_max_iterations(kStartIterations);
    mean_square = gfit::detail::finish_fit(lm, best, mean_square);
  }
  if (gfit::detail::cancelled()) return refuse(gfReason::cancelled);
  if (!gfit::detail::cone_determined(problem, best, mean_square, spread.extent)) return 0;
  if (!gfit::detail::cone_outputs(best, origin, mean_square, apex, axis, half_angle, residual))
    return refuse(gfReason::not_determined, "the points do not determine the cone: its apex runs to infinity");
  return gfit::detail::succeed();
}

int gfCalculateMultipleLeastSquareCones(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals,
                                        double tolerance, giAngle const& angle, int count,
                                        gfFittedConecoDynArr& results) {
  // Each attempt starts and refines on the subset; a cone within the tolerance there is
  // refined on all the points and kept if it is within the tolerance there too and the
  // points determine it.
  class Attempts {
   public:
    Attempts(giPoint3coDynArr const& some, giPoint3coDynArr const& points, double extent, double tolerance,
             int count)
        : some_(some), n_(points.count()), all_points_(some.count() == points.count()), extent_(extent),
          tolerance_(tolerance), generator_(some, no_normals_), origin_(generator_.centroid()),
          problem_(some, origin_), all_(points, origin_), lm_(problem_), lm_all_(all_),
          budget_(kSearchWork * std::max(some.count(), kLeastCharged) * std::max(1, count)) {
      configure(lm_);
      configure(lm_all_);
    }
    bool go_on() const { return budget_.go_on(); }
    bool attempt(giUnitVec3 const& d, gfFittedCone& out) {
      budget_.charge(4.0 * some_.count());  // two linear starts
      const double e = generator_.get_guess_linear(d, start_);
      if (!(e < DBL_MAX)) return false;
      if (generator_.get_guess_linear(gfit::detail::nearby_direction(d), second_) < e) start_ = second_;
      start_[0] -= origin_.x();
      start_[1] -= origin_.y();
      start_[2] -= origin_.z();
      double rms = std::sqrt(budget_.fit(lm_, some_.count(), 10000, start_, result_));
      if (!(rms < tolerance_)) return false;
      if (!all_points_) {
        gfit::detail::SearchBudget refinement(kRefineWork * n_);
        rms = std::sqrt(refinement.fit(lm_all_, n_, 10000, result_, refined_));
        if (!(rms < tolerance_)) return false;
        result_ = refined_;
      }
      giPoint3 apex;
      giUnitVec3 axis;
      double theta = 0.0, deviation = 0.0;
      // Only cones that all the points determine (see leastsquares/refusal.h), judged in the
      // frame of the solver's parameters.
      if (!gfit::detail::cone_determined(all_, result_, rms * rms, extent_) ||
          !gfit::detail::cone_outputs(result_, origin_, rms * rms, apex, axis, theta, deviation))
        return false;
      out = gfFittedCone(apex, axis, giAngle(theta), deviation);
      return true;
    }

   private:
    giPoint3coDynArr const& some_;
    const int n_;
    const bool all_points_;
    const double extent_, tolerance_;
    const giUnitVec3coDynArr no_normals_;
    gfConeGuessGenerator generator_;
    const giPoint3 origin_;
    gfLeastSquareCone problem_, all_;
    mlLevenbergMarquardt lm_, lm_all_;
    gfit::detail::SearchBudget budget_;
    mlVector start_ = mlVector(8), second_ = mlVector(8), result_ = mlVector(8), refined_ = mlVector(8);
  };
  return gfit::detail::several_elements(points, normals, tolerance, angle, count, 6, kSearchPoints,
                                        "no cone within the tolerance", results,
                                        [&](gfit::detail::SearchSubset const& subset, double extent) {
                                          return std::make_unique<Attempts>(subset.points(), points, extent,
                                                                            tolerance, count);
                                        });
}

// ---- evaluator entries ------------------------------------------------------------------

int gfLeastSquareEvaluator::evaluate_cone(giPoint3coDynArr const& points, giPoint3& apex, giUnitVec3& axis,
                                          double& half_angle, double& residual, giUnitVec3 const& guess,
                                          giAngle const& angle, int k) {
  const giUnitVec3coDynArr no_normals;
  return gfCalculateLeastSquareCone(points, apex, axis, half_angle, residual, guess, angle, no_normals, k);
}

int gfLeastSquareEvaluator::evaluate_cone(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals,
                                          giAngle const& angle, giPoint3& apex, giUnitVec3& axis, double& half_angle,
                                          double& residual, int k) {
  return gfCalculateLeastSquareCone(points, apex, axis, half_angle, residual, giUnitVec3(), angle, normals, k);
}

int gfLeastSquareEvaluator::evaluate_multiple_cones(giPoint3coDynArr const& points, giUnitVec3coDynArr const& normals,
                                                    double tolerance, giAngle const& angle, int count,
                                                    gfFittedConecoDynArr& results) {
  return gfCalculateMultipleLeastSquareCones(points, normals, tolerance, angle, count, results);
}

double gfLeastSquareEvaluator::set_cone_non_physical_tolerance(double tolerance) {
  return gfSetLeastSquareConeNonPhysicalTolerance(tolerance);
}
