#include <gtest/gtest.h>

#include <cmath>

#include "gfit/gfit.h"
#include "test/support/samplers.h"

namespace {

// A circle of radius r touching (centre, R) at angle theta: from outside, or enclosed by it.
cnxCircle2 touching(giPoint2 const& centre, double R, double theta, double r, bool enclosed) {
  double d = enclosed ? R - r : R + r;
  return cnxCircle2(centre + giVector2(d * std::cos(theta), d * std::sin(theta)), r);
}

// The circle touching a, b and c as `selector` asks.
bool tangent(cnxCircle2& s, cnxCircle2 const& a, cnxCircle2 const& b, cnxCircle2 const& c, int selector) {
  return cnxCircle2Constructor::construct(s, cnx_tangent, a, cnx_tangent, b, cnx_tangent, c, selector);
}

// How far the solution is from meeting the tangency asked for by `selector` at circle i.
double tangency_error(cnxCircle2 const& s, cnxCircle2 const& given, bool enclosed) {
  double want = enclosed ? s.radius() - given.radius() : s.radius() + given.radius();
  return std::fabs(s.centre().distance(given.centre()) - want);
}

TEST(CnxCircle2Constructor, EverySignCombinationOnConfigurationsWhereItExists) {
  gfit::testing::Rng rng(7);
  for (int signs = 0; signs < 8; ++signs) {
    const int selector = signs << 1;
    for (int trial = 0; trial < 25; ++trial) {
      // A known solution, far from the origin on every other trial, and three circles
      // touching it as the combination asks, at well separated angles.
      double offset = trial % 2 ? 1e4 : 0.0;
      giPoint2 centre(offset + rng.uniform(-5, 5), -offset + rng.uniform(-5, 5));
      double R = rng.uniform(1.0, 3.0);
      cnxCircle2 given[3];
      bool enclosed[3];
      for (int i = 0; i < 3; ++i) {
        enclosed[i] = (signs >> i) & 1;
        double theta = 2.0 * giPi * i / 3.0 + rng.uniform(-0.5, 0.5);
        given[i] = touching(centre, R, theta, rng.uniform(0.1, 0.9) * (enclosed[i] ? R : 2.0), enclosed[i]);
      }
      cnxCircle2 smaller, larger;
      ASSERT_TRUE(tangent(smaller, given[0], given[1], given[2], selector));
      ASSERT_TRUE(tangent(larger, given[0], given[1], given[2], selector | 1));
      EXPECT_LE(smaller.radius(), larger.radius());
      // Rounding of coordinates of size 1e4 leaves about 1e-12 relative; allow 1e-9 of it.
      double tol = 1e-9 * (1.0 + offset);
      for (int i = 0; i < 3; ++i) {
        EXPECT_LT(tangency_error(smaller, given[i], enclosed[i]), tol) << "signs " << signs;
        EXPECT_LT(tangency_error(larger, given[i], enclosed[i]), tol) << "signs " << signs;
      }
      // The known circle is one of the (at most two) solutions.
      double miss = std::fmin(smaller.centre().distance(centre) + std::fabs(smaller.radius() - R),
                              larger.centre().distance(centre) + std::fabs(larger.radius() - R));
      EXPECT_LT(miss, tol) << "signs " << signs << " trial " << trial;
    }
  }
}

TEST(CnxCircle2Constructor, EqualRadiiGiveTheCircumcircleGrownOrShrunk) {
  cnxCircle2 a(giPoint2(3, 0), 0.5), b(giPoint2(0, 3), 0.5), c(giPoint2(-3, 0), 0.5), s;
  ASSERT_TRUE(tangent(s, a, b, c, cnxCircle2Constructor::enclose_all));
  EXPECT_NEAR(s.radius(), 3.5, 1e-14);
  EXPECT_NEAR(s.centre().distance(giPoint2(0, 0)), 0.0, 1e-14);
  ASSERT_TRUE(tangent(s, a, b, c, 0));
  EXPECT_NEAR(s.radius(), 2.5, 1e-14);
  ASSERT_TRUE(
      cnxCircle2Constructor::construct(s, cnx_through_centre, a, cnx_through_centre, b, cnx_through_centre, c, 0));
  EXPECT_NEAR(s.radius(), 3.0, 1e-14);
}

TEST(CnxCircle2Constructor, CollinearCentresGiveMirrorSolutions) {
  // Circles on the x axis touching (0, +-2) with radius 1 from outside.
  auto on_axis = [](double x) { return cnxCircle2(giPoint2(x, 0), std::sqrt(x * x + 4.0) - 1.0); };
  cnxCircle2 left, right;
  ASSERT_TRUE(tangent(left, on_axis(-3), on_axis(0), on_axis(4), 0));
  ASSERT_TRUE(tangent(right, on_axis(-3), on_axis(0), on_axis(4), 1));
  EXPECT_NEAR(left.radius(), 1.0, 1e-13);
  EXPECT_NEAR(left.centre().distance(giPoint2(0, 2)), 0.0, 1e-13);
  EXPECT_NEAR(right.centre().distance(giPoint2(0, -2)), 0.0, 1e-13);
}

TEST(CnxCircle2Constructor, NoSolutionGivesAnInvalidCentre) {
  cnxCircle2 a(giPoint2(0, 0), 1), b(giPoint2(5, 0), 1), c(giPoint2(10, 0), 1), s;
  // Equal circles in a row: no circle touches all three on one side.
  EXPECT_FALSE(tangent(s, a, b, c, 0));
  EXPECT_TRUE(s.invalid());
  EXPECT_EQ(s.centre().x(), DBL_MAX);
  // No circle encloses the outer of two concentric circles and touches the inner one from
  // outside. Selectors beyond 15 and negative radii are refused.
  cnxCircle2 outer(giPoint2(0, 0), 5), inner(giPoint2(0, 0), 1), third(giPoint2(20, 0), 1);
  EXPECT_FALSE(tangent(s, outer, inner, third, cnxCircle2Constructor::enclose_first));
  EXPECT_FALSE(tangent(s, a, b, third, 16));
  EXPECT_FALSE(tangent(s, cnxCircle2(giPoint2(0, 0), -1), b, third, 0));
}

}  // namespace
