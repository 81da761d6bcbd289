#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "gfit/gfit.h"
#include "test/support/reference_data.h"
#include "test/support/samplers.h"

namespace {

using gfit::testing::line_angle;
using gfit::testing::Rng;

// ---- certified answers ------------------------------------------------------------------

TEST(LinePlaneConformance, NistPlanes) {
  auto names = gfit::testing::reference_sets("Plane");
  ASSERT_EQ(names.size(), 30u);
  for (auto const& name : names) {
    auto set = gfit::testing::load_reference_set("Plane", name);
    giPoint3 point;
    giUnitVec3 normal;
    double residual = -1;
    ASSERT_EQ(gfLeastSquareEvaluator::evaluate_plane(set.points, point, normal, residual), 1) << name;
    giPoint3 certified_point(set.certified[0], set.certified[1], set.certified[2]);
    giVector3 certified_normal(set.certified[3], set.certified[4], set.certified[5]);
    EXPECT_LT(line_angle(normal, certified_normal), 1e-10) << name;
    EXPECT_LT(std::fabs(giPlane(point, normal).distance(certified_point)), 1e-10) << name;
  }
}

TEST(LinePlaneConformance, NistLinesInSpace) {
  for (auto const& name : gfit::testing::reference_sets("Line3d")) {
    auto set = gfit::testing::load_reference_set("Line3d", name);
    giPoint3 point;
    giUnitVec3 direction;
    double residual = -1;
    ASSERT_EQ(gfLeastSquareEvaluator::evaluate_line3(set.points, point, direction, residual), 1) << name;
    giPoint3 certified_point(set.certified[0], set.certified[1], set.certified[2]);
    giVector3 certified_direction(set.certified[3], set.certified[4], set.certified[5]);
    EXPECT_LT(line_angle(direction, certified_direction), 1e-10) << name;
    EXPECT_LT(giInfLine3(point, direction).distance_of_point(certified_point), 1e-10) << name;
  }
}

TEST(LinePlaneConformance, NistLinesInThePlane) {
  // The 2-D sets lie in a plane parallel to a coordinate plane: fit in the other two axes.
  for (auto const& name : gfit::testing::reference_sets("Line2d")) {
    auto set = gfit::testing::load_reference_set("Line2d", name);
    int constant = -1;
    for (int axis = 0; axis < 3 && constant < 0; ++axis) {
      bool same = true;
      for (giPoint3 const& p : set.points) same = same && p[axis] == set.points[0][axis];
      if (same) constant = axis;
    }
    ASSERT_GE(constant, 0) << name;
    const int a = constant == 0 ? 1 : 0, b = constant == 2 ? 1 : 2;
    giPoint2coDynArr flat;
    for (giPoint3 const& p : set.points) flat.append(giPoint2(p[a], p[b]));
    giPoint2 point;
    giUnitVec2 direction;
    double residual = -1;
    ASSERT_EQ(gfLeastSquareEvaluator::evaluate_line(flat, point, direction, residual), 1) << name;
    giVector2 certified_direction(set.certified[3 + a], set.certified[3 + b]);
    giPoint2 certified_point(set.certified[a], set.certified[b]);
    EXPECT_LT(line_angle(direction, certified_direction), 1e-10) << name;
    EXPECT_LT(giInfLine2(point, direction).distance_of_point(certified_point), 1e-10) << name;
  }
}

// ---- recovery from sampled elements -----------------------------------------------------

TEST(LinePlaneRecovery, NoisyPlanesAnywhere) {
  Rng rng(21);
  for (int trial = 0; trial < 20; ++trial) {
    giPoint3 origin = rng.point_in_box(2000);  // up to 2 m from the origin
    giUnitVec3 normal = rng.direction();
    const double noise = 1e-3, half = 50.0;
    const int n = 2000;
    giPoint3coDynArr pts = gfit::testing::sample_plane(rng, origin, normal, half, 0.2 * half, n, noise);
    giPoint3 point;
    giUnitVec3 fitted;
    double residual;
    ASSERT_EQ(gfLeastSquareEvaluator::evaluate_plane(pts, point, fitted, residual), 1);
    // Tilt about the long side: sigma = noise / (rms half-width * sqrt(n))
    // = 1e-3 / (10 / sqrt(3) * sqrt(2000)) = 3.9e-6; allow five sigma.
    EXPECT_LT(line_angle(fitted, normal), 2e-5);
    EXPECT_LT(std::fabs(giPlane(point, fitted).distance(origin)), 1e-4);
    EXPECT_NEAR(residual, noise, 0.1 * noise);
  }
}

TEST(LinePlaneRecovery, NoisyLinesAnywhere) {
  Rng rng(22);
  for (int trial = 0; trial < 20; ++trial) {
    giPoint3 origin = rng.point_in_box(2000);
    giUnitVec3 direction = rng.direction();
    giPoint3coDynArr pts = gfit::testing::sample_line3(rng, origin, direction, 100.0, 1000, 1e-3);
    giPoint3 point;
    giUnitVec3 fitted;
    double residual;
    ASSERT_EQ(gfLeastSquareEvaluator::evaluate_line3(pts, point, fitted, residual), 1);
    EXPECT_LT(line_angle(fitted, direction), 2e-6);
    EXPECT_LT(giInfLine3(point, fitted).distance_of_point(origin), 2e-4);
    EXPECT_NEAR(residual, std::sqrt(2.0) * 1e-3, 1e-4);  // two noisy directions across the line
  }
}

TEST(LinePlaneRecovery, ExactDataFarFromTheOrigin) {
  // A 10 mm strip at 1000 mm: the centred decomposition keeps the digits.
  giPoint3 origin(1000.0, -1000.0, 1000.0);
  giUnitVec3 normal(0.3, -0.4, 0.5);
  Rng rng(23);
  giPoint3coDynArr pts = gfit::testing::sample_plane(rng, origin, normal, 10.0, 0.5, 500, 0.0);
  giPoint3 point;
  giUnitVec3 fitted;
  double residual;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_plane(pts, point, fitted, residual), 1);
  EXPECT_LT(line_angle(fitted, normal), 1e-13);
  EXPECT_LT(residual, 1e-12);
}

// ---- degenerate inputs and refusals -----------------------------------------------------

TEST(LinePlaneEdges, TwoPointsMakeALine) {
  giPoint3coDynArr two{giPoint3(1, 1, 1), giPoint3(4, 5, 1)};
  giPoint3 point;
  giUnitVec3 direction;
  double residual = -1;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_line3(two, point, direction, residual), 1);
  EXPECT_LT(line_angle(direction, giVector3(3, 4, 0)), 1e-15);
  EXPECT_EQ(residual, 0.0);
  EXPECT_DOUBLE_EQ(point.x(), 2.5);

  giPoint2coDynArr flat{giPoint2(0, 0), giPoint2(0, -2)};
  giPoint2 p2;
  giUnitVec2 d2;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_line(flat, p2, d2, residual), 1);
  EXPECT_NEAR(std::fabs(d2.y()), 1.0, 1e-15);
  EXPECT_EQ(residual, 0.0);
}

TEST(LinePlaneEdges, CollinearPointsStillMakeAPlane) {
  giPoint3coDynArr three{giPoint3(0, 0, 0), giPoint3(1, 2, 3), giPoint3(2, 4, 6)};
  giPoint3 point;
  giUnitVec3 normal;
  double residual = -1;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_plane(three, point, normal, residual), 1);
  EXPECT_NEAR(normal.dot(giVector3(1, 2, 3)), 0.0, 1e-15);
  EXPECT_LT(residual, 1e-15);
}

TEST(LinePlaneEdges, CoincidentPointsFailTheLinesButNotThePlane) {
  giPoint3coDynArr same{giPoint3(0.1, 0.2, 0.3), giPoint3(0.1, 0.2, 0.3), giPoint3(0.1, 0.2, 0.3)};
  giPoint3 point;
  giUnitVec3 direction;
  double residual = -1;
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_line3(same, point, direction, residual), 0);
  EXPECT_EQ(point.x(), 0.1);  // outputs written all the same
  EXPECT_EQ(residual, 0.0);
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_plane(same, point, direction, residual), 1);
  giPoint2coDynArr flat{giPoint2(3, 3), giPoint2(3, 3)};
  giPoint2 p2;
  giUnitVec2 d2;
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_line(flat, p2, d2, residual), 0);
  EXPECT_EQ(p2.x(), 3.0);
}

TEST(LinePlaneEdges, RefusalsLeaveTheOutputsUntouched) {
  giPoint3coDynArr one{giPoint3(1, 2, 3)};
  giPoint3coDynArr with_nan{giPoint3(0, 0, 0), giPoint3(1, NAN, 0), giPoint3(0, 1, 0), giPoint3(1, 1, 0)};
  giPoint3coDynArr with_inf{giPoint3(0, 0, 0), giPoint3(1, 0, INFINITY), giPoint3(0, 1, 0)};
  for (giPoint3coDynArr const* pts : {&one, &with_nan, &with_inf}) {
    giPoint3 point(7, 7, 7);
    giUnitVec3 direction(0, 1, 0);
    double residual = 42.0;
    EXPECT_EQ(gfLeastSquareEvaluator::evaluate_line3(*pts, point, direction, residual), 0);
    EXPECT_EQ(gfLeastSquareEvaluator::evaluate_plane(*pts, point, direction, residual), 0);
    EXPECT_EQ(gfLeastSquareEvaluator::evaluate_line2(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), *pts, point, direction,
                                                     residual),
              0);
    EXPECT_EQ(point.x(), 7.0);
    EXPECT_EQ(direction.y(), 1.0);
    EXPECT_EQ(residual, 42.0);
  }
  giPoint2coDynArr flat_nan{giPoint2(0, 0), giPoint2(NAN, 1)};
  giPoint2 p2(5, 5);
  giUnitVec2 d2;
  double residual = 42.0;
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_line(flat_nan, p2, d2, residual), 0);
  EXPECT_EQ(p2.x(), 5.0);
  giPoint3coDynArr fine{giPoint3(0, 0, 0), giPoint3(1, 0, 0)};
  giPoint3 point(7, 7, 7);
  giUnitVec3 direction;
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_line2(giPoint3(0, 0, 0), giUnitVec3(), fine, point, direction, residual),
            0);  // no plane normal
  EXPECT_EQ(point.x(), 7.0);
}

TEST(LinePlaneEdges, LineInAGivenPlaneCountsHeightsInItsResidual) {
  giPoint3 origin(5, 5, 5);
  giUnitVec3 normal(0, 1, 1);
  giUnitVec3 along(1, 0, 0);
  giPoint3coDynArr pts;
  for (int i = 0; i < 8; ++i) pts.append(origin + along * (i - 3.5));
  giPoint3 point;
  giUnitVec3 direction;
  double residual = -1;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_line2(origin, normal, pts, point, direction, residual), 1);
  EXPECT_LT(residual, 1e-14);
  EXPECT_LT(line_angle(direction, along), 1e-15);
  EXPECT_LT(giInfLine3(point, direction).distance_of_point(origin), 1e-13);
  // Lifting one of the eight points by h off the plane adds its share: sqrt(h^2 / 8).
  const double h = 0.4;
  pts[2] = pts[2] + normal * h;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_line2(origin, normal, pts, point, direction, residual), 1);
  EXPECT_NEAR(residual, std::sqrt(h * h / 8), 1e-14);
}

TEST(LinePlaneEdges, SameInputSameBits) {
  Rng rng(24);
  giPoint3coDynArr pts = gfit::testing::sample_plane(rng, giPoint3(10, 20, 30), giUnitVec3(1, 2, 3), 5, 5, 1000, 0.01);
  giPoint3 p1, p2;
  giUnitVec3 n1, n2;
  double r1, r2;
  gfLeastSquareEvaluator::evaluate_plane(pts, p1, n1, r1);
  gfLeastSquareEvaluator::evaluate_plane(pts, p2, n2, r2);
  EXPECT_EQ(p1, p2);
  EXPECT_EQ(n1.x(), n2.x());
  EXPECT_EQ(n1.z(), n2.z());
  EXPECT_EQ(r1, r2);
}

}  // namespace
