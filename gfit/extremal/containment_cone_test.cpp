#include <gtest/gtest.h>

#include <cmath>

#include "gfit/gfit.h"
#include "test/support/samplers.h"

namespace {

using gfit::testing::Rng;

// n directions within `half_angle` of `axis`, spread uniformly over the cap.
giUnitVec3coDynArr cap(Rng& rng, giUnitVec3 const& axis, double half_angle, int n) {
  giUnitVec3 e1 = axis.any_normal(), e2 = axis.cross(e1).unit();
  giUnitVec3coDynArr out(n, 16);
  for (int i = 0; i < n; ++i) {
    double z = rng.uniform(std::cos(half_angle), 1.0), phi = rng.uniform(0.0, 2 * M_PI), s = std::sqrt(1 - z * z);
    out.append((axis * z + e1 * (s * std::cos(phi)) + e2 * (s * std::sin(phi))).unit());
  }
  return out;
}

TEST(ContainmentCone, AgreesWithTheSlowReferenceOnRandomDirections) {
  Rng rng(17);
  for (int trial = 0; trial < 60; ++trial) {
    giUnitVec3coDynArr directions = cap(rng, rng.direction(), rng.uniform(0.01, 1.4), 3 + trial % 25);
    gfContainmentCone fast(directions), slow(directions);
    giUnitVec3 axis, slow_axis;
    giAngle angle, slow_angle;
    ASSERT_EQ(fast.solve(axis, angle), 1) << "trial " << trial;
    ASSERT_EQ(slow.solve_slow_and_simple_for_utest(slow_axis, slow_angle), 1);
    EXPECT_NEAR(angle.radians(), slow_angle.radians(), 1e-12) << "trial " << trial;
    EXPECT_LT(unsigned_angle(axis, slow_axis).radians(), 1e-7) << "trial " << trial;
    for (giUnitVec3 const& d : directions) EXPECT_LE(unsigned_angle(d, axis).radians(), angle.radians() + 1e-12);
  }
}

TEST(ContainmentCone, SmallAndRefusedSets) {
  giUnitVec3 axis;
  giAngle angle;
  giUnitVec3coDynArr none;
  EXPECT_EQ(gfContainmentCone(none).solve(axis, angle), 0);
  EXPECT_EQ(gfContainmentCone({giUnitVec3(1, 0, 0), giUnitVec3()}).solve(axis, angle), 0);
  giUnitVec3 d(1, 2, 3);
  gfContainmentCone one({d});
  EXPECT_EQ(one.solve(axis, angle), 1);
  EXPECT_EQ(angle.radians(), 0.0);
  EXPECT_EQ(axis.x(), d.x());
  // Two directions: the axis halves them.
  EXPECT_EQ(gfContainmentCone({giUnitVec3(1, 0, 0), giUnitVec3(0, 1, 0)}).solve(axis, angle), 1);
  EXPECT_NEAR(angle.radians(), M_PI / 4, 1e-15);
  // Opposite directions, and directions around more than a hemisphere, are refused.
  EXPECT_EQ(gfContainmentCone({giUnitVec3(0, 0, 1), giUnitVec3(0, 0, -1)}).solve(axis, angle), 0);
  EXPECT_EQ(gfContainmentCone({giUnitVec3(1, 0, 0.1), giUnitVec3(-0.5, 0.87, 0.1), giUnitVec3(-0.5, -0.87, 0.1),
                               giUnitVec3(0, 0, -1)})
                .solve(axis, angle),
            0);
  // Directions along a great circle never need a three-direction cone: the two ends hold them.
  EXPECT_EQ(gfContainmentCone({giUnitVec3(1, 0, 0), giUnitVec3(1, 1, 0), giUnitVec3(0, 1, 0), giUnitVec3(1, 0.3, 0)})
                .solve(axis, angle),
            1);
  EXPECT_NEAR(angle.radians(), M_PI / 4, 1e-15);
}

TEST(ContainmentCone, DuplicatesAndReproducibility) {
  Rng rng(2);
  giUnitVec3coDynArr directions = cap(rng, giUnitVec3(0.2, -0.3, 1), 0.6, 40);
  // Near-duplicates of every direction (within squared distance 1e-5) change nothing.
  giUnitVec3coDynArr doubled(directions);
  for (giUnitVec3 const& v : directions) doubled.append(giUnitVec3(v.x() + 1e-4, v.y(), v.z() - 1e-4));
  gfContainmentCone a(directions), b(directions), c(doubled);
  giUnitVec3 axis_a, axis_b, axis_c;
  giAngle angle_a, angle_b, angle_c;
  ASSERT_EQ(a.solve(axis_a, angle_a), 1);
  ASSERT_EQ(b.solve(axis_b, angle_b), 1);
  ASSERT_EQ(c.solve(axis_c, angle_c), 1);
  EXPECT_NEAR(angle_c.radians(), angle_a.radians(), 2e-4);
  // Bit for bit, the same cone and the same permutation.
  EXPECT_EQ(angle_a.radians(), angle_b.radians());
  EXPECT_EQ(axis_a.x(), axis_b.x());
  EXPECT_EQ(axis_a.z(), axis_b.z());
  for (int i = 0; i < directions.count(); ++i) EXPECT_EQ(a.directions()[i].x(), b.directions()[i].x());
}

}  // namespace
