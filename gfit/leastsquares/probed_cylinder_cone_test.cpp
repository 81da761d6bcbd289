#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "gfit/gfit.h"
#include "test/support/checks.h"
#include "test/support/derivative_check.h"
#include "test/support/samplers.h"

namespace {

using namespace gfit::testing;

// Ball centres one radius off the surface points along their outward normals (outside:
// a shaft or a cone touched from without) or against them (inside: a bore).
giPoint3coDynArr centres(giPoint3coDynArr const& surface, giUnitVec3coDynArr const& normals,
                         doublecoDynArr const& radii, bool inside) {
  giPoint3coDynArr out(surface.count(), 16);
  for (int i = 0; i < surface.count(); ++i) out.append(surface[i] + normals[i] * (inside ? -radii[i] : radii[i]));
  return out;
}

doublecoDynArr radii_between(Rng& rng, int n, double lo, double hi) {
  doublecoDynArr r(n, 16);
  for (int i = 0; i < n; ++i) r.append(rng.uniform(lo, hi));
  return r;
}

struct Fitted {
  giPoint3 point;  // on the axis; the apex of a cone
  giUnitVec3 axis;
  double size = 0.0, rms = 0.0;  // the radius of a cylinder, the half-angle of a cone
};

int probed_cylinder(giPoint3coDynArr const& pts, doublecoDynArr const& radii, int inside, Fitted& f) {
  return gfLeastSquareEvaluator::evaluate_probed_cylinder(pts, radii, inside, f.point, f.axis, f.size, f.rms,
                                                          giUnitVec3(), giAngle(), 0);
}

int probed_cone(giPoint3coDynArr const& pts, doublecoDynArr const& radii, int inside, giPoint3coDynArr const& contacts,
                Fitted& f) {
  return gfLeastSquareEvaluator::evaluate_probed_cone(pts, radii, inside, contacts, f.point, f.axis, f.size, f.rms,
                                                      giUnitVec3(), giAngle(), 0);
}

// ---- cylinder ---------------------------------------------------------------------------

TEST(ProbedCylinder, CentresOffTheSurfaceGiveItBack) {
  Rng rng(81);
  const giPoint3 point(300, -200, 150);
  const giUnitVec3 axis(0.3, 0.4, -0.5);
  const double radius = 12.0;
  giUnitVec3coDynArr normals;
  giPoint3coDynArr surface = sample_cylinder(rng, point, axis, radius, 20, 0.5, 3.5, 120, 0.0, &normals);
  for (bool equal : {true, false}) {
    doublecoDynArr radii = equal ? constant(120, 1.5) : radii_between(rng, 120, 0.5, 2.0);
    for (int inside : {0, 1}) {
      Fitted f;
      ASSERT_EQ(probed_cylinder(centres(surface, normals, radii, inside != 0), radii, inside, f), 1);
      // Exact data: the surface comes back to the rounding of the fit.
      EXPECT_NEAR(f.size, radius, 1e-9 * radius) << equal << inside;
      EXPECT_LT(line_angle(f.axis, axis), 1e-10);
      EXPECT_LT(distance_from_axis(point, f.point, f.axis), 1e-9 * radius);
      EXPECT_LT(f.rms, 1e-9);
    }
  }
  // The overload with normals: the same cylinder.
  doublecoDynArr radii = constant(120, 1.5);
  Fitted f;
  ASSERT_EQ(
      gfLeastSquareEvaluator::evaluate_probed_cylinder(centres(surface, normals, radii, false), radii, 0, normals,
                                                       giAngle::from_degrees(5), f.point, f.axis, f.size, f.rms, 0),
      1);
  EXPECT_NEAR(f.size, radius, 1e-9 * radius);
}

TEST(ProbedCylinder, ZeroRadiiAreThePlainFit) {
  Rng rng(82);
  giPoint3coDynArr pts = sample_cylinder(rng, giPoint3(5, 6, 7), giUnitVec3(1, -1, 2), 8, 10, 0, 2 * giPi, 200, 1e-3);
  Fitted f, plain;
  ASSERT_EQ(probed_cylinder(pts, constant(200, 0.0), 1, f), 1);
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_cylinder(pts, plain.point, plain.axis, plain.size, plain.rms, giUnitVec3(),
                                                      giAngle(), 0),
            1);
  EXPECT_NEAR(f.size, plain.size, 1e-12 * plain.size);
  EXPECT_NEAR(f.rms, plain.rms, 1e-12 * plain.rms);
  EXPECT_LT(line_angle(f.axis, plain.axis), 1e-12);
}

TEST(ProbedCylinder, RefusalsAndANegativeRadius) {
  Rng rng(83);
  giPoint3coDynArr surface = sample_cylinder(rng, giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), 1.0, 5, 0, 2 * giPi, 50, 0.0);
  Fitted f;
  f.axis = giUnitVec3(0, 0, 1);
  // Centres on a radius-1 cylinder touched from outside by balls of radius 2: no surface.
  // A refusal leaves the outputs untouched (only the plain cylinder marks its direction).
  expect_refused_untouched(probed_cylinder(surface, constant(50, 2.0), 0, f), f.axis, gfReason::failed);
  expect_refused_untouched(probed_cylinder(surface, constant(49, 0.5), 0, f), f.axis,
                           gfReason::bad_companion_array);  // a radius short
  giPoint3coDynArr three{surface[0], surface[1], surface[2]};
  EXPECT_EQ(probed_cylinder(three, constant(3, 0.5), 0, f), 0);
  EXPECT_EQ(f.axis.x(), 0.0);  // below the entry's minimum: untouched
}

// ---- cone -------------------------------------------------------------------------------

TEST(ProbedCone, CentresOffTheSurfaceGiveItBack) {
  Rng rng(84);
  const giPoint3 apex(-150, 80, 400);
  const giUnitVec3 axis(-0.2, 0.9, 0.3);
  const double theta = 0.5;
  giUnitVec3coDynArr normals;
  giPoint3coDynArr surface = sample_cone(rng, apex, axis, theta, 8, 30, 0, 2 * giPi, 150, 0.0, &normals);
  for (bool equal : {true, false}) {
    doublecoDynArr radii = equal ? constant(150, 1.5) : radii_between(rng, 150, 0.5, 2.0);
    for (int inside : {0, 1}) {
      Fitted f;
      ASSERT_EQ(probed_cone(centres(surface, normals, radii, inside != 0), radii, inside, giPoint3coDynArr(), f), 1);
      EXPECT_LT(f.point.distance(apex), 1e-8) << equal << inside;
      EXPECT_LT(direction_angle(f.axis, axis), 1e-10);
      EXPECT_NEAR(f.size, theta, 1e-11);
      EXPECT_LT(f.rms, 1e-9);
    }
  }
}

TEST(ProbedCone, ContactEstimatesGiveEachPointItsSide) {
  Rng rng(85);
  const giPoint3 apex(20, 30, 40);
  const double theta = 0.35;
  giUnitVec3coDynArr normals;
  giPoint3coDynArr surface =
      sample_cone(rng, apex, giUnitVec3(0, 0.6, 0.8), theta, 10, 40, 0, 2 * giPi, 100, 0.0, &normals);
  doublecoDynArr radii = radii_between(rng, 100, 0.5, 1.0);
  // Alternate sides: no single flag describes these centres, the contacts do.
  giPoint3coDynArr balls(100, 16), contacts(100, 16), short_contacts(99, 16);
  for (int i = 0; i < 100; ++i) {
    balls.append(surface[i] + normals[i] * (i % 2 ? radii[i] : -radii[i]));
    // Contact estimates a little off the surface, as a nominal model would give them.
    contacts.append(surface[i] + normals[i] * (1e-3 * rng.normal()));
    if (i < 99) short_contacts.append(contacts[i]);
  }
  Fitted f;
  for (int flag : {0, 1}) {
    ASSERT_EQ(probed_cone(balls, radii, flag, contacts, f), 1);
    EXPECT_LT(f.point.distance(apex), 1e-8);
    EXPECT_NEAR(f.size, theta, 1e-11);
    EXPECT_LT(f.rms, 1e-9);
  }
  // The overload with normals.
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_probed_cone(balls, radii, 0, contacts, normals, giAngle::from_degrees(5),
                                                         f.point, f.axis, f.size, f.rms, 0),
            1);
  EXPECT_LT(f.point.distance(apex), 1e-8);
  // Contacts of another count are refused, the outputs untouched.
  f.axis = giUnitVec3(0, 0, 1);
  expect_refused_untouched(probed_cone(balls, radii, 0, short_contacts, f), f.axis, gfReason::bad_companion_array);
}

TEST(ProbedCone, ZeroRadiiAreThePlainFit) {
  Rng rng(86);
  giPoint3coDynArr pts = sample_cone(rng, giPoint3(1, 2, 3), giUnitVec3(2, 1, -1), 0.8, 5, 20, 0, 2 * giPi, 200, 1e-3);
  Fitted f, plain;
  ASSERT_EQ(probed_cone(pts, constant(200, 0.0), 0, giPoint3coDynArr(), f), 1);
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_cone(pts, plain.point, plain.axis, plain.size, plain.rms, giUnitVec3(),
                                                  giAngle(), 0),
            1);
  EXPECT_LT(f.point.distance(plain.point), 1e-10);
  EXPECT_NEAR(f.size, plain.size, 1e-12);
  EXPECT_NEAR(f.rms, plain.rms, 1e-12 * plain.rms);
  f.axis = giUnitVec3(0, 0, 1);
  expect_refused_untouched(probed_cone(pts, constant(10, 0.0), 0, giPoint3coDynArr(), f), f.axis,
                           gfReason::bad_companion_array);  // too few radii
}

// ---- the problems -----------------------------------------------------------------------

TEST(ProbedProblems, GradientsAndBatchLoops) {
  Rng rng(87);
  giPoint3coDynArr pts = sample_cone(rng, giPoint3(1, 2, 3), giUnitVec3(0.1, 0, 1), 0.6, 1, 6, 0, 6, 40, 0.1);
  doublecoDynArr radii = radii_between(rng, 40, 0.1, 0.5);
  intcoDynArr sides(40, 16);
  for (int i = 0; i < 40; ++i) sides.append(i % 3 == 0);
  const giUnitVec3 u(0.1, -0.05, 1);
  gfLeastSquareProbedCone cone(pts, radii, 1), cone_sides(pts, radii, sides);
  const mlVector p{1.1, 2.2, 3.0, u.x(), u.y(), u.z(), 0.3, 0.55};
  EXPECT_LT(gradient_error(cone, p), 1e-7);
  EXPECT_LT(block_error(cone, p), 1e-14);
  EXPECT_LT(block_error(cone_sides, p), 1e-14);
  EXPECT_EQ(cone_sides.compensation()[0], radii[0]);   // touched from within
  EXPECT_EQ(cone_sides.compensation()[1], -radii[1]);  // from without
  gfLeastSquareProbedCylinder cylinder(pts, radii, 0);
  const mlVector c{1.1, 2.2, 0, u.x(), u.y(), u.z(), 3.8};
  EXPECT_LT(gradient_error(cylinder, c), 1e-7);
  EXPECT_LT(block_error(cylinder, c), 1e-14);
  EXPECT_EQ(cylinder.n_independent_parameters(), 5);
  EXPECT_EQ(cone.n_independent_parameters(), 6);
}

}  // namespace
