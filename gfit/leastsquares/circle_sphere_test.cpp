#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "gfit/gfit.h"
#include "test/support/derivative_check.h"
#include "test/support/reference_data.h"
#include "test/support/samplers.h"

namespace {

using gfit::testing::line_angle;
using gfit::testing::Rng;

// ---- certified answers ------------------------------------------------------------------

TEST(SphereCircleConformance, NistSpheres) {
  auto names = gfit::testing::reference_sets("Sphere");
  ASSERT_EQ(names.size(), 30u);
  for (auto const& name : names) {
    auto set = gfit::testing::load_reference_set("Sphere", name);
    giPoint3 centre;
    double radius = 0, residual = 0;
    ASSERT_EQ(gfLeastSquareEvaluator::evaluate_sphere(set.points, centre, radius, residual), 1) << name;
    giPoint3 certified(set.certified[0], set.certified[1], set.certified[2]);
    EXPECT_NEAR(2 * radius, set.certified[3], 1e-9) << name;  // measured: 5e-11 at worst
    EXPECT_LT(centre.distance(certified), 1e-9) << name;
  }
}

TEST(SphereCircleConformance, NistCirclesInSpace) {
  // The reference's own definition: the least-squares plane, then the circle in it.
  for (auto const& name : gfit::testing::reference_sets("Circle3d")) {
    auto set = gfit::testing::load_reference_set("Circle3d", name);
    giPoint3 plane_point, centre;
    giUnitVec3 normal;
    double rms = 0, radius = 0;
    ASSERT_EQ(gfLeastSquareEvaluator::evaluate_plane(set.points, plane_point, normal, rms), 1) << name;
    ASSERT_EQ(gfLeastSquareEvaluator::evaluate_circle2(plane_point, normal, set.points, centre, radius, rms), 1)
        << name;
    EXPECT_NEAR(2 * radius, set.certified[6], 1e-8) << name;
    EXPECT_LT(centre.distance(giPoint3(set.certified[0], set.certified[1], set.certified[2])), 1e-8) << name;
    EXPECT_LT(line_angle(normal, giVector3(set.certified[3], set.certified[4], set.certified[5])), 1e-8) << name;
  }
}

// ---- recovery ---------------------------------------------------------------------------

TEST(SphereCircleRecovery, SpheresFarFromTheOriginWithPartialCoverage) {
  Rng rng(31);
  for (int trial = 0; trial < 10; ++trial) {
    giPoint3 centre = rng.point_in_box(1000);
    double radius = rng.uniform(2, 50);
    const double noise = 1e-3;
    // A cap of 60 degrees half-angle: the centre is the worst-determined quantity, known to
    // about noise / sqrt(n) / (1 - cos 60) ~ 2e-4 per coordinate; allow 5e-3.
    giPoint3coDynArr pts = gfit::testing::sample_sphere(rng, centre, radius, rng.direction(), M_PI / 3, 400, noise);
    giPoint3 c;
    double r, rms;
    ASSERT_EQ(gfLeastSquareEvaluator::evaluate_sphere(pts, c, r, rms), 1);
    EXPECT_LT(c.distance(centre), 5e-3);
    EXPECT_NEAR(r, radius, 5e-3);
    EXPECT_NEAR(rms, noise, 2e-4);
  }
}

TEST(SphereCircleRecovery, ExactSphereTenMillimetresAtOneMetre) {
  Rng rng(32);
  giPoint3 centre(1000.0, -1000.0, 1000.0);
  giPoint3coDynArr pts = gfit::testing::sample_sphere(rng, centre, 10.0, giUnitVec3(0, 0, 1), M_PI, 200, 0.0);
  giPoint3 c;
  double r, rms;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_sphere(pts, c, r, rms), 1);
  EXPECT_LT(c.distance(centre), 1e-11);
  EXPECT_NEAR(r, 10.0, 1e-11);
  EXPECT_LT(rms, 1e-12);
}

TEST(SphereCircleRecovery, CirclesInThePlaneOnShortArcs) {
  Rng rng(33);
  for (double span : {2 * M_PI, M_PI, M_PI / 2}) {
    giPoint2 centre(rng.uniform(-500, 500), rng.uniform(-500, 500));
    const double noise = 1e-3;
    giPoint2coDynArr pts = gfit::testing::sample_circle2(rng, centre, 20.0, rng.uniform(0, 6), span, 300, noise);
    giPoint2 c;
    double r, rms;
    ASSERT_EQ(gfLeastSquareEvaluator::evaluate_circle(pts, c, r, rms), 1);
    // A quarter arc determines the centre to about 10 * noise / sqrt(n); allow 3e-3.
    EXPECT_LT(c.distance(centre), 3e-3) << span;
    EXPECT_NEAR(r, 20.0, 3e-3) << span;
    EXPECT_NEAR(rms, noise, 2e-4) << span;
  }
}

TEST(SphereCircleRecovery, CircleInSpaceWithItsOwnPlane) {
  Rng rng(34);
  for (int trial = 0; trial < 5; ++trial) {
    giPoint3 centre = rng.point_in_box(800);
    giUnitVec3 normal = rng.direction();
    giUnitVec3 e1 = normal.any_normal(), e2(normal.cross(e1));
    giPoint3coDynArr pts;
    for (int i = 0; i < 200; ++i) {
      double t = rng.uniform(0, 1.5 * M_PI);
      pts.append(centre + e1 * (15 * std::cos(t)) + e2 * (15 * std::sin(t)) + normal * (1e-3 * rng.normal()) +
                 e1 * (1e-3 * rng.normal()));
    }
    giPoint3 c;
    giUnitVec3 n;
    double r, rms;
    ASSERT_EQ(gfLeastSquareEvaluator::evaluate_circle3(pts, c, n, r, rms), 1);
    EXPECT_LT(c.distance(centre), 2e-3);
    EXPECT_LT(line_angle(n, normal), 2e-4);
    EXPECT_NEAR(r, 15.0, 2e-3);
  }
}

// ---- the problem classes ----------------------------------------------------------------

TEST(SphereCircleProblems, GradientsMatchCentralDifferences) {
  Rng rng(35);
  giPoint2coDynArr flat = gfit::testing::sample_circle2(rng, giPoint2(1, 2), 3, 0, 6, 20, 0.1);
  gfLeastSquareCircle2 circle(flat);
  EXPECT_LT(gfit::testing::gradient_error(circle, mlVector{1.2, 1.8, 2.5}), 1e-7);
  giPoint3coDynArr round = gfit::testing::sample_sphere(rng, giPoint3(1, 2, 3), 4, giUnitVec3(0, 0, 1), 3, 20, 0.1);
  gfLeastSquareSphere sphere(round);
  EXPECT_LT(gfit::testing::gradient_error(sphere, mlVector{1.1, 2.1, 2.9, 3.5}), 1e-7);
  gfLeastSquareCircle3 ring(round);
  EXPECT_LT(gfit::testing::gradient_error(ring, mlVector{1.1, 2.1, 2.9, 0.6, 0, 0.8, 3.5}), 1e-7);
}

TEST(SphereCircleProblems, CircleInSpaceDistancesAndNormalisation) {
  giPoint3coDynArr pts{giPoint3(0, 0, 0), giPoint3(3, 0, 0), giPoint3(0, 0, 4)};
  gfLeastSquareCircle3 ring(pts);
  ring.set_parameters(mlVector{0, 0, 0, 0, 0, 1, 3});
  double d = 0;
  ring.get_distance(d, 0);  // the centre is r away from the circle
  EXPECT_DOUBLE_EQ(d, 3.0);
  EXPECT_DOUBLE_EQ(ring.get_last_square_distance(), 9.0);
  mlVector g(7);
  ring.get_distance_and_gradient(d, g, 1);  // on the circle: (0, ..., 0, -1)
  EXPECT_EQ(d, 0.0);
  for (int k = 0; k < 6; ++k) EXPECT_EQ(g[k], 0.0);
  EXPECT_EQ(g[6], -1.0);
  ring.get_distance(d, 2);  // above the centre by 4, radial error 3
  EXPECT_DOUBLE_EQ(d, 5.0);
  mlVector zero_normal{1, 2, 3, 0, 0, 0, 5};
  ring.normalize_parameters(zero_normal);
  EXPECT_EQ(zero_normal[3], 1.0);
  EXPECT_EQ(zero_normal[6], 5.0);
  EXPECT_EQ(ring.n_independent_parameters(), 6);
  mlVector scales;
  ring.set_parameters(mlVector{0, 0, 0, 0, 0, 1, 7});
  ring.parameter_scales(scales);
  EXPECT_EQ(scales[4], 7.0);
  EXPECT_EQ(scales[6], 1.0);
  gfLeastSquareSphere sphere(pts);
  EXPECT_DOUBLE_EQ(sphere.evaluate_radius(giPoint3(0, 0, 0)), 5.0 / std::sqrt(3.0));
}

// ---- entries: edges and refusals --------------------------------------------------------

TEST(SphereCircleEdges, CountsAndNonFiniteInputAreRefused) {
  giPoint3coDynArr three{giPoint3(1, 0, 0), giPoint3(0, 1, 0), giPoint3(0, 0, 1)};
  giPoint3coDynArr four{giPoint3(1, 0, 0), giPoint3(0, 1, 0), giPoint3(0, 0, 1), giPoint3(-1, 0, 0)};
  giPoint3 c(9, 9, 9);
  double r = -1, rms = -1;
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_sphere(three, c, r, rms), 0);
  EXPECT_EQ(c.x(), 9.0);
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_sphere(four, c, r, rms), 1);
  EXPECT_NEAR(r, 1.0, 1e-12);
  giPoint3coDynArr with_nan = four;
  with_nan[2] = giPoint3(0, NAN, 1);
  c = giPoint3(9, 9, 9);
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_sphere(with_nan, c, r, rms), 0);
  giUnitVec3 normal;
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_circle3(with_nan, c, normal, r, rms), 0);
  EXPECT_EQ(c.x(), 9.0);
  giPoint2coDynArr two{giPoint2(0, 0), giPoint2(1, 1)};
  giPoint2 c2(9, 9);
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_circle(two, c2, r, rms), 0);
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_circle2(giPoint3(0, 0, 0), giUnitVec3(), four, c, r, rms), 0);
  EXPECT_EQ(c2.x(), 9.0);
}

TEST(SphereCircleEdges, CircleInAGivenPlaneCountsHeightsInItsResidual) {
  giPoint3coDynArr pts;
  for (int i = 0; i < 8; ++i) pts.append(giPoint3(5 * std::cos(i * M_PI / 4), 5 * std::sin(i * M_PI / 4), 0.0));
  giPoint3 c;
  double r, rms;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_circle2(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), pts, c, r, rms), 1);
  EXPECT_LT(rms, 1e-14);
  pts[3] = giPoint3(pts[3].x(), pts[3].y(), 0.8);  // lifted off the plane
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_circle2(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), pts, c, r, rms), 1);
  EXPECT_NEAR(r, 5.0, 1e-14);  // the in-plane circle is unchanged
  EXPECT_NEAR(rms, std::sqrt(0.64 / 8), 1e-14);
}

TEST(SphereCircleEdges, DenseCirclesInSpaceAreThinnedByFixedRules) {
  // Points 0..9999 on a circle of radius 5, the rest on one of radius 7 in the same plane:
  // the fit sees only the first circle exactly when it keeps the first 10000 points.
  auto ring_points = [](int n) {
    giPoint3coDynArr pts(n, 16);
    for (int i = 0; i < n; ++i) {
      double r = i < 10000 ? 5.0 : 7.0, t = i * 0.01;
      pts.append(giPoint3(100 + r * std::cos(t), 200 + r * std::sin(t), 300.0));
    }
    return pts;
  };
  for (int n : {10000, 10001, 11999, 12000}) {
    giPoint3coDynArr pts = ring_points(n);
    giPoint3 c;
    giUnitVec3 normal;
    double r, rms;
    ASSERT_EQ(gfLeastSquareEvaluator::evaluate_circle3(pts, c, normal, r, rms), 1) << n;
    if (n < 12000) {
      EXPECT_NEAR(r, 5.0, 1e-9) << n;
      EXPECT_LT(rms, 1e-9) << n;
    } else {
      EXPECT_GT(r, 5.05) << n;  // 1 in 6 of the evenly spread samples lies on the outer ring
      EXPECT_GT(rms, 0.1) << n;
    }
  }
}

TEST(SphereCircleEdges, SameInputSameBits) {
  Rng rng(36);
  giPoint3coDynArr pts = gfit::testing::sample_sphere(rng, giPoint3(3, 4, 5), 2, giUnitVec3(1, 0, 0), 0.4, 300, 0.05);
  giPoint3 c1, c2;
  double r1, r2, e1, e2;
  gfLeastSquareEvaluator::evaluate_sphere(pts, c1, r1, e1);
  gfLeastSquareEvaluator::evaluate_sphere(pts, c2, r2, e2);
  EXPECT_EQ(c1, c2);
  EXPECT_EQ(r1, r2);
  EXPECT_EQ(e1, e2);
}

}  // namespace
