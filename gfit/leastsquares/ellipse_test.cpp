#include <gtest/gtest.h>

#include <cmath>

#include "gfit/gfit.h"
#include "test/support/derivative_check.h"
#include "test/support/samplers.h"

namespace {

using gfit::testing::Rng;

struct Ellipse {
  giPoint2 centre;
  double a, b, theta;  // semi-axes along and across the angle theta
};

// Points on an ellipse at parameter angles in [start, start + span], moved along the normal
// by Gaussian noise.
giPoint2coDynArr sample(Rng& rng, Ellipse const& e, double start, double span, int n, double noise) {
  giPoint2coDynArr pts(n, 16);
  const double c = std::cos(e.theta), s = std::sin(e.theta);
  for (int i = 0; i < n; ++i) {
    double t = start + span * rng.uniform();
    double x = e.a * std::cos(t), y = e.b * std::sin(t);
    giVector2 normal = giVector2(x / (e.a * e.a), y / (e.b * e.b)).unit();
    double h = noise * rng.normal();
    x += h * normal.x();
    y += h * normal.y();
    pts.append(giPoint2(e.centre.x() + x * c - y * s, e.centre.y() + x * s + y * c));
  }
  return pts;
}

// The angle between two axis directions (lines, modulo pi).
double axis_difference(double a, double b) {
  double d = std::fmod(std::fabs(a - b), M_PI);
  return std::fmin(d, M_PI - d);
}

TEST(EllipseRecovery, EccentricRotatedPartialAndFarFromTheOrigin) {
  Rng rng(51);
  const Ellipse cases[] = {
      {giPoint2(500, -300), 30, 5, 2.1},    // eccentric, rotated
      {giPoint2(-20, 40), 12, 9, 0.4},      // mildly eccentric
      {giPoint2(1000, 1000), 8, 20, -0.7},  // b > a: major is b
  };
  for (Ellipse const& e : cases) {
    for (double span : {2 * M_PI, M_PI}) {
      const double noise = 1e-3;
      giPoint2coDynArr pts = sample(rng, e, 0.3, span, 400, noise);
      giPoint2 centre;
      double major, minor, angle, rms;
      ASSERT_EQ(gfLeastSquareEvaluator::evaluate_ellipse(pts, centre, major, minor, angle, rms), 1);
      const double true_major = std::fmax(e.a, e.b), true_minor = std::fmin(e.a, e.b);
      const double true_angle = e.a >= e.b ? e.theta : e.theta + M_PI / 2;
      // 400 points, 1e-3 noise: a few 1e-4 on a full ellipse, ten times more on half of it.
      EXPECT_LT(centre.distance(e.centre), 5e-3) << e.a << " " << span;
      EXPECT_NEAR(major, true_major, 5e-3) << e.a << " " << span;
      EXPECT_NEAR(minor, true_minor, 5e-3) << e.a << " " << span;
      EXPECT_LT(axis_difference(angle, true_angle), 1e-3) << e.a << " " << span;
      EXPECT_GE(angle, 0.0);
      EXPECT_LT(angle, M_PI);
      EXPECT_NEAR(rms, noise, 2e-4);
    }
  }
}

TEST(EllipseRecovery, CirclePointsGiveEqualAxes) {
  giPoint2coDynArr pts;
  for (int i = 0; i < 24; ++i) pts.append(giPoint2(3 + 7 * std::cos(i * M_PI / 12), -4 + 7 * std::sin(i * M_PI / 12)));
  giPoint2 centre;
  double major, minor, angle, rms;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_ellipse(pts, centre, major, minor, angle, rms), 1);
  EXPECT_NEAR(major, 7.0, 1e-9);
  EXPECT_NEAR(minor, 7.0, 1e-9);
  EXPECT_LT(rms, 1e-9);
  EXPECT_GE(angle, 0.0);
  EXPECT_LT(angle, M_PI);
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
    double u = rng.uniform(-12, 12), v = rng.uniform(-12, 12);
    double best = 1e300;
    for (int j = 0; j < 200000; ++j) {
      double t = j * 2 * M_PI / 200000;
      best = std::fmin(best, std::hypot(8 * std::cos(t) - u, 2 * std::sin(t) - v));
    }
    EXPECT_NEAR(std::fabs(gfit::detail::ellipse_frame_distance(8, 2, u, v, fx, fy)), best, 2e-6);
  }
}

TEST(EllipseProblem, GradientMatchesCentralDifferences) {
  Rng rng(53);
  giPoint2coDynArr pts = sample(rng, {giPoint2(1, 2), 6, 3, 0.5}, 0, 2 * M_PI, 40, 0.5);
  gfLeastSquareEllipse problem(pts);
  EXPECT_LT(gfit::testing::gradient_error(problem, mlVector{5.5, 3.2, 1.1, 1.9, 0.45}), 1e-6);
  EXPECT_LT(gfit::testing::gradient_error(problem, mlVector{-5.5, 3.2, 1.1, 1.9, 0.45}), 1e-6);  // a negative axis
  mlVector scales;
  problem.set_parameters(mlVector{3, 4, 0, 0, 0});
  problem.parameter_scales(scales);
  EXPECT_DOUBLE_EQ(scales[4], 5.0);
}

TEST(EllipseEdges, RefusalsAndTheEllipseInAPlane) {
  giPoint2coDynArr three{giPoint2(0, 0), giPoint2(1, 0), giPoint2(0, 1)};
  giPoint2 c(9, 9);
  double major = -1, minor = -1, angle = -1, rms = -1;
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_ellipse(three, c, major, minor, angle, rms), 0);
  EXPECT_EQ(c.x(), 9.0);
  giPoint3coDynArr three3{giPoint3(0, 0, 0), giPoint3(1, 0, 0), giPoint3(0, 1, 0)};
  giPoint3 c3(9, 9, 9);
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_ellipse2(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), giUnitVec3(1, 0, 0),
                                                      three3, c3, major, minor, angle, rms),
            0);
  EXPECT_EQ(c3.x(), 9.0);

  // An ellipse in the tilted plane z = y, its major axis along the given direction.
  Rng rng(54);
  giPoint2coDynArr flat = sample(rng, {giPoint2(0, 0), 10, 4, 0.0}, 0, 2 * M_PI, 100, 0.0);
  const giUnitVec3 normal(0, -1, 1), along(1, 0, 0), across(0, 1, 1);
  const giPoint3 origin(5, 6, 6);
  giPoint3coDynArr pts;
  for (giPoint2 const& q : flat) pts.append(origin + giVector3(along) * q.x() + giVector3(across) * q.y());
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_ellipse2(origin, normal, along, pts, c3, major, minor, angle, rms), 1);
  EXPECT_LT(c3.distance(origin), 1e-8);
  EXPECT_NEAR(major, 10, 1e-8);
  EXPECT_NEAR(minor, 4, 1e-8);
  EXPECT_LT(axis_difference(angle, 0.0), 1e-8);
  EXPECT_LT(rms, 1e-8);
  pts[0] = pts[0] + giVector3(normal) * 0.5;  // one point off the plane: its height counts
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_ellipse2(origin, normal, along, pts, c3, major, minor, angle, rms), 1);
  EXPECT_GT(rms, 0.5 / std::sqrt(100.0) * 0.9);
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_ellipse2(origin, normal, normal, pts, c3, major, minor, angle, rms), 0);
}

TEST(EllipseEdges, SameInputSameBits) {
  Rng rng(55);
  giPoint2coDynArr pts = sample(rng, {giPoint2(1, 1), 9, 4, 1.0}, 0, 4, 200, 0.01);
  giPoint2 c1, c2;
  double a1, b1, t1, r1, a2, b2, t2, r2;
  gfLeastSquareEvaluator::evaluate_ellipse(pts, c1, a1, b1, t1, r1);
  gfLeastSquareEvaluator::evaluate_ellipse(pts, c2, a2, b2, t2, r2);
  EXPECT_EQ(c1, c2);
  EXPECT_EQ(a1, a2);
  EXPECT_EQ(t1, t2);
  EXPECT_EQ(r1, r2);
}

}  // namespace
