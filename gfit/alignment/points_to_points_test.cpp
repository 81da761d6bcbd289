#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <vector>

#include "gfit/gfit.h"

namespace {

giXform3 rotation(giPoint3 const& origin, giUnitVec3 const& axis, double degrees, giVector3 const& shift) {
  return giXform3(giXformTranslate{}, shift) * giXform3(giXformRotate{}, origin, axis, giAngle::from_degrees(degrees));
}

double det3(giXform3 const& x) {
  return x(0, 0) * (x(1, 1) * x(2, 2) - x(1, 2) * x(2, 1)) - x(0, 1) * (x(1, 0) * x(2, 2) - x(1, 2) * x(2, 0)) +
         x(0, 2) * (x(1, 0) * x(2, 1) - x(1, 1) * x(2, 0));
}

std::vector<giPoint3> cloud(giPoint3 const& centre, double size, int n) {
  mlRandom rng(1);
  std::vector<giPoint3> p;
  for (int i = 0; i < n; ++i)
    p.emplace_back(centre.x() + size * (rng.next_unit() - 0.5), centre.y() + size * (rng.next_unit() - 0.5),
                   centre.z() + size * (rng.next_unit() - 0.5));
  return p;
}

TEST(PointsToPoints, RecoversKnownRigidMotions) {
  struct Case {
    char const* name;
    giPoint3 centre;
    double size;
    giXform3 motion;
  };
  std::vector<Case> cases = {
      {"near origin", {0, 0, 0}, 10, rotation({1, 2, 3}, giUnitVec3(1, 2, 3), 37, {4, -5, 6})},
      {"far from origin", {1000, -2000, 500}, 20, rotation({1000, -2000, 500}, giUnitVec3(-1, 0.3, 2), 170, {0.1, 0.2, -0.3})},
      {"tiny rotation", {50, 50, 50}, 100, rotation({0, 0, 0}, giUnitVec3(0, 0, 1), 1e-6, {0, 0, 1e-7})},
      {"pure translation", {5, 5, 5}, 3, giXform3(giXformTranslate{}, giVector3(1, -2, 3))},
  };
  for (Case const& c : cases) {
    std::vector<giPoint3> a = cloud(c.centre, c.size, c.name[0] == 'p' ? 3 : 50);
    gfPointsToPoints pairs;
    for (giPoint3 const& p : a) pairs.add_pair(p, c.motion * p);
    giXform3 x;
    ASSERT_TRUE(pairs.get_xform(x)) << c.name;
    EXPECT_EQ(x.state(), giXform3::rigid);
    for (int r = 0; r < 3; ++r)
      for (int k = 0; k < 4; ++k)
        EXPECT_NEAR(x(r, k), c.motion(r, k), 1e-12 * (k == 3 ? 1 + c.centre.vector().length() : 1.0)) << c.name;
  }
}

TEST(PointsToPoints, MirroredSetsGiveAProperRotation) {
  std::vector<giPoint3> a = cloud({10, 20, 30}, 5, 20);
  gfPointsToPoints pairs;
  for (giPoint3 const& p : a) pairs.add_pair(p, giPoint3(-p.x(), p.y(), p.z()));
  giXform3 x;
  EXPECT_TRUE(pairs.get_xform(x));
  EXPECT_NEAR(det3(x), 1.0, 1e-12);
}

TEST(PointsToPoints, DegenerateAndMixedInput) {
  giXform3 untouched(giXformTranslate{}, giVector3(9, 9, 9)), x = untouched;
  gfPointsToPoints none;
  EXPECT_FALSE(none.get_xform(x));
  EXPECT_EQ(x(0, 3), 9.0);

  gfPointsToPoints one, collinear;
  one.add_pair(giPoint3(1, 2, 3), giPoint3(4, 5, 6));
  EXPECT_FALSE(one.get_xform(x));
  for (int i = 0; i < 10; ++i) collinear.add_pair(giPoint3(i, 2 * i, 3 * i), giPoint3(i + 1, 2 * i, 3 * i));
  EXPECT_FALSE(collinear.get_xform(x));
  EXPECT_NE(x.state(), giXform3::unset);  // written all the same

  gfPointsToPoints mixed;
  mixed.add_pair(giPoint2(0, 0), giPoint2(1, 1));
  mixed.add_pair(giPoint3(0, 0, 0), giPoint3(1, 1, 1));
  EXPECT_EQ(mixed.count(), 1);
  x = untouched;
  EXPECT_FALSE(mixed.get_xform(x));
  EXPECT_EQ(x(0, 3), 9.0);

  gfPointsToPoints invalid;
  invalid.add_pair(giPoint3(), giPoint3(1, 1, 1));
  invalid.add_pair(giPoint3(1, 1, 1), giPoint3(-DBL_MAX, 0, 0));
  invalid.add_pair(giPoint3(NAN, 1, 1), giPoint3(1, 1, 1));
  EXPECT_EQ(invalid.count(), 0);
  EXPECT_EQ(invalid.dimension(), 0);
}

TEST(PointsToPoints, SecondCallSeesRecentredSums) {
  std::vector<giPoint3> a = cloud({100, 0, 0}, 10, 10);
  giXform3 motion = rotation({0, 0, 0}, giUnitVec3(0, 1, 0), 20, {1, 2, 3});
  gfPointsToPoints pairs;
  mlRandom rng(7);
  for (giPoint3 const& p : a) pairs.add_pair(p, motion * p + giVector3(rng.next_unit(), rng.next_unit(), 0) * 0.1);
  giXform3 first, second;
  pairs.get_xform(first);
  pairs.get_xform(second);
  EXPECT_GT(std::fabs(first(0, 3) - second(0, 3)), 1e-6);
}

TEST(PointsToPoints, PlaneFormIsExactOnCentredPairs) {
  giXform2 motion = giXform2(giXformTranslate{}, giVector2(3, -4)) * giXform2(giXformRotate{}, giPoint2(0, 0), giAngle::from_degrees(30));
  std::vector<giPoint2> a = {{1, 2}, {-3, 1}, {4, -5}, {-2, 2}};  // sums to zero
  gfPointsToPoints pairs;
  for (giPoint2 const& p : a) pairs.add_pair(p, motion * p);
  giXform2 x;
  ASSERT_TRUE(pairs.get_xform(x));
  for (int r = 0; r < 2; ++r)
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(x(r, k), motion(r, k), 1e-13);

  // Mirrored pairs in the plane: still a rotation.
  gfPointsToPoints mirrored;
  for (giPoint2 const& p : a) mirrored.add_pair(p, giPoint2(-p.x(), p.y()));
  ASSERT_TRUE(mirrored.get_xform(x));
  EXPECT_NEAR(x(0, 0) * x(1, 1) - x(0, 1) * x(1, 0), 1.0, 1e-12);
}

}  // namespace
