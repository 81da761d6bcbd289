#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <vector>

#include "gfit/gfit.h"

namespace {

// Points sampled on the faces of a box; each keeps the plane of its face.
struct Sample {
  giPoint3 point;
  giPlane face;
};

std::vector<Sample> box_samples(giPoint3 const& corner, giVector3 const& size, int per_face) {
  mlRandom rng(1);
  std::vector<Sample> out;
  for (int axis = 0; axis < 3; ++axis)
    for (int side = 0; side < 2; ++side) {
      double n[3] = {0, 0, 0};
      n[axis] = side ? 1.0 : -1.0;
      for (int i = 0; i < per_face; ++i) {
        double p[3];
        for (int k = 0; k < 3; ++k) p[k] = corner[k] + size[k] * (k == axis ? side : 0.1 + 0.8 * rng.next_unit());
        giPoint3 q(p[0], p[1], p[2]);
        out.push_back({q, giPlane(q, giUnitVec3(n[0], n[1], n[2]))});
      }
    }
  return out;
}

giXform3 motion(double degrees, giUnitVec3 const& axis, giPoint3 const& about, giVector3 const& shift) {
  return giXform3(giXformTranslate{}, shift) * giXform3(giXformRotate{}, about, axis, giAngle::from_degrees(degrees));
}

// Adds every sample moved by `x`, with its foot on its face plane as the nominal point.
void add_all(gfPointsToPlanes& solver, std::vector<Sample> const& samples, giXform3 const& x) {
  for (Sample const& s : samples) {
    giPoint3 m = x * s.point;
    solver.add_bestfit(m, s.face.project(m), giVector3(s.face.normal()), -DBL_MAX, DBL_MAX, 1.0);
  }
}

double max_error(std::vector<Sample> const& samples, giXform3 const& x) {
  double e = 0.0;
  for (Sample const& s : samples) e = std::max(e, (x * s.point).distance(s.point));
  return e;
}

TEST(PointsToPlanes, FreeStepsRecoverABoxPose) {
  giPoint3 corner(1000, -500, 200);
  std::vector<Sample> samples = box_samples(corner, {40, 30, 20}, 12);
  giXform3 moved = motion(0.2, giUnitVec3(1, 2, 3), {1010, -490, 210}, {0.05, -0.03, 0.04});
  giXform3 x = moved;
  for (int iteration = 0; iteration < 5; ++iteration) {
    gfPointsToPlanes solver;
    solver.set_fitting_points_attraction(0.01);
    add_all(solver, samples, x);
    giXform3 step;
    ASSERT_EQ(solver.single_linear_step(step), 1);
    EXPECT_EQ(step.state(), giXform3::rigid);
    x = step * x;
    if (iteration == 0) {
      EXPECT_LT(max_error(samples, x), 5e-4);  // second order: theta^2 times the size
    }
  }
  EXPECT_LT(max_error(samples, x), 1e-10);

  // The same records give the same bits.
  gfPointsToPlanes a, b;
  add_all(a, samples, moved);
  add_all(b, samples, moved);
  giXform3 sa, sb;
  a.single_linear_step(sa);
  b.single_linear_step(sb);
  for (int r = 0; r < 3; ++r)
    for (int k = 0; k < 4; ++k) EXPECT_EQ(sa(r, k), sb(r, k));
}

TEST(PointsToPlanes, LocksHold) {
  std::vector<Sample> samples = box_samples({0, 0, 0}, {40, 30, 20}, 10);
  giXform3 moved = motion(0.3, giUnitVec3(0.2, 1, 0.4), {5, 5, 5}, {0.1, 0.05, -0.02});

  {  // rotation lock: translations only
    gfPointsToPlanes solver;
    add_all(solver, samples, moved);
    solver.lock_rotations(giVector3(0, 0, 1), giVector3(), giVector3());
    giXform3 step;
    ASSERT_EQ(solver.single_linear_step(step), 1);
    for (int r = 0; r < 3; ++r)
      for (int k = 0; k < 3; ++k) EXPECT_EQ(step(r, k), r == k ? 1.0 : 0.0);
  }
  {  // locked direction: d1 goes onto d2, then rotations about d2 only
    giUnitVec3 d1(0.01, 0.02, 1.0), d2(0, 0, 1);
    gfPointsToPlanes solver;
    add_all(solver, samples, moved);
    solver.lock_direction(giVector3(d1), giVector3(d2), 0);
    giXform3 step;
    ASSERT_EQ(solver.single_linear_step(step), 1);
    giVector3 turned = step * giVector3(d1);
    EXPECT_NEAR((turned - giVector3(d2)).length(), 0.0, 1e-12);
  }
  {  // held point: on its nominal point after the step, exactly in every axis
    giPoint3 lock_measured(3, 4, 5), lock_nominal(3.001, 4.002, 4.999);
    gfPointsToPlanes solver;
    add_all(solver, samples, moved);
    solver.add_positioning(lock_measured, giWorkplane3(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), giVector3(1, 0, 0)),
                           lock_nominal, 0, 0, 0, 0);
    giXform3 step;
    ASSERT_EQ(solver.single_linear_step(step), 1);
    EXPECT_LE((step * lock_measured).distance(lock_nominal), 1e-12);
  }
  {  // contradictory locks are refused
    gfPointsToPlanes solver;
    add_all(solver, samples, moved);
    giWorkplane3 world;
    solver.add_positioning(giPoint3(0, 0, 0), world, giPoint3(0, 0, 0), 0, 0, 0, 0);
    solver.add_positioning(giPoint3(0, 0, 0), world, giPoint3(1, 0, 0), 0, 0, 0, 0);
    giXform3 step(giXformTranslate{}, giVector3(7, 7, 7));
    EXPECT_EQ(solver.single_linear_step(step), 0);
    EXPECT_EQ(step(0, 3), 7.0);
    EXPECT_EQ(gfLastReason(), gfReason::invalid_argument);
  }
}

TEST(PointsToPlanes, ToleranceBands) {
  // A box whose top carries one point measured 0.05 high, banded at [-0.01, 0.01]: the
  // other points pull it back only part of the way, the band pulls it to its edge. Each step
  // holds the band to first order; re-linearised steps reach it exactly.
  std::vector<Sample> samples = box_samples({0, 0, 0}, {40, 30, 20}, 8);
  giPoint3 banded(20, 15, 20), measured = banded + giVector3(0, 0, 0.05);
  giXform3 x(giXformIdentity{});
  for (int iteration = 0; iteration < 4; ++iteration) {
    gfPointsToPlanes solver;
    solver.set_fitting_points_attraction(0.01);
    add_all(solver, samples, x);
    giPoint3 m = x * measured;
    solver.add_bestfit(m, giPoint3(m.x(), m.y(), banded.z()), giVector3(0, 0, 1), -0.01, 0.01, 1.0);
    giXform3 step;
    ASSERT_EQ(solver.single_linear_step(step), 1);
    EXPECT_EQ(solver.overdetermined_constraints().count(), 0);
    x = step * x;
    if (iteration == 0) {
      EXPECT_NEAR((x * measured).z() - banded.z(), 0.01, 1e-5);
    }
  }
  EXPECT_NEAR((x * measured).z() - banded.z(), 0.01, 1e-12);
}

TEST(PointsToPlanes, ContradictoryLimitsAreNamed) {
  // A 10 mm thick plate measured 10.1 thick: both faces stand 0.05 proud, and their upper
  // limits of 0.02 cannot both hold, whatever the motion.
  std::vector<Sample> sides = box_samples({0, 0, 0}, {40, 30, 10}, 6);
  gfPointsToPlanes solver;
  solver.set_fitting_points_attraction(0.01);
  for (Sample const& s : sides)
    if (std::fabs(s.face.normal().z()) < 0.5)
      solver.add_bestfit(s.point, s.face.project(s.point), giVector3(s.face.normal()), -DBL_MAX, DBL_MAX, 1.0);
  solver.add_bestfit(giPoint3(20, 15, -0.05), giPoint3(20, 15, 0), giVector3(0, 0, -1), -0.02, 0.02, 1.0);  // 0, 1: +0.05
  solver.add_bestfit(giPoint3(20, 15, 10.05), giPoint3(20, 15, 10), giVector3(0, 0, 1), -0.02, 0.02, 1.0);  // 2, 3
  solver.add_bestfit(giPoint3(5, 5, 10), giPoint3(5, 5, 10), giVector3(0, 0, 1), 0.5, 0.1, 1.0);            // 4, 5: lo > up
  giXform3 step;
  ASSERT_EQ(solver.single_linear_step(step), 1);
  intcoDynArr const& named = solver.overdetermined_constraints();
  std::vector<int> got(named.begin(), named.end());
  EXPECT_EQ(got, (std::vector<int>{1, 3, 4, 5})) << "both upper limits, and the inverted band";
}

TEST(PointsToPlanes, UnderdeterminedAndBadInput) {
  // Points on one plane leave three motions free: the attraction keeps them still.
  gfPointsToPlanes plane;
  plane.set_fitting_points_attraction(0.01);
  mlRandom rng(1);
  for (int i = 0; i < 20; ++i) {
    giPoint3 p(100 * rng.next_unit(), 100 * rng.next_unit(), 0.0);
    plane.add_bestfit(p, p, giVector3(0, 0, 1), -DBL_MAX, DBL_MAX, 1.0);
  }
  plane.add_bestfit(giPoint3(1, 1, 1), giPoint3(0, 0, 0), giVector3(0, 0, 1), -DBL_MAX, DBL_MAX, 0.0);  // ignored
  EXPECT_EQ(plane.n_bestfit(), 20);
  giXform3 step;
  ASSERT_EQ(plane.single_linear_step(step), 1);
  for (int r = 0; r < 3; ++r)
    for (int k = 0; k < 4; ++k) EXPECT_NEAR(step(r, k), r == k ? 1.0 : 0.0, 1e-12);

  gfPointsToPlanes regularised;
  regularised.add_bestfit(giPoint3(0, 0, 0.1), giPoint3(0, 0, 0), giVector3(0, 0, 1), -DBL_MAX, DBL_MAX, 1.0);
  ASSERT_EQ(regularised.single_linear_step(step), 1);
  EXPECT_TRUE(std::isfinite(step(2, 3)));

  struct Bad {
    char const* name;
    giPoint3 m;
    double lo, w;
  } bad[] = {{"nan point", {NAN, 0, 0}, -DBL_MAX, 1.0}, {"infinite limit", {0, 0, 0}, -INFINITY, 1.0}, {"nan weight", {0, 0, 0}, -DBL_MAX, NAN}};
  for (Bad const& b : bad) {
    gfPointsToPlanes solver;
    solver.add_bestfit(b.m, giPoint3(0, 0, 0), giVector3(0, 0, 1), b.lo, DBL_MAX, b.w);
    giXform3 untouched;
    EXPECT_EQ(solver.single_linear_step(untouched), 0) << b.name;
    EXPECT_TRUE(untouched.is_unset()) << b.name;
    EXPECT_EQ(gfLastReason(), gfReason::non_finite_input) << b.name;
  }
  gfPointsToPlanes empty;
  EXPECT_EQ(empty.single_linear_step(step), 0);
}

}  // namespace
