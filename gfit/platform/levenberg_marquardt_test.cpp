#include <gtest/gtest.h>

#include <cmath>

#include "gfit/gfit.h"
#include "test/support/checks.h"
#include "test/support/derivative_check.h"
#include "test/support/samplers.h"

namespace {

using namespace gfit::testing;

// Problems written here, independent of the library's element classes: a circle (2-D
// points) or a sphere (3-D points), the centre's coordinates and then the radius, split into
// `pieces` parameters that add up (more than one leaves redundant directions).
// `wrong_gradient` flips the radius derivatives, to prove the derivative check bites.
template <class Point, int dims>
class Round : public mlDistanceLeastSquares {
 public:
  explicit Round(coDynArr<Point> const& p, int pieces = 1, bool wrong_gradient = false)
      : mlDistanceLeastSquares(dims + pieces, p.count()), p_(p), pieces_(pieces), wrong_(wrong_gradient) {}
  void normalize_parameters(mlVector&) const override {}
  int n_independent_parameters() const override { return dims + 1; }
  void get_distance(double& d, int i) const override {
    mlVector g(dims + pieces_);
    get_distance_and_gradient(d, g, i);
  }
  void get_distance_and_gradient(double& d, mlVector& g, int i) const override {
    double delta[dims], rho = 0.0;
    for (int k = 0; k < dims; ++k) {
      delta[k] = p_[i][k] - parameters()[k];
      rho += delta[k] * delta[k];
    }
    d = rho = std::sqrt(rho);
    for (int k = 0; k < dims; ++k) g[k] = rho > 0 ? -delta[k] / rho : 0.0;
    for (int j = dims; j < dims + pieces_; ++j) {
      d -= parameters()[j];
      g[j] = wrong_ ? 1.0 : -1.0;
    }
  }

 private:
  coDynArr<Point> const& p_;
  int pieces_;
  bool wrong_;
};
using Circle = Round<giPoint2, 2>;
using Sphere = Round<giPoint3, 3>;

double fit(mlDistanceLeastSquares& problem, mlVector const& start, mlVector& result, int max_iterations = 0,
           bool strict = false, mlLevenbergMarquardt::Termination* why = nullptr, int* iterations = nullptr) {
  mlLevenbergMarquardt lm(problem);
  if (max_iterations > 0) lm.set_max_iterations(max_iterations);
  lm.set_strict(strict);
  result.resize(problem.n_parameters());
  double value = lm.fit(start, result);
  if (why) *why = lm.termination();
  if (iterations) *iterations = lm.iterations();
  return value;
}

TEST(LevenbergMarquardt, TheDerivativeCheckAcceptsRightAndRejectsWrongGradients) {
  Rng rng(1);
  giPoint2coDynArr pts = sample_circle2(rng, giPoint2(3, -2), 5, 0, 2 * giPi, 20, 0.01);
  Circle good(pts), bad(pts, 1, true);
  mlVector at{2.5, -1.0, 4.0};
  EXPECT_LT(gradient_error(good, at), 1e-8);
  EXPECT_GT(gradient_error(bad, at), 1.0);
}

TEST(LevenbergMarquardt, RecoversAnArcFromAPoorStart) {
  Rng rng(2);
  giPoint2coDynArr pts = sample_circle2(rng, giPoint2(3, -2), 5, 0.3, 2.1, 200, 1e-3);
  Circle problem(pts);
  mlVector from_far, from_near;
  mlLevenbergMarquardt::Termination why;
  // Centre 8.5 and radius 7 off, on the concave side of the arc. (From the convex side a
  // geometric circle fit runs down the valley towards the straight-line limit; no local
  // method avoids that, the searches' restarts do.)
  double far_value = fit(problem, mlVector{-3, -8, 12}, from_far, 0, false, &why);
  EXPECT_NE(why, mlLevenbergMarquardt::iteration_limit);
  double near_value = fit(problem, mlVector{3, -2, 5}, from_near);
  // The same least-squares circle from both starts...
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(from_far[k], from_near[k], 1e-9);
  EXPECT_NEAR(far_value, near_value, 1e-15);
  // ... within the noise of the truth (120 degrees of arc, 200 points, sigma 1e-3).
  const double truth[] = {3, -2, 5};
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(from_far[k], truth[k], 5e-3);
  EXPECT_NEAR(std::sqrt(far_value), 1e-3, 2e-4);
}

TEST(LevenbergMarquardt, FarFromTheOriginGivesTheSameElementTranslated) {
  Rng rng(3);
  giPoint3coDynArr near = sample_sphere(rng, giPoint3(0.3, -0.2, 0.1), 10.0, giUnitVec3(0.2, 0.1, 1), 2.0, 500, 1e-6);
  const giVector3 shift(1000.0, -1000.0, 1000.0);
  giPoint3coDynArr far(near.count(), 16);
  for (giPoint3 const& p : near) far.append(p + shift);
  Sphere a(near), b(far);
  mlVector ra, rb;
  // Poor starts: 20% off in radius, 3 mm off in position.
  fit(a, mlVector{3.3, 2.8, -2.9, 8.0}, ra);
  fit(b, mlVector{1003.3, -997.2, 997.1, 12.0}, rb);
  const double size = 10.0;
  for (int k = 0; k < 4; ++k) EXPECT_NEAR(rb[k] - (k < 3 ? shift[k] : 0.0), ra[k], 1e-9 * size);
  EXPECT_NEAR(ra[3], 10.0, 1e-6);
}

TEST(LevenbergMarquardt, ARedundantParameterGetsTheMinimumNormStep) {
  Rng rng(4);
  giPoint2coDynArr pts = sample_circle2(rng, giPoint2(1, 1), 2, 0, 2 * giPi, 100, 1e-4);
  Circle split(pts, 2), plain(pts);
  mlVector rs, rp;
  mlLevenbergMarquardt::Termination why;
  double vs = fit(split, mlVector{0, 0, 1, 0}, rs, 0, false, &why);
  double vp = fit(plain, mlVector{0, 0, 1}, rp);
  EXPECT_NE(why, mlLevenbergMarquardt::iteration_limit);
  EXPECT_NEAR(vs, vp, 1e-15);
  EXPECT_NEAR(rs[2] + rs[3], rp[2], 1e-10);
  // Both halves moved alike from (1, 0): the step never wandered along r1 - r2.
  EXPECT_NEAR(rs[2] - rs[3], 1.0, 1e-10);
}

TEST(LevenbergMarquardt, HonoursTheIterationLimitAndStrictMode) {
  Rng rng(5);
  giPoint3coDynArr pts = sample_sphere(rng, giPoint3(1, 2, 3), 4, giUnitVec3(0, 0, 1), 1.2, 300, 1e-3);
  Sphere problem(pts);
  mlVector r;
  mlLevenbergMarquardt::Termination why;
  int iterations = 0;
  double limited = fit(problem, mlVector{10, -5, 0, 1}, r, 2, false, &why, &iterations);
  EXPECT_EQ(iterations, 2);
  EXPECT_EQ(why, mlLevenbergMarquardt::iteration_limit);
  int normal_iterations = 0, strict_iterations = 0;
  double normal = fit(problem, mlVector{10, -5, 0, 1}, r, 0, false, &why, &normal_iterations);
  EXPECT_NE(why, mlLevenbergMarquardt::iteration_limit);
  EXPECT_GT(limited, normal * 10);
  double strict = fit(problem, mlVector{10, -5, 0, 1}, r, 10000, true, &why, &strict_iterations);
  EXPECT_NE(why, mlLevenbergMarquardt::iteration_limit);
  EXPECT_LE(strict, normal * (1 + 1e-12));
  EXPECT_GE(strict_iterations, normal_iterations);
}

TEST(LevenbergMarquardt, EdgeCases) {
  giPoint2coDynArr none;
  Circle empty(none);
  mlVector r;
  mlLevenbergMarquardt::Termination why;
  EXPECT_EQ(fit(empty, mlVector{1, 2, 3}, r, 0, false, &why), 0.0);
  EXPECT_EQ(why, mlLevenbergMarquardt::no_points);
  EXPECT_EQ(r[2], 3.0);

  giPoint2coDynArr bad{giPoint2(0, 1), giPoint2(NAN, 0), giPoint2(1, 0)};
  Circle with_nan(bad);
  EXPECT_TRUE(std::isnan(fit(with_nan, mlVector{0, 0, 1}, r, 0, false, &why)));
  EXPECT_EQ(why, mlLevenbergMarquardt::non_finite_start);

  // Exact data converge to a zero residual from a poor start.
  giPoint2coDynArr exact;
  for (int i = 0; i < 12; ++i) exact.append(giPoint2(7 + 2 * std::cos(i * 0.5), -1 + 2 * std::sin(i * 0.5)));
  Circle circle(exact);
  EXPECT_LT(fit(circle, mlVector{5, 1, 0.5}, r), 1e-28);
  EXPECT_NEAR(r[0], 7.0, 1e-13);
  EXPECT_NEAR(r[2], 2.0, 1e-13);
}

// A circle whose gradient is not a number wherever the radius exceeds `limit` (the solver
// once took such a start for converged: a step of zero length, termination small_step).
class CircleWithNanGradient : public Circle {
 public:
  CircleWithNanGradient(giPoint2coDynArr const& p, double limit) : Circle(p), limit_(limit) {}
  void get_distance_and_gradient(double& d, mlVector& g, int i) const override {
    Circle::get_distance_and_gradient(d, g, i);
    if (parameters()[2] > limit_) g[0] = NAN;
  }

 private:
  double limit_;
};

TEST(LevenbergMarquardt, ANonFiniteGradientIsAFailureNotConvergence) {
  giPoint2coDynArr exact;
  for (int i = 0; i < 12; ++i) exact.append(giPoint2(7 + 2 * std::cos(i * 0.5), -1 + 2 * std::sin(i * 0.5)));
  mlVector r;
  mlLevenbergMarquardt::Termination why;
  int iterations = -1;
  // Not a number at the start: no step can be formed, and the value says the fit failed.
  CircleWithNanGradient everywhere(exact, -1.0);
  EXPECT_EQ(fit(everywhere, mlVector{5, 1, 0.5}, r, 0, false, &why, &iterations), INFINITY);
  EXPECT_EQ(why, mlLevenbergMarquardt::non_finite_gradient);
  EXPECT_EQ(iterations, 0);
  EXPECT_EQ(r[2], 0.5);
  // Finite where the fit starts: it converges as ever.
  CircleWithNanGradient beyond(exact, 3.0);
  EXPECT_LT(fit(beyond, mlVector{5, 1, 0.5}, r), 1e-28);
}

TEST(LevenbergMarquardt, SameInputSameBits) {
  Rng rng(6);
  giPoint3coDynArr pts = sample_sphere(rng, giPoint3(5, 5, 5), 3, giUnitVec3(1, 0, 0), 0.8, 1000, 1e-2);
  Sphere p1(pts), p2(pts);
  mlVector a, b;
  EXPECT_EQ(fit(p1, mlVector{0, 0, 0, 1}, a), fit(p2, mlVector{0, 0, 0, 1}, b));
  EXPECT_EQ(bits(a), bits(b));
}

TEST(LevenbergMarquardt, PointDistributionQualityOfAFullCircle) {
  giPoint2coDynArr full, arc;
  for (int i = 0; i < 360; ++i) full.append(giPoint2(std::cos(i * giPi / 180), std::sin(i * giPi / 180)));
  for (int i = 0; i < 30; ++i) arc.append(giPoint2(std::cos(i * giPi / 180), std::sin(i * giPi / 180)));
  Circle a(full), b(arc);
  // Jacobian rows (-cos, -sin, -1): J^T J / n = diag(1/2, 1/2, 1), smallest root 1/sqrt(2).
  EXPECT_NEAR(a.point_distribution_quality(mlVector{0, 0, 1}), std::sqrt(0.5), 1e-12);
  EXPECT_LT(b.point_distribution_quality(mlVector{0, 0, 1}), 0.05);
}

}  // namespace
