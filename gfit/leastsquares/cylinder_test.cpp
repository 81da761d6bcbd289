#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "gfit/gfit.h"
#include "test/support/derivative_check.h"
#include "test/support/reference_data.h"
#include "test/support/samplers.h"

namespace {

using gfit::testing::distance_from_axis;
using gfit::testing::line_angle;
using gfit::testing::Rng;

struct Cylinder {
  giPoint3 point;
  giUnitVec3 direction;
  double radius = 0, residual = 0;
};

int fit(giPoint3coDynArr const& pts, Cylinder& c, giUnitVec3 const& guess = giUnitVec3(),
        giAngle const& angle = giAngle(), int k = 0) {
  return gfLeastSquareEvaluator::evaluate_cylinder(pts, c.point, c.direction, c.radius, c.residual, guess, angle, k);
}

// ---- certified answers ------------------------------------------------------------------

TEST(CylinderConformance, NistCylinders) {
  auto names = gfit::testing::reference_sets("Cylinder");
  ASSERT_EQ(names.size(), 30u);
  for (auto const& name : names) {
    auto set = gfit::testing::load_reference_set("Cylinder", name);
    Cylinder c;
    ASSERT_EQ(fit(set.points, c), 1) << name;
    giPoint3 certified_point(set.certified[0], set.certified[1], set.certified[2]);
    giVector3 certified_axis(set.certified[3], set.certified[4], set.certified[5]);
    EXPECT_NEAR(2 * c.radius, set.certified[6], 1e-9) << name;  // measured: 1.4e-11 at worst
    EXPECT_LT(line_angle(c.direction, certified_axis), 1e-9) << name;
    EXPECT_LT(distance_from_axis(certified_point, c.point, c.direction), 1e-9) << name;
  }
}

// ---- recovery ---------------------------------------------------------------------------

TEST(CylinderRecovery, NoisyFullCylindersAnywhere) {
  Rng rng(41);
  for (int trial = 0; trial < 6; ++trial) {
    giPoint3 point = rng.point_in_box(1000);
    giUnitVec3 axis = rng.direction();
    double radius = rng.uniform(5, 40), half_length = rng.uniform(10, 60);
    const double noise = 1e-3;
    giPoint3coDynArr pts = gfit::testing::sample_cylinder(rng, point, axis, radius, half_length, 0, 2 * M_PI, 600, noise);
    Cylinder c;
    ASSERT_EQ(fit(pts, c), 1);
    // The tilt is known to about noise / (rms height * sqrt(n / 2)) < 1e-5 rad; position and
    // radius to a few noise / sqrt(n); allow five times.
    EXPECT_LT(line_angle(c.direction, axis), 5e-5);
    EXPECT_LT(distance_from_axis(point, c.point, c.direction), 5e-4);
    EXPECT_NEAR(c.radius, radius, 5e-4);
    EXPECT_NEAR(c.residual, noise, 1e-4);
  }
}

TEST(CylinderRecovery, NinetyDegreePatch) {
  Rng rng(42);
  giPoint3 point(250, -120, 40);
  giUnitVec3 axis(0.2, 0.9, -0.3);
  const double noise = 1e-3;
  giPoint3coDynArr pts = gfit::testing::sample_cylinder(rng, point, axis, 25, 30, 1.0, M_PI / 2, 800, noise);
  Cylinder c;
  ASSERT_EQ(fit(pts, c), 1);
  // A quarter of the circumference leaves the radius and the depth of the axis correlated:
  // they are known to about 20 * noise / sqrt(n); allow 3e-3.
  EXPECT_LT(line_angle(c.direction, axis), 1e-4);
  EXPECT_LT(distance_from_axis(point, c.point, c.direction), 3e-3);
  EXPECT_NEAR(c.radius, 25, 3e-3);
}

TEST(CylinderRecovery, NormalsAndAGuessGuideTheAxis) {
  Rng rng(43);
  giPoint3 point(10, 20, 30);
  giUnitVec3 axis(1, 2, 2);
  giUnitVec3coDynArr normals;
  giPoint3coDynArr pts = gfit::testing::sample_cylinder(rng, point, axis, 8, 15, 0, 2 * M_PI, 300, 1e-3, &normals);
  Cylinder c;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_cylinder(pts, normals, giAngle::from_degrees(5), c.point, c.direction,
                                                      c.radius, c.residual, 0),
            1);
  EXPECT_LT(line_angle(c.direction, axis), 1e-4);
  // Inward normals agree as well.
  for (giUnitVec3& n : normals) n = -n;
  Cylinder inward;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_cylinder(pts, normals, giAngle::from_degrees(5), inward.point,
                                                      inward.direction, inward.radius, inward.residual, 0),
            1);
  EXPECT_EQ(inward.radius, c.radius);
  Cylinder guided;
  ASSERT_EQ(fit(pts, guided, giUnitVec3(1, 2.1, 2), giAngle::from_degrees(10)), 1);
  EXPECT_LT(line_angle(guided.direction, axis), 1e-4);
}

TEST(CylinderRecovery, RefinementOfAGrownPointSet) {
  Rng rng(44);
  giPoint3 point(-5, 7, 2);
  giUnitVec3 axis(0, 0.6, 0.8);
  giPoint3coDynArr pts = gfit::testing::sample_cylinder(rng, point, axis, 12, 20, 0, 2 * M_PI, 200, 1e-3);
  Cylinder first;
  ASSERT_EQ(fit(pts, first), 1);
  giPoint3coDynArr more = gfit::testing::sample_cylinder(rng, point, axis, 12, 20, 0, 2 * M_PI, 10, 1e-3);
  for (giPoint3 const& p : more) pts.append(p);
  Cylinder refined = first, full;
  ASSERT_EQ(fit(pts, refined, giUnitVec3(), giAngle(), 10), 1);
  ASSERT_EQ(fit(pts, full), 1);
  EXPECT_NEAR(refined.radius, full.radius, 1e-9);
  EXPECT_LT(line_angle(refined.direction, full.direction), 1e-9);
  // A far outlier among the new points abandons the refinement for the full search, which
  // still ends at the least-squares cylinder.
  pts.append(point + giVector3(500, 0, 0));
  Cylinder with_outlier = first;
  ASSERT_EQ(fit(pts, with_outlier, giUnitVec3(), giAngle(), 1), 1);
  Cylinder full_outlier;
  ASSERT_EQ(fit(pts, full_outlier), 1);
  EXPECT_NEAR(with_outlier.residual, full_outlier.residual, 1e-9 * full_outlier.residual);
}

// ---- the problem and its pieces ---------------------------------------------------------

TEST(CylinderProblem, GradientNormalisationAndScales) {
  Rng rng(45);
  giPoint3coDynArr pts = gfit::testing::sample_cylinder(rng, giPoint3(1, 2, 3), giUnitVec3(0, 0, 1), 4, 5, 0, 6, 30, 0.1);
  gfLeastSquareCylinder problem(pts);
  // The distances read a unit direction: the gradient is taken at one.
  giUnitVec3 tilted(0.1, 0.05, 1);
  EXPECT_LT(gfit::testing::gradient_error(problem, mlVector{1.1, 2.2, 0, tilted.x(), tilted.y(), tilted.z(), 3.8}), 1e-7);
  mlVector p{5, 5, 5, 0, 0, 2, -3};
  problem.normalize_parameters(p);
  EXPECT_EQ(p[2], 0.0);  // slid along the axis to the foot from the origin
  EXPECT_EQ(p[5], 1.0);
  EXPECT_EQ(p[6], -3.0);  // the radius keeps its sign
  mlVector zero{1, 2, 3, 0, 0, 0, 1};
  problem.normalize_parameters(zero);
  EXPECT_EQ(zero[3], 1.0);
  EXPECT_EQ(problem.n_independent_parameters(), 5);
  mlVector scales;
  giPoint3coDynArr line{giPoint3(0, 0, -2), giPoint3(0, 0, 4)};
  gfLeastSquareCylinder short_one(line);
  short_one.set_parameters(mlVector{1, 0, 0, 0, 0, 1, 8});
  short_one.parameter_scales(scales);
  EXPECT_DOUBLE_EQ(scales[3], 10.0);  // sqrt(6^2 + 8^2)
  EXPECT_EQ(scales[6], 1.0);
}

TEST(CylinderProblem, InitialSolutionFindsTwoParallelRings) {
  giPoint3coDynArr six;
  giUnitVec3 axis(1, 1, 0);
  giUnitVec3 e1 = axis.any_normal(), e2(axis.cross(e1));
  for (double h : {0.0, 7.0})
    for (double t : {0.1, 2.2, 4.3}) six.append(giPoint3(3, 3, 3) + axis * h + e1 * (2 * std::cos(t)) + e2 * (2 * std::sin(t)));
  giVector3 direction;
  EXPECT_EQ(gfCylinder_InitialSolution(six, direction), 1);
  EXPECT_LT(line_angle(direction, axis), 1e-12);
}

TEST(CylinderProblem, FittedCylinderCoincidenceAndValidity) {
  gfFittedCylinder a(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), 5, 0.01);
  gfFittedCylinder shifted(giPoint3(0, 0, 40), giUnitVec3(0, 0, -1), 5.0005, 0.02);
  gfFittedCylinder beside(giPoint3(0.01, 0, 0), giUnitVec3(0, 0, 1), 5, 0.01);
  EXPECT_EQ(a.coincident(shifted, 0.001, giAngle::from_degrees(1)), 1);
  EXPECT_EQ(a.coincident(shifted, -1.0, giAngle::from_degrees(1)), 0);
  EXPECT_EQ(a.coincident(beside, 0.001, giAngle::from_degrees(1)), 0);
  EXPECT_EQ(gfFittedCylinder().invalid(), 1);
  EXPECT_EQ(a.invalid(), 0);
  EXPECT_EQ(gfFittedCylinder(giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), 0.0, 0.1).invalid(), 1);
  gfFittedCylindercoDynArr list;
  gfLeastSquareCylinder::add_distinct_result(a, 0.001, giAngle::from_degrees(1), list);
  gfLeastSquareCylinder::add_distinct_result(shifted, 0.001, giAngle::from_degrees(1), list);
  gfLeastSquareCylinder::add_distinct_result(beside, 0.001, giAngle::from_degrees(1), list);
  EXPECT_EQ(list.count(), 2);
}

TEST(CylinderProblem, SeveralCylindersInOnePointSet) {
  Rng rng(46);
  giUnitVec3 a1(0, 0, 1), a2(1, 0, 0);
  giPoint3coDynArr pts = gfit::testing::sample_cylinder(rng, giPoint3(0, 0, 0), a1, 5, 10, 0, 2 * M_PI, 300, 1e-4);
  giPoint3coDynArr other = gfit::testing::sample_cylinder(rng, giPoint3(0, 30, 0), a2, 3, 10, 0, 2 * M_PI, 300, 1e-4);
  for (giPoint3 const& p : other) pts.append(p);
  gfFittedCylindercoDynArr results;
  giUnitVec3coDynArr preferred{a1, a2};
  // Each cylinder alone leaves the other's points as far outliers: no single cylinder has a
  // small RMS over all points, so nothing is found with a tight tolerance...
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_multiple_cylinders(pts, preferred, 0.01, giAngle::from_degrees(2), 2,
                                                                results),
            0);
  // ... while one cylinder's points alone give it back, once.
  giPoint3coDynArr single = gfit::testing::sample_cylinder(rng, giPoint3(0, 0, 0), a1, 5, 10, 0, 2 * M_PI, 300, 1e-4);
  EXPECT_EQ(gfCalculateMultipleLeastSquareCylinders(single, preferred, 0.01, giAngle::from_degrees(2), 2, results), 1);
  ASSERT_EQ(results.count(), 1);
  EXPECT_NEAR(results[0].radius(), 5.0, 1e-4);
  EXPECT_LT(line_angle(results[0].axis_dir(), a1), 1e-4);
}

// ---- refusals and reproducibility -------------------------------------------------------

TEST(CylinderEdges, RefusalsMarkTheDirection) {
  giPoint3coDynArr four{giPoint3(1, 0, 0), giPoint3(0, 1, 0), giPoint3(-1, 0, 1), giPoint3(0, -1, 1)};
  Cylinder c;
  c.direction = giUnitVec3(0, 1, 0);
  EXPECT_EQ(fit(four, c), 0);  // the entry accepts 4 points, the computation needs 5
  EXPECT_EQ(c.direction.x(), -DBL_MAX);
  EXPECT_EQ(c.direction.y(), 1.0);  // only x carries the mark

  Rng rng(47);
  giPoint3coDynArr pts = gfit::testing::sample_cylinder(rng, giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), 3, 3, 0, 6, 20, 0);
  giPoint3coDynArr bad = pts;
  bad[7] = giPoint3(0, INFINITY, 0);
  c.direction = giUnitVec3(0, 1, 0);
  EXPECT_EQ(fit(bad, c), 0);
  EXPECT_EQ(c.direction.x(), -DBL_MAX);
  giUnitVec3coDynArr too_few_normals{giUnitVec3(1, 0, 0)};
  c.direction = giUnitVec3(0, 1, 0);
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_cylinder(pts, too_few_normals, giAngle(0.1), c.point, c.direction,
                                                      c.radius, c.residual, 0),
            0);
  EXPECT_EQ(c.direction.x(), -DBL_MAX);
  giPoint3coDynArr three{giPoint3(1, 0, 0), giPoint3(0, 1, 0), giPoint3(-1, 0, 1)};
  c.direction = giUnitVec3(0, 1, 0);
  EXPECT_EQ(fit(three, c), 0);
  EXPECT_EQ(c.direction.x(), 0.0);  // below the entry's own minimum: untouched
}

TEST(CylinderEdges, BitIdenticalForAnyThreadCount) {
  Rng rng(48);
  giPoint3coDynArr pts =
      gfit::testing::sample_cylinder(rng, giPoint3(100, 200, 300), giUnitVec3(3, -1, 2), 9, 12, 0.5, 2.5, 2000, 5e-3);
  int previous = gfSetMaxThreads(1);
  Cylinder one, again;
  ASSERT_EQ(fit(pts, one), 1);
  ASSERT_EQ(fit(pts, again), 1);
  gfSetMaxThreads(2);
  Cylinder two;
  ASSERT_EQ(fit(pts, two), 1);
  gfSetMaxThreads(previous);
  for (Cylinder const* c : {&again, &two}) {
    EXPECT_EQ(c->point, one.point);
    EXPECT_EQ(c->direction.x(), one.direction.x());
    EXPECT_EQ(c->direction.y(), one.direction.y());
    EXPECT_EQ(c->direction.z(), one.direction.z());
    EXPECT_EQ(c->radius, one.radius);
    EXPECT_EQ(c->residual, one.residual);
  }
}

}  // namespace
