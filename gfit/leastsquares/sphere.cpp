#include "gfit/leastsquares/sphere.h"

#include <cfloat>
#include <cmath>

#include "gfit/leastsquares/evaluator.h"
#include "gfit/leastsquares/refusal.h"
#include "gfit/platform/levenberg_marquardt.h"
#include "gfit/platform/random.h"

gfLeastSquareSphere::gfLeastSquareSphere(giPoint3coDynArr const& points) : gfLeastSquareDistance3(4, points) {}
gfLeastSquareSphere::~gfLeastSquareSphere() = default;

void gfLeastSquareSphere::normalize_parameters(mlVector&) const {}

void gfLeastSquareSphere::get_distance(double& d, int i) const {
  mlVector const& p = parameters();
  d = points()[i].distance(giPoint3(p[0], p[1], p[2])) - p[3];
}

void gfLeastSquareSphere::get_distance_and_gradient(double& d, mlVector& g, int i) const {
  mlVector const& p = parameters();
  giPoint3 const& q = points()[i];
  double dx = q.x() - p[0], dy = q.y() - p[1], dz = q.z() - p[2];
  double rho = std::sqrt(dx * dx + dy * dy + dz * dz);
  d = rho - p[3];
  if (rho > 1e-7) {
    g[0] = -dx / rho;
    g[1] = -dy / rho;
    g[2] = -dz / rho;
  } else {
    g[0] = g[1] = g[2] = 0.0;
  }
  g[3] = -1.0;
}

void gfLeastSquareSphere::evaluate_block(int first, int count, double* distances, double* squares, double* jacobian,
                                         int ld) const {
  offset_block(nullptr, first, count, distances, squares, jacobian, ld);
}

void gfLeastSquareSphere::offset_block(double const* offsets, int first, int count, double* distances,
                                       double* squares, double* jacobian, int ld) const {
  mlVector const& p = parameters();
  const double cx = p[0], cy = p[1], cz = p[2], r = p[3];
  giPoint3 const* q = points().data() + first;
  for (int k = 0; k < count; ++k) {
    double dx = q[k].x() - cx, dy = q[k].y() - cy, dz = q[k].z() - cz;
    double rho = std::sqrt(dx * dx + dy * dy + dz * dz);
    double d = offsets ? rho + offsets[first + k] - r : rho - r;
    distances[k] = d;
    squares[k] = d * d;
    if (jacobian) {
      double inv = rho > 1e-7 ? 1.0 / rho : 0.0;
      jacobian[k] = -dx * inv;
      jacobian[ld + k] = -dy * inv;
      jacobian[2 * ld + k] = -dz * inv;
      jacobian[3 * ld + k] = -1.0;
    }
  }
}

double gfLeastSquareSphere::evaluate_radius(giPoint3 const& centre) const {
  double sum = 0.0;
  for (giPoint3 const& q : points()) sum += q.squared_distance(centre);
  return std::sqrt(sum / n_points());
}

bool gfit::detail::sphere_determined(mlVector const& best, double value, double ratio, PointSpread const& spread) {
  if (cancelled()) return refuse(gfReason::cancelled) != 0;
  if (!(value < DBL_MAX)) return refuse(gfReason::no_convergence) != 0;
  if (!(best[3] > 0.0)) return refuse(gfReason::failed, "the sphere's radius is not positive") != 0;
  if (!within_size_bound(best[3], spread.extent) || !determined(ratio)) return refuse(gfReason::not_determined) != 0;
  return true;
}

double gfit::detail::sphere_restarts(gfLeastSquareSphere& problem, mlVector& best, double* ratio) {
  const double R = 3.0 * problem.range();
  const giPoint3 c = problem.centroid();
  double best_value = DBL_MAX;
  mlVector start(4), candidate(4), result(4);
  best.resize(4);
  mlRandom random(1);
  for (int pass = 0; pass < 20 && !cancelled(); ++pass) {
    if (pass == 0) {
      // Three times the range, not the mean distance: a start from outside the points.
      start = mlVector{c.x(), c.y(), c.z(), R};
    } else {
      double pass_best = DBL_MAX;
      for (int j = 0; j < 100; ++j) {
        const double h = (j / 30 + 1) * R;
        candidate[0] = c.x() - h + random.next_unit() * 2.0 * h;
        candidate[1] = c.y() - h + random.next_unit() * 2.0 * h;
        candidate[2] = c.z() - h + random.next_unit() * 2.0 * h;
        candidate[3] = random.next_unit() * h;
        problem.normalize_parameters(candidate);
        problem.set_parameters(candidate);
        double sum = problem.sum_of_squares();
        if (sum < pass_best) {
          pass_best = sum;
          start = candidate;
        }
      }
    }
    mlLevenbergMarquardt lm(problem);
    double value = lm.fit(start, result);
    if (value < best_value) {
      best_value = value;
      best = result;
      if (ratio) *ratio = determination(lm, problem);
    }
    // The first fit is taken when its RMS distance is below a thousandth of R (lengths
    // compared with lengths, so that the choice does not depend on the unit).
    if (pass == 0 && R * 0.001 > std::sqrt(best_value)) break;
  }
  return best_value;
}

int gfLeastSquareEvaluator::evaluate_sphere(giPoint3coDynArr const& points, giPoint3& centre, double& radius,
                                            double& residual) {
  gfit::detail::PointSpread spread;
  if (!gfit::detail::check_points(points, 4, gfit::detail::Span::space, &spread)) return 0;
  gfLeastSquareSphere problem(points);
  mlVector best;
  double ratio = 0.0;
  const double value = gfit::detail::sphere_restarts(problem, best, &ratio);
  if (!gfit::detail::sphere_determined(best, value, ratio, spread)) return 0;
  centre = giPoint3(best[0], best[1], best[2]);
  radius = best[3];
  residual = std::sqrt(value);
  return gfit::detail::succeed();
}
