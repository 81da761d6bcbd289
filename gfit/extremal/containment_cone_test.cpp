#include <gtest/gtest.h>

#include <cmath>

#include "gfit/gfit.h"
#include "test/support/checks.h"
#include "test/support/samplers.h"

namespace {

using namespace gfit::testing;

// n directions within `half_angle` of `axis`, spread uniformly over the cap.
giUnitVec3coDynArr cap(Rng& rng, giUnitVec3 const& axis, double half_angle, int n) {
  giUnitVec3 e1 = axis.any_normal(), e2 = axis.cross(e1).unit();
  giUnitVec3coDynArr out(n, 16);
  for (int i = 0; i < n; ++i) {
    double z = rng.uniform(std::cos(half_angle), 1.0), phi = rng.uniform(0.0, 2 * giPi), s = std::sqrt(1 - z * z);
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
  auto solve = [&](giUnitVec3coDynArr const& d) { return gfContainmentCone(d).solve(axis, angle); };
  EXPECT_EQ(solve({}), 0);
  EXPECT_EQ(gfLastReason(), gfReason::too_few_points);
  EXPECT_EQ(solve({giUnitVec3(1, 0, 0), giUnitVec3()}), 0);
  EXPECT_EQ(gfLastReason(), gfReason::non_finite_input);
  EXPECT_EQ(solve({giUnitVec3(1, 2, 3)}), 1);
  EXPECT_EQ(angle.radians(), 0.0);
  EXPECT_EQ(axis.x(), giUnitVec3(1, 2, 3).x());
  // Two directions: the axis halves them.
  EXPECT_EQ(solve({giUnitVec3(1, 0, 0), giUnitVec3(0, 1, 0)}), 1);
  EXPECT_NEAR(angle.radians(), giPi / 4, 1e-15);
  // Opposite directions, and directions around more than a hemisphere, are refused.
  EXPECT_EQ(solve({giUnitVec3(0, 0, 1), giUnitVec3(0, 0, -1)}), 0);
  EXPECT_EQ(gfLastReason(), gfReason::not_determined);
  EXPECT_EQ(
      solve({giUnitVec3(1, 0, 0.1), giUnitVec3(-0.5, 0.87, 0.1), giUnitVec3(-0.5, -0.87, 0.1), giUnitVec3(0, 0, -1)}),
      0);
  // Directions along a great circle never need a three-direction cone: the two ends hold them.
  EXPECT_EQ(solve({giUnitVec3(1, 0, 0), giUnitVec3(1, 1, 0), giUnitVec3(0, 1, 0), giUnitVec3(1, 0.3, 0)}), 1);
  EXPECT_NEAR(angle.radians(), giPi / 4, 1e-15);
}

TEST(ContainmentCone, DuplicatesAndReproducibility) {
  Rng rng(2);
  giUnitVec3coDynArr directions = cap(rng, giUnitVec3(0.2, -0.3, 1), 0.6, 40);
  // Near-duplicates of every direction (within squared distance 1e-5) change nothing.
  giUnitVec3coDynArr doubled(directions);
  for (giUnitVec3 const& v : directions) doubled.append(giUnitVec3(v.x() + 1e-4, v.y(), v.z() - 1e-4));
  // The cone and the permutation of the directions, bit for bit.
  auto solved = [](gfContainmentCone& cone) {
    giUnitVec3 axis;
    giAngle angle;
    EXPECT_EQ(cone.solve(axis, angle), 1);
    Bits out{angle.radians(), axis.x(), axis.y(), axis.z()};
    for (giUnitVec3 const& d : cone.directions()) out.insert(out.end(), {d.x(), d.y(), d.z()});
    return out;
  };
  gfContainmentCone a(directions), b(directions), c(doubled);
  const Bits first = solved(a);
  EXPECT_EQ(solved(b), first);
  EXPECT_NEAR(solved(c)[0], first[0], 2e-4);  // near-duplicates: the same angle
}

}  // namespace
