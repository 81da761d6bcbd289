#include <gtest/gtest.h>

#include <cmath>

#include "gfit/gfit.h"
#include "test/support/checks.h"
#include "test/support/derivative_check.h"
#include "test/support/samplers.h"

namespace {

using namespace gfit::testing;

struct Ellipse {
  giPoint2 centre;
  double major = -1, minor = -1, angle = -1, rms = -1;  // the angle of the major axis
};

int fit(giPoint2coDynArr const& pts, Ellipse& e) {
  return gfLeastSquareEvaluator::evaluate_ellipse(pts, e.centre, e.major, e.minor, e.angle, e.rms);
}

// The angle between two axis directions (lines, modulo pi).
double axis_difference(double a, double b) {
  double d = std::fmod(std::fabs(a - b), giPi);
  return std::fmin(d, giPi - d);
}

TEST(EllipseRecovery, EccentricRotatedPartialFarFromTheOriginAndRound) {
  Rng rng(51);
  struct Case {
    giPoint2 centre;
    double a, b, theta;  // semi-axes along and across the angle theta
  } const cases[] = {
      {giPoint2(500, -300), 30, 5, 2.1},    // eccentric, rotated
      {giPoint2(-20, 40), 12, 9, 0.4},      // mildly eccentric
      {giPoint2(1000, 1000), 8, 20, -0.7},  // b > a: major is b
  };
  const double noise = 1e-3;
  for (Case const& k : cases)
    for (double span : {2 * giPi, giPi}) {
      SCOPED_TRACE(::testing::Message() << k.a << " " << span);
      Ellipse e;
      ASSERT_EQ(fit(sample_ellipse2(&rng, k.centre, k.a, k.b, k.theta, 0.3, span, 400, noise), e), 1);
      // 400 points, 1e-3 noise: a few 1e-4 on a full ellipse, ten times more on half of it.
      EXPECT_LT(e.centre.distance(k.centre), 5e-3);
      EXPECT_NEAR(e.major, std::fmax(k.a, k.b), 5e-3);
      EXPECT_NEAR(e.minor, std::fmin(k.a, k.b), 5e-3);
      EXPECT_LT(axis_difference(e.angle, k.a >= k.b ? k.theta : k.theta + giPi / 2), 1e-3);
      EXPECT_GE(e.angle, 0.0);
      EXPECT_LT(e.angle, giPi);
      EXPECT_NEAR(e.rms, noise, 2e-4);
    }
  // Points of a circle give equal axes.
  Ellipse e;
  ASSERT_EQ(fit(sample_ellipse2(nullptr, giPoint2(3, -4), 7, 7, 0.0, 0.0, 2 * giPi, 24, 0.0), e), 1);
  EXPECT_NEAR(e.major, 7.0, 1e-9);
  EXPECT_NEAR(e.minor, 7.0, 1e-9);
  EXPECT_LT(e.rms, 1e-9);
  EXPECT_GE(e.angle, 0.0);
  EXPECT_LT(e.angle, giPi);
}

TEST(EllipseDistance, FootPointsOnAxesAndAtTheCentreNeverFail) {
  double fx, fy;
  // The centre: the nearer co-vertex (a > b) at distance b, inside.
  EXPECT_DOUBLE_EQ(gfit::detail::ellipse_frame_distance(5, 3, 0, 0, fx, fy), -3.0);
  EXPECT_DOUBLE_EQ(fy, 3.0);
  EXPECT_DOUBLE_EQ(gfit::detail::ellipse_frame_distance(3, 5, 0, 0, fx, fy), -3.0);  // b > a: the vertex
  // On the major axis inside the evolute: an off-axis foot point.
  double d = gfit::detail::ellipse_frame_distance(5, 3, 1, 0, fx, fy);
  EXPECT_NEAR(fx, 25.0 / 16.0, 1e-15);
  EXPECT_NEAR(d, -std::hypot(fx - 1, fy), 1e-15);
  EXPECT_DOUBLE_EQ(gfit::detail::ellipse_frame_distance(5, 3, 7, 0, fx, fy), 2.0);  // beyond the vertex
  EXPECT_DOUBLE_EQ(gfit::detail::ellipse_frame_distance(5, 3, 0, -4, fx, fy), 1.0);
  // A grid through the centre and the axes, with degenerate ellipses: finite everywhere.
  for (double a : {5.0, 1e-9, 0.0})
    for (double u = -6; u <= 6; u += 0.5)
      for (double v = -6; v <= 6; v += 0.5) {
        double dist = gfit::detail::ellipse_frame_distance(a, 3, u, v, fx, fy);
        EXPECT_TRUE(std::isfinite(dist) && std::isfinite(fx) && std::isfinite(fy)) << a << " " << u << " " << v;
      }
  // Against a brute-force search over the curve.
  Rng rng(52);
  for (int k = 0; k < 200; ++k) {
    double u = rng.uniform(-12, 12), v = rng.uniform(-12, 12), best = 1e300;
    for (int j = 0; j < 200000; ++j) {
      double t = j * 2 * giPi / 200000;
      best = std::fmin(best, std::hypot(8 * std::cos(t) - u, 2 * std::sin(t) - v));
    }
    EXPECT_NEAR(std::fabs(gfit::detail::ellipse_frame_distance(8, 2, u, v, fx, fy)), best, 2e-6);
  }
}

TEST(EllipseProblem, GradientMatchesCentralDifferences) {
  Rng rng(53);
  giPoint2coDynArr pts = sample_ellipse2(&rng, giPoint2(1, 2), 6, 3, 0.5, 0, 2 * giPi, 40, 0.5);
  gfLeastSquareEllipse problem(pts);
  EXPECT_LT(gradient_error(problem, mlVector{5.5, 3.2, 1.1, 1.9, 0.45}), 1e-6);
  EXPECT_LT(gradient_error(problem, mlVector{-5.5, 3.2, 1.1, 1.9, 0.45}), 1e-6);  // a negative axis
  mlVector scales;
  problem.set_parameters(mlVector{3, 4, 0, 0, 0});
  problem.parameter_scales(scales);
  EXPECT_DOUBLE_EQ(scales[4], 5.0);
}

TEST(EllipseEdges, RefusalsAndTheEllipseInAPlane) {
  Ellipse e;
  e.centre = giPoint2(9, 9);
  EXPECT_EQ(fit(giPoint2coDynArr{giPoint2(0, 0), giPoint2(1, 0), giPoint2(0, 1)}, e), 0);
  EXPECT_EQ(e.centre.x(), 9.0);
  // An ellipse in the tilted plane z = y, its major axis along the given direction.
  const giUnitVec3 normal(0, -1, 1), along(1, 0, 0), across(0, 1, 1);
  const giPoint3 origin(5, 6, 6);
  giPoint3 c(9, 9, 9);
  auto in_plane = [&](giPoint3coDynArr const& pts, giUnitVec3 const& direction) {
    return gfLeastSquareEvaluator::evaluate_ellipse2(origin, normal, direction, pts, c, e.major, e.minor, e.angle,
                                                     e.rms);
  };
  EXPECT_EQ(in_plane(giPoint3coDynArr{giPoint3(0, 0, 0), giPoint3(1, 0, 0), giPoint3(0, 1, 0)}, along), 0);
  EXPECT_EQ(c.x(), 9.0);
  Rng rng(54);
  giPoint3coDynArr pts;
  for (giPoint2 const& q : sample_ellipse2(&rng, giPoint2(0, 0), 10, 4, 0.0, 0, 2 * giPi, 100, 0.0))
    pts.append(origin + giVector3(along) * q.x() + giVector3(across) * q.y());
  ASSERT_EQ(in_plane(pts, along), 1);
  EXPECT_LT(c.distance(origin), 1e-8);
  EXPECT_NEAR(e.major, 10, 1e-8);
  EXPECT_NEAR(e.minor, 4, 1e-8);
  EXPECT_LT(axis_difference(e.angle, 0.0), 1e-8);
  EXPECT_LT(e.rms, 1e-8);
  pts[0] = pts[0] + giVector3(normal) * 0.5;  // one point off the plane: its height counts
  ASSERT_EQ(in_plane(pts, along), 1);
  EXPECT_GT(e.rms, 0.5 / std::sqrt(100.0) * 0.9);
  EXPECT_EQ(in_plane(pts, normal), 0);  // a direction along the normal
}

TEST(EllipseEdges, SameInputSameBits) {
  Rng rng(55);
  giPoint2coDynArr pts = sample_ellipse2(&rng, giPoint2(1, 1), 9, 4, 1.0, 0, 4, 200, 0.01);
  auto bits = [&pts] {
    Ellipse e;
    fit(pts, e);
    return Bits{e.centre.x(), e.centre.y(), e.major, e.minor, e.angle, e.rms};
  };
  EXPECT_EQ(bits(), bits());
}

}  // namespace
