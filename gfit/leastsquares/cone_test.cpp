#include <gtest/gtest.h>

#include <algorithm>
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
using gfit::testing::sample_cone;

// The angle between two directions (sign included), accurate near 0.
double direction_angle(giVector3 const& a, giVector3 const& b) { return std::atan2(a.cross(b).length(), a.dot(b)); }

struct Cone {
  giPoint3 apex;
  giUnitVec3 axis;
  double half_angle = 0, residual = 0;
};

int fit(giPoint3coDynArr const& pts, Cone& c, giUnitVec3 const& guess = giUnitVec3(),
        giAngle const& angle = giAngle(), int k = 0) {
  return gfLeastSquareEvaluator::evaluate_cone(pts, c.apex, c.axis, c.half_angle, c.residual, guess, angle, k);
}

mlVector parameters_of(Cone const& c) {
  return mlVector{c.apex.x(), c.apex.y(), c.apex.z(), c.axis.x(), c.axis.y(), c.axis.z(), 0.0, c.half_angle};
}

// The largest distance of `pts` from the cone of parameters p.
double largest_distance(giPoint3coDynArr const& pts, mlVector const& p) {
  gfLeastSquareCone problem(pts);
  problem.set_parameters(p);
  double worst = 0.0;
  for (int i = 0; i < pts.count(); ++i) {
    double d = 0.0;
    problem.get_distance(d, i);
    worst = std::max(worst, std::fabs(d));
  }
  return worst;
}

// Restores the process-wide tolerance whatever a test does with it.
struct ToleranceGuard {
  explicit ToleranceGuard(double t) : previous(gfSetLeastSquareConeNonPhysicalTolerance(t)) {}
  ~ToleranceGuard() { gfSetLeastSquareConeNonPhysicalTolerance(previous); }
  double previous;
};

// ---- certified answers ------------------------------------------------------------------

TEST(ConeConformance, NistCones) {
  auto names = gfit::testing::reference_sets("Cone");
  ASSERT_EQ(names.size(), 30u);
  for (double tolerance : {0.05, 0.001}) {
    ToleranceGuard guard(tolerance);
    for (auto const& name : names) {
      auto set = gfit::testing::load_reference_set("Cone", name);
      auto const& c = set.certified;
      // The reference: a point on the axis, the axis towards increasing radius, the
      // orthogonal distance from that point to the surface, the full apex angle in degrees.
      const giPoint3 point(c[0], c[1], c[2]);
      const giUnitVec3 towards_apex = -giUnitVec3(c[3], c[4], c[5]);
      const double theta = c[7] / 2 * M_PI / 180;
      const mlVector certified{point.x(), point.y(), point.z(), towards_apex.x(), towards_apex.y(), towards_apex.z(),
                               c[6], theta};
      gfLeastSquareCone problem(set.points);
      problem.set_parameters(certified);
      const double certified_rms = std::sqrt(problem.sum_of_squares() / set.points.count());
      const double range = problem.range();
      Cone f;
      ASSERT_EQ(fit(set.points, f), 1) << name;
      if (name == "con7") {
        // Six points interpolated exactly: several cones do that, and below 3 degrees (at
        // the tight tolerance) a second one is as good. Both are exact to rounding.
        EXPECT_LT(f.residual, 1e-13 * range) << name;
        if (tolerance < 0.01) continue;
      } else {
        EXPECT_NEAR(f.residual, certified_rms, 1e-6 * certified_rms) << name << " at " << tolerance;
      }
      EXPECT_LT(direction_angle(f.axis, towards_apex), 1e-6) << name << " at " << tolerance;
      EXPECT_NEAR(f.half_angle, theta, 1e-6) << name;
      const giPoint3 certified_apex = point + towards_apex * (c[6] / std::sin(theta));
      if (theta >= 3 * M_PI / 180)
        EXPECT_LT(f.apex.distance(certified_apex), 1e-4 * range) << name;
      else  // the apex of a nearly cylindrical cone is ill-determined along the axis
        EXPECT_LT(distance_from_axis(point, f.apex, f.axis), 1e-4 * range) << name;
    }
  }
}

// ---- recovery ---------------------------------------------------------------------------

// Cones of each half-angle, complete and as a quarter patch, anywhere within 1000 of the
// origin, 300 points with 1 micrometre of noise along the normal (lengths in mm). The
// fitted surface at a point of the patch is off by sigma * sqrt(leverage); with 300 points
// no leverage reaches 1/4, so over 200 points of the patch it stays below 4 sigma / 2 =
// 2e-3. The RMS residual estimates sigma to 1/sqrt(2n) = 4%; allow 15%.
TEST(ConeRecovery, HalfAnglesCoveragesAndPoses) {
  Rng rng(71);
  const double noise = 1e-3;
  for (double degrees : {1.0, 15.0, 45.0, 80.0, 88.0}) {
    for (double span : {2 * M_PI, M_PI / 2}) {
      const giPoint3 apex = rng.point_in_box(1000);
      const giUnitVec3 axis = rng.direction();
      const double theta = degrees * M_PI / 180, start = rng.uniform(0, 2 * M_PI);
      // Radii 10 to 40 (steep cones: 5 to 40) over a slant of about 40.
      const double near = (degrees > 60 ? 5 : 10) / std::tan(theta);
      const double far = degrees > 60 ? 40 / std::tan(theta) : near + 40 * std::cos(theta);
      giPoint3coDynArr pts = sample_cone(rng, apex, axis, theta, near, far, start, span, 300, noise);
      Cone f;
      ASSERT_EQ(fit(pts, f), 1) << degrees << " " << span;
      Rng clean_rng(5);
      giPoint3coDynArr clean = sample_cone(clean_rng, apex, axis, theta, near, far, start, span, 200, 0.0);
      EXPECT_LT(largest_distance(clean, parameters_of(f)), 2 * noise) << degrees << " " << span;
      EXPECT_NEAR(f.residual, noise, 0.15 * noise) << degrees << " " << span;
      // The orientation: a wrong cone is off by degrees, not by these.
      EXPECT_LT(direction_angle(f.axis, axis), 1e-3) << degrees << " " << span;
      EXPECT_NEAR(f.half_angle, theta, 1e-3) << degrees << " " << span;
    }
  }
}

TEST(ConeRecovery, NormalsEitherWayAndAGuess) {
  Rng rng(72);
  const giPoint3 apex(120, -40, 300);
  const giUnitVec3 axis(0.2, -0.4, 0.9);
  const double theta = 0.5;
  giUnitVec3coDynArr normals;
  giPoint3coDynArr pts = sample_cone(rng, apex, axis, theta, 10, 50, 0.3, 4.0, 300, 1e-3, &normals);
  Cone outward, inward, guided;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_cone(pts, normals, giAngle::from_degrees(5), outward.apex, outward.axis,
                                                  outward.half_angle, outward.residual, 0),
            1);
  for (giUnitVec3& n : normals) n = -n;
  ASSERT_EQ(gfLeastSquareEvaluator::evaluate_cone(pts, normals, giAngle::from_degrees(5), inward.apex, inward.axis,
                                                  inward.half_angle, inward.residual, 0),
            1);
  ASSERT_EQ(fit(pts, guided, giUnitVec3(0.21, -0.4, 0.9), giAngle::from_degrees(10)), 1);
  for (Cone const* c : {&outward, &inward, &guided}) {
    EXPECT_LT(direction_angle(c->axis, axis), 1e-4);  // measured: 3e-6
    EXPECT_NEAR(c->half_angle, theta, 1e-4);
    EXPECT_LT(c->apex.distance(apex), 1e-2);
  }
}

// Each start strategy, on the case it exists for, leads the solver to the least-squares
// cone (the full search's answer), which lies near the sampled one.
TEST(ConeRecovery, EachStartConvergesOnItsCase) {
  Rng rng(73);
  auto converges = [](giPoint3coDynArr const& pts, mlVector const& start, giPoint3 const& apex, double theta) {
    gfLeastSquareCone problem(pts);
    mlLevenbergMarquardt lm(problem);
    lm.set_max_iterations(10000);
    lm.set_strict(true);
    mlVector result(8);
    lm.fit(start, result);
    Cone c, best;
    double rms = 0.0;
    ASSERT_TRUE(gfit::detail::cone_outputs(result, 0.0, c.apex, c.axis, c.half_angle, rms));
    ASSERT_EQ(fit(pts, best), 1);
    EXPECT_LT(c.apex.distance(best.apex), 1e-7);
    EXPECT_NEAR(c.half_angle, best.half_angle, 1e-9);
    EXPECT_LT(c.apex.distance(apex), 0.05);  // small patches with noise: measured 0.013 at worst
    EXPECT_NEAR(c.half_angle, theta, 1e-3);
  };
  mlVector start(8);
  {  // normals of a 60-degree patch, pointing inwards
    const giPoint3 apex(-30, 60, 10);
    giUnitVec3coDynArr normals;
    giPoint3coDynArr pts = sample_cone(rng, apex, giUnitVec3(1, 1, 0), 0.7, 5, 30, 1.0, 1.0, 200, 1e-3, &normals);
    for (giUnitVec3& n : normals) n = -n;
    gfConeGuessGenerator generator(pts, normals);
    ASSERT_LT(generator.get_guess_from_normals(start), DBL_MAX);
    converges(pts, start, apex, 0.7);
  }
  {  // two rings of eight points, as a touch probe measures a cone
    const giPoint3 apex(5, 5, 5);
    const giUnitVec3 axis(0, 0.6, -0.8);
    giPoint3coDynArr pts = sample_cone(rng, apex, axis, 0.3, 20, 20, 0, 2 * M_PI, 8, 1e-4);
    for (giPoint3 const& p : sample_cone(rng, apex, axis, 0.3, 45, 45, 0, 2 * M_PI, 8, 1e-4)) pts.append(p);
    gfConeGuessGenerator generator(pts, giUnitVec3coDynArr());
    ASSERT_LT(generator.get_guess_two_circles(start), DBL_MAX);
    converges(pts, start, apex, 0.3);
  }
  {  // a nearly flat cone (88 degrees), its apex on either side of the points' plane
    for (double sign : {1.0, -1.0}) {
      const giPoint3 apex(0, 0, 2);
      const giUnitVec3 axis(0, 0, sign);
      const double theta = 88 * M_PI / 180;
      giPoint3coDynArr pts = sample_cone(rng, apex, axis, theta, 0.2, 1.4, 0, 2 * M_PI, 300, 1e-4);
      gfConeGuessGenerator generator(pts, giUnitVec3coDynArr());
      mlVector up(8), down(8);
      const double up_deviation = generator.get_guess_flat(up, 1), down_deviation = generator.get_guess_flat(down, -1);
      ASSERT_LT(std::min(up_deviation, down_deviation), DBL_MAX);
      converges(pts, up_deviation <= down_deviation ? up : down, apex, theta);
    }
  }
  {  // along the right axis, the linear start and the fixed-axis fit are the cone itself
    const giPoint3 apex(200, 100, -50);
    const giUnitVec3 axis(-1, 2, 2);
    giPoint3coDynArr pts = sample_cone(rng, apex, axis, 0.9, 3, 25, 0, 2 * M_PI, 100, 0.0);
    gfConeGuessGenerator generator(pts, giUnitVec3coDynArr());
    EXPECT_LT(generator.get_guess_linear(axis, start), 1e-18);
    EXPECT_LT(generator.get_guess_fixed_axis_fit(axis, start), 1e-18);
    converges(pts, start, apex, 0.9);
  }
}

TEST(ConeRecovery, RefinementOfAGrownPointSet) {
  Rng rng(74);
  const giPoint3 apex(10, 20, 30);
  const giUnitVec3 axis(0.6, 0, 0.8);
  giPoint3coDynArr pts = sample_cone(rng, apex, axis, 0.4, 10, 30, 0, 2 * M_PI, 200, 1e-3);
  Cone first;
  ASSERT_EQ(fit(pts, first), 1);
  for (giPoint3 const& p : sample_cone(rng, apex, axis, 0.4, 10, 30, 0, 2 * M_PI, 10, 1e-3)) pts.append(p);
  Cone refined = first, full;
  ASSERT_EQ(fit(pts, refined, giUnitVec3(), giAngle(), 10), 1);
  ASSERT_EQ(fit(pts, full), 1);
  EXPECT_NEAR(refined.residual, full.residual, 1e-9 * full.residual);
  EXPECT_LT(refined.apex.distance(full.apex), 1e-8);
  // A far outlier abandons the refinement for the full search.
  pts.append(apex + giVector3(300, 0, 0));
  Cone with_outlier = first, full_outlier;
  ASSERT_EQ(fit(pts, with_outlier, giUnitVec3(), giAngle(), 1), 1);
  ASSERT_EQ(fit(pts, full_outlier), 1);
  EXPECT_NEAR(with_outlier.residual, full_outlier.residual, 1e-9 * full_outlier.residual);
}

TEST(ConeRecovery, SeveralConesInOnePointSet) {
  Rng rng(75);
  const giPoint3 apex(0, 0, 40);
  const giUnitVec3 axis(0, 0, 1);
  giPoint3coDynArr pts = sample_cone(rng, apex, axis, 0.5, 10, 40, 0, 2 * M_PI, 300, 1e-4);
  giUnitVec3coDynArr preferred{axis, giUnitVec3(1, 0, 0)};
  gfFittedConecoDynArr results;
  EXPECT_EQ(gfLeastSquareEvaluator::evaluate_multiple_cones(pts, preferred, 0.01, giAngle::from_degrees(2), 2, results),
            1);
  ASSERT_EQ(results.count(), 1);
  EXPECT_LT(results[0].apex().distance(apex), 1e-3);
  EXPECT_NEAR(results[0].half_angle().radians(), 0.5, 1e-5);
  EXPECT_EQ(results[0].invalid(), 0);
}

// ---- the problem and its pieces ---------------------------------------------------------

TEST(ConeProblem, GradientsAndTheBatchLoop) {
  Rng rng(76);
  giPoint3coDynArr pts = sample_cone(rng, giPoint3(1, 2, 3), giUnitVec3(0, 0, 1), 0.6, 1, 6, 0, 6, 40, 0.1);
  pts.append(giPoint3(1, 2, 1));  // on the axis: the frame's substitute gradient
  gfLeastSquareCone cone(pts);
  const giUnitVec3 u(0.1, -0.05, 1);
  const mlVector p{1.1, 2.2, 3.0, u.x(), u.y(), u.z(), 0.3, 0.55};
  giPoint3coDynArr clear_of_the_axis = sample_cone(rng, giPoint3(1, 2, 3), u, 0.6, 1, 6, 0, 6, 40, 0.1);
  gfLeastSquareCone off_axis(clear_of_the_axis);
  EXPECT_LT(gfit::testing::gradient_error(off_axis, p), 1e-7);
  gfLeastSquareConeFixedAxis fixed(pts, giPoint3(0.5, 1.5, 2.5), u);
  EXPECT_LT(gfit::testing::gradient_error(fixed, mlVector{0.3, -0.2, 0.4, 0.5}), 1e-7);
  EXPECT_LT(gfit::testing::gradient_error(fixed, mlVector{0.3, -0.2, 0.4, -0.5}), 1e-7);
  EXPECT_LT(gfit::testing::block_error(cone, p), 1e-14);
  EXPECT_LT(gfit::testing::block_error(fixed, mlVector{0.3, -0.2, 0.4, 0.5}), 1e-14);
  EXPECT_EQ(cone.n_independent_parameters(), 6);
  EXPECT_EQ(fixed.n_independent_parameters(), 4);
}

TEST(ConeProblem, NormalisationDistanceAndScales) {
  giPoint3coDynArr pts{giPoint3(0, 0, -1), giPoint3(3, 0, -4)};
  gfLeastSquareCone cone(pts);
  // 3 pi / 4 becomes pi / 4 with u and d reversed.
  mlVector p{0, 0, 0, 0, 0, 2, 0.5, 3 * M_PI / 4};
  cone.normalize_parameters(p);
  EXPECT_NEAR(p[7], M_PI / 4, 1e-15);
  EXPECT_EQ(p[5], -1.0);
  EXPECT_EQ(p[6], -0.5);
  // -pi/6 becomes pi/6 with u reversed and d as it was: the same cone.
  mlVector q{0, 0, 0, 0, 0, 1, 0.5, -M_PI / 6};
  cone.set_parameters(q);
  double before = 0.0, after = 0.0;
  cone.get_distance(before, 1);
  cone.normalize_parameters(q);
  EXPECT_NEAR(q[7], M_PI / 6, 1e-15);
  EXPECT_EQ(q[5], -1.0);
  EXPECT_EQ(q[6], 0.5);
  cone.set_parameters(q);
  cone.get_distance(after, 1);
  EXPECT_NEAR(after, before, 1e-15);
  // The axis point slides to the foot of the perpendicular from the origin; d follows.
  mlVector r{0, 0, 5, 0, 0, 1, 0.0, M_PI / 4};
  cone.set_parameters(r);
  cone.get_distance(before, 1);
  cone.normalize_parameters(r);
  EXPECT_EQ(r[2], 0.0);
  cone.set_parameters(r);
  cone.get_distance(after, 1);
  EXPECT_NEAR(after, before, 1e-14);
  // Apex at the origin, 45 degrees: a point on the axis one unit inside the cone is
  // -sin(45) away from it.
  cone.set_parameters(mlVector{0, 0, 0, 0, 0, 1, 0, M_PI / 4});
  double d = 0.0;
  cone.get_distance(d, 0);
  EXPECT_NEAR(d, -0.7071067811865476, 1e-15);
  mlVector s;
  cone.parameter_scales(s);
  ASSERT_EQ(s.size(), 8);
  EXPECT_DOUBLE_EQ(s[3], 5.0);  // the farther point, (3, 0, -4), from the apex
  EXPECT_DOUBLE_EQ(s[7], 5.0);
  EXPECT_DOUBLE_EQ(s[6], 1.0 / std::sin(M_PI / 4));
  EXPECT_EQ(s[0], 1.0);
}

TEST(ConeProblem, ResultsPreferPhysicalAcceptedCones) {
  giPoint3coDynArr pts{giPoint3(1, 0, -1), giPoint3(-1, 0, -1), giPoint3(0, 1, -1)};
  giUnitVec3coDynArr none;
  const double tolerance = 0.05;
  auto cone = [](double theta) { return mlVector{0, 0, 0, 0, 0, 1, 0, theta}; };
  mlVector best;
  double value = 0.0;
  {  // only non-physical candidates: the best of them
    gfLeastSquareConeResults results(utObserverPtr<giPoint3coDynArr const>(&pts),
                                     utObserverPtr<giUnitVec3coDynArr const>(&none), giVector3(), giAngle(), 10.0,
                                     tolerance);
    mlVector a = cone(0.01), b = cone(1.56);
    results.add(5.0, a);
    results.add(4.0, b);
    results.get_best(value, best);
    EXPECT_EQ(value, 4.0);
    EXPECT_EQ(results.constrained_deviation(), DBL_MAX);
  }
  {  // a non-physical cone wins only when 100 times better, or merely better than a doubtful physical one
    gfLeastSquareConeResults results(utObserverPtr<giPoint3coDynArr const>(&pts),
                                     utObserverPtr<giUnitVec3coDynArr const>(&none), giVector3(), giAngle(), 10.0,
                                     tolerance);
    mlVector physical = cone(0.5), flat = cone(1.56);
    results.add(1.0, physical);
    results.add(0.5, flat);
    results.get_best(value, best);
    EXPECT_EQ(value, 1.0);
    EXPECT_EQ(results.constrained_deviation(), 1.0);
    mlVector doubtful = cone(0.07);  // physical, but within twice the tolerance of 0
    gfLeastSquareConeResults second(utObserverPtr<giPoint3coDynArr const>(&pts),
                                    utObserverPtr<giUnitVec3coDynArr const>(&none), giVector3(), giAngle(), 10.0,
                                    tolerance);
    second.add(1.0, doubtful);
    second.add(0.5, flat);
    second.get_best(value, best);
    EXPECT_EQ(value, 0.5);
    mlVector much_better = cone(0.02);
    results.add(0.009, much_better);
    results.get_best(value, best);
    EXPECT_EQ(value, 0.009);
  }
  for (double along_value : {1.0e-4, 4.0e-4}) {  // a guide, and a cone across it that fits better
    gfLeastSquareConeResults results(utObserverPtr<giPoint3coDynArr const>(&pts),
                                     utObserverPtr<giUnitVec3coDynArr const>(&none), giVector3(0, 0, 1),
                                     giAngle::from_degrees(5), 10.0, tolerance);
    mlVector along = cone(0.5), across{0, 0, 0, 1, 0, 0, 0, 0.5};
    results.add(along_value, along);
    results.add(1.0e-6, across);
    results.get_best(value, best);
    // The agreeing cone is kept unless it costs more than 0.001 x scale = 0.01 in RMS:
    // sqrt(1e-4) - sqrt(1e-6) = 0.009 does not, sqrt(4e-4) - sqrt(1e-6) = 0.019 does.
    EXPECT_EQ(value, along_value == 1.0e-4 ? along_value : 1.0e-6);
    EXPECT_EQ(results.constrained_deviation(), along_value);
  }
}

TEST(ConeProblem, AgreementWithNormalsAndGuide) {
  Rng rng(77);
  giUnitVec3coDynArr normals;
  const giUnitVec3 axis(0, 0, 1);
  giPoint3coDynArr pts = sample_cone(rng, giPoint3(0, 0, 0), axis, 0.4, 2, 8, 0, 2 * M_PI, 30, 0.0, &normals);
  mlVector p{0, 0, 0, 0, 0, 1, 0, 0.4};
  const giAngle limit = giAngle::from_degrees(1);
  EXPECT_EQ(gfLeastSquareCone::are_normals_in_limit(pts, limit, giUnitVec3(), normals, p), 1);
  giUnitVec3coDynArr inward = normals;
  for (giUnitVec3& n : inward) n = -n;
  EXPECT_EQ(gfLeastSquareCone::are_normals_in_limit(pts, limit, giUnitVec3(), inward, p), 1);
  giUnitVec3coDynArr mixed = normals;
  mixed[3] = -mixed[3];
  EXPECT_EQ(gfLeastSquareCone::are_normals_in_limit(pts, limit, giUnitVec3(), mixed, p), 0);
  mlVector wider{0, 0, 0, 0, 0, 1, 0, 0.45};  // 2.9 degrees off every normal
  EXPECT_EQ(gfLeastSquareCone::are_normals_in_limit(pts, limit, giUnitVec3(), normals, wider), 0);
  EXPECT_EQ(gfLeastSquareCone::are_normals_in_limit(pts, limit, giUnitVec3(0, 0, -1), giUnitVec3coDynArr(), p), 1);
  EXPECT_EQ(gfLeastSquareCone::are_normals_in_limit(pts, limit, giUnitVec3(0, 0.1, 1), giUnitVec3coDynArr(), p), 0);
}

TEST(ConeProblem, FittedConesAndTheirCoincidence) {
  const gfFittedCone a(giPoint3(1, 2, 3), giUnitVec3(0, 0, 1), giAngle(0.5), 0.01);
  const gfFittedCone reversed(giPoint3(1, 2, 3.0005), giUnitVec3(0, 0, -1), giAngle(0.5001), 0.02);
  const gfFittedCone wider(giPoint3(1, 2, 3), giUnitVec3(0, 0, 1), giAngle(0.6), 0.01);
  const giAngle tight = giAngle::from_degrees(0.1);
  EXPECT_EQ(a.coincident(reversed, 0.001, tight), 1);
  EXPECT_EQ(a.coincident(reversed, -1.0, tight), 0);
  EXPECT_EQ(a.coincident(wider, 0.001, tight), 0);
  EXPECT_EQ(a.coincident(gfFittedCone(), 0.001, tight), 0);
  EXPECT_EQ(gfFittedCone().invalid(), 1);
  EXPECT_EQ(gfFittedCone().deviation(), -DBL_MAX);
  EXPECT_EQ(a.invalid(), 0);
  gfFittedConecoDynArr list;
  for (gfFittedCone const* c : {&a, &reversed, &wider}) gfLeastSquareCone::add_distinct_result(*c, 0.001, tight, list);
  ASSERT_EQ(list.count(), 2);
  EXPECT_EQ(list[1].half_angle().radians(), 0.6);
}

TEST(ConeProblem, TheToleranceIsOneProcessWideValue) {
  ToleranceGuard guard(0.02);
  EXPECT_EQ(gfLeastSquareEvaluator::set_cone_non_physical_tolerance(0.03), 0.02);
  EXPECT_EQ(gfSetLeastSquareConeNonPhysicalTolerance(0.02), 0.03);
  EXPECT_EQ(guard.previous, 0.05);  // its value when the library is loaded
}

// ---- refusals and reproducibility -------------------------------------------------------

TEST(ConeEdges, RefusalsMarkTheAxis) {
  Rng rng(78);
  giPoint3coDynArr pts = sample_cone(rng, giPoint3(0, 0, 0), giUnitVec3(0, 0, 1), 0.5, 1, 4, 0, 6, 20, 0.0);
  Cone c;
  auto refused = [&](int status) {
    EXPECT_EQ(status, 0);
    EXPECT_EQ(c.axis.x(), -DBL_MAX);
    EXPECT_EQ(c.axis.z(), 1.0);  // only x carries the mark
    c.axis = giUnitVec3(0, 0, 1);
  };
  c.axis = giUnitVec3(0, 0, 1);
  giPoint3coDynArr five(5, 16);
  for (int i = 0; i < 5; ++i) five.append(pts[i]);
  refused(fit(five, c));  // a cone needs 6 points
  giPoint3coDynArr bad = pts;
  bad[4] = giPoint3(NAN, 0, 0);
  refused(fit(bad, c));
  giPoint3coDynArr coincident(8, 16);
  for (int i = 0; i < 8; ++i) coincident.append(giPoint3(1, 2, 3));
  refused(fit(coincident, c));
  giUnitVec3coDynArr too_few{giUnitVec3(1, 0, 0)};
  refused(gfLeastSquareEvaluator::evaluate_cone(pts, too_few, giAngle(0.1), c.apex, c.axis, c.half_angle, c.residual,
                                                0));
}

TEST(ConeEdges, BitIdenticalForAnyThreadCountAndRun) {
  Rng rng(79);
  giPoint3coDynArr pts = sample_cone(rng, giPoint3(100, 200, 300), giUnitVec3(3, -1, 2), 0.2, 20, 60, 0.5, 2.0, 3000,
                                     5e-3);
  const int previous = gfSetMaxThreads(1);
  Cone one, again, two;
  ASSERT_EQ(fit(pts, one), 1);
  ASSERT_EQ(fit(pts, again), 1);
  gfSetMaxThreads(2);
  ASSERT_EQ(fit(pts, two), 1);
  gfSetMaxThreads(previous);
  for (Cone const* c : {&again, &two}) {
    EXPECT_EQ(c->apex, one.apex);
    EXPECT_EQ(c->axis.x(), one.axis.x());
    EXPECT_EQ(c->axis.y(), one.axis.y());
    EXPECT_EQ(c->axis.z(), one.axis.z());
    EXPECT_EQ(c->half_angle, one.half_angle);
    EXPECT_EQ(c->residual, one.residual);
  }
  // The order of the points changes the rounding, not the cone.
  giPoint3coDynArr reversed(pts.count(), 16);
  for (int i = pts.count() - 1; i >= 0; --i) reversed.append(pts[i]);
  Cone r;
  ASSERT_EQ(fit(reversed, r), 1);
  EXPECT_LT(r.apex.distance(one.apex), 1e-9);
  EXPECT_NEAR(r.residual, one.residual, 1e-12);
}

}  // namespace
