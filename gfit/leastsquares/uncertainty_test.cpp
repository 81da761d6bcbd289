#include "gfit/leastsquares/uncertainty.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "test/support/samplers.h"

namespace {

using gfit::testing::Rng;
constexpr double kPi = 3.14159265358979323846;

enum class Kind { circle, sphere, cylinder, cone };

// One repeat: the fitted radius and axis point (x, y) where the fitted axis meets the plane
// z = z_ref (the true axis is along z), and the reported standard uncertainties.
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
  EXPECT_EQ(u.sigma, 42.0);
}

}  // namespace
