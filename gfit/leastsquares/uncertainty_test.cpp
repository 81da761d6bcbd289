#include "gfit/leastsquares/uncertainty.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "test/support/samplers.h"

namespace {

using gfit::testing::Rng;
constexpr double kPi = 3.14159265358979323846;

enum class Kind { circle, sphere, cylinder, cone, circle3, torus, ellipse };

// One repeat: the fitted radius and axis point (x, y) where the fitted axis meets the plane
// z = z_ref (the true axis is along z), and the reported standard uncertainties. The torus
// puts its tube radius in place of y, the ellipse its centre's x and semi-axis b in (x, y).
struct Repeat {
  double r, x, y;
  double ur, ux, uy;
};

Repeat one_repeat(Kind kind, Rng& rng, giPoint3 const& c, double sigma) {
  const giUnitVec3 z(0, 0, 1);
  Repeat out{};
  gfElementUncertainty u;
  switch (kind) {
    case Kind::circle: {
      giPoint2coDynArr pts = gfit::testing::sample_circle2(rng, giPoint2(c.x(), c.y()), 5.0, 0.3, 4.0, 40, sigma);
      giPoint2 centre;
      double radius, rms;
      EXPECT_EQ(gfLeastSquareEvaluator::evaluate_circle(pts, centre, radius, rms), 1);
      EXPECT_EQ(gfLeastSquareUncertainty::circle(pts, centre, radius, u), 1);
      out = {radius, centre.x(), centre.y(), u.radius, u.position[0], u.position[1]};
      break;
    }
    case Kind::sphere: {
      giPoint3coDynArr pts = gfit::testing::sample_sphere(rng, c, 5.0, z, 2.0, 50, sigma);
      giPoint3 centre;
      double radius, rms;
      EXPECT_EQ(gfLeastSquareEvaluator::evaluate_sphere(pts, centre, radius, rms), 1);
      EXPECT_EQ(gfLeastSquareUncertainty::sphere(pts, centre, radius, u), 1);
      out = {radius, centre.x(), centre.y(), u.radius, u.position[0], u.position[1]};
      break;
    }
    case Kind::cylinder: {
      giPoint3coDynArr pts = gfit::testing::sample_cylinder(rng, c, z, 4.0, 6.0, 0, 2 * kPi, 60, sigma);
      gfLeastSquareCylinder problem(pts);
      mlLevenbergMarquardt lm(problem);
      mlVector start(7), p(7);
      start[0] = c.x(), start[1] = c.y(), start[2] = c.z(), start[5] = 1.0, start[6] = 4.0;
      lm.fit(start, p);
      giPoint3 a(p[0], p[1], p[2]);
      giUnitVec3 dir(p[3], p[4], p[5]);
      EXPECT_EQ(gfLeastSquareUncertainty::cylinder(pts, a, dir, p[6], u), 1);
      double t = (c.z() - a.z()) / dir.z();
      out = {p[6], a.x() + t * dir.x(), a.y() + t * dir.y(), u.radius, u.position[0], u.position[1]};
      break;
    }
    case Kind::cone: {
      const double th = 0.4;
      giPoint3 apex = c + giVector3(0, 0, 12.0);
      giPoint3coDynArr pts = gfit::testing::sample_cone(rng, apex, z, th, 4.0, 10.0, 0, 2 * kPi, 80, sigma);
      gfLeastSquareCone problem(pts);
      mlLevenbergMarquardt lm(problem);
      mlVector start(8), p(8);
      start[0] = apex.x(), start[1] = apex.y(), start[2] = apex.z(), start[5] = 1.0, start[7] = th;
      lm.fit(start, p);
      giUnitVec3 dir(p[3], p[4], p[5]);
      giPoint3 a(p[0], p[1], p[2]);
      giPoint3 k = a + (p[6] / std::sin(p[7])) * giVector3(dir);
      EXPECT_EQ(gfLeastSquareUncertainty::cone(pts, k, dir, p[7], u), 1);
      // The radius across the axis at the points' mean height (the reported figures are
      // taken at the foot of each sample's centroid, which stays near it).
      double t = (apex.z() - 7.0 - a.z()) / dir.z();
      out = {(p[6] - t * std::sin(p[7])) / std::cos(p[7]), a.x() + t * dir.x(), a.y() + t * dir.y(), u.radius,
             u.position[0], u.position[1]};
      break;
    }
    case Kind::circle3: {
      // A tilted circle, noise in all three coordinates (the same scatter across and along
      // the circle's plane).
      const giUnitVec3 n(0.3, -0.2, 1.0);
      const giVector3 e1 = n.any_normal(), e2 = n.cross(e1);
      giPoint3coDynArr pts;
      for (int i = 0; i < 40; ++i) {
        const double a = 0.2 + 4.0 * i / 40;
        pts.append(c + 5.0 * (std::cos(a) * e1 + std::sin(a) * e2) +
                   giVector3(sigma * rng.normal(), sigma * rng.normal(), sigma * rng.normal()));
      }
      giPoint3 centre;
      giUnitVec3 normal;
      double radius, rms;
      EXPECT_EQ(gfLeastSquareEvaluator::evaluate_circle3(pts, centre, normal, radius, rms), 1);
      EXPECT_EQ(gfLeastSquareUncertainty::circle3(pts, centre, normal, radius, u), 1);
      out = {radius, centre.x(), centre.y(), u.radius, u.position[0], u.position[1]};
      break;
    }
    case Kind::torus: {
      const giUnitVec3 axis(0.1, 0.2, 1.0);
      giPoint3coDynArr pts = gfit::testing::sample_torus(rng, c, axis, 6.0, 1.5, 0, 5.0, -2.0, 4.0, 80, sigma);
      gfLeastSquareTorus problem(pts, c);
      mlLevenbergMarquardt lm(problem);
      mlVector start(8), p(8);
      start[3] = axis.x(), start[4] = axis.y(), start[5] = axis.z(), start[6] = 6.0, start[7] = 1.5;
      lm.fit(start, p);
      const giPoint3 centre = c + giVector3(p[0], p[1], p[2]);
      const double r1 = p[6], r2 = p[7];
      EXPECT_EQ(gfLeastSquareUncertainty::torus(pts, centre, giUnitVec3(p[3], p[4], p[5]), r1, r2, u), 1);
      out = {r1, centre.x(), r2, u.radius, u.position[0], u.second_radius};
      break;
    }
    case Kind::ellipse: {
      giPoint2coDynArr pts =
          gfit::testing::sample_ellipse2(&rng, giPoint2(c.x(), c.y()), 6.0, 3.5, 0.6, 0.3, 5.0, 50, sigma);
      gfLeastSquareEllipse problem(pts);
      mlLevenbergMarquardt lm(problem);
      mlVector start(5), p(5);
      start[0] = 6.0, start[1] = 3.5, start[2] = c.x(), start[3] = c.y(), start[4] = 0.6;
      lm.fit(start, p);
      EXPECT_EQ(gfLeastSquareUncertainty::ellipse(pts, giPoint2(p[2], p[3]), p[0], p[1], p[4], u), 1);
      out = {p[0], p[2], p[1], u.radius, u.position[0], u.second_radius};
      break;
    }
  }
  return out;
}

TEST(LeastSquareUncertainty, ReportedUncertaintyMatchesScatterOverRepeats) {
  struct Case {
    Kind kind;
    giPoint3 centre;
    double sigma;
  };
  const Case cases[] = {
      {Kind::circle, {300, -200, 0}, 0.01},
      {Kind::sphere, {-400, 100, 250}, 0.005},
      {Kind::cylinder, {500, -300, 200}, 0.01},
      {Kind::cone, {0, 0, 0}, 0.01},
      {Kind::circle3, {-250, 40, 600}, 0.01},
      {Kind::torus, {120, -80, 300}, 0.01},
      {Kind::ellipse, {700, 350, 0}, 0.01},
  };
  for (Case const& c : cases) {
    Rng rng(21);
    const int repeats = 1000;
    double m[3] = {}, m2[3] = {}, reported[3] = {};
    for (int i = 0; i < repeats; ++i) {
      Repeat r = one_repeat(c.kind, rng, c.centre, c.sigma);
      const double v[3] = {r.r, r.x, r.y}, uv[3] = {r.ur, r.ux, r.uy};
      for (int j = 0; j < 3; ++j) m[j] += v[j], m2[j] += v[j] * v[j], reported[j] += uv[j] * uv[j];
    }
    for (int j = 0; j < 3; ++j) {
      double mean = m[j] / repeats;
      double sd = std::sqrt((m2[j] - repeats * mean * mean) / (repeats - 1));
      double u = std::sqrt(reported[j] / repeats);
      EXPECT_NEAR(u / sd, 1.0, 0.10) << "element " << static_cast<int>(c.kind) << " quantity " << j;
    }
  }
}

TEST(LeastSquareUncertainty, FullCircleRadiusIsSigmaOverRootN) {
  Rng rng(4);
  const int n = 2000;
  const double sigma = 0.02;
  giPoint2coDynArr pts;
  for (int i = 0; i < n; ++i) {
    double a = 2 * kPi * i / n, r = 7.0 + sigma * rng.normal();
    pts.append(giPoint2(1000 + r * std::cos(a), -500 + r * std::sin(a)));
  }
  giPoint2 centre;
  double radius, rms;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_circle(pts, centre, radius, rms), 1);
  gfElementUncertainty u;
  ASSERT_EQ(gfLeastSquareUncertainty::circle(pts, centre, radius, u), 1);
  EXPECT_NEAR(u.radius / (sigma / std::sqrt(n)), 1.0, 0.05);
  EXPECT_NEAR(u.position[0] / (sigma * std::sqrt(2.0 / n)), 1.0, 0.05);
  EXPECT_DOUBLE_EQ(u.diameter, 2 * u.radius);
  EXPECT_EQ(u.degrees_of_freedom, n - 3);
}

TEST(LeastSquareUncertainty, PlaneAndLineMatchTheirClosedForms) {
  // Points on a regular grid in a plane (and along a line) with noise: the tilt and offset
  // variances of a linear regression.
  Rng rng(9);
  giPoint3coDynArr plane, line;
  const double sigma = 0.01;
  double sxx = 0.0;
  for (int i = -10; i <= 10; ++i)
    for (int j = -10; j <= 10; ++j) plane.append(giPoint3(i, j, 5 + sigma * rng.normal())), sxx += i * i;
  double stt = 0.0;
  for (int i = -50; i <= 50; ++i)
    line.append(giPoint3(sigma * rng.normal(), sigma * rng.normal(), 0.1 * i)), stt += 0.01 * i * i;
  giPoint3 p;
  giUnitVec3 d;
  double rms;
  gfElementUncertainty up, ul;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_plane(plane, p, d, rms), 1);
  ASSERT_EQ(gfLeastSquareUncertainty::plane(plane, p, d, up), 1);
  EXPECT_NEAR(up.offset, up.sigma / std::sqrt(441.0), 1e-9);
  EXPECT_NEAR(up.axis_angle, up.sigma * std::sqrt(2.0 / sxx), 1e-6 * up.axis_angle);
  EXPECT_NEAR(up.sigma / sigma, 1.0, 0.1);
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_line3(line, p, d, rms), 1);
  ASSERT_EQ(gfLeastSquareUncertainty::line3(line, p, d, ul), 1);
  EXPECT_NEAR(ul.axis_angle, ul.sigma * std::sqrt(2.0 / stt), 1e-3 * ul.axis_angle);
  EXPECT_NEAR(ul.sigma / sigma, 1.0, 0.1);
  // The line in the plane: the tilt of a regression line, and its offset at the centroid.
  giPoint2coDynArr line2;
  for (int i = -50; i <= 50; ++i) line2.append(giPoint2(300 + 0.1 * i, -40 + sigma * rng.normal()));
  giPoint2 p2;
  giUnitVec2 d2;
  gfElementUncertainty u2;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_line(line2, p2, d2, rms), 1);
  ASSERT_EQ(gfLeastSquareUncertainty::line(line2, p2, d2, u2), 1);
  EXPECT_NEAR(u2.axis_angle, u2.sigma / std::sqrt(stt), 1e-6 * u2.axis_angle);
  EXPECT_NEAR(u2.offset, u2.sigma / std::sqrt(101.0), 1e-9);
  EXPECT_NEAR(u2.position[1], u2.offset, 1e-6 * u2.offset);
  EXPECT_EQ(u2.degrees_of_freedom, 99);
}

TEST(LeastSquareUncertainty, BadInputIsRefusedWithOutputsUntouched) {
  giPoint3coDynArr few, nan, same;
  for (int i = 0; i < 5; ++i) few.append(giPoint3(std::cos(i), std::sin(i), i));
  nan = few;
  for (int i = 0; i < 5; ++i) nan.append(giPoint3(i, 1, 2));
  nan[2] = giPoint3(0, std::nan(""), 0);
  for (int i = 0; i < 20; ++i) same.append(giPoint3(1, 1, 1));
  gfElementUncertainty u;
  u.sigma = 42.0;
  const giPoint3 o(0, 0, 0);
  const giUnitVec3 z(0, 0, 1);
  EXPECT_EQ(gfLeastSquareUncertainty::cylinder(few, o, z, 1.0, u), 0);
  EXPECT_EQ(gfLastReason(), gfReason::too_few_points);
  EXPECT_EQ(gfLeastSquareUncertainty::sphere(nan, o, 1.0, u), 0);
  EXPECT_EQ(gfLastReason(), gfReason::non_finite_input);
  EXPECT_EQ(gfLeastSquareUncertainty::cone(same, o, giUnitVec3(), 0.3, u), 0);
  EXPECT_EQ(gfLastReason(), gfReason::invalid_argument);
  EXPECT_EQ(gfLeastSquareUncertainty::sphere(same, o, 1.0, u), 0);
  EXPECT_EQ(gfLastReason(), gfReason::not_determined);
  EXPECT_EQ(gfLeastSquareUncertainty::plane(same, o, z, u), 0);
  EXPECT_EQ(gfLastReason(), gfReason::not_determined);
  EXPECT_EQ(gfLeastSquareUncertainty::torus(few, o, z, 3.0, 1.0, u), 0);
  EXPECT_EQ(gfLastReason(), gfReason::too_few_points);
  EXPECT_EQ(gfLeastSquareUncertainty::circle3(nan, o, z, 1.0, u), 0);
  EXPECT_EQ(gfLastReason(), gfReason::non_finite_input);
  EXPECT_EQ(gfLeastSquareUncertainty::torus(same, o, giUnitVec3(), 3.0, 1.0, u), 0);
  EXPECT_EQ(gfLastReason(), gfReason::invalid_argument);
  EXPECT_EQ(gfLeastSquareUncertainty::circle3(same, o, z, 1.0, u), 0);
  EXPECT_EQ(gfLastReason(), gfReason::not_determined);
  // A circle has no ellipse angle: the ellipse's figures are refused, not made up.
  giPoint2coDynArr round = gfit::testing::sample_ellipse2(nullptr, giPoint2(1, 2), 3.0, 3.0, 0.0, 0.0, 2 * kPi, 30, 0);
  EXPECT_EQ(gfLeastSquareUncertainty::ellipse(round, giPoint2(1, 2), 3.0, 3.0, 0.0, u), 0);
  EXPECT_EQ(gfLastReason(), gfReason::not_determined);
  EXPECT_EQ(u.sigma, 42.0);
}

}  // namespace
