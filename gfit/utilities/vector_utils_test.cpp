#include <gtest/gtest.h>

#include <cmath>

#include "gfit/gfit.h"
#include "test/support/samplers.h"

namespace {

TEST(GfUtils, OrthogonalUsesAStrictReferenceAxisTest) {
  giVector3 out;
  gfUtils::get_orthogonal(giVector3(1, 1, 0), out);  // |x| > |y| is false: x axis
  EXPECT_NEAR(out.x(), 0.0, 1e-15);
  EXPECT_NEAR(out.z(), -1.0, 1e-15);
  gfUtils::get_orthogonal(giVector3(2, 1, 0), out);  // y axis: (2,1,0) x (0,1,0) = (0,0,2)
  EXPECT_NEAR(out.z(), 1.0, 1e-15);
  gfUtils::get_orthogonal(giVector3(0, 0, 0), out);
  EXPECT_TRUE(out.invalid());
}

TEST(GfUtils, QuickAngleOrdersDirections) {
  giUnitVec2 a(1, 0);
  EXPECT_EQ(gfUtils::quick_angle(a, a), -2.0);
  EXPECT_EQ(gfUtils::quick_angle(a, -a), 0.0);
  double previous = -2.0;
  for (int deg = 10; deg < 360; deg += 10) {
    double q = gfUtils::quick_angle(a, giUnitVec2(std::cos(deg * giPi / 180), std::sin(deg * giPi / 180)));
    EXPECT_GT(q, previous);
    EXPECT_LT(q, 2.0);
    previous = q;
  }
}

TEST(GfUtils, BisectorHalvesTheCounterClockwiseTurn) {
  giUnitVec2 a(0.6, 0.8);
  EXPECT_EQ(gfUtils::bisector(a, a).x(), a.x());
  auto expect_bisector = [](giUnitVec2 const& from, giUnitVec2 const& to, giVector2 const& want) {
    EXPECT_LT((giVector2(gfUtils::bisector(from, to)) - want).length(), 1e-15);
  };
  const double h = std::sqrt(0.5);
  expect_bisector(giUnitVec2(1, 0), giUnitVec2(-1, 0), giVector2(0, 1));   // the nearly-opposite branch
  expect_bisector(giUnitVec2(0, 1), giUnitVec2(1, 0), giVector2(-h, -h));  // 270 degrees ccw
  expect_bisector(giUnitVec2(1, 0), giUnitVec2(0, 1), giVector2(h, h));
}

TEST(GfUtils, IntersectLines) {
  double t = 42.0;
  EXPECT_FALSE(gfUtils::intersect_lines(giPoint2(0, 0), giVector2(1, 1), giPoint2(0, 1), giVector2(2, 2), t));
  EXPECT_EQ(t, 42.0);
  ASSERT_TRUE(gfUtils::intersect_lines(giPoint2(0, 0), giVector2(2, 0), giPoint2(3, -1), giVector2(0, 1), t));
  EXPECT_DOUBLE_EQ(t, 1.5);  // along the unnormalised first direction
}

TEST(GfUtils, ProjectPointsToPlaneGivesInPlaneCoordinatesAndTheFrame) {
  giPoint3coDynArr none;
  giPoint2coDynArr out{giPoint2(1, 1)};
  giXform3 frame;
  gfUtils::ProjectPointsToPlane(none, giPoint3(0, 0, 0), giVector3(0, 0, 1), out, &frame);
  EXPECT_EQ(out.count(), 0);
  EXPECT_FALSE(frame.is_unset());

  giPoint3 origin(10, 20, 30);
  giVector3 normal(0, 0, 2);  // not unit: made unit
  giPoint3coDynArr pts{giPoint3(13, 24, 35), giPoint3(10, 20, 30)};
  gfUtils::ProjectPointsToPlane(pts, origin, normal, out, &frame);
  ASSERT_EQ(out.count(), 2);
  EXPECT_NEAR(out[0].x(), 3.0, 1e-13);  // reference axis x, z the normal
  EXPECT_NEAR(out[0].y(), 4.0, 1e-13);
  EXPECT_NEAR(out[1].x(), 0.0, 1e-13);
  giXform3 back(giXformInverse{}, frame);
  EXPECT_NEAR(back.transform(giPoint3(3, 4, 0)).distance(giPoint3(13, 24, 30)), 0.0, 1e-12);
  gfUtils::ProjectPointsToPlane(pts, origin, normal, out, nullptr);
  EXPECT_EQ(out.count(), 2);
}

}  // namespace
