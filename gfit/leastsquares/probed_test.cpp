#include <gtest/gtest.h>

#include <cmath>

#include "gfit/gfit.h"
#include "test/support/checks.h"
#include "test/support/derivative_check.h"
#include "test/support/samplers.h"

namespace {

using namespace gfit::testing;

TEST(ProbedCircle, BallRadiusOnTheTouchedSide) {
  // Ball centres on a circle of radius 10: touched from inside (a bore) the surface has
  // radius 11, touched from outside (a shaft) 9.
  giPoint2coDynArr centres;
  for (int i = 0; i < 12; ++i) centres.append(giPoint2(50 + 10 * std::cos(i * 0.5), -20 + 10 * std::sin(i * 0.5)));
  doublecoDynArr radii = constant(12, 1.0);
  giPoint2 c;
  double r, rms;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_probed_circle(centres, radii, 1, c, r, rms), 1);
  EXPECT_NEAR(r, 11.0, 1e-10);
  EXPECT_LT(c.distance(giPoint2(50, -20)), 1e-10);
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_probed_circle(centres, radii, 0, c, r, rms), 1);
  EXPECT_NEAR(r, 9.0, 1e-10);
  EXPECT_LT(rms, 1e-10);
}

TEST(ProbedFits, ZeroRadiiReproduceThePlainFits) {
  Rng rng(61);
  giPoint2coDynArr arc = sample_circle2(rng, giPoint2(3, 4), 6, 0.2, 4.0, 60, 1e-3);
  giPoint2 c1, c2;
  double r1, r2, e1, e2;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_circle(arc, c1, r1, e1), 1);
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_probed_circle(arc, constant(60, 0.0), 1, c2, r2, e2), 1);
  EXPECT_LT(c1.distance(c2), 1e-12);
  EXPECT_NEAR(r1, r2, 1e-12);

  giPoint3coDynArr cap = sample_sphere(rng, giPoint3(7, 8, 9), 4, giUnitVec3(0, 1, 0), 1.0, 80, 1e-3);
  giPoint3 s1, s2;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_sphere(cap, s1, r1, e1), 1);
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_probed_sphere(cap, constant(80, 0.0), 0, s2, r2, e2), 1);
  EXPECT_LT(s1.distance(s2), 1e-10);
  EXPECT_NEAR(r1, r2, 1e-10);

  giPoint3coDynArr face = sample_plane(rng, giPoint3(1, 2, 3), giUnitVec3(1, 1, 4), 20, 10, 50, 1e-3);
  giUnitVec3coDynArr up = constant(50, giUnitVec3(1, 1, 4));
  giPoint3 p1, p2;
  giUnitVec3 n1, n2;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_plane(face, p1, n1, e1), 1);
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_probed_plane(face, constant(50, 0.0), up, p2, n2, e2), 1);
  EXPECT_LT(line_angle(n1, n2), 1e-12);
  EXPECT_NEAR(giPlane(p1, n1).distance(p2), 0.0, 1e-12);
  EXPECT_NEAR(e1, e2, 1e-14);
}

TEST(ProbedFits, SpheresTouchedFromOutsideAndInside) {
  Rng rng(62);
  const giPoint3 centre(-100, 250, 40);
  const double radius = 12.0, ball = 1.5;
  giPoint3coDynArr surface = sample_sphere(rng, centre, radius, giUnitVec3(0, 0, 1), 1.8, 100, 0.0);
  for (int inside : {0, 1}) {
    giPoint3coDynArr balls(100, 16);
    for (giPoint3 const& q : surface) balls.append(q + (q - centre).unit() * (inside ? -ball : ball));
    giPoint3 c;
    double r, rms;
    ASSERT_EQ(gfLeastSquareEvaluator::evaluate_probed_sphere(balls, constant(100, ball), inside, c, r, rms), 1);
    EXPECT_NEAR(r, radius, 1e-9 * radius) << inside;
    EXPECT_LT(c.distance(centre), 1e-9 * radius) << inside;
  }
}

TEST(ProbedFits, PlanesAndLinesFollowTheApproximateNormals) {
  // Ball centres 2 above the face z = 5: with normals up the surface is at z = 5, normal up.
  giPoint3coDynArr centres{giPoint3(0, 0, 7), giPoint3(10, 0, 7), giPoint3(0, 10, 7), giPoint3(10, 10, 7)};
  doublecoDynArr radii = constant(4, 2.0);
  giUnitVec3coDynArr up = constant(4, giUnitVec3(0, 0.1, 1)), down = constant(4, giUnitVec3(0, 0, -1));
  giUnitVec3coDynArr cancelling{giUnitVec3(0, 0, -1), giUnitVec3(0, 0, 1), giUnitVec3(0, 0, -1), giUnitVec3(0, 0, 1)};
  giPoint3 p;
  giUnitVec3 n;
  double rms;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_probed_plane(centres, radii, up, p, n, rms), 1);
  EXPECT_NEAR(n.z(), 1.0, 1e-14);
  EXPECT_NEAR(p.z(), 5.0, 1e-12);
  // Normals the other way: the same centres seen from below, the surface at z = 9.
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_probed_plane(centres, radii, down, p, n, rms), 1);
  EXPECT_NEAR(n.z(), -1.0, 1e-14);
  EXPECT_NEAR(p.z(), 9.0, 1e-12);
  // Normals that cancel: both sides fit exactly, the first tried is kept.
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_probed_plane(centres, radii, cancelling, p, n, rms), 1);
  EXPECT_LT(rms, 1e-12);
  EXPECT_NEAR(std::fabs(p.z() - 7.0), 2.0, 1e-12);

  // The line y = 3 probed from above (y = 4 with ball 1): its normal is returned.
  giPoint2coDynArr line_centres{giPoint2(0, 4), giPoint2(5, 4), giPoint2(9, 4)};
  giUnitVec2coDynArr above{giUnitVec2(0, 1), giUnitVec2(0.1, 1), giUnitVec2(0, 1)};
  giPoint2 q;
  giUnitVec2 normal;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_probed_line2(line_centres, constant(3, 1.0), above, q, normal, rms), 1);
  EXPECT_NEAR(normal.y(), 1.0, 1e-14);
  EXPECT_NEAR(q.y(), 3.0, 1e-12);
}

TEST(ProbedFits, RefusalsForShortOrBadArrays) {
  giPoint3coDynArr four{giPoint3(1, 0, 0), giPoint3(0, 1, 0), giPoint3(0, 0, 1), giPoint3(-1, 0, 0)};
  giPoint3 c(9, 9, 9);
  double r = -1, rms = -1;
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_probed_sphere(four, constant(3, 0.5), 0, c, r, rms), 0);
  doublecoDynArr with_nan = constant(4, 0.5);
  with_nan[1] = NAN;
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_probed_sphere(four, with_nan, 0, c, r, rms), 0);
  giUnitVec3coDynArr two_normals{giUnitVec3(0, 0, 1), giUnitVec3(0, 0, 1)};
  giUnitVec3 n;
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_probed_plane(four, constant(4, 0.5), two_normals, c, n, rms), 0);
  EXPECT_EQ(c.x(), 9.0);
  giPoint2coDynArr two{giPoint2(0, 0), giPoint2(1, 1)};
  giPoint2 c2(9, 9);
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_probed_circle(two, constant(2, 0.5), 1, c2, r, rms), 0);
  EXPECT_EQ(c2.x(), 9.0);
}

TEST(ProbedProblems, GradientsMatchCentralDifferences) {
  Rng rng(63);
  giPoint2coDynArr flat = sample_circle2(rng, giPoint2(1, 2), 3, 0, 6, 20, 0.1);
  doublecoDynArr radii(20, 16);
  for (int i = 0; i < 20; ++i) radii.append(rng.uniform(0.1, 0.5));
  gfLeastSquareProbedCircle2 circle(flat, radii, 1);
  EXPECT_LT(gradient_error(circle, mlVector{1.2, 1.8, 2.5}), 1e-7);
  gfLeastSquareProbedLine2 line(flat, radii, 0);
  giUnitVec2 n2(0.6, 0.8);
  EXPECT_LT(gradient_error(line, mlVector{1.0, n2.x(), n2.y()}), 1e-7);
  giPoint3coDynArr round = sample_sphere(rng, giPoint3(1, 2, 3), 4, giUnitVec3(0, 0, 1), 3, 20, 0.1);
  gfLeastSquareProbedSphere sphere(round, radii, 0);
  EXPECT_LT(gradient_error(sphere, mlVector{1.1, 2.1, 2.9, 3.5}), 1e-7);
  gfLeastSquareProbedPlane plane(round, radii, 1);
  giUnitVec3 n3(1, 2, 2);
  EXPECT_LT(gradient_error(plane, mlVector{0.5, n3.x(), n3.y(), n3.z()}), 1e-7);
}

TEST(ProbedProblems, EllipseClosestPointAndNormal) {
  giPoint2coDynArr pts{giPoint2(10, 2), giPoint2(1, 6)};
  gfLeastSquareProbedEllipse e(pts);
  e.set_parameters(mlVector{5, 3, 1, 2, giPi / 2});  // a-axis along +y, centred at (1, 2)
  double d;
  giPoint2 closest;
  giVector2 normal;
  e.get_distance_and_closest_point(d, closest, normal, 0);  // beyond the b-vertex at (4, 2)
  EXPECT_NEAR(d, 6.0, 1e-12);
  EXPECT_NEAR(closest.distance(giPoint2(-2, 2)) * closest.distance(giPoint2(4, 2)), 0.0, 1e-10);
  EXPECT_NEAR(closest.x(), 4.0, 1e-12);
  EXPECT_NEAR(normal.x(), 1.0, 1e-12);
  e.get_distance_and_closest_point(d, closest, normal, 1);  // beyond the a-vertex at (1, 7)
  EXPECT_NEAR(d, -1.0, 1e-12);
  EXPECT_NEAR(closest.y(), 7.0, 1e-12);
  EXPECT_NEAR(normal.y(), 1.0, 1e-12);
}

}  // namespace
