#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "gfit/gfit.h"
#include "test/support/checks.h"
#include "test/support/derivative_check.h"
#include "test/support/samplers.h"

namespace {

using gfit::testing::line_angle;
using gfit::testing::Rng;

struct Torus {
  giPoint3 centre;
  giUnitVec3 axis;
  double r1 = 0, r2 = 0, residual = 0;
};

int fit(giPoint3coDynArr const& pts, Torus& t) {
  return gfLeastSquareEvaluator::evaluate_torus(pts, t.centre, t.axis, t.r1, t.r2, t.residual);
}

void expect_same(Torus const& a, Torus const& b) {
  EXPECT_EQ(a.centre, b.centre);
  EXPECT_EQ(a.axis.x(), b.axis.x());
  EXPECT_EQ(a.axis.y(), b.axis.y());
  EXPECT_EQ(a.axis.z(), b.axis.z());
  EXPECT_EQ(a.r1, b.r1);
  EXPECT_EQ(a.r2, b.r2);
  EXPECT_EQ(a.residual, b.residual);
}

giPoint3coDynArr first(giPoint3coDynArr const& pts, int n) {
  giPoint3coDynArr out(n, 16);
  for (int i = 0; i < n; ++i) out.append(pts[i]);
  return out;
}

doublecoDynArr constant(int n, double r) {
  doublecoDynArr radii(n, 16);
  for (int i = 0; i < n; ++i) radii.append(r);
  return radii;
}

// The shapes a torus takes on real parts: ring radius r1, tube radius r2 and the covered
// angles about the axis (u) and about the tube (v, from the outward radial direction).
// `tolerance` bounds the errors of the noisy fits (see ShapesPosesAndNoise).
struct Shape {
  char const* name;
  double r1, r2, u0, u_span, v0, v_span;
  double tolerance;
};

const Shape kShapes[] = {
    {"full ring", 40, 8, 0, 2 * giPi, 0, 2 * giPi, 1e-3},
    {"outer half tube", 30, 10, 0, 2 * giPi, -giPi / 2, giPi, 1e-3},
    {"inner groove", 20, 3, 0, 2 * giPi, giPi / 2, giPi, 1e-3},
    {"convex fillet", 50, 4, 0, 2 * giPi, 0, giPi / 2, 5e-3},
    {"groove segment", 20, 3, 0.5, 2.5, 2 * giPi / 3, 2 * giPi / 3, 5e-3},
    {"90-degree elbow", 36, 12, 0, giPi / 2, 0, 2 * giPi, 5e-3},
    {"fat 90-degree elbow", 18, 12, 0, giPi / 2, 0, 2 * giPi, 5e-3},
    {"inner half of an elbow", 36, 12, 0.3, giPi / 2, giPi / 2, giPi, 5e-3},
    {"fillet patch", 50, 4, 1.0, giPi / 2, 0, giPi / 2, 5e-3},
    {"concave fillet patch", 25, 5, 2.0, 2.0, giPi, giPi / 2, 5e-3},
    {"45-degree elbow", 36, 12, 0, giPi / 4, 0, 2 * giPi, 2.5e-2},
};

// ---- recovery ---------------------------------------------------------------------------

TEST(TorusRecovery, ShapesPosesAndNoise) {
  Rng rng(71);
  for (Shape const& s : kShapes) {
    for (int pose = 0; pose < 3; ++pose) {
      giPoint3 centre = pose == 0 ? giPoint3(0, 0, 0) : rng.point_in_box(pose == 1 ? 100 : 1000);
      giUnitVec3 axis = pose == 0 ? giUnitVec3(0, 0, 1) : rng.direction();
      for (double noise : {0.0, 1e-3}) {
        giPoint3coDynArr pts =
            gfit::testing::sample_torus(rng, centre, axis, s.r1, s.r2, s.u0, s.u_span, s.v0, s.v_span, 400, noise);
        Torus t;
        ASSERT_EQ(fit(pts, t), 1) << s.name << ", pose " << pose;
        // Exact points: the coordinates' rounding at 1000 from the origin. Noisy points: a
        // parameter is known to about k noise / sqrt(n) = k 5e-5, with k a factor of the
        // shape's; over 100 random poses the largest errors gave k = 6 to 13 for whole
        // rings and tubes, 25 to 70 for patches and 90-degree elbows (the ring's radius and
        // its centre trade off as an arc's radius and centre do) and 180 for the 45-degree
        // elbow. The tolerances allow about 1.5 to 3 times those; the tilt is allowed that
        // over the tube's radius.
        const double tol = noise == 0.0 ? 1e-8 : s.tolerance;
        EXPECT_LT(line_angle(t.axis, axis), tol / s.r2) << s.name << ", pose " << pose;
        EXPECT_LT(t.centre.distance(centre), tol) << s.name << ", pose " << pose;
        EXPECT_NEAR(t.r1, s.r1, tol) << s.name << ", pose " << pose;
        EXPECT_NEAR(t.r2, s.r2, tol) << s.name << ", pose " << pose;
        EXPECT_NEAR(t.residual, noise, noise == 0.0 ? 1e-9 : 2e-4);
      }
    }
  }
}

TEST(TorusRecovery, GuessAndOrder) {
  Rng rng(72);
  const giPoint3 centre(310, -45, 120);
  const giUnitVec3 axis(0.3, -0.4, 0.85);
  giPoint3coDynArr pts = gfit::testing::sample_torus(rng, centre, axis, 36, 12, 0, giPi / 2, 0, 2 * giPi, 600, 1e-3);
  Torus searched;
  ASSERT_EQ(fit(pts, searched), 1);
  // From a rough guess: the centre 2 off (partly along the axis) and the axis 5 degrees off.
  Torus guided;
  guided.centre = centre + giVector3(1.0, 1.0, 1.0);
  guided.axis = giUnitVec3(giVector3(axis) + giVector3(axis.any_normal()) * std::tan(5 * giPi / 180));
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_torus_with_guess(pts, guided.centre, guided.axis, guided.r1, guided.r2,
                                                              guided.residual),
            1);
  EXPECT_NEAR(guided.residual, searched.residual, 1e-12);
  EXPECT_LT(guided.centre.distance(searched.centre), 1e-8);
  EXPECT_NEAR(guided.r1, searched.r1, 1e-8);
  // The search does not depend on the order of the points (at most 1024 points are all
  // used), up to the rounding of the sums.
  giPoint3coDynArr reversed(pts.count(), 16);
  for (int i = pts.count() - 1; i >= 0; --i) reversed.append(pts[(i * 7) % pts.count()]);
  Torus permuted;
  ASSERT_EQ(fit(reversed, permuted), 1);
  EXPECT_NEAR(permuted.residual, searched.residual, 1e-12);
  EXPECT_LT(permuted.centre.distance(searched.centre), 1e-8);
  EXPECT_LT(line_angle(permuted.axis, searched.axis), 1e-9);
  EXPECT_NEAR(permuted.r1, searched.r1, 1e-8);
  EXPECT_NEAR(permuted.r2, searched.r2, 1e-8);
}

// ---- the problem and the distance -------------------------------------------------------

TEST(TorusProblem, GradientNormalisationAndScales) {
  Rng rng(73);
  giPoint3coDynArr pts = gfit::testing::sample_torus(rng, giPoint3(1, 2, 3), giUnitVec3(0, 0, 1), 10, 3, 0, 2 * giPi,
                                                     0, 2 * giPi, 40, 0.5);
  gfLeastSquareTorus problem(pts);
  // The distances read a unit axis: the gradient is checked at one, away from the start.
  giUnitVec3 tilted(0.1, -0.05, 1);
  const mlVector p{1.2, 1.9, 3.1, tilted.x(), tilted.y(), tilted.z(), 9.5, 3.2};
  EXPECT_LT(gfit::testing::gradient_error(problem, p), 1e-7);
  // The batch form gives the same distances and rows, also where the guards hold: a point
  // on the axis and one on the spine circle.
  giPoint3coDynArr special = pts;
  special.append(giPoint3(1.2, 1.9, 7.0));
  special.append(giPoint3(1.2, 1.9, 3.1) + giVector3(tilted.any_normal()) * 9.5);
  gfLeastSquareTorus guarded(special);
  EXPECT_LT(gfit::testing::block_error(guarded, p), 1e-14);
  const int n = special.count();
  std::vector<double> d(n), sq(n), jac(8 * n);
  guarded.evaluate_block(0, n, d.data(), sq.data(), jac.data(), n);
  EXPECT_NEAR(d[n - 1], -3.2, 1e-12);  // on the spine: minus the tube radius
  EXPECT_EQ(jac[6 * n + n - 1], -1.0);

  mlVector q{5, 5, 5, 0, 0, 2, -3, 1};
  problem.normalize_parameters(q);
  EXPECT_EQ(q[2], 5.0);  // the centre is a point of the torus: it stays
  EXPECT_EQ(q[5], 1.0);
  EXPECT_EQ(q[6], -3.0);  // radii keep their signs
  mlVector zero{1, 2, 3, 0, 0, 0, 4, 1};
  problem.normalize_parameters(zero);
  EXPECT_EQ(zero[3], 1.0);
  EXPECT_EQ(problem.n_independent_parameters(), 7);
  mlVector scales;
  problem.set_parameters(mlVector{0, 0, 0, 0, 0, 1, -6, 2});
  problem.parameter_scales(scales);
  ASSERT_EQ(scales.size(), 8);
  EXPECT_EQ(scales[0], 1.0);
  EXPECT_EQ(scales[4], 6.0);  // max(|r1|, r2)
  EXPECT_EQ(scales[7], 1.0);
}

TEST(TorusProblem, DistanceFootAndNormal) {
  const giPoint3 c(1, 2, 3);
  const giUnitVec3 z(0, 0, 1);
  giPoint3 foot;
  giUnitVec3 normal;
  EXPECT_DOUBLE_EQ(gfDistanceFromTorus(c + giVector3(15, 0, 0), c, z, 10, 2, foot, normal), 3.0);
  EXPECT_LT(foot.distance(c + giVector3(12, 0, 0)), 1e-14);
  EXPECT_DOUBLE_EQ(normal.x(), 1.0);
  EXPECT_DOUBLE_EQ(gfDistanceFromTorus(c + giVector3(0, -10, 5), c, z, 10, 2, foot, normal), 3.0);
  EXPECT_LT(foot.distance(c + giVector3(0, -10, 2)), 1e-14);
  EXPECT_DOUBLE_EQ(normal.z(), 1.0);
  // Inside the tube the distance is negative and the normal still points out of it.
  EXPECT_DOUBLE_EQ(gfDistanceFromTorus(c + giVector3(9, 0, 0), c, z, 10, 2, foot, normal), -1.0);
  EXPECT_DOUBLE_EQ(normal.x(), -1.0);
  // On the spine: the outward radial direction; on the axis: some meridian.
  EXPECT_DOUBLE_EQ(gfDistanceFromTorus(c + giVector3(0, 10, 0), c, z, 10, 2, foot, normal), -2.0);
  EXPECT_DOUBLE_EQ(normal.y(), 1.0);
  EXPECT_DOUBLE_EQ(gfDistanceFromTorus(c, c, z, 10, 2, foot, normal), 8.0);
  EXPECT_NEAR(foot.distance(c), 8.0, 1e-14);
  EXPECT_NEAR(normal.z(), 0.0, 1e-15);
  // The same distances as the problem's, for points anywhere.
  Rng rng(74);
  giPoint3coDynArr pts;
  for (int i = 0; i < 20; ++i) pts.append(rng.point_in_box(20));
  gfLeastSquareTorus problem(pts);
  const giUnitVec3 u(1, 2, -2);
  problem.set_parameters(mlVector{1, 2, 3, u.x(), u.y(), u.z(), 10, 2});
  for (int i = 0; i < pts.count(); ++i) {
    double d = 0.0;
    problem.get_distance(d, i);
    const double closed = gfDistanceFromTorus(pts[i], c, u, 10, 2, foot, normal);
    EXPECT_NEAR(closed, d, 1e-12);
    EXPECT_NEAR(gfDistanceFromTorus(foot, c, u, 10, 2, foot, normal), 0.0, 1e-12);  // the foot is on it
  }
}

// ---- probe compensation -----------------------------------------------------------------

TEST(ProbedTorus, BallCentresGiveBackTheSurface) {
  Rng rng(75);
  const giPoint3 centre(-120, 40, 75);
  const giUnitVec3 axis(0.2, 0.7, -0.4);
  const int n = 200;
  giUnitVec3coDynArr normals;
  giPoint3coDynArr surface =
      gfit::testing::sample_torus(rng, centre, axis, 30, 6, 0, 2 * giPi, 0, 2 * giPi, n, 0.0, &normals);
  doublecoDynArr equal = constant(n, 1.5), mixed(n, 16);
  for (int i = 0; i < n; ++i) mixed.append(0.5 + 2.0 * rng.uniform());
  for (int inside : {0, 1}) {
    for (doublecoDynArr const* radii : {&equal, &mixed}) {
      // Outside the tube (flag 0) the centres are a ball radius along the outward normal;
      // inside (flag 1) against it.
      giPoint3coDynArr centres(n, 16);
      for (int i = 0; i < n; ++i)
        centres.append(surface[i] + giVector3(normals[i]) * (inside ? -(*radii)[i] : (*radii)[i]));
      Torus t;
      ASSERT_EQ(gfLeastSquareEvaluator::evaluate_probed_torus(centres, *radii, inside, t.centre, t.axis, t.r1, t.r2,
                                                              t.residual),
                1);
      // Exact data: the simplex stops at the rounding of the distances.
      EXPECT_LT(t.centre.distance(centre), 1e-9) << "inside " << inside;
      EXPECT_LT(line_angle(t.axis, axis), 1e-10);
      EXPECT_NEAR(t.r1, 30.0, 1e-9);
      EXPECT_NEAR(t.r2, 6.0, 1e-9);
      EXPECT_LT(t.residual, 1e-9);
    }
  }
}

TEST(ProbedTorus, ZeroRadiiEqualThePlainFitAndRefusals) {
  Rng rng(76);
  giPoint3coDynArr pts =
      gfit::testing::sample_torus(rng, giPoint3(5, 6, 7), giUnitVec3(1, 0, 1), 25, 5, 0.4, 2.0, 0, 2 * giPi, 150, 1e-3);
  Torus plain, probed;
  ASSERT_EQ(fit(pts, plain), 1);
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_probed_torus(pts, constant(150, 0.0), 1, probed.centre, probed.axis,
                                                          probed.r1, probed.r2, probed.residual),
            1);
  // The start is the plain torus itself: the simplex can only move within the rounding of
  // the mean squared distance about it (1e-16 of it), by well under 1e-8.
  EXPECT_LT(probed.centre.distance(plain.centre), 1e-8);
  EXPECT_NEAR(probed.r1, plain.r1, 1e-8);
  EXPECT_NEAR(probed.r2, plain.r2, 1e-8);
  EXPECT_NEAR(probed.residual, plain.residual, 1e-15);

  // Refusals leave the outputs untouched.
  Torus untouched;
  untouched.r1 = 7.0;
  auto probed_status = [&](giPoint3coDynArr const& points, doublecoDynArr const& radii) {
    return gfLeastSquareEvaluator::evaluate_probed_torus(points, radii, 0, untouched.centre, untouched.axis,
                                                         untouched.r1, untouched.r2, untouched.residual);
  };
  doublecoDynArr radii = constant(150, 1.0);
  EXPECT_EQ(probed_status(first(pts, 6), radii), 0);
  EXPECT_EQ(probed_status(pts, constant(149, 1.0)), 0);
  radii[3] = NAN;
  EXPECT_EQ(probed_status(pts, radii), 0);
  // Balls of radius 6 outside a tube whose centres lie 5 from the spine leave no tube.
  EXPECT_EQ(probed_status(pts, constant(150, 6.0)), 0);
  EXPECT_EQ(untouched.r1, 7.0);
  EXPECT_TRUE(untouched.axis.invalid());
}

// ---- refusals and reproducibility -------------------------------------------------------

TEST(TorusEdges, Refusals) {
  Rng rng(77);
  giPoint3coDynArr pts =
      gfit::testing::sample_torus(rng, giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), 10, 2, 0, 6, 0, 6, 30, 0.0);
  Torus t;
  t.r1 = 7.0;
  giPoint3coDynArr three = first(pts, 3), five = first(pts, 5);
  EXPECT_EQ(fit(three, t), 0);  // below the entry's minimum
  EXPECT_EQ(fit(five, t), 0);   // the entry's minimum, but a torus needs 7
  giPoint3coDynArr bad = pts;
  bad[4] = giPoint3(0, NAN, 0);
  EXPECT_EQ(fit(bad, t), 0);
  EXPECT_EQ(t.r1, 7.0);
  EXPECT_TRUE(t.axis.invalid());
  // The guess must be set and finite.
  t.centre = giPoint3(0, 0, 0);
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_torus_with_guess(pts, t.centre, t.axis, t.r1, t.r2, t.residual), 0);
  t.axis = giUnitVec3(0, 0, 1);
  t.centre = giPoint3(INFINITY, 0, 0);
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_torus_with_guess(pts, t.centre, t.axis, t.r1, t.r2, t.residual), 0);
  EXPECT_EQ(t.r1, 7.0);
}

// Points far away against the same points moved back exactly (each coordinate within a
// factor two of the offset's), and in another order: the torus keeps its digits.
TEST(TorusFarAway, KeepsItsDigitsWhereverThePointsLieAndInAnyOrder) {
  Rng rng(79);
  const giUnitVec3 axis(0.3, -0.5, 0.81);
  for (int n : {600, 3000}) {  // all points ranked; a subset
    giPoint3coDynArr near = gfit::testing::sample_torus(rng, giPoint3(3, -2, 5), axis, 30, 8, 0, 2 * giPi, 0, 2 * giPi,
                                                        n, 1e-3);
    for (double offset : {1e5, 1e6, 1e7}) {
      SCOPED_TRACE(::testing::Message() << n << " points, offset " << offset);
      const giVector3 o = giVector3(0.6, -0.48, 0.64) * offset;
      const giPoint3coDynArr far = gfit::testing::shifted(near, o), back = gfit::testing::shifted(far, -o);
      Torus f, b, s;
      ASSERT_EQ(fit(far, f), 1);
      ASSERT_EQ(fit(back, b), 1);
      ASSERT_EQ(fit(gfit::testing::shuffled(far, 7), s), 1);
      for (Torus const* other : {&b, &s}) {
        EXPECT_NEAR(other->r1, f.r1, 1e-9 * f.r1);
        EXPECT_NEAR(other->r2, f.r2, 1e-9 * f.r2);
        EXPECT_NEAR(other->residual, f.residual, 1e-9 * f.residual);
        EXPECT_LT(line_angle(other->axis, f.axis), 1e-9);
      }
      EXPECT_LT((b.centre + o).distance(f.centre), 1e-8);
      EXPECT_LT(s.centre.distance(f.centre), 1e-8);
    }
  }
  gfit::testing::CancelFlag cancel;  // and a host's flag stops the search at once
  cancel.flag = true;
  Torus t;
  EXPECT_EQ(fit(gfit::testing::sample_torus(rng, giPoint3(0, 0, 0), axis, 30, 8, 0, 2 * giPi, 0, 2 * giPi, 600, 1e-3), t),
            0);
  EXPECT_EQ(gfLastReason(), gfReason::cancelled);
}

TEST(TorusEdges, BitIdenticalForAnyThreadCount) {
  Rng rng(78);
  // More points than the search ranks its axes on, so that the thinning and the threads
  // both take part.
  giPoint3coDynArr pts = gfit::testing::sample_torus(rng, giPoint3(100, 200, 300), giUnitVec3(3, -1, 2), 24, 9, 0.5,
                                                     2.5, 0, 2 * giPi, 3000, 5e-3);
  const int previous = gfSetMaxThreads(1);
  Torus one, again, two;
  ASSERT_EQ(fit(pts, one), 1);
  ASSERT_EQ(fit(pts, again), 1);
  gfSetMaxThreads(2);
  ASSERT_EQ(fit(pts, two), 1);
  gfSetMaxThreads(previous);
  expect_same(again, one);
  expect_same(two, one);
  EXPECT_NEAR(one.r1, 24.0, 1e-3);

  doublecoDynArr radii = constant(pts.count(), 0.8);
  Torus p1, p2;
  gfSetMaxThreads(1);
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_probed_torus(pts, radii, 1, p1.centre, p1.axis, p1.r1, p1.r2,
                                                          p1.residual),
            1);
  gfSetMaxThreads(2);
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_probed_torus(pts, radii, 1, p2.centre, p2.axis, p2.r1, p2.r2,
                                                          p2.residual),
            1);
  gfSetMaxThreads(previous);
  expect_same(p2, p1);
  EXPECT_NEAR(p1.r2, 9.8, 1e-3);  // the centres lie inside the tube: one ball radius more
}

}  // namespace
