#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "gfit/gfit.h"
#include "test/support/samplers.h"

namespace {

TEST(GeometryValues, UnsetMarksAndUnitVectors) {
  // Defaults carry the unset marks: points +DBL_MAX, unit vectors x = -DBL_MAX.
  EXPECT_EQ(giPoint3().z(), DBL_MAX);
  EXPECT_EQ(giUnitVec3().x(), -DBL_MAX);
  const bool unset[] = {giPoint3().invalid(),
                        giPoint2().invalid(),
                        giUnitVec3().invalid(),
                        giVector3().invalid(),
                        giUnitVec2().invalid(),
                        giCircle2().invalid(),
                        giPoint3(-DBL_MAX, 0, 0).invalid()};
  for (bool u : unset) EXPECT_TRUE(u);
  EXPECT_FALSE(giPoint3(0, 0, 0).invalid());
  // Unit vectors normalise, and refuse zero and non-finite input.
  giUnitVec3 u(3.0, 0.0, 4.0);
  EXPECT_DOUBLE_EQ(u.x(), 0.6);
  EXPECT_DOUBLE_EQ(u.z(), 0.8);
  EXPECT_DOUBLE_EQ(giUnitVec3(1, 1, 1).x(), 1.0 / std::sqrt(3.0));
  EXPECT_TRUE(giUnitVec3(0.0, 0.0, 0.0).invalid());
  EXPECT_TRUE(giUnitVec3(NAN, 0.0, 1.0).invalid());
  EXPECT_TRUE(giUnitVec2(0.0, 0.0).invalid());
}

TEST(GeometryValues, AnyNormalIsPerpendicularUnit) {
  gfit::testing::Rng rng(7);
  for (int i = 0; i < 100; ++i) {
    giUnitVec3 u = rng.direction(), n = u.any_normal();
    EXPECT_NEAR(n.dot(u), 0.0, 1e-15);
    EXPECT_NEAR(giVector3(n).length(), 1.0, 1e-15);
  }
  for (giUnitVec3 axis : {giUnitVec3(1, 0, 0), giUnitVec3(0, 1, 0), giUnitVec3(0, 0, 1)})
    EXPECT_EQ(axis.any_normal().dot(axis), 0.0);
}

TEST(GeometryValues, AngleKeepsItsCosine) {
  giAngle a(giAngleCosine{}, 0.123456789);
  EXPECT_EQ(a.cos(), 0.123456789);
  EXPECT_NEAR(a.radians(), std::acos(0.123456789), 1e-16);
  EXPECT_EQ(giAngle(giAngleCosine{}, 1.5).cos(), 1.0);  // clamped
  EXPECT_TRUE(giAngle(0.1).coincident(giAngle(0.1 + 1e-9), giAngle(1e-8)));
  EXPECT_FALSE(giAngle(0.1).coincident(giAngle(0.2), giAngle(1e-8)));
  EXPECT_NEAR(unsigned_angle(giVector3(1, 0, 0), giVector3(1, 1e-12, 0)).radians(), 1e-12, 1e-24);
  EXPECT_NEAR(giAngle::from_degrees(180).radians(), giPi, 1e-15);
}

TEST(GeometryShapes, CirclesLinesAndPlanes) {
  giCircle2 c;
  ASSERT_TRUE(c.become(giPoint2(1001, 2000), giPoint2(1000, 2001), giPoint2(999, 2000)));
  EXPECT_NEAR(c.centre().distance(giPoint2(1000, 2000)), 0.0, 1e-12);
  EXPECT_NEAR(c.radius(), 1.0, 1e-12);
  const double before = c.radius();
  EXPECT_FALSE(c.become(giPoint2(0, 0), giPoint2(1, 1), giPoint2(2, 2)));  // collinear: unchanged
  EXPECT_EQ(c.radius(), before);
  EXPECT_FALSE(c.become(giPoint2(0, 0), giPoint2(0, 0), giPoint2(2, 2)));

  giInfLine3 line(giPoint3(1, 2, 3), giUnitVec3(0, 0, 1)), other(giPoint3(0, 5, 7), giUnitVec3(1, 0, 0));
  EXPECT_DOUBLE_EQ(line.distance_of_point(giPoint3(4, 6, -10)), 5.0);
  EXPECT_DOUBLE_EQ(giPlane(giPoint3(0, 0, 1), giUnitVec3(0, 0, 2)).distance(giPoint3(5, 5, -1)), -2.0);
  EXPECT_DOUBLE_EQ(giInfLine2(giPoint2(0, 1), giUnitVec2(1, 0)).distance_of_point(giPoint2(7, -2)), 3.0);
  giPoint3 a, b;
  ASSERT_TRUE(line.closest_points(other, a, b));
  EXPECT_NEAR(a.distance(giPoint3(1, 2, 7)), 0.0, 1e-14);
  EXPECT_NEAR(b.distance(giPoint3(1, 5, 7)), 0.0, 1e-14);
  EXPECT_FALSE(line.closest_points(giInfLine3(giPoint3(9, 9, 9), giUnitVec3(0, 0, -1)), a, b));  // parallel
}

TEST(GeometryTransforms, StatesAndTheOrderOfAProduct) {
  giXform3 unset, id(giXformIdentity{}), t(giXformTranslate{}, giVector3(1, 2, 3));
  giXform3 r(giXformRotate{}, giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), giAngle(giPi / 2));
  EXPECT_EQ(unset.state(), 0);
  EXPECT_EQ(unset(0, 0), -DBL_MAX);
  EXPECT_EQ(id.state(), 1);
  EXPECT_EQ((id * t).state(), giXform3::translation);
  EXPECT_EQ((t * t).state(), giXform3::translation);
  EXPECT_EQ((r * t).state(), giXform3::rigid);
  EXPECT_EQ((r * giXform3(giXformScale{}, 2, 1, 1)).state(), giXform3::general);
  EXPECT_EQ((r * unset).state(), giXform3::unset);
  EXPECT_EQ(giXform3(giXformInverse{}, unset).state(), giXform3::unset);
  // A * B applies B first: translate by (1, 2, 3), then turn a quarter about z.
  EXPECT_NEAR((r * t).transform(giPoint3(0, 0, 0)).distance(giPoint3(-2, 1, 3)), 0.0, 1e-15);
  EXPECT_EQ(t.transform(giVector3(1, 2, 3)).x(), 1.0);  // vectors ignore the translation
  // A rotation about an offset axis keeps the axis and the distances from it.
  giXform3 offset(giXformRotate{}, giPoint3(10, 20, 30), giUnitVec3(1, 1, 0), giAngle(1.1));
  EXPECT_NEAR(offset.transform(giPoint3(13, 23, 30)).distance(giPoint3(13, 23, 30)), 0.0, 1e-12);
  EXPECT_NEAR(offset.transform(giPoint3(11, 20, 31)).distance(giPoint3(10, 20, 30)), std::sqrt(2.0), 1e-12);
}

TEST(GeometryTransforms, InverseUndoesRigidAndGeneralTransforms) {
  gfit::testing::Rng rng(3);
  for (int i = 0; i < 20; ++i) {
    giXform3 a(giXformRotate{}, rng.point_in_box(100), rng.direction(), giAngle(rng.uniform(-3, 3)));
    giXform3 b = a * giXform3(giXformScale{}, 1.5, 0.7, 2.0) * giXform3(giXformTranslate{}, giVector3(5, -3, 8));
    for (giXform3 const& x : {a, b}) {
      giXform3 inv(giXformInverse{}, x);
      giPoint3 p = rng.point_in_box(500);
      EXPECT_NEAR(inv.transform(x.transform(p)).distance(p), 0.0, 1e-10);
      EXPECT_NEAR(x.transform(inv.transform(p)).distance(p), 0.0, 1e-10);
    }
  }
  EXPECT_TRUE(giXform3(giXformInverse{}, giXform3(giXformScale{}, 0, 1, 1)).is_unset());
}

TEST(GeometryTransforms, LocalFramesAndTwoDimensions) {
  giPoint3 origin(100, 200, 300);
  giUnitVec3 z(0, 0.6, 0.8);
  giXform3 local(giXformLocal{}, origin, z, giUnitVec3(1, 0, 0));
  EXPECT_NEAR(local.transform(origin).distance(giPoint3(0, 0, 0)), 0.0, 1e-12);
  EXPECT_NEAR(local.transform(origin + z * 5.0).distance(giPoint3(0, 0, 5)), 0.0, 1e-12);
  EXPECT_NEAR(local.transform(origin + giVector3(2, 0, 0)).distance(giPoint3(2, 0, 0)), 0.0, 1e-12);
  EXPECT_EQ(local.state(), giXform3::rigid);

  giXform2 r(giXformRotate{}, giPoint2(1, 1), giAngle(giPi / 2));
  EXPECT_NEAR(r.transform(giPoint2(2, 1)).distance(giPoint2(1, 2)), 0.0, 1e-15);
  giXform2 local2(giXformLocal{}, giPoint2(3, 4), giUnitVec2(0, 1));
  EXPECT_NEAR(local2.transform(giPoint2(3, 6)).distance(giPoint2(2, 0)), 0.0, 1e-15);
  giXform2 g = r * giXform2(giXformScale{}, 2.0, 3.0), gi(giXformInverse{}, g);
  EXPECT_NEAR(gi.transform(g.transform(giPoint2(7, -5))).distance(giPoint2(7, -5)), 0.0, 1e-13);
  EXPECT_TRUE(giXform2().is_unset());
}

TEST(GeometryWorkplanes, RoundTripAndOrthonormalAxes) {
  giWorkplane3 wp(giPoint3(1, 2, 3), giUnitVec3(1, 1, 1), giVector3(1, 0, 0));
  EXPECT_NEAR(wp.x_axis().dot(wp.normal()), 0.0, 1e-15);
  EXPECT_NEAR(wp.y_axis().dot(wp.x_axis()), 0.0, 1e-15);
  EXPECT_NEAR(wp.x_axis().cross(wp.y_axis()).dot(wp.normal()), 1.0, 1e-15);  // right-handed
  giPoint3 p(-4, 7, 11);
  EXPECT_NEAR(wp.to_world(wp.to_work(p)).distance(p), 0.0, 1e-13);
  // An x direction along the normal falls back to any normal.
  EXPECT_FALSE(giWorkplane3(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), giVector3(0, 0, 5)).x_axis().invalid());
  giWorkplane2 w2(giPoint2(1, 1), giVector2(0, 2));
  EXPECT_NEAR(w2.to_work(giPoint2(1, 4)).x(), 3.0, 1e-15);
  EXPECT_NEAR(w2.to_world(w2.to_work(giPoint2(5, -2))).distance(giPoint2(5, -2)), 0.0, 1e-15);
}

}  // namespace
