#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <utility>

#include "gfit/gfit.h"

namespace {

// A function of two variables that counts its evaluations.
struct Counted : mlFunctionN1 {
  explicit Counted(std::function<double(mlSlice const&)> f) : mlFunctionN1(2), f_(std::move(f)) {}
  double function(mlSlice const& x) override {
    ++calls;
    return f_(x);
  }
  int calls = 0;
  std::function<double(mlSlice const&)> f_;
};

double rosenbrock(mlSlice const& x) { return 100.0 * std::pow(x[1] - x[0] * x[0], 2) + std::pow(1.0 - x[0], 2); }

// The width of a roundness profile about a centre, the kind of non-smooth function the
// probed min-max circle hands to the simplex.
double width(mlSlice const& c) {
  double lo = 1e300, hi = -1e300;
  for (int i = 0; i < 12; ++i) {
    double t = i * giPi / 6, r = 5.0 + 0.01 * std::cos(3 * t);
    double d = std::hypot(1000 + r * std::cos(t) - c[0], 2000 + r * std::sin(t) - c[1]);
    lo = std::min(lo, d);
    hi = std::max(hi, d);
  }
  return hi - lo;
}

TEST(DownHillSimplex, FindsTheRosenbrockValley) {
  Counted f(rosenbrock);
  mlDownHillSimplex simplex(2);
  double value = simplex.solve(f, mlVector{-1.2, 1.0}, ml_simplex_standard);
  mlVector x;
  simplex.result(x);
  EXPECT_NEAR(x[0], 1.0, 1e-5);
  EXPECT_NEAR(x[1], 1.0, 1e-5);
  EXPECT_LT(value, 1e-10);
  EXPECT_EQ(simplex.evaluations(), f.calls);
}

TEST(DownHillSimplex, SpeedTradesAccuracyForEvaluations) {
  Counted precise(rosenbrock), quick(rosenbrock);
  mlDownHillSimplex a(2), b(2);
  EXPECT_LE(a.solve(precise, mlVector{-1.2, 1.0}, ml_simplex_thorough),
            b.solve(quick, mlVector{-1.2, 1.0}, ml_simplex_quick));
  EXPECT_LT(quick.calls, precise.calls);
}

TEST(DownHillSimplex, MinimisesANonSmoothWidthFarFromTheOrigin) {
  Counted f(width);
  mlDownHillSimplex simplex(2);
  mlVector steps{0.5, 0.5}, c;
  simplex.set_initial_steps(steps);
  EXPECT_NEAR(simplex.solve(f, mlVector{1000.3, 1999.8}, ml_simplex_standard), 0.02, 1e-6);
  simplex.result(c);
  EXPECT_NEAR(c[0], 1000.0, 1e-6);
  EXPECT_NEAR(c[1], 2000.0, 1e-6);
}

struct Function : mlFunction {
  explicit Function(double (*f)(double)) : f_(f) {}
  double function(double x) override { return f_(x); }
  double (*f_)(double);
};

TEST(Brent, FindsOneDimensionalMinima) {
  Function p([](double x) { return (x - 0.7) * (x - 0.7) + 3.0; }), c([](double x) { return std::cos(x); });
  double x = 0.0;
  EXPECT_NEAR(ml_brent_minimum_search(p, 5.0, -2.0, 1e-10, x), 3.0, 1e-15);
  EXPECT_NEAR(x, 0.7, 1e-8);
  EXPECT_NEAR(ml_brent_minimum_search(c, 2.0, 4.0, 1e-10, x), -1.0, 1e-15);
  EXPECT_NEAR(x, giPi, 1e-7);
  // A minimum at the end of the interval.
  EXPECT_NEAR(ml_brent_minimum_search(p, 1.0, 2.0, 1e-10, x), 3.09, 1e-8);
  EXPECT_NEAR(x, 1.0, 1e-7);
}

}  // namespace
