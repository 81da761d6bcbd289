#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "gfit/gfit.h"
#include "test/support/checks.h"
#include "test/support/derivative_check.h"
#include "test/support/reference_data.h"
#include "test/support/samplers.h"

namespace {

using namespace gfit::testing;

// A fitted sphere or circle; the normal of the circle's plane in space.
template <class Point>
struct Round {
  Point centre;
  giUnitVec3 normal;
  double radius = -1, rms = -1;
};
using Round3 = Round<giPoint3>;
using Round2 = Round<giPoint2>;

int sphere(giPoint3coDynArr const& p, Round3& f) {
  return gfLeastSquareEvaluator::evaluate_sphere(p, f.centre, f.radius, f.rms);
}
int circle(giPoint2coDynArr const& p, Round2& f) {
  return gfLeastSquareEvaluator::evaluate_circle(p, f.centre, f.radius, f.rms);
}
int circle3(giPoint3coDynArr const& p, Round3& f) {
  return gfLeastSquareEvaluator::evaluate_circle3(p, f.centre, f.normal, f.radius, f.rms);
}
// The circle in the plane (point, normal).
int circle_in(giPoint3 const& point, giUnitVec3 const& normal, giPoint3coDynArr const& p, Round3& f) {
  return gfLeastSquareEvaluator::evaluate_circle2(point, normal, p, f.centre, f.radius, f.rms);
}

// ---- certified answers ------------------------------------------------------------------

TEST(SphereCircleConformance, NistSpheres) {
  for_each_reference_set("Sphere", 30, [](ReferenceSet const& set) {
    Round3 f;
    ASSERT_EQ(sphere(set.points, f), 1);
    EXPECT_NEAR(2 * f.radius, set.certified[3], 1e-9);  // measured: 5e-11 at worst
    EXPECT_LT(f.centre.distance(set.certified_point()), 1e-9);
  });
}

TEST(SphereCircleConformance, NistCirclesInSpace) {
  // The reference's own definition: the least-squares plane, then the circle in it.
  for_each_reference_set("Circle3d", 4, [](ReferenceSet const& set) {
    giPoint3 plane_point;
    Round3 f;
    ASSERT_EQ(gfLeastSquareEvaluator::evaluate_plane(set.points, plane_point, f.normal, f.rms), 1);
    ASSERT_EQ(circle_in(plane_point, f.normal, set.points, f), 1);
    EXPECT_NEAR(2 * f.radius, set.certified[6], 1e-8);
    EXPECT_LT(f.centre.distance(set.certified_point()), 1e-8);
    EXPECT_LT(line_angle(f.normal, set.certified_vector()), 1e-8);
  });
}

// ---- recovery ---------------------------------------------------------------------------

TEST(SphereCircleRecovery, SpheresFarFromTheOriginNoisyCapsAndExact) {
  Rng rng(31);
  const double noise = 1e-3;
  for (int trial = 0; trial < 10; ++trial) {
    giPoint3 centre = rng.point_in_box(1000);
    double radius = rng.uniform(2, 50);
    // A cap of 60 degrees half-angle: the centre is the worst-determined quantity, known to
    // about noise / sqrt(n) / (1 - cos 60) ~ 2e-4 per coordinate; allow 5e-3.
    Round3 f;
    ASSERT_EQ(sphere(sample_sphere(rng, centre, radius, rng.direction(), giPi / 3, 400, noise), f), 1);
    EXPECT_LT(f.centre.distance(centre), 5e-3);
    EXPECT_NEAR(f.radius, radius, 5e-3);
    EXPECT_NEAR(f.rms, noise, 2e-4);
  }
  // Exact points of a 10 mm sphere at a metre keep their digits.
  Rng exact_rng(32);
  giPoint3 centre(1000.0, -1000.0, 1000.0);
  Round3 f;
  ASSERT_EQ(sphere(sample_sphere(exact_rng, centre, 10.0, giUnitVec3(0, 0, 1), giPi, 200, 0.0), f), 1);
  EXPECT_LT(f.centre.distance(centre), 1e-11);
  EXPECT_NEAR(f.radius, 10.0, 1e-11);
  EXPECT_LT(f.rms, 1e-12);
}

TEST(SphereCircleRecovery, CirclesInThePlaneOnShortArcs) {
  Rng rng(33);
  const double noise = 1e-3;
  for (double span : {2 * giPi, giPi, giPi / 2}) {
    giPoint2 centre(rng.uniform(-500, 500), rng.uniform(-500, 500));
    Round2 f;
    ASSERT_EQ(circle(sample_circle2(rng, centre, 20.0, rng.uniform(0, 6), span, 300, noise), f), 1);
    // A quarter arc determines the centre to about 10 * noise / sqrt(n); allow 3e-3.
    EXPECT_LT(f.centre.distance(centre), 3e-3) << span;
    EXPECT_NEAR(f.radius, 20.0, 3e-3) << span;
    EXPECT_NEAR(f.rms, noise, 2e-4) << span;
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
      double t = rng.uniform(0, 1.5 * giPi);
      pts.append(centre + e1 * (15 * std::cos(t)) + e2 * (15 * std::sin(t)) + normal * (1e-3 * rng.normal()) +
                 e1 * (1e-3 * rng.normal()));
    }
    Round3 f;
    ASSERT_EQ(circle3(pts, f), 1);
    EXPECT_LT(f.centre.distance(centre), 2e-3);
    EXPECT_LT(line_angle(f.normal, normal), 2e-4);
    EXPECT_NEAR(f.radius, 15.0, 2e-3);
  }
}

// ---- the problem classes ----------------------------------------------------------------

TEST(SphereCircleProblems, GradientsMatchCentralDifferences) {
  Rng rng(35);
  giPoint2coDynArr flat = sample_circle2(rng, giPoint2(1, 2), 3, 0, 6, 20, 0.1);
  giPoint3coDynArr round = sample_sphere(rng, giPoint3(1, 2, 3), 4, giUnitVec3(0, 0, 1), 3, 20, 0.1);
  gfLeastSquareCircle2 circle(flat);
  gfLeastSquareSphere sphere(round);
  gfLeastSquareCircle3 ring(round);
  EXPECT_LT(gradient_error(circle, mlVector{1.2, 1.8, 2.5}), 1e-7);
  EXPECT_LT(gradient_error(sphere, mlVector{1.1, 2.1, 2.9, 3.5}), 1e-7);
  EXPECT_LT(gradient_error(ring, mlVector{1.1, 2.1, 2.9, 0.6, 0, 0.8, 3.5}), 1e-7);
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
  EXPECT_EQ(bits(g), (Bits{0, 0, 0, 0, 0, 0, -1}));
  ring.get_distance(d, 2);  // above the centre by 4, radial error 3
  EXPECT_DOUBLE_EQ(d, 5.0);
  mlVector zero_normal{1, 2, 3, 0, 0, 0, 5}, scales;
  ring.normalize_parameters(zero_normal);
  EXPECT_EQ(zero_normal[3], 1.0);
  EXPECT_EQ(zero_normal[6], 5.0);
  EXPECT_EQ(ring.n_independent_parameters(), 6);
  ring.set_parameters(mlVector{0, 0, 0, 0, 0, 1, 7});
  ring.parameter_scales(scales);
  EXPECT_EQ(scales[4], 7.0);
  EXPECT_EQ(scales[6], 1.0);
  EXPECT_DOUBLE_EQ(gfLeastSquareSphere(pts).evaluate_radius(giPoint3(0, 0, 0)), 5.0 / std::sqrt(3.0));
}

// ---- entries: edges and refusals --------------------------------------------------------

TEST(SphereCircleEdges, CountsAndNonFiniteInputAreRefused) {
  giPoint3coDynArr three{giPoint3(1, 0, 0), giPoint3(0, 1, 0), giPoint3(0, 0, 1)};
  giPoint3coDynArr four{giPoint3(1, 0, 0), giPoint3(0, 1, 0), giPoint3(0, 0, 1), giPoint3(-1, 0, 0)}, with_nan = four;
  with_nan[2] = giPoint3(0, NAN, 1);
  Round3 f;
  f.centre = giPoint3(9, 9, 9);
  EXPECT_EQ(sphere(three, f), 0);
  EXPECT_EQ(sphere(with_nan, f), 0);
  EXPECT_EQ(circle3(with_nan, f), 0);
  EXPECT_EQ(circle_in(giPoint3(0, 0, 0), giUnitVec3(), four, f), 0);  // no plane normal
  EXPECT_EQ(f.centre.x(), 9.0);
  ASSERT_EQ(sphere(four, f), 1);
  EXPECT_NEAR(f.radius, 1.0, 1e-12);
  Round2 g;
  g.centre = giPoint2(9, 9);
  EXPECT_EQ(circle(giPoint2coDynArr{giPoint2(0, 0), giPoint2(1, 1)}, g), 0);
  EXPECT_EQ(g.centre.x(), 9.0);
}

TEST(SphereCircleEdges, CircleInAGivenPlaneCountsHeightsInItsResidual) {
  giPoint3coDynArr pts;
  for (int i = 0; i < 8; ++i) pts.append(giPoint3(5 * std::cos(i * giPi / 4), 5 * std::sin(i * giPi / 4), 0.0));
  Round3 f;
  ASSERT_EQ(circle_in(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), pts, f), 1);
  EXPECT_LT(f.rms, 1e-14);
  pts[3] = giPoint3(pts[3].x(), pts[3].y(), 0.8);  // lifted off the plane
  ASSERT_EQ(circle_in(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), pts, f), 1);
  EXPECT_NEAR(f.radius, 5.0, 1e-14);  // the in-plane circle is unchanged
  EXPECT_NEAR(f.rms, std::sqrt(0.64 / 8), 1e-14);
}

TEST(SphereCircleEdges, DenseCirclesInSpaceAreThinnedByFixedRules) {
  // Points 0..9999 on a circle of radius 5, the rest on one of radius 7 in the same plane:
  // the fit sees only the first circle exactly when it keeps the first 10000 points.
  for (int n : {10000, 10001, 11999, 12000}) {
    giPoint3coDynArr pts(n, 16);
    for (int i = 0; i < n; ++i) {
      double r = i < 10000 ? 5.0 : 7.0, t = i * 0.01;
      pts.append(giPoint3(100 + r * std::cos(t), 200 + r * std::sin(t), 300.0));
    }
    Round3 f;
    ASSERT_EQ(circle3(pts, f), 1) << n;
    if (n < 12000) {
      EXPECT_NEAR(f.radius, 5.0, 1e-9) << n;
      EXPECT_LT(f.rms, 1e-9) << n;
    } else {
      EXPECT_GT(f.radius, 5.05) << n;  // 1 in 6 of the evenly spread samples lies on the outer ring
      EXPECT_GT(f.rms, 0.1) << n;
    }
  }
}

TEST(SphereCircleEdges, SameInputSameBits) {
  Rng rng(36);
  giPoint3coDynArr pts = sample_sphere(rng, giPoint3(3, 4, 5), 2, giUnitVec3(1, 0, 0), 0.4, 300, 0.05);
  auto bits = [&pts] {
    Round3 f;
    sphere(pts, f);
    return Bits{f.centre.x(), f.centre.y(), f.centre.z(), f.radius, f.rms};
  };
  EXPECT_EQ(bits(), bits());
}

}  // namespace
